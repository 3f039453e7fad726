#!/bin/sh
# Starts and stops the demo device and its web server; run-demo.sh and the tests of the page call it.
#
#   demo-control.sh start --device <program> [--port <port>] [--state <path>] [--session-timeout <seconds>]
#       [--packages <folder>] [--commands <folder>] [--updater <program>]
#   demo-control.sh stop | address | wait | run-directory [--state <path>]
#   demo-control.sh check-port <port>
#
# start         returns once the page is served, on port 8080 by default; fails if the demo of this state runs on another
#               port than the requested one. The open-source packages are those of the machine, or of a folder made by
#               make-packages.sh. Its ping and traceroute are BusyBox's, as on the devices, or those in a folder.
#               The updater, nbase-demo-updater, stands in for the SWUpdate daemon; without one, firmware cannot be updated.
#               It is slow enough to be watched, and fails for packages with "FAIL" in their first 4096 bytes
# stop          ends all processes and removes all files of the demo
# address       prints the URL of the running demo; fails if none is running
# wait          returns when the demo has ended
# run-directory prints the folder with the process ids (device.pid, lighttpd.pid), the socket, the configuration and the
#               logs; log/messages is the system log of the device and its web server. In it, updates has two firmware packages
#               to try; one of them fails. Lines written to updater.commands change what the updater does, see its --help
# check-port    fails with a message if the port is in use
#
# All files of the running demo are in one folder under /tmp; its path is short because a Unix socket's is limited to 107
# bytes. The state, by default build/demo/run, is a link to this folder: one demo per state.
set -eu

source_directory=$(cd "$(dirname "$0")" && pwd)

device=
port=8080
has_port=
state=$source_directory/../../build/demo/run
session_timeout=
packages=
commands=
updater=
launcher=
updater_launcher=

fail() {
    echo "$*" >&2
    exit 1
}

# Prints the start time of a process in clock ticks since boot (field 22 of /proc/<pid>/stat, proc(5)). It distinguishes our
# process from a later one with the same id.
start_time_of() {
    sed 's/.*) //' "/proc/$1/stat" 2>/dev/null | cut -d ' ' -f 20
}

# record_process <name> <pid>
record_process() {
    echo "$2 $(start_time_of "$2")" >"$run/$1.pid.new"
    mv "$run/$1.pid.new" "$run/$1.pid"
}

# A process that has ended remains as a zombie (state Z) until its parent waits for it.
is_live() {
    process_state=$(sed 's/.*) //' "/proc/$1/stat" | cut -d ' ' -f 1)
    [ -n "$process_state" ] && [ "$process_state" != Z ]
} 2>/dev/null

# Prints the id of the process recorded under this name if it is running.
live_process() {
    recorded_pid=
    recorded_start=
    read -r recorded_pid recorded_start <"$run/$1.pid" || return 1
    [ -n "$recorded_pid" ] && [ "$(start_time_of "$recorded_pid")" = "$recorded_start" ] || return 1
    is_live "$recorded_pid" || return 1
    echo "$recorded_pid"
} 2>/dev/null

# Sets run to the folder of the demo that this state refers to.
find_run_directory() {
    run=$(readlink "$state") && [ -d "$run" ]
}

is_running() {
    find_run_directory && live_process lighttpd >/dev/null && live_process device >/dev/null
}

# await <tries> <command>...: tries every tenth of a second.
await() {
    tries=$1
    shift
    until "$@"; do
        tries=$((tries - 1))
        [ "$tries" -gt 0 ] || return 1
        sleep 0.1
    done
}

has_ended() {
    ! live_process "$1" >/dev/null
}

end_process() {
    pid=$(live_process "$1") || return 0
    kill "$pid" 2>/dev/null || has_ended "$1" || return 1
    await 50 has_ended "$1" || kill -KILL "$pid" 2>/dev/null || true
    await 50 has_ended "$1"
}

# Prints what listens on 127.0.0.1 at this port or at any IPv4 address (proc(5), /proc/net/tcp: hexadecimal address in
# the byte order of the host, hexadecimal port; state 0A is LISTEN).
listeners_at() {
    awk -v port="$(printf '%04X' "$1")" '
        $4 == "0A" && ($2 == "0100007F:" port || $2 == "7F000001:" port || $2 == "00000000:" port) { print $2 }
    ' /proc/net/tcp
}

check_port() {
    case "$1" in
        '' | *[!0-9]* | ??????*) fail "\"$1\" is not a port number" ;;
    esac
    if [ "$1" -lt 1 ] || [ "$1" -gt 65535 ]; then
        fail "\"$1\" is not a port number"
    fi
    [ -z "$(listeners_at "$1")" ] || fail_port_in_use "$1"
}

fail_port_in_use() {
    fail "Port $1 of 127.0.0.1 is in use by another program; choose another one with --port <port>."
}

# The web server faces the network, so it runs as an unprivileged account instead of root.
can_drop_to_web_user() {
    [ "$(id -u)" -eq 0 ] && setpriv --reuid=www-data --regid=www-data --clear-groups true 2>/dev/null
}

