# What `cmake --install` lays down, for two components: "runtime" (shared library, programs, manual pages) and
# "dev" (header, static library, CMake package, pkg-config file, documentation).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/zeb_mqtt_broker)

install(
    TARGETS zeb_sdk_mqtt_broker_shared zeb_sdk_mqtt_broker_static
    EXPORT zeb_mqtt_broker
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES sdk/zeb_sdk_mqtt_broker.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)

foreach(program zeb_mqtt_host zeb_mqtt_console)
    if(TARGET ${program})
        install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
        install(FILES docs/man/${program}.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT runtime)
    endif()
endforeach()

# find_package(zeb_mqtt_broker)
install(EXPORT zeb_mqtt_broker NAMESPACE zeb:: FILE zeb_mqtt_broker-targets.cmake DESTINATION ${package_dir}
        COMPONENT dev)
configure_package_config_file(cmake/zeb_mqtt_broker-config.cmake.in zeb_mqtt_broker-config.cmake
                              INSTALL_DESTINATION ${package_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(zeb_mqtt_broker-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zeb_mqtt_broker-config.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/zeb_mqtt_broker-config-version.cmake
        DESTINATION ${package_dir} COMPONENT dev)

# pkg-config zeb_mqtt_broker. The prefix is found from the file's own place, so that a tree that was installed
# or unpacked elsewhere works too; directories that are given as absolute ones cannot move.
set(pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(IS_ABSOLUTE ${pc_dir})
    set(pc_prefix ${CMAKE_INSTALL_PREFIX})
else()
    file(RELATIVE_PATH pc_prefix /prefix/${pc_dir} /prefix)
    string(REGEX REPLACE "/$" "" pc_prefix "\${pcfiledir}/${pc_prefix}")
endif()
foreach(dir LIBDIR INCLUDEDIR)
    set(pc_${dir} ${CMAKE_INSTALL_${dir}})
    if(NOT IS_ABSOLUTE ${pc_${dir}})
        set(pc_${dir} "\${prefix}/${pc_${dir}}")
    endif()
endforeach()
configure_file(cmake/zeb_mqtt_broker.pc.in zeb_mqtt_broker.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zeb_mqtt_broker.pc DESTINATION ${pc_dir} COMPONENT dev)

install(FILES README.md README.zh-CN.md CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT dev)
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT dev FILES_MATCHING PATTERN "*.md"
        PATTERN man EXCLUDE)
install(FILES examples/zeb_mqtt_host.c examples/host.h examples/host_options.c examples/host_configure.c
              examples/minimal.c examples/auth_acl.cpp examples/events.cpp
        DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT dev)
