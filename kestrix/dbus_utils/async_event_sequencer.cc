// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/dbus_utils/async_event_sequencer.h"

#include <utility>

#include "base/logging.h"

namespace kestrix::dbus_utils {

struct AsyncEventSequencer::State {
  void RunIfCompleted() {
    if (outstanding > 0 || !callback) return;
    const auto completed = std::exchange(callback, {});
    completed.Run(all_succeeded);
  }

  int outstanding = 0;
  bool all_succeeded = true;
  base::Callback<void(bool)> callback;
};

AsyncEventSequencer::AsyncEventSequencer()
    : state_(std::make_shared<State>()) {}

AsyncEventSequencer::Handler AsyncEventSequencer::GetHandler(
    const std::string& message, bool failure_is_fatal) {
  ++state_->outstanding;
  return [state = state_, message, failure_is_fatal](bool success) {
    if (!success) {
      if (failure_is_fatal) LOG(FATAL) << message;
      LOG(ERROR) << message;
      state->all_succeeded = false;
    }
    --state->outstanding;
    state->RunIfCompleted();
  };
}

void AsyncEventSequencer::OnAllTasksCompletedCall(
    base::Callback<void(bool)> callback) {
  state_->callback = std::move(callback);
  state_->RunIfCompleted();
}

}  // namespace kestrix::dbus_utils
