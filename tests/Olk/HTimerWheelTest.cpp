#include "Olk/HTimerWheel.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "platform/Exception.h"
#include "platform/Trace.h"
#include "TestSupport.h"

using namespace Olk;
using Zum::endOfTime;

namespace {

using OlkTest::rangeErrorText;

// A timer that records when it fired and may act from inside onTime().
class Timer : public TimerWheel::NotifieeConst {
 public:
  explicit Timer(const Ptr<TimerWheel>& wheel) { notifierIs(wheel); }
  void onTime() override {
    fired.push_back(clock()->now());
    if (action) action();
  }
  Zum::Clock* clock() const { return notifier()->systemClock().ptr(); }

  std::vector<Seconds> fired;
  std::function<void()> action;
};

// Records every clock update the wheel makes.
class RecordingWheel : public TimerWheel {
 public:
  using TimerWheel::TimerWheel;
  std::vector<std::pair<Seconds, U32>> updates;

 protected:
  void doUpdateSystemClock(Seconds time, U32 index) override {
    updates.emplace_back(time, index);
    TimerWheel::doUpdateSystemClock(time, index);
  }
};

class TimerWheelTest : public testing::Test {
 protected:
  // Two buckets of 64 slots of 10 ms: 4096 ticks.
  Ptr<Zum::ManualClock> clock = Zum::manualClockFactory(1000.0);
  Ptr<TimerWheel> wheel = timerWheelFactory(clock, 10, 1000, false, 64);

  void expectIdle() const {
    EXPECT_EQ(wheel->timers(), 0u);
    EXPECT_EQ(wheel->currentWheelIndexTime(), endOfTime);
    EXPECT_EQ(wheel->scheduledWheelIndex(), InvalidWheelIndex);
    for (U32 b = 0; b < wheel->bucketCount(); ++b) {
      EXPECT_EQ(wheel->currentWheelIndex(b), InvalidWheelIndex);
    }
    EXPECT_EQ(clock->nextTime(), endOfTime);
  }
};

}  // namespace

TEST(TimerWheelConstruction, RangesCheckedInOrder) {
  auto clock = Zum::manualClockFactory();
  auto wheel = timerWheelFactory(clock, 1, 2, false, 2);
  const std::string tick = "TimerWheel::tickMsecs < 1 or > 3600000 not allowed";
  const std::string bucket = "TimerWheel::defaultBucketSize < 2 or > 0x10000 not allowed";
  const std::string size = "BucketSize::value < 2 or > 0xfffffffe not allowed";
  const std::string limit = "TimerWheel::processTimeLimit < 0 or > 0.5 not allowed";
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[&] { timerWheelFactory(clock, 0, 1, false, 1); }, tick},
      {[&] { timerWheelFactory(clock, 3600001, 100, false, 64); }, tick},
      {[&] { timerWheelFactory(clock, 3600000, 1, false, 1); },
       "TimerWheel::initialMaxTicks < 2 or > 0xffffffff not allowed"},
      {[&] { timerWheelFactory(clock, 1, 2, false, 1); }, bucket},
      {[&] { timerWheelFactory(clock, 1, 2, false, 0x10001); }, bucket},
      {[] { BucketSize(1); }, size},
      {[] { BucketSize(0xffffffff); }, size},
      {[&] { wheel->processTimeLimitIs(0.51); }, limit},
      {[&] { wheel->processTimeLimitIs(-0.01); }, limit},
  };
  for (const auto& [call, text] : cases) EXPECT_EQ(rangeErrorText(call), text);
  wheel->processTimeLimitIs(0.5);
  EXPECT_EQ(wheel->processTimeLimit(), 0.5);
}

TEST(TimerWheelConstruction, BucketsCoverCapacityWithAtLeastTwo) {
  auto clock = Zum::manualClockFactory();
  Zum::TraceCapture trace;
  auto wheel = timerWheelFactory(clock, 10, 1000, false, 64);
  EXPECT_EQ(wheel->bucketCount(), 2u);
  EXPECT_EQ(wheel->bucketSize(1), 64u);
  EXPECT_EQ(wheel->maxTicks(), 4096u);
  EXPECT_EQ(wheel->ghostTimerIndex(), 64u);
  EXPECT_EQ(wheel->processTimeLimit(), 0.05);
  EXPECT_TRUE(trace.contains("TimerWheel::handleInitialized: Total buckets created 2 of 64 each."));
  EXPECT_TRUE(trace.contains("TimerWheel::doAddNewBucket ## Add a new bucket to index 1 of size 64"));
  EXPECT_TRUE(trace.contains("Total number of buckets now is 2"));
  EXPECT_TRUE(trace.contains("Wheel being shut down"));

  EXPECT_EQ(timerWheelFactory(clock, 10, 50, false, 64)->bucketCount(), 2u);
  EXPECT_EQ(timerWheelFactory(clock, 10, 8640000, true, 1024)->bucketCount(), 3u);
  auto saturated = timerWheelFactory(clock, 1, 0xffffffff, false, 3);
  EXPECT_EQ(saturated->bucketCount(), 21u);  // 3^20 < 2^32 - 1 <= 3^21
  EXPECT_EQ(saturated->maxTicks(), 0xFFFFFFFFu);
  EXPECT_EQ(timerWheelFactory(clock, 1, 0xffffffff, false, 0x10000)->maxTicks(), 0xFFFFFFFFu);
}

