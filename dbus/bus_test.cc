// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "dbus/bus.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <memory>
#include <string>
#include <vector>

#include "base/event_loop.h"
#include "dbus/object_proxy.h"
#include "tests/support/agent.h"
#include "tests/support/log_capture.h"
#include "tests/support/private_bus.h"
#include "tests/support/test_loop.h"

namespace dbus {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr char kPeer[] = "org.vantrel.Dosset";
constexpr char kPeerPath[] = "/org/vantrel/Dosset/Manager";
constexpr char kPeerInterface[] = "org.vantrel.Dosset.Manager";
constexpr char kOtherPeer[] = "com.example.Other";

class BusTest : public testing::Test {
 protected:
  BusTest() {
    std::string reason;
    EXPECT_TRUE(bus_->Connect(&reason)) << reason;
  }

  // Asks the bus for `name`, and returns "owned" or why not.
  std::string RequestOwnership(Bus* bus, const std::string& name) {
    std::string outcome;
    bus->RequestOwnership(name, [&](bool owned, const std::string& reason) {
      outcome = owned ? "owned" : reason;
    });
    EXPECT_EQ("", outcome);  // Never before the loop runs.
    EXPECT_TRUE(test::RunUntil("the answer about the name",
                               [&] { return !outcome.empty(); }));
    return outcome;
  }

  test::PrivateBus private_bus_;
  base::EventLoop loop_;
  std::unique_ptr<Bus> bus_ = std::make_unique<Bus>(&loop_);
};

// With the agent on the bus as a peer to call.
class BusCallTest : public BusTest {
 protected:
  BusCallTest() { agent_.Appear(); }

  Message NewCall(const std::string& method) {
    return peer_.CreateMethodCall(kPeerInterface, method);
  }

  // Calls GetState in the way that the agent answers it, and waits.
  std::string CallAndBlock(int timeout_ms = -1) {
    Error error;
    Message reply =
        peer_.CallMethodAndBlock(NewCall("GetState"), timeout_ms, &error);
    std::string text;
    if (reply) {
      EXPECT_FALSE(error.is_set());
      EXPECT_TRUE(MessageReader(&reply).PopString(&text));
      return "reply " + text;
    }
    return error.is_set() ? error.name + ": " + error.message : "no answer";
  }

  // Sends more than the socket takes while nobody reads.
  void QueueMoreThanFits() {
    const ObjectProxy other(bus_.get(), kOtherPeer, "/");
    for (int i = 0; i < 24; ++i) {
      Message call = other.CreateMethodCall("com.example.I", "Call");
      ASSERT_TRUE(MessageWriter(&call).AppendString(std::string(1 << 20, 'x')));
      ASSERT_TRUE(other.CallMethod(call, -1, [](Message) {}));
    }
  }

