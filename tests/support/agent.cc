// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "tests/support/agent.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string_view>

#include "base/json_reader.h"
#include "base/strings.h"

namespace test {
namespace {

constexpr std::string_view kPrefix = "org.vantrel.Dosset.";

std::string GetString(const std::string& event, std::string_view key) {
  std::string string;
  base::JSONReader::ReadStringMember(event, key, &string);
  return string;
}

}  // namespace

void PrintTo(const AgentCall& call, std::ostream* output) {
  *output << call.interface << "." << call.member << " at " << call.path << " ("
          << call.signature << ") " << call.arguments;
}

Agent::Agent(base::EventLoop* loop)
    : process_({"/usr/bin/python3", TEST_FAKES_DIR "/agent.py", "--json",
                "--flat"}) {
  EXPECT_EQ(R"({"event": "ready"})", process_.ReadLine("the agent to start"));
  process_.Watch(loop);
}

std::string Agent::Do(const std::string& action, const std::string& arguments) {
  const int id = ++last_id_;
  process_.Write(
      R"({"id": )" + std::to_string(id) + R"(, "do": ")" + action +
      R"(", "with": )" +
      base::JoinString(
          base::SplitString(arguments, "\n", base::WhitespaceHandling::kKeep,
                            base::SplitResult::kAll),
          " ") +
      "}\n");
  std::string line;
  do {
    line = process_.ReadLine("the agent to carry out " + action);
  } while (!line.empty() && !OnLine(line, id));
  return result_;
}

void Agent::Appear() {
  Do("connect");
  Do("own");
}

void Agent::PublishCommand(const std::string& path, const std::string& name,
                           const std::string& state,
                           const std::string& parameters) {
  Do("publish", R"({"path": ")" + path +
                    R"(", "interface": "org.vantrel.Dosset.Command",
                        "properties": {"Name": ["s", ")" +
                    name + R"("], "State": ["s", ")" + state +
                    R"("], "Parameters": ["a{sv}", )" + parameters + "]}}");
}

const std::vector<AgentCall>& Agent::calls() {
  std::string line;
  while (process_.TakeLine(&line)) OnLine(line, 0);
  return calls_;
}

bool Agent::OnLine(const std::string& line, int id) {
  const std::string kind = GetString(line, "event");
  if (kind.empty()) {
    ADD_FAILURE() << "The agent said: " << line;
    return true;
  }
  const std::string interface = GetString(line, "interface");
  if (kind == "call" && interface.starts_with(kPrefix)) {
    calls_.push_back({GetString(line, "path"), interface.substr(kPrefix.size()),
                      GetString(line, "member"), GetString(line, "signature"),
                      GetString(line, "arguments")});
  }
  if (kind != "done" || GetString(line, "id") != std::to_string(id)) {
    return false;
  }
  EXPECT_EQ("", GetString(line, "error"));
  result_ = GetString(line, "result");
  return true;
}

}  // namespace test
