// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#include "tests/support/log_capture.h"

#include <ostream>
#include <utility>

namespace test {
namespace {

LogCapture* g_current = nullptr;

}  // namespace

void PrintTo(const LogLine& line, std::ostream* output) {
  *output << base::LogSeverityName(line.severity);
  if (!line.location.empty()) *output << " at " << line.location;
  *output << " \"" << line.text << "\"";
}

LogLine InfoLine(std::string text) {
  return {base::LogSeverity::kINFO, std::move(text), ""};
}

LogLine WarningLine(std::string text) {
  return {base::LogSeverity::kWARNING, std::move(text), ""};
}

LogLine ErrorLine(std::string text) {
  return {base::LogSeverity::kERROR, std::move(text), ""};
}

LogLine At(const std::string& file, int number, LogLine line) {
  line.location = file + "(" + std::to_string(number) + ")";
  return line;
}

LogCapture::LogCapture() : previous_(base::SetLogSink(OnLine)) {
  CHECK(g_current == nullptr) << "The log is being captured already";
  g_current = this;
}

LogCapture::~LogCapture() {
  base::SetLogSink(previous_);
  g_current = nullptr;
}

void LogCapture::OnLine(base::LogSeverity severity,
                        const base::Location* location, std::string_view text) {
  LogLine line{severity, std::string(text), ""};
  if (location) line = At(location->file, location->line, std::move(line));
  g_current->lines_.push_back(std::move(line));
  if (severity == base::LogSeverity::kFATAL) {
    base::WriteLogLineToStderr(base::LogHeader(severity, location), text);
  }
}

}  // namespace test
