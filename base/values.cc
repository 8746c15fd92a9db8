// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "base/values.h"

#include "base/json_reader.h"
#include "base/logging.h"

namespace base {

DictionaryValue::DictionaryValue(Value value) : Value(std::move(value)) {
  CHECK(is_dictionary()) << "Not a dictionary";
}

bool DictionaryValue::GetString(std::string_view key,
                                std::string* output) const {
  return JSONReader::ReadStringMember(text(), key, output);
}

}  // namespace base
