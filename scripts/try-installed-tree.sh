#!/bin/bash
# One check of the installed tree; tests/consumer/CMakeLists.txt registers a test for each. "install" makes the tree that
# the other checks use.
#
#     try-installed-tree.sh install|command|find_package|pkg_config|headers
#         <build directory> <work directory> <command directory> <library directory> <soversion> <version>
set -eu

check=$1 build=$2 work=$3 bindir=$4 libdir=$5 soversion=$6 version=$7
source=$(cd "$(dirname "$0")/.." && pwd)
tree="$work/installed tree"
export PKG_CONFIG_PATH="$tree/$libdir/pkgconfig${PKG_CONFIG_PATH:+:$PKG_CONFIG_PATH}"
read -ra compile_flags <<< "${CXXFLAGS-}"

fail()
{
    echo "FAIL: $*" >&2
    exit 1
}

# The loader's search path of file $1 must be $2, without a folder of the build.
expect_search_path()
{
    local found
    found=$(readelf --dynamic "$1" | sed -nE 's/.*\((RPATH|RUNPATH)\).*\[(.*)\]$/\2/p')
    [ "$found" = "$2" ] || fail "$1 has the search path \"$found\", not \"$2\""
}

# The configuration store is installed only where the system has no libuci.
has_configuration_store()
{
    [ -e "$build/src/uci/libnuci.so" ]
}

# Without user interface, the library has no class for it.
has_user_interface()
{
    grep -qE '^NBASE_GUI:BOOL=(ON|TRUE|YES|1)$' "$build/CMakeCache.txt"
}

# Exactly the public headers are installed, the libraries have the documented names, and no file names a build directory.
check_install()
{
    rm -rf "$work"
    cmake --install "$build" --prefix "$work/first place"
    mv "$work/first place" "$tree"

    local public installed
    public=$(cd "$source/src" && find nbase nwebapi -name '*.h' ! -name '*_p.h' | sort)
    has_user_interface || public=$(grep -v '/nbuttonrole\.h$' <<< "$public")
    installed=$(cd "$tree/include" && find nbase nwebapi -name '*.h' | sort)
    [ "$public" = "$installed" ] || fail "the installed headers are not the public ones:
$(diff <(echo "$public") <(echo "$installed"))"

    local library file
    # shellcheck disable=SC2016 # expanded by the loader
    local -A search_paths=([nbase]='$ORIGIN' [nwebapi]='$ORIGIN')
    ! has_configuration_store || search_paths[nuci]=
    for library in "${!search_paths[@]}"; do
        file="$tree/$libdir/lib$library.so"
        [ "$(readlink -f "$file")" = "$(readlink -f "$tree/$libdir")/lib$library.so.$version" ] ||
            fail "$file does not resolve to lib$library.so.$version"
        readelf --dynamic "$file" | grep -qF "Library soname: [lib$library.so.$soversion]" ||
            fail "the soname of $file is not lib$library.so.$soversion"
        expect_search_path "$file" "${search_paths[$library]}"
    done

    ! grep -rIlF -e "$source" -e "$build" -e "$work" "$tree" || fail "these files contain directories of the build"
}

check_command()
{
    has_configuration_store || return 0
    expect_search_path "$tree/$bindir/nuci" "\$ORIGIN/$(realpath --relative-to="$tree/$bindir" "$tree/$libdir")"
    mkdir -p "$work/command"
    printf "config network 'lan'\n\toption proto 'static'\n" > "$work/command/network"
    [ "$("$tree/$bindir/nuci" -c "$work/command" get network.lan.proto)" = static ] || fail "nuci does not work"
}

expect_output_of_first()
{
    [ "$(head -n 1 "$1")" = "Nolvar base $version" ] || fail "the library's name is not printed: $(cat "$1")"
    grep -qE '^tomorrow: (mon|tues|wednes|thurs|fri|satur|sun)day$' "$1" || fail "the weekday is not printed: $(cat "$1")"
}

expect_output_of_web_program()
{
    grep -qiE '^Content-Type: *application/json; *charset=utf-8' "$1" || fail "no header: $(cat "$1")"
    [ "$(tail -n 1 "$1")" = '{"name":"box"}' ] || fail "no document: $(cat "$1")"
}

expect_output_of_button_program()
{
    [ "$(cat "$1")" = '16 1' ] || fail "there is no icon: $(cat "$1")"
}

