#!/bin/bash
# Runs the commands that README.md prints for the first program, as they are, and checks what the program prints. There is no
# make on the PATH and the home directory is empty, as on a new machine.
set -eu
cd "$(dirname "$0")/.."

place=$(mktemp -d)
trap 'rm -rf "$place"' EXIT

sed -n '/^<!-- commands: scripts\/try-first-program.sh -->$/,/^```$/p' README.md | sed '1,2d;$d' > "$place/commands"
[ -s "$place/commands" ] || { echo "FAIL: README.md has no commands for the first program"; exit 1; }

mkdir "$place/home" "$place/bin"
IFS=: read -ra folders <<< "$PATH"
for folder in "${folders[@]}"; do
    find "$folder/" -maxdepth 1 ! -type d ! -name make ! -name gmake -exec sh -c '
        bin=$1
        shift
        for file; do [ -e "$bin/${file##*/}" ] || ln -s "$file" "$bin/"; done' sh "$place/bin" {} + 2>/dev/null || true
done
rm -rf build/first
HOME="$place/home" PATH="$place/bin" bash -eu "$place/commands" | tee "$place/output"

version=$(sed -n 's/^project(nbase VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
tail -n 3 "$place/output" | head -n 1 | grep -qFx "Nolvar base $version" ||
    { echo "FAIL: the program does not print the library's name and version"; exit 1; }
echo "the commands of README.md work"
