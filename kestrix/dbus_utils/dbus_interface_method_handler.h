// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef KESTRIX_DBUS_UTILS_DBUS_INTERFACE_METHOD_HANDLER_H_
#define KESTRIX_DBUS_UTILS_DBUS_INTERFACE_METHOD_HANDLER_H_

#include <memory>
#include <tuple>
#include <type_traits>
#include <utility>

#include "base/callback.h"
#include "dbus/message.h"
#include "kestrix/dbus_utils/dbus_method_response.h"
#include "kestrix/dbus_utils/parameter_reader.h"

namespace kestrix::dbus_utils {

// Takes the calls of one exported method.
class DBusInterfaceMethodHandlerInterface {
 public:
  virtual ~DBusInterfaceMethodHandlerInterface() = default;
  // `response_sender` sends the one reply, during the call or later.
  virtual void HandleMethod(dbus::Message method_call,
                            ResponseSender response_sender) = 0;
};

// Checks and unpacks the arguments of a call for a callback that takes the
// pending reply and `Args`. Calls with other arguments are answered with
// InvalidArgs and do not reach the callback.
template <typename Response, typename... Args>
class DBusInterfaceMethodHandler final
    : public DBusInterfaceMethodHandlerInterface {
 public:
  using Callback = base::Callback<void(std::unique_ptr<Response>, Args...)>;

  explicit DBusInterfaceMethodHandler(Callback callback)
      : callback_(std::move(callback)) {}

  void HandleMethod(dbus::Message method_call,
                    ResponseSender response_sender) override {
    dbus::Message arguments = dbus::Message::Share(method_call.get());
    auto response = std::make_unique<Response>(std::move(method_call),
                                               std::move(response_sender));
    std::tuple<std::remove_cvref_t<Args>...> values;
    std::unique_ptr<Error> error;
    const bool valid = std::apply(
        [&](auto&... value) {
          return ReadParameters(&arguments, &error, &value...);
        },
        values);
    if (!valid) {
      response->ReplyWithError(error.get());
      return;
    }
    std::apply(
        [&](const auto&... value) {
          callback_.Run(std::move(response), value...);
        },
        values);
  }

 private:
  Callback callback_;
};

}  // namespace kestrix::dbus_utils

#endif  // KESTRIX_DBUS_UTILS_DBUS_INTERFACE_METHOD_HANDLER_H_
