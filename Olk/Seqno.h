// Wrap-around sequence numbers: `Seqno16` and `Seqno32`.
//
// Order is serial-number arithmetic: a < b exactly when the difference
// a - b, taken modulo 2^N, has its top bit set. The comparison therefore
// keeps working across wrap-around (0xFFFFFFFF < 0), is not a total order
// and has no "equal" band: at a distance of exactly 2^(N-1) both a < b and
// b < a hold. Equality is plain equality of the stored value. Use these for
// counters that wrap and are compared only against nearby values.
//
// Text form: the number alone. Binary form: the value in its own width.
#pragma once

#include <ostream>

#include "Olk/Types.h"
#include "platform/AttrLog.h"
#include "platform/Strep.h"

namespace Olk {

template <class T>
class Seqno {
 public:
  using ValueType = T;

  constexpr Seqno() = default;
  constexpr explicit Seqno(T value) : value_(value) {}
  // Parses the text form at `cur` and moves `cur` past it.
  Seqno(Zum::StrepIter& cur, Zum::StrepIter end) { Zum::sequenceToValue(cur, end, &value_); }

  constexpr T value() const { return value_; }
  void valueIs(T value) { value_ = value; }

  constexpr bool operator<(Seqno other) const { return *this < other.value_; }
  constexpr bool operator<(T other) const {
    constexpr T topBit = static_cast<T>(T(1) << (sizeof(T) * 8 - 1));
    return (static_cast<T>(value_ - other) & topBit) != 0;
  }
  constexpr bool operator==(Seqno other) const { return value_ == other.value_; }
  constexpr bool operator==(T other) const { return value_ == other; }

 private:
  T value_ = 0;
};

using Seqno16 = Seqno<U16>;
using Seqno32 = Seqno<U32>;

template <class T>
String valueToStrep(const Seqno<T>& s) {
  return Zum::valueToStrep(s.value());
}

template <class T>
void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, Seqno<T>* out) {
  *out = Seqno<T>(cur, end);
}

template <class T>
std::ostream& operator<<(std::ostream& os, const Seqno<T>& s) {
  return os << valueToStrep(s);
}

void serialize(Zum::AttrLogWriter& log, const Seqno16& s);
void serialize(Zum::AttrLogWriter& log, const Seqno32& s);
void deserialize(Zum::AttrLogReader& log, Seqno16* s);
void deserialize(Zum::AttrLogReader& log, Seqno32* s);

}  // namespace Olk
