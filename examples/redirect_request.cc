// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors
//
// Sends one request through the cloud action daemon, from C++ with sd-bus.
//
//   g++ -std=c++20 -o redirect_request redirect_request.cc -lsystemd
//   ./redirect_request ENDPOINT METHOD [BODY]
//
// Prints the cloud's status code and its answer, or the D-Bus error.

#include <systemd/sd-bus.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>

namespace {

// The daemon gives a request 30 seconds. Whoever waits no longer than that, or
// only for the 25 seconds of the default, never learns how it ended.
constexpr uint64_t kTimeoutUs = 45'000'000;

struct Free {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
  void operator()(sd_bus_message* message) const {
    sd_bus_message_unref(message);
  }
};

int Fail(const char* what, int result) {
  fprintf(stderr, "%s: %s\n", what, strerror(-result));
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 && argc != 4) {
    fprintf(stderr, "Usage: redirect_request ENDPOINT METHOD [BODY]\n");
    return 64;
  }
  const char* body = argc == 4 ? argv[3] : "";

  sd_bus* bus = nullptr;
  int result = sd_bus_open_system(&bus);
  if (result < 0) return Fail("No connection to the system bus", result);
  const std::unique_ptr<sd_bus, Free> bus_owner(bus);

  sd_bus_message* call = nullptr;
  result = sd_bus_message_new_method_call(
      bus, &call, "org.vantrel.actions.CloudActions",
      "/org/vantrel/actions/CloudActions/Manager",
      "org.vantrel.actions.CloudActions.Manager", "RedirectRequest");
  const std::unique_ptr<sd_bus_message, Free> call_owner(call);
  if (result >= 0) {
    result = sd_bus_message_append(call, "sss", argv[1], argv[2], body);
  }
  if (result < 0) return Fail("The call cannot be made", result);

  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_message* reply = nullptr;
  result = sd_bus_call(bus, call, kTimeoutUs, &error, &reply);
  const std::unique_ptr<sd_bus_message, Free> reply_owner(reply);
  if (result < 0) {
    fprintf(stderr, "%s: %s\n", error.name, error.message);
    sd_bus_error_free(&error);
    return 1;
  }

  int32_t status_code = 0;
  const char* response_body = nullptr;
  result = sd_bus_message_read(reply, "is", &status_code, &response_body);
  if (result < 0) return Fail("The reply is of another type", result);
  printf("%d %s\n", status_code, response_body);
  return 0;
}
