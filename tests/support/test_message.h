// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef TESTS_SUPPORT_TEST_MESSAGE_H_
#define TESTS_SUPPORT_TEST_MESSAGE_H_

#include "dbus/message.h"

struct sd_bus;

namespace test {

// Makes messages without a bus. They go nowhere.
class MessageBench {
 public:
  MessageBench();
  ~MessageBench();
  MessageBench(const MessageBench&) = delete;
  MessageBench& operator=(const MessageBench&) = delete;

  // A method call without arguments, to be written.
  dbus::Message NewCall();
  // A method call to be read. The arguments are those of
  // sd_bus_message_append(3), which must take them.
  dbus::Message NewReadableCall(const char* types, ...);
  // Ends the writing of `message`, which can then be read from its start, and
  // answered.
  void Seal(dbus::Message* message);

 private:
  int peer_ = -1;
  sd_bus* bus_ = nullptr;
};

}  // namespace test

#endif  // TESTS_SUPPORT_TEST_MESSAGE_H_
