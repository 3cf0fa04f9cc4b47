# Debian packages of what cmake/install.cmake installs; packaging/build makes them.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "Developers of vesk-hub <vesk-hub@localhost>" CACHE STRING "Maintainer of the packages")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each package has its own
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL runtime loops development hub)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/debian/before_packing.cmake)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_STRIP_PROGRAM ${CMAKE_STRIP})  # for that script

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
list(PREPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# What of the own libraries a package needs has to be of the very same build.
set(runtime libvesk${VESK_SOVERSION})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${runtime})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/debian/runtime/triggers)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "libraries of the vesk message bus
The bus with its transport over a hub, and what they stand on: event loop, log,
serialisation and UUIDs. For programs that take part in the bus.")

set(loops libvesk-loops${VESK_SOVERSION})
set(CPACK_DEBIAN_LOOPS_PACKAGE_NAME ${loops})
set(CPACK_DEBIAN_LOOPS_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LOOPS_PACKAGE_DEPENDS "${runtime} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_LOOPS_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/debian/runtime/triggers)
set(CPACK_DEBIAN_LOOPS_DESCRIPTION "vesk message bus on loops of libuv and GLib
For programs that take part in the bus and have such a loop already.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libvesk-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
# The hub for tests of applications is linked statically, and needs libzmq.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "${runtime} (= ${PROJECT_VERSION}), ${loops} (= ${PROJECT_VERSION}), libzmq3-dev")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "development files of the vesk message bus
Headers, link names, and the packages for CMake (find_package(vesk-hub)) and
pkg-config. For building programs that take part in the bus.")

set(CPACK_DEBIAN_HUB_PACKAGE_NAME vesk-hub)
set(CPACK_DEBIAN_HUB_PACKAGE_SECTION net)
set(CPACK_DEBIAN_HUB_PACKAGE_DEPENDS "${runtime} (= ${PROJECT_VERSION}), systemd | systemd-standalone-sysusers")
set(CPACK_DEBIAN_HUB_PACKAGE_CONTROL_EXTRA
  ${PROJECT_SOURCE_DIR}/packaging/debian/hub/postinst ${PROJECT_SOURCE_DIR}/packaging/debian/hub/prerm
  ${PROJECT_SOURCE_DIR}/packaging/debian/hub/postrm)
set(CPACK_DEBIAN_HUB_DESCRIPTION "hub of the vesk message bus, and the command vesk
The process through which all messages go, as a service for the members of
the group vesk; and a command that publishes, subscribes, asks, answers,
records and watches from a shell.")
include(CPack)
