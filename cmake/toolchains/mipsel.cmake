# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors

# 32-bit MIPS, little-endian, from MIPS32 release 2 on, with a floating point
# unit.
# With Debian's g++-mipsel-linux-gnu: see debian.cmake.
set(CMAKE_SYSTEM_PROCESSOR mips)
set(CROSS_TRIPLET mipsel-linux-gnu)
set(CROSS_EMULATED mipsel)
include("${CMAKE_CURRENT_LIST_DIR}/debian.cmake")
