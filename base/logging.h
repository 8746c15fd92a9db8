// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: The cloud_action_daemon authors

#ifndef BASE_LOGGING_H_
#define BASE_LOGGING_H_

#include <concepts>
#include <cstddef>
#include <string>
#include <string_view>

namespace base {

enum class LogSeverity { kINFO, kWARNING, kERROR, kFATAL };

// The word that stands for `severity` in a log line.
std::string_view LogSeverityName(LogSeverity severity);

// Where an error or a log line comes from, as an identifier that stays the same
// from version to version: tools in the field key on it. It is deliberately not
// taken from the compiler's line counter.
struct Location {
  const char* function;
  const char* file;
  int line;
};

// The most bytes of a message that are logged. System loggers drop long lines
// altogether, which would let whoever sends us text hide what it does.
inline constexpr size_t kMaxLogText = 8192;

// Receives every finished log line. `location` is null for a line without a
// stable identifier. `text` is one line: control bytes have been escaped as
// \xNN. A message over kMaxLogText ends with how long it was.
using LogSink = void (*)(LogSeverity severity, const Location* location,
                         std::string_view text);

// Replaces the sink and returns the previous one. The first sink writes to
// standard error.
LogSink SetLogSink(LogSink sink);

// "[SEVERITY:file(line)] " or, without an identifier, "[SEVERITY] ".
std::string LogHeader(LogSeverity severity, const Location* location);

// Writes `header`, `text` and a line end to standard error in one piece.
void WriteLogLineToStderr(std::string_view header, std::string_view text);

// Collects one line and hands it to the sink when it is destroyed. A FATAL
// message then aborts the process.
class LogMessage {
 public:
  explicit LogMessage(LogSeverity severity, const Location* location = nullptr)
      : severity_(severity), location_(location) {}
  ~LogMessage();
  LogMessage(const LogMessage&) = delete;
  LogMessage& operator=(const LogMessage&) = delete;

  LogMessage& operator<<(std::string_view text) {
    text_.append(text);
    return *this;
  }
  LogMessage& operator<<(std::integral auto number) {
    text_.append(std::to_string(number));
    return *this;
  }

 private:
  LogSeverity severity_;
  const Location* location_;
  std::string text_;
};

// A message that ends in ": " and the text of `errno` as it was when the
// message began.
class ErrnoLogMessage {
 public:
  explicit ErrnoLogMessage(LogSeverity severity);
  ~ErrnoLogMessage();
  LogMessage& stream() { return message_; }

 private:
  int saved_errno_;
  LogMessage message_;
};

// An ERROR line from `location` for a state that should not be reached but is
// survived.
void ReportNotReached(const Location& location, std::string_view explanation);

namespace internal {
// Gives both arms of CHECK the type void.
struct Voidify {
  void operator&(const LogMessage&) const {}
};
}  // namespace internal

}  // namespace base

#define LOG(severity) ::base::LogMessage(::base::LogSeverity::k##severity)
#define LOG_AT(severity, location) \
  ::base::LogMessage(::base::LogSeverity::k##severity, &(location))
#define PLOG(severity) \
  ::base::ErrnoLogMessage(::base::LogSeverity::k##severity).stream()

// Ends the process with a FATAL line unless `condition` holds. The line carries
// the condition's text and what is streamed in.
// NOLINTBEGIN(bugprone-macro-parentheses): the stream goes on behind it.
#define CHECK(condition)                                            \
  (condition) ? (void)0                                             \
              : ::base::internal::Voidify() &                       \
                    ::base::LogMessage(::base::LogSeverity::kFATAL) \
                        << "Check failed: " #condition ". "
// NOLINTEND(bugprone-macro-parentheses)

#endif  // BASE_LOGGING_H_
