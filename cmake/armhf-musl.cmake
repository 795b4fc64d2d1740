# Tool chain for armhf with musl.
set(KV_SYSROOT_SCRIPT musl_sysroot.sh)
include("${CMAKE_CURRENT_LIST_DIR}/armhf-common.cmake")

# The compiler is made for glibc. Use only its own include folder and those of the C++ headers, and only libgcc of its
# libraries: everything that the program uses of the C++ library is in headers.
execute_process(COMMAND arm-linux-gnueabihf-gcc -print-file-name=include
                OUTPUT_VARIABLE KV_COMPILER_HEADERS OUTPUT_STRIP_TRAILING_WHITESPACE)
execute_process(COMMAND arm-linux-gnueabihf-gcc -dumpversion
                OUTPUT_VARIABLE KV_COMPILER_VERSION OUTPUT_STRIP_TRAILING_WHITESPACE)
set(KV_CXX_HEADERS "/usr/arm-linux-gnueabihf/include/c++/${KV_COMPILER_VERSION}")
set(KV_C_FLAGS "-isystem ${KV_SYSROOT}/usr/include -isystem ${KV_COMPILER_HEADERS}")
set(CMAKE_C_FLAGS_INIT "-mmusl -nostdinc ${KV_C_FLAGS}")
# The two macros replace the header in which GCC adapts its C++ library to glibc. They say what its header for musl
# says: no adaptation, and threads always exist, so no weak symbol has to look for them.
string(CONCAT CMAKE_CXX_FLAGS_INIT
       "-mmusl -nostdinc -isystem ${KV_CXX_HEADERS} -isystem ${KV_CXX_HEADERS}/arm-linux-gnueabihf ${KV_C_FLAGS} "
       "-D_GLIBCXX_OS_DEFINES -D_GLIBCXX_GTHREAD_USE_WEAK=0")
# The compiler's -static-pie does not keep the linker from naming a dynamic linker on ARM.
string(CONCAT CMAKE_EXE_LINKER_FLAGS_INIT
       "-nodefaultlibs -Wl,--no-dynamic-linker -B${KV_SYSROOT}/usr/lib -L${KV_SYSROOT}/usr/lib")
set(CMAKE_C_STANDARD_LIBRARIES_INIT "-Wl,--start-group -lc -lgcc -Wl,--end-group")
set(CMAKE_CXX_STANDARD_LIBRARIES_INIT "${CMAKE_C_STANDARD_LIBRARIES_INIT}")
