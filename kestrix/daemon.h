// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef KESTRIX_DAEMON_H_
#define KESTRIX_DAEMON_H_

#include <map>
#include <memory>

#include "base/callback.h"
#include "base/event_loop.h"

namespace kestrix {

// A process with one event loop that serves until a signal ends it.
class Daemon {
 public:
  // Runs on the loop for each signal. True: the handler is done with and is
  // unregistered.
  using SignalHandler = base::Callback<bool(int signal_number)>;

  // From here on the process leaves no core dump, and SIGPIPE is ignored.
  Daemon();
  virtual ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // Replaces an earlier handler of the same signal.
  virtual void RegisterHandler(int signal_number, SignalHandler handler);
  virtual void UnregisterHandler(int signal_number);

  // Initializes, serves the event loop until it is asked to quit, shuts down,
  // and returns the exit code (sysexits).
  virtual int Run();

 protected:
  // Called by Run() first. Anything but EX_OK ends Run() with that code, before
  // the loop has run. SIGTERM and SIGINT then end the loop, SIGHUP calls
  // OnRestart().
  virtual int OnInit();

  // Called by Run() after the loop has ended. May change the exit code.
  virtual void OnShutdown(int* return_code);

  // Called on SIGHUP. True: the daemon goes on. This one ends the loop as a
  // termination signal does: whoever supervises the process starts it again,
  // with the configuration read afresh.
  virtual bool OnRestart();

  // Ends the loop; Run() returns `exit_code`.
  void QuitWithExitCode(int exit_code) { loop_.Quit(exit_code); }

  base::EventLoop* event_loop() { return &loop_; }

 private:
  void OnSignal(int signal_number);
  bool OnTermination(int signal_number);
  bool OnHangup(int signal_number);

  struct Registration {
    SignalHandler handler;
    std::unique_ptr<base::EventSource> source;
  };

  base::EventLoop loop_;
  std::map<int, Registration> handlers_;
};

}  // namespace kestrix

#endif  // KESTRIX_DAEMON_H_
