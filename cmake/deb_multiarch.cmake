# SPDX-License-Identifier: MIT
# CPack post-build step: CPack's DEB generator has no Multi-Arch field, so
# the library package is unpacked, the field taken from debian/control is
# added to its control file, and the package is rebuilt with dpkg-deb.
# Without it the amd64 and armhf library packages could not be installed
# side by side for cross builds.
foreach(deb IN LISTS CPACK_PACKAGE_FILES)
  get_filename_component(name "${deb}" NAME)
  if(NOT name MATCHES "^${CPACK_DEBIAN_DEV_PACKAGE_NAME}_.*\\.deb$")
    continue()
  endif()
  set(tree "${deb}.tree")
  file(REMOVE_RECURSE "${tree}")
  execute_process(COMMAND dpkg-deb -R "${deb}" "${tree}" COMMAND_ERROR_IS_FATAL ANY)
  file(READ "${tree}/DEBIAN/control" control)
  string(REPLACE "\nDescription: " "\nMulti-Arch: ${CPACK_DEBIAN_DEV_PACKAGE_MULTIARCH}\nDescription: "
         control "${control}")
  file(WRITE "${tree}/DEBIAN/control" "${control}")
  execute_process(COMMAND dpkg-deb --root-owner-group -b "${tree}" "${deb}"
                  OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE "${tree}")
endforeach()
