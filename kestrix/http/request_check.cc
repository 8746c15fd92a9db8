// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/http/request_check.h"

#include <curl/curl.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <string_view>

namespace kestrix::http {
namespace {

constexpr char kFile[] = "kestrix/http/request_check";
constexpr base::Location kCheckHeaderSize{"CheckHeaderSize", kFile, 0};
constexpr base::Location kCheckUrl{"CheckUrl", kFile, 0};
constexpr base::Location kCheckHeaders{"CheckHeaders", kFile, 0};

// A set of bytes, as a table: every byte of a request is looked up.
using ByteSet = std::array<bool, 256>;

template <typename Predicate>
constexpr ByteSet MakeSet(Predicate is_in) {
  ByteSet set{};
  for (size_t byte = 0; byte < set.size(); ++byte) {
    set[byte] = is_in(static_cast<unsigned char>(byte));
  }
  return set;
}

constexpr bool IsAlphanumeric(unsigned char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') ||
         (c >= 'a' && c <= 'z');
}

constexpr ByteSet kHostBytes = MakeSet([](unsigned char c) {
  return IsAlphanumeric(c) || c == '.' || c == '-' || c == '_';
});

constexpr ByteSet kTokenBytes = MakeSet([](unsigned char c) {
  return IsAlphanumeric(c) ||
         std::string_view("!#$%&'*+-.^_`|~").find(static_cast<char>(c)) !=
             std::string_view::npos;
});

constexpr ByteSet kFieldValueBytes = MakeSet(
    [](unsigned char c) { return c == '\t' || (c >= 0x20 && c != 0x7f); });

constexpr ByteSet kUrlBytes =
    MakeSet([](unsigned char c) { return c > 0x20 && c != 0x7f && c != '\\'; });

bool HoldsOnly(std::string_view text, const ByteSet& set) {
  return std::all_of(text.begin(), text.end(), [&](char c) {
    return set[static_cast<unsigned char>(c)];
  });
}

bool IsPort(std::string_view text) {
  unsigned port = 0;
  const char* end = text.data() + text.size();
  const auto [stop, result] = std::from_chars(text.data(), end, port);
  return result == std::errc() && stop == end && port >= 1 && port <= 65535;
}

// The host as the HTTP library reads it from `url`; empty if it cannot.
std::string ReadHostWithLibrary(const std::string& url) {
  std::string host;
  CURLU* handle = curl_url();
  char* part = nullptr;
  if (handle &&
      curl_url_set(handle, CURLUPART_URL, url.c_str(), CURLU_PATH_AS_IS) ==
          CURLUE_OK &&
      curl_url_get(handle, CURLUPART_HOST, &part, 0) == CURLUE_OK) {
    host = part;
  }
  curl_free(part);
  curl_url_cleanup(handle);
  return host;
}

// Why `url` is refused; null if it is not.
const char* FindUrlFault(const std::string& url) {
  std::string_view rest = url;
  const bool is_http = rest.starts_with("http://");
  if (!is_http && !rest.starts_with("https://")) {
    return "it starts with neither http:// nor https://";
  }
  rest.remove_prefix(is_http ? 7 : 8);
  if (!HoldsOnly(rest, kUrlBytes)) {
    return "it holds a blank, a control byte or a backslash";
  }
  const std::string_view authority = rest.substr(0, rest.find_first_of("/?#"));
  if (authority.find('@') != std::string_view::npos) {
    return "it holds user information";
  }
  const size_t colon = authority.find(':');
  const std::string_view host = authority.substr(0, colon);
  if (host.empty() || !HoldsOnly(host, kHostBytes)) {
    return "the host is no plain name or address";
  }
  if (colon != std::string_view::npos && !IsPort(authority.substr(colon + 1))) {
    return "the port is not between 1 and 65535";
  }
  if (ReadHostWithLibrary(url) != host) return "the host is ambiguous";
  return nullptr;
}

}  // namespace

size_t GetHeaderSize(const Request& request) {
  size_t size = request.url.size();
  for (const auto& [name, value] : request.headers) {
    size += name.size() + value.size();
  }
  return size;
}

bool CheckHeaderSize(const Request& request, std::unique_ptr<Error>* error) {
  if (GetHeaderSize(request) <= kMaxRequestHeaderSize) return true;
  Error::AddTo(error, kCheckHeaderSize, kErrorDomain, "too_large",
               "The request header is larger than this device sends");
  return false;
}

bool CheckUrl(const std::string& url, std::unique_ptr<Error>* error) {
  const char* fault = FindUrlFault(url);
  if (!fault) return true;
  Error::AddTo(error, kCheckUrl, kErrorDomain, "invalid_url",
               std::string("The URL cannot be requested: ") + fault);
  return false;
}

std::string GetRequestTarget(const std::string& url) {
  const size_t authority = url.find("//") + 2;
  const size_t fragment = url.find('#', authority);
  const size_t path = url.find_first_of("/?", authority);
  if (path >= fragment) return "/";
  const std::string target = url.substr(path, fragment - path);
  return target.starts_with('/') ? target : "/" + target;
}

bool CheckHeaders(const HeaderList& headers, std::unique_ptr<Error>* error) {
  for (const auto& [name, value] : headers) {
    if (name.empty() || !HoldsOnly(name, kTokenBytes)) {
      Error::AddTo(error, kCheckHeaders, kErrorDomain, "invalid_header",
                   "The name of a header field is not valid");
      return false;
    }
    if (!HoldsOnly(value, kFieldValueBytes)) {
      Error::AddTo(
          error, kCheckHeaders, kErrorDomain, "invalid_header",
          "The header field " + name + " holds a byte that HTTP cannot carry");
      return false;
    }
  }
  return true;
}

bool CanUseHttp2(const HeaderList& headers) {
  const auto is_blank = [](char c) { return c == ' ' || c == '\t'; };
  return std::none_of(headers.begin(), headers.end(), [&](const auto& header) {
    const std::string& value = header.second;
    return !value.empty() &&
           (is_blank(value.front()) || is_blank(value.back()));
  });
}

}  // namespace kestrix::http
