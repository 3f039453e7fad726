# Finds the system's libuci: Uci_FOUND, Uci_INCLUDE_DIR, Uci_LIBRARY and the target Uci::Uci.

find_path(Uci_INCLUDE_DIR uci.h)
find_library(Uci_LIBRARY uci)
mark_as_advanced(Uci_INCLUDE_DIR Uci_LIBRARY)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Uci REQUIRED_VARS Uci_LIBRARY Uci_INCLUDE_DIR)

if(Uci_FOUND AND NOT TARGET Uci::Uci)
    add_library(Uci::Uci UNKNOWN IMPORTED)
    set_target_properties(Uci::Uci PROPERTIES
        IMPORTED_LOCATION "${Uci_LIBRARY}"
        INTERFACE_INCLUDE_DIRECTORIES "${Uci_INCLUDE_DIR}")
endif()
