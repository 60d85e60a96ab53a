#!/usr/bin/env bash
# Runs the suites that hand work between threads N times in a row under ThreadSanitizer, with every
# core kept busy by other work, as on a loaded machine. Any report or failure stops the run.
#   scripts/stress-threads.sh [N, default 20]
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
rounds="${1:-20}"
build="${CUTLARK_SANITIZER_DIR:-$here}/build-tsan"
threaded=(SubjectCutoutTest VectorWorkerTest OpenTest CliTest)
[ -f "$build/build.ninja" ] || cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCUTLARK_SANITIZE=thread -DCUTLARK_BENCHMARKS=OFF >/dev/null
cmake --build "$build" --parallel "$(nproc)" --target "${threaded[@]}" cutlark-cli
busy=()
for _ in $(seq "$(nproc)"); do (while :; do :; done) & busy+=($!); done
trap 'kill "${busy[@]}" 2>/dev/null' EXIT
export QT_QPA_PLATFORM=offscreen
export TSAN_OPTIONS="suppressions=$here/scripts/sanitizers/tsan.supp:halt_on_error=1:second_deadlock_stack=1"
for round in $(seq "$rounds"); do
    (cd "$build" && ctest --output-on-failure --parallel "$(nproc)" -R "^($(IFS='|'; echo "${threaded[*]}"))\$" >/tmp/stress-threads.log 2>&1) || {
        cat /tmp/stress-threads.log
        echo "stress: round $round of $rounds failed" >&2
        exit 1
    }
    echo "stress: round $round of $rounds passed"
done
