#include "Olk/ChipSet.h"

#include <bit>
#include <ostream>
#include <utility>

#include "platform/Exception.h"

namespace Olk {

namespace {

constexpr U64 allBits = ~U64{0};

// The bit of `chip` within its word (valueLo for 0-63, valueHi for 64-127).
U64 chipMask(U8 chip) { return U64{1} << (chip & 63); }

// The members of `word` above bit `bit` (0 .. 63).
U64 above(U64 word, U32 bit) { return bit == 63 ? 0 : word & (allBits << (bit + 1)); }

ChipId lowest(U64 word, U8 base) { return ChipId(static_cast<U8>(base + std::countr_zero(word))); }

}  // namespace

// --- Generation --------------------------------------------------------------

String valueToStrep(const Generation& g) {
  Zum::ValueStrepWriter w("Olk::Generation");
  w.field("id", g.id).field("valid", g.valid);
  return std::move(w).done();
}

void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, Generation* out) {
  Zum::ValueStrepReader r(cur, end, "Olk::Generation");
  r.field("id", &out->id).field("valid", &out->valid).done();
}

std::ostream& operator<<(std::ostream& os, const Generation& g) { return os << valueToStrep(g); }

void GenerationEntity::generationIs(const Generation& g) {
  attributeIs(generation_, g, &Notifiee::onGeneration);
}

Ptr<GenerationEntity> generationEntityFactory(const String& name) {
  return Zum::create<GenerationEntity>(name);
}

// --- GenTime -----------------------------------------------------------------

String valueToStrep(const GenTime& t) {
  Zum::ValueStrepWriter w("Olk::GenTime");
  w.field("value", t.value).field("dummyValue", t.dummyValue);
  return std::move(w).done();
}

void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, GenTime* out) {
  Zum::ValueStrepReader r(cur, end, "Olk::GenTime");
  r.field("value", &out->value).field("dummyValue", &out->dummyValue).done();
}

std::ostream& operator<<(std::ostream& os, const GenTime& t) { return os << valueToStrep(t); }

// --- ChipId ------------------------------------------------------------------

void ChipId::valueIs(U8 value) {
  // Stored first: a caller that catches the error still sees what it asked for.
  value_ = value;
  if (value > null()) throw Zum::RangeException("ChipId::value < ChipId::min or > ChipId::null not allowed");
}

ChipId& ChipId::operator++() {
  valueIs(static_cast<U8>(value_ + 1));
  return *this;
}

String valueToStrep(ChipId id) { return Zum::valueToStrep(id.value()); }

void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, ChipId* out) {
  U8 v;
  Zum::sequenceToValue(cur, end, &v);
  out->valueIs(v);
}

std::ostream& operator<<(std::ostream& os, ChipId id) { return os << valueToStrep(id); }

// --- ChipSet -----------------------------------------------------------------

bool ChipSet::chipId(ChipId chipId) const {
  U8 chip = chipId.value();
  if (chip > ChipId::max()) return false;
  return (chip < 64 ? valueLo_ : valueHi_) & chipMask(chip);
}

void ChipSet::chipIdIs(ChipId chipId, bool member) {
  ZUM_ASSERT(chipId.value() <= ChipId::max());
  U8 chip = chipId.value();
  U64& word = chip < 64 ? valueLo_ : valueHi_;
  word = member ? word | chipMask(chip) : word & ~chipMask(chip);
}

bool ChipSet::chipIdDel(ChipId chipId) {
  bool was = this->chipId(chipId);
  chipIdIs(chipId, false);
  return was;
}

U32 ChipSet::chipIds() const { return static_cast<U32>(std::popcount(valueLo_) + std::popcount(valueHi_)); }

ChipId ChipSet::nextChipId(ChipId chipId) const {
  U8 chip = chipId.value();
  if (chip >= ChipId::max() && chip != ChipId::null()) return ChipId();
  U64 restLo = chip == ChipId::null() ? valueLo_ : chip < 64 ? above(valueLo_, chip) : 0;
  if (restLo) return lowest(restLo, 0);
  U64 restHi = chip == ChipId::null() || chip < 64 ? valueHi_ : above(valueHi_, chip - 64u);
  if (restHi) return lowest(restHi, 64);
  return ChipId();
}

ChipSet ChipSet::concat(const ChipSet& other) const {
  return ChipSet(valueLo_ | other.valueLo_, valueHi_ | other.valueHi_);
}

bool ChipSet::operator<(const ChipSet& other) const {
  if (valueHi_ != other.valueHi_) return valueHi_ < other.valueHi_;
  return valueLo_ < other.valueLo_;
}

String valueToStrep(const ChipSet& set) {
  Zum::ValueStrepWriter w("Olk::ChipSet");
  w.field("valueLo", set.valueLo()).field("valueHi", set.valueHi());
  return std::move(w).done();
}

void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, ChipSet* out) {
  U64 lo = 0, hi = 0;
  Zum::ValueStrepReader r(cur, end, "Olk::ChipSet");
  r.field("valueLo", &lo).field("valueHi", &hi).done();
  *out = ChipSet(lo, hi);
}

std::ostream& operator<<(std::ostream& os, const ChipSet& set) { return os << valueToStrep(set); }

// --- ChipSetIter -------------------------------------------------------------

ChipSetIter::ChipSetIter(const ChipSet& set) : set_(set) { ++*this; }

ChipId ChipSetIter::key() const {
  ZUM_ASSERT(inRange());
  return chipId_;
}

ChipSetIter& ChipSetIter::operator++() {
  if (done_) return *this;
  chipId_ = set_.nextChipId(chipId_);
  done_ = chipId_.value() == ChipId::null();
  return *this;
}

}  // namespace Olk
