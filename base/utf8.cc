// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "base/utf8.h"

namespace base {

size_t DecodeUtf8(std::string_view text, uint32_t* code_point) {
  if (text.empty()) return 0;
  const auto lead = static_cast<unsigned char>(text[0]);
  if (lead < 0x80) {
    *code_point = lead;
    return 1;
  }
  size_t length = 0;
  uint32_t decoded = 0;
  uint32_t smallest = 0;
  if ((lead & 0xe0) == 0xc0) {
    length = 2;
    decoded = lead & 0x1f;
    smallest = 0x80;
  } else if ((lead & 0xf0) == 0xe0) {
    length = 3;
    decoded = lead & 0x0f;
    smallest = 0x800;
  } else if ((lead & 0xf8) == 0xf0) {
    length = 4;
    decoded = lead & 0x07;
    smallest = 0x10000;
  }
  if (length == 0 || text.size() < length) return 0;
  for (const char c : text.substr(1, length - 1)) {
    const auto byte = static_cast<unsigned char>(c);
    if ((byte & 0xc0) != 0x80) return 0;
    decoded = decoded << 6 | (byte & 0x3f);
  }
  const bool surrogate = decoded >= 0xd800 && decoded <= 0xdfff;
  if (decoded < smallest || decoded > 0x10ffff || surrogate) return 0;
  *code_point = decoded;
  return length;
}

bool IsNoncharacter(uint32_t code_point) {
  return (code_point & 0xfffe) == 0xfffe ||
         (code_point >= 0xfdd0 && code_point <= 0xfdef);
}

}  // namespace base
