# `cpack` in the build directory: a .tar.gz of everything, and two Debian packages.
set(CPACK_GENERATOR TGZ DEB)
set(CPACK_PACKAGE_NAME zeb-mqtt-broker)
set(CPACK_PACKAGE_CONTACT "The zeb MQTT broker developers <maintainers@users.noreply.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_ARCHIVE_COMPONENT_INSTALL OFF)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS OFF)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME zeb-mqtt-broker)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION net)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "${PROJECT_DESCRIPTION} (library and programs)")
# Others' packages that link the library depend on this version; the links of the loader are refreshed.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME zeb-mqtt-broker-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_DESCRIPTION "${PROJECT_DESCRIPTION} (header and libraries to build with)")
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "zeb-mqtt-broker (= ${PROJECT_VERSION})")

include(CPack)
