// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "platform/actions/cloud-actions/cloud_action_manager_dbus_adaptor.h"

#include <utility>

namespace halvex::actions {
namespace {

constexpr char kObjectPath[] = "/org/vantrel/actions/CloudActions/Manager";

}  // namespace

CloudActionManagerDBusAdaptor::CloudActionManagerDBusAdaptor(
    kestrix::dbus_utils::ExportedObjectManager* object_manager,
    CloudActionManager* manager)
    : adaptor_(this),
      dbus_object_(object_manager, object_manager->bus(), kObjectPath),
      manager_(manager) {}

CloudActionManagerDBusAdaptor::~CloudActionManagerDBusAdaptor() = default;

void CloudActionManagerDBusAdaptor::RegisterAsync(
    const base::Callback<void(bool)>& completion_callback) {
  adaptor_.RegisterWithDBusObject(&dbus_object_);
  dbus_object_.RegisterAsync(completion_callback);
}

void CloudActionManagerDBusAdaptor::RedirectRequest(
    std::unique_ptr<Response> response, const std::string& endpoint,
    const std::string& method, const std::string& body) {
  manager_->RedirectRequest(
      endpoint, method, body,
      base::Bind(&CloudActionManagerDBusAdaptor::OnRedirectRequestDone,
                 weak_ptr_factory_.GetWeakPtr(),
                 base::Passed(std::move(response))));
}

void CloudActionManagerDBusAdaptor::OnRedirectRequestDone(
    std::unique_ptr<Response> response, const RedirectResult& result,
    const kestrix::Error* error) {
  if (error) {
    response->ReplyWithError(error);
    return;
  }
  response->Return(result.status_code, result.response_body);
}

}  // namespace halvex::actions
