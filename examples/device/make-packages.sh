#!/bin/sh
# Makes the list of open-source packages as the build of a root file system leaves it, from the Debian packages that are
# installed on this machine and their copyright files:
#
#     <target directory>/manifest.csv                                the list
#     <target directory>/licenses/<package>-<version>/copyright      the licence text of each package
#
#     make-packages.sh <target directory>
#
# The licences are those that a copyright file in the machine-readable form names
# (https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/); other packages have none in the list. Everything
# is read by a few processes for all packages together, because one for each would take minutes.
set -eu
LC_ALL=C
export LC_ALL

fail() {
    echo "make-packages.sh: $*" >&2
    exit 1
}

[ $# -eq 1 ] || fail "usage: make-packages.sh <target directory>"
command -v dpkg-query >/dev/null || fail "there is no dpkg-query; the packages are those of a Debian system"

umask 022
mkdir -p "$1"
target=$(cd "$1" && pwd)
work=$(mktemp -d "$target/.make-packages.XXXXXX")
trap 'rm -rf "$work"' EXIT
trap 'exit 1' HUP INT TERM

# Package, version, source package, its version and home page of whatever is installed, separated by tabulators.
# shellcheck disable=SC2016
dpkg-query -W -f '${db:Status-Status}\t${Package}\t${Version}\t${source:Package}\t${source:Version}\t${Homepage}\n' |
    sed -n 's/^installed\t//p' | sort -u -t "$(printf '\t')" -k 1,1 >"$work/packages"
[ -s "$work/packages" ] || fail "dpkg-query knows of no installed package"

# File names of the copyright files, in the order of the packages.
cut -f 1 "$work/packages" | sed 's|.*|/usr/share/doc/&/copyright|' >"$work/all-files"
while read -r file; do
    [ ! -f "$file" ] || [ ! -r "$file" ] || echo "$file"
done <"$work/all-files" >"$work/files"

# Package and a licence that its copyright file names, once each, in the order of the file.
if [ -s "$work/files" ]; then
    # shellcheck disable=SC2016
    xargs awk '
        FNR == 1 {
            package = FILENAME
            sub("^/usr/share/doc/", "", package)
            sub("/copyright$", "", package)
        }
        tolower($1) == "license:" {
            sub(/^[^:]*:[ \t]*/, "")
            gsub(/[",\t\r]/, " ")
            gsub(/ +/, " ")
            sub(/ $/, "")
            if ($0 != "" && !((package, $0) in seen)) {
                seen[package, $0] = 1
                print package "\t" $0
            }
        }
    ' <"$work/files" >"$work/licenses"
else
    : >"$work/licenses"
fi

mkdir "$work/new" "$work/new/licenses"
sed 's|^/usr/share/doc/||; s|/copyright$||' "$work/files" >"$work/with-file"

# The manifest, and beside it what is to be copied where.
awk -F '\t' -v folders="$work/folders" -v copies="$work/copies" '
    function field(text) {
        gsub(/"/, "\x27", text)
        return "\"" text "\""
    }
    FILENAME ~ /licenses$/ { licenses[$1] = licenses[$1] == "" ? $2 : licenses[$1] ", " $2; next }
    FILENAME ~ /with-file$/ { hasFile[$1] = 1; next }
    FNR == 1 {
        print "\"PACKAGE\",\"VERSION\",\"LICENSE\",\"LICENSE FILES\",\"SOURCE ARCHIVE\",\"SOURCE SITE\""
    }
    {
        if ($1 in hasFile) {
            print $1 "-" $2 >folders
            print "/usr/share/doc/" $1 "/copyright\t" $1 "-" $2 "/copyright" >copies
        }
        print field($1) "," field($2) "," field(licenses[$1]) "," field($1 in hasFile ? "copyright" : "") "," \
            field($3 "_" $4) "," field($5)
    }
' "$work/licenses" "$work/with-file" "$work/packages" >"$work/new/manifest.csv"

if [ -s "$work/files" ]; then
    (cd "$work/new/licenses" && xargs mkdir -- <"$work/folders")
    (cd "$work/new/licenses" && awk -F '\t' '
        {
            printf "" >$2
            while ((getline line <$1) > 0)
                print line >$2
            close($1)
            close($2)
        }
    ' "$work/copies")
fi

rm -rf "$target/licenses"
mv "$work/new/licenses" "$target/licenses"
mv "$work/new/manifest.csv" "$target/manifest.csv"
