// ReviewTimer: paces the reviews of pending work with a credit scheme.
//
// A component that keeps pending work (items that could not be placed,
// entries waiting for a retry) asks `doUpdateNextReview()` whenever it wants
// another look. Elapsed whole seconds since `lastReview` earn credits, up to
// `maxCredits`; each planned review spends one. With a full stock the review
// comes after `minDelay`; short of credits the delay doubles each time, up to
// `maxDelay`, so a component that keeps asking backs off. A delay of 0 stays
// 0 under doubling, on purpose: right after construction credits are full
// (lastReview is 0), so the first plan normally starts from minDelay anyway.
//
// The timer owns no clock: it sets the wake-up time of the owner's clock
// reactor, and the owner reviews (and sets `lastReview`) when it fires. The
// reactor must outlive the timer. Single-threaded, on the loop's thread.
#pragma once

#include "Olk/Types.h"
#include "platform/Clock.h"
#include "platform/Entity.h"

namespace Olk {

class ReviewTimer : public Zum::Entity {
 public:
  Zum::Clock::Notifiee* clockNotifiee() const { return clockNotifiee_; }
  float fillInterval() const { return fillInterval_; }
  U32 maxCredits() const { return maxCredits_; }
  float minDelay() const { return minDelay_; }
  float maxDelay() const { return maxDelay_; }
  double delay() const { return delay_; }
  void delayIs(double d) { delay_ = d; }
  U32 credits() const { return credits_; }
  void creditsIs(U32 c) { credits_ = c; }
  double lastReview() const { return lastReview_; }
  void lastReviewIs(double t) { lastReview_ = t; }

  // Plans the next review unless one is pending (see the class comment).
  void doUpdateNextReview();
  // Makes the review due now, whatever was planned.
  void doUpdateNextReviewImmediately();
  // True while the reactor's wake-up time is finite.
  bool reviewPending() const;

 private:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  ReviewTimer(Zum::Clock::Notifiee* clockNotifiee, float fillInterval, U32 maxCredits, float minDelay,
              float maxDelay);
  Seconds now() const;

  Zum::Clock::Notifiee* clockNotifiee_;  // not owned; attached to a clock
  float fillInterval_;                   // configuration only
  U32 maxCredits_;
  float minDelay_;
  float maxDelay_;
  double delay_ = 0;
  U32 credits_ = 0;  // never above maxCredits_ after a plan
  double lastReview_ = 0;
};

Ptr<ReviewTimer> reviewTimerFactory(Zum::Clock::Notifiee* clockNotifiee, float fillInterval, U32 maxCredits,
                                    float minDelay, float maxDelay);

}  // namespace Olk
