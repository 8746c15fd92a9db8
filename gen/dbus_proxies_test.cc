// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "dosset/dbus-proxies.h"

#include <gmock/gmock.h>
#include <signal.h>

#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "base/event_loop.h"
#include "tests/support/agent.h"
#include "tests/support/private_bus.h"
#include "tests/support/test_loop.h"

namespace org::vantrel::Dosset {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kCommand[] = "org.vantrel.Dosset.Command";
constexpr char kManager[] = "org.vantrel.Dosset.Manager";
constexpr char kOther[] = "org.vantrel.Dosset.Other";
constexpr char kManagerPath[] = "/org/vantrel/Dosset/Manager";
constexpr char kPath[] = "/org/vantrel/Dosset/commands/1";
constexpr char kPath2[] = "/org/vantrel/Dosset/commands/2";
// Comes to nothing on a bus, which carries no NUL.
const std::string kNoText("a\0b", 3);

// What an error says, as "domain/code: message", with the inner errors.
std::string Describe(const kestrix::Error* error) {
  if (!error) return "none";
  std::string text =
      error->GetDomain() + "/" + error->GetCode() + ": " + error->GetMessage();
  if (error->GetInnerError()) text += " <- " + Describe(error->GetInnerError());
  return text;
}

std::string NoAnswer(const std::string& method) {
  return "dbus/org.freedesktop.DBus.Error.Failed: Failed to call D-Bus "
         "method: " +
         method;
}

// A client of the agent, which is not on the bus yet.
class DBusProxiesTest : public testing::Test {
 protected:
  DBusProxiesTest() {
    std::string reason;
    bus_.emplace(&loop_);
    EXPECT_TRUE(bus_->Connect(&reason)) << reason;
    agent_.emplace(&loop_);
  }

  // Makes the object manager proxy with callbacks that note what they get.
  void Follow() {
    objects_.emplace(&*bus_);
    objects_->SetCommandAddedCallback([this](CommandProxy* proxy) {
      events_.push_back("+command " + proxy->GetObjectPath());
    });
    objects_->SetCommandRemovedCallback([this](const std::string& path) {
      events_.push_back("-command " + path);
    });
    objects_->SetManagerAddedCallback([this](ManagerProxy* proxy) {
      events_.push_back("+manager " + proxy->GetObjectPath());
    });
    objects_->SetManagerRemovedCallback([this](const std::string& path) {
      events_.push_back("-manager " + path);
    });
  }

  // Serves the loop until `count` events have come, and takes them away.
  std::vector<std::string> TakeEvents(size_t count) {
    EXPECT_TRUE(test::RunUntil("the agent's objects",
                               [&] { return events_.size() >= count; }));
    return std::exchange(events_, {});
  }

  void PublishCommand(const std::string& path) {
    agent_->PublishCommand(path, "_some._command", "queued", "{}");
  }

  // An agent with a Manager and one Command, and the proxies for them.
  void MeetAgent() {
    agent_->Appear();
    PublishCommand(kPath);
    Follow();
    TakeEvents(2);
    manager_ = objects_->GetManagerProxy();
    command_ = objects_->GetCommandProxy(kPath);
  }

  // Makes the agent answer `method` as `how`, a JSON object without its braces,
  // tells.
  void Behave(const std::string& method, const std::string& how) {
    agent_->Do("behave", R"({"member": ")" + method + R"(", )" + how + "}");
  }

  // What the agent has been called for, which it tells before it answers.
  const std::vector<test::AgentCall>& Calls() {
    test::RunPending();
    return agent_->calls();
  }

