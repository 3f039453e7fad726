#!/bin/bash
# Checks that every link of the documentation to a file of this tree leads to one.
set -eu
cd "$(dirname "$0")/.."

count=0
failed=0
while read -r document; do
    while read -r target; do
        count=$((count + 1))
        if [ ! -e "$(dirname "$document")/$target" ]; then
            echo "FAIL: $document links to $target, which does not exist"
            failed=1
        fi
    done < <(grep -oE '\]\([^)]+\)' "$document" | sed -E 's/^\]\(//; s/\)$//; s/#.*//' | grep -vE '^(https?:|mailto:|$)')
done < <(git ls-files --cached --others --exclude-standard -- '*.md')
[ "$count" -gt 0 ] || { echo "FAIL: no link found"; exit 1; }
echo "$count links checked"
exit "$failed"
