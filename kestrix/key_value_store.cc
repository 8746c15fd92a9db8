// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/key_value_store.h"

#include <string_view>
#include <utility>

#include "base/strings.h"

namespace kestrix {
namespace {

std::string_view StripQuotes(std::string_view value) {
  if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
      value.back() == value.front()) {
    return value.substr(1, value.size() - 2);
  }
  return value;
}

}  // namespace

bool KeyValueStore::Load(const base::FilePath& path) {
  std::string contents;
  if (!base::ReadFileToString(path, &contents)) return false;
  values_.clear();
  for (const std::string& line :
       base::SplitString(contents, "\n", base::WhitespaceHandling::kTrim,
                         base::SplitResult::kNonEmpty)) {
    if (line.front() == '#' || line.front() == ';') continue;
    const std::string_view text = line;
    const size_t equals = text.find('=');
    if (equals == std::string_view::npos) continue;
    const std::string_view key =
        base::TrimWhitespaceASCII(text.substr(0, equals));
    const std::string_view value =
        base::TrimWhitespaceASCII(text.substr(equals + 1));
    values_[std::string(key)] = StripQuotes(value);
  }
  return true;
}

bool KeyValueStore::GetString(const std::string& key,
                              std::string* value) const {
  const auto found = values_.find(key);
  if (found == values_.end()) return false;
  *value = found->second;
  return true;
}

}  // namespace kestrix
