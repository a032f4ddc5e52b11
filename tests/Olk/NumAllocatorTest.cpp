#include "Olk/NumAllocator.h"

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <random>

#include "platform/Exception.h"
#include "platform/Trace.h"

using namespace Olk;

namespace {

class NumAllocatorFixture : public ::testing::Test {
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

using NumAllocatorTest = NumAllocatorFixture;

TEST_F(NumAllocatorTest, HandsOutLowestFreeThenReportsNone) {
  Zum::TraceCapture capture(7);
  auto a = numAllocatorFactory("ids", Range(10, 12), clock, 5.0);
  EXPECT_EQ(a->range(), Range(10, 12));
  EXPECT_EQ(a->allocate(), std::optional<U32>(10));
  EXPECT_EQ(a->allocate(), std::optional<U32>(11));
  EXPECT_EQ(a->allocate(), std::optional<U32>(12));
  EXPECT_EQ(a->allocate(), std::nullopt);
  EXPECT_TRUE(capture.contains("no number available"));
  EXPECT_EQ(a->numActive(), 3u);
  EXPECT_EQ(a->numAvailable(), 0u);
  checkPartition(*a);
}

TEST_F(NumAllocatorTest, ReleasedNumbersWaitTheHoldDownOldestFirst) {
  auto a = numAllocatorFactory("ids", Range(1, 3), clock, 10.0);
  for (int i = 0; i < 3; ++i) a->allocate();
  EXPECT_TRUE(a->release(2));
  clock->advance(1.0);
  EXPECT_TRUE(a->release(1));
  EXPECT_TRUE(a->isHeldDown(2));
  EXPECT_EQ(a->numHeldDown(), 2u);
  clock->advance(8.0);  // 2 held for 9 s
  EXPECT_EQ(a->numAvailable(), 0u);
  EXPECT_EQ(a->allocate(), std::nullopt);
  clock->advance(1.0);  // 2 held for 10 s, 1 for 9 s
  EXPECT_EQ(a->numAvailable(), 1u);
  EXPECT_EQ(a->allocate(), std::optional<U32>(2));  // not the lower 1: released later
  EXPECT_EQ(a->allocate(), std::nullopt);
  clock->advance(1.0);
  EXPECT_EQ(a->allocate(), std::optional<U32>(1));
  EXPECT_EQ(a->numHeldDown(), 0u);
  checkPartition(*a);
}

TEST_F(NumAllocatorTest, FreeNumbersGoBeforeHeldDownOnes) {
  auto a = numAllocatorFactory("ids", Range(1, 3), clock, 1.0);
  a->allocate();
  a->release(1);
  clock->advance(50.0);
  EXPECT_EQ(a->allocate(), std::optional<U32>(2));
  EXPECT_EQ(a->numAvailable(), 2u);
}

TEST_F(NumAllocatorTest, ZeroHoldDownReusesAtOnceAndChangingItAppliesToHeldNumbers) {
  auto a = numAllocatorFactory("ids", Range(1, 5), clock, 0.0);
  a->allocate();
  a->allocate();
  a->release(1);
  EXPECT_TRUE(a->isFree(1));
  EXPECT_EQ(a->allocate(), std::optional<U32>(1));

  a->holdDownTimeIs(100.0);
  a->release(2);
  for (int i = 0; i < 3; ++i) a->allocate();  // 3, 4, 5
  EXPECT_EQ(a->allocate(), std::nullopt);
  a->holdDownTimeIs(0.0);
  EXPECT_EQ(a->allocate(), std::optional<U32>(2));
}

TEST_F(NumAllocatorTest, SpecificNumbersReleaseAndMisuseReturnFalse) {
  auto a = numAllocatorFactory("ids", Range(100, 199), clock, 30.0);
  EXPECT_TRUE(a->allocate(150));
  EXPECT_FALSE(a->allocate(150));  // already active
  EXPECT_FALSE(a->allocate(99));   // not served
  EXPECT_FALSE(a->release(151));   // never allocated
  EXPECT_TRUE(a->release(150));
  EXPECT_FALSE(a->release(150));   // twice
  EXPECT_TRUE(a->allocate(150));   // explicit request overrides the hold-down
  EXPECT_EQ(a->numHeldDown(), 0u);
  EXPECT_EQ(a->allocate(), std::optional<U32>(100));
  checkPartition(*a);
}

TEST_F(NumAllocatorTest, ReserveIsAllOrNothing) {
  auto a = numAllocatorFactory("ids", Range(0, 9), clock, 30.0);
  a->allocate(5);
  a->allocate(6);
  a->release(6);  // held down
  EXPECT_FALSE(a->reserve(Range(4, 5)));  // 5 is active
  EXPECT_FALSE(a->reserve(Range(8, 10)));  // 10 not served
  EXPECT_TRUE(a->isFree(4));
  EXPECT_TRUE(a->reserve(Range(6, 9)));  // takes the held-down 6 too
  EXPECT_EQ(a->numReserved(), 4u);
  EXPECT_EQ(a->numHeldDown(), 0u);
  EXPECT_FALSE(a->reserve(Range(3, 6)));  // 6 already reserved
  EXPECT_FALSE(a->allocate(7));
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(a->allocate());  // 0..4
  EXPECT_EQ(a->allocate(), std::nullopt);
  EXPECT_FALSE(a->unreserve(Range(5, 6)));
  EXPECT_TRUE(a->unreserve(Range(8, 9)));
  EXPECT_EQ(a->allocate(), std::optional<U32>(8));
  checkPartition(*a);
}

TEST_F(NumAllocatorTest, FullNumberSpaceIsCountedIn64Bits) {
  auto a = numAllocatorFactory("all", Range(0, 4294967295u), clock, 1.0);
  EXPECT_EQ(a->numServed(), 4294967296ull);
  EXPECT_TRUE(a->allocate(4294967295u));
  EXPECT_EQ(a->numFree(), 4294967295ull);
}

TEST_F(NumAllocatorTest, ConfigurationErrors) {
  try {
    numAllocatorFactory("x", Range(1, 2), clock, -1.0);
    FAIL();
  } catch (const Zum::RangeException& e) {
    EXPECT_STREQ(e.what(), "NumAllocator::holdDownTime < 0 not allowed");
  }
  try {
    numAllocatorFactory("x", Range(1, 2), nullptr, 1.0);
    FAIL();
  } catch (const Zum::RangeException& e) {
    EXPECT_STREQ(e.what(), "null _clock parameter to mutator for NumAllocator::clock not allowed\"");
  }
  auto a = numAllocatorFactory("x", Range(1, 2), clock, 1.0);
  EXPECT_THROW(a->holdDownTimeIs(std::nan("")), Zum::RangeException);
  EXPECT_EQ(a->holdDownTime(), 1.0);
}

TEST_F(NumAllocatorTest, MultiRangeServesRangesAsOneSet) {
  auto a = multiRangeNumAllocatorFactory("m", {Range(50, 51), Range(10, 11), Range(4294967295u, 4294967295u)},
                                         clock, 5.0);
  EXPECT_EQ(a->ranges(), (std::vector<Range>{Range(10, 11), Range(50, 51), Range(4294967295u, 4294967295u)}));
  EXPECT_EQ(a->numServed(), 5u);
  EXPECT_FALSE(a->allocate(12));  // between the ranges
  std::vector<U32> got;
  while (auto n = a->allocate()) got.push_back(*n);
  EXPECT_EQ(got, (std::vector<U32>{10, 11, 50, 51, 4294967295u}));
  a->release(50);
  clock->advance(1.0);
  a->release(10);
  clock->advance(5.0);
  EXPECT_EQ(a->allocate(), std::optional<U32>(50));
  EXPECT_EQ(a->allocate(), std::optional<U32>(10));
  checkPartition(*a);
}

TEST_F(NumAllocatorTest, MultiRangeRefusesOverlappingRanges) {
  try {
    multiRangeNumAllocatorFactory("m", {Range(1, 5), Range(7, 9), Range(5, 6)}, clock, 1.0);
    FAIL();
  } catch (const Zum::RangeException& e) {
    EXPECT_STREQ(e.what(), "MultiRangeNumAllocator::ranges overlapping not allowed");
  }
  auto touching = multiRangeNumAllocatorFactory("m", {Range(1, 5), Range(6, 9)}, clock, 1.0);
  EXPECT_EQ(touching->numServed(), 9u);
}

// Random operations against a map from number to state.
TEST_F(NumAllocatorTest, MatchesStateModelUnderRandomOperations) {
  enum State { kFree, kActive, kHeld, kReserved };
  std::mt19937 rng(77);
  auto a = multiRangeNumAllocatorFactory("m", {Range(0, 19), Range(40, 59)}, clock, 3.0);
  std::map<U32, std::pair<State, Seconds>> model;
  for (U32 n = 0; n < 20; ++n) model[n] = {kFree, 0};
  for (U32 n = 40; n < 60; ++n) model[n] = {kFree, 0};
  auto expectedAllocate = [&]() -> std::optional<U32> {
    for (const auto& [n, s] : model) {
      if (s.first == kFree) return n;
    }
    std::optional<U32> best;
    Seconds bestTime = 0;
    for (const auto& [n, s] : model) {
      if (s.first == kHeld && s.second + 3.0 <= clock->now() && (!best || s.second < bestTime)) {
        best = n;
        bestTime = s.second;
      }
    }
    return best;
  };
  for (int op = 0; op < 3000; ++op) {
    const U32 n = rng() % 64;
    const bool served = model.count(n) != 0;
    switch (rng() % 6) {
      case 0: {
        auto want = expectedAllocate();
        ASSERT_EQ(a->allocate(), want);
        if (want) model[*want] = {kActive, 0};
        break;
      }
      case 1: {
        const bool ok = served && (model[n].first == kFree || model[n].first == kHeld);
        ASSERT_EQ(a->allocate(n), ok);
        if (ok) model[n] = {kActive, 0};
        break;
      }
      case 2:
      case 3: {
        const bool ok = served && model[n].first == kActive;
        ASSERT_EQ(a->release(n), ok);
        if (ok) model[n] = {kHeld, clock->now()};
        break;
      }
      case 4: {
        const bool ok = served && (model[n].first == kFree || model[n].first == kHeld);
        if (rng() % 2) {
          ASSERT_EQ(a->reserve(Range(n, n)), ok);
          if (ok) model[n] = {kReserved, 0};
        } else {
          const bool isReserved = served && model[n].first == kReserved;
          ASSERT_EQ(a->unreserve(Range(n, n)), isReserved);
          if (isReserved) model[n] = {kFree, 0};
        }
        break;
      }
      default:
        clock->advance(0.5);
    }
    checkPartition(*a);
  }
}
