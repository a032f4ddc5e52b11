#include "Olk/UniqueId.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "Olk/TristateBool.h"

namespace {

using Olk::UniqueId;

TEST(UniqueId, AllOnesPidAndCountIsUnsetWhateverTheTimestamp) {
  UniqueId id(5, 0xFFFF, 0xFFFF);
  EXPECT_NE(id.timestamp(), 5u);
  EXPECT_EQ(id.pid(), static_cast<Olk::U16>(::getpid()));
  // Only the full pair counts as unset.
  EXPECT_EQ(UniqueId(5, 0xFFFF, 0xFFFE).count(), 0xFFFE);
  EXPECT_EQ(UniqueId(5, 0x7FFF, 0xFFFF).timestamp(), 5u);
}

TEST(UniqueId, FreshIdsAreDistinctAndIncreasing) {
  UniqueId a, b;
  EXPECT_NE(a, b);
  EXPECT_TRUE(a < b);
  EXPECT_FALSE(b < a);
}

TEST(UniqueId, OrderIsTimestampThenPidThenCount) {
  EXPECT_TRUE(UniqueId(1, 9, 9) < UniqueId(2, 0, 0));
  EXPECT_TRUE(UniqueId(1, 1, 9) < UniqueId(1, 2, 0));
  EXPECT_TRUE(UniqueId(1, 1, 1) < UniqueId(1, 1, 2));
  EXPECT_FALSE(UniqueId(1, 1, 1) < UniqueId(1, 1, 1));
}

TEST(UniqueId, TextFormsAndUnsetTextMakesFreshId) {
  UniqueId id(5, 7, 9);
  EXPECT_EQ(id.toStrep(), "timestamp 5, pid 7, count 9");
  EXPECT_EQ(Olk::valueToStrep(id), "Value('Olk::UniqueId', ** {'timestamp': 5, 'pid': 7, 'count': 9})");
  UniqueId fresh = Zum::strepToValue<UniqueId>(
      "Value('Olk::UniqueId', ** {'timestamp': 0, 'pid': 65535, 'count': 65535})");
  EXPECT_NE(fresh.pid(), 65535);
  EXPECT_THROW(Zum::strepToValue<UniqueId>("Value('Olk::UniqueId', ** {'timestamp': 0, 'count': 1})"),
               Zum::RangeException);
  EXPECT_THROW(Zum::strepToValue<UniqueId>(Olk::valueToStrep(id) + "x"), Zum::RangeException);
}

TEST(UniqueId, IteratorConstructorsParseAndAdvance) {
  const Olk::String text = Olk::valueToStrep(UniqueId(9, 8, 7)) + ";2;";
  Zum::StrepIter cur = text.begin();
  EXPECT_EQ(UniqueId(cur, text.end()), UniqueId(9, 8, 7));
  Zum::needString(cur, text.end(), ";");
  EXPECT_EQ(Olk::TristateBool(cur, text.end()), Olk::TristateBool(false));
  EXPECT_EQ(text.end() - 1, cur);
}

TEST(UniqueId, BinaryFormIsThirtyTwoSixteenSixteen) {
  Zum::AttrLogWriter w;
  serialize(w, UniqueId(0x01020304, 0x0506, 0x0708));
  EXPECT_EQ(w.bytes(), (std::vector<Olk::U8>{1, 2, 3, 4, 5, 6, 7, 8}));
  Zum::AttrLogReader r(w.bytes());
  UniqueId back(1, 1, 1);
  deserialize(r, &back);
  EXPECT_EQ(back, UniqueId(0x01020304, 0x0506, 0x0708));
}

// Makes ids until the counter of the current second is used up; false when
// the wall clock moved on first.
bool exhaustCounter(UniqueId* last) {
  UniqueId first;
  *last = first;
  while (last->timestamp() == first.timestamp() && last->count() != 0xFFFF) *last = UniqueId();
  return last->timestamp() == first.timestamp();
}

TEST(UniqueId, The65537thIdInOneSecondWaitsForTheNextSecond) {
  UniqueId last;
  bool exhausted = false;
  for (int attempt = 0; attempt < 3 && !exhausted; ++attempt) exhausted = exhaustCounter(&last);
  ASSERT_TRUE(exhausted);
  UniqueId next;
  EXPECT_GT(next.timestamp(), last.timestamp());
  EXPECT_EQ(next.count(), 0);
}

TEST(TristateBool, StatesAndTexts) {
  Olk::TristateBool t;
  EXPECT_FALSE(t.isSet());
  EXPECT_EQ(t.toStrep(), "notSet");
  t.valueIs(false);
  EXPECT_TRUE(t.isSet());
  EXPECT_FALSE(t.value());
  EXPECT_EQ(t.toStrep(), "false");
  EXPECT_EQ(Olk::valueToStrep(t), "2");
  t.valueIs(true);
  EXPECT_EQ(t.toStrep(), "true");
  EXPECT_EQ(Zum::strepToValue<Olk::TristateBool>("1"), t);
  t.valueClear();
  EXPECT_EQ(t.toStrep(), "notSet");
  EXPECT_EQ(t, Olk::TristateBool());
}

TEST(TristateBoolDeathTest, ReadingUnsetOrBadStorageAsserts) {
  Olk::TristateBool t;
  EXPECT_DEATH(t.value(), "isSet\\(\\)");
  t.storageIs(7);
  EXPECT_DEATH(t.toStrep(), "Assertion failed: false");
}

}  // namespace
