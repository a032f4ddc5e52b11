// IdSet: a value set of small 16-bit identifiers (ports, table slots,
// instances) below a fixed limit, with set algebra, ordered iteration and a
// compact text form of runs such as (1-3,5,9-10).
//
// Id n lives in 64-bit bucket n >> 6 at bit n & 63. Bucket numbers are 8
// bits wide: ids of 16384 and above alias lower ids (sets are meant for sizes
// up to 16384). The complement is not masked to `size`, `operator!` aborts
// for any size but 0, and combining sets of different sizes is a broken
// invariant; all three are kept as they are on purpose.
// A set keeps whichever of two forms is smaller: sparse, only its non-zero
// buckets in bucket order; or dense, one word per bucket number. It turns
// dense when more than half the buckets are used and sparse again below a
// quarter, so a set near the border does not flip on every update. The
// algebra in place keeps a dense set dense until its next one-id update.
// Cost: dense sets answer membership, updates and `nextId` in O(1) and do the
// algebra word by word; sparse sets O(log b) for b stored buckets and a merge
// walk, O(b1 + b2). An iterator steps in O(1) amortised in either form.
// A plain value: copy it freely; not shared between threads (even a read
// may fill in a count that the algebra left to be taken later).
#pragma once

#include <bit>
#include <cstddef>
#include <iosfwd>
#include <iterator>
#include <vector>

#include "Olk/Types.h"
#include "platform/Exception.h"
#include "platform/Strep.h"

namespace Olk {

// A 16-bit identifier; 65535 (`Id::null()`) means "no id".
class Id {
 public:
  constexpr Id() = default;  // the null id
  constexpr Id(U16 value) : value_(value) {}

  static constexpr Id null() { return Id(0xffff); }
  constexpr U16 value() const { return value_; }
  void valueIs(U16 value) { value_ = value; }

  friend constexpr bool operator==(Id a, Id b) { return a.value_ == b.value_; }
  friend constexpr auto operator<=>(Id a, Id b) { return a.value_ <=> b.value_; }

 private:
  U16 value_ = 0xffff;
};

String valueToStrep(Id id);
void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, Id* out);

// The number of the 64-bit bucket that holds an id, kept modulo 256.
class BucketId {
 public:
  constexpr BucketId() = default;
  constexpr explicit BucketId(U8 value) : value_(value) {}

  // The bucket of `id`: id >> 6, cut to 8 bits.
  static constexpr BucketId of(Id id) { return BucketId(static_cast<U8>(id.value() >> 6)); }
  constexpr U8 value() const { return value_; }

  friend constexpr bool operator==(BucketId a, BucketId b) { return a.value_ == b.value_; }
  friend constexpr auto operator<=>(BucketId a, BucketId b) { return a.value_ <=> b.value_; }

 private:
  U8 value_ = 0;
};

class IdSet;

// Where a walk stands in its set, so that the next step need not search
// again. Every field is only a hint, checked before use: the set may change
// between steps.
struct IdCursor {
  std::size_t bucket = 0;  // sparse form: index where the current id's bucket was last seen
  U32 word = 0;            // dense form: the word holding `at`
  U64 above = 0;           // dense form: the bit positions above `at` in that word
  Id at;                   // the id the dense fields describe; null for none
};

// Walks the ids of a set in ascending order. Each step asks the set afresh
// for the next id above the current one, so ids may be added or removed
// through a non-const iterator's set while walking. The set must outlive the
// iterator. `key()` and `next()` abort when the walk is over.
template <class SetT>
class BasicIdIterator {
 public:
  BasicIdIterator(SetT* set, Id from) : set_(set), curId_(set->idAtOrAbove(from, &cursor_)) {}

  Id key() const;
  void next();
  bool inRange() const { return curId_ != Id::null(); }
  explicit operator bool() const { return inRange(); }

  // Range-for support.
  Id operator*() const { return key(); }
  BasicIdIterator& operator++() {
    next();
    return *this;
  }
  bool operator==(std::default_sentinel_t) const { return !inRange(); }

 private:
  SetT* set_;
  IdCursor cursor_;  // where curId_ was found
  Id curId_;         // Id::null() once the walk is over
};

using IdIterator = BasicIdIterator<IdSet>;
using IdIteratorConst = BasicIdIterator<const IdSet>;

class IdSet {
 public:
  // An empty set of size 0, the target for parsing a set of unknown size.
  IdSet() : IdSet(0, Id::null()) {}
  // Ids 0 .. size - 1 are valid; `initialId`, unless null, starts in the set
  // (it must be below `size`).
  IdSet(U16 size, Id initialId);

  U16 size() const { return size_; }
  // The size is fixed: only the present value is accepted.
  void sizeIs(U16 size);
  Id initialId() const { return initialId_; }
  // (size + 63) / 64: the buckets needed to cover ids 0 .. size - 1.
  U32 maxBuckets() const { return (U32{size_} + 63) / 64; }

