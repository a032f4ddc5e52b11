#include "platform/Dorn.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Dorn::Duration;
using Dorn::Priority;
using Zum::U32;

constexpr Duration ms = 1000000;

// Time moved by hand.
struct HandClock : Dorn::TimeSource {
  Dorn::TimeStamp now() const override { return time; }
  Dorn::TimeStamp time = 1000 * ms;
};

// A root on a hand-moved time source that counts run requests.
class FakeRoot : public Dorn::RootScheduler {
 public:
  FakeRoot() : RootScheduler("fake", 10 * ms) { timeSourceIs(&clock); }
  void requestSchedulerRun() override { ++requests; }

  HandClock clock;
  int requests = 0;
};

class FnTask : public Dorn::Task {
 public:
  FnTask(Dorn::Scheduler* s, Priority p, std::string name, std::function<void(FnTask&)> fn = {})
      : Task(s, p, std::move(name)), fn_(std::move(fn)) {}
  std::function<void(FnTask&)> fn_;

 private:
  void execute() override {
    if (fn_) fn_(*this);
  }
};

struct Fixture {
  FakeRoot root;
  std::string order;

  // A task that appends `letter` to `order` and reschedules itself `again` times.
  std::unique_ptr<FnTask> logger(Priority p, char letter, int again = 0, Dorn::Scheduler* s = nullptr) {
    auto left = std::make_shared<int>(again);
    return std::make_unique<FnTask>(s ? s : &root, p, std::string(1, letter), [this, letter, left](FnTask& t) {
      order += letter;
      if ((*left)-- > 0) t.schedule();
    });
  }
};

TEST(Dorn, LowerPrioritiesGetOneRunInNine) {
  Fixture f;
  auto h = f.logger(Priority::high, 'H', 1000);
  auto n = f.logger(Priority::normal, 'N', 1000);
  auto l = f.logger(Priority::low, 'L', 1000);
  h->schedule();
  n->schedule();
  l->schedule();
  f.root.run();  // time stands still: the run goes on until every task is done
  // The first 81 picks: (8 H, 1 N) eight times, then 8 H and the first L.
  std::string expect;
  for (int i = 0; i < 8; ++i) expect += "HHHHHHHHN";
  expect += "HHHHHHHHL";
  EXPECT_EQ(f.order.substr(0, expect.size()), expect);
}

TEST(Dorn, AbsolutePriorityIsNeverPassedOver) {
  Fixture f;
  auto a = f.logger(Priority::absolute, 'A', 20);
  auto n = f.logger(Priority::normal, 'N');
  a->schedule();
  n->schedule();
  f.root.run();
  EXPECT_EQ(f.order, std::string(21, 'A') + "N");
}

TEST(Dorn, RunStopsAfterItsDurationAndAsksAgain) {
  Fixture f;
  int runs = 0;
  FnTask busy(&f.root, Priority::normal, "busy", [&](FnTask& t) {
    ++runs;
    f.root.clock.time += 3 * ms;
    t.schedule();
  });
  busy.schedule();
  EXPECT_EQ(f.root.requests, 1);
  f.root.run();
  EXPECT_EQ(runs, 4);  // 3, 6, 9 ms are below 10 ms; the fourth run reaches 12
  EXPECT_EQ(f.root.requests, 2);
  EXPECT_TRUE(busy.scheduled());
  f.root.clock.time += 5 * ms;
  f.root.run();
  EXPECT_EQ(f.root.maxSchedulerSlip(), 5 * ms);
}

// The counter clock runs at the steady clock's rate: an interval of it that
// lies inside a steady-clock interval is no longer than that one, and no
// shorter than a sleep it contains. A wrong scale is off by far more than
// the 1% allowed for calibration.
TEST(Dorn, CounterClockKeepsTheSteadyClocksRate) {
  for (int i = 0; i < 3; ++i) {
    const Dorn::TimeStamp steadyBefore = Dorn::steadyNow();
    const Dorn::TimeStamp before = Dorn::measureNow();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const Dorn::TimeStamp after = Dorn::measureNow();
    const Dorn::TimeStamp steadyAfter = Dorn::steadyNow();
    const double counted = static_cast<double>(after - before);
    EXPECT_LE(counted, 1.01 * static_cast<double>(steadyAfter - steadyBefore));
    EXPECT_GE(counted, 0.99 * static_cast<double>(20 * ms));
  }
}