  test::PrivateBus private_bus_;
  base::EventLoop loop_;
  std::optional<dbus::Bus> bus_;
  std::optional<test::Agent> agent_;
  std::optional<ObjectManagerProxy> objects_;
  ManagerProxy* manager_ = nullptr;
  CommandProxy* command_ = nullptr;
  std::vector<std::string> events_;
};

using ObjectManagerProxyTest = DBusProxiesTest;

TEST_F(ObjectManagerProxyTest, ReportsWhatIsThereWhenItStarts) {
  agent_->Appear();
  PublishCommand(kPath);
  Follow();
  EXPECT_THAT(TakeEvents(2), testing::UnorderedElementsAre(
                                 "+manager /org/vantrel/Dosset/Manager",
                                 "+command /org/vantrel/Dosset/commands/1"));
}

TEST_F(ObjectManagerProxyTest, ReportsAnAgentThatComesLater) {
  Follow();
  EXPECT_EQ(nullptr, objects_->GetManagerProxy());
  agent_->Appear();
  EXPECT_THAT(TakeEvents(1),
              ElementsAre("+manager /org/vantrel/Dosset/Manager"));
}

TEST_F(ObjectManagerProxyTest, ReportsAnObjectThatIsPublishedLater) {
  MeetAgent();
  PublishCommand(kPath2);
  EXPECT_THAT(TakeEvents(1),
              ElementsAre("+command /org/vantrel/Dosset/commands/2"));
  EXPECT_NE(nullptr, objects_->GetCommandProxy(kPath2));
}

TEST_F(ObjectManagerProxyTest, HasThePropertiesWhenItReportsAnObject) {
  agent_->Appear();
  agent_->PublishCommand(kPath, "_some._command", "queued",
                         R"({"_code": ["s", "abc"]})");
  Follow();
  std::string seen;
  objects_->SetCommandAddedCallback([&seen](CommandProxy* proxy) {
    seen = proxy->name() + " " + proxy->state() + " " +
           kestrix::GetVariantValueOrDefault<std::string>(proxy->parameters(),
                                                          "_code");
  });
  EXPECT_TRUE(test::RunUntil("the command", [&seen] { return !seen.empty(); }));
  EXPECT_EQ("_some._command queued abc", seen);
}

TEST_F(ObjectManagerProxyTest, IgnoresOtherInterfaces) {
  MeetAgent();
  agent_->Do("publish", R"({"path": "/org/vantrel/Dosset/other",
      "interface": "org.vantrel.Dosset.Other", "properties": {}})");
  agent_->Do("remove", R"({"path": "/org/vantrel/Dosset/other"})");
  PublishCommand(kPath2);
  EXPECT_THAT(TakeEvents(1),
              ElementsAre("+command /org/vantrel/Dosset/commands/2"));
}

TEST_F(ObjectManagerProxyTest, AddsNothingForOtherInterfaces) {
  Follow();
  objects_->ObjectAdded(kPath, kOther);
  EXPECT_THAT(events_, IsEmpty());
  EXPECT_EQ(nullptr, objects_->GetCommandProxy(kPath));
  EXPECT_EQ(nullptr, objects_->GetManagerProxy());
}

TEST_F(ObjectManagerProxyTest, RemovesNothingForOtherInterfaces) {
  MeetAgent();
  objects_->ObjectRemoved(kPath, kOther);
  EXPECT_THAT(events_, IsEmpty());
  EXPECT_EQ(command_, objects_->GetCommandProxy(kPath));
}

TEST_F(ObjectManagerProxyTest, RemovesNothingAtAnUnknownPath) {
  MeetAgent();
  objects_->ObjectRemoved(kPath2, kCommand);
  objects_->ObjectRemoved(kPath, kManager);
  EXPECT_THAT(events_, IsEmpty());
  EXPECT_EQ(command_, objects_->GetCommandProxy(kPath));
  EXPECT_EQ(manager_, objects_->GetManagerProxy());
}

TEST_F(ObjectManagerProxyTest, ReplacesACommandThatIsAddedAgain) {
  MeetAgent();
  const base::WeakPtr<CommandProxy> old = command_->GetWeakPtr();
  objects_->ObjectAdded(kPath, kCommand);
  EXPECT_THAT(events_, ElementsAre("+command /org/vantrel/Dosset/commands/1"));
  EXPECT_FALSE(old);
  ASSERT_NE(nullptr, objects_->GetCommandProxy(kPath));
  EXPECT_EQ("queued", objects_->GetCommandProxy(kPath)->state());
}

TEST_F(ObjectManagerProxyTest, ReplacesAManagerThatIsAddedAgain) {
  MeetAgent();
  const base::WeakPtr<ManagerProxy> old = manager_->GetWeakPtr();
  objects_->ObjectAdded(kManagerPath, kManager);
  EXPECT_THAT(events_, ElementsAre("+manager /org/vantrel/Dosset/Manager"));
  EXPECT_FALSE(old);
  EXPECT_NE(nullptr, objects_->GetManagerProxy());
}

