// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef TESTS_SUPPORT_NOTIFY_SOCKET_H_
#define TESTS_SUPPORT_NOTIFY_SOCKET_H_

#include <string>
#include <vector>

#include "tests/support/temp_directory.h"

namespace test {

// The service manager's end of sd_notify(3), for as long as it lives.
class NotifySocket {
 public:
  NotifySocket();
  ~NotifySocket();
  NotifySocket(const NotifySocket&) = delete;
  NotifySocket& operator=(const NotifySocket&) = delete;

  // What has been told since the last call.
  std::vector<std::string> TakeNotes();

  // Readable when there are notes.
  int fd() const { return fd_; }

 private:
  TempDirectory folder_;
  int fd_;
};

}  // namespace test

#endif  // TESTS_SUPPORT_NOTIFY_SOCKET_H_
