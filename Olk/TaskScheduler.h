// The task scheduler: the library's face of the Dorn runtime and the loop.
//
// Agents do their work as cooperative tasks (Olk/Task.h) on a scheduler.
// `TaskSchedulerZumActivity` binds a Dorn root scheduler to the activity
// loop: when the runtime has runnable work it asks for a run, the scheduler's
// clock reactor fires at once (timeMin 0.0) and runs it, for at most 10 ms,
// so the loop's descriptors and clocks keep being served. Timers of timer
// tasks live on the root's `TimerWheel` (10 ms ticks, one day of horizon).
// `findOrCreateAgentScheduler()` gives the process's single scheduler "main".
//
// The statistics the runtime keeps (runs, run time, latency, work, quantum
// overruns, dead tasks) read here as value records in seconds, and print as
// an operator's table through `printStats`. Everything runs on the loop's
// thread; other threads asking the runtime for a scheduler get none.
// A scheduler must outlive its tasks: tasks hold it by pointer.
#pragma once

#include <chrono>
#include <functional>
#include <iosfwd>
#include <memory>
#include <vector>

#include "Olk/HTimerWheel.h"
#include "Olk/Types.h"
#include "platform/Clock.h"
#include "platform/Collection.h"
#include "platform/Dorn.h"
#include "platform/Entity.h"
#include "platform/Notifier.h"
#include "platform/Strep.h"

namespace Olk {

class DumpContext;
class Task;
class TimerTask;
class TaskPriority;
class TaskKey;
struct TaskStat;
class TaskSchedulerQueueStats;
class TaskCollectionTaskName;
class TaskSchedulerRoot;

class TaskScheduler : public Zum::Entity, public Zum::Notifier {
 public:
  static constexpr U32 priorityRunFactor = Dorn::Scheduler::priorityRunFactor;
  static constexpr Seconds initialDefaultTaskQuantum = Dorn::Scheduler::initialDefaultTaskQuantum;

  const String& schedulerName() const { return name(); }
  // The root of this scheduler's tree (itself for a root).
  TaskSchedulerRoot* root() const { return root_; }
  U32 timerWheelTickInMsec() const { return 10; }
  Seconds defaultTaskQuantum() const;
  void defaultTaskQuantumIs(Seconds q);
  Seconds schedulerMaxSchedulerSlip() const;

  // Binds the runtime's run requests to a loop; the base cannot and asserts.
  virtual void requestSchedulerRun();
  // True once the runtime scheduler exists; tasks may then be created.
  bool validScheduler() const { return dornScheduler() != nullptr; }
  virtual Dorn::Scheduler* dornScheduler() const = 0;

  bool schedulerHasRunnableTasks() const;
  U32 tasksPerPriority(TaskPriority p) const;
  U32 deadTasksPerPriority(TaskPriority p) const;
  U64 runTaskCount(TaskPriority p) const;
  U32 runnableTaskCount(TaskPriority p) const;
  TaskSchedulerQueueStats queueStats() const;
  // Live tasks' statistics; those that never ran only when asked for.
  void getTaskStats(std::vector<TaskStat>* out, bool includeNeverRunTasks) const;
  void getDeadTaskStats(std::vector<TaskStat>* out, bool includeNeverRunTasks) const;
  // Fresh collections keyed by statistics name (all tasks included).
  Ptr<TaskCollectionTaskName> tasksRegistered() const;
  Ptr<TaskCollectionTaskName> deadTaskStats() const;
  // The record named `name`, or an empty one.
  TaskStat taskStatForTest(const String& name) const;
  TaskStat deadTaskStatForTest(const String& name) const;
  // Zeroes the live tasks' statistics; resetStatsInProgress() is true meanwhile.
  void resetStats();
  bool resetStatsInProgress() const { return resetStatsInProgress_; }
  // As resetStats, and forgets the dead tasks.
  void clearStats();

  // Writes the runtime's statistics text into the dump.
  void printStats(const Ptr<const DumpContext>& dumpContext, bool includeNeverRunTasks, bool includeDeadTasks,
                  bool displayMemoryAddressOfTasks, bool includeSchedulerHistory) const;
  void printStatsToStream(std::ostream& stream, bool includeNeverRunTasks, bool includeDeadTasks,
                          bool displayMemoryAddressOfTasks, bool includeSchedulerHistory) const;

