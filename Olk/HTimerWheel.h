// TimerWheel: many timers multiplexed onto one notifiee of a system clock.
//
// Each timer is a `TimerWheel::NotifieeConst` attached with a wake-up time
// `timeMin`; the wheel files it into a slot of a hierarchy of wheels
// ("buckets"; bucket k has slots of defaultBucketSize^k ticks) and sets the
// clock for the earliest used slot of bucket 0 only. Filing and removal cost
// the same at any number of timers. A timer fires once per time given, never
// before it (to half a millisecond), at most one tick after; a slot fires in
// filing order. Times beyond `maxTicks` are parked in the farthest slot and
// refiled. Tick counts saturate at 0xFFFFFFFF and slot times are reckoned in
// 64 bits, so a far time never wraps round into a near one and fires early.
// onTime() may add, move, remove or destroy timers; that only files them,
// measured from the slot being fired (none can land in a slot already passed
// and be lost), and the firing loop sets the clock once when it is done.
// One clock callback fires for at most `processTimeLimit` seconds.
#pragma once

#include <memory>
#include <vector>

#include "Olk/DumpContext.h"
#include "Olk/Types.h"
#include "platform/Clock.h"
#include "platform/Entity.h"
#include "platform/Notifier.h"

namespace Olk {

// Defined first: a timer's members start out with these values.
inline constexpr U32 InvalidWheelIndex = 0xcafefeed;
inline constexpr U32 InvalidBucketIndex = 0xcafefeed;

class BucketSize;
struct HeadNTail;

// Internal operations on the wheel, kept out of the class interface.
namespace TimerWheelImpl {
struct __attribute__((visibility("hidden"))) Ops;
}

class TimerWheel : public Zum::Entity {
 public:
  // A timer. Attach it with notifierIs(wheel); set timeMin to schedule it
  // (before or after attaching), endOfTime to cancel. When it fires its
  // timeMin is already endOfTime; onTime() may set a new one.
  class NotifieeConst : public Zum::BaseNotifiee<const TimerWheel> {
   public:
    NotifieeConst() = default;
    ~NotifieeConst() override;

    Seconds timeMin() const { return timeMin_; }
    // Moves the timer; an unchanged time does nothing. NaN aborts.
    void timeMinIs(Seconds t);
    virtual void onTime() {}

    U32 wheelIndex() const { return wheelIndex_; }
    U32 bucketIndex() const { return bucketIndex_; }

   private:
    friend struct TimerWheelImpl::Ops;
    Seconds timeMin_ = Zum::endOfTime;
    U32 wheelIndex_ = InvalidWheelIndex;    // slot, valid exactly while filed
    U32 bucketIndex_ = InvalidBucketIndex;  // bucket, valid exactly while filed
    NotifieeConst* next_ = nullptr;         // toward the tail of the slot list
    NotifieeConst* prev_ = nullptr;         // toward the head of the slot list
  };

  // Checks tick length, capacity and bucket size, in that order. Create it
  // through timerWheelFactory (or Zum::create for a derived wheel), which
  // builds the buckets at once.
  TimerWheel(const Ptr<Zum::Clock>& systemClock, U32 tickMsecs, U32 initialMaxTicks,
             bool preserveOrder, U32 defaultBucketSize);
  ~TimerWheel() override;

  const Ptr<Zum::Clock>& systemClock() const;
  // Moves the wheel's wake-up to another clock; the pending time carries over.
  void systemClockIs(const Ptr<Zum::Clock>& clock);
  // Detaches from the clock: timers filed later are set to endOfTime.
  void systemClockDel() { systemClockIs(nullptr); }

  U32 tickMsecs() const { return tickMsecs_; }
  U32 initialMaxTicks() const { return initialMaxTicks_; }
  bool preserveOrder() const { return preserveOrder_; }
  U32 defaultBucketSize() const { return defaultBucketSize_; }
  U32 maxTicks() const { return maxTicks_; }

  Seconds processTimeLimit() const { return processTimeLimit_; }
  // Throws RangeException outside 0 to 0.5.
  void processTimeLimitIs(Seconds limit);

