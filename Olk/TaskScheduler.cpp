// The library's scheduler layer over the Dorn runtime.
//
// The runtime decides what runs when; this layer binds it to the loop and
// maps its records. Three bindings meet here:
//  * runs: the runtime asks for a run through requestSchedulerRun(); the
//    activity binding sets its clock reactor to 0.0 (at once), and the
//    reactor's onTime() runs the runtime once (at most 10 ms of tasks);
//  * timers: every runtime timer gets a ClockNotifiee on the root's
//    TimerWheel; moving a timer is one timeMinIs() on the wheel, and the
//    wheel's callback schedules the timer's task;
//  * time: run times and latencies use the runtime's counter clock, or the root's
//    measurement clock when one is set (tests use a manual clock).
// Statistics cross over in the runtime's units (nanoseconds, all-ones for an
// empty high-water mark) and are converted to seconds and zeros here.
#include "Olk/TaskScheduler.h"

#include <boost/iostreams/device/file_descriptor.hpp>
#include <boost/iostreams/stream.hpp>

#include <sstream>

#include "Olk/DumpContext.h"
#include "Olk/Task.h"
#include "platform/Exception.h"
#include "platform/Trace.h"

namespace Olk {

namespace {

Zum::TraceHandle& trace() {
  static Zum::TraceHandle& h = Zum::traceHandle("TaskScheduler");
  return h;
}

// Writes `write`'s text into the dump: straight into a plain descriptor, or
// line by line through objDumpPrintf for compressed and callback dumps.
template <class F>
void writeToDump(const Ptr<const DumpContext>& ctx, F&& write) {
  if (!ctx->gzFileHandle() && !ctx->writeCallback()) {
    namespace io = boost::iostreams;
    io::stream<io::file_descriptor_sink> out(ctx->fd(), io::never_close_handle);
    write(out);
    out.flush();
    return;
  }
  std::ostringstream text;
  write(text);
  std::istringstream lines(text.str());
  for (String line; std::getline(lines, line);) objDumpPrintf(ctx, "%s\n", line.c_str());
}

Dorn::PrintOptions printOptions(bool neverRun, bool dead, bool addresses, bool history) {
  return Dorn::PrintOptions{neverRun, dead, addresses, history};
}

TaskStat findStat(const std::vector<TaskStat>& stats, const String& name) {
  for (const TaskStat& s : stats) {
    if (s.taskName == name) return s;
  }
  return TaskStat{};
}

}  // namespace

// ---- Value types ------------------------------------------------------------

String TaskPriority::toStrep() const { return Dorn::priorityName(zumPri2taskPri(*this)); }
String TaskPriority::oneCharString() const { return Dorn::priorityOneChar(zumPri2taskPri(*this)); }

String valueToStrep(const TaskPriority& p) { return Zum::enumName(p.priority()); }

void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, TaskPriority* out) {
  TaskPriority::PriorityEnum e;
  Zum::sequenceToValue(cur, end, &e);
  out->priorityIs(e);
}

TaskKey TaskKey::create(const Task* task) { return task ? task->taskKey() : TaskKey(); }

String TaskKey::toStrep() const { return "TaskKey(" + std::to_string(value_) + ")"; }

String valueToStrep(const TaskKey& k) { return Zum::valueToStrep(k.value()); }

void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, TaskKey* out) {
  U64 v = 0;
  Zum::sequenceToValue(cur, end, &v);
  *out = TaskKey(v);
}

bool TaskStat::isClear() const {
  return taskRun == 0 && taskTotalRunTime == 0 && taskWorkCountTotal == 0 && taskWorkCountDecayAvg == 0 &&
         taskWorkCountHighWaterMark == 0 && taskWorkPending == 0 && taskWorkPendingHighWaterMark == 0 &&
         taskQuantumViolation500 == 0 && taskQuantumViolation200 == 0 && taskRunTimeHighWaterMark == 0 &&
         taskLastSchedulingLatency == 0 && taskSchedulingLatencyHighWaterMark == 0 && taskDeadCount == 0;
}

