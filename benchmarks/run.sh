#!/bin/sh
# Builds the benchmarks, runs them all and prints one table of ratios.
#
#     benchmarks/run.sh [<part of a program's name>]
set -eu

here=$(cd "$(dirname "$0")" && pwd)
cd "$here/.."

cmake --preset benchmark >/dev/null
cmake --build --preset benchmark >/dev/null

results=$(mktemp -d)
trap 'rm -rf "$results"' EXIT
for source in benchmarks/bench_*"${1:-}"*.cpp; do
    name=$(basename "$source" .cpp)
    echo "running $name" >&2
    "build/benchmark/benchmarks/$name" --benchmark_out="$results/$name.json" --benchmark_out_format=json >&2
done
python3 "$here/table.py" "$results"/*.json
