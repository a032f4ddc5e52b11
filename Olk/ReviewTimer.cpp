#include "Olk/ReviewTimer.h"

#include <algorithm>
#include <cmath>

#include "platform/ActivityManager.h"
#include "platform/Trace.h"

namespace Olk {

ReviewTimer::ReviewTimer(Zum::Clock::Notifiee* clockNotifiee, float fillInterval, U32 maxCredits, float minDelay,
                         float maxDelay)
    : clockNotifiee_(clockNotifiee),
      fillInterval_(fillInterval),
      maxCredits_(maxCredits),
      minDelay_(minDelay),
      maxDelay_(maxDelay) {}

Ptr<ReviewTimer> reviewTimerFactory(Zum::Clock::Notifiee* clockNotifiee, float fillInterval, U32 maxCredits,
                                    float minDelay, float maxDelay) {
  return Zum::create<ReviewTimer>(clockNotifiee, fillInterval, maxCredits, minDelay, maxDelay);
}

Seconds ReviewTimer::now() const {
  return Zum::clockOrLoop(clockNotifiee_->notifier())->now();
}

bool ReviewTimer::reviewPending() const { return clockNotifiee_->timeMin() != Zum::endOfTime; }

void ReviewTimer::doUpdateNextReview() {
  if (reviewPending()) return;
  const Seconds t = now();
  // Whole seconds since the last review, truncated, summed in 32 bits.
  const U32 earned = static_cast<U32>(static_cast<S64>(std::trunc(t - lastReview_)));
  credits_ = std::min(maxCredits_, static_cast<U32>(earned + credits_));
  delay_ = credits_ < maxCredits_ ? std::min<double>(maxDelay_, 2 * delay_) : minDelay_;
  if (credits_ != 0) --credits_;
  static Zum::TraceHandle& tr = Zum::traceHandle("ReviewTimer");
  ZUM_TRACE(tr, 8) << "ReviewTimer scheduling at " << t << " + " << delay_;
  clockNotifiee_->timeMinIs(t + delay_);
}

void ReviewTimer::doUpdateNextReviewImmediately() { clockNotifiee_->timeMinIs(now()); }

}  // namespace Olk
