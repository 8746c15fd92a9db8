// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/dbus_utils/dbus_method_invoker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/event_loop.h"
#include "dbus/bus.h"
#include "dbus/message.h"
#include "dbus/object_proxy.h"
#include "tests/support/private_bus.h"
#include "tests/support/process.h"
#include "tests/support/test_loop.h"
#include "tests/support/test_message.h"

namespace kestrix::dbus_utils {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kBusDaemon[] = "org.freedesktop.DBus";
// Comes to nothing on a bus, which carries no NUL.
const std::string kNoText("a\0b", 3);
constexpr char kNoOwner[] =
    "dbus/org.freedesktop.DBus.Error.NameHasNoOwner: Could not get UID of name "
    "'no.body': no such name";

// What an error says, as "domain/code: message".
std::string Describe(const Error* error) {
  if (!error) return "none";
  return error->GetDomain() + "/" + error->GetCode() + ": " +
         error->GetMessage();
}

std::string NoAnswer(const std::string& method) {
  return "dbus/org.freedesktop.DBus.Error.Failed: Failed to call D-Bus "
         "method: " +
         method;
}

class ExtractMethodCallResultsTest : public testing::Test {
 protected:
  test::MessageBench bench_;
  std::unique_ptr<Error> error_;
  std::string text_;
};

TEST_F(ExtractMethodCallResultsTest, ReadsTheValuesOfAReply) {
  dbus::Message reply = bench_.NewReadableCall("si", "text", 7);
  int32_t number = 0;
  EXPECT_TRUE(ExtractMethodCallResults(&reply, &error_, &text_, &number));
  EXPECT_EQ("text", text_);
  EXPECT_EQ(7, number);
  EXPECT_EQ(nullptr, error_);
}

TEST_F(ExtractMethodCallResultsTest, RefusesAReplyWithOtherValues) {
  dbus::Message reply = bench_.NewReadableCall("i", 7);
  EXPECT_FALSE(ExtractMethodCallResults(&reply, &error_, &text_));
  EXPECT_EQ(
      "dbus/org.freedesktop.DBus.Error.InvalidArgs: Method parameter type "
      "mismatch",
      Describe(error_.get()));
}

TEST_F(ExtractMethodCallResultsTest, RefusesAReplyWithMoreValues) {
  dbus::Message reply = bench_.NewReadableCall("s", "text");
  EXPECT_FALSE(ExtractMethodCallResults(&reply, &error_));
  EXPECT_EQ(
      "dbus/org.freedesktop.DBus.Error.InvalidArgs: Too many parameters in a "
      "method call",
      Describe(error_.get()));
}

TEST_F(ExtractMethodCallResultsTest, PassesOnAnErrorReply) {
  dbus::Message reply = bench_.NewReadableCall("").CreateErrorReply(
      "org.some.Error", "What went wrong");
  EXPECT_FALSE(ExtractMethodCallResults(&reply, &error_, &text_));
  EXPECT_EQ("dbus/org.some.Error: What went wrong", Describe(error_.get()));
}

TEST_F(ExtractMethodCallResultsTest, FailsWithoutAReply) {
  dbus::Message reply;
  EXPECT_FALSE(ExtractMethodCallResults(&reply, &error_, &text_));
  EXPECT_EQ(
      "dbus/org.freedesktop.DBus.Error.Failed: Unable to extract parameters "
      "from a NULL message.",
      Describe(error_.get()));
  EXPECT_STREQ("ExtractMethodCallResults", error_->GetLocation().function);
}

TEST_F(ExtractMethodCallResultsTest, KeepsTheReasonToItselfIfNobodyAsked) {
  dbus::Message none;
  EXPECT_FALSE(ExtractMethodCallResults(&none, nullptr, &text_));
  dbus::Message failed =
      bench_.NewReadableCall("").CreateErrorReply("org.some.Error", "text");
  EXPECT_FALSE(ExtractMethodCallResults(&failed, nullptr, &text_));
}

// Takes calls as some.silent and never looks at them.
constexpr char kSilentPeer[] = R"(
import dbus.service, sys
name = dbus.service.BusName('some.silent', dbus.SystemBus())
print('there', flush=True)
sys.stdin.read()
)";

// Calls the bus itself, which answers, and a peer that never does.
class DBusMethodInvokerTest : public testing::Test {
 protected:
  DBusMethodInvokerTest() {
    std::string reason;
    EXPECT_TRUE(bus_->Connect(&reason)) << reason;
  }

