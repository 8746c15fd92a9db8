// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef KESTRIX_ERROR_H_
#define KESTRIX_ERROR_H_

#include <memory>
#include <string>

#include "base/logging.h"

namespace kestrix {

// Why something failed, and possibly, as a chain, why that did. Errors are
// values: whoever creates one does not log it, whoever ends its journey does.
class Error {
 public:
  static std::unique_ptr<Error> Create(const base::Location& location,
                                       std::string domain, std::string code,
                                       std::string message);

  // Puts a new error in front of what `error` holds, which becomes its inner
  // error. Does nothing if `error` is null: the caller did not ask.
  static void AddTo(std::unique_ptr<Error>* error,
                    const base::Location& location, std::string domain,
                    std::string code, std::string message);
  static void AddToPrintf(std::unique_ptr<Error>* error,
                          const base::Location& location, std::string domain,
                          std::string code, const char* format, ...)
      __attribute__((format(printf, 5, 6)));

  const std::string& GetDomain() const { return domain_; }
  const std::string& GetCode() const { return code_; }
  const std::string& GetMessage() const { return message_; }
  const base::Location& GetLocation() const { return location_; }
  // Null at the end of the chain.
  const Error* GetInnerError() const { return inner_error_.get(); }

 private:
  Error(const base::Location& location, std::string domain, std::string code,
        std::string message, std::unique_ptr<Error> inner_error);

  base::Location location_;
  std::string domain_;
  std::string code_;
  std::string message_;
  std::unique_ptr<Error> inner_error_;
};

namespace errors::dbus {
// The domain of errors that travel over D-Bus; the code is the error's D-Bus
// name.
inline constexpr char kDomain[] = "dbus";
}  // namespace errors::dbus

}  // namespace kestrix

#endif  // KESTRIX_ERROR_H_
