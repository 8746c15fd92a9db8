// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/http/transport.h"

#include "base/event_loop.h"
#include "kestrix/http/curl_transport.h"

namespace kestrix::http {

// Stands alone in this file: a unit test that brings its own transport defines
// this function itself, and the linker then leaves this one out.
std::shared_ptr<Transport> Transport::CreateDefault() {
  return std::make_shared<CurlTransport>(base::EventLoop::Current());
}

}  // namespace kestrix::http
