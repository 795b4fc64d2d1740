# What `cmake --install` installs. Components let an image take only what it needs:
#   device  the device program; with KV_INIT also the init system's start files and the scripts that they run
#   tools   the PC programs with their man pages, and the stand-in application
#   doc     the device program's man page, the documents, and packaging/ with its recipes and example scripts
include(GNUInstallDirs)

# Without this check an unknown component would install nothing and succeed. The list is complete only at the
# end of this file.
install(CODE [[
    cmake_policy(SET CMP0057 NEW)
    include("${CMAKE_CURRENT_LIST_DIR}/components.cmake")
    if(CMAKE_INSTALL_COMPONENT AND NOT CMAKE_INSTALL_COMPONENT IN_LIST components)
        list(JOIN components ", " known)
        message(FATAL_ERROR "No component is called '${CMAKE_INSTALL_COMPONENT}'. The components are: ${known}.")
    endif()
]] ALL_COMPONENTS)

# Installs the completion scripts that a program prints. A cross build cannot run the program and installs none.
function(kv_install_completion program)
    if(CMAKE_CROSSCOMPILING)
        return()
    endif()
    set(scripts "${PROJECT_BINARY_DIR}/completions/${program}")
    add_custom_command(
        OUTPUT "${scripts}.bash" "${scripts}.zsh"
        COMMAND "${CMAKE_COMMAND}" -E make_directory "${PROJECT_BINARY_DIR}/completions"
        COMMAND ${program} completion bash > "${scripts}.bash"
        COMMAND ${program} completion zsh > "${scripts}.zsh"
        DEPENDS ${program}
        VERBATIM)
    add_custom_target(${program}_completion ALL DEPENDS "${scripts}.bash" "${scripts}.zsh")
    install(FILES "${scripts}.bash" DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions" RENAME ${program}
            COMPONENT tools)
    install(FILES "${scripts}.zsh" DESTINATION "${CMAKE_INSTALL_DATADIR}/zsh/site-functions" RENAME _${program}
            COMPONENT tools)
endfunction()

if(KV_DEVICE)
    install(TARGETS upgradeMain RUNTIME DESTINATION "${CMAKE_INSTALL_SBINDIR}" COMPONENT device)
    include(KvInit)
endif()

if(KV_KVTOOL)
    install(TARGETS kvtool RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT tools)
    kv_install_completion(kvtool)
    install(FILES docs/man/kvtool.1 DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT tools)
endif()
if(KV_VBOARD)
    install(TARGETS vboard RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT tools)
    kv_install_completion(vboard)
    install(FILES docs/man/vboard.1 DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT tools)
    install(TARGETS cameraMain RUNTIME DESTINATION "${CMAKE_INSTALL_LIBEXECDIR}/upgrademain" COMPONENT tools)
endif()

install(FILES docs/man/upgradeMain.8 DESTINATION "${CMAKE_INSTALL_MANDIR}/man8" COMPONENT doc)
file(GLOB documents CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/docs/*.md" "${PROJECT_SOURCE_DIR}/docs/*.svg"
     "${PROJECT_SOURCE_DIR}/docs/*.json")
# The same layout as in the sources, because these files link to each other.
install(FILES README.md ARCHITECTURE.md CONTRIBUTING.md SECURITY.md CHANGELOG.md DESTINATION "${CMAKE_INSTALL_DOCDIR}"
        COMPONENT doc)
install(FILES ${documents} DESTINATION "${CMAKE_INSTALL_DOCDIR}/docs" COMPONENT doc)
install(DIRECTORY docs/page docs/pictures DESTINATION "${CMAKE_INSTALL_DOCDIR}/docs" COMPONENT doc)
install(DIRECTORY packaging/ DESTINATION "${CMAKE_INSTALL_DATADIR}/upgrademain" USE_SOURCE_PERMISSIONS COMPONENT doc
        PATTERN debian EXCLUDE)

get_cmake_property(components COMPONENTS)
list(REMOVE_ITEM components Unspecified)
file(WRITE "${PROJECT_BINARY_DIR}/components.cmake" "set(components ${components})\n")
