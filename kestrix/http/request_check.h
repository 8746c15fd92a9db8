// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef KESTRIX_HTTP_REQUEST_CHECK_H_
#define KESTRIX_HTTP_REQUEST_CHECK_H_

#include <cstddef>
#include <memory>
#include <string>

#include "kestrix/error.h"
#include "kestrix/http/transport.h"

namespace kestrix::http {

// What URL and header fields of a request come to, in bytes.
size_t GetHeaderSize(const Request& request);

// What they may come to. Beyond a mebibyte the HTTP library gives up without
// saying why.
inline constexpr size_t kMaxRequestHeaderSize = 512u << 10;

// False, with too_large added to `error`, if they come to more.
bool CheckHeaderSize(const Request& request, std::unique_ptr<Error>* error);

// Whoever allowed a URL read it with a parser of their own; the HTTP library
// reads the same text again. This check admits only texts on which any two
// parsers must agree about the host: nothing before an @, no blanks, control
// bytes or backslashes, a host of letters, digits, dots, hyphens and
// underscores that the HTTP library reads letter for letter, a port from 1 to
// 65535. It changes nothing in the text.
//
// False, with invalid_url added to `error`, if the text is refused.
bool CheckUrl(const std::string& url, std::unique_ptr<Error>* error);

// What of `url` a request names to the server: the path and the query, byte for
// byte as they stand, and "/" where there is no path. The fragment is never
// sent (RFC 9110, section 4.2.5). Requires: CheckUrl() admits `url`.
std::string GetRequestTarget(const std::string& url);

// Whether the names are tokens and the values free of bytes that end or corrupt
// a header field (RFC 9110, sections 5.1 and 5.5). False, with invalid_header
// added to `error`, if not; the error never tells a value.
bool CheckHeaders(const HeaderList& headers, std::unique_ptr<Error>* error);

// Whether all values mean the same in HTTP/2, where a value neither starts nor
// ends with a blank (RFC 9113, section 8.2.1).
bool CanUseHttp2(const HeaderList& headers);

}  // namespace kestrix::http

#endif  // KESTRIX_HTTP_REQUEST_CHECK_H_
