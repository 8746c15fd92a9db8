// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "dbus/object_manager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "base/event_loop.h"
#include "dbus/bus.h"
#include "tests/support/agent.h"
#include "tests/support/log_capture.h"
#include "tests/support/private_bus.h"
#include "tests/support/test_loop.h"

namespace dbus {
namespace {

using test::ErrorLine;
using test::WarningLine;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kService[] = "org.vantrel.Dosset";
constexpr char kRoot[] = "/org/vantrel/Dosset";
constexpr char kColour[] = "com.example.Colour";
constexpr char kShape[] = "com.example.Shape";

bool PopText(MessageReader* reader, std::string* output) {
  return reader->PopString(output);
}

class TestProperties : public PropertySet {
 public:
  TestProperties(const std::string& path, const std::string& interface_name,
                 PropertyChangedCallback callback)
      : PropertySet(path, interface_name, std::move(callback)) {
    RegisterProperty("Name", &name);
  }
  Property<std::string, PopText> name;
};

// Writes down what it is told.
class Recorder : public ObjectManager::Interface {
 public:
  explicit Recorder(ObjectManager* manager) : manager_(manager) {}

  std::unique_ptr<PropertySet> CreateProperties(
      ObjectProxy* object_proxy, const std::string& object_path,
      const std::string& interface_name) override {
    EXPECT_EQ(object_path, object_proxy->path());
    return std::make_unique<TestProperties>(
        object_path, interface_name,
        [this, object_path](const std::string& name) {
          events.push_back("changed " + object_path + " " + name);
        });
  }
  void ObjectAdded(const std::string& object_path,
                   const std::string& interface_name) override {
    events.push_back("added " + object_path + " " + interface_name + " '" +
                     GetName(object_path, interface_name) + "'");
  }
  void ObjectRemoved(const std::string& object_path,
                     const std::string& interface_name) override {
    // The properties are still there.
    events.push_back("removed " + object_path + " " + interface_name + " '" +
                     GetName(object_path, interface_name) + "'");
  }

  std::string GetName(const std::string& object_path,
                      const std::string& interface_name) {
    PropertySet* properties =
        manager_->GetProperties(object_path, interface_name);
    return properties ? static_cast<TestProperties*>(properties)->name.value()
                      : "no properties";
  }

  bool Has(const std::string& event) const {
    return std::count(events.begin(), events.end(), event) > 0;
  }

  std::vector<std::string> events;

 private:
  ObjectManager* manager_;
};

class ObjectManagerTest : public testing::Test {
 protected:
  ObjectManagerTest() {
    std::string reason;
    EXPECT_TRUE(bus_.Connect(&reason)) << reason;
  }
  ~ObjectManagerTest() override {
    if (!manager_) return;
    manager_->UnregisterInterface(kColour);
    manager_->UnregisterInterface(kShape);
  }

  void CreateManager() {
    manager_ = bus_.GetObjectManager(kService, kRoot);
    recorder_ = std::make_unique<Recorder>(manager_);
    manager_->RegisterInterface(kColour, recorder_.get());
    manager_->RegisterInterface(kShape, recorder_.get());
  }

  // The manager and the agent, which know of each other, with no object yet.
  void Start() {
    CreateManager();
    agent_.Appear();
    Settle();
    // The list of objects that we have asked for has come as well.
    Ping();
    test::RunPending();
    recorder_->events.clear();
  }

  // Waits for an answer of the agent's, which answers in order.
  void Ping(const std::string& service = kService) {
    const ObjectProxy peer(&bus_, service, kRoot);
    const Message call =
        peer.CreateMethodCall("org.freedesktop.DBus.Peer", "Ping");
    Error error;
    EXPECT_TRUE(peer.CallMethodAndBlock(call, -1, &error)) << error.message;
  }