TEST(Dorn, ShouldYieldOnceTheQuantumIsUsed) {
  Fixture f;
  std::vector<bool> answers;
  FnTask t(&f.root, Priority::normal, "t", [&](FnTask& self) {
    answers.push_back(self.shouldYield());
    f.root.clock.time += 19 * ms;
    answers.push_back(self.shouldYield());
    f.root.clock.time += 1 * ms;
    answers.push_back(self.shouldYield());
  });
  EXPECT_EQ(t.quantum(), 20 * ms);
  t.schedule();
  f.root.run();
  EXPECT_EQ(answers, (std::vector<bool>{false, false, true}));
  EXPECT_FALSE(t.shouldYield());  // not running

  answers.clear();
  t.quantumIs(Dorn::maxDuration);
  t.schedule();
  f.root.run();
  EXPECT_EQ(answers, (std::vector<bool>{false, false, false}));
}

TEST(Dorn, TestHooksForceYields) {
  Fixture f;
  std::vector<bool> answers;
  FnTask t(&f.root, Priority::normal, "t", [&](FnTask& self) {
    for (int i = 0; i < 6; ++i) answers.push_back(self.shouldYield());
  });
  f.root.testYieldRatioIs(3);
  t.runAndRecordFromTest();
  EXPECT_EQ(answers, (std::vector<bool>{false, false, true, false, false, true}));
  answers.clear();
  t.forceYieldInTestIs(true);
  t.runAndRecordFromTest();
  EXPECT_EQ(answers, std::vector<bool>(6, true));
}

TEST(Dorn, RecordsLatencyRunTimeWorkAndQuantumOverruns) {
  Fixture f;
  Duration runFor = 0;
  U32 work = 0;
  FnTask t(&f.root, Priority::high, "t", [&](FnTask& self) {
    f.root.clock.time += runFor;
    self.workCountInc(work);
  });
  auto runAfter = [&](Duration wait, Duration run, U32 w) {
    t.schedule();
    f.root.clock.time += wait;
    runFor = run;
    work = w;
    f.root.run();
  };
  runAfter(2 * ms, 40 * ms + 1, 8);  // a nanosecond over twice the quantum
  runAfter(7 * ms, 100 * ms + 1, 0);  // and over five times
  runAfter(1 * ms, 40 * ms, 4);       // exactly twice: no overrun
  Dorn::TaskStat s = t.stat();
  EXPECT_EQ(s.runCount, 3u);
  EXPECT_EQ(s.totalRunTime, 180 * ms + 2);
  EXPECT_EQ(s.runTimeHighWaterMark, 100 * ms + 1);
  EXPECT_EQ(s.lastSchedulingLatency, 1 * ms);
  EXPECT_EQ(s.schedulingLatencyHighWaterMark, 7 * ms);
  EXPECT_EQ(s.quantumViolation200, 2u);
  EXPECT_EQ(s.quantumViolation500, 1u);
  EXPECT_EQ(s.workCountTotal, 12u);
  EXPECT_EQ(s.workCountHighWaterMark, 8u);
  EXPECT_FLOAT_EQ(s.workCountDecayAvg, 1.0f * 7 / 8 * 7 / 8 + 4.0f / 8);
  t.workPendingIs(30);
  t.workPendingIs(5);
  s = t.stat();
  EXPECT_EQ(s.workPending, 5u);
  EXPECT_EQ(s.workPendingHighWaterMark, 30u);
  t.resetStats();
  EXPECT_EQ(t.stat().runCount, 0u);
  EXPECT_EQ(t.stat().workPending, 5u);
}

