#!/bin/bash
# Makes the Debian packages, checks them with lintian, and tries them in an overlay over the root file system: installs
# them, compiles and runs programs with them, removes them, and checks that nothing is left. The machine itself is not
# changed. Needs root or sudo for the overlay.
#
#     try-packages.sh [<option of cmake>...]     for example -DNBASE_GUI=OFF
set -eu

source=$(cd "$(dirname "$0")/.." && pwd)
packages_folder="$source/build/package/packages"

say()
{
    printf '== %s\n' "$*"
}

fail()
{
    echo "FAIL: $*" >&2
    exit 1
}

make_packages()
{
    say "making the packages"
    cd "$source"
    # The flags that Debian compiles its own packages with.
    local flags
    flags=$(DEB_BUILD_MAINT_OPTIONS=hardening=+bindnow dpkg-buildflags --export=sh)
    eval "$flags"
    rm -rf "$packages_folder"
    cmake --preset package --fresh "$@" >/dev/null
    cmake --build --preset package
    (cd build/package && cpack -B "$packages_folder")
}

check_packages()
{
    say "lintian"
    local depends
    depends=$(dpkg-deb --field "$packages_folder"/libnbase[0-9]*.deb Depends)
    if grep -q '^NBASE_GUI:BOOL=ON$' "$source/build/package/CMakeCache.txt"; then
        grep -qE 'libqt5widgets|libqtgui' <<< "$depends" || fail "Qt's widgets are missing in \"$depends\""
    else
        ! grep -qE 'libqt5(gui|widgets)|libqtgui' <<< "$depends" || fail "Qt's widgets are not needed: \"$depends\""
    fi

    # No tag is suppressed: lintian's errors apply to packages outside Debian too.
    local as_root=()
    [ "$(id -u)" -ne 0 ] || as_root=(--allow-root)
    lintian "${as_root[@]}" --fail-on error --tag-display-limit 0 "$packages_folder"/*.deb
}

# Everything below runs in a private mount namespace.

# Mounts an overlay of the machine's root at $1/system; writes go to $1/changes, in memory.
mount_overlay_root()
{
    mount --make-rprivate /
    mount -t tmpfs -o mode=755 tmpfs "$1"
    mkdir "$1/system" "$1/changes" "$1/work"
    mount -t overlay -o "lowerdir=/,upperdir=$1/changes,workdir=$1/work" overlay "$1/system"
    mount --rbind /dev "$1/system/dev"
    mount -t proc proc "$1/system/proc"
    mount -t tmpfs -o mode=1777 tmpfs "$1/system/tmp"
    mkdir "$1/system/tmp/source" "$1/system/tmp/packages"
    mount --bind -o ro "$source" "$1/system/tmp/source"
    mount --bind -o ro "$packages_folder" "$1/system/tmp/packages"
}

# Runs in the overlay root. No search path is set: the libraries must be found in the default folders.
try_packages()
{
    local names name project projects=(examples/first tests/consumer/web-program)
    mapfile -t names < <(for file in /tmp/packages/*.deb; do dpkg-deb --field "$file" Package; done)

    say "installing ${names[*]}"
    dpkg --install /tmp/packages/*.deb
    for name in "${names[@]}"; do
        [ -z "$(dpkg --verify "$name")" ] || fail "the installed files of $name differ from the package"
        [ -s "/usr/share/doc/$name/copyright" ] || fail "$name has no copyright file"
    done

    say "compiling programs with the installed packages"
    [ ! -e /usr/include/nbase/device/nbuttonrole.h ] || projects+=(tests/consumer/button-program)
    for project in "${projects[@]}"; do
        name=$(basename "$project")
        cmake -S "/tmp/source/$project" -B "/tmp/$name" >/dev/null
        cmake --build "/tmp/$name"
        "/tmp/$name/$name"
    done
    # shellcheck disable=SC2046 # words are wanted
    g++ -std=c++11 -fPIC /tmp/source/examples/first/main.cpp $(pkg-config --cflags --libs nbase) -o /tmp/with-pkg-config
    /tmp/with-pkg-config

    say "removing ${names[*]}"
    dpkg --purge "${names[@]}"
    for name in "${names[@]}"; do
        ! dpkg-query --status "$name" 2>/dev/null || fail "dpkg still lists $name"
    done
}

# Compares the changes in the overlay $1 with the machine. Only the databases of dpkg, ldconfig and man-db may differ; no
# other file may be added, removed or changed.
look_for_leftovers()
{
    local path leftovers=0
    while read -r path; do
        case $path in
            var/lib/dpkg/lock | var/lib/dpkg/lock-frontend | var/lib/dpkg/status | var/lib/dpkg/status-old | \
            var/lib/dpkg/triggers/* | var/lib/dpkg/updates/* | var/lib/dpkg/info/format | var/log/dpkg.log | \
            etc/ld.so.cache | var/cache/ldconfig/aux-cache | var/cache/man/*) continue ;;
        esac
        if [ ! -e "/$path" ] && [ ! -L "/$path" ]; then
            echo "added: /$path"
        elif [ -c "$1/changes/$path" ]; then
            echo "removed: /$path"
        elif [ ! -d "$1/changes/$path" ]; then
            echo "changed: /$path"
        else
            continue
        fi
        leftovers=1
    done < <(cd "$1/changes" && find . -mindepth 1 -printf '%P\n')
    [ "$leftovers" -eq 0 ] || fail "installing and removing the packages changes the system"
    say "nothing is left"
}

run_in_namespace()
{
    place=$(mktemp -d)
    # The mount point is a directory of the machine, outside the namespace.
    trap 'umount -l "$place" && rmdir "$place"' EXIT
    mount_overlay_root "$place"
    chroot "$place/system" /bin/bash /tmp/source/scripts/try-packages.sh --try-packages
    look_for_leftovers "$place"
}

case ${1-} in
    --in-namespace) run_in_namespace ;;
    --try-packages) try_packages ;;
    "" | -D*)
        make_packages "$@"
        check_packages
        as_root=()
        [ "$(id -u)" -eq 0 ] || as_root=(sudo)
        "${as_root[@]}" unshare --mount "$0" --in-namespace
        ;;
    *) fail "usage: $0 [<option of cmake>...]" ;;
esac