TEST_F(TimerWheelTest, TicksRoundUpAndFireNeverEarly) {
  Zum::TraceCapture trace;
  Timer t(wheel);
  t.timeMinIs(1000.025);
  EXPECT_EQ(t.bucketIndex(), 0u);
  EXPECT_EQ(t.wheelIndex(), 3u);  // 25 ms is 3 ticks of 10 ms
  EXPECT_EQ(wheel->currentWheelIndexTime(), 1000.0);
  EXPECT_EQ(wheel->scheduledWheelIndex(), 3u);
  EXPECT_EQ(wheel->timer(0), 1u);
  EXPECT_DOUBLE_EQ(clock->nextTime(), 1000.03);
  EXPECT_TRUE(trace.contains("InsertNotifiee at future ticks 3"));
  EXPECT_TRUE(trace.contains("newTimer: "));
  EXPECT_TRUE(trace.contains(" doUpdateSystemClock to time "));
  clock->nowIs(1000.029);
  EXPECT_TRUE(t.fired.empty());
  clock->nowIs(1000.1);
  ASSERT_EQ(t.fired.size(), 1u);
  EXPECT_DOUBLE_EQ(t.fired[0], 1000.03);
  EXPECT_EQ(t.bucketIndex(), InvalidBucketIndex);
  expectIdle();
}

// Each call is bracketed by its three traces, and one slot's timers are
// called in the order they were filed.
TEST_F(TimerWheelTest, FiringTracesBracketEachCallInFilingOrder) {
  Timer later(wheel), first(wheel);
  first.timeMinIs(1000.05);
  later.timeMinIs(1000.05);
  Zum::TraceCapture trace;
  std::vector<std::pair<const Timer*, size_t>> calls;  // timer, traces written before its call
  for (Timer* t : {&first, &later}) {
    t->action = [&calls, &trace, t] { calls.emplace_back(t, trace.records().size()); };
  }
  clock->nowIs(1000.1);
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].first, &first);
  EXPECT_EQ(calls[1].first, &later);
  const std::vector<std::string> texts = trace.texts();
  for (const auto& [timer, before] : calls) {
    ASSERT_GE(before, 2u);
    ASSERT_LT(before, texts.size());
    std::ostringstream of;
    of << "call onTime of " << static_cast<const void*>(timer);
    EXPECT_EQ(texts[before - 2], "call onTime");
    EXPECT_EQ(texts[before - 1], of.str());
    EXPECT_EQ(texts[before], "call onTime completed");
  }
}

TEST_F(TimerWheelTest, TimeBeyondCapacityIsParkedInFarthestSlot) {
  Zum::TraceCapture trace;
  Timer t(wheel);
  t.timeMinIs(1100.0);  // 10000 ticks, capacity 4096
  EXPECT_TRUE(trace.contains("Reducing timeout to fit the maximum timer capacity"));
  EXPECT_EQ(t.bucketIndex(), 1u);
  EXPECT_EQ(t.wheelIndex(), 63u);
}

TEST_F(TimerWheelTest, NewTimerPullsWheelTimeUpButNotPastSchedule) {
  Timer a(wheel), b(wheel);
  a.timeMinIs(1000.5);  // slot 50
  clock->nowIs(1000.2);
  EXPECT_EQ(wheel->currentWheelIndex(0), 0u);  // the wheel does not tick
  b.timeMinIs(1000.25);
  EXPECT_EQ(wheel->currentWheelIndex(0), 20u);
  EXPECT_DOUBLE_EQ(wheel->currentWheelIndexTime(), 1000.2);
  EXPECT_EQ(b.wheelIndex(), 25u);
  EXPECT_EQ(wheel->scheduledWheelIndex(), 25u);
}