  // Membership; `bitPos` must be below `size`.
  bool id(Id bitPos) const;
  void idIs(Id bitPos, bool value) { updateId(bitPos, value); }
  void idDel(Id bitPos) { updateId(bitPos, false); }
  // Sets or clears one id (below `size`); answers whether it was a member before.
  bool updateId(Id bitPos, bool value);
  // Adds begin .. end - 1; needs begin < end <= size.
  void idSetRange(Id begin, Id end);
  // Adds 0 .. size - 1; nothing for a set of size 0.
  void idSetAll();
  // The number of ids (every bit of every bucket, including any bits a
  // complement left above `size`).
  U32 ids() const;
  bool empty() const { return buckets() == 0; }

  // The lowest id, or Id::null() when empty.
  Id firstId() const;
  // The lowest id above `bitPos` (which must be below `size` or null), or
  // Id::null() when there is none; nextId(Id::null()) is firstId().
  Id nextId(Id bitPos) const;

  // Iteration from the lowest id, or from `from` (inclusive) on.
  IdIterator idIterator() { return IdIterator(this, 0); }
  IdIterator idIterator(Id from) { return IdIterator(this, from); }
  IdIteratorConst idIteratorConst() const { return IdIteratorConst(this, 0); }
  IdIteratorConst idIteratorConst(Id from) const { return IdIteratorConst(this, from); }
  IdIteratorConst begin() const { return idIteratorConst(); }
  std::default_sentinel_t end() const { return {}; }

  // The word of bucket `b`, 0 when the bucket is not stored.
  U64 bucketValue(BucketId b) const;
  // The number of non-zero buckets. After in-place algebra on a dense set
  // or a union with a dense operand it is counted here, once, on first use.
  U32 buckets() const { return dense_ ? denseNonZero() : static_cast<U32>(bucket_.size()); }

  // Set algebra; both operands must have the same size. The new-value forms
  // keep the left operand's size and initial id.
  IdSet& operator|=(const IdSet& other);
  IdSet& operator-=(const IdSet& other);
  IdSet& operator&=(const IdSet& other);
  IdSet& operator^=(const IdSet& other);
  IdSet operator|(const IdSet& other) const;
  IdSet operator-(const IdSet& other) const;
  IdSet operator&(const IdSet& other) const;
  IdSet operator^(const IdSet& other) const;
  IdSet union_py(const IdSet& other) const { return *this | other; }
  IdSet difference_py(const IdSet& other) const { return *this - other; }
  IdSet intersection_py(const IdSet& other) const { return *this & other; }
  IdSet symDifference_py(const IdSet& other) const { return *this ^ other; }
  // Inverts every bucket 0 .. maxBuckets() - 1 (bucket numbers modulo 256).
  // Bits at and above `size` in the last bucket are left set.
  IdSet operator~() const;

  // Same ids; both sets must have the same size.
  bool operator==(const IdSet& other) const;
  bool equal_py(const IdSet& other) const { return *this == other; }
  // Compares with an empty set of size 0: true for that set, and an abort
  // for a set of any other size.
  bool operator!() const;

  // Equal for equal sets.
  U64 hash() const;
  // The text form, e.g. (1-3,5,9-10); carries neither size nor initial id.
  String stringValue() const;

 private:
  struct Bucket {
    BucketId id;
    U64 word;  // never 0: a bucket whose word becomes 0 is removed
  };
  using Buckets = std::vector<Bucket>;

  // nonZeroWords_ after algebra that skipped the count, until something asks.
  static constexpr U32 uncounted = ~U32{0};

  // Tag for a set with another's size and initial id but no ids, the
  // starting point of a new-value result (the initial id is not set).
  struct NoIds {};
  IdSet(const IdSet& like, NoIds) : size_(like.size_), initialId_(like.initialId_) {}

