// Dorn tasks: scheduling state, per-task accounting, timer and descriptor
// tasks. The run loop and the fairness rule are in DornScheduler.cpp.
#include <time.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <utility>

#include "platform/Dorn.h"
#include "platform/Exception.h"

namespace Dorn {

namespace {

U64 nextTaskKey() {
  static U64 last = 0;
  return ++last;
}

// Weight of the newest run in the decaying work average.
constexpr float decayWeight = 1.0f / 8.0f;

void raiseMark(U32& mark, U32 v) {
  if (mark == TaskStat::noHighWaterMark || v > mark) mark = v;
}

// Whether `runTime` exceeds `factor` quanta; a quantum too large to scale
// (maxDuration among them) is never exceeded.
bool longerThan(Duration runTime, Duration quantum, Duration factor) {
  return quantum <= maxDuration / factor && runTime > quantum * factor;
}

Duration scaledDelay(Duration delay, double factor) {
  if (delay == maxDuration) return maxDuration;
  double d = static_cast<double>(delay) * factor;
  return d >= static_cast<double>(maxDuration) ? maxDuration : static_cast<Duration>(d);
}

}  // namespace

TimeStamp steadyNow() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<TimeStamp>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

namespace {

bool kernelClockOnCounter() {
#if defined(__x86_64__) || defined(__i386__)
  std::ifstream f("/sys/devices/system/clocksource/clocksource0/current_clocksource");
  String source;
  return f >> source && source == "tsc";
#else
  return false;
#endif
}

}  // namespace

const CounterClock& CounterClock::calibrated() {
  static const CounterClock clock = calibrate();
  return clock;
}

CounterClock CounterClock::calibrate() {
  // A counter reading and a steady time taken together: of a few tries, the
  // one whose two counter reads bracket the steady read most tightly, so a
  // preemption in between does not skew the scale.
  auto pairedReading = [] {
    U64 narrowest = ~U64{0};
    std::pair<U64, TimeStamp> best;
    for (int i = 0; i < 5; ++i) {
      const U64 before = read();
      const TimeStamp t = steadyNow();
      const U64 width = read() - before;
      if (width < narrowest) {
        narrowest = width;
        best = {before + width / 2, t};
      }
    }
    return best;
  };
  CounterClock c;
  if (!kernelClockOnCounter()) return c;
  const auto [count0, ns0] = pairedReading();
  const timespec pause{0, 2'000'000};
  ::nanosleep(&pause, nullptr);
  const auto [count1, ns1] = pairedReading();
  if (count1 <= count0 || ns1 <= ns0) return c;
  c.nsPerCount_ = static_cast<double>(ns1 - ns0) / static_cast<double>(count1 - count0);
  c.nsPerCountFixed_ = static_cast<S64>(std::ldexp(c.nsPerCount_, fixedShift));
  c.originCount_ = count1;
  c.originNs_ = ns1;
  c.usable_ = true;
  return c;
}

Duration toDuration(Seconds s) {
  if (s > std::numeric_limits<double>::max()) return maxDuration;
  // 2^63 ns is just past the largest duration: clamp instead of letting the
  // conversion overflow.
  constexpr double limit = 9223372036854775807.0;
  const double ns = s * 1e9;
  if (ns >= limit) return maxDuration;
  if (ns <= -limit) return std::numeric_limits<S64>::min();
  return static_cast<Duration>(ns);
}

Seconds toSeconds(Duration d) {
  if (d == maxDuration) return Zum::endOfTime;
  return static_cast<Seconds>(d) / 1e9;
}

const char* priorityName(Priority p) {
  static const char* const names[] = {"absolute", "high", "normal", "low", "scavenge", "oneBeyondLast"};
  auto i = static_cast<std::size_t>(p);
  return i < std::size(names) ? names[i] : "invalid";
}

const char* priorityOneChar(Priority p) {
  static const char* const names[] = {"A", "H", "N", "L", "S", "X"};
  auto i = static_cast<std::size_t>(p);
  return i < std::size(names) ? names[i] : "?";
}

String statusString(const TaskStatus& s) {
  String out;
  if (s.timer) out += 'T';
  if (s.timerRunning) out += 't';
  if (s.onRunQueue) out += 'Q';
  if (s.currentlyRunning) out += 'R';
  if (s.suspended) out += 'S';
  return out.empty() ? "-" : out;
}

// ---- Task -------------------------------------------------------------------

Task::Task(Scheduler* scheduler, Priority priority, String name)
    : scheduler_(scheduler), name_(name), statsName_(std::move(name)), key_(nextTaskKey()), priority_(priority) {
  ZUM_ASSERT(scheduler_ != nullptr);
  ZUM_ASSERT(priority_ < Priority::oneBeyondLast);
  scheduler_->registerTask(this);
}

Task::~Task() {
  for (LifeGuard* g = guards_; g; g = g->next_) g->alive_ = false;
  RootScheduler* r = root();
  if (r->current_ == this) {
    finishRun(r->now());
    r->current_ = nullptr;
  }
  if (historyRefs_) r->historyDetach(*this);
  if (queue_) queue_->remove(this);
  scheduler_->releaseTask(this);
}

void Task::statsNameIs(const String& n) {
  if (historyRefs_) root()->historyDetach(*this);
  statsName_ = n;
}

void Task::priorityIs(Priority p) {
  ZUM_ASSERT(p < Priority::oneBeyondLast);
  if (p == priority_) return;
  RunQueue* q = queue_;
  if (q) q->remove(this);
  priority_ = p;
  if (q) q->push(this);
}

void Task::enqueue() {
  RootScheduler* r = root();
  // A task that schedules itself again while the scheduler runs it cannot
  // start before this run ends: its wait begins then, at a time the run
  // reads anyway (see Scheduler::runOne).
  queuedAt_ = r->running_ && r->current_ == this ? queuedAtRunEnd : r->now();
  scheduler_->queue_.push(this);
  scheduler_->onEnqueued(this, queuedAt_);
}

void Task::schedule() {
  if (scheduled_) return;
  if (!suspended_) enqueue();
  scheduledIs(true);
}

void Task::unschedule() {
  if (!scheduled_) return;
  onUnschedule();
  if (queue_) queue_->remove(this);
  scheduledIs(false);
}

bool Task::currentlyRunning() const { return root()->current_ == this; }

void Task::suspendedIs(bool s) {
  if (s == suspended_) return;
  suspended_ = s;
  if (s && queue_) queue_->remove(this);
  if (!s && scheduled_) enqueue();
}

Duration Task::quantum() const { return quantum_ < 0 ? scheduler_->defaultQuantum() : quantum_; }

bool Task::shouldYield() {
  RootScheduler* r = root();
  if (r->current_ != this) return false;
  if (forceYieldInTest_) return true;
  const U8 ratio = testYieldRatio_ ? testYieldRatio_ : r->testYieldRatio();
  if (ratio != 0 && ++yieldCalls_ % ratio == 0) return true;
  const Duration q = quantum();
  return q != maxDuration && r->now() - runStart_ >= q;
}

void Task::workCountInc(U32 n) {
  stat_.workCountTotal += n;
  workThisRun_ += n;
}

void Task::workPendingIs(U32 n) {
  stat_.workPending = n;
  raiseMark(stat_.workPendingHighWaterMark, n);
}

void Task::finishRun(TimeStamp end) {
  const Duration runTime = std::max<Duration>(end - runStart_, 0);
  TaskStat& s = stat_;
  ++s.runCount;
  s.totalRunTime += runTime;
  s.runTimeHighWaterMark = std::max(s.runTimeHighWaterMark, runTime);
  s.lastSchedulingLatency = runLatency_;
  s.schedulingLatencyHighWaterMark = std::max(s.schedulingLatencyHighWaterMark, runLatency_);
  const Duration q = quantum();
  if (longerThan(runTime, q, 2)) ++s.quantumViolation200;
  if (longerThan(runTime, q, 5)) ++s.quantumViolation500;
  raiseMark(s.workCountHighWaterMark, workThisRun_);
  s.workCountDecayAvg += (static_cast<float>(workThisRun_) - s.workCountDecayAvg) * decayWeight;
  workThisRun_ = 0;
  root()->record(*this, runStart_, runTime, runLatency_);
}

// Beside finishRun, so the hot path of every run stays in one unit.
TimeStamp Scheduler::runOne(Task* t, TimeStamp start) {
  RootScheduler* r = root_;
  Task::LifeGuard guard(t);
  Task* outer = r->current_;
  r->current_ = t;
  t->runStart_ = start;
  t->runLatency_ = start - t->queuedAt_;
  t->yieldCalls_ = 0;
  ++runCount_[index(t->priority_)];
  t->scheduledIs(false);
  if (guard.alive()) t->execute();
  const TimeStamp end = r->now();
  r->current_ = outer;
  // A task released while running recorded its run on the way out.
  if (!guard.alive()) return end;
  if (t->queuedAt_ == Task::queuedAtRunEnd) t->queuedAt_ = end;
  t->finishRun(end);
  return end;
}

TaskStat Task::stat() const {
  TaskStat s = stat_;
  s.name = statsName_;
  s.key = key_;
  s.priority = priority_;
  s.status = status();
  return s;
}

TaskStatus Task::status() const {
  TaskStatus s;
  s.onRunQueue = onRunQueue();
  s.currentlyRunning = currentlyRunning();
  s.suspended = suspended_;
  return s;
}

void Task::resetStats() {
  U32 pending = stat_.workPending;
  stat_ = TaskStat{};
  stat_.workPending = pending;
  workThisRun_ = 0;
}

void Task::runAndRecordFromTest() {
  if (queue_) queue_->remove(this);
  queuedAt_ = root()->now();
  scheduler_->runOne(this, queuedAt_);
}

// ---- TimerTask --------------------------------------------------------------

TimerTask::TimerTask(Scheduler* scheduler, Priority priority, String name)
    : Task(scheduler, priority, std::move(name)) {
  root()->timerCreated(this);
}

TimerTask::~TimerTask() {
  root()->timerDestroyed(this);
  handle_.reset();
}

void TimerTask::start(Duration delay, bool force) {
  if (root()->timerStart(this, std::chrono::nanoseconds(delay), force)) timerRunning_ = true;
}

void TimerTask::scheduleDelay(Duration delay) { start(delay, true); }

void TimerTask::scheduleJitterUp(Duration delay, U8 maxJitterPercentage) {
  start(scaledDelay(delay, 1.0 + root()->jitterPercent(maxJitterPercentage) / 100.0), true);
}

void TimerTask::scheduleJitterDown(Duration delay, U8 maxJitterPercentage) {
  double factor = std::max(0.0, 1.0 - root()->jitterPercent(maxJitterPercentage) / 100.0);
  start(scaledDelay(delay, factor), true);
}

void TimerTask::scheduleLowestDelay(Duration delay) { start(delay, false); }

void TimerTask::stop() {
  root()->timerStop(this);
  timerRunning_ = false;
}

void TimerTask::expire() {
  timerRunning_ = false;
  schedule();
}

TaskStatus TimerTask::status() const {
  TaskStatus s = Task::status();
  s.timer = true;
  s.timerRunning = timerRunning_;
  return s;
}

// ---- FileDescriptorTask -----------------------------------------------------

class FileDescriptorTask::Watcher : public Zum::FileDescriptor::Notifiee {
 public:
  explicit Watcher(FileDescriptorTask* task) : task_(task) {}
  void onReadable() override { task_->scheduleReadable(); }
  void onWritable() override { task_->scheduleWritable(); }

