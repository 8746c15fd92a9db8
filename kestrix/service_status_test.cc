// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/service_status.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "base/time.h"
#include "tests/support/notify_socket.h"
#include "tests/support/test_loop.h"

namespace kestrix {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ServiceStatusTest : public testing::Test {
 protected:
  void Start() {
    status_.emplace(&loop_, [this] {
      ++descriptions_;
      return line_;
    });
  }

  // Lets the next description come.
  void WaitForDescription() {
    const int before = descriptions_;
    ASSERT_TRUE(test::RunUntil("the next description",
                               [&] { return descriptions_ > before; }));
  }

  base::EventLoop loop_;
  test::NotifySocket manager_;
  std::string line_ = "Asleep";
  int descriptions_ = 0;
  std::optional<ServiceStatus> status_;
};

TEST_F(ServiceStatusTest, IsToldAtOnce) {
  Start();
  EXPECT_THAT(manager_.TakeNotes(), ElementsAre("STATUS=Asleep"));
}

TEST_F(ServiceStatusTest, IsToldOnceASecondHoweverOftenItChanges) {
  Start();
  manager_.TakeNotes();
  int changes = 0;
  std::optional<base::Timer> busy;
  const auto change = [this, &changes, &busy] {
    line_ = std::to_string(++changes);
    ServiceStatus::Changed();
    busy->Start(std::chrono::milliseconds(1));
  };
  busy.emplace(&loop_, change);
  const base::TimeTicks start = base::TimeTicks::Now();
  change();
  WaitForDescription();
  const base::TimeDelta passed = base::TimeTicks::Now() - start;
  EXPECT_GE(passed, std::chrono::seconds(1));
  EXPECT_LT(passed, std::chrono::seconds(3));
  EXPECT_LT(100, changes);
  EXPECT_THAT(manager_.TakeNotes(), ElementsAre("STATUS=" + line_));
  EXPECT_EQ(2, descriptions_);
}

TEST_F(ServiceStatusTest, IsNotToldAgainWhenItReadsAsBefore) {
  Start();
  manager_.TakeNotes();
  ServiceStatus::Changed();
  WaitForDescription();
  EXPECT_THAT(manager_.TakeNotes(), IsEmpty());
}

TEST_F(ServiceStatusTest, ChangesNothingWhereNoneIsReported) {
  ServiceStatus::Changed();
  Start();
  status_.reset();
  manager_.TakeNotes();
  ServiceStatus::Changed();
  test::RunPending();
  EXPECT_EQ(1, descriptions_);
  EXPECT_THAT(manager_.TakeNotes(), IsEmpty());
}

TEST(ServiceStatusDeathTest, DiesOfASecondOne) {
  const auto report_twice = [] {
    base::EventLoop loop;
    const auto describe = [] { return std::string(); };
    const ServiceStatus one(&loop, describe);
    const ServiceStatus other(&loop, describe);
  };
  EXPECT_DEATH(report_twice(), "The process reports its status already");
}

}  // namespace
}  // namespace kestrix
