#include "Olk/IdSet.h"

#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <tuple>
#include <sstream>
#include <unordered_set>

using namespace Olk;

namespace {

// `text` as a regular expression that matches it literally.
std::string lit(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) out += '\\';
    out += c;
  }
  return out;
}

}  // namespace

TEST(IdSet, InitialIdIsTheOnlyMember) {
  IdSet s(64, 3);
  EXPECT_TRUE(s.id(3));
  EXPECT_EQ(s.ids(), 1u);
  EXPECT_EQ(s.stringValue(), "(3)");
  EXPECT_EQ(s.initialId(), Id(3));
  EXPECT_EQ(s.firstId(), Id(3));
  EXPECT_EQ(s.nextId(3), Id::null());
  EXPECT_TRUE(IdSet(64, Id::null()).empty());
}

TEST(IdSet, BucketsAppearAndVanishAtWordBoundary) {
  IdSet s(128, Id::null());
  EXPECT_FALSE(s.updateId(63, true));
  EXPECT_FALSE(s.updateId(64, true));
  EXPECT_TRUE(s.updateId(64, true));
  EXPECT_EQ(s.buckets(), 2u);
  EXPECT_TRUE(s.updateId(63, false));
  s.idDel(64);
  EXPECT_TRUE(s.empty());
  EXPECT_EQ(s.firstId(), Id::null());
}

TEST(IdSet, RangesSetExactlyTheirIds) {
  IdSet all(200, Id::null()), range(200, Id::null());
  all.idSetAll();
  range.idSetRange(0, 200);
  EXPECT_EQ(all, range);
  EXPECT_EQ(all.ids(), 200u);
  EXPECT_EQ(all.stringValue(), "(0-199)");

  IdSet inOneBucket(200, Id::null());
  inOneBucket.idSetRange(66, 70);
  EXPECT_EQ(inOneBucket.stringValue(), "(66-69)");
  IdSet acrossThree(200, 10);
  acrossThree.idSetRange(63, 129);
  EXPECT_EQ(acrossThree.stringValue(), "(10,63-128)");
  EXPECT_EQ(acrossThree.buckets(), 3u);

  IdSet empty(0, Id::null());
  empty.idSetAll();
  EXPECT_TRUE(empty.empty());
}

TEST(IdSet, BadInputFailsWithItsCheck) {
  IdSet s(64, Id::null());
  EXPECT_DEATH(s.idSetRange(5, 5), lit("Failed(begin.value() < end.value()) range should be of at least length 1"));
  EXPECT_DEATH(s.idSetRange(5, 5), lit("Assertion failed: !\"begin.value() < end.value()\""));
  EXPECT_DEATH(s.idSetRange(5, 65), lit("Failed(end.value() <= size()) end can't be greater than bitmap limit"));
  EXPECT_DEATH(s.idIs(70, true), lit("Failed(bitPos.value() < size()) 70 exceeds limit of 64"));
  EXPECT_DEATH(s.id(64), lit("Failed(bitPos.value() < size()) 64 exceeds limit of 64"));
  EXPECT_DEATH(s.nextId(64), lit("Failed(bitPos.value() < size() || bitPos.value() == Id::null()) "
                                 "current bit can't be greater than bitmap limit"));
  EXPECT_DEATH(s.sizeIs(65), "size should not be changed");
  s.sizeIs(64);
}

