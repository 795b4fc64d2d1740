# CPack runs this before it makes the packages. It adds to each component the files that Debian requires: a changelog
# with the release date, the copyright file, and the lintian overrides. It also compresses the man pages.
cmake_policy(VERSION 3.21)
file(STRINGS "${CMAKE_CURRENT_LIST_DIR}/../../CHANGELOG.md" heading REGEX "^## [0-9]" LIMIT_COUNT 1)
if(NOT heading MATCHES "^## ([0-9.]+) \\(([0-9-]+)\\)$" OR NOT CMAKE_MATCH_1 STREQUAL CPACK_PACKAGE_VERSION)
    message(FATAL_ERROR "CHANGELOG.md: its newest release is '${heading}', the project's is ${CPACK_PACKAGE_VERSION}.")
endif()
execute_process(COMMAND date -R -u -d "${CMAKE_MATCH_2}" OUTPUT_VARIABLE KV_RELEASE_DATE
                OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
foreach(component tools doc)
    set(share "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/${component}/usr/share")
    set(package "upgrademain-${component}")
    file(COPY "${CMAKE_CURRENT_LIST_DIR}/copyright" DESTINATION "${share}/doc/${package}")
    configure_file("${CMAKE_CURRENT_LIST_DIR}/changelog.in" "${share}/doc/${package}/changelog.Debian" @ONLY)
    configure_file("${CMAKE_CURRENT_LIST_DIR}/${package}.overrides" "${share}/lintian/overrides/${package}" COPYONLY)
    # Debian's zsh looks for packages' completion scripts in another folder.
    if(EXISTS "${share}/zsh/site-functions")
        file(RENAME "${share}/zsh/site-functions" "${share}/zsh/vendor-completions")
    endif()
    file(GLOB pages "${share}/man/man*/*")
    execute_process(COMMAND gzip -9n ${pages} "${share}/doc/${package}/changelog.Debian" COMMAND_ERROR_IS_FATAL ANY)
    # The modes must not depend on the umask of whoever checked the sources out.
    execute_process(COMMAND chmod -R u=rwX,go=rX "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/${component}"
                    COMMAND_ERROR_IS_FATAL ANY)
endforeach()
