# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors

# 64-bit ARM.
# With Debian's g++-aarch64-linux-gnu: see debian.cmake.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CROSS_TRIPLET aarch64-linux-gnu)
set(CROSS_EMULATED aarch64)
include("${CMAKE_CURRENT_LIST_DIR}/debian.cmake")
