// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

// The manager and the device cloud agent, which is a program of its own here.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "base/event_loop.h"
#include "dbus/bus.h"
#include "dosset/dbus-proxies.h"
#include "platform/actions/cloud-actions/cloud_action_manager.h"
#include "tests/support/agent.h"
#include "tests/support/fake_transport.h"
#include "tests/support/log_capture.h"
#include "tests/support/private_bus.h"
#include "tests/support/private_root.h"
#include "tests/support/temp_directory.h"
#include "tests/support/test_loop.h"

namespace halvex::actions {
namespace {

using test::AgentCall;
using test::ErrorLine;
using test::InfoLine;
using testing::ElementsAre;
using testing::IsEmpty;

[[maybe_unused]] testing::Environment* const g_private_root =
    testing::AddGlobalTestEnvironment(new test::PrivateRoot);

constexpr char kSet[] = "_cloudActionConfiguration._setCredential";
constexpr char kRemove[] = "_cloudActionConfiguration._removeCredential";
constexpr char kFolder[] = "/var/lib/cloud_action";

constexpr char kManagerPath[] = "/org/vantrel/Dosset/Manager";
constexpr char kCommandPath[] = "/org/vantrel/Dosset/commands/1";
constexpr char kOtherPath[] = "/org/vantrel/Dosset/commands/2";

constexpr char kGoodParameters[] = R"({
    "_authorizationCode": ["s", "a code"],
    "_allowedEndpoints": ["as", ["https://a/x", "http://b"]]})";
constexpr char kGoodReply[] = R"({"access_token":"a","refresh_token":"r"})";

const test::LogLine kExchangeFailed = ErrorLine(
    "Failed to obtain refresh token from the provided authorization code");

AgentCall Publish(bool provisioned) {
  return {kManagerPath, "Manager", "UpdateState", "a{sv}",
          std::string(R"({"_cloudActionConfiguration._credential": <a{sv} )"
                      R"({"_provisioned": <b )") +
              (provisioned ? "true" : "false") + ">}>}"};
}

AgentCall Complete(const std::string& path = kCommandPath) {
  return {path, "Command", "Complete", "a{sv}", "{}"};
}

AgentCall Abort(const std::string& path = kCommandPath) {
  return {path, "Command", "Abort", "ss", R"("", "")"};
}

class CloudActionManagerAgentTest : public testing::Test {
 protected:
  CloudActionManagerAgentTest() {
    test::PrivateRoot::Reset();
    test::PutFile(kConfigFile,
                  "SMARTHOME_CLIENT_ID=id\nSMARTHOME_CLIENT_SECRET=secret\n"
                  "SMARTHOME_SCOPE=scope\n");
    std::string reason;
    EXPECT_TRUE(bus_.Connect(&reason)) << reason;
    proxy_ = std::make_unique<ObjectManagerProxy>(&bus_);
  }

  void CreateManager() {
    manager_ = std::make_unique<CloudActionManager>(proxy_.get());
  }

  // A manager and an agent that know of each other. The calls that this makes
  // are not counted.
  void Start() {
    CreateManager();
    agent_.Appear();
    ExpectCalls({Publish(test::Exists(kRefreshTokenFile))});
    log_.Clear();
  }

  void StartProvisioned() {
    test::PutFile(kRefreshTokenFile, "old token");
    test::PutFile(kAllowedEndpointsFile, "https://old/");
    Start();
  }

  // Waits until the agent has got as many further calls as are `expected`,
  // which these, and all that have been made by then, must be.
  void ExpectCalls(const std::vector<AgentCall>& expected) {
    const size_t count = calls_before_ + expected.size();
    EXPECT_TRUE(test::RunUntil("calls of the agent",
                               [&] { return agent_.calls().size() >= count; }));
    // Calls are told in their order, and before what is asked for later.
    agent_.Do("release", R"({"member": "none"})");
    const std::vector<AgentCall> calls(
        agent_.calls().begin() + static_cast<ptrdiff_t>(calls_before_),
        agent_.calls().end());
    EXPECT_EQ(expected, calls);
    calls_before_ = agent_.calls().size();
  }

  void PublishCommand(const std::string& name, const std::string& parameters,
                      const std::string& path = kCommandPath) {
    agent_.PublishCommand(path, name, "queued", parameters);
  }

