#!/usr/bin/env bash
# Builds the .deb, unpacks it into a throwaway root and checks what a user gets from it: both
# programs answer from there, the man pages render without warnings, the metainfo validates and
# the bash completion offers commands and setting names.
# Usage: package-test.sh BUILD_DIR
set -euo pipefail
build="$1"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
fail() { echo "package test: $*" >&2; exit 1; }

(cd "$build" && cpack -B "$work/out" >"$work/cpack.log" 2>&1) || { cat "$work/cpack.log" >&2; fail "cpack failed"; }
deb="$(ls "$work"/out/cutlark_*.deb)"
network="$(ls "$work"/out/cutlark-network_*.deb 2>/dev/null || true)"
depends="$(dpkg-deb -f "$deb" Depends)"
for lib in libqt6widgets6 libheif1 libjpeg62-turbo libopencv-core406 libexiv2-27; do
    [[ "$depends" == *"$lib"* ]] || fail "Depends lacks $lib: $depends"
done
dpkg-deb -c "$deb" | grep -q 'isnet-medium' && fail "the network went into the package"
dpkg -x "$deb" "$work/root"
root="$work/root/usr"

[ "$("$root/bin/cutlark-cli" --version)" = "$("$build/cutlark-cli" --version)" ] || fail "cutlark-cli --version"
QT_QPA_PLATFORM=offscreen "$root/bin/cutlark" --version | grep -q '^cutlark ' || fail "cutlark --version"

for page in cutlark cutlark-cli; do
    warnings="$(zcat "$root/share/man/man1/$page.1.gz" | groff -k -man -ww -z 2>&1)"
    [ -z "$warnings" ] || fail "$page.1: $warnings"
done
zgrep -q 'stdout' "$root/share/man/man1/cutlark-cli.1.gz" || fail "the man page lacks the process options"
zgrep -q 'resizeWidth' "$root/share/man/man1/cutlark-cli.1.gz" || fail "the man page lacks the settings"

# Debian's own checks: no errors (unstripped programs, uncompressed pages, a missing copyright file
# or changelog, an empty description were all errors once).
errors="$(lintian "$deb" 2>&1 | grep '^E:' || true)"
[ -z "$errors" ] || fail "lintian: $errors"
for needed in libqt6svg6 breeze-icon-theme qt6-image-formats-plugins; do
    [[ "$depends" == *"$needed"* ]] || fail "Depends lacks $needed, which is loaded at run time: $depends"
done
[ -f "$root/share/doc/cutlark/copyright" ] || fail "no copyright file"

appstreamcli validate --no-net "$root/share/metainfo/io.github.cutlark.Cutlark.metainfo.xml" >/dev/null ||
    fail "the metainfo doesn't validate"
[ -f "$root/share/doc/cutlark/LICENSE" ] || fail "no LICENSE"

# What the completion offers after "cutlark-cli process --set resiz", "cutlark-cli pro",
# "--format w", "--set backgroundIm" (not the picture, which --set refuses) and "--set trimEnabled=t"
# (which bash splits at "=").
offered="$(bash -c '
    source "$1"
    offer() { COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); COMP_LINE="$line"; COMP_POINT=${#line}; _cutlark_cli; echo "${COMPREPLY[*]}"; }
    line="cutlark-cli process --set resiz" offer cutlark-cli process --set resiz
    line="cutlark-cli pro" offer cutlark-cli pro
    line="cutlark-cli process --format w" offer cutlark-cli process --format w
    line="cutlark-cli process --set backgroundIm" offer cutlark-cli process --set backgroundIm
    line="cutlark-cli process --set trimEnabled=t" offer cutlark-cli process --set trimEnabled = t
    line="cutlark-cli process --set bgRemovalMode=" offer cutlark-cli process --set bgRemovalMode =
    ' _ "$root/share/bash-completion/completions/cutlark-cli")"
[ "$offered" = "resizeEnabled= resizeWidth= resizeHeight= resizeLockAspect= resizeCanvas=
process
webp
backgroundImageURL=
true
white subject" ] || fail "completion offered: $offered"

# The network's package, made where the set-up fetched the network: Debian's checks pass, the program
# recommends it, and the programs installed from the two packages find it with nothing in the cache.
cache="${XDG_CACHE_HOME:-$HOME/.cache}/cutlark"
if [ -f "$cache/isnet-medium-fp32.onnx" ] && [ -f "$cache/libonnxruntime.so.1" ]; then
    [ -n "$network" ] || fail "the set-up fetched the network, and cpack made no cutlark-network package"
    errors="$(lintian "$network" 2>&1 | grep '^E:' || true)"
    [ -z "$errors" ] || fail "lintian: $errors"
    [ "$(dpkg-deb -f "$deb" Recommends)" = cutlark-network ] || fail "cutlark doesn't recommend cutlark-network"
    dpkg -x "$network" "$work/root"
    [ -f "$root/share/doc/cutlark-network/copyright" ] || fail "no copyright file in cutlark-network"
    mkdir -p "$work/home/cache"
    # A small photograph-like picture (no white edges), as a BMP.
    python3 -c '
import struct, sys
w, h = 96, 64
rows = b"".join(bytes(((x * y) % 256, y * 3 % 256, x * 2 % 256)) for y in range(h) for x in range(w))
header = b"BM" + struct.pack("<IHHI", 54 + len(rows), 0, 0, 54)
info = struct.pack("<IiiHHIIiiII", 40, w, h, 1, 24, 0, len(rows), 2835, 2835, 0, 0)
sys.stdout.buffer.write(header + info + rows)' >"$work/photo.bmp"
    # Run with an empty cache: only the packaged files can serve.
    env HOME="$work/home" XDG_CACHE_HOME="$work/home/cache" "$root/bin/cutlark-cli" process --format png \
        --set keyWhiteEnabled=true --set bgRemovalMode=subject -o "$work/out-subject" --overwrite \
        "$work/photo.bmp" >"$work/subject.json" 2>"$work/subject.err" || fail "subject cutout: $(cat "$work/subject.err")"
    grep -q '"output"' "$work/subject.json" || fail "no result: $(cat "$work/subject.json" "$work/subject.err")"
    if grep -Eq 'OpenCV|damaged|can.t run|install the cutlark-network' "$work/subject.err"; then
        fail "the packaged network wasn't used: $(cat "$work/subject.err")"
    fi
fi
echo "package test: $(basename "$deb")${network:+ and $(basename "$network")} ok"
