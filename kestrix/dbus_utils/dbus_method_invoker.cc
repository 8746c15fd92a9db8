// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/dbus_utils/dbus_method_invoker.h"

namespace kestrix::dbus_utils {
namespace {

constexpr char kFile[] = "kestrix/dbus_utils/dbus_method_invoker";
constexpr base::Location kCallMethod{"CallMethodAndBlockWithTimeout", kFile, 0};
constexpr base::Location kExtractResults{"ExtractMethodCallResults", kFile, 0};

}  // namespace

void AddDBusError(std::unique_ptr<Error>* error,
                  const dbus::Error& dbus_error) {
  Error::AddTo(error, kCallMethod, errors::dbus::kDomain, dbus_error.name,
               dbus_error.message);
}

void AddNoAnswerError(std::unique_ptr<Error>* error,
                      const std::string& interface_name,
                      const std::string& method_name) {
  Error::AddToPrintf(error, kCallMethod, errors::dbus::kDomain, kErrorFailed,
                     "Failed to call D-Bus method: %s.%s",
                     interface_name.c_str(), method_name.c_str());
}

void AddNullMessageError(std::unique_ptr<Error>* error) {
  Error::AddTo(error, kExtractResults, errors::dbus::kDomain, kErrorFailed,
               "Unable to extract parameters from a NULL message.");
}

}  // namespace kestrix::dbus_utils
