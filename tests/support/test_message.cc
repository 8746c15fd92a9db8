// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "tests/support/test_message.h"

#include <stdarg.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include "base/logging.h"

namespace test {

MessageBench::MessageBench() {
  // The library makes messages only for a connection that has been opened.
  // Nobody at the other end of this one ever answers.
  int sockets[2];
  CHECK(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0,
                   sockets) == 0)
      << "Cannot make a socket";
  peer_ = sockets[1];
  CHECK(sd_bus_new(&bus_) >= 0 &&
        sd_bus_set_fd(bus_, sockets[0], sockets[0]) >= 0 &&
        sd_bus_start(bus_) >= 0)
      << "Cannot open a connection";
}

MessageBench::~MessageBench() {
  sd_bus_close_unref(bus_);
  close(peer_);
}

dbus::Message MessageBench::NewCall() {
  sd_bus_message* call = nullptr;
  CHECK(sd_bus_message_new_method_call(bus_, &call, "some.service", "/path",
                                       "some.interface", "Method") >= 0)
      << "Cannot make a message";
  return dbus::Message(call);
}

dbus::Message MessageBench::NewReadableCall(const char* types, ...) {
  dbus::Message call = NewCall();
  va_list arguments;
  va_start(arguments, types);
  CHECK(sd_bus_message_appendv(call.get(), types, arguments) >= 0)
      << "Cannot write the message";
  va_end(arguments);
  Seal(&call);
  return call;
}

void MessageBench::Seal(dbus::Message* message) {
  CHECK(sd_bus_message_seal(message->get(), /*cookie=*/1,
                            /*timeout_usec=*/0) >= 0 &&
        sd_bus_message_rewind(message->get(), /*complete=*/1) >= 0)
      << "Cannot end the message";
}

}  // namespace test