TEST(IdSet, IteratorsStartWhereAskedAndAbortPastTheEnd) {
  IdSet s(100, Id::null());
  for (U16 v : {2, 3, 50, 99}) s.idIs(v, true);
  IdIteratorConst it = s.idIteratorConst(3);
  EXPECT_EQ(it.key(), Id(3));
  it.next();
  EXPECT_EQ(it.key(), Id(50));
  EXPECT_EQ(s.idIteratorConst(51).key(), Id(99));
  it = s.idIteratorConst(99);
  it.next();
  EXPECT_FALSE(it.inRange());
  EXPECT_DEATH(it.key(), lit("curId_ != Id::null()"));
  EXPECT_DEATH(it.next(), lit("curId_ != Id::null()"));

  // Deleting the current id while walking does not lose the rest.
  std::vector<U16> seen;
  for (IdIterator w = s.idIterator(); w; w.next()) {
    seen.push_back(w.key().value());
    s.idDel(w.key());
  }
  EXPECT_EQ(seen, (std::vector<U16>{2, 3, 50, 99}));
  EXPECT_TRUE(s.empty());
}

TEST(IdSet, ComplementIsNotMaskedToSize) {
  IdSet empty70(70, Id::null());
  IdSet c = ~empty70;
  EXPECT_EQ(c.ids(), 128u);
  EXPECT_EQ(c.stringValue(), "(0-127)");

  IdSet s(128, Id::null());
  s.idSetRange(10, 100);
  EXPECT_EQ((~s).stringValue(), "(0-9,100-127)");
  EXPECT_EQ(~~s, s);
}

TEST(IdSet, BucketNumbersWrapAt256) {
  IdSet s(20000, Id::null());
  s.idIs(16384 + 5, true);
  EXPECT_TRUE(s.id(5));
  EXPECT_EQ(s.firstId(), Id(5));
  // 257 buckets: bucket 0 is inverted twice and ends up as it was.
  IdSet wide(16448, Id::null());
  IdSet c = ~wide;
  EXPECT_EQ(c.firstId(), Id(64));
  EXPECT_EQ(c.ids(), 16384u - 64u);
}

TEST(IdSet, AlgebraNeedsEqualSizes) {
  IdSet a(64, 1), b(65, 1);
  const std::function<void()> ops[] = {[&] { a |= b; }, [&] { a -= b; }, [&] { a &= b; }, [&] { a ^= b; },
                                       [&] { (void)(a == b); }};
  for (const auto& op : ops) EXPECT_DEATH(op(), lit("size() == other.size()"));
}

TEST(IdSet, NotOperatorOnlyAnswersForSizeZero) {
  EXPECT_TRUE(!IdSet(0, Id::null()));
  EXPECT_TRUE(!IdSet());
  EXPECT_DEATH((void)!IdSet(10, Id::null()), lit("size() == other.size()"));
}

TEST(IdSet, NewValueFormsKeepTheLeftOperand) {
  IdSet a(100, 7), b(100, 8);
  a.idSetRange(10, 20);
  b.idSetRange(15, 25);
  IdSet u = a.union_py(b);
  EXPECT_EQ(u.initialId(), Id(7));
  EXPECT_EQ(u.stringValue(), "(7-8,10-24)");
  EXPECT_EQ(a.difference_py(b).stringValue(), "(7,10-14)");
  EXPECT_EQ(a.intersection_py(b).stringValue(), "(15-19)");
  EXPECT_EQ(a.symDifference_py(b).stringValue(), "(7-8,10-14,20-24)");
  EXPECT_EQ(a.stringValue(), "(7,10-19)");
  EXPECT_TRUE((a & b).equal_py(b & a));
  EXPECT_EQ((a - a).buckets(), 0u);
}

TEST(IdSet, EqualSetsHashAlike) {
  IdSet a(1000, Id::null()), b(1000, Id::null());
  a.idSetRange(100, 400);
  for (U16 v = 399; v >= 100; --v) b.idIs(v, true);
  EXPECT_EQ(a.hash(), b.hash());
  b.idDel(250);
  EXPECT_NE(a.hash(), b.hash());
  std::unordered_set<IdSet> sets{a, b};
  EXPECT_EQ(sets.size(), 2u);
}