TEST_F(ObjectManagerProxyTest, ReportsARemovalWhileTheProxyIsThere) {
  MeetAgent();
  const base::WeakPtr<CommandProxy> proxy = command_->GetWeakPtr();
  std::vector<bool> there;
  objects_->SetCommandRemovedCallback([&](const std::string& path) {
    there.push_back(proxy.get() == objects_->GetCommandProxy(path) && proxy);
  });
  agent_->Do("remove", R"({"path": "/org/vantrel/Dosset/commands/1"})");
  EXPECT_TRUE(
      test::RunUntil("the removal", [&there] { return !there.empty(); }));
  EXPECT_THAT(there, ElementsAre(true));
  EXPECT_FALSE(proxy);
  EXPECT_EQ(nullptr, objects_->GetCommandProxy(kPath));
}

TEST_F(ObjectManagerProxyTest, ReportsAManagerThatComesBack) {
  MeetAgent();
  agent_->Do("remove", R"({"path": "/org/vantrel/Dosset/Manager"})");
  agent_->Do("publish", R"({"path": "/org/vantrel/Dosset/Manager",
      "interface": "org.vantrel.Dosset.Manager", "properties": {}})");
  EXPECT_THAT(TakeEvents(2),
              ElementsAre("-manager /org/vantrel/Dosset/Manager",
                          "+manager /org/vantrel/Dosset/Manager"));
}

TEST_F(ObjectManagerProxyTest, RemovesTheObjectsOfAnAgentThatLeaves) {
  MeetAgent();
  agent_->Do("disconnect");
  EXPECT_THAT(TakeEvents(2), testing::UnorderedElementsAre(
                                 "-command /org/vantrel/Dosset/commands/1",
                                 "-manager /org/vantrel/Dosset/Manager"));
  EXPECT_EQ(nullptr, objects_->GetCommandProxy(kPath));
  EXPECT_EQ(nullptr, objects_->GetManagerProxy());
  EXPECT_EQ(nullptr, objects_->GetManagerProxy(kManagerPath));
}

TEST_F(ObjectManagerProxyTest, WorksWithoutCallbacks) {
  agent_->Appear();
  PublishCommand(kPath);
  objects_.emplace(&*bus_);
  EXPECT_TRUE(test::RunUntil("the objects", [this] {
    return objects_->GetManagerProxy() && objects_->GetCommandProxy(kPath);
  }));
  agent_->Do("disconnect");
  EXPECT_TRUE(test::RunUntil("the removals", [this] {
    return !objects_->GetManagerProxy() && !objects_->GetCommandProxy(kPath);
  }));
}

TEST_F(ObjectManagerProxyTest, LooksManagersUpByPathAndAsTheFirst) {
  MeetAgent();
  agent_->Do("publish", R"({"path": "/org/vantrel/Dosset/Another",
      "interface": "org.vantrel.Dosset.Manager", "properties": {}})");
  // The proxy addresses the one place that the Manager has.
  EXPECT_THAT(TakeEvents(1),
              ElementsAre("+manager /org/vantrel/Dosset/Manager"));
  ManagerProxy* another =
      objects_->GetManagerProxy("/org/vantrel/Dosset/Another");
  EXPECT_NE(manager_, another);
  EXPECT_EQ(another, objects_->GetManagerProxy());
  EXPECT_EQ(manager_, objects_->GetManagerProxy(kManagerPath));
  EXPECT_EQ(nullptr, objects_->GetManagerProxy("/none"));

  std::string state;
  EXPECT_TRUE(another->GetState(&state));
  EXPECT_THAT(Calls(), ElementsAre(test::AgentCall{kManagerPath, "Manager",
                                                   "GetState", "", ""}));
}

TEST_F(ObjectManagerProxyTest, IsNotCalledOnceItIsDestroyed) {
  MeetAgent();
  dbus::ObjectManager* const remote =
      bus_->GetObjectManager("org.vantrel.Dosset", "/org/vantrel/Dosset");
  ASSERT_NE(nullptr, remote->GetProperties(kPath, kCommand));
  ASSERT_NE(nullptr, remote->GetProperties(kManagerPath, kManager));
  objects_.reset();
  EXPECT_EQ(nullptr, remote->GetProperties(kPath, kCommand));
  EXPECT_EQ(nullptr, remote->GetProperties(kManagerPath, kManager));

  PublishCommand(kPath2);
  agent_->Do("announce", R"({"path": "/org/vantrel/Dosset/Manager"})");
  // The answer to a call comes behind the announcements.
  dbus::ObjectProxy object(&*bus_, "org.vantrel.Dosset", kManagerPath);
  ManagerProxy::PropertySet properties(&object, {});
  ManagerProxy manager(&*bus_, "org.vantrel.Dosset", &properties);
  manager.GetStateAsync(
      [this](const std::string&) { events_.push_back("answer"); },
      [this](kestrix::Error* error) { events_.push_back(Describe(error)); });
  EXPECT_THAT(TakeEvents(1), ElementsAre("answer"));
  EXPECT_EQ(nullptr, remote->GetProperties(kPath2, kCommand));
  EXPECT_EQ(nullptr, remote->GetProperties(kManagerPath, kManager));
}

