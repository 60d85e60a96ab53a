#!/usr/bin/env bash
# Smooth curves against potrace 1.16 on text (DejaVu Sans, Serif and Sans Mono, upright, italic and
# bold, 24 to 300 pixels a glyph, antialiased and binary), two icons and the silhouette of an animal
# at 1, 4 and 12 megapixels (scored at 1x only beyond 2), drawn by bench_vector itself: the error at the boundary (pixels on the wrong
# side of it at 4x, in source pixels per source pixel of boundary), the IoU of the ink rendered back
# at the source size and at 4x, the SVG's size and the time to trace. Both with the same speck floor
# (0.04 % of the picture, our silhouette's). Our polygons are listed too. Then stacked colour
# layers against separate ones on two posterised photographs: the lowest alpha rendered back inside
# the picture, and the colour fidelity.
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${CUTLARK_BUILD_DIR:-$here/build}"
need=()
command -v potrace >/dev/null || need+=(potrace)
fc-list | grep -q "DejaVu Serif" || need+=(fonts-dejavu-core fonts-dejavu-extra)
if ((${#need[@]})); then
    sudo_cmd=(); [ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
    "${sudo_cmd[@]}" apt-get update && "${sudo_cmd[@]}" apt-get install -y --no-install-recommends "${need[@]}"
fi
cmake --build "$build" --target bench_vector >/dev/null
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
"$build/bench/bench_vector" --curves "$work"

# Stacked colour layers: photographs softened and posterised, traced apart and stacked.
CUTLARK_TEST_DATA=1 "$here/scripts/fetch-testdata.sh" >/dev/null
for photo in "${XDG_CACHE_HOME:-$HOME/.cache}"/cutlark/testdata/{coffee.png,rocket.jpg}; do
    echo
    echo "$(basename "$photo"):"
    QT_QPA_PLATFORM=offscreen "$build/bench/bench_vector" --stacked "$photo"
done
