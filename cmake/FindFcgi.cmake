# Finds libfcgi (Debian: libfcgi-dev), which benchmarks measure against: the target Fcgi::Fcgi.

find_path(Fcgi_INCLUDE_DIR fcgiapp.h)
find_library(Fcgi_LIBRARY fcgi)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Fcgi REQUIRED_VARS Fcgi_LIBRARY Fcgi_INCLUDE_DIR)

if(Fcgi_FOUND AND NOT TARGET Fcgi::Fcgi)
    add_library(Fcgi::Fcgi UNKNOWN IMPORTED)
    set_target_properties(Fcgi::Fcgi PROPERTIES
        IMPORTED_LOCATION "${Fcgi_LIBRARY}" INTERFACE_INCLUDE_DIRECTORIES "${Fcgi_INCLUDE_DIR}")
endif()
mark_as_advanced(Fcgi_INCLUDE_DIR Fcgi_LIBRARY)
