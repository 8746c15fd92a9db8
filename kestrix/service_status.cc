// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/service_status.h"

#include <systemd/sd-daemon.h>

#include <utility>

namespace kestrix {
namespace {

constexpr base::TimeDelta kDelay = std::chrono::seconds(1);

ServiceStatus* g_current = nullptr;

}  // namespace

ServiceStatus::ServiceStatus(base::EventLoop* loop,
                             base::Callback<std::string()> describe)
    : describe_(std::move(describe)),
      timer_(loop, base::Bind(&ServiceStatus::Tell, base::Unretained(this))) {
  CHECK(g_current == nullptr) << "The process reports its status already";
  g_current = this;
  Tell();
}

ServiceStatus::~ServiceStatus() { g_current = nullptr; }

void ServiceStatus::Changed() {
  if (g_current == nullptr || g_current->is_due_) return;
  g_current->is_due_ = true;
  g_current->timer_.Start(kDelay);
}

void ServiceStatus::Tell() {
  is_due_ = false;
  std::string line = "STATUS=" + describe_.Run();
  if (line == told_) return;
  sd_notify(/*unset_environment=*/0, line.c_str());
  told_ = std::move(line);
}

}  // namespace kestrix
