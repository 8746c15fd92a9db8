// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/log_init.h"

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "base/logging.h"
#include "tests/support/private_root.h"
#include "tests/support/temp_directory.h"

namespace kestrix {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

constexpr base::Location kSomewhere{"Function", "some/file", 42};

// A system logger in this process: it listens at /dev/log, in a /dev that is
// the process's own.
class SystemLogger : public test::PrivateRoot {
 public:
  void SetUp() override {
    PrivateRoot::SetUp();
    // The tests need the real null device all the same.
    test::PutFile("/mnt/null", "");
    ASSERT_EQ(0, mount("/dev/null", "/mnt/null", nullptr, MS_BIND, nullptr))
        << strerror(errno);
    ASSERT_EQ(0, mount("tmpfs", "/dev", "tmpfs", MS_NOSUID, "mode=755"))
        << strerror(errno);
    test::PutFile("/dev/null", "");
    ASSERT_EQ(0, mount("/mnt/null", "/dev/null", nullptr, MS_BIND, nullptr))
        << strerror(errno);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, "/dev/log");
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    ASSERT_EQ(
        0, bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
  }

  // What has come since the last time. Datagrams are there when they have been
  // sent.
  std::vector<std::string> TakeLines() {
    std::vector<std::string> lines;
    char buffer[1024];
    ssize_t count = 0;
    while ((count = recv(fd_, buffer, sizeof(buffer), 0)) > 0) {
      lines.emplace_back(buffer, static_cast<size_t>(count));
    }
    return lines;
  }

 private:
  int fd_ = -1;
};

SystemLogger* const g_logger = new SystemLogger;
[[maybe_unused]] testing::Environment* const g_environment =
    testing::AddGlobalTestEnvironment(g_logger);

// How the system's C library writes a line to the system logger.
testing::Matcher<std::string> SyslogLine(int priority,
                                         const std::string& text) {
  return MatchesRegex("<" + std::to_string(priority) +
                      ">[A-Z][a-z][a-z] [ 0-9][0-9] [0-9:]+ log_init_test\\[" +
                      std::to_string(getpid()) + "\\]: " + text);
}

class LogInitTest : public testing::Test {
 protected:
  ~LogInitTest() override {
    base::SetLogSink(first_sink_);
    closelog();
    g_logger->TakeLines();
  }

  // What `write` writes to standard error.
  template <typename F>
  std::string CaptureErrors(F write) {
    testing::internal::CaptureStderr();
    write();
    return testing::internal::GetCapturedStderr();
  }

