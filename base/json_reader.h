// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef BASE_JSON_READER_H_
#define BASE_JSON_READER_H_

#include <memory>
#include <string>
#include <string_view>

#include "base/values.h"

namespace base {

class JSONReader {
 public:
  // How deep arrays and objects may nest.
  static constexpr size_t kMaxDepth = 512;

  // Parses one JSON value (RFC 8259, strictly: no comments, no trailing commas,
  // no byte order mark, valid UTF-8, no lone surrogates). Members keep their
  // order; of those with the same name only the last one counts. Null if `text`
  // is anything else, nests deeper than kMaxDepth, or holds a number whose
  // exponent is beyond 32 bits.
  //
  // Takes time in proportion to the text (times the logarithm of the number of
  // members), and memory for the compact text and some 50 bytes a member of the
  // objects that are open at a time, whatever the text holds.
  static std::unique_ptr<Value> Read(std::string_view text);

  // True, and `output` set, if `object` is a JSON object whose member `key` is
  // a string. Otherwise `output` is untouched.
  static bool ReadStringMember(std::string_view object, std::string_view key,
                               std::string* output);
};

}  // namespace base

#endif  // BASE_JSON_READER_H_
