// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

// The input is a URL. Whatever the daemon's parser and the transport admit must
// go to the host that the allow list was asked about, and to no other.

#include <arpa/inet.h>
#include <curl/curl.h>
#include <systemd/sd-event.h>

#include <algorithm>
#include <memory>
#include <string>

#include "base/event_loop.h"
#include "fuzz/fake_network.h"
#include "fuzz/fuzz_target.h"
#include "fuzz/url_model.h"
#include "kestrix/http/curl_transport.h"
#include "kestrix/http/request_check.h"
#include "platform/actions/cloud-actions/http_url.h"
#include "tests/support/log_capture.h"

namespace {

using halvex::actions::HTTPURL;

constexpr char kAnswer[] = "HTTP/1.1 204 None\r\n\r\n";
constexpr uint64_t kDeadlineUs = 20'000'000;

std::string GetPart(CURLU* url, CURLUPart which, unsigned flags = 0) {
  char* text = nullptr;
  curl_url_get(url, which, &text, flags);
  const std::string part = text ? text : "";
  curl_free(text);
  return part;
}

// How the library reads the text: as its parser's interface does, and with the
// latitude that a transfer gives it.
void CheckParts(const std::string& text, const std::string& host,
                const std::string& port) {
  constexpr unsigned kLatitude = CURLU_GUESS_SCHEME | CURLU_NON_SUPPORT_SCHEME;
  constexpr unsigned kAsIs = CURLU_PATH_AS_IS;
  constexpr unsigned kEncode = CURLU_URLENCODE;
  for (const unsigned flags : {kAsIs, kLatitude, kLatitude | kAsIs, kEncode}) {
    CURLU* url = curl_url();
    CHECK(curl_url_set(url, CURLUPART_URL, text.c_str(), flags) == CURLUE_OK)
        << "The library refuses " << text;
    CHECK(GetPart(url, CURLUPART_HOST) == host) << "Another host: " << text;
    CHECK(GetPart(url, CURLUPART_PORT, CURLU_DEFAULT_PORT) == port)
        << "Another port: " << text;
    CHECK(GetPart(url, CURLUPART_USER).empty() &&
          GetPart(url, CURLUPART_PASSWORD).empty() &&
          GetPart(url, CURLUPART_OPTIONS).empty() &&
          GetPart(url, CURLUPART_ZONEID).empty())
        << "More than a host: " << text;
    curl_url_cleanup(url);
  }
}

// The port that the admitted text names.
std::string GetPort(const fuzz::UrlModel& url) {
  const size_t colon = url.authority.find(':');
  if (colon == std::string::npos) return url.is_https ? "443" : "80";
  const std::string port = url.authority.substr(colon + 1);
  const long number = strtol(port.c_str(), nullptr, 10);
  CHECK(number > 0 && number < 65536) << "A port that is none: " << port;
  return std::to_string(number);
}

// Bytes that some parsers drop, cut at, or take for another.
bool IsAmbiguous(char c) {
  return static_cast<unsigned char>(c) <= ' ' || c == '\x7f' || c == '\\';
}

bool IsAddress(const std::string& host) {
  in_addr address{};
  return inet_pton(AF_INET, host.c_str(), &address) == 1;
}

// Names that the HTTP library itself takes for this machine.
bool IsLocal(std::string host) {
  std::transform(host.begin(), host.end(), host.begin(),
                 [](unsigned char c) { return static_cast<char>(tolower(c)); });
  return host == "localhost" || host.ends_with(".localhost") ||
         host == "localhost." || host.ends_with(".localhost.");
}

void CheckContacts(const fuzz::Contacts& contacts, const std::string& host,
                   const std::string& port) {
  std::string address = std::string(fuzz::kAddress) + ":" + port;
  if (IsAddress(host)) {
    CHECK(contacts.names.empty()) << "An address was looked up: " << host;
    address = host + ":" + port;
  } else if (!IsLocal(host)) {
    CHECK(!contacts.names.empty()) << "Nothing was looked up for " << host;
  }
  for (const std::string& name : contacts.names) {
    CHECK(name == host + ":" + port)
        << name << " was looked up in place of " << host;
  }
  CHECK(!contacts.addresses.empty()) << "Nothing was contacted for " << host;
  for (const std::string& contacted : contacts.addresses) {
    const bool is_loopback =
        contacted == "127.0.0.1:" + port || contacted == "::1:" + port;
    CHECK(contacted == address || (IsLocal(host) && is_loopback))
        << contacted << " was contacted for " << host;
  }
}

void CheckRequest(const std::string& sent, const fuzz::UrlModel& url,
                  const std::string& port) {
  const std::string target = url.path.substr(0, url.path.find('#'));
  const std::string expected = "GET " + target +
                               " HTTP/1.1\r\nHost: " + url.host +
                               (port == "80" ? "" : ":" + port) +
                               "\r\nAuthorization: Bearer token\r\n\r\n";
  CHECK(sent == expected) << "Sent: " << sent;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static base::EventLoop loop;
  const std::string text = fuzz::Script(data, size).TakeRest();
  const test::LogCapture log;
  HTTPURL parsed;
  if (!parsed.Parse(text)) return 0;
  const bool admitted = kestrix::http::CheckUrl(text, nullptr);
  const std::optional<fuzz::UrlModel> url = fuzz::JudgeUrl(text).url;
  CHECK(url.has_value() && url->host == parsed.host());
  std::string port;
  if (admitted) {
    CHECK(std::none_of(text.begin(), text.end(), IsAmbiguous))
        << "Admitted: " << text;
    port = GetPort(*url);
    CheckParts(text, parsed.host(), port);
  }

  // A connection over TLS would tell no more.
  fuzz::StartNetwork(url->is_https ? "" : kAnswer);
  // A new one each time, since it remembers names and connections.
  auto transport = std::make_shared<kestrix::http::CurlTransport>(&loop);
  transport->SetDefaultTimeout(std::chrono::seconds(10));
  std::string outcome;
  transport->StartAsyncTransfer(
      {"GET", text, {{"Authorization", "Bearer token"}}, ""},
      [&](int, std::unique_ptr<kestrix::http::Response> response) {
        outcome += std::to_string(response->GetStatusCode());
      },
      [&](int, const kestrix::Error* error) { outcome += error->GetCode(); });
  while (outcome.empty()) {
    CHECK(sd_event_run(loop.handle(), kDeadlineUs) > 0) << "Waited in vain";
  }
  transport.reset();

  const fuzz::Contacts contacts = fuzz::TakeContacts();
  if (!admitted) {
    CHECK(outcome == "invalid_url" && contacts.names.empty() &&
          contacts.addresses.empty())
        << "Not refused, but " << outcome;
    return 0;
  }
  CHECK(outcome == (url->is_https ? "connect" : "204"))
      << "An outcome of " << outcome;
  CheckContacts(contacts, parsed.host(), port);
  if (!url->is_https) CheckRequest(contacts.sent, *url, port);
  return 0;
}
