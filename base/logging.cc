// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "base/logging.h"

#include <errno.h>
#include <string.h>
#include <sys/uio.h>

#include <cstdlib>

#include "base/strings.h"
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
std::string EscapeControlBytes(std::string_view text) {
  constexpr char kHex[] = "0123456789abcdef";
  std::string escaped;
  escaped.reserve(text.size());
  while (!text.empty()) {
    uint32_t code_point = 0;
    const size_t decoded = DecodeUtf8(text, &code_point);
    const size_t length = decoded == 0 ? 1 : decoded;
    const bool control =
        code_point < 0x20 || (code_point >= 0x7f && code_point < 0xa0);
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
  char line_end = '\n';
  const iovec pieces[] = {
      {const_cast<char*>(header.data()), header.size()},
      {const_cast<char*>(text.data()), text.size()},
      {&line_end, 1},
  };
  // Nobody is left to be told of a failure here.
  ssize_t written;
  do {
    written = writev(2, pieces, 3);
  } while (written < 0 && errno == EINTR);
}

LogMessage::~LogMessage() {
  CutLongText(&text_, kMaxLogText);
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
