# Everything from outside, by the names that the rest of the project links.
find_package(PkgConfig REQUIRED)
pkg_check_modules(czmq REQUIRED IMPORTED_TARGET libczmq)
pkg_check_modules(zmq REQUIRED IMPORTED_TARGET libzmq)
pkg_check_modules(cppzmq REQUIRED IMPORTED_TARGET cppzmq)
pkg_check_modules(httplib REQUIRED IMPORTED_TARGET cpp-httplib)
pkg_check_modules(ncursesw REQUIRED IMPORTED_TARGET ncursesw)
pkg_check_modules(libuuid REQUIRED IMPORTED_TARGET uuid)
# A folder that pkg-config names by -isystem is a folder when CMake has just asked for it, and an option when it
# remembers it: the second time a build is configured, everything would be compiled again.
foreach(module czmq zmq cppzmq)
  foreach(part CFLAGS_OTHER INCLUDE_DIRS)
    set(${module}_${part} "${${module}_${part}}" CACHE INTERNAL "")
  endforeach()
endforeach()
find_package(fmt REQUIRED)
find_package(spdlog REQUIRED)
find_package(nlohmann_json REQUIRED)
find_package(CLI11 REQUIRED)
find_package(Threads REQUIRED)

find_path(ASIO_INCLUDE_DIR asio.hpp REQUIRED)
add_library(asio INTERFACE)
target_include_directories(asio SYSTEM INTERFACE ${ASIO_INCLUDE_DIR})
target_compile_definitions(asio INTERFACE ASIO_STANDALONE ASIO_NO_DEPRECATED)
target_link_libraries(asio INTERFACE Threads::Threads)

if(VESK_BUILD_TESTS)
  find_package(GTest)
  find_package(benchmark)
  if(NOT GTest_FOUND OR NOT benchmark_FOUND)
    message(STATUS "No tests and benchmarks: scripts/setup test installs what they need")
    set(VESK_BUILD_TESTS OFF)
  endif()
endif()

# Loops of applications: the toolkit has an adapter for each that is there.
pkg_check_modules(libuv IMPORTED_TARGET libuv)
pkg_check_modules(glib IMPORTED_TARGET glib-2.0)
