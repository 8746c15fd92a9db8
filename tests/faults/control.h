// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

// What a test and a fault injector share: a file that both map. The test fills
// in the order and arms it; the injector answers. See injection.py.

#ifndef TESTS_FAULTS_CONTROL_H_
#define TESTS_FAULTS_CONTROL_H_

#include <fcntl.h>
#include <stdint.h>
#include <sys/mman.h>
#include <unistd.h>

namespace faults {

enum Mode : int64_t {
  kCount = 0,    // Nothing goes wrong.
  kKill = 1,     // SIGKILL in place of the call.
  kFail = 2,     // The call does nothing; it returns `value`.
  kShorten = 3,  // The call's third argument, a length, becomes `value`.
  kNoBreak = 4   // brk(2) tells of a failure by the old break.
};

struct Record {
  int64_t number;  // Of the system call, or of the function.
  int64_t arguments[4];
  int64_t result;
};

constexpr int64_t kRecords = 1 << 16;

struct Control {
  // The order.
  int64_t armed;  // Calls count from here on.
  int64_t mode;
  int64_t number;      // Which call goes wrong; -1 for any.
  int64_t occurrence;  // The how-manieth of them, from 1.
  int64_t value;
  int64_t second;  // Only calls with that second argument; -1 for any.
  int64_t log;     // 1: only calls on descriptor 2; 0: only others; -1: any.
  // The answer.
  int64_t pid;
  int64_t seen;     // How many such calls there were.
  int64_t hit;      // Whether the order was carried out.
  int64_t records;  // How many of these are filled in.
  Record record[kRecords];
};

// Null if there is no such file.
inline Control* MapControl(const char* path) {
  const int fd = open(path, O_RDWR | O_CLOEXEC);
  if (fd < 0) return nullptr;
  void* memory =
      mmap(nullptr, sizeof(Control), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  return memory == MAP_FAILED ? nullptr : static_cast<Control*>(memory);
}

}  // namespace faults

#endif  // TESTS_FAULTS_CONTROL_H_
