// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef KESTRIX_DBUS_UTILS_DATA_SERIALIZATION_H_
#define KESTRIX_DBUS_UTILS_DATA_SERIALIZATION_H_

#include <cstdint>
#include <string>

#include "dbus/message.h"
#include "dbus/property.h"
#include "kestrix/variant_dictionary.h"

namespace kestrix::dbus_utils {

// Takes the next value if it is exactly of the D-Bus type that stands for the
// C++ type; false, with the output untouched, if not.
bool PopValueFromReader(dbus::MessageReader* reader, std::string* output);
bool PopValueFromReader(dbus::MessageReader* reader, int32_t* output);
// Values of types that Any does not hold are read as empty ones.
bool PopValueFromReader(dbus::MessageReader* reader, VariantDictionary* output);

// False if D-Bus cannot carry the value. The message must then not be sent.
bool AppendValueToWriter(dbus::MessageWriter* writer, const std::string& value);
bool AppendValueToWriter(dbus::MessageWriter* writer, int32_t value);
// Empty values are left out: they have no type on the wire.
bool AppendValueToWriter(dbus::MessageWriter* writer,
                         const VariantDictionary& value);

// A cached property of one of these types.
template <typename T>
using Property = dbus::Property<T, PopValueFromReader>;

}  // namespace kestrix::dbus_utils

#endif  // KESTRIX_DBUS_UTILS_DATA_SERIALIZATION_H_