TEST(IdSet, TextPrintsRunsAndParsesBack) {
  IdSet s(20, Id::null());
  for (U16 v : {1, 2, 3, 5, 9, 10}) s.idIs(v, true);
  EXPECT_EQ(valueToStrep(s), "(1-3,5,9-10)");
  std::ostringstream os;
  os << IdSet(20, Id::null());
  EXPECT_EQ(os.str(), "()");

  IdSet parsed(10, Id::null());
  String text = "(1-3,5)";
  Zum::StrepIter cur = text.begin();
  sequenceToValue(cur, text.end(), &parsed);
  EXPECT_EQ(cur, text.end());
  EXPECT_EQ(parsed.stringValue(), "(1-3,5)");

  // Parsing adds to the target and keeps its size and initial id.
  IdSet target(50, 40);
  String more = "(0,44-45)tail";
  cur = more.begin();
  sequenceToValue(cur, more.end(), &target);
  EXPECT_EQ(String(cur, more.cend()), "tail");
  EXPECT_EQ(target.stringValue(), "(0,40,44-45)");
  EXPECT_EQ(target.size(), 50);
  EXPECT_EQ(target.initialId(), Id(40));

  EXPECT_TRUE(strepToValue<IdSet>("()").empty());
  EXPECT_THROW(strepToValue<IdSet>("() "), Zum::RangeException);
  EXPECT_THROW(strepToValue<IdSet>("(x)"), Zum::RangeException);
}

TEST(IdSet, MalformedTextFailsWithItsCheck) {
  auto parse = [](const String& text) {
    IdSet s(10, Id::null());
    Zum::StrepIter cur = text.begin();
    sequenceToValue(cur, text.end(), &s);
  };
  EXPECT_DEATH(parse("(4-2)"), lit("Failed(start < stop) Invalid range"));
  EXPECT_DEATH(parse("(4-2)"), lit("Assertion failed: !\"start < stop\""));
  EXPECT_DEATH(parse("(5-5)"), lit("Failed(start < stop) Invalid range"));
  EXPECT_DEATH(parse("(1-2-3)"), lit("range.size() == 2"));
  EXPECT_DEATH(parse("1-2)"), lit("*p == '(' && strepEnd != end"));
  EXPECT_DEATH(parse("(1-2"), lit("*p == '(' && strepEnd != end"));
  EXPECT_DEATH(parse(""), lit("*p == '(' && strepEnd != end"));
  EXPECT_DEATH(parse("(12)"), lit("12 exceeds limit of 10"));
}

// A walk re-reads the set at every step: within the word it is in, an id
// added ahead is visited and one removed ahead is not.
TEST(IdSet, WalkSeesChangesAheadOfItInADenseSet) {
  IdSet s(128, Id::null());
  s.idSetRange(0, 128);
  for (U16 v = 0; v < 128; v += 2) s.idDel(v);
  s.idDel(3);  // 1, 5, 7, ... 127: every bucket in use
  std::vector<U16> seen;
  for (IdIterator it = s.idIterator(); it; it.next()) {
    seen.push_back(it.key().value());
    if (it.key() == Id(1)) {
      s.idIs(2, true);
      s.idDel(5);
    }
  }
  std::vector<U16> expected{1, 2};
  for (U16 v = 7; v < 128; v += 2) expected.push_back(v);
  EXPECT_EQ(seen, expected);
}

