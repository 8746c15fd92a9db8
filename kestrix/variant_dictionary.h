// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef KESTRIX_VARIANT_DICTIONARY_H_
#define KESTRIX_VARIANT_DICTIONARY_H_

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace kestrix {

class Any;

// String keys with values of several types, in the order of the keys. On D-Bus
// it is an a{sv}.
using VariantDictionary = std::map<std::string, Any, std::less<>>;

// A value of one of the types that the programs on the bus exchange with us. An
// empty one stands for a value of any other type, which we have no use for.
class Any {
 public:
  Any() = default;
  explicit Any(bool value) : value_(value) {}
  explicit Any(int32_t value) : value_(value) {}
  explicit Any(std::string value) : value_(std::move(value)) {}
  explicit Any(std::vector<std::string> value) : value_(std::move(value)) {}
  explicit Any(VariantDictionary value);

  bool is_empty() const {
    return std::holds_alternative<std::monostate>(value_);
  }

  // Null unless the value is exactly of type `T`.
  template <typename T>
  const T* GetIf() const {
    return std::get_if<T>(&value_);
  }

 private:
  std::variant<std::monostate, bool, int32_t, std::string,
               std::vector<std::string>, VariantDictionary>
      value_;
};

inline Any::Any(VariantDictionary value) : value_(std::move(value)) {}

// The value of `key` if it is there and is exactly of type `T`; otherwise the
// empty value of `T`.
template <typename T>
T GetVariantValueOrDefault(const VariantDictionary& dictionary,
                           std::string_view key) {
  const auto found = dictionary.find(key);
  if (found == dictionary.end()) return T{};
  const T* value = found->second.GetIf<T>();
  return value ? *value : T{};
}

}  // namespace kestrix

#endif  // KESTRIX_VARIANT_DICTIONARY_H_
