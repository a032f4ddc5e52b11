#include "Olk/EventClock.h"

#include "platform/ActivityManager.h"
#include "platform/Trace.h"

namespace Olk {

namespace {

Zum::TraceHandle& trace() {
  static Zum::TraceHandle& h = Zum::traceHandle("EventClock");
  return h;
}

}  // namespace

EventClock::EventClock(const Ptr<Zum::Clock>& clock, Seconds pollingInterval, Seconds timeout)
    : pollingInterval_(pollingInterval), timeout_(timeout) {
  if (!clock) return;
  clock_ = std::make_unique<ZumClock>(this);
  clock_->notifierIs(clock);
}

Ptr<EventClock> EventClockIs(const Ptr<Zum::Clock>& clock, Seconds pollingInterval, Seconds timeout) {
  return Zum::create<EventClock>(clock, pollingInterval, timeout);
}

Seconds EventClock::now() const {
  return Zum::clockOrLoop(clock_ ? clock_->notifier() : nullptr)->now();
}

void EventClock::deadlineIs(Seconds t) {
  attributeIs(deadline_, t, &NotifieeConst::onDeadline);
}

void EventClock::eventCheckInc(U32 n) {
  if (n == 0) return;
  eventCheck_ += n;
  notify(&NotifieeConst::onEventCheck);
}

void EventClock::timerExpirationInc(U32 n) {
  if (n == 0) return;
  timerExpiration_ += n;
  notify(&NotifieeConst::onTimerExpiration);
}

void EventClock::start() {
  const Seconds t = now();
  deadlineIs(t + timeout_);
  ZUM_TRACE(trace(), 8) << "start" << " Now: " << t << ", deadline: " << deadline_
                        << " polling interval: " << pollingInterval_;
  handleClock();
}

void EventClock::handleClock() {
  ZUM_TRACE(trace(), 9) << "handleClock";
  const Seconds t = now();
  if (!(deadline_ < t)) {
    const Seconds next = t + pollingInterval_;
    if (clock_) clock_->timeMinIs(next);
    ZUM_TRACE(trace(), 9) << "handleClock" << " Retriggering timer to " << next;
    eventCheckInc(1);
    return;
  }
  ZUM_TRACE(trace(), 8) << "handleClock" << " TIMEOUT!";
  stop();
  timerExpirationInc(1);
}

void EventClock::stop() {
  ZUM_TRACE(trace(), 8) << "stop" << " TimeMin was: " << (clock_ ? clock_->timeMin() : Zum::endOfTime);
  if (clock_) clock_->timeMinIs(Zum::endOfTime);
}

}  // namespace Olk
