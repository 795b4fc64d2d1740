# What both tool chains for Debian's armhf (ARMv7, hard float) have in common: Debian's cross compiler and a sysroot,
# which scripts/${KV_SYSROOT_SCRIPT} fetches or makes if it is missing.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)

# CMake's compiler checks read the tool chain file again. They get KV_SYSROOT from here.
if(NOT KV_SYSROOT)
    execute_process(COMMAND "${CMAKE_CURRENT_LIST_DIR}/../scripts/${KV_SYSROOT_SCRIPT}"
                    OUTPUT_VARIABLE KV_SYSROOT OUTPUT_STRIP_TRAILING_WHITESPACE
                    RESULT_VARIABLE KV_SYSROOT_RESULT)
    if(NOT KV_SYSROOT_RESULT EQUAL 0)
        message(FATAL_ERROR "scripts/${KV_SYSROOT_SCRIPT} could not get the ARM libraries.")
    endif()
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KV_SYSROOT)

set(CMAKE_SYSROOT "${KV_SYSROOT}")
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
