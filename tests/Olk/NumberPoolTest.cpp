#include "Olk/NumberPool.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <set>
#include <sstream>
#include <vector>

#include "platform/Exception.h"

using namespace Olk;

namespace {

constexpr U32 top = 4294967295u;

// Counts onPool calls and remembers the keys.
class PoolWatcher : public NumberPool::Notifiee {
 public:
  void onPool(U32 max) override { keys.push_back(max); }
  std::vector<U32> keys;
};

// Ranges must be keyed by max, disjoint, non-adjacent, and size() their sum.
void checkInvariants(const NumberPool& p) {
  U64 size = 0;
  const Range* prev = nullptr;
  for (const auto& [key, r] : p.ranges()) {
    ASSERT_EQ(key, r.max());
    if (prev) {
      ASSERT_GT(U64(r.min()), U64(prev->max()) + 1) << "ranges touch or overlap";
    }
    size += r.size();
    prev = &r;
  }
  ASSERT_EQ(size, p.size());
  ASSERT_EQ(p.isEmpty(), p.ranges().empty());
}

std::vector<Range> rangesOf(const NumberPool& p) {
  std::vector<Range> out;
  for (const auto& kv : p.ranges()) out.push_back(kv.second);
  return out;
}

}  // namespace

TEST(Range, SizeMembershipAndRangeError) {
  EXPECT_EQ(Range(0, top).size(), 4294967296ull);
  EXPECT_EQ(Range(7, 7).size(), 1u);
  EXPECT_TRUE(Range(3, 5).inRange(3));
  EXPECT_TRUE(Range(3, 5).inRange(5));
  EXPECT_FALSE(Range(3, 5).inRange(6));
  EXPECT_FALSE(Range(3, 5).inRange(2));
  try {
    Range(6, 5);
    FAIL() << "no range error";
  } catch (const Zum::RangeException& e) {
    EXPECT_STREQ(e.what(), "Range::min > Range::max not allowed");
  }
}

TEST(Range, TextFormsRoundTrip) {
  Range r(1, 4294967295u);
  EXPECT_EQ(valueToStrep(r), "Value('Olk::Range', ** {'min': 1, 'max': 4294967295})");
  EXPECT_EQ(strepToValue<Range>(valueToStrep(r)), r);

  TimedU32 t{1.5, 7};
  EXPECT_EQ(valueToStrep(t), "Value('Olk::TimedU32', ** {'timestamp': 1.5, 'number': 7})");
  EXPECT_EQ(strepToValue<TimedU32>(valueToStrep(t)), t);

  TimedRange tr{2.0, Range(3, 9)};
  std::ostringstream os;
  os << tr;
  EXPECT_EQ(os.str(),
            "Value('Olk::TimedRange', ** {'timestamp': 2, 'range': Value('Olk::Range', ** {'min': 3, 'max': 9})})");
  EXPECT_EQ(strepToValue<TimedRange>(os.str()), tr);
}

TEST(Range, ParsingRefusesMinAboveMaxAndWrongPieces) {
  try {
    strepToValue<Range>("Value('Olk::Range', ** {'min': 9, 'max': 3})");
    FAIL() << "no range error";
  } catch (const Zum::RangeException& e) {
    EXPECT_STREQ(e.what(), "Range::min > Range::max not allowed");
  }
  EXPECT_THROW(strepToValue<Range>("Value('Olk::Range', ** {'max': 3, 'min': 1})"), Zum::RangeException);
  EXPECT_THROW(strepToValue<Range>("Value('Olk::Range', ** {'min': 1, 'max': 3}) "), Zum::RangeException);
}

TEST(TimedU32, OrderedByTimeThenNumberAndNanEqualsNothing) {
  EXPECT_LT((TimedU32{1.0, 9}), (TimedU32{2.0, 1}));
  EXPECT_LT((TimedU32{1.0, 1}), (TimedU32{1.0, 2}));
  EXPECT_FALSE((TimedU32{1.0, 2}) < (TimedU32{1.0, 2}));
  TimedU32 nan{std::nan(""), 1};
  EXPECT_FALSE(nan == nan);
  EXPECT_FALSE((TimedRange{std::nan(""), Range(1, 1)}) == (TimedRange{std::nan(""), Range(1, 1)}));
}

