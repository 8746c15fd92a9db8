// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "base/values.h"

#include "base/logging.h"

namespace base {

DictionaryValue::DictionaryValue(Value value) : Value(std::move(value)) {
  CHECK(GetIfMembers() != nullptr) << "Not a dictionary";
}

bool DictionaryValue::GetString(std::string_view key,
                                std::string* output) const {
  for (const auto& [name, value] : *GetIfMembers()) {
    if (name != key) continue;
    const std::string* string = value.GetIfString();
    if (string) *output = *string;
    return string != nullptr;
  }
  return false;
}

}  // namespace base
