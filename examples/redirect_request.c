// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors
//
// Sends one request through the cloud action daemon, from C with sd-bus.
//
//   gcc -std=c11 -o redirect_request redirect_request.c -lsystemd
//   ./redirect_request ENDPOINT METHOD [BODY]
//
// Prints the cloud's status code and its answer, or the D-Bus error.

#include <inttypes.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <systemd/sd-bus.h>

// The daemon gives a request 30 seconds. Whoever waits no longer than that, or
// only for the 25 seconds of the default, never learns how it ended.
#define TIMEOUT_US UINT64_C(45000000)

int main(int argc, char** argv) {
  if (argc != 3 && argc != 4) {
    fprintf(stderr, "Usage: redirect_request ENDPOINT METHOD [BODY]\n");
    return 64;
  }
  const char* endpoint = argv[1];
  const char* method = argv[2];
  const char* body = argc == 4 ? argv[3] : "";

  sd_bus* bus = NULL;
  int result = sd_bus_open_system(&bus);
  if (result < 0) {
    fprintf(stderr, "No connection to the system bus: %s\n", strerror(-result));
    return 1;
  }

  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_message* reply = NULL;
  int32_t status_code = 0;
  const char* response_body = NULL;
  sd_bus_set_method_call_timeout(bus, TIMEOUT_US);
  result = sd_bus_call_method(bus, "org.vantrel.actions.CloudActions",
                              "/org/vantrel/actions/CloudActions/Manager",
                              "org.vantrel.actions.CloudActions.Manager",
                              "RedirectRequest", &error, &reply, "sss",
                              endpoint, method, body);
  if (result < 0) {
    fprintf(stderr, "%s: %s\n", error.name, error.message);
  } else {
    result = sd_bus_message_read(reply, "is", &status_code, &response_body);
    if (result >= 0) {
      printf("%" PRId32 " %s\n", status_code, response_body);
    } else {
      fprintf(stderr, "The reply is of another type: %s\n", strerror(-result));
    }
  }

  sd_bus_error_free(&error);
  sd_bus_message_unref(reply);
  sd_bus_flush_close_unref(bus);
  return result < 0 ? 1 : 0;
}