TEST(NumberPool, AddInsideExistingChangesNothingAndNotifiesNobody) {
  auto p = numberPoolFactory("p");
  p->addRange(Range(10, 20));
  PoolWatcher w;
  w.notifierIs(p);
  p->addRange(Range(12, 15));
  p->addRange(Range(10, 20));
  p->addNumber(20);
  EXPECT_TRUE(w.keys.empty());
  p->poolIs(Range(10, 20));
  EXPECT_TRUE(w.keys.empty());
  EXPECT_EQ(rangesOf(*p), std::vector<Range>{Range(10, 20)});
}

TEST(NumberPool, AdjacentAndBridgingRangesCoalesce) {
  auto p = numberPoolFactory("p");
  p->addRange(Range(1, 5));
  p->addRange(Range(10, 12));
  p->addNumber(6);  // extends 1..5 upwards
  EXPECT_EQ(rangesOf(*p), (std::vector<Range>{Range(1, 6), Range(10, 12)}));
  p->addNumber(9);  // extends 10..12 downwards
  EXPECT_EQ(rangesOf(*p), (std::vector<Range>{Range(1, 6), Range(9, 12)}));
  PoolWatcher w;
  w.notifierIs(p);
  p->addRange(Range(7, 8));  // bridges the two
  EXPECT_EQ(rangesOf(*p), std::vector<Range>{Range(1, 12)});
  EXPECT_EQ(w.keys, (std::vector<U32>{6, 12, 12}));  // left removed, right removed, merged stored
  checkInvariants(*p);
}

TEST(NumberPool, AddSwallowsSeveralRangesAndOverlapsAtBothEnds) {
  auto p = numberPoolFactory("p");
  for (U32 i = 0; i < 10; ++i) p->addRange(Range(i * 10, i * 10 + 3));
  p->addRange(Range(12, 75));  // cuts into 10..13 and 70..73, swallows 20..63
  EXPECT_EQ(rangesOf(*p), (std::vector<Range>{Range(0, 3), Range(10, 75), Range(80, 83), Range(90, 93)}));
  checkInvariants(*p);
}

TEST(NumberPool, NoWrapAroundAtZeroOrTop) {
  auto p = numberPoolFactory("p");
  p->addRange(Range(top - 3, top));
  p->addNumber(0);
  EXPECT_EQ(rangesOf(*p), (std::vector<Range>{Range(0, 0), Range(top - 3, top)}));
  p->addRange(Range(1, 4));
  p->addRange(Range(top - 10, top - 4));
  EXPECT_EQ(rangesOf(*p), (std::vector<Range>{Range(0, 4), Range(top - 10, top)}));
  p->delNumber(top);
  p->delNumber(0);
  EXPECT_EQ(rangesOf(*p), (std::vector<Range>{Range(1, 4), Range(top - 10, top - 1)}));
  EXPECT_FALSE(p->isMember(top));
  EXPECT_FALSE(p->isMember(0));
}

TEST(NumberPool, FullRangeHasSize2To32) {
  auto p = numberPoolFactory("p");
  p->addRange(Range(0, top));
  EXPECT_EQ(p->size(), 4294967296ull);
  EXPECT_TRUE(p->isMember(0));
  EXPECT_TRUE(p->isMember(top));
  p->delNumber(12345);
  EXPECT_EQ(p->size(), 4294967295ull);
  p->addNumber(12345);
  EXPECT_EQ(rangesOf(*p), std::vector<Range>{Range(0, top)});
}

