// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "platform/ap/common/oauth2_manager.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kestrix/http/http_constants.h"
#include "tests/support/fake_clock.h"
#include "tests/support/fake_transport.h"
#include "tests/support/log_capture.h"
#include "tests/support/system_calls.h"
#include "tests/support/temp_directory.h"

namespace halvex::ap {
namespace {

using std::chrono::microseconds;
using std::chrono::seconds;
using test::ErrorLine;
using test::InfoLine;
using test::WarningLine;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

constexpr char kGoodReply[] =
    R"({"access_token":"new access","refresh_token":"new refresh"})";

// With no refresh token file at first.
class OAuth2ManagerTest : public testing::Test {
 protected:
  void CreateManager() {
    manager_ = std::make_unique<OAuth2Manager>(
        "an id", "a secret", "a scope", base::FilePath(path_), transport_);
  }

  // Starts over with `token` in the file, and with the request for an access
  // token that this makes answered if `access_token` is not empty.
  void CreateProvisioned(const std::string& token,
                         const std::string& access_token = "") {
    test::PutFile(path_, token);
    CreateManager();
    if (!access_token.empty()) {
      AnswerLast(200, R"({"access_token":")" + access_token + R"("})");
    }
    log_.Clear();
  }

  void FetchRefreshToken(const std::string& code) {
    manager_->FetchRefreshToken(
        code, [this](bool success) { outcomes_.push_back(success); });
  }

  size_t sent() const { return transport_->requests().size(); }
  const kestrix::http::Request& last_request() const {
    return transport_->requests().back();
  }
  void AnswerLast(int status, const std::string& body) {
    transport_->Answer(sent() - 1, status, body);
  }
  void FailLast(const std::string& message) {
    transport_->Fail(sent() - 1, "connect", message);
  }

  // Shows that `token` is the refresh token by what the next refresh sends.
  void ExpectNextRefreshSends(const std::string& encoded_token) {
    clock_.Advance(seconds(30));
    EXPECT_EQ("", manager_->GetAccessToken());
    EXPECT_EQ("refresh_token=" + encoded_token +
                  "&client_id=an%20id&client_secret=a%20secret"
                  "&grant_type=refresh_token",
              last_request().body);
  }

