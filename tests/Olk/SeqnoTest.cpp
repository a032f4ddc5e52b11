#include "Olk/Seqno.h"

#include <gtest/gtest.h>

#include <tuple>

#include "Olk/MaybeU63.h"
#include "TestSupport.h"

namespace {

using Olk::Seqno16;
using Olk::Seqno32;

// Order wraps around; at exactly half the range each is before the other.
TEST(Seqno, OrderWrapsAroundAndHoldsBothWaysAtHalfRange) {
  for (auto [a, b, less] : {std::tuple{0xFFFFFFFFu, 0u, true}, {0u, 0xFFFFFFFFu, false}, {1u, 2u, true},
                            {7u, 7u, false}, {5u, 0x80000005u, true}, {0x80000005u, 5u, true},
                            {5u, 0x80000006u, false}}) {
    EXPECT_EQ(Seqno32(a) < Seqno32(b), less) << std::hex << a << " < " << b;
  }
  for (auto [a, b, less] : {std::tuple<Olk::U16, Olk::U16, bool>{0x8000, 0, true}, {0, 0x8000, true},
                            {0xFFFF, 0, true}, {0, 0x8001, false}}) {
    EXPECT_EQ(Seqno16(a) < Seqno16(b), less) << std::hex << a << " < " << b;
  }
  EXPECT_TRUE(Seqno32(0xFFFFFFF0) < 5u);
  EXPECT_TRUE(Seqno16(0xFFFF) < static_cast<Olk::U16>(0));
}

TEST(Seqno, TextAndBinaryForms) {
  EXPECT_EQ(Olk::valueToStrep(Seqno32(4000000000u)), "4000000000");
  EXPECT_EQ(Zum::strepToValue<Seqno16>("65535"), Seqno16(65535));
  EXPECT_THROW(Zum::strepToValue<Seqno16>("65536"), Zum::RangeException);
  Zum::AttrLogWriter w;
  serialize(w, Seqno16(0x1234));
  serialize(w, Seqno32(0xA1B2C3D4));
  EXPECT_EQ(w.bytes(), (std::vector<Olk::U8>{0x12, 0x34, 0xA1, 0xB2, 0xC3, 0xD4}));
  Zum::AttrLogReader r(w.bytes());
  Seqno16 a;
  Seqno32 b;
  deserialize(r, &a);
  deserialize(r, &b);
  EXPECT_EQ(a, Seqno16(0x1234));
  EXPECT_EQ(b.value(), 0xA1B2C3D4u);
}

TEST(Seqno, IteratorConstructorsParseAndAdvance) {
  const Olk::String text = "65535,4000000000,NoneL,12,";
  Zum::StrepIter cur = text.begin();
  EXPECT_EQ(Seqno16(cur, text.end()), Seqno16(65535));
  Zum::needString(cur, text.end(), ",");
  EXPECT_EQ(Seqno32(cur, text.end()), Seqno32(4000000000u));
  Zum::needString(cur, text.end(), ",");
  EXPECT_TRUE(Olk::MaybeU63(cur, text.end()).isNull());
  Zum::needString(cur, text.end(), ",");
  EXPECT_EQ(Olk::MaybeU63(cur, text.end()).word(), 12u);
  EXPECT_EQ(text.end() - 1, cur);
  Zum::StrepIter none = text.end();
  EXPECT_THROW(Olk::MaybeU63(none, text.end()), Zum::RangeException);
}

TEST(MaybeU63, NullBitPrintsNoneAndParsesBack) {
  Olk::MaybeU63 m;
  m.valueIs(Olk::MaybeU63::nullBit | 5);
  EXPECT_EQ(m.stringValue(), "None");
  m.valueIs(42);
  EXPECT_EQ(m.stringValue(), "42");
  m.stringValueIs("None");
  EXPECT_TRUE(m.isNull());
  m.stringValueIs("123L");
  EXPECT_EQ(m.word(), 123u);
  m.stringValueIs("7l");
  EXPECT_EQ(m.word(), 7u);
  m.stringValueIs("-1");  // stored as given: every bit, so None
  EXPECT_TRUE(m.isNull());
  EXPECT_EQ(m.stringValue(), "None");
}

TEST(MaybeU63, BadTextIsRefusedWithTheRightMessage) {
  Olk::MaybeU63 m(5);
  for (const char* bad : {"12x", "12LL", "", "x", "NoneL1"}) {
    EXPECT_EQ(OlkTest::rangeErrorText([&] { m.stringValueIs(bad); }), "Invalid Olk::MaybeU63") << bad;
  }
  EXPECT_EQ(m.word(), 5u);  // unchanged by the failures
  std::string empty;
  Zum::StrepIter cur = empty.begin();
  OlkTest::expectRangeError([&] { Olk::sequenceToValue(cur, empty.end(), &m); }, "Error deserializing Olk::MaybeU63");
}

TEST(MaybeU63, SequenceParseStopsAfterSuffix) {
  std::string text = "99L, rest";
  Zum::StrepIter cur = text.begin();
  Olk::MaybeU63 m;
  Olk::sequenceToValue(cur, text.end(), &m);
  EXPECT_EQ(m.word(), 99u);
  EXPECT_EQ(std::string(cur, text.cend()), ", rest");
  Zum::AttrLogWriter w;
  serialize(w, m);
  EXPECT_EQ(w.bytes().size(), 8u);
}

}  // namespace
