# What Debian wants of a package and an installation elsewhere does not; run by CPack when everything that goes into the
# packages lies below CPACK_TEMPORARY_DIRECTORY, in a folder for each component.

function(compress)
  execute_process(COMMAND gzip -9n ${ARGN} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

# The dynamic linker looks into /usr/lib anyway.
file(GLOB libraries_and_programs
  ${CPACK_TEMPORARY_DIRECTORY}/*/usr/lib/*/*.so* ${CPACK_TEMPORARY_DIRECTORY}/*/usr/lib/*/vesk-*/*.so
  ${CPACK_TEMPORARY_DIRECTORY}/*/usr/bin/*)
foreach(file IN LISTS libraries_and_programs)
  if(NOT IS_SYMLINK ${file})
    file(RPATH_REMOVE FILE ${file})
  endif()
endforeach()

# Installing strips no static libraries.
file(GLOB archives ${CPACK_TEMPORARY_DIRECTORY}/*/usr/lib/*/*.a)
if(archives)
  execute_process(COMMAND ${CPACK_STRIP_PROGRAM} --strip-debug ${archives} COMMAND_ERROR_IS_FATAL ANY)
endif()

# Where Debian's zsh looks.
set(zsh ${CPACK_TEMPORARY_DIRECTORY}/hub/usr/share/zsh)
if(EXISTS ${zsh}/site-functions)
  file(RENAME ${zsh}/site-functions ${zsh}/vendor-completions)
endif()

file(GLOB pages ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/man/man1/*.1)
if(pages)
  compress(${pages})
endif()

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} name)
  set(documentation ${CPACK_TEMPORARY_DIRECTORY}/${component}/usr/share/doc/${CPACK_DEBIAN_${name}_PACKAGE_NAME})
  file(MAKE_DIRECTORY ${documentation})
  file(COPY_FILE ${CMAKE_CURRENT_LIST_DIR}/../../CHANGELOG.md ${documentation}/changelog)
  file(COPY ${CMAKE_CURRENT_LIST_DIR}/copyright DESTINATION ${documentation})
  compress(${documentation}/changelog)
endforeach()
