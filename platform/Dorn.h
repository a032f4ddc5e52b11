// Dorn: the cooperative task runtime under the library's task scheduler.
//
// A `RootScheduler` owns per-priority run queues of `Task`s and, each time it
// is asked to `run()`, executes runnable tasks one after another until none
// is left or its run duration is used up; if work remains it asks for another
// run through `requestSchedulerRun()`, which a subclass binds to the event
// loop. A task runs to completion (cooperative): it should check
// `shouldYield()` between units of work, and `schedule()` itself again when
// it stops with work left. Priorities go from `absolute` (most urgent) to
// `scavenge`, first in, first out within one; DornScheduler.cpp explains
// the fairness rule against starvation and the statistics of every run.
//
// One thread (the event loop's); nothing is locked. `run()` is not
// re-entrant: a run requested inside a run is asked for when it ends. A
// task may be destroyed from inside its own `execute()`.
#pragma once

#include <array>
#include <chrono>
#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include "platform/ActivityManager.h"
#include "platform/Types.h"

namespace Dorn {

using Zum::S64;
using Zum::Seconds;
using Zum::String;
using Zum::U32;
using Zum::U64;
using Zum::U8;

// Signed nanoseconds; `maxDuration` stands for "never" / unbounded.
using Duration = S64;
// Signed nanoseconds of the steady (monotonic) clock; `maxTimeStamp` is never.
using TimeStamp = S64;
inline constexpr Duration maxDuration = std::numeric_limits<S64>::max();
inline constexpr TimeStamp maxTimeStamp = std::numeric_limits<S64>::max();

TimeStamp steadyNow();

// The processor's time-stamp counter scaled to nanoseconds: the clock behind
// the runtime's own measurements (run times, latencies, quanta, slip). The
// kernel runs its steady clock on the counter (clocksource "tsc") only once
// it has found the counter constant-rate and in step on every CPU; that is
// the condition for using it here, else now() is steadyNow(). A read costs
// about half a steady-clock read, which matters at two or three reads per
// task run. The scale is measured against the steady clock over a 2 ms sleep
// on first use, good to a few parts in 10^5. Its origin is its own: compare
// its stamps with each other, never with steadyNow().
class CounterClock {
 public:
  // The process's clock, calibrated by the first call.
  static const CounterClock& calibrated();

  TimeStamp now() const {
    if (!usable_) return steadyNow();
    const auto counts = static_cast<S64>(read() - originCount_);
#ifdef __SIZEOF_INT128__
    // Fixed point: one integer multiply is shorter than a round trip
    // through double, and this sits between the counter and every stamp.
    return originNs_ + static_cast<TimeStamp>((static_cast<__int128>(counts) * nsPerCountFixed_) >> fixedShift);
#else
    return originNs_ + static_cast<TimeStamp>(static_cast<double>(counts) * nsPerCount_);
#endif
  }

 private:
  CounterClock() = default;
  static U64 read() {
#if defined(__x86_64__) || defined(__i386__)
    return __builtin_ia32_rdtsc();
#else
    return 0;
#endif
  }
  static CounterClock calibrate();

  static constexpr int fixedShift = 32;

  bool usable_ = false;
  U64 originCount_ = 0;
  TimeStamp originNs_ = 0;
  double nsPerCount_ = 0;
  S64 nsPerCountFixed_ = 0;  // nsPerCount_ * 2^fixedShift
};

// The counter clock's time: the default of every root's now().
inline TimeStamp measureNow() { return CounterClock::calibrated().now(); }

// A time source that replaces a root's counter clock, for tests that move
// time by hand.
class TimeSource {
 public:
  virtual ~TimeSource() = default;
  virtual TimeStamp now() const = 0;
};

// +infinity maps to maxDuration and back; otherwise nanoseconds truncated.
Duration toDuration(Seconds s);
Seconds toSeconds(Duration d);

enum class Priority : U8 { absolute = 0, high = 1, normal = 2, low = 3, scavenge = 4, oneBeyondLast = 5 };
inline constexpr std::size_t priorityCount = 5;
// Full name ("normal") and one-letter form ("N") of a priority.
const char* priorityName(Priority p);
const char* priorityOneChar(Priority p);

struct TaskStatus {
  bool timer = false;
  bool timerRunning = false;
  bool onRunQueue = false;
  bool currentlyRunning = false;
  bool suspended = false;
};

// The statistics of one task (or, for dead tasks, of every released task
// that had the same statistics name). Durations in nanoseconds.
struct TaskStat {
  // Marks a high-water mark that has recorded nothing yet.
  static constexpr U32 noHighWaterMark = 0xFFFFFFFFu;