 protected:
  TaskScheduler(const String& name, TaskSchedulerRoot* root) : Entity(name), root_(root) {}

 private:
  TaskSchedulerRoot* root_;
  bool resetStatsInProgress_ = false;
};

// The runtime root behind a TaskSchedulerRootZum; internal to the library.
class TaskSchedulerRootWrapper;

class TaskSchedulerRoot : public TaskScheduler {
 public:
  const Ptr<TimerWheel>& timerWheel() const { return timerWheel_; }
  // Timer tasks created afterwards use `w`; existing ones keep their wheel.
  void timerWheelIs(const Ptr<TimerWheel>& w) { timerWheel_ = w; }
  // The clock that measures run times, latencies and quanta; when null (the
  // default) the runtime's own counter clock, at the steady clock's rate.
  // Tests set a manual clock; setting it takes effect at once.
  const Ptr<Zum::Clock>& measurementClock() const { return measurementClock_; }
  void measurementClockIs(const Ptr<Zum::Clock>& c);

  bool suspended() const;
  void suspendedIs(bool s);
  bool threadSanityDisabled() const { return threadSanityDisabled_; }
  void threadSanityDisabledIs(bool b) { threadSanityDisabled_ = b; }
  U8 taskTestYieldRatio() const;
  void taskTestYieldRatioIs(U8 n);
  U32 historyEntryCount() const;
  void historyEntryCountIs(U32 n);
  U32 taskGroupCount() const;
  U32 totalRegisteredTaskCount() const;
  // Queue statistics of the root and all its groups together.
  TaskSchedulerQueueStats queueStatsRoot() const;

  // Runs the runtime's scheduler once.
  virtual void handleSchedulerRun();
  // Checks how late a requested run is and notes when (steady clock).
  void doUpdateSchedulerLatency();
  Dorn::TimeStamp lastLatencyCheck() const { return lastLatencyCheck_; }

  void printHistory(const Ptr<const DumpContext>& dumpContext) const;
  void printHistoryToStream(std::ostream& stream, U32 count) const;
  void clearHistory();

  virtual Dorn::RootScheduler* dornRoot() const = 0;
  Dorn::Scheduler* dornScheduler() const override { return dornRoot(); }
  // The expiry of `timer`, one of this root's timer tasks, in its timer
  // wheel's clock seconds; +infinity when the timer is not running or this
  // root keeps no timers.
  virtual Seconds timerExpirySeconds(Dorn::TimerTask*) const { return Zum::endOfTime; }

 protected:
  explicit TaskSchedulerRoot(const String& name);
  ~TaskSchedulerRoot() override;
  // Points the runtime root (once it exists) at the measurement clock.
  void measurementClockApply();

 private:
  class MeasurementSource;

  Ptr<TimerWheel> timerWheel_;
  Ptr<Zum::Clock> measurementClock_;
  std::unique_ptr<MeasurementSource> measurementSource_;  // reads measurementClock_
  bool threadSanityDisabled_ = false;
  Dorn::TimeStamp lastLatencyCheck_ = 0;
};

// A root with its runtime scheduler, not bound to a loop: a run request
// raises `schedulerRunRequested`, and the owner calls handleSchedulerRun().
class TaskSchedulerRootZum : public TaskSchedulerRoot {
 public:
  class Notifiee : public Zum::BaseNotifiee<TaskSchedulerRootZum> {
   public:
    virtual void onSchedulerRunRequested() {}
  };

  bool schedulerRunRequested() const { return schedulerRunRequested_; }
  void requestSchedulerRun() override;
  // Clears schedulerRunRequested, then runs the runtime once.
  void handleSchedulerRun() override;
  Dorn::RootScheduler* dornRoot() const override;
  Seconds timerExpirySeconds(Dorn::TimerTask* timer) const override;

