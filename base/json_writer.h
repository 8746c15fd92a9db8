// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef BASE_JSON_WRITER_H_
#define BASE_JSON_WRITER_H_

#include <string>

#include "base/values.h"

namespace base {

class JSONWriter {
 public:
  // The longest text that is written. The bus disconnects a program that sends
  // a message of more than 32 MiB, so no longer text could be passed on.
  // The rest of the message fits into the last 64 KiB.
  static constexpr size_t kMaxSize = (32u << 20) - (64u << 10);

  // Writes `value` out as its compact text. False, with `output` untouched, if
  // that is longer than kMaxSize.
  static bool Write(const Value& value, std::string* output);
};

}  // namespace base

#endif  // BASE_JSON_WRITER_H_
