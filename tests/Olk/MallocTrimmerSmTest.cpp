#include "Olk/MallocTrimmerSm.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

using Zum::Ptr;
using Zum::Seconds;
using Zum::U32;
using Zum::U64;

struct TrimmerFixture : ::testing::Test {
  Ptr<Zum::ManualClock> clock = Zum::manualClockFactory(1000.0);
  Ptr<Olk::TaskSchedulerZumActivity> sched = Olk::taskSchedulerZumActivityFactory("trim", clock);
  Ptr<Olk::MallocTrimmerSm> trimmer = Olk::mallocTrimmerSmFactory(sched);
  U32 calls = 0;
  U32 callsPerCycle = 2500;

  void SetUp() override {
    // A trim that frees 2 bytes a call and finishes on the cycle's last call.
    trimmer->mallocTrimFunctionIs([this](Seconds, U32, void** bookmark, U64* freed) {
      *bookmark = &calls;
      *freed += 2;
      return ++calls % callsPerCycle != 0;
    });
  }
  Seconds expiryIn() const { return trimmer->trimTask()->currentExpirationTime() - clock->now(); }
  // Moves past the trim task's expiry by more than the wheel's 10 ms tick.
  void runToExpiry() { clock->advance(expiryIn() + 0.011); }
};

TEST_F(TrimmerFixture, CycleOf2500CallsPausesAfterEachThousand) {
  EXPECT_EQ(trimmer->trimTask()->taskPriority(), Olk::TaskPriority(Olk::TaskPriority::scavenge));
  EXPECT_EQ(trimmer->trimTask()->taskName(), "mallocTrimmer");
  EXPECT_GE(expiryIn(), 30.0);  // the first cycle starts after 30 s plus up to 100%
  EXPECT_LE(expiryIn(), 60.0);
  runToExpiry();
  EXPECT_EQ(calls, 1000u);
  EXPECT_EQ(trimmer->numTrimCount(), 1000u);
  EXPECT_EQ(trimmer->freed(), 2000u);
  EXPECT_NEAR(expiryIn(), 30.0, 0.011);  // the pause within the cycle
  clock->advance(29.9);
  EXPECT_EQ(calls, 1000u);
  runToExpiry();
  EXPECT_EQ(calls, 2000u);
  runToExpiry();
  EXPECT_EQ(calls, 2500u);
  EXPECT_EQ(trimmer->numTrimCount(), 0u);  // the cycle ended
  EXPECT_EQ(trimmer->freed(), 0u);
  EXPECT_EQ(trimmer->bookmark(), &calls);
  // The next cycle was set 30 s plus up to 100% after the last run, which
  // runToExpiry() passed by 11 ms.
  EXPECT_GE(expiryIn(), 30.0 - 0.011);
  EXPECT_LE(expiryIn(), 60.0);
  EXPECT_EQ(trimmer->trimTask()->getStats().taskWorkCountTotal, 5000u);
}

TEST_F(TrimmerFixture, TrimOutsideTheTaskRunChangesNothing) {
  trimmer->trim();
  EXPECT_EQ(calls, 0u);
  EXPECT_EQ(trimmer->numTrimCount(), 0u);
}

TEST_F(TrimmerFixture, ZeroIntervalSchedulesNoCycle) {
  trimmer->trimTask()->stopTimerTask();
  trimmer->taskDelayIntervalIs(0);
  trimmer->scheduleTrim();
  EXPECT_EQ(trimmer->trimTask()->currentExpirationTime(), Zum::endOfTime);
  clock->advance(1000.0);
  EXPECT_EQ(calls, 0u);
}

TEST_F(TrimmerFixture, QuantumIsTheTaskQuantumAndTracesGoToItsHandle) {
  trimmer->mallocTrimQuantumIs(0.001);
  EXPECT_EQ(trimmer->trimTask()->taskQuantum(), 0.001);
  callsPerCycle = 1;
  Rivlog::Handle& h = Rivlog::handle("TrimTest");
  trimmer->qthIs(&h);
  trimmer->qtlIs(3);
  Rivlog::ring().clear();
  runToExpiry();
  EXPECT_EQ(calls, 1u);
  std::vector<std::string> texts;
  for (const auto& r : Rivlog::ring().records()) texts.push_back(Rivlog::recordText(r));
  ASSERT_EQ(texts.size(), 2u);
  EXPECT_NE(texts[0].find("MallocTrimmer: time quantum 0.001 max Iter 10000 freed so far 0 in 0 calls"),
            std::string::npos);
  EXPECT_NE(texts[1].find("Out of YIELD freed 2 in 1 calls"), std::string::npos);
  std::ostringstream os;
  os << *trimmer;
  EXPECT_EQ(os.str(), "Olk::MallocTrimmerSm");
}

TEST(MallocTrimmerSm, DefaultTrimNeverYields) {
  void* bookmark = nullptr;
  U64 freed = 0;
  EXPECT_FALSE(Olk::mallocTrimYield(0.001, 10, &bookmark, &freed));
}

}  // namespace
