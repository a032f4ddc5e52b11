// Cuckoo hash table and consistent-hash circle: how full, how long the
// command lists, how fast; each beside a named baseline.
//
// First a report (printed before the timed runs):
//  * per table shape, the load reached when the first item goes pending, next
//    to the known cuckoo threshold for that many tables and bins, and
//    libcuckoo's cuckoohash_map (2 hash functions x 4 slots) filled with the
//    same keys at a fixed size;
//  * the mean and worst command-list length per insertion around 50/80/90/95%
//    load;
//  * for the circle, the fraction of keys that move when a member joins or
//    leaves (ideal 1/n) and the load spread (max/mean), next to a plain
//    ketama-style ring built in this file.
// Then Google Benchmark times insertions and deletions against libcuckoo, and
// circle lookups.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <optional>
#include <random>
#include <vector>

#if __has_include(<libcuckoo/cuckoohash_map.hh>)
#include <libcuckoo/cuckoohash_map.hh>
#define OLK_HAVE_LIBCUCKOO 1
#endif

#include "Olk/ConsistentHash.h"
#include "Olk/CuckooHashTable.h"
#include "platform/Clock.h"
#include "platform/Log.h"

using namespace Olk;
using namespace Olk::Cuckoo;

namespace {

// An item with an independent random 32-bit hash per table.
class RandomHashItem : public HashItem {
 public:
  RandomHashItem(U32 key, std::mt19937& rng) : key_(key) {
    for (U32& h : hashes_) h = rng();
  }
  bool isEqual(const Ptr<HashItem const>& other) const override {
    auto* o = dynamic_cast<const RandomHashItem*>(other.ptr());
    return o && o->key_ == key_;
  }
  U32 getHash(U8 tableId) const override { return hashes_[tableId]; }
  String toStrep() const override { return std::to_string(key_); }
  U32 key() const { return key_; }

