#!/bin/sh
# Writes the lines of its input to a file and keeps the size of the log bounded:
#
#   bounded-log.sh <file> <bytes>
#
# A file that has reached this size becomes <file>.0, and the one that was there before is removed. So there are always
# the latest lines, and never more than twice the size and one line. A line is in the file as soon as it was read.
set -eu
LC_ALL=C
export LC_ALL

file=$1
limit=$2
size=0
[ ! -e "$file" ] || size=$(wc -c <"$file")
while IFS= read -r line; do
    if [ "$size" -ge "$limit" ]; then
        mv -f -- "$file" "$file.0"
        size=0
    fi
    printf '%s\n' "$line" >>"$file"
    size=$((size + ${#line} + 1))
done
