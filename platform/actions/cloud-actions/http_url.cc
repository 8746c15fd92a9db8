// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "platform/actions/cloud-actions/http_url.h"

#include <algorithm>
#include <string_view>

#include "base/logging.h"
#include "base/strings.h"

namespace halvex::actions {
namespace {

constexpr std::string_view kSchemePrefixes[] = {"http://", "https://"};

// A space ends the host as well: it becomes part of the path.
constexpr char kHostDelimiters[] = " /#?";

// Splits what is between the scheme and the path. False unless it is a host,
// optionally with an integer port.
bool ParseAuthority(std::string_view authority, std::string* host) {
  // Not split: a hostile text of nothing but colons would cost a gigabyte.
  if (std::count(authority.begin(), authority.end(), ':') > 1) return false;
  const std::vector<std::string> pieces = base::SplitString(
      authority, ":", base::WhitespaceHandling::kTrim, base::SplitResult::kAll);
  if (pieces.empty() || pieces[0].empty()) return false;
  // Intended: any 32-bit integer passes, since the port takes no part in the
  // decision. What cannot be connected to is the transport's to refuse.
  int port = 0;
  if (pieces.size() == 2 && !base::StringToInt(pieces[1], &port)) return false;
  *host = pieces[0];
  return true;
}

// Intended: looks for two dots anywhere, not only as a whole segment, and also
// in the query and the fragment. A server may take any of them for a path.
bool RefersToParentDirectory(const std::string& path) {
  std::string folded = base::ToLowerASCII(path);
  base::ReplaceSubstringsAfterOffset(&folded, 0, "%2e", ".");
  return folded.find("..") != std::string::npos;
}

}  // namespace

bool HTTPURL::Parse(const std::string& url) {
  const std::string_view text = url;
  const auto* prefix =
      std::find_if(std::begin(kSchemePrefixes), std::end(kSchemePrefixes),
                   [&](std::string_view p) { return text.starts_with(p); });
  if (prefix == std::end(kSchemePrefixes)) return false;

  const size_t host_start = prefix->size();
  const size_t path_start =
      std::min(text.find_first_of(kHostDelimiters, host_start), text.size());
  if (!ParseAuthority(text.substr(host_start, path_start - host_start),
                      &host_)) {
    return false;
  }

  path_ = text.substr(path_start);
  if (RefersToParentDirectory(path_)) {
    LOG(ERROR) << "Path contains reference to parent directory: " << path_;
    return false;
  }
  if (!path_.starts_with('/')) path_.insert(0, "/");
  return true;
}

bool IsEndpointAllowed(const AllowedEndpoints& endpoints, const HTTPURL& url) {
  return std::any_of(endpoints.begin(), endpoints.end(),
                     [&](const auto& endpoint) {
                       return endpoint->host() == url.host() &&
                              base::StartsWith(url.path(), endpoint->path());
                     });
}

}  // namespace halvex::actions
