# Target Libmd::Libmd. Debian has it in libmd-dev.
find_path(Libmd_INCLUDE_DIR md5.h)
find_library(Libmd_LIBRARY md)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Libmd REQUIRED_VARS Libmd_LIBRARY Libmd_INCLUDE_DIR
                                  REASON_FAILURE_MESSAGE "install libmd-dev")
if(Libmd_FOUND AND NOT TARGET Libmd::Libmd)
    add_library(Libmd::Libmd UNKNOWN IMPORTED)
    set_target_properties(Libmd::Libmd PROPERTIES IMPORTED_LOCATION "${Libmd_LIBRARY}"
                          INTERFACE_INCLUDE_DIRECTORIES "${Libmd_INCLUDE_DIR}")
endif()
mark_as_advanced(Libmd_INCLUDE_DIR Libmd_LIBRARY)