  void Publish(const std::string& path, const std::string& interface_name,
               const std::string& name, bool announce = true) {
    agent_.Do("publish",
              R"({"path": ")" + path + R"(", "interface": ")" + interface_name +
                  R"(", "properties": {"Name": ["s", ")" + name +
                  R"("]}, "announce": )" + (announce ? "true" : "false") + "}");
  }
  void Remove(const std::string& path, const std::string& interfaces = "null") {
    agent_.Do("remove", R"({"path": ")" + path + R"(", "interfaces": )" +
                            interfaces + "}");
  }
  // Any signal of the agent's, or of somebody else.
  void Signal(const std::string& path, const std::string& interface_name,
              const std::string& member, const std::string& signature,
              const std::string& arguments, const std::string& more = "") {
    agent_.Do("signal", R"({"path": ")" + path + R"(", "interface": ")" +
                            interface_name + R"(", "member": ")" + member +
                            R"(", "signature": ")" + signature +
                            R"(", "arguments": )" + arguments + more + "}");
  }
  void ObjectManagerSignal(const std::string& member,
                           const std::string& signature,
                           const std::string& arguments,
                           const std::string& more = "") {
    Signal(kRoot, "org.freedesktop.DBus.ObjectManager", member, signature,
           arguments, more);
  }

  void WaitFor(const std::string& event) {
    EXPECT_TRUE(test::RunUntil(event, [&] { return recorder_->Has(event); }));
  }

  void WaitForLogLine() {
    EXPECT_TRUE(
        test::RunUntil("a log line", [&] { return !log_.lines().empty(); }));
  }

  // Shows that all that was sent before has been dealt with, by one more
  // object, which leaves no trace.
  void Settle() {
    Publish("/org/vantrel/Dosset/last", kShape, "last");
    WaitFor("added /org/vantrel/Dosset/last com.example.Shape 'last'");
    Remove("/org/vantrel/Dosset/last");
    WaitFor("removed /org/vantrel/Dosset/last com.example.Shape 'last'");
    std::erase_if(recorder_->events, [](const std::string& event) {
      return event.find("/last ") != std::string::npos;
    });
  }

  std::string AddressedToUs() {
    const char* unique_name = nullptr;
    EXPECT_GE(sd_bus_get_unique_name(bus_.get(), &unique_name), 0);
    return R"(, "destination": ")" + std::string(unique_name) + "\"";
  }

  test::PrivateBus private_bus_;
  test::LogCapture log_;
  base::EventLoop loop_;
  test::Agent agent_{&loop_};
  Bus bus_{&loop_};
  ObjectManager* manager_ = nullptr;
  std::unique_ptr<Recorder> recorder_;
};

// The life of the agent.

