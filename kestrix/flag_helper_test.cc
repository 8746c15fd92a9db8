// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/flag_helper.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <initializer_list>
#include <string>
#include <vector>

namespace kestrix {
namespace {

using testing::ExitedWithCode;

constexpr char kHelp[] =
    "^Some Daemon\n\nUsage: some_daemon \\[--help\\]\n\n"
    "  --help, -h  show this text and exit\n$";

void Init(std::initializer_list<const char*> arguments) {
  std::vector<std::string> words = {"/usr/sbin/some_daemon"};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  FlagHelper::Init(static_cast<int>(words.size()), argv.data(), "Some Daemon");
}

// A death test looks at standard error only. Half of a pair of these shows that
// a text goes to the one, half that it goes to the other.
void JoinOutputWithErrors() { dup2(STDERR_FILENO, STDOUT_FILENO); }
void Redirect(int fd, const char* file) { dup2(open(file, O_WRONLY), fd); }

TEST(FlagHelperTest, GoesOnWithoutArguments) {
  Init({});
  SUCCEED();
}

TEST(FlagHelperTest, GoesOnWithoutAProgramName) {
  char* argv[] = {nullptr};
  FlagHelper::Init(0, argv, "Some Daemon");
  SUCCEED();
}

TEST(FlagHelperDeathTest, ShowsTheHelpOnStandardOutput) {
  EXPECT_EXIT((JoinOutputWithErrors(), Init({"--help"})), ExitedWithCode(0),
              kHelp);
  EXPECT_EXIT((JoinOutputWithErrors(), Init({"-h"})), ExitedWithCode(0), kHelp);
  EXPECT_EXIT((Redirect(STDOUT_FILENO, "/dev/null"), Init({"--help"})),
              ExitedWithCode(0), "^$");
}

TEST(FlagHelperDeathTest, FailsIfTheHelpCannotBeWritten) {
  EXPECT_EXIT((Redirect(STDOUT_FILENO, "/dev/full"), Init({"--help"})),
              ExitedWithCode(74), "^$");
}

TEST(FlagHelperDeathTest, RefusesAnUnknownFlag) {
  for (const char* flag : {"--foreground", "--help=1", "--Help", "-", "--"}) {
    EXPECT_EXIT(Init({flag}), ExitedWithCode(64),
                std::string("^some_daemon: unknown flag '") + flag +
                    "'; try --help\n$");
  }
}

TEST(FlagHelperDeathTest, RefusesAnArgumentThatIsNoFlag) {
  for (const char* argument : {"start", "", "help"}) {
    EXPECT_EXIT(Init({argument}), ExitedWithCode(64),
                std::string("^some_daemon: unknown argument '") + argument +
                    "'; try --help\n$");
  }
}

TEST(FlagHelperDeathTest, TakesTheFirstArgumentThatDecides) {
  EXPECT_EXIT((JoinOutputWithErrors(), Init({"--help", "--foreground"})),
              ExitedWithCode(0), kHelp);
  EXPECT_EXIT((JoinOutputWithErrors(), Init({"--foreground", "--help"})),
              ExitedWithCode(64), "unknown flag '--foreground'");
}

TEST(FlagHelperDeathTest, ShowsAProgramNameWithoutFolders) {
  char name[] = "plain_name";
  char flag[] = "--x";
  char* argv[] = {name, flag, nullptr};
  EXPECT_EXIT(FlagHelper::Init(2, argv, "Some Daemon"), ExitedWithCode(64),
              "^plain_name: unknown flag '--x'");
}

}  // namespace
}  // namespace kestrix
