// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "fuzz/url_model.h"

#include <cstdint>

namespace fuzz {
namespace {

bool IsSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

char Lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}

bool IsInt32(std::string_view text) {
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  if (text.empty()) return false;
  int64_t value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + (c - '0');
    if (value > int64_t{1} << 31) return false;
  }
  return negative || value < int64_t{1} << 31;
}

bool Climbs(std::string_view path) {
  bool after_dot = false;
  while (!path.empty()) {
    const bool escaped = path.size() >= 3 && path[0] == '%' && path[1] == '2' &&
                         (path[2] == 'e' || path[2] == 'E');
    const bool dot = escaped || path[0] == '.';
    if (dot && after_dot) return true;
    after_dot = dot;
    path.remove_prefix(escaped ? 3 : 1);
  }
  return false;
}

}  // namespace

std::string_view Trim(std::string_view text) {
  while (!text.empty() && IsSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && IsSpace(text.back())) text.remove_suffix(1);
  return text;
}

std::vector<std::string_view> Split(std::string_view text, char separator) {
  std::vector<std::string_view> pieces(1);
  size_t start = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == separator) {
      start = i + 1;
      pieces.emplace_back();
    } else {
      pieces.back() = text.substr(start, i + 1 - start);
    }
  }
  return pieces;
}

UrlVerdict JudgeUrl(std::string_view text) {
  UrlModel url;
  if (text.substr(0, 8) == "https://") {
    url.is_https = true;
    text.remove_prefix(8);
  } else if (text.substr(0, 7) == "http://") {
    text.remove_prefix(7);
  } else {
    return {};
  }
  size_t length = 0;
  while (length < text.size() && text[length] != ' ' && text[length] != '/' &&
         text[length] != '#' && text[length] != '?') {
    ++length;
  }
  url.authority = text.substr(0, length);
  const std::vector<std::string_view> pieces = Split(url.authority, ':');
  url.host = Trim(pieces[0]);
  if (url.host.empty() || pieces.size() > 2 ||
      (pieces.size() == 2 && !IsInt32(Trim(pieces[1])))) {
    return {};
  }
  url.path = text.substr(length);
  if (Climbs(url.path)) return {{}, true};
  if (url.path.empty() || url.path[0] != '/') url.path = "/" + url.path;
  return {url, false};
}

bool Allows(const UrlModel& endpoint, const UrlModel& request) {
  if (endpoint.host != request.host ||
      endpoint.path.size() > request.path.size()) {
    return false;
  }
  for (size_t i = 0; i < endpoint.path.size(); ++i) {
    if (Lower(endpoint.path[i]) != Lower(request.path[i])) return false;
  }
  return true;
}

}  // namespace fuzz
