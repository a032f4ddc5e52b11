// Design note: how the Dorn runtime picks, runs and accounts for tasks.
//
// Run queues. Each scheduler keeps one intrusive FIFO list per priority,
// linked through the tasks, so scheduling, unscheduling and picking are O(1)
// and allocate nothing. A task is on at most one list (`Task::queue_`).
//
// Fairness. The most urgent non-empty priority normally runs. To keep lower
// priorities from starving, each priority counts its runs in a row while a
// less urgent priority was waiting (its streak). When that streak reaches
// `priorityRunFactor` (8) the next pick goes to the next less urgent
// priority with work instead, and the streak starts again; that priority's
// own streak may in turn pass the pick further down. With every priority
// busy, `high` thus gets 8 of 9 picks, `normal` 8 of the remaining 9, and so
// on: no priority waits for ever. `absolute` is exempt and always runs
// first: it is for work that must not wait behind anything.
//
// A run. `RootScheduler::run()` takes tasks off the queues and runs them
// until none is left or `runDuration` (10 ms for the agent's scheduler) has
// passed, so a busy scheduler hands the loop back regularly; then, if work
// remains, it asks for another run. Requests made during a run are folded
// into that end-of-run request, so the binding is never re-entered.
//
// Accounting. Every run records, per task, the run count, the run time
// (total and high-water), the scheduling latency (queued to started, last
// and high-water), the work counted during the run (total, per-run
// high-water and a decaying average with weight 1/8), and quantum overruns
// at two thresholds: a run longer than twice the quantum counts in
// `quantumViolation200`, one longer than five times in `quantumViolation500`
// as well. A released task's statistics are merged into the dead record of
// its statistics name (unless the task opts out), so short-lived tasks stay
// visible to an operator. A ring of the last `historyEntryCount` runs shows
// what the loop did most recently.
//
// Time. The clock is read once per run end and once per schedule: the end
// of one task is the start of the next, and a task that schedules itself
// again from its own run is queued as of that run's end (it cannot start
// sooner), so a busy task costs one read per run. Those reads are the
// largest cost of a dispatch, so they go to the processor's time-stamp
// counter (`CounterClock`, Dorn.h) where the kernel trusts it, not to the
// steady clock's system-call-free but fenced read; a root's time source
// (a test's hand-moved clock) replaces it without a virtual call otherwise.
//
// Task groups run their tasks inside one task of their parent, bounded by the
// group's quantum; a group may limit each task to one run per group run.
#include <unistd.h>
#include <sys/syscall.h>

#include <algorithm>
#include <bit>
#include <utility>

#include "platform/Dorn.h"
#include "platform/Exception.h"

