# vesk_build_flags: how every target of this project is compiled. Link it PRIVATE.
add_library(vesk_build_flags INTERFACE)
target_compile_features(vesk_build_flags INTERFACE cxx_std_20)
# File sizes and inode numbers of 64 bits on 32-bit machines too: stat() fails on what does not fit.
target_compile_definitions(vesk_build_flags INTERFACE _FILE_OFFSET_BITS=64)
target_compile_options(vesk_build_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow
  $<$<BOOL:${VESK_WERROR}>:-Werror>)

if(VESK_SANITIZE)
  add_compile_options(-fsanitize=${VESK_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer -O1)
  if(VESK_SANITIZE MATCHES thread)
    add_compile_options(-Wno-tsan)  # Asio's fences, which ThreadSanitizer does not follow
  endif()
  add_link_options(-fsanitize=${VESK_SANITIZE})
endif()

# vesk_platform_library(name SOURCES ... [LINK ...]): one stand-in for one of the maker's libraries, as the
# shared library of that name with its public headers under include/.
function(vesk_platform_library name)
  cmake_parse_arguments(arg "" "" "SOURCES;LINK" ${ARGN})
  add_library(${name} SHARED ${arg_SOURCES})
  add_library(vesk::${name} ALIAS ${name})
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_compile_features(${name} PUBLIC cxx_std_20)
  target_link_libraries(${name} PRIVATE vesk_build_flags ${arg_LINK})
  install(TARGETS ${name} EXPORT vesk-targets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
  install(DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
endfunction()
