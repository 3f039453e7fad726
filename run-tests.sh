#!/bin/sh
# Installs what is missing, builds, and runs every test.
#
#   ./run-tests.sh
#
# The results are printed; details are in build/release/Testing. Single tests are run after that with
# "ctest --preset release -R <name>". .ci/run adds the slower checks.
set -eu
cd "$(dirname "$0")"

case "${1:-}" in
    '') ;;
    -h | --help)
        sed -n '2,/^set/s/^# \{0,1\}//p' "$(basename "$0")"
        exit 0
        ;;
    *)
        echo "run-tests.sh: unknown option \"$1\"; ./run-tests.sh --help shows how it is used" >&2
        exit 2
        ;;
esac

scripts/install-packages.sh build test
cmake --preset release
cmake --build --preset release
# Most tests wait for something most of the time.
ctest --preset release --parallel "$(($(nproc) * 4))"
