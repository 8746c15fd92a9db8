// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef KESTRIX_DBUS_UTILS_ASYNC_EVENT_SEQUENCER_H_
#define KESTRIX_DBUS_UTILS_ASYNC_EVENT_SEQUENCER_H_

#include <memory>
#include <string>

#include "base/callback.h"

namespace kestrix::dbus_utils {

// Waits for a number of asynchronous tasks. It may be destroyed before they are
// done: what it promised still happens.
class AsyncEventSequencer {
 public:
  using Handler = base::Callback<void(bool success)>;

  AsyncEventSequencer();
  AsyncEventSequencer(const AsyncEventSequencer&) = delete;
  AsyncEventSequencer& operator=(const AsyncEventSequencer&) = delete;

  // The completion of one task, to be run once. If it is run with false and
  // `failure_is_fatal`, `message` is logged at FATAL and the process aborts;
  // without `failure_is_fatal` it is logged at ERROR.
  Handler GetHandler(const std::string& message, bool failure_is_fatal);

  // Runs `callback` once all handlers have run, with whether all tasks
  // succeeded: from the last of them, or before this returns if none is left.
  // Requires: called once, after the last GetHandler().
  void OnAllTasksCompletedCall(base::Callback<void(bool success)> callback);

 private:
  struct State;

  std::shared_ptr<State> state_;
};

}  // namespace kestrix::dbus_utils

#endif  // KESTRIX_DBUS_UTILS_ASYNC_EVENT_SEQUENCER_H_
