// `TristateBool`: true, false, or not set.
//
// One byte of storage with the constants `valueNotSet` (0, the default),
// `valueTrue` (1) and `valueFalse` (2). Reading `value()` of an unset one is
// a broken invariant. `toStrep()` names the state ("notSet", "true",
// "false"); the generic text form is the storage number.
#pragma once

#include <ostream>

#include "Olk/Types.h"
#include "platform/AttrLog.h"
#include "platform/Strep.h"

namespace Olk {

class TristateBool {
 public:
  static constexpr U8 valueNotSet = 0;
  static constexpr U8 valueTrue = 1;
  static constexpr U8 valueFalse = 2;

  TristateBool() = default;
  explicit TristateBool(bool v) { valueIs(v); }
  // Parses the text form (the storage number) at `cur` and moves `cur` past it.
  TristateBool(Zum::StrepIter& cur, Zum::StrepIter end) { Zum::sequenceToValue(cur, end, &storage_); }

  U8 storage() const { return storage_; }
  void storageIs(U8 s) { storage_ = s; }
  bool isSet() const { return storage_ != valueNotSet; }
  // Asserts isSet().
  bool value() const;
  void valueIs(bool v) { storage_ = v ? valueTrue : valueFalse; }
  void valueClear() { storage_ = valueNotSet; }
  // "notSet", "true" or "false"; any other storage is a broken invariant.
  String toStrep() const;

  bool operator==(const TristateBool& o) const { return storage_ == o.storage_; }

 private:
  U8 storage_ = valueNotSet;
};

String valueToStrep(const TristateBool& v);
void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, TristateBool* out);
std::ostream& operator<<(std::ostream& os, const TristateBool& v);
void serialize(Zum::AttrLogWriter& log, const TristateBool& v);
void deserialize(Zum::AttrLogReader& log, TristateBool* v);

}  // namespace Olk
