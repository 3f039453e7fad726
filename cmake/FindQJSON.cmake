# Finds qjson for the Qt that NbaseQt has chosen: its builds for Qt 4 and Qt 5 bear different names.
# Defines QJSON_FOUND and the target QJSON::QJSON.

if(NBASE_QT_MAJOR EQUAL 5)
    set(_qjson_name qjson-qt5)
else()
    set(_qjson_name qjson)
endif()

find_path(QJSON_INCLUDE_DIR NAMES serializer.h PATH_SUFFIXES ${_qjson_name})
find_library(QJSON_LIBRARY NAMES ${_qjson_name})
mark_as_advanced(QJSON_INCLUDE_DIR QJSON_LIBRARY)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(QJSON REQUIRED_VARS QJSON_LIBRARY QJSON_INCLUDE_DIR)

if(QJSON_FOUND AND NOT TARGET QJSON::QJSON)
    add_library(QJSON::QJSON UNKNOWN IMPORTED)
    set_target_properties(QJSON::QJSON PROPERTIES
        IMPORTED_LOCATION "${QJSON_LIBRARY}" INTERFACE_INCLUDE_DIRECTORIES "${QJSON_INCLUDE_DIR}")
endif()
