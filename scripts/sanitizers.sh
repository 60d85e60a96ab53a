#!/usr/bin/env bash
# Builds the whole suite with AddressSanitizer + UndefinedBehaviorSanitizer and runs all of it, then
# builds the suites that hand work between threads with ThreadSanitizer and runs those. Any report
# fails the run. Build trees: build-asan/ and build-tsan/ (or $CUTLARK_SANITIZER_DIR/…).
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
base="${CUTLARK_SANITIZER_DIR:-$here}"
supp="$here/scripts/sanitizers"
export QT_QPA_PLATFORM=offscreen

configure() { # dir sanitizers
    if [ ! -f "$1/build.ninja" ]; then
        cmake -S "$here" -B "$1" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCUTLARK_SANITIZE="$2" \
            -DCUTLARK_BENCHMARKS=OFF >/dev/null
    fi
}

start=$(date +%s)
configure "$base/build-asan" address,undefined
cmake --build "$base/build-asan" --parallel "$(nproc)"
(
    cd "$base/build-asan"
    # The Vulkan drivers the GPU probe loads (not instrumented) leave an allocation behind in code
    # they unload, which LeakSanitizer can only report as "<unknown module>". Here the loader finds
    # no driver, so the probe and the CPU fallback still run; the drivers themselves are left out.
    VK_ICD_FILENAMES=/nonexistent/cutlark-no-driver.json VK_DRIVER_FILES=/nonexistent/cutlark-no-driver.json \
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:detect_stack_use_after_return=1 \
    LSAN_OPTIONS="suppressions=$supp/lsan.supp:print_suppressions=0" \
    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
        ctest --output-on-failure --parallel "$(nproc)" "$@"
)
echo "sanitizers: address + undefined, whole suite: $(($(date +%s) - start)) s" >&2

# The suites with threads in them: the cutout cache, the vector worker, the parallel open,
# cutlark-cli --jobs (the CLI suite runs the ThreadSanitizer build of cutlark-cli), the pool of
# pixel stores they all share, and the queue's neighbours decoded ahead.
start=$(date +%s)
threaded=(SubjectCutoutTest VectorWorkerTest OpenTest CliTest BufferPoolTest QueueMemoryTest)
configure "$base/build-tsan" thread
cmake --build "$base/build-tsan" --parallel "$(nproc)" --target "${threaded[@]}" cutlark-cli
(
    cd "$base/build-tsan"
    TSAN_OPTIONS="suppressions=$supp/tsan.supp:halt_on_error=1:second_deadlock_stack=1" \
        ctest --output-on-failure --parallel "$(nproc)" -R "^($(IFS='|'; echo "${threaded[*]}"))\$"
)
echo "sanitizers: thread, threaded suites: $(($(date +%s) - start)) s" >&2
