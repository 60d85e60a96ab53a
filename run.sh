#!/usr/bin/env bash
# Installs what is missing, builds Cutlark and starts the window with the given files.
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
"$here/scripts/setup.sh"
exec "${CUTLARK_BUILD_DIR:-$here/build}/cutlark" "$@"
