#include "Olk/NumAllocator.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <optional>
#include <random>

#include "platform/Exception.h"
#include "platform/Trace.h"
#include "TestSupport.h"

using namespace Olk;

namespace {

using OlkTest::expectRangeError;

using MaybeU32 = std::optional<U32>;

class NumAllocatorTest : public ::testing::Test {
 protected:
  Ptr<Zum::ManualClock> clock = Zum::manualClockFactory(100.0);
};

// Every served number is in exactly one of the four pools.
void checkPartition(const NumAllocatorBase& a) {
  ASSERT_EQ(a.numFree() + a.numActive() + a.numHeldDown() + a.numReserved(), a.numServed());
  for (const Range& r : a.ranges()) {
    for (U64 n = r.min(); n <= r.max() && n < U64(r.min()) + 64; ++n) {
      const U32 x = U32(n);
      ASSERT_EQ(int(a.isFree(x)) + a.isActive(x) + a.isHeldDown(x) + a.isReserved(x), 1) << x;
    }
  }
}


}  // namespace

TEST_F(NumAllocatorTest, HandsOutLowestFreeThenReportsNone) {
  Zum::TraceCapture capture(7);
  auto a = numAllocatorFactory("ids", Range(10, 12), clock, 5.0);
  EXPECT_EQ(a->allocate(), MaybeU32(10));
  EXPECT_EQ(a->allocate(), MaybeU32(11));
  EXPECT_EQ(a->allocate(), MaybeU32(12));
  EXPECT_EQ(a->allocate(), std::nullopt);
  EXPECT_TRUE(capture.contains("no number available"));
  EXPECT_EQ(a->numAvailable(), 0u);
  checkPartition(*a);
}

TEST_F(NumAllocatorTest, ZeroHoldDownReusesAtOnceAndChangesApplyToHeldNumbers) {
  auto a = numAllocatorFactory("ids", Range(1, 5), clock, 0.0);
  a->allocate();
  a->allocate();
  a->release(1);
  EXPECT_TRUE(a->isFree(1));
  EXPECT_EQ(a->allocate(), MaybeU32(1));
  a->holdDownTimeIs(100.0);
  a->release(2);
  for (int i = 0; i < 3; ++i) a->allocate();  // 3, 4, 5
  EXPECT_EQ(a->allocate(), std::nullopt);
  a->holdDownTimeIs(0.0);
  EXPECT_EQ(a->allocate(), MaybeU32(2));
}

TEST_F(NumAllocatorTest, ReserveAndUnreserveAreAllOrNothing) {
  auto a = numAllocatorFactory("ids", Range(0, 9), clock, 30.0);
  a->allocate(5);
  a->allocate(6);
  a->release(6);  // held down
  EXPECT_FALSE(a->reserve(Range(4, 5)));   // 5 is active
  EXPECT_FALSE(a->reserve(Range(8, 10)));  // 10 is not served
  EXPECT_TRUE(a->reserve(Range(6, 9)));    // takes the held-down 6 too
  EXPECT_EQ(a->numReserved(), 4u);
  EXPECT_EQ(a->numHeldDown(), 0u);
  EXPECT_FALSE(a->reserve(Range(3, 6)));  // 6 already reserved
  EXPECT_FALSE(a->allocate(7));
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(a->allocate());  // 0..4
  EXPECT_EQ(a->allocate(), std::nullopt);
  EXPECT_FALSE(a->unreserve(Range(5, 6)));
  EXPECT_TRUE(a->unreserve(Range(8, 9)));
  EXPECT_EQ(a->allocate(), MaybeU32(8));
  checkPartition(*a);
}

TEST_F(NumAllocatorTest, ConfigurationErrorsAndFullNumberSpace) {
  expectRangeError([&] { numAllocatorFactory("x", Range(1, 2), clock, -1.0); },
                   "NumAllocator::holdDownTime < 0 not allowed");
  expectRangeError([&] { numAllocatorFactory("x", Range(1, 2), nullptr, 1.0); },
                   "null _clock parameter to mutator for NumAllocator::clock not allowed\"");
  auto a = numAllocatorFactory("all", Range(0, 4294967295u), clock, 1.0);
  EXPECT_THROW(a->holdDownTimeIs(std::nan("")), Zum::RangeException);
  EXPECT_EQ(a->holdDownTime(), 1.0);
  EXPECT_EQ(a->numServed(), 4294967296ull);
  EXPECT_TRUE(a->allocate(4294967295u));
  EXPECT_EQ(a->numFree(), 4294967295ull);
}

