// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef KESTRIX_HTTP_HTTP_UTILS_H_
#define KESTRIX_HTTP_HTTP_UTILS_H_

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/values.h"
#include "kestrix/error.h"
#include "kestrix/http/transport.h"

namespace kestrix::http {

using FormFieldList = std::vector<std::pair<std::string, std::string>>;

// Each of these starts a request on `transport` and returns its id at once. One
// of the callbacks runs once, later, from the event loop: the first for every
// HTTP response, whatever its status, the second if none came.

// A GET with exactly the header fields `headers` beside those that HTTP itself
// needs.
RequestId Get(const std::string& url, const HeaderList& headers,
              const std::shared_ptr<Transport>& transport,
              const SuccessCallback& success_callback,
              const ErrorCallback& error_callback);

// A POST of `json`, written out. The content type is JSON, unless `headers`
// says otherwise. A text over the limit of base::JSONWriter is not sent: the
// second callback then runs with too_large, and the id is 0.
RequestId PostJson(const std::string& url, std::unique_ptr<base::Value> json,
                   const HeaderList& headers,
                   const std::shared_ptr<Transport>& transport,
                   const SuccessCallback& success_callback,
                   const ErrorCallback& error_callback);

// A POST of `form_fields` in their order, encoded as
// application/x-www-form-urlencoded. Forms carry credentials, so the connection
// is not kept. A field beyond what the HTTP library encodes, some 24 MB of
// encoded text, is not sent: the second callback then runs with too_large, and
// the id is 0.
RequestId PostFormData(const std::string& url, const FormFieldList& form_fields,
                       const HeaderList& headers,
                       const std::shared_ptr<Transport>& transport,
                       const SuccessCallback& success_callback,
                       const ErrorCallback& error_callback);

// The body of `response` if it is a JSON object, whatever the content type
// says; otherwise null, with the reason added to `error` (which may be null).
// `status_code` is set in either case.
std::unique_ptr<base::DictionaryValue> ParseJsonResponse(
    const Response* response, int* status_code, std::unique_ptr<Error>* error);

}  // namespace kestrix::http

#endif  // KESTRIX_HTTP_HTTP_UTILS_H_
