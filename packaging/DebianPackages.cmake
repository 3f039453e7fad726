# Debian packages: one for each installation component, named as Debian names libraries. `cpack` makes them from a build
# directory of the preset "package"; scripts/try-packages.sh makes and tries them.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME nbase)
set(CPACK_PACKAGE_VENDOR "Nolvar developers")
set(CPACK_PACKAGE_CONTACT "Nolvar developers <developers@nolvar.example>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
# Each package has a summary of its own.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
# Whoever builds may have any umask; the files of a package are readable for everybody.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# The version of the packages is that of the newest entry of their changelog.
file(STRINGS debian/changelog _changelog_entry LIMIT_COUNT 1)
string(REGEX REPLACE "^nbase \\(([0-9.]+)-([a-z0-9.]+)\\).*" "\\1;\\2" _changelog_version "${_changelog_entry}")
list(GET _changelog_version 0 _upstream_version)
list(GET _changelog_version 1 CPACK_DEBIAN_PACKAGE_RELEASE)
if(NOT _upstream_version VERSION_EQUAL PROJECT_VERSION)
    message(FATAL_ERROR "packaging/debian/changelog is of version ${_upstream_version}, not ${PROJECT_VERSION}")
endif()
set(_package_version ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_COMPONENTS_ALL "")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

if(NBASE_QT_MAJOR EQUAL 5)
    set(_qt_package "qtbase5-dev (>= ${Qt5_VERSION_MAJOR}.${Qt5_VERSION_MINOR})")
    set(_sqlite_driver_package libqt5sql5-sqlite)
else()
    set(_qt_package libqt4-dev)
    set(_sqlite_driver_package libqt4-sql-sqlite)
endif()

# A build directory without gzip can still be installed from; it just makes no packages.
find_program(NBASE_GZIP gzip)
mark_as_advanced(NBASE_GZIP)
function(nbase_compress file name)
    execute_process(COMMAND ${NBASE_GZIP} -9nc ${file}
        OUTPUT_FILE ${CMAKE_CURRENT_BINARY_DIR}/${name} RESULT_VARIABLE result)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "${file} cannot be compressed: ${result}")
    endif()
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
endfunction()
if(NBASE_GZIP)
    nbase_compress(${CMAKE_CURRENT_SOURCE_DIR}/debian/changelog changelog.Debian.gz)
    nbase_compress(${PROJECT_SOURCE_DIR}/src/uci/nuci.1 nuci.1.gz)
endif()

# nbase_debian_package(<component> <package> <section> <depends> <summary> <description>)
# Makes <package> out of <component>; what <package> needs of shared libraries is found out from its files.
macro(nbase_debian_package component package section depends summary description)
    list(APPEND CPACK_COMPONENTS_ALL ${component})
    string(TOUPPER ${component} _component)
    set(CPACK_DEBIAN_${_component}_PACKAGE_NAME ${package})
    set(CPACK_DEBIAN_${_component}_PACKAGE_SECTION ${section})
    set(CPACK_DEBIAN_${_component}_PACKAGE_DEPENDS "${depends}")
    set(CPACK_DEBIAN_${_component}_DESCRIPTION "${summary}\n${description}")
    if("${section}" STREQUAL "libs")
        set(CPACK_DEBIAN_${_component}_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_SOURCE_DIR}/debian/triggers)
    endif()
    # Not part of `cmake --install`, which may well install somewhere that knows nothing of Debian.
    install(FILES ${CMAKE_CURRENT_SOURCE_DIR}/debian/copyright ${CMAKE_CURRENT_BINARY_DIR}/changelog.Debian.gz
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component} EXCLUDE_FROM_ALL)
endmacro()

nbase_debian_package(nwebapi-runtime libnwebapi${NBASE_SOVERSION} libs ""
    "web services behind FastCGI for Qt programs"
    "Requests, sessions, HTTP headers, JSON and multipart forms for programs that
serve web requests through FastCGI from a Qt event loop.")
nbase_debian_package(nwebapi-development libnwebapi-dev libdevel
    "libnwebapi${NBASE_SOVERSION} (= ${_package_version}), ${_qt_package}"
    "web services behind FastCGI for Qt programs (development files)"
    "Requests, sessions, HTTP headers, JSON and multipart forms for programs that
serve web requests through FastCGI from a Qt event loop.
.
This package contains the headers and what is needed to link with the library.")
set(_uci_depends "")
set(_uci_development_depends "")
if(NBASE_OWN_UCI)
    set(_uci_depends ", libnuci${NBASE_SOVERSION} (= ${_package_version})")
    set(_uci_development_depends ", libnuci-dev (= ${_package_version})")
    nbase_debian_package(nuci-runtime libnuci${NBASE_SOVERSION} libs ""
        "configuration store with libuci's interface"
        "Packages of typed sections with options, kept as text files, with changes that
are staged until they are committed.")
    nbase_debian_package(nuci-development libnuci-dev libdevel
        "libnuci${NBASE_SOVERSION} (= ${_package_version})"
        "configuration store with libuci's interface (development files)"
        "Packages of typed sections with options, kept as text files, with changes that
are staged until they are committed.
.
This package contains the header and what is needed to link with the library.")
    nbase_debian_package(nuci-command nuci utils
        "libnuci${NBASE_SOVERSION} (= ${_package_version})"
        "configuration store with libuci's interface (command)"
        "Packages of typed sections with options, kept as text files, with changes that
are staged until they are committed.
.
This package contains the command that reads and changes them in a shell.")
    # Devices have no use for it, so that it is not part of `cmake --install` either.
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/nuci.1.gz
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT nuci-command EXCLUDE_FROM_ALL)
endif()
# Qt loads its SQLite driver at run time, so nothing in the library's files tells that it is needed.
nbase_debian_package(nbase-runtime libnbase${NBASE_SOVERSION} libs
    "libnwebapi${NBASE_SOVERSION} (= ${_package_version})${_uci_depends}, ${_sqlite_driver_package}"
    "base library of the Nolvar embedded devices"
    "What the applications of an embedded Linux device have in common: system log,
configuration, databases, time zones and events, networking, serial ports,
firmware update, peripherals, and web services for them.")
nbase_debian_package(nbase-development libnbase-dev libdevel
    "libnbase${NBASE_SOVERSION} (= ${_package_version}), libnwebapi-dev (= ${_package_version})${_uci_development_depends}, ${_qt_package}"
    "base library of the Nolvar embedded devices (development files)"
    "What the applications of an embedded Linux device have in common: system log,
configuration, databases, time zones and events, networking, serial ports,
firmware update, peripherals, and web services for them.
.
This package contains the headers, the CMake package and what is needed to
link with the library.")

# Where the libraries of this build find one another while their dependencies are looked for. To which package they
# belong is not known there, so their packages name each other.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ${PROJECT_BINARY_DIR}/src/uci ${PROJECT_BINARY_DIR}/src/nwebapi ${PROJECT_BINARY_DIR}/src/nbase)

set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_CURRENT_SOURCE_DIR}/debian/drop-ldconfig-scripts.cmake)

include(CPack)
