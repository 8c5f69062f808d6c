# Installation and Debian packages.
#
#   cmake --install <build> [--prefix /usr]     (DESTDIR=... is honoured)
#
# installs the tool in sbin/ and its manual page in share/man/man8/
# (component "tool"), and the library for other programs: the static archive,
# its headers under include/morv/ and a pkg-config file "morv" (component
# "dev"). `cpack` in a build directory makes a Debian package of each,
# morvlabel and libmorv-dev: for amd64 from the native build (dependencies
# computed from the binary) and for armhf from the static ARM build.
include(GNUInstallDirs)

# The manual page ships compressed, as Debian installs manual pages.
set(MORV_MAN_PAGE ${CMAKE_BINARY_DIR}/morvlabel.8)
add_custom_command(OUTPUT ${MORV_MAN_PAGE}.gz
  COMMAND ${CMAKE_COMMAND} -E copy ${CMAKE_SOURCE_DIR}/doc/morvlabel.8 ${MORV_MAN_PAGE}
  COMMAND gzip -9nf ${MORV_MAN_PAGE}
  DEPENDS ${CMAKE_SOURCE_DIR}/doc/morvlabel.8 VERBATIM)
add_custom_target(morvlabel_man ALL DEPENDS ${MORV_MAN_PAGE}.gz)

if(TARGET morvlabel)
  install(TARGETS morvlabel RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT tool)
endif()
install(FILES ${MORV_MAN_PAGE}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT tool)

install(TARGETS morv ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
file(GLOB MORV_HEADERS CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/lib/*.hpp)
install(FILES ${MORV_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/morv COMPONENT dev)
file(RELATIVE_PATH MORV_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" MORV_PC_TO_PREFIX "${MORV_PC_TO_PREFIX}")
configure_file(${CMAKE_SOURCE_DIR}/cmake/morv.pc.in ${CMAKE_BINARY_DIR}/morv.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/morv.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT dev)

# ---- Debian packages ----
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME morvlabel)
set(CPACK_PACKAGE_VENDOR "morvlabel")
set(CPACK_PACKAGE_CONTACT "morvlabel maintainers <morvlabel@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL tool dev)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME morvlabel)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION admin)
# The first line is the summary; CPack indents the others.
set(CPACK_DEBIAN_TOOL_DESCRIPTION "print or change the label of an HFS+ or HFSX volume
morvlabel prints or changes the volume label (the root folder's name) of an
unmounted HFS+ or HFSX (Mac OS Extended) volume on a block device or in an
image file. Printing never writes; a change rewrites only the catalog
records that hold the name, and is refused on mounted devices and on
volumes whose own state makes it unsafe (software-locked, journal not
replayed, inconsistent, not cleanly unmounted).")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libmorv-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_DESCRIPTION "HFS+ volume library of morvlabel (static library and headers)
The library behind morvlabel: block device access, the HFS+ volume header,
forks with a block cache, a B-tree engine, catalog operations, the extents
overflow tree, the allocation bitmap and HFS+ Unicode names (decomposition,
composition, case-insensitive ordering). Programs find it through pkg-config
under the name morv; the headers are under include/morv.")

# The ARM toolchain is arm-linux-gnueabihf: Debian's armhf.
if(CMAKE_CROSSCOMPILING AND CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
endif()
# A static tool depends on nothing; a dynamic one on what dpkg-shlibdeps finds.
if(NOT MORV_STATIC)
  set(CPACK_DEBIAN_TOOL_PACKAGE_SHLIBDEPS ON)
endif()
include(CPack)
