// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef KESTRIX_SERVICE_STATUS_H_
#define KESTRIX_SERVICE_STATUS_H_

#include <string>

#include "base/callback.h"
#include "base/event_loop.h"

namespace kestrix {

// What the service manager shows of the process in words, as in `systemctl
// status`: the STATUS= of sd_notify(3). There is at most one at a time.
class ServiceStatus {
 public:
  // `describe` returns one line without a secret. It runs before this returns,
  // and from the loop a second after Changed(), so that a busy process does not
  // keep the service manager busy too. What it told last is not sent again.
  // `loop` is borrowed and must outlive this.
  ServiceStatus(base::EventLoop* loop, base::Callback<std::string()> describe);
  ~ServiceStatus();
  ServiceStatus(const ServiceStatus&) = delete;
  ServiceStatus& operator=(const ServiceStatus&) = delete;

  // Says that the line may read otherwise now. Costs next to nothing, and does
  // nothing in a process that reports no status.
  static void Changed();

 private:
  void Tell();

  base::Callback<std::string()> describe_;
  std::string told_;
  bool is_due_ = false;
  base::Timer timer_;
};

}  // namespace kestrix

#endif  // KESTRIX_SERVICE_STATUS_H_
