// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef KESTRIX_LOG_INIT_H_
#define KESTRIX_LOG_INIT_H_

namespace kestrix {

enum LogFlags {
  kLogToSyslog = 1,
  kLogToStderr = 2,
  // Prefix each line with its severity and, where it has one, its identifier.
  kLogHeader = 4,
};

// Sends the log to where `flags`, a union of LogFlags, says. INFO goes to the
// system log as LOG_INFO, WARNING as LOG_WARNING, ERROR as LOG_ERR and FATAL as
// LOG_CRIT, in the facility LOG_DAEMON. Standard descriptors that are closed
// are opened to nowhere first. Requires: called before anything else is opened.
void InitLog(int flags);

}  // namespace kestrix

#endif  // KESTRIX_LOG_INIT_H_
