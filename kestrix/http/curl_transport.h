// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef KESTRIX_HTTP_CURL_TRANSPORT_H_
#define KESTRIX_HTTP_CURL_TRANSPORT_H_

#include <cstdint>
#include <map>
#include <memory>

#include "base/event_loop.h"
#include "base/weak_ptr.h"
#include "kestrix/http/transport.h"

namespace kestrix::http {

// The transport on libcurl's multi-socket interface. The library tells which
// sockets and which time-out it waits for; the event loop watches them.
class CurlTransport final : public Transport,
                            public std::enable_shared_from_this<CurlTransport> {
 public:
  // `loop` is borrowed and must outlive the transport. Requires: owned by a
  // shared pointer.
  explicit CurlTransport(base::EventLoop* loop);
  ~CurlTransport() override;
  CurlTransport(const CurlTransport&) = delete;
  CurlTransport& operator=(const CurlTransport&) = delete;

  RequestId StartAsyncTransfer(Request request,
                               SuccessCallback success_callback,
                               ErrorCallback error_callback) override;
  void SetDefaultTimeout(base::TimeDelta timeout) override;

 private:
  class Library;
  class Transfer;
  struct MultiHandle;

  // Called by the library; `self` is the transport.
  static int OnSocketInterest(void* easy, int fd, int what, void* self,
                              void* socket_data);
  static int OnTimerInterest(void* multi, long timeout_ms, void* self);

  // Closes all connections, and starts afresh. Requires: no transfers.
  void SetUpMultiHandle();
  // No transfer is left.
  void OnAllDone();
  // Gives back what a burst took, unless there are transfers again.
  void EndBurst();

  void OnSocketReady(int fd, uint32_t events);
  void OnTimeout();
  // Lets the library work, then reports the transfers that are done.
  void Advance(int fd, int event_mask);
  // Runs the error callback of a transfer that was never started, or cannot go
  // on.
  void ReportRefused(RequestId id);
  void PostReportRefused(RequestId id);

  base::EventLoop* loop_;  // Not owned; outlives this.
  std::unique_ptr<Library> library_;
  const long max_connections_;
  std::unique_ptr<MultiHandle> multi_;
  base::Timer timer_;
  base::Timer quiet_timer_;
  std::map<int, std::unique_ptr<base::EventSource>> sockets_;
  std::map<RequestId, std::unique_ptr<Transfer>> transfers_;
  // At a time, since the connections were closed last.
  size_t most_transfers_ = 0;
  bool is_burst_ending_ = false;
  base::TimeDelta default_timeout_{};
  RequestId last_id_ = 0;
  // Last: destroyed first, so late events find nothing.
  base::WeakPtrFactory<CurlTransport> weak_ptr_factory_{this};
};

}  // namespace kestrix::http

#endif  // KESTRIX_HTTP_CURL_TRANSPORT_H_
