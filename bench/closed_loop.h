// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef BENCH_CLOSED_LOOP_H_
#define BENCH_CLOSED_LOOP_H_

#include <time.h>

#include <cstddef>
#include <functional>
#include <utility>
#include <vector>

namespace bench {

// Microseconds on a clock.
double ReadClock(clockid_t clock);
inline double Now() { return ReadClock(CLOCK_MONOTONIC); }

// Has callers send requests, each the next one as soon as the last is answered,
// and takes the time.
class ClosedLoop {
 public:
  // `count` requests in all, or with 0 as many as there are until Stop(). They
  // follow `rounds` in which every caller sends one that is not measured: what
  // a connection costs is in those. `processor_us` tells the processor time
  // that whoever is measured has used so far.
  ClosedLoop(size_t count, size_t rounds, std::function<double()> processor_us)
      : count_(count),
        rounds_(rounds),
        processor_us_(std::move(processor_us)) {}

  // Adds a caller, which sends one request when `send` is run. Returns its
  // number.
  size_t Add(std::function<void()> send);
  void Start() { StartRound(); }
  // The request that `caller` sent at `sent` is answered: sends its next one.
  // False once all are answered.
  bool Answered(size_t caller, double sent);
  // No more are sent.
  void Stop() { count_ = sent_; }

  // Writes the result to standard output, as JSON: times in microseconds, and
  // the requests a second.
  void Print();

 private:
  void StartRound();
  bool Send(size_t caller);

  size_t count_;
  size_t rounds_;
  std::function<double()> processor_us_;
  std::vector<std::function<void()>> callers_;
  size_t missing_ = 0;  // answers of the round
  size_t sent_ = 0;
  double begin_ = 0;
  double processor_begin_ = 0;
  std::vector<double> latencies_;
};

// A number from the command line; ends the program if it is none.
size_t ParseNumber(const char* text);

// Says why on standard error and ends the program.
[[noreturn]] void Fail(const char* what, const char* why);

// Lets this process have as many open files as it may.
void ClaimDescriptors();

}  // namespace bench

#endif  // BENCH_CLOSED_LOOP_H_
