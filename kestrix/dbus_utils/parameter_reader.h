// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef KESTRIX_DBUS_UTILS_PARAMETER_READER_H_
#define KESTRIX_DBUS_UTILS_PARAMETER_READER_H_

#include <memory>

#include "dbus/message.h"
#include "kestrix/dbus_utils/data_serialization.h"
#include "kestrix/dbus_utils/dbus_errors.h"
#include "kestrix/error.h"

namespace kestrix::dbus_utils {

namespace internal {

inline constexpr base::Location kReadParameters{
    "ReadParameters", "kestrix/dbus_utils/parameter_reader", 0};

inline bool FailToRead(std::unique_ptr<Error>* error, const char* message) {
  Error::AddTo(error, kReadParameters, errors::dbus::kDomain, kErrorInvalidArgs,
               message);
  return false;
}

template <typename T>
bool ReadParameter(dbus::MessageReader* reader, std::unique_ptr<Error>* error,
                   T* output) {
  if (!reader->HasMoreData()) return FailToRead(error, kTooFewParameters);
  if (!PopValueFromReader(reader, output)) {
    return FailToRead(error, kTypeMismatch);
  }
  return true;
}

}  // namespace internal

// Reads all values of `message`, which must be exactly as many as `outputs` and
// of their types. False, with the reason added to `error`, if not; some outputs
// may then have been set.
template <typename... Types>
bool ReadParameters(dbus::Message* message, std::unique_ptr<Error>* error,
                    Types*... outputs) {
  dbus::MessageReader reader(message);
  if (!(internal::ReadParameter(&reader, error, outputs) && ...)) return false;
  if (reader.HasMoreData()) {
    return internal::FailToRead(error, kTooManyParameters);
  }
  return true;
}

}  // namespace kestrix::dbus_utils

#endif  // KESTRIX_DBUS_UTILS_PARAMETER_READER_H_