  U32 bucketCount() const { return static_cast<U32>(buckets_.size()); }
  U32 bucketSize(U32 bucket) const { return buckets_[bucket].size; }
  U64 wheelBase(U32 bucket) const;
  U32 currentWheelIndex(U32 bucket) const { return buckets_[bucket].current; }
  // Timers filed in `bucket`; 0 for an empty bucket.
  U32 timer(U32 bucket) const { return buckets_[bucket].timers; }
  // Number of buckets holding timers.
  U32 timers() const { return nonEmptyBuckets_; }
  U32 remainingNonEmptyBuckets() const { return nonEmptyBuckets_; }
  // The slot just past the end of bucket 0 (2 before bucket 0 exists).
  U32 ghostTimerIndex() const { return buckets_.empty() ? 2 : buckets_[0].size; }

  Seconds currentWheelIndexTime() const { return currentWheelIndexTime_; }
  U32 scheduledWheelIndex() const { return scheduledWheelIndex_; }
  bool systemClockHandlerActive() const { return systemClockHandlerActive_; }
  bool systemClockTakesOffsetTime() const { return systemClockTakesOffsetTime_; }
  // When set, the clock is given times relative to currentWheelIndexTime.
  void systemClockTakesOffsetTimeIs(bool v) { systemClockTakesOffsetTime_ = v; }
  bool initialized() const { return initialized_; }

  // Adds a bucket on top; only while no timer is filed.
  void doAddNewBucket(BucketSize size);

  // Writes buckets, timer counts and the schedule; verbose adds every
  // occupied slot.
  void dump(const Ptr<const DumpContext>& ctx) const;

  // Registration hooks used by NotifieeConst::notifierIs.
  void newNotifieeInternal(Zum::RootNotifiee* n) const;
  void deleteNotifieeInternal(Zum::RootNotifiee* n) const;

 protected:
  void handleInitialized() override;
  // Sets the system clock's wake-up to `time` for bucket-0 slot `index`
  // (endOfTime and InvalidWheelIndex unset it). Never while firing.
  virtual void doUpdateSystemClock(Seconds time, U32 index);

 private:
  friend struct TimerWheelImpl::Ops;
  class SystemClockReactor;

  struct Bucket {
    U32 size;
    std::unique_ptr<HeadNTail[]> slots;  // size entries, each a slot list; h null when empty
    U32 current;                          // slot of the present wheel time; invalid while idle
    U32 timers;                           // timers filed in this bucket
    U32 sizeShift;                        // log2(size) when size is a power of two, else 0
    double sizeInverse;                   // 1.0 / size, for dividing without div
  };

  void handleSystemClock();

  U32 tickMsecs_;
  double tickInverse_;  // 1.0 / tickMsecs_, for dividing without div
  U32 initialMaxTicks_;
  bool preserveOrder_;
  U32 defaultBucketSize_;
  U32 maxTicks_ = 1;  // product of the bucket sizes, saturating at 0xFFFFFFFF
  Seconds processTimeLimit_ = 0.05;
  std::vector<Bucket> buckets_;
  U32 nonEmptyBuckets_ = 0;  // buckets whose timers > 0
  Seconds currentWheelIndexTime_ = 0.0;  // time of slot current of bucket 0; endOfTime while idle
  U32 scheduledWheelIndex_ = InvalidWheelIndex;  // first used bucket-0 slot, or the ghost slot
  bool systemClockHandlerActive_ = false;
  bool systemClockTakesOffsetTime_ = false;
  bool initialized_ = false;
  std::unique_ptr<SystemClockReactor> reactor_;
};

Ptr<TimerWheel> timerWheelFactory(const Ptr<Zum::Clock>& systemClock, U32 tickMsecs,
                                  U32 initialMaxTicks, bool preserveOrder, U32 defaultBucketSize);
// A wheel as the task runtime builds its own: 10 ms ticks, a horizon of
// 8640000 ticks (one day), filing order kept, buckets of 1024 slots.
Ptr<TimerWheel> timerWheelFactory(const Ptr<Zum::Clock>& systemClock);

// Number of slots of one bucket, 2 to 0xfffffffe.
class BucketSize {
 public:
  // Throws RangeException for a value outside the range.
  BucketSize(U32 value);
  U32 value() const { return value_; }
  operator U32() const { return value_; }

 private:
  U32 value_;
};

}  // namespace Olk
