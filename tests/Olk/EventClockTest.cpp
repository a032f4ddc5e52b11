#include "Olk/EventClock.h"

#include <gtest/gtest.h>

#include "platform/Trace.h"

namespace {

using Zum::Ptr;

using Olk::EventClock;

// Counts the watchdog's reports; can stop it on the n-th check.
struct Owner : EventClock::NotifieeConst {
  int checks = 0;
  int expirations = 0;
  int deadlines = 0;
  int stopAtCheck = -1;
  void onEventCheck() override {
    if (++checks == stopAtCheck) const_cast<EventClock*>(notifier().ptr())->stop();
  }
  void onTimerExpiration() override { ++expirations; }
  void onDeadline() override { ++deadlines; }
};

struct EventClockFixture : ::testing::Test {
  Ptr<Zum::ManualClock> clock = Zum::manualClockFactory(100.0);
  Ptr<EventClock> ec = Olk::EventClockIs(clock, 2.0, 5.0);
  Owner owner;
  void SetUp() override { owner.notifierIs(ec); }
};

TEST_F(EventClockFixture, PollsEveryIntervalUntilTheDeadlineThenTimesOut) {
  ec->start();
  EXPECT_EQ(ec->deadline(), 105.0);
  EXPECT_EQ(owner.deadlines, 1);
  EXPECT_EQ(owner.checks, 1);  // the first check does not wait
  EXPECT_EQ(ec->clock()->timeMin(), 102.0);
  clock->nowIs(104.0);
  EXPECT_EQ(owner.checks, 3);  // 102, 104
  clock->nowIs(106.0);         // the check at 106 is past the deadline
  EXPECT_EQ(owner.checks, 3);
  EXPECT_EQ(owner.expirations, 1);
  EXPECT_EQ(ec->timerExpiration(), 1u);
  EXPECT_EQ(ec->clock()->timeMin(), Zum::endOfTime);
  clock->nowIs(200.0);
  EXPECT_EQ(owner.expirations, 1);
}

TEST_F(EventClockFixture, ACheckExactlyAtTheDeadlineStillPolls) {
  Ptr<EventClock> zero = Olk::EventClockIs(clock, 1.0, 0.0);
  Owner o;
  o.notifierIs(zero);
  zero->start();
  EXPECT_EQ(o.checks, 1);
  EXPECT_EQ(o.expirations, 0);
  clock->advance(1.0);
  EXPECT_EQ(o.checks, 1);
  EXPECT_EQ(o.expirations, 1);
}

TEST_F(EventClockFixture, StopFromACheckLeavesNoWakeUp) {
  owner.stopAtCheck = 2;
  Zum::TraceCapture capture;
  ec->start();
  clock->nowIs(102.0);
  EXPECT_EQ(owner.checks, 2);
  EXPECT_EQ(ec->clock()->timeMin(), Zum::endOfTime);
  clock->nowIs(110.0);
  EXPECT_EQ(owner.checks, 2);
  EXPECT_EQ(owner.expirations, 0);
  EXPECT_TRUE(capture.contains(" Retriggering timer to 104"));
  EXPECT_TRUE(capture.contains(" TimeMin was: 104"));
  EXPECT_TRUE(capture.contains(" Now: 100, deadline: 105 polling interval: 2"));
}

TEST(EventClockStats, TextForms) {
  Olk::EventOrCount e{true, 3, 12.5};
  EXPECT_EQ(valueToStrep(e), "Value('Olk::EventOrCount', ** {'value': True, 'count': 3, 'when': 12.5})");
  Olk::ConditionOrChangedStat c{true, 4, 1.25};
  EXPECT_EQ(valueToStrep(c),
            "Value('Olk::ConditionOrChangedStat', ** {'current': True, 'changes': 4, 'lastChange': 1.25})");
  EXPECT_EQ(valueToStrep(Olk::CountStat{2, 3.0}), "Value('Olk::CountStat', ** {'count': 2, 'last': 3})");
  EXPECT_THROW(Zum::strepToValue<Olk::CountStat>("Value('Olk::Count', ** {'count': 2, 'when': 3})"),
               Zum::RangeException);
}

TEST(EventClockStats, SerialisesFieldsInOrderAndWidth) {
  Olk::EventStat s{true, 0x01020304, 2.0};
  Zum::AttrLogWriter w;
  serialize(w, s);
  ASSERT_EQ(w.bytes().size(), 1u + 4u + 8u);
  EXPECT_EQ(w.bytes()[0], 1);
  EXPECT_EQ(w.bytes()[1], 1);
  EXPECT_EQ(w.bytes()[4], 4);
  Zum::AttrLogReader r(w.bytes());
  Olk::EventStat back;
  deserialize(r, &back);
  EXPECT_EQ(back, s);
  Zum::AttrLogReader shortLog(w.bytes().data(), 3);
  EXPECT_THROW(deserialize(shortLog, &back), Zum::RangeException);
}

}  // namespace