  void StartSilentPeer() {
    silent_peer_.emplace(
        std::vector<std::string>{"/usr/bin/python3", "-c", kSilentPeer});
    EXPECT_EQ("there", silent_peer_->ReadLine("the silent peer"));
  }

  template <typename... Args>
  dbus::Message CallAndBlock(const std::string& method,
                             const Args&... arguments) {
    return CallMethodAndBlockWithTimeout(-1, bus_daemon_, kBusDaemon, method,
                                         &error_, arguments...);
  }

  // Starts a call that returns a `Result`. What it comes to is noted.
  template <typename Result, typename... Args>
  void CallAsync(int timeout_ms, const dbus::ObjectProxy& object,
                 const std::string& method, const Args&... arguments) {
    CallMethodWithTimeout<Result>(
        timeout_ms, object, kBusDaemon, method,
        base::Callback<void(const Result&)>(
            [this](const Result&) { outcomes_.push_back("success"); }),
        AsyncErrorCallback(
            [this](Error* error) { outcomes_.push_back(Describe(error)); }),
        arguments...);
  }
  std::string WaitForOutcome() {
    EXPECT_THAT(outcomes_, IsEmpty());
    EXPECT_TRUE(
        test::RunUntil("the outcome", [this] { return !outcomes_.empty(); }));
    test::RunPending();
    EXPECT_EQ(1u, outcomes_.size());
    return outcomes_.empty() ? "" : outcomes_[0];
  }

  test::PrivateBus private_bus_;
  base::EventLoop loop_;
  std::optional<dbus::Bus> bus_{&loop_};
  dbus::ObjectProxy bus_daemon_{&*bus_, kBusDaemon, "/org/freedesktop/DBus"};
  dbus::ObjectProxy silent_{&*bus_, "some.silent", "/path"};
  std::optional<test::Process> silent_peer_;
  std::unique_ptr<Error> error_;
  std::vector<std::string> outcomes_;
};

TEST_F(DBusMethodInvokerTest, ReturnsTheReply) {
  dbus::Message reply =
      CallAndBlock("GetNameOwner", std::string("org.freedesktop.DBus"));
  ASSERT_TRUE(reply);
  EXPECT_EQ(nullptr, error_);
  std::string owner;
  EXPECT_TRUE(ExtractMethodCallResults(&reply, &error_, &owner));
  EXPECT_EQ("org.freedesktop.DBus", owner);
}

TEST_F(DBusMethodInvokerTest, ReturnsAReplyWithADictionary) {
  dbus::Message reply =
      CallAndBlock("GetConnectionCredentials", std::string(kBusDaemon));
  ASSERT_TRUE(reply);
  VariantDictionary credentials;
  EXPECT_TRUE(ExtractMethodCallResults(&reply, &error_, &credentials));
  // Unsigned numbers, which we have no use for.
  EXPECT_EQ(1u, credentials.count("ProcessID"));
  EXPECT_TRUE(credentials.at("ProcessID").is_empty());
}

TEST_F(DBusMethodInvokerTest, ReportsTheErrorOfThePeer) {
  EXPECT_FALSE(CallAndBlock("GetConnectionUnixUser", std::string("no.body")));
  EXPECT_THAT(
      Describe(error_.get()),
      testing::StartsWith("dbus/org.freedesktop.DBus.Error.NameHasNoOwner: "));
  EXPECT_STREQ("CallMethodAndBlockWithTimeout", error_->GetLocation().function);
}

TEST_F(DBusMethodInvokerTest, ReportsThatThePeerIsNotThere) {
  const dbus::ObjectProxy missing(&*bus_, "no.body", "/path");
  EXPECT_FALSE(CallMethodAndBlockWithTimeout(-1, missing, "some.Interface",
                                             "Method", &error_));
  EXPECT_THAT(
      Describe(error_.get()),
      testing::StartsWith("dbus/org.freedesktop.DBus.Error.ServiceUnknown: "));
}

TEST_F(DBusMethodInvokerTest, ReportsThatThereIsNoAnswerInTime) {
  StartSilentPeer();
  EXPECT_FALSE(CallMethodAndBlockWithTimeout(1, silent_, "some.Interface",
                                             "Method", &error_));
  EXPECT_EQ(NoAnswer("some.Interface.Method"), Describe(error_.get()));
}