TEST_F(ObjectManagerProxyTest, MakesNoPropertiesForOtherInterfaces) {
  Follow();
  dbus::ObjectProxy object(&*bus_, "org.vantrel.Dosset", kPath);
  EXPECT_EXIT(objects_->CreateProperties(&object, kPath, kOther),
              testing::KilledBySignal(SIGABRT),
              "^\\[FATAL\\] Creating properties for unsupported interface "
              "org\\.vantrel\\.Dosset\\.Other\n$");
}

using ProxyPropertiesTest = DBusProxiesTest;

TEST_F(ProxyPropertiesTest, CommandReadsEachUnderItsName) {
  agent_->Appear();
  agent_->Do("publish", R"({"path": "/org/vantrel/Dosset/commands/1",
      "interface": "org.vantrel.Dosset.Command", "properties": {
        "Name": ["s", "1"], "Id": ["s", "2"], "State": ["s", "3"],
        "Parameters": ["a{sv}", {"is": ["i", 4]}],
        "Progress": ["a{sv}", {"is": ["i", 5]}],
        "Results": ["a{sv}", {"is": ["i", 6]}], "Origin": ["s", "7"]}})");
  Follow();
  TakeEvents(2);
  const CommandProxy* command = objects_->GetCommandProxy(kPath);
  const auto number = [](const kestrix::VariantDictionary& dictionary) {
    return kestrix::GetVariantValueOrDefault<int>(dictionary, "is");
  };
  EXPECT_EQ("1", command->name());
  EXPECT_EQ("2", command->id());
  EXPECT_EQ("3", command->state());
  EXPECT_EQ(4, number(command->parameters()));
  EXPECT_EQ(5, number(command->progress()));
  EXPECT_EQ(6, number(command->results()));
  EXPECT_EQ("7", command->origin());
}

TEST_F(ProxyPropertiesTest, ManagerReadsEachUnderItsName) {
  agent_->Do("publish", R"({"announce": false,
      "path": "/org/vantrel/Dosset/Manager",
      "interface": "org.vantrel.Dosset.Manager", "properties": {
        "Status": ["s", "1"], "DeviceId": ["s", "2"], "State": ["s", "3"],
        "OemName": ["s", "4"], "ModelName": ["s", "5"], "ModelId": ["s", "6"],
        "Name": ["s", "7"], "Description": ["s", "8"], "Location": ["s", "9"],
        "OrvelBootstrapState": ["s", "10"],
        "PairingInfo": ["a{sv}", {"is": ["i", 11]}]}})");
  agent_->Appear();
  Follow();
  TakeEvents(1);
  const ManagerProxy* manager = objects_->GetManagerProxy();
  EXPECT_EQ("1", manager->status());
  EXPECT_EQ("2", manager->device_id());
  EXPECT_EQ("3", manager->state());
  EXPECT_EQ("4", manager->oem_name());
  EXPECT_EQ("5", manager->model_name());
  EXPECT_EQ("6", manager->model_id());
  EXPECT_EQ("7", manager->name());
  EXPECT_EQ("8", manager->description());
  EXPECT_EQ("9", manager->location());
  EXPECT_EQ("10", manager->orvel_bootstrap_state());
  EXPECT_EQ(11, kestrix::GetVariantValueOrDefault<int>(manager->pairing_info(),
                                                       "is"));
}

TEST_F(ProxyPropertiesTest, ChangeReachesTheHookOfItsObjectOnly) {
  MeetAgent();
  PublishCommand(kPath2);
  TakeEvents(1);
  manager_->SetPropertyChangedCallback(
      [this](ManagerProxyInterface*, const std::string& name) {
        events_.push_back("manager " + name);
      });
  objects_->GetCommandProxy(kPath2)->SetPropertyChangedCallback(
      [this](CommandProxyInterface*, const std::string& name) {
        events_.push_back("command 2 " + name);
      });
  command_->SetPropertyChangedCallback(
      [this](CommandProxyInterface* object, const std::string& name) {
        EXPECT_EQ(command_, object);
        events_.push_back("command 1 " + name + " " + object->state());
      });
  agent_->Do("change", R"({"path": "/org/vantrel/Dosset/commands/1",
      "interface": "org.vantrel.Dosset.Command",
      "properties": {"State": ["s", "done"]}})");
  agent_->Do("change", R"({"path": "/org/vantrel/Dosset/Manager",
      "interface": "org.vantrel.Dosset.Manager",
      "properties": {"Status": ["s", "idle"]}})");
  EXPECT_THAT(TakeEvents(2),
              ElementsAre("command 1 State done", "manager Status"));
}

