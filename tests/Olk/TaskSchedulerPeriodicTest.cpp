// Periodic jobs on a scheduler driven by a manual clock.
#include <gtest/gtest.h>

#include <chrono>
#include <sstream>

#include "Olk/Task.h"
#include "Olk/TaskScheduler.h"
#include "TestSupport.h"

namespace {

using namespace std::chrono_literals;
using Olk::PeriodicTask;
using Zum::Ptr;

struct PeriodicFixture : ::testing::Test {
  Ptr<Zum::ManualClock> clock = Zum::manualClockFactory(1000.0);
  Ptr<Olk::TaskSchedulerZumActivity> sched = Olk::taskSchedulerZumActivityFactory("test", clock);
  int runs = 0;
};

TEST_F(PeriodicFixture, RunsOncePerPeriodUnderItsNameInTheStatistics) {
  Ptr<PeriodicTask> job = Olk::every(sched, 1s, [&] { ++runs; }, "reaper");
  clock->nowIs(1000.98);
  EXPECT_EQ(runs, 0);  // not before one whole period
  clock->nowIs(1001.02);
  EXPECT_EQ(runs, 1);
  for (int i = 0; i < 4; ++i) clock->advance(1.0);
  EXPECT_EQ(runs, 5);
  EXPECT_EQ(sched->taskStatForTest("reaper").taskRun, 5u);
  std::ostringstream table;
  sched->printStatsToStream(table, false, false, false, false);
  EXPECT_NE(table.str().find("reaper"), std::string::npos) << table.str();
}

TEST_F(PeriodicFixture, SubSecondPeriodKeepsItsCadence) {
  Ptr<PeriodicTask> job = Olk::every(sched, 250ms, [&] { ++runs; }, "quick");
  clock->advance(1.01);
  EXPECT_EQ(runs, 4);
  EXPECT_EQ(job->period(), 250ms);
}

TEST_F(PeriodicFixture, DroppingTheLastPointerStopsTheJob) {
  Ptr<PeriodicTask> job = Olk::every(sched, 1s, [&] { ++runs; }, "dropped");
  clock->advance(2.01);
  ASSERT_EQ(runs, 2);
  job = nullptr;
  clock->advance(5.0);
  EXPECT_EQ(runs, 2);
  EXPECT_FALSE(sched->tasksRegistered()->has("dropped"));
}

TEST_F(PeriodicFixture, JobMayDropItselfFromItsOwnRun) {
  Ptr<PeriodicTask> job;
  job = Olk::every(
      sched, 1s,
      [&] {
        if (++runs == 2) job = nullptr;
      },
      "self-stopping");
  clock->advance(10.0);
  EXPECT_EQ(runs, 2);
  EXPECT_FALSE(sched->tasksRegistered()->has("self-stopping"));
}

TEST_F(PeriodicFixture, NonPositivePeriodOrEmptyFunctionRefused) {
  OlkTest::expectRangeError([&] { Olk::every(sched, 0s, [] {}, "zero"); }, "PeriodicTask::period <= 0 not allowed");
  OlkTest::expectRangeError([&] { Olk::every(sched, -1ms, [] {}, "negative"); },
                            "PeriodicTask::period <= 0 not allowed");
  EXPECT_THROW(Olk::every(sched, 1s, nullptr, "empty"), Zum::RangeException);
  EXPECT_FALSE(sched->tasksRegistered()->has("zero"));
}

TEST(TimerWheelDefaults, FactoryBuildsTheWheelTheSchedulerRuns) {
  Ptr<Zum::ManualClock> clock = Zum::manualClockFactory(0.0);
  Ptr<Olk::TimerWheel> wheel = Olk::timerWheelFactory(clock);
  Ptr<Olk::TaskSchedulerZumActivity> sched = Olk::taskSchedulerZumActivityFactory("wheel", clock);
  const Ptr<Olk::TimerWheel>& runtime = sched->timerWheel();
  EXPECT_EQ(wheel->tickMsecs(), 10u);
  EXPECT_EQ(wheel->initialMaxTicks(), 8640000u);
  EXPECT_TRUE(wheel->preserveOrder());
  EXPECT_EQ(wheel->defaultBucketSize(), 1024u);
  EXPECT_EQ(wheel->maxTicks(), runtime->maxTicks());
  EXPECT_EQ(wheel->bucketCount(), runtime->bucketCount());
}

}  // namespace
