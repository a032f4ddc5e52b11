#include "Olk/TaskScheduler.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Olk/DumpContext.h"
#include "Olk/Task.h"
#include "platform/Trace.h"

namespace {

using Olk::TaskPriority;
using Zum::Ptr;
using Zum::Seconds;
using Zum::U32;

// Runs a function on each run of the task it is attached to.
struct Runner : Olk::Task::NotifieeConst {
  std::function<void(const Olk::Task&)> fn;
  int runs = 0;
  int busyChanges = 0;
  void onTaskRun() override {
    ++runs;
    if (fn) fn(*notifier());
  }
  void onTaskBusy() override { ++busyChanges; }
};

struct SchedulerFixture : ::testing::Test {
  Ptr<Zum::ManualClock> clock = Zum::manualClockFactory(1000.0);
  Ptr<Olk::TaskSchedulerZumActivity> sched = Olk::taskSchedulerZumActivityFactory("test", clock);
  std::string order;

  // A task that appends `tag` to `order` on each run.
  Ptr<Olk::Task> logged(TaskPriority p, const std::string& tag, Runner& r) {
    Ptr<Olk::Task> t = Olk::taskFactory(sched, p, tag);
    r.fn = [this, tag](const Olk::Task&) { order += tag; };
    r.notifierIs(t);
    return t;
  }
  Ptr<Olk::TimerTask> timer(const std::string& name, Runner& r) {
    Ptr<Olk::TimerTask> t = Olk::timerTaskFactory(sched, TaskPriority::normal, name);
    r.notifierIs(t);
    return t;
  }
};

TEST_F(SchedulerFixture, TasksRunOnTheLoopByPriority) {
  Runner rl, rh, rn1, rn2;
  auto l = logged(TaskPriority::low, "l", rl);
  auto n1 = logged(TaskPriority::normal, "a", rn1);
  auto h = logged(TaskPriority::high, "h", rh);
  auto n2 = logged(TaskPriority::normal, "b", rn2);
  for (auto* t : {l.ptr(), n1.ptr(), h.ptr(), n2.ptr()}) t->scheduleTask();
  n1->scheduleTask();  // idempotent while scheduled
  EXPECT_EQ(order, "");  // nothing runs inside scheduleTask()
  EXPECT_EQ(sched->clock().timeMin(), 0.0);
  EXPECT_TRUE(n1->taskBusy());
  EXPECT_EQ(sched->runnableTaskCount(TaskPriority::normal), 2u);
  clock->fire();
  EXPECT_EQ(order, "habl");
  EXPECT_EQ(n1->taskRun(), 1u);
  EXPECT_FALSE(n1->taskBusy());
  EXPECT_EQ(rn1.busyChanges, 2);
  EXPECT_EQ(sched->runTaskCount(TaskPriority::normal), 2u);
  EXPECT_EQ(sched->tasksPerPriority(TaskPriority::normal), 2u);
  EXPECT_FALSE(sched->schedulerHasRunnableTasks());
}

TEST_F(SchedulerFixture, ReactorYieldsAtTheQuantumAndRunsAgain) {
  Runner r;
  int units = 0;
  auto t = Olk::taskFactory(sched, TaskPriority::normal, "worker");
  r.fn = [&](const Olk::Task& self) {
    while (units < 10 && !self.taskShouldYield()) {
      clock->advance(0.005);
      ++units;
      self.taskWorkCountInc(1);
    }
    if (units < 10) self.scheduleTask();
  };
  r.notifierIs(t);
  EXPECT_EQ(t->taskQuantum(), 0.02);
  t->taskQuantumIs(Zum::endOfTime);  // never expires; kept as +infinity
  EXPECT_EQ(t->taskQuantum(), Zum::endOfTime);
  t->taskQuantumIs(0.02);
  t->scheduleTask();
  clock->fire();
  EXPECT_EQ(units, 10);
  EXPECT_EQ(r.runs, 3);  // 4 + 4 + 2 units
  Olk::TaskStat s = t->getStats();
  EXPECT_NEAR(s.taskTotalRunTime, 0.05, 1e-6);
  EXPECT_NEAR(s.taskRunTimeHighWaterMark, 0.02, 1e-6);
  EXPECT_EQ(s.taskWorkCountTotal, 10u);
  EXPECT_EQ(s.taskWorkCountHighWaterMark, 4u);
  EXPECT_EQ(s.taskQuantumViolation200, 0u);
}

TEST_F(SchedulerFixture, LatencyIsTheWaitBehindOtherTasks) {
  Runner ra, rb;
  auto a = Olk::taskFactory(sched, TaskPriority::high, "a");
  auto b = Olk::taskFactory(sched, TaskPriority::low, "b");
  ra.fn = [&](const Olk::Task&) { clock->advance(0.003); };
  ra.notifierIs(a);
  rb.notifierIs(b);
  a->scheduleTask();
  b->scheduleTask();
  clock->fire();
  EXPECT_NEAR(b->taskLastSchedulingLatency(), 0.003, 1e-6);
  EXPECT_NEAR(b->taskSchedulingLatencyHighWaterMark(), 0.003, 1e-6);
  EXPECT_EQ(a->taskLastSchedulingLatency(), 0.0);
}

TEST_F(SchedulerFixture, TaskRunNotifiesOnlyOnChange) {
  Runner r;
  auto t = Olk::taskFactory(sched, TaskPriority::normal, "t");
  r.notifierIs(t);
  t->taskRunIs(0);
  EXPECT_EQ(r.runs, 0);
  t->taskRunIs(5);
  t->taskRunInc(0);
  EXPECT_EQ(r.runs, 1);
  t->taskRunFromTest();
  EXPECT_EQ(t->taskRun(), 6u);
  EXPECT_EQ(t->getStats().taskRun, 0u);  // not recorded
}

// A plain task and a timer task each drop their last reference from inside
// their own run; the run goes on, and only the plain task is kept as dead.
TEST_F(SchedulerFixture, TasksReleasedFromTheirOwnRunAreDeadButTimersAreNot) {
  Runner rp, rt, ra;
  auto plain = Olk::taskFactory(sched, TaskPriority::low, "plain");
  auto tt = timer("timer", rt);
  auto after = logged(TaskPriority::scavenge, "after", ra);
  rp.fn = [&](const Olk::Task&) {
    rp.notifierIs(nullptr);  // the reactor holds the task too
    plain = nullptr;
  };
  rt.fn = [&](const Olk::Task&) {
    rt.notifierIs(nullptr);
    tt = nullptr;
  };
  rp.notifierIs(plain);
  plain->scheduleTask();
  tt->scheduleTaskDelay(0.1);
  after->scheduleTask();
  clock->advance(1.0);
  EXPECT_EQ(plain, nullptr);
  EXPECT_EQ(tt, nullptr);
  EXPECT_EQ(order, "after");
  EXPECT_EQ(sched->totalRegisteredTaskCount(), 1u);
  std::vector<Olk::TaskStat> dead;
  sched->getDeadTaskStats(&dead, true);
  ASSERT_EQ(dead.size(), 1u);
  EXPECT_EQ(dead[0].taskName, "plain");
  EXPECT_EQ(dead[0].taskRun, 1u);
  EXPECT_EQ(dead[0].taskDeadCount, 1u);
  Olk::TaskSchedulerQueueStats q = sched->queueStats();
  EXPECT_EQ(q.priority(TaskPriority::low).deadTasks, 1u);
  EXPECT_EQ(q.priority(TaskPriority::normal).totalRunCount, 1u);
  sched->clearStats();
  EXPECT_TRUE(sched->deadTaskStatForTest("plain").isClear());
}

TEST_F(SchedulerFixture, TimerTaskRunsAfterItsDelay) {
  Runner r;
  auto t = timer("t", r);
  t->scheduleTaskDelay(1.0);
  EXPECT_EQ(t->currentExpirationTime(), 1001.0);
  EXPECT_TRUE(t->taskStatus().taskTimerRunning);
  clock->nowIs(1000.98);
  EXPECT_EQ(r.runs, 0);
  clock->nowIs(1001.02);
  EXPECT_EQ(r.runs, 1);
  EXPECT_FALSE(t->taskStatus().taskTimerRunning);
  EXPECT_EQ(t->currentExpirationTime(), Zum::endOfTime);
  r.fn = [&](const Olk::Task&) {
    if (r.runs < 3) t->scheduleTaskDelay(0.5);  // restarts from its own run
  };
  t->scheduleTaskDelay(0.5);
  clock->advance(10.0);
  EXPECT_EQ(r.runs, 3);
}

TEST_F(SchedulerFixture, LowestDelayOnlyMovesTheExpiryEarlier) {
  Runner r;
  auto t = timer("t", r);
  t->scheduleTaskDelay(1.0);
  t->scheduleTaskLowestDelay(5.0);
  EXPECT_EQ(t->currentExpirationTime(), 1001.0);
  t->scheduleTaskDelay(10.0);
  t->scheduleTaskLowestDelay(5.0);
  EXPECT_EQ(t->currentExpirationTime(), 1005.0);
  Dorn::RootScheduler* root = sched->dornRoot();
  auto* dt = static_cast<Dorn::TimerTask*>(&t->dornTask());
  using FloatSeconds = std::chrono::duration<double>;
  EXPECT_FALSE(root->timerStart(dt, FloatSeconds(6.0), false));  // later without force: refused
  EXPECT_TRUE(root->timerStart(dt, std::chrono::seconds(4) * 1.0, false));
  EXPECT_FALSE(root->timerStart(dt, std::chrono::nanoseconds(5'000'000'000), false));  // the same rule in nanoseconds
  EXPECT_TRUE(root->timerStart(dt, std::chrono::milliseconds(3000) * 1.0, false));
  Dorn::Duration left = root->timerRemaining(dt);
  EXPECT_GT(left, Dorn::toDuration(2.9));
  EXPECT_LE(left, Dorn::toDuration(3.0));
  t->stopTimerTask();
  EXPECT_EQ(t->currentExpirationTime(), Zum::endOfTime);
  EXPECT_EQ(Olk::timerTaskGetExpiryTime(sched.ptr(), dt), Dorn::maxTimeStamp);
  clock->advance(20.0);
  EXPECT_EQ(r.runs, 0);
  root->timerDestroyed(dt);  // no notifiee: nothing starts
  EXPECT_FALSE(root->timerStart(dt, FloatSeconds(1.0), true));
  EXPECT_EQ(root->timerExpiry(dt), Dorn::maxTimeStamp);
}

// A measurement clock set on a root that already has its runtime takes over
// the measuring at once, and clearing it hands the measuring back.
TEST(TaskSchedulerRoot, MeasurementClockSetLaterTakesOverAndCanBeCleared) {
  auto root = Olk::taskSchedulerRootFactory("late-clock");
  auto manual = Zum::manualClockFactory(10.0);
  root->measurementClockIs(manual);
  Runner r;
  r.fn = [&](const Olk::Task&) { manual->advance(2.5); };
  auto t = Olk::taskFactory(root, TaskPriority::normal, "t");
  r.notifierIs(t);
  t->scheduleTask();
  manual->advance(0.5);  // the wait before the run
  root->handleSchedulerRun();
  EXPECT_EQ(t->taskTotalRunTime(), 2.5);
  EXPECT_EQ(t->taskLastSchedulingLatency(), 0.5);
  root->measurementClockIs(nullptr);
  t->scheduleTask();
  root->handleSchedulerRun();
  EXPECT_EQ(r.runs, 2);
  // The second run advanced only the manual clock, which no longer measures.
  EXPECT_LT(t->taskTotalRunTime(), 5.0);
  EXPECT_GE(t->taskTotalRunTime(), 2.5);
}

TEST(TaskSchedulerRoot, TimersNeverStartWithoutATimerWheel) {
  auto root = Olk::taskSchedulerRootFactory("no-wheel");
  auto t = Olk::timerTaskFactory(root, TaskPriority::normal, "t");
  t->scheduleTaskDelay(1.0);
  EXPECT_FALSE(t->taskStatus().taskTimerRunning);
  EXPECT_EQ(t->currentExpirationTime(), Zum::endOfTime);
}

TEST_F(SchedulerFixture, JitterStaysWithinItsPercentage) {
  Runner r;
  auto t = timer("t", r);
  Seconds upMin = 1e9, upMax = 0, downMin = 1e9, downMax = 0;
  for (int i = 0; i < 200; ++i) {
    t->scheduleTaskJitterUp(10.0, 100);
    upMin = std::min(upMin, t->currentExpirationTime() - clock->now());
    upMax = std::max(upMax, t->currentExpirationTime() - clock->now());
    t->scheduleTaskJitterDown(10.0, 50);
    downMin = std::min(downMin, t->currentExpirationTime() - clock->now());
    downMax = std::max(downMax, t->currentExpirationTime() - clock->now());
  }
  // Within range, and spread over more than half of it.
  EXPECT_GE(upMin, 10.0);
  EXPECT_LE(upMax, 20.0);
  EXPECT_GE(downMin, 5.0);
  EXPECT_LE(downMax, 10.0);
  EXPECT_GT(upMax, 15.0);
  EXPECT_LT(downMin, 7.5);
}

struct FdRunner : Olk::FileDescriptorTask::NotifieeConst {
  std::function<void()> onRead;
  int reads = 0;
  int writes = 0;
  void onTaskRunReadable() override {
    ++reads;
    if (onRead) onRead();
  }
  void onTaskRunWritable() override { ++writes; }
};

// Runs the real loop once without waiting, then the scheduler on the manual clock.
void pump(Zum::ManualClock& clock) {
  Zum::activityManager()->runOnce(0.05);
  clock.fire();
}

TEST_F(SchedulerFixture, DescriptorTaskRunsWhenItsPipeIsReadable) {
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  auto t = Olk::fileDescriptorTaskFactory(sched, TaskPriority::normal, "pipe", fds[0]);
  FdRunner r;
  r.notifierIs(t);
  r.onRead = [&] {
    char buf[16];
    ssize_t n = ::read(fds[0], buf, sizeof buf);
    t->taskWorkCountReadableInc(static_cast<U32>(n));
  };
  t->taskWatchReadableIs(true);
  pump(*clock);
  EXPECT_EQ(r.reads, 0);
  ASSERT_EQ(::write(fds[1], "abc", 3), 3);
  pump(*clock);
  EXPECT_EQ(r.reads, 1);
  EXPECT_EQ(t->taskRunReadable(), 1u);
  EXPECT_EQ(t->taskWorkCountReadableTotal(), 3u);
  pump(*clock);  // everything was read: no further run
  EXPECT_EQ(r.reads, 1);
  t = nullptr;  // the task never closes the descriptor
  EXPECT_EQ(::write(fds[1], "x", 1), 1);
  ::close(fds[0]);
  ::close(fds[1]);
}

TEST_F(SchedulerFixture, DescriptorTaskRunsWhenItsSocketIsWritable) {
  int sv[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  auto t = Olk::fileDescriptorTaskFactory(sched, TaskPriority::normal, "sock", sv[0]);
  FdRunner r;
  r.notifierIs(t);
  pump(*clock);
  EXPECT_EQ(r.writes + r.reads, 0);  // nothing watched: no run by polling
  t->scheduleTaskReadable();
  EXPECT_TRUE(t->taskScheduledReadable());
  pump(*clock);
  EXPECT_EQ(r.reads, 1);
  t->scheduleTaskReadable();
  t->unscheduleTask();
  EXPECT_FALSE(t->taskScheduledReadable());
  pump(*clock);
  EXPECT_EQ(r.reads, 1);
  t->taskWatchWritableIs(true);
  pump(*clock);
  EXPECT_EQ(r.writes, 1);
  t->taskWatchWritableIs(false);
  pump(*clock);
  EXPECT_EQ(r.writes, 1);
  t = nullptr;
  ::close(sv[0]);
  ::close(sv[1]);
}

TEST_F(SchedulerFixture, GroupRunsItsTasksThroughItsParent) {
  auto g = Olk::taskGroupFactory("grp", TaskPriority::low, true, sched);
  Runner rg, rn;
  auto inGroup = Olk::taskFactory(g, TaskPriority::high, "g");
  rg.fn = [&](const Olk::Task&) { order += "g"; };
  rg.notifierIs(inGroup);
  auto top = logged(TaskPriority::normal, "n", rn);
  inGroup->scheduleTask();
  top->scheduleTask();
  EXPECT_TRUE(g->parentTaskScheduled());
  clock->fire();
  EXPECT_EQ(order, "ng");
  EXPECT_EQ(g->parentTaskRunCount(), 1u);
  EXPECT_EQ(sched->taskGroupCount(), 1u);
  EXPECT_EQ(sched->queueStatsRoot().priority(TaskPriority::high).totalRunCount, 1u);
}

TEST_F(SchedulerFixture, PrintStatsWritesIntoTheDumpDescriptor) {
  Runner r;
  auto t = logged(TaskPriority::high, "printed-task", r);
  t->taskRunAndRecordFromTest();
  sched->historyEntryCountIs(8);
  t->taskRunAndRecordFromTest();
  FILE* f = ::tmpfile();
  ASSERT_NE(f, nullptr);
  sched->printStats(Olk::DumpContext::dumpContext(::fileno(f), Olk::dumpNormal, false), true, true, true, true);
  std::string text(4096, '\0');
  ::rewind(f);
  text.resize(::fread(text.data(), 1, text.size(), f));
  ::fclose(f);
  EXPECT_NE(text.find("Root scheduler test"), std::string::npos) << text;
  EXPECT_NE(text.find("printed-task ["), std::string::npos) << text;
  EXPECT_NE(text.find("History of test: last 1 of 1 runs"), std::string::npos) << text;
}

TEST(TaskSchedulerTrace, CreationIsTraced) {
  Zum::TraceCapture capture;
  Olk::taskSchedulerZumActivityFactory("traced", Zum::manualClockFactory());
  EXPECT_TRUE(capture.contains("traced Scheduler created"));
}

TEST(TaskSchedulerValues, TextFormsAndKeys) {
  Olk::TaskStat s;
  s.taskName = "only a name";
  EXPECT_TRUE(s.isClear());
  EXPECT_TRUE(!s);
  s.taskDeadCount = 1;
  EXPECT_FALSE(s.isClear());
  s.taskStatus.taskTimer = true;
  s.taskStatus.taskOnRunQueue = true;
  EXPECT_EQ(s.taskStatusString(), "TQ");
  std::string text = valueToStrep(s);
  EXPECT_EQ(text.rfind("Value('Olk::TaskStat', ** {'taskName': 'only a name', 'taskKey': 0, ", 0), 0u) << text;
  EXPECT_NE(text.find("'taskStatus': Value('Olk::TaskStat::TaskStatus', ** {'taskTimer': True, "
                      "'taskTimerRunning': False, 'taskOnRunQueue': True"),
            std::string::npos);
  EXPECT_EQ(Zum::strepToValue<Olk::TaskStat>(text), s);
  std::ostringstream os;
  os << s;
  EXPECT_EQ(os.str(), text);
  Olk::TaskSchedulerPriorityStats p{TaskPriority::scavenge, 1, 2, 3, 4};
  EXPECT_EQ(valueToStrep(p), "Value('Olk::TaskSchedulerPriorityStats', ** {'taskPriority': scavenge, "
                             "'runnableTasks': 1, 'idleTasks': 2, 'deadTasks': 3, 'totalRunCount': 4})");
  EXPECT_EQ(TaskPriority(TaskPriority::low).oneCharString(), "L");
  EXPECT_EQ(Olk::taskPri2ZumPri(Olk::zumPri2taskPri(TaskPriority::high)), TaskPriority(TaskPriority::high));
}

TEST(TaskSchedulerDeathTest, QueueStatsHaveNoTextConstructor) {
  EXPECT_DEATH(Zum::strepToValue<Olk::TaskSchedulerQueueStats>("x"),
               "!\"No String constructor for TaskSchedulerQueueStats - has collection\"");
}

class BareScheduler : public Olk::TaskScheduler {
 public:
  BareScheduler() : TaskScheduler("bare", nullptr) {}
  Dorn::Scheduler* dornScheduler() const override { return nullptr; }
};

TEST(TaskSchedulerDeathTest, BaseRunRequestMustBeOverridden) {
  auto s = Zum::create<BareScheduler>();
  EXPECT_DEATH(s->requestSchedulerRun(), "0 && \"Must be implemented by derived class\"");
  EXPECT_DEATH(Olk::taskFactory(s, TaskPriority::normal, "x"), "taskScheduler_->validScheduler\\(\\)");
}

// The agent's scheduler on the real activity loop: plain tasks in priority
// order, a timer, and a descriptor task, with their statistics.
TEST(TaskSchedulerEndToEnd, AgentSchedulerRunsMixedWork) {
  auto sched = Olk::TaskSchedulerZumActivity::findOrCreateAgentScheduler();
  EXPECT_EQ(sched, Olk::TaskSchedulerZumActivity::findOrCreateAgentScheduler());
  EXPECT_EQ(sched->schedulerName(), "main");
  EXPECT_EQ(Dorn::perThreadScheduler(), sched->dornRoot());
  Dorn::RootScheduler* otherThreads = sched->dornRoot();
  std::thread([&] { otherThreads = Dorn::perThreadScheduler(); }).join();
  EXPECT_EQ(otherThreads, nullptr);
  std::string order;
  std::vector<Ptr<Olk::Task>> tasks;
  std::vector<std::unique_ptr<Runner>> runners;
  for (auto [p, tag] : {std::pair{TaskPriority::low, "L"}, {TaskPriority::high, "H"}, {TaskPriority::normal, "N"}}) {
    tasks.push_back(Olk::taskFactory(sched, p, std::string("e2e-") + tag));
    runners.push_back(std::make_unique<Runner>());
    runners.back()->fn = [&order, tag = std::string(tag)](const Olk::Task&) { order += tag; };
    runners.back()->notifierIs(tasks.back());
  }
  Runner timerRunner;
  auto tt = Olk::timerTaskFactory(sched, TaskPriority::normal, "e2e-timer");
  timerRunner.fn = [&](const Olk::Task&) { order += "T"; };
  timerRunner.notifierIs(tt);
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  auto ft = Olk::fileDescriptorTaskFactory(sched, TaskPriority::normal, "e2e-pipe", fds[0]);
  FdRunner fr;
  fr.onRead = [&] {
    char c;
    ASSERT_EQ(::read(fds[0], &c, 1), 1);
    order += c;
  };
  fr.notifierIs(ft);
  ft->taskWatchReadableIs(true);

  tt->scheduleTaskDelay(0.03);
  for (auto& t : tasks) t->scheduleTask();
  auto loop = Zum::activityManager();
  ASSERT_TRUE(loop->runUntil([&] { return order.size() == 3; }, 2.0));
  EXPECT_EQ(order, "HNL");
  ASSERT_EQ(::write(fds[1], "P", 1), 1);
  ASSERT_TRUE(loop->runUntil([&] { return order.size() == 5; }, 2.0));
  EXPECT_EQ(order, "HNLPT");

  std::ostringstream os;
  sched->printStatsToStream(os, true, true, false, false);
  for (const char* name : {"e2e-L", "e2e-H", "e2e-N", "e2e-timer", "e2e-pipe"}) {
    EXPECT_NE(os.str().find(name), std::string::npos) << os.str();
  }
  ft = nullptr;
  ::close(fds[0]);
  ::close(fds[1]);
}

}  // namespace
