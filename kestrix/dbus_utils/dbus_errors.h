// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef KESTRIX_DBUS_UTILS_DBUS_ERRORS_H_
#define KESTRIX_DBUS_UTILS_DBUS_ERRORS_H_

namespace kestrix::dbus_utils {

// Well-known D-Bus error names.
inline constexpr char kErrorFailed[] = "org.freedesktop.DBus.Error.Failed";
inline constexpr char kErrorInvalidArgs[] =
    "org.freedesktop.DBus.Error.InvalidArgs";
inline constexpr char kErrorNoReply[] = "org.freedesktop.DBus.Error.NoReply";

// What is wrong with the values of a message.
inline constexpr char kTooFewParameters[] =
    "Too few parameters in a method call";
inline constexpr char kTooManyParameters[] =
    "Too many parameters in a method call";
inline constexpr char kTypeMismatch[] = "Method parameter type mismatch";

}  // namespace kestrix::dbus_utils

#endif  // KESTRIX_DBUS_UTILS_DBUS_ERRORS_H_
