// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "tests/support/test_loop.h"

#include <gtest/gtest.h>
#include <systemd/sd-event.h>

#include "base/event_loop.h"

namespace test {

bool RunUntil(std::string_view awaited,
              const std::function<bool()>& condition) {
  using Clock = std::chrono::steady_clock;
  sd_event* event = base::EventLoop::Current()->handle();
  const Clock::time_point deadline = Clock::now() + kDeadline;
  while (!condition()) {
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(
        deadline - Clock::now());
    if (left.count() <= 0) {
      ADD_FAILURE() << "Waited in vain for " << awaited;
      return false;
    }
    sd_event_run(event, static_cast<uint64_t>(left.count()));
  }
  return true;
}

void RunPending() {
  sd_event* event = base::EventLoop::Current()->handle();
  while (sd_event_run(event, 0) > 0) {
  }
}

}  // namespace test