String TaskStat::taskStatusString() const {
  return Dorn::statusString(Dorn::TaskStatus{taskStatus.taskTimer, taskStatus.taskTimerRunning,
                                             taskStatus.taskOnRunQueue, taskStatus.taskCurrentlyRunning,
                                             taskStatus.taskSuspended});
}

String valueToStrep(const TaskStat::TaskStatus& s) {
  Zum::ValueStrepWriter w("Olk::TaskStat::TaskStatus");
  w.field("taskTimer", s.taskTimer)
      .field("taskTimerRunning", s.taskTimerRunning)
      .field("taskOnRunQueue", s.taskOnRunQueue)
      .field("taskCurrentlyRunning", s.taskCurrentlyRunning)
      .field("taskSuspended", s.taskSuspended);
  return std::move(w).done();
}

void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, TaskStat::TaskStatus* out) {
  Zum::ValueStrepReader(cur, end, "Olk::TaskStat::TaskStatus")
      .field("taskTimer", &out->taskTimer)
      .field("taskTimerRunning", &out->taskTimerRunning)
      .field("taskOnRunQueue", &out->taskOnRunQueue)
      .field("taskCurrentlyRunning", &out->taskCurrentlyRunning)
      .field("taskSuspended", &out->taskSuspended)
      .done();
}

String valueToStrep(const TaskStat& s) {
  Zum::ValueStrepWriter w("Olk::TaskStat");
  w.field("taskName", s.taskName)
      .field("taskKey", s.taskKey)
      .field("taskPriority", s.taskPriority)
      .field("taskRun", s.taskRun)
      .field("taskTotalRunTime", s.taskTotalRunTime)
      .field("taskWorkCountTotal", s.taskWorkCountTotal)
      .field("taskWorkCountDecayAvg", static_cast<double>(s.taskWorkCountDecayAvg))
      .field("taskWorkCountHighWaterMark", s.taskWorkCountHighWaterMark)
      .field("taskWorkPending", s.taskWorkPending)
      .field("taskWorkPendingHighWaterMark", s.taskWorkPendingHighWaterMark)
      .field("taskQuantumViolation500", s.taskQuantumViolation500)
      .field("taskQuantumViolation200", s.taskQuantumViolation200)
      .field("taskRunTimeHighWaterMark", s.taskRunTimeHighWaterMark)
      .field("taskLastSchedulingLatency", s.taskLastSchedulingLatency)
      .field("taskSchedulingLatencyHighWaterMark", s.taskSchedulingLatencyHighWaterMark)
      .field("taskDeadCount", s.taskDeadCount)
      .field("taskStatus", s.taskStatus);
  return std::move(w).done();
}

void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, TaskStat* out) {
  double decayAvg = 0;
  Zum::ValueStrepReader(cur, end, "Olk::TaskStat")
      .field("taskName", &out->taskName)
      .field("taskKey", &out->taskKey)
      .field("taskPriority", &out->taskPriority)
      .field("taskRun", &out->taskRun)
      .field("taskTotalRunTime", &out->taskTotalRunTime)
      .field("taskWorkCountTotal", &out->taskWorkCountTotal)
      .field("taskWorkCountDecayAvg", &decayAvg)
      .field("taskWorkCountHighWaterMark", &out->taskWorkCountHighWaterMark)
      .field("taskWorkPending", &out->taskWorkPending)
      .field("taskWorkPendingHighWaterMark", &out->taskWorkPendingHighWaterMark)
      .field("taskQuantumViolation500", &out->taskQuantumViolation500)
      .field("taskQuantumViolation200", &out->taskQuantumViolation200)
      .field("taskRunTimeHighWaterMark", &out->taskRunTimeHighWaterMark)
      .field("taskLastSchedulingLatency", &out->taskLastSchedulingLatency)
      .field("taskSchedulingLatencyHighWaterMark", &out->taskSchedulingLatencyHighWaterMark)
      .field("taskDeadCount", &out->taskDeadCount)
      .field("taskStatus", &out->taskStatus)
      .done();
  out->taskWorkCountDecayAvg = static_cast<float>(decayAvg);
}

