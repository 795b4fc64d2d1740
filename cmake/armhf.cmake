# Tool chain for armhf with glibc.
set(KV_SYSROOT_SCRIPT arm_sysroot.sh)
include("${CMAKE_CURRENT_LIST_DIR}/armhf-common.cmake")

set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
# Link the sysroot's C library, not the one that comes with the compiler: that one gets no security updates.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-B${KV_SYSROOT}/usr/lib/arm-linux-gnueabihf")
