#include "Olk/Task.h"

#include "platform/Exception.h"

namespace Olk {

// The runtime task behind a plain or timer task: the runtime's execute call
// becomes one taskRunInc(1), and its busy changes become taskBusy.
template <class Base>
class TaskWrapper : public Base {
 public:
  TaskWrapper(Task* owner, Dorn::Scheduler* s, Dorn::Priority p, const String& name)
      : Base(s, p, name), owner_(owner) {}

 private:
  void execute() override { owner_->taskRunInc(1); }
  // Twice per run of every task: the owner is known to be a Task, so its
  // reactors are called without a second virtual hop.
  void onBusyChange() override {
    if (Zum::assignIfChanged(owner_->busy_, this->scheduled())) owner_->Task::notifyTaskBusy();
  }

  Task* owner_;
};

// ---- TaskBase ---------------------------------------------------------------

TaskBase::TaskBase(const Ptr<TaskScheduler>& scheduler, TaskPriority priority, const String& name)
    : Entity(name), taskScheduler_(scheduler), priority_(priority) {}

void TaskBase::handleDestroy() {
  ZUM_ASSERT(nullptr != taskWrapperPtr);
  taskWrapperPtr.reset();
}

const String& TaskBase::taskStatsName() const { return dornTask().statsName(); }
void TaskBase::taskStatsNameIs(const String& n) { dornTask().statsNameIs(n); }
TaskKey TaskBase::taskKey() const { return TaskKey(dornTask().key()); }

void TaskBase::taskBusyIs(bool b) {
  if (Zum::assignIfChanged(busy_, b)) notifyTaskBusy();
}

bool TaskBase::taskScheduled() const { return dornTask().scheduled(); }
bool TaskBase::taskSuspended() const { return dornTask().suspended(); }
void TaskBase::taskSuspendedIs(bool s) { dornTask().suspendedIs(s); }
Seconds TaskBase::taskQuantum() const { return Dorn::toSeconds(dornTask().quantum()); }
void TaskBase::taskQuantumIs(Seconds q) { dornTask().quantumIs(Dorn::toDuration(q)); }
bool TaskBase::taskForceYieldInTest() const { return dornTask().forceYieldInTest(); }
void TaskBase::taskForceYieldInTestIs(bool b) { dornTask().forceYieldInTestIs(b); }
U8 TaskBase::taskTestYieldRatio() const { return dornTask().testYieldRatio(); }
void TaskBase::taskTestYieldRatioIs(U8 n) { dornTask().testYieldRatioIs(n); }
bool TaskBase::taskShouldYield() const { return dornTask().shouldYield(); }
bool TaskBase::taskOnSchedulerRunQueue() const { return dornTask().onRunQueue(); }
bool TaskBase::taskCurrentlyRunning() const { return dornTask().currentlyRunning(); }
void TaskBase::taskWorkCountInc(U32 n) const { dornTask().workCountInc(n); }
U32 TaskBase::taskWorkPending() const { return dornTask().workPending(); }
void TaskBase::taskWorkPendingIs(U32 n) const { dornTask().workPendingIs(n); }
void TaskBase::unscheduleTask() const { dornTask().unschedule(); }
TaskStat TaskBase::getStats() const { return taskTaskStat2olkTaskStat(dornTask().stat()); }
void TaskBase::handleResetStats() { dornTask().resetStats(); }

// ---- Task -------------------------------------------------------------------

void Task::handleInitialized(TaskPriority priority, const String& name) {
  ZUM_ASSERT_TEXT(taskScheduler_ != nullptr, "__null != taskScheduler_");
  ZUM_ASSERT(taskScheduler_->validScheduler());
  taskWrapperIs(std::make_unique<TaskWrapper<Dorn::Task>>(this, taskScheduler_->dornScheduler(),
                                                          zumPri2taskPri(priority), name));
}

TaskStat::TaskStatus Task::taskStatus() const { return taskTaskStatus2olkTaskStatus(dornTask().status()); }

void Task::taskRunInc(U32 n) { taskRunIs(taskRun_ + n); }

void Task::taskRunIs(U32 n) {
  attributeIs(taskRun_, n, &NotifieeConst::onTaskRun);
}

void Task::notifyTaskBusy() { notify(&NotifieeConst::onTaskBusy); }

U64 Task::taskWorkCountTotal() const { return dornTask().stat().workCountTotal; }
float Task::taskWorkCountDecayAvg() const { return dornTask().stat().workCountDecayAvg; }
U32 Task::taskWorkCountHighWaterMark() const { return getStats().taskWorkCountHighWaterMark; }
U32 Task::taskWorkPendingHighWaterMark() const { return getStats().taskWorkPendingHighWaterMark; }
Seconds Task::taskTotalRunTime() const { return getStats().taskTotalRunTime; }
Seconds Task::taskRunTimeHighWaterMark() const { return getStats().taskRunTimeHighWaterMark; }
Seconds Task::taskLastSchedulingLatency() const { return getStats().taskLastSchedulingLatency; }
Seconds Task::taskSchedulingLatencyHighWaterMark() const { return getStats().taskSchedulingLatencyHighWaterMark; }
U32 Task::taskQuantumViolation500() const { return dornTask().stat().quantumViolation500; }
U32 Task::taskQuantumViolation200() const { return dornTask().stat().quantumViolation200; }

// ---- TimerTask --------------------------------------------------------------

void TimerTask::handleTimerTaskInitialized() {
  ZUM_ASSERT_TEXT(taskScheduler_ != nullptr, "__null != taskScheduler_");
  auto wrapper = std::make_unique<TaskWrapper<Dorn::TimerTask>>(this, taskScheduler_->dornScheduler(),
                                                                 zumPri2taskPri(taskPriority()), taskName());
  // Timers come and go with their owners; their statistics are not kept.
  wrapper->keepDeadStatsIs(false);
  taskWrapperIs(std::move(wrapper));
}

void TimerTask::scheduleTaskDelay(Seconds delay) const { dornTimer().scheduleDelay(Dorn::toDuration(delay)); }

void TimerTask::scheduleTaskJitterUp(Seconds delay, U8 maxJitterPercentage) const {
  dornTimer().scheduleJitterUp(Dorn::toDuration(delay), maxJitterPercentage);
}

void TimerTask::scheduleTaskJitterDown(Seconds delay, U8 maxJitterPercentage) const {
  dornTimer().scheduleJitterDown(Dorn::toDuration(delay), maxJitterPercentage);
}

void TimerTask::scheduleTaskLowestDelay(Seconds delay) const { dornTimer().scheduleLowestDelay(Dorn::toDuration(delay)); }

void TimerTask::stopTimerTask() const { dornTimer().stop(); }

Seconds TimerTask::currentExpirationTime() const {
  return taskScheduler_->root()->timerExpirySeconds(&dornTimer());
}

// ---- FileDescriptorTask -----------------------------------------------------

class FileDescriptorTask::Wrapper : public Dorn::FileDescriptorTask {
 public:
  Wrapper(Olk::FileDescriptorTask* owner, Dorn::Scheduler* s, Dorn::Priority p, const String& name)
      : Dorn::FileDescriptorTask(s, p, name), owner_(owner) {}

