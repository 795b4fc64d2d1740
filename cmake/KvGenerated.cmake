# Target kv_generated: headers generated from project()'s release number and the partition sizes in
# common/partitions.txt.
set(partitions "${PROJECT_SOURCE_DIR}/common/partitions.txt")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${partitions}")
file(STRINGS "${partitions}" rows REGEX "^[a-z]")
set(KV_PARTITION_KIB "")
foreach(row IN LISTS rows)
    if(NOT row MATCHES "^[a-z0-9]+ ([0-9]+)$")
        message(FATAL_ERROR "${partitions}: expected a label and a size: '${row}'")
    endif()
    list(APPEND KV_PARTITION_KIB ${CMAKE_MATCH_1})
endforeach()
list(JOIN KV_PARTITION_KIB ", " KV_PARTITION_KIB)

foreach(header kv_version.h kv_standard_layout.h)
    configure_file("cmake/${header}.in" "${PROJECT_BINARY_DIR}/generated/${header}" @ONLY)
endforeach()
add_library(kv_generated INTERFACE)
target_include_directories(kv_generated INTERFACE "${PROJECT_BINARY_DIR}/generated")