  test::Agent agent_{&loop_};
  ObjectProxy peer_{bus_.get(), kPeer, kPeerPath};
};

TEST(BusConnectTest, SaysWhyThereIsNoBus) {
  base::EventLoop loop;
  setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nowhere/socket", 1);
  Bus bus(&loop);
  std::string reason;
  EXPECT_FALSE(bus.Connect(&reason));
  EXPECT_EQ("No such file or directory", reason);
  EXPECT_FALSE(bus.is_connected());
  unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
}

TEST(BusConnectTest, MakesNoCallsWithoutConnection) {
  base::EventLoop loop;
  Bus bus(&loop);
  EXPECT_FALSE(ObjectProxy(&bus, kPeer, kPeerPath)
                   .CreateMethodCall(kPeerInterface, "GetState"));
}

TEST_F(BusTest, ReportsTheEndOfTheBusOnce) {
  int disconnected = 0;
  bus_->SetDisconnectedCallback([&] { ++disconnected; });
  private_bus_.Stop();
  ASSERT_TRUE(
      test::RunUntil("the end of the bus", [&] { return disconnected > 0; }));
  test::RunPending();
  EXPECT_EQ(1, disconnected);
}

TEST_F(BusTest, KnowsWhetherItsConnectionStands) {
  bool disconnected = false;
  bus_->SetDisconnectedCallback([&] { disconnected = true; });
  EXPECT_TRUE(bus_->IsOpen());
  private_bus_.Stop();
  ASSERT_TRUE(
      test::RunUntil("the end of the bus", [&] { return disconnected; }));
  EXPECT_FALSE(bus_->IsOpen());
  EXPECT_FALSE(Bus(&loop_).IsOpen());
}

TEST_F(BusTest, LogsAMatchThatCannotBeAdded) {
  test::LogCapture log;
  bool disconnected = false;
  bus_->SetDisconnectedCallback([&] { disconnected = true; });
  private_bus_.Stop();
  ASSERT_TRUE(
      test::RunUntil("the end of the bus", [&] { return disconnected; }));
  const Slot slot = bus_->AddMatch("type='signal'", [](Message) {});
  EXPECT_THAT(log.lines(),
              ElementsAre(test::ErrorLine(
                  "Cannot add the match type='signal': Transport endpoint is "
                  "not connected")));
}

TEST_F(BusTest, SurvivesTheEndOfTheBusWithoutACallback) {
  private_bus_.Stop();
  Error error;
  const ObjectProxy peer(bus_.get(), kPeer, kPeerPath);
  const Message call = peer.CreateMethodCall(kPeerInterface, "GetState");
  if (call) {
    EXPECT_FALSE(peer.CallMethodAndBlock(call, -1, &error));
  }
  test::RunPending();
}

TEST_F(BusTest, OwnsAFreeName) {
  EXPECT_EQ("owned", RequestOwnership(bus_.get(), "com.example.Name"));
}

TEST_F(BusTest, OwnsItsOwnNameAgain) {
  EXPECT_EQ("owned", RequestOwnership(bus_.get(), "com.example.Name"));
  const std::string again = RequestOwnership(bus_.get(), "com.example.Name");
  EXPECT_THAT(again, testing::AnyOf("owned", HasSubstr("lready")));
}

TEST_F(BusTest, DoesNotTakeANameFromItsOwner) {
  Bus other(&loop_);
  std::string reason;
  ASSERT_TRUE(other.Connect(&reason)) << reason;
  EXPECT_EQ("owned", RequestOwnership(&other, "com.example.Name"));
  EXPECT_EQ("another process owns it",
            RequestOwnership(bus_.get(), "com.example.Name"));
}

TEST_F(BusTest, DoesNotQueueForAName) {
  auto other = std::make_unique<Bus>(&loop_);
  std::string reason;
  ASSERT_TRUE(other->Connect(&reason)) << reason;
  EXPECT_EQ("owned", RequestOwnership(other.get(), "com.example.Name"));
  EXPECT_EQ("another process owns it",
            RequestOwnership(bus_.get(), "com.example.Name"));
  other.reset();
  // Who comes next can have it.
  Bus third(&loop_);
  ASSERT_TRUE(third.Connect(&reason)) << reason;
  EXPECT_EQ("owned", RequestOwnership(&third, "com.example.Name"));
}

TEST_F(BusTest, SaysWhyANameIsNone) {
  EXPECT_EQ("Invalid argument", RequestOwnership(bus_.get(), "nonsense"));
}

TEST_F(BusTest, ForgetsARequestForANameWhenDestroyed) {
  bool has_run = false;
  bus_->RequestOwnership("com.example.Name",
                         [&](bool, const std::string&) { has_run = true; });
  bus_.reset();
  test::RunPending();
  EXPECT_FALSE(has_run);
}

TEST_F(BusTest, GivesOneObjectManagerForEachServiceAndPath) {
  ObjectManager* manager = bus_->GetObjectManager("com.example.A", "/a");
  EXPECT_EQ(manager, bus_->GetObjectManager("com.example.A", "/a"));
  EXPECT_NE(manager, bus_->GetObjectManager("com.example.A", "/b"));
  EXPECT_NE(manager, bus_->GetObjectManager("com.example.B", "/a"));
}

// Blocking calls.

TEST_F(BusCallTest, ReturnsTheReply) { EXPECT_EQ("reply {}", CallAndBlock()); }

TEST_F(BusCallTest, ReportsAnErrorOfThePeer) {
  agent_.Do("behave", R"({"member": "GetState", "how": "error",
      "name": "com.example.Error", "message": "a text"})");
  EXPECT_EQ("com.example.Error: a text", CallAndBlock());
}

