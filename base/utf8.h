// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef BASE_UTF8_H_
#define BASE_UTF8_H_

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace base {

// Decodes the UTF-8 sequence (RFC 3629) that `text` begins with into
// `code_point` and returns its length in bytes. 0, with `code_point` untouched,
// if there is no well-formed sequence.
size_t DecodeUtf8(std::string_view text, uint32_t* code_point);

// Whether the code point is set aside for internal use (The Unicode Standard,
// section 23.7). JSON and D-Bus may hold such characters, but our bus library
// refuses them.
bool IsNoncharacter(uint32_t code_point);

}  // namespace base

#endif  // BASE_UTF8_H_
