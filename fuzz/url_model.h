// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef FUZZ_URL_MODEL_H_
#define FUZZ_URL_MODEL_H_

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The rules for endpoints once more, written without the product's code and in
// another way, to compare the product with.
namespace fuzz {

struct UrlModel {
  std::string host;
  std::string path;
  // What follows the scheme, up to the path.
  std::string authority;
  bool is_https = false;
};

struct UrlVerdict {
  // None if the text is refused.
  std::optional<UrlModel> url;
  // Refused for two dots in a row.
  bool climbs = false;
};

UrlVerdict JudgeUrl(std::string_view text);

// Whether `endpoint` allows `request`.
bool Allows(const UrlModel& endpoint, const UrlModel& request);

// The text without the white space around it.
std::string_view Trim(std::string_view text);

// What is between the separators, empty pieces included.
std::vector<std::string_view> Split(std::string_view text, char separator);

}  // namespace fuzz

#endif  // FUZZ_URL_MODEL_H_