  String name;
  U64 key = 0;
  Priority priority = Priority::normal;
  U32 runCount = 0;
  Duration totalRunTime = 0;
  U64 workCountTotal = 0;
  float workCountDecayAvg = 0;
  U32 workCountHighWaterMark = noHighWaterMark;
  U32 workPending = 0;
  U32 workPendingHighWaterMark = noHighWaterMark;
  U32 quantumViolation500 = 0;
  U32 quantumViolation200 = 0;
  Duration runTimeHighWaterMark = 0;
  Duration lastSchedulingLatency = 0;
  Duration schedulingLatencyHighWaterMark = 0;
  U32 deadCount = 0;
  TaskStatus status;
};

// A short form of the flags for printing: T timer, t timer running,
// Q on the run queue, R running, S suspended; "-" when none is set.
String statusString(const TaskStatus& s);

struct PriorityStats {
  Priority priority = Priority::normal;
  U32 runnableTasks = 0;
  U32 idleTasks = 0;
  U32 deadTasks = 0;
  U64 totalRunCount = 0;
};
using QueueStats = std::map<Priority, PriorityStats>;

struct PrintOptions {
  bool includeNeverRunTasks = true;
  bool includeDeadTasks = true;
  bool displayMemoryAddressOfTasks = false;
  bool includeSchedulerHistory = false;
};

class Task;
class Scheduler;
class RootScheduler;
class TimerTask;

// Per-priority FIFO lists of tasks, linked through the tasks themselves.
class RunQueue {
 public:
  void push(Task* t);
  void remove(Task* t);
  // The task to run next under the fairness rule, removed; null when empty.
  Task* pop(U32 priorityRunFactor);
  bool empty() const { return size_ == 0; }
  U32 size() const { return size_; }
  U32 size(Priority p) const { return lists_[index(p)].size; }
  // The most urgent priority with a queued task; oneBeyondLast when empty.
  Priority mostUrgent() const;
  // Moves every task of `other` to the front of this queue, keeping order.
  void prependAll(RunQueue& other);

 private:
  struct List {
    Task* head = nullptr;
    Task* tail = nullptr;
    U32 size = 0;
  };
  static std::size_t index(Priority p) { return static_cast<std::size_t>(p); }
  Priority lessUrgentThan(Priority p) const;

  // The first priority at or after `from` whose bit is in nonEmpty_.
  Priority firstFrom(std::size_t from) const;

  std::array<List, priorityCount> lists_;
  // Runs of each priority in a row while a less urgent one was waiting.
  std::array<U32, priorityCount> streak_{};
  U32 size_ = 0;
  U32 nonEmpty_ = 0;  // bit p set exactly when lists_[p] is not empty
};

class Task {
 public:
  // Tells code that called out of a task whether the task survived the
  // call. Guards on one task nest like the calls that create them.
  class LifeGuard {
   public:
    explicit LifeGuard(Task* t) : task_(t), next_(t->guards_) { t->guards_ = this; }
    LifeGuard(const LifeGuard&) = delete;
    LifeGuard& operator=(const LifeGuard&) = delete;
    ~LifeGuard() {
      if (alive_) task_->guards_ = next_;
    }
    bool alive() const { return alive_; }

   private:
    friend class Task;
    Task* task_;
    LifeGuard* next_;
    bool alive_ = true;
  };

  Task(Scheduler* scheduler, Priority priority, String name);
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;
  // Unschedules, and records the statistics among the dead tasks unless
  // keepDeadStats() is false. Released from inside its own run, the task
  // still counts that run.
  virtual ~Task();

  Scheduler* scheduler() const { return scheduler_; }
  RootScheduler* root() const;
  const String& name() const { return name_; }
  const String& statsName() const { return statsName_; }
  void statsNameIs(const String& n);
  U64 key() const { return key_; }
  Priority priority() const { return priority_; }
  // Moves a queued task to the tail of its new priority's list.
  void priorityIs(Priority p);

