# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors

# 32-bit ARM from ARMv7 on, with a floating point unit.
# With Debian's g++-arm-linux-gnueabihf: see debian.cmake.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CROSS_TRIPLET arm-linux-gnueabihf)
set(CROSS_EMULATED arm)
# gcc notes which arguments version 7 began to pass in another way. Nothing that
# is linked here is older.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
include("${CMAKE_CURRENT_LIST_DIR}/debian.cmake")