// A task cannot start again before its own run ends, so scheduling itself
// early in a run queues it as of the run's end; a task it schedules waits
// from the call.
TEST(Dorn, SelfScheduledTaskWaitsFromItsRunEnd) {
  Fixture f;
  FnTask other(&f.root, Priority::low, "other");
  int runs = 0;
  FnTask self(&f.root, Priority::normal, "self", [&](FnTask& t) {
    if (++runs > 1) return;
    t.schedule();
    other.schedule();
    f.root.clock.time += 3 * ms;
  });
  self.schedule();
  f.root.run();
  EXPECT_EQ(runs, 2);
  EXPECT_EQ(self.stat().lastSchedulingLatency, 0);
  EXPECT_EQ(other.stat().lastSchedulingLatency, 3 * ms);
}

TEST(Dorn, ReleasedTasksMergeIntoOneDeadRecordPerName) {
  Fixture f;
  for (int i = 0; i < 3; ++i) {
    FnTask t(&f.root, Priority::low, "short");
    t.workCountInc(2);
    t.runAndRecordFromTest();
  }
  std::vector<Dorn::TaskStat> dead;
  f.root.deadTaskStats(&dead, true);
  ASSERT_EQ(dead.size(), 1u);
  EXPECT_EQ(dead[0].name, "short");
  EXPECT_EQ(dead[0].deadCount, 3u);
  EXPECT_EQ(dead[0].runCount, 3u);
  EXPECT_EQ(dead[0].workCountTotal, 6u);
  EXPECT_EQ(f.root.deadTasksPerPriority(Priority::low), 3u);
  EXPECT_EQ(f.root.registeredTaskCount(), 0u);
  EXPECT_EQ(f.root.queueStats()[Priority::low].totalRunCount, 3u);
  f.root.clearStats();
  dead.clear();
  f.root.deadTaskStats(&dead, true);
  EXPECT_TRUE(dead.empty());
}

TEST(Dorn, SuspendedRootRunsNothingAndAsksAgainOnResume) {
  Fixture f;
  auto a = f.logger(Priority::normal, 'a');
  a->schedule();
  f.root.suspendedIs(true);
  f.root.run();  // the loop answers the request while suspended
  EXPECT_EQ(f.order, "");
  f.root.suspendedIs(false);
  EXPECT_EQ(f.root.requests, 2);  // resuming must ask again
  f.root.run();
  EXPECT_EQ(f.order, "a");
}

TEST(Dorn, HistoryKeepsTheLastRuns) {
  Fixture f;
  f.root.historyEntryCountIs(3);
  auto t = f.logger(Priority::normal, 'a', 4);
  t->schedule();
  f.root.run();
  auto h = f.root.history(10);
  ASSERT_EQ(h.size(), 3u);
  EXPECT_EQ(h[2].name, "a");
  std::ostringstream os;
  f.root.printHistory(os, 2);
  EXPECT_NE(os.str().find("last 2 of 5 runs"), std::string::npos) << os.str();
}

// Each run keeps the statistics name its task had when it ran: through a
// rename, through the task's release (also from inside its own run), and
// through a resize of the ring that drops the older runs.
TEST(Dorn, HistoryNamesAreThoseOfTheRunTime) {
  Fixture f;
  f.root.historyEntryCountIs(8);
  auto a = f.logger(Priority::normal, 'a');
  auto b = f.logger(Priority::normal, 'b');
  a->schedule();
  f.root.run();
  a->statsNameIs("a2");
  a->schedule();
  b->schedule();
  f.root.run();
  b.reset();
  std::unique_ptr<FnTask> c;
  c = std::make_unique<FnTask>(&f.root, Priority::normal, "c", [&](FnTask&) { c.reset(); });
  c->schedule();
  f.root.run();
  auto names = [&] {
    std::string out;
    for (const auto& e : f.root.history(8)) out += e.name + " ";
    return out;
  };
  EXPECT_EQ(names(), "a a2 b c ");
  a->statsNameIs("a3");
  a->schedule();
  f.root.run();
  EXPECT_EQ(names(), "a a2 b c a3 ");
  f.root.historyEntryCountIs(2);
  a.reset();  // its slots were dropped with the old ring: nothing to detach
  a = f.logger(Priority::normal, 'd');
  a->schedule();
  f.root.run();
  EXPECT_EQ(names(), "d ");
}

