# Debian's armhf (ARMv7, hard float) from Debian's cross compiler, on the sysroot that
# scripts/arm_sysroot.sh fills.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)

if(DEFINED ENV{KV_CACHE})
    set(KV_SYSROOT "$ENV{KV_CACHE}/armhf-sysroot")
elseif(DEFINED ENV{XDG_CACHE_HOME})
    set(KV_SYSROOT "$ENV{XDG_CACHE_HOME}/upgrademain/armhf-sysroot")
else()
    set(KV_SYSROOT "$ENV{HOME}/.cache/upgrademain/armhf-sysroot")
endif()
if(NOT EXISTS "${KV_SYSROOT}/.packages")
    message(FATAL_ERROR "No sysroot in ${KV_SYSROOT}: run scripts/arm_sysroot.sh.")
endif()

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
