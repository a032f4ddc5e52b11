// Number pools against boost::icl::interval_set, and the best-fit block
// allocator's throughput, fragmentation and defragment time.
//
// Every benchmark builds its inputs outside the timed region and draws them
// from a fixed seed, so runs compare like with like.
//
// Names are <Operation>_<Impl>/<args>, the size last. cpu_time is the time
// of one iteration; where an iteration holds several operations,
// items_per_second counts the operations (their time is its inverse).

#include <benchmark/benchmark.h>

#include <boost/icl/interval_set.hpp>
#include <random>
#include <vector>

#include "Olk/BestFitAllocator.h"
#include "Olk/NumberPool.h"

using namespace Olk;

namespace {

using IclSet = boost::icl::interval_set<uint32_t>;
using IclInterval = boost::icl::discrete_interval<uint32_t>;

struct RangeOp {
  bool add;
  U32 min;
  U32 max;
};

// Random adds (60%) and deletes of short ranges over [0, universe).
std::vector<RangeOp> rangeOps(U32 universe, std::size_t count) {
  std::mt19937 rng(42);
  std::vector<RangeOp> ops;
  ops.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    const U32 min = rng() % universe;
    const U32 max = std::min<U32>(universe - 1, min + rng() % 32);
    ops.push_back({rng() % 10 < 6, min, max});
  }
  return ops;
}

std::vector<U32> probes(U32 universe, std::size_t count) {
  std::mt19937 rng(7);
  std::vector<U32> out(count);
  for (auto& n : out) n = rng() % universe;
  return out;
}

constexpr std::size_t opCount = 1 << 14;

void AddDelRanges_Olk(benchmark::State& state) {
  const auto ops = rangeOps(U32(state.range(0)), opCount);
  for (auto _ : state) {
    auto pool = numberPoolFactory("bench");
    for (const RangeOp& op : ops) {
      if (op.add) {
        pool->addRange(Range(op.min, op.max));
      } else {
        pool->delRange(Range(op.min, op.max));
      }
    }
    benchmark::DoNotOptimize(pool->size());
  }
  state.SetItemsProcessed(state.iterations() * ops.size());
}

void AddDelRanges_IclIntervalSet(benchmark::State& state) {
  const auto ops = rangeOps(U32(state.range(0)), opCount);
  for (auto _ : state) {
    IclSet set;
    for (const RangeOp& op : ops) {
      if (op.add) {
        set += IclInterval::closed(op.min, op.max);
      } else {
        set -= IclInterval::closed(op.min, op.max);
      }
    }
    benchmark::DoNotOptimize(set.iterative_size());
  }
  state.SetItemsProcessed(state.iterations() * ops.size());
}

void IsMember_Olk(benchmark::State& state) {
  const U32 universe = U32(state.range(0));
  auto pool = numberPoolFactory("bench");
  for (const RangeOp& op : rangeOps(universe, opCount)) {
    if (op.add) pool->addRange(Range(op.min, op.max));
  }
  const auto ns = probes(universe, 4096);
  for (auto _ : state) {
    std::size_t hits = 0;
    for (U32 n : ns) hits += pool->isMember(n);
    benchmark::DoNotOptimize(hits);
  }
  state.SetItemsProcessed(state.iterations() * ns.size());
  state.counters["ranges"] = double(pool->ranges().size());
}

void IsMember_IclIntervalSet(benchmark::State& state) {
  const U32 universe = U32(state.range(0));
  IclSet set;
  for (const RangeOp& op : rangeOps(universe, opCount)) {
    if (op.add) set += IclInterval::closed(op.min, op.max);
  }
  const auto ns = probes(universe, 4096);
  for (auto _ : state) {
    std::size_t hits = 0;
    for (U32 n : ns) hits += boost::icl::contains(set, n);
    benchmark::DoNotOptimize(hits);
  }
  state.SetItemsProcessed(state.iterations() * ns.size());
  state.counters["ranges"] = double(set.iterative_size());
}

// A mix of table-entry block sizes: mostly small, a tail of larger ones.
U32 blockSize(std::mt19937& rng) {
  static const U32 sizes[] = {1, 1, 1, 1, 2, 2, 2, 4, 4, 8, 8, 16, 32, 64};
  return sizes[rng() % (sizeof sizes / sizeof sizes[0])];
}

constexpr U32 maxBlk = 64;

// Steady state near 80% occupancy: each step frees a random block or
// allocates a new one. Counters report fragmentation at the end: the number
// of free blocks and the largest free block as a share of the free entries.
void AllocFree_Olk(benchmark::State& state) {
  const U32 memSz = U32(state.range(0));
  std::mt19937 rng(99);
  auto a = bestFitAllocatorFactory(memSz, 0, maxBlk);
  std::vector<Ptr<BFA::Blk>> live;
  while (a->numFreeEntries() > memSz / 5) {
    if (auto b = a->alloc(blockSize(rng))) live.push_back(b);
  }
  U64 failures = 0;
  for (auto _ : state) {
    if (rng() % 2 && !live.empty()) {
      std::swap(live[rng() % live.size()], live.back());
      live.pop_back();
    } else if (auto b = a->alloc(blockSize(rng))) {
      live.push_back(b);
    } else {
      ++failures;
    }
  }
  U32 largest = 0;
  for (const auto& kv : a->freeBlkStartIndexToSzMap()) largest = std::max(largest, kv.second);
  state.SetItemsProcessed(state.iterations());
  state.counters["freeBlocks"] = double(a->freeBlkStartIndexToSzs());
  state.counters["largestFreeShare"] = a->numFreeEntries() ? double(largest) / a->numFreeEntries() : 0.0;
  state.counters["failedAllocs"] = double(failures);
  state.counters["occupancy"] = 1.0 - double(a->numFreeEntries()) / memSz;
}

// 10^5 used blocks with a hole after every one of them.
void Defragment_Olk(benchmark::State& state) {
  const U32 blocks = U32(state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    std::mt19937 rng(5);
    auto a = bestFitAllocatorFactory(blocks * 2 * maxBlk, 0, maxBlk);
    std::vector<Ptr<BFA::Blk>> keep;
    std::vector<Ptr<BFA::Blk>> holes;
    for (U32 i = 0; i < blocks; ++i) {
      keep.push_back(a->alloc(blockSize(rng)));
      holes.push_back(a->alloc(blockSize(rng)));
    }
    holes.clear();
    state.ResumeTiming();
    auto log = a->defragment();
    benchmark::DoNotOptimize(log->pendingCmdLogs());
    state.PauseTiming();
    log = nullptr;
    keep.clear();
    a = nullptr;
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * blocks);
}

}  // namespace

BENCHMARK(AddDelRanges_Olk)->Arg(1 << 12)->Arg(1 << 16)->Arg(1 << 20);
BENCHMARK(AddDelRanges_IclIntervalSet)->Arg(1 << 12)->Arg(1 << 16)->Arg(1 << 20);
BENCHMARK(IsMember_Olk)->Arg(1 << 12)->Arg(1 << 16)->Arg(1 << 20);
BENCHMARK(IsMember_IclIntervalSet)->Arg(1 << 12)->Arg(1 << 16)->Arg(1 << 20);
BENCHMARK(AllocFree_Olk)->Arg(1 << 16)->Arg(1 << 20);
BENCHMARK(Defragment_Olk)->Arg(100000)->Unit(benchmark::kMillisecond)->Iterations(3);

BENCHMARK_MAIN();
