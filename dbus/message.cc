// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "dbus/message.h"

#include <systemd/sd-bus.h>

#include <string_view>

#include "base/utf8.h"

namespace dbus {
namespace {

std::string ToString(const char* text) { return text ? text : ""; }

// Error texts may quote what a server sent; the bus must still take them.
std::string ReplaceInvalidText(std::string_view text) {
  std::string valid;
  while (!text.empty()) {
    uint32_t code_point = 0;
    const size_t length = base::DecodeUtf8(text, &code_point);
    if (length == 0 || code_point == 0 || base::IsNoncharacter(code_point)) {
      valid += '?';
    } else {
      valid.append(text.substr(0, length));
    }
    text.remove_prefix(length == 0 ? 1 : length);
  }
  return valid;
}

}  // namespace

// What passes over the bus may hold an authorization code or the owner's data:
// the library erases a sensitive message when it is freed.
Message::Message(sd_bus_message* message) : message_(message) {
  if (message_) sd_bus_message_sensitive(message_);
}

Message& Message::operator=(Message&& other) noexcept {
  std::swap(message_, other.message_);
  return *this;
}

Message::~Message() { sd_bus_message_unref(message_); }

Message Message::Share(sd_bus_message* message) {
  return Message(sd_bus_message_ref(message));
}

std::string Message::GetSender() const {
  return ToString(sd_bus_message_get_sender(message_));
}

std::string Message::GetPath() const {
  return ToString(sd_bus_message_get_path(message_));
}

std::string Message::GetSignature() const {
  return ToString(sd_bus_message_get_signature(message_, /*complete=*/1));
}

Error Message::GetError() const {
  const sd_bus_error* error = sd_bus_message_get_error(message_);
  if (!error) return {};
  return {ToString(error->name), ToString(error->message)};
}

Message Message::CreateReply() const {
  sd_bus_message* reply = nullptr;
  sd_bus_message_new_method_return(message_, &reply);
  return Message(reply);
}

Message Message::CreateErrorReply(const std::string& error_name,
                                  const std::string& error_text) const {
  const std::string text = ReplaceInvalidText(error_text);
  const sd_bus_error error{error_name.c_str(), text.c_str(), 0};
  sd_bus_message* reply = nullptr;
  sd_bus_message_new_method_error(message_, &reply, &error);
  return Message(reply);
}

bool Message::Send() const {
  return sd_bus_send(nullptr, message_, nullptr) >= 0;
}

bool MessageReader::HasMoreData() {
  return sd_bus_message_at_end(message_, /*complete=*/0) == 0;
}

char MessageReader::PeekType(std::string* contents) {
  char type = 0;
  const char* inner = nullptr;
  if (sd_bus_message_peek_type(message_, &type, &inner) <= 0) return 0;
  *contents = ToString(inner);
  return type;
}

bool MessageReader::PopBasic(char type, void* output) {
  return sd_bus_message_read_basic(message_, type, output) > 0;
}

bool MessageReader::PopString(std::string* output) {
  const char* text = nullptr;
  if (!PopBasic(SD_BUS_TYPE_STRING, &text)) return false;
  *output = text;
  return true;
}

bool MessageReader::PopObjectPath(std::string* output) {
  const char* text = nullptr;
  if (!PopBasic(SD_BUS_TYPE_OBJECT_PATH, &text)) return false;
  *output = text;
  return true;
}

bool MessageReader::PopBool(bool* output) {
  int value = 0;
  if (!PopBasic(SD_BUS_TYPE_BOOLEAN, &value)) return false;
  *output = value != 0;
  return true;
}

bool MessageReader::PopInt32(int32_t* output) {
  return PopBasic(SD_BUS_TYPE_INT32, output);
}

bool MessageReader::PopUint32(uint32_t* output) {
  return PopBasic(SD_BUS_TYPE_UINT32, output);
}

bool MessageReader::Open(char type, const char* contents) {
  return sd_bus_message_enter_container(message_, type, contents) > 0;
}

bool MessageReader::OpenArray(const char* contents) {
  return Open(SD_BUS_TYPE_ARRAY, contents);
}

bool MessageReader::OpenVariant(const char* contents) {
  return Open(SD_BUS_TYPE_VARIANT, contents);
}

bool MessageReader::OpenDictEntry(const char* contents) {
  return Open(SD_BUS_TYPE_DICT_ENTRY, contents);
}

bool MessageReader::Close() {
  while (HasMoreData()) {
    if (!Skip()) return false;
  }
  return sd_bus_message_exit_container(message_) >= 0;
}

bool MessageReader::Skip() {
  return sd_bus_message_skip(message_, nullptr) > 0;
}

bool MessageWriter::AppendString(const std::string& value) {
  return value.find('\0') == std::string::npos &&
         sd_bus_message_append_basic(message_, SD_BUS_TYPE_STRING,
                                     value.c_str()) >= 0;
}

bool MessageWriter::AppendBool(bool value) {
  const int wire_value = value;
  return sd_bus_message_append_basic(message_, SD_BUS_TYPE_BOOLEAN,
                                     &wire_value) >= 0;
}

bool MessageWriter::AppendInt32(int32_t value) {
  return sd_bus_message_append_basic(message_, SD_BUS_TYPE_INT32, &value) >= 0;
}

bool MessageWriter::Open(char type, const char* contents) {
  return sd_bus_message_open_container(message_, type, contents) >= 0;
}

bool MessageWriter::OpenArray(const char* contents) {
  return Open(SD_BUS_TYPE_ARRAY, contents);
}

bool MessageWriter::OpenVariant(const char* contents) {
  return Open(SD_BUS_TYPE_VARIANT, contents);
}

bool MessageWriter::OpenDictEntry(const char* contents) {
  return Open(SD_BUS_TYPE_DICT_ENTRY, contents);
}

bool MessageWriter::Close() {
  return sd_bus_message_close_container(message_) >= 0;
}

}  // namespace dbus
