#include "Olk/ReviewTimer.h"

#include <gtest/gtest.h>

namespace {

using Zum::Ptr;

struct ReviewFixture : ::testing::Test {
  Ptr<Zum::ManualClock> clock = Zum::manualClockFactory(1000.0);
  Zum::Clock::Notifiee reactor;
  Ptr<Olk::ReviewTimer> timer;
  void SetUp() override {
    reactor.notifierIs(clock);
    timer = Olk::reviewTimerFactory(&reactor, 1.0f, 4, 0.5f, 8.0f);
  }
  void TearDown() override { reactor.notifierIs(nullptr); }
  // Plans a review and lets it come due, returning the delay used.
  double planAndFire() {
    timer->doUpdateNextReview();
    double d = timer->delay();
    clock->nowIs(reactor.timeMin());
    return d;
  }
};

TEST_F(ReviewFixture, NeverReviewedMeansFullCreditsAndTheMinimumDelay) {
  EXPECT_FALSE(timer->reviewPending());
  EXPECT_EQ(planAndFire(), 0.5);
  EXPECT_EQ(planAndFire(), 0.5);
  EXPECT_EQ(timer->credits(), 3u);
}

TEST_F(ReviewFixture, ShortOfCreditsTheDelayDoublesUpToTheMaximum) {
  timer->lastReviewIs(1000.0);
  timer->delayIs(2.0);
  EXPECT_EQ(planAndFire(), 4.0);
  timer->lastReviewIs(clock->now());
  EXPECT_EQ(planAndFire(), 8.0);
  timer->lastReviewIs(clock->now());
  EXPECT_EQ(planAndFire(), 8.0);
  EXPECT_EQ(reactor.timeMin(), Zum::endOfTime);
}

TEST_F(ReviewFixture, CreditsAccrueOnePerWholeSecondAndSpendOnePerPlan) {
  timer->lastReviewIs(1000.0);
  clock->nowIs(1002.9);  // two whole seconds
  timer->doUpdateNextReview();
  EXPECT_EQ(timer->credits(), 1u);
  EXPECT_EQ(timer->delay(), 0.0);  // zero stays zero when doubled
  EXPECT_EQ(reactor.timeMin(), 1002.9);
}

TEST_F(ReviewFixture, APendingReviewIsLeftAlone) {
  timer->doUpdateNextReview();
  const double due = reactor.timeMin();
  const unsigned credits = timer->credits();
  clock->nowIs(1000.2);
  timer->doUpdateNextReview();
  EXPECT_EQ(reactor.timeMin(), due);
  EXPECT_EQ(timer->credits(), credits);
}

TEST_F(ReviewFixture, ImmediateReviewIsPendingAtOnce) {
  timer->doUpdateNextReviewImmediately();
  EXPECT_TRUE(timer->reviewPending());
  EXPECT_EQ(reactor.timeMin(), 1000.0);
}

}  // namespace