TEST_F(ProxyPropertiesTest, ChangeWithoutAHookIsReadAllTheSame) {
  MeetAgent();
  agent_->Do("change", R"({"path": "/org/vantrel/Dosset/commands/1",
      "interface": "org.vantrel.Dosset.Command",
      "properties": {"State": ["s", "done"]}})");
  EXPECT_TRUE(test::RunUntil("the change",
                             [this] { return command_->state() == "done"; }));
}

TEST_F(ProxyPropertiesTest, HookMayRemoveItsObject) {
  MeetAgent();
  command_->SetPropertyChangedCallback(
      [this](CommandProxyInterface* object, const std::string&) {
        objects_->ObjectRemoved(object->GetObjectPath(), kCommand);
      });
  agent_->Do("change", R"({"path": "/org/vantrel/Dosset/commands/1",
      "interface": "org.vantrel.Dosset.Command",
      "properties": {"State": ["s", "done"], "Name": ["s", "other"]}})");
  EXPECT_THAT(TakeEvents(1),
              ElementsAre("-command /org/vantrel/Dosset/commands/1"));
  EXPECT_EQ(nullptr, objects_->GetCommandProxy(kPath));
}

using BlockingCallTest = DBusProxiesTest;

TEST_F(BlockingCallTest, ManagerMethodsHaveTheirSignatures) {
  MeetAgent();
  for (const char* method : {"CheckDeviceRegistered", "RegisterDevice",
                             "GetState", "AddCommand", "TestMethod"}) {
    Behave(method, R"("how": "lie", "signature": "s", "arguments": ["from )" +
                       std::string(method) + R"("])");
  }
  std::string out;
  EXPECT_TRUE(manager_->CheckDeviceRegistered(&out));
  EXPECT_EQ("from CheckDeviceRegistered", out);
  EXPECT_TRUE(manager_->RegisterDevice("1", &out));
  EXPECT_EQ("from RegisterDevice", out);
  EXPECT_TRUE(manager_->UpdateDeviceInfo("1", "2", "3"));
  EXPECT_TRUE(manager_->UpdateServiceConfig("1", "2", "3", "4", "5"));
  EXPECT_TRUE(manager_->UpdateState({}));
  EXPECT_TRUE(manager_->GetState(&out));
  EXPECT_EQ("from GetState", out);
  EXPECT_TRUE(manager_->AddCommand("1", &out));
  EXPECT_EQ("from AddCommand", out);
  EXPECT_TRUE(manager_->TestMethod("1", &out));
  EXPECT_EQ("from TestMethod", out);

  const auto call = [](const char* method, const char* signature,
                       const char* arguments) {
    return test::AgentCall{kManagerPath, "Manager", method, signature,
                           arguments};
  };
  EXPECT_THAT(
      Calls(),
      ElementsAre(
          call("CheckDeviceRegistered", "", ""),
          call("RegisterDevice", "s", R"("1")"),
          call("UpdateDeviceInfo", "sss", R"("1", "2", "3")"),
          call("UpdateServiceConfig", "sssss", R"("1", "2", "3", "4", "5")"),
          call("UpdateState", "a{sv}", "{}"), call("GetState", "", ""),
          call("AddCommand", "s", R"("1")"),
          call("TestMethod", "s", R"("1")")));
}

TEST_F(BlockingCallTest, CommandMethodsHaveTheirSignatures) {
  MeetAgent();
  EXPECT_TRUE(command_->SetProgress({{"done", kestrix::Any(50)}}));
  EXPECT_TRUE(command_->Complete({}));
  EXPECT_TRUE(command_->Abort("1", "2"));
  EXPECT_TRUE(command_->SetError("3", "4"));
  EXPECT_TRUE(command_->Cancel());

  const auto call = [](const char* method, const char* signature,
                       const char* arguments) {
    return test::AgentCall{kPath, "Command", method, signature, arguments};
  };
  EXPECT_THAT(Calls(),
              ElementsAre(call("SetProgress", "a{sv}", R"({"done": <i 50>})"),
                          call("Complete", "a{sv}", "{}"),
                          call("Abort", "ss", R"("1", "2")"),
                          call("SetError", "ss", R"("3", "4")"),
                          call("Cancel", "", "")));
}

