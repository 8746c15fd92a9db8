// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

// The input is a URL.

#include "fuzz/fuzz_target.h"
#include "fuzz/url_model.h"
#include "platform/actions/cloud-actions/http_url.h"
#include "tests/support/log_capture.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text = fuzz::Script(data, size).TakeRest();
  const test::LogCapture log;
  halvex::actions::HTTPURL url;
  const bool accepted = url.Parse(text);

  const fuzz::UrlVerdict verdict = fuzz::JudgeUrl(text);
  CHECK(accepted == verdict.url.has_value()) << "Another verdict";
  if (accepted) {
    CHECK(!url.host().empty() && url.path().starts_with('/'));
    CHECK(url.host() == verdict.url->host) << "Another host: " << url.host();
    CHECK(url.path() == verdict.url->path) << "Another path: " << url.path();
  }
  CHECK(log.lines().size() == (verdict.climbs ? 1 : 0)) << "Another log";
  for (const test::LogLine& line : log.lines()) {
    CHECK(
        line.severity == base::LogSeverity::kERROR &&
        line.text.starts_with("Path contains reference to parent directory: "))
        << "Another line: " << line.text;
  }
  return 0;
}