TEST_F(ObjectManagerTest, IsQuietWithoutTheAgent) {
  CreateManager();
  test::RunPending();
  EXPECT_THAT(recorder_->events, IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(ObjectManagerTest, IsQuietWithoutABus) {
  Bus unconnected(&loop_);
  ObjectManager* manager = unconnected.GetObjectManager(kService, kRoot);
  EXPECT_EQ(nullptr, manager->GetProperties("/a", kColour));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(ObjectManagerTest, FindsWhatWasThereBefore) {
  Publish("/a", kColour, "red", /*announce=*/false);
  Publish("/b", kShape, "round", /*announce=*/false);
  agent_.Appear();
  CreateManager();
  WaitFor("added /b com.example.Shape 'round'");
  EXPECT_THAT(recorder_->events,
              testing::UnorderedElementsAre(
                  "changed /a Name", "added /a com.example.Colour 'red'",
                  "changed /b Name", "added /b com.example.Shape 'round'"));
}

TEST_F(ObjectManagerTest, FindsWhatAnAgentBringsThatComesLater) {
  CreateManager();
  test::RunPending();
  Publish("/a", kColour, "red", /*announce=*/false);
  agent_.Appear();
  WaitFor("added /a com.example.Colour 'red'");
}

TEST_F(ObjectManagerTest, RemovesEverythingWhenTheAgentLeavesTheBus) {
  Start();
  Publish("/a", kColour, "red");
  Publish("/b", kColour, "blue");
  WaitFor("added /b com.example.Colour 'blue'");
  recorder_->events.clear();
  agent_.Do("disconnect");
  WaitFor("removed /b com.example.Colour 'blue'");
  EXPECT_THAT(recorder_->events,
              ElementsAre("removed /a com.example.Colour 'red'",
                          "removed /b com.example.Colour 'blue'"));
  EXPECT_EQ(nullptr, manager_->GetProperties("/a", kColour));
}

TEST_F(ObjectManagerTest, RemovesEverythingWhenTheAgentGivesItsNameUp) {
  Start();
  Publish("/a", kColour, "red");
  WaitFor("added /a com.example.Colour 'red'");
  agent_.Do("disown");
  WaitFor("removed /a com.example.Colour 'red'");
}

TEST_F(ObjectManagerTest, IgnoresAnAgentThatHasGivenItsNameUp) {
  Start();
  agent_.Do("disown");
  // Broadcast by its connection, and addressed to us by it.
  Publish("/a", kColour, "red");
  ObjectManagerSignal("InterfacesAdded", "oa{sa{sv}}",
                      R"(["/b", {"com.example.Colour": {}}])", AddressedToUs());
  agent_.Do("own");
  // It is back, and tells us of the one that it has.
  WaitFor("added /a com.example.Colour 'red'");
  EXPECT_THAT(
      recorder_->events,
      ElementsAre("changed /a Name", "added /a com.example.Colour 'red'"));
}

TEST_F(ObjectManagerTest, FindsEverythingAgainAfterARestart) {
  Start();
  Publish("/a", kColour, "red");
  WaitFor("added /a com.example.Colour 'red'");
  recorder_->events.clear();
  agent_.Appear();
  WaitFor("added /a com.example.Colour 'red'");
  EXPECT_THAT(
      recorder_->events,
      ElementsAre("removed /a com.example.Colour 'red'", "changed /a Name",
                  "added /a com.example.Colour 'red'"));
}

TEST_F(ObjectManagerTest, ForgetsTheAnswerOfAnAgentThatHasGone) {
  Publish("/a", kColour, "red", /*announce=*/false);
  agent_.Do("behave", R"({"member": "GetManagedObjects", "how": "hold",
                          "count": 1})");
  agent_.Do("connect");
  agent_.Do("own");
  CreateManager();
  // The bus answers in order as well: it has told us the owner, and the call
  // has gone out, by these answers.
  Ping("org.freedesktop.DBus");
  test::RunPending();
  Ping();
  agent_.Do("disown");
  EXPECT_EQ("1", agent_.Do("release", R"({"member": "GetManagedObjects"})"));
  agent_.Do("remove", R"({"path": "/a", "announce": false})");
  agent_.Do("own");
  Settle();
  EXPECT_THAT(recorder_->events, IsEmpty());
}

// Objects that come and go.

TEST_F(ObjectManagerTest, ReportsAnObjectWithItsProperties) {
  Start();
  Publish("/a", kColour, "red");
  WaitFor("added /a com.example.Colour 'red'");
  EXPECT_EQ("red", recorder_->GetName("/a", kColour));
  Remove("/a");
  WaitFor("removed /a com.example.Colour 'red'");
  EXPECT_EQ(nullptr, manager_->GetProperties("/a", kColour));
}

TEST_F(ObjectManagerTest, TellsTheInterfacesOfAnObjectApart) {
  Start();
  Publish("/a", kColour, "red");
  Publish("/a", kShape, "round");
  WaitFor("added /a com.example.Shape 'round'");
  Remove("/a", R"(["com.example.Colour"])");
  WaitFor("removed /a com.example.Colour 'red'");
  EXPECT_EQ("round", recorder_->GetName("/a", kShape));
}

TEST_F(ObjectManagerTest, PassesOverInterfacesWithoutAHandler) {
  Start();
  ObjectManagerSignal("InterfacesAdded", "oa{sa{sv}}",
                      R"(["/a", {"com.example.Other": {"Name": ["as", ["x"]]},
                 "com.example.Colour": {"Name": ["s", "red"]},
                 "org.freedesktop.DBus.Properties": {}}])");
  ObjectManagerSignal("InterfacesRemoved", "oas",
                      R"(["/a", ["com.example.Other"]])");
  Settle();
  EXPECT_THAT(
      recorder_->events,
      ElementsAre("changed /a Name", "added /a com.example.Colour 'red'"));
}

