// Design note.
//
// The hold-down is evaluated lazily: a held-down number carries its release
// time, and allocate() compares the oldest one with now - holdDownTime. No
// timer runs and nothing moves between pools when a hold-down ends, so an
// allocator with many released numbers costs nothing while idle, and a change
// of holdDownTime applies at once to everything already held down. Held-down
// numbers stay in their own pool until handed out, which is what makes
// "oldest first" possible: the free pool only knows "lowest first".
#include "Olk/NumAllocator.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "platform/Exception.h"
#include "platform/Trace.h"

namespace Olk {

namespace {

Zum::TraceHandle& tr = Zum::traceHandle("NumAllocator");
constexpr int traceLevel = 7;

void checkHoldDownTime(Seconds t) {
  if (!(t >= 0)) throw Zum::RangeException("NumAllocator::holdDownTime < 0 not allowed");
}

// Sorts the ranges and refuses overlapping ones.
std::vector<Range> ascendingDisjoint(std::vector<Range> ranges) {
  std::sort(ranges.begin(), ranges.end(), [](const Range& a, const Range& b) { return a.min() < b.min(); });
  for (std::size_t i = 1; i < ranges.size(); ++i) {
    if (ranges[i].min() <= ranges[i - 1].max()) {
      throw Zum::RangeException("MultiRangeNumAllocator::ranges overlapping not allowed");
    }
  }
  return ranges;
}

}  // namespace

NumAllocatorBase::NumAllocatorBase(Zum::Name name, std::vector<Range> ranges, const Ptr<Zum::Clock>& clock,
                                   Seconds holdDownTime)
    : Entity(std::move(name)),
      ranges_(std::move(ranges)),
      clock_(clock),
      holdDownTime_(holdDownTime),
      served_(numberPoolFactory("served")),
      free_(numberPoolFactory("free")),
      active_(numberPoolFactory("active")),
      heldDown_(timedNumberPoolFactory("heldDown")),
      reserved_(numberPoolFactory("reserved")) {
  Zum::requireNonNull(clock_, "NumAllocator", "clock");
  checkHoldDownTime(holdDownTime_);
  for (const Range& r : ranges_) {
    served_->addRange(r);
    free_->addRange(r);
  }
}

void NumAllocatorBase::holdDownTimeIs(Seconds t) {
  checkHoldDownTime(t);
  holdDownTime_ = t;
}

void NumAllocatorBase::activate(U32 n) {
  active_->addNumber(n);
  ZUM_TRACE(tr, traceLevel) << "allocate: " << name() << " number " << n;
}

std::optional<U32> NumAllocatorBase::allocate() {
  if (!free_->isEmpty()) {
    const U32 n = free_->getMin();
    free_->delNumber(n);
    activate(n);
    return n;
  }
  if (!heldDown_->timedPools().empty()) {
    const TimedU32 oldest = heldDown_->getEarliest();
    if (oldest.timestamp <= holdDownCutoff()) {
      heldDown_->delTimedNumber(oldest);
      activate(oldest.number);
      return oldest.number;
    }
  }
  ZUM_TRACE(tr, traceLevel) << "allocate: " << name() << " no number available, " << numHeldDown()
                            << " held down";
  return std::nullopt;
}

bool NumAllocatorBase::allocate(U32 n) {
  if (free_->isMember(n)) {
    free_->delNumber(n);
  } else if (heldDown_->isMember(n)) {
    heldDown_->delNumber(n);
  } else {
    ZUM_TRACE(tr, traceLevel) << "allocate: " << name() << " number " << n << " not available";
    return false;
  }
  activate(n);
  return true;
}

bool NumAllocatorBase::release(U32 n) {
  if (!active_->isMember(n)) {
    ZUM_TRACE(tr, traceLevel) << "release: " << name() << " number " << n << " not active";
    return false;
  }
  active_->delNumber(n);
  if (holdDownTime_ > 0) {
    heldDown_->addNumber(TimedU32{clock_->now(), n});
  } else {
    free_->addNumber(n);
  }
  ZUM_TRACE(tr, traceLevel) << "release: " << name() << " number " << n;
  return true;
}

bool NumAllocatorBase::reserve(const Range& r) {
  if (!served_->covers(r) || active_->overlaps(r) || reserved_->overlaps(r)) {
    ZUM_TRACE(tr, traceLevel) << "reserve: " << name() << " " << r << " not all free";
    return false;
  }
  free_->delRange(r);
  heldDown_->delRange(r);
  reserved_->addRange(r);
  return true;
}

bool NumAllocatorBase::unreserve(const Range& r) {
  if (!reserved_->covers(r)) {
    ZUM_TRACE(tr, traceLevel) << "unreserve: " << name() << " " << r << " not all reserved";
    return false;
  }
  reserved_->delRange(r);
  free_->addRange(r);
  return true;
}

U64 NumAllocatorBase::numAvailable() const {
  U64 n = free_->size();
  const Seconds cutoff = holdDownCutoff();
  for (const auto& [ts, bucket] : heldDown_->timedPools()) {
    if (ts > cutoff) break;
    n += bucket->size();
  }
  return n;
}

Ptr<NumAllocator> numAllocatorFactory(const Zum::Name& name, const Range& range, const Ptr<Zum::Clock>& clock,
                                      Seconds holdDownTime) {
  return Zum::create<NumAllocator>(name, range, clock, holdDownTime);
}

MultiRangeNumAllocator::MultiRangeNumAllocator(Zum::Name name, std::vector<Range> ranges,
                                               const Ptr<Zum::Clock>& clock, Seconds holdDownTime)
    : NumAllocatorBase(std::move(name), ascendingDisjoint(std::move(ranges)), clock, holdDownTime) {}

Ptr<MultiRangeNumAllocator> multiRangeNumAllocatorFactory(const Zum::Name& name, std::vector<Range> ranges,
                                                          const Ptr<Zum::Clock>& clock, Seconds holdDownTime) {
  return Zum::create<MultiRangeNumAllocator>(name, std::move(ranges), clock, holdDownTime);
}

}  // namespace Olk
