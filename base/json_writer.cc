// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "base/json_writer.h"

#include <cstdint>

#include "base/utf8.h"

namespace base {
namespace {

void AppendUnicodeEscape(uint32_t unit, std::string* output) {
  constexpr char kHex[] = "0123456789abcdef";
  *output += {'\\',
              'u',
              kHex[unit >> 12 & 0xf],
              kHex[unit >> 8 & 0xf],
              kHex[unit >> 4 & 0xf],
              kHex[unit & 0xf]};
}

void AppendControlCharacter(char c, std::string* output) {
  switch (c) {
    case '\b':
      output->append("\\b");
      return;
    case '\t':
      output->append("\\t");
      return;
    case '\n':
      output->append("\\n");
      return;
    case '\f':
      output->append("\\f");
      return;
    case '\r':
      output->append("\\r");
      return;
    default:
      AppendUnicodeEscape(static_cast<unsigned char>(c), output);
  }
}

void AppendCodePointEscape(uint32_t code_point, std::string* output) {
  if (code_point < 0x10000) {
    AppendUnicodeEscape(code_point, output);
    return;
  }
  const uint32_t offset = code_point - 0x10000;
  AppendUnicodeEscape(0xd800 + (offset >> 10), output);
  AppendUnicodeEscape(0xdc00 + (offset & 0x3ff), output);
}

void AppendString(std::string_view string, std::string* output) {
  *output += '"';
  // Whatever needs no escape is copied in one piece.
  size_t copied = 0;
  const auto copy_until = [&](size_t end) {
    output->append(string.substr(copied, end - copied));
  };
  for (size_t i = 0; i < string.size(); ++i) {
    const auto byte = static_cast<unsigned char>(string[i]);
    uint32_t code_point = 0;
    if (byte == '"' || byte == '\\') {
      copy_until(i);
      *output += '\\';
      *output += string[i];
      copied = i + 1;
    } else if (byte < 0x20) {
      copy_until(i);
      AppendControlCharacter(string[i], output);
      copied = i + 1;
    } else if (byte >= 0xef) {
      // No noncharacter begins with a lower byte.
      const size_t length = DecodeUtf8(string.substr(i), &code_point);
      if (length == 0 || !IsNoncharacter(code_point)) continue;
      copy_until(i);
      AppendCodePointEscape(code_point, output);
      i += length - 1;
      copied = i + 1;
    }
  }
  copy_until(string.size());
  *output += '"';
}

// Recursion is bounded by the depth that the reader admits.
bool AppendValue(const Value& value, std::string* output) {
  if (const std::string* string = value.GetIfString()) {
    AppendString(*string, output);
  } else if (const Value::Number* number = value.GetIfNumber()) {
    output->append(number->text);
  } else if (const bool* boolean = value.GetIfBoolean()) {
    output->append(*boolean ? "true" : "false");
  } else if (const Value::List* list = value.GetIfList()) {
    *output += '[';
    for (const Value& item : *list) {
      if (&item != &list->front()) *output += ',';
      if (!AppendValue(item, output)) return false;
    }
    *output += ']';
  } else if (const Value::Members* members = value.GetIfMembers()) {
    *output += '{';
    for (const auto& member : *members) {
      if (&member != &members->front()) *output += ',';
      AppendString(member.first, output);
      *output += ':';
      if (!AppendValue(member.second, output)) return false;
    }
    *output += '}';
  } else {
    output->append("null");
  }
  return output->size() <= JSONWriter::kMaxSize;
}

}  // namespace

bool JSONWriter::Write(const Value& value, std::string* output) {
  output->clear();
  return AppendValue(value, output);
}

}  // namespace base
