#!/bin/sh
# The first process of the virtual device, see scripts/run-in-virtual-device.py: loads the kernel modules, runs the tests
# and switches the machine off. What it prints before the tests appears on the console, and so does the reason when it
# cannot continue; the output of the tests goes to the port "output".
PATH=/usr/sbin:/usr/bin:/sbin:/bin
HOME=/root
TMPDIR=/tmp
export PATH HOME TMPDIR

fail()
{
    echo "virtual device: $*" > /dev/console
    poweroff -f
}

mount_file_systems()
{
    mount -t proc proc /proc &&
        mount -t sysfs sysfs /sys &&
        mount -t devtmpfs devtmpfs /dev &&
        mkdir -p /dev/pts /dev/shm &&
        mount -t devpts devpts /dev/pts &&
        mount -t tmpfs tmpfs /dev/shm &&
        mount -t tmpfs tmpfs /tmp
}

# The ports appear a moment after the module is loaded.
name_ports()
{
    mkdir -p /dev/virtual-device
    tries=600
    until [ -e /dev/virtual-device/control ] && [ -e /dev/virtual-device/output ]; do
        tries=$((tries - 1))
        [ "$tries" -gt 0 ] || return 1
        sleep 0.1
        for port in /sys/class/virtio-ports/*; do
            [ ! -s "$port/name" ] || ln -sf "/dev/${port##*/}" "/dev/virtual-device/$(cat "$port/name")"
        done
    done
}

# run_test <program> [<argument>...]: the line that ends the output of a test cannot be printed by the test itself, which
# does not know the mark.
run_test()
{
    "$@" < /dev/null
    printf '\n%s %d\n' "$mark" "$?"
}

# Commands that the tests brought along stay.
/bin/busybox --install -s 2>/dev/null
mount_file_systems || fail "the file systems cannot be mounted"
ip link set lo up || fail "there is no loopback interface"
xargs modprobe -a < /etc/virtual-device/modules || fail "a kernel module cannot be loaded"
name_ports || fail "the ports to the host do not appear"
exec > /dev/virtual-device/output 2>&1 || fail "the port \"output\" cannot be opened"

mark=$(cat /etc/virtual-device/mark)
# shellcheck source=/dev/null
. /etc/virtual-device/tests
poweroff -f
