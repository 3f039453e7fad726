#!/bin/sh
# Makes a firmware package to try the demo device with: a real cpio archive with a description and three images, 12 MB
# together, whose contents mean nothing.
#
#   make-update.sh <file> <version>
set -eu

[ $# -eq 2 ] || {
    echo "usage: make-update.sh <file> <version>" >&2
    exit 1
}
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
printf 'software =\n{\n    version = "%s";\n    description = "demo package";\n}\n' "$2" >"$folder/sw-description"
for image in 1 2 3; do
    head -c 4194304 /dev/zero >"$folder/image-$image.bin"
done
(cd "$folder" && printf '%s\n' sw-description image-1.bin image-2.bin image-3.bin |
    busybox cpio -o -H newc 2>/dev/null) >"$1"
