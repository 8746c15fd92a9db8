// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

// The input is a request and what the server answers to it: a line with the
// method, one with the path, one with the body, and the rest, byte for byte.

#include <dirent.h>
#include <netdb.h>
#include <systemd/sd-event.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/event_loop.h"
#include "dbus/bus.h"
#include "dosset/dbus-proxies.h"
#include "fuzz/fuzz_target.h"
#include "fuzz/json_model.h"
#include "fuzz/url_model.h"
#include "platform/actions/cloud-actions/cloud_action_manager.h"
#include "tests/support/log_capture.h"
#include "tests/support/private_root.h"
#include "tests/support/raw_server.h"
#include "tests/support/temp_directory.h"

// No name leads off this machine.
extern "C" int getaddrinfo(const char*, const char*, const addrinfo*,
                           addrinfo**) {
  return EAI_NONAME;
}

namespace {

using halvex::actions::CloudActionManager;
using halvex::actions::RedirectResult;

constexpr uint64_t kDeadlineUs = 20'000'000;
// The server remembers all that it gets.
constexpr int kRequestsPerServer = 500;

struct Outcome {
  int count = 0;
  RedirectResult result;
  std::string domain;
  std::string code;
};

int CountDescriptors() {
  DIR* folder = opendir("/proc/self/fd");
  CHECK(folder != nullptr) << "Cannot count the descriptors";
  int count = 0;
  while (readdir(folder)) ++count;
  closedir(folder);
  return count;
}

bool IsMethod(const std::string& text, std::string_view method) {
  return text.size() == method.size() &&
         std::equal(text.begin(), text.end(), method.begin(),
                    [](char a, char b) { return (a & ~0x20) == b; });
}

// The status and the body of an answer in the simplest form there is; none for
// any other, which may still be a good one.
struct SimpleAnswer {
  int status;
  std::string body;
};

std::optional<SimpleAnswer> ReadSimpleAnswer(const std::string& answer) {
  constexpr std::string_view kStart = "HTTP/1.1 ";
  constexpr std::string_view kLength = " Some\r\nContent-Length: ";
  std::string_view rest = answer;
  if (!rest.starts_with(kStart)) return std::nullopt;
  rest.remove_prefix(kStart.size());
  if (rest.size() < 3 || rest[0] < '2' || rest[0] > '5') return std::nullopt;
  int status = 0;
  for (size_t i = 0; i < 3; ++i) {
    if (rest[i] < '0' || rest[i] > '9') return std::nullopt;
    status = status * 10 + (rest[i] - '0');
  }
  // These have no body whatever they say.
  if (status == 204 || status == 205 || status == 304) return std::nullopt;
  rest.remove_prefix(3);
  if (!rest.starts_with(kLength)) return std::nullopt;
  rest.remove_prefix(kLength.size());
  const size_t end = rest.find("\r\n\r\n");
  if (end == std::string_view::npos) return std::nullopt;
  const std::string_view body = rest.substr(end + 4);
  if (rest.substr(0, end) != std::to_string(body.size())) return std::nullopt;
  return SimpleAnswer{status, std::string(body)};
}

void CheckError(const Outcome& outcome) {
  static const std::set<std::string> kCodes = {"actions/invalid_arguments",
                                               "actions/remote_error",
                                               "http/invalid_url",
                                               "http/too_large",
                                               "http/protocol",
                                               "http/internal",
                                               "http/connect",
                                               "http/timeout"};
  const std::string error = outcome.domain + "/" + outcome.code;
  CHECK(kCodes.contains(error)) << "Another error: " << error;
  CHECK(outcome.result.status_code == 0 && outcome.result.response_body.empty())
      << "A result beside the error " << error;
}

void CheckAnswer(const Outcome& outcome, const std::string& answer) {
  if (outcome.code.empty()) {
    const std::string& body = outcome.result.response_body;
    fuzz::CheckCompact(body);
    const fuzz::JsonVerdict verdict = fuzz::JudgeJson(body);
    CHECK(verdict.value &&
          verdict.value->kind == fuzz::JsonModel::Kind::kObject)
        << "No JSON object: " << body;
    CHECK(outcome.result.status_code >= 200 &&
          outcome.result.status_code < 1000)
        << "A status of " << outcome.result.status_code;
  } else {
    CheckError(outcome);
  }
  // A header without its end is no answer, however it begins.
  if (answer.find("\n\n") == std::string::npos &&
      answer.find("\n\r\n") == std::string::npos) {
    CHECK(outcome.domain == "http") << "Taken for an answer: " << outcome.code;
  }
  const std::optional<SimpleAnswer> simple = ReadSimpleAnswer(answer);
  if (!simple) return;
  const fuzz::JsonVerdict sent = fuzz::JudgeJson(simple->body);
  if (sent.doubtful) return;
  if (!sent.value || sent.value->kind != fuzz::JsonModel::Kind::kObject) {
    CHECK(outcome.domain + "/" + outcome.code == "actions/remote_error")
        << "A body that is no JSON object gave " << outcome.code;
    return;
  }
  CHECK(outcome.code.empty()) << "A good answer gave " << outcome.code;
  CHECK(outcome.result.status_code == simple->status)
      << "Another status: " << outcome.result.status_code;
  CHECK(fuzz::JudgeJson(outcome.result.response_body).value == sent.value)
      << "Another body: " << outcome.result.response_body;
}

class Daemon {
 public:
  base::EventLoop* loop() { return &loop_; }

