// Design note: lookups far outnumber membership changes, so the circle is
// kept twice. The ordered map of point sets follows the membership exactly
// (collisions, removal of one member from a shared point); lookups search a
// flat sorted array of the points with the owner of each alongside, a few
// cache lines per lookup where the map's tree walk costs one node per level.
// A change merges the member's points into the flat arrays in one linear
// pass rather than rebuilding them from the map, whose walk would chase one
// node per point.
#include "Olk/ConsistentHash.h"

#include <algorithm>

#include "platform/Exception.h"

namespace Olk::ConsistentHash {

void ConsistentHashCircle::addHash(U64 hash, U64 numPoints) {
  std::vector<U64> placed;
  placed.reserve(numPoints);
  U64 point = hash;
  for (U64 i = 0; i < numPoints; ++i) {
    point = nextPoint(point);
    std::set<U64>& members = pointCircle[point];
    if (!members.empty()) ++pointCollisionCount_;
    members.insert(hash);
    placed.push_back(point);
  }
  numPoints_[hash] = numPoints;
  refreshFlat(std::move(placed));
}

void ConsistentHashCircle::delHash(U64 hash) {
  auto record = numPoints_.find(hash);
  if (record == numPoints_.end()) return;
  std::vector<U64> vacated;
  vacated.reserve(record->second);
  U64 point = hash;
  for (U64 i = 0; i < record->second; ++i) {
    point = nextPoint(point);
    auto at = pointCircle.find(point);
    if (at == pointCircle.end()) continue;
    at->second.erase(hash);
    if (at->second.empty()) pointCircle.erase(at);
    vacated.push_back(point);
  }
  numPoints_.erase(record);
  refreshFlat(std::move(vacated));
}

void ConsistentHashCircle::refreshFlat(std::vector<U64> changed) {
  if (changed.empty()) return;
  std::sort(changed.begin(), changed.end());
  changed.erase(std::unique(changed.begin(), changed.end()), changed.end());
  std::vector<U64> point, owner;
  point.reserve(flatPoint_.size() + changed.size());
  owner.reserve(flatPoint_.size() + changed.size());
  std::size_t i = 0;
  for (U64 p : changed) {
    for (; i < flatPoint_.size() && flatPoint_[i] < p; ++i) {
      point.push_back(flatPoint_[i]);
      owner.push_back(flatOwner_[i]);
    }
    if (i < flatPoint_.size() && flatPoint_[i] == p) ++i;  // replaced by what the map holds now
    auto at = pointCircle.find(p);
    if (at == pointCircle.end()) continue;  // the point is gone
    point.push_back(p);
    owner.push_back(*at->second.begin());
  }
  point.insert(point.end(), flatPoint_.begin() + static_cast<std::ptrdiff_t>(i), flatPoint_.end());
  owner.insert(owner.end(), flatOwner_.begin() + static_cast<std::ptrdiff_t>(i), flatOwner_.end());
  flatPoint_.swap(point);
  flatOwner_.swap(owner);
}

}  // namespace Olk::ConsistentHash
