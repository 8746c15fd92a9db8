// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef KESTRIX_HTTP_TRANSPORT_H_
#define KESTRIX_HTTP_TRANSPORT_H_

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/callback.h"
#include "base/time.h"
#include "kestrix/error.h"

namespace kestrix::http {

// The domain of the errors of this library. Their codes:
//   invalid_url     the URL is refused before anything is sent
//   invalid_header  a header field is refused before anything is sent
//   resolve         the host has no address
//   connect         no connection could be made
//   tls             no secure connection to the right server could be made
//   timeout         the answer was not complete in time
//   too_large       the request or the answer is over a limit
//   protocol        the answer is no HTTP, or ended early
//   internal        anything else
inline constexpr char kErrorDomain[] = "http";

using RequestId = int;
using HeaderList = std::vector<std::pair<std::string, std::string>>;

// One request, as it goes onto the wire.
struct Request {
  std::string method;
  // An absolute URL, sent as it stands but for its fragment.
  std::string url;
  // Sent in this order, after Host and before Content-Length.
  HeaderList headers;
  std::string body;
  // Whether the connection may serve a later request. Its buffers hold what was
  // sent and received last. If not, HTTP/2 is not used either, whose library
  // leaves copies of what was sent behind.
  bool keeps_connection = true;
};

// A complete response, whatever its status.
class Response {
 public:
  Response(int status_code, std::string body)
      : status_code_(status_code), body_(std::move(body)) {}

  int GetStatusCode() const { return status_code_; }
  const std::string& body() const { return body_; }

 private:
  int status_code_;
  std::string body_;
};

// A response came. The callback owns it.
using SuccessCallback =
    base::Callback<void(RequestId, std::unique_ptr<Response>)>;
// No response came. The error lives only during the call.
using ErrorCallback = base::Callback<void(RequestId, const Error*)>;

// An HTTP client on the event loop of the process. It goes only where the URL
// says: no redirects, no proxies, no cookies, no credentials of its own;
// http and https only, TLS 1.2 or newer, certificates always checked. Nothing
// in the environment changes that.
//
// Limits, beyond which a request fails with too_large: 512 KiB of URL and
// header fields, 16 MiB of response body, 64 KiB of response header.
//
// A request is not sent again once a server may have acted on it, whatever
// becomes of its connection.
class Transport {
 public:
  // Requires: the process has an event loop, which outlives the transport.
  static std::shared_ptr<Transport> CreateDefault();

  // Requests under way are given up: neither of their callbacks runs.
  virtual ~Transport() = default;

  // Starts a request and returns at once. Exactly one of the callbacks runs
  // once, later, from the loop.
  virtual RequestId StartAsyncTransfer(Request request,
                                       SuccessCallback success_callback,
                                       ErrorCallback error_callback) = 0;

  // How long requests that are started from now on may take in all.
  virtual void SetDefaultTimeout(base::TimeDelta timeout) = 0;
};

}  // namespace kestrix::http

#endif  // KESTRIX_HTTP_TRANSPORT_H_
