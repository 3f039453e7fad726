#!/bin/sh
# Runs every fuzz target of a build directory from its corpus for a bounded number of inputs. New inputs are discarded,
# except one that causes a failure: it is kept in the build directory and its path is printed.
#
#     scripts/run-fuzzers.sh <build directory> [<inputs for each target>]
set -eu

corpora=$(cd "$(dirname "$0")/../tests/fuzz/corpus" && pwd)
programs=$(cd "$1" && pwd)/tests/fuzz
inputs=${2:-20000}

count=0
for corpus in "$corpora"/*/; do
    name=$(basename "$corpus")
    found=$(mktemp -d)
    echo "fuzzing $name: $inputs inputs"
    "$programs/$name" -runs="$inputs" -seed=1 -timeout=10 -rss_limit_mb=2048 -verbosity=0 \
        -artifact_prefix="$programs/$name-" "$found" "$corpus"
    rm -rf "$found"
    count=$((count + 1))
done
echo "$count fuzz targets ran, $inputs inputs each, no failure"
