#!/bin/sh
# Makes the time zone files of a root file system built with uClibc from the compiled zone files of this system (Debian:
# package tzdata):
#
#     <target directory>/zone.tab   a copy of the system's table of zones
#     <target directory>/uclibc/    one text file for each zone, which holds its POSIX TZ string
#     <target directory>/version    the version of the time zone data
#
#     make-zones.sh <target directory> [<directory of the compiled zone files>]
#
# A compiled zone file of version 2 or later ends in a line with the TZ string (RFC 8536, section 3.3); where that line is
# empty, no TZ string describes the zone, and it is left out. An up-to-date target is not changed.
set -eu
LC_ALL=C
export LC_ALL

fail() {
    echo "make-zones.sh: $*" >&2
    exit 1
}

[ $# -eq 1 ] || [ $# -eq 2 ] || fail "usage: make-zones.sh <target directory> [<directory of the compiled zone files>]"
source=${2:-/usr/share/zoneinfo}
[ -r "$source/zone.tab" ] || fail "there is no $source/zone.tab (Debian: install tzdata)"
version=$(sed -n '1s/^# version //p' "$source/tzdata.zi" 2>/dev/null) || fail "there is no $source/tzdata.zi (Debian: install tzdata)"
[ -n "$version" ] || fail "the first line of $source/tzdata.zi names no version"

umask 022
mkdir -p "$1"
target=$(cd "$1" && pwd)
work=$(mktemp -d "$target/.make-zones.XXXXXX")
trap 'rm -rf "$work"' EXIT
trap 'exit 1' HUP INT TERM

# The names of the compiled zone files, including links, one per line. Their first bytes distinguish them from tables, lists
# and files of version 1.
zones() {
    find -L . ! -name . \( -name posix -o -name right -o -name posixrules -o -name localtime \
        -o -name '*[!A-Za-z0-9_+-]*' \) -prune -o -type f -exec grep -l '^TZif[2-9]' {} + 2>/dev/null || true # broken or circular links
}

# tail puts a line with each file's name, "==> ./Europe/Paris <==", before its last line.
mkdir "$work/uclibc"
(cd "$source" && zones) >"$work/names"
[ -s "$work/names" ] || fail "there are no compiled zone files in $source"
sed 's|/[^/]*$||' "$work/names" | sort -u | (cd "$work/uclibc" && xargs mkdir -p)
(cd "$source" && xargs tail -n 1 -v <"$work/names") | (cd "$work/uclibc" && awk '
    /^==> .* <==$/ { name = $2; next }
    name != "" && /^[!-~]+$/ { print >name; close(name) }
    { name = "" }
')
find "$work/uclibc" -depth -type d -exec rmdir {} + 2>/dev/null || true
[ -d "$work/uclibc" ] || fail "no zone file in $source ends in a TZ string"

cp "$source/zone.tab" "$work/zone.tab"
chmod 644 "$work/zone.tab"
echo "$version" >"$work/version"

# The table and the version are replaced atomically, the folder is missing for a moment. The version comes last and shows
# that the others are complete.
mkdir "$work/old"
if ! diff -r "$work/uclibc" "$target/uclibc" >/dev/null 2>&1; then
    [ ! -e "$target/uclibc" ] || mv "$target/uclibc" "$work/old/uclibc"
    mv -T "$work/uclibc" "$target/uclibc"
fi
for part in zone.tab version; do
    cmp -s "$work/$part" "$target/$part" || mv -f "$work/$part" "$target/$part"
done