namespace Dorn {

// ---- RunQueue ---------------------------------------------------------------

void RunQueue::push(Task* t) {
  ZUM_ASSERT(t->queue_ == nullptr);
  List& l = lists_[index(t->priority_)];
  t->prev_ = l.tail;
  t->next_ = nullptr;
  (l.tail ? l.tail->next_ : l.head) = t;
  l.tail = t;
  ++l.size;
  ++size_;
  nonEmpty_ |= 1u << index(t->priority_);
  t->queue_ = this;
}

void RunQueue::remove(Task* t) {
  ZUM_ASSERT(t->queue_ == this);
  List& l = lists_[index(t->priority_)];
  (t->prev_ ? t->prev_->next_ : l.head) = t->next_;
  (t->next_ ? t->next_->prev_ : l.tail) = t->prev_;
  t->prev_ = t->next_ = nullptr;
  t->queue_ = nullptr;
  --size_;
  if (--l.size == 0) nonEmpty_ &= ~(1u << index(t->priority_));
}

Priority RunQueue::firstFrom(std::size_t from) const {
  const U32 bits = nonEmpty_ >> from;
  return bits ? static_cast<Priority>(from + std::countr_zero(bits)) : Priority::oneBeyondLast;
}

Priority RunQueue::mostUrgent() const { return firstFrom(0); }

Priority RunQueue::lessUrgentThan(Priority p) const { return firstFrom(index(p) + 1); }

Task* RunQueue::pop(U32 priorityRunFactor) {
  Priority p = mostUrgent();
  if (p == Priority::oneBeyondLast) return nullptr;
  if (p != Priority::absolute) {
    for (;;) {
      Priority lower = lessUrgentThan(p);
      if (lower == Priority::oneBeyondLast || streak_[index(p)] < priorityRunFactor) break;
      streak_[index(p)] = 0;
      p = lower;
    }
  }
  U32& streak = streak_[index(p)];
  streak = lessUrgentThan(p) == Priority::oneBeyondLast ? 0 : streak + 1;
  Task* t = lists_[index(p)].head;
  remove(t);
  return t;
}

void RunQueue::prependAll(RunQueue& other) {
  for (std::size_t i = 0; i < priorityCount; ++i) {
    List& from = other.lists_[i];
    if (!from.head) continue;
    for (Task* t = from.head; t; t = t->next_) t->queue_ = this;
    List& to = lists_[i];
    from.tail->next_ = to.head;
    (to.head ? to.head->prev_ : to.tail) = from.tail;
    to.head = from.head;
    to.size += from.size;
    size_ += from.size;
    nonEmpty_ |= 1u << i;
    from = List{};
  }
  other.size_ = 0;
  other.nonEmpty_ = 0;
}

// ---- Scheduler --------------------------------------------------------------

Scheduler::Scheduler(String name, RootScheduler* root)
    : name_(std::move(name)), root_(root), defaultQuantum_(toDuration(initialDefaultTaskQuantum)) {}

Scheduler::~Scheduler() = default;

void Scheduler::registerTask(Task* t) {
  t->registryIndex_ = tasks_.size();
  tasks_.push_back(t);
}

void Scheduler::releaseTask(Task* t) {
  Task* last = tasks_.back();
  tasks_[t->registryIndex_] = last;
  last->registryIndex_ = t->registryIndex_;
  tasks_.pop_back();
  if (!t->keepDeadStats_) return;
  ++deadCount_[index(t->priority_)];
  recordDead(t->stat());
}

void Scheduler::recordDead(const TaskStat& s) {
  TaskStat& d = dead_[s.name];
  auto maxMark = [](U32 a, U32 b) {
    if (a == TaskStat::noHighWaterMark) return b;
    if (b == TaskStat::noHighWaterMark) return a;
    return std::max(a, b);
  };
  U32 deadBefore = d.deadCount;
  if (deadBefore == 0) {
    d = s;
  } else {
    d.key = s.key;
    d.priority = s.priority;
    d.runCount += s.runCount;
    d.totalRunTime += s.totalRunTime;
    d.workCountTotal += s.workCountTotal;
    d.workCountDecayAvg = s.workCountDecayAvg;
    d.workCountHighWaterMark = maxMark(d.workCountHighWaterMark, s.workCountHighWaterMark);
    d.workPending = s.workPending;
    d.workPendingHighWaterMark = maxMark(d.workPendingHighWaterMark, s.workPendingHighWaterMark);
    d.quantumViolation500 += s.quantumViolation500;
    d.quantumViolation200 += s.quantumViolation200;
    d.runTimeHighWaterMark = std::max(d.runTimeHighWaterMark, s.runTimeHighWaterMark);
    d.lastSchedulingLatency = s.lastSchedulingLatency;
    d.schedulingLatencyHighWaterMark =
        std::max(d.schedulingLatencyHighWaterMark, s.schedulingLatencyHighWaterMark);
  }
  d.deadCount = deadBefore + 1;
  d.status = TaskStatus{};
}

U32 Scheduler::tasksPerPriority(Priority p) const {
  return static_cast<U32>(
      std::count_if(tasks_.begin(), tasks_.end(), [p](const Task* t) { return t->priority_ == p; }));
}

QueueStats Scheduler::queueStats() const {
  QueueStats out;
  for (std::size_t i = 0; i < priorityCount; ++i) {
    Priority p = static_cast<Priority>(i);
    U32 tasks = tasksPerPriority(p);
    if (tasks == 0 && deadCount_[i] == 0 && runCount_[i] == 0) continue;
    U32 runnable = queue_.size(p);
    out[p] = PriorityStats{p, runnable, tasks - std::min(tasks, runnable), deadCount_[i], runCount_[i]};
  }
  return out;
}

void Scheduler::taskStats(std::vector<TaskStat>* out, bool includeNeverRunTasks) const {
  for (const Task* t : tasks_) {
    if (includeNeverRunTasks || t->stat_.runCount != 0) out->push_back(t->stat());
  }
}

void Scheduler::deadTaskStats(std::vector<TaskStat>* out, bool includeNeverRunTasks) const {
  for (const auto& kv : dead_) {
    if (includeNeverRunTasks || kv.second.runCount != 0) out->push_back(kv.second);
  }
}

void Scheduler::resetStats() {
  for (Task* t : tasks_) t->resetStats();
  runCount_ = {};
}

void Scheduler::clearStats() {
  resetStats();
  dead_.clear();
  deadCount_ = {};
}

// ---- TaskGroup --------------------------------------------------------------

class TaskGroup::GroupTask : public Task {
 public:
  GroupTask(TaskGroup* group, Scheduler* parent, Priority p)
      : Task(parent, p, group->name()), group_(group) {}

