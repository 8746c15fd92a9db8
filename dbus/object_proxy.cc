// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "dbus/object_proxy.h"

#include <systemd/sd-bus.h>

namespace dbus {

Message ObjectProxy::CreateMethodCall(const std::string& interface_name,
                                      const std::string& method) const {
  if (!bus_->is_connected()) return Message();
  sd_bus_message* call = nullptr;
  sd_bus_message_new_method_call(bus_->get(), &call, service_.c_str(),
                                 path_.c_str(), interface_name.c_str(),
                                 method.c_str());
  return Message(call);
}

}  // namespace dbus