 private:
  FileDescriptorTask* task_;
};

void FileDescriptorTask::DirectionWork::fold() {
  raiseMark(highWaterMark, thisRun);
  decayAvg += (static_cast<float>(thisRun) - decayAvg) * decayWeight;
  thisRun = 0;
}

FileDescriptorTask::FileDescriptorTask(Scheduler* scheduler, Priority priority, String name)
    : Task(scheduler, priority, std::move(name)), watcher_(std::make_unique<Watcher>(this)) {}

FileDescriptorTask::~FileDescriptorTask() { watchFdIs(-1); }

void FileDescriptorTask::watchFdIs(int fd) {
  if (watched_) {
    watcher_->notifierIs(nullptr);
    watched_->release();
    watched_ = nullptr;
  }
  fd_ = fd;
  if (fd < 0) return;
  watched_ = Zum::activityManager()->fileDescriptorNew(fd);
  watcher_->notifierIs(watched_);
  updateInterest();
}

void FileDescriptorTask::updateInterest() {
  if (!watched_) return;
  watched_->readInterestIs(watchReadable_ && !pendingReadable_);
  watched_->writeInterestIs(watchWritable_ && !pendingWritable_);
}

void FileDescriptorTask::watchReadableIs(bool b) {
  watchReadable_ = b;
  updateInterest();
}

void FileDescriptorTask::watchWritableIs(bool b) {
  watchWritable_ = b;
  updateInterest();
}

void FileDescriptorTask::scheduleReadable() {
  pendingReadable_ = true;
  updateInterest();
  schedule();
}

void FileDescriptorTask::scheduleWritable() {
  pendingWritable_ = true;
  updateInterest();
  schedule();
}

void FileDescriptorTask::onUnschedule() {
  pendingReadable_ = pendingWritable_ = false;
  updateInterest();
}

void FileDescriptorTask::workCountReadableInc(U32 n) {
  readWork_.total += n;
  readWork_.thisRun += n;
  workCountInc(n);
}

void FileDescriptorTask::workCountWritableInc(U32 n) {
  writeWork_.total += n;
  writeWork_.thisRun += n;
  workCountInc(n);
}

void FileDescriptorTask::resetDirectionStats() {
  readWork_ = DirectionWork{};
  writeWork_ = DirectionWork{};
}

void FileDescriptorTask::execute() {
  LifeGuard guard(this);
  const bool readable = pendingReadable_;
  const bool writable = pendingWritable_;
  pendingReadable_ = pendingWritable_ = false;
  if (readable) {
    executeReadable();
    if (!guard.alive()) return;
    readWork_.fold();
  }
  if (writable) {
    executeWritable();
    if (!guard.alive()) return;
    writeWork_.fold();
  }
  updateInterest();
}

}  // namespace Dorn
