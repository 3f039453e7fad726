#!/bin/bash
# Runs ./run-demo.sh on a fresh copy of the source, in a folder whose path contains a blank: starts the demo in the
# background, starts it a second time, stops it, then starts it in the foreground and ends it with Ctrl-C. Needs only git
# and what run-demo.sh installs.
set -eu -o pipefail
# Each job is a process group, as on a terminal, and takes signals.
set -m

source=$(cd "$(dirname "$0")/.." && pwd)
folder=$(mktemp -d)
tree="$folder/the source"
# Lets ccache reuse what was compiled from another copy of the source.
export CCACHE_BASEDIR="$tree"

fail()
{
    echo "FAIL: $*" >&2
    exit 1
}

clean_up()
{
    local job
    for job in $(jobs -p); do
        kill -- "-$job" || true
    done
    [ ! -e "$tree/run-demo.sh" ] || "$tree/run-demo.sh" --stop >/dev/null
    rm -rf "$folder"
}

control()
{
    "$tree/examples/device/demo-control.sh" "$@"
}

# await <what> <command>...: waits until the command succeeds, for a minute at most.
await()
{
    local tries=600
    until "${@:2}"; do
        tries=$((tries - 1))
        [ "$tries" -gt 0 ] || fail "timed out waiting for $1"
        sleep 0.1
    done
}

# Another program may take a free port before the demo does; then the next one is tried.
start_on_free_port()
{
    port=18080
    until "$tree/run-demo.sh" --background --port "$port" > "$folder/first" 2>&1; do
        grep -q "is in use by another program" "$folder/first" || { cat "$folder/first"; fail "the demo does not start"; }
        port=$((port + 1))
    done
    cat "$folder/first"
    address=http://127.0.0.1:$port
}

expect_page()
{
    local page
    page=$(curl --noproxy '*' -s -S -f "$address/") || fail "nothing is served on $address"
    [[ $page == *"<title>Demo device</title>"* ]] || fail "$address serves another page: $page"
}

expect_nothing_left()
{
    control check-port "$port" || fail "something still listens"
    [ ! -e "$1" ] || fail "$1 is still there"
}

try_background()
{
    local output run_directory
    start_on_free_port
    [ "$(tail -n 1 "$folder/first")" = "$address" ] || fail "the address does not end the output"
    expect_page

    output=$("$tree/run-demo.sh" --background --port "$port")
    [ "$output" = "The demo is already running; ./run-demo.sh --stop ends it.
$address" ] || fail "the second start says: $output"

    ! output=$("$tree/run-demo.sh" --background --port 1 2>&1) || fail "a start with another port succeeds"
    [ "$output" = "The demo is already running on $address; ./run-demo.sh --stop ends it." ] ||
        fail "the start with another port says: $output"

    run_directory=$(control run-directory)
    output=$("$tree/run-demo.sh" --stop)
    [ "$output" = "The demo on $address has been stopped." ] || fail "the stop says: $output"
    expect_nothing_left "$run_directory"
}

has_ended()
{
    ! kill -0 "$1" 2>/dev/null
}

# On a terminal SIGINT is not ignored, as it is below a script that runs in the background.
try_foreground()
{
    local output="$folder/foreground" run_directory status=0 job
    env --default-signal=INT "$tree/run-demo.sh" --foreground --port "$port" > "$output" 2>&1 &
    job=$!
    await "the demo in the foreground" grep -qxF "$address" "$output"
    cat "$output"
    grep -qxF "ninja: no work to do." "$output" || fail "what was built is built again"
    expect_page

    run_directory=$(control run-directory)
    kill -INT -- "-$job"
    await "the end after Ctrl-C" has_ended "$job"
    wait "$job" || status=$?
    [ "$status" -eq 130 ] || fail "after Ctrl-C the exit status is $status"
    expect_nothing_left "$run_directory"
}

trap clean_up EXIT
mkdir "$tree"
git -C "$source" ls-files -z --cached --others --exclude-standard | tar -C "$source" --null -T - -c | tar -C "$tree" -x
try_background
try_foreground
echo "the demo starts, stops and leaves nothing behind"
