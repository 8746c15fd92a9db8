// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

// load NAME ENDPOINT SIZE CONCURRENCY COUNT ROUNDS
//
// Has the service NAME on the system bus redirect COUNT requests to ENDPOINT,
// CONCURRENCY of them at a time, after ROUNDS of one each, and prints how long
// they took and what processor time the service used for each. Each must be
// answered with status 200 and a body of SIZE bytes. With a COUNT of 0 it goes
// on until SIGTERM.

#include <signal.h>
#include <string.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <memory>
#include <vector>

#include "bench/closed_loop.h"

namespace {

using bench::Fail;

constexpr char kPath[] = "/org/vantrel/actions/CloudActions/Manager";
constexpr char kInterface[] = "org.vantrel.actions.CloudActions.Manager";
constexpr char kMember[] = "RedirectRequest";

constexpr uint64_t kTimeoutUs = 60'000'000;

// A bus lets each connection wait for 128 replies at the most.
constexpr size_t kCallsPerConnection = 64;

void Require(int result, const char* what) {
  if (result < 0) Fail(what, strerror(-result));
}

struct Work {
  const char* name;
  const char* endpoint;
  size_t size;
  bench::ClosedLoop loop;
  sd_event* event = nullptr;
};

// Sends one request after the other.
class Caller {
 public:
  Caller(Work* work, sd_bus* bus)
      : work_(work), bus_(bus), number_(work->loop.Add([this] { Send(); })) {}

 private:
  void Send() {
    sd_bus_message* call = nullptr;
    Require(sd_bus_message_new_method_call(bus_, &call, work_->name, kPath,
                                           kInterface, kMember),
            "new call");
    Require(sd_bus_message_append(call, "sss", work_->endpoint, "GET", ""),
            "arguments");
    sent_ = bench::Now();
    Require(sd_bus_call_async(bus_, nullptr, call, OnReply, this, kTimeoutUs),
            "call");
    sd_bus_message_unref(call);
  }

  static int OnReply(sd_bus_message* reply, void* caller, sd_bus_error*) {
    auto* self = static_cast<Caller*>(caller);
    if (const sd_bus_error* error = sd_bus_message_get_error(reply)) {
      Fail(error->name, error->message);
    }
    int status = 0;
    const char* body = nullptr;
    Require(sd_bus_message_read(reply, "is", &status, &body), "reply");
    if (status != 200) Fail("the status is not 200", body);
    if (strlen(body) != self->work_->size) Fail("wrong length", body);
    if (!self->work_->loop.Answered(self->number_, self->sent_)) {
      sd_event_exit(self->work_->event, 0);
    }
    return 1;
  }

  Work* work_;
  sd_bus* bus_;
  size_t number_;
  double sent_ = 0;
};

// The clock of the processor time of the service `name`.
clockid_t GetProcessorClock(sd_bus* bus, const char* name) {
  sd_bus_creds* credentials = nullptr;
  pid_t pid = 0;
  clockid_t clock = 0;
  Require(sd_bus_get_name_creds(bus, name, SD_BUS_CREDS_PID, &credentials),
          "the service");
  Require(sd_bus_creds_get_pid(credentials, &pid), "its process");
  sd_bus_creds_unref(credentials);
  Require(-clock_getcpuclockid(pid, &clock), "its processor time");
  return clock;
}

int OnTermination(sd_event_source* source, const signalfd_siginfo*,
                  void* work) {
  static_cast<Work*>(work)->loop.Stop();
  return sd_event_exit(sd_event_source_get_event(source), 0);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 7)
    Fail("usage", "load NAME ENDPOINT SIZE CONCURRENCY COUNT ROUNDS");
  const size_t concurrency = bench::ParseNumber(argv[4]);
  bench::ClaimDescriptors();
  sigset_t termination;
  sigemptyset(&termination);
  sigaddset(&termination, SIGTERM);
  sigprocmask(SIG_BLOCK, &termination, nullptr);

  sd_event* event = nullptr;
  Require(sd_event_new(&event), "event loop");
  std::vector<sd_bus*> buses;
  for (size_t n = 0; n < concurrency; n += kCallsPerConnection) {
    sd_bus* bus = nullptr;
    const char* unique_name = nullptr;
    Require(sd_bus_open_system(&bus), "bus");
    Require(sd_bus_get_unique_name(bus, &unique_name), "welcome");
    Require(sd_bus_attach_event(bus, event, 0), "attach");
    buses.push_back(bus);
  }

  const clockid_t clock = GetProcessorClock(buses[0], argv[1]);
  Work work{argv[1], argv[2], bench::ParseNumber(argv[3]),
            bench::ClosedLoop(bench::ParseNumber(argv[5]),
                              bench::ParseNumber(argv[6]),
                              [clock] { return bench::ReadClock(clock); }),
            event};
  Require(sd_event_add_signal(event, nullptr, SIGTERM, OnTermination, &work),
          "signal");
  std::vector<std::unique_ptr<Caller>> callers;
  for (size_t n = 0; n < concurrency; ++n) {
    callers.push_back(std::make_unique<Caller>(&work, buses[n % buses.size()]));
  }
  work.loop.Start();
  Require(sd_event_loop(event), "loop");
  work.loop.Print();
  return 0;
}
