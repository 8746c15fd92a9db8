// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/dbus_utils/dbus_object.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/event_loop.h"
#include "dbus/bus.h"
#include "tests/support/bus_caller.h"
#include "tests/support/log_capture.h"
#include "tests/support/private_bus.h"
#include "tests/support/process.h"
#include "tests/support/test_loop.h"

namespace kestrix::dbus_utils {
namespace {

using test::ErrorLine;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

constexpr char kName[] = "some.service";
constexpr char kRoot[] = "/some/service";
constexpr char kObject[] = "/some/service/Object";
constexpr char kInterface[] = "some.service.Interface";
constexpr char kJoin[] = "some.service.Interface.Join";

// Makes three calls that expect no reply, the last with a wrong argument.
constexpr char kCallWithoutReply[] = R"(
import dbus, dbus.lowlevel
bus = dbus.SystemBus()
for number in dbus.Int32(1), dbus.Int32(2), 'no number':
    call = dbus.lowlevel.MethodCallMessage(
        'some.service', '/some/service/Object', 'some.service.Interface', 'Join')
    call.set_no_reply(True)
    call.append('quiet', number)
    bus.send_message(call)
bus.flush()
)";

// An object with the method Join, which takes a string and an integer. Its
// replies are given by the test.
class DBusObjectTest : public testing::Test {
 protected:
  using Response = DBusMethodResponse<std::string>;
  using Handler =
      DBusInterfaceMethodHandler<Response, const std::string&, int32_t>;

  DBusObjectTest() {
    std::string reason;
    EXPECT_TRUE(bus_.Connect(&reason)) << reason;
    object_manager_ = std::make_unique<ExportedObjectManager>(&bus_, kRoot);
    object_ =
        std::make_unique<DBusObject>(object_manager_.get(), &bus_, kObject);
    AddJoin(kInterface);
  }

  void AddJoin(const std::string& interface) {
    object_->AddOrGetInterface(interface)->AddHandlerImpl(
        "Join",
        std::make_unique<Handler>([this](std::unique_ptr<Response> response,
                                         const std::string& text,
                                         int32_t number) {
          calls_.push_back(text + " " + std::to_string(number));
          pending_.push_back(std::move(response));
          if (when_called_) when_called_.Run();
        }),
        {"si", "s", {"text", "number", "joined"}});
  }

  // Exports the object and takes the name.
  void Register() {
    bool has_name = false;
    object_manager_->RegisterAsync([](bool success) { EXPECT_TRUE(success); });
    object_->RegisterAsync([](bool success) { EXPECT_TRUE(success); });
    bus_.RequestOwnership(
        kName, [&](bool owned, const std::string&) { has_name = owned; });
    ASSERT_TRUE(test::RunUntil("the bus name", [&] { return has_name; }));
  }

  // Serves the loop until the outcome of `object`'s registration is reported.
  static bool RegisterAndWait(DBusObject* object) {
    std::vector<bool> outcomes;
    object->RegisterAsync([&](bool success) { outcomes.push_back(success); });
    EXPECT_THAT(outcomes, IsEmpty());
    test::RunPending();
    EXPECT_EQ(1u, outcomes.size());
    return outcomes == std::vector<bool>{true};
  }

  std::unique_ptr<test::BusCaller> Call(
      const std::string& method, const std::vector<std::string>& arguments) {
    return std::make_unique<test::BusCaller>(&loop_, kName, kObject, method,
                                             arguments);
  }
  // A call of Join that has arrived.
  std::unique_ptr<test::BusCaller> CallJoin(const std::string& text,
                                            int number) {
    const size_t before = calls_.size();
    auto call =
        Call(kJoin, {"string:" + text, "int32:" + std::to_string(number)});
    EXPECT_TRUE(
        test::RunUntil("the call", [&] { return calls_.size() > before; }));
    return call;
  }
  // Ends the bus, and waits until that has been noticed.
  void StopBus() {
    bool has_ended = false;
    bus_.SetDisconnectedCallback([&] { has_ended = true; });
    private_bus_.Stop();
    EXPECT_TRUE(
        test::RunUntil("the end of the bus", [&] { return has_ended; }));
  }
  static std::string WaitFor(const test::BusCaller& call) {
    return test::RunUntil("the reply", [&] { return call.is_done(); })
               ? call.GetReply()
               : "";
  }

