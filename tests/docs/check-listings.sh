#!/bin/bash
# Programs that the documentation prints are real files, which are compiled by other tests. A comment
# "<!-- listing: <path> -->" before a code block names the file; the block must be the file, byte for byte.
#
#     check-listings.sh <source directory>
set -eu
cd "$1"

count=0
failed=0
for document in README.md docs/*.md; do
    while read -r line path; do
        count=$((count + 1))
        if ! difference=$(tail -n "+$((line + 2))" "$document" | sed '/^```$/,$d' | diff - "$path"); then
            echo "FAIL: $document:$line does not print $path as it is:"
            echo "$difference"
            failed=1
        fi
    done < <(sed -n 's/^<!-- listing: \(.*\) -->$/\1/;T;=;p' "$document" | paste -d ' ' - -)
done
[ "$count" -gt 0 ] || { echo "FAIL: no listing was found"; exit 1; }
echo "$count listings are as their files are"
exit "$failed"
