// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef BASE_EVENT_LOOP_H_
#define BASE_EVENT_LOOP_H_

#include <cstdint>
#include <deque>
#include <memory>

#include "base/callback.h"
#include "base/time.h"

struct sd_event;
struct sd_event_source;

namespace base {

// Owns one source of events. Destroying it ends the events, also from within
// its own callback.
class EventSource {
 public:
  virtual ~EventSource() = default;
};

// The event loop of the process; there is at most one at a time. It sleeps
// until something happens and never polls. Everything that it hands out must be
// destroyed before it.
class EventLoop {
 public:
  static constexpr uint32_t kReadable = 1;
  static constexpr uint32_t kWritable = 2;

  EventLoop();
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // The loop of the process. Requires: there is one.
  static EventLoop* Current();

  // Serves events until Quit() and returns its `exit_code`.
  int Run();

  // Makes Run() return after the callback that is running now; called before
  // Run(), it makes Run() return at once. The first call decides the code.
  void Quit(int exit_code);

  // Runs `task` once, soon, from Run(). Tasks run in the order of posting. One
  // that has not run when the loop is destroyed never does.
  void PostTask(Callback<void()> task);

  // Runs `callback` whenever `fd` is ready for one of `events` (a union of
  // kReadable and kWritable), with those that it is ready for. An error or a
  // hang-up counts as ready for all. Null if the descriptor cannot be watched.
  // `fd` is borrowed and must stay open while it is watched.
  std::unique_ptr<EventSource> WatchFd(int fd, uint32_t events,
                                       Callback<void(uint32_t)> callback);

  // Runs `callback` on the loop for each `signal_number` that the process gets.
  // The signal is blocked from then on. Null on failure.
  std::unique_ptr<EventSource> WatchSignal(int signal_number,
                                           Callback<void()> callback);

  // For the bus library, which shares the loop. Not owned by the caller.
  sd_event* handle() const { return event_; }

 private:
  static int OnTasksDue(sd_event_source* source, void* self);

  sd_event* event_ = nullptr;
  sd_event_source* task_source_ = nullptr;
  std::deque<Callback<void()>> tasks_;
  bool quit_ = false;
  int exit_code_ = 0;
};

// Runs a callback once, some time after Start().
class Timer {
 public:
  // `loop` is borrowed and must outlive the timer.
  Timer(EventLoop* loop, Callback<void()> callback);
  // The callback does not run any more.
  ~Timer();
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  // Runs the callback from the loop once `delay` has passed since this call,
  // never earlier and never from within Start(). A start before that replaces
  // the earlier one.
  void Start(TimeDelta delay);
  void Stop();

 private:
  static int OnDue(sd_event_source* source, uint64_t now_us, void* self);

  sd_event_source* source_ = nullptr;
  Callback<void()> callback_;
};

}  // namespace base

#endif  // BASE_EVENT_LOOP_H_
