#!/bin/sh
# Installs what is missing, builds, and runs every test.
set -eu
cd "$(dirname "$0")"

scripts/install-packages.sh build test
cmake --preset release
cmake --build --preset release
ctest --preset release --parallel 2
