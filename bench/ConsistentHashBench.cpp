// Consistent-hash lookup against the floor: a binary search over a sorted
// array of the same points.
//
// The circle holds `members` members of `points` points each; the arguments
// are {points, members * points}, so the size (points on the circle) is the
// last one. Names are <Operation>_<Impl>/<args>; every iteration is one
// operation, so cpu_time is the time of one operation:
//   Lookup         the owner of one random key (keys drawn once, used round
//                  robin, so no generator is timed);
//   MemberChange   remove one member, add it back and look up one key, the
//                  cost an agent pays when membership moves (libOlk only).
// `SortedArray` is the floor: the circle's points in one sorted vector and
// the owner of each in a parallel one, built once, searched with
// std::lower_bound, wrapping to the first point past the last.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <map>
#include <random>
#include <vector>

#include "Olk/ConsistentHash.h"

using namespace Olk;
using Olk::ConsistentHash::ConsistentHashCircle;

namespace {

constexpr std::size_t keyMask = 4095;

const std::vector<U64>& keys() {
  static const std::vector<U64> v = [] {
    std::mt19937_64 rng(99);
    std::vector<U64> out(keyMask + 1);
    for (U64& k : out) k = rng();
    return out;
  }();
  return v;
}

U64 points(const benchmark::State& state) { return static_cast<U64>(state.range(0)); }
U64 members(const benchmark::State& state) { return static_cast<U64>(state.range(1) / state.range(0)); }
U64 member(U64 i) { return (i + 1) * 0x9e3779b97f4a7c15ULL; }

ConsistentHashCircle circleOf(const benchmark::State& state) {
  ConsistentHashCircle c;
  for (U64 m = 0; m < members(state); ++m) c.addHash(member(m), points(state));
  return c;
}

// The floor: sorted points and the smallest member at each.
class SortedArray {
 public:
  explicit SortedArray(const benchmark::State& state) {
    std::map<U64, U64> circle;
    for (U64 m = 0; m < members(state); ++m) {
      U64 p = member(m);
      for (U64 i = 0; i < points(state); ++i) {
        p = ConsistentHashCircle::nextPoint(p);
        auto [it, fresh] = circle.emplace(p, member(m));
        if (!fresh) it->second = std::min(it->second, member(m));
      }
    }
    for (const auto& [p, owner] : circle) {
      point_.push_back(p);
      owner_.push_back(owner);
    }
  }
  U64 get(U64 key) const {
    auto it = std::lower_bound(point_.begin(), point_.end(), key);
    return owner_[it == point_.end() ? 0 : static_cast<std::size_t>(it - point_.begin())];
  }

 private:
  std::vector<U64> point_;
  std::vector<U64> owner_;
};

void Lookup_Olk(benchmark::State& state) {
  const ConsistentHashCircle c = circleOf(state);
  const std::vector<U64>& k = keys();
  std::size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(c.getHash(k[i++ & keyMask]));
}

void Lookup_SortedArray(benchmark::State& state) {
  const SortedArray a(state);
  const std::vector<U64>& k = keys();
  std::size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(a.get(k[i++ & keyMask]));
}

void MemberChange_Olk(benchmark::State& state) {
  ConsistentHashCircle c = circleOf(state);
  const std::vector<U64>& k = keys();
  std::size_t i = 0;
  for (auto _ : state) {
    const U64 m = member(i % members(state));
    c.delHash(m);
    c.addHash(m, points(state));
    benchmark::DoNotOptimize(c.getHash(k[i++ & keyMask]));
  }
}

void sizes(benchmark::internal::Benchmark* b) {
  for (S64 points : {100, 1000}) {
    for (S64 members : {5, 50, 500}) b->Args({points, members * points});
  }
}

}  // namespace

BENCHMARK(Lookup_Olk)->Apply(sizes);
BENCHMARK(Lookup_SortedArray)->Apply(sizes);
BENCHMARK(MemberChange_Olk)->Apply(sizes);

BENCHMARK_MAIN();
