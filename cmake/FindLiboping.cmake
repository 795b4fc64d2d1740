# Target Liboping::Liboping. Debian has it in liboping-dev.
find_path(Liboping_INCLUDE_DIR oping.h)
find_library(Liboping_LIBRARY oping)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Liboping REQUIRED_VARS Liboping_LIBRARY Liboping_INCLUDE_DIR
                                  REASON_FAILURE_MESSAGE "install liboping-dev")
if(Liboping_FOUND AND NOT TARGET Liboping::Liboping)
    add_library(Liboping::Liboping UNKNOWN IMPORTED)
    set_target_properties(Liboping::Liboping PROPERTIES IMPORTED_LOCATION "${Liboping_LIBRARY}"
                          INTERFACE_INCLUDE_DIRECTORIES "${Liboping_INCLUDE_DIR}")
endif()
mark_as_advanced(Liboping_INCLUDE_DIR Liboping_LIBRARY)
