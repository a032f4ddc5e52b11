// Design note: the hierarchical timer wheel.
//
// Time is counted in ticks of tickMsecs from `currentWheelIndexTime`, the
// time of slot `currentWheelIndex(0)` of bucket 0. A timer `ticks` ahead goes
// to bucket 0 when it fits in the rest of that bucket; otherwise its position
// is expressed in units of bucket-0 rounds and offered to bucket 1, and so on
// (classic hashed-hierarchical wheels, Varghese and Lauck 1987). Only the top
// bucket wraps around; beyond it a timer is parked in the farthest slot and
// refiled when that slot comes up, so far timers circulate rather than fire
// early. The current slot of a higher bucket is always empty: a timer never
// lands there, and the slot that becomes current in a cascade is drained.
//
// The wheel does not tick. The system clock is set for the first used slot
// of bucket 0, or for the "ghost" slot just past its end when only higher
// buckets hold timers; reaching the ghost slot starts a new round of bucket
// 0 and cascades the next slot of bucket 1 (carrying upward) into the lower
// buckets. While the clock has not fired, the wheel time lags behind real
// time; a new timer first pulls it up, but never past the scheduled slot, so
// no occupied slot is ever skipped. Before a slot fires the wheel time is
// moved to exactly that slot, so timers refiled from onTime() are measured
// from the slot being fired and can never land in a slot already passed.
//
// Costs: filing and removal are O(bucketCount) for the choice of bucket plus
// O(1) list work; choosing the next slot scans bucket 0 (bounded by its
// size). Slot lists live in the slot arrays themselves (an empty slot has a
// null head), so filing never allocates and finding a slot's list costs no
// extra memory access. Ticks are computed from milliseconds rounded to the
// nearest one, so "never early" holds to within half a millisecond.
// Where the time goes among a million timers: the timer's own line, and on
// removal one store into each neighbour; a heap that cancels lazily only
// marks the timer. Removal asks for both neighbours together before storing;
// deferring the stores to the next operation gained nothing (the misses per
// operation stay), and per-slot arrays with holes made firing among a
// million timers several times cheaper but filing and removal dearer at
// every size, so the lists stay linked. Walking a long slot list (firing,
// cascading) fetches the next timer early.
//
// Failure: inconsistent lists or indexes are assertions; NaN times abort.
#include "Olk/HTimerWheel.h"

#include <algorithm>
#include <bit>
#include <cmath>

#include "platform/Exception.h"
#include "platform/Trace.h"

using std::isnan;

namespace Olk {

using Zum::endOfTime;
using NotifieeConst = TimerWheel::NotifieeConst;

// The list of timers of one slot, in arrival order.
struct HeadNTail {
  NotifieeConst* h;
  NotifieeConst* t;
};

namespace {

Zum::TraceHandle& tr = Zum::traceHandle("TimerWheel");

const void* id(const NotifieeConst* n) { return n; }

// Writes one trace line. Out of line and cold, so that the filing and firing
// paths carry no stream set-up of their own: an inline trace costs them a
// large stack frame even while tracing is off.
template <class... Parts>
[[gnu::cold, gnu::noinline]] void traceLine(int level, const char* function,
                                            const Parts&... parts) {
  Zum::TraceLine line(tr, level, function);
  (line.stream() << ... << parts);
}

}  // namespace

// As ZUM_TRACE on this file's handle; the parts are evaluated only when the
// level is on.
#define WHEEL_TRACE(level, ...)                                  \
  do {                                                           \
    if (tr.on(level)) traceLine((level), __func__, __VA_ARGS__); \
  } while (0)

namespace {

U32 wheelIndex(const NotifieeConst* n) { return n->wheelIndex(); }
U32 bucketIndex(const NotifieeConst* n) { return n->bucketIndex(); }

// Milliseconds in `seconds`, a fraction above one half rounding up; saturates
// far beyond any wheel's reach.
U64 roundedMsecs(Seconds seconds) {
  const double ms = seconds * 1000.0;
  if (ms >= 1.8e19) return U64(1) << 63;
  const U64 whole = static_cast<U64>(ms);
  return whole + (ms - static_cast<double>(whole) > 0.5);
}

// a / b rounded down, given inverse = 1.0 / b. Filing divides twice per
// timer and a hardware divide costs more than the rest of the filing, so
// the quotient comes from a multiplication, corrected by one when the
// rounding of the inverse put it off. Past 2^40 the error could exceed one.
U64 divide(U64 a, U32 b, double inverse) {
  if (a >= (U64(1) << 40)) return a / b;
  U64 q = static_cast<U64>(static_cast<double>(a) * inverse);
  if (q * b > a) {
    --q;
  } else if ((q + 1) * b <= a) {
    ++q;
  }
  return q;
}

}  // namespace

BucketSize::BucketSize(U32 value) : value_(value) {
  if (value < 2 || value > 0xfffffffe) {
    throw Zum::RangeException("BucketSize::value < 2 or > 0xfffffffe not allowed");
  }
}

// The wheel's hold on its system clock.
class TimerWheel::SystemClockReactor : public Zum::Clock::Notifiee {
 public:
  explicit SystemClockReactor(TimerWheel* wheel) : wheel_(wheel) {}
  // Detach while still a whole clock notifiee: the clock looks at its own
  // part of us when we leave.
  ~SystemClockReactor() override { notifierIs(nullptr); }
  void onTime() override {
    Zum::DestructorGuard guard(wheel_);  // a timer may drop the last other reference
    wheel_->handleSystemClock();
  }

