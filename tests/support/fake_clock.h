// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef TESTS_SUPPORT_FAKE_CLOCK_H_
#define TESTS_SUPPORT_FAKE_CLOCK_H_

#include "base/time.h"

namespace test {

// Takes the place of the monotonic clock while it lives: base::TimeTicks::Now()
// stands still until Advance(). Timers of the event loop go on as before.
class FakeClock {
 public:
  explicit FakeClock(base::TimeTicks start = base::TimeTicks(1'000'000));
  ~FakeClock();
  FakeClock(const FakeClock&) = delete;
  FakeClock& operator=(const FakeClock&) = delete;

  void Advance(base::TimeDelta delta);
};

}  // namespace test

#endif  // TESTS_SUPPORT_FAKE_CLOCK_H_
