// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/daemon.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sysexits.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/notify_socket.h"
#include "tests/support/test_loop.h"

namespace kestrix {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Notes the steps of its life, and does what the test has put down in them.
class TestDaemon : public Daemon {
 public:
  using Daemon::event_loop;
  using Daemon::QuitWithExitCode;

  // Runs on the loop, once it serves.
  std::function<void()> when_running = [] {};
  int init_code = EX_OK;
  std::function<void(int*)> when_shut_down = [](int*) {};
  // What OnRestart() returns; the base class decides if there is none.
  std::function<bool()> when_restarted;

  int OnInit() override {
    steps_.push_back("init");
    if (init_code != EX_OK) return init_code;
    deadline_.Start(test::kDeadline);
    event_loop()->PostTask([this] { when_running(); });
    return Daemon::OnInit();
  }

  const std::vector<std::string>& steps() const { return steps_; }
  void AddStep(const std::string& step) { steps_.push_back(step); }

 protected:
  void OnShutdown(int* return_code) override {
    steps_.push_back("shutdown " + std::to_string(*return_code));
    when_shut_down(return_code);
    Daemon::OnShutdown(return_code);
  }
  bool OnRestart() override {
    steps_.push_back("restart");
    return when_restarted ? when_restarted() : Daemon::OnRestart();
  }

 private:
  std::vector<std::string> steps_;
  base::Timer deadline_{event_loop(), [this] {
                          ADD_FAILURE() << "Waited in vain for the end";
                          QuitWithExitCode(-1);
                        }};
};

class DaemonTest : public testing::Test {
 protected:
  DaemonTest() : daemon_(std::make_unique<TestDaemon>()) {}

