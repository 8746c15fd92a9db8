// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef KESTRIX_HTTP_HTTP_CONSTANTS_H_
#define KESTRIX_HTTP_HTTP_CONSTANTS_H_

namespace kestrix::http {

// Status codes (RFC 9110, section 15).
namespace status_code {
inline constexpr int kBadRequest = 400;
inline constexpr int kDenied = 401;
}  // namespace status_code

// Methods (RFC 9110, section 9).
namespace request_type {
inline constexpr char kGet[] = "GET";
inline constexpr char kPost[] = "POST";
}  // namespace request_type

namespace request_header {
inline constexpr char kAuthorization[] = "Authorization";
inline constexpr char kContentType[] = "Content-Type";
}  // namespace request_header

}  // namespace kestrix::http

namespace kestrix::mime::application {
inline constexpr char kJson[] = "application/json";
inline constexpr char kWwwFormUrlEncoded[] =
    "application/x-www-form-urlencoded";
}  // namespace kestrix::mime::application

#endif  // KESTRIX_HTTP_HTTP_CONSTANTS_H_
