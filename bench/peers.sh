#!/usr/bin/env bash
# Times the pixel engines next to ImageMagick and libvips doing the same work on the same 4000×3000
# inputs, one thread each, with decoding and encoding taken out: ImageMagick reads its memory-mapped
# .mpc cache and libvips its native .v file, and the time of a bare start-up and read is subtracted.
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${CUTLARK_BUILD_DIR:-$here/build}"
runs="${RUNS:-5}"

need=()
command -v convert >/dev/null || need+=(imagemagick)
command -v vips >/dev/null || need+=(libvips-tools)
command -v python3 >/dev/null || need+=(python3)
command -v potrace >/dev/null || need+=(potrace)
if ((${#need[@]})); then
    sudo_cmd=(); [ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
    "${sudo_cmd[@]}" apt-get update && "${sudo_cmd[@]}" apt-get install -y --no-install-recommends "${need[@]}"
fi
CUTLARK_SETUP_TESTS=1 "$here/scripts/setup.sh" >/dev/null

work="$(mktemp -d /dev/shm/cutlark-peers.XXXXXX 2>/dev/null || mktemp -d)"
trap 'rm -rf "$work"' EXIT
"$build/bench/bench_engines" --write-inputs "$work"
for s in white-sheet clear-sheet; do
    convert "$work/$s.png" "$work/$s.mpc"
    vips copy "$work/$s.png" "$work/$s.v"
done

export MAGICK_THREAD_LIMIT=1 VIPS_CONCURRENCY=1 OMP_NUM_THREADS=1

# Median wall time of a command over $runs runs, in milliseconds.
median_ms() {
    local times=()
    for ((i = 0; i < runs; i++)); do
        local t0 t1
        t0=$(date +%s%N)
        "$@" >/dev/null 2>&1
        t1=$(date +%s%N)
        times+=($(((t1 - t0) / 1000)))
    done
    printf '%s\n' "${times[@]}" | sort -n | awk '{a[NR]=$1} END {printf "%.1f", a[int((NR+1)/2)]/1000}'
}

im() { convert "$work/$1.mpc" "${@:2}" null:; }
im_base=$(median_ms im white-sheet)
im_op() { local t; t=$(median_ms im "$@"); awk -v t="$t" -v b="$im_base" 'BEGIN{v=t-b; if (v<0) v=0; printf "%.1f", v}'; }

# libvips streams, so a copy costs what most of its operations cost; only the start-up and the
# opening of the file are taken out, and its writing of the result (to memory-backed /dev/shm) stays in.
vips_base=$(median_ms vipsheader "$work/white-sheet.v")
vips_op() { local t; t=$(median_ms "$@"); awk -v t="$t" -v b="$vips_base" 'BEGIN{v=t-b; if (v<0) v=0; printf "%.1f", v}'; }
vips_find_trim() { vips find_trim "$work/white-sheet.v" --threshold 25 --background 255; }

declare -A theirs_im theirs_vips
theirs_im[ContentRect]=$(im_op white-sheet -fuzz 25% -trim +repage)
theirs_im[KeyOutWhiteFlood]=$(im_op white-sheet -alpha set -fuzz 30% -fill none -draw "color 0,0 floodfill")
theirs_im[KeyOutWhiteInternal]=$(im_op white-sheet -fuzz 30% -transparent white)
theirs_im[Pad]=$(im_op white-sheet -bordercolor none -border 40)
theirs_im[ColorBackground]=$(im_op clear-sheet -background "#ff8040" -flatten)
theirs_im[Canvas]=$(im_op white-sheet -background none -gravity center -extent 4100x3100)
theirs_im[Resize]=$(im_op white-sheet -resize 1024x768!)
theirs_vips[ContentRect]=$(vips_op vips_find_trim)
theirs_vips[Pad]=$(vips_op vips embed "$work/white-sheet.v" "$work/out.v" 40 40 4080 3080)
theirs_vips[Canvas]=$(vips_op vips gravity "$work/white-sheet.v" "$work/out.v" centre 4100 3100)
theirs_vips[Resize]=$(vips_op vips resize "$work/white-sheet.v" "$work/out.v" 0.256 --vscale 0.256)

json="$work/ours.json"
"$build/bench/bench_engines" --benchmark_repetitions="$runs" --benchmark_report_aggregates_only=true \
    --benchmark_format=json >"$json" 2>/dev/null

python3 - "$json" <<'PY' "$(declare -p theirs_im)" "$(declare -p theirs_vips)"
import json, re, sys
data = json.load(open(sys.argv[1]))
def parse(decl):
    return dict(re.findall(r'\[(\w+)\]="([^"]*)"', decl))
im, vips = parse(sys.argv[2]), parse(sys.argv[3])
ours = {}
for b in data["benchmarks"]:
    if b.get("aggregate_name") != "median": continue
    name = b["run_name"].replace("BM_", "").split("/")[0]
    if name in ours: continue
    unit = {"ms": 1.0, "us": 1e-3, "ns": 1e-6}[b["time_unit"]]
    ours[name] = b["real_time"] * unit
print(f"one read pass over 48 MB: {ours['ReadPass']:.2f} ms, memcpy of 48 MB: {ours['Memcpy']:.2f} ms\n")
print(f"{'operation':<24}{'ours ms':>10}{'ImageMagick':>13}{'ratio':>8}{'libvips':>10}{'ratio':>8}")
for op in ["ContentRect", "AlphaContentRect", "BackgroundIsMostlyWhite", "KeyOutWhiteFlood", "KeyOutWhiteInternal",
           "Pad", "ColorBackground", "GradientBackground", "Canvas", "Resize", "PipelineKeyTrimPadColor"]:
    o = ours.get(op)
    row = f"{op:<24}{o:>10.2f}"
    for theirs in (im, vips):
        t = theirs.get(op)
        row += f"{float(t):>13.1f}{float(t)/o:>7.1f}x" if t else f"{'-':>13}{'':>8}"
    print(row)
print("\nratio = their time / ours; above 1 means we are faster.")
PY

# The silhouette trace next to potrace on the same 4000×3000 drawing (potrace reads it as a PBM).
"$build/bench/bench_vector" --write-inputs "$work"
potrace_ms=$(median_ms potrace -s "$work/drawing.pbm" -o "$work/potrace.svg")
"$build/bench/bench_vector" --benchmark_filter=BM_Trace$ --benchmark_repetitions="$runs" \
    --benchmark_report_aggregates_only=true --benchmark_format=json >"$work/vector.json" 2>/dev/null
ours_ms=$(python3 -c 'import json,sys; print(next(b["real_time"] for b in json.load(open(sys.argv[1]))["benchmarks"] if b.get("aggregate_name")=="median"))' "$work/vector.json")
ours_iou=$("$build/bench/bench_vector" --iou "$work/drawing.png" "$work/ours.svg")
potrace_iou=$("$build/bench/bench_vector" --iou "$work/drawing.png" "$work/potrace.svg")
printf '\n%-24s%10s%12s%10s\n' "silhouette trace" "ms" "SVG bytes" "IoU"
printf '%-24s%10.1f%12s%10s\n' "ours (in memory)" "$ours_ms" "$(stat -c %s "$work/ours.svg")" "$ours_iou"
printf '%-24s%10.1f%12s%10s\n' "potrace -s (from PBM)" "$potrace_ms" "$(stat -c %s "$work/potrace.svg")" "$potrace_iou"
