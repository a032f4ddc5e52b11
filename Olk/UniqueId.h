// `UniqueId`: an identifier unique within the process and, practically,
// across processes on one machine: (wall-clock second, pid, count).
//
// Every constructor, the default one included, and the parser end in
// `doInit()`, which replaces an unset id with a freshly generated one. An id
// counts as unset when its pid and count are both 0xFFFF, whatever its
// timestamp: the check builds a 64-bit key with the pid shifted as a signed
// 32-bit number, whose sign spreads over the timestamp half. That is how
// ids have always been recognised, so it stays.
//
// Up to 65536 ids are made per second; the next one sleeps, a second at a
// time, until the wall clock moves on. The generator state is process-wide
// and unlocked: make ids on the event-loop thread only.
#pragma once

#include <ostream>

#include "Olk/Types.h"
#include "platform/AttrLog.h"
#include "platform/Strep.h"

namespace Olk {

class UniqueId {
 public:
  // A freshly generated id.
  UniqueId();
  // The given id, or a fresh one when it is unset.
  UniqueId(U32 timestamp, U16 pid, U16 count);
  // Parses the text form at `cur`, moves `cur` past it, then fills in a
  // fresh id when the text was of an unset one.
  UniqueId(Zum::StrepIter& cur, Zum::StrepIter end);

  U32 timestamp() const { return timestamp_; }
  U16 pid() const { return pid_; }
  U16 count() const { return count_; }

  // Fills in a fresh id when this one is unset; otherwise does nothing.
  void doInit();
  // "timestamp <t>, pid <p>, count <c>".
  String toStrep() const;

  bool operator==(const UniqueId& o) const = default;
  bool operator<(const UniqueId& o) const;

 private:
  friend void deserialize(Zum::AttrLogReader&, UniqueId*);
  bool isUnset() const;

  U32 timestamp_;
  U16 pid_;
  U16 count_;
};

String valueToStrep(const UniqueId& id);
void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, UniqueId* out);
std::ostream& operator<<(std::ostream& os, const UniqueId& id);
void serialize(Zum::AttrLogWriter& log, const UniqueId& id);
void deserialize(Zum::AttrLogReader& log, UniqueId* id);

}  // namespace Olk
