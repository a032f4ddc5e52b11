#include "platform/Log.h"

#include <syslog.h>

#include <cstdio>

#include "platform/Clock.h"
#include "platform/Format.h"

namespace Zum {

namespace {

LogSink& sink() {
  static LogSink s;
  return s;
}

void write(const LogRecord& r) {
  if (sink()) {
    sink()(r);
    return;
  }
  syslog(LOG_USER | static_cast<int>(r.severity), "%%%s: %s", r.key, r.text.c_str());
  std::fprintf(stderr, "%%%s: %s\n", r.key, r.text.c_str());
}

Ptr<Clock>& logClock() {
  static Ptr<Clock> c;
  return c;
}

Seconds logTime() { return logClock() ? logClock()->now() : monotonicTime(); }

}  // namespace

LogSink logSinkIs(LogSink s) {
  LogSink old = std::move(sink());
  sink() = std::move(s);
  return old;
}

Ptr<Clock> logClockIs(Ptr<Clock> c) {
  Ptr<Clock> old = std::move(logClock());
  logClock() = std::move(c);
  return old;
}

bool LogMessage::admit() const {
  Seconds now = logTime();
  if (now - lastWritten_ < minInterval_) {
    ++suppressedSinceLast_;
    ++suppressedTotal_;
    return false;
  }
  lastWritten_ = now;
  return true;
}

void LogMessage::emit(std::string text) const {
  if (suppressedSinceLast_ != 0) {
    text += Zum::format(" (%llu similar messages suppressed)",
                   static_cast<unsigned long long>(suppressedSinceLast_));
  }
  suppressedSinceLast_ = 0;
  ++written_;
  write(LogRecord{key_, severity_, std::move(text)});
}

}  // namespace Zum