TEST_F(ObjectManagerTest, ReportsAKnownInterfaceOnce) {
  Start();
  Publish("/a", kColour, "red");
  agent_.Do("announce", R"({"path": "/a"})");
  Publish("/a", kColour, "blue");
  Settle();
  EXPECT_THAT(
      recorder_->events,
      ElementsAre("changed /a Name", "added /a com.example.Colour 'red'",
                  "changed /a Name", "changed /a Name"));
  EXPECT_EQ("blue", recorder_->GetName("/a", kColour));
}

TEST_F(ObjectManagerTest, ReportsWhatIsTwiceInOneMessageOnce) {
  Publish("/a", kColour, "red", /*announce=*/false);
  agent_.Do("behave", R"({"member": "GetManagedObjects", "how": "hold",
                          "count": 1})");
  agent_.Appear();
  CreateManager();
  // Announced while the list of objects is on its way.
  ASSERT_TRUE(test::RunUntil("the announcement", [&] {
    agent_.Do("announce", R"({"path": "/a"})");
    return recorder_->Has("added /a com.example.Colour 'red'");
  }));
  agent_.Do("release", R"({"member": "GetManagedObjects"})");
  Settle();
  EXPECT_EQ(1, std::count(recorder_->events.begin(), recorder_->events.end(),
                          "added /a com.example.Colour 'red'"));
}

TEST_F(ObjectManagerTest, ReportsAnObjectThatComesBack) {
  Start();
  Publish("/a", kColour, "red");
  Remove("/a");
  Publish("/a", kColour, "blue");
  WaitFor("added /a com.example.Colour 'blue'");
}

TEST_F(ObjectManagerTest, IgnoresTheEndOfWhatItDoesNotKnow) {
  Start();
  ObjectManagerSignal("InterfacesRemoved", "oas",
                      R"(["/a", ["com.example.Colour"]])");
  ObjectManagerSignal("InterfacesRemoved", "oas", R"(["/a", []])");
  Settle();
  EXPECT_THAT(recorder_->events, IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(ObjectManagerTest, TellsNothingOnceUnregistered) {
  Start();
  Publish("/a", kColour, "red");
  WaitFor("added /a com.example.Colour 'red'");
  manager_->UnregisterInterface(kColour);
  EXPECT_EQ(nullptr, manager_->GetProperties("/a", kColour));
  recorder_->events.clear();
  Remove("/a");
  Publish("/a", kColour, "blue");
  Settle();
  EXPECT_THAT(recorder_->events, IsEmpty());
}

// Properties.

TEST_F(ObjectManagerTest, FollowsChangedProperties) {
  Start();
  Publish("/org/vantrel/Dosset/a", kColour, "red");
  agent_.Do("change", R"({"path": "/org/vantrel/Dosset/a",
      "interface": "com.example.Colour",
      "properties": {"Name": ["s", "blue"], "Other": ["i", 1]}})");
  ASSERT_TRUE(test::RunUntil("the change", [&] {
    return recorder_->GetName("/org/vantrel/Dosset/a", kColour) == "blue";
  }));
  EXPECT_EQ("changed /org/vantrel/Dosset/a Name", recorder_->events.back());
}

TEST_F(ObjectManagerTest, ForgetsInvalidatedProperties) {
  Start();
  Publish("/org/vantrel/Dosset/a", kColour, "red");
  agent_.Do("change", R"({"path": "/org/vantrel/Dosset/a",
      "interface": "com.example.Colour", "properties": {},
      "invalidated": ["Name", "Other"]})");
  Settle();
  EXPECT_EQ("", recorder_->GetName("/org/vantrel/Dosset/a", kColour));
}

