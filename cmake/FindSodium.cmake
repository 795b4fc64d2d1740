# Target Sodium::Sodium. Debian has it in libsodium-dev.
find_path(Sodium_INCLUDE_DIR sodium.h)
find_library(Sodium_LIBRARY sodium)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Sodium REQUIRED_VARS Sodium_LIBRARY Sodium_INCLUDE_DIR
                                  REASON_FAILURE_MESSAGE "install libsodium-dev")
if(Sodium_FOUND AND NOT TARGET Sodium::Sodium)
    add_library(Sodium::Sodium UNKNOWN IMPORTED)
    set_target_properties(Sodium::Sodium PROPERTIES IMPORTED_LOCATION "${Sodium_LIBRARY}"
                          INTERFACE_INCLUDE_DIRECTORIES "${Sodium_INCLUDE_DIR}")
endif()
mark_as_advanced(Sodium_INCLUDE_DIR Sodium_LIBRARY)
