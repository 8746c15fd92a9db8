// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/dbus_utils/dbus_method_response.h"

#include <utility>

#include "base/strings.h"
#include "kestrix/dbus_utils/dbus_errors.h"
#include "kestrix/service_status.h"

namespace kestrix::dbus_utils {

size_t DBusMethodResponseBase::pending_ = 0;

DBusMethodResponseBase::DBusMethodResponseBase(dbus::Message method_call,
                                               ResponseSender sender)
    : method_call_(std::move(method_call)), sender_(std::move(sender)) {
  ++pending_;
  ServiceStatus::Changed();
}

DBusMethodResponseBase::~DBusMethodResponseBase() {
  if (sender_) {
    SendError(kErrorNoReply, "The service ended before it had an answer");
  }
  --pending_;
  ServiceStatus::Changed();
}

void DBusMethodResponseBase::ReplyWithError(const Error* error) {
  CheckCanSendResponse();
  if (error->GetDomain() == errors::dbus::kDomain) {
    SendError(error->GetCode(), error->GetMessage());
    return;
  }
  SendError(kErrorFailed, error->GetDomain() + "/" + error->GetCode() + ": " +
                              error->GetMessage());
}

void DBusMethodResponseBase::SendRawResponse(dbus::Message response) {
  CheckCanSendResponse();
  if (!response) {
    SendError(kErrorFailed, "The result cannot be sent over D-Bus");
    return;
  }
  std::exchange(sender_, {}).Run(std::move(response));
}

dbus::Message DBusMethodResponseBase::CreateCustomResponse() const {
  return method_call_.CreateReply();
}

void DBusMethodResponseBase::CheckCanSendResponse() const {
  CHECK(sender_) << "A method call was answered twice";
}

void DBusMethodResponseBase::SendError(const std::string& name,
                                       std::string text) {
  base::CutLongText(&text, kMaxErrorText);
  std::exchange(sender_, {}).Run(method_call_.CreateErrorReply(name, text));
}

}  // namespace kestrix::dbus_utils