  test::PrivateBus private_bus_;
  test::LogCapture log_;
  base::EventLoop loop_;
  dbus::Bus bus_{&loop_};
  std::unique_ptr<ExportedObjectManager> object_manager_;
  std::unique_ptr<DBusObject> object_;
  std::vector<std::string> calls_;
  std::vector<std::unique_ptr<Response>> pending_;
  base::Callback<void()> when_called_;
};

TEST_F(DBusObjectTest, HasOneInterfaceOfEachName) {
  DBusInterface* first = object_->AddOrGetInterface("some.First");
  DBusInterface* second = object_->AddOrGetInterface("some.Second");
  EXPECT_NE(first, second);
  EXPECT_EQ(first, object_->AddOrGetInterface("some.First"));
}

TEST_F(DBusObjectTest, AnswersACall) {
  Register();
  const auto call = CallJoin("text", -7);
  EXPECT_THAT(calls_, ElementsAre("text -7"));
  EXPECT_FALSE(call->is_done());
  pending_[0]->Return("answer");
  EXPECT_EQ("string \"answer\"", WaitFor(*call));
}

TEST_F(DBusObjectTest, AnswersACallWithAnError) {
  Register();
  const auto call = CallJoin("text", 1);
  constexpr base::Location kSomewhere{"Function", "some/file", 42};
  const std::unique_ptr<Error> error =
      Error::Create(kSomewhere, "domain", "code", "no \xff good");
  pending_[0]->ReplyWithError(error.get());
  EXPECT_EQ("Error org.freedesktop.DBus.Error.Failed: domain/code: no ? good",
            WaitFor(*call));
}

TEST_F(DBusObjectTest, RefusesWrongArguments) {
  Register();
  EXPECT_EQ(
      "Error org.freedesktop.DBus.Error.InvalidArgs: Too few parameters in a "
      "method call",
      WaitFor(*Call(kJoin, {"string:text"})));
  EXPECT_EQ(
      "Error org.freedesktop.DBus.Error.InvalidArgs: Method parameter type "
      "mismatch",
      WaitFor(*Call(kJoin, {"string:text", "uint32:1"})));
  EXPECT_EQ(
      "Error org.freedesktop.DBus.Error.InvalidArgs: Too many parameters in a "
      "method call",
      WaitFor(*Call(kJoin, {"string:text", "int32:1", "int32:2"})));
  EXPECT_THAT(calls_, IsEmpty());
}

TEST_F(DBusObjectTest, KnowsNoOtherMethodsAndInterfaces) {
  Register();
  const char* unknown_method =
      "Error org.freedesktop.DBus.Error.UnknownMethod: ";
  EXPECT_THAT(WaitFor(*Call("some.service.Interface.join", {})),
              StartsWith(unknown_method));
  EXPECT_THAT(WaitFor(*Call("some.service.Interfaces.Join", {})),
              StartsWith("Error org.freedesktop.DBus.Error.Unknown"));
  EXPECT_THAT(calls_, IsEmpty());
}

TEST_F(DBusObjectTest, TellsTheCallerIfAReplyIsDestroyedUnsent) {
  Register();
  const auto call = CallJoin("text", 1);
  pending_.clear();
  EXPECT_EQ(
      "Error org.freedesktop.DBus.Error.NoReply: The service ended before it "
      "had an answer",
      WaitFor(*call));
}

TEST_F(DBusObjectTest, AnswersInTheOrderOfTheReplies) {
  Register();
  const auto first = CallJoin("first", 1);
  const auto second = CallJoin("second", 2);
  pending_[1]->Return("two");
  EXPECT_EQ("string \"two\"", WaitFor(*second));
  EXPECT_FALSE(first->is_done());
  pending_[0]->Return("one");
  EXPECT_EQ("string \"one\"", WaitFor(*first));
}

TEST_F(DBusObjectTest, SurvivesACallerThatHasGone) {
  Register();
  CallJoin("text", 1).reset();
  pending_[0]->Return("answer");
  const auto call = CallJoin("more", 2);
  pending_[1]->Return("answer");
  EXPECT_EQ("string \"answer\"", WaitFor(*call));
}

TEST_F(DBusObjectTest, SendsNoReplyThatNobodyExpects) {
  Register();
  test::Process monitor(
      {"dbus-monitor", "--system", "type='method_return'", "type='error'"},
      /*with_errors=*/true);
  monitor.Watch(&loop_);
  const auto is_seen = [&](const std::string& text) {
    return monitor.output().find(text) != std::string::npos;
  };
  // The monitor is at work once it shows a reply.
  while (!is_seen("first")) {
    const auto call = CallJoin("first", 1);
    pending_.back()->Return("first");
    ASSERT_EQ("string \"first\"", WaitFor(*call));
    ASSERT_FALSE(monitor.has_ended()) << monitor.output();
  }

  // The last of these is answered before anybody is told.
  test::Process caller({"/usr/bin/python3", "-c", kCallWithoutReply});
  caller.Watch(&loop_);
  ASSERT_TRUE(test::RunUntil("the caller", [&] { return caller.has_ended(); }));
  const auto call = CallJoin("last", 1);
  ASSERT_THAT(calls_, Contains("quiet 1"));
  pending_[pending_.size() - 3]->Return("unwanted");
  pending_[pending_.size() - 2].reset();
  pending_.back()->Return("last");
  ASSERT_TRUE(test::RunUntil("the monitor", [&] { return is_seen("last"); }));
  EXPECT_THAT(monitor.output(), Not(HasSubstr("unwanted")));
  EXPECT_THAT(monitor.output(), Not(HasSubstr("The service ended")));
  EXPECT_THAT(monitor.output(), Not(HasSubstr("InvalidArgs")));
}

TEST_F(DBusObjectTest, SaysThatAReplyWasLostWithTheBus) {
  Register();
  const auto call = CallJoin("text", 1);
  StopBus();
  pending_[0]->Return("answer");
  EXPECT_THAT(log_.lines(), ElementsAre(test::WarningLine("A reply was lost")));
}

TEST_F(DBusObjectTest, ServesSeveralInterfaces) {
  AddJoin("some.service.Other");
  Register();
  const auto call = Call("some.service.Other.Join", {"string:text", "int32:1"});
  ASSERT_TRUE(test::RunUntil("the call", [&] { return !pending_.empty(); }));
  pending_[0]->Return("other");
  EXPECT_EQ("string \"other\"", WaitFor(*call));
  const auto first = CallJoin("text", 1);
  pending_[1]->Return("first");
  EXPECT_EQ("string \"first\"", WaitFor(*first));
}

TEST_F(DBusObjectTest, DescribesItsMethods) {
  Register();
  EXPECT_THAT(
      WaitFor(*Call("org.freedesktop.DBus.Introspectable.Introspect", {})),
      HasSubstr("<method name=\"Join\">\n"
                "<arg type=\"s\" name=\"text\" direction=\"in\"/>\n"
                "<arg type=\"i\" name=\"number\" direction=\"in\"/>\n"
                "<arg type=\"s\" name=\"joined\" direction=\"out\"/>\n"
                "</method>"));
}

TEST_F(DBusObjectTest, IsNotOnTheBusBeforeItIsRegistered) {
  bool has_name = false;
  bus_.RequestOwnership(
      kName, [&](bool owned, const std::string&) { has_name = owned; });
  ASSERT_TRUE(test::RunUntil("the bus name", [&] { return has_name; }));
  EXPECT_THAT(WaitFor(*Call(kJoin, {"string:text", "int32:1"})),
              StartsWith("Error org.freedesktop.DBus.Error.UnknownObject: "));
}

TEST_F(DBusObjectTest, LeavesTheBusAtItsEnd) {
  Register();
  object_.reset();
  EXPECT_THAT(WaitFor(*Call(kJoin, {"string:text", "int32:1"})),
              StartsWith("Error org.freedesktop.DBus.Error.UnknownObject: "));
}

TEST_F(DBusObjectTest, LeavesItsPendingRepliesToTheirOwners) {
  Register();
  const auto call = CallJoin("text", 1);
  object_.reset();
  pending_[0]->Return("answer");
  EXPECT_EQ("string \"answer\"", WaitFor(*call));
}

TEST_F(DBusObjectTest, MayEndDuringACall) {
  Register();
  when_called_ = [this] { object_.reset(); };
  const auto call = CallJoin("text", 1);
  EXPECT_EQ(nullptr, object_);
  pending_[0]->Return("answer");
  EXPECT_EQ("string \"answer\"", WaitFor(*call));
}

TEST_F(DBusObjectTest, CanComeBackAtItsPath) {
  Register();
  object_.reset();
  object_ = std::make_unique<DBusObject>(object_manager_.get(), &bus_, kObject);
  AddJoin(kInterface);
  EXPECT_TRUE(RegisterAndWait(object_.get()));
  const auto call = CallJoin("text", 1);
  pending_[0]->Return("answer");
  EXPECT_EQ("string \"answer\"", WaitFor(*call));
}

TEST_F(DBusObjectTest, CannotBeWhereAnotherObjectIs) {
  Register();
  const auto first = std::exchange(
      object_,
      std::make_unique<DBusObject>(object_manager_.get(), &bus_, kObject));
  AddJoin(kInterface);
  EXPECT_FALSE(RegisterAndWait(object_.get()));
  EXPECT_THAT(log_.lines(),
              ElementsAre(ErrorLine(
                  "Cannot export /some/service/Object: File exists")));
}

TEST_F(DBusObjectTest, CannotBeWhereNoObjectManagerAnnouncesIt) {
  EXPECT_FALSE(RegisterAndWait(object_.get()));
  EXPECT_THAT(log_.lines(),
              ElementsAre(ErrorLine(
                  "Cannot export /some/service/Object: No such process")));
}

TEST_F(DBusObjectTest, CannotBeAtAPathThatIsNone) {
  DBusObject object(object_manager_.get(), &bus_, "no path");
  object.AddOrGetInterface(kInterface);
  EXPECT_FALSE(RegisterAndWait(&object));
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(ErrorLine("Cannot export no path: Invalid argument")));
}

TEST_F(DBusObjectTest, CannotHaveAnInterfaceWithoutAProperName) {
  DBusObject object(object_manager_.get(), &bus_, "/other");
  object.AddOrGetInterface("no name");
  EXPECT_FALSE(RegisterAndWait(&object));
  EXPECT_THAT(log_.lines(),
              ElementsAre(ErrorLine("Cannot export /other: Invalid argument")));
}

// The end of the bus has its own report, which must not become that of a failed
// registration.
TEST_F(DBusObjectTest, ReportsNoRegistrationAfterTheEndOfTheBus) {
  StopBus();
  int reports = 0;
  object_->RegisterAsync([&](bool) { ++reports; });
  test::RunPending();
  EXPECT_EQ(0, reports);
  ASSERT_EQ(1u, log_.lines().size());
  EXPECT_THAT(log_.lines()[0].text,
              StartsWith("Cannot export /some/service/Object: "));
}

}  // namespace
}  // namespace kestrix::dbus_utils
