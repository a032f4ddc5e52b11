#include "Olk/NumberPool.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "platform/Exception.h"
#include "TestSupport.h"

using namespace Olk;

namespace {

using OlkTest::expectRangeError;

constexpr U32 top = 4294967295u;

// Records each changed key and the pool's size() as the notifiee saw it.
class PoolWatcher : public NumberPool::Notifiee {
 public:
  void onPool(U32 max) override {
    keys.push_back(max);
    sizes.push_back(notifier()->size());
  }
  std::vector<U32> keys;
  std::vector<U64> sizes;
};

std::vector<Range> rangesOf(const NumberPool& p) {
  std::vector<Range> out;
  for (const auto& kv : p.ranges()) out.push_back(kv.second);
  return out;
}

using Ranges = std::vector<Range>;

}  // namespace

TEST(Range, SizeIs64BitAndMinAboveMaxIsARangeError) {
  EXPECT_EQ(Range(0, top).size(), 4294967296ull);
  EXPECT_EQ(Range(7, 7).size(), 1u);
  expectRangeError([] { Range(6, 5); }, "Range::min > Range::max not allowed");
  expectRangeError([] { strepToValue<Range>("Value('Olk::Range', ** {'min': 9, 'max': 3})"); },
                   "Range::min > Range::max not allowed");
  EXPECT_THROW(strepToValue<Range>("Value('Olk::Range', ** {'max': 3, 'min': 1})"), Zum::RangeException);
}

TEST(Range, TextFormsRoundTrip) {
  Range r(1, top);
  EXPECT_EQ(valueToStrep(r), "Value('Olk::Range', ** {'min': 1, 'max': 4294967295})");
  EXPECT_EQ(strepToValue<Range>(valueToStrep(r)), r);
  TimedU32 t{1.5, 7};
  EXPECT_EQ(valueToStrep(t), "Value('Olk::TimedU32', ** {'timestamp': 1.5, 'number': 7})");
  EXPECT_EQ(strepToValue<TimedU32>(valueToStrep(t)), t);
  TimedRange tr{2.0, Range(3, 9)};
  EXPECT_EQ(valueToStrep(tr),
            "Value('Olk::TimedRange', ** {'timestamp': 2, 'range': Value('Olk::Range', ** {'min': 3, 'max': 9})})");
  EXPECT_EQ(strepToValue<TimedRange>(valueToStrep(tr)), tr);
}

TEST(TimedU32, OrderedByTimeThenNumberAndNanEqualsNothing) {
  EXPECT_LT((TimedU32{1.0, 9}), (TimedU32{2.0, 1}));
  EXPECT_LT((TimedU32{1.0, 1}), (TimedU32{1.0, 2}));
  EXPECT_FALSE((TimedU32{1.0, 2}) < (TimedU32{1.0, 2}));
  TimedU32 nan{std::nan(""), 1};
  EXPECT_FALSE(nan == nan);
}

TEST(NumberPool, AddInsideExistingChangesNothingAndNotifiesNobody) {
  auto p = numberPoolFactory("p");
  p->addRange(Range(10, 20));
  PoolWatcher w;
  w.notifierIs(p);
  p->addRange(Range(12, 15));
  p->addRange(Range(10, 20));
  p->addNumber(20);
  p->poolIs(Range(10, 20));
  EXPECT_TRUE(w.keys.empty());
  EXPECT_EQ(rangesOf(*p), Ranges{Range(10, 20)});
}

TEST(NumberPool, AdjacentAndBridgingRangesCoalesce) {
  auto p = numberPoolFactory("p");
  p->addRange(Range(1, 5));
  p->addRange(Range(10, 12));
  p->addNumber(6);
  p->addNumber(9);
  EXPECT_EQ(rangesOf(*p), (Ranges{Range(1, 6), Range(9, 12)}));
  PoolWatcher w;
  w.notifierIs(p);
  p->addRange(Range(7, 8));
  EXPECT_EQ(rangesOf(*p), Ranges{Range(1, 12)});
  EXPECT_EQ(w.keys, (std::vector<U32>{6, 12, 12}));  // left removed, right removed, merged stored
  EXPECT_EQ(w.sizes, (std::vector<U64>{4, 0, 12}));  // each change already counted when announced
  // Deleting all goes key by key, ascending, with the same rule.
  p->addRange(Range(20, 25));
  p->poolDelAll();
  EXPECT_EQ(w.keys, (std::vector<U32>{6, 12, 12, 25, 12, 25}));
  EXPECT_EQ(w.sizes, (std::vector<U64>{4, 0, 12, 18, 6, 0}));
}

