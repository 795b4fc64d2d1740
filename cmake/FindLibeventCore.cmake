# Target LibeventCore::LibeventCore. Debian has it in libevent-dev.
find_path(LibeventCore_INCLUDE_DIR event2/event.h)
find_library(LibeventCore_LIBRARY event_core)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(LibeventCore REQUIRED_VARS LibeventCore_LIBRARY LibeventCore_INCLUDE_DIR
                                  REASON_FAILURE_MESSAGE "install libevent-dev")
if(LibeventCore_FOUND AND NOT TARGET LibeventCore::LibeventCore)
    add_library(LibeventCore::LibeventCore UNKNOWN IMPORTED)
    set_target_properties(LibeventCore::LibeventCore PROPERTIES IMPORTED_LOCATION "${LibeventCore_LIBRARY}"
                          INTERFACE_INCLUDE_DIRECTORIES "${LibeventCore_INCLUDE_DIR}")
endif()
mark_as_advanced(LibeventCore_INCLUDE_DIR LibeventCore_LIBRARY)
