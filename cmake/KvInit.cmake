# KV_INIT chooses the start files that are installed with the device program, in component device. They name the program
# below the installation's prefix, and run upgrade_prepare.sh and upgrade_keep_log.sh, which are installed with them.
set(KV_INIT none CACHE STRING "Init system to install start files for: none, busybox or systemd")
set_property(CACHE KV_INIT PROPERTY STRINGS none busybox systemd)

# kv_install_start(FILE DESTINATION PERMISSIONS...): installs a file of packaging/ and replaces /usr/sbin in it. The
# prefix is known only at installation.
function(kv_install_start file destination)
    install(CODE "
        cmake_path(APPEND CMAKE_INSTALL_PREFIX \"${destination}\" OUTPUT_VARIABLE directory)
        file(READ \"${PROJECT_SOURCE_DIR}/packaging/${file}\" text)
        set(programs \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_SBINDIR}\")
        string(REPLACE /usr/sbin/upgrade \"\${programs}/upgrade\" text \"\${text}\")
        file(WRITE \"${PROJECT_BINARY_DIR}/start/${file}\" \"\${text}\")
        file(INSTALL \"${PROJECT_BINARY_DIR}/start/${file}\" DESTINATION \"\${directory}\" PERMISSIONS ${ARGN})
    " COMPONENT device)
endfunction()

set(kv_data OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
set(kv_program ${kv_data} OWNER_EXECUTE GROUP_EXECUTE WORLD_EXECUTE)
if(KV_INIT STREQUAL "busybox")
    # busybox's rcS looks there, whatever the prefix.
    kv_install_start(init/S50upgrademain /etc/init.d ${kv_program})
elseif(KV_INIT STREQUAL "systemd")
    # systemd reads both folders, below /usr and below /usr/local.
    kv_install_start(systemd/upgrademain.service lib/systemd/system ${kv_data})
    kv_install_start(systemd/upgrademain-log.service lib/systemd/system ${kv_data})
    kv_install_start(systemd/upgrademain.conf lib/systemd/system.conf.d ${kv_data})
elseif(NOT KV_INIT STREQUAL "none")
    message(FATAL_ERROR "KV_INIT is '${KV_INIT}'; it must be none, busybox or systemd.")
endif()
if(NOT KV_INIT STREQUAL "none")
    install(PROGRAMS packaging/scripts/upgrade_prepare.sh packaging/scripts/upgrade_keep_log.sh
            DESTINATION "${CMAKE_INSTALL_SBINDIR}" COMPONENT device)
endif()
