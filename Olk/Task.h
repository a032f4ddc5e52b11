// Tasks: the units of cooperative work an agent runs on a TaskScheduler.
//
// A task is an entity whose `taskRun` counter goes up each time the runtime
// runs it; agent code attaches a `Task::NotifieeConst` and does its work in
// `onTaskRun()`, exactly as it reacts to any attribute change:
//
//   struct Worker : Olk::Task::NotifieeConst {
//     void onTaskRun() override {
//       while (haveWork() && !notifier()->taskShouldYield()) doOne();
//       if (haveWork()) notifier()->scheduleTask();  // run again soon
//     }
//   };
// `scheduleTask()` is idempotent and never runs the task itself. A
// `TimerTask` also runs when a delay passes, a `FileDescriptorTask` when a
// watched descriptor is ready. A reactor may destroy the task from its run.
#pragma once

#include <memory>

#include "Olk/TaskScheduler.h"
#include "Olk/Types.h"

namespace Olk {

// What plain, timer and descriptor tasks share: identity, the runtime task,
// the busy flag and the scheduling attributes forwarded to the runtime.
// (Ahead of Task only because C++ wants a base class complete first.)
class TaskBase : public Zum::Entity, public Zum::Notifier {
 public:
  const Ptr<TaskScheduler>& taskScheduler() const { return taskScheduler_; }
  TaskPriority taskPriority() const { return priority_; }
  const String& taskName() const { return name(); }
  const String& taskStatsName() const;
  void taskStatsNameIs(const String& n);
  TaskKey taskKey() const;
  bool taskBusy() const { return busy_; }

  bool taskScheduled() const;
  bool taskSuspended() const;
  void taskSuspendedIs(bool s);
  Seconds taskQuantum() const;
  void taskQuantumIs(Seconds q);
  bool taskForceYieldInTest() const;
  void taskForceYieldInTestIs(bool b);
  U8 taskTestYieldRatio() const;
  void taskTestYieldRatioIs(U8 n);
  // True while running once the quantum is used (or a test hook says so).
  bool taskShouldYield() const;
  bool taskOnSchedulerRunQueue() const;
  bool taskCurrentlyRunning() const;
  void taskWorkCountInc(U32 n) const;
  U32 taskWorkPending() const;
  void taskWorkPendingIs(U32 n) const;

  // Scheduling and work accounting change the runtime's state, not this
  // entity's attributes, so reactors may call them on the const task they get.

  // Unschedules; nothing when not scheduled.
  void unscheduleTask() const;
  TaskStat getStats() const;
  virtual void handleResetStats();
  // The runtime task; valid from initialisation to destruction.
  Dorn::Task& dornTask() const { return *taskWrapperPtr; }

 protected:
  TaskBase(const Ptr<TaskScheduler>& scheduler, TaskPriority priority, const String& name);
  // Adopts the runtime task created by the derived class's initialisation.
  void taskWrapperIs(std::unique_ptr<Dorn::Task> wrapper) { taskWrapperPtr = std::move(wrapper); }
  void handleDel() override { handleDestroy(); }
  // Releases the runtime task; asserts it exists.
  void handleDestroy();
  // Sets taskBusy and notifies the derived class's reactors on a change.
  void taskBusyIs(bool b);
  virtual void notifyTaskBusy() = 0;

  Ptr<TaskScheduler> taskScheduler_;

 private:
  template <class Base>
  friend class TaskWrapper;

  TaskPriority priority_;
  bool busy_ = false;
  std::unique_ptr<Dorn::Task> taskWrapperPtr;
};

class Task : public TaskBase {
 public:
  class NotifieeConst : public Zum::BaseNotifiee<const Task> {
   public:
    virtual void onTaskRun() {}
    virtual void onTaskBusy() {}
  };
  using Notifiee = NotifieeConst;

  U32 taskRun() const { return taskRun_; }

  virtual TaskStat::TaskStatus taskStatus() const;
  // Adds `n` to taskRun and notifies on a change; the runtime's run lands here.
  virtual void taskRunInc(U32 n);
  virtual void taskRunIs(U32 n);

  // Puts the task on the run queue; nothing while already scheduled.
  void scheduleTask() const { dornTask().schedule(); }
  // Runs the reactors now, without statistics.
  void taskRunFromTest() { dornTask().runFromTest(); }
  // Runs the task now as the scheduler would, recording statistics.
  void taskRunAndRecordFromTest() { dornTask().runAndRecordFromTest(); }

  U64 taskWorkCountTotal() const;
  float taskWorkCountDecayAvg() const;
  U32 taskWorkCountHighWaterMark() const;
  U32 taskWorkPendingHighWaterMark() const;
  Seconds taskTotalRunTime() const;
  Seconds taskRunTimeHighWaterMark() const;
  Seconds taskLastSchedulingLatency() const;
  Seconds taskSchedulingLatencyHighWaterMark() const;
  U32 taskQuantumViolation500() const;
  U32 taskQuantumViolation200() const;

