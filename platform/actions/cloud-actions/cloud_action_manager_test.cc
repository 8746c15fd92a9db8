// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "platform/actions/cloud-actions/cloud_action_manager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "base/event_loop.h"
#include "dbus/bus.h"
#include "dosset/dbus-proxies.h"
#include "platform/actions/cloud-actions/source_locations.h"
#include "tests/support/fake_clock.h"
#include "tests/support/fake_transport.h"
#include "tests/support/log_capture.h"
#include "tests/support/private_root.h"
#include "tests/support/temp_directory.h"

namespace halvex::actions {
namespace {

using test::At;
using test::ErrorLine;
using test::InfoLine;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

[[maybe_unused]] testing::Environment* const g_private_root =
    testing::AddGlobalTestEnvironment(new test::PrivateRoot);

constexpr char kSource[] =
    "platform/actions/cloud-actions/cloud_action_manager";

const test::LogLine kNoConfig =
    ErrorLine("Failed to load config file /etc/ap/cloud_action.conf");
const test::LogLine kMissingFields =
    ErrorLine("Missing fields in the config file - file corrupted?");
const test::LogLine kGoingOn =
    At(kSource, 52,
       ErrorLine("Not reached: the configuration is incomplete, going on with "
                 "what was read"));
const test::LogLine kNoEndpoints =
    ErrorLine("Failed to read file: /var/lib/cloud_action/allowed_endpoints");
const test::LogLine kRefreshing = InfoLine("Refreshing access token.");

constexpr char kConfig[] =
    "SMARTHOME_CLIENT_ID=id\n"
    "SMARTHOME_CLIENT_SECRET=secret\n"
    "SMARTHOME_SCOPE=scope\n";

// How a request ended.
struct Outcome {
  int32_t status_code;
  std::string response_body;
  // Empty without an error.
  std::string domain;
  std::string code;
  std::string message;
  // "function file line".
  std::string location;
  bool has_inner_error;
};

MATCHER_P2(IsResult, status_code, response_body, "") {
  return arg.domain.empty() && arg.status_code == status_code &&
         arg.response_body == response_body;
}

std::string LocationText(const std::string& function, int line) {
  return function + " " + kSource + " " + std::to_string(line);
}

// An error of the daemon itself.
MATCHER_P4(IsError, code, message, function, line, "") {
  *result_listener << arg.domain << "/" << arg.code << ": " << arg.message
                   << " at " << arg.location;
  return arg.status_code == 0 && arg.response_body.empty() &&
         arg.domain == "actions" && arg.code == code &&
         arg.message == message &&
         arg.location == LocationText(function, line) && !arg.has_inner_error;
}

void PrintTo(const Outcome& outcome, std::ostream* output) {
  *output << outcome.status_code << " " << outcome.response_body << " "
          << outcome.domain << "/" << outcome.code << ": " << outcome.message;
}

// Without a bus: the agent never comes.
class CloudActionManagerTest : public testing::Test {
 protected:
  CloudActionManagerTest() { test::PrivateRoot::Reset(); }

  void CreateManager() {
    manager_ = std::make_unique<CloudActionManager>(&agent_);
  }

  // A manager that holds "refresh" for a credential and admits `endpoints`.
  // Its request for an access token is the first request.
  void CreateProvisioned(const std::string& endpoints) {
    test::PutFile(kConfigFile, kConfig);
    test::PutFile(kAllowedEndpointsFile, endpoints);
    test::PutFile(kRefreshTokenFile, "refresh");
    CreateManager();
    ASSERT_EQ(1u, requests().size());
    log_.Clear();
  }

  // The same with the access token "access".
  void CreateReady(const std::string& endpoints) {
    CreateProvisioned(endpoints);
    transport_->Answer(0, 200, R"({"access_token":"access"})");
    log_.Clear();
  }

  void Redirect(const std::string& endpoint, const std::string& method,
                const std::string& body) {
    manager_->RedirectRequest(
        endpoint, method, body,
        [this](const RedirectResult& result, const kestrix::Error* error) {
          OnDone(result, error);
        });
  }