  // Has a set command go as far as the exchange.
  void StartExchange(const std::string& parameters = kGoodParameters) {
    const size_t before = transport_->requests().size();
    PublishCommand(kSet, parameters);
    ASSERT_TRUE(test::RunUntil("the exchange of the code", [&] {
      return transport_->requests().size() > before;
    }));
  }

  void AnswerLast(int status, const std::string& body) {
    transport_->Answer(transport_->requests().size() - 1, status, body);
  }

  // Shows that all that the agent has announced has been dealt with, by a
  // command that is carried out after it.
  void ExpectNothingElse() {
    PublishCommand(kRemove, "{}", kOtherPath);
    ExpectCalls({Publish(false), Complete(kOtherPath)});
  }

  // Why a request is refused, or "sent". What comes of it later is not kept.
  std::string Redirect(const std::string& endpoint) {
    const auto outcome = std::make_shared<std::string>("sent");
    manager_->RedirectRequest(
        endpoint, "GET", "",
        [outcome](const RedirectResult&, const kestrix::Error* error) {
          if (error) *outcome = error->GetMessage();
        });
    return *outcome;
  }

  test::PrivateBus private_bus_;
  test::LogCapture log_;
  base::EventLoop loop_;
  test::Agent agent_{&loop_};
  dbus::Bus bus_{&loop_};
  std::unique_ptr<ObjectManagerProxy> proxy_;
  std::shared_ptr<test::FakeTransport> transport_ =
      test::FakeTransport::Create();
  std::unique_ptr<CloudActionManager> manager_;
  size_t calls_before_ = 0;
};

// The published state.

TEST_F(CloudActionManagerAgentTest, PublishesItsStateWhenTheAgentComes) {
  CreateManager();
  test::RunPending();
  agent_.Appear();
  ExpectCalls({Publish(false)});
}

TEST_F(CloudActionManagerAgentTest, PublishesItsStateIfTheAgentIsThere) {
  test::PutFile(kRefreshTokenFile, "");
  agent_.Appear();
  CreateManager();
  ExpectCalls({Publish(true)});
}

TEST_F(CloudActionManagerAgentTest, PublishesItsStateAgainWithTheObject) {
  StartProvisioned();
  agent_.Do("remove", R"({"path": "/org/vantrel/Dosset/Manager"})");
  agent_.Do("publish", R"({"path": "/org/vantrel/Dosset/Manager",
      "interface": "org.vantrel.Dosset.Manager", "properties": {}})");
  ExpectCalls({Publish(true)});
}

TEST_F(CloudActionManagerAgentTest, PublishesItsStateAgainAfterARestart) {
  Start();
  agent_.Do("disconnect");
  agent_.Appear();
  ExpectCalls({Publish(false)});
}

TEST_F(CloudActionManagerAgentTest, LogsAStateThatTheAgentRefuses) {
  CreateManager();
  log_.Clear();
  agent_.Do("behave", R"({"member": "UpdateState", "how": "error",
      "name": "com.example.Error", "message": "no"})");
  agent_.Appear();
  ExpectCalls({Publish(false)});
  EXPECT_THAT(log_.lines(), ElementsAre(ErrorLine("Failed to update state")));
}

TEST_F(CloudActionManagerAgentTest, LogsAnAnswerThatIsNoneToUpdateState) {
  CreateManager();
  log_.Clear();
  agent_.Do("behave", R"({"member": "UpdateState", "how": "lie",
      "signature": "s", "arguments": ["done"]})");
  agent_.Appear();
  ExpectCalls({Publish(false)});
  EXPECT_THAT(log_.lines(), ElementsAre(ErrorLine("Failed to update state")));
}

// Commands that are passed over.

TEST_F(CloudActionManagerAgentTest, IgnoresCommandsThatAreNotQueued) {
  Start();
  // An object is looked at once, so each of these has a path of its own.
  int number = 10;
  for (const std::string state :
       {"", "inProgress", "done", "Queued", "queued "}) {
    agent_.PublishCommand(kCommandPath + std::to_string(number++), kSet, state,
                          kGoodParameters);
  }
  ExpectNothingElse();
  EXPECT_THAT(transport_->requests(), IsEmpty());
}