 protected:
  Task(const Ptr<TaskScheduler>& scheduler, TaskPriority priority, const String& name)
      : TaskBase(scheduler, priority, name) {}
  void handleInitialized() override { handleInitialized(taskPriority(), taskName()); }
  void handleInitialized(TaskPriority priority, const String& name);
  void notifyTaskBusy() override;

 private:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  template <class Base>
  friend class TaskWrapper;

  U32 taskRun_ = 0;
};

class TimerTask : public Task {
 public:
  using NotifieeConst = Task::NotifieeConst;
  using Notifiee = Task::NotifieeConst;

  // Runs once after `delayIntoFuture` seconds, replacing any earlier expiry.
  void scheduleTaskDelay(Seconds delayIntoFuture) const;
  // As scheduleTaskDelay, lengthened by up to `maxJitterPercentage` percent.
  void scheduleTaskJitterUp(Seconds delayIntoFuture, U8 maxJitterPercentage) const;
  // As scheduleTaskDelay, shortened by up to `maxJitterPercentage` percent.
  void scheduleTaskJitterDown(Seconds delayIntoFuture, U8 maxJitterPercentage) const;
  // Runs after the delay unless an earlier expiry is already set.
  void scheduleTaskLowestDelay(Seconds delayIntoFuture) const;
  // Cancels the timer; a run already queued still happens.
  void stopTimerTask() const;
  // The expiry in the scheduler clock's seconds; +infinity when none.
  Seconds currentExpirationTime() const;

 protected:
  TimerTask(const Ptr<TaskScheduler>& scheduler, TaskPriority priority, const String& name)
      : Task(scheduler, priority, name) {}
  void handleInitialized() override { handleTimerTaskInitialized(); }
  void handleTimerTaskInitialized();
  void handleDel() override { handleTimerTaskDestroy(); }
  void handleTimerTaskDestroy() { handleDestroy(); }

 private:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  Dorn::TimerTask& dornTimer() const { return static_cast<Dorn::TimerTask&>(dornTask()); }
};

class FileDescriptorTask : public TaskBase {
 public:
  class NotifieeConst : public Zum::BaseNotifiee<const FileDescriptorTask> {
   public:
    virtual void onTaskBusy() {}
    virtual void onTaskRunReadable() {}
    virtual void onTaskRunWritable() {}
  };
  using Notifiee = NotifieeConst;

  int taskWatchFd() const;
  bool taskWatchReadable() const;
  void taskWatchReadableIs(bool b);
  bool taskWatchWritable() const;
  void taskWatchWritableIs(bool b);
  U32 taskRunReadable() const { return taskRunReadable_; }
  U32 taskRunWritable() const { return taskRunWritable_; }
  void taskRunReadableInc(U32 n);
  void taskRunWritableInc(U32 n);
  bool taskScheduledReadable() const;
  bool taskScheduledWritable() const;

  // Runs the readable (or writable) reactions soon, watched or not.
  void scheduleTaskReadable() const;
  void scheduleTaskWritable() const;
  void taskWorkCountReadableInc(U32 n) const;
  void taskWorkCountWritableInc(U32 n) const;
  U64 taskWorkCountReadableTotal() const;
  U64 taskWorkCountWritableTotal() const;
  float taskWorkCountReadableDecayAvg() const;
  float taskWorkCountWritableDecayAvg() const;
  U32 taskWorkCountReadableHighWaterMark() const;
  U32 taskWorkCountWritableHighWaterMark() const;
  void handleResetStats() override;

 protected:
  FileDescriptorTask(const Ptr<TaskScheduler>& scheduler, TaskPriority priority, const String& name, int fd)
      : TaskBase(scheduler, priority, name), fd_(fd) {}
  void handleInitialized() override { handleFileDescriptorTaskInitialized(fd_); }
  void handleFileDescriptorTaskInitialized(int fd);
  void handleDel() override { handleFileDescriptorTaskDestroy(); }
  void handleFileDescriptorTaskDestroy() { handleDestroy(); }
  void notifyTaskBusy() override;

 private:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  class Wrapper;
  Dorn::FileDescriptorTask& dornFd() const { return static_cast<Dorn::FileDescriptorTask&>(dornTask()); }

  int fd_;
  U32 taskRunReadable_ = 0;
  U32 taskRunWritable_ = 0;
};

Ptr<Task> taskFactory(const Ptr<TaskScheduler>& scheduler, TaskPriority priority, const String& name);
Ptr<TimerTask> timerTaskFactory(const Ptr<TaskScheduler>& scheduler, TaskPriority priority, const String& name);
Ptr<FileDescriptorTask> fileDescriptorTaskFactory(const Ptr<TaskScheduler>& scheduler, TaskPriority priority,
                                                  const String& name, int fd);

}  // namespace Olk