  void OnDone(const RedirectResult& result, const kestrix::Error* error) {
    Outcome outcome{
        result.status_code, result.response_body, "", "", "", "", false};
    if (error) {
      outcome.domain = error->GetDomain();
      outcome.code = error->GetCode();
      outcome.message = error->GetMessage();
      const base::Location& location = error->GetLocation();
      outcome.location = std::string(location.function) + " " + location.file +
                         " " + std::to_string(location.line);
      outcome.has_inner_error = error->GetInnerError() != nullptr;
    }
    outcomes_.push_back(outcome);
  }

  // Whether `endpoint` passes the test against the list.
  bool Admits(const std::string& endpoint) {
    outcomes_.clear();
    const size_t before = requests().size();
    Redirect(endpoint, "GET", "");
    return requests().size() == before + 1;
  }

  const std::vector<kestrix::http::Request>& requests() const {
    return transport_->requests();
  }
  void AnswerLast(int status, const std::string& body) {
    transport_->Answer(requests().size() - 1, status, body);
  }

  test::FakeClock clock_;
  test::LogCapture log_;
  base::EventLoop loop_;
  dbus::Bus bus_{&loop_};
  org::vantrel::Dosset::ObjectManagerProxy agent_{&bus_};
  std::shared_ptr<test::FakeTransport> transport_ =
      test::FakeTransport::Create();
  std::unique_ptr<CloudActionManager> manager_;
  std::vector<Outcome> outcomes_;
};

// Construction.

TEST(CloudActionManagerFilesTest, HasFixedPaths) {
  EXPECT_STREQ("/etc/ap/cloud_action.conf", kConfigFile);
  EXPECT_STREQ("/var/lib/cloud_action/allowed_endpoints",
               kAllowedEndpointsFile);
  EXPECT_STREQ("/var/lib/cloud_action/refresh_token", kRefreshTokenFile);
}

TEST(CloudActionManagerErrorsTest, HasFixedNames) {
  EXPECT_STREQ("actions", errors::kDomain);
  EXPECT_STREQ("invalid_arguments", errors::kInvalidArguments);
  EXPECT_STREQ("remote_error", errors::kRemoteError);
  EXPECT_STREQ("parsing_error", errors::kParsingError);
  EXPECT_STREQ("internal_error", errors::kInternalError);
}

// What the log does not show of them.
TEST(CloudActionManagerLocationsTest, NameTheirFunctions) {
  EXPECT_STREQ("CloudActionManager",
               source_locations::kConfigNotLoaded.function);
  EXPECT_STREQ("OnRequestSuccess",
               source_locations::kAccessTokenInvalidated.function);
}

TEST_F(CloudActionManagerTest, SetsTheTimeoutOfTheSharedTransport) {
  CreateManager();
  EXPECT_THAT(transport_->timeouts(), ElementsAre(base::TimeDelta(30'000'000)));
}

TEST_F(CloudActionManagerTest, SharesTheTransportWithTheTokenManager) {
  CreateProvisioned("");
  // The test, the manager and its token manager.
  EXPECT_EQ(3, transport_.use_count());
  manager_.reset();
  EXPECT_EQ(1, transport_.use_count());
}

TEST_F(CloudActionManagerTest, StartsWithoutAnyFile) {
  CreateManager();
  EXPECT_THAT(log_.lines(), ElementsAre(kNoConfig, kGoingOn, kNoEndpoints));
  EXPECT_THAT(requests(), IsEmpty());
  Redirect("https://h/", "GET", "");
  EXPECT_THAT(outcomes_,
              ElementsAre(IsError("invalid_arguments",
                                  "Endpoint https://h/ not whitelisted",
                                  "RedirectRequest", 103)));
}

TEST_F(CloudActionManagerTest, StartsInAFixedOrder) {
  test::PutFile(kRefreshTokenFile, "refresh");
  CreateManager();
  // The configuration, the endpoints, and last the token manager.
  EXPECT_THAT(log_.lines(),
              ElementsAre(kNoConfig, kGoingOn, kNoEndpoints, kRefreshing));
}

TEST_F(CloudActionManagerTest, StartsSilentlyWithAllFiles) {
  test::PutFile(kConfigFile, kConfig);
  test::PutFile(kAllowedEndpointsFile, "https://h/");
  test::PutFile(kRefreshTokenFile, "refresh");
  CreateManager();
  EXPECT_THAT(log_.lines(), ElementsAre(kRefreshing));
}

// Configuration. The refresh request shows what has been read.

TEST_F(CloudActionManagerTest, ReadsTheConfiguration) {
  test::PutFile(kConfigFile, kConfig);
  test::PutFile(kRefreshTokenFile, "refresh");
  CreateManager();
  ASSERT_EQ(1u, requests().size());
  EXPECT_EQ(
      "refresh_token=refresh&client_id=id&client_secret=secret"
      "&grant_type=refresh_token",
      requests()[0].body);
  EXPECT_THAT(log_.lines(), ElementsAre(kNoEndpoints, kRefreshing));
}

TEST_F(CloudActionManagerTest, IgnoresOtherKeysAndTheOrderOfKeys) {
  test::PutFile(kConfigFile,
                "OTHER=x\nSMARTHOME_SCOPE=scope\nSMARTHOME_CLIENT_SECRET=secret"
                "\nsmarthome_client_id=y\nSMARTHOME_CLIENT_ID=id\n");
  CreateManager();
  EXPECT_THAT(log_.lines(), ElementsAre(kNoEndpoints));
}

TEST_F(CloudActionManagerTest, CountsAnEmptyValueAsPresent) {
  test::PutFile(kConfigFile,
                "SMARTHOME_CLIENT_ID=\nSMARTHOME_CLIENT_SECRET=\n"
                "SMARTHOME_SCOPE=\n");
  CreateManager();
  EXPECT_THAT(log_.lines(), ElementsAre(kNoEndpoints));
}

TEST_F(CloudActionManagerTest, GoesOnWithAConfigurationThatCannotBeRead) {
  test::MakeDirectory(kConfigFile);
  test::PutFile(kRefreshTokenFile, "refresh");
  CreateManager();
  EXPECT_THAT(log_.lines(),
              ElementsAre(kNoConfig, kGoingOn, kNoEndpoints, kRefreshing));
  EXPECT_EQ(
      "refresh_token=refresh&client_id=&client_secret="
      "&grant_type=refresh_token",
      requests()[0].body);
}

TEST_F(CloudActionManagerTest, KeepsWhatPrecedesTheFirstMissingKey) {
  test::PutFile(kConfigFile, "SMARTHOME_CLIENT_ID=id\nSMARTHOME_SCOPE=scope\n");
  test::PutFile(kRefreshTokenFile, "refresh");
  CreateManager();
  EXPECT_THAT(log_.lines(),
              ElementsAre(kMissingFields, kGoingOn, kNoEndpoints, kRefreshing));
  EXPECT_EQ(
      "refresh_token=refresh&client_id=id&client_secret="
      "&grant_type=refresh_token",
      requests()[0].body);
}

TEST_F(CloudActionManagerTest, ReadsNothingAfterAMissingClientId) {
  test::PutFile(kConfigFile,
                "SMARTHOME_CLIENT_SECRET=secret\nSMARTHOME_SCOPE=scope\n");
  test::PutFile(kRefreshTokenFile, "refresh");
  CreateManager();
  EXPECT_THAT(log_.lines(),
              ElementsAre(kMissingFields, kGoingOn, kNoEndpoints, kRefreshing));
  EXPECT_THAT(requests()[0].body,
              testing::HasSubstr("&client_id=&client_secret=&"));
}

TEST_F(CloudActionManagerTest, MissesAMissingScope) {
  test::PutFile(kConfigFile,
                "SMARTHOME_CLIENT_ID=id\nSMARTHOME_CLIENT_SECRET=secret\n");
  test::PutFile(kRefreshTokenFile, "refresh");
  CreateManager();
  EXPECT_THAT(log_.lines(),
              ElementsAre(kMissingFields, kGoingOn, kNoEndpoints, kRefreshing));
  EXPECT_THAT(requests()[0].body,
              testing::HasSubstr("&client_id=id&client_secret=secret&"));
}

TEST_F(CloudActionManagerTest, FindsNoKeyInAnEmptyConfiguration) {
  test::PutFile(kConfigFile, "");
  CreateManager();
  EXPECT_THAT(log_.lines(),
              ElementsAre(kMissingFields, kGoingOn, kNoEndpoints));
}

// Whether there is a credential.

TEST_F(CloudActionManagerTest, CountsAnEmptyRefreshTokenAsProvisioned) {
  test::PutFile(kAllowedEndpointsFile, "https://h/");
  test::PutFile(kRefreshTokenFile, "");
  CreateManager();
  EXPECT_TRUE(Admits("https://h/"));
}

TEST_F(CloudActionManagerTest, CountsAnUnreadableRefreshTokenAsProvisioned) {
  test::PutFile(kAllowedEndpointsFile, "https://h/");
  test::MakeDirectory(kRefreshTokenFile);
  CreateManager();
  EXPECT_TRUE(Admits("https://h/"));
}

TEST_F(CloudActionManagerTest, StaysProvisionedWhenTheTokenIsDiscarded) {
  CreateProvisioned("https://h/");
  transport_->Answer(0, 400, R"({"error":"invalid_grant"})");
  EXPECT_FALSE(test::Exists(kRefreshTokenFile));
  EXPECT_TRUE(Admits("https://h/"));
}

// The list of allowed endpoints.

TEST_F(CloudActionManagerTest, ReadsEndpointsInTheirOrder) {
  CreateReady("https://a/p,https://b/q");
  EXPECT_TRUE(Admits("https://a/p"));
  EXPECT_TRUE(Admits("https://b/q"));
  EXPECT_FALSE(Admits("https://a/q"));
}

TEST_F(CloudActionManagerTest, ReadsAFileThatWasEditedByHand) {
  CreateReady("\t https://a/p , ,,https://b/q\n");
  EXPECT_TRUE(Admits("https://a/p"));
  EXPECT_TRUE(Admits("https://b/q"));
}

TEST_F(CloudActionManagerTest, PassesOverEmptyPiecesSilently) {
  test::PutFile(kConfigFile, kConfig);
  test::PutFile(kRefreshTokenFile, "refresh");
  test::PutFile(kAllowedEndpointsFile, ",https://a/p, ,,\n");
  CreateManager();
  EXPECT_THAT(log_.lines(), ElementsAre(kRefreshing));
}

TEST_F(CloudActionManagerTest, TakesLinesForOneEndpoint) {
  // The comma is the only separator.
  CreateReady("https://a/p\nhttps://b/q\n");
  EXPECT_FALSE(Admits("https://b/q"));
  EXPECT_TRUE(Admits("https://a/p\nhttps://b/q"));
}

TEST_F(CloudActionManagerTest, DropsInvalidEndpointsOneByOne) {
  test::PutFile(kConfigFile, kConfig);
  test::PutFile(kRefreshTokenFile, "refresh");
  test::PutFile(kAllowedEndpointsFile,
                "ftp://c/,https://a/p,https://d/..,nonsense,https://b/q");
  CreateManager();
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(ErrorLine("Ignore invalid endpoint URL: ftp://c/"),
                  ErrorLine("Path contains reference to parent directory: /.."),
                  ErrorLine("Ignore invalid endpoint URL: https://d/.."),
                  ErrorLine("Ignore invalid endpoint URL: nonsense"),
                  kRefreshing));
  EXPECT_TRUE(Admits("https://a/p"));
  EXPECT_TRUE(Admits("https://b/q"));
  EXPECT_FALSE(Admits("https://d/"));
}

TEST_F(CloudActionManagerTest, ReadsAnEmptyListSilently) {
  test::PutFile(kConfigFile, kConfig);
  test::PutFile(kAllowedEndpointsFile, "");
  CreateManager();
  EXPECT_THAT(log_.lines(), IsEmpty());
  EXPECT_FALSE(Admits("https://h/"));
}

TEST_F(CloudActionManagerTest, LogsAnUnreadableList) {
  test::PutFile(kConfigFile, kConfig);
  test::MakeDirectory(kAllowedEndpointsFile);
  CreateManager();
  EXPECT_THAT(log_.lines(), ElementsAre(kNoEndpoints));
}

TEST_F(CloudActionManagerTest, CleansUpAfterAWriteThatWasCutShort) {
  test::PutFile(std::string(kAllowedEndpointsFile) + ".tmp.AbCdEf", "https:");
  CreateManager();
  EXPECT_THAT(test::ListDirectory("/var/lib/cloud_action"), IsEmpty());
}

TEST_F(CloudActionManagerTest, ReadsItsFilesOnlyAtTheStart) {
  CreateReady("https://h/");
  test::PutFile(kAllowedEndpointsFile, "https://other/");
  ASSERT_EQ(0, remove(kRefreshTokenFile));
  EXPECT_TRUE(Admits("https://h/"));
  EXPECT_FALSE(Admits("https://other/"));
}

// Refused requests, in the order of the checks. Each of these would fail the
// later checks as well.

TEST_F(CloudActionManagerTest, ChecksTheUrlFirst) {
  CreateManager();
  log_.Clear();
  Redirect("nonsense", "PUT", "{");
  EXPECT_THAT(outcomes_,
              ElementsAre(IsError("invalid_arguments",
                                  "Endpoint nonsense is not a valid URL",
                                  "RedirectRequest", 81)));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(CloudActionManagerTest, ChecksTheListSecond) {
  CreateManager();
  log_.Clear();
  Redirect("https://h/x", "PUT", "{");
  EXPECT_THAT(outcomes_,
              ElementsAre(IsError("invalid_arguments",
                                  "Endpoint https://h/x not whitelisted",
                                  "RedirectRequest", 103)));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(CloudActionManagerTest, ChecksTheCredentialThird) {
  test::PutFile(kAllowedEndpointsFile, "https://h/");
  CreateManager();
  log_.Clear();
  Redirect("https://h/x", "PUT", "{");
  EXPECT_THAT(outcomes_,
              ElementsAre(IsError("invalid_arguments",
                                  "Authorization code not provisioned",
                                  "RedirectRequest", 115)));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(CloudActionManagerTest, ChecksTheBodyOfAPost) {
  CreateReady("https://h/");
  for (const char* body : {"", "{", "{}x", "nonsense", "{'a':1}", "\xff"}) {
    outcomes_.clear();
    Redirect("https://h/", "POST", body);
    EXPECT_THAT(outcomes_,
                ElementsAre(IsError("invalid_arguments",
                                    "Request body not in JSON format",
                                    "RedirectRequest", 129)))
        << body;
  }
  EXPECT_EQ(1u, requests().size());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(CloudActionManagerTest, ChecksTheMethodLast) {
  CreateReady("https://h/");
  for (const std::string method :
       {"PUT", "put", "DELETE", "", "GETS", "GE", " GET", "POST ", "%s"}) {
    outcomes_.clear();
    Redirect("https://h/", method, "{");
    EXPECT_THAT(outcomes_,
                ElementsAre(IsError("invalid_arguments",
                                    "Method " + method + " not supported",
                                    "RedirectRequest", 162)));
  }
  EXPECT_EQ(1u, requests().size());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(CloudActionManagerTest, QuotesTheEndpointAsItWasGiven) {
  CreateReady("https://h/api");
  Redirect("HTTPS://h/%s%n", "GET", "");
  Redirect("http://h:80/x%s%n?q#f", "GET", "");
  EXPECT_THAT(outcomes_,
              ElementsAre(IsError("invalid_arguments",
                                  "Endpoint HTTPS://h/%s%n is not a valid URL",
                                  "RedirectRequest", 81),
                          IsError("invalid_arguments",
                                  "Endpoint http://h:80/x%s%n?q#f not "
                                  "whitelisted",
                                  "RedirectRequest", 103)));
}

TEST_F(CloudActionManagerTest, LogsAnEndpointWithParentDirectory) {
  CreateReady("https://h/");
  Redirect("https://h/a/../b", "GET", "");
  EXPECT_THAT(outcomes_,
              ElementsAre(IsError("invalid_arguments",
                                  "Endpoint https://h/a/../b is not a valid "
                                  "URL",
                                  "RedirectRequest", 81)));
  EXPECT_THAT(log_.lines(),
              ElementsAre(ErrorLine(
                  "Path contains reference to parent directory: /a/../b")));
}

TEST_F(CloudActionManagerTest, AnswersARefusedRequestBeforeItReturns) {
  CreateManager();
  EXPECT_THAT(outcomes_, IsEmpty());
  Redirect("nonsense", "GET", "");
  EXPECT_EQ(1u, outcomes_.size());
}

// Requests that go out.

TEST_F(CloudActionManagerTest, SendsAGet) {
  CreateReady("https://h/");
  Redirect("https://h/x?y=1", "GET", "{}");
  ASSERT_EQ(2u, requests().size());
  EXPECT_EQ("GET", requests()[1].method);
  EXPECT_EQ("https://h/x?y=1", requests()[1].url);
  EXPECT_THAT(requests()[1].headers,
              ElementsAre(Pair("Authorization", "Bearer access"),
                          Pair("Content-Type", "application/json")));
  EXPECT_EQ("", requests()[1].body);
  EXPECT_THAT(outcomes_, IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(CloudActionManagerTest, SendsAPost) {
  CreateReady("https://h/");
  Redirect("https://h/x", "POST", R"( { "b" : 1.50 , "a" : [ ] } )");
  ASSERT_EQ(2u, requests().size());
  EXPECT_EQ("POST", requests()[1].method);
  EXPECT_EQ("https://h/x", requests()[1].url);
  EXPECT_THAT(requests()[1].headers,
              ElementsAre(Pair("Authorization", "Bearer access"),
                          Pair("Content-Type", "application/json")));
  EXPECT_EQ(R"({"b":1.50,"a":[]})", requests()[1].body);
  EXPECT_THAT(outcomes_, IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(CloudActionManagerTest, IgnoresTheCaseOfTheMethod) {
  CreateReady("https://h/");
  for (const char* method : {"get", "Get", "gEt"}) {
    Redirect("https://h/", method, "");
    EXPECT_EQ("GET", requests().back().method);
  }
  for (const char* method : {"post", "Post", "pOSt"}) {
    Redirect("https://h/", method, "1");
    EXPECT_EQ("POST", requests().back().method);
  }
  EXPECT_EQ(7u, requests().size());
}

TEST_F(CloudActionManagerTest, IgnoresTheBodyOfAGet) {
  CreateReady("https://h/");
  Redirect("https://h/", "get", "no JSON {");
  ASSERT_EQ(2u, requests().size());
  EXPECT_EQ("", requests()[1].body);
}

TEST_F(CloudActionManagerTest, PostsAnyJsonValue) {
  CreateReady("https://h/");
  for (const char* body : {"{}", "[]", "[1,{\"a\":null}]", "42", "1e400",
                           "\"text\"", "true", "null"}) {
    Redirect("https://h/", "POST", body);
    EXPECT_EQ(body, requests().back().body);
  }
  EXPECT_EQ(9u, requests().size());
}

TEST_F(CloudActionManagerTest, SendsTheEndpointAsItWasGiven) {
  CreateReady("https://hostA/api/");
  for (const char* endpoint :
       {"http://hostA:99/API/things?x=1", "https://hostA/api/%2F#f",
        "https://hostA:-1/api/", "https://hostA\t/api/ x"}) {
    Redirect(endpoint, "GET", "");
    EXPECT_EQ(endpoint, requests().back().url);
  }
  EXPECT_EQ(5u, requests().size());
}

TEST_F(CloudActionManagerTest, MatchesHostsWithCaseAndPathsWithout) {
  CreateReady("https://hostA/api/");
  EXPECT_TRUE(Admits("http://hostA/API/things?x=1"));
  EXPECT_FALSE(Admits("https://HOSTA/api/"));
  EXPECT_FALSE(Admits("https://hostA/api"));
}

TEST_F(CloudActionManagerTest, FetchesTheTokenForEachRequest) {
  CreateReady("https://h/");
  Redirect("https://h/", "GET", "");
  clock_.Advance(std::chrono::seconds(30));
  AnswerLast(401, "{}");
  AnswerLast(200, R"({"access_token":"fresh"})");
  Redirect("https://h/", "GET", "");
  EXPECT_THAT(requests().back().headers,
              ElementsAre(Pair("Authorization", "Bearer fresh"),
                          Pair("Content-Type", "application/json")));
}

TEST_F(CloudActionManagerTest, SendsAlsoWithoutAnAccessToken) {
  CreateProvisioned("https://h/");
  Redirect("https://h/", "GET", "");
  Redirect("https://h/", "POST", "{}");
  ASSERT_EQ(3u, requests().size());
  for (const size_t i : {1u, 2u}) {
    EXPECT_THAT(requests()[i].headers,
                ElementsAre(Pair("Authorization", "Bearer "),
                            Pair("Content-Type", "application/json")));
  }
}

TEST_F(CloudActionManagerTest, AsksForATokenWhenARequestNeedsOne) {
  CreateProvisioned("https://h/");
  transport_->Fail(0, "connect", "no route");
  clock_.Advance(std::chrono::seconds(30));
  Redirect("https://h/", "GET", "");
  ASSERT_EQ(3u, requests().size());
  EXPECT_THAT(requests()[1].body, testing::StartsWith("refresh_token="));
  EXPECT_EQ("https://h/", requests()[2].url);
}

TEST_F(CloudActionManagerTest, AsksForNoTokenForARefusedRequest) {
  CreateProvisioned("https://h/");
  transport_->Fail(0, "connect", "no route");
  clock_.Advance(std::chrono::seconds(30));
  Redirect("https://h/", "POST", "{");
  Redirect("https://h/", "PUT", "{}");
  EXPECT_EQ(1u, requests().size());
}

// Responses.

TEST_F(CloudActionManagerTest, PassesOnAnyStatusWithAJsonObject) {
  CreateReady("https://h/");
  for (const int status : {200, 201, 204, 302, 400, 403, 404, 500, 503, 999}) {
    outcomes_.clear();
    Redirect("https://h/", "GET", "");
    AnswerLast(status, R"({"a":1})");
    EXPECT_THAT(outcomes_, ElementsAre(IsResult(status, R"({"a":1})")));
  }
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(CloudActionManagerTest, WritesTheBodyOutCompactly) {
  CreateReady("https://h/");
  Redirect("https://h/", "GET", "");
  AnswerLast(200, " {\r\n\t\"b\" : [ 1 , 2.0 ] ,\n\"a\" : \"x y\\u00e4\" }\n");
  EXPECT_THAT(outcomes_, ElementsAre(IsResult(
                             200, "{\"b\":[1,2.0],\"a\":\"x y\xc3\xa4\"}")));
}

TEST_F(CloudActionManagerTest, RefusesABodyThatIsNoJsonObject) {
  CreateReady("https://h/");
  for (const int status : {200, 404}) {
    for (const char* body : {"", "[]", "[{}]", "null", "1", "\"{}\"", "{} {}",
                             "<html>", "{\"a\":\"\xff\"}"}) {
      outcomes_.clear();
      Redirect("https://h/", "GET", "");
      AnswerLast(status, body);
      EXPECT_THAT(outcomes_,
                  ElementsAre(IsError("remote_error", "Invalid JSON response",
                                      "OnRequestSuccess", 363)))
          << body;
    }
  }
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(CloudActionManagerTest, PassesA401OnAfterDroppingTheToken) {
  CreateReady("https://h/");
  Redirect("https://h/", "GET", "");
  AnswerLast(401, "{}");
  EXPECT_THAT(outcomes_, ElementsAre(IsResult(401, "{}")));
  // The token manager says it first, without an identifier.
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(InfoLine("Access token invalidated"),
                  At(kSource, 354, InfoLine("Access token invalidated"))));
}

TEST_F(CloudActionManagerTest, RefreshesTheTokenAfterA401AndDoesNotRetry) {
  CreateReady("https://h/");
  clock_.Advance(std::chrono::seconds(30));
  Redirect("https://h/", "GET", "");
  AnswerLast(401, "{}");
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(InfoLine("Access token invalidated"), kRefreshing,
                  At(kSource, 354, InfoLine("Access token invalidated"))));
  ASSERT_EQ(3u, requests().size());
  EXPECT_THAT(requests()[2].body, testing::StartsWith("refresh_token=refresh"));
  EXPECT_EQ(1u, outcomes_.size());
}

TEST_F(CloudActionManagerTest, DropsTheTokenOnA401WithoutJsonToo) {
  CreateReady("https://h/");
  Redirect("https://h/", "GET", "");
  AnswerLast(401, "<html>");
  EXPECT_THAT(outcomes_,
              ElementsAre(IsError("remote_error", "Invalid JSON response",
                                  "OnRequestSuccess", 363)));
  Redirect("https://h/", "GET", "");
  EXPECT_THAT(requests().back().headers[0], Pair("Authorization", "Bearer "));
}

TEST_F(CloudActionManagerTest, PassesErrorsOfTheHttpLayerOnUnchanged) {
  CreateReady("https://h/");
  Redirect("https://h/", "POST", "{}");
  transport_->Fail(1, "timeout", "no answer within 30 s");
  ASSERT_EQ(1u, outcomes_.size());
  EXPECT_EQ(0, outcomes_[0].status_code);
  EXPECT_EQ("", outcomes_[0].response_body);
  EXPECT_EQ("http", outcomes_[0].domain);
  EXPECT_EQ("timeout", outcomes_[0].code);
  EXPECT_EQ("no answer within 30 s", outcomes_[0].message);
  EXPECT_EQ("FakeTransport fake_transport 0", outcomes_[0].location);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(CloudActionManagerTest, AnswersInTheOrderOfTheResponses) {
  CreateReady("https://h/");
  for (const char* endpoint : {"https://h/1", "https://h/2", "https://h/3"}) {
    Redirect(endpoint, "GET", "");
  }
  transport_->Answer(3, 203, "{}");
  transport_->Fail(1, "connect", "no route");
  transport_->Answer(2, 202, "{}");
  ASSERT_EQ(3u, outcomes_.size());
  EXPECT_THAT(outcomes_[0], IsResult(203, "{}"));
  EXPECT_EQ("http", outcomes_[1].domain);
  EXPECT_THAT(outcomes_[2], IsResult(202, "{}"));
}

TEST_F(CloudActionManagerTest, RunsNoCallbackOnceDestroyed) {
  CreateReady("https://h/");
  const auto held = std::make_shared<int>(0);
  for (int i = 0; i < 2; ++i) {
    manager_->RedirectRequest(
        "https://h/", "GET", "",
        [this, held](const RedirectResult& result,
                     const kestrix::Error* error) { OnDone(result, error); });
  }
  manager_.reset();
  transport_->Answer(1, 401, "{}");
  transport_->Fail(2, "timeout", "too late");
  EXPECT_THAT(outcomes_, IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
  EXPECT_EQ(1, held.use_count());
}

TEST_F(CloudActionManagerTest, MayBeDestroyedByACallback) {
  CreateReady("https://h/");
  bool has_run = false;
  manager_->RedirectRequest("https://h/", "GET", "",
                            [&](const RedirectResult&, const kestrix::Error*) {
                              has_run = true;
                              manager_.reset();
                            });
  transport_->Answer(1, 200, "{}");
  EXPECT_TRUE(has_run);
}

}  // namespace
}  // namespace halvex::actions