 private:
  const base::LogSink first_sink_ =
      base::SetLogSink([](base::LogSeverity, const base::Location*,
                          std::string_view) { FAIL() << "No sink was set"; });
};

TEST_F(LogInitTest, HasTheFlagsOfThePlatform) {
  EXPECT_EQ(1, kLogToSyslog);
  EXPECT_EQ(2, kLogToStderr);
  EXPECT_EQ(4, kLogHeader);
}

TEST_F(LogInitTest, WritesLinesWithAHeaderToStandardError) {
  InitLog(kLogToStderr | kLogHeader);
  EXPECT_EQ("[INFO] one\n[WARNING] two\n[ERROR:some/file(42)] three\n",
            CaptureErrors([] {
              LOG(INFO) << "one";
              LOG(WARNING) << "two";
              LOG_AT(ERROR, kSomewhere) << "three";
            }));
  EXPECT_THAT(g_logger->TakeLines(), IsEmpty());
}

TEST_F(LogInitTest, WritesLinesWithoutAHeaderToStandardError) {
  InitLog(kLogToStderr);
  EXPECT_EQ("one\ntwo\n", CaptureErrors([] {
              LOG(INFO) << "one";
              LOG_AT(ERROR, kSomewhere) << "two";
            }));
}

TEST_F(LogInitTest, WritesToTheSystemLogWithTheSeverity) {
  InitLog(kLogToSyslog | kLogHeader);
  EXPECT_EQ("", CaptureErrors([] {
              LOG(INFO) << "one";
              LOG(WARNING) << "two";
              LOG(ERROR) << "three";
              LOG_AT(INFO, kSomewhere) << "four";
            }));
  EXPECT_THAT(
      g_logger->TakeLines(),
      ElementsAre(SyslogLine(LOG_DAEMON | LOG_INFO, "\\[INFO\\] one"),
                  SyslogLine(LOG_DAEMON | LOG_WARNING, "\\[WARNING\\] two"),
                  SyslogLine(LOG_DAEMON | LOG_ERR, "\\[ERROR\\] three"),
                  SyslogLine(LOG_DAEMON | LOG_INFO,
                             "\\[INFO:some/file\\(42\\)\\] four")));
}

TEST_F(LogInitTest, WritesToTheSystemLogWithoutAHeader) {
  InitLog(kLogToSyslog);
  LOG(INFO) << "one";
  EXPECT_THAT(g_logger->TakeLines(),
              ElementsAre(SyslogLine(LOG_DAEMON | LOG_INFO, "one")));
}

TEST_F(LogInitTest, WritesTheSameLineToBoth) {
  InitLog(7);
  EXPECT_EQ("[WARNING] a\\x0ab\n",
            CaptureErrors([] { LOG(WARNING) << "a\nb"; }));
  EXPECT_THAT(g_logger->TakeLines(),
              ElementsAre(SyslogLine(LOG_DAEMON | LOG_WARNING,
                                     "\\[WARNING\\] a\\\\x0ab")));
}

TEST_F(LogInitTest, WritesNowhereIfNotTold) {
  InitLog(0);
  EXPECT_EQ("", CaptureErrors([] { LOG(ERROR) << "one"; }));
  EXPECT_THAT(g_logger->TakeLines(), IsEmpty());
}

TEST_F(LogInitTest, TakesPercentSignsAsTheyAre) {
  InitLog(kLogToSyslog | kLogToStderr);
  EXPECT_EQ("%s%n%m 100%\n", CaptureErrors([] { LOG(INFO) << "%s%n%m 100%"; }));
  EXPECT_THAT(g_logger->TakeLines(), ElementsAre(HasSubstr(": %s%n%m 100%")));
}

using LogInitDeathTest = LogInitTest;

// Otherwise the next socket would get the number of one of them, and the log.
TEST_F(LogInitDeathTest, OpensStandardDescriptorsThatAreClosed) {
  const auto init_without = [](std::initializer_list<int> closed) {
    for (const int fd : closed) close(fd);
    InitLog(7);
    for (const int fd : {0, 1, 2}) {
      if (fcntl(fd, F_GETFD) < 0) _exit(1);
    }
    struct stat info {};
    for (const int fd : closed) {
      if (fstat(fd, &info) != 0 || !S_ISCHR(info.st_mode)) _exit(2);
    }
    _exit(0);
  };
  EXPECT_EXIT(init_without({0}), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(init_without({2}), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(init_without({0, 1, 2}), testing::ExitedWithCode(0), "");
}

TEST_F(LogInitDeathTest, LeavesStandardDescriptorsThatAreOpen) {
  const auto init = [](int fd) {
    int pipe_fds[2];
    if (pipe(pipe_fds) != 0) _exit(1);
    dup2(pipe_fds[1], fd);
    InitLog(7);
    char byte = 0;
    const bool same =
        write(fd, "x", 1) == 1 && read(pipe_fds[0], &byte, 1) == 1;
    _exit(same ? 0 : 2);
  };
  for (const int fd : {0, 1, 2}) {
    EXPECT_EXIT(init(fd), testing::ExitedWithCode(0), "");
  }
}

TEST_F(LogInitDeathTest, WritesAFatalLineToBothBeforeTheEnd) {
  InitLog(7);
  EXPECT_EXIT(LOG(FATAL) << "the end", testing::KilledBySignal(SIGABRT),
              "^\\[FATAL\\] the end\n");
  EXPECT_THAT(g_logger->TakeLines(),
              ElementsAre(testing::AllOf(
                  testing::StartsWith(
                      "<" + std::to_string(LOG_DAEMON | LOG_CRIT) + ">"),
                  testing::EndsWith(": [FATAL] the end"))));
}

}  // namespace
}  // namespace kestrix
