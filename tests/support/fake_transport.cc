// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "tests/support/fake_transport.h"

#include <utility>

#include "base/logging.h"

namespace {

std::weak_ptr<test::FakeTransport> g_default;

constexpr base::Location kNowhere{"FakeTransport", "fake_transport", 0};

}  // namespace

namespace kestrix::http {

// The linker takes this one instead of the library's own, because this library
// comes first.
std::shared_ptr<Transport> Transport::CreateDefault() {
  const std::shared_ptr<Transport> transport = g_default.lock();
  CHECK(transport != nullptr) << "The test has made no transport";
  return transport;
}

}  // namespace kestrix::http

namespace test {

std::shared_ptr<FakeTransport> FakeTransport::Create() {
  auto transport = std::make_shared<FakeTransport>();
  g_default = transport;
  return transport;
}

kestrix::http::RequestId FakeTransport::StartAsyncTransfer(
    kestrix::http::Request request,
    kestrix::http::SuccessCallback success_callback,
    kestrix::http::ErrorCallback error_callback) {
  requests_.push_back(std::move(request));
  pending_.push_back({std::move(success_callback), std::move(error_callback)});
  return static_cast<int>(requests_.size());
}

void FakeTransport::SetDefaultTimeout(base::TimeDelta timeout) {
  timeouts_.push_back(timeout);
}

void FakeTransport::Answer(size_t index, int status, const std::string& body,
                           int times) {
  const Pending ended = End(index);
  for (int i = 0; i < times; ++i) {
    ended.success_callback.Run(
        static_cast<int>(index) + 1,
        std::make_unique<kestrix::http::Response>(status, body));
  }
}

void FakeTransport::Fail(size_t index, const std::string& code,
                         const std::string& message) {
  const Pending ended = End(index);
  const std::unique_ptr<kestrix::Error> error = kestrix::Error::Create(
      kNowhere, kestrix::http::kErrorDomain, code, message);
  ended.error_callback.Run(static_cast<int>(index) + 1, error.get());
}

FakeTransport::Pending FakeTransport::End(size_t index) {
  CHECK(index < pending_.size()) << "There is no request " << index;
  Pending ended = std::exchange(pending_[index], {});
  CHECK(ended.success_callback) << "The request has ended: " << index;
  return ended;
}

}  // namespace test
