// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/dbus_service_daemon.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sysexits.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "dbus/bus.h"
#include "dbus/message.h"
#include "dbus/object_proxy.h"
#include "tests/support/bus_caller.h"
#include "tests/support/log_capture.h"
#include "tests/support/notify_socket.h"
#include "tests/support/private_bus.h"
#include "tests/support/temp_directory.h"
#include "tests/support/test_loop.h"

namespace kestrix {
namespace {

using dbus_utils::AsyncEventSequencer;
using test::ErrorLine;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kName[] = "some.service";
constexpr char kPath[] = "/some/service";

class TestDaemon : public DBusServiceDaemon {
 public:
  TestDaemon() : DBusServiceDaemon(kName, kPath) {}

  using DBusServiceDaemon::bus;
  using DBusServiceDaemon::event_loop;
  using DBusServiceDaemon::exported_object_manager;
  using DBusServiceDaemon::QuitWithExitCode;
  using DBusServiceDaemon::ReportStatus;

  // What RegisterDBusObjectsAsync() does.
  std::function<void(AsyncEventSequencer*)> when_registering =
      [](AsyncEventSequencer*) {};
  int registrations() const { return registrations_; }
  int shutdowns() const { return shutdowns_; }

  // Starts it and leaves the loop to the test.
  int Start() { return DBusServiceDaemon::OnInit(); }

 protected:
  int OnInit() override {
    deadline_.Start(test::kDeadline);
    return DBusServiceDaemon::OnInit();
  }
  void RegisterDBusObjectsAsync(AsyncEventSequencer* sequencer) override {
    ++registrations_;
    DBusServiceDaemon::RegisterDBusObjectsAsync(sequencer);
    when_registering(sequencer);
  }
  void OnShutdown(int* return_code) override {
    ++shutdowns_;
    DBusServiceDaemon::OnShutdown(return_code);
  }

 private:
  int registrations_ = 0;
  int shutdowns_ = 0;
  base::Timer deadline_{event_loop(), [this] {
                          ADD_FAILURE() << "Waited in vain for the end";
                          QuitWithExitCode(-1);
                        }};
};

// Looks at the bus over a connection of its own.
class Observer {
 public:
  explicit Observer(base::EventLoop* loop) : bus_(loop) {
    std::string reason;
    EXPECT_TRUE(bus_.Connect(&reason)) << reason;
    match_ = bus_.AddMatch(
        "type='signal',sender='org.freedesktop.DBus',"
        "member='NameOwnerChanged',arg0='some.service'",
        [this](dbus::Message) { seen_ = true; });
    // The bus has taken in the match when it has answered this.
    EXPECT_FALSE(HasOwner());
  }

  // Whether somebody owns the daemon's name now.
  bool HasOwner() {
    dbus::Message call =
        bus_daemon_.CreateMethodCall("org.freedesktop.DBus", "NameHasOwner");
    EXPECT_TRUE(dbus::MessageWriter(&call).AppendString(kName));
    dbus::Error error;
    dbus::Message reply = bus_.CallAndBlock(call, -1, &error);
    bool has_owner = false;
    EXPECT_TRUE(reply && dbus::MessageReader(&reply).PopBool(&has_owner));
    return has_owner;
  }

  void WaitForOwner() {
    ASSERT_TRUE(test::RunUntil("the bus name", [this] { return seen_; }));
    EXPECT_TRUE(HasOwner());
  }

 private:
  dbus::Bus bus_;
  dbus::ObjectProxy bus_daemon_{&bus_, "org.freedesktop.DBus",
                                "/org/freedesktop/DBus"};
  dbus::Slot match_;
  bool seen_ = false;
};

class DBusServiceDaemonTest : public testing::Test {
 protected:
  // Serves the loop until the bus has all that the daemon sends by itself.
  void Settle() {
    test::RunPending();
    const dbus::ObjectProxy bus_daemon(daemon_.bus(), "org.freedesktop.DBus",
                                       "/org/freedesktop/DBus");
    const dbus::Message call =
        bus_daemon.CreateMethodCall("org.freedesktop.DBus", "GetId");
    dbus::Error error;
    EXPECT_TRUE(daemon_.bus()->CallAndBlock(call, -1, &error));
  }

  // What a method of the daemon's root object answers.
  std::string Call(const std::string& method) {
    const test::BusCaller call(daemon_.event_loop(), kName, kPath, method, {});
    return test::RunUntil("the reply", [&] { return call.is_done(); })
               ? call.GetReply()
               : "";
  }