 private:
  TimerWheel* wheel_;
};

namespace TimerWheelImpl {

struct Ops {
  // The list of a slot, or null when the slot is empty.
  static HeadNTail* wheelAt(const TimerWheel* tw, U32 bucket, U32 index) {
    HeadNTail* hnt = &tw->buckets_[bucket].slots[index];
    return hnt->h ? hnt : nullptr;
  }
  static NotifieeConst* next(const NotifieeConst* n) { return n->next_; }
  // Starts fetching the timer after n (both lines it may straddle) while n
  // is handled: walking a long slot list is otherwise one miss after another.
  static void prefetchNext(const NotifieeConst* n) {
    const char* p = reinterpret_cast<const char*>(n->next_);
    if (!p) return;
    __builtin_prefetch(p);
    __builtin_prefetch(p + sizeof(NotifieeConst) - 1);
  }
  static NotifieeConst* prev(const NotifieeConst* n) { return n->prev_; }

  static Zum::Clock* clock(const TimerWheel* tw) { return tw->reactor_->notifier().ptr(); }
  static Seconds now(const TimerWheel* tw) { return clock(tw)->now(); }
  static Seconds ticksToSeconds(const TimerWheel* tw, U64 ticks) {
    return static_cast<Seconds>(ticks * tw->tickMsecs_) / 1000.0;
  }
  // The time at which bucket-0 slot `s` comes due.
  static Seconds slotTime(const TimerWheel* tw, U32 s) {
    return tw->currentWheelIndexTime_ + ticksToSeconds(tw, s - tw->currentWheelIndex(0));
  }

  static void countIn(TimerWheel* tw, U32 bucket) {
    if (tw->buckets_[bucket].timers++ == 0) ++tw->nonEmptyBuckets_;
  }
  static void countOut(TimerWheel* tw, U32 bucket) {
    if (--tw->buckets_[bucket].timers == 0) --tw->nonEmptyBuckets_;
  }

  // Ticks from the wheel time until n is due; 0 when already due.
  static U32 forwardTicks(const TimerWheel* tw, const NotifieeConst* n) {
    const Seconds now = tw->currentWheelIndexTime();
    ZUM_ASSERT(now != endOfTime);
    if (now >= n->timeMin_ || n->timeMin_ == 0.0) return 0;
    const U64 ms = roundedMsecs(n->timeMin_ - now);
    const U64 ticks = divide(ms + tw->tickMsecs_ - 1, tw->tickMsecs_, tw->tickInverse_);
    return static_cast<U32>(std::min<U64>(ticks, 0xFFFFFFFF));
  }

