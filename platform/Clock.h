// Clocks and clock notifiees: "call me back at time t".
//
// A `Clock::Notifiee` asks for a call by setting `timeMinIs(t)`: `endOfTime`
// means no call, 0.0 (or any past time) means as soon as possible. When the
// time comes the clock clears the notifiee's `timeMin` to `endOfTime` and
// calls `onTime()` once; a notifiee that wants another call sets a new time,
// from inside `onTime()` if it likes. Due notifiees are called in order of
// `timeMin`, and in the order their times were set when equal.
//
// Two clocks: `SystemClock`, the wall clock, which the activity loop drives;
// and `ManualClock` for tests, whose time moves only when told and which
// fires what falls due as it moves. Components take the clock as a
// `Ptr<Clock>` and never read time any other way.
//
// A component given no clock (a null `Ptr<Clock>`) follows one rule: it
// schedules nothing of its own (it sets no wake-up time, and work it would
// spread over time runs at once), and where it still has to read the time,
// or its factory documents the clock as optional, it uses the activity
// loop's clock through `clockOrLoop()`.
//
// Scheduled notifiees sit in a binary heap indexed from each notifiee, so
// setting, moving or cancelling a time is O(log n) whatever else is scheduled.
#pragma once

#include <cstddef>
#include <vector>

#include "platform/Entity.h"
#include "platform/Notifier.h"
#include "platform/Types.h"

namespace Zum {

class Clock;

// `clock`, or the calling thread's activity loop clock when it is null.
Ptr<Clock> clockOrLoop(const Ptr<Clock>& clock);

class Clock : public Entity, public Notifier {
 public:
  class Notifiee : public BaseNotifiee<Clock> {
   public:
    // Leaves the clock while still a Notifiee: the clock looks at the
    // schedule fields as it lets go.
    ~Notifiee() override { notifierIs(nullptr); }

    Seconds timeMin() const { return timeMin_; }
    // Sets the wake-up time; takes effect at once if attached to a clock,
    // otherwise when attached. NaN is refused by assertion.
    void timeMinIs(Seconds t);
    virtual void onTime() {}

   private:
    friend class Clock;
    static constexpr std::size_t notQueued = static_cast<std::size_t>(-1);

    Seconds timeMin_ = endOfTime;
    std::size_t heapIndex_ = notQueued;  // position in the clock's heap
    U64 order_ = 0;                      // tie-break: when timeMin_ was set
  };

  virtual Seconds now() const = 0;
  // The earliest wake-up time asked for, endOfTime when none.
  Seconds nextTime() const;
  std::size_t scheduledCount() const { return heap_.size(); }

  // Calls every notifiee due at `t` (timeMin <= t) whose time was set before
  // this call and returns how many were called;
  // ones that ask again for a time <= t from inside the pass wait
  // for the next pass, so a busy notifiee cannot starve the loop.
  std::size_t fireDue(Seconds t);

  void newNotifieeInternal(RootNotifiee* n) const override;
  void deleteNotifieeInternal(RootNotifiee* n) const override;

 protected:
  explicit Clock(Name name) : Entity(std::move(name)) {}
  // Fires the single earliest notifiee if it is due at `t`; false otherwise.
  bool fireNext(Seconds t, U64 orderLimit);

 private:
  static bool earlier(const Notifiee* a, const Notifiee* b);
  void schedule(Notifiee* n) const;
  void unschedule(Notifiee* n) const;
  void place(std::size_t i) const;
  void siftUp(std::size_t i) const;
  void siftDown(std::size_t i) const;

  mutable std::vector<Notifiee*> heap_;  // min-heap on (timeMin_, order_)
  mutable U64 nextOrder_ = 0;
};

// The wall clock (CLOCK_REALTIME, seconds since the epoch).
class SystemClock : public Clock {
 public:
  Seconds now() const override;

 private:
  template <class T, class... A>
  friend Ptr<T> create(A&&...);
  SystemClock() : Clock("SystemClock") {}
};

// A clock for tests: time stands still until nowIs()/advance() moves it.
class ManualClock : public Clock {
 public:
  Seconds now() const override { return now_; }
  // Moves to `t`, calling each notifiee that falls due on the way in time
  // order, with now() equal to its time during its call; includes notifiees
  // scheduled by those calls. Moving backwards fires nothing.
  void nowIs(Seconds t);
  void advance(Seconds dt) { nowIs(now_ + dt); }
  // Fires whatever is due at the present time.
  void fire() { nowIs(now_); }

 private:
  template <class T, class... A>
  friend Ptr<T> create(A&&...);
  explicit ManualClock(Seconds start) : Clock("ManualClock"), now_(start) {}

  Seconds now_;
};

// The wall clock (CLOCK_REALTIME) and the monotonic clock, in seconds. Only
// the platform reads them directly; components take a Clock.
Seconds wallTime();
Seconds monotonicTime();

Ptr<SystemClock> systemClockFactory();
// A manual clock starting at `start` seconds.
Ptr<ManualClock> manualClockFactory(Seconds start = 1000.0);

}  // namespace Zum
