// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/log_init.h"

#include <syslog.h>

#include <string>
#include <string_view>

// The header above leaks priorities such as LOG_INFO into the namespace, but no
// macro that the logging header needs.
#include "base/logging.h"

namespace kestrix {
namespace {

int g_flags = 0;

int SyslogPriority(base::LogSeverity severity) {
  switch (severity) {
    case base::LogSeverity::kINFO:
      return LOG_INFO;
    case base::LogSeverity::kWARNING:
      return LOG_WARNING;
    case base::LogSeverity::kERROR:
      return LOG_ERR;
    case base::LogSeverity::kFATAL:
      break;
  }
  return LOG_CRIT;
}

void WriteLogLine(base::LogSeverity severity, const base::Location* location,
                  std::string_view text) {
  const std::string header =
      g_flags & kLogHeader ? base::LogHeader(severity, location) : "";
  if (g_flags & kLogToSyslog) {
    const std::string line = header + std::string(text);
    syslog(SyslogPriority(severity), "%s", line.c_str());
  }
  if (g_flags & kLogToStderr) base::WriteLogLineToStderr(header, text);
}

}  // namespace

void InitLog(int flags) {
  g_flags = flags;
  // The library takes the program's own name for the identity.
  if (flags & kLogToSyslog) openlog(nullptr, LOG_PID, LOG_DAEMON);
  base::SetLogSink(WriteLogLine);
}

}  // namespace kestrix
