// IdSet and HBitmap against named baselines.
//
// IdSet is compared with boost::dynamic_bitset (a flat bit vector, the
// fastest possible for dense sets) and, when built with OLK_BENCH_ROARING and
// linked with -lroaring, with CRoaring (compressed containers, strong on
// sparse sets). Each case runs on a universe of 1024 or 16384 ids, sparse
// (2% of the ids) or dense (90%), as benchmark arguments {universe, percent}.
//
// HBitmap's find-first-clear on a nearly full 2^20-bit map (one clear bit at
// a given position) is compared with a linear word scan of the same bits.
#include <benchmark/benchmark.h>

#include <boost/dynamic_bitset.hpp>
#include <random>
#include <vector>

#include "Olk/HBitmap.h"
#include "Olk/IdSet.h"

#if OLK_BENCH_ROARING
#include <roaring/roaring.hh>
#endif

using namespace Olk;

namespace {

// Two random id lists drawn with the same density, fixed seed.
struct Operands {
  U16 universe;
  std::vector<U16> a, b;
};

Operands operands(const benchmark::State& state) {
  Operands out{static_cast<U16>(state.range(0)), {}, {}};
  std::mt19937 rng(12345);
  std::bernoulli_distribution pick(static_cast<double>(state.range(1)) / 100.0);
  for (U32 v = 0; v < out.universe; ++v) {
    if (pick(rng)) out.a.push_back(static_cast<U16>(v));
    if (pick(rng)) out.b.push_back(static_cast<U16>(v));
  }
  return out;
}

// Positions probed by the nextId benchmarks.
std::vector<U16> probes(U16 universe) {
  std::mt19937 rng(777);
  std::vector<U16> out(256);
  for (U16& p : out) p = static_cast<U16>(rng() % universe);
  return out;
}

IdSet makeIdSet(U16 universe, const std::vector<U16>& ids) {
  IdSet s(universe, Id::null());
  for (U16 v : ids) s.idIs(v, true);
  return s;
}

boost::dynamic_bitset<U64> makeBitset(U16 universe, const std::vector<U16>& ids) {
  boost::dynamic_bitset<U64> s(universe);
  for (U16 v : ids) s.set(v);
  return s;
}

void sizes(benchmark::internal::Benchmark* b) {
  for (int universe : {1024, 16384}) {
    for (int percent : {2, 90}) b->Args({universe, percent});
  }
}

// --- IdSet --------------------------------------------------------------------

void IdSet_Union(benchmark::State& state) {
  Operands o = operands(state);
  IdSet a = makeIdSet(o.universe, o.a), b = makeIdSet(o.universe, o.b);
  for (auto _ : state) benchmark::DoNotOptimize(a | b);
}

void IdSet_Intersection(benchmark::State& state) {
  Operands o = operands(state);
  IdSet a = makeIdSet(o.universe, o.a), b = makeIdSet(o.universe, o.b);
  for (auto _ : state) benchmark::DoNotOptimize(a & b);
}

void IdSet_Iteration(benchmark::State& state) {
  Operands o = operands(state);
  IdSet a = makeIdSet(o.universe, o.a);
  for (auto _ : state) {
    U32 sum = 0;
    for (Id id : a) sum += id.value();
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<S64>(o.a.size()));
}

void IdSet_FirstId(benchmark::State& state) {
  Operands o = operands(state);
  IdSet a = makeIdSet(o.universe, o.a);
  for (auto _ : state) benchmark::DoNotOptimize(a.firstId());
}

void IdSet_NextId(benchmark::State& state) {
  Operands o = operands(state);
  IdSet a = makeIdSet(o.universe, o.a);
  std::vector<U16> at = probes(o.universe);
  for (auto _ : state) {
    for (U16 p : at) benchmark::DoNotOptimize(a.nextId(p));
  }
  state.SetItemsProcessed(state.iterations() * static_cast<S64>(at.size()));
}

// --- boost::dynamic_bitset ------------------------------------------------------

void Bitset_Union(benchmark::State& state) {
  Operands o = operands(state);
  auto a = makeBitset(o.universe, o.a), b = makeBitset(o.universe, o.b);
  for (auto _ : state) benchmark::DoNotOptimize(a | b);
}

void Bitset_Intersection(benchmark::State& state) {
  Operands o = operands(state);
  auto a = makeBitset(o.universe, o.a), b = makeBitset(o.universe, o.b);
  for (auto _ : state) benchmark::DoNotOptimize(a & b);
}

void Bitset_Iteration(benchmark::State& state) {
  Operands o = operands(state);
  auto a = makeBitset(o.universe, o.a);
  for (auto _ : state) {
    U32 sum = 0;
    for (auto i = a.find_first(); i != a.npos; i = a.find_next(i)) sum += static_cast<U32>(i);
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<S64>(o.a.size()));
}

void Bitset_FirstId(benchmark::State& state) {
  Operands o = operands(state);
  auto a = makeBitset(o.universe, o.a);
  for (auto _ : state) benchmark::DoNotOptimize(a.find_first());
}

void Bitset_NextId(benchmark::State& state) {
  Operands o = operands(state);
  auto a = makeBitset(o.universe, o.a);
  std::vector<U16> at = probes(o.universe);
  for (auto _ : state) {
    for (U16 p : at) benchmark::DoNotOptimize(a.find_next(p));
  }
  state.SetItemsProcessed(state.iterations() * static_cast<S64>(at.size()));
}

BENCHMARK(IdSet_Union)->Apply(sizes);
BENCHMARK(Bitset_Union)->Apply(sizes);
BENCHMARK(IdSet_Intersection)->Apply(sizes);
BENCHMARK(Bitset_Intersection)->Apply(sizes);
BENCHMARK(IdSet_Iteration)->Apply(sizes);
BENCHMARK(Bitset_Iteration)->Apply(sizes);
BENCHMARK(IdSet_FirstId)->Apply(sizes);
BENCHMARK(Bitset_FirstId)->Apply(sizes);
BENCHMARK(IdSet_NextId)->Apply(sizes);
BENCHMARK(Bitset_NextId)->Apply(sizes);

// --- CRoaring -------------------------------------------------------------------

#if OLK_BENCH_ROARING

Roaring makeRoaring(const std::vector<U16>& ids) {
  Roaring r;
  for (U16 v : ids) r.add(v);
  r.runOptimize();
  return r;
}

void Roaring_Union(benchmark::State& state) {
  Operands o = operands(state);
  Roaring a = makeRoaring(o.a), b = makeRoaring(o.b);
  for (auto _ : state) benchmark::DoNotOptimize(a | b);
}

void Roaring_Intersection(benchmark::State& state) {
  Operands o = operands(state);
  Roaring a = makeRoaring(o.a), b = makeRoaring(o.b);
  for (auto _ : state) benchmark::DoNotOptimize(a & b);
}

void Roaring_Iteration(benchmark::State& state) {
  Operands o = operands(state);
  Roaring a = makeRoaring(o.a);
  for (auto _ : state) {
    U32 sum = 0;
    for (U32 v : a) sum += v;
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<S64>(o.a.size()));
}

void Roaring_FirstId(benchmark::State& state) {
  Operands o = operands(state);
  Roaring a = makeRoaring(o.a);
  for (auto _ : state) benchmark::DoNotOptimize(a.minimum());
}

void Roaring_NextId(benchmark::State& state) {
  Operands o = operands(state);
  Roaring a = makeRoaring(o.a);
  std::vector<U16> at = probes(o.universe);
  for (auto _ : state) {
    for (U16 p : at) {
      auto it = a.begin();
      it.equalorlarger(p + 1u);
      benchmark::DoNotOptimize(it == a.end() ? 0u : *it);
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<S64>(at.size()));
}

BENCHMARK(Roaring_Union)->Apply(sizes);
BENCHMARK(Roaring_Intersection)->Apply(sizes);
BENCHMARK(Roaring_Iteration)->Apply(sizes);
BENCHMARK(Roaring_FirstId)->Apply(sizes);
BENCHMARK(Roaring_NextId)->Apply(sizes);

#endif

// --- HBitmap --------------------------------------------------------------------

constexpr U32 bigMap = 1u << 20;

// The argument is the position of the only clear bit, in 1/16ths of the map.
U32 holeAt(const benchmark::State& state) {
  return static_cast<U32>(state.range(0)) * (bigMap / 16) + 37;
}

void HBitmap_FindFirstClearNearlyFull(benchmark::State& state) {
  HBitmap map(bigMap);
  map.setAll();
  map.clear(holeAt(state));
  for (auto _ : state) benchmark::DoNotOptimize(map.findFirstClear(0));
}

void LinearScan_FindFirstClearNearlyFull(benchmark::State& state) {
  std::vector<U64> words(bigMap / 64, ~U64{0});
  U32 hole = holeAt(state);
  words[hole / 64] &= ~(U64{1} << (hole % 64));
  for (auto _ : state) {
    U32 found = HBitmap::npos;
    for (std::size_t w = 0; w < words.size(); ++w) {
      if (words[w] != ~U64{0}) {
        found = static_cast<U32>(w * 64) + static_cast<U32>(__builtin_ctzll(~words[w]));
        break;
      }
    }
    benchmark::DoNotOptimize(found);
  }
}

// Allocator churn: free a random bit, then take the lowest free one.
void HBitmap_AllocateFreeChurn(benchmark::State& state) {
  HBitmap map(bigMap);
  map.setAll();
  std::mt19937 rng(5);
  for (int i = 0; i < 64; ++i) map.clear(rng() % bigMap);
  for (auto _ : state) {
    map.clear(static_cast<U32>(rng() % bigMap));
    map.set(map.findFirstClear(0));
  }
}

BENCHMARK(HBitmap_FindFirstClearNearlyFull)->Arg(1)->Arg(8)->Arg(15);
BENCHMARK(LinearScan_FindFirstClearNearlyFull)->Arg(1)->Arg(8)->Arg(15);
BENCHMARK(HBitmap_AllocateFreeChurn);

}  // namespace

BENCHMARK_MAIN();
