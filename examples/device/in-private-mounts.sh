#!/bin/sh
# Runs a program with other folders at /usr/share/zoneinfo and /usr/share/free_packages, in a private mount namespace
# (mount_namespaces(7)): the mounts are not visible outside and end with the program.
#
#   in-private-mounts.sh <zoneinfo folder> <packages folder> <process id file> <program> [<argument>...]
#
# The process id file gets the program's id. The program runs as the calling user; in a user namespace it is root.
set -eu

# Whether the kernel allows the namespace that this command creates.
works() {
    "$@" true 2>/dev/null
}

# In a chroot whose root is not a mount point, the mounts below the root cannot be made private. /proc is a mount point
# there: below it, once it is private, a second, private view of the whole tree is mounted.
make_private_root() {
    root=/proc/fs
    mount --make-private /proc
    mount --rbind / "$root"
    mount --make-rprivate "$root"
}

# provide_in_share <name>: provides a mount point /usr/share/<name> without creating it on the machine: a folder in memory
# with links to all entries is mounted over /usr/share.
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

# as_root is empty for root.
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