TEST_F(DBusMethodInvokerTest, ReportsThatTheBusIsGone) {
  private_bus_.Stop();
  EXPECT_FALSE(CallAndBlock("GetId"));
  EXPECT_EQ(NoAnswer("org.freedesktop.DBus.GetId"), Describe(error_.get()));
}

TEST_F(DBusMethodInvokerTest, ReportsThatThereIsNoConnection) {
  dbus::Bus unconnected(&loop_);
  const dbus::ObjectProxy object(&unconnected, "some.service", "/path");
  EXPECT_FALSE(CallMethodAndBlockWithTimeout(-1, object, "some.Interface",
                                             "Method", &error_));
  EXPECT_EQ(NoAnswer("some.Interface.Method"), Describe(error_.get()));
}

TEST_F(DBusMethodInvokerTest, ReportsThatAnArgumentCannotBeSent) {
  EXPECT_FALSE(CallAndBlock("GetNameOwner", kNoText));
  EXPECT_EQ(NoAnswer("org.freedesktop.DBus.GetNameOwner"),
            Describe(error_.get()));
}

TEST_F(DBusMethodInvokerTest, KeepsTheReasonToItselfIfNobodyAsked) {
  EXPECT_FALSE(CallMethodAndBlockWithTimeout(-1, bus_daemon_, kBusDaemon,
                                             "GetNameOwner", nullptr, kNoText));
  EXPECT_FALSE(CallMethodAndBlockWithTimeout(-1, bus_daemon_, kBusDaemon,
                                             "NoMethod", nullptr));
}

TEST_F(DBusMethodInvokerTest, ReportsAResultLater) {
  CallAsync<std::string>(-1, bus_daemon_, "GetNameOwner",
                         std::string(kBusDaemon));
  EXPECT_EQ("success", WaitForOutcome());
}

TEST_F(DBusMethodInvokerTest, ReportsTheErrorOfThePeerLater) {
  CallAsync<int32_t>(-1, bus_daemon_, "GetConnectionUnixUser",
                     std::string("no.body"));
  EXPECT_EQ(kNoOwner, WaitForOutcome());
}

TEST_F(DBusMethodInvokerTest, ReportsAnotherResultThanExpectedLater) {
  CallAsync<int32_t>(-1, bus_daemon_, "GetConnectionUnixUser",
                     std::string(kBusDaemon));
  EXPECT_EQ(
      "dbus/org.freedesktop.DBus.Error.InvalidArgs: Method parameter type "
      "mismatch",
      WaitForOutcome());
}

TEST_F(DBusMethodInvokerTest, ReportsThatThereIsNoAnswerInTimeLater) {
  StartSilentPeer();
  CallAsync<std::string>(1, silent_, "Method");
  EXPECT_EQ("dbus/org.freedesktop.DBus.Error.NoReply: Method call timed out",
            WaitForOutcome());
}

TEST_F(DBusMethodInvokerTest, ReportsACallThatCannotBeSentAtOnce) {
  CallAsync<std::string>(-1, bus_daemon_, "GetNameOwner", kNoText);
  EXPECT_THAT(outcomes_,
              ElementsAre(NoAnswer("org.freedesktop.DBus.GetNameOwner")));
  test::RunPending();
  EXPECT_EQ(1u, outcomes_.size());
}

TEST_F(DBusMethodInvokerTest, ReportsThatTheBusGoesBeforeTheReply) {
  StartSilentPeer();
  CallAsync<std::string>(-1, silent_, "Method");
  private_bus_.Stop();
  EXPECT_EQ("dbus/org.freedesktop.DBus.Error.NoReply: Connection terminated",
            WaitForOutcome());
}

TEST_F(DBusMethodInvokerTest, ReportsNothingOnceTheConnectionIsDestroyed) {
  auto token = std::make_shared<int>(0);
  const std::weak_ptr<int> weak_token = token;
  CallMethodWithTimeout<std::string>(
      -1, bus_daemon_, kBusDaemon, "GetId",
      base::Callback<void(const std::string&)>(
          [this, token](const std::string&) { outcomes_.push_back("late"); }),
      AsyncErrorCallback(
          [this, token](Error*) { outcomes_.push_back("late"); }));
  token.reset();
  EXPECT_FALSE(weak_token.expired());
  bus_.reset();
  EXPECT_TRUE(weak_token.expired());
  test::RunPending();
  EXPECT_THAT(outcomes_, IsEmpty());
}

}  // namespace
}  // namespace kestrix::dbus_utils