TEST_F(TimerWheelTest, TimerMayDestroyItselfInsideOnTime) {
  auto selfDestroying = std::make_unique<Timer>(wheel);
  selfDestroying->timeMinIs(1000.7);
  selfDestroying->action = [&] { selfDestroying.reset(); };
  clock->advance(1.0);
  EXPECT_EQ(selfDestroying, nullptr);
  expectIdle();
}

TEST_F(TimerWheelTest, ReleasingTheWheelInsideOnTimeIsSafe) {
  auto t = std::make_unique<Timer>(wheel);
  t->timeMinIs(1000.01);
  t->action = [&] { t.reset(); };
  wheel = nullptr;  // the timer holds the last reference
  clock->advance(1.0);
  EXPECT_EQ(t, nullptr);
}

TEST(TimerWheelFiring, ProcessTimeLimitBoundsOneCallback) {
  for (Seconds limit : {0.05, 0.0}) {
    auto clock = Zum::manualClockFactory(1000.0);
    auto wheel = timerWheelFactory(clock, 10, 1000, false, 64);
    wheel->processTimeLimitIs(limit);
    Timer a(wheel), b(wheel), c(wheel);
    a.timeMinIs(1000.01);
    b.timeMinIs(1000.02);
    c.timeMinIs(1000.5);
    wheel->systemClockDel();
    clock->nowIs(1001.0);  // the clock callback comes late
    Zum::TraceCapture trace(8);
    wheel->systemClockIs(clock);
    clock->fire();
    EXPECT_EQ(a.fired.size() + b.fired.size() + c.fired.size(), 3u);
    size_t callbacks = 0;
    for (const std::string& text : trace.texts()) callbacks += text.starts_with("Completed handleSystemClock");
    EXPECT_EQ(callbacks, limit > 0 ? 0u : 2u);  // the last callback shuts the wheel down instead
    EXPECT_EQ(trace.contains("Wheel being shut down"), true);
  }
}

TEST(TimerWheelFiring, OffsetTimeIsRelativeToWheelTime) {
  auto clock = Zum::manualClockFactory(1000.0);
  auto wheel = Zum::create<RecordingWheel>(clock, 10, 1000, false, 64);
  wheel->systemClockTakesOffsetTimeIs(true);
  Timer t(wheel);
  t.timeMinIs(1000.03);
  ASSERT_EQ(wheel->updates.size(), 2u);  // shut down at start-up, then the timer
  EXPECT_EQ(wheel->updates[0], std::make_pair(endOfTime, InvalidWheelIndex));
  EXPECT_DOUBLE_EQ(wheel->updates[1].first, 0.03);
  EXPECT_EQ(wheel->updates[1].second, 3u);
}

TEST_F(TimerWheelTest, WithoutClockTimersAreSetToEndOfTime) {
  Zum::TraceCapture trace;
  wheel->systemClockDel();
  Timer t(wheel);
  t.timeMinIs(1000.5);
  EXPECT_EQ(t.timeMin(), endOfTime);
  EXPECT_EQ(t.wheelIndex(), InvalidWheelIndex);
  EXPECT_TRUE(trace.contains(" to endOfTime"));
}

TEST_F(TimerWheelTest, RegistrationFilesAPresetTime) {
  Zum::TraceCapture trace;
  Timer t(nullptr);
  t.timeMinIs(1000.05);
  EXPECT_EQ(t.wheelIndex(), InvalidWheelIndex);
  t.notifierIs(wheel);
  EXPECT_TRUE(trace.contains("newNotfiee: Adding notifiee "));
  EXPECT_EQ(t.wheelIndex(), 5u);
  t.notifierIs(nullptr);
  expectIdle();
}

// A wheel that attaches a timer before its buckets exist.
class EagerWheel : public TimerWheel {
 public:
  using TimerWheel::TimerWheel;
  TimerWheel::NotifieeConst early;

 protected:
  void handleInitialized() override {
    early.timeMinIs(1000.05);
    early.notifierIs(Ptr<TimerWheel>(this));
    TimerWheel::handleInitialized();
  }
};

TEST(TimerWheelRegistration, NothingIsFiledBeforeTheBucketsExist) {
  auto clock = Zum::manualClockFactory(1000.0);
  auto wheel = Zum::create<EagerWheel>(clock, 10, 1000, false, 64);
  EXPECT_EQ(wheel->early.wheelIndex(), InvalidWheelIndex);
  EXPECT_EQ(wheel->timers(), 0u);
  wheel->early.notifierIs(nullptr);
}

