// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "base/logging.h"

#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <string.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "base/utf8.h"

namespace base {
namespace {

void WriteToStderr(LogSeverity severity, const Location* location,
                   std::string_view text) {
  WriteLogLineToStderr(LogHeader(severity, location), text);
}

LogSink g_sink = WriteToStderr;

// Text from outside must not be able to forge a line or drive a terminal:
// control characters, and bytes that are no characters, are written as escapes.
// Ends where a further character would go beyond kMaxLogText.
std::string EscapeControlBytes(std::string_view text) {
  constexpr char kHex[] = "0123456789abcdef";
  const size_t size = text.size();
  std::string escaped;
  while (!text.empty()) {
    uint32_t code_point = 0;
    const size_t decoded = DecodeUtf8(text, &code_point);
    const size_t length = decoded == 0 ? 1 : decoded;
    const bool control =
        code_point < 0x20 || (code_point >= 0x7f && code_point < 0xa0);
    const size_t written_length = decoded == 0 || control ? 4 * length : length;
    if (escaped.size() + written_length > kMaxLogText) {
      escaped.append("... (").append(std::to_string(size)).append(" bytes)");
      break;
    }
    if (decoded == 0 || control) {
      for (const char c : text.substr(0, length)) {
        const auto byte = static_cast<unsigned char>(c);
        escaped += {'\\', 'x', kHex[byte >> 4], kHex[byte & 0xf]};
      }
    } else {
      escaped.append(text.substr(0, length));
    }
    text.remove_prefix(length);
  }
  return escaped;
}

}  // namespace

std::string_view LogSeverityName(LogSeverity severity) {
  switch (severity) {
    case LogSeverity::kINFO:
      return "INFO";
    case LogSeverity::kWARNING:
      return "WARNING";
    case LogSeverity::kERROR:
      return "ERROR";
    case LogSeverity::kFATAL:
      break;
  }
  return "FATAL";
}

LogSink SetLogSink(LogSink sink) {
  const LogSink previous = g_sink;
  g_sink = sink;
  return previous;
}

std::string LogHeader(LogSeverity severity, const Location* location) {
  std::string header = "[";
  header += LogSeverityName(severity);
  if (location) {
    header += ":";
    header += location->file;
    header.append("(").append(std::to_string(location->line)).append(")");
  }
  return header + "] ";
}

void WriteLogLineToStderr(std::string_view header, std::string_view text) {
  std::string line(header);
  line.append(text).push_back('\n');
  // A pipe that can be written to takes so much at once without waiting. One
  // that nobody reads must not hold the daemon up: the rest of the line is
  // lost.
  constexpr size_t kStep = PIPE_BUF;
  for (size_t done = 0; done < line.size();) {
    pollfd descriptor{STDERR_FILENO, POLLOUT, 0};
    const int ready = poll(&descriptor, 1, /*timeout=*/0);
    if (ready == 0) return;
    const iovec piece{line.data() + done, std::min(kStep, line.size() - done)};
    const ssize_t written =
        ready < 0 ? ready : writev(STDERR_FILENO, &piece, 1);
    // Nobody is left to be told of a failure here.
    if (written == 0 || (written < 0 && errno != EINTR)) return;
    if (written > 0) done += static_cast<size_t>(written);
  }
}

LogMessage::~LogMessage() {
  g_sink(severity_, location_, EscapeControlBytes(text_));
  if (severity_ == LogSeverity::kFATAL) abort();
}

ErrnoLogMessage::ErrnoLogMessage(LogSeverity severity)
    : saved_errno_(errno), message_(severity) {}

ErrnoLogMessage::~ErrnoLogMessage() {
  message_ << ": " << strerror(saved_errno_);
}

void ReportNotReached(const Location& location, std::string_view explanation) {
  LOG_AT(ERROR, location) << "Not reached: " << explanation;
}

}  // namespace base