TEST_F(BlockingCallTest, NestsDictionaries) {
  MeetAgent();
  EXPECT_TRUE(manager_->UpdateState(
      {{"_outer", kestrix::Any(kestrix::VariantDictionary{
                      {"_inner", kestrix::Any(true)}})}}));
  ASSERT_THAT(Calls(), testing::SizeIs(1));
  EXPECT_EQ(R"({"_outer": <a{sv} {"_inner": <b true>}>})",
            Calls()[0].arguments);
}

TEST_F(BlockingCallTest, ReportsTheErrorOfTheAgent) {
  MeetAgent();
  Behave("Complete", R"("how": "error", "name": "org.vantrel.Error.Busy",
                         "message": "not now")");
  std::unique_ptr<kestrix::Error> error;
  EXPECT_FALSE(command_->Complete({}, &error));
  EXPECT_EQ("dbus/org.vantrel.Error.Busy: not now", Describe(error.get()));
}

TEST_F(BlockingCallTest, AddsItsErrorToAChain) {
  MeetAgent();
  Behave("Complete", R"("how": "error", "name": "org.vantrel.Error.Busy",
                         "message": "not now")");
  std::unique_ptr<kestrix::Error> error;
  EXPECT_FALSE(command_->Complete({}, &error));
  EXPECT_FALSE(command_->Complete({}, &error));
  EXPECT_EQ(
      "dbus/org.vantrel.Error.Busy: not now <- "
      "dbus/org.vantrel.Error.Busy: not now",
      Describe(error.get()));
}

TEST_F(BlockingCallTest, FailsWithoutAnErrorObject) {
  MeetAgent();
  Behave("Complete", R"("how": "error", "name": "org.vantrel.Error.Busy",
                         "message": "not now")");
  EXPECT_FALSE(command_->Complete({}));
}

TEST_F(BlockingCallTest, ReportsThatTheAgentIsAbsent) {
  dbus::ObjectProxy object(&*bus_, "org.vantrel.Dosset", kManagerPath);
  ManagerProxy::PropertySet properties(&object, {});
  ManagerProxy manager(&*bus_, "org.vantrel.Dosset", &properties);
  std::unique_ptr<kestrix::Error> error;
  EXPECT_FALSE(manager.UpdateState({}, &error));
  EXPECT_EQ(
      "dbus/org.freedesktop.DBus.Error.ServiceUnknown: The name "
      "org.vantrel.Dosset was not provided by any .service files",
      Describe(error.get()));
}

TEST_F(BlockingCallTest, ReportsThatThereIsNoReply) {
  MeetAgent();
  Behave("UpdateState", R"("how": "ignore")");
  std::unique_ptr<kestrix::Error> error;
  EXPECT_FALSE(manager_->UpdateState({}, &error, /*timeout_ms=*/50));
  EXPECT_EQ(NoAnswer("org.vantrel.Dosset.Manager.UpdateState"),
            Describe(error.get()));
}

TEST_F(BlockingCallTest, ReportsThatTheBusIsGone) {
  MeetAgent();
  private_bus_.Stop();
  std::unique_ptr<kestrix::Error> error;
  EXPECT_FALSE(command_->Abort("", "", &error));
  EXPECT_EQ(NoAnswer("org.vantrel.Dosset.Command.Abort"),
            Describe(error.get()));
}

TEST_F(BlockingCallTest, SendsNothingThatABusDoesNotCarry) {
  MeetAgent();
  std::unique_ptr<kestrix::Error> error;
  EXPECT_FALSE(command_->Abort(kNoText, "", &error));
  EXPECT_EQ(NoAnswer("org.vantrel.Dosset.Command.Abort"),
            Describe(error.get()));
  EXPECT_TRUE(command_->Cancel());
  EXPECT_THAT(Calls(),
              ElementsAre(test::AgentCall{kPath, "Command", "Cancel", "", ""}));
}

// What is wrong with a reply, by what the agent replied to which method.
struct WrongReply {
  const char* name;
  const char* method;
  const char* reply;
  const char* message;
};

