#!/bin/bash
# Every link of the documentation to a file of this tree leads to one.
#
#     check-links.sh <source directory>
set -eu
cd "$1"

count=0
failed=0
while read -r document; do
    while read -r target; do
        count=$((count + 1))
        if [ ! -e "$(dirname "$document")/$target" ]; then
            echo "FAIL: $document links to $target, which is not there"
            failed=1
        fi
    done < <(grep -oE '\]\([^)]+\)' "$document" | sed -E 's/^\]\(//; s/\)$//; s/#.*//' | grep -vE '^(https?:|mailto:|$)')
done < <(git ls-files --cached --others --exclude-standard -- '*.md')
[ "$count" -gt 0 ] || { echo "FAIL: no link was found"; exit 1; }
echo "$count links were followed"
exit "$failed"
