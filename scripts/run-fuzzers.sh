#!/bin/bash
# Runs every fuzz target of a build directory from its corpus, as many at a time as there are processors, each for an equal
# share of a number of inputs. New inputs are discarded, except one that causes a failure: it is kept in the build directory
# and its path is printed.
#
#     scripts/run-fuzzers.sh <build directory> [<inputs for all targets together>]
set -eu

corpora=$(cd "$(dirname "$0")/../tests/fuzz/corpus" && pwd)
programs=$(cd "$1" && pwd)/tests/fuzz
inputs=${2:-640000}

found=$(mktemp -d)
trap 'rm -rf "$found"' EXIT

targets=("$corpora"/*/)
targets=("${targets[@]%/}")
targets=("${targets[@]##*/}")
share=$((inputs / ${#targets[@]}))

fuzz()
{
    local name=$1 output=$2/$1.output
    mkdir "$2/$name"
    if "$3/$name" -runs="$5" -seed=1 -timeout=10 -rss_limit_mb=2048 -verbosity=0 \
        -artifact_prefix="$3/$name-" "$2/$name" "$4/$name" > "$output" 2>&1; then
        echo "fuzzed $name"
    else
        cat "$output"
        echo "FAIL: $name"
        return 1
    fi
}
export -f fuzz

printf '%s\n' "${targets[@]}" | xargs -P "$(nproc)" -I '{}' \
    bash -c 'fuzz "$@"' fuzz '{}' "$found" "$programs" "$corpora" "$share"
echo "${#targets[@]} fuzz targets ran, $share inputs each, no failure"
