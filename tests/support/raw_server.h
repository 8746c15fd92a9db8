// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef TESTS_SUPPORT_RAW_SERVER_H_
#define TESTS_SUPPORT_RAW_SERVER_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "base/event_loop.h"

namespace test {

// Listens on the loopback network, on the event loop of the test, keeps what it
// gets byte for byte and answers what the test has put down.
class RawServer {
 public:
  // `loop` is borrowed and must outlive this.
  explicit RawServer(base::EventLoop* loop);
  ~RawServer();
  RawServer(const RawServer&) = delete;
  RawServer& operator=(const RawServer&) = delete;

  // "http://127.0.0.1:PORT".
  const std::string& url() const { return url_; }
  // "127.0.0.1:PORT".
  std::string authority() const { return url_.substr(7); }

  // What each connection gets once a whole request has come, and whether the
  // connection is closed then. Nothing, by default, and it is not. An empty
  // answer with `close_after` closes it without a word.
  void SetAnswer(std::string answer, bool close_after) {
    answer_ = std::move(answer);
    close_after_ = close_after;
  }

  // All that has come, on whatever connection.
  const std::string& received() const { return received_; }
  int connections() const { return connections_; }
  size_t open_connections() const { return open_.size(); }

 private:
  struct Connection {
    std::string pending;
    std::string unsent;
    // Waits for the peer, or to send on.
    std::unique_ptr<base::EventSource> source;
  };

  void OnConnection();
  void WaitForData(int fd);
  void OnData(int fd);
  void Send(int fd);
  void Close(int fd);

  base::EventLoop* loop_;  // Not owned; outlives this.
  int listener_ = -1;
  std::string url_;
  std::string answer_;
  bool close_after_ = false;
  std::string received_;
  int connections_ = 0;
  std::unique_ptr<base::EventSource> source_;
  std::map<int, Connection> open_;
};

}  // namespace test

#endif  // TESTS_SUPPORT_RAW_SERVER_H_
