// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "base/logging.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <string_view>

#include "tests/support/log_capture.h"

namespace base {
namespace {

using namespace std::string_view_literals;
using test::At;
using test::ErrorLine;
using test::InfoLine;
using test::WarningLine;
using testing::ElementsAre;

constexpr Location kSomewhere{"Function", "some/file", 42};

TEST(LoggingTest, HandsEachLineWithItsSeverityToTheSink) {
  test::LogCapture log;
  LOG(INFO) << "one";
  LOG(WARNING) << "two";
  LOG(ERROR) << "three";
  EXPECT_THAT(log.lines(), ElementsAre(InfoLine("one"), WarningLine("two"),
                                       ErrorLine("three")));
}

TEST(LoggingTest, PutsTextsAndNumbersTogether) {
  test::LogCapture log;
  LOG(INFO) << "a " << std::string("b") << " " << 401 << " " << -1 << " "
            << size_t{7};
  EXPECT_THAT(log.lines(), ElementsAre(InfoLine("a b 401 -1 7")));
}

TEST(LoggingTest, CarriesTheIdentifierOfALine) {
  test::LogCapture log;
  LOG_AT(INFO, kSomewhere) << "text";
  EXPECT_THAT(log.lines(), ElementsAre(At("some/file", 42, InfoLine("text"))));
}

TEST(LoggingTest, EscapesControlBytes) {
  test::LogCapture log;
  LOG(INFO) << "a\nb\r\t\x1b[0m\x7f\0z"sv;
  EXPECT_THAT(log.lines(),
              ElementsAre(InfoLine("a\\x0ab\\x0d\\x09\\x1b[0m\\x7f\\x00z")));
}

TEST(LoggingTest, EscapesControlCharactersBeyondASCII) {
  test::LogCapture log;
  LOG(INFO) << "\xc2\x9b[0m \xc2\x80 \xc2\x9f";
  EXPECT_THAT(log.lines(),
              ElementsAre(InfoLine("\\xc2\\x9b[0m \\xc2\\x80 \\xc2\\x9f")));
}

TEST(LoggingTest, EscapesBytesThatAreNoCharacters) {
  test::LogCapture log;
  LOG(INFO) << "a\x9b[0m \xff \xc3";
  EXPECT_THAT(log.lines(), ElementsAre(InfoLine("a\\x9b[0m \\xff \\xc3")));
}

TEST(LoggingTest, LeavesOtherTextAlone) {
  test::LogCapture log;
  const std::string text = "\\x0a \xc3\xa4 \xc2\xa0 \xe2\x82\xac ~";
  LOG(INFO) << text;
  EXPECT_THAT(log.lines(), ElementsAre(InfoLine(text)));
}

TEST(LoggingTest, CutsOffAMessageThatGetsLongByItsEscapes) {
  test::LogCapture log;
  LOG(INFO) << std::string(8'191, 'x') << "\n" << std::string(5, 'y');
  LOG(INFO) << std::string(3'000, '\x01');
  LOG(INFO) << std::string(2'048, '\x01');
  std::string escapes;
  for (int i = 0; i < 2'048; ++i) escapes += "\\x01";
  EXPECT_THAT(
      log.lines(),
      ElementsAre(InfoLine(std::string(8'191, 'x') + "... (8197 bytes)"),
                  InfoLine(escapes + "... (3000 bytes)"), InfoLine(escapes)));
}

// Whoever sends us what is logged must not be able to stop us.
TEST(LoggingDeathTest, DoesNotWaitForAReaderOfStderr) {
  const auto log_without_end = [] {
    int ends[2];
    if (pipe(ends) != 0 || dup2(ends[1], 2) != 2) _exit(2);
    alarm(20);
    const std::string text(8'000, 'x');
    for (int i = 0; i < 100; ++i) WriteLogLineToStderr("[INFO] ", text);
    // What has come is lines from their start, and the first is whole.
    std::string read_back(9'000, '\0');
    const ssize_t size = read(ends[0], read_back.data(), read_back.size());
    _exit(size > 8'100 &&
                  read_back.starts_with("[INFO] " + text + "\n[INFO] xx")
              ? 0
              : 1);
  };
  EXPECT_EXIT(log_without_end(), testing::ExitedWithCode(0), "");
}

TEST(LoggingTest, CutsOffAVeryLongMessage) {
  test::LogCapture log;
  ASSERT_EQ(8192u, kMaxLogText);
  const std::string text(8191, 'x');
  LOG(INFO) << text << "y";
  LOG(INFO) << text << "yz";
  EXPECT_THAT(log.lines(), ElementsAre(InfoLine(text + "y"),
                                       InfoLine(text + "y... (8193 bytes)")));
}

TEST(LoggingTest, AppendsTheSystemErrorAsItWasAtTheStart) {
  test::LogCapture log;
  const auto change_errno = [] {
    errno = EACCES;
    return "text";
  };
  errno = ENOENT;
  PLOG(ERROR) << change_errno();
  EXPECT_THAT(log.lines(),
              ElementsAre(ErrorLine("text: No such file or directory")));
}

TEST(LoggingTest, ReportsWhatShouldNotBeReached) {
  test::LogCapture log;
  ReportNotReached(kSomewhere, "why");
  EXPECT_THAT(log.lines(),
              ElementsAre(At("some/file", 42, ErrorLine("Not reached: why"))));
}

TEST(LoggingTest, BuildsTheHeader) {
  EXPECT_EQ("[INFO] ", LogHeader(LogSeverity::kINFO, nullptr));
  EXPECT_EQ("[WARNING] ", LogHeader(LogSeverity::kWARNING, nullptr));
  EXPECT_EQ("[ERROR:some/file(42)] ",
            LogHeader(LogSeverity::kERROR, &kSomewhere));
  EXPECT_EQ("[FATAL] ", LogHeader(LogSeverity::kFATAL, nullptr));
}

TEST(LoggingTest, WritesToStandardErrorAtFirst) {
  testing::internal::CaptureStderr();
  LOG(WARNING) << "a\nb";
  LOG_AT(INFO, kSomewhere) << "c";
  EXPECT_EQ("[WARNING] a\\x0ab\n[INFO:some/file(42)] c\n",
            testing::internal::GetCapturedStderr());
}

TEST(LoggingTest, GoesOnWhenACheckHolds) {
  test::LogCapture log;
  bool evaluated = false;
  const auto explain = [&] {
    evaluated = true;
    return "text";
  };
  CHECK(1 + 1 == 2) << explain();
  EXPECT_FALSE(evaluated);
  EXPECT_THAT(log.lines(), testing::IsEmpty());
}

TEST(LoggingDeathTest, AbortsAfterAFatalLine) {
  EXPECT_EXIT(LOG(FATAL) << "the end", testing::KilledBySignal(SIGABRT),
              "^\\[FATAL\\] the end\n");
}

TEST(LoggingDeathTest, AbortsWhenACheckDoesNotHold) {
  EXPECT_EXIT(CHECK(1 + 1 == 3) << "as they say " << 7,
              testing::KilledBySignal(SIGABRT),
              "^\\[FATAL\\] Check failed: 1 \\+ 1 == 3. as they say 7\n");
}

}  // namespace
}  // namespace base
