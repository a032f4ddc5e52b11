#include "Olk/TristateBool.h"

#include "platform/Exception.h"

namespace Olk {

bool TristateBool::value() const {
  ZUM_ASSERT(isSet());
  return storage_ == valueTrue;
}

String TristateBool::toStrep() const {
  switch (storage_) {
    case valueNotSet: return "notSet";
    case valueTrue: return "true";
    case valueFalse: return "false";
  }
  ZUM_ASSERT(false);
  return {};
}

String valueToStrep(const TristateBool& v) { return Zum::valueToStrep(v.storage()); }

void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, TristateBool* out) { *out = TristateBool(cur, end); }

std::ostream& operator<<(std::ostream& os, const TristateBool& v) { return os << valueToStrep(v); }

void serialize(Zum::AttrLogWriter& log, const TristateBool& v) { log.putU8(v.storage()); }

void deserialize(Zum::AttrLogReader& log, TristateBool* v) { v->storageIs(log.getU8()); }

}  // namespace Olk
