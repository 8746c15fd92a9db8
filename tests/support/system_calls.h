// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef TESTS_SUPPORT_SYSTEM_CALLS_H_
#define TESTS_SUPPORT_SYSTEM_CALLS_H_

#include <sys/types.h>

#include <functional>

namespace test {

// What the program's own code gets when it calls the system. An empty one is
// the real call.
struct SystemCalls {
  std::function<ssize_t(int fd, const void* data, size_t length)> write = {};
  std::function<ssize_t(int fd, void* data, size_t length)> read = {};
  std::function<int(int fd)> fsync = {};
  std::function<int(const char* from, const char* to)> rename = {};
  // Sees memory just before the real call gives it back.
  std::function<void(const void* memory)> before_free = {};
};

// Puts the calls in place while it lives; at most one at a time. Works in
// programs that link the library system_calls.
class ScopedSystemCalls {
 public:
  explicit ScopedSystemCalls(SystemCalls calls);
  ~ScopedSystemCalls();
  ScopedSystemCalls(const ScopedSystemCalls&) = delete;
  ScopedSystemCalls& operator=(const ScopedSystemCalls&) = delete;
};

// The real call, for one that goes wrong only later.
ssize_t RealWrite(int fd, const void* data, size_t length);
ssize_t RealRead(int fd, void* data, size_t length);

}  // namespace test

#endif  // TESTS_SUPPORT_SYSTEM_CALLS_H_
