// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "dbus/object_manager.h"

#include <utility>
#include <vector>

#include "base/logging.h"

namespace dbus {
namespace {

constexpr char kBusService[] = "org.freedesktop.DBus";
constexpr char kBusPath[] = "/org/freedesktop/DBus";
constexpr char kBusInterface[] = "org.freedesktop.DBus";
constexpr char kObjectManagerInterface[] = "org.freedesktop.DBus.ObjectManager";
constexpr char kPropertiesInterface[] = "org.freedesktop.DBus.Properties";

constexpr int kDefaultTimeout = -1;

std::string SignalRule(const std::string& sender,
                       const std::string& interface_name,
                       const std::string& member) {
  return "type='signal',sender='" + sender + "',interface='" + interface_name +
         "',member='" + member + "'";
}

}  // namespace

ObjectManager::ObjectManager(Bus* bus, std::string service, std::string path)
    : bus_(bus), service_(std::move(service)), path_(std::move(path)) {
  if (!bus_->is_connected()) return;
  const auto self = weak_ptr_factory_.GetWeakPtr();
  name_owner_changed_ = bus_->AddMatch(
      SignalRule(kBusService, kBusInterface, "NameOwnerChanged") + ",arg0='" +
          service_ + "'",
      base::Bind(&ObjectManager::OnNameOwnerChanged, self));
  interfaces_added_ = bus_->AddMatch(
      SignalRule(service_, kObjectManagerInterface, "InterfacesAdded") +
          ",path='" + path_ + "'",
      base::Bind(&ObjectManager::OnInterfacesAdded, self));
  interfaces_removed_ = bus_->AddMatch(
      SignalRule(service_, kObjectManagerInterface, "InterfacesRemoved") +
          ",path='" + path_ + "'",
      base::Bind(&ObjectManager::OnInterfacesRemoved, self));
  properties_changed_ = bus_->AddMatch(
      SignalRule(service_, kPropertiesInterface, "PropertiesChanged") +
          ",path_namespace='" + path_ + "'",
      base::Bind(&ObjectManager::OnPropertiesChanged, self));

  // The bus handles our messages in order: it watches the name for us by the
  // time it answers, so no change of owner falls between.
  const ObjectProxy bus_object(bus_, kBusService, kBusPath);
  Message call = bus_object.CreateMethodCall(kBusInterface, "GetNameOwner");
  if (!call || !MessageWriter(&call).AppendString(service_) ||
      !bus_->Call(call, kDefaultTimeout,
                  base::Bind(&ObjectManager::OnNameOwner, self),
                  &pending_call_)) {
    LOG(ERROR) << "Cannot ask who owns " << service_;
    bus_->GiveUp();
  }
}

void ObjectManager::RegisterInterface(const std::string& interface_name,
                                      Interface* handler) {
  handlers_[interface_name] = handler;
}

void ObjectManager::UnregisterInterface(const std::string& interface_name) {
  handlers_.erase(interface_name);
  std::erase_if(interfaces_, [&](const auto& entry) {
    return entry.first.second == interface_name;
  });
}

PropertySet* ObjectManager::GetProperties(const std::string& object_path,
                                          const std::string& interface_name) {
  const auto found = interfaces_.find({object_path, interface_name});
  return found == interfaces_.end() ? nullptr : found->second.properties.get();
}

void ObjectManager::OnNameOwnerChanged(Message signal) {
  if (signal.GetSender() != kBusService) return;
  std::string name, old_owner, new_owner;
  MessageReader reader(&signal);
  if (!reader.PopString(&name) || !reader.PopString(&old_owner) ||
      !reader.PopString(&new_owner) || name != service_) {
    return;
  }
  SetOwner(new_owner);
}

void ObjectManager::OnNameOwner(Message reply) {
  const Error error = reply.GetError();
  if (error.name == "org.freedesktop.DBus.Error.NameHasNoOwner") return;
  std::string owner;
  // The text of an error is a string as well.
  if (error.is_set() || !MessageReader(&reply).PopString(&owner)) {
    LOG(ERROR) << "Cannot ask who owns " << service_;
    bus_->GiveUp();
    return;
  }
  SetOwner(owner);
}

void ObjectManager::SetOwner(const std::string& owner) {
  if (owner == owner_) return;
  pending_call_ = Slot();
  RemoveAllObjects();
  owner_ = owner;
  if (owner_.empty()) return;
  // Addressed to the owner itself: another one's answer would be wrong.
  const ObjectProxy root(bus_, owner_, path_);
  const Message call =
      root.CreateMethodCall(kObjectManagerInterface, "GetManagedObjects");
  if (!bus_->Call(call, kDefaultTimeout,
                  base::Bind(&ObjectManager::OnManagedObjects,
                             weak_ptr_factory_.GetWeakPtr()),
                  &pending_call_)) {
    LOG(ERROR) << "Cannot ask " << service_ << " for its objects";
    bus_->GiveUp();
  }
}

bool ObjectManager::IsFromOwner(const Message& signal) const {
  return !owner_.empty() && signal.GetSender() == owner_;
}

void ObjectManager::OnManagedObjects(Message reply) {
  const Error error = reply.GetError();
  if (error.is_set()) {
    LOG(ERROR) << "Cannot get the objects of " << service_ << ": " << error.name
               << ": " << error.message;
    return;
  }
  if (reply.GetSignature() != "a{oa{sa{sv}}}") {
    LogMalformed("GetManagedObjects reply");
    return;
  }
  MessageReader reader(&reply);
  reader.OpenArray("{oa{sa{sv}}}");
  std::string object_path;
  while (reader.OpenDictEntry("oa{sa{sv}}")) {
    if (!reader.PopObjectPath(&object_path) ||
        !ReadInterfaces(object_path, &reader) || !reader.Close()) {
      LogUnreadable("GetManagedObjects reply");
      return;
    }
  }
}

void ObjectManager::OnInterfacesAdded(Message signal) {
  if (!IsFromOwner(signal)) return;
  std::string object_path;
  MessageReader reader(&signal);
  if (signal.GetSignature() != "oa{sa{sv}}" ||
      !reader.PopObjectPath(&object_path)) {
    LogMalformed("InterfacesAdded signal");
  } else if (!ReadInterfaces(object_path, &reader)) {
    LogUnreadable("InterfacesAdded signal");
  }
}

bool ObjectManager::ReadInterfaces(const std::string& object_path,
                                   MessageReader* reader) {
  if (!reader->OpenArray("{sa{sv}}")) return false;
  std::string interface_name;
  while (reader->OpenDictEntry("sa{sv}")) {
    if (!reader->PopString(&interface_name) ||
        !ReadInterface(object_path, interface_name, reader) ||
        !reader->Close()) {
      return false;
    }
  }
  return reader->Close();
}

bool ObjectManager::ReadInterface(const std::string& object_path,
                                  const std::string& interface_name,
                                  MessageReader* reader) {
  const auto handler = handlers_.find(interface_name);
  if (handler == handlers_.end()) return reader->Skip();

  if (PropertySet* known = GetProperties(object_path, interface_name)) {
    if (!known->UpdateFromReader(reader)) return false;
    known->NotifyChanged();
    return true;
  }
  auto proxy = std::make_unique<ObjectProxy>(bus_, service_, object_path);
  std::unique_ptr<PropertySet> properties = handler->second->CreateProperties(
      proxy.get(), object_path, interface_name);
  if (!properties->UpdateFromReader(reader)) return false;
  PropertySet* added = properties.get();
  interfaces_[{object_path, interface_name}] = {std::move(proxy),
                                                std::move(properties)};
  added->NotifyChanged();
  handler->second->ObjectAdded(object_path, interface_name);
  return true;
}

void ObjectManager::OnInterfacesRemoved(Message signal) {
  if (!IsFromOwner(signal)) return;
  std::string object_path;
  MessageReader reader(&signal);
  if (signal.GetSignature() != "oas" || !reader.PopObjectPath(&object_path) ||
      !reader.OpenArray("s")) {
    LogMalformed("InterfacesRemoved signal");
    return;
  }
  std::string interface_name;
  while (reader.PopString(&interface_name)) {
    RemoveInterface(object_path, interface_name);
  }
}

void ObjectManager::RemoveInterface(const std::string& object_path,
                                    const std::string& interface_name) {
  if (!GetProperties(object_path, interface_name)) return;
  handlers_.at(interface_name)->ObjectRemoved(object_path, interface_name);
  interfaces_.erase({object_path, interface_name});
}

void ObjectManager::RemoveAllObjects() {
  std::vector<InterfaceKey> known;
  for (const auto& entry : interfaces_) known.push_back(entry.first);
  for (const auto& [object_path, interface_name] : known) {
    RemoveInterface(object_path, interface_name);
  }
}

void ObjectManager::OnPropertiesChanged(Message signal) {
  if (!IsFromOwner(signal)) return;
  std::string interface_name;
  MessageReader reader(&signal);
  if (signal.GetSignature() != "sa{sv}as" ||
      !reader.PopString(&interface_name)) {
    LogMalformed("PropertiesChanged signal");
    return;
  }
  PropertySet* properties = GetProperties(signal.GetPath(), interface_name);
  if (!properties) return;
  if (!properties->UpdateFromReader(&reader) ||
      !properties->InvalidateFromReader(&reader)) {
    LogUnreadable("PropertiesChanged signal");
  }
  properties->NotifyChanged();
}

// A string that holds a Unicode noncharacter passes the bus, and the bus
// library then neither reads nor skips it: what follows in the message is lost.
void ObjectManager::LogUnreadable(const std::string& what) const {
  LOG(ERROR) << "Cannot read all of the " << what << " from " << service_;
}

void ObjectManager::LogMalformed(const std::string& what) const {
  LOG(WARNING) << "Ignoring a malformed " << what << " from " << service_;
}

}  // namespace dbus
