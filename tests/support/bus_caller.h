// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef TESTS_SUPPORT_BUS_CALLER_H_
#define TESTS_SUPPORT_BUS_CALLER_H_

#include <string>
#include <vector>

#include "base/event_loop.h"
#include "tests/support/process.h"

namespace test {

// One method call made by dbus-send(1), which uses another bus library than we
// do. It goes out at once and is answered while the event loop is served.
class BusCaller {
 public:
  // `arguments` are in the notation of dbus-send, such as "string:text".
  BusCaller(base::EventLoop* loop, const std::string& destination,
            const std::string& path, const std::string& method,
            const std::vector<std::string>& arguments);

  bool is_done() const { return process_.has_ended(); }
  // The arguments of the reply, one to a line, such as
  //   int32 200
  //   string "{}"
  // or, for an error, "Error NAME: TEXT". Requires: is_done().
  std::string GetReply() const;

 private:
  Process process_;
};

}  // namespace test

#endif  // TESTS_SUPPORT_BUS_CALLER_H_
