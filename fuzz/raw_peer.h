// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef FUZZ_RAW_PEER_H_
#define FUZZ_RAW_PEER_H_

#include <cstdint>
#include <string>
#include <thread>
#include <vector>

// The bus and the device cloud agent on it, in one thread at the other end of a
// socket. They speak the wire format by themselves, so they can also say what
// no bus library would let them.
namespace fuzz {

// Writes values in the wire format (D-Bus, "Marshaling"), and checks nothing.
class WireWriter {
 public:
  void PutByte(uint8_t value) { bytes_ += static_cast<char>(value); }
  void PutUint32(uint32_t value);
  void PutUint64(uint64_t value);
  // Also for object paths.
  void PutString(const std::string& text);
  void PutSignature(const std::string& signature);
  void PutRaw(const std::string& bytes) { bytes_ += bytes; }
  void Align(size_t size);

  // Returns what the end has to be told. `alignment` is that of the elements.
  size_t OpenArray(size_t alignment);
  void CloseArray(size_t start, size_t alignment);

  const std::string& bytes() const { return bytes_; }

 private:
  void SetUint32(size_t at, uint32_t value);

  std::string bytes_;
};

struct WireMessage {
  enum Type : uint8_t { kCall = 1, kReturn = 2, kError = 3, kSignal = 4 };

  Type type = kSignal;
  uint32_t serial = 0;
  uint32_t reply_serial = 0;
  std::string path;
  std::string interface;
  std::string member;
  std::string error_name;
  std::string destination;
  std::string sender;
  std::string signature;
  std::string body;
};

// What the peer does.
struct PeerPlan {
  // Empty: nobody owns the agent's name at first.
  std::string first_owner;
  // The bodies of the replies to the calls of GetManagedObjects, in order.
  // Later ones get an empty reply.
  std::vector<WireMessage> managed_objects;
  // What is sent, phase by phase.
  std::vector<std::vector<WireMessage>> phases;
  // How the agent's methods are answered, over and over: k well, e with an
  // error, w with a value that does not belong there.
  std::string answers;
};

// Serves one connection in a thread, until the other end closes it.
//
// The first phase comes when the agent's objects were asked for, or at once if
// there is no agent. At the end of each phase, when all of it has been handled,
// the peer sends the signal fuzz.Done; it goes on when it gets the call
// fuzz.Continue.
class RawPeer {
 public:
  explicit RawPeer(PeerPlan plan);
  ~RawPeer();
  RawPeer(const RawPeer&) = delete;
  RawPeer& operator=(const RawPeer&) = delete;

  // Waits for the end of the connection. Returns the calls of the agent's
  // methods, in order.
  std::vector<WireMessage> Join();

 private:
  void Serve();
  bool Authenticate();
  bool Handle(const WireMessage& message);
  void HandleBusCall(const WireMessage& call);
  void HandleAgentCall(const WireMessage& call);
  void StartPhase();
  bool Receive();
  uint32_t Send(WireMessage message);
  void Reply(const WireMessage& call, const std::string& signature,
             const std::string& body);
  void ReplyError(const WireMessage& call, const std::string& name);

  PeerPlan plan_;
  int fd_ = -1;
  std::string received_;
  uint32_t last_serial_ = 0;
  uint32_t ping_serial_ = 0;
  size_t managed_objects_sent_ = 0;
  size_t phases_started_ = 0;
  std::vector<WireMessage> agent_calls_;
  // Last: it uses the others.
  std::thread thread_;
};

}  // namespace fuzz

#endif  // FUZZ_RAW_PEER_H_