TEST_F(NumAllocatorTest, MultiRangeServesDisjointRangesAsOneSet) {
  const U32 top = 4294967295u;
  auto a = multiRangeNumAllocatorFactory("m", {Range(50, 51), Range(10, 11), Range(top, top)}, clock, 5.0);
  EXPECT_EQ(a->ranges(), (std::vector<Range>{Range(10, 11), Range(50, 51), Range(top, top)}));
  EXPECT_FALSE(a->allocate(12));  // between the ranges
  std::vector<U32> got;
  while (auto n = a->allocate()) got.push_back(*n);
  EXPECT_EQ(got, (std::vector<U32>{10, 11, 50, 51, top}));
  expectRangeError([&] { multiRangeNumAllocatorFactory("m", {Range(1, 5), Range(7, 9), Range(5, 6)}, clock, 1.0); },
                   "MultiRangeNumAllocator::ranges overlapping not allowed");
  EXPECT_EQ(multiRangeNumAllocatorFactory("m", {Range(1, 5), Range(6, 9)}, clock, 1.0)->numServed(), 9u);
}

// Random operations against a map from number to (state, release time):
// lowest free number first, then the oldest release past its hold-down;
// explicit requests, double releases and unserved numbers.
TEST_F(NumAllocatorTest, MatchesStateModelUnderRandomOperations) {
  enum State { kFree, kActive, kHeld, kReserved };
  std::mt19937 rng(77);
  auto a = multiRangeNumAllocatorFactory("m", {Range(0, 19), Range(40, 59)}, clock, 3.0);
  std::map<U32, std::pair<State, Seconds>> model;
  for (U32 n = 0; n < 60; ++n) {
    if (a->isServed(n)) model[n] = {kFree, 0};
  }
  auto expectedAllocate = [&]() -> MaybeU32 {
    for (const auto& [n, s] : model) {
      if (s.first == kFree) return n;
    }
    MaybeU32 best;  // ties on time go to the lower number
    for (const auto& [n, s] : model) {
      if (s.first == kHeld && s.second + 3.0 <= clock->now() && (!best || s.second < model[*best].second)) best = n;
    }
    return best;
  };
  for (int op = 0; op < 3000; ++op) {
    const U32 n = rng() % 64;
    const State state = model.count(n) ? model[n].first : kActive;  // unserved: refused like active
    const bool takeable = model.count(n) && (state == kFree || state == kHeld);
    switch (rng() % 6) {
      case 0: {
        const MaybeU32 want = expectedAllocate();
        ASSERT_EQ(a->allocate(), want);
        if (want) model[*want] = {kActive, 0};
        break;
      }
      case 1:
        ASSERT_EQ(a->allocate(n), takeable);
        if (takeable) model[n] = {kActive, 0};
        break;
      case 2:
      case 3: {
        const bool ok = model.count(n) && state == kActive;
        ASSERT_EQ(a->release(n), ok);
        if (ok) model[n] = {kHeld, clock->now()};
        break;
      }
      case 4:
        if (rng() % 2) {
          ASSERT_EQ(a->reserve(Range(n, n)), takeable);
          if (takeable) model[n] = {kReserved, 0};
        } else {
          const bool ok = model.count(n) && state == kReserved;
          ASSERT_EQ(a->unreserve(Range(n, n)), ok);
          if (ok) model[n] = {kFree, 0};
        }
        break;
      default:
        clock->advance(0.5);
    }
    checkPartition(*a);
    U64 available = 0;
    for (const auto& [n, s] : model) available += s.first == kFree || (s.first == kHeld && s.second + 3.0 <= clock->now());
    ASSERT_EQ(a->numAvailable(), available);
  }
}