TEST(Dorn, GroupRunsItsTasksInsideOneParentTask) {
  Fixture f;
  Dorn::TaskGroup g("grp", Priority::low, true, &f.root);
  auto a = f.logger(Priority::normal, 'a', 2, &g);
  auto b = f.logger(Priority::high, 'b', 0, &g);
  auto top = f.logger(Priority::normal, 'n');
  a->schedule();
  b->schedule();
  top->schedule();
  EXPECT_TRUE(g.parentTaskScheduled());
  g.tasksPermittedMultipleRunsIs(false);
  f.root.run();
  // The group runs at low after the normal task; one pass per group run.
  EXPECT_EQ(f.order, "nbaaa");
  EXPECT_EQ(g.parentTaskRunCount(), 3u);
  EXPECT_EQ(f.root.totalRegisteredTaskCount(), 4u);  // two in the group, the group task, top
}

TEST(Dorn, UnenforcedGroupRunsAtItsMostUrgentTask) {
  Fixture f;
  Dorn::TaskGroup g("grp", Priority::low, false, &f.root);
  auto n = f.logger(Priority::normal, 'n');
  auto h = f.logger(Priority::high, 'h', 0, &g);
  n->schedule();
  h->schedule();
  f.root.run();
  EXPECT_EQ(f.order, "hn");
}

// Random scheduling operations against a model of which tasks must run:
// the per-priority runnable counts must agree after every step, and one run
// must execute exactly the model's tasks, each once.
TEST(Dorn, RandomOperationsKeepTheQueuesConsistent) {
  Fixture f;
  constexpr int taskCount = 24;
  std::vector<std::unique_ptr<FnTask>> tasks;
  std::vector<int> ran(taskCount, 0);
  for (int i = 0; i < taskCount; ++i) {
    tasks.push_back(std::make_unique<FnTask>(&f.root, static_cast<Priority>(i % 5), "t",
                                             [&ran, i](FnTask&) { ++ran[i]; }));
  }
  struct Model {
    bool scheduled = false;
    bool suspended = false;
  };
  std::vector<Model> model(taskCount);
  std::mt19937 rng(12345);
  for (int step = 0; step < 5000; ++step) {
    const int i = static_cast<int>(rng() % taskCount);
    FnTask& t = *tasks[i];
    switch (rng() % 5) {
      case 0: t.schedule(); model[i].scheduled = true; break;
      case 1: t.unschedule(); model[i].scheduled = false; break;
      case 2: t.suspendedIs(true); model[i].suspended = true; break;
      case 3: t.suspendedIs(false); model[i].suspended = false; break;
      case 4: t.priorityIs(static_cast<Priority>(rng() % 5)); break;
    }
    for (std::size_t p = 0; p < Dorn::priorityCount; ++p) {
      U32 expect = 0;
      for (int k = 0; k < taskCount; ++k) {
        expect += model[k].scheduled && !model[k].suspended && tasks[k]->priority() == static_cast<Priority>(p);
      }
      ASSERT_EQ(f.root.runnableTaskCount(static_cast<Priority>(p)), expect) << "step " << step;
    }
  }
  f.root.run();
  for (int k = 0; k < taskCount; ++k) {
    EXPECT_EQ(ran[k], model[k].scheduled && !model[k].suspended ? 1 : 0) << "task " << k;
    EXPECT_EQ(tasks[k]->scheduled(), model[k].scheduled && model[k].suspended);
  }
}

}  // namespace
