// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef TESTS_SUPPORT_PROCESS_H_
#define TESTS_SUPPORT_PROCESS_H_

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "base/event_loop.h"

namespace test {

// A program that runs beside the test. It is killed at the end.
class Process {
 public:
  // Starts `arguments[0]`, looked for in the PATH, with what it writes to
  // standard output, and to standard error if `with_errors`, kept here. Its
  // signal mask is empty. If there is no such program, its output just ends.
  explicit Process(const std::vector<std::string>& arguments,
                   bool with_errors = false);
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  // Sends it a signal.
  void Signal(int number);

  // Writes to its standard input.
  void Write(const std::string& text);

  // Waits for one more line and takes it away, without its end. Does not serve
  // the event loop. The test fails, and the line is empty, if none comes.
  std::string ReadLine(const std::string& awaited);

  // Collects what has been written, without waiting. False at the end.
  bool Collect();

  // Collects from the event loop from now on.
  void Watch(base::EventLoop* loop);
  // Whether the output has ended, which it does with the program.
  bool has_ended() const { return has_ended_; }
  // What has been collected and not taken.
  const std::string& output() const { return output_; }
  // Takes the next complete line, if there is one.
  bool TakeLine(std::string* line);

 private:
  pid_t pid_ = -1;
  int input_ = -1;
  int output_fd_ = -1;
  bool has_ended_ = false;
  std::string output_;
  std::unique_ptr<base::EventSource> source_;
};

}  // namespace test

#endif  // TESTS_SUPPORT_PROCESS_H_
