# Target Libhv::Libhv, an installed libhv. Its own CMake package has no version, so the version comes from its header.
# A libhv built without WITH_PROTOCOL has no ping and cannot be used.
find_path(Libhv_INCLUDE_DIR hv/hloop.h)
find_library(Libhv_LIBRARY NAMES hv hv_static)

if(Libhv_INCLUDE_DIR)
    set(Libhv_VERSION "")
    foreach(part MAJOR MINOR PATCH)
        file(STRINGS "${Libhv_INCLUDE_DIR}/hv/hversion.h" line
             REGEX "^#define[ \t]+HV_VERSION_${part}[ \t]+[0-9]+")
        string(REGEX MATCH "[0-9]+$" number "${line}")
        list(APPEND Libhv_VERSION "${number}")
    endforeach()
    list(JOIN Libhv_VERSION "." Libhv_VERSION)
    if(Libhv_VERSION VERSION_LESS Libhv_FIND_VERSION)
        message(FATAL_ERROR "The libhv in ${Libhv_INCLUDE_DIR} is ${Libhv_VERSION}; this program needs "
                            "${Libhv_FIND_VERSION} or newer. Point CMAKE_PREFIX_PATH at a newer one, or "
                            "configure with -DKV_HV=bundled.")
    endif()
    if(NOT EXISTS "${Libhv_INCLUDE_DIR}/hv/icmp.h")
        message(FATAL_ERROR "The libhv in ${Libhv_INCLUDE_DIR} has no hv/icmp.h: build it with "
                            "-DWITH_PROTOCOL=ON, or configure with -DKV_HV=bundled.")
    endif()
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(
    Libhv REQUIRED_VARS Libhv_LIBRARY Libhv_INCLUDE_DIR VERSION_VAR Libhv_VERSION
    REASON_FAILURE_MESSAGE "point CMAKE_PREFIX_PATH at its prefix, or configure with -DKV_HV=bundled")
if(Libhv_FOUND AND NOT TARGET Libhv::Libhv)
    add_library(Libhv::Libhv UNKNOWN IMPORTED)
    set_target_properties(Libhv::Libhv PROPERTIES IMPORTED_LOCATION "${Libhv_LIBRARY}"
                          INTERFACE_INCLUDE_DIRECTORIES "${Libhv_INCLUDE_DIR}")
endif()
mark_as_advanced(Libhv_INCLUDE_DIR Libhv_LIBRARY)
