#include "platform/Clock.h"

#include <time.h>

#include <cmath>

#include "platform/Exception.h"

namespace Zum {

void Clock::Notifiee::timeMinIs(Seconds t) {
  ZUM_ASSERT(!std::isnan(t));
  if (t == timeMin_ && heapIndex_ != notQueued) return;
  timeMin_ = t;
  if (const Ptr<Clock>& clock = notifier()) clock->schedule(this);
}

Seconds Clock::nextTime() const { return heap_.empty() ? endOfTime : heap_.front()->timeMin_; }

void Clock::newNotifieeInternal(RootNotifiee* n) const {
  Notifier::newNotifieeInternal(n);
  schedule(static_cast<Notifiee*>(n));
}

void Clock::deleteNotifieeInternal(RootNotifiee* n) const {
  unschedule(static_cast<Notifiee*>(n));
  Notifier::deleteNotifieeInternal(n);
}

bool Clock::earlier(const Notifiee* a, const Notifiee* b) {
  if (a->timeMin_ != b->timeMin_) return a->timeMin_ < b->timeMin_;
  return a->order_ < b->order_;
}

void Clock::schedule(Notifiee* n) const {
  if (n->timeMin_ == endOfTime) {
    unschedule(n);
    return;
  }
  n->order_ = nextOrder_++;
  if (n->heapIndex_ == Notifiee::notQueued) {
    n->heapIndex_ = heap_.size();
    heap_.push_back(n);
  }
  place(n->heapIndex_);
}

void Clock::unschedule(Notifiee* n) const {
  std::size_t i = n->heapIndex_;
  if (i == Notifiee::notQueued) return;
  n->heapIndex_ = Notifiee::notQueued;
  Notifiee* last = heap_.back();
  heap_.pop_back();
  if (last == n) return;
  heap_[i] = last;
  last->heapIndex_ = i;
  place(i);
}

void Clock::place(std::size_t i) const {
  Notifiee* n = heap_[i];
  siftUp(i);
  siftDown(n->heapIndex_);
}

void Clock::siftUp(std::size_t i) const {
  Notifiee* n = heap_[i];
  while (i > 0) {
    std::size_t parent = (i - 1) / 2;
    if (!earlier(n, heap_[parent])) break;
    heap_[i] = heap_[parent];
    heap_[i]->heapIndex_ = i;
    i = parent;
  }
  heap_[i] = n;
  n->heapIndex_ = i;
}

void Clock::siftDown(std::size_t i) const {
  Notifiee* n = heap_[i];
  const std::size_t size = heap_.size();
  for (;;) {
    std::size_t child = 2 * i + 1;
    if (child >= size) break;
    if (child + 1 < size && earlier(heap_[child + 1], heap_[child])) ++child;
    if (!earlier(heap_[child], n)) break;
    heap_[i] = heap_[child];
    heap_[i]->heapIndex_ = i;
    i = child;
  }
  heap_[i] = n;
  n->heapIndex_ = i;
}

bool Clock::fireNext(Seconds t, U64 orderLimit) {
  if (heap_.empty()) return false;
  Notifiee* n = heap_.front();
  if (n->timeMin_ > t || n->order_ >= orderLimit) return false;
  unschedule(n);
  n->timeMin_ = endOfTime;
  n->onTime();
  return true;
}

std::size_t Clock::fireDue(Seconds t) {
  DestructorGuard guard(this);  // a notifiee may drop the last other reference
  const U64 limit = nextOrder_;
  std::size_t fired = 0;
  while (fireNext(t, limit)) ++fired;
  return fired;
}

namespace {

Seconds readClock(clockid_t id) {
  timespec ts;
  clock_gettime(id, &ts);
  return static_cast<Seconds>(ts.tv_sec) + static_cast<Seconds>(ts.tv_nsec) * 1e-9;
}

}  // namespace

Seconds wallTime() { return readClock(CLOCK_REALTIME); }

Seconds monotonicTime() { return readClock(CLOCK_MONOTONIC); }

Seconds SystemClock::now() const { return wallTime(); }

void ManualClock::nowIs(Seconds t) {
  ZUM_ASSERT(!std::isnan(t));
  DestructorGuard guard(this);
  for (;;) {
    Seconds next = nextTime();
    if (next > t) break;
    if (next > now_) now_ = next;
    fireNext(now_, static_cast<U64>(-1));
  }
  now_ = t;
}

Ptr<SystemClock> systemClockFactory() { return create<SystemClock>(); }

Ptr<ManualClock> manualClockFactory(Seconds start) { return create<ManualClock>(start); }

}  // namespace Zum