  // Puts the task on its scheduler's run queue; does nothing while it is
  // already scheduled. A suspended task stays scheduled but off the queue
  // until resumed.
  void schedule();
  // Takes the task off the run queue; does nothing when not scheduled.
  void unschedule();
  bool scheduled() const { return scheduled_; }
  bool onRunQueue() const { return queue_ != nullptr; }
  bool currentlyRunning() const;
  // True while running once the task has used its quantum, or as the test
  // hooks force; false when the task is not the one running.
  bool shouldYield();

  bool suspended() const { return suspended_; }
  void suspendedIs(bool s);
  // The scheduler's default unless set; maxDuration never expires.
  Duration quantum() const;
  void quantumIs(Duration q) { quantum_ = q; }
  bool forceYieldInTest() const { return forceYieldInTest_; }
  void forceYieldInTestIs(bool b) { forceYieldInTest_ = b; }
  // With ratio n > 0, every n-th shouldYield() call answers true; 0 takes
  // the root's ratio.
  U8 testYieldRatio() const { return testYieldRatio_; }
  void testYieldRatioIs(U8 n) { testYieldRatio_ = n; }
  bool keepDeadStats() const { return keepDeadStats_; }
  void keepDeadStatsIs(bool b) { keepDeadStats_ = b; }

  void workCountInc(U32 n);
  U32 workPending() const { return stat_.workPending; }
  void workPendingIs(U32 n);

  TaskStat stat() const;
  virtual TaskStatus status() const;
  void resetStats();

  // Runs execute() at once without touching statistics.
  void runFromTest() { execute(); }
  // Runs the task at once exactly as the scheduler would, recording it.
  void runAndRecordFromTest();

 protected:
  // The task's work; called by the scheduler.
  virtual void execute() = 0;
  // Called whenever scheduled() changes.
  virtual void onBusyChange() {}
  // Called by unschedule() before scheduled() turns false.
  virtual void onUnschedule() {}

 private:
  friend class RunQueue;
  friend class Scheduler;
  friend class RootScheduler;
  friend class TaskGroup;

  static constexpr TimeStamp queuedAtRunEnd = std::numeric_limits<S64>::min();

  void scheduledIs(bool s) {
    if (s == scheduled_) return;
    scheduled_ = s;
    onBusyChange();
  }
  void enqueue();
  // Records the run begun at runStart_ and ended at `end`, here and in the
  // root's history.
  void finishRun(TimeStamp end);

  Scheduler* scheduler_;
  String name_;
  String statsName_;
  U64 key_;
  Priority priority_;
  bool scheduled_ = false;
  bool suspended_ = false;
  bool forceYieldInTest_ = false;
  bool keepDeadStats_ = true;
  U8 testYieldRatio_ = 0;
  U32 yieldCalls_ = 0;     // shouldYield() calls, for the yield ratio
  Duration quantum_ = -1;  // < 0: the scheduler's default
  // Run-queue membership: queue_ is non-null exactly while linked.
  RunQueue* queue_ = nullptr;
  Task* prev_ = nullptr;
  Task* next_ = nullptr;
  std::size_t registryIndex_ = 0;  // position in scheduler_->tasks_
  // When last put on the run queue; queuedAtRunEnd while running stands for
  // the end of the present run.
  TimeStamp queuedAt_ = 0;
  TimeStamp runStart_ = 0;         // valid while running
  Duration runLatency_ = 0;        // of the present run; valid while running
  U32 workThisRun_ = 0;
  U32 historyRefs_ = 0;  // slots of the root's history that point here
  LifeGuard* guards_ = nullptr;  // innermost live guard, or null
  TaskStat stat_;  // status and key/name/priority are filled by stat()
};

// A task that can also be started by a timer. The timer itself lives in the
// root's timer hooks, which keep a per-timer handle in the task.
class TimerTask : public Task {
 public:
  // An owner-defined per-timer object that the root's hooks attach.
  class Handle {
   public:
    virtual ~Handle() = default;
  };

  TimerTask(Scheduler* scheduler, Priority priority, String name);
  ~TimerTask() override;

