#include "Olk/MallocTrimmerSm.h"

#include <malloc.h>

#include "Olk/DumpContext.h"

namespace Olk {

bool mallocTrimYield(Seconds, U32, void**, U64* freed) {
  const size_t before = mallinfo2().fordblks;
  ::malloc_trim(0);
  const size_t after = mallinfo2().fordblks;
  if (before > after) *freed += before - after;
  return false;
}

MallocTrimmerSm::MallocTrimmerSm(const Ptr<TaskScheduler>& scheduler)
    : scheduler_(scheduler),
      trimTask_(timerTaskFactory(scheduler, TaskPriority::scavenge, "mallocTrimmer")),
      reactor_(this) {
  reactor_.notifierIs(trimTask_);
}

Ptr<MallocTrimmerSm> mallocTrimmerSmFactory(const Ptr<TaskScheduler>& scheduler) {
  return Zum::create<MallocTrimmerSm>(scheduler);
}

void MallocTrimmerSm::doDestroy() {
  trimTask_->stopTimerTask();
  trimTask_->unscheduleTask();
}

void MallocTrimmerSm::mallocTrimQuantumIs(Seconds q) {
  if (!Zum::assignIfChanged(mallocTrimQuantum_, q)) return;
  trimTask_->taskQuantumIs(q);
}

Zum::TraceHandle& MallocTrimmerSm::traceHandle() const {
  static Zum::TraceHandle& fallback = Zum::traceHandle("MallocTrimmer");
  return qth_ ? *qth_ : fallback;
}

int MallocTrimmerSm::traceLevel() const { return qth_ ? static_cast<int>(qtl_) : 8; }

void MallocTrimmerSm::scheduleTrim() {
  if (taskDelayInterval_ == 0) return;
  trimTask_->scheduleTaskJitterUp(taskDelayInterval_, 100);
}

void MallocTrimmerSm::trim() {
  if (!trimTask_->taskCurrentlyRunning()) return;
  ZUM_TRACE(traceHandle(), traceLevel()) << "MallocTrimmer:" << " time quantum " << mallocTrimQuantum_
                                         << " max Iter " << mallocTrimMaxIter_ << " freed so far " << freed_
                                         << " in " << numTrimCount_ << " calls";
  U64 amount = 0;
  const bool yielded = trimFunction_(mallocTrimQuantum_, mallocTrimMaxIter_, &bookmark_, &amount);
  const U32 amount32 = amount > 0xFFFFFFFFull ? 0xFFFFFFFFu : static_cast<U32>(amount);
  trimTask_->taskWorkCountInc(amount32);
  freed_ += amount32;
  ++numTrimCount_;
  if (!yielded) {
    scheduleTrim();
    ZUM_TRACE(traceHandle(), traceLevel()) << "Out of YIELD" << " freed " << freed_ << " in " << numTrimCount_
                                           << " calls";
    freed_ = 0;
    numTrimCount_ = 0;
    return;
  }
  if (trimCountThreshold_ != 0 && numTrimCount_ % trimCountThreshold_ == 0) {
    trimTask_->scheduleTaskDelay(taskDelayInterval_);
    return;
  }
  trimTask_->scheduleTask();
}

void MallocTrimmerSm::dumpState(const Ptr<const DumpContext>& dumpContext, U32) const {
  objDumpPrintf(dumpContext,
                "MallocTrimmerSm: interval %.3f s, quantum %.6f s, max iter %u, threshold %u, "
                "this cycle: %u calls freed %u, next expiry %.3f\n",
                taskDelayInterval_, mallocTrimQuantum_, mallocTrimMaxIter_, trimCountThreshold_, numTrimCount_,
                freed_, trimTask_->currentExpirationTime());
}

}  // namespace Olk
