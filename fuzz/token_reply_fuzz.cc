// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

// The input is what happens to the token manager, one letter after the other:
//   c  a code exchange is asked for
//   g  the access token is asked for
//   v STATUS line  a server has answered with this status
//   t  30 seconds pass; T  a microsecond less
//   r STATUS line, BODY line  the identity provider answers its oldest request
//   R STATUS line, BODY up to the end  the same, for a body of several lines
//   e  the oldest request fails without an answer
//   n  the daemon starts anew
//   f TEXT line  somebody puts a token into the file
// Everything that the token manager does is compared with a second one, which
// is written without the product's code.

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/fuzz_target.h"
#include "fuzz/json_model.h"
#include "platform/ap/common/oauth2_manager.h"
#include "tests/support/fake_clock.h"
#include "tests/support/fake_transport.h"
#include "tests/support/log_capture.h"
#include "tests/support/private_root.h"
#include "tests/support/temp_directory.h"

namespace {

using fuzz::JsonModel;
using fuzz::JsonVerdict;

constexpr char kFile[] = "/var/lib/cloud_action/refresh_token";
constexpr char kCode[] = "a code+";

std::string Encode(const std::string& text) {
  constexpr char kHex[] = "0123456789ABCDEF";
  std::string encoded;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const bool is_plain = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') ||
                          (c >= 'a' && c <= 'z') || c == '-' || c == '.' ||
                          c == '_' || c == '~';
    if (is_plain) {
      encoded += c;
    } else {
      encoded += {'%', kHex[byte / 16], kHex[byte % 16]};
    }
  }
  return encoded;
}

// What the token manager has to do.
class Model {
 public:
  void Start() {
    access_.clear();
    exchanging_ = false;
    last_refresh_us_ = 0;
    pending_.clear();
    refresh_ = file_.value_or("");
    GetToken();
  }

  std::string GetToken() {
    if (!access_.empty()) return access_;
    if (!refresh_.empty()) Refresh();
    return "";
  }

  void Exchange() {
    if (exchanging_) {
      Log("Request already outstanding: rejecting new request");
      outcomes_ += "f";
      return;
    }
    exchanging_ = true;
    Log("Fetching refresh token");
    refresh_.clear();
    access_.clear();
    Send("code=" + Encode(kCode) +
             "&client_id=the%20id&client_secret=the%26secret&redirect_uri=oob"
             "&scope=the%2Fscope&grant_type=authorization_code",
         /*is_exchange=*/true);
  }

  bool Validate(int status) {
    if (status != 401) return true;
    Log("Access token invalidated");
    access_.clear();
    Refresh();
    return false;
  }

  void Pass(int64_t us) { now_us_ += us; }
  void PutFile(const std::string& token) { file_ = token; }

  // The status and the JSON of an answer, or none.
  void End(int status, const std::optional<JsonModel>& json, bool answered) {
    const bool is_exchange = pending_.front();
    pending_.pop_front();
    if (!answered) {
      Log(is_exchange ? "Error fetching refresh token: no answer"
                      : "Error fetching access token: no answer");
      if (is_exchange) {
        EndExchange("f");
      } else {
        access_.clear();
      }
      return;
    }
    Log((is_exchange ? "Successfully fetched refresh token: "
                     : "Successfully fetched access token: ") +
        std::to_string(status));
    const bool is_object = json && json->kind == JsonModel::Kind::kObject;
    const bool usable = is_object && status < 400;
    if (is_object && !usable) {
      const std::string* error = json->FindString("error");
      Log("Error parsing oauth2 response: " +
          (error ? *error : "unexpected_response") + " - " +
          std::to_string(status));
    }
    const std::string* access =
        usable ? json->FindString("access_token") : nullptr;
    const std::string* refresh =
        access ? json->FindString("refresh_token") : nullptr;
    if (access) access_ = *access;
    if (!is_exchange) {
      if (access && !access->empty()) return;
      access_.clear();
      refresh_.clear();
      file_.reset();
      return;
    }
    if (refresh) refresh_ = *refresh;
    if (refresh && !access_.empty() && !refresh_.empty()) {
      EndExchange("t");
      file_ = refresh_;
    } else {
      Log("Unable to fetch refresh token");
      EndExchange("f");
    }
  }

  bool has_refresh_token() const { return !refresh_.empty(); }
  bool has_pending() const { return !pending_.empty(); }
  const std::vector<std::string>& bodies() const { return bodies_; }
  const std::vector<std::string>& log() const { return log_; }
  const std::string& outcomes() const { return outcomes_; }
  const std::optional<std::string>& file() const { return file_; }

 private:
  void Log(const std::string& line) { log_.push_back(line); }

  void Send(const std::string& body, bool is_exchange) {
    bodies_.push_back(body);
    pending_.push_back(is_exchange);
  }

  void Refresh() {
    if (last_refresh_us_ != 0 && now_us_ - last_refresh_us_ < 30'000'000) {
      return;
    }
    last_refresh_us_ = now_us_;
    Log("Refreshing access token.");
    Send("refresh_token=" + Encode(refresh_) +
             "&client_id=the%20id&client_secret=the%26secret"
             "&grant_type=refresh_token",
         /*is_exchange=*/false);
  }

  void EndExchange(const char* outcome) {
    exchanging_ = false;
    outcomes_ += outcome;
  }