  // Runs the task once `delay` has passed, replacing any earlier expiry.
  void scheduleDelay(Duration delay);
  // As scheduleDelay, the delay lengthened (up) or shortened (down) by a
  // random amount of at most `maxJitterPercentage` percent of it.
  void scheduleJitterUp(Duration delay, U8 maxJitterPercentage);
  void scheduleJitterDown(Duration delay, U8 maxJitterPercentage);
  // Runs the task after `delay` unless an earlier expiry is already set.
  void scheduleLowestDelay(Duration delay);
  // Cancels the timer; a run already on the queue stays there.
  void stop();
  bool timerRunning() const { return timerRunning_; }
  // Called by the root's hooks when the timer expires: schedules the task.
  void expire();

  Handle* handle() const { return handle_.get(); }
  void handleIs(std::unique_ptr<Handle> h) { handle_ = std::move(h); }

  TaskStatus status() const override;

 private:
  void start(Duration delay, bool force);

  bool timerRunning_ = false;
  std::unique_ptr<Handle> handle_;
};

// A task run when a descriptor it watches becomes readable or writable, or
// when asked to for one direction. It watches through the activity loop and
// never closes the descriptor. While a run for a direction is pending the
// loop stops watching that direction, so unread data cannot make it spin.
class FileDescriptorTask : public Task {
 public:
  FileDescriptorTask(Scheduler* scheduler, Priority priority, String name);
  ~FileDescriptorTask() override;

  int watchFd() const { return fd_; }
  // Starts watching `fd` (the previous one, if any, is no longer watched).
  void watchFdIs(int fd);
  bool watchReadable() const { return watchReadable_; }
  void watchReadableIs(bool b);
  bool watchWritable() const { return watchWritable_; }
  void watchWritableIs(bool b);

  void scheduleReadable();
  void scheduleWritable();
  bool scheduledReadable() const { return pendingReadable_; }
  bool scheduledWritable() const { return pendingWritable_; }

  void workCountReadableInc(U32 n);
  void workCountWritableInc(U32 n);
  U64 workCountReadableTotal() const { return readWork_.total; }
  U64 workCountWritableTotal() const { return writeWork_.total; }
  float workCountReadableDecayAvg() const { return readWork_.decayAvg; }
  float workCountWritableDecayAvg() const { return writeWork_.decayAvg; }
  U32 workCountReadableHighWaterMark() const { return readWork_.highWaterMark; }
  U32 workCountWritableHighWaterMark() const { return writeWork_.highWaterMark; }
  void resetDirectionStats();

 protected:
  virtual void executeReadable() = 0;
  virtual void executeWritable() = 0;

 private:
  struct DirectionWork {
    U64 total = 0;
    float decayAvg = 0;
    U32 highWaterMark = TaskStat::noHighWaterMark;
    U32 thisRun = 0;
    void fold();
  };
  class Watcher;

  void execute() final;
  // Forgets pending runs and watches again what is watched.
  void onUnschedule() override;
  void updateInterest();

  int fd_ = -1;
  bool watchReadable_ = false;
  bool watchWritable_ = false;
  bool pendingReadable_ = false;
  bool pendingWritable_ = false;
  DirectionWork readWork_;
  DirectionWork writeWork_;
  Zum::Ptr<Zum::FileDescriptor> watched_;  // released, never closed
  std::unique_ptr<Watcher> watcher_;
};

// What every scheduler (root or group) keeps: its tasks, its run queue, and
// the statistics per priority and of its dead tasks.
class Scheduler {
 public:
  static constexpr U32 priorityRunFactor = 8;
  static constexpr Seconds initialDefaultTaskQuantum = 0.02;

  Scheduler(const Scheduler&) = delete;
  Scheduler& operator=(const Scheduler&) = delete;
  virtual ~Scheduler();

  const String& name() const { return name_; }
  RootScheduler* root() const { return root_; }
  Duration defaultQuantum() const { return defaultQuantum_; }
  void defaultQuantumIs(Duration q) { defaultQuantum_ = q; }

  bool hasRunnableTasks() const { return !queue_.empty(); }
  U32 tasksPerPriority(Priority p) const;
  U32 deadTasksPerPriority(Priority p) const { return deadCount_[index(p)]; }
  U64 runTaskCount(Priority p) const { return runCount_[index(p)]; }
  U32 runnableTaskCount(Priority p) const { return queue_.size(p); }
  U32 registeredTaskCount() const { return static_cast<U32>(tasks_.size()); }
  // One record per priority that has tasks, dead tasks or runs.
  QueueStats queueStats() const;
  // Live tasks; those that never ran only when asked for.
  void taskStats(std::vector<TaskStat>* out, bool includeNeverRunTasks) const;
  void deadTaskStats(std::vector<TaskStat>* out, bool includeNeverRunTasks) const;
  // Zeroes the counters of live tasks and of the priorities.
  void resetStats();
  // As resetStats, and forgets the dead tasks.
  void clearStats();

