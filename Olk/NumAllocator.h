// Number allocators: hand out numbers (ids, labels, indexes) from configured
// ranges, with a hold-down before a released number is reused.
//
// `NumAllocator` serves one `Range`, `MultiRangeNumAllocator` several disjoint
// ones. Every served number is in exactly one pool: free, active (handed out),
// held down (released, filed under its release time) or reserved (set aside,
// never handed out by allocate()). allocate() takes the lowest free number,
// else the one released longest ago once it has been held down for
// `holdDownTime` seconds, so stale references to it have died out; with 0,
// released numbers go straight back to free. Running out is not an error:
// allocate() returns std::nullopt and traces ("NumAllocator", level 7).
// O(log n) in the ranges of the pools; taking a held-down number out of turn
// (allocate(n), reserve) walks the time-stamp buckets. Time comes from the
// injected clock; nothing is scheduled on it. Event-loop thread only.
#pragma once

#include <optional>
#include <vector>

#include "Olk/NumberPool.h"
#include "Olk/Types.h"
#include "platform/Clock.h"
#include "platform/Entity.h"
#include "platform/Ptr.h"

namespace Olk {

// The operations both allocators share, over the union of their ranges.
class NumAllocatorBase : public Zum::Entity {
 public:
  // The lowest free number, else the longest-held-down number whose hold-down
  // is over, else nullopt.
  std::optional<U32> allocate();
  // Hands out exactly n, taking it from the free or the held-down pool (an
  // explicit request overrides the hold-down, e.g. to restore allocations
  // after a restart). False, with no change, when n is not served, active
  // or reserved.
  bool allocate(U32 n);
  // Gives back an active number; it is held down (or freed when the
  // hold-down time is 0). False, with no change, when n is not active.
  bool release(U32 n);
  // Sets aside every number of r. All of them must be served and free or
  // held down; otherwise false and no change.
  bool reserve(const Range& r);
  // Returns reserved numbers to the free pool. All of r must be reserved;
  // otherwise false and no change.
  bool unreserve(const Range& r);

  Seconds holdDownTime() const { return holdDownTime_; }
  // Takes effect at once for numbers already held down. Throws
  // RangeException "NumAllocator::holdDownTime < 0 not allowed" for a
  // negative (or NaN) time.
  void holdDownTimeIs(Seconds t);

  bool isServed(U32 n) const { return served_->isMember(n); }
  bool isFree(U32 n) const { return free_->isMember(n); }
  bool isActive(U32 n) const { return active_->isMember(n); }
  bool isHeldDown(U32 n) const { return heldDown_->isMember(n); }
  bool isReserved(U32 n) const { return reserved_->isMember(n); }

  U64 numServed() const { return served_->size(); }
  U64 numFree() const { return free_->size(); }
  U64 numActive() const { return active_->size(); }
  U64 numHeldDown() const { return heldDown_->size(); }
  U64 numReserved() const { return reserved_->size(); }
  // What allocate() could hand out now: free numbers plus held-down ones
  // whose hold-down is over. O(number of such time stamps).
  U64 numAvailable() const;

  Ptr<const NumberPool> freePool() const { return free_; }
  Ptr<const NumberPool> activePool() const { return active_; }
  Ptr<const TimedNumberPool> heldDownPool() const { return heldDown_; }
  Ptr<const NumberPool> reservedPool() const { return reserved_; }
  const Ptr<Zum::Clock>& clock() const { return clock_; }
  // The configured ranges, ascending.
  const std::vector<Range>& ranges() const { return ranges_; }

 protected:
  // `ranges` must be ascending and pairwise disjoint; all start free.
  NumAllocatorBase(Zum::Name name, std::vector<Range> ranges, const Ptr<Zum::Clock>& clock,
                   Seconds holdDownTime);

 private:
  // Time stamps at or before this have served their hold-down.
  Seconds holdDownCutoff() const { return clock_->now() - holdDownTime_; }
  void activate(U32 n);

  const std::vector<Range> ranges_;
  const Ptr<Zum::Clock> clock_;  // never null
  Seconds holdDownTime_;         // invariant: >= 0
  // Invariant: free_, active_, heldDown_ and reserved_ are disjoint and
  // their union is served_.
  const Ptr<NumberPool> served_;
  const Ptr<NumberPool> free_;
  const Ptr<NumberPool> active_;
  const Ptr<TimedNumberPool> heldDown_;
  const Ptr<NumberPool> reserved_;
};

class NumAllocator : public NumAllocatorBase {
 public:
  Range range() const { return ranges().front(); }

 private:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  NumAllocator(Zum::Name name, const Range& range, const Ptr<Zum::Clock>& clock, Seconds holdDownTime)
      : NumAllocatorBase(std::move(name), {range}, clock, holdDownTime) {}
};

// Throws RangeException for a null clock or a negative hold-down time.
Ptr<NumAllocator> numAllocatorFactory(const Zum::Name& name, const Range& range, const Ptr<Zum::Clock>& clock,
                                      Seconds holdDownTime);

class MultiRangeNumAllocator : public NumAllocatorBase {
 private:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  // Sorts `ranges`; see multiRangeNumAllocatorFactory for the errors.
  MultiRangeNumAllocator(Zum::Name name, std::vector<Range> ranges, const Ptr<Zum::Clock>& clock,
                         Seconds holdDownTime);
};

// Ranges may come in any order but must not overlap: RangeException
// "MultiRangeNumAllocator::ranges overlapping not allowed". Also throws for a
// null clock or a negative hold-down time.
Ptr<MultiRangeNumAllocator> multiRangeNumAllocatorFactory(const Zum::Name& name, std::vector<Range> ranges,
                                                          const Ptr<Zum::Clock>& clock, Seconds holdDownTime);

}  // namespace Olk