TEST_F(ObjectManagerTest, LogsAPropertyOfAnotherTypeAndGoesOn) {
  Start();
  ObjectManagerSignal("InterfacesAdded", "oa{sa{sv}}",
                      R"(["/a", {"com.example.Colour": {"Name": ["i", 1]}}])");
  WaitFor("added /a com.example.Colour ''");
  EXPECT_THAT(log_.lines(),
              ElementsAre(WarningLine(
                  "Ignoring the property com.example.Colour.Name of /a: it has "
                  "the type \"i\"")));
}

TEST_F(ObjectManagerTest, IgnoresPropertiesOfWhatItDoesNotKnow) {
  Start();
  Publish("/org/vantrel/Dosset/a", kColour, "red");
  for (const std::string path :
       {"/org/vantrel/Dosset/a", "/org/vantrel/Dosset/b"}) {
    Signal(path, "org.freedesktop.DBus.Properties", "PropertiesChanged",
           "sa{sv}as", R"(["com.example.Shape", {"Name": ["s", "x"]}, []])");
  }
  Settle();
  EXPECT_EQ("red", recorder_->GetName("/org/vantrel/Dosset/a", kColour));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

// What others send. Anyone can send us any signal.

TEST_F(ObjectManagerTest, BelievesNoStranger) {
  Start();
  Publish("/org/vantrel/Dosset/a", kColour, "red");
  WaitFor("added /org/vantrel/Dosset/a com.example.Colour 'red'");
  recorder_->events.clear();
  for (const std::string& more : {std::string(R"(, "forged": true)"),
                                  R"(, "forged": true)" + AddressedToUs()}) {
    ObjectManagerSignal("InterfacesAdded", "oa{sa{sv}}",
                        R"(["/b", {"com.example.Colour": {}}])", more);
    ObjectManagerSignal("InterfacesRemoved", "oas",
                        R"(["/org/vantrel/Dosset/a", ["com.example.Colour"]])",
                        more);
    Signal("/org/vantrel/Dosset/a", "org.freedesktop.DBus.Properties",
           "PropertiesChanged", "sa{sv}as",
           R"(["com.example.Colour", {"Name": ["s", "forged"]}, []])", more);
    ObjectManagerSignal("InterfacesAdded", "s", R"(["malformed"])", more);
  }
  Settle();
  EXPECT_THAT(recorder_->events, IsEmpty());
  EXPECT_EQ("red", recorder_->GetName("/org/vantrel/Dosset/a", kColour));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(ObjectManagerTest, BelievesNoStrangerAboutTheNamesOwner) {
  Start();
  Publish("/a", kColour, "red");
  WaitFor("added /a com.example.Colour 'red'");
  recorder_->events.clear();
  Signal("/org/freedesktop/DBus", "org.freedesktop.DBus", "NameOwnerChanged",
         "sss", R"(["org.vantrel.Dosset", ":1.1", ""])",
         R"(, "forged": true)" + AddressedToUs());
  Settle();
  EXPECT_THAT(recorder_->events, IsEmpty());
  EXPECT_EQ("red", recorder_->GetName("/a", kColour));
}

TEST_F(ObjectManagerTest, IgnoresSignalsOfOtherPaths) {
  Start();
  Signal("/org/vantrel/Other", "org.freedesktop.DBus.ObjectManager",
         "InterfacesAdded", "oa{sa{sv}}",
         R"(["/b", {"com.example.Colour": {}}])");
  Settle();
  EXPECT_THAT(recorder_->events, IsEmpty());
}

// Messages of another shape.

TEST_F(ObjectManagerTest, LogsMalformedSignalsAndGoesOn) {
  Start();
  Publish("/org/vantrel/Dosset/a", kColour, "red");
  WaitFor("added /org/vantrel/Dosset/a com.example.Colour 'red'");
  recorder_->events.clear();
  ObjectManagerSignal("InterfacesAdded", "", "[]");
  ObjectManagerSignal("InterfacesAdded", "sa{sa{sv}}",
                      R"(["/b", {"com.example.Colour": {}}])");
  ObjectManagerSignal("InterfacesAdded", "oa{sa{ss}}",
                      R"(["/b", {"com.example.Colour": {"Name": "x"}}])");
  ObjectManagerSignal("InterfacesAdded", "oa{sa{sv}}s",
                      R"(["/b", {"com.example.Colour": {}}, "x"])");
  ObjectManagerSignal("InterfacesRemoved", "os",
                      R"(["/org/vantrel/Dosset/a", "com.example.Colour"])");
  Signal("/org/vantrel/Dosset/a", "org.freedesktop.DBus.Properties",
         "PropertiesChanged", "sa{sv}",
         R"(["com.example.Colour", {"Name": ["s", "x"]}])");
  Settle();
  const test::LogLine added = WarningLine(
      "Ignoring a malformed InterfacesAdded signal from org.vantrel.Dosset");
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(added, added, added, added,
                  WarningLine("Ignoring a malformed InterfacesRemoved signal "
                              "from org.vantrel.Dosset"),
                  WarningLine("Ignoring a malformed PropertiesChanged signal "
                              "from org.vantrel.Dosset")));
  EXPECT_THAT(recorder_->events, IsEmpty());
  EXPECT_EQ("red", recorder_->GetName("/org/vantrel/Dosset/a", kColour));
}

// The bus lets Unicode noncharacters pass, and our library does not read them.
TEST_F(ObjectManagerTest, LogsSignalsThatItCannotReadAndGoesOn) {
  Start();
  Publish("/org/vantrel/Dosset/a", kColour, "red");
  ObjectManagerSignal(
      "InterfacesAdded", "oa{sa{sv}}",
      R"(["/b", {"com.example.Colour": {"Name": ["s", "\ufffe"]}}])");
  Signal("/org/vantrel/Dosset/a", "org.freedesktop.DBus.Properties",
         "PropertiesChanged", "sa{sv}as",
         R"(["com.example.Colour", {"Name": ["s", "\ufffe"]}, []])");
  Settle();
  EXPECT_THAT(log_.lines(),
              ElementsAre(ErrorLine("Cannot read all of the InterfacesAdded "
                                    "signal from org.vantrel.Dosset"),
                          ErrorLine("Cannot read all of the PropertiesChanged "
                                    "signal from org.vantrel.Dosset")));
  EXPECT_EQ(nullptr, manager_->GetProperties("/b", kColour));
  EXPECT_EQ("red", recorder_->GetName("/org/vantrel/Dosset/a", kColour));
}

TEST_F(ObjectManagerTest, LogsAListOfObjectsThatItCannotReadAndGoesOn) {
  Publish("/a", kColour, "red\\ufffe", /*announce=*/false);
  CreateManager();
  agent_.Appear();
  WaitForLogLine();
  Settle();
  EXPECT_THAT(log_.lines(),
              ElementsAre(ErrorLine("Cannot read all of the GetManagedObjects "
                                    "reply from org.vantrel.Dosset")));
  EXPECT_EQ(nullptr, manager_->GetProperties("/a", kColour));
}

TEST_F(ObjectManagerTest, LogsAMalformedListOfObjectsAndGoesOn) {
  agent_.Do("behave", R"({"member": "GetManagedObjects", "how": "lie",
      "signature": "a{sa{sa{sv}}}",
      "arguments": [{"/a": {"com.example.Colour": {}}}]})");
  CreateManager();
  agent_.Appear();
  WaitForLogLine();
  Settle();
  EXPECT_THAT(log_.lines(),
              ElementsAre(WarningLine(
                  "Ignoring a malformed GetManagedObjects reply from "
                  "org.vantrel.Dosset")));
  EXPECT_THAT(recorder_->events, IsEmpty());
}

TEST_F(ObjectManagerTest, LogsAnAgentThatDoesNotListItsObjects) {
  agent_.Do("behave", R"({"member": "GetManagedObjects", "how": "error",
      "name": "com.example.Error", "message": "a text"})");
  CreateManager();
  agent_.Appear();
  WaitForLogLine();
  Settle();
  EXPECT_THAT(log_.lines(),
              ElementsAre(ErrorLine("Cannot get the objects of "
                                    "org.vantrel.Dosset: com.example.Error: a "
                                    "text")));
}

}  // namespace
}  // namespace dbus
