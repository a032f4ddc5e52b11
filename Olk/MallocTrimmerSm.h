// MallocTrimmerSm: returns freed heap memory to the system in the background.
//
// A long-running agent frees much memory that the allocator keeps. The
// trimmer runs the allocator's incremental trim as a `scavenge` timer task,
// one bounded call per run: a call that yields (its time quantum or
// iteration bound ran out) is followed by another at once, except that every
// `trimCountThreshold` calls the cycle pauses for `taskDelayInterval`; a call
// that finishes ends the cycle, and the next starts after `taskDelayInterval`
// lengthened by up to 100% at random, so agents started together do not
// trim together. `taskDelayInterval` 0 disables cycles.
//
// The trim call is replaceable (tests use a fake). The default is glibc's
// malloc_trim(0) in one call that never yields: glibc offers no incremental
// trim, so with it a cycle is a single call and may take a few milliseconds.
// Runs on the scheduler's thread.
#pragma once

#include <functional>

#include "Olk/AgentSocketHandler.h"
#include "Olk/Task.h"
#include "Olk/Types.h"
#include "platform/Rivlog.h"
#include "platform/Trace.h"

namespace Olk {

// One trim call: time bound, iteration bound, resume position (kept between
// calls). Adds the bytes it freed to *freed; answers whether it yielded.
using MallocTrimFunction = std::function<bool(Seconds quantum, U32 maxIter, void** bookmark, U64* freed)>;

// The default trim: malloc_trim(0) once, never yielding.
bool mallocTrimYield(Seconds quantum, U32 maxIter, void** bookmark, U64* freed);

class MallocTrimmerSm : public BaseOutputSm {
 public:
  const Ptr<TaskScheduler>& scheduler() const { return scheduler_; }
  // The trace-ring handle trim records go to, at level qtl(); without one
  // they go to the "MallocTrimmer" trace at level 8.
  Rivlog::Handle* qth() const { return qth_; }
  void qthIs(Rivlog::Handle* h) { qth_ = h; }
  U32 qtl() const { return qtl_; }
  void qtlIs(U32 l) { qtl_ = l; }
  Seconds taskDelayInterval() const { return taskDelayInterval_; }
  void taskDelayIntervalIs(Seconds s) { taskDelayInterval_ = s; }
  U32 mallocTrimMaxIter() const { return mallocTrimMaxIter_; }
  void mallocTrimMaxIterIs(U32 n) { mallocTrimMaxIter_ = n; }
  const Ptr<TimerTask>& trimTask() const { return trimTask_; }
  Seconds mallocTrimQuantum() const { return mallocTrimQuantum_; }
  // Also becomes the trim task's quantum.
  void mallocTrimQuantumIs(Seconds q);
  U32 freed() const { return freed_; }
  U32 numTrimCount() const { return numTrimCount_; }
  U32 trimCountThreshold() const { return trimCountThreshold_; }
  void trimCountThresholdIs(U32 n) { trimCountThreshold_ = n; }
  void* bookmark() const { return bookmark_; }
  void mallocTrimFunctionIs(MallocTrimFunction f) { trimFunction_ = std::move(f); }

  // Starts the next cycle after the jittered interval; nothing when disabled.
  void scheduleTrim();
  // One trim call; does nothing unless run by the trim task.
  void trim();

  void dumpState(const Ptr<const DumpContext>& dumpContext, U32 level) const override;

 protected:
  explicit MallocTrimmerSm(const Ptr<TaskScheduler>& scheduler);
  void handleInitialized() override { doInit(); }
  void handleDel() override { doDestroy(); }
  void doInit() { scheduleTrim(); }
  void doDestroy();

 private:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);

  class ZumTrimTask : public Task::NotifieeConst {
   public:
    explicit ZumTrimTask(MallocTrimmerSm* owner) : owner_(owner) {}
    void onTaskRun() override { owner_->trim(); }

   private:
    MallocTrimmerSm* owner_;
  };

  void traceTrim(const String& text) const;

  Ptr<TaskScheduler> scheduler_;
  Rivlog::Handle* qth_ = nullptr;
  U32 qtl_ = 0;
  Seconds taskDelayInterval_ = 30.0;
  U32 mallocTrimMaxIter_ = 10000;
  Ptr<TimerTask> trimTask_;
  Seconds mallocTrimQuantum_ = 0;
  U32 freed_ = 0;         // this cycle
  U32 numTrimCount_ = 0;  // calls this cycle
  U32 trimCountThreshold_ = 1000;
  void* bookmark_ = nullptr;
  MallocTrimFunction trimFunction_ = mallocTrimYield;
  ZumTrimTask reactor_;
};

Ptr<MallocTrimmerSm> mallocTrimmerSmFactory(const Ptr<TaskScheduler>& scheduler);

}  // namespace Olk
