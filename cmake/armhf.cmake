# Debian's armhf (ARMv7, hard float) from Debian's cross compiler, on the sysroot that
# scripts/arm_sysroot.sh names and, when it is missing, fetches.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)

# The checks of the compiler read this file again, with the sysroot handed down.
if(NOT KV_SYSROOT)
    execute_process(COMMAND "${CMAKE_CURRENT_LIST_DIR}/../scripts/arm_sysroot.sh"
                    OUTPUT_VARIABLE KV_SYSROOT OUTPUT_STRIP_TRAILING_WHITESPACE
                    RESULT_VARIABLE KV_SYSROOT_RESULT)
    if(NOT KV_SYSROOT_RESULT EQUAL 0)
        message(FATAL_ERROR "scripts/arm_sysroot.sh could not get the ARM libraries.")
    endif()
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KV_SYSROOT)

set(CMAKE_SYSROOT "${KV_SYSROOT}")
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
# Before the C library that comes with the compiler, which gets no security updates.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-B${KV_SYSROOT}/usr/lib/arm-linux-gnueabihf")

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
