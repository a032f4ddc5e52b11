#include "Olk/CodefBase.h"

#include <cstdio>

#include "platform/Exception.h"

namespace Olk {

namespace {

U32 clampToU32(U64 v) { return v > 0xFFFFFFFFull ? 0xFFFFFFFFu : static_cast<U32>(v); }

}  // namespace

void codefAssert(const char* message) {
  std::fprintf(stderr, "%s\n", message);
  std::fflush(stderr);
  ZUM_ASSERT(0);
  std::abort();  // not reached
}

// ---- CodefBaseInternal ------------------------------------------------------

void CodefBaseInternal::backlogQuantumIs(Seconds q) {
  if (!Zum::assignIfChanged(backlogQuantum_, q)) return;
  handleBacklogQuantum();
  notify(&NotifieeConst::onBacklogQuantum);
}

U64 CodefBaseInternal::backlogSize() const { codefAssert("Call to unimplemented function CodefBase::backlogs"); }

void CodefBaseInternal::updateWorkStats(U64, U64) {}

U64 CodefBaseInternal::processBacklog(Seconds) {
  codefAssert("Call to unimplemented function CodefBase::doProcessBacklog");
}

void CodefBaseInternal::scheduleCodef() { codefAssert("Call to unimplemented function CodefBase::scheduleCodef"); }

void CodefBaseInternal::scheduleCodefDelay(Seconds) {
  codefAssert("Call to unimplemented function CodefBase::scheduleCodefDelay");
}

void CodefBaseInternal::unscheduleCodef() {
  codefAssert("Call to unimplemented function CodefBase::unscheduleCodef");
}

Seconds CodefBaseInternal::now() const { return Zum::clockOrLoop(nullptr)->now(); }

void CodefBaseInternal::doProcessBacklog() {
  const Seconds start = now();
  const U64 n = processBacklog(start);
  const Seconds end = now();
  updatesProcessed_ += n;
  timeUsed_ += end - start;
  ++dispatchCount_;
  const U64 left = backlogSize();
  updateWorkStats(n, left);
  if (left == 0) return;
  scheduleCodef();
  ++yieldBeforeFinishingCount_;
}

// ---- CodefBase --------------------------------------------------------------

void CodefBase::ZumClock::onTime() {
  if (owner_) owner_->doProcessBacklog();
}

CodefBase::CodefBase(const Ptr<Zum::Clock>& clock) { clockIs(newClock(clock)); }

CodefBase::~CodefBase() { clockDel(); }

std::unique_ptr<CodefBase::ZumClock> CodefBase::newClock(const Ptr<Zum::Clock>& clock) {
  auto c = std::make_unique<ZumClock>(this);
  c->notifierIs(clock);
  return c;
}

void CodefBase::clockIs(std::unique_ptr<ZumClock> c) {
  clockDel();
  clock_ = std::move(c);
}

void CodefBase::clockDel() {
  if (!clock_) return;
  clock_->ownerDel();
  clock_.reset();
}

Seconds CodefBase::now() const {
  return Zum::clockOrLoop(clock_ ? clock_->notifier() : nullptr)->now();
}

void CodefBase::scheduleCodef() {
  if (clock_) clock_->timeMinIs(0.0);
}

void CodefBase::scheduleCodefDelay(Seconds delay) {
  if (!clock_) return;
  const Seconds t = now() + delay;
  if (t > clock_->timeMin()) return;  // an earlier wake-up is never postponed
  clock_->timeMinIs(t);
}

void CodefBase::unscheduleCodef() {
  if (clock_) clock_->timeMinIs(Zum::endOfTime);
}

// ---- TaskCodefBase ----------------------------------------------------------

TaskCodefBase::TaskCodefBase(const Ptr<TaskScheduler>& scheduler, TaskPriority priority, const String& name)
    : scheduler_(scheduler), priority_(priority), taskName_(name), reactor_(this) {}

void TaskCodefBase::handleInitialized() {
  taskIs(newTask(scheduler_, priority_, taskName_));
  initialized_ = true;
}

Ptr<TimerTask> TaskCodefBase::newTask(const Ptr<TaskScheduler>& scheduler, TaskPriority priority,
                                      const String& name) {
  return timerTaskFactory(scheduler, priority, name);
}

void TaskCodefBase::taskIs(const Ptr<TimerTask>& t) {
  task_ = t;
  reactor_.notifierIs(t);
}

void TaskCodefBase::taskDel() { taskIs(nullptr); }

void TaskCodefBase::scheduleCodef() {
  if (task_) task_->scheduleTask();
}

void TaskCodefBase::scheduleCodefDelay(Seconds delay) {
  if (task_) task_->scheduleTaskLowestDelay(delay);
}

void TaskCodefBase::unscheduleCodef() {
  if (task_) task_->stopTimerTask();
}

void TaskCodefBase::updateWorkStats(U64 entriesProcessed, U64 entriesRemaining) {
  if (!task_) return;
  task_->taskWorkCountInc(clampToU32(entriesProcessed));
  task_->taskWorkPendingIs(clampToU32(entriesRemaining));
}

bool TaskCodefBase::taskShouldYield() const { return task_ && task_->taskShouldYield(); }

void TaskCodefBase::handleBacklogQuantum() {
  if (task_) task_->taskQuantumIs(backlogQuantum());
}

Ptr<CodefBase> codefBaseFactory(const Ptr<Zum::Clock>& clock) { return Zum::create<CodefBase>(clock); }

Ptr<TaskCodefBase> taskCodefBaseFactory(const Ptr<TaskScheduler>& scheduler, TaskPriority priority,
                                        const String& name) {
  return Zum::create<TaskCodefBase>(scheduler, priority, name);
}

}  // namespace Olk
