# SPDX-License-Identifier: MIT
# Installation and Debian packages.
#
#   cmake --install <build> [--prefix /usr]     (DESTDIR=... is honoured)
#
# installs the tool in sbin/ and its manual page in share/man/man8/
# (component "tool"), and the library for other programs: the static archive,
# its headers under include/morv/ and a pkg-config file "morv" (component
# "dev"). `cpack` in a build directory makes a Debian package of each,
# morvlabel and libmorv-dev: for amd64 from the native build (dependencies
# computed from the binary) and for armhf from the static ARM build. They hold
# the same files as the packages `dpkg-buildpackage` makes from debian/, and
# take their maintainer, sections and descriptions from debian/control.

# The library goes to the multiarch directory (lib/x86_64-linux-gnu,
# lib/arm-linux-gnueabihf) whatever the prefix, where Debian's linker and
# pkg-config look, also for cross builds. GNUInstallDirs picks it by itself
# only when the prefix is /usr at configure time, which a build that installs
# with --prefix or is packaged by CPack does not have.
if(NOT DEFINED CMAKE_INSTALL_LIBDIR AND CMAKE_LIBRARY_ARCHITECTURE)
  set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE PATH "Object code libraries (LIBDIR)")
endif()
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

# A stripped install (CPack strips) drops what dh_strip drops too: the
# compiler's .comment and .note sections, and the archive's debug
# information, with its members' dates and owners zeroed.
install(CODE "set(MORV_STRIP \"${CMAKE_STRIP}\")
  set(MORV_STRIP_TOOL \"${CMAKE_INSTALL_SBINDIR}/morvlabel\")
  set(MORV_STRIP_ARCHIVE \"${CMAKE_INSTALL_LIBDIR}/libmorv.a\")" ALL_COMPONENTS)
install(SCRIPT ${CMAKE_SOURCE_DIR}/cmake/strip.cmake ALL_COMPONENTS)

# What Debian packages carry besides: the licence, the changelog and the
# lintian overrides. A plain `cmake --install` leaves them out; CPack installs
# each component on its own and so takes them.
add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/changelog.gz
  COMMAND ${CMAKE_COMMAND} -E copy ${CMAKE_SOURCE_DIR}/debian/changelog ${CMAKE_BINARY_DIR}/changelog
  COMMAND gzip -9nf ${CMAKE_BINARY_DIR}/changelog
  DEPENDS ${CMAKE_SOURCE_DIR}/debian/changelog VERBATIM)
add_custom_target(morvlabel_changelog ALL DEPENDS ${CMAKE_BINARY_DIR}/changelog.gz)
foreach(component tool dev)
  if(component STREQUAL tool)
    set(package morvlabel)
    install(FILES ${CMAKE_SOURCE_DIR}/debian/morvlabel.lintian-overrides
      DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides RENAME morvlabel
      COMPONENT tool EXCLUDE_FROM_ALL)
  else()
    set(package libmorv-dev)
  endif()
  install(FILES ${CMAKE_SOURCE_DIR}/debian/copyright ${CMAKE_BINARY_DIR}/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

# ---- Debian packages ----
# A field of a paragraph of debian/control, continuation lines unindented
# by one space (CPack indents them again).
file(READ ${CMAKE_SOURCE_DIR}/debian/control MORV_CONTROL)
function(morv_control_field package field out)
  set(paragraph "${MORV_CONTROL}")
  if(package)
    string(FIND "${MORV_CONTROL}" "\nPackage: ${package}\n" start)
    if(start EQUAL -1)
      message(FATAL_ERROR "debian/control has no package ${package}")
    endif()
    string(SUBSTRING "${MORV_CONTROL}" ${start} -1 paragraph)
  endif()
  string(FIND "${paragraph}" "\n\n" end)
  if(NOT end EQUAL -1)
    string(SUBSTRING "${paragraph}" 0 ${end} paragraph)
  endif()
  if(NOT "\n${paragraph}" MATCHES "\n${field}: ([^\n]*(\n [^\n]*)*)")
    message(FATAL_ERROR "debian/control has no ${field} for ${package}")
  endif()
  string(REPLACE "\n " "\n" value "${CMAKE_MATCH_1}")
  set(${out} "${value}" PARENT_SCOPE)
endfunction()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME morvlabel)
set(CPACK_PACKAGE_VENDOR "morvlabel")
morv_control_field("" Maintainer CPACK_PACKAGE_CONTACT)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL tool dev)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
morv_control_field("" Priority CPACK_DEBIAN_PACKAGE_PRIORITY)

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME morvlabel)
morv_control_field(morvlabel Section CPACK_DEBIAN_TOOL_PACKAGE_SECTION)
morv_control_field(morvlabel Description CPACK_DEBIAN_TOOL_DESCRIPTION)
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libmorv-dev)
morv_control_field(libmorv-dev Section CPACK_DEBIAN_DEV_PACKAGE_SECTION)
morv_control_field(libmorv-dev Description CPACK_DEBIAN_DEV_DESCRIPTION)
morv_control_field(libmorv-dev Multi-Arch CPACK_DEBIAN_DEV_PACKAGE_MULTIARCH)
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_SOURCE_DIR}/cmake/deb_multiarch.cmake)

# The ARM toolchain is arm-linux-gnueabihf: Debian's armhf.
if(CMAKE_CROSSCOMPILING AND CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
endif()
# A static tool depends on nothing; a dynamic one on what dpkg-shlibdeps finds.
if(NOT MORV_STATIC)
  set(CPACK_DEBIAN_TOOL_PACKAGE_SHLIBDEPS ON)
endif()
include(CPack)
