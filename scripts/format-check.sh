#!/usr/bin/env bash
# Fails when a C or C++ file of the tree isn't as clang-format (with .clang-format) would write it,
# and names the files. `scripts/format-check.sh --fix` rewrites them instead.
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$here"
# New files not yet added count too: they are what a commit is about to add.
mapfile -t files < <(git ls-files --cached --others --exclude-standard '*.cpp' '*.h' '*.c')
if [ "${1:-}" = "--fix" ]; then
    clang-format -i "${files[@]}"
    exit 0
fi
bad=()
for f in "${files[@]}"; do
    clang-format --dry-run --Werror "$f" >/dev/null 2>&1 || bad+=("$f")
done
if ((${#bad[@]})); then
    echo "format-check: not formatted (scripts/format-check.sh --fix):" >&2
    printf '  %s\n' "${bad[@]}" >&2
    exit 1
fi
