// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef KESTRIX_DBUS_UTILS_DBUS_METHOD_RESPONSE_H_
#define KESTRIX_DBUS_UTILS_DBUS_METHOD_RESPONSE_H_

#include <cstddef>
#include <string>
#include <utility>

#include "base/callback.h"
#include "dbus/message.h"
#include "kestrix/dbus_utils/data_serialization.h"
#include "kestrix/error.h"

namespace kestrix::dbus_utils {

using ResponseSender = base::Callback<void(dbus::Message response)>;

// The most bytes of an error text that are sent. Errors quote what the caller
// sent; a caller that does not read its replies could otherwise pile up enough
// of them to make the bus stop serving us.
inline constexpr size_t kMaxErrorText = 4096;

// The pending reply of one method call, to be sent at most once: a second try
// is a fatal error. If it is destroyed unsent, the caller gets the error
// org.freedesktop.DBus.Error.NoReply instead of waiting for its own time-out.
class DBusMethodResponseBase {
 public:
  DBusMethodResponseBase(dbus::Message method_call, ResponseSender sender);
  virtual ~DBusMethodResponseBase();
  DBusMethodResponseBase(const DBusMethodResponseBase&) = delete;
  DBusMethodResponseBase& operator=(const DBusMethodResponseBase&) = delete;

  // How many replies are pending in this process.
  static size_t pending() { return pending_; }

  // Answers with an error. One in the D-Bus domain travels under its code as
  // the D-Bus error name, with its message. Any other becomes
  // org.freedesktop.DBus.Error.Failed with the text "domain/code: message". A
  // text over kMaxErrorText is cut and says how long it was.
  void ReplyWithError(const Error* error);

  // Answers with `response`, made by CreateCustomResponse() or not.
  void SendRawResponse(dbus::Message response);

  // An empty method return.
  dbus::Message CreateCustomResponse() const;

 protected:
  // Requires: nothing has been sent yet.
  void CheckCanSendResponse() const;

 private:
  void SendError(const std::string& name, std::string text);

  static size_t pending_;

  dbus::Message method_call_;
  ResponseSender sender_;
};

// The pending reply of a method that returns `Types`.
template <typename... Types>
class DBusMethodResponse : public DBusMethodResponseBase {
 public:
  using DBusMethodResponseBase::DBusMethodResponseBase;

  // Answers with a method return. If D-Bus cannot carry one of the values, the
  // caller gets an error that says so.
  void Return(const Types&... values) {
    CheckCanSendResponse();
    dbus::Message response = CreateCustomResponse();
    dbus::MessageWriter writer(&response);
    if (!(AppendValueToWriter(&writer, values) && ...)) {
      response = dbus::Message();
    }
    SendRawResponse(std::move(response));
  }
};

}  // namespace kestrix::dbus_utils

#endif  // KESTRIX_DBUS_UTILS_DBUS_METHOD_RESPONSE_H_
