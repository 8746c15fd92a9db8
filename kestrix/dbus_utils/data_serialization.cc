// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/dbus_utils/data_serialization.h"

#include <utility>
#include <vector>

namespace kestrix::dbus_utils {
namespace {

bool PopStringArray(dbus::MessageReader* reader,
                    std::vector<std::string>* output) {
  if (!reader->OpenArray("s")) return false;
  std::string item;
  while (reader->PopString(&item)) output->push_back(std::move(item));
  // What is left, if anything, could not be read.
  return !reader->HasMoreData() && reader->Close();
}

// Reads the content of a variant whose signature is `type`.
bool PopVariantContent(dbus::MessageReader* reader, const std::string& type,
                       Any* output) {
  if (type == "s") {
    std::string value;
    if (!reader->PopString(&value)) return false;
    *output = Any(std::move(value));
  } else if (type == "b") {
    bool value = false;
    if (!reader->PopBool(&value)) return false;
    *output = Any(value);
  } else if (type == "i") {
    int32_t value = 0;
    if (!reader->PopInt32(&value)) return false;
    *output = Any(value);
  } else if (type == "as") {
    std::vector<std::string> value;
    if (!PopStringArray(reader, &value)) return false;
    *output = Any(std::move(value));
  } else if (type == "a{sv}") {
    VariantDictionary value;
    if (!PopValueFromReader(reader, &value)) return false;
    *output = Any(std::move(value));
  } else {
    return reader->Skip();
  }
  return true;
}

bool AppendAny(dbus::MessageWriter* writer, const Any& value) {
  if (const bool* boolean = value.GetIf<bool>()) {
    return writer->OpenVariant("b") && writer->AppendBool(*boolean) &&
           writer->Close();
  }
  if (const int32_t* integer = value.GetIf<int32_t>()) {
    return writer->OpenVariant("i") && writer->AppendInt32(*integer) &&
           writer->Close();
  }
  if (const std::string* string = value.GetIf<std::string>()) {
    return writer->OpenVariant("s") && writer->AppendString(*string) &&
           writer->Close();
  }
  if (const auto* strings = value.GetIf<std::vector<std::string>>()) {
    if (!writer->OpenVariant("as") || !writer->OpenArray("s")) return false;
    for (const std::string& string : *strings) {
      if (!writer->AppendString(string)) return false;
    }
    return writer->Close() && writer->Close();
  }
  const auto* dictionary = value.GetIf<VariantDictionary>();
  return dictionary && writer->OpenVariant("a{sv}") &&
         AppendValueToWriter(writer, *dictionary) && writer->Close();
}

}  // namespace

bool PopValueFromReader(dbus::MessageReader* reader, std::string* output) {
  return reader->PopString(output);
}

bool PopValueFromReader(dbus::MessageReader* reader, int32_t* output) {
  return reader->PopInt32(output);
}

// The bus limits how deep variants nest (D-Bus, "Valid
// Signatures" and "Message Format"), and thereby this recursion.
bool PopValueFromReader(dbus::MessageReader* reader,
                        VariantDictionary* output) {
  if (!reader->OpenArray("{sv}")) return false;
  VariantDictionary dictionary;
  while (reader->OpenDictEntry("sv")) {
    std::string key, type;
    Any value;
    if (!reader->PopString(&key) || reader->PeekType(&type) != 'v' ||
        !reader->OpenVariant(type.c_str()) ||
        !PopVariantContent(reader, type, &value) || !reader->Close() ||
        !reader->Close()) {
      return false;
    }
    dictionary[std::move(key)] = std::move(value);
  }
  if (!reader->Close()) return false;
  *output = std::move(dictionary);
  return true;
}

bool AppendValueToWriter(dbus::MessageWriter* writer,
                         const std::string& value) {
  return writer->AppendString(value);
}

bool AppendValueToWriter(dbus::MessageWriter* writer, int32_t value) {
  return writer->AppendInt32(value);
}

bool AppendValueToWriter(dbus::MessageWriter* writer,
                         const VariantDictionary& value) {
  if (!writer->OpenArray("{sv}")) return false;
  for (const auto& [key, item] : value) {
    if (item.is_empty()) continue;
    if (!writer->OpenDictEntry("sv") || !writer->AppendString(key) ||
        !AppendAny(writer, item) || !writer->Close()) {
      return false;
    }
  }
  return writer->Close();
}

}  // namespace kestrix::dbus_utils