  test::TempDirectory folder_;
  const std::string path_ = folder_.Path("refresh_token");
  test::FakeClock clock_;
  test::LogCapture log_;
  std::shared_ptr<test::FakeTransport> transport_ =
      test::FakeTransport::Create();
  std::unique_ptr<OAuth2Manager> manager_;
  std::vector<bool> outcomes_;
};

TEST(OAuth2ManagerConstantsTest, HasTheTokenEndpoint) {
  EXPECT_STREQ("https://identity.vantrel.example/o/oauth2/token",
               kTokenEndpointUrl);
}

// Construction.

TEST_F(OAuth2ManagerTest, StartsWithoutCredentialIfThereIsNoFile) {
  CreateManager();
  EXPECT_FALSE(manager_->HasRefreshToken());
  EXPECT_EQ("", manager_->GetAccessToken());
  EXPECT_EQ(0u, sent());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(OAuth2ManagerTest, StartsWithoutCredentialIfTheFileIsEmpty) {
  test::PutFile(path_, "");
  CreateManager();
  EXPECT_FALSE(manager_->HasRefreshToken());
  EXPECT_EQ(0u, sent());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(OAuth2ManagerTest, StartsWithoutCredentialIfTheFileCannotBeRead) {
  test::MakeDirectory(path_);
  CreateManager();
  EXPECT_FALSE(manager_->HasRefreshToken());
  EXPECT_EQ(0u, sent());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(OAuth2ManagerTest, RefreshesAtOnceIfTheFileHoldsAToken) {
  test::PutFile(path_, "old");
  CreateManager();
  EXPECT_TRUE(manager_->HasRefreshToken());
  EXPECT_EQ(1u, sent());
  EXPECT_THAT(log_.lines(), ElementsAre(InfoLine("Refreshing access token.")));
}

TEST_F(OAuth2ManagerTest, TakesTheWholeFileForTheToken) {
  using namespace std::string_literals;
  test::PutFile(path_, " 1/a+b\0c\n"s);
  CreateManager();
  EXPECT_THAT(last_request().body,
              testing::StartsWith("refresh_token=%201%2Fa%2Bb%00c%0A&"));
}

TEST_F(OAuth2ManagerTest, CleansUpAfterAWriteThatWasCutShort) {
  test::PutFile(path_ + ".tmp.AbCdEf", "half a tok");
  CreateManager();
  EXPECT_FALSE(manager_->HasRefreshToken());
  EXPECT_THAT(test::ListDirectory(folder_.path()), IsEmpty());
}

TEST_F(OAuth2ManagerTest, SetsNoTimeoutOnTheSharedTransport) {
  CreateProvisioned("old");
  EXPECT_THAT(transport_->timeouts(), IsEmpty());
}

// The exchange of an authorization code.

TEST_F(OAuth2ManagerTest, ExchangesACode) {
  CreateManager();
  FetchRefreshToken("4/code &=");
  ASSERT_EQ(1u, sent());
  EXPECT_EQ("POST", last_request().method);
  EXPECT_EQ("https://identity.vantrel.example/o/oauth2/token",
            last_request().url);
  EXPECT_THAT(
      last_request().headers,
      ElementsAre(Pair("Content-Type", "application/x-www-form-urlencoded")));
  EXPECT_EQ(
      "code=4%2Fcode%20%26%3D&client_id=an%20id&client_secret=a%20secret"
      "&redirect_uri=oob&scope=a%20scope&grant_type=authorization_code",
      last_request().body);
  EXPECT_THAT(outcomes_, IsEmpty());
  EXPECT_THAT(log_.lines(), ElementsAre(InfoLine("Fetching refresh token")));
}

TEST_F(OAuth2ManagerTest, SendsEmptyFieldsAsTheyAre) {
  manager_ = std::make_unique<OAuth2Manager>("", "", "", base::FilePath(path_),
                                             transport_);
  FetchRefreshToken("");
  EXPECT_EQ(
      "code=&client_id=&client_secret=&redirect_uri=oob&scope="
      "&grant_type=authorization_code",
      last_request().body);
}

TEST_F(OAuth2ManagerTest, HoldsBothTokensAfterAnExchange) {
  CreateManager();
  FetchRefreshToken("code");
  log_.Clear();
  AnswerLast(200, kGoodReply);
  EXPECT_THAT(outcomes_, ElementsAre(true));
  EXPECT_TRUE(manager_->HasRefreshToken());
  EXPECT_EQ("new access", manager_->GetAccessToken());
  EXPECT_EQ(1u, sent());
  EXPECT_THAT(log_.lines(),
              ElementsAre(InfoLine("Successfully fetched refresh token: 200")));
}

TEST_F(OAuth2ManagerTest, SavesTheRefreshTokenByteForByte) {
  CreateManager();
  FetchRefreshToken("code");
  AnswerLast(201,
             R"({"access_token":"a","refresh_token":"1//\u00e4\u0000\n"})");
  EXPECT_EQ(std::string("1//\xc3\xa4\0\n", 7), test::GetFile(path_));
  EXPECT_EQ(0600, test::GetMode(path_));
  EXPECT_THAT(test::ListDirectory(folder_.path()),
              ElementsAre("refresh_token"));
}

TEST_F(OAuth2ManagerTest, ReportsSuccessBeforeItSavesTheToken) {
  CreateManager();
  bool existed = true;
  manager_->FetchRefreshToken("code",
                              [&](bool) { existed = test::Exists(path_); });
  AnswerLast(200, kGoodReply);
  EXPECT_FALSE(existed);
  EXPECT_EQ("new refresh", test::GetFile(path_));
}

TEST_F(OAuth2ManagerTest, HoldsNoTokenButKeepsTheFileDuringAnExchange) {
  CreateProvisioned("old", "old access");
  FetchRefreshToken("code");
  EXPECT_FALSE(manager_->HasRefreshToken());
  EXPECT_EQ("", manager_->GetAccessToken());
  EXPECT_EQ(2u, sent());
  EXPECT_EQ("old", test::GetFile(path_));
}

TEST_F(OAuth2ManagerTest, ReplacesAnOlderCredential) {
  CreateProvisioned("old", "old access");
  FetchRefreshToken("code");
  AnswerLast(200, kGoodReply);
  EXPECT_EQ("new access", manager_->GetAccessToken());
  EXPECT_EQ("new refresh", test::GetFile(path_));
}

TEST_F(OAuth2ManagerTest, FailsAnExchangeOnAnUnusableReply) {
  for (const char* body : {
           "",
           "not JSON",
           "[]",
           "\"access_token\"",
           "null",
           "{}",
           R"({"refresh_token":"r"})",
           R"({"access_token":"a"})",
           R"({"access_token":"","refresh_token":"r"})",
           R"({"access_token":"a","refresh_token":""})",
           R"({"access_token":1,"refresh_token":"r"})",
           R"({"access_token":"a","refresh_token":null})",
           R"({"access_token":"a","refresh_token":["r"]})",
           R"({"Access_Token":"a","Refresh_Token":"r"})",
       }) {
    test::PutFile(path_, "old");
    CreateManager();
    FetchRefreshToken("code");
    log_.Clear();
    outcomes_.clear();
    AnswerLast(200, body);
    EXPECT_THAT(outcomes_, ElementsAre(false)) << body;
    EXPECT_EQ("old", test::GetFile(path_)) << body;
    EXPECT_THAT(log_.lines(),
                ElementsAre(InfoLine("Successfully fetched refresh token: 200"),
                            ErrorLine("Unable to fetch refresh token")))
        << body;
  }
}

TEST_F(OAuth2ManagerTest, FailsAnExchangeOnAnErrorStatus) {
  CreateManager();
  FetchRefreshToken("code");
  log_.Clear();
  AnswerLast(400, R"({"error":"invalid_grant","access_token":"a",)"
                  R"("refresh_token":"r"})");
  EXPECT_THAT(outcomes_, ElementsAre(false));
  EXPECT_FALSE(manager_->HasRefreshToken());
  EXPECT_EQ("", manager_->GetAccessToken());
  EXPECT_FALSE(test::Exists(path_));
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(InfoLine("Successfully fetched refresh token: 400"),
                  ErrorLine("Error parsing oauth2 response: invalid_grant - "
                            "400"),
                  ErrorLine("Unable to fetch refresh token")));
}

TEST_F(OAuth2ManagerTest, FailsAnExchangeOnAnErrorStatusWithoutJson) {
  CreateManager();
  FetchRefreshToken("code");
  log_.Clear();
  AnswerLast(503, "<html>");
  EXPECT_THAT(outcomes_, ElementsAre(false));
  EXPECT_THAT(log_.lines(),
              ElementsAre(InfoLine("Successfully fetched refresh token: 503"),
                          ErrorLine("Unable to fetch refresh token")));
}

// Whatever the status below 400, the body decides.
TEST_F(OAuth2ManagerTest, TakesAReplyOfAnyStatusBelow400) {
  for (const int status : {100, 200, 204, 302, 399}) {
    CreateManager();
    FetchRefreshToken("code");
    outcomes_.clear();
    AnswerLast(status, kGoodReply);
    EXPECT_THAT(outcomes_, ElementsAre(true)) << status;
  }
}

TEST_F(OAuth2ManagerTest, KeepsTheAccessTokenOfAReplyWithoutRefreshToken) {
  CreateProvisioned("old", "old access");
  FetchRefreshToken("code");
  AnswerLast(200, R"({"access_token":"partial"})");
  EXPECT_THAT(outcomes_, ElementsAre(false));
  EXPECT_FALSE(manager_->HasRefreshToken());
  EXPECT_EQ("partial", manager_->GetAccessToken());
  EXPECT_EQ("old", test::GetFile(path_));
}

TEST_F(OAuth2ManagerTest, ReadsTheOldFileAgainAfterAFailedExchange) {
  CreateProvisioned("old", "old access");
  FetchRefreshToken("code");
  AnswerLast(200, R"({"access_token":"partial"})");
  CreateManager();
  EXPECT_TRUE(manager_->HasRefreshToken());
  ExpectNextRefreshSends("old");
}

// The access token is read first, and nothing else without it.
TEST_F(OAuth2ManagerTest, DropsTheRefreshTokenOfAReplyWithoutAccessToken) {
  CreateManager();
  FetchRefreshToken("code");
  AnswerLast(200, R"({"refresh_token":"r"})");
  EXPECT_FALSE(manager_->HasRefreshToken());
}

TEST_F(OAuth2ManagerTest, KeepsARefreshTokenThatCameWithAnEmptyAccessToken) {
  CreateManager();
  FetchRefreshToken("code");
  AnswerLast(200, R"({"access_token":"","refresh_token":"r"})");
  EXPECT_THAT(outcomes_, ElementsAre(false));
  EXPECT_TRUE(manager_->HasRefreshToken());
  EXPECT_FALSE(test::Exists(path_));
}

TEST_F(OAuth2ManagerTest, FailsAnExchangeWithoutAReply) {
  CreateProvisioned("old", "old access");
  FetchRefreshToken("code");
  log_.Clear();
  FailLast("no route");
  EXPECT_THAT(outcomes_, ElementsAre(false));
  EXPECT_FALSE(manager_->HasRefreshToken());
  EXPECT_EQ("", manager_->GetAccessToken());
  EXPECT_EQ("old", test::GetFile(path_));
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(WarningLine("Error fetching refresh token: no route")));
}

TEST_F(OAuth2ManagerTest, RejectsASecondExchangeAtOnce) {
  CreateManager();
  FetchRefreshToken("first");
  log_.Clear();
  std::vector<bool> second;
  manager_->FetchRefreshToken("second",
                              [&](bool success) { second.push_back(success); });
  EXPECT_THAT(second, ElementsAre(false));
  EXPECT_EQ(1u, sent());
  EXPECT_THAT(log_.lines(),
              ElementsAre(WarningLine(
                  "Request already outstanding: rejecting new request")));
  AnswerLast(200, kGoodReply);
  EXPECT_THAT(outcomes_, ElementsAre(true));
  EXPECT_THAT(second, ElementsAre(false));
}

TEST_F(OAuth2ManagerTest, TakesAnotherExchangeAfterEachEndOfOne) {
  CreateManager();
  FetchRefreshToken("first");
  AnswerLast(200, kGoodReply);
  FetchRefreshToken("second");
  AnswerLast(500, "{}");
  FetchRefreshToken("third");
  FailLast("no route");
  FetchRefreshToken("fourth");
  AnswerLast(200, kGoodReply);
  EXPECT_EQ(4u, sent());
  EXPECT_THAT(outcomes_, ElementsAre(true, false, false, true));
}

TEST_F(OAuth2ManagerTest, RejectsAnExchangeFromWithinTheCallback) {
  CreateManager();
  std::vector<bool> inner;
  manager_->FetchRefreshToken("first", [&](bool) {
    manager_->FetchRefreshToken(
        "second", [&](bool success) { inner.push_back(success); });
  });
  AnswerLast(200, kGoodReply);
  EXPECT_THAT(inner, ElementsAre(false));
  EXPECT_EQ(1u, sent());
  EXPECT_EQ("new refresh", test::GetFile(path_));
}

TEST_F(OAuth2ManagerTest, RejectsAnExchangeFromWithinAFailedCallback) {
  CreateManager();
  std::vector<bool> inner;
  manager_->FetchRefreshToken("first", [&](bool) {
    manager_->FetchRefreshToken(
        "second", [&](bool success) { inner.push_back(success); });
  });
  FailLast("no route");
  EXPECT_THAT(inner, ElementsAre(false));
  EXPECT_EQ(1u, sent());
}

TEST_F(OAuth2ManagerTest, ReleasesTheCallbackWhenItHasRun) {
  CreateManager();
  const auto held = std::make_shared<int>(0);
  manager_->FetchRefreshToken("code", [held](bool) {});
  AnswerLast(200, kGoodReply);
  EXPECT_EQ(1, held.use_count());
}

TEST_F(OAuth2ManagerTest, NeverRunsTheCallbackOnceDestroyed) {
  CreateManager();
  const auto held = std::make_shared<int>(0);
  manager_->FetchRefreshToken(
      "code", [this, held](bool success) { outcomes_.push_back(success); });
  manager_.reset();
  EXPECT_EQ(1, held.use_count());
  log_.Clear();
  AnswerLast(200, kGoodReply);
  EXPECT_THAT(outcomes_, IsEmpty());
  EXPECT_FALSE(test::Exists(path_));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(OAuth2ManagerTest, IgnoresALateErrorOnceDestroyed) {
  CreateManager();
  FetchRefreshToken("code");
  manager_.reset();
  log_.Clear();
  FailLast("no route");
  EXPECT_THAT(outcomes_, IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

// Saving. The asymmetry is meant: an error is survived, a write that takes no
// bytes is not.

TEST_F(OAuth2ManagerTest, SurvivesAnErrorWhileSaving) {
  CreateProvisioned("old", "old access");
  FetchRefreshToken("code");
  log_.Clear();
  {
    const test::ScopedSystemCalls calls(
        {.write = [](int, const void*, size_t) -> ssize_t {
          errno = ENOSPC;
          return -1;
        }});
    AnswerLast(200, kGoodReply);
  }
  EXPECT_THAT(outcomes_, ElementsAre(true));
  EXPECT_TRUE(manager_->HasRefreshToken());
  EXPECT_EQ("new access", manager_->GetAccessToken());
  EXPECT_EQ("old", test::GetFile(path_));
  EXPECT_THAT(log_.lines(),
              ElementsAre(InfoLine("Successfully fetched refresh token: 200")));
}

TEST_F(OAuth2ManagerTest, SurvivesADirectoryInPlaceOfTheFile) {
  test::MakeDirectory(path_);
  CreateManager();
  FetchRefreshToken("code");
  log_.Clear();
  AnswerLast(200, kGoodReply);
  EXPECT_THAT(outcomes_, ElementsAre(true));
  EXPECT_TRUE(manager_->HasRefreshToken());
  EXPECT_THAT(log_.lines(),
              ElementsAre(InfoLine("Successfully fetched refresh token: 200")));
}

using OAuth2ManagerDeathTest = OAuth2ManagerTest;

TEST_F(OAuth2ManagerDeathTest, DiesWhenSavingTakesNoBytes) {
  CreateManager();
  FetchRefreshToken("code");
  const auto answer_while_nothing_is_taken = [this] {
    const test::ScopedSystemCalls calls(
        {.write = [](int, const void*, size_t) -> ssize_t { return 0; }});
    AnswerLast(200, kGoodReply);
  };
  EXPECT_EXIT(
      answer_while_nothing_is_taken(), testing::KilledBySignal(SIGABRT),
      "\\[FATAL\\] Check failed: base::WriteFile\\(refresh_token_file_, "
      "refresh_token_.data\\(\\), refresh_token_.length\\(\\)\\). "
      "Unable to save refresh token\n");
}

// Access tokens.

TEST_F(OAuth2ManagerTest, RefreshesTheAccessToken) {
  test::PutFile(path_, "1/old");
  CreateManager();
  ASSERT_EQ(1u, sent());
  EXPECT_EQ("POST", last_request().method);
  EXPECT_EQ("https://identity.vantrel.example/o/oauth2/token",
            last_request().url);
  EXPECT_THAT(
      last_request().headers,
      ElementsAre(Pair("Content-Type", "application/x-www-form-urlencoded")));
  EXPECT_EQ(
      "refresh_token=1%2Fold&client_id=an%20id&client_secret=a%20secret"
      "&grant_type=refresh_token",
      last_request().body);
}

TEST_F(OAuth2ManagerTest, CachesTheAccessToken) {
  CreateProvisioned("old");
  EXPECT_EQ("", manager_->GetAccessToken());
  AnswerLast(200, R"({"access_token":"access"})");
  EXPECT_EQ("access", manager_->GetAccessToken());
  clock_.Advance(std::chrono::hours(24));
  EXPECT_EQ("access", manager_->GetAccessToken());
  EXPECT_EQ(1u, sent());
  EXPECT_THAT(log_.lines(),
              ElementsAre(InfoLine("Successfully fetched access token: 200")));
}

TEST_F(OAuth2ManagerTest, IgnoresTheRestOfARefreshReply) {
  CreateProvisioned("old");
  AnswerLast(200, R"({"expires_in":0,"refresh_token":"other",)"
                  R"("access_token":"access","token_type":1})");
  EXPECT_EQ("access", manager_->GetAccessToken());
  EXPECT_EQ("old", test::GetFile(path_));
  manager_->ValidateResponse({401, ""});
  ExpectNextRefreshSends("old");
}

TEST_F(OAuth2ManagerTest, StartsOneRefreshIn30Seconds) {
  CreateProvisioned("old");
  EXPECT_EQ("", manager_->GetAccessToken());
  clock_.Advance(seconds(10));
  EXPECT_EQ("", manager_->GetAccessToken());
  EXPECT_EQ(1u, sent());
  clock_.Advance(seconds(20));
  EXPECT_EQ("", manager_->GetAccessToken());
  EXPECT_EQ(2u, sent());
}

TEST_F(OAuth2ManagerTest, CountsThe30SecondsToTheMicrosecond) {
  CreateProvisioned("old");
  clock_.Advance(microseconds(29'999'999));
  manager_->GetAccessToken();
  EXPECT_EQ(1u, sent());
  EXPECT_THAT(log_.lines(), IsEmpty());
  clock_.Advance(microseconds(1));
  manager_->GetAccessToken();
  EXPECT_EQ(2u, sent());
  EXPECT_THAT(log_.lines(), ElementsAre(InfoLine("Refreshing access token.")));
}

TEST_F(OAuth2ManagerTest, CountsThe30SecondsFromTheStartOfARefresh) {
  CreateProvisioned("old");
  clock_.Advance(seconds(29));
  FailLast("no route");
  clock_.Advance(seconds(1));
  manager_->GetAccessToken();
  EXPECT_EQ(2u, sent());
}

TEST_F(OAuth2ManagerTest, DoesNotCountRefreshesThatItDidNotStart) {
  CreateProvisioned("old");
  for (int i = 0; i < 29; ++i) {
    clock_.Advance(seconds(1));
    manager_->GetAccessToken();
  }
  EXPECT_EQ(1u, sent());
  clock_.Advance(seconds(1));
  manager_->GetAccessToken();
  EXPECT_EQ(2u, sent());
}

// An exchange neither counts as a refresh nor lets one be started earlier.
TEST_F(OAuth2ManagerTest, KeepsTheLimitAcrossAnExchange) {
  CreateProvisioned("old");
  FetchRefreshToken("code");
  AnswerLast(200, kGoodReply);
  manager_->ValidateResponse({401, ""});
  EXPECT_EQ(2u, sent());
  ExpectNextRefreshSends("new%20refresh");
  EXPECT_EQ(3u, sent());
}

TEST_F(OAuth2ManagerTest, StartsARefreshRightAfterAFirstExchange) {
  CreateManager();
  FetchRefreshToken("code");
  AnswerLast(200, kGoodReply);
  manager_->ValidateResponse({401, ""});
  EXPECT_EQ(2u, sent());
}

// A reply to a refresh that was sent before an exchange began is still taken.
TEST_F(OAuth2ManagerTest, TakesALateRefreshReplyDuringAnExchange) {
  CreateProvisioned("old");
  FetchRefreshToken("code");
  transport_->Answer(0, 200, R"({"access_token":"late"})");
  EXPECT_EQ("late", manager_->GetAccessToken());
  EXPECT_FALSE(manager_->HasRefreshToken());
}

TEST_F(OAuth2ManagerTest, DiscardsTheCredentialOnAnUnusableRefreshReply) {
  for (const char* body :
       {"", "not JSON", "[]", "{}", R"({"access_token":""})",
        R"({"access_token":null})", R"({"access_token":1})"}) {
    test::PutFile(path_, "old");
    CreateManager();
    log_.Clear();
    AnswerLast(200, body);
    EXPECT_FALSE(manager_->HasRefreshToken()) << body;
    EXPECT_EQ("", manager_->GetAccessToken()) << body;
    EXPECT_FALSE(test::Exists(path_)) << body;
    EXPECT_THAT(log_.lines(),
                ElementsAre(InfoLine("Successfully fetched access token: 200")))
        << body;
  }
}

TEST_F(OAuth2ManagerTest, DiscardsTheCredentialOnAServerError) {
  CreateProvisioned("old");
  AnswerLast(500, R"({"error":"x"})");
  EXPECT_FALSE(manager_->HasRefreshToken());
  EXPECT_FALSE(test::Exists(path_));
  EXPECT_THAT(log_.lines(),
              ElementsAre(InfoLine("Successfully fetched access token: 500"),
                          ErrorLine("Error parsing oauth2 response: x - 500")));
}

TEST_F(OAuth2ManagerTest, DiscardsTheCredentialOnAnErrorWithAnAccessToken) {
  CreateProvisioned("old");
  AnswerLast(400, R"({"access_token":"access"})");
  EXPECT_FALSE(manager_->HasRefreshToken());
  EXPECT_EQ("", manager_->GetAccessToken());
  EXPECT_FALSE(test::Exists(path_));
}

TEST_F(OAuth2ManagerTest, DiscardsTheCredentialOnAnErrorWithoutJson) {
  CreateProvisioned("old");
  AnswerLast(400, "<html>");
  EXPECT_FALSE(manager_->HasRefreshToken());
  EXPECT_FALSE(test::Exists(path_));
  EXPECT_THAT(log_.lines(),
              ElementsAre(InfoLine("Successfully fetched access token: 400")));
}

TEST_F(OAuth2ManagerTest, NamesAnErrorThatTheReplyDoesNotName) {
  for (const char* body : {"{}", R"({"error":1})", R"({"error":null})"}) {
    CreateProvisioned("old");
    AnswerLast(400, body);
    EXPECT_THAT(log_.lines(),
                ElementsAre(InfoLine("Successfully fetched access token: 400"),
                            ErrorLine("Error parsing oauth2 response: "
                                      "unexpected_response - 400")))
        << body;
  }
}

TEST_F(OAuth2ManagerTest, NamesAnEmptyErrorAsItIs) {
  CreateProvisioned("old");
  AnswerLast(401, R"({"error":""})");
  EXPECT_THAT(log_.lines(),
              ElementsAre(InfoLine("Successfully fetched access token: 401"),
                          ErrorLine("Error parsing oauth2 response:  - 401")));
}

TEST_F(OAuth2ManagerTest, TakesAnErrorMemberForNothingBelow400) {
  CreateProvisioned("old");
  AnswerLast(399, R"({"error":"x","access_token":"access"})");
  EXPECT_EQ("access", manager_->GetAccessToken());
  EXPECT_THAT(log_.lines(),
              ElementsAre(InfoLine("Successfully fetched access token: 399")));
}

TEST_F(OAuth2ManagerTest, LogsAFileThatCannotBeDeleted) {
  CreateProvisioned("old");
  ASSERT_EQ(0, remove(path_.c_str()));
  test::MakeDirectory(path_);
  AnswerLast(200, "{}");
  EXPECT_FALSE(manager_->HasRefreshToken());
  EXPECT_THAT(log_.lines(),
              ElementsAre(InfoLine("Successfully fetched access token: 200"),
                          ErrorLine("Unable to delete saved refresh token")));
}

TEST_F(OAuth2ManagerTest, CountsAFileThatIsGoneAsDeleted) {
  CreateProvisioned("old");
  ASSERT_EQ(0, remove(path_.c_str()));
  AnswerLast(200, "{}");
  EXPECT_THAT(log_.lines(),
              ElementsAre(InfoLine("Successfully fetched access token: 200")));
}

TEST_F(OAuth2ManagerTest, StartsNoRefreshWithoutACredential) {
  CreateProvisioned("old");
  AnswerLast(400, "{}");
  clock_.Advance(std::chrono::hours(1));
  EXPECT_EQ("", manager_->GetAccessToken());
  EXPECT_EQ(1u, sent());
}

TEST_F(OAuth2ManagerTest, KeepsTheCredentialIfARefreshGetsNoReply) {
  CreateProvisioned("old");
  FailLast("no route");
  EXPECT_TRUE(manager_->HasRefreshToken());
  EXPECT_EQ("", manager_->GetAccessToken());
  EXPECT_EQ("old", test::GetFile(path_));
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(WarningLine("Error fetching access token: no route")));
  ExpectNextRefreshSends("old");
}

TEST_F(OAuth2ManagerTest, DropsTheAccessTokenIfALateRefreshGetsNoReply) {
  CreateProvisioned("old");
  clock_.Advance(seconds(30));
  manager_->GetAccessToken();
  transport_->Answer(1, 200, R"({"access_token":"access"})");
  EXPECT_EQ("access", manager_->GetAccessToken());
  transport_->Fail(0, "timeout", "too late");
  EXPECT_EQ("", manager_->GetAccessToken());
}

TEST_F(OAuth2ManagerTest, DropsTheAccessTokenOnALateUnusableRefreshReply) {
  CreateProvisioned("old");
  clock_.Advance(seconds(30));
  manager_->GetAccessToken();
  transport_->Answer(1, 200, R"({"access_token":"access"})");
  EXPECT_EQ("access", manager_->GetAccessToken());
  transport_->Answer(0, 400, "{}");
  EXPECT_EQ("", manager_->GetAccessToken());
  EXPECT_FALSE(manager_->HasRefreshToken());
}

TEST_F(OAuth2ManagerTest, IgnoresALateRefreshReplyOnceDestroyed) {
  CreateProvisioned("old");
  manager_.reset();
  AnswerLast(400, "{}");
  EXPECT_EQ("old", test::GetFile(path_));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(OAuth2ManagerTest, IgnoresALateRefreshErrorOnceDestroyed) {
  CreateProvisioned("old");
  manager_.reset();
  FailLast("no route");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

// Responses of the cloud.

TEST_F(OAuth2ManagerTest, DropsTheAccessTokenOn401) {
  CreateProvisioned("old", "access");
  clock_.Advance(seconds(30));
  EXPECT_FALSE(manager_->ValidateResponse({401, "{}"}));
  EXPECT_EQ("", manager_->GetAccessToken());
  EXPECT_EQ(2u, sent());
  EXPECT_TRUE(manager_->HasRefreshToken());
  EXPECT_THAT(log_.lines(), ElementsAre(InfoLine("Access token invalidated"),
                                        InfoLine("Refreshing access token.")));
  AnswerLast(200, R"({"access_token":"fresh"})");
  EXPECT_EQ("fresh", manager_->GetAccessToken());
}

TEST_F(OAuth2ManagerTest, LimitsTheRefreshesAfter401Too) {
  CreateProvisioned("old", "access");
  clock_.Advance(microseconds(29'999'999));
  EXPECT_FALSE(manager_->ValidateResponse({401, "{}"}));
  EXPECT_FALSE(manager_->ValidateResponse({401, "{}"}));
  EXPECT_EQ("", manager_->GetAccessToken());
  EXPECT_EQ(1u, sent());
  EXPECT_THAT(log_.lines(), ElementsAre(InfoLine("Access token invalidated"),
                                        InfoLine("Access token invalidated")));
}

// Intended: the limit is the only condition.
TEST_F(OAuth2ManagerTest, RefreshesAfter401EvenWithoutARefreshToken) {
  CreateManager();
  EXPECT_FALSE(manager_->ValidateResponse({401, "{}"}));
  ASSERT_EQ(1u, sent());
  EXPECT_THAT(last_request().body, testing::StartsWith("refresh_token=&"));
}

TEST_F(OAuth2ManagerTest, AcceptsEveryOtherStatus) {
  CreateProvisioned("old", "access");
  for (const int status : {0, 200, 204, 302, 400, 402, 403, 404, 407, 500}) {
    EXPECT_TRUE(manager_->ValidateResponse({status, "{}"})) << status;
  }
  EXPECT_EQ("access", manager_->GetAccessToken());
  EXPECT_EQ(1u, sent());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

// What is secret.

TEST_F(OAuth2ManagerTest, LogsNoSecret) {
  test::PutFile(path_, "S3CR3T-file");
  manager_ = std::make_unique<OAuth2Manager>("id", "S3CR3T-client", "scope",
                                             base::FilePath(path_), transport_);
  AnswerLast(200, R"({"access_token":"S3CR3T-access"})");
  manager_->ValidateResponse({401, R"({"error":"S3CR3T-body"})"});
  FetchRefreshToken("S3CR3T-code");
  FetchRefreshToken("S3CR3T-code-2");
  AnswerLast(200, R"({"access_token":"S3CR3T-a","refresh_token":"S3CR3T-r"})");
  clock_.Advance(seconds(30));
  manager_->ValidateResponse({401, "S3CR3T"});
  AnswerLast(500, R"({"access_token":"S3CR3T"})");
  EXPECT_FALSE(log_.lines().empty());
  for (const test::LogLine& line : log_.lines()) {
    EXPECT_THAT(line.text, testing::Not(testing::HasSubstr("S3CR3T")));
  }
}

}  // namespace
}  // namespace halvex::ap
