# Finds the Qt that everything is built with. NBASE_QT chooses the major version, 4 or 5; empty takes the newest found.
# Afterwards the rest of the build names Qt's modules alike for both versions: nbase_qt_core, nbase_qt_network,
# nbase_qt_sql, nbase_qt_widgets and nbase_qt_test.

set(NBASE_QT "" CACHE STRING "Major version of Qt: 4, 5, or empty for the newest found")
set_property(CACHE NBASE_QT PROPERTY STRINGS "" 4 5)

if(NOT NBASE_QT MATCHES "^[45]?$")
    message(FATAL_ERROR "NBASE_QT is \"${NBASE_QT}\"; it must be 4, 5 or empty")
endif()

set(_nbase_qt_modules Core Network Sql)
if(NBASE_BUILD_TESTS)
    list(APPEND _nbase_qt_modules Test)
endif()

if(NOT NBASE_QT STREQUAL "4")
    find_package(Qt5 5.6 QUIET COMPONENTS ${_nbase_qt_modules} Widgets)
endif()
if(Qt5_FOUND)
    set(NBASE_QT_MAJOR 5)
    set(_nbase_qt_prefix Qt5::)
    set(_nbase_qt_widgets Qt5::Widgets)
elseif(NOT NBASE_QT STREQUAL "5")
    # CMake names Qt 4's modules with a prefix of their own.
    list(TRANSFORM _nbase_qt_modules PREPEND Qt)
    find_package(Qt4 4.8 QUIET COMPONENTS ${_nbase_qt_modules} QtGui)
    if(Qt4_FOUND)
        set(NBASE_QT_MAJOR 4)
        set(_nbase_qt_prefix Qt4::Qt)
        set(_nbase_qt_widgets Qt4::QtGui)
    endif()
endif()
if(NOT NBASE_QT_MAJOR)
    message(FATAL_ERROR "Qt ${NBASE_QT} was not found (Debian: qtbase5-dev libqt5sql5-sqlite)")
endif()

foreach(_module Core Network Sql Test)
    string(TOLOWER ${_module} _name)
    if(TARGET ${_nbase_qt_prefix}${_module})
        set(nbase_qt_${_name} ${_nbase_qt_prefix}${_module})
    endif()
endforeach()
set(nbase_qt_widgets ${_nbase_qt_widgets})
