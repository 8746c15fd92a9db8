// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "base/json_writer.h"

namespace base {

bool JSONWriter::Write(const Value& value, std::string* output) {
  if (value.text().size() > kMaxSize) return false;
  *output = value.text();
  return true;
}

}  // namespace base
