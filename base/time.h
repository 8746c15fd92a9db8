// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef BASE_TIME_H_
#define BASE_TIME_H_

#include <chrono>
#include <cstdint>

namespace base {

using TimeDelta = std::chrono::microseconds;

// A point on the monotonic clock, in microseconds. It goes on while the wall
// clock is set, and stands still while the device is suspended. The default
// value, 0, means "never".
class TimeTicks {
 public:
  constexpr TimeTicks() = default;
  constexpr explicit TimeTicks(int64_t microseconds) : us_(microseconds) {}

  static TimeTicks Now();

  constexpr bool is_null() const { return us_ == 0; }
  friend constexpr TimeDelta operator-(TimeTicks later, TimeTicks earlier) {
    return TimeDelta(later.us_ - earlier.us_);
  }
  friend constexpr TimeTicks operator+(TimeTicks start, TimeDelta delta) {
    return TimeTicks(start.us_ + delta.count());
  }

 private:
  int64_t us_ = 0;
};

}  // namespace base

#endif  // BASE_TIME_H_
