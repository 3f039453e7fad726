#!/bin/sh
# Runs every fuzz target in the given build directory from its corpus for a bounded number of inputs. Inputs that are
# found on the way are thrown away; one that breaks something is kept in the build directory and named.
#
#     tests/fuzz/run-fuzzers.sh <build directory> [<inputs for each target>]
set -eu

here=$(cd "$(dirname "$0")" && pwd)
programs=$(cd "$1" && pwd)/tests/fuzz
inputs=${2:-20000}

count=0
for corpus in "$here"/corpus/*/; do
    name=$(basename "$corpus")
    found=$(mktemp -d)
    echo "fuzzing $name: $inputs inputs"
    "$programs/$name" -runs="$inputs" -seed=1 -timeout=10 -rss_limit_mb=2048 -verbosity=0 \
        -artifact_prefix="$programs/$name-" "$found" "$corpus"
    rm -rf "$found"
    count=$((count + 1))
done
echo "$count fuzz targets ran, $inputs inputs each, nothing broke"
