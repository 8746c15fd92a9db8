// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "tests/support/agent.h"

#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <string_view>

#include "base/json_reader.h"
#include "base/strings.h"
#include "base/values.h"

namespace test {
namespace {

constexpr std::string_view kPrefix = "org.vantrel.Dosset.";

const base::Value* Find(const base::Value& value, std::string_view key) {
  for (const auto& [name, member] : *value.GetIfMembers()) {
    if (name == key) return &member;
  }
  return nullptr;
}

std::string GetString(const base::Value& value, std::string_view key) {
  const base::Value* member = Find(value, key);
  const std::string* string = member ? member->GetIfString() : nullptr;
  return string ? *string : "";
}

}  // namespace

void PrintTo(const AgentCall& call, std::ostream* output) {
  *output << call.interface << "." << call.member << " at " << call.path << " ("
          << call.signature << ") " << call.arguments;
}

Agent::Agent(base::EventLoop* loop)
    : process_({"/usr/bin/python3", TEST_FAKES_DIR "/agent.py", "--json"}) {
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
  const std::unique_ptr<base::Value> event = base::JSONReader::Read(line);
  if (!event || !event->GetIfMembers()) {
    ADD_FAILURE() << "The agent said: " << line;
    return true;
  }
  const std::string kind = GetString(*event, "event");
  const std::string interface = GetString(*event, "interface");
  if (kind == "call" && interface.starts_with(kPrefix)) {
    std::vector<std::string> arguments;
    for (const base::Value& argument :
         *Find(*event, "arguments")->GetIfList()) {
      arguments.push_back(*argument.GetIfString());
    }
    calls_.push_back(
        {GetString(*event, "path"), interface.substr(kPrefix.size()),
         GetString(*event, "member"), GetString(*event, "signature"),
         base::JoinString(arguments, ", ")});
  }
  if (kind != "done" ||
      Find(*event, "id")->GetIfNumber()->text != std::to_string(id)) {
    return false;
  }
  EXPECT_EQ("", GetString(*event, "error"));
  const base::Value* result = Find(*event, "result");
  const base::Value::Number* number = result ? result->GetIfNumber() : nullptr;
  result_ = number ? number->text : "";
  return true;
}

}  // namespace test
