// Compares an IdSet with the std::set of ids it should hold, through every
// read the set offers: membership, count, first/next, iteration and text.
#pragma once

#include <set>
#include <string>

#include "FuzzSupport.h"
#include "Olk/IdSet.h"

namespace OlkFuzz {

using IdModel = std::set<unsigned>;

// The text form of a model: runs of consecutive ids as first-last.
inline std::string idModelText(const IdModel& m) {
  std::string s = "(";
  for (auto it = m.begin(); it != m.end();) {
    unsigned first = *it, last = first;
    while (++it != m.end() && *it == last + 1) ++last;
    if (s.size() > 1) s += ",";
    s += std::to_string(first);
    if (last != first) s += "-" + std::to_string(last);
  }
  return s + ")";
}

inline void expectSameIds(const Olk::IdSet& set, const IdModel& m) {
  const std::string want = idModelText(m);
  const std::string got = set.stringValue();
  FUZZ_CHECK(got == want, "set " + got + ", model " + want);
  FUZZ_CHECK(set.ids() == m.size(), "count " + std::to_string(set.ids()) + " for " + want);
  FUZZ_CHECK(set.empty() == m.empty(), "empty() wrong for " + want);
  // firstId/nextId and the iterator each walk the model in order. nextId
  // takes only ids below the limit, so a walk stops at a complement's extra ids.
  Olk::Id at = set.firstId();
  for (unsigned id : m) {
    FUZZ_CHECK(at == Olk::Id(static_cast<U16>(id)), "first/next walk strays at " + std::to_string(id) + " in " + want);
    if (id >= set.size()) break;
    at = set.nextId(at);
  }
  if (m.empty() || *m.rbegin() < set.size()) FUZZ_CHECK(at == Olk::Id::null(), "nextId past the last id in " + want);
  auto expected = m.begin();
  for (Olk::Id id : set) {
    FUZZ_CHECK(expected != m.end() && id.value() == *expected, "iteration strays in " + want);
    ++expected;
  }
  FUZZ_CHECK(expected == m.end(), "iteration stops early in " + want);
  // Membership of every id of a small set; of the ids around the members of a big one.
  auto member = [&](unsigned id) {
    if (id >= set.size()) return;
    FUZZ_CHECK(set.id(Olk::Id(static_cast<U16>(id))) == (m.count(id) != 0),
               "membership of " + std::to_string(id) + " in " + want);
  };
  if (set.size() <= 1024) {
    for (unsigned id = 0; id < set.size(); ++id) member(id);
  } else {
    for (unsigned id : m) {
      member(id - 1);
      member(id + 1);
    }
  }
}

}  // namespace OlkFuzz
