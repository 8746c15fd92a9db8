// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef TESTS_SUPPORT_FAKE_TRANSPORT_H_
#define TESTS_SUPPORT_FAKE_TRANSPORT_H_

#include <memory>
#include <string>
#include <vector>

#include "kestrix/http/transport.h"

namespace test {

// A transport that sends nothing: it records what it is asked for, and the test
// answers by hand, in any order, late or never. In programs that use it,
// Transport::CreateDefault() hands out the one that was made last.
class FakeTransport final : public kestrix::http::Transport {
 public:
  static std::shared_ptr<FakeTransport> Create();

  kestrix::http::RequestId StartAsyncTransfer(
      kestrix::http::Request request,
      kestrix::http::SuccessCallback success_callback,
      kestrix::http::ErrorCallback error_callback) override;
  void SetDefaultTimeout(base::TimeDelta timeout) override;

  // All requests so far, in order, and the time-outs that were set.
  const std::vector<kestrix::http::Request>& requests() const {
    return requests_;
  }
  const std::vector<base::TimeDelta>& timeouts() const { return timeouts_; }

  // Ends the request at `index`, which must not have ended yet, with a response
  // or with an error of the HTTP library. A real transport never answers more
  // than once; `times` is for tests of what happens if one did.
  void Answer(size_t index, int status, const std::string& body, int times = 1);
  void Fail(size_t index, const std::string& code, const std::string& message);

 private:
  struct Pending {
    kestrix::http::SuccessCallback success_callback;
    kestrix::http::ErrorCallback error_callback;
  };

  // Takes the callbacks of a request away from it, so that they go when they
  // have run.
  Pending End(size_t index);

  std::vector<kestrix::http::Request> requests_;
  std::vector<Pending> pending_;
  std::vector<base::TimeDelta> timeouts_;
};

}  // namespace test

#endif  // TESTS_SUPPORT_FAKE_TRANSPORT_H_