TEST(NumberPool, DeleteMiddleSplitsAndEdgesTrim) {
  auto p = numberPoolFactory("p");
  p->addRange(Range(1, 20));
  p->delRange(Range(5, 9));
  EXPECT_EQ(rangesOf(*p), (std::vector<Range>{Range(1, 4), Range(10, 20)}));
  p->delRange(Range(1, 2));
  p->delRange(Range(20, 20));
  EXPECT_EQ(rangesOf(*p), (std::vector<Range>{Range(3, 4), Range(10, 19)}));
  p->delRange(Range(10, 19));  // exactly one whole range
  EXPECT_EQ(rangesOf(*p), std::vector<Range>{Range(3, 4)});
}

TEST(NumberPool, DeleteAcrossSeveralRangesKeepsTrimmedOuterPieces) {
  auto p = numberPoolFactory("p");
  for (U32 i = 0; i < 6; ++i) p->addRange(Range(i * 10, i * 10 + 5));
  p->delRange(Range(13, 42));
  EXPECT_EQ(rangesOf(*p), (std::vector<Range>{Range(0, 5), Range(10, 12), Range(43, 45), Range(50, 55)}));
  p->delRange(Range(6, 9));  // only numbers not in the pool
  p->delRange(Range(100, 200));
  EXPECT_EQ(p->size(), 6u + 3 + 3 + 6);
  checkInvariants(*p);
}

TEST(NumberPool, MinOfEmptyPoolIsAnInvariantViolation) {
  auto p = numberPoolFactory("p");
  EXPECT_DEATH(p->getMin(), "poolIter");
  EXPECT_DEATH(p->getMinRange(), "poolIter");
  p->addRange(Range(8, 9));
  p->addRange(Range(3, 4));
  EXPECT_EQ(p->getMin(), 3u);
  EXPECT_EQ(p->getMinRange(), Range(3, 4));
}

TEST(NumberPool, OverlapsAndCovers) {
  auto p = numberPoolFactory("p");
  p->addRange(Range(10, 20));
  p->addRange(Range(30, 40));
  EXPECT_TRUE(p->covers(Range(10, 20)));
  EXPECT_FALSE(p->covers(Range(15, 30)));
  EXPECT_FALSE(p->covers(Range(9, 10)));
  EXPECT_TRUE(p->overlaps(Range(20, 29)));
  EXPECT_TRUE(p->overlaps(Range(0, 10)));
  EXPECT_FALSE(p->overlaps(Range(21, 29)));
  EXPECT_FALSE(p->overlaps(Range(41, top)));
}

// Random adds and deletes against a std::set over a universe that includes
// both ends of the number space, so the no-wrap steps are exercised.
TEST(NumberPool, MatchesSetModelUnderRandomRangeOperations) {
  std::mt19937 rng(20261121);
  const U32 span = 160;
  auto toNumber = [&](U32 u) { return u < span ? u : top - (2 * span - 1 - u); };
  std::uniform_int_distribution<U32> pick(0, 2 * span - 1);
  std::uniform_int_distribution<U32> len(0, 12);
  auto p = numberPoolFactory("p");
  std::set<U32> model;
  for (int op = 0; op < 6000; ++op) {
    U32 a = pick(rng);
    U32 b = std::min(a + len(rng), 2 * span - 1);
    // Keep a range on one side of the universe's seam.
    if (a < span && b >= span) b = span - 1;
    Range r(toNumber(a), toNumber(b));
    if (rng() % 2) {
      p->addRange(r);
      for (U32 u = a; u <= b; ++u) model.insert(toNumber(u));
    } else {
      p->delRange(r);
      for (U32 u = a; u <= b; ++u) model.erase(toNumber(u));
    }
    checkInvariants(*p);
    ASSERT_EQ(p->size(), model.size()) << "after " << valueToStrep(r);
    for (U32 u = 0; u < 2 * span; ++u) ASSERT_EQ(p->isMember(toNumber(u)), model.count(toNumber(u)) == 1);
  }
}

