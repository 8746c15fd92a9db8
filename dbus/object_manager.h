// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef DBUS_OBJECT_MANAGER_H_
#define DBUS_OBJECT_MANAGER_H_

#include <map>
#include <memory>
#include <string>
#include <utility>

#include "base/weak_ptr.h"
#include "dbus/bus.h"
#include "dbus/message.h"
#include "dbus/object_proxy.h"
#include "dbus/property.h"

namespace dbus {

// Follows the objects that another program publishes through
// org.freedesktop.DBus.ObjectManager (D-Bus, "Standard
// Interfaces"), across that program's life: absent, there before us, restarted,
// gone. Signals count only if they come from the connection that owns the
// program's name now: anyone on the bus can send us a signal.
//
// Objects of an owner that leaves are removed one by one. An interface that is
// announced again while it is known only has its properties updated: its
// handler is told of each once.
class ObjectManager {
 public:
  // Handles one or more interfaces of the remote objects.
  class Interface {
   public:
    virtual ~Interface() = default;

    // Makes the cache of the properties of `interface_name` of one object,
    // which the object manager fills before ObjectAdded() and keeps until after
    // ObjectRemoved(). `object_proxy` lives as long as the cache.
    virtual std::unique_ptr<PropertySet> CreateProperties(
        ObjectProxy* object_proxy, const std::string& object_path,
        const std::string& interface_name) = 0;
    virtual void ObjectAdded(const std::string& object_path,
                             const std::string& interface_name) = 0;
    virtual void ObjectRemoved(const std::string& object_path,
                               const std::string& interface_name) = 0;
  };

  // Made by Bus::GetObjectManager(). `bus` is borrowed and must outlive this.
  ObjectManager(Bus* bus, std::string service, std::string path);
  ObjectManager(const ObjectManager&) = delete;
  ObjectManager& operator=(const ObjectManager&) = delete;

  // `handler` is borrowed until it is unregistered. It is told of what is
  // announced from now on.
  void RegisterInterface(const std::string& interface_name, Interface* handler);
  // The handler is not called any more; its objects are forgotten.
  void UnregisterInterface(const std::string& interface_name);

  // Null if there is no such object, or no such interface on it. Valid until
  // the ObjectRemoved() for it has returned.
  PropertySet* GetProperties(const std::string& object_path,
                             const std::string& interface_name);

 private:
  // One interface of one remote object.
  struct RemoteInterface {
    std::unique_ptr<ObjectProxy> proxy;
    std::unique_ptr<PropertySet> properties;
  };
  // The object's path and the interface's name.
  using InterfaceKey = std::pair<std::string, std::string>;

  void OnNameOwnerChanged(Message signal);
  void OnNameOwner(Message reply);
  void OnManagedObjects(Message reply);
  void OnInterfacesAdded(Message signal);
  void OnInterfacesRemoved(Message signal);
  void OnPropertiesChanged(Message signal);

  void SetOwner(const std::string& owner);
  bool IsFromOwner(const Message& signal) const;
  // Reads the a{sa{sv}} of one object.
  bool ReadInterfaces(const std::string& object_path, MessageReader* reader);
  bool ReadInterface(const std::string& object_path,
                     const std::string& interface_name, MessageReader* reader);
  void RemoveInterface(const std::string& object_path,
                       const std::string& interface_name);
  void RemoveAllObjects();
  void LogMalformed(const std::string& what) const;
  void LogUnreadable(const std::string& what) const;

  Bus* bus_;  // Not owned; outlives this.
  std::string service_;
  std::string path_;
  // The unique name of the connection that owns `service_`; empty: nobody.
  std::string owner_;
  std::map<std::string, Interface*> handlers_;  // Not owned.
  std::map<InterfaceKey, RemoteInterface> interfaces_;
  Slot name_owner_changed_;
  Slot interfaces_added_;
  Slot interfaces_removed_;
  Slot properties_changed_;
  // The call that is under way, if any: who owns the name, or what it
  // publishes.
  Slot pending_call_;
  // Last: destroyed first, so late replies find nothing.
  base::WeakPtrFactory<ObjectManager> weak_ptr_factory_{this};
};

}  // namespace dbus

#endif  // DBUS_OBJECT_MANAGER_H_