  test::PrivateBus private_bus_;
  test::LogCapture log_;
  TestDaemon daemon_;
};

TEST_F(DBusServiceDaemonTest, ClaimsItsName) {
  Observer observer(daemon_.event_loop());
  EXPECT_EQ(EX_OK, daemon_.Start());
  observer.WaitForOwner();
  EXPECT_EQ(1, daemon_.registrations());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(DBusServiceDaemonTest, HasBusAndObjectManagerWhenItRegistersObjects) {
  bool has_both = false;
  daemon_.when_registering = [&](AsyncEventSequencer*) {
    has_both = daemon_.bus()->is_connected() &&
               daemon_.exported_object_manager()->bus() == daemon_.bus();
  };
  daemon_.Start();
  EXPECT_TRUE(has_both);
}

TEST_F(DBusServiceDaemonTest, ServesAnObjectManagerAtItsPath) {
  Observer observer(daemon_.event_loop());
  daemon_.Start();
  observer.WaitForOwner();
  EXPECT_EQ("array [\n]",
            Call("org.freedesktop.DBus.ObjectManager.GetManagedObjects"));
}

TEST_F(DBusServiceDaemonTest, ClaimsItsNameOnlyWhenAllHandlersHaveReported) {
  Observer observer(daemon_.event_loop());
  AsyncEventSequencer::Handler first, second;
  daemon_.when_registering = [&](AsyncEventSequencer* sequencer) {
    first = sequencer->GetHandler("first", true);
    second = sequencer->GetHandler("second", true);
  };
  daemon_.Start();
  Settle();
  EXPECT_FALSE(observer.HasOwner());
  second.Run(true);
  Settle();
  EXPECT_FALSE(observer.HasOwner());
  first.Run(true);
  observer.WaitForOwner();
}

TEST_F(DBusServiceDaemonTest, ClaimsItsNameAfterAFailureThatIsNotFatal) {
  Observer observer(daemon_.event_loop());
  daemon_.when_registering = [&](AsyncEventSequencer* sequencer) {
    sequencer->GetHandler("No luck", false).Run(false);
  };
  daemon_.Start();
  observer.WaitForOwner();
  EXPECT_THAT(log_.lines(), ElementsAre(ErrorLine("No luck")));
}

TEST_F(DBusServiceDaemonTest, EndsWellOnATerminationSignal) {
  Observer observer(daemon_.event_loop());
  daemon_.when_registering = [&](AsyncEventSequencer*) { raise(SIGTERM); };
  EXPECT_EQ(EX_OK, daemon_.Run());
  EXPECT_EQ(1, daemon_.shutdowns());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(DBusServiceDaemonTest, EndsWithoutABus) {
  test::TempDirectory folder;
  setenv("DBUS_SYSTEM_BUS_ADDRESS",
         ("unix:path=" + folder.Path("missing")).c_str(), 1);
  EXPECT_EQ(EX_UNAVAILABLE, daemon_.Run());
  EXPECT_THAT(log_.lines(),
              ElementsAre(ErrorLine("Cannot connect to the system bus: No such "
                                    "file or directory")));
  EXPECT_EQ(0, daemon_.registrations());
  EXPECT_EQ(0, daemon_.shutdowns());
}

TEST_F(DBusServiceDaemonTest, EndsIfAnotherProcessOwnsItsName) {
  dbus::Bus other(daemon_.event_loop());
  daemon_.when_registering = [&](AsyncEventSequencer* sequencer) {
    std::string reason;
    ASSERT_TRUE(other.Connect(&reason)) << reason;
    // Holds the daemon up until the name is taken.
    other.RequestOwnership(
        kName, [handler = sequencer->GetHandler("no name", true)](
                   bool owned, const std::string&) { handler.Run(owned); });
  };
  EXPECT_EQ(EX_UNAVAILABLE, daemon_.Run());
  EXPECT_EQ(1, daemon_.shutdowns());
  EXPECT_THAT(log_.lines(),
              ElementsAre(ErrorLine("Cannot own the bus name some.service: "
                                    "another process owns it")));
}

// What the system says of the lost connection depends on how far it got.
TEST_F(DBusServiceDaemonTest, EndsWhenTheBusGoesAwayWhileItStarts) {
  daemon_.when_registering = [&](AsyncEventSequencer*) { private_bus_.Stop(); };
  EXPECT_EQ(EX_UNAVAILABLE, daemon_.Run());
  EXPECT_EQ(1, daemon_.shutdowns());
  ASSERT_EQ(1u, log_.lines().size());
  EXPECT_EQ(base::LogSeverity::kERROR, log_.lines()[0].severity);
  EXPECT_THAT(
      log_.lines()[0].text,
      testing::StartsWith("Cannot own the bus name some.service: Connection "));
}

TEST_F(DBusServiceDaemonTest, EndsWhenTheBusGoesAwayWhileItServes) {
  daemon_.Start();
  Settle();
  log_.Clear();
  private_bus_.Stop();
  ASSERT_TRUE(
      test::RunUntil("the log line", [&] { return !log_.lines().empty(); }));
  EXPECT_THAT(log_.lines(),
              ElementsAre(ErrorLine("The system bus closed the connection")));
  EXPECT_EQ(EX_UNAVAILABLE, daemon_.event_loop()->Run());
}

// The supervisor starts what depends on the daemon when it is told.
TEST_F(DBusServiceDaemonTest, TellsTheSupervisorWhenItOwnsItsName) {
  test::NotifySocket supervisor;
  Observer observer(daemon_.event_loop());
  daemon_.Start();
  EXPECT_THAT(supervisor.TakeNotes(), IsEmpty());
  std::vector<std::string> notes;
  bool had_owner = false;
  const auto noted = daemon_.event_loop()->WatchFd(
      supervisor.fd(), base::EventLoop::kReadable, [&](uint32_t) {
        had_owner = observer.HasOwner();
        notes = supervisor.TakeNotes();
      });
  EXPECT_TRUE(test::RunUntil("the note", [&] { return !notes.empty(); }));
  EXPECT_THAT(notes, ElementsAre("READY=1"));
  EXPECT_TRUE(had_owner);
}

TEST_F(DBusServiceDaemonTest, ReportsItsStatusOnceItOwnsItsName) {
  test::NotifySocket supervisor;
  daemon_.ReportStatus([] { return std::string("Well"); });
  daemon_.Start();
  std::vector<std::string> notes;
  EXPECT_TRUE(test::RunUntil("the notes", [&] {
    for (std::string& note : supervisor.TakeNotes()) {
      notes.push_back(std::move(note));
    }
    return notes.size() == 2;
  }));
  EXPECT_THAT(notes, ElementsAre("READY=1", "STATUS=Well"));
}

TEST_F(DBusServiceDaemonTest, DescribesNoStatusIfNobodyWantsToKnow) {
  Observer observer(daemon_.event_loop());
  bool described = false;
  daemon_.ReportStatus([&] {
    described = true;
    return std::string();
  });
  daemon_.Start();
  observer.WaitForOwner();
  test::RunPending();
  EXPECT_FALSE(described);
}

// A death test does not leave its process's loop to the other one.
class DBusServiceDaemonDeathTest : public testing::Test {
 protected:
  test::PrivateBus private_bus_;
};

// It takes signals over only when it can answer them.
TEST_F(DBusServiceDaemonDeathTest, EndsOnASignalWhileTheBusDoesNotAnswer) {
  const auto run = [](const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
      _exit(1);
    }
    // Another test may have left signals blocked.
    sigset_t no_signals;
    sigemptyset(&no_signals);
    sigprocmask(SIG_SETMASK, &no_signals, nullptr);
    // The daemon's connection is the occasion for the signal.
    signal(SIGIO, [](int) { raise(SIGTERM); });
    fcntl(fd, F_SETOWN, getpid());
    fcntl(fd, F_SETFL, O_ASYNC);
    if (listen(fd, 1) != 0) _exit(2);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + path).c_str(), 1);
    _exit(TestDaemon().Run());
  };
  test::TempDirectory folder;
  EXPECT_EXIT(run(folder.Path("bus")), testing::KilledBySignal(SIGTERM), "");
}

TEST_F(DBusServiceDaemonDeathTest, DiesOfAFailureThatIsFatal) {
  const auto run = [] {
    TestDaemon daemon;
    daemon.when_registering = [](AsyncEventSequencer* sequencer) {
      sequencer->GetHandler("No luck", true).Run(false);
    };
    daemon.Run();
  };
  EXPECT_EXIT(run(), testing::KilledBySignal(SIGABRT), "\\[FATAL\\] No luck\n");
}

TEST_F(DBusServiceDaemonDeathTest, DiesIfItsObjectManagerCannotBeThere) {
  const auto run = [] {
    class BadPathDaemon : public DBusServiceDaemon {
     public:
      BadPathDaemon() : DBusServiceDaemon(kName, "no path") {}
    };
    BadPathDaemon().Run();
  };
  EXPECT_EXIT(run(), testing::KilledBySignal(SIGABRT),
              "\\[FATAL\\] ExportedObjectManager::RegisterAsync\\(\\) failed");
}

}  // namespace
}  // namespace kestrix
