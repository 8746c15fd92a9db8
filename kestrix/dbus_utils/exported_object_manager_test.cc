// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/dbus_utils/exported_object_manager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/event_loop.h"
#include "dbus/bus.h"
#include "dbus/message.h"
#include "dbus/object_proxy.h"
#include "kestrix/dbus_utils/dbus_object.h"
#include "tests/support/bus_caller.h"
#include "tests/support/private_bus.h"
#include "tests/support/test_loop.h"

namespace kestrix::dbus_utils {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

constexpr char kName[] = "some.service";
constexpr char kRoot[] = "/some/service";

class ExportedObjectManagerTest : public testing::Test {
 protected:
  ExportedObjectManagerTest() {
    std::string reason;
    EXPECT_TRUE(bus_.Connect(&reason)) << reason;
    bool has_name = false;
    bus_.RequestOwnership(
        kName, [&](bool owned, const std::string&) { has_name = owned; });
    EXPECT_TRUE(test::RunUntil("the bus name", [&] { return has_name; }));
  }

  // An object below the root, with an interface that has nothing.
  std::unique_ptr<DBusObject> Export(const std::string& path) {
    auto object = std::make_unique<DBusObject>(&manager_, &bus_, path);
    object->AddOrGetInterface("some.service.Interface");
    object->RegisterAsync([](bool success) { EXPECT_TRUE(success); });
    test::RunPending();
    return object;
  }

  std::string GetManagedObjects() {
    const test::BusCaller call(
        &loop_, kName, kRoot,
        "org.freedesktop.DBus.ObjectManager.GetManagedObjects", {});
    return test::RunUntil("the reply", [&] { return call.is_done(); })
               ? call.GetReply()
               : "";
  }

  test::PrivateBus private_bus_;
  base::EventLoop loop_;
  dbus::Bus bus_{&loop_};
  ExportedObjectManager manager_{&bus_, kRoot};
};

TEST_F(ExportedObjectManagerTest, LendsItsBus) {
  EXPECT_EQ(&bus_, manager_.bus());
}

TEST_F(ExportedObjectManagerTest, ReportsTheRegistrationFromTheLoop) {
  std::vector<bool> outcomes;
  manager_.RegisterAsync([&](bool success) { outcomes.push_back(success); });
  EXPECT_THAT(outcomes, IsEmpty());
  test::RunPending();
  EXPECT_THAT(outcomes, ElementsAre(true));
}

TEST_F(ExportedObjectManagerTest, ReportsAFailedRegistrationFromTheLoop) {
  ExportedObjectManager manager(&bus_, "no path");
  std::vector<bool> outcomes;
  manager.RegisterAsync([&](bool success) { outcomes.push_back(success); });
  EXPECT_THAT(outcomes, IsEmpty());
  test::RunPending();
  EXPECT_THAT(outcomes, ElementsAre(false));
}

TEST_F(ExportedObjectManagerTest, IsNotThereBeforeItIsRegistered) {
  EXPECT_THAT(GetManagedObjects(), StartsWith("Error "));
}

TEST_F(ExportedObjectManagerTest, HasNoObjectsAtFirst) {
  manager_.RegisterAsync([](bool) {});
  EXPECT_EQ("array [\n]", GetManagedObjects());
}

TEST_F(ExportedObjectManagerTest, ListsTheObjectsBelowItsPath) {
  manager_.RegisterAsync([](bool) {});
  const auto first = Export("/some/service/First");
  auto second = Export("/some/service/deep/Second");
  EXPECT_THAT(
      GetManagedObjects(),
      testing::AllOf(HasSubstr("object path \"/some/service/First\""),
                     HasSubstr("object path \"/some/service/deep/Second\""),
                     HasSubstr("string \"some.service.Interface\"")));
  second.reset();
  EXPECT_THAT(GetManagedObjects(),
              testing::AllOf(HasSubstr("/some/service/First"),
                             Not(HasSubstr("Second"))));
}

TEST_F(ExportedObjectManagerTest, AnnouncesWhatComesAndGoes) {
  dbus::Bus watcher(&loop_);
  std::string reason;
  ASSERT_TRUE(watcher.Connect(&reason)) << reason;
  std::vector<std::string> signals;
  const auto watch = [&](const std::string& member) {
    return watcher.AddMatch(
        "type='signal',sender='some.service',path='/some/service',"
        "interface='org.freedesktop.DBus.ObjectManager',member='" +
            member + "'",
        [&signals, member](dbus::Message signal) {
          std::string path;
          EXPECT_TRUE(dbus::MessageReader(&signal).PopObjectPath(&path));
          signals.push_back(member + " " + path + " " + signal.GetSignature());
        });
  };
  const dbus::Slot added = watch("InterfacesAdded");
  const dbus::Slot removed = watch("InterfacesRemoved");
  const dbus::ObjectProxy bus_daemon(&watcher, "org.freedesktop.DBus",
                                     "/org/freedesktop/DBus");
  dbus::Error error;
  // The bus has taken in the matches when it has answered this.
  ASSERT_TRUE(watcher.CallAndBlock(
      bus_daemon.CreateMethodCall("org.freedesktop.DBus", "GetId"), -1,
      &error));

  manager_.RegisterAsync([](bool) {});
  Export("/some/service/Object").reset();
  ASSERT_TRUE(
      test::RunUntil("the signals", [&] { return signals.size() >= 2; }));
  EXPECT_THAT(signals,
              ElementsAre("InterfacesAdded /some/service/Object oa{sa{sv}}",
                          "InterfacesRemoved /some/service/Object oas"));
}

TEST_F(ExportedObjectManagerTest, LeavesTheBusAtItsEnd) {
  {
    ExportedObjectManager manager(&bus_, "/other/root");
    manager.RegisterAsync([](bool success) { EXPECT_TRUE(success); });
    test::RunPending();
  }
  ExportedObjectManager again(&bus_, "/other/root");
  std::vector<bool> outcomes;
  again.RegisterAsync([&](bool success) { outcomes.push_back(success); });
  test::RunPending();
  EXPECT_THAT(outcomes, ElementsAre(true));
}

}  // namespace
}  // namespace kestrix::dbus_utils
