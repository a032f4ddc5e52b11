// `MaybeU63`: a 63-bit unsigned number, or no number at all.
//
// One 64-bit word: bit 63 (`nullBit`) set means "no value", otherwise the
// low 63 bits are the value. `valueIs` stores all 64 bits as given, so a
// caller can set the null bit directly.
//
// Text form: the decimal value, or "None". Parsing follows the scripting
// language whose literals the dumps use: "None", or a signed 64-bit decimal
// stored as given (so "-1" reads as None), then one optional "l"/"L" suffix.
#pragma once

#include <ostream>

#include "Olk/Types.h"
#include "platform/AttrLog.h"
#include "platform/Strep.h"

namespace Olk {

class MaybeU63 {
 public:
  static constexpr U64 nullBit = U64(1) << 63;

  constexpr MaybeU63() = default;
  constexpr explicit MaybeU63(U64 word) : word_(word) {}
  // Parses the text form at `cur` and moves `cur` past it; throws as
  // sequenceToValue does.
  MaybeU63(Zum::StrepIter& cur, Zum::StrepIter end);

  U64 word() const { return word_; }
  bool isNull() const { return (word_ & nullBit) != 0; }
  // The low 63 bits; meaningful only when !isNull().
  U64 value() const { return word_ & ~nullBit; }
  void valueIs(unsigned long long v) { word_ = static_cast<U64>(v); }

  String stringValue() const;
  // Parses the whole of `text`; throws RangeException "Invalid Olk::MaybeU63"
  // when it is not exactly one value.
  void stringValueIs(const String& text);

  bool operator==(const MaybeU63&) const = default;

 private:
  U64 word_ = nullBit;
};

String valueToStrep(const MaybeU63& v);
// Throws RangeException "Error deserializing Olk::MaybeU63" on empty or bad input.
void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, MaybeU63* out);
std::ostream& operator<<(std::ostream& os, const MaybeU63& v);
void serialize(Zum::AttrLogWriter& log, const MaybeU63& v);
void deserialize(Zum::AttrLogReader& log, MaybeU63* v);

}  // namespace Olk