  // An operator's view: priorities, then one line per task.
  virtual void printStats(std::ostream& os, const PrintOptions& options) const;

 protected:
  Scheduler(String name, RootScheduler* root);
  static std::size_t index(Priority p) { return static_cast<std::size_t>(p); }

  // A task of this scheduler was put on `queue_` at time `now`.
  virtual void onEnqueued(Task*, TimeStamp /*now*/) {}
  // Runs `t` (just taken off a queue), starting at `start`, and records the
  // run; returns the time it ended.
  TimeStamp runOne(Task* t, TimeStamp start);
  void printTaskLines(std::ostream& os, const PrintOptions& options) const;

  RunQueue queue_;

 private:
  friend class Task;

  void registerTask(Task* t);
  void releaseTask(Task* t);
  void recordDead(const TaskStat& s);

  String name_;
  RootScheduler* root_;
  Duration defaultQuantum_;
  std::vector<Task*> tasks_;
  std::map<String, TaskStat> dead_;  // by statistics name
  std::array<U64, priorityCount> runCount_{};
  std::array<U32, priorityCount> deadCount_{};
};

// A scheduler whose tasks run inside one task of its parent: the group's
// task is scheduled whenever one of its tasks is, at the group's priority
// (or, when the priority is not enforced, at the most urgent waiting one).
class TaskGroup : public Scheduler {
 public:
  TaskGroup(String name, Priority priority, bool enforcePriority, Scheduler* parent);
  ~TaskGroup() override;

  Priority priority() const { return priority_; }
  void priorityIs(Priority p);
  bool enforcePriority() const { return enforcePriority_; }
  Scheduler* parent() const { return parent_; }
  // How long one run of the group may last; the group task's quantum.
  Duration quantum() const;
  void quantumIs(Duration q);
  // When false, a task runs at most once per run of the group, even if it
  // schedules itself again.
  bool tasksPermittedMultipleRuns() const { return multipleRuns_; }
  void tasksPermittedMultipleRunsIs(bool b) { multipleRuns_ = b; }
  bool forceYieldInTest() const;
  void forceYieldInTestIs(bool b);
  bool parentTaskScheduled() const;
  U32 parentTaskRunCount() const;

 private:
  class GroupTask;
  void onEnqueued(Task* t, TimeStamp now) override;
  void runGroup();
  Priority parentPriority() const;

  Priority priority_;
  bool enforcePriority_;
  bool multipleRuns_ = true;
  Scheduler* parent_;
  std::unique_ptr<GroupTask> task_;
};

// The top of a scheduler tree, bound to an event loop by a subclass.
class RootScheduler : public Scheduler {
 public:
  struct HistoryEntry {
    U64 key = 0;
    String name;
    Priority priority = Priority::normal;
    TimeStamp start = 0;
    Duration runTime = 0;
    Duration latency = 0;
  };

  // `runDuration`: how long one run() may execute tasks.
  RootScheduler(String name, Duration runDuration);
  ~RootScheduler() override;

  Duration runDuration() const { return runDuration_; }
  // Executes runnable tasks until none is left or runDuration() is used;
  // asks for another run when work remains. Does nothing while suspended.
  void run();
  bool running() const { return running_; }
  Task* currentTask() const { return current_; }
  bool suspended() const { return suspended_; }
  void suspendedIs(bool s);
  U8 testYieldRatio() const { return testYieldRatio_; }
  void testYieldRatioIs(U8 n) { testYieldRatio_ = n; }

  // The time used for every measurement: the time source when one is set,
  // else the counter clock.
  TimeStamp now() const { return timeSource_ ? timeSource_->now() : counterClock_.now(); }
  // Not owned; it must outlive the root or be unset first. Null restores the
  // counter clock.
  void timeSourceIs(const TimeSource* s) { timeSource_ = s; }
  // Asks the loop for a run() soon; the binding's job.
  virtual void requestSchedulerRun() = 0;

  // Slip: how late a requested run started. Checked at each run and on demand.
  void updateSchedulerLatency();
  Duration maxSchedulerSlip() const { return maxSlip_; }
  U64 runs() const { return runs_; }

