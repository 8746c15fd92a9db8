// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/dbus_utils/exported_object_manager.h"

#include <utility>

#include "base/event_loop.h"
#include "dbus/exported_object.h"

namespace kestrix::dbus_utils {

ExportedObjectManager::ExportedObjectManager(dbus::Bus* bus, std::string path)
    : bus_(bus), path_(std::move(path)) {}

void ExportedObjectManager::RegisterAsync(base::Callback<void(bool)> callback) {
  const bool success = dbus::AddObjectManager(bus_, path_, &slot_);
  base::EventLoop::Current()->PostTask(
      [callback = std::move(callback), success] { callback.Run(success); });
}

}  // namespace kestrix::dbus_utils