 private:
  U32 key_;
  U32 hashes_[9];
};

struct Shape {
  const char* name;
  std::vector<std::pair<U32, U32>> tables;  // (tableSize, binSize)
  const char* knownThreshold;
};

const std::vector<Shape> shapes = {
    {"1 x 1 bin", {{8192, 1}}, "none (no second choice)"},
    {"2 x 1 bin", {{4096, 1}, {4096, 1}}, "0.500"},
    {"2 x 4 bins", {{1024, 4}, {1024, 4}}, "0.980"},
    {"4 x 1 bin", {{2048, 1}, {2048, 1}, {2048, 1}, {2048, 1}}, "0.977"},
    {"3 x 1 bin", {{2731, 1}, {2731, 1}, {2731, 1}}, "0.918"},
    {"3 x 2 bins", {{1366, 2}, {1366, 2}, {1366, 2}}, "0.988"},
    {"9 mixed", {{907, 1}, {454, 2}, {227, 4}, {907, 1}, {114, 8}, {303, 3}, {454, 2}, {907, 1}, {454, 2}},
     "n/a"},
};

U32 capacity(const Shape& s) {
  U32 c = 0;
  for (const auto& [size, bins] : s.tables) c += size * bins;
  return c;
}

struct Table {
  Ptr<Config> config;
  Ptr<Status> status = statusFactory("bench");
  Ptr<HashTable> table;
  Table(const Shape& s, U32 seed) {
    config = configFactory(s.name, U8(s.tables.size()));
    for (U32 t = 0; t < s.tables.size(); ++t) config->tableDescListIs(t, s.tables[t].first, s.tables[t].second);
    config->randomSeedIs(seed);
    config->reviewPendingItemSupportIs(false);
    table = hashTableFactory(config, status, Zum::manualClockFactory());
  }
  // Inserts and acknowledges; the list length, or -1 when the item went pending.
  int insert(const Ptr<HashItem const>& item) {
    if (!table->insertItem(item)) return -1;
    int n = int(status->cuckooCmds()->itemSeqs());
    config->cmdReadCompletedInc();
    return n;
  }
};

std::vector<Ptr<HashItem const>> makeItems(size_t n, U32 seed) {
  std::mt19937 rng(seed);
  std::vector<Ptr<HashItem const>> items;
  for (size_t i = 0; i < n; ++i) items.push_back(Ptr<HashItem const>(new RandomHashItem(U32(i), rng)));
  return items;
}

U64 mix64(U64 x) {
  x += 0x9E3779B97F4A7C15ULL;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ULL;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBULL;
  return x ^ (x >> 31);
}

struct MixHash {
  size_t operator()(U64 k) const { return size_t(mix64(k)); }
};

#if OLK_HAVE_LIBCUCKOO
// libcuckoo at a fixed size of `slots` (a power of two): the load when it
// first asks to grow. Keys are salted so that each seed gives another set.
double libcuckooLoad(U32 slots, U32 seed) {
  size_t hashpower = 0;
  while ((size_t(1) << hashpower) * 4 < slots) ++hashpower;
  libcuckoo::cuckoohash_map<U64, U32, MixHash, std::equal_to<U64>, std::allocator<std::pair<const U64, U32>>, 4> map(
      slots);
  map.maximum_hashpower(hashpower);
  map.minimum_load_factor(0.0);
  try {
    for (U32 k = 0; k < slots; ++k) map.insert(mix64(U64(seed) << 32 | k), k);
  } catch (const libcuckoo::maximum_hashpower_exceeded&) {
  }
  return map.load_factor();
}
#endif

void cuckooReport() {
  std::printf("Cuckoo: load at the first pending item (mean of 3 seeds), command-list length per insertion\n");
  std::printf("%-11s %6s %6s %-24s | %-13s %-13s %-13s %-13s\n", "shape", "slots", "load", "known threshold",
              "50% mean/max", "80% mean/max", "90% mean/max", "95% mean/max");
  const double marks[] = {0.50, 0.80, 0.90, 0.95};
  for (const Shape& s : shapes) {
    const U32 slots = capacity(s);
    double loadSum = 0;
    double sum[4] = {}, count[4] = {}, worst[4] = {};
    for (U32 seed = 1; seed <= 3; ++seed) {
      Table t(s, seed);
      auto items = makeItems(slots, seed);
      U32 placed = 0;
      for (const auto& item : items) {
        const double load = double(placed) / slots;
        const int n = t.insert(item);
        if (n < 0) break;
        ++placed;
        for (int m = 0; m < 4; ++m) {
          if (load < marks[m] - 0.02 || load >= marks[m]) continue;
          sum[m] += n;
          count[m] += 1;
          worst[m] = std::max(worst[m], double(n));
        }
      }
      loadSum += double(placed) / slots;
    }
    std::printf("%-11s %6u %6.3f %-24s |", s.name, slots, loadSum / 3, s.knownThreshold);
    for (int m = 0; m < 4; ++m) {
      if (count[m] == 0) {
        std::printf(" %-13s", "-");
      } else {
        char cell[32];
        std::snprintf(cell, sizeof cell, "%.2f/%.0f", sum[m] / count[m], worst[m]);
        std::printf(" %-13s", cell);
      }
    }
    std::printf("\n");
  }
#if OLK_HAVE_LIBCUCKOO
  double libcuckoo = 0;
  for (U32 seed = 1; seed <= 3; ++seed) libcuckoo += libcuckooLoad(8192, seed);
  std::printf("%-11s %6u %6.3f %-24s | (moves are internal, no command list)\n", "libcuckoo", 8192u, libcuckoo / 3,
              "0.980 (2 x 4 bins)");
#else
  std::printf("libcuckoo: not installed (Debian package libcuckoo-dev), peer skipped\n");
#endif
}

// A plain ketama-style ring: `points` points per member, each a 64-bit mix of
// (member, replica); same lookup rule (first point at or after the key).
struct KetamaRing {
  std::map<U64, U64> ring;
  void add(U64 member, U32 points) {
    for (U32 i = 0; i < points; ++i) ring[mix64(member * 1000003ULL + i)] = member;
  }
  void del(U64 member, U32 points) {
    for (U32 i = 0; i < points; ++i) ring.erase(mix64(member * 1000003ULL + i));
  }
  U64 get(U64 key) const {
    auto it = ring.lower_bound(key);
    return (it == ring.end() ? ring.begin() : it)->second;
  }
};

template <class Add, class Del, class Get>
void circleStats(const char* name, U32 points, Add add, Del del, Get get) {
  const U32 members = 20;
  std::vector<U64> keys(100000);
  std::mt19937_64 rng(11);
  for (U64& k : keys) k = rng();
  for (U64 m = 1; m <= members; ++m) add(m * 7919, points);
  std::map<U64, U32> load;
  std::vector<U64> before;
  for (U64 k : keys) {
    before.push_back(get(k));
    ++load[before.back()];
  }
  U32 maxLoad = 0;
  for (const auto& kv : load) maxLoad = std::max(maxLoad, kv.second);
  add(999999, points);
  size_t movedIn = 0;
  for (size_t i = 0; i < keys.size(); ++i) movedIn += get(keys[i]) != before[i];
  del(999999, points);
  del(7919, points);
  size_t movedOut = 0;
  for (size_t i = 0; i < keys.size(); ++i) movedOut += get(keys[i]) != before[i];
  std::printf("%-22s %5u  %8.4f %8.4f   %6.3f   (ideal %.4f / %.4f, 1.0)\n", name, points,
              double(movedIn) / keys.size(), double(movedOut) / keys.size(),
              double(maxLoad) / (double(keys.size()) / members), 1.0 / (members + 1), 1.0 / members);
}

void circleReport() {
  std::printf("\nConsistent hash, 20 members, 100000 keys\n");
  std::printf("%-22s %5s  %8s %8s   %6s\n", "ring", "pts", "moveAdd", "moveDel", "max/mean");
  for (U32 points : {10u, 100u, 1000u}) {
    ConsistentHash::ConsistentHashCircle c;
    circleStats(
        "ConsistentHashCircle", points, [&](U64 m, U32 p) { c.addHash(m, p); }, [&](U64 m, U32) { c.delHash(m); },
        [&](U64 k) { return c.getHash(k); });
    KetamaRing r;
    circleStats(
        "ketama-style ring", points, [&](U64 m, U32 p) { r.add(m, p); }, [&](U64 m, U32 p) { r.del(m, p); },
        [&](U64 k) { return r.get(k); });
  }
  std::printf("\n");
}

// ---- timed runs ---------------------------------------------------------------
//
// Each iteration is one operation, so the times are per insertion or
// deletion. The structure is rebuilt, untimed, every `n` operations: an
// insertion figure is the mean over filling 2 x 4-bin tables (8192 slots)
// from empty to 50% or 90%, a deletion figure the mean over emptying them
// from there. libOlk acknowledges every command list as an agent would, so
// its figures include building the list; libcuckoo builds none.

const U32 peerSlots = 8192;
const Shape& peerShape = shapes[2];  // 2 x 4 bins, peerSlots slots

template <class Refill, class Op>
void perOperation(benchmark::State& state, size_t n, Refill refill, Op op) {
  size_t i = n;
  for (auto _ : state) {
    if (i == n) {
      state.PauseTiming();
      refill();
      i = 0;
      state.ResumeTiming();
    }
    op(i++);
  }
  state.SetItemsProcessed(S64(state.iterations()));
}

// Items of the library's own type, with independent hashes for tables 0 and 1.
std::vector<Ptr<HashItem const>> makeIntItems(size_t n, U32 seed) {
  std::mt19937 rng(seed);
  std::vector<Ptr<HashItem const>> items;
  for (size_t i = 0; i < n; ++i) items.push_back(intHashItemFactory(U32(i), rng(), rng(), rng()));
  return items;
}

void insertOlk(benchmark::State& state, U32 percent) {
  const auto items = makeIntItems(peerSlots * percent / 100, 5);
  std::optional<Table> t;
  perOperation(
      state, items.size(), [&] { t.emplace(peerShape, 5); }, [&](size_t i) { t->insert(items[i]); });
}

void deleteOlk(benchmark::State& state, U32 percent) {
  const auto items = makeIntItems(peerSlots * percent / 100, 5);
  std::optional<Table> t;
  auto refill = [&] {
    t.emplace(peerShape, 5);
    for (const auto& item : items) t->insert(item);
  };
  perOperation(state, items.size(), refill, [&](size_t i) {
    t->table->deleteItem(items[i]);
    t->config->cmdReadCompletedInc();
  });
}

BENCHMARK_CAPTURE(insertOlk, 50, 50)->Name("Insert50_Olk");
BENCHMARK_CAPTURE(insertOlk, 90, 90)->Name("Insert90_Olk");
BENCHMARK_CAPTURE(deleteOlk, 50, 50)->Name("Delete50_Olk");
BENCHMARK_CAPTURE(deleteOlk, 90, 90)->Name("Delete90_Olk");

#if OLK_HAVE_LIBCUCKOO
using PeerMap =
    libcuckoo::cuckoohash_map<U64, U32, MixHash, std::equal_to<U64>, std::allocator<std::pair<const U64, U32>>, 4>;

std::vector<U64> peerKeys(U32 percent) {
  std::vector<U64> keys(peerSlots * percent / 100);
  for (size_t k = 0; k < keys.size(); ++k) keys[k] = mix64(k);
  return keys;
}

// A map of exactly peerSlots slots that refuses to grow.
void makePeerMap(std::optional<PeerMap>& map) {
  map.emplace(peerSlots);
  map->maximum_hashpower(map->hashpower());
}

void insertLibcuckoo(benchmark::State& state, U32 percent) {
  const auto keys = peerKeys(percent);
  std::optional<PeerMap> map;
  perOperation(
      state, keys.size(), [&] { makePeerMap(map); }, [&](size_t i) { map->insert(keys[i], U32(i)); });
}

void deleteLibcuckoo(benchmark::State& state, U32 percent) {
  const auto keys = peerKeys(percent);
  std::optional<PeerMap> map;
  auto refill = [&] {
    makePeerMap(map);
    for (size_t i = 0; i < keys.size(); ++i) map->insert(keys[i], U32(i));
  };
  perOperation(state, keys.size(), refill, [&](size_t i) { map->erase(keys[i]); });
}

BENCHMARK_CAPTURE(insertLibcuckoo, 50, 50)->Name("Insert50_Libcuckoo");
BENCHMARK_CAPTURE(insertLibcuckoo, 90, 90)->Name("Insert90_Libcuckoo");
BENCHMARK_CAPTURE(deleteLibcuckoo, 50, 50)->Name("Delete50_Libcuckoo");
BENCHMARK_CAPTURE(deleteLibcuckoo, 90, 90)->Name("Delete90_Libcuckoo");
#endif

void BM_CircleLookup(benchmark::State& state) {
  ConsistentHash::ConsistentHashCircle c;
  for (U64 m = 1; m <= 20; ++m) c.addHash(m * 7919, U64(state.range(0)));
  U64 key = 1;
  for (auto _ : state) {
    key = mix64(key);
    benchmark::DoNotOptimize(c.getHash(key));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CircleLookup)->Arg(10)->Arg(100)->Arg(1000);

void BM_KetamaLookup(benchmark::State& state) {
  KetamaRing r;
  for (U64 m = 1; m <= 20; ++m) r.add(m * 7919, U32(state.range(0)));
  U64 key = 1;
  for (auto _ : state) {
    key = mix64(key);
    benchmark::DoNotOptimize(r.get(key));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_KetamaLookup)->Arg(10)->Arg(100)->Arg(1000);

}  // namespace

int main(int argc, char** argv) {
  Zum::logSinkIs([](const Zum::LogRecord&) {});
  cuckooReport();
  circleReport();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
