# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors

# What the toolchain files for Debian's cross compilers share. It is included by
# them, with the compiler's name for the target in CROSS_TRIPLET and the
# processor's name among the emulators of QEMU in CROSS_EMULATED.
#
# The target's libraries and headers are taken from the folder CMAKE_SYSROOT:
#   cmake -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/armhf.cmake
#         -DCMAKE_SYSROOT=/absolute/path/of/the/sysroot ...
# Without it, they are those that dpkg has installed on this machine for the
# target (packages like libcurl4-openssl-dev:armhf).
#
# -DCMAKE_CXX_COMPILER=... takes another compiler for the same target. What a
# device wants besides, such as -mcpu=..., goes into -DCMAKE_CXX_FLAGS=...

set(CMAKE_SYSTEM_NAME Linux)
# Where Debian keeps a target's libraries within lib and include. Elsewhere it
# does no harm.
set(CMAKE_LIBRARY_ARCHITECTURE "${CROSS_TRIPLET}")
if(NOT CMAKE_CXX_COMPILER)
  set(CMAKE_CXX_COMPILER "${CROSS_TRIPLET}-g++")
endif()

# Programs that run during the build are this machine's. Everything else is the
# target's: what is missing there must not be found here.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
if(CMAKE_SYSROOT)
  set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
endif()

# pkg-config knows nothing of CMake's rules. It reads these when CMake runs it.
set(cross_pkgconfig "")
foreach(folder "lib/${CROSS_TRIPLET}" lib share)
  list(APPEND cross_pkgconfig "${CMAKE_SYSROOT}/usr/${folder}/pkgconfig")
endforeach()
if(NOT CMAKE_SYSROOT)
  # The machine's own lib holds what is for this machine.
  list(REMOVE_ITEM cross_pkgconfig "/usr/lib/pkgconfig")
endif()
list(JOIN cross_pkgconfig ":" cross_pkgconfig)
set(ENV{PKG_CONFIG_LIBDIR} "${cross_pkgconfig}")
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")

# Tests run in the emulator, if it is there. It takes every file that the
# sysroot has from there, those in its etc and var too: a sysroot that is a
# whole system puts its own configuration before the tests' one.
if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
  find_program(CROSS_EMULATOR
               NAMES "qemu-${CROSS_EMULATED}-static" "qemu-${CROSS_EMULATED}")
  mark_as_advanced(CROSS_EMULATOR)
  if(CROSS_EMULATOR)
    set(CMAKE_CROSSCOMPILING_EMULATOR "${CROSS_EMULATOR}")
    if(CMAKE_SYSROOT)
      list(APPEND CMAKE_CROSSCOMPILING_EMULATOR -L "${CMAKE_SYSROOT}")
    endif()
  endif()
endif()
