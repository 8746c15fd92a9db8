// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef KESTRIX_DBUS_UTILS_DBUS_METHOD_INVOKER_H_
#define KESTRIX_DBUS_UTILS_DBUS_METHOD_INVOKER_H_

#include <memory>
#include <string>
#include <tuple>
#include <utility>

#include "base/callback.h"
#include "dbus/object_proxy.h"
#include "kestrix/dbus_utils/data_serialization.h"
#include "kestrix/dbus_utils/dbus_errors.h"
#include "kestrix/dbus_utils/parameter_reader.h"
#include "kestrix/error.h"

namespace kestrix::dbus_utils {

// Adds what a D-Bus error says, in the D-Bus domain.
void AddDBusError(std::unique_ptr<Error>* error, const dbus::Error& dbus_error);
// Adds that there was no answer to a call at all.
void AddNoAnswerError(std::unique_ptr<Error>* error,
                      const std::string& interface_name,
                      const std::string& method_name);
void AddNullMessageError(std::unique_ptr<Error>* error);

// A call with `arguments`; none if there is no connection or D-Bus cannot carry
// one of them.
template <typename... Args>
dbus::Message CreateMethodCall(const dbus::ObjectProxy& object,
                               const std::string& interface_name,
                               const std::string& method_name,
                               const Args&... arguments) {
  dbus::Message call = object.CreateMethodCall(interface_name, method_name);
  dbus::MessageWriter writer(&call);
  if (!call || !(AppendValueToWriter(&writer, arguments) && ...)) {
    return dbus::Message();
  }
  return call;
}

// Calls a method and waits up to `timeout_ms` for the reply (-1: the bus
// library's default). Returns none, with the reason added to `error`, if there
// is no reply. `error` may be null.
template <typename... Args>
dbus::Message CallMethodAndBlockWithTimeout(int timeout_ms,
                                            const dbus::ObjectProxy& object,
                                            const std::string& interface_name,
                                            const std::string& method_name,
                                            std::unique_ptr<Error>* error,
                                            const Args&... arguments) {
  const dbus::Message call =
      CreateMethodCall(object, interface_name, method_name, arguments...);
  dbus::Error dbus_error;
  dbus::Message reply;
  if (call) reply = object.CallMethodAndBlock(call, timeout_ms, &dbus_error);
  if (dbus_error.is_set()) {
    AddDBusError(error, dbus_error);
  } else if (!reply) {
    AddNoAnswerError(error, interface_name, method_name);
  }
  return reply;
}

// Reads the out-arguments of a reply, which must be exactly as many as
// `outputs` and of their types. False, with the reason added to `error`, if
// not, if `reply` is an error or if there is none.
template <typename... Types>
bool ExtractMethodCallResults(dbus::Message* reply,
                              std::unique_ptr<Error>* error,
                              Types*... outputs) {
  if (!*reply) {
    AddNullMessageError(error);
    return false;
  }
  const dbus::Error dbus_error = reply->GetError();
  if (dbus_error.is_set()) {
    AddDBusError(error, dbus_error);
    return false;
  }
  return ReadParameters(reply, error, outputs...);
}

using AsyncErrorCallback = base::Callback<void(Error* error)>;

// Calls a method without waiting. Exactly one of the callbacks runs once: from
// the loop, or before this returns if the call cannot be sent. Neither runs if
// the bus is destroyed first. `OutArgs` are the types of the out-arguments.
template <typename... OutArgs, typename... Args>
void CallMethodWithTimeout(
    int timeout_ms, const dbus::ObjectProxy& object,
    const std::string& interface_name, const std::string& method_name,
    const base::Callback<void(const OutArgs&...)>& success_callback,
    const AsyncErrorCallback& error_callback, const Args&... arguments) {
  const dbus::Message call =
      CreateMethodCall(object, interface_name, method_name, arguments...);
  auto on_reply = [success_callback, error_callback](dbus::Message reply) {
    std::tuple<OutArgs...> results;
    std::unique_ptr<Error> error;
    const bool success = std::apply(
        [&](auto&... result) {
          return ExtractMethodCallResults(&reply, &error, &result...);
        },
        results);
    if (!success) {
      error_callback.Run(error.get());
      return;
    }
    std::apply([&](const auto&... result) { success_callback.Run(result...); },
               results);
  };
  if (call && object.CallMethod(call, timeout_ms, on_reply)) return;
  std::unique_ptr<Error> error;
  AddNoAnswerError(&error, interface_name, method_name);
  error_callback.Run(error.get());
}

}  // namespace kestrix::dbus_utils

#endif  // KESTRIX_DBUS_UTILS_DBUS_METHOD_INVOKER_H_