TEST(TimedNumberPool, ReAddingANumberMovesItToTheNewTimestamp) {
  auto t = timedNumberPoolFactory("t");
  t->addNumber(TimedU32{1.0, 5});
  t->addNumber(TimedU32{2.0, 5});
  EXPECT_FALSE(t->timedPoolHas(1.0));
  ASSERT_TRUE(t->timedPoolHas(2.0));
  EXPECT_TRUE(t->timedPool(2.0)->isMember(5));
  EXPECT_EQ(t->getEarliest(), (TimedU32{2.0, 5}));
  t->addNumber(TimedU32{1.5, 7});
  EXPECT_EQ(t->getEarliest(), (TimedU32{1.5, 7}));
  EXPECT_EQ(t->size(), 2u);
  EXPECT_EQ(t->getMin(), 5u);
}

TEST(TimedNumberPool, EarliestRangeAndDroppingEmptiedTimestamps) {
  auto t = timedNumberPoolFactory("t");
  t->addRange(TimedRange{3.0, Range(20, 29)});
  t->addRange(TimedRange{3.0, Range(5, 6)});
  t->addNumber(TimedU32{4.0, 1});
  EXPECT_EQ(t->getEarliestRange(), (TimedRange{3.0, Range(5, 6)}));
  t->delRange(Range(0, 29));
  EXPECT_FALSE(t->timedPoolHas(3.0));
  EXPECT_FALSE(t->timedPoolHas(4.0));
  EXPECT_TRUE(t->isEmpty());
  EXPECT_DEATH(t->getEarliest(), "timedPoolIter");
  EXPECT_DEATH(t->getEarliestRange(), "timedPoolIter");
}

TEST(TimedNumberPool, DeleteRemovesFromEveryBucketAndNotifies) {
  auto t = timedNumberPoolFactory("t");
  struct Watcher : TimedNumberPool::Notifiee {
    void onTimedPool(Seconds ts) override { times.push_back(ts); }
    std::vector<Seconds> times;
  } w;
  w.notifierIs(t);
  t->addRange(TimedRange{1.0, Range(1, 3)});
  t->addRange(TimedRange{2.0, Range(7, 9)});
  t->delNumber(2);
  t->delNumber(100);  // not a member: nothing happens
  t->delRange(Range(7, 9));
  EXPECT_EQ(w.times, (std::vector<Seconds>{1.0, 2.0, 2.0}));
  EXPECT_EQ(rangesOf(*t->timedPool(1.0)), (std::vector<Range>{Range(1, 1), Range(3, 3)}));
  EXPECT_EQ(rangesOf(*t->pool()), (std::vector<Range>{Range(1, 1), Range(3, 3)}));
}

// Deliberate: addRange does not take the range out of other buckets.
TEST(TimedNumberPool, AddRangeLeavesNumbersFiledUnderOtherTimestamps) {
  auto t = timedNumberPoolFactory("t");
  t->addRange(TimedRange{1.0, Range(1, 4)});
  t->addRange(TimedRange{2.0, Range(3, 6)});
  EXPECT_TRUE(t->timedPool(1.0)->isMember(3));
  EXPECT_TRUE(t->timedPool(2.0)->isMember(3));
  EXPECT_EQ(t->size(), 6u);
}

// Deliberate: the wrong time stamp takes the number out of the union only.
TEST(TimedNumberPool, DelTimedNumberWithWrongTimestampLeavesItsBucket) {
  auto t = timedNumberPoolFactory("t");
  t->addNumber(TimedU32{1.0, 5});
  t->delTimedNumber(TimedU32{9.0, 5});
  EXPECT_FALSE(t->isMember(5));
  EXPECT_TRUE(t->timedPool(1.0)->isMember(5));

  t->addRange(TimedRange{2.0, Range(10, 12)});
  t->delTimedRange(TimedRange{2.0, Range(10, 12)});
  EXPECT_FALSE(t->timedPoolHas(2.0));
  EXPECT_FALSE(t->isMember(11));
  t->addNumber(TimedU32{3.0, 20});
  t->delTimedNumber(TimedU32{3.0, 20});
  EXPECT_FALSE(t->timedPoolHas(3.0));
}
