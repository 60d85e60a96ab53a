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
deb="$(ls "$work"/out/*.deb)"
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
echo "package test: $(basename "$deb") ok"
