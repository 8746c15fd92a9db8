// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "platform/actions/cloud-actions/cloud_action_daemon.h"

#include "base/callback.h"
#include "kestrix/dbus_utils/dbus_method_response.h"

namespace halvex::actions {
namespace {

constexpr char kServiceName[] = "org.vantrel.actions.CloudActions";
constexpr char kObjectManagerPath[] = "/org/vantrel/actions/CloudActions";

}  // namespace

CloudActionDaemon::CloudActionDaemon()
    : DBusServiceDaemon(kServiceName, kObjectManagerPath) {
  ReportStatus(
      base::Bind(&CloudActionDaemon::DescribeStatus, base::Unretained(this)));
}

CloudActionDaemon::~CloudActionDaemon() = default;

void CloudActionDaemon::RegisterDBusObjectsAsync(
    kestrix::dbus_utils::AsyncEventSequencer* sequencer) {
  object_manager_ =
      std::make_unique<org::vantrel::Dosset::ObjectManagerProxy>(bus());
  cloud_action_manager_ =
      std::make_unique<CloudActionManager>(object_manager_.get());
  dbus_adaptor_ = std::make_unique<CloudActionManagerDBusAdaptor>(
      exported_object_manager(), cloud_action_manager_.get());
  dbus_adaptor_->RegisterAsync(sequencer->GetHandler(
      "CloudActionManagerDBusAdaptor::RegisterAsync() failed",
      /*failure_is_fatal=*/true));
}

std::string CloudActionDaemon::DescribeStatus() const {
  return (cloud_action_manager_->HoldsCredential() ? "Credential held"
                                                   : "No credential") +
         ("; requests in flight: " +
          std::to_string(
              kestrix::dbus_utils::DBusMethodResponseBase::pending()));
}

void CloudActionDaemon::OnShutdown(int* return_code) {
  dbus_adaptor_.reset();
  cloud_action_manager_.reset();
  object_manager_.reset();
  Daemon::OnShutdown(return_code);
}

}  // namespace halvex::actions