String valueToStrep(const TaskSchedulerPriorityStats& s) {
  Zum::ValueStrepWriter w("Olk::TaskSchedulerPriorityStats");
  w.field("taskPriority", s.taskPriority)
      .field("runnableTasks", s.runnableTasks)
      .field("idleTasks", s.idleTasks)
      .field("deadTasks", s.deadTasks)
      .field("totalRunCount", s.totalRunCount);
  return std::move(w).done();
}

void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, TaskSchedulerPriorityStats* out) {
  Zum::ValueStrepReader(cur, end, "Olk::TaskSchedulerPriorityStats")
      .field("taskPriority", &out->taskPriority)
      .field("runnableTasks", &out->runnableTasks)
      .field("idleTasks", &out->idleTasks)
      .field("deadTasks", &out->deadTasks)
      .field("totalRunCount", &out->totalRunCount)
      .done();
}

void sequenceToValue(Zum::StrepIter&, Zum::StrepIter, TaskSchedulerQueueStats*) {
  ZUM_ASSERT(!"No String constructor for TaskSchedulerQueueStats - has collection");
}

std::ostream& operator<<(std::ostream& os, const TaskPriority& p) { return os << valueToStrep(p); }
std::ostream& operator<<(std::ostream& os, const TaskKey& k) { return os << valueToStrep(k); }
std::ostream& operator<<(std::ostream& os, const TaskStat::TaskStatus& s) { return os << valueToStrep(s); }
std::ostream& operator<<(std::ostream& os, const TaskStat& s) { return os << valueToStrep(s); }
std::ostream& operator<<(std::ostream& os, const TaskSchedulerPriorityStats& s) { return os << valueToStrep(s); }

// ---- Conversions ------------------------------------------------------------

Dorn::Priority zumPri2taskPri(TaskPriority p) { return static_cast<Dorn::Priority>(p.numericValue()); }

TaskPriority taskPri2ZumPri(Dorn::Priority p) {
  return TaskPriority(static_cast<TaskPriority::PriorityEnum>(static_cast<U8>(p)));
}

U32 highWaterMark2Count(U32 mark) { return mark == Dorn::TaskStat::noHighWaterMark ? 0 : mark; }

TaskStat::TaskStatus taskTaskStatus2olkTaskStatus(const Dorn::TaskStatus& s) {
  TaskStat::TaskStatus out;
  out.taskTimer = s.timer;
  out.taskTimerRunning = s.timerRunning;
  out.taskOnRunQueue = s.onRunQueue;
  out.taskCurrentlyRunning = s.currentlyRunning;
  out.taskSuspended = s.suspended;
  return out;
}

TaskStat taskTaskStat2olkTaskStat(const Dorn::TaskStat& s) {
  TaskStat out;
  out.taskName = s.name;
  out.taskKey = TaskKey(s.key);
  out.taskPriority = taskPri2ZumPri(s.priority);
  out.taskRun = s.runCount;
  out.taskTotalRunTime = Dorn::toSeconds(s.totalRunTime);
  out.taskWorkCountTotal = s.workCountTotal;
  out.taskWorkCountDecayAvg = s.workCountDecayAvg;
  out.taskWorkCountHighWaterMark = highWaterMark2Count(s.workCountHighWaterMark);
  out.taskWorkPending = s.workPending;
  out.taskWorkPendingHighWaterMark = highWaterMark2Count(s.workPendingHighWaterMark);
  out.taskQuantumViolation500 = s.quantumViolation500;
  out.taskQuantumViolation200 = s.quantumViolation200;
  out.taskRunTimeHighWaterMark = Dorn::toSeconds(s.runTimeHighWaterMark);
  out.taskLastSchedulingLatency = Dorn::toSeconds(s.lastSchedulingLatency);
  out.taskSchedulingLatencyHighWaterMark = Dorn::toSeconds(s.schedulingLatencyHighWaterMark);
  out.taskDeadCount = s.deadCount;
  out.taskStatus = taskTaskStatus2olkTaskStatus(s.status);
  return out;
}

