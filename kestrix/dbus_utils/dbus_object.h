// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef KESTRIX_DBUS_UTILS_DBUS_OBJECT_H_
#define KESTRIX_DBUS_UTILS_DBUS_OBJECT_H_

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/callback.h"
#include "dbus/exported_object.h"
#include "kestrix/dbus_utils/dbus_interface_method_handler.h"
#include "kestrix/dbus_utils/exported_object_manager.h"

namespace kestrix::dbus_utils {

// What introspection tells of a method. The types that a call must have are
// those of its handler.
struct MethodDescription {
  std::string in_signature;
  std::string out_signature;
  // The in-arguments, then the out-arguments.
  std::vector<std::string> argument_names;
};

// One interface of an exported object.
class DBusInterface {
 public:
  // Adds the method `method_name`. Requires: the object is not registered yet.
  void AddHandlerImpl(
      const std::string& method_name,
      std::unique_ptr<DBusInterfaceMethodHandlerInterface> handler,
      MethodDescription description);

 private:
  friend class DBusObject;
  std::vector<dbus::ExportedMethod> methods_;
};

// An object of ours on the bus, announced by an object manager. Destroying it
// takes it from the bus and from the object manager.
class DBusObject {
 public:
  // `bus` is borrowed and must outlive the object. `object_manager`, which must
  // be at a path above `path`, announces the object by that alone.
  DBusObject(ExportedObjectManager* object_manager, dbus::Bus* bus,
             std::string path);

  // The interface `interface_name`, made at the first request. It belongs to
  // the object.
  DBusInterface* AddOrGetInterface(const std::string& interface_name);

  // Puts the object with its interfaces onto the bus. `callback` runs once,
  // from the loop, unless the connection has ended. Calls may come as soon as
  // the loop runs.
  void RegisterAsync(base::Callback<void(bool success)> callback);

 private:
  dbus::Bus* bus_;  // Not owned; outlives this.
  std::string path_;
  std::map<std::string, DBusInterface> interfaces_;
  std::unique_ptr<dbus::ExportedObject> exported_object_;
};

}  // namespace kestrix::dbus_utils

#endif  // KESTRIX_DBUS_UTILS_DBUS_OBJECT_H_
