#!/usr/bin/env bash
# Installs what is missing, builds Cutlark and runs every test through CTest; then builds the suite
# with sanitizers and runs it again (CUTLARK_SANITIZERS=0 skips that part).
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
CUTLARK_TEST_DATA=1 CUTLARK_SETUP_TESTS=1 "$here/scripts/setup.sh"
"$here/scripts/format-check.sh"
export QT_QPA_PLATFORM=offscreen
(
    cd "${CUTLARK_BUILD_DIR:-$here/build}"
    ctest --output-on-failure --parallel "$(nproc)" "$@"
)
# The packages installed into a clean Debian 12 (root, debootstrap and Debian's registry; minutes).
if [ "${CUTLARK_CHROOT_TEST:-0}" = 1 ]; then
    "$here/tests/chroot-test.sh" "${CUTLARK_BUILD_DIR:-$here/build}"
fi
if [ "${CUTLARK_SANITIZERS:-1}" != 0 ]; then
    "$here/scripts/sanitizers.sh"
fi
