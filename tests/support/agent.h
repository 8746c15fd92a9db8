// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef TESTS_SUPPORT_AGENT_H_
#define TESTS_SUPPORT_AGENT_H_

#include <string>
#include <vector>

#include "base/event_loop.h"
#include "tests/support/process.h"

namespace test {

// A method call that the agent got.
struct AgentCall {
  bool operator==(const AgentCall&) const = default;

  std::string path;
  // Without the prefix "org.vantrel.Dosset.".
  std::string interface;
  std::string member;
  std::string signature;
  // Each as the agent's "describe" shows it, separated by ", ".
  std::string arguments;
};

void PrintTo(const AgentCall& call, std::ostream* output);

// Drives tests/fakes/agent.py, the stand-in for the device cloud agent, which
// speaks D-Bus through another library than ours. It starts off the bus; its
// Manager object is there from the start.
class Agent {
 public:
  // `loop` is borrowed and must outlive this. Requires: there is a private bus.
  explicit Agent(base::EventLoop* loop);

  // Makes it carry out `action` with `arguments`, a JSON object, and waits
  // until it has, without serving the loop. The test fails if it cannot.
  // Returns the number that the action results in, if it does.
  std::string Do(const std::string& action,
                 const std::string& arguments = "{}");
  // Comes onto the bus under its name.
  void Appear();

  // Publishes a Command at `path`. `parameters` is a JSON object of [signature,
  // value] pairs.
  void PublishCommand(const std::string& path, const std::string& name,
                      const std::string& state, const std::string& parameters);

  // The calls on the agent's own interfaces so far, in order.
  const std::vector<AgentCall>& calls();

 private:
  // Takes in one event, and returns whether it ends the action `id`.
  bool OnLine(const std::string& line, int id);

  Process process_;
  int last_id_ = 0;
  std::string result_;
  std::vector<AgentCall> calls_;
};

}  // namespace test

#endif  // TESTS_SUPPORT_AGENT_H_