 private:
  void executeReadable() override { owner_->taskRunReadableInc(1); }
  void executeWritable() override { owner_->taskRunWritableInc(1); }
  void onBusyChange() override { owner_->taskBusyIs(scheduled()); }

  Olk::FileDescriptorTask* owner_;
};

void FileDescriptorTask::handleFileDescriptorTaskInitialized(int fd) {
  ZUM_ASSERT_TEXT(taskScheduler_ != nullptr, "__null != taskScheduler_");
  ZUM_ASSERT(taskScheduler_->validScheduler());
  auto wrapper =
      std::make_unique<Wrapper>(this, taskScheduler_->dornScheduler(), zumPri2taskPri(taskPriority()), taskName());
  wrapper->watchFdIs(fd);
  taskWrapperIs(std::move(wrapper));
}

void FileDescriptorTask::notifyTaskBusy() { notify(&NotifieeConst::onTaskBusy); }

void FileDescriptorTask::taskRunReadableInc(U32 n) {
  attributeIs(taskRunReadable_, taskRunReadable_ + n, &NotifieeConst::onTaskRunReadable);
}

void FileDescriptorTask::taskRunWritableInc(U32 n) {
  attributeIs(taskRunWritable_, taskRunWritable_ + n, &NotifieeConst::onTaskRunWritable);
}

int FileDescriptorTask::taskWatchFd() const { return dornFd().watchFd(); }
bool FileDescriptorTask::taskWatchReadable() const { return dornFd().watchReadable(); }
void FileDescriptorTask::taskWatchReadableIs(bool b) { dornFd().watchReadableIs(b); }
bool FileDescriptorTask::taskWatchWritable() const { return dornFd().watchWritable(); }
void FileDescriptorTask::taskWatchWritableIs(bool b) { dornFd().watchWritableIs(b); }
bool FileDescriptorTask::taskScheduledReadable() const { return dornFd().scheduledReadable(); }
bool FileDescriptorTask::taskScheduledWritable() const { return dornFd().scheduledWritable(); }
void FileDescriptorTask::scheduleTaskReadable() const { dornFd().scheduleReadable(); }
void FileDescriptorTask::scheduleTaskWritable() const { dornFd().scheduleWritable(); }
void FileDescriptorTask::taskWorkCountReadableInc(U32 n) const { dornFd().workCountReadableInc(n); }
void FileDescriptorTask::taskWorkCountWritableInc(U32 n) const { dornFd().workCountWritableInc(n); }
U64 FileDescriptorTask::taskWorkCountReadableTotal() const { return dornFd().workCountReadableTotal(); }
U64 FileDescriptorTask::taskWorkCountWritableTotal() const { return dornFd().workCountWritableTotal(); }
float FileDescriptorTask::taskWorkCountReadableDecayAvg() const { return dornFd().workCountReadableDecayAvg(); }
float FileDescriptorTask::taskWorkCountWritableDecayAvg() const { return dornFd().workCountWritableDecayAvg(); }

U32 FileDescriptorTask::taskWorkCountReadableHighWaterMark() const {
  return highWaterMark2Count(dornFd().workCountReadableHighWaterMark());
}

U32 FileDescriptorTask::taskWorkCountWritableHighWaterMark() const {
  return highWaterMark2Count(dornFd().workCountWritableHighWaterMark());
}

void FileDescriptorTask::handleResetStats() {
  TaskBase::handleResetStats();
  dornFd().resetDirectionStats();
}

// ---- Factories --------------------------------------------------------------

Ptr<Task> taskFactory(const Ptr<TaskScheduler>& scheduler, TaskPriority priority, const String& name) {
  return Zum::create<Task>(scheduler, priority, name);
}

Ptr<TimerTask> timerTaskFactory(const Ptr<TaskScheduler>& scheduler, TaskPriority priority, const String& name) {
  return Zum::create<TimerTask>(scheduler, priority, name);
}

Ptr<FileDescriptorTask> fileDescriptorTaskFactory(const Ptr<TaskScheduler>& scheduler, TaskPriority priority,
                                                  const String& name, int fd) {
  return Zum::create<FileDescriptorTask>(scheduler, priority, name, fd);
}

}  // namespace Olk
