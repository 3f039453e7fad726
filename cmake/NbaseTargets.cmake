# What the libraries, programs and tests of this tree have in common.

# Strict warnings, and no conversion between bytes and text that the code does not spell out: Qt 4 reads a plain
# character string as Latin-1 and Qt 5 as UTF-8, so a silent conversion would differ between the two.
add_library(nbase_compile_options INTERFACE)
target_compile_options(nbase_compile_options INTERFACE -Wall -Wextra -Wpedantic)
include(CheckCXXCompilerFlag)
check_cxx_compiler_flag(-Wsuggest-override NBASE_HAS_SUGGEST_OVERRIDE)
if(NBASE_HAS_SUGGEST_OVERRIDE)
    target_compile_options(nbase_compile_options INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-Wsuggest-override>)
endif()
# Qt 4's macros write null pointers as 0 and would be reported at each use.
if(NBASE_QT_MAJOR EQUAL 5)
    check_cxx_compiler_flag(-Wzero-as-null-pointer-constant NBASE_HAS_ZERO_AS_NULL)
    if(NBASE_HAS_ZERO_AS_NULL)
        target_compile_options(nbase_compile_options INTERFACE
            $<$<COMPILE_LANGUAGE:CXX>:-Wzero-as-null-pointer-constant>)
    endif()
endif()
# A file may be larger than 2 GiB, a log or an image, and a file system may number its files beyond 32 bits; without this
# the C library of a 32-bit machine refuses to open such files.
target_compile_definitions(nbase_compile_options INTERFACE
    _FILE_OFFSET_BITS=64
    $<$<COMPILE_LANGUAGE:CXX>:QT_NO_CAST_FROM_ASCII>
    $<$<COMPILE_LANGUAGE:CXX>:QT_NO_CAST_TO_ASCII>)

option(NBASE_JOIN_SOURCES "Compile several files of a library together, which is faster" OFF)

# nbase_join_sources(<target> [EXCEPT <folder>...])
# Compiles up to eight C++ files of a folder together if NBASE_JOIN_SOURCES says so. To be called when the target has all its
# sources. Names in unnamed namespaces must then differ within a folder. Builds without this option show whether each file
# includes what it uses.
function(nbase_join_sources target)
    cmake_parse_arguments(arg "" "" "EXCEPT" ${ARGN})
    if(NOT NBASE_JOIN_SOURCES)
        return()
    endif()
    set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_MODE GROUP)
    # GCC takes the joined files for headers and warns of classes that contain others of an unnamed namespace.
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        target_compile_options(${target} PRIVATE -Wno-subobject-linkage)
    endif()
    get_target_property(sources ${target} SOURCES)
    get_target_property(base ${target} SOURCE_DIR)
    list(FILTER sources INCLUDE REGEX "\\.cpp$")
    list(SORT sources)
    foreach(source IN LISTS sources)
        get_filename_component(source ${source} ABSOLUTE BASE_DIR ${base})
        get_filename_component(folder ${source} DIRECTORY)
        get_filename_component(folder ${folder} NAME)
        if(folder IN_LIST arg_EXCEPT)
            continue()
        endif()
        math(EXPR count_${folder} "0${count_${folder}} + 1")
        math(EXPR group "(${count_${folder}} - 1) / 8")
        set_source_files_properties(${source}
            TARGET_DIRECTORY ${target} PROPERTIES UNITY_GROUP ${folder}_${group})
    endforeach()
endfunction()

# Gives a shared library its version and soname, and finds its headers under src/ by the path they are installed by.
function(nbase_library_properties target)
    # Installed in a folder that the loader does not search, a library finds the other ones of this tree beside it.
    set_target_properties(${target} PROPERTIES
        VERSION ${PROJECT_VERSION} SOVERSION ${NBASE_SOVERSION} INSTALL_RPATH "$ORIGIN")
    target_include_directories(${target} PUBLIC
        $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/src> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
    target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:nbase_compile_options>)
    target_link_options(${target} PRIVATE -Wl,--as-needed)
    # Clang links the sanitizers' runtime into programs only, so a library leaves their functions to be found there.
    if(NOT (CMAKE_CXX_COMPILER_ID MATCHES "Clang" AND CMAKE_CXX_FLAGS MATCHES "-fsanitize="))
        target_link_options(${target} PRIVATE -Wl,--no-undefined)
    endif()
endfunction()
