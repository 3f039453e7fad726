#!/bin/sh
# Renders the icons of the library, src/nbase/resources/icons/*.svg, to the PNG images beside them, which the build uses. To
# be run after a change of an icon; needs rsvg-convert (Debian: librsvg2-bin). tst_nbuttonrole checks that they match.
#
# All coordinates in the sources are whole pixels, so that every renderer gives the same image, without half-tones.
set -eu
cd "$(dirname "$0")/../src/nbase/resources/icons"

for source in *.svg; do
    rsvg-convert --output "${source%.svg}.png" "$source"
done
