// IdSet and HBitmap against named baselines.
//
// IdSet is compared with boost::dynamic_bitset (`DynamicBitset`, a flat bit
// vector, the fastest possible for dense sets) and, when built with
// OLK_BENCH_ROARING and linked with -lroaring, with CRoaring (`CRoaring`,
// compressed containers, strong on sparse sets). Each case runs very sparse
// (0.1% of the ids), sparse (2%) or dense (90%) on a universe of 1024 to
// 16384 ids; the arguments are {per mille, universe}, so the size is last.
// Larger universes are left out: an IdSet's bucket numbers wrap at 256, so
// above 16384 ids it would hold half the words the peers hold and the
// figures would compare unequal work.
//
// Names are <Operation>_<Impl>/<args>. Every iteration is one operation, so
// cpu_time is the time of one operation: one union or intersection (result
// included), one walk over the whole set (items_per_second counts the ids
// walked), one firstId or one nextId at a random position, one copy. The
// new-value forms (a | b) allocate their result on every side; the in-place
// forms (a |= b) allocate nothing and time the word loops alone. Copy
// also reports the heap bytes a copy holds as the counter `bytes` (counted
// through operator new; CRoaring's own estimate for CRoaring).
//
// HBitmap's find-first-clear on a nearly full 2^20-bit map (one clear bit at
// a given position, in 1/16ths of the map) is compared with a linear word
// scan of the same bits.
#include <benchmark/benchmark.h>

#include <boost/dynamic_bitset.hpp>
#include <cstdlib>
#include <new>
#include <random>
#include <vector>

#include "Olk/HBitmap.h"
#include "Olk/IdSet.h"

#if OLK_BENCH_ROARING
#include <roaring/roaring.hh>
#endif

using namespace Olk;

namespace {

// Bytes requested through operator new so far; the difference across a copy
// is what the copy holds.
std::size_t newBytes = 0;

}  // namespace