TEST_F(TimerWheelTest, BrokenInvariantsAbortNamingTheExpression) {
  Timer t(wheel);
  EXPECT_DEATH(t.timeMinIs(std::nan("")), "!isnan\\( n->timeMin\\(\\) \\)");
  Timer loose(nullptr);
  loose.timeMinIs(std::nan(""));
  EXPECT_DEATH(loose.notifierIs(wheel), "!isnan\\( when \\)");
  t.timeMinIs(1000.5);
  EXPECT_DEATH(wheel->doAddNewBucket(64), "timers\\(\\) == 0");
}

TEST_F(TimerWheelTest, DumpShowsBucketsCountsAndSchedule) {
  Timer a(wheel), b(wheel), c(wheel);
  a.timeMinIs(1000.05);
  b.timeMinIs(1000.05);
  c.timeMinIs(1002.0);
  struct Collect : DumpWriteCallbackBase {
    int write(const void* p, U32 n) override {
      text.append(static_cast<const char*>(p), n);
      return static_cast<int>(n);
    }
    std::string text;
  } out;
  Ptr<DumpContext> ctx = dumpContextFactory(1, nullptr, dumpVerbose);
  ctx->writeCallbackIs(&out);
  wheel->dump(ctx);
  EXPECT_NE(out.text.find("tickMsecs 10 maxTicks 4096 buckets 2 nonEmptyBuckets 2"), std::string::npos);
  EXPECT_NE(out.text.find("scheduledWheelIndex 5 ghostTimerIndex 64"), std::string::npos);
  EXPECT_NE(out.text.find("bucket 0: size 64 currentWheelIndex 0 timers 2\n    slot 5: 2 timers\n"),
            std::string::npos);
  EXPECT_NE(out.text.find("bucket 1: size 64 currentWheelIndex 0 timers 1\n    slot 3: 1 timers\n"),
            std::string::npos);
  wheel->dump(ctx);  // already dumped: a back-reference to its first line
  EXPECT_NE(out.text.find(": see line 1\n"), std::string::npos);
}

// Randomized check against a model of what each timer is owed: thousands of
// timers over many cascades, moved, cancelled, destroyed and re-armed from
// outside and from inside onTime().
class TimerWheelModel {
 public:
  static constexpr int timerCount = 3000;

  // Small buckets so that a run crosses many cascades: 8 slots give three
  // buckets (512 ticks), 2 slots give nine, carrying through all of them;
  // 7-slot buckets of 7 ms ticks check the arithmetic off powers of two.
  TimerWheelModel(unsigned seed, U32 bucketSize, U32 tickMsecs = 10)
      : tick_(tickMsecs * 0.001), rng_(seed) {
    wheel_ = timerWheelFactory(clock_, tickMsecs, 500, false, bucketSize);
    for (int i = 0; i < timerCount; ++i) timers_.push_back(makeTimer(i));
    state_.resize(timerCount);
  }

  void run(int steps) {
    for (int step = 0; step < steps; ++step) {
      const int op = pick(100);
      if (op < 50) {
        arm(pick(timerCount));
      } else if (op < 65) {
        cancel(pick(timerCount));
      } else if (op < 68) {
        recreate(pick(timerCount));
      } else {
        clock_->advance(pick(4) == 0 ? pick(3000) * 0.001 : pick(60) * 0.001);
      }
      if (step % 500 == 0) checkInvariants();
    }
    clock_->advance(120.0);  // beyond every time armed
    for (const State& s : state_) EXPECT_FALSE(s.armed);
    checkInvariants();
    EXPECT_EQ(wheel_->currentWheelIndexTime(), endOfTime);
    EXPECT_EQ(clock_->nextTime(), endOfTime);
  }

  int fires() const { return fires_; }

 private:
  struct State {
    bool armed = false;
    Seconds due = 0;
    Seconds armedAt = 0;
    U64 seq = 0;                // when last filed
    bool directToBucket0 = false;
  };

  class ModelTimer : public TimerWheel::NotifieeConst {
   public:
    ModelTimer(TimerWheelModel* model, int index) : model_(model), index_(index) {}
    void onTime() override { model_->onFire(index_); }

   private:
    TimerWheelModel* model_;
    int index_;
  };