  // Has a new manager carry out a request and end.
  Outcome Request(const std::string& url, const std::string& method,
                  const std::string& body) {
    Outcome outcome;
    CloudActionManager manager(&agent_);
    manager.RedirectRequest(
        url, method, body,
        [&](const RedirectResult& result, const kestrix::Error* error) {
          ++outcome.count;
          outcome.result = result;
          if (!error) return;
          outcome.domain = error->GetDomain();
          outcome.code = error->GetCode();
          CHECK(!outcome.code.empty() && !error->GetMessage().empty());
        });
    while (outcome.count == 0) {
      CHECK(sd_event_run(loop_.handle(), kDeadlineUs) > 0) << "No callback";
    }
    // Whatever else is due, so that a second callback would be seen.
    while (sd_event_run(loop_.handle(), 0) > 0) {
    }
    CHECK(outcome.count == 1) << outcome.count << " callbacks";
    return outcome;
  }

  // The server notices the end of a connection from the loop. A look-up of a
  // name that nobody waits for any more ends in a thread, which tells nobody.
  void WaitForDescriptors(int count) {
    using Clock = std::chrono::steady_clock;
    constexpr uint64_t kNextLookUs = 200;
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(20);
    while (CountDescriptors() > count) {
      CHECK(Clock::now() < deadline) << "Descriptors are left open";
      sd_event_run(loop_.handle(), kNextLookUs);
    }
  }

 private:
  base::EventLoop loop_;
  // Never connected: there is no agent here.
  dbus::Bus bus_{&loop_};
  org::vantrel::Dosset::ObjectManagerProxy agent_{&bus_};
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  test::PrivateRoot().SetUp();
  test::PutFile(halvex::actions::kConfigFile,
                "SMARTHOME_CLIENT_ID=id\nSMARTHOME_CLIENT_SECRET=secret\n"
                "SMARTHOME_SCOPE=scope\n");
  test::PutFile(halvex::actions::kRefreshTokenFile, "");
  test::PutFile(halvex::actions::kAllowedEndpointsFile, "http://127.0.0.1");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Daemon daemon;
  static std::unique_ptr<test::RawServer> server;
  static int requests = 0;
  const test::LogCapture log;
  if (requests++ % kRequestsPerServer == 0) {
    server.reset();
    server = std::make_unique<test::RawServer>(daemon.loop());
    // Opens what is opened once.
    server->SetAnswer("HTTP/1.1 401 Some\r\n\r\n", /*close_after=*/true);
    daemon.Request(server->url(), "GET", "");
  }

  fuzz::Script script(data, size);
  const std::string method = script.TakeLine();
  const std::string path = "/" + script.TakeLine();
  const std::string body = script.TakeLine();
  const std::string answer = script.TakeRest();
  server->SetAnswer(answer, /*close_after=*/true);
  const size_t received_before = server->received().size();
  const std::string url = server->url() + path;

  const int descriptors = CountDescriptors();
  const Outcome outcome = daemon.Request(url, method, body);
  daemon.WaitForDescriptors(descriptors);

  const std::string sent = server->received().substr(received_before);
  const bool is_post = IsMethod(method, "POST");
  const fuzz::JsonVerdict json = fuzz::JudgeJson(body);
  if (json.doubtful) return 0;
  const bool is_refused = !fuzz::JudgeUrl(url).url ||
                          (is_post ? !json.value : !IsMethod(method, "GET"));
  if (is_refused) {
    CHECK(outcome.domain + "/" + outcome.code == "actions/invalid_arguments")
        << "Not refused, but " << outcome.code;
  }
  if (is_refused || outcome.code == "invalid_url") {
    CheckError(outcome);
    CHECK(sent.empty()) << "Sent all the same: " << sent;
    return 0;
  }

  const std::string target = path.substr(0, path.find('#'));
  const std::string head = (is_post ? "POST " : "GET ") + target +
                           " HTTP/1.1\r\nHost: " + server->authority() +
                           "\r\nAuthorization: Bearer \r\n"
                           "Content-Type: application/json\r\n";
  const size_t head_end = sent.find("\r\n\r\n") + 4;
  CHECK(sent.starts_with(head) && head_end > 3) << "Sent: " << sent;
  const std::string sent_body = sent.substr(head_end);
  const std::string fields = sent.substr(head.size(), head_end - head.size());
  if (is_post) {
    CHECK(fields ==
          "Content-Length: " + std::to_string(sent_body.size()) + "\r\n\r\n")
        << "Sent: " << sent;
    fuzz::CheckCompact(sent_body);
    CHECK(fuzz::JudgeJson(sent_body).value == json.value)
        << "Another body was sent: " << sent_body;
  } else {
    CHECK(fields == "\r\n" && sent_body.empty()) << "Sent: " << sent;
  }
  CheckAnswer(outcome, answer);
  return 0;
}