  // Appends n at the tail of slot `index` of bucket `bucketIndex`.
  static void fileAt(TimerWheel* tw, NotifieeConst* n, U32 bucketIndex, U32 index) {
    ZUM_ASSERT(bucketIndex < tw->bucketCount());
    ZUM_ASSERT(index < tw->bucketSize( bucketIndex ));
    ZUM_ASSERT(wheelIndex( n ) == InvalidWheelIndex);
    ZUM_ASSERT(Olk::bucketIndex( n ) == InvalidBucketIndex);
    HeadNTail* hnt = &tw->buckets_[bucketIndex].slots[index];
    if (hnt->t) {
      ZUM_ASSERT(!next( hnt->t ));
      hnt->t->next_ = n;
    } else {
      ZUM_ASSERT(!hnt->h && !hnt->t);
      hnt->h = n;
    }
    n->prev_ = hnt->t;
    n->next_ = nullptr;
    hnt->t = n;
    n->wheelIndex_ = index;
    n->bucketIndex_ = bucketIndex;
    countIn(tw, bucketIndex);
    WHEEL_TRACE(9, "Inserting ", id(n), " in bucket ", bucketIndex, " at index ", index,
                " headNtail ", hnt, " currentIndex ", tw->currentWheelIndex(0), " scheduled ",
                tw->scheduledWheelIndex());
  }

  static void insertNotifiee(TimerWheel* tw, NotifieeConst* n, U32 ticks) {
    WHEEL_TRACE(9, "InsertNotifiee at future ticks ", ticks);
    U64 t = ticks;
    const U32 last = tw->bucketCount() - 1;
    for (U32 b = 0;; ++b) {
      const TimerWheel::Bucket& bucket = tw->buckets_[b];
      const U64 size = bucket.size;
      const U64 current = bucket.current;
      if (t < size - current) {
        fileAt(tw, n, b, static_cast<U32>(current + t));
        return;
      }
      if (b == last) {
        if (t >= size) {
          WHEEL_TRACE(7, "Reducing timeout to fit the maximum timer capacity");
          t = size - 1;
        }
        fileAt(tw, n, b, static_cast<U32>((current + t) % size));
        return;
      }
      t = bucket.sizeShift ? (t + current) >> bucket.sizeShift
                           : divide(t + current, bucket.size, bucket.sizeInverse);
    }
  }

  // Takes n out of its slot list and the counters, without touching the clock.
  static void unlink(TimerWheel* tw, NotifieeConst* n) {
    // Among many timers the neighbours are rarely in cache: ask for both
    // lines at once, ready to be written, before the stores wait on them.
    __builtin_prefetch(n->prev_, 1);
    __builtin_prefetch(n->next_, 1);
    const U32 bucketIndex = n->bucketIndex_;
    const U32 index = n->wheelIndex_;
    HeadNTail* slot = &tw->buckets_[bucketIndex].slots[index];
    ZUM_ASSERT_TEXT(prev(n) || slot->h == n, "wheelAt( tw, bucketIndex, index )->h == next( n )");
    ZUM_ASSERT_TEXT(next(n) || slot->t == n, "wheelAt( tw, bucketIndex, index )->t == prev( n )");
    (n->prev_ ? n->prev_->next_ : slot->h) = n->next_;
    (n->next_ ? n->next_->prev_ : slot->t) = n->prev_;
    n->next_ = n->prev_ = nullptr;
    n->wheelIndex_ = InvalidWheelIndex;
    n->bucketIndex_ = InvalidBucketIndex;
    countOut(tw, bucketIndex);
  }

  static void removeNotifiee(TimerWheel* tw, NotifieeConst* n) {
    const U32 bucket = n->bucketIndex_;
    const U32 index = n->wheelIndex_;
    unlink(tw, n);
    // While firing, the firing loop sets the clock when it is done.
    if (!tw->systemClockHandlerActive()) maybeUpdateSystemClock(tw, bucket, index, false);
  }

