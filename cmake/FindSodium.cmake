# Targets Sodium::Sodium, and Sodium::Archive: the static archive if there is one, so that a program takes only what it
# uses. Debian has both in libsodium-dev.
find_path(Sodium_INCLUDE_DIR sodium.h)
find_library(Sodium_LIBRARY sodium)
find_library(Sodium_ARCHIVE NAMES libsodium.a sodium)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Sodium REQUIRED_VARS Sodium_LIBRARY Sodium_INCLUDE_DIR
                                  REASON_FAILURE_MESSAGE "install libsodium-dev")
if(Sodium_FOUND AND NOT TARGET Sodium::Sodium)
    foreach(kind Sodium Archive)
        add_library(Sodium::${kind} UNKNOWN IMPORTED)
        set_target_properties(Sodium::${kind} PROPERTIES INTERFACE_INCLUDE_DIRECTORIES "${Sodium_INCLUDE_DIR}")
    endforeach()
    set_target_properties(Sodium::Sodium PROPERTIES IMPORTED_LOCATION "${Sodium_LIBRARY}")
    set_target_properties(Sodium::Archive PROPERTIES IMPORTED_LOCATION "${Sodium_ARCHIVE}")
endif()
mark_as_advanced(Sodium_INCLUDE_DIR Sodium_LIBRARY Sodium_ARCHIVE)
