// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "fuzz/raw_peer.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <utility>

#include "base/logging.h"

namespace {

// The end of the socket that the next connection to the bus gets.
int g_client_end = -1;

}  // namespace

extern "C" int __wrap_sd_bus_open_system(sd_bus** result) {
  sd_bus* bus = nullptr;
  const int fd = std::exchange(g_client_end, -1);
  CHECK(fd >= 0 && sd_bus_new(&bus) >= 0 && sd_bus_set_fd(bus, fd, fd) >= 0 &&
        sd_bus_set_bus_client(bus, 1) >= 0 && sd_bus_start(bus) >= 0)
      << "Cannot connect";
  *result = bus;
  return 0;
}

namespace fuzz {
namespace {

constexpr char kBusName[] = "org.freedesktop.DBus";
constexpr char kOurName[] = ":1.42";
constexpr size_t kFixedHeaderSize = 12;

size_t RoundUp(size_t size, size_t unit) {
  return (size + unit - 1) / unit * unit;
}

uint32_t GetUint32(const std::string& bytes, size_t at) {
  uint32_t value = 0;
  for (size_t i = 4; i-- > 0;) {
    value = value << 8 | static_cast<unsigned char>(bytes[at + i]);
  }
  return value;
}

// The codes of header fields (D-Bus, "Header Fields").
enum Field : uint8_t {
  kPath = 1,
  kInterface,
  kMember,
  kErrorName,
  kReplySerial,
  kDestination,
  kSender,
  kSignature
};

std::string Serialize(const WireMessage& message) {
  WireWriter writer;
  writer.PutByte('l');
  writer.PutByte(message.type);
  writer.PutByte(0);
  writer.PutByte(1);
  writer.PutUint32(static_cast<uint32_t>(message.body.size()));
  writer.PutUint32(message.serial);
  const size_t fields = writer.OpenArray(8);
  const auto put_text = [&](Field field, const char* type,
                            const std::string& text) {
    if (text.empty()) return;
    writer.Align(8);
    writer.PutByte(field);
    writer.PutSignature(type);
    if (*type == 'g') {
      writer.PutSignature(text);
    } else {
      writer.PutString(text);
    }
  };
  put_text(kPath, "o", message.path);
  put_text(kInterface, "s", message.interface);
  put_text(kMember, "s", message.member);
  put_text(kErrorName, "s", message.error_name);
  if (message.reply_serial != 0) {
    writer.Align(8);
    writer.PutByte(kReplySerial);
    writer.PutSignature("u");
    writer.PutUint32(message.reply_serial);
  }
  put_text(kDestination, "s", message.destination);
  put_text(kSender, "s", message.sender);
  put_text(kSignature, "g", message.signature);
  writer.CloseArray(fields, 8);
  writer.Align(8);
  writer.PutRaw(message.body);
  return writer.bytes();
}

// Takes the first message, of the bus library, off `buffer`. False if it is not
// there yet.
bool TakeMessage(std::string* buffer, WireMessage* message) {
  if (buffer->size() < kFixedHeaderSize + 4) return false;
  CHECK((*buffer)[0] == 'l') << "Another byte order";
  const size_t fields_end =
      kFixedHeaderSize + 4 + GetUint32(*buffer, kFixedHeaderSize);
  const size_t body_start = RoundUp(fields_end, 8);
  const size_t end = body_start + GetUint32(*buffer, 4);
  if (buffer->size() < end) return false;
  message->type = static_cast<WireMessage::Type>((*buffer)[1]);
  message->serial = GetUint32(*buffer, 8);
  for (size_t at = kFixedHeaderSize + 4; at < fields_end;) {
    at = RoundUp(at, 8);
    const auto field = static_cast<Field>((*buffer)[at]);
    const char type = (*buffer)[at + 2];
    at += 4;
    std::string text;
    uint32_t number = 0;
    if (type == 'g') {
      const size_t length = static_cast<unsigned char>((*buffer)[at]);
      text = buffer->substr(at + 1, length);
      at += length + 2;
    } else {
      number = GetUint32(*buffer, at);
      at += 4;
      if (type != 'u') {
        text = buffer->substr(at, number);
        at += number + 1;
      }
    }
    switch (field) {
      case kPath:
        message->path = text;
        break;
      case kInterface:
        message->interface = text;
        break;
      case kMember:
        message->member = text;
        break;
      case kErrorName:
        message->error_name = text;
        break;
      case kReplySerial:
        message->reply_serial = number;
        break;
      case kDestination:
        message->destination = text;
        break;
      case kSender:
        message->sender = text;
        break;
      case kSignature:
        message->signature = text;
        break;
    }
  }
  message->body = buffer->substr(body_start, end - body_start);
  buffer->erase(0, end);
  return true;
}

std::string StringBody(const std::string& text) {
  WireWriter writer;
  writer.PutString(text);
  return writer.bytes();
}

}  // namespace

void WireWriter::SetUint32(size_t at, uint32_t value) {
  for (size_t i = 0; i < 4; ++i) {
    bytes_[at + i] = static_cast<char>(value >> (8 * i) & 0xff);
  }
}

void WireWriter::PutUint32(uint32_t value) {
  Align(4);
  bytes_.append(4, '\0');
  SetUint32(bytes_.size() - 4, value);
}

void WireWriter::PutUint64(uint64_t value) {
  Align(8);
  PutUint32(static_cast<uint32_t>(value & 0xffffffff));
  PutUint32(static_cast<uint32_t>(value >> 32));
}

void WireWriter::PutString(const std::string& text) {
  PutUint32(static_cast<uint32_t>(text.size()));
  bytes_ += text;
  bytes_ += '\0';
}

void WireWriter::PutSignature(const std::string& signature) {
  PutByte(static_cast<uint8_t>(signature.size()));
  bytes_ += signature;
  bytes_ += '\0';
}

void WireWriter::Align(size_t size) {
  bytes_.resize(RoundUp(bytes_.size(), size), '\0');
}

size_t WireWriter::OpenArray(size_t alignment) {
  PutUint32(0);
  const size_t start = bytes_.size();
  Align(alignment);
  return start;
}

void WireWriter::CloseArray(size_t start, size_t alignment) {
  SetUint32(start - 4,
            static_cast<uint32_t>(bytes_.size() - RoundUp(start, alignment)));
}

RawPeer::RawPeer(PeerPlan plan) : plan_(std::move(plan)) {
  int ends[2];
  CHECK(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0)
      << "Cannot make a socket: " << strerror(errno);
  fd_ = ends[0];
  g_client_end = ends[1];
  thread_ = std::thread([this] { Serve(); });
}

RawPeer::~RawPeer() {
  if (thread_.joinable()) thread_.join();
  close(fd_);
}

std::vector<WireMessage> RawPeer::Join() {
  thread_.join();
  return std::move(agent_calls_);
}

bool RawPeer::Receive() {
  char buffer[16384];
  const ssize_t count = recv(fd_, buffer, sizeof(buffer), 0);
  if (count <= 0) return false;
  received_.append(buffer, static_cast<size_t>(count));
  return true;
}

void RawPeer::Serve() {
  if (!Authenticate()) return;
  do {
    WireMessage message;
    while (TakeMessage(&received_, &message)) {
      Handle(message);
      message = {};
    }
  } while (Receive());
}

// The library says all that it has to say at once (D-Bus, "Authentication
// Protocol").
bool RawPeer::Authenticate() {
  constexpr std::string_view kEnd = "BEGIN\r\n";
  size_t end = 0;
  while ((end = received_.find(kEnd)) == std::string::npos) {
    if (!Receive()) return false;
  }
  std::string answer = "DATA\r\nOK 0123456789abcdef0123456789abcdef\r\n";
  if (received_.find("NEGOTIATE_UNIX_FD") < end) answer += "AGREE_UNIX_FD\r\n";
  received_.erase(0, end + kEnd.size());
  return send(fd_, answer.data(), answer.size(), MSG_NOSIGNAL) ==
         static_cast<ssize_t>(answer.size());
}

bool RawPeer::Handle(const WireMessage& message) {
  if (message.type != WireMessage::kCall) {
    if (message.reply_serial != 0 && message.reply_serial == ping_serial_) {
      WireMessage done;
      done.path = "/fuzz";
      done.interface = "fuzz.Test";
      done.member = "Done";
      done.sender = kBusName;
      Send(done);
    }
    return true;
  }
  if (message.interface == "fuzz.Test") {
    StartPhase();
  } else if (message.destination == kBusName) {
    HandleBusCall(message);
  } else {
    HandleAgentCall(message);
  }
  return true;
}

void RawPeer::HandleBusCall(const WireMessage& call) {
  if (call.member == "Hello") {
    Reply(call, "s", StringBody(kOurName));
  } else if (call.member != "GetNameOwner") {
    Reply(call, "", "");
  } else if (plan_.first_owner.empty()) {
    ReplyError(call, "org.freedesktop.DBus.Error.NameHasNoOwner");
    StartPhase();
  } else {
    Reply(call, "s", StringBody(plan_.first_owner));
  }
}

void RawPeer::HandleAgentCall(const WireMessage& call) {
  if (call.member == "GetManagedObjects") {
    if (managed_objects_sent_ < plan_.managed_objects.size()) {
      const WireMessage& reply = plan_.managed_objects[managed_objects_sent_++];
      Reply(call, reply.signature, reply.body);
    } else {
      WireWriter writer;
      writer.CloseArray(writer.OpenArray(8), 8);
      Reply(call, "a{oa{sa{sv}}}", writer.bytes());
    }
    if (phases_started_ == 0) StartPhase();
    return;
  }
  const size_t index = agent_calls_.size();
  agent_calls_.push_back(call);
  const char answer =
      plan_.answers.empty() ? 'k' : plan_.answers[index % plan_.answers.size()];
  if (answer == 'e') {
    ReplyError(call, "org.vantrel.Dosset.Error.Some");
  } else if (answer == 'w') {
    Reply(call, "s", StringBody("unexpected"));
  } else {
    Reply(call, "", "");
  }
}

void RawPeer::StartPhase() {
  if (phases_started_ < plan_.phases.size()) {
    for (const WireMessage& message : plan_.phases[phases_started_]) {
      Send(message);
    }
  }
  ++phases_started_;
  // Its answer comes when all that was before it has been handled.
  WireMessage ping;
  ping.type = WireMessage::kCall;
  ping.path = "/fuzz";
  ping.interface = "org.freedesktop.DBus.Peer";
  ping.member = "Ping";
  ping.sender = kBusName;
  ping.destination = kOurName;
  ping_serial_ = Send(ping);
}

uint32_t RawPeer::Send(WireMessage message) {
  message.serial = ++last_serial_;
  const std::string bytes = Serialize(message);
  // The other end may have had enough.
  for (size_t sent = 0; sent < bytes.size();) {
    const ssize_t count =
        send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (count <= 0) break;
    sent += static_cast<size_t>(count);
  }
  return message.serial;
}

void RawPeer::Reply(const WireMessage& call, const std::string& signature,
                    const std::string& body) {
  WireMessage reply;
  reply.type = WireMessage::kReturn;
  reply.reply_serial = call.serial;
  reply.sender = call.destination;
  reply.destination = kOurName;
  reply.signature = signature;
  reply.body = body;
  Send(reply);
}

void RawPeer::ReplyError(const WireMessage& call, const std::string& name) {
  WireMessage reply;
  reply.type = WireMessage::kError;
  reply.reply_serial = call.serial;
  reply.error_name = name;
  reply.sender = call.destination;
  reply.destination = kOurName;
  reply.signature = "s";
  reply.body = StringBody("some text");
  Send(reply);
}

}  // namespace fuzz
