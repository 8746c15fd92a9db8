// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef DBUS_MESSAGE_H_
#define DBUS_MESSAGE_H_

#include <cstdint>
#include <string>
#include <utility>

struct sd_bus_message;

namespace dbus {

// A D-Bus error (D-Bus, "Message Types"). Empty: no error was
// reported.
struct Error {
  bool is_set() const { return !name.empty(); }

  std::string name;
  std::string message;
};

// A reference to one message, or to none. Messages are made by ObjectProxy (a
// call) and by another message (its replies).
class Message {
 public:
  Message() = default;
  // Takes one reference over from the caller.
  explicit Message(sd_bus_message* message);
  Message(Message&& other) noexcept
      : message_(std::exchange(other.message_, nullptr)) {}
  Message& operator=(Message&& other) noexcept;
  ~Message();

  // A further reference to a message that the bus library lends us.
  static Message Share(sd_bus_message* message);

  explicit operator bool() const { return message_ != nullptr; }

  // All of these require a message. Text that the message lacks is empty.
  std::string GetSender() const;
  std::string GetPath() const;
  std::string GetSignature() const;
  // Set if this is an error reply.
  Error GetError() const;

  // Empty if the reply cannot be made, which only a lack of memory or a bus
  // that is gone explains.
  Message CreateReply() const;
  // `error_text` may hold anything: what D-Bus does not carry is replaced.
  Message CreateErrorReply(const std::string& error_name,
                           const std::string& error_text) const;

  // Hands the message to the bus. A reply that nobody waits for is dropped.
  // False if the bus does not take it.
  bool Send() const;

  // For the readers and writers of this library.
  sd_bus_message* get() const { return message_; }

 private:
  sd_bus_message* message_ = nullptr;
};

// Reads the values of a message in order. Every method returns false, and has
// moved nothing on, if the next value is not of the type asked for. There is
// one read position in a message, so one reader at a time.
class MessageReader {
 public:
  // `message` is borrowed and must outlive the reader.
  explicit MessageReader(Message* message) : message_(message->get()) {}

  // Whether a further value follows in the container that is open now.
  bool HasMoreData();

  // The type code of the next value, and of what it contains; 0 at the end.
  char PeekType(std::string* contents);

  bool PopString(std::string* output);
  bool PopObjectPath(std::string* output);
  bool PopBool(bool* output);
  bool PopInt32(int32_t* output);
  bool PopUint32(uint32_t* output);

  // Opens the next value, an array, variant or dictionary entry, whose content
  // has the signature `contents`.
  bool OpenArray(const char* contents);
  bool OpenVariant(const char* contents);
  bool OpenDictEntry(const char* contents);
  // Leaves the open container. What was not read of it is skipped.
  bool Close();

  // Passes over one complete value.
  bool Skip();

 private:
  bool Open(char type, const char* contents);
  bool PopBasic(char type, void* output);

  sd_bus_message* message_;
};

// Appends values to a message. False once the message cannot take a value; the
// message must then not be sent.
class MessageWriter {
 public:
  // `message` is borrowed and must outlive the writer.
  explicit MessageWriter(Message* message) : message_(message->get()) {}

  // Fails if `value` is no string that D-Bus carries: UTF-8 without NUL, and no
  // Unicode noncharacters.
  bool AppendString(const std::string& value);
  bool AppendBool(bool value);
  bool AppendInt32(int32_t value);

  bool OpenArray(const char* contents);
  bool OpenVariant(const char* contents);
  bool OpenDictEntry(const char* contents);
  bool Close();

 private:
  bool Open(char type, const char* contents);

  sd_bus_message* message_;
};

}  // namespace dbus

#endif  // DBUS_MESSAGE_H_
