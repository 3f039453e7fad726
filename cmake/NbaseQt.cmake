# Finds the Qt that everything is built with. NBASE_QT chooses the major version, 4 or 5; empty takes the newest found.
# Afterwards the rest of the build names Qt's modules alike for both versions: nbase_qt_core, nbase_qt_network,
# nbase_qt_sql, nbase_qt_test and, with NBASE_GUI, nbase_qt_widgets.

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
    find_package(Qt5 5.6 QUIET COMPONENTS ${_nbase_qt_modules})
endif()
if(Qt5_FOUND)
    set(NBASE_QT_MAJOR 5)
    set(_nbase_qt_prefix Qt5::)
elseif(NOT NBASE_QT STREQUAL "5")
    # CMake names Qt 4's modules with a prefix of their own.
    list(TRANSFORM _nbase_qt_modules PREPEND Qt OUTPUT_VARIABLE _nbase_qt4_modules)
    find_package(Qt4 4.8 QUIET COMPONENTS ${_nbase_qt4_modules})
    if(Qt4_FOUND)
        set(NBASE_QT_MAJOR 4)
        set(_nbase_qt_prefix Qt4::Qt)
    endif()
endif()

if(NOT NBASE_QT_MAJOR)
    set(_nbase_qt_missing "")
    foreach(_module IN LISTS _nbase_qt_modules)
        string(TOUPPER QT_QT${_module}_FOUND _found_in_qt4)
        if(NOT NBASE_QT STREQUAL "4" AND NOT Qt5${_module}_FOUND)
            string(APPEND _nbase_qt_missing " Qt5${_module}")
        endif()
        if(NOT NBASE_QT STREQUAL "5" AND NOT ${_found_in_qt4})
            string(APPEND _nbase_qt_missing " Qt4${_module}")
        endif()
    endforeach()
    message(FATAL_ERROR "No Qt that will do was found, 5.6 or later or 4.8 (NBASE_QT is \"${NBASE_QT}\"); modules "
        "missing:${_nbase_qt_missing} (Debian: qtbase5-dev libqt5sql5-sqlite)")
endif()

foreach(_module IN LISTS _nbase_qt_modules)
    string(TOLOWER ${_module} _name)
    set(nbase_qt_${_name} ${_nbase_qt_prefix}${_module})
endforeach()

# The module with the widgets, which is a part of QtGui in Qt 4.
if(NBASE_QT_MAJOR EQUAL 5)
    find_package(Qt5Widgets ${Qt5_VERSION} QUIET)
    set(nbase_qt_widgets Qt5::Widgets)
    set(_nbase_has_widgets ${Qt5Widgets_FOUND})
else()
    set(nbase_qt_widgets Qt4::QtGui)
    set(_nbase_has_widgets ${QT_QTGUI_FOUND})
endif()
if(_nbase_has_widgets)
    option(NBASE_GUI "Build what devices with a screen need: NButtonRole and the icons" ON)
else()
    option(NBASE_GUI "Build what devices with a screen need: NButtonRole and the icons" OFF)
    if(NBASE_GUI)
        message(FATAL_ERROR "NBASE_GUI needs ${nbase_qt_widgets}, which was not found (Debian: qtbase5-dev)")
    endif()
endif()

# nbase_run_moc(<target> <source>...)
# Runs moc for a target with few sources. AUTOMOC does this as well, but starts several more processes for each target, which
# counts for the many test programs. The output for <name>.cpp is <name>.moc, to be included there; the output for a header is
# compiled into the target.
get_target_property(nbase_qt_moc Qt${NBASE_QT_MAJOR}::moc IMPORTED_LOCATION)
function(nbase_run_moc target)
    set(folder ${CMAKE_CURRENT_BINARY_DIR}/${target}_moc)
    file(MAKE_DIRECTORY ${folder})
    set(includes $<TARGET_PROPERTY:${target},INCLUDE_DIRECTORIES>)
    set(definitions $<TARGET_PROPERTY:${target},COMPILE_DEFINITIONS>) # slots may depend on them
    foreach(source IN LISTS ARGN)
        get_filename_component(name ${source} NAME_WE)
        if(source MATCHES "\\.h$")
            set(output ${folder}/moc_${name}.cpp)
        else()
            set(output ${folder}/${name}.moc)
        endif()
        get_filename_component(source ${source} ABSOLUTE)
        add_custom_command(OUTPUT ${output}
            COMMAND ${nbase_qt_moc} "$<$<BOOL:${includes}>:-I$<JOIN:${includes},;-I>>"
                "$<$<BOOL:${definitions}>:-D$<JOIN:${definitions},;-D>>" -o ${output} ${source}
            DEPENDS ${source} COMMAND_EXPAND_LISTS VERBATIM)
        target_sources(${target} PRIVATE ${output})
    endforeach()
    set_target_properties(${target} PROPERTIES AUTOMOC OFF)
    target_include_directories(${target} PRIVATE ${folder})
endfunction()
