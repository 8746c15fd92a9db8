// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "base/event_loop.h"

#include <signal.h>
#include <string.h>
#include <sys/epoll.h>
#include <systemd/sd-event.h>
#include <time.h>

#include <algorithm>
#include <utility>

namespace base {
namespace {

// How much later than asked a timer may run, so that the system can let
// wake-ups fall together. 0 would ask for the default of 250 ms.
constexpr uint64_t kTimerAccuracyUs = 1000;

EventLoop* g_current = nullptr;

class FdSource final : public EventSource {
 public:
  explicit FdSource(Callback<void(uint32_t)> callback)
      : callback_(std::move(callback)) {}
  ~FdSource() override { sd_event_source_disable_unref(source_); }

  bool Start(sd_event* event, int fd, uint32_t events) {
    uint32_t epoll_events = 0;
    if (events & EventLoop::kReadable) epoll_events |= EPOLLIN;
    if (events & EventLoop::kWritable) epoll_events |= EPOLLOUT;
    return sd_event_add_io(event, &source_, fd, epoll_events, OnReady, this) >=
           0;
  }

 private:
  static int OnReady(sd_event_source*, int, uint32_t revents, void* self) {
    uint32_t events = 0;
    if (revents & EPOLLIN) events |= EventLoop::kReadable;
    if (revents & EPOLLOUT) events |= EventLoop::kWritable;
    if (revents & (EPOLLERR | EPOLLHUP)) {
      events |= EventLoop::kReadable | EventLoop::kWritable;
    }
    static_cast<FdSource*>(self)->callback_.Run(events);
    return 0;
  }

  sd_event_source* source_ = nullptr;
  Callback<void(uint32_t)> callback_;
};

class SignalSource final : public EventSource {
 public:
  explicit SignalSource(Callback<void()> callback)
      : callback_(std::move(callback)) {}
  ~SignalSource() override { sd_event_source_disable_unref(source_); }

  bool Start(sd_event* event, int signal_number) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, signal_number);
    if (sigprocmask(SIG_BLOCK, &signals, nullptr) != 0) return false;
    return sd_event_add_signal(event, &source_, signal_number, OnSignal,
                               this) >= 0;
  }

 private:
  static int OnSignal(sd_event_source*, const signalfd_siginfo*, void* self) {
    static_cast<SignalSource*>(self)->callback_.Run();
    return 0;
  }

  sd_event_source* source_ = nullptr;
  Callback<void()> callback_;
};

// The real clock, also where a test has replaced that of the rest.
uint64_t GetMonotonicUs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000 +
         static_cast<uint64_t>(now.tv_nsec) / 1'000;
}

}  // namespace

EventLoop::EventLoop() {
  CHECK(g_current == nullptr) << "The process has an event loop already";
  int result = sd_event_new(&event_);
  CHECK(result >= 0) << "Cannot create the event loop: " << strerror(-result);
  result = sd_event_add_defer(event_, &task_source_, OnTasksDue, this);
  CHECK(result >= 0) << "Cannot set up the task queue: " << strerror(-result);
  sd_event_source_set_enabled(task_source_, SD_EVENT_OFF);
  g_current = this;
}

EventLoop::~EventLoop() {
  g_current = nullptr;
  tasks_.clear();
  sd_event_source_disable_unref(task_source_);
  sd_event_unref(event_);
}

EventLoop* EventLoop::Current() {
  CHECK(g_current != nullptr) << "The process has no event loop";
  return g_current;
}

int EventLoop::Run() {
  while (!quit_) {
    const int result = sd_event_run(event_, UINT64_MAX);
    CHECK(result >= 0) << "The event loop failed: " << strerror(-result);
  }
  quit_ = false;
  return exit_code_;
}

void EventLoop::Quit(int exit_code) {
  if (quit_) return;
  quit_ = true;
  exit_code_ = exit_code;
}

void EventLoop::PostTask(Callback<void()> task) {
  tasks_.push_back(std::move(task));
  sd_event_source_set_enabled(task_source_, SD_EVENT_ON);
}

int EventLoop::OnTasksDue(sd_event_source* source, void* self) {
  auto* loop = static_cast<EventLoop*>(self);
  // One task a turn, so that tasks that post tasks do not shut out the rest.
  const Callback<void()> task = std::move(loop->tasks_.front());
  loop->tasks_.pop_front();
  if (loop->tasks_.empty()) sd_event_source_set_enabled(source, SD_EVENT_OFF);
  task.Run();
  return 0;
}

std::unique_ptr<EventSource> EventLoop::WatchFd(
    int fd, uint32_t events, Callback<void(uint32_t)> callback) {
  auto source = std::make_unique<FdSource>(std::move(callback));
  if (!source->Start(event_, fd, events)) return nullptr;
  return source;
}

std::unique_ptr<EventSource> EventLoop::WatchSignal(int signal_number,
                                                    Callback<void()> callback) {
  auto source = std::make_unique<SignalSource>(std::move(callback));
  if (!source->Start(event_, signal_number)) return nullptr;
  return source;
}

Timer::Timer(EventLoop* loop, Callback<void()> callback)
    : callback_(std::move(callback)) {
  const int result =
      sd_event_add_time(loop->handle(), &source_, CLOCK_MONOTONIC, UINT64_MAX,
                        kTimerAccuracyUs, OnDue, this);
  CHECK(result >= 0) << "Cannot create a timer: " << strerror(-result);
  Stop();
}

Timer::~Timer() { sd_event_source_disable_unref(source_); }

void Timer::Start(TimeDelta delay) {
  const auto delay_us =
      static_cast<uint64_t>(std::max<int64_t>(delay.count(), 0));
  // Not relative to what the loop takes for now, which is when this turn began:
  // after much work in it the timer would run out early.
  sd_event_source_set_time(source_, GetMonotonicUs() + delay_us);
  sd_event_source_set_enabled(source_, SD_EVENT_ONESHOT);
}

void Timer::Stop() { sd_event_source_set_enabled(source_, SD_EVENT_OFF); }

int Timer::OnDue(sd_event_source*, uint64_t, void* self) {
  static_cast<Timer*>(self)->callback_.Run();
  return 0;
}

}  // namespace base
