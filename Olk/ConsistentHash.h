// A consistent-hash circle: spreads 64-bit keys over a changing set of members.
//
// Each member (a 64-bit hash) is placed at `numPoints` pseudo-random points of
// a circle of 64-bit values; a key belongs to the member at the first point at
// or after it, wrapping to the lowest point. Adding or removing a member moves
// only the keys that fall next to its points, about 1/n of them for n equal
// members. More points per member even out the load at the cost of memory.
// A member's points depend only on its hash, so a circle rebuilt from the same
// members answers the same. Two members that land on one point share it; the
// smaller hash owns it. Lookups are a binary search over a flat sorted
// array of the points, O(log points); adding or removing a member of k
// points costs O(points + k log points). Not thread-safe; a plain value
// object, copyable.
#pragma once

#include <map>
#include <set>
#include <unordered_map>
#include <vector>

#include "Olk/Types.h"
#include "platform/Exception.h"

namespace Olk::ConsistentHash {

class ConsistentHashCircle {
 public:
  // Places `hash` at `numPoints` points; 0 places nothing but still records
  // the member. Adding a member that is already present places it again (its
  // points are counted twice in the collision counter) and remembers the new
  // count, 0 included: delHash then removes only that many points.
  void addHash(U64 hash, U64 numPoints);
  // Removes `hash` from all its points; a hash never added changes nothing.
  void delHash(U64 hash);
  // The member owning `key`. An empty circle is an assertion failure.
  U64 getHash(U64 key) const { return flatOwner_[ownerIndex(key)]; }
  // How many new points landed on a point that already held a member.
  U32 getPointCollisionCount() const { return pointCollisionCount_; }

  size_t points() const { return pointCircle.size(); }
  size_t members() const { return numPoints_.size(); }

  // The point after `point` in a member's sequence; the first is next(hash).
  static U64 nextPoint(U64 point) { return (point + 1) * 2862933555777941757ULL; }

 private:
  // Brings the flat arrays in line with pointCircle at `changed` points.
  void refreshFlat(std::vector<U64> changed);
  // Where in the flat arrays the owner of `key` is; asserts a non-empty circle.
  std::size_t ownerIndex(U64 key) const;

  std::map<U64, std::set<U64>> pointCircle;  // point -> members there; no empty sets
  std::unordered_map<U64, U64> numPoints_;     // member -> points placed
  U32 pointCollisionCount_ = 0;
  // The circle for lookups: the points of pointCircle in ascending order and
  // the owner (smallest member) of each.
  std::vector<U64> flatPoint_;
  std::vector<U64> flatOwner_;
};

// Inline, so that a lookup costs the search alone and no call into the
// library.
inline std::size_t ConsistentHashCircle::ownerIndex(U64 key) const {
  ZUM_ASSERT_TEXT(!flatPoint_.empty(), "iterPoint != pointCircle.end() && \"No hash found. Empty circle.\"");
  // A lower bound without branches on the data: every step halves the span
  // with a conditional move, so random keys cost no mispredicted jumps. The
  // two places the next step may read are fetched ahead, which hides the
  // cache misses a branchy search would have hidden by speculating.
  const U64* const first = flatPoint_.data();
  const U64* base = first;
  std::size_t n = flatPoint_.size();
  while (n > 1) {
    const std::size_t half = n / 2;
    const std::size_t nextHalf = (n - half) / 2;
    __builtin_prefetch(base + nextHalf);
    __builtin_prefetch(base + half + nextHalf);
    base = base[half] < key ? base + half : base;
    n -= half;
  }
  const std::size_t at = static_cast<std::size_t>(base - first) + (*base < key);
  return at == flatPoint_.size() ? 0 : at;  // past the highest point: wrap to the lowest
}

}  // namespace Olk::ConsistentHash
