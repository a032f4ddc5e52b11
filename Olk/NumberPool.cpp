// Design note.
//
// A pool is a std::map from each range's max to the range. Keying by max
// (not min) makes the one lookup every operation needs a single
// lower_bound: the range at or after x is the first whose max >= x, and x is
// a member exactly when that range's min <= x. Adding and deleting follow a
// fixed order of steps: swallow or drop the ranges lying wholly inside the
// argument, then deal with the (at most two) ranges that straddle its ends.
// Numbers 0 and 4294967295 have no neighbour below/above, so the merge steps
// skip them instead of wrapping around.
//
// Notifiees are told of every changed key, one call per poolIs/poolDel; they
// must not change the pool from inside onPool.
//
// The timed pool keeps one plain pool per time stamp plus the union of all
// of them, so membership and size are answered by the union in O(log n) and
// only the "remove wherever it is filed" operations walk the buckets.
#include "Olk/NumberPool.h"

#include <limits>
#include <ostream>
#include <utility>

#include "platform/Exception.h"

namespace Olk {

namespace {
constexpr U32 numberMax = std::numeric_limits<U32>::max();
}

Range::Range(U32 min, U32 max) : min_(min), max_(max) {
  if (min > max) throw Zum::RangeException("Range::min > Range::max not allowed");
}

String valueToStrep(const Range& v) {
  Zum::ValueStrepWriter w("Olk::Range");
  w.field("min", v.min()).field("max", v.max());
  return std::move(w).done();
}

String valueToStrep(const TimedU32& v) {
  Zum::ValueStrepWriter w("Olk::TimedU32");
  w.field("timestamp", v.timestamp).field("number", v.number);
  return std::move(w).done();
}

String valueToStrep(const TimedRange& v) {
  Zum::ValueStrepWriter w("Olk::TimedRange");
  w.field("timestamp", v.timestamp).field("range", v.range);
  return std::move(w).done();
}

void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, Range* out) {
  U32 min = 0;
  U32 max = 0;
  Zum::ValueStrepReader(cur, end, "Olk::Range").field("min", &min).field("max", &max).done();
  *out = Range(min, max);
}

void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, TimedU32* out) {
  Zum::ValueStrepReader(cur, end, "Olk::TimedU32")
      .field("timestamp", &out->timestamp)
      .field("number", &out->number)
      .done();
}

void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, TimedRange* out) {
  Zum::ValueStrepReader(cur, end, "Olk::TimedRange")
      .field("timestamp", &out->timestamp)
      .field("range", &out->range)
      .done();
}

std::ostream& operator<<(std::ostream& os, const Range& v) { return os << valueToStrep(v); }
std::ostream& operator<<(std::ostream& os, const TimedU32& v) { return os << valueToStrep(v); }
std::ostream& operator<<(std::ostream& os, const TimedRange& v) { return os << valueToStrep(v); }

// --- NumberPool -------------------------------------------------------------

Ptr<NumberPool> numberPoolFactory(const Zum::Name& name) { return Zum::create<NumberPool>(name); }

Range NumberPool::pool(U32 max) const {
  auto it = pool_.find(max);
  return it == pool_.end() ? Range() : it->second;
}

void NumberPool::poolIs(const Range& r) {
  auto [it, inserted] = pool_.try_emplace(r.max(), r);
  if (!inserted) {
    if (it->second == r) return;
    size_ -= it->second.size();
    it->second = r;
  }
  size_ += r.size();
  notify(&Notifiee::onPool, r.max());
}

void NumberPool::poolDel(U32 max) {
  auto it = pool_.find(max);
  if (it == pool_.end()) return;
  size_ -= it->second.size();
  pool_.erase(it);
  notify(&Notifiee::onPool, max);
}

void NumberPool::poolDelAll() {
  while (!pool_.empty()) poolDel(pool_.begin()->first);
}

void NumberPool::delRangesInside(const Range& R) {
  // The first range may begin below R.min(); it is left to the caller's
  // end-trimming step. Every later one begins inside R.
  for (auto it = rangeAtOrAfter(R.min()); it != pool_.end() && it->second.max() <= R.max();) {
    const Range I = it->second;
    ++it;
    if (!R.inRange(I.min())) continue;
    ZUM_ASSERT( R.inRange( I.min() ) && R.inRange( I.max() ) );
    poolDel(I.max());
  }
}

void NumberPool::addRange(Range R) {
  auto it = rangeAtOrAfter(R.max());
  if (it != pool_.end() && it->second.inRange(R.min()) && it->second.inRange(R.max())) return;
  delRangesInside(R);
  if (R.min() != 0) {
    it = rangeAtOrAfter(R.min() - 1);
    if (it != pool_.end() && it->second.inRange(R.min() - 1)) {
      const Range I = it->second;
      poolDel(I.max());
      R = Range(I.min(), R.max());
    }
  }
  if (R.max() != numberMax) {
    it = rangeAtOrAfter(R.max() + 1);
    if (it != pool_.end() && it->second.inRange(R.max() + 1)) {
      const Range I = it->second;
      poolDel(I.max());
      R = Range(R.min(), I.max());
    }
  }
  poolIs(R);
}

