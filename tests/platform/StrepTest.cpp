#include "platform/Strep.h"

#include <gtest/gtest.h>

#include "platform/AttrLog.h"

namespace {

enum class Color : Zum::U32 { red, green, blue };

}  // namespace

template <>
struct Zum::EnumTraits<Color> {
  static constexpr std::string_view typeName = "Test::Color";
  static constexpr std::array<std::string_view, 3> names = {"red", "green", "blue"};
};

namespace {

struct Pair {
  Zum::U32 a = 0;
  Zum::String b;
  Color c = Color::red;
};

Zum::String valueToStrep(const Pair& p) {
  return Zum::ValueStrepWriter("Test::Pair").field("a", p.a).field("b", p.b).field("c", p.c).done();
}

void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, Pair* p) {
  Zum::ValueStrepReader r(cur, end, "Test::Pair");
  r.field("a", &p->a).field("b", &p->b).field("c", &p->c);
  r.done();
}

TEST(Strep, RecordPrintsAndParsesBack) {
  Pair p{7, "it's\n", Color::blue};
  Zum::String text = valueToStrep(p);
  EXPECT_EQ(text, "Value('Test::Pair', ** {'a': 7, 'b': 'it\\'s\\n', 'c': blue})");
  Pair q = Zum::strepToValue<Pair>(text);
  EXPECT_EQ(q.a, 7u);
  EXPECT_EQ(q.b, "it's\n");
  EXPECT_EQ(q.c, Color::blue);
}

TEST(Strep, ParseIsStrictAboutEveryPiece) {
  EXPECT_THROW(Zum::strepToValue<Pair>("Value('Test::Pair', ** {'a': 7, 'b': 'x', 'c': red}) "),
               Zum::RangeException);
  EXPECT_THROW(Zum::strepToValue<Pair>("Value('Test::Pair', ** {'a':7, 'b': 'x', 'c': red})"),
               Zum::RangeException);
  EXPECT_THROW(Zum::strepToValue<Pair>("Value('Test::Pair', ** {'a': 7, 'b': 'x', 'c': purple})"),
               Zum::RangeException);
  EXPECT_THROW(Zum::strepToValue<Pair>("Value('Test::Pair', ** {'a': 7, 'c': red, 'b': 'x'})"),
               Zum::RangeException);
}

TEST(Strep, IntegersRefuseOverflowAndSignWhereUnsigned) {
  EXPECT_EQ(Zum::strepToValue<Zum::U16>("65535"), 65535);
  EXPECT_THROW(Zum::strepToValue<Zum::U16>("65536"), Zum::RangeException);
  EXPECT_THROW(Zum::strepToValue<Zum::U32>("-1"), Zum::RangeException);
  EXPECT_EQ(Zum::strepToValue<Zum::S64>("-9223372036854775808"), INT64_MIN);
  EXPECT_THROW(Zum::strepToValue<Zum::S64>("9223372036854775808"), Zum::RangeException);
  EXPECT_EQ(Zum::strepToValue<Zum::U64>("18446744073709551615"), UINT64_MAX);
  EXPECT_EQ(Zum::strepToValue<bool>("True"), true);
}

TEST(Strep, EnumByNumberAndName) {
  EXPECT_EQ(Zum::enumValue<Color>(std::size_t{1}), Color::green);
  EXPECT_EQ(Zum::enumValue<Color>("blue"), Color::blue);
  EXPECT_THROW(Zum::enumValue<Color>(std::size_t{3}), Zum::RangeException);
  EXPECT_EQ(Zum::enumName(static_cast<Color>(9)), "9");
}

TEST(AttrLog, NetworkByteOrderAndShortInput) {
  Zum::AttrLogWriter w;
  w.putU32(0x01020304);
  w.putU16(0xA0B0);
  w.putU8(7);
  w.putU64(0x1122334455667788ull);
  EXPECT_EQ(w.bytes().size(), 15u);
  EXPECT_EQ(w.bytes()[0], 0x01);
  EXPECT_EQ(w.bytes()[4], 0xA0);
  Zum::AttrLogReader r(w.bytes());
  EXPECT_EQ(r.getU32(), 0x01020304u);
  EXPECT_EQ(r.getU16(), 0xA0B0);
  EXPECT_EQ(r.getU8(), 7);
  EXPECT_EQ(r.getU64(), 0x1122334455667788ull);
  EXPECT_THROW(r.getU8(), Zum::RangeException);
}

}  // namespace