  // The first used bucket-0 slot at or after `from` (never before the current
  // slot), or InvalidWheelIndex.
  static U32 findNextUsedIndex(const TimerWheel* tw, U32 from) {
    const TimerWheel::Bucket& b0 = tw->buckets_[0];
    for (U32 i = std::max(from, b0.current); i < b0.size; ++i) {
      if (b0.slots[i].h) return i;
    }
    return InvalidWheelIndex;
  }
  static U32 nextScheduleIndex(const TimerWheel* tw, U32 from) {
    const U32 next = findNextUsedIndex(tw, from);
    return next == InvalidWheelIndex ? tw->ghostTimerIndex() : next;
  }

  static void setClockFor(TimerWheel* tw, U32 s) {
    const Seconds offset = ticksToSeconds(tw, s - tw->currentWheelIndex(0));
    tw->doUpdateSystemClock(
        tw->systemClockTakesOffsetTime() ? offset : tw->currentWheelIndexTime_ + offset, s);
  }

  static void maybeUpdateSystemClock(TimerWheel* tw, U32 b, U32 i, bool added) {
    WHEEL_TRACE(9, "maybeUpdateSystemClock", " after add/remove? ", added, " event in bucketIndex ",
                b, " wheelIndex ", i);
    ZUM_ASSERT(tw->currentWheelIndex( 0 ) != InvalidWheelIndex);
    ZUM_ASSERT(!tw->systemClockHandlerActive());
    const U32 scheduled = tw->scheduledWheelIndex();
    if (added) {
      if (scheduled == InvalidWheelIndex) {
        ZUM_ASSERT(tw->timers() == 1);
        setClockFor(tw, b == 0 ? i : tw->ghostTimerIndex());
      } else if (b == 0 && i < scheduled) {
        setClockFor(tw, i);
      }
      return;
    }
    if (tw->timers() == 0) {
      shutdownWheel(tw);
    } else if (b == 0 && i == scheduled && !wheelAt(tw, 0, i)) {
      setClockFor(tw, nextScheduleIndex(tw, i));
    }
  }

  // Moves the wheel time forward by `ticks` whole ticks.
  static void advance(TimerWheel* tw, U32 ticks) {
    tw->currentWheelIndexTime_ += ticksToSeconds(tw, ticks);
    tw->buckets_[0].current += ticks;
  }

  static void maybePullUpWheelTime(TimerWheel* tw) {
    ZUM_ASSERT(tw->currentWheelIndexTime() != Zum::endOfTime);
    ZUM_ASSERT(tw->scheduledWheelIndex() != InvalidWheelIndex);
    const Seconds elapsed = now(tw) - tw->currentWheelIndexTime();
    const U64 ms = elapsed > 0 ? roundedMsecs(elapsed) : 0;
    if (ms < tw->tickMsecs_) return;  // not a whole tick yet
    const U64 d = divide(ms, tw->tickMsecs_, tw->tickInverse_);
    const U32 c = tw->currentWheelIndex(0);
    const U32 s = tw->scheduledWheelIndex();
    WHEEL_TRACE(9, "PullingUp current index ", c, " sched index ", s, " now dist ", d,
                " schedDistTicks ", (s - c));
    advance(tw, static_cast<U32>(std::min<U64>(d, s - c)));
  }

  static void startWheel(TimerWheel* tw) {
    for (TimerWheel::Bucket& b : tw->buckets_) b.current = 0;
    tw->currentWheelIndexTime_ = now(tw);
  }

  static void newTimer(TimerWheel* tw, NotifieeConst* n) {
    WHEEL_TRACE(9, "newTimer: ", id(n));
    if (tw->scheduledWheelIndex() != InvalidWheelIndex) maybePullUpWheelTime(tw);
    ZUM_ASSERT(!tw->systemClockHandlerActive());
    if (tw->currentWheelIndexTime() == endOfTime) startWheel(tw);
    insertNotifiee(tw, n, forwardTicks(tw, n));
    maybeUpdateSystemClock(tw, n->bucketIndex_, n->wheelIndex_, true);
  }

  // Files n at its timeMin, which is finite.
  static void addTimer(TimerWheel* tw, NotifieeConst* n) {
    if (!clock(tw)) {
      WHEEL_TRACE(5, "Setting notifiee ", id(n), " to endOfTime");
      n->timeMin_ = endOfTime;
    } else if (tw->systemClockHandlerActive()) {
      insertNotifiee(tw, n, forwardTicks(tw, n));
    } else {
      newTimer(tw, n);
    }
  }

