# Run by CPack on the staged files before the Debian package is made: puts
# in what only the package has, and moves what Debian wants elsewhere.
set(_root "${CPACK_TEMPORARY_INSTALL_DIRECTORY}")
if(NOT EXISTS "${_root}/usr/sbin/orlanbeck")
  message(FATAL_ERROR "no staged daemon in ${_root}")
endif()
set(_doc "${_root}/usr/share/doc/orlanbeck")

file(MAKE_DIRECTORY "${_root}/lib/systemd/system")
foreach(_unit orlanbeck.service orlanbeck@.service)
  file(RENAME "${_root}/usr/lib/systemd/system/${_unit}" "${_root}/lib/systemd/system/${_unit}")
endforeach()
file(REMOVE_RECURSE "${_root}/usr/lib/systemd")

# (file(INSTALL) would honour the DESTDIR that CPack set: copy instead.)
file(MAKE_DIRECTORY "${_root}/etc/logrotate.d")
file(COPY_FILE "${CPACK_ORLANBECK_SOURCE_DIR}/etc/orlanbeck.logrotate"
     "${_root}/etc/logrotate.d/orlanbeck")
file(COPY_FILE "${CPACK_ORLANBECK_SOURCE_DIR}/cmake/debian/copyright" "${_doc}/copyright")
file(COPY_FILE "${CPACK_ORLANBECK_BINARY_DIR}/debian/changelog.Debian" "${_doc}/changelog.Debian")
file(COPY_FILE "${CPACK_ORLANBECK_BINARY_DIR}/debian/orlanbeck.8"
     "${_root}/usr/share/man/man8/orlanbeck.8")
foreach(_file "${_doc}/changelog.Debian" "${_root}/usr/share/man/man8/orlanbeck.8")
  execute_process(COMMAND gzip -9nf "${_file}" RESULT_VARIABLE _rc)
  if(NOT _rc EQUAL 0)
    message(FATAL_ERROR "gzip ${_file} failed")
  endif()
endforeach()

# The unit's move leaves /usr/lib empty.
file(GLOB _usr_lib "${_root}/usr/lib/*")
if(NOT _usr_lib)
  file(REMOVE_RECURSE "${_root}/usr/lib")
endif()
