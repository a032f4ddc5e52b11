// Codef backlogs: drain coalesced updates in bounded slices.
//
// A codef receives updates faster than it should act on them. The derived
// component notes each update in its own backlog (coalescing repeated
// updates of one entry, counting each with updatesSeenInc) and supplies
// backlogSize() and processBacklog(), which processes entries until the
// backlog is empty or the slice should end. This base runs the slices and
// counts them: one slice per wake-up; a slice that leaves work asks for the
// next at once, so the loop stays responsive between slices.
//
// Two drivers: `CodefBase` wakes on a Zum clock reactor; `TaskCodefBase`
// runs as a timer task of a TaskScheduler, so its work and backlog show in
// the scheduler's statistics and its slices end on the task's quantum
// (`taskShouldYield()`, set from `backlogQuantum`). The base's own
// scheduling operations fail with an assertion. Loop thread only.
#pragma once

#include <memory>

#include "Olk/Task.h"
#include "Olk/Types.h"
#include "platform/Clock.h"
#include "platform/Entity.h"
#include "platform/Notifier.h"

namespace Olk {

// Writes `message` and a newline to standard error and fails assertion "0".
[[noreturn]] void codefAssert(const char* message);

class CodefBaseInternal : public Zum::Entity, public Zum::Notifier {
 public:
  class NotifieeConst : public Zum::BaseNotifiee<const CodefBaseInternal> {
   public:
    virtual void onBacklogQuantum() {}
  };
  using Notifiee = NotifieeConst;

  Seconds backlogQuantum() const { return backlogQuantum_; }
  void backlogQuantumIs(Seconds q);
  U64 updatesSeen() const { return updatesSeen_; }
  void updatesSeenInc(U64 n = 1) { updatesSeen_ += n; }
  U64 updatesProcessed() const { return updatesProcessed_; }
  Seconds timeUsed() const { return timeUsed_; }
  U64 dispatchCount() const { return dispatchCount_; }
  U64 yieldBeforeFinishingCount() const { return yieldBeforeFinishingCount_; }
  bool warm() const { return backlogSize() == 0; }
  // Updates absorbed into entries already waiting (unsigned arithmetic).
  U64 updatesCoalesced() const { return updatesSeen_ - updatesProcessed_ - backlogSize(); }

  virtual U64 backlogSize() const;
  // Reports a slice's work; the base does nothing.
  virtual void updateWorkStats(U64 entriesProcessed, U64 entriesRemaining);
  // Processes entries until done or the slice should end; returns how many.
  virtual U64 processBacklog(Seconds startTime);
  // Runs a slice as soon as the driver allows.
  virtual void scheduleCodef();
  // Runs a slice after `delay`, unless one is due earlier already.
  virtual void scheduleCodefDelay(Seconds delay);
  virtual void unscheduleCodef();

  // One slice: process, count, and ask for another when work is left.
  void doProcessBacklog();

 protected:
  CodefBaseInternal() = default;
  // The time slices are measured with: the activity loop's clock, by the
  // one rule for a component without a clock (Zum::clockOrLoop).
  virtual Seconds now() const;
  // Called after backlogQuantum changed.
  virtual void handleBacklogQuantum() {}

 private:
  Seconds backlogQuantum_ = 0;
  U64 updatesSeen_ = 0;
  U64 updatesProcessed_ = 0;
  Seconds timeUsed_ = 0;
  U64 dispatchCount_ = 0;
  U64 yieldBeforeFinishingCount_ = 0;
};

class CodefBase : public CodefBaseInternal {
 public:
  // Runs one slice when it fires, while attached to its codef.
  class ZumClock : public Zum::Clock::Notifiee {
   public:
    explicit ZumClock(CodefBase* owner) : owner_(owner) {}
    void onTime() override;
    void ownerDel() { owner_ = nullptr; }

   private:
    CodefBase* owner_;  // null once detached
  };

  ~CodefBase() override;

  ZumClock* clock() const { return clock_.get(); }
  // A reactor for this codef on `clock`, not yet the codef's own.
  std::unique_ptr<ZumClock> newClock(const Ptr<Zum::Clock>& clock);
  void clockIs(std::unique_ptr<ZumClock> c);
  // Detaches the reactor; scheduling does nothing afterwards.
  void clockDel();

  void scheduleCodef() override;
  void scheduleCodefDelay(Seconds delay) override;
  void unscheduleCodef() override;

 protected:
  explicit CodefBase(const Ptr<Zum::Clock>& clock);
  // The reactor's clock; the loop's when it has none (or was detached).
  Seconds now() const override;

 private:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  std::unique_ptr<ZumClock> clock_;
};

class TaskCodefBase : public CodefBaseInternal {
 public:
  // Runs one slice on each run of the task.
  class ZumTask : public Task::NotifieeConst {
   public:
    explicit ZumTask(TaskCodefBase* owner) : owner_(owner) {}
    void onTaskRun() override { owner_->doProcessBacklog(); }

   private:
    TaskCodefBase* owner_;
  };

  const Ptr<TimerTask>& task() const { return task_; }
  // A new timer task for this codef; taskIs() makes it the codef's and attaches the reactor.
  Ptr<TimerTask> newTask(const Ptr<TaskScheduler>& scheduler, TaskPriority priority, const String& name);
  void taskIs(const Ptr<TimerTask>& t);
  // Drops the task; every driver operation then does nothing.
  void taskDel();
  bool taskCodefBaseInitialized() const { return initialized_; }

  void scheduleCodef() override;
  void scheduleCodefDelay(Seconds delay) override;
  void unscheduleCodef() override;
  void updateWorkStats(U64 entriesProcessed, U64 entriesRemaining) override;
  // The task's taskShouldYield(); false without a task.
  bool taskShouldYield() const;

 protected:
  TaskCodefBase(const Ptr<TaskScheduler>& scheduler, TaskPriority priority, const String& name);
  void handleInitialized() override;
  void handleBacklogQuantum() override;

 private:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  Ptr<TaskScheduler> scheduler_;
  TaskPriority priority_;
  String taskName_;
  Ptr<TimerTask> task_;
  ZumTask reactor_;
  bool initialized_ = false;
};

// The bare drivers; a component derives from them and supplies the backlog.
Ptr<CodefBase> codefBaseFactory(const Ptr<Zum::Clock>& clock);
Ptr<TaskCodefBase> taskCodefBaseFactory(const Ptr<TaskScheduler>& scheduler, TaskPriority priority,
                                        const String& name);

}  // namespace Olk