 protected:
  explicit TaskSchedulerRootZum(const String& name) : TaskSchedulerRoot(name) {}
  void handleInitialized() override { handleRootZumInit(); }
  void handleDel() override { handleRootDestroy(); }
  void handleRootZumInit();
  void handleRootDestroy();

 private:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);

  std::shared_ptr<TaskSchedulerRootWrapper> olkSchedulerRoot_;
  bool schedulerRunRequested_ = false;
};

// A root bound to the activity loop (or, for tests, to a given clock).
class TaskSchedulerZumActivity : public TaskSchedulerRootZum {
 public:
  // Runs the scheduler when it fires.
  class ZumClock : public Zum::Clock::Notifiee {
   public:
    explicit ZumClock(TaskSchedulerZumActivity* owner) : owner_(owner) {}
    void onTime() override { owner_->handleSchedulerRun(); }

   private:
    TaskSchedulerZumActivity* owner_;
  };

  // The process's agent scheduler "main", created on the first call.
  static Ptr<TaskSchedulerZumActivity> findOrCreateAgentScheduler();

  const ZumClock& clock() const { return clock_; }
  void requestSchedulerRun() override;

 protected:
  TaskSchedulerZumActivity(const String& name, const Ptr<Zum::Clock>& clock);
  void handleInitialized() override;

 private:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);

  Ptr<Zum::Clock> systemClock_;
  ZumClock clock_;
};

// A group of tasks that run inside one task of the parent scheduler; itself a
// scheduler for the tasks created on it.
class TaskGroup : public TaskScheduler {
 public:
  const String& taskGroupName() const { return name(); }
  TaskPriority taskGroupPriority() const;
  void taskGroupPriorityIs(TaskPriority p);
  bool enforceTaskGroupPriority() const { return enforce_; }
  const Ptr<TaskScheduler>& parentScheduler() const { return parent_; }
  Seconds taskGroupQuantum() const;
  void taskGroupQuantumIs(Seconds q);
  bool tasksPermittedMultipleRuns() const;
  void tasksPermittedMultipleRunsIs(bool b);
  bool taskGroupForceYieldInTest() const;
  void taskGroupForceYieldInTestIs(bool b);
  bool parentTaskScheduled() const;
  U32 parentTaskRunCount() const;

  // Runs come through the parent's task: forwards to the parent.
  void requestSchedulerRun() override { parent_->requestSchedulerRun(); }
  Dorn::Scheduler* dornScheduler() const override { return group_.get(); }

 private:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  TaskGroup(const String& name, TaskPriority priority, bool enforce, const Ptr<TaskScheduler>& parent);
  void handleDel() override { group_.reset(); }

  Ptr<TaskScheduler> parent_;
  bool enforce_;
  std::unique_ptr<Dorn::TaskGroup> group_;
};

Ptr<TaskGroup> taskGroupFactory(const String& name, TaskPriority priority, bool enforceTaskGroupPriority,
                                const Ptr<TaskScheduler>& scheduler);
// A root not bound to a loop (see TaskSchedulerRootZum).
Ptr<TaskSchedulerRootZum> taskSchedulerRootFactory(const String& name);
// A root on the activity loop's clock, or on `clock` when given.
Ptr<TaskSchedulerZumActivity> taskSchedulerZumActivityFactory(const String& name,
                                                              const Ptr<Zum::Clock>& clock = nullptr);
// A timer task's expiry as a steady time stamp (the largest when none).
Dorn::TimeStamp timerTaskGetExpiryTime(TaskSchedulerRoot* root, Dorn::TimerTask* timerTask);

// ---- Records of the statistics, and conversions ------------------------------

class TaskPriority {
 public:
  enum PriorityEnum { absolute = 0, high = 1, normal = 2, low = 3, scavenge = 4, oneBeyondLast = 5 };

  TaskPriority(PriorityEnum p = normal) : priority_(p) {}
  PriorityEnum priority() const { return priority_; }
  void priorityIs(PriorityEnum p) { priority_ = p; }
  U8 numericValue() const { return static_cast<U8>(priority_); }
  // The runtime's full name ("normal") and one-letter form ("N").
  String toStrep() const;
  String oneCharString() const;

