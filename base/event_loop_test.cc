// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "base/event_loop.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "base/time.h"
#include "tests/support/test_loop.h"

namespace base {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;

class EventLoopTest : public testing::Test {
 protected:
  EventLoop loop_;
  std::vector<int> steps_;
};

// With a pipe to watch.
class EventLoopFdTest : public EventLoopTest {
 protected:
  EventLoopFdTest() { EXPECT_EQ(0, pipe2(pipe_, O_CLOEXEC | O_NONBLOCK)); }
  ~EventLoopFdTest() override {
    close(pipe_[0]);
    close(pipe_[1]);
  }
  void Write() { EXPECT_EQ(1, write(pipe_[1], "x", 1)); }

  int pipe_[2];
};

TEST_F(EventLoopTest, IsTheLoopOfTheProcess) {
  EXPECT_EQ(&loop_, EventLoop::Current());
}

TEST_F(EventLoopTest, ReturnsTheExitCode) {
  loop_.PostTask([this] { loop_.Quit(7); });
  EXPECT_EQ(7, loop_.Run());
}

TEST_F(EventLoopTest, KeepsTheCodeOfTheFirstQuit) {
  loop_.PostTask([this] {
    loop_.Quit(7);
    loop_.Quit(8);
  });
  EXPECT_EQ(7, loop_.Run());
}

TEST_F(EventLoopTest, RunsNothingAfterAQuitBeforeRun) {
  loop_.PostTask([this] { steps_.push_back(1); });
  loop_.Quit(7);
  EXPECT_EQ(7, loop_.Run());
  EXPECT_THAT(steps_, IsEmpty());
}

TEST_F(EventLoopTest, LeavesWhatComesAfterTheQuit) {
  loop_.PostTask([this] { loop_.Quit(0); });
  loop_.PostTask([this] { steps_.push_back(1); });
  loop_.Run();
  EXPECT_THAT(steps_, IsEmpty());
}

TEST_F(EventLoopTest, CanRunAgain) {
  loop_.Quit(1);
  loop_.Run();
  loop_.PostTask([this] { loop_.Quit(2); });
  EXPECT_EQ(2, loop_.Run());
}

TEST_F(EventLoopTest, RunsTasksInTheOrderOfPosting) {
  for (const int i : {1, 2, 3}) {
    loop_.PostTask([this, i] { steps_.push_back(i); });
  }
  EXPECT_THAT(steps_, IsEmpty());
  test::RunPending();
  EXPECT_THAT(steps_, ElementsAre(1, 2, 3));
}

TEST_F(EventLoopTest, RunsATaskThatATaskPostedAfterTheOthers) {
  loop_.PostTask([this] {
    steps_.push_back(1);
    loop_.PostTask([this] { steps_.push_back(3); });
  });
  loop_.PostTask([this] { steps_.push_back(2); });
  test::RunPending();
  EXPECT_THAT(steps_, ElementsAre(1, 2, 3));
}

TEST(EventLoopEndTest, DropsTasksThatHaveNotRun) {
  const auto held = std::make_shared<int>(0);
  bool has_run = false;
  {
    EventLoop loop;
    loop.PostTask([held, &has_run] { has_run = true; });
  }
  EXPECT_EQ(1, held.use_count());
  EXPECT_FALSE(has_run);
}

TEST(EventLoopDeathTest, DiesWhenThereAreTwo) {
  EventLoop loop;
  EXPECT_DEATH(EventLoop(), "The process has an event loop already");
}

TEST(EventLoopDeathTest, DiesWhenThereIsNone) {
  EXPECT_DEATH(EventLoop::Current(), "The process has no event loop");
}

TEST_F(EventLoopFdTest, ReportsAReadableDescriptor) {
  uint32_t reported = 0;
  const auto source =
      loop_.WatchFd(pipe_[0], EventLoop::kReadable,
                    [&](uint32_t events) { reported = events; });
  test::RunPending();
  EXPECT_EQ(0u, reported);
  Write();
  ASSERT_TRUE(test::RunUntil("a readable pipe", [&] { return reported != 0; }));
  EXPECT_EQ(EventLoop::kReadable, reported);
}

TEST_F(EventLoopFdTest, ReportsAWritableDescriptor) {
  uint32_t reported = 0;
  const auto source =
      loop_.WatchFd(pipe_[1], EventLoop::kReadable | EventLoop::kWritable,
                    [&](uint32_t events) { reported = events; });
  ASSERT_TRUE(test::RunUntil("a writable pipe", [&] { return reported != 0; }));
  EXPECT_EQ(EventLoop::kWritable, reported);
}

TEST_F(EventLoopFdTest, ReportsAHangUpAsReadyForAll) {
  uint32_t reported = 0;
  const auto source =
      loop_.WatchFd(pipe_[0], EventLoop::kReadable,
                    [&](uint32_t events) { reported = events; });
  close(pipe_[1]);
  ASSERT_TRUE(test::RunUntil("the hang-up", [&] { return reported != 0; }));
  EXPECT_EQ(EventLoop::kReadable | EventLoop::kWritable, reported);
  pipe_[1] = open("/dev/null", O_WRONLY | O_CLOEXEC);
}

TEST_F(EventLoopFdTest, MayBeDestroyedInItsOwnCallback) {
  std::unique_ptr<EventSource> source;
  source = loop_.WatchFd(pipe_[0], EventLoop::kReadable, [&](uint32_t) {
    source.reset();
    steps_.push_back(1);
  });
  Write();
  ASSERT_TRUE(test::RunUntil("the callback", [&] { return !steps_.empty(); }));
  Write();
  test::RunPending();
  EXPECT_THAT(steps_, ElementsAre(1));
}

TEST_F(EventLoopFdTest, ReportsNothingOnceDestroyed) {
  auto source = loop_.WatchFd(pipe_[0], EventLoop::kReadable,
                              [this](uint32_t) { steps_.push_back(1); });
  Write();
  source.reset();
  test::RunPending();
  EXPECT_THAT(steps_, IsEmpty());
}

TEST_F(EventLoopFdTest, CannotWatchAClosedDescriptor) {
  EXPECT_EQ(nullptr, loop_.WatchFd(-1, EventLoop::kReadable, [](uint32_t) {}));
}

TEST_F(EventLoopTest, ReportsASignal) {
  const auto source =
      loop_.WatchSignal(SIGUSR1, [this] { steps_.push_back(1); });
  ASSERT_NE(nullptr, source);
  raise(SIGUSR1);
  ASSERT_TRUE(test::RunUntil("the signal", [&] { return !steps_.empty(); }));
  EXPECT_THAT(steps_, ElementsAre(1));
}

TEST_F(EventLoopTest, MayStopWatchingASignalInItsCallback) {
  std::unique_ptr<EventSource> source;
  source = loop_.WatchSignal(SIGUSR1, [&] {
    source.reset();
    steps_.push_back(1);
  });
  raise(SIGUSR1);
  ASSERT_TRUE(test::RunUntil("the signal", [&] { return !steps_.empty(); }));
  raise(SIGUSR1);  // Blocked: it does not end the process.
  test::RunPending();
  EXPECT_THAT(steps_, ElementsAre(1));
}

TEST_F(EventLoopTest, CannotWatchWhatIsNoSignal) {
  EXPECT_EQ(nullptr, loop_.WatchSignal(-1, [] {}));
}

TEST_F(EventLoopTest, TimerRunsOnceFromTheLoop) {
  Timer timer(&loop_, [this] { steps_.push_back(1); });
  timer.Start(TimeDelta(0));
  EXPECT_THAT(steps_, IsEmpty());
  ASSERT_TRUE(test::RunUntil("the timer", [&] { return !steps_.empty(); }));
  test::RunPending();
  EXPECT_THAT(steps_, ElementsAre(1));
}

TEST_F(EventLoopTest, TimerIsNotEarlyAfterMuchWorkInTheSameTurn) {
  TimeTicks start, end;
  Timer timer(&loop_, [&] {
    end = TimeTicks::Now();
    loop_.Quit(0);
  });
  loop_.PostTask([&] {
    const TimeTicks begin = TimeTicks::Now();
    do {
      start = TimeTicks::Now();
    } while (start - begin < milliseconds(20));
    timer.Start(milliseconds(30));
  });
  loop_.Run();
  EXPECT_GE(end - start, milliseconds(30));
}

TEST_F(EventLoopTest, TimersRunInTheOrderOfTheirTimes) {
  Timer late(&loop_, [this] { steps_.push_back(2); });
  Timer early(&loop_, [this] { steps_.push_back(1); });
  late.Start(milliseconds(20));
  early.Start(milliseconds(1));
  ASSERT_TRUE(
      test::RunUntil("both timers", [&] { return steps_.size() == 2; }));
  EXPECT_THAT(steps_, ElementsAre(1, 2));
}

TEST_F(EventLoopTest, TimerTakesANegativeTimeAsNow) {
  Timer timer(&loop_, [this] { steps_.push_back(1); });
  timer.Start(TimeDelta(-5));
  EXPECT_TRUE(test::RunUntil("the timer", [&] { return !steps_.empty(); }));
}

TEST_F(EventLoopTest, TimerDoesNotRunUnlessStarted) {
  const Timer timer(&loop_, [this] { steps_.push_back(1); });
  test::RunPending();
  EXPECT_THAT(steps_, IsEmpty());
}

TEST_F(EventLoopTest, TimerDoesNotRunOnceStopped) {
  Timer timer(&loop_, [this] { steps_.push_back(1); });
  timer.Start(TimeDelta(0));
  timer.Stop();
  test::RunPending();
  EXPECT_THAT(steps_, IsEmpty());
}

TEST_F(EventLoopTest, ALaterStartReplacesTheEarlierOne) {
  Timer timer(&loop_, [this] { steps_.push_back(1); });
  timer.Start(TimeDelta(0));
  timer.Start(hours(1));
  test::RunPending();
  EXPECT_THAT(steps_, IsEmpty());
  timer.Start(TimeDelta(0));
  EXPECT_TRUE(test::RunUntil("the timer", [&] { return !steps_.empty(); }));
}

TEST_F(EventLoopTest, TimerMayStartAgainInItsCallback) {
  std::unique_ptr<Timer> timer;
  timer = std::make_unique<Timer>(&loop_, [&] {
    steps_.push_back(1);
    if (steps_.size() < 3) timer->Start(TimeDelta(0));
  });
  timer->Start(TimeDelta(0));
  ASSERT_TRUE(
      test::RunUntil("three turns", [&] { return steps_.size() == 3; }));
  test::RunPending();
  EXPECT_THAT(steps_, ElementsAre(1, 1, 1));
}

TEST_F(EventLoopTest, TimerMayBeDestroyedInItsCallback) {
  std::unique_ptr<Timer> timer;
  timer = std::make_unique<Timer>(&loop_, [&] {
    timer.reset();
    steps_.push_back(1);
  });
  timer->Start(TimeDelta(0));
  EXPECT_TRUE(test::RunUntil("the timer", [&] { return !steps_.empty(); }));
}

TEST_F(EventLoopTest, TimerDoesNotRunOnceDestroyed) {
  {
    Timer timer(&loop_, [this] { steps_.push_back(1); });
    timer.Start(TimeDelta(0));
  }
  test::RunPending();
  EXPECT_THAT(steps_, IsEmpty());
}

}  // namespace
}  // namespace base
