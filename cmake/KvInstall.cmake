# What `cmake --install` lays down. Components, so that an image takes only what it needs:
#   device  the daemon; with KV_INIT also what the init system starts it by
#   tools   the PC programs with their man pages, and the stand-in application
#   doc     the daemon's man page, documents, example scripts of a board
include(GNUInstallDirs)

# An unknown component would install nothing and call it a success. The list is complete only at the end of this file.
install(CODE [[
    cmake_policy(SET CMP0057 NEW)
    include("${CMAKE_CURRENT_LIST_DIR}/components.cmake")
    if(CMAKE_INSTALL_COMPONENT AND NOT CMAKE_INSTALL_COMPONENT IN_LIST components)
        list(JOIN components ", " known)
        message(FATAL_ERROR "No component is called '${CMAKE_INSTALL_COMPONENT}'. There are: ${known}.")
    endif()
]] ALL_COMPONENTS)

if(KV_DEVICE)
    install(TARGETS upgradeMain RUNTIME DESTINATION "${CMAKE_INSTALL_SBINDIR}" COMPONENT device)
    include(KvInit)
endif()

if(KV_KVTOOL)
    install(TARGETS kvtool RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT tools)
    install(FILES docs/man/kvtool.1 DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT tools)
endif()
if(KV_VBOARD)
    install(TARGETS vboard RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT tools)
    install(FILES docs/man/vboard.1 DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT tools)
    install(TARGETS cameraMain RUNTIME DESTINATION "${CMAKE_INSTALL_LIBEXECDIR}/upgrademain" COMPONENT tools)
endif()

install(FILES docs/man/upgradeMain.8 DESTINATION "${CMAKE_INSTALL_MANDIR}/man8" COMPONENT doc)
file(GLOB documents CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/docs/*.md")
# As in the sources, because they refer to each other.
install(FILES README.md ARCHITECTURE.md CONTRIBUTING.md SECURITY.md CHANGELOG.md DESTINATION "${CMAKE_INSTALL_DOCDIR}"
        COMPONENT doc)
install(FILES ${documents} DESTINATION "${CMAKE_INSTALL_DOCDIR}/docs" COMPONENT doc)
install(DIRECTORY packaging/ DESTINATION "${CMAKE_INSTALL_DATADIR}/upgrademain" USE_SOURCE_PERMISSIONS COMPONENT doc
        PATTERN debian EXCLUDE)

get_cmake_property(components COMPONENTS)
list(REMOVE_ITEM components Unspecified)
file(WRITE "${PROJECT_BINARY_DIR}/components.cmake" "set(components ${components})\n")