check_find_package()
{
    local project directory projects=(examples/first tests/consumer/web-program)
    ! has_user_interface || projects+=(tests/consumer/button-program)
    for project in "${projects[@]}"; do
        directory="$work/find_package/$(basename "$project")"
        rm -rf "$directory"
        cmake -G Ninja -S "$source/$project" -B "$directory" -DCMAKE_PREFIX_PATH="$tree" >/dev/null
        cmake --build "$directory"
        "$directory/$(basename "$project")" > "$directory/output"
    done
    expect_output_of_first "$work/find_package/first/output"
    expect_output_of_web_program "$work/find_package/web-program/output"
    ! has_user_interface || expect_output_of_button_program "$work/find_package/button-program/output"

    # A request for another major version must not be satisfied.
    mkdir -p "$work/find_package/other version"
    cat > "$work/find_package/other version/CMakeLists.txt" <<'END'
cmake_minimum_required(VERSION 3.16)
project(other_version LANGUAGES CXX)
find_package(nbase 2.0)
if(nbase_FOUND)
    message(FATAL_ERROR "version ${nbase_VERSION} was accepted as version 2")
endif()
END
    cmake -G Ninja -S "$work/find_package/other version" -B "$work/find_package/other version/build" \
        -DCMAKE_PREFIX_PATH="$tree" >/dev/null 2>&1 || fail "this version is accepted as version 2"
}

# Compiles the program $1 with the flags of the pkg-config module $2 as $3 and runs it. pkg-config sets no run path, so -rpath is
# added. Blanks in the flags are escaped for a shell, hence eval.
build_with_pkg_config()
{
    local program="$work/pkg_config/$3" words=()
    pkg-config --print-errors --exists "$2"
    [ "$(pkg-config --modversion "$2")" = "$version" ] || fail "pkg-config reports another version of $2"
    eval "words=($(pkg-config --cflags --libs "$2"))"
    "$CXX" "${compile_flags[@]}" -std=c++11 -fPIC "$1" "${words[@]}" -Wl,-rpath,"$tree/$libdir" -o "$program"
    "$program" > "$program.output"
}

check_pkg_config()
{
    rm -rf "$work/pkg_config"
    mkdir -p "$work/pkg_config"
    build_with_pkg_config "$source/examples/first/main.cpp" nbase first
    build_with_pkg_config "$source/tests/consumer/web-program/main.cpp" nwebapi web-program
    expect_output_of_first "$work/pkg_config/first.output"
    expect_output_of_web_program "$work/pkg_config/web-program.output"
    if has_user_interface; then
        build_with_pkg_config "$source/tests/consumer/button-program/main.cpp" nbase button-program
        expect_output_of_button_program "$work/pkg_config/button-program.output"
    fi
}

# Every header is self-contained and has an include guard; all together compile also with Qt's implicit string conversions,
# and headers for C are compiled as C too.
check_headers()
{
    local folder="$work/headers" header word words=() flags=() sources=()
    rm -rf "$folder"
    mkdir -p "$folder"
    eval "words=($(pkg-config --cflags nbase))"
    # Suppresses warnings in Qt's own headers.
    for word in "${words[@]}"; do
        case $word in
            "-I$tree"*) flags+=("$word") ;;
            -I*) flags+=(-isystem "${word#-I}") ;;
            *) flags+=("$word") ;;
        esac
    done
    flags+=(-fPIC -fsyntax-only -Wall -Wextra -Wpedantic -Werror)
    printf '%s\n' "${flags[@]}" "${compile_flags[@]}" | sed 's/[\\" ]/\\&/g' > "$folder/flags"

    while read -r header; do
        printf '#include <%s>\n#include <%s>\n' "$header" "$header" > "$folder/${header//\//-}.cpp"
        ! grep -q '__cplusplus' "$tree/include/$header" ||
            printf '#include <%s>\n#include <%s>\n' "$header" "$header" > "$folder/${header//\//-}.c"
    done < <(cd "$tree/include" && find . -name '*.h' -printf '%P\n')
    cd "$folder"

    # The stricter variant shows whether a header includes what it uses.
    find . -name '*.cpp' -print0 | xargs -0 -n 1 -P 2 \
        "$CXX" -std=c++11 @flags -DQT_NO_CAST_FROM_ASCII -DQT_NO_CAST_TO_ASCII || fail "a header is not self-contained"
    sources=(*.cpp)
    cat "${sources[@]}" > all
    "$CXX" -std=c++11 @flags -x c++ all || fail "the headers do not compile together with implicit conversions"
    find . -name '*.c' -print0 | xargs -0 -r -n 1 -P 2 "$CC" -std=c99 @flags || fail "a header does not compile as C"
    echo "${#sources[@]} headers are self-contained"
}

"check_$check"
