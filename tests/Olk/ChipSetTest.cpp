#include "Olk/ChipSet.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <sstream>
#include <vector>

#include "TestSupport.h"

using namespace Olk;

namespace {

std::vector<int> walk(const ChipSet& set) {
  std::vector<int> out;
  for (ChipSetIter it(set); it; ++it) out.push_back(it.key().value());
  return out;
}

class GenerationWatcher : public GenerationEntity::Notifiee {
 public:
  void onGeneration() override { ++calls; }
  int calls = 0;
};

}  // namespace

TEST(Generation, EntityReportsItsGeneration) {
  Ptr<GenerationEntity> g = generationEntityFactory("gen");
  GenerationWatcher w;
  w.notifierIs(g);
  g->generationIs(Generation{1, true});
  EXPECT_EQ(w.calls, 1);
  EXPECT_EQ(g->generation(), (Generation{1, true}));
}

TEST(Generation, TextForms) {
  Generation g{42, true};
  EXPECT_EQ(valueToStrep(g), "Value('Olk::Generation', ** {'id': 42, 'valid': True})");
  EXPECT_EQ(valueToStrep(GenTime{1.5, 0.25}), "Value('Olk::GenTime', ** {'value': 1.5, 'dummyValue': 0.25})");
  EXPECT_THROW(strepToValue<Generation>("Value('Olk::Generation', ** {'id': 1})"), Zum::RangeException);
}

TEST(ChipId, DefaultsToNullAndRefusesAboveIt) {
  EXPECT_EQ(ChipId().value(), ChipId::null());
  ChipId id(127);
  ++id;
  EXPECT_EQ(id.value(), 128);
  EXPECT_THROW(++id, Zum::RangeException);
  EXPECT_EQ(id.value(), 129);  // stored before the check
  ChipId other(5);
  OlkTest::expectRangeError([&] { other.valueIs(129); }, "ChipId::value < ChipId::min or > ChipId::null not allowed");
  EXPECT_EQ(other.value(), 129);
  EXPECT_LT(ChipId(3), ChipId(4));
  EXPECT_EQ(valueToStrep(ChipId(17)), "17");
  EXPECT_THROW(strepToValue<ChipId>("200"), Zum::RangeException);
}

TEST(ChipSet, MembershipAcrossBothWords) {
  ChipSet s;
  EXPECT_TRUE(s.empty());
  s.chipIdIs(0, true);
  s.chipIdIs(63, true);
  s.chipIdIs(64, true);
  s.chipIdIs(127, true);
  EXPECT_EQ(s.valueLo(), (U64{1} << 63) | 1u);
  EXPECT_EQ(s.valueHi(), (U64{1} << 63) | 1u);
  EXPECT_EQ(s.chipIds(), 4u);
  EXPECT_TRUE(s.chipId(64));
  EXPECT_FALSE(s.chipId(65));
  EXPECT_FALSE(s.chipId(ChipId()));
  EXPECT_TRUE(s.chipIdDel(64));
  EXPECT_FALSE(s.chipIdDel(64));
  EXPECT_EQ(s.chipIds(), 3u);
  EXPECT_DEATH(s.chipIdIs(ChipId(128), true), "chipId.value\\(\\) <= ChipId::max\\(\\)");
}

TEST(ChipSet, NextChipIdFromNullStartsAtTheFirstMember) {
  ChipSet only127;
  only127.chipIdIs(127, true);
  EXPECT_EQ(only127.nextChipId(ChipId()), ChipId(127));
  EXPECT_EQ(ChipSet().nextChipId(ChipId()), ChipId());
}

TEST(ChipSet, IteratorWalksMembersAndStopsForGood) {
  ChipSetIter none{ChipSet()};
  EXPECT_FALSE(none.inRange());
  EXPECT_DEATH(none.key(), "inRange\\(\\)");
  ChipSet s;
  for (int c : {1, 64, 90}) s.chipIdIs(static_cast<U8>(c), true);
  EXPECT_EQ(walk(s), (std::vector<int>{1, 64, 90}));
  ChipSetIter it(s);
  s.chipIdIs(1, false);  // the iterator walks its own copy
  EXPECT_EQ(*it, ChipId(1));
  ++it;
  ++it;
  ++it;
  EXPECT_FALSE(it.inRange());
  ++it;  // once done, stays done rather than restarting from the first member
  EXPECT_FALSE(it.inRange());
}

TEST(ChipSet, OrdersAsA128BitNumber) {
  ChipSet low, high;
  for (U8 c = 0; c < 64; ++c) low.chipIdIs(c, true);
  high.chipIdIs(64, true);
  EXPECT_TRUE(low < high);
  EXPECT_FALSE(high < low);
  EXPECT_FALSE(low < low);
  EXPECT_TRUE(ChipSet(1, 0) < ChipSet(2, 0));
  EXPECT_TRUE(ChipSet(~U64{0}, 0) < ChipSet(0, 1));  // unsigned, not signed
}

TEST(ChipSet, ConcatAndTextForm) {
  ChipSet a(0x5, 0), b(0, 0x8000000000000000ull);
  ChipSet u = a.concat(b);
  EXPECT_EQ(walk(u), (std::vector<int>{0, 2, 127}));
  EXPECT_EQ(valueToStrep(u), "Value('Olk::ChipSet', ** {'valueLo': 5, 'valueHi': 9223372036854775808})");
  std::ostringstream os;
  os << a;
  EXPECT_EQ(os.str(), "Value('Olk::ChipSet', ** {'valueLo': 5, 'valueHi': 0})");
}

TEST(ChipSet, RandomSetsMatchAReferenceSet) {
  std::mt19937 rng(3);
  for (int trial = 0; trial < 200; ++trial) {
    ChipSet s;
    std::set<int> ref;
    for (int i = 0; i < trial % 40; ++i) {
      int c = static_cast<int>(rng() % 128);
      s.chipIdIs(static_cast<U8>(c), true);
      ref.insert(c);
    }
    ASSERT_EQ(walk(s), std::vector<int>(ref.begin(), ref.end()));
    ASSERT_EQ(s.chipIds(), ref.size());
    for (int c = 0; c < 128; ++c) {
      auto above = ref.upper_bound(c);
      ASSERT_EQ(s.nextChipId(static_cast<U8>(c)).value(), above == ref.end() ? 128 : *above);
    }
  }
}