TEST_F(CloudActionManagerAgentTest, LooksAtTheStateOnlyOnce) {
  Start();
  agent_.PublishCommand(kCommandPath, kSet, "paused", kGoodParameters);
  agent_.Do("change", R"({"path": "/org/vantrel/Dosset/commands/1",
      "interface": "org.vantrel.Dosset.Command",
      "properties": {"State": ["s", "queued"]}})");
  ExpectNothingElse();
  EXPECT_THAT(transport_->requests(), IsEmpty());
}

TEST_F(CloudActionManagerAgentTest, IgnoresUnknownCommands) {
  Start();
  int number = 10;
  for (const std::string name :
       {"", "_other._command", "_cloudActionConfiguration._setcredential",
        "_cloudActionConfiguration._setCredential2",
        "_cloudActionConfiguration"}) {
    PublishCommand(name, kGoodParameters,
                   kCommandPath + std::to_string(number++));
  }
  ExpectNothingElse();
  EXPECT_THAT(transport_->requests(), IsEmpty());
  EXPECT_THAT(log_.lines(), ElementsAre(InfoLine("HandleRemoveCredential")));
}

TEST_F(CloudActionManagerAgentTest, IgnoresACommandWithoutProperties) {
  Start();
  agent_.Do("publish", R"({"path": "/org/vantrel/Dosset/commands/1",
      "interface": "org.vantrel.Dosset.Command", "properties": {}})");
  ExpectNothingElse();
}

// The set command.

TEST_F(CloudActionManagerAgentTest, ExchangesTheCodeOfASetCommand) {
  Start();
  StartExchange();
  EXPECT_EQ(
      "code=a%20code&client_id=id&client_secret=secret&redirect_uri=oob"
      "&scope=scope&grant_type=authorization_code",
      transport_->requests()[0].body);
  EXPECT_THAT(log_.lines(), ElementsAre(InfoLine("HandleSetCredential"),
                                        InfoLine("Fetching refresh token")));
  // The command stays open.
  ExpectCalls({});
  EXPECT_EQ("Endpoint https://a/x not whitelisted", Redirect("https://a/x"));
}

TEST_F(CloudActionManagerAgentTest, PublishesAndThenCompletesASetCommand) {
  Start();
  StartExchange();
  AnswerLast(200, kGoodReply);
  ExpectCalls({Publish(true), Complete()});
  EXPECT_THAT(log_.lines(),
              ElementsAre(InfoLine("HandleSetCredential"),
                          InfoLine("Fetching refresh token"),
                          InfoLine("Successfully fetched refresh token: 200")));
}

TEST_F(CloudActionManagerAgentTest, SavesWhatASetCommandBrought) {
  Start();
  StartExchange();
  AnswerLast(200, kGoodReply);
  EXPECT_EQ("https://a/x,http://b", test::GetFile(kAllowedEndpointsFile));
  EXPECT_EQ(0600, test::GetMode(kAllowedEndpointsFile));
  EXPECT_EQ("r", test::GetFile(kRefreshTokenFile));
  EXPECT_THAT(test::ListDirectory(kFolder),
              ElementsAre("allowed_endpoints", "refresh_token"));
}

TEST_F(CloudActionManagerAgentTest, AdmitsWhatASetCommandAllowed) {
  StartProvisioned();
  StartExchange();
  EXPECT_EQ("sent", Redirect("https://old/"));
  transport_->Answer(1, 200, kGoodReply);
  EXPECT_EQ("sent", Redirect("https://a/x"));
  EXPECT_EQ("sent", Redirect("https://b/"));
  EXPECT_EQ("Endpoint https://old/ not whitelisted", Redirect("https://old/"));
}

TEST_F(CloudActionManagerAgentTest, SavesEndpointsAsTheyWereReceived) {
  Start();
  StartExchange(R"({"_authorizationCode": ["s", "c"], "_allowedEndpoints":
      ["as", ["https://h:1/%41?q=1#f", "http://h\t", "https://h/a,b"]]})");
  AnswerLast(200, kGoodReply);
  EXPECT_EQ("https://h:1/%41?q=1#f,http://h\t,https://h/a,b",
            test::GetFile(kAllowedEndpointsFile));
}

