// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/flag_helper.h"
#include "kestrix/log_init.h"
#include "platform/actions/cloud-actions/cloud_action_daemon.h"

int main(int argc, char** argv) {
  kestrix::FlagHelper::Init(argc, argv, "Cloud Action Daemon");
  kestrix::InitLog(kestrix::kLogToSyslog | kestrix::kLogToStderr |
                   kestrix::kLogHeader);
  halvex::actions::CloudActionDaemon daemon;
  return daemon.Run();
}
