// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/dbus_utils/dbus_object.h"

#include <utility>

#include "base/event_loop.h"
#include "base/logging.h"

namespace kestrix::dbus_utils {

void DBusInterface::AddHandlerImpl(
    const std::string& method_name,
    std::unique_ptr<DBusInterfaceMethodHandlerInterface> handler,
    MethodDescription description) {
  methods_.push_back({
      .name = method_name,
      .in_signature = std::move(description.in_signature),
      .out_signature = std::move(description.out_signature),
      .argument_names = std::move(description.argument_names),
      .handler =
          [handler = std::shared_ptr<DBusInterfaceMethodHandlerInterface>(
               std::move(handler))](dbus::Message call) {
            handler->HandleMethod(std::move(call),
                                  [](const dbus::Message& response) {
                                    if (!response.Send())
                                      LOG(WARNING) << "A reply was lost";
                                  });
          },
  });
}

DBusObject::DBusObject(ExportedObjectManager* /*object_manager*/,
                       dbus::Bus* bus, std::string path)
    : bus_(bus), path_(std::move(path)) {}

DBusInterface* DBusObject::AddOrGetInterface(
    const std::string& interface_name) {
  return &interfaces_[interface_name];
}

void DBusObject::RegisterAsync(base::Callback<void(bool)> callback) {
  exported_object_ = std::make_unique<dbus::ExportedObject>(bus_, path_);
  std::string reason;
  bool success = true;
  for (const auto& [name, interface] : interfaces_) {
    success = success &&
              exported_object_->AddInterface(name, interface.methods_, &reason);
  }
  success = success && exported_object_->Announce(&reason);
  if (!success) {
    LOG(ERROR) << "Cannot export " << path_ << ": " << reason;
    // The end of the connection is no fault of the object: it ends the daemon
    // in its own way.
    if (!bus_->IsOpen()) return;
  }
  base::EventLoop::Current()->PostTask(
      [callback = std::move(callback), success] { callback.Run(success); });
}

}  // namespace kestrix::dbus_utils
