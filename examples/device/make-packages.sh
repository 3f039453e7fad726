#!/bin/sh
# Makes a list of open-source packages, in the form that the build of a root file system has, from the Debian packages that
# are installed on this machine, or in the root file system below a folder, and their copyright files:
#
#     <target directory>/manifest.csv                                the list
#     <target directory>/licenses/<package>-<version>/copyright      the licence text of each package
#
#     make-packages.sh [--root <root directory>] <target directory>
#
# The licences are taken from the License fields of machine-readable copyright files
# (https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/); other packages have none in the list. List and texts
# are converted from UTF-8 to Latin-1, the encoding that the device expects; characters outside Latin-1 are transliterated or
# replaced by a question mark. A package whose copyright file is missing, not a regular file or outside the root has no
# licence text. An existing list is replaced when the new one is complete.
#
# A few processes handle all packages together; one for each package would take minutes.
set -eu
LC_ALL=C
export LC_ALL

fail() {
    printf 'make-packages.sh: %s\n' "$*" >&2
    exit 1
}

root=
if [ "${1:-}" = --root ] && [ $# -eq 3 ]; then
    root=$(cd "$2" 2>/dev/null && pwd -P) || fail "there is no folder \"$2\""
    root=${root%/}
    shift 2
fi
[ $# -eq 1 ] || fail "usage: make-packages.sh [--root <root directory>] <target directory>"
command -v dpkg-query >/dev/null || fail "dpkg-query not found; a Debian system is needed"

umask 022
mkdir -p "$1"
target=$(cd "$1" && pwd)
work=$(mktemp -d "$target/.make-packages.XXXXXX") || fail "\"$target\" cannot be written"
trap 'rm -rf "$work"' EXIT
trap 'exit 1' HUP INT TERM

documents=$root/usr/share/doc
texts=$work/licenses
mkdir "$texts"

to_latin1() {
    iconv -f UTF-8 -t LATIN1//TRANSLIT "$1"
}

# list_packages: package, version, source package, its version and home page of all installed packages, separated by tabs.
list_packages() {
    # shellcheck disable=SC2016
    dpkg-query --admindir="$root/var/lib/dpkg" -W \
        -f '${db:Status-Status}\t${Package}\t${Version}\t${source:Package}\t${source:Version}\t${Homepage}\n' \
        >"$work/known" || fail "dpkg-query cannot list the packages"
    to_latin1 "$work/known" >"$work/known-latin1" || fail "the output of dpkg-query is not UTF-8"
    sed -n 's/^installed\t//p' "$work/known-latin1" | sort -u -t "$(printf '\t')" -k 1,1 >"$work/packages"
    [ -s "$work/packages" ] || fail "dpkg-query knows of no installed package"
    # dpkg accepts versions that cannot be part of a file name.
    awk -F '\t' '($1 "-" $2) !~ /^[A-Za-z0-9._+:~-]+$/ { print $1 "\" \"" $2; exit }' "$work/packages" >"$work/odd"
    [ ! -s "$work/odd" ] || fail "no folder can be named after the package \"$(cat "$work/odd")\""
}

is_inside_root() {
    [ -n "$root" ] || return 0
    case $(realpath -- "$1") in
        "$root"/*) ;;
        *) return 1 ;;
    esac
}

# The packages with a copyright file, and the folder of its text.
list_copyright_files() {
    while IFS='	' read -r package version _; do
        file=$documents/$package/copyright
        if [ -f "$file" ] && [ -r "$file" ] && is_inside_root "$file"; then
            printf '%s\t%s\n' "$package" "$package-$version"
        fi
    done <"$work/packages" >"$work/files"
}

# The packages whose copyright file is UTF-8; all others are Latin-1. grep's exit status is ignored: it depends on what was
# found, and an unreadable file fails to be copied later.
list_utf8_files() {
    cut -f 1 "$work/files" | sed 's|$|/copyright|' |
        (cd "$documents" && LC_ALL=C.UTF-8 xargs grep -L -a -x -v '.*' --) | sed 's|/copyright$||'
}

# Concatenates all texts, each after a line "F<folder>" and with a blank before each of its lines, converts them at once and
# splits them again.
copy_texts() {
    [ -s "$work/files" ] || return 0
    list_utf8_files >"$work/utf8"
    documents=$documents joined=$work/texts awk -F '\t' '
        BEGIN {
            utf8 = ENVIRON["joined"] "-utf8"
            latin1 = ENVIRON["joined"] "-latin1"
            printf "" >utf8
            printf "" >latin1
        }
        FILENAME ~ /utf8$/ { isUtf8[$1] = 1; next }
        {
            original = ENVIRON["documents"] "/" $1 "/copyright"
            copy = $1 in isUtf8 ? utf8 : latin1
            print "F" $2 >copy
            while ((result = (getline line <original)) > 0)
                print " " line >copy
            if (result < 0)
                exit 1
            close(original)
        }
    ' "$work/utf8" "$work/files" || fail "the copyright files cannot be copied"
    to_latin1 "$work/texts-utf8" >>"$work/texts-latin1"
    cut -f 2 "$work/files" | (cd "$texts" && xargs mkdir --)
    (cd "$texts" && awk '
        /^F/ {
            if (copy != "" && close(copy) != 0)
                exit 1
            copy = substr($0, 2) "/copyright"
            printf "" >copy
            next
        }
        { print substr($0, 2) >copy }
    ' "$work/texts-latin1")
}

# Folder and licence, once for each licence in the folder's text, in the order of the text.
list_licenses() {
    [ -s "$work/files" ] || return 0
    # shellcheck disable=SC2016
    cut -f 2 "$work/files" | sed 's|$|/copyright|' | (cd "$texts" && xargs awk '
        FNR == 1 {
            folder = FILENAME
            sub("/copyright$", "", folder)
        }
        tolower($0) ~ /^license:/ {
            sub(/^[^:]*:[ \t]*/, "")
            gsub(/[",\t\r]/, " ")
            gsub(/ +/, " ")
            sub(/^ /, "")
            sub(/ $/, "")
            if ($0 != "" && !((folder, $0) in seen)) {
                seen[folder, $0] = 1
                print folder "\t" $0
            }
        }
    ')
}

write_manifest() {
    awk -F '\t' '
        function field(text) {
            gsub(/"/, "\x27", text)
            return "\"" text "\""
        }
        BEGIN {
            print "\"PACKAGE\",\"VERSION\",\"LICENSE\",\"LICENSE FILES\",\"SOURCE ARCHIVE\",\"SOURCE SITE\""
        }
        FILENAME ~ /licenses-named$/ { licenses[$1] = licenses[$1] == "" ? $2 : licenses[$1] ", " $2; next }
        FILENAME ~ /files$/ { hasFile[$2] = 1; next }
        {
            folder = $1 "-" $2
            print field($1) "," field($2) "," field(licenses[folder]) "," \
                field(folder in hasFile ? "copyright" : "") "," field($3 "_" $4) "," field($5)
        }
    ' "$work/licenses-named" "$work/files" "$work/packages" >"$work/manifest.csv"
}

put_in_place() {
    [ ! -e "$target/licenses" ] || mv -T -- "$target/licenses" "$work/old-licenses" || return 1
    mv -T -- "$texts" "$target/licenses" && mv -T -- "$work/manifest.csv" "$target/manifest.csv"
}

take_back() {
    [ ! -e "$work/old-licenses" ] || { rm -rf "$target/licenses" && mv -T -- "$work/old-licenses" "$target/licenses"; }
}

list_packages
list_copyright_files
copy_texts
list_licenses >"$work/licenses-named"
write_manifest
# List and texts belong together: signals must not interrupt their replacement.
trap '' HUP INT TERM
put_in_place || {
    take_back
    fail "\"$target\" cannot be written"
}
