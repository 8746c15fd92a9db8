// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "tests/support/private_bus.h"

#include <signal.h>
#include <stdlib.h>

#include "base/logging.h"

namespace test {
namespace {

constexpr char kVariable[] = "DBUS_SYSTEM_BUS_ADDRESS";

std::string Configuration(const std::string& folder) {
  return R"(<!DOCTYPE busconfig PUBLIC
 "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=)" +
         folder + R"(/socket</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="false"/>
    <allow receive_sender="*"/>
    <allow own="*"/>
    <allow user="*"/>
  </policy>
</busconfig>
)";
}

}  // namespace

PrivateBus::PrivateBus() {
  PutFile(folder_.Path("bus.conf"), Configuration(folder_.path()));
  daemon_ = std::make_unique<Process>(
      std::vector<std::string>{"dbus-daemon", "--nofork", "--nopidfile",
                               "--nosyslog", "--print-address=1",
                               "--config-file=" + folder_.Path("bus.conf")},
      /*with_errors=*/true);
  // The address is printed when the socket listens. Before it the daemon may
  // grumble about limits that it cannot raise.
  std::string address, messages;
  do {
    messages += address + "\n";
    address = daemon_->ReadLine("the address of the bus");
    CHECK(!address.empty()) << "There is no bus: " << messages;
  } while (!address.starts_with("unix:"));
  setenv(kVariable, address.c_str(), /*overwrite=*/1);
}

PrivateBus::~PrivateBus() { unsetenv(kVariable); }

void PrivateBus::Pause() { daemon_->Signal(SIGSTOP); }

void PrivateBus::Resume() { daemon_->Signal(SIGCONT); }

}  // namespace test
