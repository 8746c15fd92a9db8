// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "platform/actions/cloud-actions/cloud_action_manager_dbus_adaptor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/event_loop.h"
#include "dbus/bus.h"
#include "dosset/dbus-proxies.h"
#include "kestrix/dbus_utils/exported_object_manager.h"
#include "platform/actions/cloud-actions/cloud_action_manager.h"
#include "tests/support/bus_caller.h"
#include "tests/support/fake_transport.h"
#include "tests/support/log_capture.h"
#include "tests/support/private_bus.h"
#include "tests/support/private_root.h"
#include "tests/support/temp_directory.h"
#include "tests/support/test_loop.h"

namespace halvex::actions {
namespace {

using testing::HasSubstr;

[[maybe_unused]] testing::Environment* const g_private_root =
    testing::AddGlobalTestEnvironment(new test::PrivateRoot);

constexpr char kName[] = "org.vantrel.actions.CloudActions";
constexpr char kRoot[] = "/org/vantrel/actions/CloudActions";
constexpr char kObject[] = "/org/vantrel/actions/CloudActions/Manager";
constexpr char kMethod[] =
    "org.vantrel.actions.CloudActions.Manager.RedirectRequest";

constexpr char kTooFew[] =
    "Error org.freedesktop.DBus.Error.InvalidArgs: Too few parameters in a "
    "method call";
constexpr char kTooMany[] =
    "Error org.freedesktop.DBus.Error.InvalidArgs: Too many parameters in a "
    "method call";
constexpr char kMismatch[] =
    "Error org.freedesktop.DBus.Error.InvalidArgs: Method parameter type "
    "mismatch";

// The adaptor before a manager that holds a credential and admits https://h/,
// as the daemon puts them together.
class CloudActionManagerDBusAdaptorTest : public testing::Test {
 protected:
  CloudActionManagerDBusAdaptorTest() {
    test::PrivateRoot::Reset();
    test::PutFile(kRefreshTokenFile, "");
    test::PutFile(kAllowedEndpointsFile, "https://h/");
    std::string reason;
    EXPECT_TRUE(bus_.Connect(&reason)) << reason;
    agent_ = std::make_unique<ObjectManagerProxy>(&bus_);
    object_manager_ =
        std::make_unique<kestrix::dbus_utils::ExportedObjectManager>(&bus_,
                                                                     kRoot);
    manager_ = std::make_unique<CloudActionManager>(agent_.get());
    adaptor_ = std::make_unique<CloudActionManagerDBusAdaptor>(
        object_manager_.get(), manager_.get());
    log_.Clear();
  }

  // Exports the object and takes the name.
  void Register() {
    bool has_name = false;
    object_manager_->RegisterAsync([](bool success) { EXPECT_TRUE(success); });
    adaptor_->RegisterAsync([](bool success) { EXPECT_TRUE(success); });
    bus_.RequestOwnership(
        kName, [&](bool owned, const std::string&) { has_name = owned; });
    ASSERT_TRUE(test::RunUntil("the bus name", [&] { return has_name; }));
  }

  std::unique_ptr<test::BusCaller> Call(
      const std::vector<std::string>& arguments) {
    return std::make_unique<test::BusCaller>(&loop_, kName, kObject, kMethod,
                                             arguments);
  }
  // A call that gets as far as the transport.
  std::unique_ptr<test::BusCaller> CallUntilSent() {
    const size_t before = transport_->requests().size();
    auto call = Call({"string:https://h/", "string:GET", "string:"});
    EXPECT_TRUE(test::RunUntil(
        "the request", [&] { return transport_->requests().size() > before; }));
    return call;
  }
  std::string WaitFor(const test::BusCaller& call) {
    return test::RunUntil("the reply", [&] { return call.is_done(); })
               ? call.GetReply()
               : "";
  }

