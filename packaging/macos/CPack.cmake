# QEV.app as a disk image (the bundle beside a link to /Applications) and as a zip.
set(CPACK_GENERATOR DragNDrop ZIP)
set(CPACK_PACKAGE_NAME ${QEV_DISPLAY_NAME})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "The qev developers")
set(CPACK_PACKAGE_FILE_NAME ${QEV_DISPLAY_NAME}-${PROJECT_VERSION}-macos)
set(CPACK_DMG_VOLUME_NAME ${QEV_DISPLAY_NAME})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "desktop client for a subscription proxy service")
include(CPack)
