# What `cmake --install` installs. Components let an image take only what it needs:
#   device  only the daemon
#   tools   the PC programs and the stand-in application
#   doc     man pages, documents, example scripts of a board
include(GNUInstallDirs)

install(TARGETS upgradeMain RUNTIME DESTINATION "${CMAKE_INSTALL_SBINDIR}" COMPONENT device)

if(KV_TOOLS)
    install(TARGETS kvtool vboard RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT tools)
    install(TARGETS cameraMain RUNTIME DESTINATION "${CMAKE_INSTALL_LIBEXECDIR}/upgrademain" COMPONENT tools)
endif()

install(FILES docs/man/upgradeMain.8 DESTINATION "${CMAKE_INSTALL_MANDIR}/man8" COMPONENT doc)
install(FILES docs/man/kvtool.1 docs/man/vboard.1 DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT doc)
file(GLOB documents CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/docs/*.md")
# The same layout as in the sources, because these files link to each other.
install(FILES README.md ARCHITECTURE.md CONTRIBUTING.md SECURITY.md CHANGELOG.md DESTINATION "${CMAKE_INSTALL_DOCDIR}"
        COMPONENT doc)
install(FILES ${documents} DESTINATION "${CMAKE_INSTALL_DOCDIR}/docs" COMPONENT doc)
install(DIRECTORY packaging/ DESTINATION "${CMAKE_INSTALL_DATADIR}/upgrademain" USE_SOURCE_PERMISSIONS COMPONENT doc)