TEST_F(BusCallTest, ReportsAnErrorWithoutText) {
  agent_.Do("behave", R"({"member": "GetState", "how": "error",
      "name": "com.example.Error", "message": ""})");
  EXPECT_EQ("com.example.Error: ", CallAndBlock());
}

// The second is a name that the library also uses for errors of its own.
TEST_F(BusCallTest, ReportsAnErrorWithoutAnyArgument) {
  for (const char* name :
       {"com.example.Error", "org.freedesktop.DBus.Error.AccessDenied"}) {
    agent_.Do("behave", R"({"member": "GetState", "how": "error",
        "name": ")" + std::string(name) +
                            R"(", "message": null})");
    EXPECT_EQ(std::string(name) + ": ", CallAndBlock());
  }
}

TEST_F(BusCallTest, ReportsAnErrorOfTheBus) {
  agent_.Do("disown");
  EXPECT_THAT(CallAndBlock(),
              HasSubstr("org.freedesktop.DBus.Error.ServiceUnknown: "));
}

TEST_F(BusCallTest, ReportsAPeerThatGoesBeforeItAnswers) {
  agent_.Do("behave", R"({"member": "GetState", "how": "hold"})");
  std::string outcome;
  Slot slot;
  ASSERT_TRUE(bus_->Call(
      NewCall("GetState"), -1,
      [&](Message reply) { outcome = reply.GetError().name; }, &slot));
  ASSERT_TRUE(
      test::RunUntil("the call", [&] { return !agent_.calls().empty(); }));
  agent_.Do("disconnect");
  ASSERT_TRUE(test::RunUntil("the error", [&] { return !outcome.empty(); }));
  EXPECT_EQ("org.freedesktop.DBus.Error.NoReply", outcome);
}

// A reported error and no answer at all are two things.
TEST_F(BusCallTest, ReportsNoErrorWhenTheTimeIsUp) {
  agent_.Do("behave", R"({"member": "GetState", "how": "ignore"})");
  EXPECT_EQ("no answer", CallAndBlock(/*timeout_ms=*/1));
  EXPECT_EQ("no answer", CallAndBlock(/*timeout_ms=*/0));
}

TEST_F(BusCallTest, ReportsNoErrorWhenTheBusGoes) {
  const Message call = NewCall("GetState");
  private_bus_.Stop();
  Error error;
  EXPECT_FALSE(peer_.CallMethodAndBlock(call, -1, &error));
  EXPECT_EQ("", error.name);
}

TEST_F(BusCallTest, DoesNotServeTheLoopWhileItWaits) {
  bool has_run = false;
  loop_.PostTask([&] { has_run = true; });
  EXPECT_EQ("reply {}", CallAndBlock());
  EXPECT_FALSE(has_run);
  test::RunPending();
  EXPECT_TRUE(has_run);
}

// Calls that do not block.

TEST_F(BusCallTest, RunsTheCallbackFromTheLoop) {
  std::string text;
  ASSERT_TRUE(peer_.CallMethod(NewCall("GetState"), -1, [&](Message reply) {
    EXPECT_TRUE(MessageReader(&reply).PopString(&text));
  }));
  EXPECT_EQ("", text);
  ASSERT_TRUE(test::RunUntil("the reply", [&] { return !text.empty(); }));
  EXPECT_EQ("{}", text);
}

TEST_F(BusCallTest, RunsTheCallbackWithAnErrorWhenTheTimeIsUp) {
  agent_.Do("behave", R"({"member": "GetState", "how": "ignore"})");
  Error error;
  ASSERT_TRUE(
      peer_.CallMethod(NewCall("GetState"), /*timeout_ms=*/1,
                       [&](Message reply) { error = reply.GetError(); }));
  ASSERT_TRUE(test::RunUntil("the time-out", [&] { return error.is_set(); }));
}

