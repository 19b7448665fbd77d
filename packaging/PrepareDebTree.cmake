# Run by CPack on the staged tree, before the .deb is made. Debian wants
# the man pages and the Debian changelog compressed with gzip -9n (no file
# name, no time stamp: the same input gives the same bytes), and programs
# and libraries stripped of their debugging symbols and of the compiler's
# .comment and .note sections, as Debian's own packaging tools leave them.
set(_root "${CPACK_TEMPORARY_DIRECTORY}${CPACK_PACKAGING_INSTALL_PREFIX}")

function(korvex_gzip source target)
  execute_process(COMMAND gzip -9n -c "${source}" OUTPUT_FILE "${target}"
    RESULT_VARIABLE _result)
  if(NOT _result EQUAL 0)
    message(FATAL_ERROR "gzip ${source}: failed (${_result})")
  endif()
  file(CHMOD "${target}" FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
endfunction()

korvex_gzip("${CPACK_KORVEX_CHANGELOG}" "${_root}/${CPACK_KORVEX_DOCDIR}/changelog.Debian.gz")

file(GLOB_RECURSE _pages LIST_DIRECTORIES false "${_root}/share/man/*")
foreach(_page IN LISTS _pages)
  if(NOT _page MATCHES "\\.gz$")
    korvex_gzip("${_page}" "${_page}.gz")
    file(REMOVE "${_page}")
  endif()
endforeach()

# Every ELF file of the tree: a program loses all its symbols but the
# dynamic ones (em-host's host services, which the module resolves, stay); a
# shared object keeps the symbols relocations need.
file(GLOB_RECURSE _files LIST_DIRECTORIES false "${_root}/*")
foreach(_file IN LISTS _files)
  file(READ "${_file}" _magic LIMIT 4 HEX)
  if(NOT _magic STREQUAL "7f454c46" OR IS_SYMLINK "${_file}")
    continue()
  endif()
  set(_how --strip-all)
  if(_file MATCHES "\\.so(\\.[0-9]+)*$")
    set(_how --strip-unneeded)
  endif()
  execute_process(COMMAND strip ${_how} --remove-section=.comment --remove-section=.note "${_file}"
    RESULT_VARIABLE _result)
  if(NOT _result EQUAL 0)
    message(FATAL_ERROR "strip ${_file}: failed (${_result})")
  endif()
endforeach()
