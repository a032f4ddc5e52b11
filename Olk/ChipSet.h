// Generations and chip sets: two small value families.
//
// A `Generation` (id, valid) versions some published state so that readers
// can tell whether what they see is current and valid; `GenerationEntity`
// holds one and notifies its notifiees when it changes. `GenTime` pairs a
// time value with a spare one (`dummyValue`, carried but not interpreted).
//
// A `ChipSet` is a set of up to 128 chip numbers (`ChipId` 0 .. 127, with 128
// the null id) in two 64-bit words, `valueLo` for chips 0-63 and `valueHi` for
// 64-127. Every operation is O(1): membership is a bit test, the next member
// a find-first-set over at most two words. Sets order as unsigned 128-bit
// numbers (high word first). `ChipSetIter` walks a copy of a set, so the set
// itself may change while walking.
// All plain values except GenerationEntity, an event-loop-thread entity.
#pragma once

#include <iosfwd>

#include "Olk/Types.h"
#include "platform/Entity.h"
#include "platform/Notifier.h"
#include "platform/Strep.h"

namespace Olk {

struct Generation {
  U32 id = 0;
  bool valid = false;

  bool operator==(const Generation&) const = default;
};

String valueToStrep(const Generation& g);
void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, Generation* out);
std::ostream& operator<<(std::ostream& os, const Generation& g);

class GenerationEntity : public Zum::Entity, public Zum::Notifier {
 public:
  class Notifiee : public Zum::BaseNotifiee<GenerationEntity> {
   public:
    virtual void onGeneration() {}
  };

  explicit GenerationEntity(const String& name) : Zum::Entity(name) {}

  const Generation& generation() const { return generation_; }
  // Notifies onGeneration only when `g` differs from the stored value.
  void generationIs(const Generation& g);

 private:
  Generation generation_;
};

Ptr<GenerationEntity> generationEntityFactory(const String& name);

struct GenTime {
  double value = 0.0;
  double dummyValue = 0.0;

  bool operator==(const GenTime&) const = default;
};

String valueToStrep(const GenTime& t);
void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, GenTime* out);
std::ostream& operator<<(std::ostream& os, const GenTime& t);

// A chip number 0 .. 127, or 128 for "no chip" (the default).
class ChipId {
 public:
  static constexpr U8 min() { return 0; }
  static constexpr U8 max() { return 127; }
  static constexpr U8 null() { return 128; }

  ChipId() = default;
  // Throws RangeException for a value above null().
  ChipId(U8 value) { valueIs(value); }

  U8 value() const { return value_; }
  // Stores `value` and then throws RangeException when it is above null();
  // the out-of-range value stays stored.
  void valueIs(U8 value);
  // The next chip number, with the same check as valueIs().
  ChipId& operator++();

  bool operator==(const ChipId&) const = default;
  auto operator<=>(const ChipId&) const = default;

 private:
  U8 value_ = null();
};

String valueToStrep(ChipId id);
void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, ChipId* out);
std::ostream& operator<<(std::ostream& os, ChipId id);

class ChipSet {
 public:
  ChipSet() = default;
  ChipSet(U64 valueLo, U64 valueHi) : valueLo_(valueLo), valueHi_(valueHi) {}

  U64 valueLo() const { return valueLo_; }
  void valueLoIs(U64 v) { valueLo_ = v; }
  U64 valueHi() const { return valueHi_; }
  void valueHiIs(U64 v) { valueHi_ = v; }

  // Membership; the null chip is never a member.
  bool chipId(ChipId chipId) const;
  // Adds or removes a chip; the null id is a broken invariant.
  void chipIdIs(ChipId chipId, bool member);
  // Removes a chip and answers whether it was a member.
  bool chipIdDel(ChipId chipId);
  // The number of members.
  U32 chipIds() const;
  bool empty() const { return valueLo_ == 0 && valueHi_ == 0; }
  // The lowest member above `chipId`, or the lowest member at all for the
  // null id; null when there is none.
  ChipId nextChipId(ChipId chipId) const;
  // The union of both sets.
  ChipSet concat(const ChipSet& other) const;

  bool operator==(const ChipSet&) const = default;
  // As unsigned 128-bit numbers: valueHi first, then valueLo.
  bool operator<(const ChipSet& other) const;

 private:
  U64 valueLo_ = 0;  // bit n: chip n
  U64 valueHi_ = 0;  // bit n: chip 64 + n
};

String valueToStrep(const ChipSet& set);
void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, ChipSet* out);
std::ostream& operator<<(std::ostream& os, const ChipSet& set);

// Walks the members of a copy of a set in ascending order.
class ChipSetIter {
 public:
  // Positioned on the lowest member (not in range for an empty set).
  explicit ChipSetIter(const ChipSet& set);

  bool inRange() const { return chipId_.value() != ChipId::null(); }
  // The current chip; only while inRange().
  ChipId key() const;
  ChipId operator*() const { return key(); }
  // Moves to the next member; does nothing once the walk is over.
  ChipSetIter& operator++();
  explicit operator bool() const { return inRange(); }

 private:
  ChipSet set_;
  ChipId chipId_;      // null before the first member and after the last
  bool done_ = false;  // set once nextChipId found no further member
};

}  // namespace Olk
