# How everything is installed, in components, each of which becomes a package: "runtime" has what a program loads,
# "loops" the adapters for loops of other libraries, "development" what a program is built with, "hub" the command and
# the service.

# With the major version 0 every minor one may change the binary interface.
set(VESK_SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})

# Where libvesk finds its backends, below its own folder. By version, so that two versions can be installed.
set(VESK_PLUGIN_FOLDER vesk-${VESK_SOVERSION})

# The folder of libraries as Debian has it, whatever the prefix.
if(CMAKE_LIBRARY_ARCHITECTURE)
  set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE STRING "Folder of libraries below the prefix")
endif()
include(GNUInstallDirs)
set(VESK_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/vesk-hub)
file(RELATIVE_PATH VESK_PREFIX_FROM_MODULES /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)

# What is installed is stripped; the build tree keeps its symbols for a debugger.
install(CODE "set(CMAKE_INSTALL_DO_STRIP ON)" ALL_COMPONENTS)

# All that is installed, and nothing else. Installing builds nothing by itself: not the tests either.
add_custom_target(installable)
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)

# vesk_install_library(target DESCRIPTION [COMPONENT ...] [MODULES ...]): a library for applications, shared or static: as
# vesk::target for CMake, as libvesk-target on disk, and as vesk-target for pkg-config, which says that its headers need
# those modules. Public headers lie in include/ beside the target. The target vesk is libvesk.
function(vesk_install_library target description)
  cmake_parse_arguments(arg "" "COMPONENT" "MODULES" ${ARGN})
  if(NOT arg_COMPONENT)
    set(arg_COMPONENT runtime)
  endif()
  string(REGEX REPLACE "^vesk-vesk$" vesk name vesk-${target})
  string(REPLACE ";" " " modules "${arg_MODULES}")
  set_target_properties(${target} PROPERTIES OUTPUT_NAME ${name} EXPORT_NAME ${target} INSTALL_RPATH "$ORIGIN"
    VERSION ${PROJECT_VERSION} SOVERSION ${VESK_SOVERSION})
  add_library(vesk::${target} ALIAS ${target})
  add_dependencies(installable ${target})
  target_include_directories(${target} PUBLIC
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  install(TARGETS ${target} EXPORT vesk-targets
    LIBRARY COMPONENT ${arg_COMPONENT} NAMELINK_COMPONENT development
    ARCHIVE COMPONENT development)
  install(DIRECTORY include/ TYPE INCLUDE COMPONENT development)
  configure_file(${PROJECT_SOURCE_DIR}/packaging/library.pc.in ${name}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
    COMPONENT development)
endfunction()

# vesk_install_plugin(target COMPONENT): a library that is loaded at run time, and that nobody links.
function(vesk_install_plugin target component)
  set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN/..")
  add_dependencies(installable ${target})
  install(TARGETS ${target} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/${VESK_PLUGIN_FOLDER} COMPONENT ${component})
endfunction()

# The package that another project finds with find_package(vesk-hub).
include(CMakePackageConfigHelpers)
write_basic_package_version_file(vesk-hub-config-version.cmake COMPATIBILITY SameMinorVersion)
install(EXPORT vesk-targets NAMESPACE vesk:: FILE vesk-hub-targets.cmake DESTINATION ${VESK_PACKAGE_DIR}
  COMPONENT development)
install(FILES packaging/vesk-hub-config.cmake ${PROJECT_BINARY_DIR}/vesk-hub-config-version.cmake
  DESTINATION ${VESK_PACKAGE_DIR} COMPONENT development)