TEST_F(CloudActionManagerAgentTest, TakesASetCommandWithoutEndpoints) {
  StartProvisioned();
  StartExchange(R"({"_authorizationCode": ["s", "c"]})");
  log_.Clear();
  AnswerLast(200, kGoodReply);
  ExpectCalls({Publish(true), Complete()});
  EXPECT_EQ("", test::GetFile(kAllowedEndpointsFile));
  EXPECT_THAT(log_.lines(),
              ElementsAre(InfoLine("Successfully fetched refresh token: 200")));
  EXPECT_EQ("Endpoint https://old/ not whitelisted", Redirect("https://old/"));
}

TEST_F(CloudActionManagerAgentTest, TakesEndpointsOfAnotherTypeForNone) {
  Start();
  StartExchange(R"({"_authorizationCode": ["s", "c"],
                    "_allowedEndpoints": ["s", "https://a/"]})");
  AnswerLast(200, kGoodReply);
  ExpectCalls({Publish(true), Complete()});
  EXPECT_EQ("", test::GetFile(kAllowedEndpointsFile));
}

TEST_F(CloudActionManagerAgentTest, IgnoresOtherParameters) {
  Start();
  StartExchange(R"({"_authorizationCode": ["s", "c"],
                    "_other": ["i", 1], "x": ["ai", [1, 2]],
                    "_allowedEndpoints": ["as", ["https://a/"]]
})");
  AnswerLast(200, kGoodReply);
  ExpectCalls({Publish(true), Complete()});
  EXPECT_EQ("https://a/", test::GetFile(kAllowedEndpointsFile));
}

TEST_F(CloudActionManagerAgentTest, AbortsASetCommandWithAnInvalidEndpoint) {
  StartProvisioned();
  PublishCommand(kSet, R"({"_authorizationCode": ["s", "c"],
      "_allowedEndpoints": ["as", ["https://a/", "ftp://b/", "ftp://c/"]]})");
  ExpectCalls({Abort()});
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(InfoLine("HandleSetCredential"),
                  ErrorLine("Allowed endpoints contains an invalid URL: "
                            "ftp://b/")));
  EXPECT_EQ(1u, transport_->requests().size());
  EXPECT_EQ("https://old/", test::GetFile(kAllowedEndpointsFile));
  EXPECT_EQ("sent", Redirect("https://old/"));
}

TEST_F(CloudActionManagerAgentTest, ChecksTheEndpointsBeforeTheCode) {
  Start();
  PublishCommand(kSet, R"({"_allowedEndpoints": ["as", [""]]})");
  ExpectCalls({Abort()});
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(InfoLine("HandleSetCredential"),
                  ErrorLine("Allowed endpoints contains an invalid URL: ")));
}

TEST_F(CloudActionManagerAgentTest, AbortsASetCommandWithoutACode) {
  StartProvisioned();
  for (const std::string parameters :
       {R"({})", R"({"_authorizationCode": ["s", ""]})",
        R"({"_authorizationCode": ["i", 42]})",
        R"({"_authorizationCode": ["as", ["c"]]})",
        R"({"_authorizationCode": ["v", ["s", "c"]]})",
        R"({"_authorizationCode": ["o", "/c"]})",
        R"({"_authorizationcode": ["s", "c"]})"}) {
    log_.Clear();
    PublishCommand(kSet, parameters, kOtherPath);
    ExpectCalls({Abort(kOtherPath)});
    EXPECT_THAT(log_.lines(),
                ElementsAre(InfoLine("HandleSetCredential"),
                            ErrorLine("Authorization code not provided")))
        << parameters;
    agent_.Do("remove", R"({"path": "/org/vantrel/Dosset/commands/2"})");
  }
  EXPECT_EQ(1u, transport_->requests().size());
  EXPECT_EQ("sent", Redirect("https://old/"));
}

TEST_F(CloudActionManagerAgentTest, AbortsASetCommandWhoseExchangeFails) {
  StartProvisioned();
  StartExchange();
  log_.Clear();
  AnswerLast(400, R"({"error":"invalid_grant"})");
  ExpectCalls({Abort()});
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(InfoLine("Successfully fetched refresh token: 400"),
                  ErrorLine("Error parsing oauth2 response: invalid_grant - "
                            "400"),
                  ErrorLine("Unable to fetch refresh token"), kExchangeFailed));
  EXPECT_EQ("https://old/", test::GetFile(kAllowedEndpointsFile));
  EXPECT_EQ("old token", test::GetFile(kRefreshTokenFile));
  EXPECT_EQ("sent", Redirect("https://old/"));
}

