// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "dbus/exported_object.h"

#include <string.h>
#include <systemd/sd-bus.h>

#include <utility>

namespace dbus {
namespace {

// Calls are answered by OnMethodCall(), which runs first; the library's table
// serves introspection and the object manager.
int NeverReached(sd_bus_message*, void*, sd_bus_error*) { return 0; }

// `method` and `names` are borrowed as long as the entry is in use. What may be
// called is the bus policy's decision, so the library asks for no privilege.
sd_bus_vtable TableMethod(const ExportedMethod& method,
                          const std::string& names) {
  return SD_BUS_METHOD_WITH_NAMES(
      method.name.c_str(), method.in_signature.c_str(), names.c_str(),
      method.out_signature.c_str(), , NeverReached,
      SD_BUS_VTABLE_UNPRIVILEGED | SD_BUS_VTABLE_SENSITIVE);
}

}  // namespace

struct ExportedObject::Interface {
  static int OnMethodCall(sd_bus_message* message, void* stored,
                          sd_bus_error*) {
    const auto* self = static_cast<Interface*>(stored);
    // A call may leave the interface out (D-Bus, "Message Types"): then the
    // member alone counts.
    const char* interface_name =
        sd_bus_message_get_interface(message) ? self->name.c_str() : nullptr;
    for (const ExportedMethod& method : self->methods) {
      if (sd_bus_message_is_method_call(message, interface_name,
                                        method.name.c_str()) > 0) {
        const ExportedMethod::Handler handler = method.handler;
        handler.Run(Message::Share(message));
        return 1;
      }
    }
    return 0;
  }

  std::string name;
  std::vector<ExportedMethod> methods;
  // For each method its argument names, each ended by NUL.
  std::vector<std::string> names;
  std::vector<sd_bus_vtable> table;
  // Last, so that nothing is called any more when the rest goes.
  Slot calls;
  Slot table_slot;
};

bool AddObjectManager(Bus* bus, const std::string& path, Slot* slot) {
  sd_bus_slot* new_slot = nullptr;
  if (sd_bus_add_object_manager(bus->get(), &new_slot, path.c_str()) < 0) {
    return false;
  }
  *slot = Slot(new_slot);
  return true;
}

ExportedObject::ExportedObject(Bus* bus, std::string path)
    : bus_(bus), path_(std::move(path)) {}

ExportedObject::~ExportedObject() {
  if (announced_) sd_bus_emit_object_removed(bus_->get(), path_.c_str());
}

bool ExportedObject::AddInterface(const std::string& interface_name,
                                  std::vector<ExportedMethod> methods,
                                  std::string* reason) {
  auto interface = std::make_unique<Interface>();
  interface->name = interface_name;
  interface->methods = std::move(methods);
  interface->table.push_back(SD_BUS_VTABLE_START(0));
  interface->names.reserve(interface->methods.size());
  for (const ExportedMethod& method : interface->methods) {
    std::string& names = interface->names.emplace_back();
    for (const std::string& name : method.argument_names) {
      names.append(name).push_back('\0');
    }
    interface->table.push_back(TableMethod(method, names));
  }
  interface->table.push_back(SD_BUS_VTABLE_END);

  sd_bus_slot* slot = nullptr;
  int result = sd_bus_add_object(bus_->get(), &slot, path_.c_str(),
                                 Interface::OnMethodCall, interface.get());
  interface->calls = Slot(slot);
  if (result >= 0) {
    slot = nullptr;
    result = sd_bus_add_object_vtable(bus_->get(), &slot, path_.c_str(),
                                      interface->name.c_str(),
                                      interface->table.data(), nullptr);
    interface->table_slot = Slot(slot);
  }
  if (result < 0) {
    *reason = strerror(-result);
    return false;
  }
  interfaces_.push_back(std::move(interface));
  return true;
}

bool ExportedObject::Announce(std::string* reason) {
  const int result = sd_bus_emit_object_added(bus_->get(), path_.c_str());
  if (result < 0) {
    *reason = strerror(-result);
    return false;
  }
  announced_ = true;
  return true;
}

}  // namespace dbus
