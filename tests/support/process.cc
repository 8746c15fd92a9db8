// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "tests/support/process.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

#include "base/logging.h"
#include "tests/support/test_loop.h"

extern char** environ;

namespace test {

Process::Process(const std::vector<std::string>& arguments, bool with_errors) {
  int input[2], output[2];
  CHECK(pipe2(input, O_CLOEXEC) == 0 && pipe2(output, O_CLOEXEC) == 0)
      << "Cannot make a pipe: " << strerror(errno);
  // The program also goes if the test ends without its destructors.
  std::vector<std::string> command = {"setpriv", "--pdeathsig", "KILL", "--"};
  command.insert(command.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& word : command) argv.push_back(word.data());
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
  if (with_errors) {
    posix_spawn_file_actions_adddup2(&actions, output[1], STDERR_FILENO);
  }
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t no_signals;
  sigemptyset(&no_signals);
  posix_spawnattr_setsigmask(&attributes, &no_signals);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  const int result =
      posix_spawnp(&pid_, argv[0], &actions, &attributes, argv.data(), environ);
  CHECK(result == 0) << "Cannot run " << argv[0] << ": " << strerror(result);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  close(input[0]);
  close(output[1]);
  input_ = input[1];
  output_fd_ = output[0];
  fcntl(output_fd_, F_SETFL, O_NONBLOCK);
}

Process::~Process() {
  source_.reset();
  close(input_);
  close(output_fd_);
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

void Process::Signal(int number) { kill(pid_, number); }

void Process::Write(const std::string& text) {
  const ssize_t written = write(input_, text.data(), text.size());
  CHECK(written == static_cast<ssize_t>(text.size()))
      << "The program does not listen";
}

std::string Process::ReadLine(const std::string& awaited) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point deadline = Clock::now() + kDeadline;
  std::string line;
  while (!TakeLine(&line)) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - Clock::now());
    pollfd ready{output_fd_, POLLIN, 0};
    if (left.count() <= 0 ||
        poll(&ready, 1, static_cast<int>(left.count())) < 0 || !Collect()) {
      ADD_FAILURE() << "Waited in vain for " << awaited;
      return "";
    }
  }
  return line;
}

bool Process::Collect() {
  char buffer[4096];
  for (;;) {
    const ssize_t count = read(output_fd_, buffer, sizeof(buffer));
    if (count < 0) return true;
    if (count == 0) {
      has_ended_ = true;
      source_.reset();
      return false;
    }
    output_.append(buffer, static_cast<size_t>(count));
  }
}

void Process::Watch(base::EventLoop* loop) {
  source_ = loop->WatchFd(output_fd_, base::EventLoop::kReadable,
                          [this](uint32_t) { Collect(); });
}

bool Process::TakeLine(std::string* line) {
  const size_t end = output_.find('\n');
  if (end == std::string::npos) return false;
  *line = output_.substr(0, end);
  output_.erase(0, end + 1);
  return true;
}

}  // namespace test