  int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng_); }

  std::unique_ptr<ModelTimer> makeTimer(int i) {
    auto t = std::make_unique<ModelTimer>(this, i);
    t->notifierIs(wheel_);
    return t;
  }

  // Mostly within the wheel's reach, sometimes beyond it, now, or past.
  Seconds randomDue() {
    const Seconds now = clock_->now();
    switch (pick(20)) {
      case 0: return now;
      case 1: return 0.0;
      case 2: return now - pick(100) * 0.001;
      case 3: return now + 5.12 + pick(20000) * 0.001;
      default: return now + pick(5000) * 0.001 + pick(1000) * 1e-6;
    }
  }

  void arm(int i) {
    const Seconds due = randomDue();
    if (due == timers_[i]->timeMin()) return;  // unchanged: nothing is refiled
    timers_[i]->timeMinIs(due);
    State& s = state_[i];
    s = State{true, due, clock_->now(), ++seq_, timers_[i]->bucketIndex() == 0};
    EXPECT_NE(timers_[i]->wheelIndex(), InvalidWheelIndex);
  }

  void cancel(int i) {
    timers_[i]->timeMinIs(endOfTime);
    state_[i].armed = false;
    EXPECT_EQ(timers_[i]->wheelIndex(), InvalidWheelIndex);
  }

  void recreate(int i) {
    timers_[i] = makeTimer(i);
    state_[i].armed = false;
  }

  void onFire(int i) {
    ++fires_;
    State& s = state_[i];
    const Seconds now = clock_->now();
    EXPECT_TRUE(s.armed) << "timer " << i << " fired while not armed at " << now;
    EXPECT_GE(now, s.due - 0.0005) << "timer " << i << " early";
    EXPECT_LE(now, std::max(s.due, s.armedAt) + tick_ + 1e-6) << "timer " << i << " late";
    EXPECT_EQ(timers_[i]->timeMin(), endOfTime);
    checkArrivalOrder(s);
    s.armed = false;
    // Act on the wheel from inside the callback.
    switch (pick(8)) {
      case 0: arm(i); break;
      case 1: arm(pick(timerCount)); break;
      case 2: cancel(pick(timerCount)); break;
      case 3: {
        const int other = pick(timerCount);
        if (other != i) recreate(other);
        break;
      }
      default: break;
    }
  }

  // Timers filed straight into one bucket-0 slot fire in the order filed.
  void checkArrivalOrder(const State& s) {
    const Seconds slot = wheel_->currentWheelIndexTime();
    if (slot != lastSlot_) {
      lastSlot_ = slot;
      lastDirectSeq_ = 0;
    }
    if (!s.directToBucket0) return;
    EXPECT_GT(s.seq, lastDirectSeq_) << "slot list out of arrival order";
    lastDirectSeq_ = s.seq;
  }

  void checkInvariants() {
    U32 filed = 0, armed = 0;
    for (U32 b = 0; b < wheel_->bucketCount(); ++b) filed += wheel_->timer(b);
    for (int i = 0; i < timerCount; ++i) {
      const ModelTimer& t = *timers_[i];
      armed += state_[i].armed;
      ASSERT_EQ(state_[i].armed, t.wheelIndex() != InvalidWheelIndex) << "timer " << i;
      if (!state_[i].armed) continue;
      ASSERT_LT(t.bucketIndex(), wheel_->bucketCount());
      ASSERT_LT(t.wheelIndex(), wheel_->bucketSize(t.bucketIndex()));
      if (t.bucketIndex() == 0) {
        EXPECT_GE(t.wheelIndex(), wheel_->currentWheelIndex(0));
        EXPECT_GE(t.wheelIndex(), wheel_->scheduledWheelIndex());
      } else {
        EXPECT_NE(t.wheelIndex(), wheel_->currentWheelIndex(t.bucketIndex()));
      }
    }
    EXPECT_EQ(filed, armed);
  }

  const Seconds tick_;
  std::mt19937 rng_;
  Ptr<Zum::ManualClock> clock_ = Zum::manualClockFactory(1000.0);
  Ptr<TimerWheel> wheel_;
  std::vector<std::unique_ptr<ModelTimer>> timers_;
  std::vector<State> state_;
  U64 seq_ = 0;
  Seconds lastSlot_ = -1;
  U64 lastDirectSeq_ = 0;
  int fires_ = 0;
};

TEST(TimerWheelModel, EveryTimerFiresOnceOnTimeInOrder) {
  for (auto [bucketSize, tickMsecs] : {std::pair{8u, 10u}, {2u, 10u}, {7u, 7u}}) {
    for (unsigned seed : {1u, 2u, 3u}) {
      TimerWheelModel model(seed, bucketSize, tickMsecs);
      model.run(20000);
      EXPECT_GT(model.fires(), 3000) << "seed " << seed;
      if (testing::Test::HasFailure()) return;
    }
  }
}
