// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "tests/support/raw_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/logging.h"

namespace test {
namespace {

// The length of the request that `text` starts with, 0 if it is incomplete.
size_t RequestLength(const std::string& text) {
  const size_t header_end = text.find("\r\n\r\n");
  if (header_end == std::string::npos) return 0;
  size_t length = header_end + 4;
  const size_t field = text.find("Content-Length: ");
  if (field < header_end) {
    length += strtoul(text.c_str() + field + 16, nullptr, 10);
  }
  return text.size() < length ? 0 : length;
}

}  // namespace

RawServer::RawServer(base::EventLoop* loop) : loop_(loop) {
  listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  CHECK(bind(listener_, generic, length) == 0 &&
        listen(listener_, SOMAXCONN) == 0 &&
        getsockname(listener_, generic, &length) == 0)
      << "Cannot listen on the loopback network";
  url_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  source_ = loop_->WatchFd(listener_, base::EventLoop::kReadable,
                           [this](uint32_t) { OnConnection(); });
}

RawServer::~RawServer() {
  source_.reset();
  while (!open_.empty()) Close(open_.begin()->first);
  close(listener_);
}

void RawServer::OnConnection() {
  const int fd =
      accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (fd < 0) return;
  ++connections_;
  WaitForData(fd);
}

// The loop watches a descriptor once.
void RawServer::WaitForData(int fd) {
  Connection& connection = open_[fd];
  connection.source.reset();
  connection.source = loop_->WatchFd(fd, base::EventLoop::kReadable,
                                     [this, fd](uint32_t) { OnData(fd); });
}

void RawServer::OnData(int fd) {
  Connection& connection = open_[fd];
  char buffer[65536];
  const ssize_t count = recv(fd, buffer, sizeof(buffer), 0);
  if (count <= 0) {
    Close(fd);
    return;
  }
  const std::string data(buffer, static_cast<size_t>(count));
  received_ += data;
  connection.pending += data;
  const size_t length = RequestLength(connection.pending);
  if (length == 0 || (answer_.empty() && !close_after_)) return;
  connection.pending.erase(0, length);
  connection.unsent += answer_;
  connection.source.reset();
  connection.source = loop_->WatchFd(fd, base::EventLoop::kWritable,
                                     [this, fd](uint32_t) { Send(fd); });
}

void RawServer::Send(int fd) {
  Connection& connection = open_[fd];
  const ssize_t count = send(fd, connection.unsent.data(),
                             connection.unsent.size(), MSG_NOSIGNAL);
  if (count < 0) {
    Close(fd);
    return;
  }
  connection.unsent.erase(0, static_cast<size_t>(count));
  if (!connection.unsent.empty()) return;
  if (close_after_) {
    Close(fd);
  } else {
    WaitForData(fd);
  }
}

void RawServer::Close(int fd) {
  open_.erase(fd);
  close(fd);
}

}  // namespace test