TaskSchedulerQueueStats dornQueueStats2QueueStats(const Dorn::QueueStats& s) {
  TaskSchedulerQueueStats out;
  for (const auto& [p, ps] : s) {
    out.priorityIs(TaskSchedulerPriorityStats{taskPri2ZumPri(p), ps.runnableTasks, ps.idleTasks, ps.deadTasks,
                                              ps.totalRunCount});
  }
  return out;
}

// ---- TaskScheduler ----------------------------------------------------------

void TaskScheduler::requestSchedulerRun() { ZUM_ASSERT(0 && "Must be implemented by derived class"); }

Seconds TaskScheduler::defaultTaskQuantum() const { return Dorn::toSeconds(dornScheduler()->defaultQuantum()); }
void TaskScheduler::defaultTaskQuantumIs(Seconds q) { dornScheduler()->defaultQuantumIs(Dorn::toDuration(q)); }
Seconds TaskScheduler::schedulerMaxSchedulerSlip() const {
  return Dorn::toSeconds(dornScheduler()->root()->maxSchedulerSlip());
}
bool TaskScheduler::schedulerHasRunnableTasks() const { return dornScheduler()->hasRunnableTasks(); }
U32 TaskScheduler::tasksPerPriority(TaskPriority p) const { return dornScheduler()->tasksPerPriority(zumPri2taskPri(p)); }
U32 TaskScheduler::deadTasksPerPriority(TaskPriority p) const {
  return dornScheduler()->deadTasksPerPriority(zumPri2taskPri(p));
}
U64 TaskScheduler::runTaskCount(TaskPriority p) const { return dornScheduler()->runTaskCount(zumPri2taskPri(p)); }
U32 TaskScheduler::runnableTaskCount(TaskPriority p) const {
  return dornScheduler()->runnableTaskCount(zumPri2taskPri(p));
}
TaskSchedulerQueueStats TaskScheduler::queueStats() const {
  return dornQueueStats2QueueStats(dornScheduler()->queueStats());
}

void TaskScheduler::getTaskStats(std::vector<TaskStat>* out, bool includeNeverRunTasks) const {
  std::vector<Dorn::TaskStat> stats;
  dornScheduler()->taskStats(&stats, includeNeverRunTasks);
  for (const Dorn::TaskStat& s : stats) out->push_back(taskTaskStat2olkTaskStat(s));
}

void TaskScheduler::getDeadTaskStats(std::vector<TaskStat>* out, bool includeNeverRunTasks) const {
  std::vector<Dorn::TaskStat> stats;
  dornScheduler()->deadTaskStats(&stats, includeNeverRunTasks);
  for (const Dorn::TaskStat& s : stats) out->push_back(taskTaskStat2olkTaskStat(s));
}

namespace {

Ptr<TaskCollectionTaskName> collectionOf(const std::vector<TaskStat>& stats) {
  Ptr<TaskCollectionTaskName> c = Zum::create<TaskCollectionTaskName>();
  for (const TaskStat& s : stats) c->tIs(s);
  return c;
}

}  // namespace

Ptr<TaskCollectionTaskName> TaskScheduler::tasksRegistered() const {
  std::vector<TaskStat> stats;
  getTaskStats(&stats, true);
  return collectionOf(stats);
}

Ptr<TaskCollectionTaskName> TaskScheduler::deadTaskStats() const {
  std::vector<TaskStat> stats;
  getDeadTaskStats(&stats, true);
  return collectionOf(stats);
}

TaskStat TaskScheduler::taskStatForTest(const String& name) const {
  std::vector<TaskStat> stats;
  getTaskStats(&stats, true);
  return findStat(stats, name);
}

TaskStat TaskScheduler::deadTaskStatForTest(const String& name) const {
  std::vector<TaskStat> stats;
  getDeadTaskStats(&stats, true);
  return findStat(stats, name);
}

