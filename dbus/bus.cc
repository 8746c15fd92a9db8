// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "dbus/bus.h"

#include <poll.h>
#include <string.h>
#include <systemd/sd-bus.h>

#include "base/event_loop.h"
#include "base/logging.h"
#include "base/time.h"
#include "dbus/object_manager.h"

namespace dbus {
namespace {

// How long the end may be held up by a bus that does not read.
constexpr base::TimeDelta kSendQueuedLimit = std::chrono::milliseconds(500);

// What the bus library keeps for a registered callback; freed with its slot.
using StoredCallback = Bus::MessageCallback;

void DeleteStoredCallback(void* stored) {
  delete static_cast<StoredCallback*>(stored);
}

int RunStoredCallback(sd_bus_message* message, void* stored, sd_bus_error*) {
  static_cast<StoredCallback*>(stored)->Run(Message::Share(message));
  return 0;
}

// Ties `callback`, which `slot` was created with, to the slot's life.
void OwnStoredCallback(sd_bus_slot* slot,
                       std::unique_ptr<StoredCallback> stored) {
  stored.release();
  sd_bus_slot_set_destroy_callback(slot, DeleteStoredCallback);
}

uint64_t ToTimeoutUs(int timeout_ms) {
  // For the library 0 stands for its default.
  if (timeout_ms < 0) return 0;
  return timeout_ms == 0 ? 1 : static_cast<uint64_t>(timeout_ms) * 1000;
}

// Whether the library itself made up `error` for the system error `result`, as
// opposed to one that came over the bus.
bool IsLocalError(const sd_bus_error& error, int result) {
  sd_bus_error local{};
  sd_bus_error_set_errno(&local, result);
  const bool is_local = error.message && strcmp(local.name, error.name) == 0 &&
                        strcmp(local.message, error.message) == 0;
  sd_bus_error_free(&local);
  return is_local;
}

// Hands queued messages over while the bus takes them. The library's own flush
// would wait for a bus that has stopped reading for ever.
void SendQueued(sd_bus* bus) {
  const auto deadline = base::TimeTicks::Now() + kSendQueuedLimit;
  for (;;) {
    const int events = sd_bus_get_events(bus);
    if (events < 0 || (events & POLLOUT) == 0) return;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - base::TimeTicks::Now());
    pollfd socket{sd_bus_get_fd(bus), POLLOUT, 0};
    if (left.count() <= 0 ||
        poll(&socket, 1, static_cast<int>(left.count())) <= 0 ||
        sd_bus_process(bus, nullptr) < 0) {
      return;
    }
  }
}

}  // namespace

Slot::~Slot() { sd_bus_slot_unref(slot_); }

void Slot::LeaveToBus() {
  sd_bus_slot_set_floating(slot_, 1);
  sd_bus_slot_unref(std::exchange(slot_, nullptr));
}

Bus::Bus(base::EventLoop* loop) : loop_(loop) {}

Bus::~Bus() {
  object_managers_.clear();
  disconnected_slot_ = Slot();
  if (bus_) SendQueued(bus_);
  sd_bus_close_unref(bus_);
}

bool Bus::Connect(std::string* reason) {
  CHECK(bus_ == nullptr) << "Connected already";
  sd_bus* bus = nullptr;
  int result = sd_bus_open_system(&bus);
  const char* unique_name = nullptr;
  // Waits for the welcome, so that a bus that refuses us is noticed here.
  if (result >= 0) result = sd_bus_get_unique_name(bus, &unique_name);
  if (result >= 0) {
    result =
        sd_bus_attach_event(bus, loop_->handle(), SD_EVENT_PRIORITY_NORMAL);
  }
  if (result < 0) {
    *reason = strerror(-result);
    sd_bus_close_unref(bus);
    return false;
  }
  bus_ = bus;
  // The library announces the end of the connection as a signal of its own.
  disconnected_slot_ = AddMatch(
      "type='signal',sender='org.freedesktop.DBus.Local',"
      "path='/org/freedesktop/DBus/Local',"
      "interface='org.freedesktop.DBus.Local',member='Disconnected'",
      base::Bind(&Bus::OnDisconnected, base::Unretained(this)));
  return true;
}

