#!/usr/bin/env bash
# Batches at scale, in two parts.
#
# Planning: a folder of 100 000 small images (made once and kept in the cache), sharded 64 ways. One
# slice is run twice with --resume: the first run does its ~1 560 images, the second finds them all
# done, so it is the planning alone (listing, naming, slicing, reading the manifest). The same with
# the 100 000 paths given as a --files-from list. Wall time and peak resident memory of each.
#
# The whole story: 300 photographs over 3 slices under GNU parallel, one slice killed with SIGKILL
# part-way and the line run again; then 30 photographs added and everything resumed. Checked at the
# end: every photograph has exactly one result, byte for byte what one process writes over the
# final folder, every manifest line names a result that is there and is that one process's bytes,
# no input is recorded done twice.
#
# BASELINE names another build's cutlark-cli to plan the folder beside ours (it has no --files-from).
set -euo pipefail
# An older build given as BASELINE may predate the in-process opt-out of ONNX Runtime's telemetry.
export ORT_DISABLE_TELEMETRY=1
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${CUTLARK_BUILD_DIR:-$here/build}"
cli="$build/cutlark-cli"
cache="${XDG_CACHE_HOME:-$HOME/.cache}/cutlark"
command -v parallel >/dev/null || CUTLARK_SETUP_TESTS=1 "$here/scripts/setup.sh" >/dev/null
if [ ! -x /usr/bin/time ]; then
    sudo_cmd=(); [ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
    "${sudo_cmd[@]}" apt-get update && "${sudo_cmd[@]}" apt-get install -y --no-install-recommends time
fi
CUTLARK_TEST_DATA=1 "$here/scripts/fetch-testdata.sh" >/dev/null
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

# Seconds and peak resident MB of a command, its output kept in $work/last.out and .err.
measure() {
    local t0 t1
    t0=$(date +%s%N)
    /usr/bin/time -f '%M' -o "$work/time.log" "$@" >"$work/last.out" 2>"$work/last.err" || true
    t1=$(date +%s%N)
    awk -v ns=$((t1 - t0)) -v kb="$(tail -1 "$work/time.log")" 'BEGIN { printf "%6.2f s %6d MB", ns / 1e9, kb / 1024 }'
}

# --- planning --------------------------------------------------------------------------------------
many="$cache/scale-100000"
if [ ! -f "$many/.complete" ]; then
    echo "making 100 000 small images in $many …" >&2
    rm -rf "$many" && mkdir -p "$many/photos"
    "$cli" process --set resizeEnabled=true --set resizeWidth=16 -o "$work/tiny.png" \
        "$cache/testdata/chelsea.png" >/dev/null 2>&1
    python3 - "$work/tiny.png" "$many/photos" <<'EOF'
import sys
data = open(sys.argv[1], "rb").read()
for i in range(100000):
    with open(f"{sys.argv[2]}/img-{i:06d}.png", "wb") as f:
        f.write(data)
EOF
    touch "$many/.complete"
fi
find "$many/photos" -name '*.png' >"$work/list.txt"
echo "## Planning one slice of 64 over 100 000 images ($(nproc) cores)"
echo
echo "| run | first run (its ~1 560 images) | again, all done: planning alone |"
echo "|---|---|---|"
plan() { # name, then the command's arguments after "process"
    local name="$1"
    shift
    rm -rf "$work/out" "$work/m.jsonl"
    local first again
    first="$(measure "$@" --set resizeEnabled=true --set resizeWidth=8 -o "$work/out" --shard 0/64 --resume "$work/m.jsonl")"
    local done
    done="$(grep -c '"output"' "$work/last.out" || true)"
    again="$(measure "$@" --set resizeEnabled=true --set resizeWidth=8 -o "$work/out" --shard 0/64 --resume "$work/m.jsonl")"
    local skipped
    skipped="$(grep -c '"skipped":"done"' "$work/last.out" || true)"
    echo "| $name | $first ($done written) | $again ($skipped skipped as done) |"
}
plan "cutlark-cli, the folder" "$cli" process "$many/photos"
plan "cutlark-cli, --files-from" "$cli" process --files-from "$work/list.txt"
if [ -n "${BASELINE:-}" ]; then plan "baseline, the folder" "$BASELINE" process "$many/photos"; fi

# --- 300 photographs, killed, resumed, added to, resumed -------------------------------------------
photos="$cache/scale-photos-330"
if [ ! -f "$photos/.complete" ]; then
    echo "making 330 photographs in $photos …" >&2
    rm -rf "$photos" && mkdir -p "$photos"
    sources=("$cache"/testdata/{astronaut,chelsea,coffee,rocket}.*)
    seq 0 329 | xargs -P "$(nproc)" -I{} bash -c '
        i={}; sources=('"${sources[*]}"')
        mirrored=false; [ $(((i / 4) % 2)) -eq 1 ] && mirrored=true
        "'"$cli"'" process --set quarterTurns=$((i % 4)) --set mirrored=$mirrored \
            --set resizeEnabled=true --set resizeWidth=$((900 + (i * 37) % 700)) \
            -o "'"$photos"'/photo-$(printf %03d "$i").jpg" "${sources[$((i % ${#sources[@]}))]}" >/dev/null 2>&1' || true
    touch "$photos/.complete"
fi
cd "$work"
rm -rf run && mkdir -p run/photos && cd run
cp "$photos"/photo-{000..299}.jpg photos/
echo '{"keyWhiteEnabled": true, "trimEnabled": true, "paddingEnabled": true, "padAmount": 24,
       "resizeEnabled": true, "resizeWidth": 800}' >look.json
