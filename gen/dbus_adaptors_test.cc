// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "dosset/dbus-adaptors.h"

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/event_loop.h"
#include "tests/support/bus_caller.h"
#include "tests/support/private_bus.h"
#include "tests/support/test_loop.h"

namespace org::vantrel::actions::CloudActions {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kService[] = "org.vantrel.actions.CloudActions";
constexpr char kRoot[] = "/org/vantrel/actions/CloudActions";
constexpr char kPath[] = "/org/vantrel/actions/CloudActions/Manager";
constexpr char kMethod[] =
    "org.vantrel.actions.CloudActions.Manager.RedirectRequest";

// Notes what it is asked for and answers at once.
class RecordingManager : public ManagerInterface {
 public:
  void RedirectRequest(std::unique_ptr<RedirectRequestResponse> response,
                       const std::string& in_endpoint,
                       const std::string& in_method,
                       const std::string& in_body) override {
    requests.push_back({in_endpoint, in_method, in_body});
    response->Return(204, "answer");
  }

  std::vector<std::vector<std::string>> requests;
};

class ManagerAdaptorTest : public testing::Test {
 protected:
  ManagerAdaptorTest() {
    std::string reason;
    EXPECT_TRUE(bus_.Connect(&reason)) << reason;
    object_manager_ =
        std::make_unique<kestrix::dbus_utils::ExportedObjectManager>(&bus_,
                                                                     kRoot);
    object_ = std::make_unique<kestrix::dbus_utils::DBusObject>(
        object_manager_.get(), &bus_, kPath);
    adaptor_.RegisterWithDBusObject(object_.get());
    int done = 0;
    const auto count = [&done](bool success) { done += success ? 1 : 0; };
    object_manager_->RegisterAsync(count);
    object_->RegisterAsync(count);
    bus_.RequestOwnership(kService, [&done](bool owned, const std::string&) {
      done += owned ? 1 : 0;
    });
    EXPECT_TRUE(test::RunUntil("the object to be there",
                               [&done] { return done == 3; }));
  }

  std::string Call(const std::string& method,
                   const std::vector<std::string>& arguments) {
    test::BusCaller caller(&loop_, kService, kPath, method, arguments);
    EXPECT_TRUE(test::RunUntil("the reply", [&] { return caller.is_done(); }));
    return caller.GetReply();
  }

  test::PrivateBus private_bus_;
  base::EventLoop loop_;
  dbus::Bus bus_{&loop_};
  RecordingManager manager_;
  ManagerAdaptor adaptor_{&manager_};
  std::unique_ptr<kestrix::dbus_utils::ExportedObjectManager> object_manager_;
  std::unique_ptr<kestrix::dbus_utils::DBusObject> object_;
};

TEST_F(ManagerAdaptorTest, PassesArgumentsInTheOrderOfTheWire) {
  EXPECT_EQ("int32 204\nstring \"answer\"",
            Call(kMethod, {"string:url", "string:GET", "string:text"}));
  EXPECT_THAT(manager_.requests,
              ElementsAre(ElementsAre("url", "GET", "text")));
}

TEST_F(ManagerAdaptorTest, RefusesOtherArguments) {
  constexpr char kRefused[] = "Error org.freedesktop.DBus.Error.InvalidArgs: ";
  EXPECT_EQ(kRefused + std::string("Too few parameters in a method call"),
            Call(kMethod, {"string:url", "string:GET"}));
  EXPECT_EQ(kRefused + std::string("Method parameter type mismatch"),
            Call(kMethod, {"string:url", "int32:1", "string:text"}));
  EXPECT_EQ(kRefused + std::string("Too many parameters in a method call"),
            Call(kMethod,
                 {"string:url", "string:GET", "string:text", "string:more"}));
  EXPECT_THAT(manager_.requests, IsEmpty());
}

TEST_F(ManagerAdaptorTest, NamesTheArgumentsInIntrospection) {
  const std::string text =
      Call("org.freedesktop.DBus.Introspectable.Introspect", {});
  size_t position = text.find(
      "<interface name=\"org.vantrel.actions.CloudActions.Manager\">");
  ASSERT_NE(std::string::npos, position) << text;
  for (const char* expected :
       {"<method name=\"RedirectRequest\">",
        "<arg type=\"s\" name=\"endpoint\" direction=\"in\"/>",
        "<arg type=\"s\" name=\"method\" direction=\"in\"/>",
        "<arg type=\"s\" name=\"body\" direction=\"in\"/>",
        "<arg type=\"i\" name=\"status_code\" direction=\"out\"/>",
        "<arg type=\"s\" name=\"response_body\" direction=\"out\"/>",
        "</method>"}) {
    position = text.find(expected, position);
    ASSERT_NE(std::string::npos, position) << expected << " in " << text;
  }
}

}  // namespace
}  // namespace org::vantrel::actions::CloudActions