  static void timeUpdateIs(TimerWheel* tw, NotifieeConst* n) {
    ZUM_ASSERT(!isnan( n->timeMin() ));
    if (n->wheelIndex_ != InvalidWheelIndex) removeNotifiee(tw, n);
    if (n->timeMin_ != endOfTime) addTimer(tw, n);
  }

  static void shutdownWheel(TimerWheel* tw) {
    WHEEL_TRACE(8, "Wheel being shut down");
    ZUM_ASSERT(tw->timers() == 0);
    ZUM_ASSERT(!tw->systemClockHandlerActive());
    tw->currentWheelIndexTime_ = endOfTime;
    for (TimerWheel::Bucket& b : tw->buckets_) b.current = InvalidWheelIndex;
    tw->doUpdateSystemClock(endOfTime, InvalidWheelIndex);
  }

  // Refiles every timer of slot `index` of bucket `b` by its remaining ticks.
  static void refileSlot(TimerWheel* tw, U32 b, U32 index) {
    while (HeadNTail* hnt = wheelAt(tw, b, index)) {
      NotifieeConst* n = hnt->h;
      prefetchNext(n);
      unlink(tw, n);
      insertNotifiee(tw, n, forwardTicks(tw, n));
    }
  }

  // Starts a new round of bucket 0: the next slot of bucket 1 becomes current
  // (carrying into higher buckets at their ends) and its timers move down.
  static void rearrangeTimers(TimerWheel* tw) {
    WHEEL_TRACE(8, "rearrange timers");
    ZUM_ASSERT(tw->scheduledWheelIndex() == tw->ghostTimerIndex());
    U32 current = tw->currentWheelIndex(0);
    ZUM_ASSERT(current == tw->ghostTimerIndex());
    tw->buckets_[0].current = 0;
    for (U32 b = 1; b < tw->bucketCount(); ++b) {
      TimerWheel::Bucket& bucket = tw->buckets_[b];
      const bool carry = ++bucket.current == bucket.size;
      if (carry) bucket.current = 0;
      current = bucket.current;
      refileSlot(tw, b, current);
      ZUM_ASSERT_TEXT(wheelAt(tw, b, current) == 0, "wheelAt( tw, iter.key(), current ) == 0");
      if (!carry) break;
    }
  }

  // Brings the wheel time to bucket-0 slot s (the ghost slot cascades into a
  // new round, whose slot 0 becomes current).
  static void moveWheelTo(TimerWheel* tw, U32 s) {
    advance(tw, s - tw->currentWheelIndex(0));
    if (s == tw->ghostTimerIndex()) rearrangeTimers(tw);
  }

