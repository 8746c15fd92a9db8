// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/dbus_utils/async_event_sequencer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <memory>
#include <utility>
#include <vector>

#include "tests/support/log_capture.h"

namespace kestrix::dbus_utils {
namespace {

using test::ErrorLine;
using testing::ElementsAre;
using testing::IsEmpty;

class AsyncEventSequencerTest : public testing::Test {
 protected:
  AsyncEventSequencer::Handler GetHandler(const char* message = "message") {
    return sequencer_->GetHandler(message, /*failure_is_fatal=*/false);
  }
  void Complete() {
    sequencer_->OnAllTasksCompletedCall(
        [this](bool success) { outcomes_.push_back(success); });
  }

  test::LogCapture log_;
  std::unique_ptr<AsyncEventSequencer> sequencer_ =
      std::make_unique<AsyncEventSequencer>();
  std::vector<bool> outcomes_;
};

TEST_F(AsyncEventSequencerTest, ReportsAtOnceIfThereIsNoTask) {
  Complete();
  EXPECT_THAT(outcomes_, ElementsAre(true));
}

TEST_F(AsyncEventSequencerTest, ReportsFromTheLastTask) {
  const auto first = GetHandler(), second = GetHandler();
  Complete();
  second.Run(true);
  EXPECT_THAT(outcomes_, IsEmpty());
  first.Run(true);
  EXPECT_THAT(outcomes_, ElementsAre(true));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(AsyncEventSequencerTest, ReportsAtOnceIfAllTasksAreDone) {
  GetHandler().Run(true);
  GetHandler().Run(true);
  EXPECT_THAT(outcomes_, IsEmpty());
  Complete();
  EXPECT_THAT(outcomes_, ElementsAre(true));
}

TEST_F(AsyncEventSequencerTest, ReportsAFailureOfAnyTask) {
  const auto first = GetHandler("one"), second = GetHandler("two");
  Complete();
  first.Run(false);
  EXPECT_THAT(outcomes_, IsEmpty());
  second.Run(true);
  EXPECT_THAT(outcomes_, ElementsAre(false));
  EXPECT_THAT(log_.lines(), ElementsAre(ErrorLine("one")));
}

TEST_F(AsyncEventSequencerTest, ReportsAFailureFromBeforeItWasAsked) {
  GetHandler("one").Run(false);
  GetHandler("two").Run(false);
  Complete();
  EXPECT_THAT(outcomes_, ElementsAre(false));
  EXPECT_THAT(log_.lines(), ElementsAre(ErrorLine("one"), ErrorLine("two")));
}

TEST_F(AsyncEventSequencerTest, KeepsItsPromiseAfterItsEnd) {
  const auto handler = GetHandler();
  Complete();
  sequencer_.reset();
  handler.Run(true);
  EXPECT_THAT(outcomes_, ElementsAre(true));
}

TEST_F(AsyncEventSequencerTest, MayEndBeforeItsHandlers) {
  const auto handler = GetHandler();
  sequencer_.reset();
  handler.Run(true);
  EXPECT_THAT(outcomes_, IsEmpty());
}

TEST_F(AsyncEventSequencerTest, LetsGoOfWhatTheCallbackHolds) {
  auto token = std::make_shared<int>(0);
  const std::weak_ptr<int> weak_token = token;
  const auto handler = GetHandler();
  sequencer_->OnAllTasksCompletedCall([token = std::move(token)](bool) {});
  EXPECT_FALSE(weak_token.expired());
  handler.Run(true);
  EXPECT_TRUE(weak_token.expired());
}

using AsyncEventSequencerDeathTest = AsyncEventSequencerTest;

TEST_F(AsyncEventSequencerDeathTest, DiesOfAFailureThatIsFatal) {
  const auto handler = sequencer_->GetHandler("Some::Task() failed", true);
  EXPECT_EXIT(handler.Run(false), testing::KilledBySignal(SIGABRT),
              "^\\[FATAL\\] Some::Task\\(\\) failed\n");
  handler.Run(true);
  Complete();
  EXPECT_THAT(outcomes_, ElementsAre(true));
}

}  // namespace
}  // namespace kestrix::dbus_utils
