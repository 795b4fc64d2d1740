# What `cmake --install` lays down. Components, so that an image takes only what it needs:
#   device  the daemon, nothing else
#   tools   the PC programs and the stand-in application
#   doc     man pages, documents, example scripts of a board
include(GNUInstallDirs)

install(TARGETS upgradeMain RUNTIME DESTINATION "${CMAKE_INSTALL_SBINDIR}" COMPONENT device)

if(KV_TOOLS)
    install(TARGETS kvtool vboard RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT tools)
    # zsh looks here by default; a distribution may have a folder of its own for packages.
    set(KV_ZSH_COMPLETIONS "${CMAKE_INSTALL_DATADIR}/zsh/site-functions" CACHE STRING
        "Folder of zsh completion functions below the prefix")
    foreach(program kvtool vboard)
        set(completions "${PROJECT_BINARY_DIR}/completions/${program}")
        add_custom_command(
            OUTPUT "${completions}.bash" "${completions}.zsh"
            COMMAND "${CMAKE_COMMAND}" -E make_directory "${PROJECT_BINARY_DIR}/completions"
            COMMAND "$<TARGET_FILE:${program}>" completion bash > "${completions}.bash"
            COMMAND "$<TARGET_FILE:${program}>" completion zsh > "${completions}.zsh"
            DEPENDS ${program}
            VERBATIM)
        add_custom_target(${program}_completion ALL DEPENDS "${completions}.bash" "${completions}.zsh")
        install(FILES "${completions}.bash" DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions"
                RENAME ${program} COMPONENT tools)
        install(FILES "${completions}.zsh" DESTINATION "${KV_ZSH_COMPLETIONS}" RENAME _${program} COMPONENT tools)
    endforeach()
    install(TARGETS cameraMain RUNTIME DESTINATION "${CMAKE_INSTALL_LIBEXECDIR}/upgrademain" COMPONENT tools)
endif()

install(FILES docs/man/upgradeMain.8 DESTINATION "${CMAKE_INSTALL_MANDIR}/man8" COMPONENT doc)
install(FILES docs/man/kvtool.1 docs/man/vboard.1 DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT doc)
file(GLOB documents CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/docs/*.md")
# As in the sources, because they refer to each other.
install(FILES README.md ARCHITECTURE.md CONTRIBUTING.md SECURITY.md CHANGELOG.md DESTINATION "${CMAKE_INSTALL_DOCDIR}"
        COMPONENT doc)
install(FILES ${documents} DESTINATION "${CMAKE_INSTALL_DOCDIR}/docs" COMPONENT doc)
install(DIRECTORY packaging/ DESTINATION "${CMAKE_INSTALL_DATADIR}/upgrademain" USE_SOURCE_PERMISSIONS COMPONENT doc)