TEST_F(CloudActionManagerAgentTest, StaysUnprovisionedIfTheFirstExchangeFails) {
  test::PutFile(kAllowedEndpointsFile, "https://h/");
  Start();
  StartExchange();
  transport_->Fail(0, "connect", "no route");
  ExpectCalls({Abort()});
  EXPECT_EQ("Authorization code not provisioned", Redirect("https://h/"));
}

TEST_F(CloudActionManagerAgentTest, AbortsASecondSetCommandAtOnce) {
  Start();
  StartExchange();
  log_.Clear();
  PublishCommand(kSet, R"({"_authorizationCode": ["s", "second"],
      "_allowedEndpoints": ["as", ["https://second/"]]})",
                 kOtherPath);
  ExpectCalls({Abort(kOtherPath)});
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(InfoLine("HandleSetCredential"),
                  test::WarningLine(
                      "Request already outstanding: rejecting new request"),
                  kExchangeFailed));
  AnswerLast(200, kGoodReply);
  ExpectCalls({Publish(true), Complete()});
  EXPECT_EQ("https://a/x,http://b", test::GetFile(kAllowedEndpointsFile));
}

TEST_F(CloudActionManagerAgentTest, CompletesASetCommandWhoseListIsNotSaved) {
  test::MakeDirectory(kAllowedEndpointsFile);
  Start();
  StartExchange();
  log_.Clear();
  AnswerLast(200, kGoodReply);
  ExpectCalls({Publish(true), Complete()});
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(InfoLine("Successfully fetched refresh token: 200"),
                  ErrorLine("Failed to write allowed endpoints to file: Is a "
                            "directory")));
  EXPECT_EQ("sent", Redirect("https://a/x"));
}

TEST_F(CloudActionManagerAgentTest, NamesAFullDisk) {
  Start();
  StartExchange();
  log_.Clear();
  test::PrivateRoot::MakeFull(kFolder);
  AnswerLast(200, kGoodReply);
  ExpectCalls({Publish(true), Complete()});
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(InfoLine("Successfully fetched refresh token: 200"),
                  ErrorLine("Failed to write allowed endpoints to file: No "
                            "space left on device")));
}

TEST_F(CloudActionManagerAgentTest, LogsAnAgentWithoutManagerObject) {
  agent_.Do("remove", R"({"path": "/org/vantrel/Dosset/Manager",
                          "announce": false})");
  CreateManager();
  agent_.Appear();
  StartExchange();
  log_.Clear();
  AnswerLast(200, kGoodReply);
  ExpectCalls({Complete()});
  EXPECT_THAT(log_.lines(),
              ElementsAre(InfoLine("Successfully fetched refresh token: 200"),
                          ErrorLine("Dosset not up yet")));
}

TEST_F(CloudActionManagerAgentTest, IgnoresARefusalOfComplete) {
  Start();
  agent_.Do("behave", R"({"member": "Complete", "how": "error",
      "name": "com.example.Error", "message": "no"})");
  StartExchange();
  log_.Clear();
  AnswerLast(200, kGoodReply);
  ExpectCalls({Publish(true), Complete()});
  EXPECT_THAT(log_.lines(),
              ElementsAre(InfoLine("Successfully fetched refresh token: 200")));
  EXPECT_EQ("sent", Redirect("https://a/x"));
}

// The remove command.

TEST_F(CloudActionManagerAgentTest, RemovesTheCredential) {
  StartProvisioned();
  PublishCommand(kRemove, "{}");
  ExpectCalls({Publish(false), Complete()});
  EXPECT_THAT(log_.lines(), ElementsAre(InfoLine("HandleRemoveCredential")));
  EXPECT_THAT(test::ListDirectory(kFolder), IsEmpty());
  EXPECT_EQ("Endpoint https://old/ not whitelisted", Redirect("https://old/"));
}

TEST_F(CloudActionManagerAgentTest, RemovesACredentialThatIsNotThere) {
  Start();
  PublishCommand(kRemove, "{}");
  ExpectCalls({Publish(false), Complete()});
  EXPECT_THAT(log_.lines(), ElementsAre(InfoLine("HandleRemoveCredential")));
}

