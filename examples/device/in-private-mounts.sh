#!/bin/sh
# Runs a program that sees other folders at /usr/share/zoneinfo and /usr/share/free_packages, in a mount namespace of its
# own (mount_namespaces(7)), so that nobody else sees the mounts and nothing is left of them when the program ends:
#
#   in-private-mounts.sh <zoneinfo folder> <packages folder> <process id file> <program> [<argument>...]
#
# The program runs under the id that is in the process id file, and as the user who calls; where the kernel gives an
# ordinary user namespaces of his own, it sees itself as root there.
set -eu

# Whether the kernel lets us have the namespace that these words ask for.
works() {
    "$@" true 2>/dev/null
}

# In a chroot whose root is not a mount point, nobody can say "keep all mounts private", and a mount could be seen
# outside. /proc is a mount point there: below it, once it is private, lies a second, private view of the whole tree.
make_private_root() {
    root=/proc/fs
    mount --make-private /proc
    mount --rbind / "$root"
    mount --make-rprivate "$root"
}

# provide_in_share <name>: makes a folder /usr/share/<name> to mount at, on a machine that has none and whose own folder
# stays as it is. A folder in memory takes the place of /usr/share, with links to everything that is there.
provide_in_share() {
    [ ! -d "$root/usr/share/$1" ] || return 0
    view=$(mktemp -d "$root/tmp/nbase-share.XXXXXX")
    mount -t tmpfs -o mode=755 tmpfs "$view"
    mkdir "$view/.system" "$view/$1"
    mount --rbind "$root/usr/share" "$view/.system"
    find "$view/.system" -mindepth 1 -maxdepth 1 -printf '.system/%f\0' | xargs -0 ln -s -t "$view" --
    mount --no-mtab --move "$view" "$root/usr/share"
    rmdir "$view"
}

# run_inside <"whole", or "chroot" for a chroot as above> <user:group to become, or "same"> <zoneinfo folder> ...
run_inside() {
    root=
    [ "$1" = whole ] || make_private_root
    owner=$2
    zoneinfo=$3
    packages=$4
    process_file=$5
    shift 5
    mount --bind "$zoneinfo" "$root/usr/share/zoneinfo"
    provide_in_share free_packages
    mount --bind "$packages" "$root/usr/share/free_packages"
    echo $$ >"$process_file"
    cd /
    [ "$owner" = same ] || set -- setpriv --reuid="${owner%:*}" --regid="${owner#*:}" --init-groups "$@"
    [ -z "$root" ] || set -- chroot "$root" "$@"
    exec "$@"
}

if [ "${1:-}" = --inside ]; then
    shift
    run_inside "$@"
fi

self=$(cd "$(dirname "$0")" && pwd)/$(basename "$0")
user=$(id -u)
group=$(id -g)

if [ "$user" -eq 0 ]; then
    as_root=
    owner=same
else
    as_root="sudo -n"
    owner=$user:$group
    if works unshare --user --map-root-user --mount; then
        exec unshare --user --map-root-user --mount "$self" --inside whole same "$@"
    fi
fi

# Word splitting is wanted for as_root: it is no word for root.
# shellcheck disable=SC2086
if works $as_root unshare --mount; then
    exec $as_root unshare --mount "$self" --inside whole "$owner" "$@"
elif works $as_root unshare --mount --propagation unchanged; then
    exec $as_root unshare --mount --propagation unchanged "$self" --inside chroot "$owner" "$@"
elif [ "$user" -eq 0 ] && works unshare --user --map-root-user --mount; then
    exec unshare --user --map-root-user --mount "$self" --inside whole same "$@"
fi

echo "The kernel refuses a private mount namespace, with user namespaces and as root (sudo must not ask a password)." >&2
exit 1
