#!/bin/bash
# Checks that the programs printed in the documentation match their source files, which other tests compile. A comment
# "<!-- listing: <path> -->" before a code block names the file; the block must equal the file byte for byte.
set -eu
cd "$(dirname "$0")/.."

count=0
failed=0
for document in README.md docs/*.md; do
    while read -r line path; do
        count=$((count + 1))
        if ! difference=$(tail -n "+$((line + 2))" "$document" | sed '/^```$/,$d' | diff - "$path"); then
            echo "FAIL: $document:$line differs from $path:"
            echo "$difference"
            failed=1
        fi
    done < <(sed -n 's/^<!-- listing: \(.*\) -->$/\1/;T;=;p' "$document" | paste -d ' ' - -)
done
[ "$count" -gt 0 ] || { echo "FAIL: no listing found"; exit 1; }
echo "$count listings match their files"
exit "$failed"
