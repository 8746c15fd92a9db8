// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef BASE_VALUES_H_
#define BASE_VALUES_H_

#include <string>
#include <string_view>
#include <utility>

namespace base {

// One JSON value and all that it holds, kept as its compact text: a tree of
// objects would take twenty times the memory of the text that a server sent,
// and nobody here looks at more than a few members. Values move; they are never
// copied.
class Value {
 public:
  // Requires: `text` is what JSONReader makes of a value.
  explicit Value(std::string text) : text_(std::move(text)) {}
  Value(Value&&) = default;
  Value& operator=(Value&&) = default;
  Value(const Value&) = delete;
  Value& operator=(const Value&) = delete;

  bool is_dictionary() const { return text_.starts_with('{'); }

  // Without insignificant white space; numbers as they were written; strings
  // with no escapes but those that must be: quote, backslash, control
  // characters, and Unicode noncharacters, which JSON allows but our D-Bus
  // library refuses.
  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

// A value that is known to be a JSON object.
class DictionaryValue : public Value {
 public:
  // Requires: `value` is a dictionary.
  explicit DictionaryValue(Value value);

  // True, and `output` set, if the member `key` is a string. Otherwise `output`
  // is untouched.
  bool GetString(std::string_view key, std::string* output) const;
};

}  // namespace base

#endif  // BASE_VALUES_H_
