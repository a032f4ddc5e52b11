// Number pools: sets of 32-bit numbers kept as disjoint closed ranges.
//
// `NumberPool` holds a set of U32 numbers as ranges that never overlap and
// never touch (n-1 and n are always in the same range), so adding or
// deleting any range keeps the set in its shortest form. Ranges are keyed by
// their `max`; since they are disjoint, ascending `max` is ascending `min`
// too, and one ordered-map lookup ("the range at or after x") answers
// membership. add/delete cost O(log n + k) for k ranges swallowed.
// `TimedNumberPool` files every number under the time it became free, so the
// number free the longest can be handed out first; each time stamp is one
// `NumberPoolWithTimestamp` bucket and `pool()` holds the union of them all.
// Every change of a pool entry is announced to the pool's notifiees.
// Runs on the event-loop thread; nothing here is safe to share across
// threads. A pool does not own or check what its numbers mean: the number
// allocators built on it (NumAllocator.h) do that.
#pragma once

#include <iosfwd>

#include "Olk/Types.h"
#include "platform/Collection.h"
#include "platform/Entity.h"
#include "platform/Notifier.h"
#include "platform/Ptr.h"
#include "platform/Strep.h"

namespace Olk {

// Closed range min..max of U32 numbers; never empty. Defined ahead of the
// pool, which stores ranges by value.
class Range {
 public:
  Range() = default;  // 0..0
  // Throws RangeException "Range::min > Range::max not allowed" when min > max.
  Range(U32 min, U32 max);

  U32 min() const { return min_; }
  U32 max() const { return max_; }
  // Number of members, in 64 bits: 0..4294967295 has 4294967296.
  U64 size() const { return U64(max_) + 1 - min_; }
  bool inRange(U32 n) const { return min_ <= n && n <= max_; }
  bool operator==(const Range&) const = default;

 private:
  U32 min_ = 0;
  U32 max_ = 0;  // invariant: min_ <= max_
};

String valueToStrep(const Range& v);
// Parsing a Range with min > max fails with the constructor's range error.
void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, Range* out);
std::ostream& operator<<(std::ostream& os, const Range& v);

struct TimedU32;    // the timed pool's records, after the pools
struct TimedRange;

class NumberPool : public Zum::Entity, public Zum::Notifier {
 public:
  using PoolMap = Zum::OrderedMap<U32, Range>;

  class Notifiee : public Zum::BaseNotifiee<NumberPool> {
   public:
    // The entry keyed `max` was added, changed or removed.
    virtual void onPool(U32 /*max*/) {}
  };

  // The range keyed `max`, or 0..0 when there is none.
  Range pool(U32 max) const { return pool_.get(max); }
  bool poolHas(U32 max) const { return pool_.has(max); }
  // Stores `r` under r.max() as it is: does not merge or check its
  // neighbours (addRange does). An identical entry notifies nobody.
  void poolIs(const Range& r);
  void poolDel(U32 max);
  void poolDelAll();
  // The ranges in ascending order.
  const PoolMap& ranges() const { return pool_; }

  // Adds every number of `R`, merging with overlapping and adjacent ranges.
  void addRange(Range R);
  void addNumber(U32 n) { addRange(Range(n, n)); }
  // Removes every number of `R`; numbers not in the pool are ignored.
  void delRange(Range R);
  void delNumber(U32 n) { delRange(Range(n, n)); }

  bool isMember(U32 n) const {
    auto it = rangeAtOrAfter(n);
    return it != pool_.end() && it->second.inRange(n);
  }
  // Whether some / every number of r is in the pool.
  bool overlaps(const Range& r) const;
  bool covers(const Range& r) const;
  bool isEmpty() const { return pool_.empty(); }
  // Count of numbers (not ranges); O(1).
  U64 size() const { return size_; }
  // Lowest number / lowest range; the pool must not be empty ("poolIter").
  U32 getMin() const;
  Range getMinRange() const;

 protected:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  explicit NumberPool(Zum::Name name) : Entity(std::move(name)) {}

 private:
  using PoolIter = PoolMap::const_iterator;
  // The range with the smallest max >= x, or end().
  PoolIter rangeAtOrAfter(U32 x) const { return pool_.lowerBound(x); }
  // Removes the entry at `it` (notifying); returns the entry after it.
  PoolIter eraseAt(PoolIter it);
  // Stores r, whose max is not a key, right before `next` (notifying).
  void storeBefore(PoolIter next, const Range& r);
  // From `it` up, removes the ranges lying wholly inside R, skipping one
  // that begins below R; returns the first range ending after R.max().
  PoolIter delRangesInside(PoolIter it, const Range& R);

