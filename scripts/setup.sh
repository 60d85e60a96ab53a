#!/usr/bin/env bash
# Brings a Debian 12 machine up to what Cutlark needs and builds it.
# Idempotent: packages already present are not touched, and an unchanged tree builds in seconds.
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build_dir="${CUTLARK_BUILD_DIR:-$here/build}"

packages=(
    cmake ninja-build g++ pkg-config          # the toolchain
    qt6-base-dev qt6-svg-dev libgl-dev        # Qt 6 Core/Gui/Widgets/Concurrent/Svg/Test
    qt6-image-formats-plugins                 # TIFF and WebP readers and writers for Qt
    libheif-dev                               # HEIC/HEIF decoding and encoding
    libopencv-dev                             # blur, morphology, contours, the subject network
    libgtest-dev libgmock-dev                 # the test suites
    libbenchmark-dev                          # the micro-benchmarks in bench/
    breeze-icon-theme                         # fallback icon theme for the window
)

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done

if ((${#missing[@]})); then
    echo "cutlark: installing ${missing[*]}" >&2
    sudo_cmd=()
    if [ "$(id -u)" -ne 0 ]; then sudo_cmd=(sudo); fi
    "${sudo_cmd[@]}" apt-get update
    DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y --no-install-recommends "${missing[@]}"
fi

if [ ! -f "$build_dir/build.ninja" ]; then
    cmake -S "$here" -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=Release
fi
cmake --build "$build_dir" --parallel "$(nproc)"
