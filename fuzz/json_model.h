// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef FUZZ_JSON_MODEL_H_
#define FUZZ_JSON_MODEL_H_

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// A second reader of JSON (RFC 8259), written without the product's code, to
// compare the product with.
namespace fuzz {

struct JsonModel {
  enum class Kind { kNull, kFalse, kTrue, kNumber, kString, kArray, kObject };

  bool operator==(const JsonModel&) const = default;

  // Null unless this is an object that has the member, as a string.
  const std::string* FindString(std::string_view name) const;

  Kind kind = Kind::kNull;
  // Of a number as it was written, of a string as UTF-8.
  std::string text;
  // Of an array, or the values of an object. Of members with one name there is
  // only the last.
  std::vector<JsonModel> items;
  std::vector<std::string> names;
};

struct JsonVerdict {
  // None if the text is no JSON, or nests deeper than 512 levels.
  std::optional<JsonModel> value;
  // There is a number with so large an exponent that either verdict is right.
  bool doubtful = false;
  // Two members of one object have the same name.
  bool ambiguous = false;
};

JsonVerdict JudgeJson(std::string_view text);

// Aborts unless `text` is what may be handed to D-Bus as compact JSON: valid
// UTF-8 without control characters and noncharacters, no blank outside of
// strings, and no two members of one object with the same name.
void CheckCompact(std::string_view text);

}  // namespace fuzz

#endif  // FUZZ_JSON_MODEL_H_
