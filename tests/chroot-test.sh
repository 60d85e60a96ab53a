#!/usr/bin/env bash
# The packages as a user meets them: a clean Debian 12 is made with debootstrap (Debian's registry is
# the only thing it reaches), the two packages cpack makes are installed there with apt, and, as a
# user other than root, the window draws itself offscreen (the screenshot tool from the build, whose
# pictures are kept in OUT) and cutlark-cli cuts out a subject. Checked: no network socket is opened
# and nothing is written outside the user's home (its cache and the output folder) and /tmp. Also
# counts what ./run.sh's and ./test.sh's package lists would install on that clean system.
# Needs root, debootstrap and a few minutes; ./test.sh runs it when CUTLARK_CHROOT_TEST=1.
# Usage: chroot-test.sh BUILD_DIR [OUT]
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="$(cd "$1" && pwd)"
out="${2:-$(mktemp -d)}"
mkdir -p "$out"
fail() { echo "chroot test: $*" >&2; exit 1; }
[ "$(id -u)" = 0 ] || fail "needs root (debootstrap, chroot)"
command -v debootstrap >/dev/null || fail "needs debootstrap"
root="$(mktemp -d /var/tmp/cutlark-chroot.XXXXXX)"
chmod 755 "$root" # the system's root: every user goes through it
cleanup() {
    umount "$root/proc" 2>/dev/null || true
    rm -rf "$root"
}
trap cleanup EXIT

debootstrap --variant=minbase bookworm "$root" http://deb.debian.org/debian >"$out/debootstrap.log" 2>&1 ||
    fail "debootstrap failed: $(tail -3 "$out/debootstrap.log")"
mount -t proc proc "$root/proc"
in_root() { chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 "$@"; }
in_root apt-get update >"$out/apt-update.log" 2>&1 || fail "apt-get update failed"

# What the set-up's two lists would install on this clean system (simulated: nothing installed).
run_list="$(sed -n '/^packages=(/,/^)/p' "$here/scripts/setup.sh" | sed 's/#.*//; s/packages=(//; s/)//' | tr -s ' \n' ' ')"
test_list="$(sed -n '/^    packages+=(/,/^    )/p' "$here/scripts/setup.sh" | sed 's/#.*//; s/packages+=(//; s/)//' | tr -s ' \n' ' ')"
[ -n "$run_list" ] && [ -n "$test_list" ] || fail "couldn't read the set-up's package lists"
# shellcheck disable=SC2086
run_count="$(in_root apt-get install -s --no-install-recommends $run_list npm | grep -c '^Inst ')"
# shellcheck disable=SC2086
all_count="$(in_root apt-get install -s --no-install-recommends $run_list $test_list npm | grep -c '^Inst ')"
echo "chroot test: ./run.sh would install $run_count packages, ./test.sh $all_count" | tee "$out/counts.txt"

# The packages, installed as a user would: apt resolves their dependencies from Debian.
(cd "$build" && cpack -B "$root/tmp/debs" >"$out/cpack.log" 2>&1) || fail "cpack failed"
debs=()
for d in "$root"/tmp/debs/*.deb; do debs+=("/tmp/debs/$(basename "$d")"); done
in_root apt-get install -y --no-install-recommends "${debs[@]}" >"$out/apt-install.log" 2>&1 ||
    fail "apt-get install failed: $(tail -5 "$out/apt-install.log")"
grep -E 'newly installed' "$out/apt-install.log" | tee -a "$out/counts.txt"
in_root apt-get install -y --no-install-recommends strace >/dev/null 2>&1 || fail "strace couldn't be installed"
in_root useradd -m -s /bin/bash tester

# The window, offscreen, through the screenshot tool of the build (it links what the packages
# brought), and a subject cutout, each watched.
cp "$build/cutlark-screenshots" "$root/usr/local/bin/"
cp "$here/data/cutlark.svg" "$root/home/tester/"
python3 -c '
import struct, sys
w, h = 320, 240
rows = b"".join(bytes(((x * y) % 256, y % 256, x % 256)) for y in range(h) for x in range(w))
sys.stdout.buffer.write(b"BM" + struct.pack("<IHHI", 54 + len(rows), 0, 0, 54) +
                        struct.pack("<IiiHHIIiiII", 40, w, h, 1, 24, 0, len(rows), 2835, 2835, 0, 0) + rows)' \
    >"$root/home/tester/photo.bmp"
chroot "$root" chown -R tester: /home/tester
as_user() {
    chroot "$root" su - tester -c "QT_QPA_PLATFORM=offscreen strace -f -qq -e trace=network,openat,creat,rename,renameat,renameat2,link,linkat,mkdir,mkdirat -o /home/tester/$1.strace $2" \
        >"$out/$1.out" 2>&1
}
as_user window "cutlark-screenshots /home/tester/shots" || fail "the window couldn't draw: $(tail -5 "$out/window.out")"
as_user cutout "cutlark-cli process --set keyWhiteEnabled=true --set bgRemovalMode=subject -o /home/tester/out /home/tester/photo.bmp" ||
    fail "the cutout failed: $(cat "$out/cutout.out")"
grep -q '"output"' "$out/cutout.out" || fail "no result: $(cat "$out/cutout.out")"
if grep -Eq 'OpenCV|damaged|install the cutlark-network' "$out/cutout.out"; then
    fail "the packaged network wasn't used: $(cat "$out/cutout.out")"
fi
cp -r "$root/home/tester/shots" "$out/" 2>/dev/null || true
for trace in window cutout; do
    f="$root/home/tester/$trace.strace"
    # Sockets other than the local kind are the network.
    if grep -E 'socket\(' "$f" | grep -Ev 'AF_UNIX|AF_LOCAL|AF_NETLINK' | grep -q .; then
        fail "$trace opened a network socket: $(grep -E 'socket\(' "$f" | grep -Ev 'AF_UNIX|AF_NETLINK' | head -3)"
    fi
    # Writes: only below the user's home and /tmp (Qt's offscreen runtime folder), never elsewhere.
    # Names relative to a folder the program opened (the output folder's descriptor) stay in it.
    bad="$(grep -E 'O_WRONLY|O_RDWR|O_CREAT|creat\(|rename|link\(|linkat|mkdir' "$f" | grep -v ' = -1 ' |
        grep -Ev '(openat|renameat2?|linkat|mkdirat)\([0-9]+, ' |
        grep -Ev '"(/home/tester/|/tmp/|/dev/null|/dev/shm/|/proc/self/)' || true)"
    [ -z "$bad" ] || fail "$trace wrote outside the user's places: $(echo "$bad" | head -3)"
done
ls "$out"/shots/*.png >/dev/null 2>&1 || fail "no screenshots"
echo "chroot test: packages installed, window drawn, subject cut out as a user; no network, no stray writes"
