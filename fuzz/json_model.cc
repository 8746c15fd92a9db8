// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "fuzz/json_model.h"

#include <cstdint>
#include <map>

#include "base/logging.h"

namespace fuzz {
namespace {

constexpr int kMaxDepth = 512;
constexpr size_t kCertainExponentDigits = 8;

using Kind = JsonModel::Kind;

// Takes one character of UTF-8 (RFC 3629, section 4) from `rest`; -1 if there
// is none.
int32_t TakeCharacter(std::string_view* rest) {
  const auto at = [&](size_t i) {
    return i < rest->size() ? static_cast<unsigned char>((*rest)[i]) : 0;
  };
  const auto between = [&](size_t i, int low, int high) {
    return at(i) >= low && at(i) <= high;
  };
  const auto tail = [&](size_t i) { return between(i, 0x80, 0xbf); };
  const auto take = [&](size_t length, int32_t lead) {
    int32_t value = lead;
    for (size_t i = 1; i < length; ++i) value = value * 64 + (at(i) - 0x80);
    rest->remove_prefix(length);
    return value;
  };
  if (rest->empty()) return -1;
  const int lead = at(0);
  if (lead < 0x80) return take(1, lead);
  if (between(0, 0xc2, 0xdf) && tail(1)) return take(2, lead - 0xc0);
  if ((lead == 0xe0 && between(1, 0xa0, 0xbf) && tail(2)) ||
      (between(0, 0xe1, 0xec) && tail(1) && tail(2)) ||
      (lead == 0xed && between(1, 0x80, 0x9f) && tail(2)) ||
      (between(0, 0xee, 0xef) && tail(1) && tail(2))) {
    return take(3, lead - 0xe0);
  }
  if ((lead == 0xf0 && between(1, 0x90, 0xbf) && tail(2) && tail(3)) ||
      (between(0, 0xf1, 0xf3) && tail(1) && tail(2) && tail(3)) ||
      (lead == 0xf4 && between(1, 0x80, 0x8f) && tail(2) && tail(3))) {
    return take(4, lead - 0xf0);
  }
  return -1;
}

void AppendCharacter(int32_t c, std::string* text) {
  const auto put = [&](int32_t byte) { *text += static_cast<char>(byte); };
  if (c < 0x80) {
    put(c);
  } else if (c < 0x800) {
    put(0xc0 + c / 64);
    put(0x80 + c % 64);
  } else if (c < 0x10000) {
    put(0xe0 + c / 4096);
    put(0x80 + c / 64 % 64);
    put(0x80 + c % 64);
  } else {
    put(0xf0 + c / 262144);
    put(0x80 + c / 4096 % 64);
    put(0x80 + c / 64 % 64);
    put(0x80 + c % 64);
  }
}

class Parser {
 public:
  explicit Parser(std::string_view text) : rest_(text) {}

  JsonVerdict Judge() {
    JsonModel value;
    const bool valid = TakeValue(0, &value) && rest_.empty();
    if (!valid) return {std::nullopt, doubtful_, ambiguous_};
    return {std::move(value), doubtful_, ambiguous_};
  }

 private:
  bool Take(std::string_view word) {
    if (!rest_.starts_with(word)) return false;
    rest_.remove_prefix(word.size());
    return true;
  }

  void SkipBlanks() {
    while (Take(" ") || Take("\t") || Take("\n") || Take("\r")) {
    }
  }

  bool TakeValue(int depth, JsonModel* value) {
    SkipBlanks();
    const bool valid = TakeBareValue(depth, value);
    SkipBlanks();
    return valid;
  }

  bool TakeBareValue(int depth, JsonModel* value) {
    value->kind = Kind::kNull;
    if (Take("null")) return true;
    value->kind = Kind::kFalse;
    if (Take("false")) return true;
    value->kind = Kind::kTrue;
    if (Take("true")) return true;
    value->kind = Kind::kString;
    if (Take("\"")) return TakeString(&value->text);
    value->kind = Kind::kArray;
    if (Take("[")) return depth < kMaxDepth && TakeArray(depth + 1, value);
    value->kind = Kind::kObject;
    if (Take("{")) return depth < kMaxDepth && TakeObject(depth + 1, value);
    value->kind = Kind::kNumber;
    return TakeNumber(&value->text);
  }

  bool TakeArray(int depth, JsonModel* value) {
    SkipBlanks();
    if (Take("]")) return true;
    do {
      if (!TakeValue(depth, &value->items.emplace_back())) return false;
    } while (Take(","));
    return Take("]");
  }

