// Rivlog design note.
//
// The ring is a vector of fixed-size records used as a circular buffer
// indexed by running number: record n lives in slot n % capacity. Keeping
// the running numbers (rather than a head and a count) makes "which records
// are still there" a subtraction, lets a reader notice that records were
// overwritten between two looks, and survives clear() without moving data.
// Slots are allocated on the first write, so a process that never traces
// pays nothing, and the ring is never reallocated afterwards except by an
// explicit capacityIs().
//
// The handle is stored as a pointer, not a copy of its name, because handles
// live for the whole process; that keeps a record at 120 bytes or less.
#include "platform/Rivlog.h"

#include <time.h>

#include <cstdio>
#include <map>
#include <memory>

#include "platform/Exception.h"
#include "platform/Format.h"

namespace Rivlog {

Handle& handle(std::string_view name) {
  static std::map<std::string, std::unique_ptr<Handle>, std::less<>> handles;
  auto it = handles.find(name);
  if (it != handles.end()) return *it->second;
  auto h = std::make_unique<Handle>(std::string(name), Zum::traceLevelMax);
  return *handles.emplace(std::string(name), std::move(h)).first->second;
}

void Ring::capacityIs(U32 n) {
  if (n < 1) throw Zum::RangeException("Rivlog::capacity < 1 not allowed");
  capacity_ = n;
  slots_.clear();
  slots_.shrink_to_fit();
  cleared_ = written_;
}

U32 Ring::size() const {
  U64 kept = written_ - cleared_;
  return kept < capacity_ ? static_cast<U32>(kept) : capacity_;
}

std::vector<Record> Ring::records() const {
  std::vector<Record> out;
  out.reserve(size());
  for (U64 seq = written_ - size(); seq < written_; ++seq) out.push_back(slots_[seq % capacity_]);
  return out;
}

void Ring::append(const Handle& h, int level, const char* fmt, va_list args) {
  if (slots_.empty()) slots_.resize(capacity_);
  Record& r = slots_[written_ % capacity_];
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  r.seq = written_;
  r.timeNs = static_cast<U64>(now.tv_sec) * 1000000000u + static_cast<U64>(now.tv_nsec);
  r.handle = &h;
  r.level = static_cast<U16>(level);
  if (std::vsnprintf(r.text, sizeof r.text, fmt, args) < 0) r.text[0] = '\0';
  ++written_;
}

Ring& ring() {
  static Ring theRing;
  return theRing;
}

void write(const Handle& h, int level, const char* fmt, ...) {
  if (!h.on(level)) return;
  va_list args;
  va_start(args, fmt);
  ring().append(h, level, fmt, args);
  va_end(args);
}

std::string recordText(const Record& r) {
  time_t secs = static_cast<time_t>(r.timeNs / 1000000000u);
  tm local;
  localtime_r(&secs, &local);
  return Zum::format("%llu %02d:%02d:%02d.%06u %s/%u %s", static_cast<unsigned long long>(r.seq),
                     local.tm_hour, local.tm_min, local.tm_sec,
                     static_cast<unsigned>(r.timeNs % 1000000000u / 1000u), r.handle->name().c_str(),
                     static_cast<unsigned>(r.level), r.text);
}

void dump(DumpSink& sink) {
  const Ring& r = ring();
  std::vector<Record> records = r.records();
  sink.line(Zum::format("Rivlog ring: %u records kept of %llu written, capacity %u\n", r.size(),
                        static_cast<unsigned long long>(r.written()), r.capacity()));
  std::size_t skip = 0;
  if (records.size() > sink.maxEntries()) {
    skip = records.size() - sink.maxEntries();
    sink.truncated();
    sink.line(Zum::format("  (%zu older records not dumped)\n", skip));
  }
  for (std::size_t i = skip; i < records.size(); ++i) sink.line("  " + recordText(records[i]) + "\n");
}

}  // namespace Rivlog