void PrintTo(const WrongReply& wrong_reply, std::ostream* output) {
  *output << wrong_reply.method << " answered with " << wrong_reply.reply;
}

const WrongReply kWrongReplies[] = {
    {"TooFew", "GetState", R"("signature": "", "arguments": [])",
     "Too few parameters in a method call"},
    {"TooMany", "GetState", R"("signature": "ss", "arguments": ["a", "b"])",
     "Too many parameters in a method call"},
    {"AnyWhereNoneIsExpected", "UpdateState",
     R"("signature": "s", "arguments": ["a"])",
     "Too many parameters in a method call"},
    {"OtherType", "GetState", R"("signature": "i", "arguments": [1])",
     "Method parameter type mismatch"},
    {"OtherTypeBehindWhichMoreComes", "GetState",
     R"("signature": "is", "arguments": [1, "a"])",
     "Method parameter type mismatch"},
};

class WrongReplyTest : public DBusProxiesTest,
                       public testing::WithParamInterface<WrongReply> {};

TEST_P(WrongReplyTest, MakesABlockingCallFail) {
  MeetAgent();
  Behave(GetParam().method,
         R"("how": "lie", )" + std::string(GetParam().reply));
  std::unique_ptr<kestrix::Error> error;
  std::string state;
  EXPECT_FALSE(GetParam().method == std::string("GetState")
                   ? manager_->GetState(&state, &error)
                   : manager_->UpdateState({}, &error));
  EXPECT_EQ("dbus/org.freedesktop.DBus.Error.InvalidArgs: " +
                std::string(GetParam().message),
            Describe(error.get()));
}

TEST_P(WrongReplyTest, MakesAnAsynchronousCallFail) {
  MeetAgent();
  Behave(GetParam().method,
         R"("how": "lie", )" + std::string(GetParam().reply));
  const auto on_error = [this](kestrix::Error* error) {
    events_.push_back(Describe(error));
  };
  if (GetParam().method == std::string("GetState")) {
    manager_->GetStateAsync(
        [this](const std::string&) { events_.push_back("success"); }, on_error);
  } else {
    manager_->UpdateStateAsync(
        {}, [this] { events_.push_back("success"); }, on_error);
  }
  EXPECT_THAT(TakeEvents(1),
              ElementsAre("dbus/org.freedesktop.DBus.Error.InvalidArgs: " +
                          std::string(GetParam().message)));
}

INSTANTIATE_TEST_SUITE_P(
    All, WrongReplyTest, testing::ValuesIn(kWrongReplies),
    [](const testing::TestParamInfo<WrongReply>& wrong_reply) {
      return std::string(wrong_reply.param.name);
    });

class AsynchronousCallTest : public DBusProxiesTest {
 protected:
  base::Callback<void()> Success() {
    return [this] { events_.push_back("success"); };
  }
  base::Callback<void(const std::string&)> SuccessWithText() {
    return [this](const std::string& text) {
      events_.push_back("success " + text);
    };
  }
  // What the agent has been called for, one text for each call.
  std::vector<std::string> DescribeCalls() {
    std::vector<std::string> texts;
    for (const test::AgentCall& call : Calls()) {
      texts.push_back(call.interface + "." + call.member + " " +
                      call.signature + " " + call.arguments);
    }
    return texts;
  }

  kestrix::dbus_utils::AsyncErrorCallback Failure() {
    return
        [this](kestrix::Error* error) { events_.push_back(Describe(error)); };
  }
};

TEST_F(AsynchronousCallTest, ManagerMethodsHaveTheirSignatures) {
  MeetAgent();
  Behave("CheckDeviceRegistered",
         R"("how": "lie", "signature": "s", "arguments": ["yes"])");
  manager_->CheckDeviceRegisteredAsync(SuccessWithText(), Failure());
  manager_->RegisterDeviceAsync("1", SuccessWithText(), Failure());
  manager_->UpdateDeviceInfoAsync("1", "2", "3", Success(), Failure());
  manager_->UpdateServiceConfigAsync("1", "2", "3", "4", "5", Success(),
                                     Failure());
  manager_->UpdateStateAsync({{"a", kestrix::Any(false)}}, Success(),
                             Failure());
  manager_->GetStateAsync(SuccessWithText(), Failure());
  manager_->AddCommandAsync("1", SuccessWithText(), Failure());
  manager_->TestMethodAsync("1", SuccessWithText(), Failure());
  EXPECT_THAT(events_, IsEmpty());
  EXPECT_THAT(
      TakeEvents(8),
      ElementsAre("success yes", "success ", "success", "success", "success",
                  R"(success {"a": false})",
                  "dbus/org.freedesktop.DBus.Error.InvalidArgs: not a command: "
                  "an object with a \"name\" and \"parameters\" is expected",
                  "success "));
  EXPECT_THAT(
      DescribeCalls(),
      ElementsAre(
          "Manager.CheckDeviceRegistered  ", R"(Manager.RegisterDevice s "1")",
          R"(Manager.UpdateDeviceInfo sss "1", "2", "3")",
          R"(Manager.UpdateServiceConfig sssss "1", "2", "3", "4", "5")",
          R"(Manager.UpdateState a{sv} {"a": <b false>})", "Manager.GetState  ",
          R"(Manager.AddCommand s "1")", R"(Manager.TestMethod s "1")"));
}