line=(parallel -j3 --joblog slices.log --resume-failed cutlark-cli process --preset look.json --jobs 1
      -o out/ --shard {}/3 --resume manifests/{}.jsonl photos/ ::: 0 1 2)
export PATH="$build:$PATH"
echo
echo "## 300 photographs over 3 slices under GNU parallel"
echo
t0=$(date +%s%N)
"${line[@]}" >parallel1.out 2>&1 &
pid=$!
while [ "$(wc -l 2>/dev/null <manifests/1.jsonl || echo 0)" -lt 20 ]; do sleep 0.05; done
pkill -KILL -f -- '--shard 1/3' || true
wait "$pid" || echo "- first run: parallel exited $? (one slice killed after $(wc -l <manifests/1.jsonl) records)"
t1=$(date +%s%N)
"${line[@]}" >parallel2.out 2>&1 && echo "- the line again: every slice ended well"
t2=$(date +%s%N)
cp "$photos"/photo-{300..329}.jpg photos/
mv slices.log slices-1.log
"${line[@]}" >parallel3.out 2>&1 && echo "- 30 photographs added, slices.log moved aside, the line again: every slice ended well"
t3=$(date +%s%N)
awk -v a=$((t1 - t0)) -v b=$((t2 - t1)) -v c=$((t3 - t2)) \
    'BEGIN { printf "- times: killed run %.1f s, resume %.1f s, after the additions %.1f s\n", a / 1e9, b / 1e9, c / 1e9 }'
skipped3="$(grep -c '"skipped":"done"' parallel3.out || true)"
written3="$(grep -c '"output"' parallel3.out || true)"
echo "- the last run: $written3 written, $skipped3 skipped as done"
cutlark-cli process --preset look.json -o one/ photos/ >one.out 2>one.err
results="$(find out -type f -name '*-out.*' | wc -l)"
same="$(diff -r out one >/dev/null && echo yes || echo NO)"
echo "- results: $results for 330 photographs; byte for byte one process's over the final folder: $same"
python3 - manifests one out <<'EOF'
import json, os, sys, glob, collections
manifests, one, out = sys.argv[1:4]
done = collections.Counter()
lines = untrue = 0
for path in sorted(glob.glob(os.path.join(manifests, "*.jsonl"))):
    for raw in open(path, encoding="utf-8", errors="surrogateescape"):
        if not raw.endswith("\n"):
            continue
        lines += 1
        record = json.loads(raw)
        if record["status"] != "done":
            untrue += 1
            continue
        done[record["input"]] += 1
        output = record["output"]
        twin = os.path.join(one, os.path.relpath(output, os.path.abspath(out)))
        if not os.path.exists(output) or open(output, "rb").read() != open(twin, "rb").read():
            untrue += 1
twice = sum(1 for n in done.values() if n > 1)
print(f"- manifests: {lines} lines, {len(done)} inputs done, {twice} recorded twice, {untrue} untrue")
EOF
echo "- cutlark-cli manifest manifests/*.jsonl: $(cutlark-cli manifest manifests/*.jsonl | head -1)"
