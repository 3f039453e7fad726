#!/bin/sh
# Installs the missing Debian packages for one or more tasks:
#
#   install-packages.sh <task>...      build, demo, test or check
#
# Never interactive: an ordinary user needs a sudo that does not ask for a password. Services in the packages are neither
# started nor enabled; only their programs are used.
set -eu

# The packages for Debian 12. A bar separates alternatives; the first one is installed.
packages_for() {
    case "$1" in
        build) echo cmake ninja-build ccache g++ pkg-config qtbase5-dev libqt5sql5-sqlite libconfig-dev ;;
        demo) echo lighttpd tzdata util-linux bsdutils mount curl 'busybox|busybox-static' ;;
        test)
            packages_for demo
            echo libfcgi-dev libfcgi-bin rsyslog procps sqlite3 dosfstools iputils-ping traceroute iproute2
            echo tinyproxy-bin microsocks openssl swupdate cpio
            echo python3 python3-selenium chromium chromium-driver fonts-dejavu-core librsvg2-bin
            ;;
        check)
            echo clang clang-tidy clang-format libclang-rt-dev shellcheck libbenchmark-dev libqt5serialport5-dev libsqlite3-dev gcovr
            echo doxygen dpkg-dev lintian file binutils gzip qemu-system-x86 qemu-system-arm g++-arm-linux-gnueabihf
            ;;
        *)
            echo "install-packages.sh: unknown task \"$1\"; known are build, demo, test and check" >&2
            return 2
            ;;
    esac
}

services="lighttpd rsyslog swupdate swupdate.socket"
start_policy=/usr/sbin/policy-rc.d

is_installed() {
    for alternative in $(echo "$1" | tr '|' ' '); do
        [ "$(dpkg-query -W -f '${db:Status-Status}' "$alternative" 2>/dev/null)" != installed ] || return 0
    done
    return 1
}

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    else
        sudo -n "$@"
    fi
}

# invoke-rc.d and deb-systemd-invoke start no service while policy-rc.d exits with 101 (policy-rc.d(8)).
forbid_service_start() {
    [ ! -e "$start_policy" ] || return 0
    trap allow_service_start EXIT
    trap 'exit 130' INT
    trap 'exit 143' HUP TERM
    printf '#!/bin/sh\nexit 101\n' | as_root tee "$start_policy" >/dev/null
    as_root chmod 755 "$start_policy"
}

allow_service_start() {
    as_root rm -f "$start_policy"
}

disable_new_services() {
    command -v systemctl >/dev/null || return 0
    for service in $services; do
        case " $missing " in
            *" ${service%.socket} "*) as_root systemctl --quiet disable "$service" || true ;;
        esac
    done
}

[ $# -gt 0 ] || {
    echo "usage: install-packages.sh <task>...   (build, demo, test, check)" >&2
    exit 2
}

wanted=
for task in "$@"; do
    packages=$(packages_for "$task")
    wanted="$wanted $packages"
done

missing=
for package in $wanted; do
    case " $missing " in
        *" $package "*) continue ;;
    esac
    command -v dpkg-query >/dev/null || break
    is_installed "$package" || missing="${missing:+$missing }${package%%|*}"
done

command -v dpkg-query >/dev/null || {
    echo "This is not a Debian system, so nothing is installed. The required Debian packages are:"
    echo " $wanted" | tr '\n' ' '
    echo
    exit 0
}

[ -n "$missing" ] || exit 0

echo "Installing missing Debian packages: $missing"
if [ "$(id -u)" -ne 0 ] && ! sudo -n true 2>/dev/null; then
    echo "This needs root, or sudo without a password. As root: apt-get install $missing" >&2
    exit 1
fi
forbid_service_start
apt_get() {
    as_root env DEBIAN_FRONTEND=noninteractive apt-get -q -y -o DPkg::Lock::Timeout=300 "$@"
}
apt_get update
# A list of words.
# shellcheck disable=SC2086
apt_get install --no-remove --no-install-recommends -o Dpkg::Options::=--force-confold $missing
disable_new_services