# Of two simultaneous starts, only one can make the link.
claim_state() {
    run=$(mktemp -d /tmp/nbase-demo.XXXXXX)
    trap 'rm -rf "$run"' EXIT
    record_process starter $$
    mkdir -p "$(dirname "$state")"
    ln -s -n -- "$run" "$state" || fail "Another start of the demo is under way, or \"$state\" cannot be written."
    trap undo_start EXIT
}

undo_start() {
    trap '' INT HUP TERM
    end_and_remove
}

prepare_run_directory() {
    echo "$port" >"$run/port"
    mkdir "$run/uploads" "$run/socket" "$run/log"
    : >"$run/logger.process"
    web_user=
    if can_drop_to_web_user; then
        web_user=www-data
        chmod 711 "$run"
        chown www-data "$run/uploads" "$run/logger.process"
        chgrp www-data "$run/socket"
        chmod 2750 "$run/socket"
    fi
    prepare_page
    prepare_web_server
    prepare_configuration
}

# A device that nobody has set up yet.
prepare_configuration() {
    mkdir "$run/configuration" "$run/staging"
    printf "config system\n\toption hostname '%s'\n" "$(uname -n)" >"$run/configuration/system"
    : >"$run/configuration/proxy"
}

# The page is served from the source folder, unless the web server's user cannot read it there.
prepare_page() {
    if [ -n "$web_user" ] && ! setpriv --reuid="$web_user" --regid="$web_user" --clear-groups \
        test -r "$source_directory/www/index.html"; then
        cp -R "$source_directory/www" "$run/www"
        chmod -R a+rX "$run/www"
    else
        ln -s "$source_directory/www" "$run/www"
    fi
}

prepare_web_server() {
    {
        echo "var.run_directory = \"$run\""
        echo "var.port = $port"
        [ -z "$web_user" ] || printf 'server.username = "%s"\nserver.groupname = "%s"\n' "$web_user" "$web_user"
        cat "$source_directory/lighttpd.conf"
    } >"$run/lighttpd.conf"
}

# The zone files of this machine, with those in the format of the devices added.
prepare_zones() {
    mkdir "$run/zoneinfo"
    cp -R /usr/share/zoneinfo/. "$run/zoneinfo"
    "$source_directory/make-zones.sh" "$run/zoneinfo"
}

# The packages installed on this machine stand for those of the device's system.
prepare_packages() {
    [ -z "$packages" ] || return 0
    packages=$run/packages
    "$source_directory/make-packages.sh" "$packages"
}

# The device finds these before the machine's own commands of the same names.
prepare_commands() {
    [ -z "$commands" ] || return 0
    commands=$run/commands
    mkdir "$commands"
    ln -s "$(command -v busybox)" "$commands/ping"
    ln -s "$(command -v busybox)" "$commands/traceroute"
}

# Starts the stand-in for the SWUpdate daemon. Its standard input stays open for commands that may follow.
start_updater() {
    [ -n "$updater" ] || return 0
    mkdir "$run/updates"
    "$source_directory/make-update.sh" "$run/updates/demo-1.2.3.swu" 1.2.3
    "$source_directory/make-update.sh" "$run/updates/demo-broken.swu" FAIL
    mkfifo -m 600 "$run/updater.commands"
    setsid "$updater" "$run/updater.control" "$run/updater.progress" --steps 3 --step-time 4000 --image-rate 2000000 \
        --cpio 1 --fail-text FAIL <>"$run/updater.commands" >"$run/updater.log" 2>&1 &
    updater_launcher=$!
    record_process updater "$updater_launcher"
    await 50 grep -q ready "$run/updater.log" || {
        cat "$run/updater.log" >&2
        fail "The stand-in for the SWUpdate daemon could not be started."
    }
}

start_device() {
    # sudo sets a PATH of its own.
    set -- env "PATH=$commands:$PATH" "$device" --socket "$run/socket/device" --configuration "$run/configuration" --staging "$run/staging" \
        --updater "$run/updater.control" --updater-progress "$run/updater.progress" \
        ${session_timeout:+--session-timeout "$session_timeout"}
    setsid "$source_directory/in-private-mounts.sh" "$run/zoneinfo" "$packages" "$run/log" \
        "$run/device.process" "$@" \
        </dev/null >"$run/device.log" 2>&1 &
    launcher=$!
    record_device
    await 100 device_listens_or_ended || true
    if [ ! -S "$run/socket/device" ]; then
        cat "$run/device.log" >&2
        fail "The demo device could not be started."
    fi
    [ -z "$web_user" ] || chmod 660 "$run/socket/device"
}

# With sudo, the device is not the launched process; in-private-mounts.sh writes its id to a file.
record_device() {
    await 100 device_recorded_or_ended || true
    [ ! -s "$run/device.process" ] || {
        record_process device "$(cat "$run/device.process")"
        record_process log "$(cat "$run/log/log.process")"
    }
}

device_recorded_or_ended() {
    [ -s "$run/device.process" ] || ! is_live "$launcher"
}

device_listens_or_ended() {
    [ -S "$run/socket/device" ] || ! is_live "$launcher"
}

