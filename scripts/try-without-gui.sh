#!/bin/bash
# Builds the library as for a device without a screen, where Qt's widgets are not found, and checks that nothing of the user
# interface is left in the library, in what is installed and in a program that is made with it. The build directory is
# build/without-gui.
set -eu
cd "$(dirname "$0")/.."

build=build/without-gui
tree=$build/tree

fail()
{
    echo "FAIL: $*" >&2
    exit 1
}

expect_no_gui()
{
    local needed
    needed=$(readelf --dynamic "$1" | grep -F '(NEEDED)')
    ! grep -E 'Qt5?(Gui|Widgets)' <<< "$needed" || fail "$1 is linked with Qt's user interface"
}

rm -rf "$build"
cmake --preset release -B "$build" -DCMAKE_DISABLE_FIND_PACKAGE_Qt5Widgets=ON -DNBASE_BUILD_TESTS=OFF \
    -DNBASE_BUILD_EXAMPLES=OFF >/dev/null
grep -q '^NBASE_GUI:BOOL=OFF$' "$build/CMakeCache.txt" || fail "NBASE_GUI is on without Qt's widgets"
cmake --build "$build"
expect_no_gui "$build/src/nbase/libnbase.so"
! nm --dynamic --demangle "$build/src/nbase/libnbase.so" | grep -F NButtonRole || fail "the library has NButtonRole"
! LC_ALL=C grep -qaP '\x89PNG' "$build/src/nbase/libnbase.so" || fail "the library has icons"

cmake --install "$build" --prefix "$tree" >/dev/null
[ -z "$(find "$tree" -name 'nbuttonrole*')" ] || fail "the header of NButtonRole is installed"
! grep -rE 'Qt5(Gui|Widgets)|QtGui|Widgets' "$tree/lib" --include='*.pc' --include='*.cmake' ||
    fail "programs are told to use Qt's widgets"
cmake --no-warn-unused-cli -G Ninja -S examples/first -B "$build/first" -DCMAKE_PREFIX_PATH="$PWD/$tree" \
    -DCMAKE_DISABLE_FIND_PACKAGE_Qt5Widgets=ON >/dev/null
cmake --build "$build/first"
expect_no_gui "$build/first/first"
"$build/first/first"
