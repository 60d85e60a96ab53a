#!/usr/bin/env bash
# Real photographs for the subject-cutout tests, taken from Debian's python3-skimage package (its
# sample data: a cat, an astronaut, a coffee cup, textures), unpacked into the user's cache folder.
# Not committed; a second call with the files in place returns at once.
set -euo pipefail
dest="${XDG_CACHE_HOME:-$HOME/.cache}/cutlark/testdata"
files=(chelsea.png astronaut.png coffee.png rocket.jpg grass.png gravel.png brick.png)

have_all=1
for f in "${files[@]}"; do [ -s "$dest/$f" ] || have_all=0; done
[ "$have_all" = 1 ] && exit 0

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
chmod 755 "$work" # apt's download user must be able to write here
if ! (cd "$work" && apt-get download python3-skimage >/dev/null 2>&1); then
    sudo_cmd=(); [ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
    "${sudo_cmd[@]}" apt-get update >/dev/null
    (cd "$work" && apt-get download python3-skimage >/dev/null)
fi
dpkg-deb -x "$work"/python3-skimage_*.deb "$work/x"
mkdir -p "$dest"
for f in "${files[@]}"; do cp "$work/x/usr/lib/python3/dist-packages/skimage/data/$f" "$dest/$f"; done