TEST_F(BusCallTest, DoesNotRunTheCallbackOnceTheSlotIsDestroyed) {
  int replies = 0;
  {
    Slot slot;
    ASSERT_TRUE(bus_->Call(
        NewCall("GetState"), -1, [&](Message) { ++replies; }, &slot));
  }
  // Answered after the first.
  ASSERT_TRUE(peer_.CallMethod(NewCall("GetState"), -1,
                               [&](Message) { replies += 10; }));
  ASSERT_TRUE(test::RunUntil("the second reply", [&] { return replies > 0; }));
  EXPECT_EQ(10, replies);
}

TEST_F(BusCallTest, MayDestroyTheSlotInItsCallback) {
  Slot slot;
  bool has_run = false;
  ASSERT_TRUE(bus_->Call(
      NewCall("GetState"), -1,
      [&](Message) {
        slot = Slot();
        has_run = true;
      },
      &slot));
  EXPECT_TRUE(test::RunUntil("the reply", [&] { return has_run; }));
}

TEST_F(BusCallTest, ReleasesTheCallbackWithTheBus) {
  agent_.Do("behave", R"({"member": "GetState", "how": "ignore"})");
  const auto held = std::make_shared<int>(0);
  bool has_run = false;
  ASSERT_TRUE(peer_.CallMethod(NewCall("GetState"), -1,
                               [held, &has_run](Message) { has_run = true; }));
  EXPECT_EQ(2, held.use_count());
  bus_.reset();
  EXPECT_EQ(1, held.use_count());
  EXPECT_FALSE(has_run);
}

TEST_F(BusCallTest, HandsOverWhatIsQueuedWhenDestroyed) {
  // The bus would take no more of us once it cannot hand an answer to us, so
  // there must be somebody who leaves the calls unanswered.
  Bus other(&loop_);
  std::string reason;
  ASSERT_TRUE(other.Connect(&reason)) << reason;
  ASSERT_EQ("owned", RequestOwnership(&other, kOtherPeer));
  private_bus_.Pause();
  QueueMoreThanFits();
  Message call = NewCall("UpdateState");
  MessageWriter writer(&call);
  ASSERT_TRUE(writer.OpenArray("{sv}") && writer.Close());
  ASSERT_TRUE(peer_.CallMethod(call, -1, [](Message) {}));
  private_bus_.Resume();
  bus_.reset();
  EXPECT_TRUE(
      test::RunUntil("the call", [&] { return !agent_.calls().empty(); }));
}

TEST_F(BusCallTest, IsNotHeldUpByABusThatDoesNotReadWhenDestroyed) {
  private_bus_.Pause();
  QueueMoreThanFits();
  const base::TimeTicks begin = base::TimeTicks::Now();
  bus_.reset();
  EXPECT_LT(base::TimeTicks::Now() - begin, std::chrono::seconds(5));
  private_bus_.Resume();
}

TEST_F(BusCallTest, MatchesSignalsUntilTheSlotIsDestroyed) {
  std::vector<std::string> seen;
  const auto record = [&seen](Message signal) {
    std::string text;
    EXPECT_TRUE(MessageReader(&signal).PopString(&text));
    seen.push_back(signal.GetPath() + " " + text);
  };
  const auto emit = [this](const std::string& text) {
    agent_.Do("signal", R"({"path": "/a", "interface": "com.example.I",
        "member": "Said", "signature": "s", "arguments": [")" +
                            text + "\"]}");
  };
  Slot slot = bus_->AddMatch("type='signal',interface='com.example.I'", record);
  EXPECT_EQ("reply {}", CallAndBlock());  // The rule is in force by now.
  emit("one");
  ASSERT_TRUE(test::RunUntil("the signal", [&] { return !seen.empty(); }));
  slot = Slot();
  emit("two");
  EXPECT_EQ("reply {}", CallAndBlock());  // Comes after the signal.
  test::RunPending();
  EXPECT_THAT(seen, ElementsAre("/a one"));
}

}  // namespace
}  // namespace dbus
