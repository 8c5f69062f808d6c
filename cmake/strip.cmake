# SPDX-License-Identifier: MIT
# Install-time step of a stripped install (cmake --install --strip, CPack):
# after CMake's own strip, drop the compiler's .comment and .note sections
# from the tool, and debug information, .comment and .note from the archive
# with its members' dates and owners zeroed, as Debian's dh_strip does.
# MORV_STRIP, MORV_STRIP_TOOL and MORV_STRIP_ARCHIVE are set by install.cmake.
if(NOT CMAKE_INSTALL_DO_STRIP)
  return()
endif()
set(root "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}")
if(EXISTS "${root}/${MORV_STRIP_TOOL}")
  execute_process(COMMAND "${MORV_STRIP}" --remove-section=.comment --remove-section=.note
                          "${root}/${MORV_STRIP_TOOL}" COMMAND_ERROR_IS_FATAL ANY)
endif()
if(EXISTS "${root}/${MORV_STRIP_ARCHIVE}")
  execute_process(COMMAND "${MORV_STRIP}" --strip-debug --remove-section=.comment
                          --remove-section=.note --enable-deterministic-archives
                          "${root}/${MORV_STRIP_ARCHIVE}" COMMAND_ERROR_IS_FATAL ANY)
endif()
