# Compiler and linker flags of our own code. Every target of this project links kv_options.
add_library(kv_options INTERFACE)
target_include_directories(kv_options INTERFACE "${PROJECT_SOURCE_DIR}")
# A (void) marks each result that is ignored on purpose, but GCC warns anyway.
target_compile_options(kv_options INTERFACE -Wall -Wextra -Wshadow -Wconversion -Wno-unused-result)
# clang's -Wconversion includes sign conversions in C++; GCC's does not.
target_compile_options(kv_options INTERFACE $<$<CXX_COMPILER_ID:Clang>:-Wno-sign-conversion>)
if(KV_WERROR)
    target_compile_options(kv_options INTERFACE -Werror)
endif()

# Allow files of any size even where a long has 32 bits. Do not add 64-bit times: libevent's records contain times, and
# Debian's libevent was built with 32-bit ones there.
target_compile_definitions(kv_options INTERFACE _FILE_OFFSET_BITS=64)

# The device program throws no exceptions.
set(KV_DEVICE_FLAGS -fno-exceptions -fno-rtti)

if(KV_SANITIZE)
    target_compile_options(kv_options INTERFACE "-fsanitize=${KV_SANITIZE}" -fno-omit-frame-pointer
                                                -fno-sanitize-recover=all)
    target_link_options(kv_options INTERFACE "-fsanitize=${KV_SANITIZE}")
endif()

if(KV_HARDEN)
    set(CMAKE_INTERPROCEDURAL_OPTIMIZATION ON)
    set(CMAKE_CXX_FLAGS_MINSIZEREL "-Os -DNDEBUG")
    target_compile_options(kv_options INTERFACE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2
                                                -fstack-protector-strong -ffunction-sections
                                                -fdata-sections)
    target_link_options(kv_options INTERFACE -Wl,-z,relro,-z,now -Wl,--gc-sections -Wl,--as-needed)
    # Nothing unwinds the device program's stack, so it needs neither the unwind tables nor the library.
    set(KV_DEVICE_LINK_FLAGS -static-libgcc)
    list(APPEND KV_DEVICE_FLAGS -fno-unwind-tables -fno-asynchronous-unwind-tables)
endif()

# Debian's glibc has no start file for a static program at a random address on armhf. musl has one.
if(KV_STATIC)
    set(CMAKE_FIND_LIBRARY_SUFFIXES .a)
    if(KV_STATIC_PIE)
        target_link_options(kv_options INTERFACE -static-pie)
    else()
        set(CMAKE_POSITION_INDEPENDENT_CODE OFF)
        target_link_options(kv_options INTERFACE -static)
    endif()
elseif(KV_HARDEN)
    target_link_options(kv_options INTERFACE -pie)
endif()

# kv_module(NAME SOURCES files... [LINK targets...]): the library of one module of the device program.
function(kv_module name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LINK" ${ARGN})
    add_library(${name} STATIC ${ARG_SOURCES})
    target_compile_options(${name} PRIVATE ${KV_DEVICE_FLAGS})
    target_link_libraries(${name} PUBLIC ${ARG_LINK} kv_options Threads::Threads)
endfunction()
