// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

// start_time NAME COUNT COMMAND...
//
// Starts COMMAND once and then COUNT times more, one after the other, and
// prints how long it takes until the bus sees it own NAME. Each is ended by
// SIGTERM.

#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "bench/closed_loop.h"

namespace {

using bench::Fail;

void Require(int result, const char* what) {
  if (result < 0) Fail(what, strerror(-result));
}

int OnOwnerChanged(sd_bus_message* signal, void* is_owned, sd_bus_error*) {
  const char *name = nullptr, *before = nullptr, *now = nullptr;
  Require(sd_bus_message_read(signal, "sss", &name, &before, &now), "signal");
  *static_cast<bool*>(is_owned) = now[0] != '\0';
  return 0;
}

void WaitUntil(sd_bus* bus, const bool& is_owned, bool wanted) {
  while (is_owned != wanted) {
    const int result = sd_bus_process(bus, nullptr);
    Require(result, "bus");
    if (result == 0 && sd_bus_wait(bus, 10'000'000) <= 0) {
      Fail("start", "the name did not come or go within 10 s");
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) Fail("usage", "start_time NAME COUNT COMMAND...");
  sd_bus* bus = nullptr;
  bool is_owned = false;
  Require(sd_bus_open_system(&bus), "bus");
  const std::string rule =
      "type='signal',sender='org.freedesktop.DBus',"
      "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" +
      std::string(argv[1]) + "'";
  Require(
      sd_bus_add_match(bus, nullptr, rule.c_str(), OnOwnerChanged, &is_owned),
      "match");
  std::vector<double> times;
  // The first reads the files from the disk.
  for (size_t n = 0; n <= bench::ParseNumber(argv[2]); ++n) {
    const double begin = bench::Now();
    pid_t pid = 0;
    const int result =
        posix_spawn(&pid, argv[3], nullptr, nullptr, argv + 3, environ);
    if (result != 0) Fail(argv[3], strerror(result));
    WaitUntil(bus, is_owned, true);
    if (n > 0) times.push_back(bench::Now() - begin);
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    WaitUntil(bus, is_owned, false);
  }
  std::sort(times.begin(), times.end());
  printf("{\"p50\": %.1f, \"max\": %.1f}\n", times[times.size() / 2],
         times.back());
  return 0;
}