TEST_F(AsynchronousCallTest, CommandMethodsHaveTheirSignatures) {
  MeetAgent();
  command_->SetProgressAsync({}, Success(), Failure());
  command_->CompleteAsync({}, Success(), Failure());
  command_->AbortAsync("1", "2", Success(), Failure());
  command_->SetErrorAsync("3", "4", Success(), Failure());
  command_->CancelAsync(Success(), Failure());
  EXPECT_THAT(TakeEvents(5), ElementsAre("success", "success", "success",
                                         "success", "success"));
  EXPECT_THAT(
      DescribeCalls(),
      ElementsAre("Command.SetProgress a{sv} {}", "Command.Complete a{sv} {}",
                  R"(Command.Abort ss "1", "2")",
                  R"(Command.SetError ss "3", "4")", "Command.Cancel  "));
}

TEST_F(AsynchronousCallTest, ReportsTheErrorOfTheAgent) {
  MeetAgent();
  Behave("Abort", R"("how": "error", "name": "org.vantrel.Error.Busy",
                      "message": "not now")");
  command_->AbortAsync("", "", Success(), Failure());
  EXPECT_THAT(TakeEvents(1),
              ElementsAre("dbus/org.vantrel.Error.Busy: not now"));
}

TEST_F(AsynchronousCallTest, ReportsThatTheTimeIsUp) {
  MeetAgent();
  Behave("Abort", R"("how": "ignore")");
  command_->AbortAsync("", "", Success(), Failure(), /*timeout_ms=*/50);
  EXPECT_THAT(TakeEvents(1), ElementsAre(testing::StartsWith(
                                 "dbus/org.freedesktop.DBus.Error.NoReply: ")));
}

TEST_F(AsynchronousCallTest, FailsAtOnceIfTheCallCannotBeSent) {
  MeetAgent();
  command_->AbortAsync(kNoText, "", Success(), Failure());
  EXPECT_THAT(events_,
              ElementsAre(NoAnswer("org.vantrel.Dosset.Command.Abort")));
}

TEST_F(AsynchronousCallTest, EndsAfterItsProxyIsGone) {
  MeetAgent();
  Behave("Cancel", R"("how": "hold")");
  command_->CancelAsync(Success(), Failure());
  EXPECT_TRUE(test::RunUntil("the call to get there",
                             [this] { return !agent_->calls().empty(); }));
  objects_.reset();
  agent_->Do("release", R"({"member": "Cancel"})");
  EXPECT_THAT(TakeEvents(1), ElementsAre("success"));
}

TEST_F(AsynchronousCallTest, IsDroppedWithTheBus) {
  MeetAgent();
  const auto bound = std::make_shared<int>(0);
  command_->CancelAsync([bound] { ++*bound; },
                        [bound](kestrix::Error*) { ++*bound; });
  EXPECT_LT(1, bound.use_count());
  objects_.reset();
  bus_.reset();
  EXPECT_EQ(1, bound.use_count());
  EXPECT_EQ(0, *bound);
}

TEST(ExtractMethodCallResultsTest, ReportsThatThereIsNoMessage) {
  dbus::Message none;
  std::unique_ptr<kestrix::Error> error;
  EXPECT_FALSE(kestrix::dbus_utils::ExtractMethodCallResults(&none, &error));
  EXPECT_EQ(
      "dbus/org.freedesktop.DBus.Error.Failed: Unable to extract parameters "
      "from a NULL message.",
      Describe(error.get()));
}

}  // namespace
}  // namespace org::vantrel::Dosset
