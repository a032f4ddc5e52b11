#include "Olk/ConsistentHash.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

using Olk::U64;
using Olk::ConsistentHash::ConsistentHashCircle;

namespace {

U64 firstPoint(U64 hash) { return ConsistentHashCircle::nextPoint(hash); }

// The owner by brute force: every member's points, first at or after the key.
U64 referenceOwner(const std::map<U64, U64>& members, U64 key) {
  std::map<U64, U64> circle;  // point -> smallest member there
  for (const auto& [hash, n] : members) {
    U64 p = hash;
    for (U64 i = 0; i < n; ++i) {
      p = ConsistentHashCircle::nextPoint(p);
      auto [it, fresh] = circle.emplace(p, hash);
      if (!fresh) it->second = std::min(it->second, hash);
    }
  }
  auto it = circle.lower_bound(key);
  return (it == circle.end() ? circle.begin() : it)->second;
}

}  // namespace

TEST(ConsistentHash, PointSequenceIsTheLinearCongruentialStep) {
  EXPECT_EQ(U64(2862933555777941757ULL) * 8, firstPoint(7));
  EXPECT_EQ((firstPoint(7) + 1) * 2862933555777941757ULL, ConsistentHashCircle::nextPoint(firstPoint(7)));
}

TEST(ConsistentHash, KeyAtPointAndWrapAround) {
  ConsistentHashCircle c;
  c.addHash(10, 1);
  c.addHash(20, 1);
  const U64 p10 = firstPoint(10), p20 = firstPoint(20);
  const U64 low = std::min(p10, p20), high = std::max(p10, p20);
  const U64 lowOwner = low == p10 ? 10 : 20, highOwner = lowOwner == 10 ? 20 : 10;
  EXPECT_EQ(lowOwner, c.getHash(low));
  EXPECT_EQ(highOwner, c.getHash(low + 1));
  EXPECT_EQ(highOwner, c.getHash(high));
  EXPECT_EQ(lowOwner, c.getHash(high + 1));  // above the highest point: wrap
  EXPECT_EQ(lowOwner, c.getHash(0));
  EXPECT_EQ(0u, c.getPointCollisionCount());
}

TEST(ConsistentHash, SharedPointGoesToSmallerMemberAndIsCounted) {
  // A member whose hash is another member's first point starts its sequence
  // at that member's second point.
  const U64 first = 900, second = firstPoint(900);
  const U64 shared = ConsistentHashCircle::nextPoint(firstPoint(first));
  ASSERT_EQ(shared, firstPoint(second));
  for (bool smallFirst : {true, false}) {
    ConsistentHashCircle c;
    c.addHash(smallFirst ? std::min(first, second) : std::max(first, second), smallFirst ? 2 : 1);
    c.addHash(smallFirst ? std::max(first, second) : std::min(first, second), smallFirst ? 1 : 2);
    EXPECT_EQ(1u, c.getPointCollisionCount());
    EXPECT_EQ(std::min(first, second), c.getHash(shared));
    c.delHash(std::min(first, second));
    EXPECT_EQ(std::max(first, second), c.getHash(shared));
  }
}

TEST(ConsistentHash, ZeroPointsAreRecordedAndUnknownDeleteChangesNothing) {
  ConsistentHashCircle c;
  c.addHash(5, 0);
  EXPECT_EQ(0u, c.points());
  EXPECT_EQ(1u, c.members());  // recorded with no points
  c.addHash(6, 3);
  c.delHash(5);
  c.delHash(77);
  EXPECT_EQ(3u, c.points());
  c.delHash(6);
  EXPECT_EQ(0u, c.points());
  EXPECT_EQ(0u, c.members());
}

TEST(ConsistentHashDeathTest, EmptyCircleAborts) {
  ConsistentHashCircle c;
  EXPECT_DEATH(c.getHash(1), "iterPoint != pointCircle.end\\(\\) && \"No hash found. Empty circle.\"");
}

