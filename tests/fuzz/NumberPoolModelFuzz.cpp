// NumberPool against std::set: adds and removes of numbers and ranges, then
// every read compared with the set of numbers the pool should hold, and the
// pool's own shape checked: ranges keyed by their max, ascending, disjoint
// and never adjacent.
//
// Numbers come from two windows of 256, at the bottom and at the top of the
// 32-bit space, so merges and splits meet both ends (0 and 4294967295)
// without a model of four billion entries. A range stays inside one window.
#include <cstdint>
#include <iterator>
#include <set>
#include <string>

#include "FuzzSupport.h"
#include "Olk/NumberPool.h"

namespace {

using Model = std::set<U32>;

constexpr U32 topWindow = 0xffffff00u;

// The i-th number of a window (0 bottom, 1 top).
U32 number(unsigned window, unsigned i) { return window ? topWindow + i : i; }

std::string text(const Olk::Range& r) { return std::to_string(r.min()) + ".." + std::to_string(r.max()); }

void expectSame(const Olk::NumberPool& pool, const Model& m) {
  Model held;
  bool first = true;
  U32 lastMax = 0;
  for (const auto& [key, r] : pool.ranges()) {
    FUZZ_CHECK(key == r.max(), "range " + text(r) + " filed under " + std::to_string(key));
    FUZZ_CHECK(r.min() <= r.max(), "inverted range " + text(r));
    FUZZ_CHECK(first || r.min() > lastMax + U64{1}, "range " + text(r) + " touches or overlaps its neighbour");
    for (U64 n = r.min(); n <= r.max(); ++n) held.insert(static_cast<U32>(n));
    lastMax = r.max();
    first = false;
  }
  FUZZ_CHECK(held == m, "the ranges hold " + std::to_string(held.size()) + " numbers, the model " +
                            std::to_string(m.size()));
  FUZZ_CHECK(pool.size() == m.size(), "size() " + std::to_string(pool.size()));
  FUZZ_CHECK(pool.isEmpty() == m.empty(), "isEmpty()");
  if (m.empty()) return;
  FUZZ_CHECK(pool.getMin() == *m.begin(), "getMin()");
  U32 runEnd = *m.begin();
  while (runEnd != 0xffffffffu && m.count(runEnd + 1)) ++runEnd;
  FUZZ_CHECK(pool.getMinRange() == Olk::Range(*m.begin(), runEnd), "getMinRange() " + text(pool.getMinRange()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  OlkFuzz::FuzzInput in = OlkFuzz::tracedInput(data, size);
  Model m;
  Ptr<Olk::NumberPool> pool = Olk::numberPoolFactory("fuzz");
  while (in.nextStep(64)) {
    const unsigned op = in.u8();
    const unsigned window = op & 1;
    unsigned lo = in.u8(), hi = in.u8();
    if (lo > hi) std::swap(lo, hi);
    const U32 min = number(window, lo), max = number(window, hi);
    switch ((op >> 1) % 5) {
      case 0:
        pool->addRange(Olk::Range(min, max));
        for (U64 n = min; n <= max; ++n) m.insert(static_cast<U32>(n));
        break;
      case 1:
        pool->delRange(Olk::Range(min, max));
        for (U64 n = min; n <= max; ++n) m.erase(static_cast<U32>(n));
        break;
      case 2:
        pool->addNumber(min);
        m.insert(min);
        break;
      case 3:
        pool->delNumber(min);
        m.erase(min);
        break;
      default:
        for (U32 n : {min, max, min - 1, max + 1}) {
          FUZZ_CHECK(pool->isMember(n) == (m.count(n) != 0), "isMember(" + std::to_string(n) + ")");
        }
        break;
    }
    expectSame(*pool, m);
  }
  return 0;
}
