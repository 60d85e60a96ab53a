#!/usr/bin/env bash
# Fetches the subject network and its runtime once and caches them in the user's cache folder:
# the IS-Net weights of the DIS project as published in the npm package
# @imgly/background-removal-data@1.4.5 (AGPL-3.0), fp16, in chunks; joined, checked, converted to
# fp32 (OpenCV runs only that, and ONNX Runtime runs it faster than the fp16 graph). Then ONNX
# Runtime's CPU library (MIT) as the npm package onnxruntime-node@1.30.0 ships it for linux-x64:
# only libonnxruntime.so.1 is kept, after its checksum. npm's cache for both stays in a temporary
# folder, so no package tarball is left behind. Nothing of it is committed. A second call with the
# files in place returns at once.
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
cache="${XDG_CACHE_HOME:-$HOME/.cache}/cutlark"
target="$cache/isnet-medium-fp32.onnx"

# The fp16 graph as joined from the package's chunks, and what the conversion makes of it.
joined_sha=""
converted_sha=""
runtime_sha=""
source "$here/model.sha256"

runtime="$cache/libonnxruntime.so.1"

have() { [ -f "$1" ] && echo "$2  $1" | sha256sum --quiet -c - 2>/dev/null; }
if have "$target" "$converted_sha" && { have "$runtime" "$runtime_sha" || [ "$(uname -m)" != x86_64 ]; }; then
    exit 0
fi

command -v npm >/dev/null || { echo "cutlark: npm is needed to fetch the subject network" >&2; exit 1; }
mkdir -p "$cache"

# An unreachable registry is found out in seconds, said once with what still works, and remembered
# for an hour, so that every later ./run.sh doesn't wait again (CUTLARK_FETCH_RETRY=1 tries anyway).
unreachable="$cache/registry-unreachable"
missing_what="the subject network and ONNX Runtime"
if have "$target" "$converted_sha"; then missing_what="ONNX Runtime"; fi
still_works="everything but subject mode works; try again later with CUTLARK_FETCH_RETRY=1 scripts/fetch-model.sh"
if [ "$missing_what" = "ONNX Runtime" ]; then still_works="subject mode runs on OpenCV, three times slower"; fi
if [ -f "$unreachable" ] && [ "${CUTLARK_FETCH_RETRY:-0}" != 1 ] &&
    [ -n "$(find "$unreachable" -mmin -60 2>/dev/null)" ]; then
    echo "cutlark: not fetching $missing_what: the npm registry was unreachable $(date -r "$unreachable" '+at %H:%M'); $still_works" >&2
    exit 1
fi
if ! timeout 20 npm view --fetch-timeout=15000 --fetch-retries=0 onnxruntime-node@1.30.0 version >/dev/null 2>&1; then
    touch "$unreachable"
    echo "cutlark: the npm registry can't be reached, so $missing_what can't be fetched; $still_works" >&2
    exit 1
fi
rm -f "$unreachable"

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
# npm's own progress shows on a terminal; the sizes are said first.
fetch() { (cd "$work" && npm pack --cache "$work/npm-cache" --fetch-retries=1 "$1" >/dev/null); }

# The runtime: without it subject mode runs on OpenCV, three times slower.
if [ "$(uname -m)" = x86_64 ] && ! have "$runtime" "$runtime_sha"; then
    echo "cutlark: fetching ONNX Runtime (onnxruntime-node 1.30.0, about 136 MB, once)…" >&2
    if fetch onnxruntime-node@1.30.0 &&
        tar -xzf "$work"/onnxruntime-node-1.30.0.tgz -C "$work" package/bin/napi-v6/linux/x64/libonnxruntime.so.1 &&
        have "$work/package/bin/napi-v6/linux/x64/libonnxruntime.so.1" "$runtime_sha"; then
        install -m 0644 "$work/package/bin/napi-v6/linux/x64/libonnxruntime.so.1" "$runtime.part"
        mv "$runtime.part" "$runtime"
    else
        echo "cutlark: ONNX Runtime couldn't be fetched; the subject network runs on OpenCV" >&2
    fi
    rm -rf "$work/package" "$work"/onnxruntime-node-*.tgz "$work/npm-cache"
fi
if have "$target" "$converted_sha"; then
    exit 0
fi

echo "cutlark: fetching the subject network (@imgly/background-removal-data 1.4.5, once)…" >&2
fetch @imgly/background-removal-data@1.4.5 || {
    echo "cutlark: the subject network couldn't be fetched; everything but subject mode works" >&2
    exit 1
}
tar -xzf "$work"/imgly-background-removal-data-1.4.5.tgz -C "$work"

# The package lists the chunks of each model with their byte offsets; join them in that order.
/usr/bin/python3 - "$work/package/dist" "$work/isnet-fp16.onnx" <<'PY'
import json, os, sys
dist, out = sys.argv[1], sys.argv[2]
entry = json.load(open(os.path.join(dist, "resources.json")))["/models/medium"]
chunks = sorted(entry["chunks"], key=lambda c: c["offsets"][0])
with open(out, "wb") as f:
    for c in chunks:
        data = open(os.path.join(dist, c["hash"]), "rb").read()
        if len(data) != c["offsets"][1] - c["offsets"][0]:
            sys.exit(f"chunk {c['hash']} has the wrong size")
        f.write(data)
if os.path.getsize(out) != entry["size"]:
    sys.exit("the joined model has the wrong size")
PY

if [ -n "$joined_sha" ]; then
    echo "$joined_sha  $work/isnet-fp16.onnx" | sha256sum --quiet -c - || {
        echo "cutlark: the downloaded network isn't the expected one" >&2
        exit 1
    }
fi
/usr/bin/python3 "$here/convert_model.py" "$work/isnet-fp16.onnx" "$work/isnet-fp32.onnx" >/dev/null
if [ -n "$converted_sha" ]; then
    echo "$converted_sha  $work/isnet-fp32.onnx" | sha256sum --quiet -c - || {
        echo "cutlark: the converted network differs from the one this version expects" >&2
        exit 1
    }
fi
mv "$work/isnet-fp32.onnx" "$target"
