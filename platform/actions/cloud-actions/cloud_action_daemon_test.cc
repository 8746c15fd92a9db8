// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "platform/actions/cloud-actions/cloud_action_daemon.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sysexits.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/event_loop.h"
#include "base/logging.h"
#include "dbus/exported_object.h"
#include "dbus/message.h"
#include "dbus/object_proxy.h"
#include "tests/support/fake_transport.h"
#include "tests/support/private_bus.h"
#include "tests/support/private_root.h"
#include "tests/support/test_loop.h"

namespace halvex::actions {
namespace {

using testing::HasSubstr;

[[maybe_unused]] testing::Environment* const g_private_root =
    testing::AddGlobalTestEnvironment(new test::PrivateRoot);

constexpr char kName[] = "org.vantrel.actions.CloudActions";
constexpr char kObject[] = "/org/vantrel/actions/CloudActions/Manager";
constexpr char kInterface[] = "org.vantrel.actions.CloudActions.Manager";

class TestDaemon : public CloudActionDaemon {
 public:
  // Starts it and leaves the loop to the test.
  int Start() { return OnInit(); }

  // Whether the daemon's name has an owner, once the bus has dealt with all
  // that the daemon has sent it.
  bool NameHasOwner() {
    const dbus::ObjectProxy bus_daemon(bus(), "org.freedesktop.DBus",
                                       "/org/freedesktop/DBus");
    dbus::Message call =
        bus_daemon.CreateMethodCall("org.freedesktop.DBus", "NameHasOwner");
    CHECK(dbus::MessageWriter(&call).AppendString(kName));
    dbus::Error error;
    dbus::Message reply = bus()->CallAndBlock(call, -1, &error);
    bool has_owner = false;
    CHECK(reply && dbus::MessageReader(&reply).PopBool(&has_owner));
    return has_owner;
  }
};

// Finds its object's place on the bus taken.
class CrowdedDaemon : public TestDaemon {
 protected:
  void RegisterDBusObjectsAsync(
      kestrix::dbus_utils::AsyncEventSequencer* sequencer) override {
    other_ = std::make_unique<dbus::ExportedObject>(bus(), kObject);
    std::string reason;
    const std::vector<dbus::ExportedMethod> methods = {
        {.name = "RedirectRequest",
         .in_signature = "",
         .out_signature = "",
         .argument_names = {},
         .handler = [](const dbus::Message&) {}}};
    CHECK(other_->AddInterface(kInterface, methods, &reason)) << reason;
    deadline_.Start(test::kDeadline);
    TestDaemon::RegisterDBusObjectsAsync(sequencer);
  }

 private:
  std::unique_ptr<dbus::ExportedObject> other_;
  // If it lives, it does not live on.
  base::Timer deadline_{event_loop(), [this] { QuitWithExitCode(EX_OK); }};
};

// No loop here: a death test has the daemon's in the process that dies.
class CloudActionDaemonTest : public testing::Test {
 protected:
  CloudActionDaemonTest() { test::PrivateRoot::Reset(); }

  test::PrivateBus private_bus_;
  std::shared_ptr<test::FakeTransport> transport_ =
      test::FakeTransport::Create();
};

TEST_F(CloudActionDaemonTest, OwnsItsNameWhenItsObjectIsThere) {
  TestDaemon daemon;
  ASSERT_EQ(EX_OK, daemon.Start());
  EXPECT_FALSE(daemon.NameHasOwner());
  EXPECT_TRUE(
      test::RunUntil("the bus name", [&] { return daemon.NameHasOwner(); }));
}

using CloudActionDaemonDeathTest = CloudActionDaemonTest;

// Nobody may find a service that has nothing to call.
TEST_F(CloudActionDaemonDeathTest, DiesWithoutItsNameIfItsObjectCannotBeThere) {
  const auto run = [] {
    static CrowdedDaemon* daemon = nullptr;
    daemon = new CrowdedDaemon;
    // The last moment at which the daemon could have got its name.
    base::SetLogSink([](base::LogSeverity severity,
                        const base::Location* location, std::string_view text) {
      base::WriteLogLineToStderr(base::LogHeader(severity, location), text);
      if (severity != base::LogSeverity::kFATAL) return;
      base::WriteLogLineToStderr(
          "", daemon->NameHasOwner() ? "It owned its name" : "It had no name");
    });
    daemon->Run();
  };
  EXPECT_EXIT(
      run(), testing::KilledBySignal(SIGABRT),
      testing::AllOf(
          HasSubstr("[ERROR] Cannot export "
                    "/org/vantrel/actions/CloudActions/Manager: File exists\n"),
          HasSubstr("[FATAL] CloudActionManagerDBusAdaptor::RegisterAsync() "
                    "failed\n"),
          HasSubstr("It had no name\n")));
}

}  // namespace
}  // namespace halvex::actions
