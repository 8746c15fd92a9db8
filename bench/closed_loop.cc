// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "bench/closed_loop.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <time.h>

#include <algorithm>

namespace bench {

double ReadClock(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) * 1e6 +
         static_cast<double>(now.tv_nsec) / 1e3;
}

size_t ClosedLoop::Add(std::function<void()> send) {
  callers_.push_back(std::move(send));
  return callers_.size() - 1;
}

void ClosedLoop::StartRound() {
  if (rounds_ > 0) {
    missing_ = callers_.size();
    for (const auto& send : callers_) send();
    return;
  }
  begin_ = Now();
  processor_begin_ = processor_us_();
  for (size_t caller = 0; caller < callers_.size(); ++caller) Send(caller);
}

bool ClosedLoop::Send(size_t caller) {
  if (count_ > 0 && sent_ >= count_) return false;
  ++sent_;
  callers_[caller]();
  return true;
}

bool ClosedLoop::Answered(size_t caller, double sent) {
  if (rounds_ > 0) {
    if (--missing_ > 0) return true;
    --rounds_;
    StartRound();
    return true;
  }
  latencies_.push_back(Now() - sent);
  return Send(caller) || latencies_.size() < count_;
}

void ClosedLoop::Print() {
  const double processor = processor_us_() - processor_begin_;
  const double elapsed = Now() - begin_;
  std::sort(latencies_.begin(), latencies_.end());
  const size_t size = latencies_.size();
  if (size == 0) Fail("closed loop", "no request was answered");
  const auto percentile = [&](size_t of_a_hundred) {
    return latencies_[std::min(size * of_a_hundred / 100, size - 1)];
  };
  printf(
      "{\"count\": %zu, \"elapsed_us\": %.0f, \"throughput\": %.1f, "
      "\"p50\": %.1f, \"p90\": %.1f, \"p99\": %.1f, \"max\": %.1f, "
      "\"processor_us\": %.2f}\n",
      size, elapsed, static_cast<double>(size) * 1e6 / elapsed, percentile(50),
      percentile(90), percentile(99), latencies_.back(),
      processor / static_cast<double>(size));
}

size_t ParseNumber(const char* text) {
  char* end = nullptr;
  const unsigned long number = strtoul(text, &end, 10);
  if (end == text || *end != '\0') Fail("not a number", text);
  return number;
}

void Fail(const char* what, const char* why) {
  fprintf(stderr, "%s: %s\n", what, why);
  exit(1);
}

void ClaimDescriptors() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace bench