void TaskScheduler::resetStats() {
  resetStatsInProgress_ = true;
  dornScheduler()->resetStats();
  resetStatsInProgress_ = false;
}

void TaskScheduler::clearStats() { dornScheduler()->clearStats(); }

void TaskScheduler::printStatsToStream(std::ostream& stream, bool includeNeverRunTasks, bool includeDeadTasks,
                                       bool displayMemoryAddressOfTasks, bool includeSchedulerHistory) const {
  dornScheduler()->printStats(stream, printOptions(includeNeverRunTasks, includeDeadTasks,
                                                   displayMemoryAddressOfTasks, includeSchedulerHistory));
}

void TaskScheduler::printStats(const Ptr<const DumpContext>& dumpContext, bool includeNeverRunTasks,
                               bool includeDeadTasks, bool displayMemoryAddressOfTasks,
                               bool includeSchedulerHistory) const {
  writeToDump(dumpContext, [&](std::ostream& os) {
    printStatsToStream(os, includeNeverRunTasks, includeDeadTasks, displayMemoryAddressOfTasks,
                       includeSchedulerHistory);
  });
}

// ---- TaskSchedulerRoot ------------------------------------------------------

// The measurement clock as the runtime's time source.
class TaskSchedulerRoot::MeasurementSource : public Dorn::TimeSource {
 public:
  explicit MeasurementSource(const TaskSchedulerRoot* root) : root_(root) {}
  Dorn::TimeStamp now() const override { return Dorn::toDuration(root_->measurementClock()->now()); }

 private:
  const TaskSchedulerRoot* root_;
};

TaskSchedulerRoot::TaskSchedulerRoot(const String& name)
    : TaskScheduler(name, this), measurementSource_(std::make_unique<MeasurementSource>(this)) {}

TaskSchedulerRoot::~TaskSchedulerRoot() = default;

void TaskSchedulerRoot::measurementClockIs(const Ptr<Zum::Clock>& c) {
  measurementClock_ = c;
  measurementClockApply();
}

void TaskSchedulerRoot::measurementClockApply() {
  // Without a clock the runtime keeps its own, cheaper counter clock.
  if (Dorn::RootScheduler* r = dornRoot()) r->timeSourceIs(measurementClock_ ? measurementSource_.get() : nullptr);
}

bool TaskSchedulerRoot::suspended() const { return dornRoot()->suspended(); }
void TaskSchedulerRoot::suspendedIs(bool s) { dornRoot()->suspendedIs(s); }
U8 TaskSchedulerRoot::taskTestYieldRatio() const { return dornRoot()->testYieldRatio(); }
void TaskSchedulerRoot::taskTestYieldRatioIs(U8 n) { dornRoot()->testYieldRatioIs(n); }
U32 TaskSchedulerRoot::historyEntryCount() const { return dornRoot()->historyEntryCount(); }
void TaskSchedulerRoot::historyEntryCountIs(U32 n) { dornRoot()->historyEntryCountIs(n); }
U32 TaskSchedulerRoot::taskGroupCount() const { return dornRoot()->taskGroupCount(); }
U32 TaskSchedulerRoot::totalRegisteredTaskCount() const { return dornRoot()->totalRegisteredTaskCount(); }
void TaskSchedulerRoot::handleSchedulerRun() { dornRoot()->run(); }
void TaskSchedulerRoot::clearHistory() { dornRoot()->clearHistory(); }

TaskSchedulerQueueStats TaskSchedulerRoot::queueStatsRoot() const {
  Dorn::QueueStats total = dornRoot()->queueStats();
  for (const Dorn::TaskGroup* g : dornRoot()->groups()) {
    for (const auto& [p, s] : g->queueStats()) {
      Dorn::PriorityStats& t = total[p];
      t.priority = p;
      t.runnableTasks += s.runnableTasks;
      t.idleTasks += s.idleTasks;
      t.deadTasks += s.deadTasks;
      t.totalRunCount += s.totalRunCount;
    }
  }
  return dornQueueStats2QueueStats(total);
}