  std::unique_ptr<TestDaemon> daemon_;
};

TEST_F(DaemonTest, InitializesServesAndShutsDown) {
  daemon_->when_running = [this] {
    daemon_->AddStep("run");
    daemon_->QuitWithExitCode(3);
  };
  EXPECT_EQ(3, daemon_->Run());
  EXPECT_THAT(daemon_->steps(), ElementsAre("init", "run", "shutdown 3"));
}

TEST_F(DaemonTest, NeitherServesNorShutsDownIfItCannotInitialize) {
  daemon_->init_code = 7;
  daemon_->event_loop()->PostTask([this] { daemon_->AddStep("run"); });
  EXPECT_EQ(7, daemon_->Run());
  EXPECT_THAT(daemon_->steps(), ElementsAre("init"));
}

TEST_F(DaemonTest, LetsTheShutdownChangeTheExitCode) {
  daemon_->when_running = [this] { daemon_->QuitWithExitCode(3); };
  daemon_->when_shut_down = [](int* return_code) { *return_code = 4; };
  EXPECT_EQ(4, daemon_->Run());
}

TEST_F(DaemonTest, LeavesTheExitCodeAsItWas) {
  daemon_->when_running = [this] { daemon_->QuitWithExitCode(70); };
  EXPECT_EQ(70, daemon_->Run());
}

TEST_F(DaemonTest, EndsWellOnATerminationSignal) {
  for (const int number : {SIGTERM, SIGINT}) {
    daemon_.reset();
    daemon_ = std::make_unique<TestDaemon>();
    daemon_->when_running = [number] { raise(number); };
    EXPECT_EQ(EX_OK, daemon_->Run());
    EXPECT_THAT(daemon_->steps(), ElementsAre("init", "shutdown 0"));
  }
}

TEST_F(DaemonTest, EndsWellOnASignalThatComesBeforeItServes) {
  // Blocked, as OnInit() leaves it.
  daemon_->RegisterHandler(SIGTERM, [](int) { return true; });
  raise(SIGTERM);
  EXPECT_EQ(EX_OK, daemon_->Run());
}

TEST_F(DaemonTest, EndsWellOnAHangUpUnlessItRestartsItself) {
  daemon_->when_running = [] { raise(SIGHUP); };
  EXPECT_EQ(EX_OK, daemon_->Run());
  EXPECT_THAT(daemon_->steps(), ElementsAre("init", "restart", "shutdown 0"));
}

TEST_F(DaemonTest, GoesOnAfterEachHangUpIfItRestartsItself) {
  int restarts = 0;
  daemon_->when_running = [] { raise(SIGHUP); };
  daemon_->when_restarted = [&] {
    raise(++restarts < 3 ? SIGHUP : SIGTERM);
    return true;
  };
  EXPECT_EQ(EX_OK, daemon_->Run());
  EXPECT_THAT(daemon_->steps(), ElementsAre("init", "restart", "restart",
                                            "restart", "shutdown 0"));
}

TEST_F(DaemonTest, RunsTheHandlerOfASignal) {
  std::vector<int> numbers;
  daemon_->RegisterHandler(SIGUSR1, [&](int number) {
    numbers.push_back(number);
    return false;
  });
  raise(SIGUSR1);
  test::RunPending();
  EXPECT_THAT(numbers, ElementsAre(SIGUSR1));
}

TEST_F(DaemonTest, RunsTheHandlerFromTheLoopOnly) {
  int runs = 0;
  daemon_->RegisterHandler(SIGUSR1, [&](int) {
    ++runs;
    return false;
  });
  raise(SIGUSR1);
  EXPECT_EQ(0, runs);
  test::RunPending();
  EXPECT_EQ(1, runs);
}

TEST_F(DaemonTest, KeepsAHandlerThatIsNotDone) {
  int runs = 0;
  daemon_->RegisterHandler(SIGUSR1, [&](int) {
    ++runs;
    return false;
  });
  for (int i = 0; i < 3; ++i) {
    raise(SIGUSR1);
    test::RunPending();
  }
  EXPECT_EQ(3, runs);
}

// The signal after the last is left blocked and without effect.
TEST_F(DaemonTest, DropsAHandlerThatIsDone) {
  int runs = 0;
  daemon_->RegisterHandler(SIGUSR1, [&](int) { return ++runs == 2; });
  for (int i = 0; i < 4; ++i) {
    raise(SIGUSR1);
    test::RunPending();
  }
  EXPECT_EQ(2, runs);
}

TEST_F(DaemonTest, RunsNoHandlerThatWasUnregistered) {
  int runs = 0;
  daemon_->RegisterHandler(SIGUSR1, [&](int) {
    ++runs;
    return false;
  });
  daemon_->UnregisterHandler(SIGUSR1);
  raise(SIGUSR1);
  test::RunPending();
  EXPECT_EQ(0, runs);
}

TEST_F(DaemonTest, UnregistersWhatWasNeverRegistered) {
  daemon_->UnregisterHandler(SIGUSR1);
  test::RunPending();
}

TEST_F(DaemonTest, LetsAHandlerUnregisterItself) {
  auto token = std::make_shared<int>(0);
  const std::weak_ptr<int> weak_token = token;
  daemon_->RegisterHandler(SIGUSR1, [this, token = std::move(token)](int) {
    daemon_->UnregisterHandler(SIGUSR1);
    ++*token;
    return true;
  });
  raise(SIGUSR1);
  test::RunPending();
  EXPECT_TRUE(weak_token.expired());
}

TEST_F(DaemonTest, ReplacesAHandlerOfTheSameSignal) {
  std::vector<std::string> runs;
  daemon_->RegisterHandler(SIGUSR1, [&](int) {
    runs.push_back("first");
    return false;
  });
  daemon_->RegisterHandler(SIGUSR1, [&](int) {
    runs.push_back("second");
    return false;
  });
  raise(SIGUSR1);
  test::RunPending();
  EXPECT_THAT(runs, ElementsAre("second"));
}

TEST_F(DaemonTest, KeepsTheHandlersOfSignalsApart) {
  std::vector<int> numbers;
  const auto note = [&](int number) {
    numbers.push_back(number);
    return false;
  };
  daemon_->RegisterHandler(SIGUSR1, note);
  daemon_->RegisterHandler(SIGUSR2, note);
  daemon_->UnregisterHandler(SIGUSR1);
  raise(SIGUSR2);
  test::RunPending();
  EXPECT_THAT(numbers, ElementsAre(SIGUSR2));
}

TEST_F(DaemonTest, LetsATerminationSignalBeTakenOver) {
  int runs = 0;
  daemon_->when_running = [&] {
    daemon_->RegisterHandler(SIGTERM, [&](int) {
      ++runs;
      daemon_->QuitWithExitCode(9);
      return true;
    });
    raise(SIGTERM);
  };
  EXPECT_EQ(9, daemon_->Run());
  EXPECT_EQ(1, runs);
}

class DaemonNotifyTest : public DaemonTest {
 protected:
  test::NotifySocket supervisor_;
};

TEST_F(DaemonNotifyTest, TellsTheSupervisorBeforeItShutsDown) {
  daemon_->when_running = [this] {
    EXPECT_THAT(supervisor_.TakeNotes(), IsEmpty());
    daemon_->QuitWithExitCode(0);
  };
  std::vector<std::string> notes;
  daemon_->when_shut_down = [&](int*) { notes = supervisor_.TakeNotes(); };
  daemon_->Run();
  EXPECT_THAT(notes, ElementsAre("STOPPING=1"));
  EXPECT_THAT(supervisor_.TakeNotes(), IsEmpty());
}

TEST_F(DaemonNotifyTest, TellsNothingIfItCannotInitialize) {
  daemon_->init_code = 7;
  daemon_->Run();
  EXPECT_THAT(supervisor_.TakeNotes(), IsEmpty());
}

using DaemonDeathTest = DaemonTest;

TEST_F(DaemonDeathTest, OutlivesAPeerThatClosesItsConnection) {
  daemon_.reset();
  const auto write_to_nobody = [](bool construct) {
    signal(SIGPIPE, SIG_DFL);
    if (construct) new TestDaemon;
    int pipe_fds[2];
    if (pipe(pipe_fds) != 0) _exit(2);
    close(pipe_fds[0]);
    _exit(write(pipe_fds[1], "x", 1) == -1 && errno == EPIPE ? 0 : 1);
  };
  EXPECT_EXIT(write_to_nobody(false), testing::KilledBySignal(SIGPIPE), "");
  EXPECT_EXIT(write_to_nobody(true), testing::ExitedWithCode(0), "");
}

TEST_F(DaemonDeathTest, DiesIfASignalCannotBeWatched) {
  daemon_.reset();
  const auto watch = [] {
    TestDaemon daemon;
    daemon.RegisterHandler(SIGKILL, [](int) { return true; });
  };
  EXPECT_EXIT(watch(), testing::KilledBySignal(SIGABRT),
              "Check failed: registration.source != nullptr. Cannot watch the "
              "signal 9");
}

}  // namespace
}  // namespace kestrix
