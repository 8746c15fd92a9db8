// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "base/strings.h"

#include <string.h>

#include <algorithm>
#include <charconv>

#include "base/logging.h"

namespace base {
namespace {

constexpr std::string_view kWhitespaceASCII = " \t\n\v\f\r";

char ToLowerASCII(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

}  // namespace

std::vector<std::string> SplitString(std::string_view text,
                                     std::string_view separators,
                                     WhitespaceHandling whitespace,
                                     SplitResult result) {
  std::vector<std::string> pieces;
  if (text.empty()) return pieces;
  size_t start = 0;
  for (;;) {
    const size_t end = text.find_first_of(separators, start);
    std::string_view piece =
        text.substr(start, end == std::string_view::npos ? end : end - start);
    if (whitespace == WhitespaceHandling::kTrim) {
      piece = TrimWhitespaceASCII(piece);
    }
    if (result == SplitResult::kAll || !piece.empty()) {
      pieces.emplace_back(piece);
    }
    if (end == std::string_view::npos) return pieces;
    start = end + 1;
  }
}

std::string JoinString(const std::vector<std::string>& pieces,
                       std::string_view separator) {
  std::string joined;
  for (size_t i = 0; i < pieces.size(); ++i) {
    if (i > 0) joined += separator;
    joined += pieces[i];
  }
  return joined;
}

std::string_view TrimWhitespaceASCII(std::string_view text) {
  const size_t first = text.find_first_not_of(kWhitespaceASCII);
  if (first == std::string_view::npos) return {};
  const size_t last = text.find_last_not_of(kWhitespaceASCII);
  return text.substr(first, last - first + 1);
}

std::string ToLowerASCII(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) c = ToLowerASCII(c);
  return lower;
}

bool StartsWith(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() &&
         CompareCaseInsensitiveASCII(text.substr(0, prefix.size()), prefix) ==
             0;
}

int CompareCaseInsensitiveASCII(std::string_view a, std::string_view b) {
  const size_t common = std::min(a.size(), b.size());
  for (size_t i = 0; i < common; ++i) {
    const auto left = static_cast<unsigned char>(ToLowerASCII(a[i]));
    const auto right = static_cast<unsigned char>(ToLowerASCII(b[i]));
    if (left != right) return left < right ? -1 : 1;
  }
  if (a.size() == b.size()) return 0;
  return a.size() < b.size() ? -1 : 1;
}

void ReplaceSubstringsAfterOffset(std::string* text, size_t start_offset,
                                  std::string_view find,
                                  std::string_view replacement) {
  CHECK(!find.empty()) << "Nothing to look for";
  std::string replaced = text->substr(0, start_offset);
  size_t position = start_offset;
  for (size_t hit; (hit = text->find(find, position)) != std::string::npos;
       position = hit + find.size()) {
    replaced.append(*text, position, hit - position).append(replacement);
  }
  replaced.append(*text, position);
  *text = std::move(replaced);
}

void CutLongText(std::string* text, size_t max_size) {
  if (text->size() <= max_size) return;
  const std::string size = std::to_string(text->size());
  text->resize(max_size);
  text->append("... (").append(size).append(" bytes)");
}

void EraseString(std::string* text) {
  explicit_bzero(text->data(), text->size());
  text->clear();
}

bool StringToInt(std::string_view text, int* output) {
  // from_chars knows the minus sign only.
  if (text.starts_with('+')) {
    text.remove_prefix(1);
    if (text.starts_with('-')) return false;
  }
  int value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || stop != end) return false;
  *output = value;
  return true;
}

}  // namespace base