  auto operator<=>(const TaskPriority&) const = default;

 private:
  PriorityEnum priority_;
};

String valueToStrep(const TaskPriority& p);
void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, TaskPriority* out);
std::ostream& operator<<(std::ostream& os, const TaskPriority& p);

// Identifies one task for the life of the process; zero for no task.
class TaskKey {
 public:
  TaskKey() = default;
  explicit TaskKey(U64 v) : value_(v) {}
  static TaskKey create(const Task* task);
  static TaskKey create(const Ptr<Task>& task) { return create(task.ptr()); }
  U64 value() const { return value_; }
  // "TaskKey(<n>)", for trace.
  String toStrep() const;
  auto operator<=>(const TaskKey&) const = default;

 private:
  U64 value_ = 0;
};

String valueToStrep(const TaskKey& k);
void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, TaskKey* out);
std::ostream& operator<<(std::ostream& os, const TaskKey& k);

struct TaskStat {
  struct TaskStatus {
    bool taskTimer = false;
    bool taskTimerRunning = false;
    bool taskOnRunQueue = false;
    bool taskCurrentlyRunning = false;
    bool taskSuspended = false;
    bool operator==(const TaskStatus&) const = default;
  };

  String taskName;
  TaskKey taskKey;
  TaskPriority taskPriority;
  U32 taskRun = 0;
  double taskTotalRunTime = 0;
  U64 taskWorkCountTotal = 0;
  float taskWorkCountDecayAvg = 0;
  U32 taskWorkCountHighWaterMark = 0;
  U32 taskWorkPending = 0;
  U32 taskWorkPendingHighWaterMark = 0;
  U32 taskQuantumViolation500 = 0;
  U32 taskQuantumViolation200 = 0;
  double taskRunTimeHighWaterMark = 0;
  double taskLastSchedulingLatency = 0;
  double taskSchedulingLatencyHighWaterMark = 0;
  U32 taskDeadCount = 0;
  TaskStatus taskStatus;

  // True when every counter and time from taskRun to taskDeadCount is zero.
  bool isClear() const;
  bool operator!() const { return isClear(); }
  // The status flags in the runtime's short form ("TtQRS", "-" for none).
  String taskStatusString() const;
  bool operator==(const TaskStat&) const = default;
};

String valueToStrep(const TaskStat::TaskStatus& s);
void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, TaskStat::TaskStatus* out);
String valueToStrep(const TaskStat& s);
void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, TaskStat* out);
std::ostream& operator<<(std::ostream& os, const TaskStat::TaskStatus& s);
std::ostream& operator<<(std::ostream& os, const TaskStat& s);

struct TaskSchedulerPriorityStats {
  TaskPriority taskPriority;
  U32 runnableTasks = 0;
  U32 idleTasks = 0;
  U32 deadTasks = 0;
  U64 totalRunCount = 0;
  bool operator==(const TaskSchedulerPriorityStats&) const = default;
};

String valueToStrep(const TaskSchedulerPriorityStats& s);
void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, TaskSchedulerPriorityStats* out);
std::ostream& operator<<(std::ostream& os, const TaskSchedulerPriorityStats& s);

// Per-priority statistics, keyed by each record's own priority.
class TaskSchedulerQueueStats {
 public:
  using Map = Zum::OrderedMap<TaskPriority, TaskSchedulerPriorityStats>;
  // A default record (all zero) when the priority has none.
  TaskSchedulerPriorityStats priority(TaskPriority p) const { return priority_.get(p); }
  void priorityIs(const TaskSchedulerPriorityStats& s) { priority_.set(s.taskPriority, s); }
  void priorityDel(TaskPriority p) { priority_.del(p); }
  void priorityDelAll() { priority_ = Map{}; }
  const Map& priorities() const { return priority_; }
  std::size_t priorityCount() const { return priority_.size(); }

 private:
  Map priority_;
};

// There is no text form to parse into a collection: asserts.
void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, TaskSchedulerQueueStats* out);

