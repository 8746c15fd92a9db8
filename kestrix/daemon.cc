// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/daemon.h"

#include <malloc.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sysexits.h>
#include <systemd/sd-daemon.h>

#include <utility>

#include "base/logging.h"

namespace kestrix {
namespace {

// The memory holds the owner's credential. The limit alone would not do: a
// kernel that pipes core dumps to a program does not ask for it. Neither can
// other processes of the same user then look into the memory.
void ForbidCoreDumps() {
  const rlimit none{};
  const bool limited = setrlimit(RLIMIT_CORE, &none) == 0;
  const bool hidden = prctl(PR_SET_DUMPABLE, 0) == 0;
  if (!limited || !hidden) LOG(ERROR) << "Cannot forbid core dumps";
}

// One large request or reply must not leave its mark on the memory at rest: the
// allocator would by itself learn to keep blocks of such a size.
void GiveLargeBlocksBack() {
#ifdef __GLIBC__
  constexpr int kLarge = 1 << 20;
  mallopt(M_MMAP_THRESHOLD, kLarge);
  mallopt(M_TRIM_THRESHOLD, kLarge);
#endif
}

}  // namespace

Daemon::Daemon() {
  ForbidCoreDumps();
  GiveLargeBlocksBack();
  // A peer that closes its connection must not end the process.
  signal(SIGPIPE, SIG_IGN);
}
Daemon::~Daemon() = default;

void Daemon::RegisterHandler(int signal_number, SignalHandler handler) {
  UnregisterHandler(signal_number);
  Registration& registration = handlers_[signal_number];
  registration.handler = std::move(handler);
  registration.source = loop_.WatchSignal(
      signal_number,
      base::Bind(&Daemon::OnSignal, base::Unretained(this), signal_number));
  CHECK(registration.source != nullptr)
      << "Cannot watch the signal " << signal_number;
}

void Daemon::UnregisterHandler(int signal_number) {
  handlers_.erase(signal_number);
}

void Daemon::OnSignal(int signal_number) {
  if (handlers_[signal_number].handler.Run(signal_number)) {
    UnregisterHandler(signal_number);
  }
}

int Daemon::Run() {
  int return_code = OnInit();
  if (return_code != EX_OK) return return_code;
  return_code = loop_.Run();
  // Nothing happens if the init system did not ask to be told.
  sd_notify(/*unset_environment=*/0, "STOPPING=1");
  OnShutdown(&return_code);
  return return_code;
}

int Daemon::OnInit() {
  for (const int signal_number : {SIGTERM, SIGINT}) {
    RegisterHandler(signal_number,
                    base::Bind(&Daemon::OnTermination, base::Unretained(this)));
  }
  RegisterHandler(SIGHUP,
                  base::Bind(&Daemon::OnHangup, base::Unretained(this)));
  return EX_OK;
}

void Daemon::OnShutdown(int*) {}

bool Daemon::OnRestart() {
  QuitWithExitCode(EX_OK);
  return false;
}

bool Daemon::OnTermination(int) {
  QuitWithExitCode(EX_OK);
  return true;
}

bool Daemon::OnHangup(int) { return !OnRestart(); }

}  // namespace kestrix
