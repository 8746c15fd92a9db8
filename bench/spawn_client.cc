// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

// spawn_client URL SIZE CONCURRENCY COUNT
//
// Spawns curl for each of COUNT requests to URL, CONCURRENCY of them at a time,
// and prints how long they took and what processor time each used. Each must
// print SIZE bytes.

#include <errno.h>
#include <fcntl.h>
#include <spawn.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <memory>
#include <vector>

#include "bench/closed_loop.h"

namespace {

using bench::Fail;

// The processor time of those that have ended.
double ChildrenUs() {
  rusage usage{};
  getrusage(RUSAGE_CHILDREN, &usage);
  const auto to_us = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) * 1e6 +
           static_cast<double>(time.tv_usec);
  };
  return to_us(usage.ru_utime) + to_us(usage.ru_stime);
}

struct Work {
  char* url;
  size_t size;
  bench::ClosedLoop loop;
  sd_event* event = nullptr;
};

// Spawns one process after the other.
class Client {
 public:
  explicit Client(Work* work)
      : work_(work), number_(work->loop.Add([this] { Send(); })) {}

 private:
  void Send() {
    sent_ = bench::Now();
    size_ = 0;
    int pipe[2];
    if (pipe2(pipe, O_CLOEXEC) != 0) Fail("pipe", strerror(errno));
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipe[1], STDOUT_FILENO);
    char program[] = "curl", silent[] = "-sS", fail[] = "--fail-with-body",
         header[] = "-H", token[] = "Authorization: Bearer bench-access-token";
    char* const arguments[] = {program, silent,     fail,   header,
                               token,   work_->url, nullptr};
    const int result = posix_spawn(&pid_, "/usr/bin/curl", &actions, nullptr,
                                   arguments, environ);
    if (result != 0) Fail("curl", strerror(result));
    posix_spawn_file_actions_destroy(&actions);
    close(pipe[1]);
    sd_event_add_io(work_->event, &source_, pipe[0], EPOLLIN, OnOutput, this);
    sd_event_source_set_io_fd_own(source_, 1);
  }

  static int OnOutput(sd_event_source*, int fd, uint32_t, void* client) {
    auto* self = static_cast<Client*>(client);
    static char part[1 << 16];
    const ssize_t size = read(fd, part, sizeof(part));
    if (size > 0) {
      self->size_ += static_cast<size_t>(size);
      return 0;
    }
    self->source_ = sd_event_source_disable_unref(self->source_);
    int status = 0;
    waitpid(self->pid_, &status, 0);
    if (status != 0) Fail("curl", "ended with an error");
    if (self->size_ != self->work_->size) Fail("curl", "wrong length");
    if (!self->work_->loop.Answered(self->number_, self->sent_)) {
      sd_event_exit(self->work_->event, 0);
    }
    return 0;
  }

  Work* work_;
  size_t number_;
  pid_t pid_ = 0;
  sd_event_source* source_ = nullptr;
  size_t size_ = 0;
  double sent_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) Fail("usage", "spawn_client URL SIZE CONCURRENCY COUNT");
  Work work{argv[1], bench::ParseNumber(argv[2]),
            bench::ClosedLoop(bench::ParseNumber(argv[4]), 0, ChildrenUs)};
  sd_event_new(&work.event);
  std::vector<std::unique_ptr<Client>> clients;
  for (size_t n = bench::ParseNumber(argv[3]); n > 0; --n) {
    clients.push_back(std::make_unique<Client>(&work));
  }
  work.loop.Start();
  sd_event_loop(work.event);
  work.loop.Print();
  return 0;
}