void Bus::OnDisconnected(Message signal) {
  if (signal.GetSender() != "org.freedesktop.DBus.Local") return;
  OnGivenUp();
}

void Bus::GiveUp() {
  loop_->PostTask(base::Bind(&Bus::OnGivenUp, weak_ptr_factory_.GetWeakPtr()));
}

void Bus::OnGivenUp() {
  // Told once, whatever else goes wrong.
  const auto callback = std::exchange(disconnected_callback_, {});
  if (callback) callback.Run();
}

bool Bus::IsOpen() const { return bus_ && sd_bus_is_open(bus_) > 0; }

void Bus::SetDisconnectedCallback(base::Callback<void()> callback) {
  disconnected_callback_ = std::move(callback);
}

void Bus::RequestOwnership(
    const std::string& name,
    const base::Callback<void(bool, const std::string&)>& callback) {
  auto stored = std::make_unique<StoredCallback>([callback](Message reply) {
    // Reply codes: D-Bus, "org.freedesktop.DBus.RequestName".
    constexpr uint32_t kPrimaryOwner = 1;
    constexpr uint32_t kAlreadyOwner = 4;
    uint32_t code = 0;
    const Error error = reply.GetError();
    if (error.is_set()) {
      callback.Run(false, error.message);
    } else if (!MessageReader(&reply).PopUint32(&code) ||
               (code != kPrimaryOwner && code != kAlreadyOwner)) {
      callback.Run(false, "another process owns it");
    } else {
      callback.Run(true, "");
    }
  });
  sd_bus_slot* slot = nullptr;
  const int result = sd_bus_request_name_async(
      bus_, &slot, name.c_str(), /*flags=*/0, RunStoredCallback, stored.get());
  if (result < 0) {
    const std::string reason = strerror(-result);
    loop_->PostTask([callback, reason] { callback.Run(false, reason); });
    return;
  }
  OwnStoredCallback(slot, std::move(stored));
  Slot(slot).LeaveToBus();
}

Slot Bus::AddMatch(const std::string& rule, MessageCallback callback) {
  auto stored = std::make_unique<StoredCallback>(std::move(callback));
  sd_bus_slot* slot = nullptr;
  const int result = sd_bus_add_match_async(
      bus_, &slot, rule.c_str(), RunStoredCallback, nullptr, stored.get());
  if (result < 0) {
    LOG(ERROR) << "Cannot add the match " << rule << ": " << strerror(-result);
    GiveUp();
    return Slot();
  }
  OwnStoredCallback(slot, std::move(stored));
  return Slot(slot);
}

Message Bus::CallAndBlock(const Message& call, int timeout_ms, Error* error) {
  sd_bus_error bus_error{};
  sd_bus_message* reply = nullptr;
  const int result = sd_bus_call(bus_, call.get(), ToTimeoutUs(timeout_ms),
                                 &bus_error, &reply);
  if (result < 0 && sd_bus_error_is_set(&bus_error) &&
      !IsLocalError(bus_error, result)) {
    *error = {bus_error.name, bus_error.message ? bus_error.message : ""};
  }
  sd_bus_error_free(&bus_error);
  return Message(reply);
}

bool Bus::Call(const Message& call, int timeout_ms, MessageCallback callback,
               Slot* slot) {
  auto stored = std::make_unique<StoredCallback>(std::move(callback));
  sd_bus_slot* new_slot = nullptr;
  const int result =
      sd_bus_call_async(bus_, &new_slot, call.get(), RunStoredCallback,
                        stored.get(), ToTimeoutUs(timeout_ms));
  if (result < 0) return false;
  OwnStoredCallback(new_slot, std::move(stored));
  *slot = Slot(new_slot);
  return true;
}

bool Bus::Call(const Message& call, int timeout_ms, MessageCallback callback) {
  Slot slot;
  if (!Call(call, timeout_ms, std::move(callback), &slot)) return false;
  slot.LeaveToBus();
  return true;
}

ObjectManager* Bus::GetObjectManager(const std::string& service,
                                     const std::string& path) {
  auto& manager = object_managers_[{service, path}];
  if (!manager) manager = std::make_unique<ObjectManager>(this, service, path);
  return manager.get();
}

}  // namespace dbus