start_web_server() {
    if ! lighttpd -f "$run/lighttpd.conf" >"$run/lighttpd.log" 2>&1; then
        [ -z "$(listeners_at "$port")" ] || fail_port_in_use "$port"
        cat "$run/lighttpd.log" >&2
        fail "The web server of the demo could not be started."
    fi
    await 50 test -s "$run/lighttpd.process" || fail "The web server of the demo did not start."
    record_process lighttpd "$(cat "$run/lighttpd.process")"
    await 50 test -s "$run/logger.process" || fail "The log of the demo's web server did not start."
    record_process logger "$(cat "$run/logger.process")"
}

# The web server serves the page, and the device program answers 401 to a request without a session.
is_served() {
    curl --noproxy '*' -s -f -o /dev/null "$(address)/" &&
        [ "$(curl --noproxy '*' -s -o /dev/null -w '%{http_code}' "$(address)/api/timezones")" = 401 ]
}

address() {
    read -r served_port <"$run/port"
    echo "http://127.0.0.1:$served_port"
}

start() {
    [ -x "$device" ] || fail "The device program \"$device\" has not been built."
    device=$(cd "$(dirname "$device")" && pwd)/$(basename "$device")
    if [ -n "$packages" ]; then
        [ -f "$packages/manifest.csv" ] || fail "The folder \"$packages\" has no manifest.csv."
        packages=$(cd "$packages" && pwd)
    fi
    if [ -n "$commands" ]; then
        commands=$(cd "$commands" && pwd) || fail "The folder of the commands cannot be read."
    fi
    if [ -n "$updater" ]; then
        [ -x "$updater" ] || fail "The updater \"$updater\" has not been built."
        updater=$(cd "$(dirname "$updater")" && pwd)/$(basename "$updater")
    fi
    if is_running; then
        [ -z "$has_port" ] || [ "$(address)" = "http://127.0.0.1:$port" ] ||
            fail "The demo is already running on $(address)."
        echo "The demo is already running."
        address
        return 0
    fi
    remove_leftovers
    check_port "$port"
    # lighttpd is in a folder that is not in an ordinary user's PATH.
    PATH=$PATH:/usr/sbin:/sbin
    trap 'exit 130' INT
    trap 'exit 143' HUP TERM
    claim_state
    prepare_run_directory
    prepare_zones
    prepare_packages
    prepare_commands
    start_updater
    start_device
    start_web_server
    await 100 is_served || {
        cat "$run/device.log" "$run/log/messages" >&2
        fail "The demo was started, but does not answer."
    }
    rm "$run/starter.pid"
    trap - EXIT INT HUP TERM
}

# Removes what a demo left that was killed, or ended by a power failure.
remove_leftovers() {
    if find_run_directory; then
        if live_process starter >/dev/null; then
            fail "Another start of the demo is under way."
        fi
        end_and_remove
    elif [ -L "$state" ] && [ ! -e "$state" ]; then
        rm -f -- "$state"
    fi
}

end_and_remove() {
    if find_run_directory; then
        # An interrupted start may have launched the device without having recorded it.
        [ -z "$launcher" ] || [ -e "$run/device.pid" ] || record_device
        end_process lighttpd || fail "The web server of the demo cannot be ended; it belongs to another user."
        end_process device || fail "The demo device cannot be ended; it belongs to another user."
        [ -z "$updater_launcher" ] || [ -e "$run/updater.pid" ] || record_process updater "$updater_launcher"
        end_process updater || fail "The updater of the demo cannot be ended; it belongs to another user."
        # These end with the two by themselves.
        await 50 has_ended logger || true
        await 50 has_ended log || true
        rm -rf "$run"
    fi
    rm -f -- "$state"
}

stop() {
    if ! find_run_directory; then
        rm -f -- "$state"
        echo "The demo is not running."
        return 0
    fi
    stopped_address=$(address 2>/dev/null) || stopped_address="its port"
    end_and_remove
    echo "The demo on $stopped_address has been stopped."
}

wait_for_end() {
    find_run_directory || return 0
    pid=$(live_process lighttpd) || return 0
    exec tail --pid="$pid" -f /dev/null
}

[ $# -gt 0 ] || fail "usage: demo-control.sh start | stop | address | wait | run-directory | check-port"
action=$1
shift
if [ "$action" = check-port ]; then
    check_port "${1:-}"
    exit 0
fi
while [ $# -gt 0 ]; do
    [ $# -ge 2 ] || fail "demo-control.sh: option \"$1\" needs a value"
    case "$1" in
        --device) device=$2 ;;
        --port)
            port=$2
            has_port=yes
            ;;
        --state) state=$2 ;;
        --session-timeout) session_timeout=$2 ;;
        --packages) packages=$2 ;;
        --commands) commands=$2 ;;
        --updater) updater=$2 ;;
        *) fail "demo-control.sh: unknown option \"$1\"" ;;
    esac
    shift 2
done

case "$action" in
    start) start ;;
    stop) stop ;;
    address) is_running && address ;;
    wait) wait_for_end ;;
    run-directory) find_run_directory && echo "$run" ;;
    *) fail "demo-control.sh: unknown action \"$action\"" ;;
esac
