// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

// The first line is the URL that is asked for, each further line an allowed
// endpoint.

#include <memory>
#include <utility>
#include <vector>

#include "fuzz/fuzz_target.h"
#include "fuzz/url_model.h"
#include "platform/actions/cloud-actions/http_url.h"
#include "tests/support/log_capture.h"

namespace {

using halvex::actions::AllowedEndpoints;
using halvex::actions::HTTPURL;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Script script(data, size);
  const test::LogCapture log;
  const std::string request_text = script.TakeLine();
  HTTPURL request;
  const fuzz::UrlVerdict verdict = fuzz::JudgeUrl(request_text);
  CHECK(request.Parse(request_text) == verdict.url.has_value());
  if (!verdict.url) return 0;

  AllowedEndpoints endpoints;
  bool expected = false;
  while (!script.AtEnd()) {
    const std::string text = script.TakeLine();
    auto endpoint = std::make_unique<HTTPURL>();
    if (!endpoint->Parse(text)) continue;
    endpoints.push_back(std::move(endpoint));
    const fuzz::UrlVerdict allowed = fuzz::JudgeUrl(text);
    CHECK(allowed.url.has_value()) << "Accepted: " << text;
    expected |= fuzz::Allows(*allowed.url, *verdict.url);
  }
  CHECK(halvex::actions::IsEndpointAllowed(endpoints, request) == expected)
      << (expected ? "Refused: " : "Admitted: ") << request_text;
  return 0;
}
