// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef PLATFORM_ACTIONS_CLOUD_ACTIONS_CLOUD_ACTION_MANAGER_DBUS_ADAPTOR_H_
#define PLATFORM_ACTIONS_CLOUD_ACTIONS_CLOUD_ACTION_MANAGER_DBUS_ADAPTOR_H_

#include <memory>
#include <string>

#include "base/callback.h"
#include "base/weak_ptr.h"
#include "dosset/dbus-adaptors.h"
#include "kestrix/dbus_utils/dbus_method_response.h"
#include "kestrix/dbus_utils/dbus_object.h"
#include "kestrix/dbus_utils/exported_object_manager.h"
#include "kestrix/error.h"
#include "platform/actions/cloud-actions/cloud_action_manager.h"

namespace halvex::actions {

// The manager on the bus. Decides nothing about a request: what the manager
// answers is what the caller gets.
class CloudActionManagerDBusAdaptor
    : public org::vantrel::actions::CloudActions::ManagerInterface {
 public:
  // Both are borrowed and must outlive the adaptor.
  CloudActionManagerDBusAdaptor(
      kestrix::dbus_utils::ExportedObjectManager* object_manager,
      CloudActionManager* manager);
  ~CloudActionManagerDBusAdaptor() override;
  CloudActionManagerDBusAdaptor(const CloudActionManagerDBusAdaptor&) = delete;
  CloudActionManagerDBusAdaptor& operator=(
      const CloudActionManagerDBusAdaptor&) = delete;

  // Puts the object onto the bus. `completion_callback` runs once, from the
  // loop.
  void RegisterAsync(
      const base::Callback<void(bool success)>& completion_callback);

  void RedirectRequest(
      std::unique_ptr<kestrix::dbus_utils::DBusMethodResponse<int, std::string>>
          response,
      const std::string& endpoint, const std::string& method,
      const std::string& body) override;

 private:
  using Response = kestrix::dbus_utils::DBusMethodResponse<int, std::string>;

  void OnRedirectRequestDone(std::unique_ptr<Response> response,
                             const RedirectResult& result,
                             const kestrix::Error* error);

  org::vantrel::actions::CloudActions::ManagerAdaptor adaptor_;
  kestrix::dbus_utils::DBusObject dbus_object_;
  CloudActionManager* manager_;  // Not owned; outlives this.
  // Last: destroyed first, so late completions find nothing.
  base::WeakPtrFactory<CloudActionManagerDBusAdaptor> weak_ptr_factory_{this};
};

}  // namespace halvex::actions

#endif  // PLATFORM_ACTIONS_CLOUD_ACTIONS_CLOUD_ACTION_MANAGER_DBUS_ADAPTOR_H_