TEST_F(CloudActionManagerAgentTest, ForgetsTheTokensWithTheCredential) {
  StartProvisioned();
  AnswerLast(200, R"({"access_token":"old access"})");
  PublishCommand(kRemove, "{}", kOtherPath);
  ExpectCalls({Publish(false), Complete(kOtherPath)});
  StartExchange(R"({"_authorizationCode": ["s", "c"],
                    "_allowedEndpoints": ["as", ["https://a/"]]})");
  AnswerLast(200, kGoodReply);
  EXPECT_EQ("sent", Redirect("https://a/"));
  EXPECT_EQ("Bearer a", transport_->requests().back().headers[0].second);
}

TEST_F(CloudActionManagerAgentTest, AbortsAndCompletesAFailedRemove) {
  test::MakeDirectory(kRefreshTokenFile);
  test::PutFile(kAllowedEndpointsFile, "https://old/");
  Start();
  PublishCommand(kRemove, "{}");
  ExpectCalls({Abort(), Publish(false), Complete()});
  EXPECT_THAT(log_.lines(),
              ElementsAre(InfoLine("HandleRemoveCredential"),
                          ErrorLine("Failed to remove refresh token file")));
  EXPECT_FALSE(test::Exists(kAllowedEndpointsFile));
  EXPECT_EQ("Endpoint https://old/ not whitelisted", Redirect("https://old/"));
}

// The new token manager reads the file that could not be deleted.
TEST_F(CloudActionManagerAgentTest, ReadsATokenAgainThatItCouldNotRemove) {
  StartProvisioned();
  test::PrivateRoot::MakeReadOnly(kFolder);
  PublishCommand(kRemove, "{}");
  ExpectCalls({Abort(), Publish(false), Complete()});
  EXPECT_THAT(log_.lines(),
              ElementsAre(InfoLine("HandleRemoveCredential"),
                          ErrorLine("Failed to remove refresh token file"),
                          InfoLine("Refreshing access token.")));
}

TEST_F(CloudActionManagerAgentTest, IgnoresAListThatItCouldNotRemove) {
  test::MakeDirectory(kAllowedEndpointsFile);
  Start();
  PublishCommand(kRemove, "{}");
  ExpectCalls({Publish(false), Complete()});
  EXPECT_THAT(log_.lines(), ElementsAre(InfoLine("HandleRemoveCredential")));
}

TEST_F(CloudActionManagerAgentTest, IsProvisionedAgainAfterARemove) {
  StartProvisioned();
  PublishCommand(kRemove, "{}", kOtherPath);
  ExpectCalls({Publish(false), Complete(kOtherPath)});
  StartExchange();
  AnswerLast(200, kGoodReply);
  ExpectCalls({Publish(true), Complete()});
}

TEST_F(CloudActionManagerAgentTest, DropsAnExchangeWithTheCredential) {
  Start();
  StartExchange();
  PublishCommand(kRemove, "{}", kOtherPath);
  ExpectCalls({Publish(false), Complete(kOtherPath)});
  log_.Clear();
  AnswerLast(200, kGoodReply);
  // The set command stays open: nobody is left to end it.
  agent_.Do("remove", R"({"path": "/org/vantrel/Dosset/commands/2"})");
  ExpectNothingElse();
  EXPECT_THAT(log_.lines(), ElementsAre(InfoLine("HandleRemoveCredential")));
  EXPECT_THAT(test::ListDirectory(kFolder), IsEmpty());
}

// Responses to requests that were sent before a remove.
TEST_F(CloudActionManagerAgentTest, JudgesALateResponseByTheNewTokenManager) {
  StartProvisioned();
  AnswerLast(200, R"({"access_token":"old access"})");
  ASSERT_EQ("sent", Redirect("https://old/"));
  PublishCommand(kRemove, "{}");
  ExpectCalls({Publish(false), Complete()});
  log_.Clear();
  transport_->Answer(1, 401, "{}");
  // The new one has no limit to wait for, and no token.
  EXPECT_THAT(
      transport_->requests().back().body,
      testing::StartsWith("refresh_token=&client_id=id&client_secret=secret"));
  EXPECT_EQ(3u, transport_->requests().size());
}

// What goes while an exchange runs.