// The algebra takes a different path for each pairing of forms (sparse or
// dense on either side), in place or into a new value, and a result may
// change form. Every pairing of an empty, a sparse, a half-full and a full
// set is checked against a plain model, including the non-zero bucket count
// that decides the form, before and after a further update.
TEST(IdSet, AlgebraMatchesAModelInEveryPairingOfForms) {
  constexpr U16 size = 1000;  // 16 buckets: dense above 8 in use
  using Model = std::set<U16>;
  auto makeSet = [](U32 stride, U32 phase, U32 end = 1000) {
    std::pair<IdSet, Model> out{IdSet(size, Id::null()), {}};
    for (U32 v = phase; stride && v < end; v += stride) {
      out.first.idIs(static_cast<U16>(v), true);
      out.second.insert(static_cast<U16>(v));
    }
    return out;
  };
  // Empty, sparse, dense, full, at the border, and dense with empty words.
  const std::pair<IdSet, Model> sets[] = {makeSet(0, 0),    makeSet(300, 5),  makeSet(2, 1),
                                          makeSet(1, 0),    makeSet(130, 64), makeSet(5, 2, 768)};
  auto text = [](const Model& m) {
    IdSet s(size, Id::null());
    for (U16 v : m) s.idIs(v, true);
    return s.stringValue();
  };
  auto bucketsOf = [](const Model& m) {
    std::set<U32> b;
    for (U16 v : m) b.insert(v >> 6);
    return static_cast<U32>(b.size());
  };
  using SetOp = IdSet (*)(const IdSet&, const IdSet&);
  using InPlaceOp = void (*)(IdSet&, const IdSet&);
  using ModelOp = bool (*)(bool, bool);
  const std::tuple<SetOp, InPlaceOp, ModelOp, const char*> ops[] = {
      {[](const IdSet& a, const IdSet& b) { return a | b; }, [](IdSet& a, const IdSet& b) { a |= b; },
       [](bool a, bool b) { return a || b; }, "|"},
      {[](const IdSet& a, const IdSet& b) { return a - b; }, [](IdSet& a, const IdSet& b) { a -= b; },
       [](bool a, bool b) { return a && !b; }, "-"},
      {[](const IdSet& a, const IdSet& b) { return a & b; }, [](IdSet& a, const IdSet& b) { a &= b; },
       [](bool a, bool b) { return a && b; }, "&"},
      {[](const IdSet& a, const IdSet& b) { return a ^ b; }, [](IdSet& a, const IdSet& b) { a ^= b; },
       [](bool a, bool b) { return a != b; }, "^"}};
  for (const auto& [left, leftModel] : sets) {
    for (const auto& [right, rightModel] : sets) {
      for (const auto& [setOp, inPlaceOp, modelOp, name] : ops) {
        Model want;
        for (U16 v = 0; v < size; ++v) {
          if (modelOp(leftModel.count(v), rightModel.count(v))) want.insert(v);
        }
        SCOPED_TRACE(text(leftModel) + " " + name + " " + text(rightModel));
        const IdSet fresh = setOp(left, right);
        IdSet inPlace = left;
        inPlaceOp(inPlace, right);
        const IdSet* const results[] = {&fresh, &inPlace};
        for (const IdSet* result : results) {
          // An update before anything else reads the result, so a count it
          // left to be taken later must be taken right by the update: one
          // that may empty a word (905 is alone in its word in one operand),
          // one that may fill an empty word.
          for (U16 flip : {905, size - 1}) {
            IdSet touched = *result;
            Model touchedWant = want;
            touched.idIs(flip, !want.count(flip));
            if (!touchedWant.erase(flip)) touchedWant.insert(flip);
            EXPECT_EQ(bucketsOf(touchedWant), touched.buckets());
            EXPECT_EQ(text(touchedWant), touched.stringValue());
          }
          EXPECT_EQ(text(want), result->stringValue());
          EXPECT_EQ(bucketsOf(want), result->buckets());
          EXPECT_EQ(want.size(), result->ids());
          EXPECT_EQ(want.empty() ? Id::null() : Id(*want.begin()), result->firstId());
        }
        EXPECT_EQ(text(leftModel), left.stringValue());  // the operands are untouched
      }
    }
    // A set combined with itself, in place.
    IdSet self = left;
    self &= self;
    EXPECT_EQ(text(leftModel), self.stringValue());
    self |= self;
    EXPECT_EQ(text(leftModel), self.stringValue());
    self -= self;
    EXPECT_EQ(0u, self.buckets());
    self = left;
    self ^= self;
    EXPECT_TRUE(self.empty());
  }
}