void TaskSchedulerRoot::doUpdateSchedulerLatency() {
  dornRoot()->updateSchedulerLatency();
  lastLatencyCheck_ = Dorn::steadyNow();
}

void TaskSchedulerRoot::printHistoryToStream(std::ostream& stream, U32 count) const {
  dornRoot()->printHistory(stream, count);
}

void TaskSchedulerRoot::printHistory(const Ptr<const DumpContext>& dumpContext) const {
  writeToDump(dumpContext, [&](std::ostream& os) { printHistoryToStream(os, historyEntryCount()); });
}

// ---- TaskSchedulerRootWrapper -----------------------------------------------

// The runtime root of a TaskSchedulerRoot: its timers live on the root's
// TimerWheel, one `ClockNotifiee` per runtime timer.
class TaskSchedulerRootWrapper : public Dorn::RootScheduler {
 public:
  class ClockNotifiee : public TimerWheel::NotifieeConst, public Dorn::TimerTask::Handle {
   public:
    explicit ClockNotifiee(Dorn::TimerTask* timer) : timer_(timer) {}
    // Clears the timer's running mark and schedules its task.
    void onTime() override { timer_->expire(); }

   private:
    Dorn::TimerTask* timer_;
  };

  TaskSchedulerRootWrapper(const String& name, Dorn::Duration runDuration, TaskSchedulerRoot* root)
      : RootScheduler(name, runDuration), root_(root) {}

  void requestSchedulerRun() override { root_->requestSchedulerRun(); }

  void timerCreated(Dorn::TimerTask* timer) override;
  void timerDestroyed(Dorn::TimerTask* timer) override { timer->handleIs(nullptr); }
  void notifieeIs(Dorn::TimerTask* timer, std::unique_ptr<ClockNotifiee> notifiee);
  void timerStop(Dorn::TimerTask* timer) override;
  // The expiry as a steady time stamp; the largest when there is none.
  Dorn::TimeStamp timerExpiry(Dorn::TimerTask* timer) override;
  // The expiry in the wheel's clock seconds; +infinity when none.
  Seconds timerExpirySeconds(Dorn::TimerTask* timer) const;

 private:
  // Without a notifiee, false. A later expiry than the present one is taken
  // only when `force`; answers whether the expiry was set.
  bool timerStartSeconds(Dorn::TimerTask* timer, Seconds delaySeconds, bool force) override;
  static ClockNotifiee* notifiee(Dorn::TimerTask* timer) { return static_cast<ClockNotifiee*>(timer->handle()); }
  Seconds wheelNow() const;

  TaskSchedulerRoot* root_;
};

Seconds TaskSchedulerRootWrapper::wheelNow() const {
  const Ptr<TimerWheel>& w = root_->timerWheel();
  return w ? w->systemClock()->now() : Dorn::toSeconds(Dorn::steadyNow());
}

void TaskSchedulerRootWrapper::timerCreated(Dorn::TimerTask* timer) {
  // Without a wheel nothing could fire the timer: it gets no notifiee, so
  // it never starts instead of claiming an expiry that never comes.
  if (root_->timerWheel()) notifieeIs(timer, std::make_unique<ClockNotifiee>(timer));
}

void TaskSchedulerRootWrapper::notifieeIs(Dorn::TimerTask* timer, std::unique_ptr<ClockNotifiee> notifiee) {
  if (notifiee && root_->timerWheel()) notifiee->notifierIs(root_->timerWheel());
  timer->handleIs(std::move(notifiee));
}

bool TaskSchedulerRootWrapper::timerStartSeconds(Dorn::TimerTask* timer, Seconds delaySeconds, bool force) {
  ClockNotifiee* n = notifiee(timer);
  if (!n) return false;
  const Seconds expiry = wheelNow() + delaySeconds;
  if (!force && expiry > n->timeMin()) return false;
  n->timeMinIs(expiry);
  return true;
}

