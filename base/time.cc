// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "base/time.h"

#include <time.h>

namespace base {

// Stands alone in this file: a test that brings its own clock defines this
// function itself, and the linker then leaves this one out.
TimeTicks TimeTicks::Now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return TimeTicks(int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1'000);
}

}  // namespace base
