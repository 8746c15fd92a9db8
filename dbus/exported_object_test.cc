// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "dbus/exported_object.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <memory>
#include <string>
#include <vector>

#include "base/event_loop.h"
#include "dbus/bus.h"
#include "tests/support/bus_caller.h"
#include "tests/support/private_bus.h"
#include "tests/support/test_loop.h"

namespace dbus {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr char kName[] = "com.example.Service";
constexpr char kPath[] = "/com/example/Object";
constexpr char kInterface[] = "com.example.Interface";

// One object with the method Echo, which answers with the text that it gets,
// and the method Keep, which answers when the test says so.
class ExportedObjectTest : public testing::Test {
 protected:
  ExportedObjectTest() {
    std::string reason;
    EXPECT_TRUE(bus_.Connect(&reason)) << reason;
    EXPECT_TRUE(AddObjectManager(&bus_, "/com/example", &object_manager_));
    object_ = std::make_unique<ExportedObject>(&bus_, kPath);
    EXPECT_TRUE(object_->AddInterface(kInterface, Methods(), &reason))
        << reason;
    EXPECT_TRUE(object_->Announce(&reason)) << reason;
    bool owned = false;
    bus_.RequestOwnership(
        kName, [&](bool success, const std::string&) { owned = success; });
    EXPECT_TRUE(test::RunUntil("the name", [&] { return owned; }));
  }

  std::vector<ExportedMethod> Methods() {
    const auto echo = [](Message call) {
      std::string text;
      Message reply;
      if (MessageReader(&call).PopString(&text)) {
        reply = call.CreateReply();
        EXPECT_TRUE(MessageWriter(&reply).AppendString(text));
      } else {
        reply = call.CreateErrorReply("com.example.Error", "no text");
      }
      EXPECT_TRUE(reply.Send());
    };
    return {{.name = "Echo",
             .in_signature = "s",
             .out_signature = "s",
             .argument_names = {"question", "answer"},
             .handler = echo},
            {.name = "Keep",
             .in_signature = "",
             .out_signature = "",
             .argument_names = {},
             .handler = [this](Message call) {
               kept_.push_back(std::move(call));
             }}};
  }

  std::string Call(const std::string& method,
                   const std::vector<std::string>& arguments,
                   const std::string& path = kPath) {
    const test::BusCaller caller(&loop_, kName, path, method, arguments);
    EXPECT_TRUE(test::RunUntil("the reply", [&] { return caller.is_done(); }));
    return caller.GetReply();
  }
  std::string GetManagedObjects() {
    return Call("org.freedesktop.DBus.ObjectManager.GetManagedObjects", {},
                "/com/example");
  }