  // The history ring holds the last 32 runs unless resized.
  U32 historyEntryCount() const { return static_cast<U32>(history_.size()); }
  // Resizes the ring (0 turns history off) and clears it.
  void historyEntryCountIs(U32 n);
  void clearHistory();
  // Up to `count` most recent runs, oldest first.
  std::vector<HistoryEntry> history(U32 count) const;
  void printHistory(std::ostream& os, U32 count) const;
  void printStats(std::ostream& os, const PrintOptions& options) const override;

  U32 taskGroupCount() const { return static_cast<U32>(groups_.size()); }
  const std::vector<TaskGroup*>& groups() const { return groups_; }
  // Every task registered on this root and its groups.
  U32 totalRegisteredTaskCount() const;

  // Timer hooks, implemented by the binding on its timers. A root without
  // timers keeps these defaults: timers never start.
  virtual void timerCreated(TimerTask*) {}
  virtual void timerDestroyed(TimerTask*) {}
  //
  // Starting a timer takes a typed duration, so the unit is never guessed:
  // a bare number does not convert to either, and a floating-point count of
  // seconds cannot silently truncate to nanoseconds. Both forward to a
  // distinctly named hook, so a binding that overrides one keeps the other.
  bool timerStart(TimerTask* t, std::chrono::duration<double> delay, bool force) {
    return timerStartSeconds(t, delay.count(), force);
  }
  bool timerStart(TimerTask* t, std::chrono::nanoseconds delay, bool force) {
    return timerStartDuration(t, delay.count(), force);
  }
  virtual void timerStop(TimerTask*) {}
  virtual TimeStamp timerExpiry(TimerTask*) { return maxTimeStamp; }
  virtual Duration timerRemaining(TimerTask* t);

  // A random percentage in [0, maxPercentage], for timer jitter.
  U32 jitterPercent(U8 maxPercentage);

 protected:
  // The hooks behind timerStart. By default timers never start, and a
  // nanosecond delay is converted and handed to timerStartSeconds.
  virtual bool timerStartSeconds(TimerTask*, Seconds /*delay*/, bool /*force*/) { return false; }
  virtual bool timerStartDuration(TimerTask* t, Duration delay, bool force);

 private:
  friend class Scheduler;
  friend class Task;
  friend class TaskGroup;

  void onEnqueued(Task* t, TimeStamp now) override;
  void requestRunIfIdle(TimeStamp now);
  void record(Task& t, TimeStamp start, Duration runTime, Duration latency);
  // Gives every slot that names `t` through its pointer a copy of the name,
  // before the task goes or is renamed.
  void historyDetach(Task& t);
  // Lets go of every task the ring points at, before the ring goes.
  void historyRelease();

  const CounterClock counterClock_;
  const TimeSource* timeSource_ = nullptr;
  Duration runDuration_;
  bool running_ = false;
  bool runRequested_ = false;  // a run has been asked for and not yet begun
  bool suspended_ = false;
  U8 testYieldRatio_ = 0;
  TimeStamp requestedAt_ = 0;  // valid while runRequested_
  Duration maxSlip_ = 0;
  U64 runs_ = 0;
  Task* current_ = nullptr;  // the innermost task executing, or null
  std::vector<TaskGroup*> groups_;
  // One run in the ring. While `task` is set the entry's name is that live
  // task's statistics name, read when the history is; a run costs no copy
  // of it. The task counts such slots (historyRefs_) and detaches itself,
  // copying its name in, before it goes or is renamed.
  struct HistorySlot {
    HistoryEntry entry;
    Task* task = nullptr;
  };
  std::vector<HistorySlot> history_;  // ring; historyNext_ is the oldest slot
  std::size_t historyNext_ = 0;
  U64 historyWritten_ = 0;
  std::minstd_rand random_;
};

inline RootScheduler* Task::root() const { return scheduler_->root(); }

// The per-thread scheduler hook: a factory the embedding layer registers,
// asked by perThreadScheduler() on the calling thread at each call.
using PerThreadSchedulerFactory = std::function<RootScheduler*()>;
void createExternalPerThreadSchedulerIs(PerThreadSchedulerFactory factory);
// The calling thread's root from the registered factory; null without one.
RootScheduler* perThreadScheduler();
bool isMainThread();

}  // namespace Dorn
