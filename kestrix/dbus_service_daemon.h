// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef KESTRIX_DBUS_SERVICE_DAEMON_H_
#define KESTRIX_DBUS_SERVICE_DAEMON_H_

#include <memory>
#include <string>

#include "base/callback.h"
#include "base/weak_ptr.h"
#include "dbus/bus.h"
#include "kestrix/daemon.h"
#include "kestrix/dbus_utils/async_event_sequencer.h"
#include "kestrix/dbus_utils/exported_object_manager.h"
#include "kestrix/service_status.h"

namespace kestrix {

// A daemon that serves objects on the system bus under a well-known name. The
// name is claimed once all objects are there, so whoever sees it can call them.
// If there is no bus, the name belongs to another process, or the bus goes
// away, the daemon ends with EX_UNAVAILABLE (69).
class DBusServiceDaemon : public Daemon {
 public:
  DBusServiceDaemon(std::string service_name, std::string object_manager_path);
  ~DBusServiceDaemon() override;

 protected:
  int OnInit() override;

  // Called once while the daemon starts, with the bus connected. The name is
  // claimed when every handler that was got from `sequencer` has reported.
  virtual void RegisterDBusObjectsAsync(
      dbus_utils::AsyncEventSequencer* sequencer);

  // Has the service manager told in words how the daemon is, from when the name
  // is owned; see ServiceStatus for `describe`. Nothing happens if there is no
  // service manager that wants to know.
  void ReportStatus(base::Callback<std::string()> describe);

  dbus::Bus* bus() { return bus_.get(); }
  // The object manager of the objects that this daemon exports.
  dbus_utils::ExportedObjectManager* exported_object_manager() {
    return exported_object_manager_.get();
  }

 private:
  void ClaimServiceName(bool all_registered);
  void OnServiceNameClaimed(bool owned, const std::string& reason);
  void OnBusDisconnected();

  const std::string service_name_;
  const std::string object_manager_path_;
  std::unique_ptr<dbus::Bus> bus_;
  std::unique_ptr<dbus_utils::ExportedObjectManager> exported_object_manager_;
  base::Callback<std::string()> describe_status_;
  std::unique_ptr<ServiceStatus> status_;
  // Last: destroyed first, so late completions find nothing.
  base::WeakPtrFactory<DBusServiceDaemon> weak_ptr_factory_{this};
};

}  // namespace kestrix

#endif  // KESTRIX_DBUS_SERVICE_DAEMON_H_
