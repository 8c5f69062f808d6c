# SPDX-License-Identifier: MIT
# The hardening flags Debian builds its packages with, from dpkg-buildflags
# with every hardening feature on: stack protector, _FORTIFY_SOURCE, format
# checks, read-only relocations and immediate binding. Only the flags those
# features add are taken (the difference between all features on and all
# off); optimisation and debug information stay the build type's. The
# Debian package build gets the same flags from debhelper and turns this off.
find_program(MORV_DPKG_BUILDFLAGS_COMMAND dpkg-buildflags)
set(morv_default OFF)
if(MORV_DPKG_BUILDFLAGS_COMMAND AND NOT MORV_SANITIZE)
  set(morv_default ON)
endif()
option(MORV_DPKG_BUILDFLAGS "Compile and link with the hardening flags of dpkg-buildflags" ${morv_default})

if(MORV_DPKG_BUILDFLAGS)
  if(NOT MORV_DPKG_BUILDFLAGS_COMMAND)
    message(FATAL_ERROR "MORV_DPKG_BUILDFLAGS needs dpkg-buildflags (Debian's dpkg-dev)")
  endif()
  # The flags of the architecture built for: the ARM toolchain is Debian's armhf.
  set(morv_host_arch)
  if(CMAKE_CROSSCOMPILING AND CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
    set(morv_host_arch DEB_HOST_ARCH=armhf)
  endif()
  function(morv_hardening_flags kind out)
    foreach(features +all -all)
      execute_process(
        COMMAND ${CMAKE_COMMAND} -E env DEB_BUILD_MAINT_OPTIONS=hardening=${features} ${morv_host_arch}
                ${MORV_DPKG_BUILDFLAGS_COMMAND} --get ${kind}
        WORKING_DIRECTORY ${CMAKE_SOURCE_DIR}
        OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE
        RESULT_VARIABLE status)
      if(NOT status EQUAL 0)
        message(FATAL_ERROR "dpkg-buildflags --get ${kind} failed")
      endif()
      separate_arguments(flags${features} UNIX_COMMAND "${flags}")
    endforeach()
    if(flags-all)
      list(REMOVE_ITEM flags+all ${flags-all})
    endif()
    set(${out} ${flags+all} PARENT_SCOPE)
  endfunction()
  morv_hardening_flags(CPPFLAGS MORV_HARDENING_CPPFLAGS)
  morv_hardening_flags(CXXFLAGS MORV_HARDENING_CXXFLAGS)
  morv_hardening_flags(LDFLAGS MORV_HARDENING_LDFLAGS)
  # _FORTIFY_SOURCE needs optimisation; unoptimised it only warns.
  foreach(flag ${MORV_HARDENING_CPPFLAGS})
    add_compile_options($<$<NOT:$<CONFIG:Debug>>:${flag}>)
  endforeach()
  add_compile_options(${MORV_HARDENING_CXXFLAGS})
  add_link_options(${MORV_HARDENING_LDFLAGS})
  string(JOIN " " morv_all ${MORV_HARDENING_CPPFLAGS} ${MORV_HARDENING_CXXFLAGS} ${MORV_HARDENING_LDFLAGS})
  message(STATUS "Hardening flags of dpkg-buildflags: ${morv_all}")
endif()
