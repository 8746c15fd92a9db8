// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/error.h"

#include <stdarg.h>
#include <stdio.h>

#include <utility>

namespace kestrix {

Error::Error(const base::Location& location, std::string domain,
             std::string code, std::string message,
             std::unique_ptr<Error> inner_error)
    : location_(location),
      domain_(std::move(domain)),
      code_(std::move(code)),
      message_(std::move(message)),
      inner_error_(std::move(inner_error)) {}

std::unique_ptr<Error> Error::Create(const base::Location& location,
                                     std::string domain, std::string code,
                                     std::string message) {
  return std::unique_ptr<Error>(new Error(location, std::move(domain),
                                          std::move(code), std::move(message),
                                          nullptr));
}

void Error::AddTo(std::unique_ptr<Error>* error, const base::Location& location,
                  std::string domain, std::string code, std::string message) {
  if (!error) return;
  error->reset(new Error(location, std::move(domain), std::move(code),
                         std::move(message), std::move(*error)));
}

void Error::AddToPrintf(std::unique_ptr<Error>* error,
                        const base::Location& location, std::string domain,
                        std::string code, const char* format, ...) {
  if (!error) return;
  va_list arguments;
  va_start(arguments, format);
  va_list measured;
  va_copy(measured, arguments);
  const int length = vsnprintf(nullptr, 0, format, measured);
  va_end(measured);
  std::string message(length > 0 ? static_cast<size_t>(length) : 0, '\0');
  vsnprintf(message.data(), message.size() + 1, format, arguments);
  va_end(arguments);
  AddTo(error, location, std::move(domain), std::move(code),
        std::move(message));
}

}  // namespace kestrix