// The replacement pair allocates with malloc and frees with free, which the
// compiler cannot see match once it inlines both.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(std::size_t n) {
  newBytes += n;
  if (void* p = std::malloc(n ? n : 1)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
#pragma GCC diagnostic pop

namespace {

// Two random id lists drawn with the same density, fixed seed.
struct Operands {
  U16 universe;
  std::vector<U16> a, b;
};

Operands operands(const benchmark::State& state) {
  Operands out{static_cast<U16>(state.range(1)), {}, {}};
  std::mt19937 rng(12345);
  std::bernoulli_distribution pick(static_cast<double>(state.range(0)) / 1000.0);
  for (U32 v = 0; v < out.universe; ++v) {
    if (pick(rng)) out.a.push_back(static_cast<U16>(v));
    if (pick(rng)) out.b.push_back(static_cast<U16>(v));
  }
  return out;
}

// Positions probed by the nextId benchmarks, used round robin.
constexpr std::size_t probeMask = 255;
std::vector<U16> probes(U16 universe) {
  std::mt19937 rng(777);
  std::vector<U16> out(probeMask + 1);
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
  for (int perMille : {1, 20, 900}) {
    for (int universe : {1024, 4096, 16384}) b->Args({perMille, universe});
  }
}

// Times copies of `set`; reports as `bytes` the heap bytes one copy holds
// (`heapBytes(copy)`).
template <class Set, class HeapBytes>
void measureCopy(benchmark::State& state, const Set& set, HeapBytes heapBytes) {
  {
    const std::size_t before = newBytes;
    Set copy(set);
    state.counters["bytes"] = static_cast<double>(heapBytes(copy, newBytes - before));
  }
  for (auto _ : state) {
    Set copy(set);
    benchmark::DoNotOptimize(copy);
  }
}

// Times op(a, b) on two sets that `make(universe, ids)` builds from the
// operands' id lists.
template <class Make, class Op>
void measureBinary(benchmark::State& state, Make make, Op op) {
  Operands o = operands(state);
  auto a = make(o.universe, o.a), b = make(o.universe, o.b);
  for (auto _ : state) benchmark::DoNotOptimize(op(a, b));
}

// The binary operations, the same for every implementation. In place the
// left operand takes the result, so no result is allocated; the first
// iteration settles it (a | b, or a & b) and every later one redoes the same
// work on the same words.
constexpr auto unionOf = [](auto& a, const auto& b) { return a | b; };
constexpr auto intersectionOf = [](auto& a, const auto& b) { return a & b; };
constexpr auto unionInPlace = [](auto& a, const auto& b) -> auto& { return a |= b; };
constexpr auto intersectionInPlace = [](auto& a, const auto& b) -> auto& { return a &= b; };

// --- IdSet --------------------------------------------------------------------

void Copy_Olk(benchmark::State& state) {
  Operands o = operands(state);
  measureCopy(state, makeIdSet(o.universe, o.a), [](const IdSet&, std::size_t bytes) { return bytes; });
}

void Union_Olk(benchmark::State& state) { measureBinary(state, makeIdSet, unionOf); }

void Intersection_Olk(benchmark::State& state) { measureBinary(state, makeIdSet, intersectionOf); }

void UnionInPlace_Olk(benchmark::State& state) { measureBinary(state, makeIdSet, unionInPlace); }

void IntersectionInPlace_Olk(benchmark::State& state) { measureBinary(state, makeIdSet, intersectionInPlace); }

void Iteration_Olk(benchmark::State& state) {
  Operands o = operands(state);
  IdSet a = makeIdSet(o.universe, o.a);
  for (auto _ : state) {
    U32 sum = 0;
    for (Id id : a) sum += id.value();
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<S64>(o.a.size()));
}

void FirstId_Olk(benchmark::State& state) {
  Operands o = operands(state);
  IdSet a = makeIdSet(o.universe, o.a);
  for (auto _ : state) benchmark::DoNotOptimize(a.firstId());
}

void NextId_Olk(benchmark::State& state) {
  Operands o = operands(state);
  IdSet a = makeIdSet(o.universe, o.a);
  std::vector<U16> at = probes(o.universe);
  std::size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(a.nextId(at[i++ & probeMask]));
}

// --- boost::dynamic_bitset ------------------------------------------------------

void Copy_DynamicBitset(benchmark::State& state) {
  Operands o = operands(state);
  measureCopy(state, makeBitset(o.universe, o.a),
              [](const boost::dynamic_bitset<U64>&, std::size_t bytes) { return bytes; });
}

void Union_DynamicBitset(benchmark::State& state) { measureBinary(state, makeBitset, unionOf); }

void Intersection_DynamicBitset(benchmark::State& state) { measureBinary(state, makeBitset, intersectionOf); }

void UnionInPlace_DynamicBitset(benchmark::State& state) { measureBinary(state, makeBitset, unionInPlace); }

void IntersectionInPlace_DynamicBitset(benchmark::State& state) { measureBinary(state, makeBitset, intersectionInPlace); }

void Iteration_DynamicBitset(benchmark::State& state) {
  Operands o = operands(state);
  auto a = makeBitset(o.universe, o.a);
  for (auto _ : state) {
    U32 sum = 0;
    for (auto i = a.find_first(); i != a.npos; i = a.find_next(i)) sum += static_cast<U32>(i);
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<S64>(o.a.size()));
}

void FirstId_DynamicBitset(benchmark::State& state) {
  Operands o = operands(state);
  auto a = makeBitset(o.universe, o.a);
  for (auto _ : state) benchmark::DoNotOptimize(a.find_first());
}

void NextId_DynamicBitset(benchmark::State& state) {
  Operands o = operands(state);
  auto a = makeBitset(o.universe, o.a);
  std::vector<U16> at = probes(o.universe);
  std::size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(a.find_next(at[i++ & probeMask]));
}

BENCHMARK(Copy_Olk)->Apply(sizes);
BENCHMARK(Copy_DynamicBitset)->Apply(sizes);
BENCHMARK(Union_Olk)->Apply(sizes);
BENCHMARK(Union_DynamicBitset)->Apply(sizes);
BENCHMARK(Intersection_Olk)->Apply(sizes);
BENCHMARK(Intersection_DynamicBitset)->Apply(sizes);
BENCHMARK(UnionInPlace_Olk)->Apply(sizes);
BENCHMARK(UnionInPlace_DynamicBitset)->Apply(sizes);
BENCHMARK(IntersectionInPlace_Olk)->Apply(sizes);
BENCHMARK(IntersectionInPlace_DynamicBitset)->Apply(sizes);
BENCHMARK(Iteration_Olk)->Apply(sizes);
BENCHMARK(Iteration_DynamicBitset)->Apply(sizes);
BENCHMARK(FirstId_Olk)->Apply(sizes);
BENCHMARK(FirstId_DynamicBitset)->Apply(sizes);
BENCHMARK(NextId_Olk)->Apply(sizes);
BENCHMARK(NextId_DynamicBitset)->Apply(sizes);

// --- CRoaring -------------------------------------------------------------------

#if OLK_BENCH_ROARING

Roaring makeRoaring(const std::vector<U16>& ids) {
  Roaring r;
  for (U16 v : ids) r.add(v);
  r.runOptimize();
  return r;
}

Roaring makeRoaringOf(U16, const std::vector<U16>& ids) { return makeRoaring(ids); }

void Copy_CRoaring(benchmark::State& state) {
  Operands o = operands(state);
  // CRoaring allocates with malloc, out of operator new's sight: its own
  // estimate of its size in memory stands in.
  measureCopy(state, makeRoaring(o.a), [](const Roaring& r, std::size_t) { return r.getSizeInBytes(false); });
}

void Union_CRoaring(benchmark::State& state) { measureBinary(state, makeRoaringOf, unionOf); }

void Intersection_CRoaring(benchmark::State& state) { measureBinary(state, makeRoaringOf, intersectionOf); }

void UnionInPlace_CRoaring(benchmark::State& state) { measureBinary(state, makeRoaringOf, unionInPlace); }

void IntersectionInPlace_CRoaring(benchmark::State& state) { measureBinary(state, makeRoaringOf, intersectionInPlace); }

void Iteration_CRoaring(benchmark::State& state) {
  Operands o = operands(state);
  Roaring a = makeRoaring(o.a);
  for (auto _ : state) {
    U32 sum = 0;
    for (U32 v : a) sum += v;
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<S64>(o.a.size()));
}

void FirstId_CRoaring(benchmark::State& state) {
  Operands o = operands(state);
  Roaring a = makeRoaring(o.a);
  for (auto _ : state) benchmark::DoNotOptimize(a.minimum());
}

void NextId_CRoaring(benchmark::State& state) {
  Operands o = operands(state);
  Roaring a = makeRoaring(o.a);
  std::vector<U16> at = probes(o.universe);
  std::size_t i = 0;
  for (auto _ : state) {
    auto it = a.begin();
    it.equalorlarger(at[i++ & probeMask] + 1u);
    benchmark::DoNotOptimize(it == a.end() ? 0u : *it);
  }
}

BENCHMARK(Copy_CRoaring)->Apply(sizes);
BENCHMARK(Union_CRoaring)->Apply(sizes);
BENCHMARK(Intersection_CRoaring)->Apply(sizes);
BENCHMARK(UnionInPlace_CRoaring)->Apply(sizes);
BENCHMARK(IntersectionInPlace_CRoaring)->Apply(sizes);
BENCHMARK(Iteration_CRoaring)->Apply(sizes);
BENCHMARK(FirstId_CRoaring)->Apply(sizes);
BENCHMARK(NextId_CRoaring)->Apply(sizes);

#endif

// --- HBitmap --------------------------------------------------------------------

constexpr U32 bigMap = 1u << 20;

// The argument is the position of the only clear bit, in 1/16ths of the map.
U32 holeAt(const benchmark::State& state) {
  return static_cast<U32>(state.range(0)) * (bigMap / 16) + 37;
}

void FindFirstClearNearlyFull_Olk(benchmark::State& state) {
  HBitmap map(bigMap);
  map.setAll();
  map.clear(holeAt(state));
  for (auto _ : state) benchmark::DoNotOptimize(map.findFirstClear(0));
}

void FindFirstClearNearlyFull_LinearScan(benchmark::State& state) {
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
void AllocateFreeChurn_Olk(benchmark::State& state) {
  HBitmap map(bigMap);
  map.setAll();
  std::mt19937 rng(5);
  for (int i = 0; i < 64; ++i) map.clear(rng() % bigMap);
  for (auto _ : state) {
    map.clear(static_cast<U32>(rng() % bigMap));
    map.set(map.findFirstClear(0));
  }
}

BENCHMARK(FindFirstClearNearlyFull_Olk)->Arg(1)->Arg(8)->Arg(15);
BENCHMARK(FindFirstClearNearlyFull_LinearScan)->Arg(1)->Arg(8)->Arg(15);
BENCHMARK(AllocateFreeChurn_Olk);

}  // namespace

BENCHMARK_MAIN();
