#!/bin/sh
# Runs a program with other folders at /usr/share/zoneinfo, /usr/share/free_packages and /var/log, and with a system log of
# its own, in a mount namespace of its own (mount_namespaces(7)): the mounts are not visible outside and end with the program.
# The program sees what is mounted outside later, such as USB sticks, except in a chroot whose root is not a mount point.
#
#   in-private-mounts.sh <zoneinfo folder> <packages folder> <log folder> <process id file> <program> [<argument>...]
#
# The process id file gets the program's id. The program runs as the calling user; in a user namespace it is root.
#
# BusyBox's syslogd receives the system log at /dev/log and, from programs outside, at "socket" in the log folder. It is
# written to "messages" there, older lines to "messages.0", 400 KiB together at most. It ends with the program. The process
# that ends last has its id in "log.process" there, which is written before the process id file.
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

# lay_links_over <folder> <name>: mounts a folder in memory over the folder, with links to all of its entries except this
# name, which can then be created without changing the folder.
lay_links_over() {
    view=$(mktemp -d "$root/tmp/nbase-view.XXXXXX")
    mount -t tmpfs -o mode=755 tmpfs "$view"
    mkdir "$view/.system"
    mount --rbind "$root$1" "$view/.system"
    find "$view/.system" -mindepth 1 -maxdepth 1 ! -name "$2" -printf '.system/%f\0' | xargs -0 -r ln -s -t "$view" --
    mount --no-mtab --move "$view" "$root$1"
    rmdir "$view"
}

# mount_packages <folder>: a machine that is no device has no folder to mount at.
mount_packages() {
    if [ ! -d "$root/usr/share/free_packages" ]; then
        lay_links_over /usr/share free_packages
        mkdir "$root/usr/share/free_packages"
    fi
    mount --bind "$1" "$root/usr/share/free_packages"
}

# start_log <folder>: syslogd follows the link at /dev/log, and writes its process id to a file in /run. Without -t the lines
# have the times of the programs that send them, whose time zones may differ.
start_log() {
    mount --bind "$1" "$root/var/log"
    lay_links_over /dev log
    lay_links_over /run syslogd.pid
    ln -s "$1/socket" "$root/dev/log"
    as_owner setpriv --pdeathsig TERM busybox syslogd -n -t -O - |
        as_owner "$directory/bounded-log.sh" "$1/messages" 204800 &
    echo $! >"$1/log.process"
    log_tries=250
    until [ -S "$1/socket" ] || [ "$log_tries" -eq 0 ]; do
        log_tries=$((log_tries - 1))
        sleep 0.02
    done
}

# as_owner <program> [<argument>...]: replaces this process.
as_owner() {
    # The list of options.
    # shellcheck disable=SC2086
    [ "$owner" = same ] || set -- setpriv --reuid="${owner%:*}" --regid="${owner#*:}" --init-groups $privileges "$@"
    [ -z "$root" ] || set -- chroot "$root" "$@"
    exec "$@"
}

# run_inside <"whole", or "chroot" for a chroot as above> <user:group to become, or "same"> <zoneinfo folder> ...
run_inside() {
    root=
    privileges=
    raw_sockets="--inh-caps=+net_raw --ambient-caps=+net_raw"
    [ "$1" = whole ] || make_private_root
    owner=$2
    zoneinfo=$3
    packages=$4
    log=$5
    process_file=$6
    shift 6
    mount --bind "$zoneinfo" "$root/usr/share/zoneinfo"
    mount_packages "$packages"
    start_log "$log"
    echo $$ >"$process_file"
    cd /
    # BusyBox's ping and traceroute need raw sockets (raw(7)).
    # shellcheck disable=SC2086
    ! works setpriv $raw_sockets || privileges=$raw_sockets
    as_owner "$@"
}

directory=$(cd "$(dirname "$0")" && pwd)
if [ "${1:-}" = --inside ]; then
    shift
    run_inside "$@"
fi

self=$directory/$(basename "$0")
user=$(id -u)
group=$(id -g)

if [ "$user" -eq 0 ]; then
    as_root=
    owner=same
else
    as_root="sudo -n"
    owner=$user:$group
    if works unshare --user --map-root-user --mount --propagation slave; then
        exec unshare --user --map-root-user --mount --propagation slave "$self" --inside whole same "$@"
    fi
fi

# as_root is empty for root.
# shellcheck disable=SC2086
if works $as_root unshare --mount --propagation slave; then
    exec $as_root unshare --mount --propagation slave "$self" --inside whole "$owner" "$@"
elif works $as_root unshare --mount --propagation unchanged; then
    exec $as_root unshare --mount --propagation unchanged "$self" --inside chroot "$owner" "$@"
elif [ "$user" -eq 0 ] && works unshare --user --map-root-user --mount --propagation slave; then
    exec unshare --user --map-root-user --mount --propagation slave "$self" --inside whole same "$@"
fi

echo "The kernel refuses a private mount namespace, with user namespaces and as root (sudo must not ask a password)." >&2
exit 1
