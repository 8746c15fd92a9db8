// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "dbus/message.h"

#include <systemd/sd-bus.h>

namespace dbus {
namespace {

std::string ToString(const char* text) { return text ? text : ""; }

// The length of the well-formed UTF-8 sequence that `text` starts with, 0 if it
// starts with none that the bus library takes.
size_t SequenceLength(const std::string& text, size_t start) {
  const auto byte = [&](size_t i) -> uint32_t {
    return start + i < text.size() ? static_cast<unsigned char>(text[start + i])
                                   : 0;
  };
  const auto continues = [&](size_t i) { return (byte(i) & 0xc0) == 0x80; };
  const uint32_t lead = byte(0);
  if (lead < 0x80) return lead == 0 ? 0 : 1;
  uint32_t code_point = 0;
  size_t length = 0;
  if ((lead & 0xe0) == 0xc0 && continues(1)) {
    length = 2;
    code_point = (lead & 0x1f) << 6 | (byte(1) & 0x3f);
    if (code_point < 0x80) return 0;
  } else if ((lead & 0xf0) == 0xe0 && continues(1) && continues(2)) {
    length = 3;
    code_point = (lead & 0x0f) << 12 | (byte(1) & 0x3f) << 6 | (byte(2) & 0x3f);
    if (code_point < 0x800) return 0;
  } else if ((lead & 0xf8) == 0xf0 && continues(1) && continues(2) &&
             continues(3)) {
    length = 4;
    code_point = (lead & 0x07) << 18 | (byte(1) & 0x3f) << 12 |
                 (byte(2) & 0x3f) << 6 | (byte(3) & 0x3f);
    if (code_point < 0x10000 || code_point > 0x10ffff) return 0;
  } else {
    return 0;
  }
  const bool surrogate = code_point >= 0xd800 && code_point <= 0xdfff;
  const bool noncharacter = (code_point & 0xfffe) == 0xfffe ||
                            (code_point >= 0xfdd0 && code_point <= 0xfdef);
  return surrogate || noncharacter ? 0 : length;
}

// Error texts may quote what a server sent; the bus must still take them.
std::string ReplaceInvalidText(const std::string& text) {
  std::string valid;
  for (size_t i = 0; i < text.size();) {
    const size_t length = SequenceLength(text, i);
    if (length == 0) {
      valid += '?';
      ++i;
    } else {
      valid.append(text, i, length);
      i += length;
    }
  }
  return valid;
}

}  // namespace

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
  // The library also lets one read a value of another type of the same shape in
  // places; what the wire says must be exactly what was asked for.
  std::string contents;
  return PeekType(&contents) == type &&
         sd_bus_message_read_basic(message_, type, output) > 0;
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
