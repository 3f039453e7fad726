#!/bin/sh
# Installs the Debian packages that one or more tasks need, and only those that are missing:
#
#   install-packages.sh <task>...      build, demo, test or check
#
# It never asks. As an ordinary user it goes through sudo, which then must not need a password. Services that come with
# a package are neither started now nor when the machine starts: they are wanted here as programs only.
set -eu

# The one list of what this project needs, for Debian 12. With a bar, either package will do; the first is installed.
packages_for() {
    case "$1" in
        build) echo cmake ninja-build ccache g++ pkg-config qtbase5-dev libqt5sql5-sqlite libconfig-dev ;;
        demo) echo lighttpd tzdata util-linux mount curl ;;
        test)
            packages_for demo
            echo libfcgi-dev libfcgi-bin rsyslog 'busybox|busybox-static' procps sqlite3 dosfstools iputils-ping traceroute
            echo python3 python3-selenium chromium chromium-driver fonts-dejavu-core
            ;;
        check)
            echo clang clang-tidy clang-format libclang-rt-dev shellcheck libbenchmark-dev libsqlite3-dev gcovr doxygen
            echo dpkg-dev lintian file binutils gzip
            ;;
        *)
            echo "install-packages.sh: unknown task \"$1\"; known are build, demo, test and check" >&2
            return 2
            ;;
    esac
}

services="lighttpd rsyslog"
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

# invoke-rc.d and deb-systemd-invoke start no service while this script says so (policy-rc.d(8)).
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
            *" $service "*) as_root systemctl --quiet disable "$service" || true ;;
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
    echo "This is no Debian system, so nothing is installed. Needed are, by their Debian names:"
    echo " $wanted" | tr '\n' ' '
    echo
    exit 0
}

[ -n "$missing" ] || exit 0

echo "Installing these Debian packages, which are missing: $missing"
if [ "$(id -u)" -ne 0 ] && ! sudo -n true 2>/dev/null; then
    echo "This needs root or a sudo that asks no password. As root: apt-get install $missing" >&2
    exit 1
fi
forbid_service_start
apt_get() {
    as_root env DEBIAN_FRONTEND=noninteractive apt-get -q -y -o DPkg::Lock::Timeout=300 "$@"
}
apt_get update
# Word splitting is wanted: the list holds package names only.
# shellcheck disable=SC2086
apt_get install --no-remove --no-install-recommends -o Dpkg::Options::=--force-confold $missing
disable_new_services
