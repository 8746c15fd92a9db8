// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef DBUS_BUS_H_
#define DBUS_BUS_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "base/callback.h"
#include "base/weak_ptr.h"
#include "dbus/message.h"

struct sd_bus;
struct sd_bus_slot;

namespace base {
class EventLoop;
}

namespace dbus {

class ObjectManager;

// A registration with the bus library. Destroying it ends the callbacks.
class Slot {
 public:
  Slot() = default;
  explicit Slot(sd_bus_slot* slot) : slot_(slot) {}
  Slot(Slot&& other) noexcept : slot_(std::exchange(other.slot_, nullptr)) {}
  Slot& operator=(Slot&& other) noexcept {
    std::swap(slot_, other.slot_);
    return *this;
  }
  ~Slot();

  // Gives the registration to the bus, which keeps it until the one callback
  // has run, or until its own end.
  void LeaveToBus();

 private:
  sd_bus_slot* slot_ = nullptr;
};

// The connection to the system bus. Everything that is made with it must be
// destroyed before it.
class Bus {
 public:
  using MessageCallback = base::Callback<void(Message)>;

  // `loop` is borrowed and must outlive the bus.
  explicit Bus(base::EventLoop* loop);
  // Sends what is still queued, as far as the bus takes it within half a
  // second. A reply that comes in meanwhile still runs its callback, so what a
  // callback uses must be bound weakly or outlive this.
  ~Bus();
  Bus(const Bus&) = delete;
  Bus& operator=(const Bus&) = delete;

  // Connects to the system bus (the address in DBUS_SYSTEM_BUS_ADDRESS, or the
  // well-known socket) and serves it on the loop. Blocks until the bus has
  // welcomed us. On failure `reason` says why; the object is then of no use.
  bool Connect(std::string* reason);
  // Whether Connect() has succeeded, whatever has become of the connection.
  bool is_connected() const { return bus_ != nullptr; }
  // Whether the connection stands now.
  bool IsOpen() const;

  // Runs `callback` from the loop when the bus closes the connection.
  void SetDisconnectedCallback(base::Callback<void()> callback);

  // Treats the connection as closed by the bus, from the loop, since something
  // that cannot be done without has failed: an init system can start the
  // process afresh, and nobody would notice that it hears nothing.
  void GiveUp();

  // Asks for a well-known name, neither queueing for it nor taking it from
  // another owner. `callback` runs once, from the loop, with an empty reason if
  // we own the name. It does not run after the bus is destroyed.
  void RequestOwnership(
      const std::string& name,
      const base::Callback<void(bool owned, const std::string& reason)>&
          callback);

  // Runs `callback` for each signal that matches `rule` (D-Bus,
  // "Match Rules") until the slot is destroyed. Signals can be addressed to us
  // by anyone: the callback must check the sender. A rule that cannot be added
  // is logged, and GiveUp() called.
  Slot AddMatch(const std::string& rule, MessageCallback callback);

  // Sends `call` and waits for the reply without serving the loop. Returns the
  // reply, or none with `error` set if the bus or the peer reported an error,
  // or none with `error` empty if there was no answer at all. `timeout_ms` -1
  // is the bus library's default (25 s).
  Message CallAndBlock(const Message& call, int timeout_ms, Error* error);

  // Sends `call`. `callback` runs once, from the loop, with the reply or an
  // error reply (also for a time-out); not if the slot is destroyed first.
  // False, with `callback` dropped, if the call cannot be sent.
  bool Call(const Message& call, int timeout_ms, MessageCallback callback,
            Slot* slot);
  // The same for a call that goes on until it is answered or the bus ends.
  bool Call(const Message& call, int timeout_ms, MessageCallback callback);

  // The one manager of the objects that `service` publishes at `path`, which
  // starts to watch the service at the first request. It lives as long as the
  // bus.
  ObjectManager* GetObjectManager(const std::string& service,
                                  const std::string& path);

  // For the other files of this library.
  sd_bus* get() const { return bus_; }

 private:
  void OnDisconnected(Message signal);
  void OnGivenUp();

  base::EventLoop* loop_;  // Not owned; outlives this.
  sd_bus* bus_ = nullptr;
  base::Callback<void()> disconnected_callback_;
  Slot disconnected_slot_;
  std::map<std::pair<std::string, std::string>, std::unique_ptr<ObjectManager>>
      object_managers_;
  base::WeakPtrFactory<Bus> weak_ptr_factory_{this};
};

}  // namespace dbus

#endif  // DBUS_BUS_H_
