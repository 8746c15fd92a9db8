// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "base/time.h"

#include <gtest/gtest.h>

#include "tests/support/fake_clock.h"

namespace base {
namespace {

TEST(TimeTicksTest, IsNullByDefault) {
  EXPECT_TRUE(TimeTicks().is_null());
  EXPECT_FALSE(TimeTicks(1).is_null());
}

TEST(TimeTicksTest, CountsMicroseconds) {
  EXPECT_EQ(std::chrono::microseconds(5), TimeTicks(15) - TimeTicks(10));
  EXPECT_EQ(TimeDelta(2'000'000),
            (TimeTicks(10) + std::chrono::seconds(2)) - TimeTicks(10));
}

TEST(TimeTicksTest, FollowsTheFakeClock) {
  test::FakeClock clock(TimeTicks(100));
  EXPECT_EQ(TimeDelta(0), TimeTicks::Now() - TimeTicks(100));
  clock.Advance(TimeDelta(3));
  EXPECT_EQ(TimeDelta(3), TimeTicks::Now() - TimeTicks(100));
}

}  // namespace
}  // namespace base
