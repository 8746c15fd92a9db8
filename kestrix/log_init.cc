// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "kestrix/log_init.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <string>
#include <string_view>

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

// Whoever starts us may leave out standard descriptors. A socket would then
// take such a number, and log lines would be written into it.
void OpenStandardDescriptors() {
  int fd = 0;
  while (fd >= 0 && fd <= 2) fd = open("/dev/null", O_RDWR);
  if (fd > 2) close(fd);
}

}  // namespace

void InitLog(int flags) {
  OpenStandardDescriptors();
  g_flags = flags;
  // The library takes the program's own name for the identity.
  if (flags & kLogToSyslog) openlog(nullptr, LOG_PID, LOG_DAEMON);
  base::SetLogSink(WriteLogLine);
}

}  // namespace kestrix