  // Calls every timer in the current bucket-0 slot, including any filed into
  // it while firing.
  static void fireCurrentSlot(TimerWheel* tw) {
    const U32 index = tw->currentWheelIndex(0);
    while (HeadNTail* hnt = wheelAt(tw, 0, index)) {
      NotifieeConst* n = hnt->h;
      prefetchNext(n);
      unlink(tw, n);
      n->timeMin_ = endOfTime;
      WHEEL_TRACE(9, "call onTime");
      WHEEL_TRACE(9, "call onTime of ", id(n));
      n->onTime();
      WHEEL_TRACE(9, "call onTime completed");
    }
  }
};

}  // namespace TimerWheelImpl

using TimerWheelImpl::Ops;

TimerWheel::NotifieeConst::~NotifieeConst() { notifierIs(nullptr); }

void TimerWheel::NotifieeConst::timeMinIs(Seconds t) {
  if (t == timeMin_) return;
  timeMin_ = t;
  if (const Ptr<const TimerWheel>& tw = notifier()) {
    Ops::timeUpdateIs(const_cast<TimerWheel*>(tw.ptr()), this);
  }
}

TimerWheel::TimerWheel(const Ptr<Zum::Clock>& systemClock, U32 tickMsecs, U32 initialMaxTicks,
                       bool preserveOrder, U32 defaultBucketSize)
    : Entity("TimerWheel"),
      tickMsecs_(tickMsecs),
      initialMaxTicks_(initialMaxTicks),
      preserveOrder_(preserveOrder),
      defaultBucketSize_(defaultBucketSize),
      reactor_(std::make_unique<SystemClockReactor>(this)) {
  if (tickMsecs < 1 || tickMsecs > 3600000) {
    throw Zum::RangeException("TimerWheel::tickMsecs < 1 or > 3600000 not allowed");
  }
  if (initialMaxTicks < 2) {
    throw Zum::RangeException("TimerWheel::initialMaxTicks < 2 or > 0xffffffff not allowed");
  }
  if (defaultBucketSize < 2 || defaultBucketSize > 0x10000) {
    throw Zum::RangeException("TimerWheel::defaultBucketSize < 2 or > 0x10000 not allowed");
  }
  tickInverse_ = 1.0 / tickMsecs;
  reactor_->notifierIs(systemClock);
}

TimerWheel::~TimerWheel() = default;

Ptr<TimerWheel> timerWheelFactory(const Ptr<Zum::Clock>& systemClock, U32 tickMsecs,
                                  U32 initialMaxTicks, bool preserveOrder, U32 defaultBucketSize) {
  return Zum::create<TimerWheel>(systemClock, tickMsecs, initialMaxTicks, preserveOrder,
                                 defaultBucketSize);
}

Ptr<TimerWheel> timerWheelFactory(const Ptr<Zum::Clock>& systemClock) {
  return timerWheelFactory(systemClock, 10, 8640000, true, 1024);
}

const Ptr<Zum::Clock>& TimerWheel::systemClock() const { return reactor_->notifier(); }

void TimerWheel::systemClockIs(const Ptr<Zum::Clock>& clock) { reactor_->notifierIs(clock); }

void TimerWheel::processTimeLimitIs(Seconds limit) {
  if (!(limit >= 0 && limit <= 0.5)) {
    throw Zum::RangeException("TimerWheel::processTimeLimit < 0 or > 0.5 not allowed");
  }
  processTimeLimit_ = limit;
}

U64 TimerWheel::wheelBase(U32 bucket) const {
  return reinterpret_cast<uintptr_t>(buckets_[bucket].slots.get());
}

void TimerWheel::handleInitialized() {
  ZUM_ASSERT(!initialized());
  maxTicks_ = 1;
  initialized_ = true;
  while (maxTicks_ < initialMaxTicks_) doAddNewBucket(defaultBucketSize_);
  if (bucketCount() == 1) doAddNewBucket(defaultBucketSize_);
  ZUM_ASSERT(bucketCount() >= 2);
  WHEEL_TRACE(5, "TimerWheel::handleInitialized: Total buckets created ", bucketCount(), " of ",
              defaultBucketSize_, " each.");
  Ops::shutdownWheel(this);
}

void TimerWheel::doAddNewBucket(BucketSize size) {
  ZUM_ASSERT(timers() == 0);
  const U32 b = bucketCount();
  WHEEL_TRACE(5, "TimerWheel::doAddNewBucket", " ## Add a new bucket to index ", b, " of size ",
              size.value());
  const U32 shift = std::has_single_bit(size.value()) ? std::countr_zero(size.value()) : 0;
  buckets_.push_back(Bucket{size, std::make_unique<HeadNTail[]>(size), 0, 0, shift, 1.0 / size});
  maxTicks_ = static_cast<U32>(std::min<U64>(U64(maxTicks_) * size, 0xFFFFFFFF));
  WHEEL_TRACE(5, "Total number of buckets now is ", bucketCount());
}

void TimerWheel::newNotifieeInternal(Zum::RootNotifiee* root) const {
  if (!initialized()) return;  // no buckets to file into yet
  auto* tw = const_cast<TimerWheel*>(this);
  auto* n = static_cast<NotifieeConst*>(root);
  WHEEL_TRACE(9, "newNotifiee: ", id(n), " timeMin is ", n->timeMin());
  if (!n->isRegisteredNotifiee()) {
    WHEEL_TRACE(3, "newNotifiee: ", id(n), " is invalid and cannot be added.",
                " n->isRegisteredNotifiee() - ", n->isRegisteredNotifiee(),
                " n->zumMarkedForDeletion() - ", false);
    return;
  }
  const Seconds when = n->timeMin();
  if (when == endOfTime) return;  // not filed: its indexes are invalid already
  WHEEL_TRACE(9, "newNotfiee: Adding notifiee ", id(n), " with timeMin ", when);
  ZUM_ASSERT(!isnan( when ));
  Ops::addTimer(tw, n);
}

void TimerWheel::deleteNotifieeInternal(Zum::RootNotifiee* root) const {
  auto* n = static_cast<NotifieeConst*>(root);
  if (n->wheelIndex() != InvalidWheelIndex) Ops::removeNotifiee(const_cast<TimerWheel*>(this), n);
}

void TimerWheel::doUpdateSystemClock(Seconds time, U32 index) {
  ZUM_ASSERT(!systemClockHandlerActive());
  WHEEL_TRACE(9, " doUpdateSystemClock to time ", time, ", index ", index, " time now is ",
              (systemClock() ? systemClock()->now() : endOfTime));
  scheduledWheelIndex_ = index;
  reactor_->timeMinIs(time);
  WHEEL_TRACE(9, "Returning from doUpdateSystemClock at ", time);
}

void TimerWheel::handleSystemClock() {
  if (!initialized()) return;
  const Seconds start = Ops::now(this);
  U32 schedIndex = scheduledWheelIndex();
  for (;;) {
    WHEEL_TRACE(8, "In handleSystemClock at ", Ops::now(this), " schedIndex ", schedIndex);
    ZUM_ASSERT(schedIndex != InvalidWheelIndex);
    ZUM_ASSERT(!systemClockHandlerActive());
    systemClockHandlerActive_ = true;
    Ops::moveWheelTo(this, schedIndex);
    Ops::fireCurrentSlot(this);
    systemClockHandlerActive_ = false;
    if (timers() == 0) {
      Ops::shutdownWheel(this);
      return;
    }
    schedIndex = Ops::nextScheduleIndex(this, currentWheelIndex(0));
    scheduledWheelIndex_ = schedIndex;
    const Seconds now = Ops::now(this);
    if (now - start >= processTimeLimit() || Ops::slotTime(this, schedIndex) > now) break;
  }
  Ops::setClockFor(this, schedIndex);
  WHEEL_TRACE(8, "Completed handleSystemClock at ", Ops::now(this));
}

void TimerWheel::dump(const Ptr<const DumpContext>& ctx) const {
  if (ctx && ctx->isDumped(this)) {
    objDumpPrintf(ctx, "TimerWheel %p: see line %u\n", static_cast<const void*>(this),
                  ctx->getDumpLineForObj(this));
    return;
  }
  if (ctx) ctx->markObject(this);
  objDumpPrintf(ctx, "TimerWheel %p: tickMsecs %u maxTicks %u buckets %u nonEmptyBuckets %u\n",
                static_cast<const void*>(this), tickMsecs_, maxTicks_, bucketCount(), timers());
  objDumpPrintf(ctx, "  currentWheelIndexTime %.3f scheduledWheelIndex %u ghostTimerIndex %u "
                "processTimeLimit %.3f\n",
                currentWheelIndexTime_, scheduledWheelIndex_, ghostTimerIndex(),
                processTimeLimit_);
  for (U32 b = 0; b < bucketCount(); ++b) {
    const Bucket& bucket = buckets_[b];
    objDumpPrintf(ctx, "  bucket %u: size %u currentWheelIndex %u timers %u\n", b, bucket.size,
                  bucket.current, bucket.timers);
    if (!ctx || ctx->level() != dumpVerbose) continue;
    for (U32 i = 0; i < bucket.size; ++i) {
      if (!bucket.slots[i].h) continue;
      U32 count = 0;
      for (const NotifieeConst* n = bucket.slots[i].h; n; n = Ops::next(n)) ++count;
      objDumpPrintf(ctx, "    slot %u: %u timers\n", i, count);
    }
  }
}

}  // namespace Olk
