// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "tests/support/system_calls.h"

#include <utility>

#include "base/logging.h"

namespace {

test::SystemCalls g_calls;
bool g_is_scoped = false;

}  // namespace

// The linker turns each call of f() into one of __wrap_f(), and __real_f() is
// the system's (see the link options of this library).
extern "C" {

ssize_t __real_write(int fd, const void* data, size_t length);
ssize_t __real_read(int fd, void* data, size_t length);
int __real_fsync(int fd);
int __real_rename(const char* from, const char* to);
void __real_free(void* memory);

ssize_t __wrap_write(int fd, const void* data, size_t length) {
  return g_calls.write ? g_calls.write(fd, data, length)
                       : __real_write(fd, data, length);
}

ssize_t __wrap_read(int fd, void* data, size_t length) {
  return g_calls.read ? g_calls.read(fd, data, length)
                      : __real_read(fd, data, length);
}

int __wrap_fsync(int fd) {
  return g_calls.fsync ? g_calls.fsync(fd) : __real_fsync(fd);
}

int __wrap_rename(const char* from, const char* to) {
  return g_calls.rename ? g_calls.rename(from, to) : __real_rename(from, to);
}

void __wrap_free(void* memory) {
  if (g_calls.before_free) g_calls.before_free(memory);
  __real_free(memory);
}

}  // extern "C"

namespace test {

ScopedSystemCalls::ScopedSystemCalls(SystemCalls calls) {
  CHECK(!g_is_scoped) << "System calls are replaced already";
  g_is_scoped = true;
  g_calls = std::move(calls);
}

ScopedSystemCalls::~ScopedSystemCalls() {
  g_calls = {};
  g_is_scoped = false;
}

ssize_t RealWrite(int fd, const void* data, size_t length) {
  return __real_write(fd, data, length);
}

ssize_t RealRead(int fd, void* data, size_t length) {
  return __real_read(fd, data, length);
}

}  // namespace test