void NumberPool::delRange(Range R) {
  auto it = rangeAtOrAfter(R.max());
  if (it != pool_.end() && it->second.inRange(R.min()) && it->second.inRange(R.max())) {
    const Range I = it->second;
    poolDel(I.max());
    if (I.min() < R.min()) poolIs(Range(I.min(), R.min() - 1));
    if (R.max() < I.max()) poolIs(Range(R.max() + 1, I.max()));
    return;
  }
  delRangesInside(R);
  it = rangeAtOrAfter(R.min());
  if (it != pool_.end() && it->second.inRange(R.min())) {
    const Range I = it->second;
    ZUM_ASSERT( R.min() > I.min() );
    poolDel(I.max());
    poolIs(Range(I.min(), R.min() - 1));
  }
  it = rangeAtOrAfter(R.max());
  if (it != pool_.end() && it->second.inRange(R.max())) {
    const Range I = it->second;
    ZUM_ASSERT( R.max() < I.max() );
    poolDel(I.max());
    poolIs(Range(R.max() + 1, I.max()));
  }
}

bool NumberPool::isMember(U32 n) const {
  auto it = rangeAtOrAfter(n);
  return it != pool_.end() && it->second.inRange(n);
}

bool NumberPool::overlaps(const Range& r) const {
  auto it = rangeAtOrAfter(r.min());
  return it != pool_.end() && it->second.min() <= r.max();
}

bool NumberPool::covers(const Range& r) const {
  auto it = rangeAtOrAfter(r.max());
  return it != pool_.end() && it->second.inRange(r.min());
}

U32 NumberPool::getMin() const { return getMinRange().min(); }

Range NumberPool::getMinRange() const {
  auto poolIter = pool_.begin();
  ZUM_ASSERT_TEXT(poolIter != pool_.end(), "poolIter");
  return poolIter->second;
}

// --- TimedNumberPool --------------------------------------------------------

Ptr<TimedNumberPool> timedNumberPoolFactory(const Zum::Name& name) { return Zum::create<TimedNumberPool>(name); }

TimedNumberPool::TimedNumberPool(Zum::Name name)
    : Entity(std::move(name)), pool_(Zum::create<NumberPool>(Zum::Name())) {}

Ptr<NumberPoolWithTimestamp> TimedNumberPool::timedPool(Seconds ts) const {
  auto it = timedPool_.find(ts);
  return it == timedPool_.end() ? nullptr : it->second;
}

Ptr<NumberPoolWithTimestamp> TimedNumberPool::timedPoolIs(Seconds ts) {
  auto [it, inserted] = timedPool_.try_emplace(ts);
  if (!inserted) return it->second;
  it->second = Zum::create<NumberPoolWithTimestamp>(ts);
  Ptr<NumberPoolWithTimestamp> bucket = it->second;
  notify(&Notifiee::onTimedPool, ts);
  return bucket;
}

void TimedNumberPool::timedPoolDel(Seconds ts) {
  if (timedPool_.erase(ts) != 0) notify(&Notifiee::onTimedPool, ts);
}

void TimedNumberPool::timedPoolDelAll() {
  while (!timedPool_.empty()) timedPoolDel(timedPool_.begin()->first);
}

void TimedNumberPool::addNumber(const TimedU32& t) {
  delNumber(t.number);
  timedPoolIs(t.timestamp)->addNumber(t.number);
  pool_->addNumber(t.number);
}

void TimedNumberPool::addRange(const TimedRange& tr) {
  timedPoolIs(tr.timestamp)->addRange(tr.range);
  pool_->addRange(tr.range);
}

void TimedNumberPool::delFromAllBuckets(const Range& R) {
  for (auto it = timedPool_.begin(); it != timedPool_.end();) {
    Ptr<NumberPoolWithTimestamp> bucket = it->second;
    ++it;
    bucket->delRange(R);
    if (bucket->isEmpty()) timedPoolDel(bucket->timestamp());
  }
}

void TimedNumberPool::delFromBucket(Seconds ts, const Range& R) {
  Ptr<NumberPoolWithTimestamp> bucket = timedPool(ts);
  if (!bucket) return;
  bucket->delRange(R);
  if (bucket->isEmpty()) timedPoolDel(ts);
}

void TimedNumberPool::delNumber(U32 n) {
  if (!pool_->isMember(n)) return;
  delFromAllBuckets(Range(n, n));
  pool_->delNumber(n);
}

void TimedNumberPool::delRange(const Range& r) {
  delFromAllBuckets(r);
  pool_->delRange(r);
}

void TimedNumberPool::delTimedNumber(const TimedU32& t) {
  delFromBucket(t.timestamp, Range(t.number, t.number));
  pool_->delNumber(t.number);
}

void TimedNumberPool::delTimedRange(const TimedRange& tr) {
  delFromBucket(tr.timestamp, tr.range);
  pool_->delRange(tr.range);
}

const NumberPoolWithTimestamp& TimedNumberPool::earliestBucket() const {
  auto timedPoolIter = timedPool_.begin();
  ZUM_ASSERT_TEXT(timedPoolIter != timedPool_.end(), "timedPoolIter");
  return *timedPoolIter->second;
}

TimedU32 TimedNumberPool::getEarliest() const {
  const NumberPoolWithTimestamp& bucket = earliestBucket();
  return TimedU32{bucket.timestamp(), bucket.getMin()};
}

TimedRange TimedNumberPool::getEarliestRange() const {
  const NumberPoolWithTimestamp& bucket = earliestBucket();
  return TimedRange{bucket.timestamp(), bucket.getMinRange()};
}

}  // namespace Olk
