// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "tests/support/bus_caller.h"

#include "base/strings.h"

namespace test {
namespace {

std::vector<std::string> CommandLine(
    const std::string& destination, const std::string& path,
    const std::string& method, const std::vector<std::string>& arguments) {
  std::vector<std::string> command = {"dbus-send",
                                      "--system",
                                      "--print-reply",
                                      "--reply-timeout=20000",
                                      "--dest=" + destination,
                                      path,
                                      method};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return command;
}

}  // namespace

BusCaller::BusCaller(base::EventLoop* loop, const std::string& destination,
                     const std::string& path, const std::string& method,
                     const std::vector<std::string>& arguments)
    : process_(CommandLine(destination, path, method, arguments),
               /*with_errors=*/true) {
  process_.Watch(loop);
}

std::string BusCaller::GetReply() const {
  std::vector<std::string> lines = base::SplitString(
      process_.output(), "\n", base::WhitespaceHandling::kTrim,
      base::SplitResult::kNonEmpty);
  if (!lines.empty() && lines[0].starts_with("method return")) {
    lines.erase(lines.begin());
  }
  return base::JoinString(lines, "\n");
}

}  // namespace test
