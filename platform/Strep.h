// Text representation ("strep") of values, and the parse side.
//
// Every value type prints in one form, borrowed from the scripting language
// that consumes agent dumps:
//
//   Value('Olk::UniqueId', ** {'timestamp': 1700000000, 'pid': 42, 'count': 0})
//
// the qualified type name, then each field by name in declaration order,
// each field in its own type's text form. Integers print in decimal, bools
// as True/False, strings single-quoted with backslash escapes, enumerations
// by name. Parsing is strict and literal: every piece must be where the
// printer puts it, or a RangeException says what was expected.
//
// A type provides, in its own namespace (found by argument lookup):
//   String valueToStrep(const T&);
//   void sequenceToValue(StrepIter& cur, StrepIter end, T* out);
// and gets strepToValue<T>(text) and the field helpers below for free.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <type_traits>

#include "platform/Exception.h"
#include "platform/Types.h"

namespace Zum {

using StrepIter = std::string::const_iterator;

// Consumes `literal` at `cur` or throws RangeException naming what was expected.
void needString(StrepIter& cur, StrepIter end, std::string_view literal);
// Consumes `literal` when it is next; answers whether it was.
bool skipString(StrepIter& cur, StrepIter end, std::string_view literal);
// Throws RangeException unless `cur` is at `end`.
void needEnd(StrepIter cur, StrepIter end, std::string_view typeName);

String valueToStrep(bool v);
String valueToStrep(U8 v);
String valueToStrep(U16 v);
String valueToStrep(U32 v);
String valueToStrep(U64 v);
String valueToStrep(S32 v);
String valueToStrep(S64 v);
String valueToStrep(double v);
String valueToStrep(const String& v);

void sequenceToValue(StrepIter& cur, StrepIter end, bool* out);
void sequenceToValue(StrepIter& cur, StrepIter end, U8* out);
void sequenceToValue(StrepIter& cur, StrepIter end, U16* out);
void sequenceToValue(StrepIter& cur, StrepIter end, U32* out);
void sequenceToValue(StrepIter& cur, StrepIter end, U64* out);
void sequenceToValue(StrepIter& cur, StrepIter end, S32* out);
void sequenceToValue(StrepIter& cur, StrepIter end, S64* out);
void sequenceToValue(StrepIter& cur, StrepIter end, double* out);
void sequenceToValue(StrepIter& cur, StrepIter end, String* out);

// Reads an optionally signed decimal number that fits in [lo, hi].
S64 parseSigned(StrepIter& cur, StrepIter end, S64 lo, S64 hi, std::string_view typeName);
U64 parseUnsigned(StrepIter& cur, StrepIter end, U64 hi, std::string_view typeName);

// Enumerations: specialise EnumTraits with the type name and the names of
// the values 0, 1, 2, ... in order.
//   template <> struct Zum::EnumTraits<Olk::XactResult> {
//     static constexpr std::string_view typeName = "Olk::XactResult";
//     static constexpr std::array<std::string_view, 3> names = {...};
//   };
template <class E>
struct EnumTraits;

template <class E>
concept NamedEnum = std::is_enum_v<E> && requires { EnumTraits<E>::names; };

// The name of `v`; an out-of-range value prints as its number.
template <NamedEnum E>
String enumName(E v) {
  auto i = static_cast<std::size_t>(v);
  const auto& names = EnumTraits<E>::names;
  return i < names.size() ? String(names[i]) : std::to_string(i);
}

// The value named `name`; throws RangeException for an unknown name.
template <NamedEnum E>
E enumValue(std::string_view name) {
  const auto& names = EnumTraits<E>::names;
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (names[i] == name) return static_cast<E>(i);
  }
  throw RangeException("Invalid " + String(EnumTraits<E>::typeName) + " name '" + String(name) + "'");
}

// The value numbered `n`; throws RangeException when there is none.
template <NamedEnum E>
E enumValue(std::size_t n) {
  if (n >= EnumTraits<E>::names.size()) {
    throw RangeException("Invalid " + String(EnumTraits<E>::typeName) + " value " + std::to_string(n));
  }
  return static_cast<E>(n);
}

// Reads the identifier at `cur` (letters, digits, '_').
String parseIdentifier(StrepIter& cur, StrepIter end);

template <NamedEnum E>
String valueToStrep(E v) {
  return enumName(v);
}

template <NamedEnum E>
void sequenceToValue(StrepIter& cur, StrepIter end, E* out) {
  *out = enumValue<E>(parseIdentifier(cur, end));
}

// Parses all of `text` as a T.
template <class T>
T strepToValue(const String& text, std::string_view typeName = "value") {
  T v{};
  StrepIter cur = text.begin();
  sequenceToValue(cur, text.end(), &v);
  needEnd(cur, text.end(), typeName);
  return v;
}

// Builds "Value('<type>', ** {'<f>': <v>, ...})".
class ValueStrepWriter {
 public:
  explicit ValueStrepWriter(std::string_view typeName);
  template <class T>
  ValueStrepWriter& field(std::string_view name, const T& v) {
    fieldName(name);
    text_ += valueToStrep(v);
    return *this;
  }
  String done();

 private:
  void fieldName(std::string_view name);
  String text_;
  bool first_ = true;
};

// Reads the same form, field by field, in declaration order.
class ValueStrepReader {
 public:
  ValueStrepReader(StrepIter& cur, StrepIter end, std::string_view typeName);
  template <class T>
  ValueStrepReader& field(std::string_view name, T* v) {
    fieldName(name);
    sequenceToValue(cur_, end_, v);
    return *this;
  }
  void done();

 private:
  void fieldName(std::string_view name);
  StrepIter& cur_;
  StrepIter end_;
  bool first_ = true;
};

}  // namespace Zum
