#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (AddressSanitizer and UndefinedBehaviorSanitizer on) and runs
# each for a bounded time, starting from the committed seeds in fuzz/corpus/. Crashes are written to
# fuzz/crashes/; each one found becomes a regression test under tests/.
#   ./fuzz.sh [SECONDS per target, default 60]
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
seconds="${1:-60}"
CUTLARK_SETUP_TESTS=1 "$here/scripts/setup.sh" >/dev/null
need=()
command -v clang++ >/dev/null || need+=(clang)
dpkg-query -W -f='${Status}' libclang-rt-14-dev 2>/dev/null | grep -q "install ok installed" || need+=(libclang-rt-14-dev)
if ((${#need[@]})); then
    sudo_cmd=(); [ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
    "${sudo_cmd[@]}" apt-get update && "${sudo_cmd[@]}" apt-get install -y --no-install-recommends "${need[@]}"
fi
build="$here/build-fuzz"
if [ ! -f "$build/build.ninja" ]; then
    CC=clang CXX=clang++ cmake -S "$here/fuzz" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
fi
cmake --build "$build" --parallel "$(nproc)"
mkdir -p "$here/fuzz/crashes"
status=0
for target in FuzzImageFile FuzzEngines FuzzVector FuzzText FuzzContainers; do
    work="$build/corpus-$target"
    mkdir -p "$work"
    echo "== $target for ${seconds}s"
    QT_QPA_PLATFORM=offscreen "$build/$target" -max_total_time="$seconds" -rss_limit_mb=4096 -timeout=30 \
        -artifact_prefix="$here/fuzz/crashes/$target-" "$work" "$here/fuzz/corpus/$target" || status=1
done
exit $status
