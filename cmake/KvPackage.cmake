# `make deb`: CPack makes upgrademain-tools (component tools) and upgrademain-doc (component doc) from the release
# build. There is no package of the device program: it belongs in a device's image, not on a PC.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME upgrademain)
set(CPACK_PACKAGE_VENDOR upgradeMain)
set(CPACK_PACKAGE_CONTACT "upgradeMain maintainers <maintainers@upgrademain.example>" CACHE STRING
    "Maintainer of the Debian packages")
set(CPACK_PACKAGE_DIRECTORY "${PROJECT_SOURCE_DIR}/build/deb")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL tools doc)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ
                                                WORLD_EXECUTE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME upgrademain-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "minisign, upgrademain-doc, xdg-utils")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
    "tools for cameras supervised by upgradeMain
kvtool builds and checks upgrade packages, finds cameras in recovery mode and
puts firmware on them.
vboard is a virtual camera with flash, watchdog, reset button, Ethernet and
Wi-Fi, for testing supervisor and firmware on a PC.")
# Only vboard needs these programs; kvtool does not.
file(STRINGS "${PROJECT_SOURCE_DIR}/scripts/packages/vboard.txt" rows REGEX "^[a-z]")
list(TRANSFORM rows REPLACE " .*" "")
list(JOIN rows ", " CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS)

set(CPACK_DEBIAN_DOC_PACKAGE_NAME upgrademain-doc)
set(CPACK_DEBIAN_DOC_PACKAGE_SECTION doc)
set(CPACK_DEBIAN_DOC_PACKAGE_ARCHITECTURE all)
set(CPACK_COMPONENT_DOC_DESCRIPTION
    "documentation and board examples of upgradeMain
The supervisor's manual page, its protocols and package format, notes on
porting, and example start and board scripts, with recipes for Buildroot and
OpenWrt.")

set(CPACK_PRE_BUILD_SCRIPTS "${PROJECT_SOURCE_DIR}/packaging/debian/add_files.cmake")
include(CPack)
