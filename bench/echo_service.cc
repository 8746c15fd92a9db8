// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

// echo_service NAME BODY_FILE
//
// What a call over the bus costs when nothing is done for it: answers every
// RedirectRequest with status 200 and the content of BODY_FILE.

#include <stdio.h>
#include <string.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <string>

namespace {

int OnCall(sd_bus_message* call, void* body, sd_bus_error*) {
  const char *endpoint = nullptr, *method = nullptr, *request_body = nullptr;
  const int result =
      sd_bus_message_read(call, "sss", &endpoint, &method, &request_body);
  if (result < 0) return result;
  return sd_bus_reply_method_return(
      call, "is", 200, static_cast<const std::string*>(body)->c_str());
}

const sd_bus_vtable kTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("RedirectRequest", "sss", "is", OnCall,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

bool ReadFile(const char* path, std::string* content) {
  FILE* file = fopen(path, "re");
  if (!file) return false;
  char part[4096];
  while (const size_t size = fread(part, 1, sizeof(part), file)) {
    content->append(part, size);
  }
  return fclose(file) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::string body;
  if (argc != 3 || !ReadFile(argv[2], &body)) return 1;
  sd_event* event = nullptr;
  sd_bus* bus = nullptr;
  int result = sd_event_default(&event);
  if (result >= 0) result = sd_bus_open_system(&bus);
  if (result >= 0) result = sd_bus_attach_event(bus, event, 0);
  if (result >= 0) {
    result = sd_bus_add_object_vtable(
        bus, nullptr, "/org/vantrel/actions/CloudActions/Manager",
        "org.vantrel.actions.CloudActions.Manager", kTable, &body);
  }
  if (result >= 0) result = sd_bus_request_name(bus, argv[1], 0);
  if (result >= 0) result = sd_event_loop(event);
  fprintf(stderr, "echo_service: %s\n", strerror(-result));
  return 1;
}
