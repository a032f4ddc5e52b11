// Rivlog: the fast trace ring, a flight recorder for hot paths.
//
// The leveled trace facility (Trace.h) formats a line and hands it to a sink
// only when someone has switched its handle on; in production it is mostly
// off. Rivlog is the opposite trade: it is always recording, into a fixed
// ring of fixed-size records kept in this process's memory, so that after
// something went wrong the last few thousand events can be dumped. Writing a
// record is one clock read and one bounded vsnprintf into the next slot; no
// allocation, no system call, no lock. dump() writes the ring into a
// `Rivlog::DumpSink`, which a dump facility above the platform adapts to.
//
//   static Rivlog::Handle& rh = Rivlog::handle("MallocTrimmer");
//   RIVLOG(rh, 3, "freed %u bytes in %u calls", freed, calls);
//
// Records are written in order and numbered from 0; when the ring is full the
// oldest record is overwritten. Text longer than `textCapacity - 1` bytes is
// cut. Handles are enabled up to level 9 (everything) unless lowered with
// levelIs(); they live for the whole process. The ring belongs to the
// event-loop thread like everything else: writes from several threads at
// once may tear records.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Trace.h"
#include "platform/Types.h"

namespace Rivlog {

using Zum::U16;
using Zum::U32;
using Zum::U64;

// A named, leveled handle, the same kind the trace facility uses; a ring
// handle starts enabled up to level 9 (everything).
using Handle = Zum::TraceHandle;

// The handle named `name`, created on first use; the reference stays valid.
Handle& handle(std::string_view name);

inline constexpr std::size_t textCapacity = 96;

struct Record {
  U64 seq;               // running number; the first record ever written is 0
  U64 timeNs;            // wall-clock time of writing, nanoseconds since the epoch
  const Handle* handle;  // never null
  U16 level;
  char text[textCapacity];  // NUL-terminated, cut to fit
};

class Ring {
 public:
  static constexpr U32 defaultCapacity = 4096;

  // Empties the ring and makes room for `n` records; n < 1 throws
  // RangeException. Running numbers continue where they were.
  void capacityIs(U32 n);
  U32 capacity() const { return capacity_; }
  // Records ever written, kept or overwritten.
  U64 written() const { return written_; }
  // Records kept: the last min(written, capacity) that are not cleared.
  U32 size() const;
  // Forgets every kept record; running numbers continue.
  void clear() { cleared_ = written_; }

  // The kept records, oldest first.
  std::vector<Record> records() const;

  void append(const Handle& h, int level, const char* fmt, va_list args)
      __attribute__((format(printf, 4, 0)));

 private:
  std::vector<Record> slots_;  // allocated on first append; slots_.size() == capacity_ then
  U32 capacity_ = defaultCapacity;
  U64 written_ = 0;
  U64 cleared_ = 0;  // records numbered below this are not kept
};

// The process's ring.
Ring& ring();

// Appends a record to the process's ring when `h` is on at `level`.
void write(const Handle& h, int level, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

// "<seq> <hh:mm:ss.uuuuuu> <handle>/<level> <text>": how a record reads in a dump.
std::string recordText(const Record& r);

// Where a dump of the ring goes.
class DumpSink {
 public:
  virtual ~DumpSink() = default;
  // Takes one whole line, its '\n' included.
  virtual void line(const std::string& text) = 0;
  // The most records one dump may list.
  virtual std::size_t maxEntries() const = 0;
  // Called when a dump left older records out.
  virtual void truncated() = 0;
};

// Writes a heading line and the kept records of the process's ring, oldest
// first, one line each. At most sink.maxEntries() records are written, the
// newest ones; when older ones are left out, a line says how many and the
// sink is told it was truncated.
void dump(DumpSink& sink);

}  // namespace Rivlog

// Evaluates the arguments only when the handle is on at `level`.
#define RIVLOG(h, level, ...)                                            \
  do {                                                                   \
    if ((h).on(level)) ::Rivlog::write((h), (level), __VA_ARGS__);       \
  } while (0)
