#include "Olk/MaybeU63.h"

#include <limits>

namespace Olk {

namespace {

// Reads one value at `cur`; false (and `cur` unchanged) when there is none.
bool parse(Zum::StrepIter& cur, Zum::StrepIter end, U64* out) {
  Zum::StrepIter at = cur;
  if (Zum::skipString(at, end, "None")) {
    *out = MaybeU63::nullBit;
  } else {
    try {
      *out = static_cast<U64>(Zum::parseSigned(at, end, std::numeric_limits<S64>::min(),
                                               std::numeric_limits<S64>::max(), "Olk::MaybeU63"));
    } catch (const Zum::RangeException&) {
      return false;
    }
  }
  if (!Zum::skipString(at, end, "l")) Zum::skipString(at, end, "L");
  cur = at;
  return true;
}

}  // namespace

String MaybeU63::stringValue() const { return isNull() ? "None" : std::to_string(value()); }

void MaybeU63::stringValueIs(const String& text) {
  Zum::StrepIter cur = text.begin();
  U64 word;
  if (!parse(cur, text.end(), &word) || cur != text.end()) {
    throw Zum::RangeException("Invalid Olk::MaybeU63");
  }
  word_ = word;
}

String valueToStrep(const MaybeU63& v) { return v.stringValue(); }

MaybeU63::MaybeU63(Zum::StrepIter& cur, Zum::StrepIter end) {
  if (cur == end || !parse(cur, end, &word_)) throw Zum::RangeException("Error deserializing Olk::MaybeU63");
}

void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, MaybeU63* out) { *out = MaybeU63(cur, end); }

std::ostream& operator<<(std::ostream& os, const MaybeU63& v) { return os << v.stringValue(); }

void serialize(Zum::AttrLogWriter& log, const MaybeU63& v) { log.putU64(v.word()); }

void deserialize(Zum::AttrLogReader& log, MaybeU63* v) { v->valueIs(log.getU64()); }

}  // namespace Olk
