// Design note.
//
// A pool is an ordered map from each range's max to the range. Keying by max
// (not min) makes the one lookup every operation needs a single
// lower_bound: the range at or after x is the first whose max >= x, and x is
// a member exactly when that range's min <= x.
//
// addRange(R) and delRange(R) run in a fixed order of steps, and notifiees
// see their changes in that order:
//   1. if one range already holds (add) or covers (delete) all of R, finish
//      with it at once;
//   2. walking up from the first range ending at or after R.min(), remove
//      every range lying wholly inside R;
//   3. merge with (add) or trim (delete) the range reaching below R.min();
//   4. merge with (add) or trim (delete) the range reaching above R.max();
//   5. (add) store the grown R.
// The range "at or after R.min() - 1" (add) or "at or after R.min()"
// (delete) found by the single lookup is the step-1 candidate and the
// step-3 neighbour, and the walk of step 2 stops on the step-4 neighbour, so
// each operation costs one O(log n) search plus O(1) per range it touches:
// removals and insertions use the positional forms of the notifying
// collection operations, which skip a second search. Numbers 0 and
// 4294967295 have no neighbour below/above, so the merge steps skip them
// instead of wrapping.
//
// Notifiees are told of every changed key, one call per entry removed or
// stored; they must not change the pool from inside onPool.
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

void NumberPool::poolIs(const Range& r) {
  // size_ moves before the notification, so reactions read the new size().
  const Range* old = pool_.find(r.max());
  if (old && *old == r) return;
  if (old) size_ -= old->size();
  size_ += r.size();
  entryIs(pool_, r.max(), r, &Notifiee::onPool);
}

void NumberPool::poolDel(U32 max) {
  PoolIter it = pool_.lowerBound(max);
  if (it != pool_.end() && it->first == max) eraseAt(it);
}

void NumberPool::poolDelAll() {
  // One entry at a time rather than entryDelAll, so that size() is right at
  // every notification.
  while (!pool_.empty()) eraseAt(pool_.begin());
}

NumberPool::PoolIter NumberPool::eraseAt(PoolIter it) {
  size_ -= it->second.size();  // before the notification, like every size_ change
  return entryDelAt(pool_, it, &Notifiee::onPool);
}

void NumberPool::storeBefore(PoolIter next, const Range& r) {
  size_ += r.size();
  entryIsBefore(pool_, next, r.max(), r, &Notifiee::onPool);
}

NumberPool::PoolIter NumberPool::delRangesInside(PoolIter it, const Range& R) {
  while (it != pool_.end() && it->second.max() <= R.max()) {
    const Range I = it->second;
    if (!R.inRange(I.min())) {  // begins below R: trimmed or merged by the caller
      ++it;
      continue;
    }
    ZUM_ASSERT( R.inRange( I.min() ) && R.inRange( I.max() ) );
    it = eraseAt(it);
  }
  return it;
}

void NumberPool::addRange(Range R) {
  // One lookup: the first range ending at or after R.min() - 1 is the left
  // neighbour when it reaches R.min() - 1; the walk starts at the first one
  // ending at or after R.min().
  PoolIter it = rangeAtOrAfter(R.min() == 0 ? 0 : R.min() - 1);
  PoolIter left = pool_.end();
  if (R.min() != 0 && it != pool_.end() && it->second.inRange(R.min() - 1)) {
    left = it;
    if (it->second.max() == R.min() - 1) ++it;
  }
  if (it != pool_.end() && it->second.inRange(R.min()) && it->second.max() >= R.max()) return;  // already held
  PoolIter right = delRangesInside(it, R);
  if (left != pool_.end()) {
    R = Range(left->second.min(), R.max());
    eraseAt(left);
  }
  if (R.max() != numberMax && right != pool_.end() && right->second.inRange(R.max() + 1)) {
    R = Range(R.min(), right->second.max());
    right = eraseAt(right);
  }
  storeBefore(right, R);
}

void NumberPool::delRange(Range R) {
  PoolIter it = rangeAtOrAfter(R.min());
  if (it == pool_.end()) return;
  if (it->second.inRange(R.min()) && it->second.max() >= R.max()) {
    const Range I = it->second;
    const PoolIter next = eraseAt(it);
    if (I.min() < R.min()) storeBefore(next, Range(I.min(), R.min() - 1));
    if (R.max() < I.max()) storeBefore(next, Range(R.max() + 1, I.max()));
    return;
  }
  const PoolIter left = it->second.min() < R.min() ? it : pool_.end();
  PoolIter right = delRangesInside(it, R);
  if (left != pool_.end()) {
    const Range I = left->second;
    ZUM_ASSERT( R.min() > I.min() );
    storeBefore(eraseAt(left), Range(I.min(), R.min() - 1));
  }
  if (right != pool_.end() && right->second.inRange(R.max())) {
    const Range I = right->second;
    ZUM_ASSERT( R.max() < I.max() );
    storeBefore(eraseAt(right), Range(R.max() + 1, I.max()));
  }
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

Ptr<NumberPoolWithTimestamp> TimedNumberPool::timedPoolIs(Seconds ts) {
  return entryFoundOrIs(
      timedPool_, ts, [ts] { return Zum::create<NumberPoolWithTimestamp>(ts); }, &Notifiee::onTimedPool);
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
