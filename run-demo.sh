#!/bin/sh
# Installs what is missing, builds, and starts the demo device on http://127.0.0.1:8080.
#
#   ./run-demo.sh [--port <port>] [--foreground | --background]
#   ./run-demo.sh --stop
#
# On a terminal it stays until Ctrl-C; otherwise, and with --background, it returns once the page is served. --stop ends
# the demo from any shell. The port may also come from the environment variable NBASE_DEMO_PORT. There is one demo at a
# time: with another port than that of the running one, the start fails.
set -eu

fail_usage() {
    echo "run-demo.sh: $1; ./run-demo.sh --help shows how it is used" >&2
    exit 2
}

cd "$(dirname "$0")"
control=examples/device/demo-control.sh
port=${NBASE_DEMO_PORT:-}
stay=no
[ ! -t 1 ] || stay=yes

while [ $# -gt 0 ]; do
    case "$1" in
        --stop) exec "$control" stop ;;
        --foreground) stay=yes ;;
        --background) stay=no ;;
        --port=*) port=${1#--port=} ;;
        --port)
            [ $# -ge 2 ] || fail_usage "--port needs a number"
            port=$2
            shift
            ;;
        -h | --help)
            sed -n '2,/^set/s/^# \{0,1\}//p' "$(basename "$0")"
            exit 0
            ;;
        *) fail_usage "unknown option \"$1\"" ;;
    esac
    shift
done

if address=$("$control" address); then
    if [ -n "$port" ] && [ "$address" != "http://127.0.0.1:$port" ]; then
        echo "The demo is already running on $address; ./run-demo.sh --stop ends it." >&2
        exit 1
    fi
    echo "The demo is already running; ./run-demo.sh --stop ends it."
    echo "$address"
    exit 0
fi
port=${port:-8080}
"$control" check-port "$port"

scripts/install-packages.sh build demo
cmake --preset release -B build/demo -DNBASE_BUILD_TESTS=OFF
cmake --build build/demo --target nbase-demo-device nbase-demo-updater

stop() {
    trap '' INT HUP TERM
    "$control" stop
    exit "$1"
}
trap 'stop 130' INT
trap 'stop 143' HUP TERM

"$control" start --port "$port" --device build/demo/examples/device/nbase-demo-device \
    --updater build/demo/examples/device/nbase-demo-updater

echo
echo "The demo device is running. It can be reached from this machine only; sign in as demo with the password demo."
echo "Firmware packages to try are in $("$control" run-directory)/updates."
if [ "$stay" = no ]; then
    echo "./run-demo.sh --stop ends it."
    "$control" address
    exit 0
fi
echo "Press Ctrl-C to stop it."
"$control" address
# Waiting in the background lets a signal through at once.
"$control" wait &
wait $!
echo "The demo has ended."