  void handleInitialized();
  // Fails the check "bitPos.value() < size()" for an id at or above the limit.
  void checkBelowSize(Id bitPos) const;
  // Fails nextId's check; only called once the argument is known bad.
  [[noreturn]] void failNextIdBeyondLimit() const;
  // Words of the dense form: one per bucket number in use, at most 256.
  U32 denseWords() const { return maxBuckets() < 256 ? maxBuckets() : 256; }
  // The dense form's non-zero words, counted now if the algebra left them uncounted.
  U32 denseNonZero() const;
  // Stores a word (0 removes the bucket) and then fits the form.
  void updateBucket(BucketId b, U64 word);
  // Switches form when the other one would now be smaller (with hysteresis).
  void fitForm();
  void toDense();
  void toSparse();
  // Calls f(bucket number, word) for every non-zero bucket in bucket order.
  template <class F>
  void forEachBucket(F f) const;
  Buckets::const_iterator bucketAtOrAbove(BucketId b) const;
  // The index of the first bucket numbered b or more, trying `hint` first.
  std::size_t bucketIndexAtOrAbove(BucketId b, std::size_t hint) const;
  // The lowest id at or above `from`, with no limit check; null when none.
  // `cursor`, when given, is tried before searching and is left describing
  // the answer.
  Id idAtOrAbove(Id from, IdCursor* cursor = nullptr) const;
  // The lowest id above `cur`, which `cursor` came from; null when none.
  // A dense walk steps from the cursor's word without recomputing where it is.
  Id idAfter(Id cur, IdCursor* cursor) const;
  // As idAtOrAbove in the sparse form; `hint` as IdCursor::bucket.
  Id sparseIdAtOrAbove(Id from, std::size_t* hint) const;
  // The lowest id in dense words `w` and above; null when none.
  Id denseIdFromWord(U32 w, IdCursor* cursor) const;
  // The id of the lowest bit of `rest`, a non-zero part of dense word `w`.
  static Id denseIdAt(U32 w, U64 rest, IdCursor* cursor);
  // The dense form's words of this set: word_ itself, or the sparse buckets
  // spread over `scratch` (denseWords() long).
  const U64* denseView(U64* scratch) const;
  // Replaces the ids by the `nonZero` non-zero words among `words`
  // (denseWords() long), in the form that suits that many; `uncounted`
  // stands for enough to stay dense.
  void wordsAre(const U64* words, U32 nonZero);
  // Makes this set op(left, right), word by word over the union of bucket
  // numbers; `left` is this set itself (in place) or this set is a NoIds
  // shell (new value). Only the result is allocated, and nothing at all when
  // an in-place dense set stays dense.
  template <class Op>
  void assignCombined(const IdSet& left, const IdSet& right, Op op);
  // As assignCombined for a sparse `left` and an op whose result holds only
  // ids of `left`: its buckets, filtered, with no allocation in place.
  template <class Op>
  void assignFiltered(const IdSet& left, const IdSet& right, Op op);
  // The in-place and new-value forms of the algebra.
  template <class Op>
  IdSet& combine(const IdSet& other, Op op);
  template <class Op>
  IdSet combined(const IdSet& other, Op op) const;

  U16 size_;
  Id initialId_;
  bool dense_ = false;    // which of the two forms below holds the ids
  // Dense form: the non-zero entries of word_, or `uncounted`. Counting in
  // the algebra's word loop would double its cost, so the loop skips it
  // where it can decide the form without it: in place on a dense set (which
  // stays dense until its next update) and for a union with a dense operand
  // (a superset of it). The count is taken when first needed.
  mutable U32 nonZeroWords_ = 0;
  Buckets bucket_;        // sparse form: ordered by bucket number, unique; empty while dense
  std::vector<U64> word_; // dense form: denseWords() words by bucket number; empty while sparse

  template <class SetT>
  friend class BasicIdIterator;
};

inline Id IdSet::denseIdAt(U32 w, U64 rest, IdCursor* cursor) {
  const Id id(static_cast<U16>(w * 64 + static_cast<U32>(std::countr_zero(rest))));
  if (cursor) {
    cursor->word = w;
    cursor->above = ~(rest ^ (rest - 1));  // clears the lowest set bit and all below it
    cursor->at = id;
  }
  return id;
}

// Inline with the walk that calls it at every word boundary.
inline Id IdSet::denseIdFromWord(U32 w, IdCursor* cursor) const {
  for (; w < word_.size(); ++w) {
    if (word_[w]) return denseIdAt(w, word_[w], cursor);
  }
  return Id::null();
}

inline Id IdSet::idAtOrAbove(Id from, IdCursor* cursor) const {
  if (!dense_) return sparseIdAtOrAbove(from, cursor ? &cursor->bucket : nullptr);
  const U32 start = from.value();
  const U32 w = start >> 6;
  if (w >= word_.size()) return Id::null();
  if (U64 rest = word_[w] & (~U64{0} << (start & 63))) return denseIdAt(w, rest, cursor);
  return denseIdFromWord(w + 1, cursor);
}

inline Id IdSet::idAfter(Id cur, IdCursor* cursor) const {
  // The word is re-read at every step, so ids added or removed since the
  // last step are seen; only the position within it is carried over.
  if (dense_ && cursor->at == cur) {
    if (U64 rest = word_[cursor->word] & cursor->above) return denseIdAt(cursor->word, rest, cursor);
    return denseIdFromWord(cursor->word + 1, cursor);
  }
  return idAtOrAbove(Id(static_cast<U16>(cur.value() + 1)), cursor);
}

inline Id IdSet::nextId(Id bitPos) const {
  if (bitPos == Id::null()) return firstId();
  if (bitPos.value() >= size_) failNextIdBeyondLimit();
  return idAtOrAbove(Id(static_cast<U16>(bitPos.value() + 1)));
}

template <class SetT>
Id BasicIdIterator<SetT>::key() const {
  ZUM_ASSERT(curId_ != Id::null());
  return curId_;
}

template <class SetT>
void BasicIdIterator<SetT>::next() {
  ZUM_ASSERT(curId_ != Id::null());
  curId_ = set_->idAfter(curId_, &cursor_);
}

String valueToStrep(const IdSet& set);
// Adds the ids written in `(...)` at `cur` to *out, whose size limits them.
void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, IdSet* out);
std::ostream& operator<<(std::ostream& os, const IdSet& set);

}  // namespace Olk

template <>
struct std::hash<Olk::IdSet> {
  size_t operator()(const Olk::IdSet& set) const noexcept { return static_cast<size_t>(set.hash()); }
};
