// The IdSet text form, e.g. (1-3,5,9-10), parsed into a set that may already
// hold ids, against a model of the grammar.
//
// Input: two bytes of size (1 .. 16384), one byte choosing an id the target
// starts with, then the text. The parser aborts on purpose for some texts
// (no "(" or ")", a run with two "-", a run with start >= stop, an id at or
// past the size); the model predicts those and such inputs are not run. For
// every other text the library must do exactly what the model says: add the
// ids, or throw Zum::RangeException for a piece that is not a 16-bit decimal
// number, and stop just after the ")".
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "IdSetCompare.h"
#include "Olk/IdSet.h"

namespace {

using OlkFuzz::IdModel;

enum class Outcome { added, refused, aborts };

std::vector<std::string> split(const std::string& s, char sep) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (size_t pos; (pos = s.find(sep, start)) != std::string::npos; start = pos + 1) {
    parts.push_back(s.substr(start, pos - start));
  }
  parts.push_back(s.substr(start));
  return parts;
}

// A decimal number of at most 16 bits, or nothing.
std::optional<unsigned> number(const std::string& s) {
  if (s.empty() || s.find_first_not_of("0123456789") != std::string::npos) return std::nullopt;
  unsigned v = 0;
  for (char c : s) {
    v = v * 10 + static_cast<unsigned>(c - '0');
    if (v > 0xffff) return std::nullopt;
  }
  return v;
}

// Applies the items of `inner` to `m` in order, as the parser must.
Outcome model(const std::string& inner, unsigned size, IdModel* m) {
  if (inner.empty()) return Outcome::added;
  for (const std::string& item : split(inner, ',')) {
    if (item.find('-') == std::string::npos) {
      std::optional<unsigned> id = number(item);
      if (!id) return Outcome::refused;
      if (*id >= size) return Outcome::aborts;
      m->insert(*id);
      continue;
    }
    std::vector<std::string> range = split(item, '-');
    if (range.size() != 2) return Outcome::aborts;
    std::optional<unsigned> start = number(range[0]);
    if (!start) return Outcome::refused;
    std::optional<unsigned> stop = number(range[1]);
    if (!stop) return Outcome::refused;
    if (*start >= *stop || *stop >= size) return Outcome::aborts;
    for (unsigned id = *start; id <= *stop; ++id) m->insert(id);
  }
  return Outcome::added;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  OlkFuzz::FuzzInput in(data, size);
  const unsigned setSize = 1 + in.below(16384);
  const unsigned initial = in.below(setSize);
  const std::string text = in.rest();

  size_t close = text.find(')');
  if (text.empty() || text[0] != '(' || close == std::string::npos) return 0;  // aborts on purpose
  IdModel expected = {initial};
  Outcome outcome = model(text.substr(1, close - 1), setSize, &expected);
  if (outcome == Outcome::aborts) return 0;

  Olk::IdSet set(static_cast<U16>(setSize), Olk::Id(static_cast<U16>(initial)));
  Zum::StrepIter cur = text.begin();
  try {
    Olk::sequenceToValue(cur, text.end(), &set);
  } catch (const Zum::RangeException& e) {
    FUZZ_CHECK(outcome == Outcome::refused, text + " refused: " + e.what());
    return 0;
  }
  FUZZ_CHECK(outcome == Outcome::added, text + " accepted");
  FUZZ_CHECK(cur == text.begin() + static_cast<std::ptrdiff_t>(close) + 1,
             text + ": the parse stops elsewhere than after ')'");
  OlkFuzz::expectSameIds(set, expected);

  // The printed form parses back into an empty set of the same size.
  Olk::IdSet again(static_cast<U16>(setSize), Olk::Id::null());
  const std::string printed = set.stringValue();
  Zum::StrepIter p = printed.begin();
  Olk::sequenceToValue(p, printed.end(), &again);
  FUZZ_CHECK(p == printed.end() && again == set, "printed " + printed + " does not parse back");
  return 0;
}
