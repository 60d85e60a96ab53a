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
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
fetch() { (cd "$work" && npm pack --silent --cache "$work/npm-cache" "$1" >/dev/null 2>&1); }

# The runtime: without it subject mode runs on OpenCV, three times slower.
if [ "$(uname -m)" = x86_64 ] && ! have "$runtime" "$runtime_sha"; then
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

fetch @imgly/background-removal-data@1.4.5
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