TEST_F(CloudActionManagerAgentTest, TakesACredentialWhoseCommandIsWithdrawn) {
  Start();
  StartExchange();
  agent_.Do("remove", R"({"path": "/org/vantrel/Dosset/commands/1"})");
  ASSERT_TRUE(test::RunUntil("the end of the command", [&] {
    return proxy_->GetCommandProxy(kCommandPath) == nullptr;
  }));
  AnswerLast(200, kGoodReply);
  ExpectCalls({Publish(true)});
  EXPECT_EQ("https://a/x,http://b", test::GetFile(kAllowedEndpointsFile));
  EXPECT_EQ("sent", Redirect("https://a/x"));
  ExpectNothingElse();
}

TEST_F(CloudActionManagerAgentTest, LogsAFailureWhoseCommandIsWithdrawn) {
  Start();
  StartExchange();
  log_.Clear();
  agent_.Do("remove", R"({"path": "/org/vantrel/Dosset/commands/1"})");
  ASSERT_TRUE(test::RunUntil("the end of the command", [&] {
    return proxy_->GetCommandProxy(kCommandPath) == nullptr;
  }));
  transport_->Fail(0, "connect", "no route");
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(test::WarningLine("Error fetching refresh token: no route"),
                  kExchangeFailed));
  ExpectNothingElse();
}

TEST_F(CloudActionManagerAgentTest, TakesACredentialWhoseAgentHasGone) {
  Start();
  StartExchange();
  agent_.Do("disconnect");
  ASSERT_TRUE(test::RunUntil("the end of the agent", [&] {
    return proxy_->GetManagerProxy() == nullptr;
  }));
  log_.Clear();
  AnswerLast(200, kGoodReply);
  EXPECT_THAT(log_.lines(),
              ElementsAre(InfoLine("Successfully fetched refresh token: 200"),
                          ErrorLine("Dosset not up yet")));
  EXPECT_EQ("r", test::GetFile(kRefreshTokenFile));
  EXPECT_EQ("sent", Redirect("https://a/x"));
  // It is told when it comes back.
  agent_.Do("remove", R"({"path": "/org/vantrel/Dosset/commands/1",
                          "announce": false})");
  agent_.Appear();
  ExpectCalls({Publish(true)});
}

// The bus tells us only after the blocking calls that the agent has gone.
TEST_F(CloudActionManagerAgentTest, SurvivesAnAgentThatHasJustGone) {
  Start();
  StartExchange();
  agent_.Do("disconnect");
  log_.Clear();
  AnswerLast(200, kGoodReply);
  EXPECT_THAT(log_.lines(),
              ElementsAre(InfoLine("Successfully fetched refresh token: 200"),
                          ErrorLine("Failed to update state")));
  EXPECT_EQ("sent", Redirect("https://a/x"));
}

TEST_F(CloudActionManagerAgentTest, SurvivesABusThatHasGone) {
  Start();
  StartExchange();
  private_bus_.Stop();
  log_.Clear();
  AnswerLast(200, kGoodReply);
  EXPECT_THAT(log_.lines(),
              ElementsAre(InfoLine("Successfully fetched refresh token: 200"),
                          ErrorLine("Failed to update state")));
  EXPECT_EQ("sent", Redirect("https://a/x"));
}

// Once the manager is gone.

TEST_F(CloudActionManagerAgentTest, EndsNoCommandOnceDestroyed) {
  Start();
  StartExchange();
  manager_.reset();
  log_.Clear();
  AnswerLast(200, kGoodReply);
  EXPECT_THAT(log_.lines(), IsEmpty());
  EXPECT_THAT(test::ListDirectory(kFolder), IsEmpty());
  ExpectCalls({});
}

TEST_F(CloudActionManagerAgentTest, TakesNoCommandOnceDestroyed) {
  Start();
  manager_.reset();
  log_.Clear();
  PublishCommand(kSet, kGoodParameters);
  agent_.Do("remove", R"({"path": "/org/vantrel/Dosset/Manager"})");
  agent_.Do("publish", R"({"path": "/org/vantrel/Dosset/Manager",
      "interface": "org.vantrel.Dosset.Manager", "properties": {}})");
  ASSERT_TRUE(test::RunUntil("the command", [&] {
    return proxy_->GetCommandProxy(kCommandPath) != nullptr &&
           proxy_->GetManagerProxy() != nullptr;
  }));
  ExpectCalls({});
  EXPECT_THAT(log_.lines(), IsEmpty());
  EXPECT_THAT(transport_->requests(), IsEmpty());
}

}  // namespace
}  // namespace halvex::actions
