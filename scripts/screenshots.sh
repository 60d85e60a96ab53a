#!/usr/bin/env bash
# Builds Cutlark, drives its window offscreen through a few states and writes their pictures to
# docs/screenshots/, which the README shows.
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$here/scripts/setup.sh" >/dev/null
cd "$here"
QT_QPA_PLATFORM=offscreen "${CUTLARK_BUILD_DIR:-$here/build}/cutlark-screenshots" "$here/docs/screenshots"