  test::PrivateBus private_bus_;
  test::LogCapture log_;
  base::EventLoop loop_;
  dbus::Bus bus_{&loop_};
  std::unique_ptr<ObjectManagerProxy> agent_;
  std::shared_ptr<test::FakeTransport> transport_ =
      test::FakeTransport::Create();
  std::unique_ptr<kestrix::dbus_utils::ExportedObjectManager> object_manager_;
  std::unique_ptr<CloudActionManager> manager_;
  std::unique_ptr<CloudActionManagerDBusAdaptor> adaptor_;
};

TEST_F(CloudActionManagerDBusAdaptorTest, ReportsTheRegistrationFromTheLoop) {
  object_manager_->RegisterAsync([](bool) {});
  std::vector<bool> outcomes;
  adaptor_->RegisterAsync([&](bool success) { outcomes.push_back(success); });
  EXPECT_THAT(outcomes, testing::IsEmpty());
  test::RunPending();
  EXPECT_THAT(outcomes, testing::ElementsAre(true));
}

TEST_F(CloudActionManagerDBusAdaptorTest, ReportsAFailedRegistration) {
  Register();
  CloudActionManagerDBusAdaptor second(object_manager_.get(), manager_.get());
  std::vector<bool> outcomes;
  second.RegisterAsync([&](bool success) { outcomes.push_back(success); });
  test::RunPending();
  EXPECT_THAT(outcomes, testing::ElementsAre(false));
  EXPECT_THAT(log_.lines(),
              testing::ElementsAre(test::ErrorLine(
                  "Cannot export /org/vantrel/actions/CloudActions/Manager: "
                  "File exists")));
}

TEST_F(CloudActionManagerDBusAdaptorTest, PassesTheArgumentsInTheirOrder) {
  Register();
  const auto call = Call({"string:https://h/x", "string:post", "string:[ 1 ]"});
  ASSERT_TRUE(test::RunUntil("the request",
                             [&] { return !transport_->requests().empty(); }));
  EXPECT_EQ("https://h/x", transport_->requests()[0].url);
  EXPECT_EQ("POST", transport_->requests()[0].method);
  EXPECT_EQ("[1]", transport_->requests()[0].body);
}

TEST_F(CloudActionManagerDBusAdaptorTest, ReturnsStatusAndBody) {
  Register();
  const auto call = CallUntilSent();
  EXPECT_FALSE(call->is_done());
  transport_->Answer(0, 200, R"({"a":[1]})");
  EXPECT_EQ("int32 200\nstring \"{\"a\":[1]}\"", WaitFor(*call));
}

TEST_F(CloudActionManagerDBusAdaptorTest, ReturnsAnyStatusAsAResult) {
  Register();
  for (const int status : {201, 401, 404, 500}) {
    const auto call = CallUntilSent();
    const size_t index = transport_->requests().size() - 1;
    transport_->Answer(index, status, "{}");
    EXPECT_EQ("int32 " + std::to_string(status) + "\nstring \"{}\"",
              WaitFor(*call));
    // A 401 makes the token manager ask for a token first.
    test::RunPending();
  }
}

TEST_F(CloudActionManagerDBusAdaptorTest, ReturnsAnErrorOfTheDaemon) {
  Register();
  EXPECT_EQ(
      "Error org.freedesktop.DBus.Error.Failed: actions/invalid_arguments: "
      "Endpoint https://x/ not whitelisted",
      WaitFor(*Call({"string:https://x/", "string:GET", "string:"})));
}

TEST_F(CloudActionManagerDBusAdaptorTest, ReturnsAnErrorOfTheHttpLayer) {
  Register();
  const auto call = CallUntilSent();
  transport_->Fail(0, "connect", "no route");
  EXPECT_EQ("Error org.freedesktop.DBus.Error.Failed: http/connect: no route",
            WaitFor(*call));
}

TEST_F(CloudActionManagerDBusAdaptorTest, RefusesFewerThanThreeArguments) {
  Register();
  EXPECT_EQ(kTooFew, WaitFor(*Call({})));
  EXPECT_EQ(kTooFew, WaitFor(*Call({"string:https://h/"})));
  EXPECT_EQ(kTooFew, WaitFor(*Call({"string:https://h/", "string:GET"})));
  EXPECT_TRUE(transport_->requests().empty());
}

TEST_F(CloudActionManagerDBusAdaptorTest, RefusesMoreThanThreeArguments) {
  Register();
  EXPECT_EQ(kTooMany, WaitFor(*Call({"string:https://h/", "string:GET",
                                     "string:", "string:"})));
  EXPECT_EQ(kTooMany, WaitFor(*Call({"string:https://h/", "string:GET",
                                     "string:", "int32:1"})));
  EXPECT_TRUE(transport_->requests().empty());
}

TEST_F(CloudActionManagerDBusAdaptorTest, RefusesArgumentsThatAreNoStrings) {
  Register();
  EXPECT_EQ(kMismatch, WaitFor(*Call({"int32:1", "string:GET", "string:"})));
  EXPECT_EQ(kMismatch,
            WaitFor(*Call({"string:https://h/", "int32:1", "string:"})));
  EXPECT_EQ(
      kMismatch,
      WaitFor(*Call({"string:https://h/", "string:GET", "array:string:a"})));
  EXPECT_EQ(kMismatch, WaitFor(*Call({"objpath:/h", "string:GET", "string:"})));
  EXPECT_EQ(
      kMismatch,
      WaitFor(*Call({"variant:string:https://h/", "string:GET", "string:"})));
  EXPECT_TRUE(transport_->requests().empty());
}

// The arguments are looked at in their order, and their number after that.
TEST_F(CloudActionManagerDBusAdaptorTest, ReportsTheFirstFaultOfSeveral) {
  Register();
  EXPECT_EQ(kMismatch, WaitFor(*Call({"int32:1"})));
  EXPECT_EQ(kMismatch,
            WaitFor(*Call({"string:a", "int32:1", "string:", "string:"})));
}

TEST_F(CloudActionManagerDBusAdaptorTest, AnswersInTheOrderOfCompletion) {
  Register();
  const auto first = CallUntilSent();
  const auto second = CallUntilSent();
  transport_->Answer(1, 202, R"({"n":2})");
  EXPECT_EQ("int32 202\nstring \"{\"n\":2}\"", WaitFor(*second));
  EXPECT_FALSE(first->is_done());
  transport_->Answer(0, 201, R"({"n":1})");
  EXPECT_EQ("int32 201\nstring \"{\"n\":1}\"", WaitFor(*first));
}

TEST_F(CloudActionManagerDBusAdaptorTest, SurvivesACallerThatHasGone) {
  Register();
  auto call = CallUntilSent();
  call.reset();
  transport_->Answer(0, 200, "{}");
  EXPECT_EQ(kTooFew, WaitFor(*Call({})));
}

TEST_F(CloudActionManagerDBusAdaptorTest, SendsNothingOnceDestroyed) {
  Register();
  const auto call = CallUntilSent();
  adaptor_.reset();
  transport_->Answer(0, 200, R"({"late":true})");
  EXPECT_EQ(
      "Error org.freedesktop.DBus.Error.NoReply: The service ended before it "
      "had an answer",
      WaitFor(*call));
}

TEST_F(CloudActionManagerDBusAdaptorTest, EndsCallsThatTheManagerDrops) {
  Register();
  const auto call = CallUntilSent();
  adaptor_.reset();
  manager_.reset();
  transport_.reset();
  EXPECT_THAT(WaitFor(*call),
              HasSubstr("Error org.freedesktop.DBus.Error.NoReply: "));
}

TEST_F(CloudActionManagerDBusAdaptorTest, LeavesTheBusWhenDestroyed) {
  Register();
  adaptor_.reset();
  EXPECT_THAT(WaitFor(*Call({"string:https://h/", "string:GET", "string:"})),
              HasSubstr("Error org.freedesktop.DBus.Error.UnknownObject"));
  EXPECT_TRUE(transport_->requests().empty());
}

TEST_F(CloudActionManagerDBusAdaptorTest, IsInTheObjectManager) {
  Register();
  const std::string method =
      "org.freedesktop.DBus.ObjectManager.GetManagedObjects";
  EXPECT_THAT(WaitFor(test::BusCaller(&loop_, kName, kRoot, method, {})),
              testing::AllOf(HasSubstr(kObject),
                             HasSubstr("org.vantrel.actions.CloudActions."
                                       "Manager")));
  adaptor_.reset();
  EXPECT_THAT(WaitFor(test::BusCaller(&loop_, kName, kRoot, method, {})),
              testing::Not(HasSubstr(kObject)));
}

TEST_F(CloudActionManagerDBusAdaptorTest, NamesItsArguments) {
  Register();
  const std::string text = WaitFor(
      test::BusCaller(&loop_, kName, kObject,
                      "org.freedesktop.DBus.Introspectable.Introspect", {}));
  EXPECT_THAT(
      text,
      HasSubstr("<method name=\"RedirectRequest\">\n"
                "<arg type=\"s\" name=\"endpoint\" direction=\"in\"/>\n"
                "<arg type=\"s\" name=\"method\" direction=\"in\"/>\n"
                "<arg type=\"s\" name=\"body\" direction=\"in\"/>\n"
                "<arg type=\"i\" name=\"status_code\" direction=\"out\"/>\n"
                "<arg type=\"s\" name=\"response_body\" direction=\"out\"/>\n"
                "</method>"));
}

TEST_F(CloudActionManagerDBusAdaptorTest, CarriesTextThatTheBusRefuses) {
  Register();
  const auto call = CallUntilSent();
  // A noncharacter and a NUL, which JSON can hold and D-Bus cannot.
  transport_->Answer(0, 200, "{\"a\":\"\xef\xbf\xbe\\u0000\"}");
  EXPECT_EQ("int32 200\nstring \"{\"a\":\"\\ufffe\\u0000\"}\"", WaitFor(*call));
}

using CloudActionManagerDBusAdaptorDeathTest =
    CloudActionManagerDBusAdaptorTest;

TEST_F(CloudActionManagerDBusAdaptorDeathTest, DiesWhenACallIsAnsweredTwice) {
  Register();
  const auto call = CallUntilSent();
  EXPECT_EXIT(transport_->Answer(0, 200, "{}", /*times=*/2),
              testing::KilledBySignal(SIGABRT),
              "\\[FATAL\\] Check failed: !taken_. A one-shot callback ran "
              "twice");
}

}  // namespace
}  // namespace halvex::actions