  test::PrivateBus private_bus_;
  base::EventLoop loop_;
  Bus bus_{&loop_};
  Slot object_manager_;
  std::vector<Message> kept_;
  std::unique_ptr<ExportedObject> object_;
};

TEST_F(ExportedObjectTest, HandsACallToItsHandler) {
  EXPECT_EQ("string \"text\"",
            Call("com.example.Interface.Echo", {"string:text"}));
}

TEST_F(ExportedObjectTest, LeavesTheArgumentsToTheHandler) {
  EXPECT_EQ("Error com.example.Error: no text",
            Call("com.example.Interface.Echo", {"int32:1"}));
  EXPECT_EQ("Error com.example.Error: no text",
            Call("com.example.Interface.Echo", {}));
}

// A call need not name the interface; the member alone counts then.
TEST_F(ExportedObjectTest, TakesACallWithoutAnInterface) {
  Bus other(&loop_);
  std::string reason, text;
  ASSERT_TRUE(other.Connect(&reason)) << reason;
  sd_bus_message* call = nullptr;
  ASSERT_GE(sd_bus_message_new_method_call(other.get(), &call, kName, kPath,
                                           nullptr, "Echo"),
            0);
  Message message(call);
  ASSERT_TRUE(MessageWriter(&message).AppendString("text"));
  ASSERT_TRUE(other.Call(message, -1, [&](Message reply) {
    EXPECT_TRUE(MessageReader(&reply).PopString(&text));
  }));
  ASSERT_TRUE(test::RunUntil("the reply", [&] { return !text.empty(); }));
  EXPECT_EQ("text", text);
}

TEST_F(ExportedObjectTest, MayAnswerLater) {
  const test::BusCaller caller(&loop_, kName, kPath,
                               "com.example.Interface.Keep", {});
  ASSERT_TRUE(test::RunUntil("the call", [&] { return !kept_.empty(); }));
  EXPECT_EQ("string \"meanwhile\"",
            Call("com.example.Interface.Echo", {"string:meanwhile"}));
  EXPECT_FALSE(caller.is_done());
  EXPECT_TRUE(kept_[0].CreateReply().Send());
  ASSERT_TRUE(test::RunUntil("the reply", [&] { return caller.is_done(); }));
  EXPECT_EQ("", caller.GetReply());
}

TEST_F(ExportedObjectTest, RefusesUnknownMethodsInterfacesAndObjects) {
  EXPECT_THAT(Call("com.example.Interface.Other", {"string:a"}),
              HasSubstr("Error org.freedesktop.DBus.Error.UnknownMethod"));
  EXPECT_THAT(Call("com.example.Other.Echo", {"string:a"}),
              HasSubstr("Error org.freedesktop.DBus.Error.Unknown"));
  EXPECT_THAT(Call("com.example.Interface.Echo", {"string:a"}, "/other"),
              HasSubstr("Error org.freedesktop.DBus.Error.UnknownObject"));
}

TEST_F(ExportedObjectTest, DescribesItself) {
  EXPECT_THAT(Call("org.freedesktop.DBus.Introspectable.Introspect", {}),
              HasSubstr("<interface name=\"com.example.Interface\">\n"
                        "<method name=\"Echo\">\n"
                        "<arg type=\"s\" name=\"question\" direction=\"in\"/>\n"
                        "<arg type=\"s\" name=\"answer\" direction=\"out\"/>\n"
                        "</method>\n"
                        "<method name=\"Keep\">\n"
                        "</method>\n"
                        "</interface>"));
}

TEST_F(ExportedObjectTest, IsInTheObjectManagerUntilDestroyed) {
  EXPECT_THAT(GetManagedObjects(), HasSubstr("com.example.Interface"));
  object_.reset();
  EXPECT_THAT(GetManagedObjects(), Not(HasSubstr("com.example.Interface")));
}

TEST_F(ExportedObjectTest, AnnouncesItsComingAndGoing) {
  Bus other(&loop_);
  std::string reason;
  ASSERT_TRUE(other.Connect(&reason)) << reason;
  std::vector<std::string> seen;
  const Slot slot = other.AddMatch(
      "type='signal',interface='org.freedesktop.DBus.ObjectManager'",
      [&](Message signal) {
        std::string path;
        MessageReader(&signal).PopObjectPath(&path);
        seen.push_back(signal.GetPath() + " " + path + " " +
                       signal.GetSignature());
      });
  GetManagedObjects();  // The rule is in force by now.
  object_.reset();
  object_ = std::make_unique<ExportedObject>(&bus_, kPath);
  ASSERT_TRUE(object_->AddInterface(kInterface, Methods(), &reason));
  ASSERT_TRUE(object_->Announce(&reason));
  ASSERT_TRUE(test::RunUntil("both signals", [&] { return seen.size() == 2; }));
  EXPECT_THAT(seen, testing::ElementsAre(
                        "/com/example /com/example/Object oas",
                        "/com/example /com/example/Object oa{sa{sv}}"));
}

TEST_F(ExportedObjectTest, SaysWhyAnInterfaceCannotBeAdded) {
  ExportedObject second(&bus_, kPath);
  std::string reason;
  EXPECT_FALSE(second.AddInterface(kInterface, Methods(), &reason));
  EXPECT_EQ("File exists", reason);
  EXPECT_FALSE(second.AddInterface("nonsense", Methods(), &reason));
  EXPECT_EQ("Invalid argument", reason);
}

TEST_F(ExportedObjectTest, MayBeDestroyedByItsHandler) {
  std::string reason;
  auto doomed = std::make_unique<ExportedObject>(&bus_, "/com/example/Doomed");
  ASSERT_TRUE(doomed->AddInterface(kInterface,
                                   {{.name = "End",
                                     .in_signature = "",
                                     .out_signature = "",
                                     .argument_names = {},
                                     .handler =
                                         [&doomed](Message call) {
                                           doomed.reset();
                                           call.CreateReply().Send();
                                         }}},
                                   &reason));
  EXPECT_EQ("", Call("com.example.Interface.End", {}, "/com/example/Doomed"));
  EXPECT_THAT(Call("com.example.Interface.End", {}, "/com/example/Doomed"),
              HasSubstr("Error org.freedesktop.DBus.Error.UnknownObject"));
}

}  // namespace
}  // namespace dbus
