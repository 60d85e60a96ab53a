#!/usr/bin/env bash
# The set-up's fetch of the subject network with a registry that can't be reached (a closed local
# port): it gives up within 20 s naming what is missing and what still works, remembers that, and a
# second run says so at once without trying again; CUTLARK_FETCH_RETRY=1 tries again.
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cache="$(mktemp -d)"
trap 'rm -rf "$cache"' EXIT
fail() { echo "fetch test: $*" >&2; exit 1; }
export XDG_CACHE_HOME="$cache" npm_config_registry=http://127.0.0.1:9/

start=$(date +%s)
if "$here/scripts/fetch-model.sh" 2>"$cache/first.err"; then fail "succeeded without a registry"; fi
took=$(($(date +%s) - start))
[ "$took" -le 20 ] || fail "took $took s to give up"
grep -q "the npm registry can't be reached, so the subject network and ONNX Runtime can't be fetched; everything but subject mode works" "$cache/first.err" ||
    fail "first message: $(cat "$cache/first.err")"
[ -f "$cache/cutlark/registry-unreachable" ] || fail "the failure wasn't remembered"

if "$here/scripts/fetch-model.sh" 2>"$cache/second.err"; then fail "the second run succeeded"; fi
grep -q "not fetching the subject network and ONNX Runtime: the npm registry was unreachable at" "$cache/second.err" ||
    fail "second message: $(cat "$cache/second.err")"

if CUTLARK_FETCH_RETRY=1 "$here/scripts/fetch-model.sh" 2>"$cache/third.err"; then fail "the retry succeeded"; fi
grep -q "can't be reached" "$cache/third.err" || fail "a retry didn't try: $(cat "$cache/third.err")"
ls "$cache/cutlark" | grep -qv registry-unreachable && fail "something besides the note was left in the cache"
echo "fetch test: gave up in $took s, remembered, retried on request"
