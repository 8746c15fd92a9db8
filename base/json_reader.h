// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef BASE_JSON_READER_H_
#define BASE_JSON_READER_H_

#include <memory>
#include <string_view>

#include "base/values.h"

namespace base {

class JSONReader {
 public:
  // How deep arrays and objects may nest.
  static constexpr size_t kMaxDepth = 512;

  // Parses one JSON value (RFC 8259, strictly: no comments, no trailing commas,
  // no byte order mark, valid UTF-8, no lone surrogates). Of members with the
  // same name the last one counts, in the place of the first. Null if `text` is
  // anything else, nests deeper than kMaxDepth, or holds a number whose
  // exponent is beyond 32 bits.
  static std::unique_ptr<Value> Read(std::string_view text);
};

}  // namespace base

#endif  // BASE_JSON_READER_H_
