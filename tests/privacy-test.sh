#!/usr/bin/env bash
# Cutlark talks to no network and writes nothing outside the user's chosen files and its own private
# places, and neither does any library it loads (ONNX Runtime's telemetry included). Each program
# runs under strace with a fresh, empty home, cache folder (holding only links to the network, its
# runtime and the test photographs), runtime folder and temporary folder; then no socket but a
# local one may have been opened, no file or folder made outside the output folder, our cache
# folder and the runtime folder, and the home and temporary folders must hold nothing new.
# Usage: privacy-test.sh BUILD_DIR       (exit 77: the network or the photographs aren't installed)
set -euo pipefail
build="$(cd "$1" && pwd)"
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
fail() { echo "privacy test: $*" >&2; exit 1; }
command -v strace >/dev/null || fail "strace is needed (scripts/setup.sh installs it)"

cache="${XDG_CACHE_HOME:-$HOME/.cache}/cutlark"
for f in isnet-medium-fp32.onnx libonnxruntime.so.1 testdata/coffee.png; do
    [ -f "$cache/$f" ] || { echo "privacy test: $cache/$f isn't there; ./test.sh fetches it" >&2; exit 77; }
done

sandbox="$(mktemp -d "$build/privacy.XXXXXX")"
trap 'rm -rf "$sandbox"' EXIT
home="$sandbox/home"
mkdir -p "$home/.cache/cutlark" "$sandbox/tmp" "$sandbox/run" "$sandbox/out" "$sandbox/in"
chmod 700 "$sandbox/run"
for f in isnet-medium-fp32.onnx libonnxruntime.so.1 testdata; do ln -s "$cache/$f" "$home/.cache/cutlark/$f"; done
cp "$cache/testdata/coffee.png" "$sandbox/in/photo.png"

# Runs a command under strace in the fresh environment; its trace goes to $sandbox/NAME.trace.
traced() {
    local name="$1"
    shift
    env -i PATH="$PATH" LANG=C.UTF-8 HOME="$home" TMPDIR="$sandbox/tmp" XDG_RUNTIME_DIR="$sandbox/run" \
        QT_QPA_PLATFORM=offscreen \
        strace -f -qq -y -o "$sandbox/$name.trace" \
        -e trace=network,open,openat,creat,mkdir,mkdirat,rename,renameat,renameat2,link,linkat,symlink,symlinkat \
        "$@"
}

# Checks a trace and what the run left in the home and temporary folders.
check() {
    local name="$1"
    /usr/bin/python3 "$here/privacy-check.py" "$sandbox/$name.trace" "$sandbox/out" "$home/.cache/cutlark" \
        "$sandbox/run" || fail "$name: see above"
    local left
    left="$(find "$home" "$sandbox/tmp" -mindepth 1 -not -path "$home/.cache" -not -path "$home/.cache/cutlark" \
        -not -path "$home/.cache/cutlark/*")"
    [ -z "$left" ] || fail "$name left behind: $left"
    grep -q 'libonnxruntime.so.1' "$sandbox/$name.trace"
}

subject=(--set keyWhiteEnabled=true --set bgRemovalMode=subject)

# The command line, a subject cutout of a file and of standard input.
traced cli "$build/cutlark-cli" process "${subject[@]}" -o "$sandbox/out" "$sandbox/in/photo.png" >"$sandbox/cli.json" ||
    fail "cutlark-cli process failed: $(cat "$sandbox/cli.json")"
grep -q '"output"' "$sandbox/cli.json" && ! grep -q subjectNotFound "$sandbox/cli.json" || fail "no cutout: $(cat "$sandbox/cli.json")"
check cli || fail "cutlark-cli never loaded ONNX Runtime"
traced stdin "$build/cutlark-cli" process "${subject[@]}" --stdout - <"$sandbox/in/photo.png" >"$sandbox/out/stdin.png" ||
    fail "cutlark-cli --stdout failed"
check stdin || fail "cutlark-cli - never loaded ONNX Runtime"

# The window as it starts with a photograph: it must not even load the network.
traced window timeout -s TERM 5 "$build/cutlark" "$sandbox/in/photo.png" || [ $? = 124 ] || fail "the window failed"
if check window; then fail "the window loaded ONNX Runtime at start"; fi
grep -q 'isnet-medium' "$sandbox/window.trace" && fail "the window read the network at start"

# The window, the tests and the benchmarks, each cutting out a photograph in its own process.
traced window-cutout "$build/tests/ContentViewTest" --gtest_filter='RealNetworkWindow.*' >/dev/null ||
    fail "the window's real cutout test failed"
check window-cutout || fail "the window's cutout never loaded ONNX Runtime"
traced tests "$build/tests/SubjectCutoutTest" --gtest_filter='RealNetwork.TheModelCutsOutTheCupOfARealPhotograph' \
    >/dev/null || fail "the real-network test failed"
check tests || fail "the tests never loaded ONNX Runtime"
if [ -x "$build/bench/bench_cutout" ]; then
    traced bench "$build/bench/bench_cutout" --benchmark_filter='BM_CutoutWarm/0' >/dev/null ||
        fail "bench_cutout failed"
    check bench || fail "the benchmark never loaded ONNX Runtime"
fi
echo "privacy test: no network, nothing written outside the chosen and private places"
