#include "Olk/ConsistentHash.h"

#include "platform/Exception.h"

namespace Olk::ConsistentHash {

void ConsistentHashCircle::addHash(U64 hash, U64 numPoints) {
  U64 point = hash;
  for (U64 i = 0; i < numPoints; ++i) {
    point = nextPoint(point);
    std::set<U64>& members = pointCircle[point];
    if (!members.empty()) ++pointCollisionCount_;
    members.insert(hash);
  }
  if (numPoints) numPoints_[hash] = numPoints;
}

void ConsistentHashCircle::delHash(U64 hash) {
  auto record = numPoints_.find(hash);
  if (record == numPoints_.end()) return;
  U64 point = hash;
  for (U64 i = 0; i < record->second; ++i) {
    point = nextPoint(point);
    auto at = pointCircle.find(point);
    if (at == pointCircle.end()) continue;
    at->second.erase(hash);
    if (at->second.empty()) pointCircle.erase(at);
  }
  numPoints_.erase(record);
}

U64 ConsistentHashCircle::getHash(U64 key) const {
  auto iterPoint = pointCircle.lower_bound(key);
  if (iterPoint == pointCircle.end()) iterPoint = pointCircle.begin();
  ZUM_ASSERT(iterPoint != pointCircle.end() && "No hash found. Empty circle.");
  return *iterPoint->second.begin();
}

}  // namespace Olk::ConsistentHash
