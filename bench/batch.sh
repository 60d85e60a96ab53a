#!/usr/bin/env bash
# Batch throughput: N photographs of 12 megapixels (4000×3000 JPEG, a photograph on a white sheet at
# its own size and place) go through white keying + trim + padding + colour background + resize to
# 2048 wide, written as JPEG. Timed for cutlark-cli process --jobs J, ImageMagick's mogrify and a
# libvips program (bench/batch_vips.c) doing the same work on the same files; each peer is timed both
# one process with its own threads and J processes of one thread each, and the faster is reported.
# Prints images per second and peak resident memory. COUNT (200) and JOBS (2) can be set; BASELINE
# names another build's cutlark-cli (an earlier commit's, say) to run the same batch beside ours.
set -euo pipefail
# An older build given as BASELINE may predate the in-process opt-out of ONNX Runtime's telemetry.
export ORT_DISABLE_TELEMETRY=1
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${CUTLARK_BUILD_DIR:-$here/build}"
count="${COUNT:-200}"
jobs="${JOBS:-2}"

need=()
command -v mogrify >/dev/null || need+=(imagemagick)
pkg-config --exists vips 2>/dev/null || need+=(libvips-dev)
[ -x /usr/bin/time ] || need+=(time)
if ((${#need[@]})); then
    sudo_cmd=(); [ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
    "${sudo_cmd[@]}" apt-get update && "${sudo_cmd[@]}" apt-get install -y --no-install-recommends "${need[@]}"
fi
CUTLARK_SETUP_TESTS=1 "$here/scripts/setup.sh" >/dev/null
CUTLARK_TEST_DATA=1 "$here/scripts/fetch-testdata.sh" >/dev/null

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cc -O2 -o "$work/batch_vips" "$here/bench/batch_vips.c" $(pkg-config --cflags --libs vips)

# The photographs are made once and kept: a different photograph, size and place for each.
inputs="${XDG_CACHE_HOME:-$HOME/.cache}/cutlark/batch-$count"
if [ ! -f "$inputs/.complete" ]; then
    rm -rf "$inputs" && mkdir -p "$inputs"
    photos=("${XDG_CACHE_HOME:-$HOME/.cache}"/cutlark/testdata/{astronaut,chelsea,coffee,rocket}.*)
    echo "making $count photographs of 4000×3000 in $inputs …" >&2
    seq 1 "$count" | xargs -P "$(nproc)" -I{} bash -c '
        i={}; photos=('"${photos[*]}"')
        photo=${photos[$((i % ${#photos[@]}))]}
        w=$((2600 + (i * 37) % 900)); x=$(((i * 53) % (4000 - w - 100) + 50)); y=$(((i * 29) % 300 + 50))
        convert -size 4000x3000 xc:white \( "$photo" -resize "${w}x$((3000 - y - 60))" \) \
            -geometry "+$x+$y" -composite -quality 90 "'"$inputs"'/photo-$(printf %04d "$i").jpg"'
    touch "$inputs/.complete"
fi
files=("$inputs"/photo-*.jpg)
pixels=$((count * 12))

# Wall time in seconds and peak resident memory in MB of a command (its largest process).
measure() {
    local log="$work/time.log"
    local t0 t1
    t0=$(date +%s%N)
    /usr/bin/time -f '%M' -o "$log" "$@" >/dev/null 2>"$work/err.log" || { cat "$work/err.log" >&2; return 1; }
    t1=$(date +%s%N)
    echo "$(((t1 - t0) / 1000000)) $(($(tail -1 "$log") / 1024))"
}

report() { # name ms peak
    awk -v n="$1" -v ms="$2" -v mb="$3" -v c="$count" \
        'BEGIN { printf "| %-42s | %7.2f | %7.1f s | %6d MB |\n", n, c / (ms / 1000), ms / 1000, mb }'
}

echo "| $count × 12 MP: key white, trim, pad 40, colour, resize to 2048 | images/s | wall | peak RSS |"
echo "|---|---|---|---|"

# One batch through a build's cutlark-cli, into a fresh folder.
cli_batch() {
    rm -rf "$work/out" && mkdir "$work/out"
    measure "$1" process --jobs "$jobs" -o "$work/out" \
        --set keyWhiteEnabled=true --set trimEnabled=true --set paddingEnabled=true --set padAmount=40 \
        --set backgroundEnabled=true --set backgroundColor='#3366CC' \
        --set resizeEnabled=true --set resizeWidth=2048 "${files[@]}"
}

read -r ms mb < <(cli_batch "$build/cutlark-cli")
report "cutlark-cli process --jobs $jobs" "$ms" "$mb"
[ "$(ls "$work/out" | wc -l)" -eq "$count" ] || { echo "cutlark-cli wrote $(ls "$work/out" | wc -l) files" >&2; exit 1; }
ours=$ms
if [ -n "${BASELINE:-}" ]; then
    read -r ms mb < <(cli_batch "$BASELINE")
    report "baseline: $BASELINE" "$ms" "$mb"
    baseline=$ms
fi

# ImageMagick: the same chain. White is R, G and B all at least 214 of 255 (16 %), as our key floor at 30.
mogrify_args=(-bordercolor white -border 1 -fuzz 16% -fill none -draw 'color 0,0 floodfill' -shave 1x1
    +repage -fuzz 0 -trim +repage -bordercolor none -border 40
    -background '#3366CC' -flatten -resize 2048x -quality 92 -format jpg)
best_im=""
rm -rf "$work/im" && mkdir "$work/im"
read -r ms mb < <(measure mogrify -path "$work/im" "${mogrify_args[@]}" "${files[@]}")
report "mogrify (its own threads)" "$ms" "$mb"; best_im=$ms
rm -rf "$work/im" && mkdir "$work/im"
read -r ms mb < <(MAGICK_THREAD_LIMIT=1 measure bash -c 'printf "%s\0" "${@:2}" | xargs -0 -P '"$jobs"' -n 10 mogrify -path "$1" '"$(printf '%q ' "${mogrify_args[@]}")" _ "$work/im" "${files[@]}")
report "mogrify, $jobs processes × 1 thread" "$ms" "$mb"; ((ms < best_im)) && best_im=$ms

best_vips=""
rm -rf "$work/vips" && mkdir "$work/vips"
read -r ms mb < <(measure "$work/batch_vips" "$work/vips" 40 2048 214 51 102 204 "${files[@]}")
report "libvips (its own threads)" "$ms" "$mb"; best_vips=$ms
rm -rf "$work/vips" && mkdir "$work/vips"
read -r ms mb < <(VIPS_CONCURRENCY=1 measure bash -c 'printf "%s\0" "${@:2}" | xargs -0 -P '"$jobs"' -n 10 "$1" "$0" 40 2048 214 51 102 204' "$work/vips" "$work/batch_vips" "${files[@]}")
report "libvips, $jobs processes × 1 thread" "$ms" "$mb"; ((ms < best_vips)) && best_vips=$ms

awk -v o="$ours" -v im="$best_im" -v v="$best_vips" \
    'BEGIN { printf "\ncutlark-cli is %.1f× ImageMagick and %.2f× libvips (each at its best).\n", im / o, v / o }'
if [ -n "${baseline:-}" ]; then
    awk -v o="$ours" -v b="$baseline" 'BEGIN { printf "cutlark-cli gives %.2f× the baseline'"'"'s images per second.\n", b / o }'
fi
