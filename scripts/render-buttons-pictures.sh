#!/bin/sh
# Makes the pictures of docs/buttons.md with the example, which is built first:
#
#     scripts/render-buttons-pictures.sh
set -eu
cd "$(dirname "$0")/.."

cmake --preset release >/dev/null
cmake --build --preset release --target nbase-example-buttons

runtime=$(mktemp -d)
trap 'rm -rf "$runtime"' EXIT
export QT_QPA_PLATFORM=offscreen XDG_RUNTIME_DIR="$runtime"
example=build/release/examples/buttons/nbase-example-buttons
"$example" -style fusion --picture docs/images/buttons-light.png
"$example" -style fusion --dark --picture docs/images/buttons-dark.png