  bool TakeObject(int depth, JsonModel* value) {
    SkipBlanks();
    if (Take("}")) return true;
    std::vector<std::pair<std::string, JsonModel>> members;
    std::map<std::string, size_t> last;
    do {
      SkipBlanks();
      auto& [name, item] = members.emplace_back();
      if (!Take("\"") || !TakeString(&name)) return false;
      SkipBlanks();
      if (!Take(":") || !TakeValue(depth, &item)) return false;
      ambiguous_ |= last.contains(name);
      last[name] = members.size() - 1;
    } while (Take(","));
    for (size_t i = 0; i < members.size(); ++i) {
      if (last[members[i].first] != i) continue;
      value->names.push_back(std::move(members[i].first));
      value->items.push_back(std::move(members[i].second));
    }
    return Take("}");
  }

  bool TakeHex(int32_t* value) {
    *value = 0;
    for (int i = 0; i < 4; ++i) {
      if (rest_.empty()) return false;
      const char c = rest_.front();
      rest_.remove_prefix(1);
      int digit = 0;
      if (c >= '0' && c <= '9') {
        digit = c - '0';
      } else if (c >= 'a' && c <= 'f') {
        digit = c - 'a' + 10;
      } else if (c >= 'A' && c <= 'F') {
        digit = c - 'A' + 10;
      } else {
        return false;
      }
      *value = *value * 16 + digit;
    }
    return true;
  }

  bool TakeUnicodeEscape(std::string* text) {
    int32_t c = 0;
    if (!TakeHex(&c) || (c >= 0xdc00 && c < 0xe000)) return false;
    if (c >= 0xd800 && c < 0xdc00) {
      int32_t low = 0;
      if (!Take("\\u") || !TakeHex(&low) || low < 0xdc00 || low >= 0xe000) {
        return false;
      }
      c = 0x10000 + (c - 0xd800) * 1024 + (low - 0xdc00);
    }
    AppendCharacter(c, text);
    return true;
  }

  // The opening quote has been taken.
  bool TakeString(std::string* text) {
    constexpr std::string_view kEscapes = "\"\\/bfnrt";
    constexpr std::string_view kMeanings = "\"\\/\b\f\n\r\t";
    for (;;) {
      if (Take("\"")) return true;
      if (Take("\\u")) {
        if (!TakeUnicodeEscape(text)) return false;
      } else if (Take("\\")) {
        const size_t which =
            rest_.empty() ? std::string_view::npos : kEscapes.find(rest_[0]);
        if (which == std::string_view::npos) return false;
        rest_.remove_prefix(1);
        *text += kMeanings[which];
      } else {
        const int32_t c = TakeCharacter(&rest_);
        if (c < 0x20) return false;
        AppendCharacter(c, text);
      }
    }
  }

  size_t TakeDigits(std::string* text) {
    size_t count = 0;
    for (; !rest_.empty() && rest_[0] >= '0' && rest_[0] <= '9'; ++count) {
      *text += rest_[0];
      rest_.remove_prefix(1);
    }
    return count;
  }

  bool TakeNumber(std::string* text) {
    if (Take("-")) *text += '-';
    if (Take("0")) {
      *text += '0';
    } else if (TakeDigits(text) == 0) {
      return false;
    }
    if (Take(".")) {
      *text += '.';
      if (TakeDigits(text) == 0) return false;
    }
    if (rest_.starts_with('e') || rest_.starts_with('E')) {
      *text += rest_[0];
      rest_.remove_prefix(1);
      if (rest_.starts_with('+') || rest_.starts_with('-')) {
        *text += rest_[0];
        rest_.remove_prefix(1);
      }
      const size_t digits = TakeDigits(text);
      if (digits == 0) return false;
      if (digits > kCertainExponentDigits) doubtful_ = true;
    }
    return true;
  }

  std::string_view rest_;
  bool doubtful_ = false;
  bool ambiguous_ = false;
};

}  // namespace

const std::string* JsonModel::FindString(std::string_view name) const {
  if (kind != Kind::kObject) return nullptr;
  for (size_t i = 0; i < names.size(); ++i) {
    if (names[i] != name) continue;
    return items[i].kind == Kind::kString ? &items[i].text : nullptr;
  }
  return nullptr;
}

JsonVerdict JudgeJson(std::string_view text) { return Parser(text).Judge(); }

void CheckCompact(std::string_view text) {
  bool in_string = false;
  bool escaped = false;
  for (std::string_view rest = text; !rest.empty();) {
    const int32_t c = TakeCharacter(&rest);
    CHECK(c >= 0x20) << "A bad character: " << text;
    CHECK((c & 0xfffe) != 0xfffe && (c < 0xfdd0 || c > 0xfdef))
        << "A noncharacter: " << text;
    CHECK(in_string || c != ' ') << "A blank: " << text;
    if (c == '"' && !escaped) in_string = !in_string;
    escaped = c == '\\' && !escaped;
  }
  CHECK(!JudgeJson(text).ambiguous) << "Two of one name: " << text;
}

}  // namespace fuzz