  std::string refresh_;
  std::string access_;
  std::optional<std::string> file_;
  bool exchanging_ = false;
  int64_t now_us_ = 1'000'000;
  int64_t last_refresh_us_ = 0;
  // For each request under way, in order, whether it is an exchange.
  std::deque<bool> pending_;
  std::vector<std::string> bodies_;
  std::vector<std::string> log_;
  // One letter for each exchange that ended.
  std::string outcomes_;
};

// The real one, and all that can be seen of it.
class Subject {
 public:
  void Start() {
    manager_.reset();
    answered_ = transport_->requests().size();
    manager_ = std::make_unique<halvex::ap::OAuth2Manager>(
        "the id", "the&secret", "the/scope", base::FilePath(kFile), transport_);
  }

  halvex::ap::OAuth2Manager* manager() { return manager_.get(); }
  const test::FakeTransport& transport() const { return *transport_; }
  const std::string& outcomes() const { return outcomes_; }

  void Exchange() {
    manager_->FetchRefreshToken(
        kCode, [this](bool success) { outcomes_ += success ? "t" : "f"; });
  }
  void Answer(int status, const std::string& body) {
    transport_->Answer(answered_++, status, body);
  }
  void Fail() { transport_->Fail(answered_++, "connect", "no answer"); }
  void Pass(int64_t us) { clock_.Advance(base::TimeDelta(us)); }

 private:
  test::FakeClock clock_;
  std::shared_ptr<test::FakeTransport> transport_ =
      test::FakeTransport::Create();
  size_t answered_ = 0;
  std::string outcomes_;
  std::unique_ptr<halvex::ap::OAuth2Manager> manager_;
};

void Compare(Subject* subject, const Model& model,
             const test::LogCapture& log) {
  CHECK(subject->manager()->HasRefreshToken() == model.has_refresh_token())
      << "A refresh token, or none";
  CHECK(subject->outcomes() == model.outcomes())
      << "Exchanges ended as " << subject->outcomes() << ", not as "
      << model.outcomes();
  const std::vector<kestrix::http::Request>& requests =
      subject->transport().requests();
  CHECK(requests.size() == model.bodies().size())
      << requests.size() << " requests, not " << model.bodies().size();
  if (!requests.empty()) {
    const kestrix::http::HeaderList headers{
        {"Content-Type", "application/x-www-form-urlencoded"}};
    CHECK(requests.back().method == "POST" &&
          requests.back().url == halvex::ap::kTokenEndpointUrl &&
          requests.back().headers == headers);
    CHECK(requests.back().body == model.bodies().back())
        << "Sent: " << requests.back().body;
  }
  CHECK(test::Exists(kFile) == model.file().has_value()) << "A file, or none";
  CHECK(!model.file() || test::GetFile(kFile) == *model.file())
      << "Another file";
  CHECK(log.lines().size() == model.log().size())
      << log.lines().size() << " lines, not " << model.log().size();
  if (log.lines().empty()) return;
  // The log escapes what is not printable.
  const std::string& expected = model.log().back();
  const bool is_plain =
      expected.size() < 1000 &&
      std::all_of(expected.begin(), expected.end(),
                  [](char c) { return c >= ' ' && c <= '~'; });
  CHECK(!is_plain || log.lines().back().text == expected)
      << "Logged: " << log.lines().back().text;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  test::PrivateRoot().SetUp();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Script script(data, size);
  base::DeleteFile(base::FilePath(kFile), /*recursive=*/false);
  const test::LogCapture log;
  Subject subject;
  Model model;
  subject.Start();
  model.Start();
  while (!script.AtEnd()) {
    const char action = script.TakeChar();
    switch (action) {
      case 'c':
        subject.Exchange();
        model.Exchange();
        break;
      case 'g': {
        const std::string token = subject.manager()->GetAccessToken();
        CHECK(token == model.GetToken()) << "Another token: " << token;
        break;
      }
      case 'v': {
        const int status = atoi(script.TakeLine().c_str());
        const bool valid = subject.manager()->ValidateResponse({status, ""});
        CHECK(valid == model.Validate(status)) << "Valid, or not";
        break;
      }
      case 't':
      case 'T': {
        const int64_t us = action == 't' ? 30'000'000 : 29'999'999;
        subject.Pass(us);
        model.Pass(us);
        break;
      }
      case 'r':
      case 'R': {
        if (!model.has_pending()) break;
        const int status = atoi(script.TakeLine().c_str());
        const std::string body =
            action == 'r' ? script.TakeLine() : script.TakeRest();
        const JsonVerdict verdict = fuzz::JudgeJson(body);
        if (verdict.doubtful) return 0;
        subject.Answer(status, body);
        model.End(status, verdict.value, /*answered=*/true);
        break;
      }
      case 'e':
        if (!model.has_pending()) break;
        subject.Fail();
        model.End(0, std::nullopt, /*answered=*/false);
        break;
      case 'n':
        subject.Start();
        model.Start();
        break;
      case 'f': {
        const std::string token = script.TakeLine();
        test::PutFile(kFile, token);
        model.PutFile(token);
        break;
      }
      default:
        continue;
    }
    Compare(&subject, model, log);
  }
  // Shows the token itself, and that none is kept from where it was dropped.
  CHECK(subject.manager()->GetAccessToken() == model.GetToken())
      << "Another token at the end";
  return 0;
}
