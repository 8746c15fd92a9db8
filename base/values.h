// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef BASE_VALUES_H_
#define BASE_VALUES_H_

#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace base {

// One JSON value and all that it holds. Values move; they are never copied.
// Strings are UTF-8 and may hold NUL. A number is kept as the text it was
// written in, so neither its size nor its precision is limited. The members of
// a dictionary keep their order.
class Value {
 public:
  struct Null {};
  struct Number {
    std::string text;
  };
  using List = std::vector<Value>;
  using Members = std::vector<std::pair<std::string, Value>>;

  Value() = default;
  explicit Value(bool boolean) : data_(boolean) {}
  explicit Value(Number number) : data_(std::move(number)) {}
  explicit Value(std::string string) : data_(std::move(string)) {}
  explicit Value(List list) : data_(std::move(list)) {}
  // Requires: no two members have the same name.
  explicit Value(Members members) : data_(std::move(members)) {}
  Value(Value&&) = default;
  Value& operator=(Value&&) = default;
  Value(const Value&) = delete;
  Value& operator=(const Value&) = delete;

  // Null if the value is of another type.
  const bool* GetIfBoolean() const { return std::get_if<bool>(&data_); }
  const Number* GetIfNumber() const { return std::get_if<Number>(&data_); }
  const std::string* GetIfString() const {
    return std::get_if<std::string>(&data_);
  }
  const List* GetIfList() const { return std::get_if<List>(&data_); }
  const Members* GetIfMembers() const { return std::get_if<Members>(&data_); }

 private:
  std::variant<Null, bool, Number, std::string, List, Members> data_;
};

// A value that is known to be a JSON object.
class DictionaryValue : public Value {
 public:
  // Requires: `value` holds members.
  explicit DictionaryValue(Value value);

  // True, and `output` set, if the member `key` is a string. Otherwise `output`
  // is untouched.
  bool GetString(std::string_view key, std::string* output) const;
};

}  // namespace base

#endif  // BASE_VALUES_H_
