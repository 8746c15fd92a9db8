// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef KESTRIX_DBUS_UTILS_EXPORTED_OBJECT_MANAGER_H_
#define KESTRIX_DBUS_UTILS_EXPORTED_OBJECT_MANAGER_H_

#include <string>

#include "base/callback.h"
#include "dbus/bus.h"

namespace kestrix::dbus_utils {

// Our own org.freedesktop.DBus.ObjectManager: tells others of the objects that
// we export below its path.
class ExportedObjectManager {
 public:
  // `bus` is borrowed and must outlive this.
  ExportedObjectManager(dbus::Bus* bus, std::string path);

  // Puts the object manager onto the bus. `callback` runs once, from the loop.
  void RegisterAsync(base::Callback<void(bool success)> callback);

  dbus::Bus* bus() const { return bus_; }

 private:
  dbus::Bus* bus_;  // Not owned; outlives this.
  std::string path_;
  dbus::Slot slot_;
};

}  // namespace kestrix::dbus_utils

#endif  // KESTRIX_DBUS_UTILS_EXPORTED_OBJECT_MANAGER_H_
