// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef BASE_STRINGS_H_
#define BASE_STRINGS_H_

#include <string>
#include <string_view>
#include <vector>

// Text operations on bytes. "ASCII" in a name means that bytes above 0x7f are
// left alone, whatever the locale.
namespace base {

enum class WhitespaceHandling { kKeep, kTrim };
enum class SplitResult { kAll, kNonEmpty };

// Splits at every byte that occurs in `separators`. Trimming (space, tab, line
// feed, vertical tab, form feed, carriage return) comes before the choice of
// non-empty pieces. An empty `text` has no pieces.
std::vector<std::string> SplitString(std::string_view text,
                                     std::string_view separators,
                                     WhitespaceHandling whitespace,
                                     SplitResult result);

std::string JoinString(const std::vector<std::string>& pieces,
                       std::string_view separator);

std::string_view TrimWhitespaceASCII(std::string_view text);

std::string ToLowerASCII(std::string_view text);

// Whether `text` begins with `prefix`, ASCII letters compared without case.
bool StartsWith(std::string_view text, std::string_view prefix);

// Below, at or above 0 as `a` sorts before, with or after `b` when ASCII
// letters are compared without case.
int CompareCaseInsensitiveASCII(std::string_view a, std::string_view b);

// Replaces each occurrence of `find` from `start_offset` on, left to right;
// what has been put in is not searched again. Requires: `find` is not empty.
void ReplaceSubstringsAfterOffset(std::string* text, size_t start_offset,
                                  std::string_view find,
                                  std::string_view replacement);

// Cuts a text over `max_size` bytes there and appends "... (N bytes)", N being
// what it had. A shorter text is left alone.
void CutLongText(std::string* text, size_t max_size);

// Empties a text and erases it from memory.
void EraseString(std::string* text);

// Reads a signed 32-bit decimal integer: an optional sign and digits, and
// nothing else. On failure `output` is untouched.
bool StringToInt(std::string_view text, int* output);

}  // namespace base

#endif  // BASE_STRINGS_H_