void TaskSchedulerRootWrapper::timerStop(Dorn::TimerTask* timer) {
  if (ClockNotifiee* n = notifiee(timer)) n->timeMinIs(Zum::endOfTime);
}

Seconds TaskSchedulerRootWrapper::timerExpirySeconds(Dorn::TimerTask* timer) const {
  ClockNotifiee* n = notifiee(timer);
  return n ? n->timeMin() : Zum::endOfTime;
}

Dorn::TimeStamp TaskSchedulerRootWrapper::timerExpiry(Dorn::TimerTask* timer) {
  const Seconds t = timerExpirySeconds(timer);
  if (t == Zum::endOfTime) return Dorn::maxTimeStamp;
  return Dorn::steadyNow() + Dorn::toDuration(t - wheelNow());
}

// ---- TaskSchedulerRootZum ---------------------------------------------------

void TaskSchedulerRootZum::handleRootZumInit() {
  ZUM_ASSERT(olkSchedulerRoot_ == nullptr);
  olkSchedulerRoot_ = std::make_shared<TaskSchedulerRootWrapper>(name(), Dorn::toDuration(0.010), this);
  measurementClockApply();
}

void TaskSchedulerRootZum::handleRootDestroy() { olkSchedulerRoot_.reset(); }

Dorn::RootScheduler* TaskSchedulerRootZum::dornRoot() const { return olkSchedulerRoot_.get(); }

Seconds TaskSchedulerRootZum::timerExpirySeconds(Dorn::TimerTask* timer) const {
  return olkSchedulerRoot_ ? olkSchedulerRoot_->timerExpirySeconds(timer) : Zum::endOfTime;
}

void TaskSchedulerRootZum::handleSchedulerRun() {
  schedulerRunRequested_ = false;
  TaskSchedulerRoot::handleSchedulerRun();
}

void TaskSchedulerRootZum::requestSchedulerRun() {
  attributeIs(schedulerRunRequested_, true, &Notifiee::onSchedulerRunRequested);
}

Dorn::TimeStamp timerTaskGetExpiryTime(TaskSchedulerRoot* root, Dorn::TimerTask* timerTask) {
  return root->dornRoot()->timerExpiry(timerTask);
}

// ---- TaskSchedulerZumActivity -----------------------------------------------

TaskSchedulerZumActivity::TaskSchedulerZumActivity(const String& name, const Ptr<Zum::Clock>& clock)
    : TaskSchedulerRootZum(name), systemClock_(clock), clock_(this) {
  // A clock given explicitly (a test's manual clock) also measures run times.
  if (clock) measurementClockIs(clock);
}

void TaskSchedulerZumActivity::handleInitialized() {
  ZUM_TRACE(trace(), 1) << name() << " Scheduler created";
  handleRootZumInit();
  systemClock_ = Zum::clockOrLoop(systemClock_);
  timerWheelIs(timerWheelFactory(systemClock_));
  clock_.notifierIs(systemClock_);
}

void TaskSchedulerZumActivity::requestSchedulerRun() { clock_.timeMinIs(0.0); }

Ptr<TaskSchedulerZumActivity> TaskSchedulerZumActivity::findOrCreateAgentScheduler() {
  static Ptr<TaskSchedulerZumActivity> agent = taskSchedulerZumActivityFactory("main");
  return agent;
}

namespace {

// Threads other than the main one get no scheduler from the runtime.
const bool perThreadSchedulerRegistered = [] {
  Dorn::createExternalPerThreadSchedulerIs([]() -> Dorn::RootScheduler* {
    if (!Dorn::isMainThread()) return nullptr;
    return TaskSchedulerZumActivity::findOrCreateAgentScheduler()->dornRoot();
  });
  return true;
}();

}  // namespace

// ---- TaskGroup --------------------------------------------------------------

TaskGroup::TaskGroup(const String& name, TaskPriority priority, bool enforce, const Ptr<TaskScheduler>& parent)
    : TaskScheduler(name, parent->root()),
      parent_(parent),
      enforce_(enforce),
      group_(std::make_unique<Dorn::TaskGroup>(name, zumPri2taskPri(priority), enforce, parent->dornScheduler())) {}

