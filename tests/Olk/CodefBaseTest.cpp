#include "Olk/CodefBase.h"

#include <gtest/gtest.h>

#include <map>

namespace {

using Olk::TaskPriority;
using Zum::Ptr;
using Zum::Seconds;
using Zum::U64;

// A backlog of entries keyed by id, a later update of an entry replacing the
// earlier one. Each entry takes 1 ms of (manual) clock to process.
template <class Driver>
class MapCodef : public Driver {
 public:
  using Driver::Driver;
  Ptr<Zum::ManualClock> manual;
  std::map<int, int> backlog;
  std::function<bool(Seconds start)> sliceOver;

  void update(int id, int value) {
    this->updatesSeenInc();
    backlog[id] = value;
    this->scheduleCodef();
  }
  U64 backlogSize() const override { return backlog.size(); }
  U64 processBacklog(Seconds start) override {
    U64 n = 0;
    while (!backlog.empty() && !sliceOver(start)) {
      backlog.erase(backlog.begin());
      manual->advance(0.001);
      ++n;
    }
    return n;
  }
};

using ClockCodef = MapCodef<Olk::CodefBase>;
using TaskCodef = MapCodef<Olk::TaskCodefBase>;

struct CodefFixture : ::testing::Test {
  Ptr<Zum::ManualClock> clock = Zum::manualClockFactory(50.0);
  Ptr<ClockCodef> codef;
  void SetUp() override {
    codef = Zum::create<ClockCodef>(Ptr<Zum::Clock>(clock));
    codef->manual = clock;
    codef->backlogQuantumIs(0.0035);
    codef->sliceOver = [this](Seconds start) { return clock->now() - start >= codef->backlogQuantum(); };
  }
};

TEST_F(CodefFixture, RepeatedUpdatesOfOneEntryCoalesce) {
  codef->update(7, 1);
  codef->update(7, 2);
  codef->update(7, 3);
  EXPECT_EQ(codef->updatesSeen(), 3u);
  EXPECT_EQ(codef->backlogSize(), 1u);
  EXPECT_EQ(codef->updatesCoalesced(), 2u);
  EXPECT_FALSE(codef->warm());
  clock->fire();
  EXPECT_TRUE(codef->warm());
  EXPECT_EQ(codef->updatesCoalesced(), 2u);
}

TEST_F(CodefFixture, DrainsInSlicesBoundedByTheQuantum) {
  for (int i = 0; i < 10; ++i) codef->update(i, i);
  clock->fire();
  EXPECT_EQ(codef->dispatchCount(), 3u);  // 4 + 4 + 2 entries
  EXPECT_EQ(codef->yieldBeforeFinishingCount(), 2u);
  EXPECT_EQ(codef->updatesProcessed(), 10u);
  EXPECT_NEAR(codef->timeUsed(), 0.010, 1e-9);
  EXPECT_TRUE(codef->warm());
  EXPECT_EQ(codef->clock()->timeMin(), Zum::endOfTime);
}

TEST_F(CodefFixture, DelayNeverPostponesAnEarlierWakeUp) {
  codef->scheduleCodefDelay(1.0);
  codef->scheduleCodefDelay(10.0);
  EXPECT_EQ(codef->clock()->timeMin(), 51.0);
  codef->scheduleCodefDelay(0.5);
  EXPECT_EQ(codef->clock()->timeMin(), 50.5);
  codef->unscheduleCodef();
  EXPECT_EQ(codef->clock()->timeMin(), Zum::endOfTime);
}

TEST_F(CodefFixture, DetachedClockNeitherSchedulesNorRuns) {
  codef->backlog[1] = 1;
  codef->clockDel();
  codef->scheduleCodef();
  clock->fire();
  EXPECT_EQ(codef->dispatchCount(), 0u);
}

TEST(CodefBaseDeathTest, BareBaseOperationsAreNotToBeCalled) {
  auto bare = Olk::codefBaseFactory(Zum::manualClockFactory());
  EXPECT_DEATH(bare->backlogSize(), "Call to unimplemented function CodefBase::backlogs");
  EXPECT_DEATH(bare->processBacklog(0), "Call to unimplemented function CodefBase::doProcessBacklog");
  Olk::CodefBaseInternal& base = *bare;
  EXPECT_DEATH(base.CodefBaseInternal::scheduleCodef(), "CodefBase::scheduleCodef\n.*0");
}

TEST(TaskCodefBase, SlicesRunAsTaskRunsAndShowInTheTaskStatistics) {
  auto clock = Zum::manualClockFactory(10.0);
  auto sched = Olk::taskSchedulerZumActivityFactory("codef", clock);
  auto codef = Zum::create<TaskCodef>(sched, TaskPriority::low, "drain");
  codef->manual = clock;
  codef->sliceOver = [&](Seconds) { return codef->taskShouldYield(); };
  ASSERT_TRUE(codef->taskCodefBaseInitialized());
  codef->backlogQuantumIs(0.0025);
  EXPECT_EQ(codef->task()->taskQuantum(), 0.0025);
  for (int i = 0; i < 7; ++i) codef->update(i, i);
  clock->fire();
  EXPECT_EQ(codef->dispatchCount(), 3u);  // 3 + 3 + 1
  EXPECT_EQ(codef->task()->taskRun(), 3u);
  Olk::TaskStat s = codef->task()->getStats();
  EXPECT_EQ(s.taskWorkCountTotal, 7u);
  EXPECT_EQ(s.taskWorkPendingHighWaterMark, 4u);
  EXPECT_EQ(s.taskWorkPending, 0u);
  codef->scheduleCodefDelay(5.0);
  codef->scheduleCodefDelay(9.0);
  EXPECT_EQ(codef->task()->currentExpirationTime(), clock->now() + 5.0);
  codef->unscheduleCodef();
  codef->taskDel();
  codef->scheduleCodef();  // no task: nothing happens
  EXPECT_FALSE(codef->taskShouldYield());
}

}  // namespace
