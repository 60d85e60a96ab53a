#!/usr/bin/env bash
# Installs what is missing, builds Cutlark and starts the window with the given files.
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
# Only the window and the command line; ./test.sh builds the tests and benchmarks as well.
CUTLARK_TARGETS="cutlark cutlark-cli" "$here/scripts/setup.sh"
exec "${CUTLARK_BUILD_DIR:-$here/build}/cutlark" "$@"