TaskPriority TaskGroup::taskGroupPriority() const { return taskPri2ZumPri(group_->priority()); }
void TaskGroup::taskGroupPriorityIs(TaskPriority p) { group_->priorityIs(zumPri2taskPri(p)); }
Seconds TaskGroup::taskGroupQuantum() const { return Dorn::toSeconds(group_->quantum()); }
void TaskGroup::taskGroupQuantumIs(Seconds q) { group_->quantumIs(Dorn::toDuration(q)); }
bool TaskGroup::tasksPermittedMultipleRuns() const { return group_->tasksPermittedMultipleRuns(); }
void TaskGroup::tasksPermittedMultipleRunsIs(bool b) { group_->tasksPermittedMultipleRunsIs(b); }
bool TaskGroup::taskGroupForceYieldInTest() const { return group_->forceYieldInTest(); }
void TaskGroup::taskGroupForceYieldInTestIs(bool b) { group_->forceYieldInTestIs(b); }
bool TaskGroup::parentTaskScheduled() const { return group_->parentTaskScheduled(); }
U32 TaskGroup::parentTaskRunCount() const { return group_->parentTaskRunCount(); }

// ---- PeriodicTask -----------------------------------------------------------

class PeriodicTask::Runner : public Task::NotifieeConst {
 public:
  explicit Runner(PeriodicTask* owner) : owner_(owner) {}
  void onTaskRun() override { owner_->handleRun(); }

 private:
  PeriodicTask* const owner_;  // owns this runner
};

PeriodicTask::PeriodicTask(const Ptr<TaskScheduler>& scheduler, std::chrono::nanoseconds period, Fn fn,
                           const String& name, TaskPriority priority)
    : Entity(name), period_(period), fn_(std::move(fn)) {
  if (period_ <= std::chrono::nanoseconds::zero()) {
    throw Zum::RangeException("PeriodicTask::period <= 0 not allowed");
  }
  if (!fn_) throw Zum::RangeException(Zum::nullParameterText("Olk::PeriodicTask", "fn"));
  task_ = timerTaskFactory(scheduler, priority, name);
  runner_ = std::make_unique<Runner>(this);
  runner_->notifierIs(task_);
  arm();
}

// The runner goes first, so the task never calls into a job half torn down.
PeriodicTask::~PeriodicTask() { runner_.reset(); }

void PeriodicTask::handleRun() {
  Zum::DestructorGuard guard(this);  // fn may drop the last outside pointer
  arm();
  fn_();
}

void PeriodicTask::arm() { task_->scheduleTaskDelay(std::chrono::duration<Seconds>(period_).count()); }

Ptr<PeriodicTask> every(const Ptr<TaskScheduler>& scheduler, std::chrono::nanoseconds period, PeriodicTask::Fn fn,
                        const String& name, TaskPriority priority) {
  return Zum::create<PeriodicTask>(scheduler, period, std::move(fn), name, priority);
}

Ptr<PeriodicTask> every(std::chrono::nanoseconds period, PeriodicTask::Fn fn, const String& name) {
  return every(TaskSchedulerZumActivity::findOrCreateAgentScheduler(), period, std::move(fn), name);
}

// ---- Factories --------------------------------------------------------------

Ptr<TaskGroup> taskGroupFactory(const String& name, TaskPriority priority, bool enforceTaskGroupPriority,
                                const Ptr<TaskScheduler>& scheduler) {
  return Zum::create<TaskGroup>(name, priority, enforceTaskGroupPriority, scheduler);
}

Ptr<TaskSchedulerRootZum> taskSchedulerRootFactory(const String& name) {
  return Zum::create<TaskSchedulerRootZum>(name);
}

Ptr<TaskSchedulerZumActivity> taskSchedulerZumActivityFactory(const String& name, const Ptr<Zum::Clock>& clock) {
  return Zum::create<TaskSchedulerZumActivity>(name, clock);
}

}  // namespace Olk