  PoolMap pool_;   // invariant after addRange/delRange: disjoint, non-adjacent
  U64 size_ = 0;   // invariant: sum of the sizes of pool_'s ranges
};

Ptr<NumberPool> numberPoolFactory(const Zum::Name& name);

// One time-stamped bucket of a TimedNumberPool.
class NumberPoolWithTimestamp : public NumberPool {
 public:
  Seconds timestamp() const { return timestamp_; }

 private:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  explicit NumberPoolWithTimestamp(Seconds timestamp) : NumberPool(Zum::Name()), timestamp_(timestamp) {}

  const Seconds timestamp_;
};

class TimedNumberPool : public Zum::Entity, public Zum::Notifier {
 public:
  using TimedPoolMap = Zum::OrderedMap<Seconds, Ptr<NumberPoolWithTimestamp>>;

  class Notifiee : public Zum::BaseNotifiee<TimedNumberPool> {
   public:
    // The bucket of time stamp `ts` was created or dropped.
    virtual void onTimedPool(Seconds /*ts*/) {}
  };

  // The union of every bucket.
  Ptr<const NumberPool> pool() const { return pool_; }

  // The bucket of `ts`, or null. Time stamps must not be NaN.
  Ptr<NumberPoolWithTimestamp> timedPool(Seconds ts) const { return timedPool_.get(ts); }
  bool timedPoolHas(Seconds ts) const { return timedPool_.has(ts); }
  // The bucket of `ts`, created empty when missing. Numbers put straight
  // into a bucket bypass the union pool: use addNumber/addRange instead.
  Ptr<NumberPoolWithTimestamp> timedPoolIs(Seconds ts);
  // Drops the bucket of `ts` (if any); its numbers stay in the union pool.
  void timedPoolDel(Seconds ts) { entryDel(timedPool_, ts, &Notifiee::onTimedPool); }
  void timedPoolDelAll() { entryDelAll(timedPool_, &Notifiee::onTimedPool); }
  // Buckets by ascending time stamp.
  const TimedPoolMap& timedPools() const { return timedPool_; }

  // Files t.number under t.timestamp only, moving it from any other bucket.
  void addNumber(const TimedU32& t);
  // Files the range under its time stamp WITHOUT removing it from other
  // buckets: the caller must not add numbers that are filed elsewhere.
  void addRange(const TimedRange& tr);
  // Remove whatever the time stamp the numbers are filed under.
  void delNumber(U32 n);
  void delRange(const Range& r);
  // Remove from the named bucket and from the union. With a time stamp the
  // numbers are not filed under, they leave the union but stay in their
  // bucket: always pass the time stamp they were added with.
  void delTimedNumber(const TimedU32& t);
  void delTimedRange(const TimedRange& tr);

  bool isMember(U32 n) const { return pool_->isMember(n); }
  bool isEmpty() const { return pool_->isEmpty(); }
  U64 size() const { return pool_->size(); }
  U32 getMin() const { return pool_->getMin(); }
  // The earliest time stamp with its lowest number / lowest range; the timed
  // pool must not be empty ("timedPoolIter").
  TimedU32 getEarliest() const;
  TimedRange getEarliestRange() const;

 private:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  explicit TimedNumberPool(Zum::Name name);

  // Removes R from every bucket, dropping the buckets it empties.
  void delFromAllBuckets(const Range& R);
  // Removes R from the bucket of ts, if any, and drops it when emptied.
  void delFromBucket(Seconds ts, const Range& R);
  const NumberPoolWithTimestamp& earliestBucket() const;

  Ptr<NumberPool> pool_;       // invariant: never null
  TimedPoolMap timedPool_;     // no bucket is kept empty by this class's operations
};

Ptr<TimedNumberPool> timedNumberPoolFactory(const Zum::Name& name);

// A number with the time it was filed under; ordered by time, then number.
struct TimedU32 {
  Seconds timestamp = 0.0;
  U32 number = 0;

  // A NaN time stamp is equal to nothing, itself included.
  bool operator==(const TimedU32& o) const { return timestamp == o.timestamp && number == o.number; }
  bool operator<(const TimedU32& o) const {
    return timestamp < o.timestamp || (timestamp == o.timestamp && number < o.number);
  }
};

struct TimedRange {
  Seconds timestamp = 0.0;
  Range range;

  bool operator==(const TimedRange& o) const { return timestamp == o.timestamp && range == o.range; }
};

String valueToStrep(const TimedU32& v);
String valueToStrep(const TimedRange& v);
void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, TimedU32* out);
void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, TimedRange* out);
std::ostream& operator<<(std::ostream& os, const TimedU32& v);
std::ostream& operator<<(std::ostream& os, const TimedRange& v);

}  // namespace Olk
