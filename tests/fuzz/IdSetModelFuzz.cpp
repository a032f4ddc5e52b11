// IdSet against std::set: two sets of one size, a sequence of single-id
// updates, ranges, whole fills, complements and the four algebra operations
// (in place and new-value), with every read compared after each step.
//
// The complement is deliberately not masked to the size: the model follows
// it up to the end of the last bucket. Sizes stay at or below 16384, where
// bucket numbers do not alias.
#include <algorithm>
#include <cstdint>
#include <iterator>
#include <set>
#include <string>

#include "FuzzSupport.h"
#include "IdSetCompare.h"
#include "Olk/IdSet.h"

namespace {

using Olk::Id;
using Olk::IdSet;
using OlkFuzz::IdModel;

Id asId(unsigned id) { return Id(static_cast<U16>(id)); }

struct Pair {
  IdSet set;
  IdModel model;
};

IdModel combine(const IdModel& a, const IdModel& b, unsigned op) {
  IdModel r;
  auto out = std::inserter(r, r.end());
  switch (op) {
    case 0: std::set_union(a.begin(), a.end(), b.begin(), b.end(), out); break;
    case 1: std::set_difference(a.begin(), a.end(), b.begin(), b.end(), out); break;
    case 2: std::set_intersection(a.begin(), a.end(), b.begin(), b.end(), out); break;
    default: std::set_symmetric_difference(a.begin(), a.end(), b.begin(), b.end(), out); break;
  }
  return r;
}

IdSet combine(const IdSet& a, const IdSet& b, unsigned op) {
  switch (op) {
    case 0: return a | b;
    case 1: return a - b;
    case 2: return a & b;
    default: return a ^ b;
  }
}

void combineInPlace(IdSet& a, const IdSet& b, unsigned op) {
  switch (op) {
    case 0: a |= b; break;
    case 1: a -= b; break;
    case 2: a &= b; break;
    default: a ^= b; break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  OlkFuzz::FuzzInput in(data, size);
  // Mostly small sizes, where ids collide and buckets fill; now and then one
  // up to the largest, 256 buckets, for a few steps (the model is slow there).
  const bool large = in.u8() >= 240;
  const unsigned setSize = large ? 1 + in.below(16384) : 1 + in.below(300);
  Pair sets[2] = {{IdSet(static_cast<U16>(setSize), Id::null()), {}},
                  {IdSet(static_cast<U16>(setSize), Id::null()), {}}};
  const unsigned bucketEnd = (setSize + 63) / 64 * 64;

  while (in.nextStep(large ? 6 : 48)) {
    const unsigned op = in.u8();
    Pair& a = sets[op & 1];
    const Pair& b = sets[(op & 1) ^ 1];
    const unsigned id = in.below(setSize);
    switch ((op >> 1) % 8) {
      case 0: {
        const bool value = in.u8() & 1;
        const bool was = a.set.updateId(asId(id), value);
        FUZZ_CHECK(was == (a.model.count(id) != 0), "updateId answers the old membership of " + std::to_string(id));
        if (value) a.model.insert(id); else a.model.erase(id);
        break;
      }
      case 1: {
        const unsigned end = id + 1 + in.below(setSize - id);
        a.set.idSetRange(asId(id), asId(end));
        for (unsigned i = id; i < end; ++i) a.model.insert(i);
        break;
      }
      case 2:
        a.set.idSetAll();
        for (unsigned i = 0; i < setSize; ++i) a.model.insert(i);
        break;
      case 3: {
        IdModel complement;
        for (unsigned i = 0; i < bucketEnd; ++i) {
          if (!a.model.count(i)) complement.insert(i);
        }
        a.set = ~a.set;
        a.model = complement;
        break;
      }
      case 4: case 5: {
        const unsigned which = in.u8() % 4;
        IdModel expected = combine(a.model, b.model, which);
        IdSet fresh = combine(a.set, b.set, which);
        OlkFuzz::expectSameIds(fresh, expected);
        FUZZ_CHECK(fresh.size() == a.set.size(), "a new value keeps the left operand's size");
        combineInPlace(a.set, b.set, which);
        a.model = expected;
        break;
      }
      case 6:
        a.set.idDel(asId(id));
        a.model.erase(id);
        break;
      default: {
        // Reads from an id on: nextId and an iterator started there.
        auto above = a.model.upper_bound(id);
        const Id next = a.set.nextId(asId(id));
        FUZZ_CHECK(next == (above == a.model.end() ? Id::null() : asId(*above)),
                   "nextId(" + std::to_string(id) + ")");
        auto from = a.model.lower_bound(id);
        auto it = a.set.idIteratorConst(asId(id));
        FUZZ_CHECK(from == a.model.end() ? !it.inRange() : it.inRange() && it.key() == asId(*from),
                   "iterator from " + std::to_string(id));
        break;
      }
    }
    OlkFuzz::expectSameIds(a.set, a.model);
    const bool same = a.model == b.model;
    FUZZ_CHECK((a.set == b.set) == same, "operator== disagrees with the model");
    if (same) FUZZ_CHECK(a.set.hash() == b.set.hash(), "equal sets hash differently");
  }
  return 0;
}
