// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "tests/support/notify_socket.h"

#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "base/logging.h"

namespace test {

NotifySocket::NotifySocket()
    : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
  const std::string path = folder_.Path("notify");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  CHECK(bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0)
      << "Cannot bind " << path;
  setenv("NOTIFY_SOCKET", path.c_str(), 1);
}

NotifySocket::~NotifySocket() {
  unsetenv("NOTIFY_SOCKET");
  close(fd_);
}

std::vector<std::string> NotifySocket::TakeNotes() {
  std::vector<std::string> notes;
  char buffer[256];
  ssize_t count = 0;
  while ((count = recv(fd_, buffer, sizeof(buffer), 0)) > 0) {
    notes.emplace_back(buffer, static_cast<size_t>(count));
  }
  return notes;
}

}  // namespace test
