// Rate-limited log messages for operators.
//
// Each kind of operator-visible event is declared once, with a key, a
// severity, a printf format, an explanation and a recommended action:
//
//   static Zum::LogMessage commandError{
//       "AGENT_SOCKET_COMMAND_ERROR", Zum::LogSeverity::error,
//       "command %s failed: %s", "An operator command could not be run.",
//       "Check the command and its arguments.", 10.0};
//   commandError.log(name, why);
//
// A message logged again within `minInterval` seconds of the last one
// written is counted and suppressed; the next one written says how many
// were dropped. Lines go to syslog and to standard error ("%KEY: text"),
// or to a sink installed for tests. Time is the monotonic clock unless a
// clock is installed (tests install a manual one to see suppression counts).
#pragma once

#include <functional>
#include <string>

#include "platform/Format.h"
#include "platform/Ptr.h"
#include "platform/Types.h"

namespace Zum {

class Clock;

enum class LogSeverity { emergency, alert, critical, error, warning, notice, info, debug };

struct LogRecord {
  const char* key;
  LogSeverity severity;
  std::string text;  // formatted, with the suppression count when there was one
};
using LogSink = std::function<void(const LogRecord&)>;
// Replaces the sink (null restores syslog and standard error); returns the old one.
LogSink logSinkIs(LogSink sink);
// Replaces the clock rate limits are measured on (null restores the monotonic
// clock); returns the old one.
Ptr<Clock> logClockIs(Ptr<Clock> clock);

class LogMessage {
 public:
  LogMessage(const char* key, LogSeverity severity, const char* format, const char* explanation,
             const char* recommendedAction, Seconds minInterval)
      : key_(key),
        severity_(severity),
        format_(format),
        explanation_(explanation),
        recommendedAction_(recommendedAction),
        minInterval_(minInterval) {}
  LogMessage(const LogMessage&) = delete;
  LogMessage& operator=(const LogMessage&) = delete;

  // Formats `args` with this message's printf format and writes the line
  // unless rate-limited. Returns whether it was written.
  template <class... A>
  bool log(A... args) const {
    if (!admit()) return false;
    if constexpr (sizeof...(A) == 0) {
      emit(format_);
    } else {
      emit(Zum::format(format_, args...));
    }
    return true;
  }

  const char* key() const { return key_; }
  LogSeverity severity() const { return severity_; }
  const char* format() const { return format_; }
  const char* explanation() const { return explanation_; }
  const char* recommendedAction() const { return recommendedAction_; }
  Seconds minInterval() const { return minInterval_; }
  U64 written() const { return written_; }
  U64 suppressed() const { return suppressedTotal_; }

 private:
  bool admit() const;  // applies the rate limit
  void emit(std::string text) const;

  const char* key_;
  LogSeverity severity_;
  const char* format_;
  const char* explanation_;
  const char* recommendedAction_;
  Seconds minInterval_;
  mutable Seconds lastWritten_ = -endOfTime;  // monotonic time of the last line written
  mutable U64 written_ = 0;
  mutable U64 suppressedSinceLast_ = 0;
  mutable U64 suppressedTotal_ = 0;
};

}  // namespace Zum
