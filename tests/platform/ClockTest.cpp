#include "platform/Clock.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

struct Alarm : Zum::Clock::Notifiee {
  Alarm(std::string name, std::vector<std::string>* log) : name(std::move(name)), log(log) {}
  void onTime() override {
    log->push_back(name + "@" + std::to_string(static_cast<int>(notifier()->now())));
    if (action) action();
  }
  std::string name;
  std::vector<std::string>* log;
  std::function<void()> action;
};

struct ManualClockFixture : ::testing::Test {
  Zum::Ptr<Zum::ManualClock> clock = Zum::manualClockFactory(100.0);
  std::vector<std::string> log;
};

TEST_F(ManualClockFixture, ZeroAndPastTimesAreDueAndTimeSetBeforeAttachCounts) {
  Alarm a("a", &log), b("b", &log), c("c", &log);
  c.timeMinIs(100);  // before attaching: takes effect on attach
  for (Alarm* x : {&a, &b, &c}) x->notifierIs(clock);
  a.timeMinIs(0.0);  // as soon as possible
  b.timeMinIs(50);
  clock->fire();
  EXPECT_EQ(log, (std::vector<std::string>{"a@100", "b@100", "c@100"}));
}

TEST_F(ManualClockFixture, CallbacksMayRescheduleWithinTheAdvance) {
  Alarm a("a", &log), b("b", &log);
  a.notifierIs(clock);
  b.notifierIs(clock);
  int rounds = 0;
  a.action = [&] {
    if (++rounds < 3) a.timeMinIs(clock->now() + 10);
  };
  b.action = [&] { a.timeMinIs(Zum::endOfTime); };  // cancel another from inside
  a.timeMinIs(101);
  b.timeMinIs(125);
  clock->advance(100);
  EXPECT_EQ(log, (std::vector<std::string>{"a@101", "a@111", "a@121", "b@125"}));
}

TEST_F(ManualClockFixture, CancelAndDetachRemoveFromSchedule) {
  Alarm a("a", &log);
  auto b = std::make_unique<Alarm>("b", &log);
  a.notifierIs(clock);
  b->notifierIs(clock);
  a.timeMinIs(110);
  b->timeMinIs(110);
  a.timeMinIs(Zum::endOfTime);
  b.reset();  // destroyed while scheduled
  EXPECT_EQ(clock->scheduledCount(), 0u);
  clock->advance(50);
  EXPECT_TRUE(log.empty());
}

TEST_F(ManualClockFixture, NotifieeMayDestroyItselfInOnTime) {
  auto* a = new Alarm("a", &log);
  Alarm b("b", &log);
  a->notifierIs(clock);
  b.notifierIs(clock);
  a->action = [a] { delete a; };
  a->timeMinIs(101);
  b.timeMinIs(102);
  clock->advance(5);
  EXPECT_EQ(log, (std::vector<std::string>{"a@101", "b@102"}));
}

// Due alarms fire once each, in time order, equal times in the order they
// were set.
TEST_F(ManualClockFixture, RandomScheduleMatchesSortedModel) {
  std::mt19937 rng(7);
  std::vector<std::unique_ptr<Alarm>> alarms;
  std::vector<std::pair<double, int>> expected;  // (time, set order)
  std::vector<int> fired;
  for (int i = 0; i < 2000; ++i) {
    alarms.push_back(std::make_unique<Alarm>(std::to_string(i), &log));
    alarms.back()->notifierIs(clock);
    alarms.back()->action = [&fired, i] { fired.push_back(i); };
  }
  std::vector<double> when(alarms.size(), Zum::endOfTime);
  std::vector<int> setOrder(alarms.size(), 0);
  for (int step = 0; step < 6000; ++step) {
    int i = static_cast<int>(rng() % alarms.size());
    double t = (rng() % 4 == 0) ? Zum::endOfTime : 101 + static_cast<double>(rng() % 500);
    alarms[i]->timeMinIs(t);
    if (t != when[i]) setOrder[i] = step;  // an unchanged time keeps its place
    when[i] = t;
  }
  for (std::size_t i = 0; i < alarms.size(); ++i) {
    if (when[i] != Zum::endOfTime) expected.emplace_back(when[i], setOrder[i]);
  }
  std::sort(expected.begin(), expected.end());
  ASSERT_FALSE(expected.empty());
  EXPECT_EQ(clock->nextTime(), expected.front().first);
  clock->advance(1000);
  ASSERT_EQ(fired.size(), expected.size());  // once each
  for (std::size_t k = 0; k < fired.size(); ++k) {
    EXPECT_EQ(when[fired[k]], expected[k].first);
    EXPECT_EQ(setOrder[fired[k]], expected[k].second);
    // The clock reads each alarm's own time while it runs.
    EXPECT_EQ(log[k], std::to_string(fired[k]) + "@" + std::to_string(static_cast<int>(expected[k].first)));
  }
  for (const auto& a : alarms) EXPECT_EQ(a->timeMin(), Zum::endOfTime);  // one call per request
  EXPECT_EQ(clock->scheduledCount(), 0u);
  EXPECT_EQ(clock->now(), 1100);
}

TEST(ClockDeathTest, NanTimeIsRefused) {
  Alarm a("a", nullptr);
  EXPECT_DEATH(a.timeMinIs(std::nan("")), "!std::isnan\\(t\\)");
}

}  // namespace