TEST(ConsistentHash, MatchesReferenceThroughAddsAndDeletes) {
  std::mt19937_64 rng(7);
  ConsistentHashCircle c;
  std::map<U64, U64> members;
  for (int round = 0; round < 60; ++round) {
    if (members.size() > 3 && rng() % 3 == 0) {
      auto it = std::next(members.begin(), std::ptrdiff_t(rng() % members.size()));
      c.delHash(it->first);
      members.erase(it);
    } else {
      U64 h = rng() % 1000, n = 1 + rng() % 20;
      if (members.count(h)) continue;
      c.addHash(h, n);
      members[h] = n;
    }
    for (int k = 0; k < 50; ++k) {
      U64 key = rng();
      ASSERT_EQ(referenceOwner(members, key), c.getHash(key));
    }
  }
}

TEST(ConsistentHash, AddingAMemberMovesKeysOnlyToIt) {
  ConsistentHashCircle c;
  for (U64 m = 1; m <= 10; ++m) c.addHash(m * 7919, 100);
  std::mt19937_64 rng(3);
  std::vector<U64> keys(5000);
  for (U64& k : keys) k = rng();
  std::vector<U64> before;
  for (U64 k : keys) before.push_back(c.getHash(k));
  c.addHash(424242, 100);
  size_t moved = 0;
  for (size_t i = 0; i < keys.size(); ++i) {
    const U64 now = c.getHash(keys[i]);
    if (now == before[i]) continue;
    EXPECT_EQ(424242u, now);
    ++moved;
  }
  EXPECT_GT(moved, keys.size() / 30);  // about 1/11 of them
  EXPECT_LT(moved, keys.size() / 5);
}

// Keys exactly at each point and one past it pin every point's owner, so a
// point left behind by a removal, or an owner not updated, shows at once.
TEST(ConsistentHash, EveryPointKeepsItsOwnerThroughChanges) {
  const U64 a = 900, b = firstPoint(900);  // b's points are a's from the second on
  ConsistentHashCircle c;
  std::map<U64, U64> members;
  auto check = [&] {
    std::map<U64, U64> all;
    for (const auto& [hash, n] : members) {
      U64 p = hash;
      for (U64 i = 0; i < n; ++i) all[p = ConsistentHashCircle::nextPoint(p)] = hash;
    }
    ASSERT_EQ(all.size(), c.points());
    for (const auto& [p, unused] : all) {
      ASSERT_EQ(referenceOwner(members, p), c.getHash(p)) << "point " << p;
      ASSERT_EQ(referenceOwner(members, p + 1), c.getHash(p + 1)) << "after point " << p;
    }
  };
  for (auto [hash, n] : {std::pair<U64, U64>{b, 5}, {a, 4}, {77, 30}, {a, 4}}) {
    c.addHash(hash, n);
    members[hash] = n;
    check();
  }
  for (U64 hash : {a, U64(12345), b}) {
    c.delHash(hash);
    members.erase(hash);
    check();
  }
}

// The search halves the circle until one point is left, so a fault in it
// shows only for some circle sizes and only at the edges of a point: every
// size up to a few halvings, keys just below, at and just above each point.
TEST(ConsistentHash, LookupFindsTheOwnerAtEveryCircleSize) {
  for (U64 n = 1; n <= 70; ++n) {
    ConsistentHashCircle c;
    const std::map<U64, U64> members{{31, n}, {4001, 1}};
    for (const auto& [hash, points] : members) c.addHash(hash, points);
    U64 p = 31;
    for (U64 i = 0; i < n; ++i) {
      p = ConsistentHashCircle::nextPoint(p);
      for (U64 key : {p - 1, p, p + 1}) {
        ASSERT_EQ(referenceOwner(members, key), c.getHash(key)) << n << " points, key " << key;
      }
    }
    for (U64 key : {U64(0), ~U64(0)}) {
      ASSERT_EQ(referenceOwner(members, key), c.getHash(key)) << n << " points";
    }
  }
}
