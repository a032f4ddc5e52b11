#include "Olk/HBitmap.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

using namespace Olk;

namespace {

U32 refFind(const std::vector<bool>& ref, U32 from, bool value) {
  for (U32 i = from; i < ref.size(); ++i) {
    if (ref[i] == value) return i;
  }
  return HBitmap::npos;
}

// Every query of `map` against the plain reference.
void checkAgainst(const HBitmap& map, const std::vector<bool>& ref, std::mt19937& rng) {
  map.audit();
  U32 size = static_cast<U32>(ref.size());
  U32 set = 0;
  for (bool b : ref) set += b;
  ASSERT_EQ(map.count(), set);
  ASSERT_EQ(map.empty(), set == 0);
  ASSERT_EQ(map.full(), set == size);
  std::vector<U32> walked, expected;
  for (U32 pos : map) walked.push_back(pos);
  for (U32 i = 0; i < size; ++i) {
    if (ref[i]) expected.push_back(i);
  }
  ASSERT_EQ(walked, expected);
  std::uniform_int_distribution<U32> any(0, size + 2);
  for (int i = 0; i < 200; ++i) {
    U32 from = any(rng);
    ASSERT_EQ(map.findFirstSet(from), refFind(ref, from, true)) << "from " << from;
    ASSERT_EQ(map.findFirstClear(from), refFind(ref, from, false)) << "from " << from;
  }
}

}  // namespace

TEST(HBitmap, BoundsAndTheEmptyMap) {
  HBitmap map(200);
  map.set(5);
  EXPECT_TRUE(map.test(5));
  EXPECT_FALSE(map.test(6));
  EXPECT_DEATH(map.set(200), "pos < size\\(\\)");
  EXPECT_DEATH((void)map.test(200), "pos < size\\(\\)");
  HBitmap none(0);
  EXPECT_EQ(none.findFirstSet(), HBitmap::npos);
  EXPECT_EQ(none.findFirstClear(), HBitmap::npos);
  EXPECT_TRUE(none.full());
}

TEST(HBitmap, FindsTheOnlyClearBitOfALargeFullMap) {
  HBitmap map(1u << 20);
  map.setAll();
  for (U32 hole : {0u, 63u, 64u, 4095u, 4096u, 262143u, 262144u, (1u << 20) - 1}) {
    map.clear(hole);
    EXPECT_EQ(map.findFirstClear(0), hole);
    EXPECT_EQ(map.findFirstClear(hole), hole);
    EXPECT_EQ(map.findFirstClear(hole + 1), HBitmap::npos);
    map.set(hole);
  }
  map.audit();
  map.clearAll();
  map.set(777777);
  EXPECT_EQ(map.findFirstSet(1), 777777u);
  EXPECT_EQ(map.findFirstSet(777778), HBitmap::npos);
}

TEST(HBitmap, RandomChangesMatchAPlainBitVector) {
  std::mt19937 rng(7);
  for (U32 size : {1u, 63u, 64u, 65u, 4096u, 4097u, 70000u}) {
    SCOPED_TRACE(testing::Message() << "size " << size);
    HBitmap map(size);
    std::vector<bool> ref(size, false);
    std::uniform_int_distribution<U32> pos(0, size - 1);
    // Fill up, then drain, so both nearly empty and nearly full maps are seen;
    // sizes just past a word or a summary word check that the padding is
    // never found.
    for (bool value : {true, false}) {
      for (int round = 0; round < 6; ++round) {
        for (U32 i = 0; i < size / 2 + 1; ++i) {
          U32 p = pos(rng);
          bool before = value ? map.set(p) : map.clear(p);
          ASSERT_EQ(before, ref[p]);
          ref[p] = value;
        }
        checkAgainst(map, ref, rng);
      }
    }
    map.setAll();
    checkAgainst(map, std::vector<bool>(size, true), rng);
  }
}
