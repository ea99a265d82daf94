# What cpack -G DEB makes of an installation; script/package runs it in a build of its own.
set(CPACK_PACKAGE_NAME drovane)
set(CPACK_PACKAGE_VENDOR drovane)
set(CPACK_PACKAGE_CONTACT ${DROVANE_MAINTAINER})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_DROVANE_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_SOURCE_DIR}/PackagePrefix.cmake)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
  GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)

file(CONFIGURE OUTPUT shlibs CONTENT
  "libdrovane @PROJECT_VERSION_MAJOR@.@PROJECT_VERSION_MINOR@ drovane (>= @PROJECT_VERSION@)\n" @ONLY)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME drovane)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION net)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "home and building automation
drovane connects the devices of a home or building. Each device is driven by
a plug-in, and the plug-ins exchange typed messages.

The plug-in generic_net holds a link to one device over TCP, UDP, TLS 1.0 or
a serial line, turns the lines that come into messages by rules, and can run
a Lua script. A text editor and a shell are all it takes to configure, watch
and ask a house.

The service starts once there is a configuration, /etc/drovane/house.conf.")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS
  "libsystemd0, systemd | systemd-standalone-sysusers | systemd-sysusers")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
  ${CMAKE_CURRENT_SOURCE_DIR}/debian/conffiles
  ${CMAKE_CURRENT_SOURCE_DIR}/debian/postinst
  ${CMAKE_CURRENT_SOURCE_DIR}/debian/prerm
  ${CMAKE_CURRENT_SOURCE_DIR}/debian/postrm
  ${CMAKE_CURRENT_SOURCE_DIR}/debian/triggers
  ${CMAKE_CURRENT_BINARY_DIR}/shlibs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME drovane-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "home and building automation - plug-in development
drovane connects the devices of a home or building. Each device is driven by
a plug-in, and the plug-ins exchange typed messages.

This package has the headers that a plug-in of one's own is written against,
a CMake package, a pkg-config file and a whole plug-in as an example.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "drovane (= ${PROJECT_VERSION}-1), libcjson-dev")

include(CPack)
