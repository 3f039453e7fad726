#!/bin/sh
# Runs a test with its own temporary directory and fails if the test leaves anything there:
#
#     run-test.sh <program> [<argument>...]
set -u

TMPDIR=$(mktemp -d /tmp/nbase-run.XXXXXX) || exit 1
export TMPDIR
trap 'rm -rf "$TMPDIR"' EXIT
trap 'exit 1' HUP INT TERM

"$@"
status=$?

left=$(find "$TMPDIR" -mindepth 1)
if [ -n "$left" ]; then
    echo "FAIL: left in the temporary directory:" "$left"
    [ "$status" -ne 0 ] || status=1
fi
exit "$status"
