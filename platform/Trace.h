// The leveled trace facility.
//
// Diagnostics are written against a named handle ("XactLib", "TimerWheel")
// at a level from 0 (rare, important) to 9 (every step). A handle is enabled
// up to a level; a trace at a higher level costs one predictable branch and
// formats nothing:
//
//   static Zum::TraceHandle& tr = Zum::traceHandle("XactLib");
//   ZUM_TRACE(tr, 8) << "xact id: " << id << " configVersion: " << v;
//
// Each enabled trace becomes one line: time, handle/level, function, text.
// Levels come from the environment variable OLK_TRACE, read once at start:
// a comma-separated list of `handle/level`, where level is 0-9 or `*` (all)
// and handle `*` stands for every handle, e.g. `OLK_TRACE=XactLib/8,*/2`.
// Code may change them at any time with traceLevelIs()/traceConfigIs().
// Lines go to standard error unless a sink is installed (tests use
// `TraceCapture` to collect them).
//
// Handles live for the whole process; levels are plain integers, so the
// facility belongs to the event-loop thread like everything else.
#pragma once

#include <functional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Types.h"

namespace Zum {

inline constexpr int traceLevelMax = 9;
inline constexpr int traceOff = -1;

class TraceHandle {
 public:
  explicit TraceHandle(std::string name, int level = traceOff) : name_(std::move(name)), level_(level) {}
  TraceHandle(const TraceHandle&) = delete;
  TraceHandle& operator=(const TraceHandle&) = delete;

  const std::string& name() const { return name_; }
  int level() const { return level_; }
  void levelIs(int level) { level_ = level; }
  bool on(int level) const { return level <= level_; }

 private:
  std::string name_;
  int level_;  // highest level written; traceOff writes none
};

// The handle named `name`, created on first use; the reference stays valid.
TraceHandle& traceHandle(std::string_view name);
// Sets one handle's level, or every handle's (present and future) for "*".
void traceLevelIs(std::string_view handle, int level);
// Applies a configuration in the OLK_TRACE syntax; throws RangeException on
// a malformed entry and then changes nothing.
void traceConfigIs(std::string_view config);

struct TraceRecord {
  Seconds time;
  const TraceHandle* handle;
  int level;
  const char* function;
  std::string text;
};
using TraceSink = std::function<void(const TraceRecord&)>;
// Replaces the sink (null restores standard error); returns the old one.
TraceSink traceSinkIs(TraceSink sink);
// The line written to standard error for `r`.
std::string traceLineText(const TraceRecord& r);

// One trace line being composed; written out when destroyed.
class TraceLine {
 public:
  TraceLine(const TraceHandle& handle, int level, const char* function)
      : handle_(handle), level_(level), function_(function) {}
  ~TraceLine();
  std::ostream& stream() { return text_; }

 private:
  const TraceHandle& handle_;
  int level_;
  const char* function_;
  std::ostringstream text_;
};

// Collects trace lines while alive (and enables handles as asked), then puts
// the previous sink and levels back. For tests of the system's trace texts.
class TraceCapture {
 public:
  // Enables every handle up to `level`.
  explicit TraceCapture(int level = traceLevelMax);
  ~TraceCapture();
  const std::vector<TraceRecord>& records() const { return records_; }
  // The text of every record, in order.
  std::vector<std::string> texts() const;
  // True when some record's text contains `fragment`.
  bool contains(std::string_view fragment) const;

 private:
  std::vector<TraceRecord> records_;
  TraceSink previous_;
  std::vector<std::pair<std::string, int>> savedLevels_;
};

}  // namespace Zum

#define ZUM_TRACE(handle, level)       \
  if (!(handle).on(level)) {           \
  } else                               \
    ::Zum::TraceLine((handle), (level), __func__).stream()
