// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef PLATFORM_ACTIONS_CLOUD_ACTIONS_HTTP_URL_H_
#define PLATFORM_ACTIONS_CLOUD_ACTIONS_HTTP_URL_H_

#include <memory>
#include <string>
#include <vector>

namespace halvex::actions {

// The two pieces of a URL that decide whether a request is allowed. The parser
// is narrow on purpose: two schemes, and no path that could climb out of its
// directory. Neither the scheme nor the port is kept.
class HTTPURL {
 public:
  HTTPURL() = default;
  virtual ~HTTPURL() = default;

  // Takes `url` apart. False if it is not acceptable; the object is then to be
  // discarded. Logs an error for a path with two dots in a row, the only fault
  // that hints at an attack.
  bool Parse(const std::string& url);

  // As written, without the port.
  const std::string& host() const { return host_; }

  // Everything after the authority, query and fragment included. Begins with
  // "/" after a successful parse.
  const std::string& path() const { return path_; }

 private:
  std::string host_;
  std::string path_;
};

// The owner's list of allowed endpoints, in the order it was given in.
using AllowedEndpoints = std::vector<std::unique_ptr<HTTPURL>>;

// Whether an endpoint of the list allows the parsed request `url`: the hosts
// are the same bytes and the path begins with the endpoint's path, ASCII
// letters compared without case.
//
// Intended: the scheme and the port take no part, so an endpoint with https
// also allows http, and any port. The path is compared as plain text, so /dev
// also allows /devices and /dev?x=1. The owner's list is written with this rule
// in mind; a stricter one would break it.
bool IsEndpointAllowed(const AllowedEndpoints& endpoints, const HTTPURL& url);

}  // namespace halvex::actions

#endif  // PLATFORM_ACTIONS_CLOUD_ACTIONS_HTTP_URL_H_
