// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/dbus_service_daemon.h"

#include <sysexits.h>
#include <systemd/sd-daemon.h>

#include <utility>

#include "base/logging.h"

namespace kestrix {

DBusServiceDaemon::DBusServiceDaemon(std::string service_name,
                                     std::string object_manager_path)
    : service_name_(std::move(service_name)),
      object_manager_path_(std::move(object_manager_path)) {}

DBusServiceDaemon::~DBusServiceDaemon() = default;

int DBusServiceDaemon::OnInit() {
  const auto self = weak_ptr_factory_.GetWeakPtr();
  bus_ = std::make_unique<dbus::Bus>(event_loop());
  std::string reason;
  if (!bus_->Connect(&reason)) {
    LOG(ERROR) << "Cannot connect to the system bus: " << reason;
    return EX_UNAVAILABLE;
  }
  bus_->SetDisconnectedCallback(
      base::Bind(&DBusServiceDaemon::OnBusDisconnected, self));
  // Only now, so that a signal ends at once a process that waits for a bus
  // which does not answer.
  const int return_code = Daemon::OnInit();
  if (return_code != EX_OK) return return_code;

  auto sequencer = std::make_unique<dbus_utils::AsyncEventSequencer>();
  exported_object_manager_ =
      std::make_unique<dbus_utils::ExportedObjectManager>(bus_.get(),
                                                          object_manager_path_);
  exported_object_manager_->RegisterAsync(
      sequencer->GetHandler("ExportedObjectManager::RegisterAsync() failed",
                            /*failure_is_fatal=*/true));
  RegisterDBusObjectsAsync(sequencer.get());
  sequencer->OnAllTasksCompletedCall(
      base::Bind(&DBusServiceDaemon::ClaimServiceName, self));
  return EX_OK;
}

void DBusServiceDaemon::RegisterDBusObjectsAsync(
    dbus_utils::AsyncEventSequencer*) {}

void DBusServiceDaemon::ClaimServiceName(bool) {
  bus_->RequestOwnership(service_name_,
                         base::Bind(&DBusServiceDaemon::OnServiceNameClaimed,
                                    weak_ptr_factory_.GetWeakPtr()));
}

void DBusServiceDaemon::OnServiceNameClaimed(bool owned,
                                             const std::string& reason) {
  if (!owned) {
    LOG(ERROR) << "Cannot own the bus name " << service_name_ << ": " << reason;
    QuitWithExitCode(EX_UNAVAILABLE);
    return;
  }
  const bool is_told = sd_notify(/*unset_environment=*/0, "READY=1") > 0;
  if (is_told && describe_status_) {
    status_ = std::make_unique<ServiceStatus>(event_loop(), describe_status_);
  }
}

void DBusServiceDaemon::ReportStatus(base::Callback<std::string()> describe) {
  describe_status_ = std::move(describe);
}

void DBusServiceDaemon::OnBusDisconnected() {
  LOG(ERROR) << "The system bus closed the connection";
  QuitWithExitCode(EX_UNAVAILABLE);
}

}  // namespace kestrix
