// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/http/http_utils.h"

#include <curl/curl.h>

#include <algorithm>

#include "base/event_loop.h"
#include "base/json_reader.h"
#include "base/json_writer.h"
#include "base/strings.h"
#include "kestrix/http/http_constants.h"

namespace kestrix::http {
namespace {

constexpr char kFile[] = "kestrix/http/http_utils";
constexpr base::Location kPostJson{"PostJson", kFile, 0};
constexpr base::Location kPostFormData{"PostFormData", kFile, 0};
constexpr base::Location kParseJsonResponse{"ParseJsonResponse", kFile, 0};

// False if the text is longer than the library encodes.
bool AppendEncoded(const std::string& text, std::string* output) {
  char* encoded =
      curl_easy_escape(nullptr, text.data(), static_cast<int>(text.size()));
  if (!encoded) return false;
  output->append(encoded);
  curl_free(encoded);
  return true;
}

// Reports, from the loop, that a request cannot be sent.
RequestId FailLater(const base::Location& location,
                    const ErrorCallback& error_callback) {
  base::EventLoop::Current()->PostTask([location, error_callback] {
    const std::unique_ptr<Error> error =
        Error::Create(location, kErrorDomain, "too_large",
                      "The request body is larger than this device sends");
    error_callback.Run(0, error.get());
  });
  return 0;
}

RequestId Post(const std::string& url, std::string body,
               const char* content_type, bool keeps_connection,
               HeaderList headers, const std::shared_ptr<Transport>& transport,
               const SuccessCallback& success_callback,
               const ErrorCallback& error_callback) {
  const bool has_content_type =
      std::any_of(headers.begin(), headers.end(), [](const auto& header) {
        return base::CompareCaseInsensitiveASCII(
                   header.first, request_header::kContentType) == 0;
      });
  if (!has_content_type) {
    headers.emplace_back(request_header::kContentType, content_type);
  }
  return transport->StartAsyncTransfer(
      {request_type::kPost, url, std::move(headers), std::move(body),
       keeps_connection},
      success_callback, error_callback);
}

}  // namespace

RequestId Get(const std::string& url, const HeaderList& headers,
              const std::shared_ptr<Transport>& transport,
              const SuccessCallback& success_callback,
              const ErrorCallback& error_callback) {
  return transport->StartAsyncTransfer({request_type::kGet, url, headers, ""},
                                       success_callback, error_callback);
}

RequestId PostJson(const std::string& url, std::unique_ptr<base::Value> json,
                   const HeaderList& headers,
                   const std::shared_ptr<Transport>& transport,
                   const SuccessCallback& success_callback,
                   const ErrorCallback& error_callback) {
  std::string body;
  if (!base::JSONWriter::Write(*json, &body)) {
    return FailLater(kPostJson, error_callback);
  }
  return Post(url, std::move(body), mime::application::kJson,
              /*keeps_connection=*/true, headers, transport, success_callback,
              error_callback);
}

RequestId PostFormData(const std::string& url, const FormFieldList& form_fields,
                       const HeaderList& headers,
                       const std::shared_ptr<Transport>& transport,
                       const SuccessCallback& success_callback,
                       const ErrorCallback& error_callback) {
  std::string body;
  for (const auto& [name, value] : form_fields) {
    if (!body.empty()) body += '&';
    bool encoded = AppendEncoded(name, &body);
    body += '=';
    encoded = encoded && AppendEncoded(value, &body);
    if (!encoded) return FailLater(kPostFormData, error_callback);
  }
  return Post(url, std::move(body), mime::application::kWwwFormUrlEncoded,
              /*keeps_connection=*/false, headers, transport, success_callback,
              error_callback);
}

std::unique_ptr<base::DictionaryValue> ParseJsonResponse(
    const Response* response, int* status_code, std::unique_ptr<Error>* error) {
  *status_code = response->GetStatusCode();
  std::unique_ptr<base::Value> value = base::JSONReader::Read(response->body());
  if (!value || !value->is_dictionary()) {
    Error::AddTo(error, kParseJsonResponse, kErrorDomain, "protocol",
                 "The response body is not a JSON object");
    return nullptr;
  }
  return std::make_unique<base::DictionaryValue>(std::move(*value));
}

}  // namespace kestrix::http
