// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef DBUS_OBJECT_PROXY_H_
#define DBUS_OBJECT_PROXY_H_

#include <string>
#include <utility>

#include "dbus/bus.h"
#include "dbus/message.h"

namespace dbus {

// Addresses one object of another program. It holds no state of the object, and
// there need not be such an object.
class ObjectProxy {
 public:
  // `bus` is borrowed and must outlive the proxy.
  ObjectProxy(Bus* bus, std::string service, std::string path)
      : bus_(bus), service_(std::move(service)), path_(std::move(path)) {}

  const std::string& path() const { return path_; }

  // A call of `method`, to which the arguments are yet to be written. None if
  // there is no connection.
  Message CreateMethodCall(const std::string& interface_name,
                           const std::string& method) const;

  // As Bus::CallAndBlock().
  Message CallMethodAndBlock(const Message& call, int timeout_ms,
                             Error* error) const {
    return bus_->CallAndBlock(call, timeout_ms, error);
  }

  // As Bus::Call() without a slot.
  bool CallMethod(const Message& call, int timeout_ms,
                  Bus::MessageCallback callback) const {
    return bus_->Call(call, timeout_ms, std::move(callback));
  }

 private:
  Bus* bus_;  // Not owned; outlives this.
  std::string service_;
  std::string path_;
};

}  // namespace dbus

#endif  // DBUS_OBJECT_PROXY_H_