 private:
  void execute() override { group_->runGroup(); }
  TaskGroup* group_;
};

TaskGroup::TaskGroup(String name, Priority priority, bool enforcePriority, Scheduler* parent)
    : Scheduler(std::move(name), parent->root()),
      priority_(priority),
      enforcePriority_(enforcePriority),
      parent_(parent),
      task_(std::make_unique<GroupTask>(this, parent, priority)) {
  root()->groups_.push_back(this);
}

TaskGroup::~TaskGroup() {
  task_.reset();
  std::erase(root()->groups_, this);
}

void TaskGroup::priorityIs(Priority p) {
  priority_ = p;
  task_->priorityIs(parentPriority());
}

Duration TaskGroup::quantum() const { return task_->quantum(); }
void TaskGroup::quantumIs(Duration q) { task_->quantumIs(q); }
bool TaskGroup::forceYieldInTest() const { return task_->forceYieldInTest(); }
void TaskGroup::forceYieldInTestIs(bool b) { task_->forceYieldInTestIs(b); }
bool TaskGroup::parentTaskScheduled() const { return task_->scheduled(); }
U32 TaskGroup::parentTaskRunCount() const { return task_->stat().runCount; }

Priority TaskGroup::parentPriority() const {
  if (enforcePriority_) return priority_;
  return std::min(priority_, queue_.mostUrgent());
}

void TaskGroup::onEnqueued(Task*, TimeStamp) {
  task_->priorityIs(parentPriority());
  task_->schedule();
}

void TaskGroup::runGroup() {
  // The group's task started this pass just now: its start is the pass's.
  const TimeStamp start = task_->runStart_;
  const Duration limit = quantum();
  // Without multiple runs, this pass works on what was queued when it began;
  // tasks that schedule themselves again wait in queue_ for the next pass.
  RunQueue pass;
  RunQueue* source = &queue_;
  if (!multipleRuns_) {
    pass.prependAll(queue_);
    source = &pass;
  }
  TimeStamp now = start;
  while (Task* t = source->pop(priorityRunFactor)) {
    now = runOne(t, now);
    if (task_->forceYieldInTest() || now - start >= limit) break;
  }
  if (!multipleRuns_) queue_.prependAll(pass);
  if (queue_.empty()) return;
  task_->priorityIs(parentPriority());
  task_->schedule();
}

// ---- RootScheduler ----------------------------------------------------------

RootScheduler::RootScheduler(String name, Duration runDuration)
    : Scheduler(std::move(name), this),
      counterClock_(CounterClock::calibrated()),
      runDuration_(runDuration),
      history_(32),
      random_(static_cast<U32>(::getpid()) ^ static_cast<U32>(steadyNow())) {}

RootScheduler::~RootScheduler() { historyRelease(); }

void RootScheduler::onEnqueued(Task*, TimeStamp now) { requestRunIfIdle(now); }

void RootScheduler::requestRunIfIdle(TimeStamp now) {
  if (running_ || runRequested_ || suspended_) return;
  runRequested_ = true;
  requestedAt_ = now;
  requestSchedulerRun();
}

void RootScheduler::updateSchedulerLatency() {
  if (runRequested_) maxSlip_ = std::max(maxSlip_, now() - requestedAt_);
}

void RootScheduler::run() {
  if (running_) return;
  // The request is answered even while suspended, so that resuming asks for
  // a new run instead of waiting on one the loop has already given.
  const bool requested = std::exchange(runRequested_, false);
  if (suspended_) return;
  const TimeStamp start = now();
  if (requested) maxSlip_ = std::max(maxSlip_, start - requestedAt_);
  running_ = true;
  ++runs_;
  TimeStamp t = start;
  while (Task* task = queue_.pop(priorityRunFactor)) {
    t = runOne(task, t);
    if (t - start >= runDuration_) break;
  }
  running_ = false;
  if (!queue_.empty()) requestRunIfIdle(t);
}

void RootScheduler::suspendedIs(bool s) {
  suspended_ = s;
  if (!s && !queue_.empty()) requestRunIfIdle(now());
}

bool RootScheduler::timerStartDuration(TimerTask* t, Duration delay, bool force) {
  return timerStartSeconds(t, toSeconds(delay), force);
}

Duration RootScheduler::timerRemaining(TimerTask* t) {
  TimeStamp e = timerExpiry(t);
  return e == maxTimeStamp ? maxDuration : e - steadyNow();
}

U32 RootScheduler::jitterPercent(U8 maxPercentage) {
  return std::uniform_int_distribution<U32>(0, maxPercentage)(random_);
}

U32 RootScheduler::totalRegisteredTaskCount() const {
  U32 n = registeredTaskCount();
  for (const TaskGroup* g : groups_) n += g->registeredTaskCount();
  return n;
}

void RootScheduler::historyEntryCountIs(U32 n) {
  historyRelease();
  history_.assign(n, HistorySlot{});
  clearHistory();
}

void RootScheduler::clearHistory() {
  historyNext_ = 0;
  historyWritten_ = 0;
}

void RootScheduler::record(Task& t, TimeStamp start, Duration runTime, Duration latency) {
  if (history_.empty()) return;
  HistorySlot& slot = history_[historyNext_];
  if (slot.task) --slot.task->historyRefs_;
  slot.task = &t;
  ++t.historyRefs_;
  HistoryEntry& e = slot.entry;
  e.key = t.key_;
  e.priority = t.priority_;
  e.start = start;
  e.runTime = runTime;
  e.latency = latency;
  if (++historyNext_ == history_.size()) historyNext_ = 0;
  ++historyWritten_;
}

void RootScheduler::historyDetach(Task& t) {
  for (HistorySlot& slot : history_) {
    if (slot.task != &t) continue;
    slot.entry.name = t.statsName_;
    slot.task = nullptr;
  }
  t.historyRefs_ = 0;
}

void RootScheduler::historyRelease() {
  for (HistorySlot& slot : history_) {
    if (slot.task) --slot.task->historyRefs_;
    slot.task = nullptr;
  }
}

std::vector<RootScheduler::HistoryEntry> RootScheduler::history(U32 count) const {
  const std::size_t size = history_.size();
  const std::size_t n = std::min<U64>({count, historyWritten_, size});
  std::vector<HistoryEntry> out;
  out.reserve(n);
  for (std::size_t i = 0; i < n; ++i) {
    const HistorySlot& slot = history_[(historyNext_ + size - n + i) % size];
    out.push_back(slot.entry);
    if (slot.task) out.back().name = slot.task->statsName_;
  }
  return out;
}

// ---- Per-thread scheduler ---------------------------------------------------

namespace {

PerThreadSchedulerFactory& perThreadFactory() {
  static PerThreadSchedulerFactory factory;
  return factory;
}

}  // namespace

void createExternalPerThreadSchedulerIs(PerThreadSchedulerFactory factory) {
  perThreadFactory() = std::move(factory);
}

RootScheduler* perThreadScheduler() {
  const PerThreadSchedulerFactory& f = perThreadFactory();
  return f ? f() : nullptr;
}

bool isMainThread() { return ::syscall(SYS_gettid) == ::getpid(); }

}  // namespace Dorn
