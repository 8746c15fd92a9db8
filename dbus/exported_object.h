// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef DBUS_EXPORTED_OBJECT_H_
#define DBUS_EXPORTED_OBJECT_H_

#include <memory>
#include <string>
#include <vector>

#include "base/callback.h"
#include "dbus/bus.h"
#include "dbus/message.h"

namespace dbus {

// A method that we offer.
struct ExportedMethod {
  // Takes a call whose arguments are unchecked, and answers it, now or later.
  using Handler = base::Callback<void(Message call)>;

  std::string name;
  // For introspection only.
  std::string in_signature;
  std::string out_signature;
  // The in-arguments, then the out-arguments.
  std::vector<std::string> argument_names;
  Handler handler;
};

// Makes `path` an object manager: org.freedesktop.DBus.ObjectManager is
// answered there for the objects below it. False if the bus refuses.
bool AddObjectManager(Bus* bus, const std::string& path, Slot* slot);

// An object of ours on the bus. Introspection, peer and property calls are
// answered by the bus library.
class ExportedObject {
 public:
  // `bus` is borrowed and must outlive the object.
  ExportedObject(Bus* bus, std::string path);
  // Takes the object from the bus, and announces that to those who watch its
  // object manager.
  ~ExportedObject();
  ExportedObject(const ExportedObject&) = delete;
  ExportedObject& operator=(const ExportedObject&) = delete;

  // Puts the object with one more interface onto the bus. Calls are handled
  // from the loop from now on. On failure `reason` says why.
  bool AddInterface(const std::string& interface_name,
                    std::vector<ExportedMethod> methods, std::string* reason);

  // Announces the object to those who watch its object manager. On failure
  // `reason` says why.
  bool Announce(std::string* reason);

 private:
  struct Interface;

  Bus* bus_;  // Not owned; outlives this.
  std::string path_;
  bool announced_ = false;
  std::vector<std::unique_ptr<Interface>> interfaces_;
};

}  // namespace dbus

#endif  // DBUS_EXPORTED_OBJECT_H_
