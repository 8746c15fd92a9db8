// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef TESTS_SUPPORT_LOG_CAPTURE_H_
#define TESTS_SUPPORT_LOG_CAPTURE_H_

#include <iosfwd>
#include <string>
#include <vector>

#include "base/logging.h"

namespace test {

// One line as the log sink got it.
struct LogLine {
  bool operator==(const LogLine&) const = default;

  base::LogSeverity severity;
  std::string text;
  // "file(line)" for a line with a stable identifier, else empty.
  std::string location;
};

void PrintTo(const LogLine& line, std::ostream* output);

// Lines without an identifier.
LogLine InfoLine(std::string text);
LogLine WarningLine(std::string text);
LogLine ErrorLine(std::string text);
// `line` with an identifier.
LogLine At(const std::string& file, int number, LogLine line);

// Collects the log while it lives; at most one at a time. FATAL lines also go
// to standard error, where a death test looks for them.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  const std::vector<LogLine>& lines() const { return lines_; }
  // Forgets what has been collected, for tests that look at a later step only.
  void Clear() { lines_.clear(); }

 private:
  static void OnLine(base::LogSeverity severity, const base::Location* location,
                     std::string_view text);

  base::LogSink previous_;
  std::vector<LogLine> lines_;
};

}  // namespace test

#endif  // TESTS_SUPPORT_LOG_CAPTURE_H_
