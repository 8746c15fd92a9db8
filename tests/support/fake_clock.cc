// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "tests/support/fake_clock.h"

#include <time.h>

#include "base/logging.h"

namespace {

bool g_is_faked = false;
base::TimeTicks g_now;

}  // namespace

namespace base {

// The linker takes this one instead of the library's own, because this library
// comes first.
TimeTicks TimeTicks::Now() {
  if (g_is_faked) return g_now;
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return TimeTicks(int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1'000);
}

}  // namespace base

namespace test {

FakeClock::FakeClock(base::TimeTicks start) {
  CHECK(!g_is_faked) << "There is a fake clock already";
  g_is_faked = true;
  g_now = start;
}

FakeClock::~FakeClock() { g_is_faked = false; }

void FakeClock::Advance(base::TimeDelta delta) { g_now = g_now + delta; }

}  // namespace test
