// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef PLATFORM_ACTIONS_CLOUD_ACTIONS_CLOUD_ACTION_DAEMON_H_
#define PLATFORM_ACTIONS_CLOUD_ACTIONS_CLOUD_ACTION_DAEMON_H_

#include <memory>
#include <string>

#include "dosset/dbus-proxies.h"
#include "kestrix/dbus_service_daemon.h"
#include "platform/actions/cloud-actions/cloud_action_manager.h"
#include "platform/actions/cloud-actions/cloud_action_manager_dbus_adaptor.h"

namespace halvex::actions {

// Puts the three objects that do the work together, and takes them apart again.
class CloudActionDaemon : public kestrix::DBusServiceDaemon {
 public:
  CloudActionDaemon();
  ~CloudActionDaemon() override;

 protected:
  void OnShutdown(int* return_code) override;
  void RegisterDBusObjectsAsync(
      kestrix::dbus_utils::AsyncEventSequencer* sequencer) override;

 private:
  // In words, for the service manager. Requires: the objects are there.
  std::string DescribeStatus() const;

  // Each refers to the one before it, and goes before it.
  std::unique_ptr<org::vantrel::Dosset::ObjectManagerProxy> object_manager_;
  std::unique_ptr<CloudActionManager> cloud_action_manager_;
  std::unique_ptr<CloudActionManagerDBusAdaptor> dbus_adaptor_;
};

}  // namespace halvex::actions

#endif  // PLATFORM_ACTIONS_CLOUD_ACTIONS_CLOUD_ACTION_DAEMON_H_