// Deletions in every shape: the ranges left, and the keys announced in the
// order of the steps (split, ranges inside, left trim, right trim).
TEST(NumberPool, DeletionsTrimSplitAndAnnounceInStepOrder) {
  struct Case {
    Ranges before;
    Range deleted;
    Ranges after;
    std::vector<U32> keys;
  };
  const Case cases[] = {
      {{Range(1, 20)}, Range(5, 9), {Range(1, 4), Range(10, 20)}, {20, 4, 20}},
      {{Range(1, 20)}, Range(1, 20), {}, {20}},
      {{Range(1, 5), Range(8, 9), Range(12, 20)}, Range(3, 14), {Range(1, 2), Range(15, 20)}, {9, 5, 2, 20, 20}},
      {{Range(1, 5), Range(8, 9)}, Range(6, 7), {Range(1, 5), Range(8, 9)}, {}},
      {{Range(1, 5), Range(8, 9)}, Range(10, top), {Range(1, 5), Range(8, 9)}, {}},
      {{Range(0, top)}, Range(0, 0), {Range(1, top)}, {top, top}},
      {{Range(0, top)}, Range(top, top), {Range(0, top - 1)}, {top, top - 1}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.deleted));
    auto p = numberPoolFactory("p");
    for (const Range& r : c.before) p->addRange(r);
    PoolWatcher w;
    w.notifierIs(p);
    p->delRange(c.deleted);
    EXPECT_EQ(rangesOf(*p), c.after);
    EXPECT_EQ(w.keys, c.keys);
    U64 size = 0;
    for (const Range& r : c.after) size += r.size();
    EXPECT_EQ(p->size(), size);
  }
}

TEST(NumberPool, FullRangeHasSize2To32) {
  auto p = numberPoolFactory("p");
  p->addRange(Range(0, top));
  EXPECT_EQ(p->size(), 4294967296ull);
  p->delNumber(12345);
  EXPECT_EQ(p->size(), 4294967295ull);
  p->addNumber(12345);
  EXPECT_EQ(rangesOf(*p), Ranges{Range(0, top)});
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
  EXPECT_TRUE(p->overlaps(Range(20, 29)));
  EXPECT_FALSE(p->overlaps(Range(21, 29)));
  EXPECT_FALSE(p->overlaps(Range(41, top)));
}

TEST(TimedNumberPool, ReAddingANumberMovesItToTheNewTimestamp) {
  auto t = timedNumberPoolFactory("t");
  t->addNumber(TimedU32{1.0, 5});
  t->addNumber(TimedU32{2.0, 5});
  EXPECT_FALSE(t->timedPoolHas(1.0));
  EXPECT_EQ(t->getEarliest(), (TimedU32{2.0, 5}));
  t->addNumber(TimedU32{1.5, 7});
  EXPECT_EQ(t->getEarliest(), (TimedU32{1.5, 7}));
  EXPECT_EQ(t->size(), 2u);
}

TEST(TimedNumberPool, DeletingDropsEmptiedTimestampsAndNotifies) {
  auto t = timedNumberPoolFactory("t");
  struct Watcher : TimedNumberPool::Notifiee {
    void onTimedPool(Seconds ts) override { times.push_back(ts); }
    std::vector<Seconds> times;
  } w;
  w.notifierIs(t);
  t->addRange(TimedRange{3.0, Range(20, 29)});
  t->addRange(TimedRange{3.0, Range(5, 6)});
  t->addNumber(TimedU32{4.0, 1});
  EXPECT_EQ(t->getEarliestRange(), (TimedRange{3.0, Range(5, 6)}));
  t->delNumber(5);
  t->delNumber(100);  // not a member
  EXPECT_EQ(rangesOf(*t->timedPool(3.0)), (Ranges{Range(6, 6), Range(20, 29)}));
  t->delRange(Range(0, 29));
  EXPECT_EQ(w.times, (std::vector<Seconds>{3.0, 4.0, 3.0, 4.0}));
  EXPECT_TRUE(t->isEmpty());
  EXPECT_DEATH(t->getEarliest(), "timedPoolIter");
  EXPECT_DEATH(t->getEarliestRange(), "timedPoolIter");
}

// Deliberate: addRange leaves numbers in their other buckets, and a wrong
// time stamp takes a number out of the union only.
TEST(TimedNumberPool, DeliberateAsymmetries) {
  auto t = timedNumberPoolFactory("t");
  t->addRange(TimedRange{1.0, Range(1, 4)});
  t->addRange(TimedRange{2.0, Range(3, 6)});
  EXPECT_TRUE(t->timedPool(1.0)->isMember(3));
  EXPECT_TRUE(t->timedPool(2.0)->isMember(3));
  t->delTimedNumber(TimedU32{9.0, 1});
  EXPECT_FALSE(t->isMember(1));
  EXPECT_TRUE(t->timedPool(1.0)->isMember(1));
  t->delNumber(1);  // not in the union: the buckets are not even looked at
  EXPECT_TRUE(t->timedPool(1.0)->isMember(1));
  t->delRange(Range(1, 1));  // no such check for a range
  EXPECT_FALSE(t->timedPool(1.0)->isMember(1));
  t->delTimedRange(TimedRange{2.0, Range(3, 6)});
  EXPECT_FALSE(t->timedPoolHas(2.0));
  EXPECT_EQ(t->size(), 1u);  // 2 is left; 3 and 4 stay only in the bucket of 1.0
}