// A collection of task statistics keyed by one of the record's own fields.
template <class Key, Key TaskStat::*field>
class TaskCollection : public Zum::Entity, public Zum::Notifier {
 public:
  class Notifiee : public Zum::BaseNotifiee<TaskCollection> {
   public:
    virtual void onT(const Key&) {}
  };

  // The record under `key`, or an empty one.
  TaskStat t(const Key& key) const { return t_.get(key); }
  bool has(const Key& key) const { return t_.has(key); }
  std::size_t tCount() const { return t_.size(); }
  std::vector<Key> keys() const { return t_.keys(); }
  // Inserts or replaces the record under its own key.
  void tIs(const TaskStat& s) {
    entryIs(t_, s.*field, s, &Notifiee::onT);
  }
  void tDel(const Key& key) {
    entryDel(t_, key, &Notifiee::onT);
  }
  void tDelAll() {
    entryDelAll(t_, &Notifiee::onT);
  }

 private:
  Zum::OrderedMap<Key, TaskStat> t_;
};

// Classes rather than aliases, so the scheduler above can name them first.
class TaskCollectionTaskName final : public TaskCollection<String, &TaskStat::taskName> {};
class TaskCollectionTaskKey final : public TaskCollection<TaskKey, &TaskStat::taskKey> {};

// Conversions between the runtime's records and the library's.
Dorn::Priority zumPri2taskPri(TaskPriority p);
TaskPriority taskPri2ZumPri(Dorn::Priority p);
TaskStat::TaskStatus taskTaskStatus2olkTaskStatus(const Dorn::TaskStatus& s);
TaskStat taskTaskStat2olkTaskStat(const Dorn::TaskStat& s);
TaskSchedulerQueueStats dornQueueStats2QueueStats(const Dorn::QueueStats& s);
// A runtime high-water mark that recorded nothing reads as 0.
U32 highWaterMark2Count(U32 mark);

// Periodic work in one line: `fn` runs every `period` from a timer task named
// `name` on a scheduler, so the job shows in printStats and tasksRegistered
// like any task. The first run comes one period after the start; each run
// re-arms before calling `fn`, so a slow `fn` does not stretch the cadence.
// The job stops when the last pointer to it goes, also from inside `fn`. Runs are
// ticks of the root's timer wheel (10 ms): a shorter period runs every tick.
// An exception from `fn` reaches the loop like any reactor's.
//
//   Ptr<PeriodicTask> reaper = every(std::chrono::seconds(5), [&] { reap(); }, "reaper");
class PeriodicTask : public Zum::Entity {
 public:
  using Fn = std::function<void()>;

  ~PeriodicTask() override;
  std::chrono::nanoseconds period() const { return period_; }
  // The timer task that carries the job; its statistics are the job's.
  const Ptr<TimerTask>& task() const { return task_; }

 private:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  class Runner;
  PeriodicTask(const Ptr<TaskScheduler>& scheduler, std::chrono::nanoseconds period, Fn fn, const String& name,
               TaskPriority priority);
  void handleRun();
  void arm();

  const std::chrono::nanoseconds period_;
  const Fn fn_;
  Ptr<TimerTask> task_;
  std::unique_ptr<Runner> runner_;
};

// Starts `fn` every `period` on `scheduler`. A period of zero or less, or an
// empty `fn`, throws RangeException.
Ptr<PeriodicTask> every(const Ptr<TaskScheduler>& scheduler, std::chrono::nanoseconds period,
                        PeriodicTask::Fn fn, const String& name, TaskPriority priority = TaskPriority::normal);
// As above, on the agent scheduler "main".
Ptr<PeriodicTask> every(std::chrono::nanoseconds period, PeriodicTask::Fn fn, const String& name);

}  // namespace Olk

template <>
struct std::hash<Olk::TaskKey> {
  size_t operator()(const Olk::TaskKey& k) const noexcept { return std::hash<Zum::U64>()(k.value()); }
};

template <>
struct Zum::EnumTraits<Olk::TaskPriority::PriorityEnum> {
  static constexpr std::string_view typeName = "Olk::TaskPriority";
  static constexpr std::array<std::string_view, 6> names = {"absolute", "high", "normal",
                                                            "low",      "scavenge", "oneBeyondLast"};
};
