// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

// The first line is a URL that is asked for, the rest the content of the file
// of allowed endpoints.

#include <memory>
#include <string>
#include <vector>

#include "base/event_loop.h"
#include "dbus/bus.h"
#include "dosset/dbus-proxies.h"
#include "fuzz/fuzz_target.h"
#include "fuzz/url_model.h"
#include "platform/actions/cloud-actions/cloud_action_manager.h"
#include "tests/support/fake_transport.h"
#include "tests/support/log_capture.h"
#include "tests/support/private_root.h"
#include "tests/support/temp_directory.h"

namespace {

using halvex::actions::CloudActionManager;
using halvex::actions::RedirectResult;

constexpr char kDropped[] = "Ignore invalid endpoint URL: ";

// What the daemon makes of a request: "sent", or the text of the error.
std::string Request(CloudActionManager* manager,
                    const test::FakeTransport& transport,
                    const std::string& url) {
  const size_t before = transport.requests().size();
  std::string outcome = "sent";
  manager->RedirectRequest(
      url, "GET", "",
      [&](const RedirectResult& result, const kestrix::Error* error) {
        CHECK(error && error->GetDomain() == "actions" &&
              error->GetCode() == "invalid_arguments" &&
              result.status_code == 0 && result.response_body.empty());
        outcome = error->GetMessage();
      });
  const bool sent = transport.requests().size() > before;
  CHECK(sent == (outcome == "sent")) << "Sent and refused, or neither";
  CHECK(!sent || transport.requests().back().url == url)
      << "Another URL: " << transport.requests().back().url;
  return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  test::PrivateRoot().SetUp();
  test::PutFile(halvex::actions::kConfigFile,
                "SMARTHOME_CLIENT_ID=id\nSMARTHOME_CLIENT_SECRET=secret\n"
                "SMARTHOME_SCOPE=scope\n");
  // Makes the daemon provisioned, with nothing to refresh.
  test::PutFile(halvex::actions::kRefreshTokenFile, "");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static base::EventLoop loop;
  // Never connected: there is no agent here.
  static dbus::Bus bus(&loop);
  static org::vantrel::Dosset::ObjectManagerProxy agent(&bus);

  fuzz::Script script(data, size);
  const std::string request = script.TakeLine();
  const std::string contents = script.TakeRest();
  test::PutFile(halvex::actions::kAllowedEndpointsFile, contents);
  const std::shared_ptr<test::FakeTransport> transport =
      test::FakeTransport::Create();
  const auto log = std::make_unique<test::LogCapture>();
  CloudActionManager manager(&agent);

  std::vector<fuzz::UrlModel> endpoints;
  std::vector<std::string> accepted;
  std::vector<std::string> dropped;
  for (const std::string_view whole_piece : fuzz::Split(contents, ',')) {
    const std::string piece(fuzz::Trim(whole_piece));
    if (piece.empty()) continue;
    const fuzz::UrlVerdict verdict = fuzz::JudgeUrl(piece);
    if (verdict.url) {
      endpoints.push_back(*verdict.url);
      accepted.push_back(piece);
    } else {
      dropped.push_back(piece);
    }
  }

  std::vector<std::string> logged;
  for (const test::LogLine& line : log->lines()) {
    if (!line.text.starts_with(kDropped)) continue;
    CHECK(line.severity == base::LogSeverity::kERROR);
    logged.push_back(line.text.substr(sizeof(kDropped) - 1));
  }
  CHECK(logged.size() == dropped.size())
      << logged.size() << " pieces dropped, not " << dropped.size();
  for (size_t i = 0; i < logged.size(); ++i) {
    // The log escapes what is not printable.
    const bool is_plain =
        std::all_of(dropped[i].begin(), dropped[i].end(),
                    [](char c) { return c >= ' ' && c <= '~'; });
    CHECK(!is_plain || logged[i] == dropped[i])
        << "Dropped " << logged[i] << ", not " << dropped[i];
  }

  for (const std::string& endpoint : accepted) {
    CHECK(Request(&manager, *transport, endpoint) == "sent")
        << "An endpoint is not allowed: " << endpoint;
  }
  const fuzz::UrlVerdict verdict = fuzz::JudgeUrl(request);
  std::string expected = "Endpoint " + request + " is not a valid URL";
  if (verdict.url) {
    expected = "Endpoint " + request + " not whitelisted";
    for (const fuzz::UrlModel& endpoint : endpoints) {
      if (fuzz::Allows(endpoint, *verdict.url)) expected = "sent";
    }
  }
  const std::string outcome = Request(&manager, *transport, request);
  CHECK(outcome == expected) << "Got: " << outcome;
  return 0;
}
