# vesk_build_flags: how every target of this project is compiled. Link it PRIVATE.
add_library(vesk_build_flags INTERFACE)
target_compile_features(vesk_build_flags INTERFACE cxx_std_20)
# File sizes and inode numbers of 64 bits on 32-bit machines too: stat() fails on what does not fit.
target_compile_definitions(vesk_build_flags INTERFACE _FILE_OFFSET_BITS=64)
target_compile_options(vesk_build_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow
  $<$<BOOL:${VESK_WERROR}>:-Werror>)
if(CMAKE_UNITY_BUILD)
  # Compiled together, a source sees the names of the one before it, and its own types seem to come from a header.
  target_compile_options(vesk_build_flags INTERFACE -Wno-shadow $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>)
endif()

if(VESK_SANITIZE)
  add_compile_options(-fsanitize=${VESK_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer -O1)
  if(VESK_SANITIZE MATCHES thread)
    add_compile_options(-Wno-tsan)  # Asio's fences, which ThreadSanitizer does not follow
  endif()
  add_link_options(-fsanitize=${VESK_SANITIZE})
endif()

# vesk_platform_library(name DESCRIPTION SOURCES ... [LINK ...] [MODULES ...] [COMPONENT ...]): one stand-in for one of
# the maker's libraries, shared, with its public headers under include/. MODULES and COMPONENT are for
# vesk_install_library.
function(vesk_platform_library name description)
  cmake_parse_arguments(arg "" "COMPONENT" "SOURCES;LINK;MODULES" ${ARGN})
  add_library(${name} SHARED ${arg_SOURCES})
  target_compile_features(${name} PUBLIC cxx_std_20)
  target_link_libraries(${name} PRIVATE vesk_build_flags ${arg_LINK})
  vesk_install_library(${name} ${description} COMPONENT ${arg_COMPONENT} MODULES ${arg_MODULES})
endfunction()
