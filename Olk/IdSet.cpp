// Design note.
//
// A set takes one of two forms. The sparse form is a vector of (bucket
// number, word) pairs sorted by bucket number: a set holds at most 256
// buckets, so inserting into the vector costs at most a short memmove,
// lookups are a binary search over contiguous memory and the algebra a
// straight merge walk. The dense form is a flat array of one word per bucket
// number, where membership, `nextId` and iteration index the word directly
// and the algebra is one pass over two arrays, as in a plain bitset. A pair
// costs twice a word, so the sparse form is the smaller one up to half the
// buckets; the set turns dense above that and sparse again below a quarter
// (the gap keeps a set at the border from converting back and forth). Both
// forms store the same words, so everything observable (text, order,
// algebra, hash) is the same whichever form a set is in.
//
// Checks on caller input print a "Failed(<expr>) <message>" line to standard
// error first, so the log shows the offending value, and then abort through
// an assertion naming the expression as a negated string literal.
#include "Olk/IdSet.h"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <ostream>

#include "platform/Exception.h"

// Prints the failure line for `cond` with `message` and aborts.
#define OLK_IDSET_FAIL(cond, message) failCheck(#cond, "!\"" #cond "\"", (message), __LINE__, __func__)
#define OLK_IDSET_CHECK(cond, message)      \
  do {                                      \
    if (!(cond)) OLK_IDSET_FAIL(cond, message); \
  } while (0)

namespace Olk {

namespace {

constexpr U64 allBits = ~U64{0};

[[noreturn]] void failCheck(const char* expr, const char* assertText, const String& message, int line,
                            const char* function) {
  std::fprintf(stderr, "Failed(%s) %s\n", expr, message.c_str());
  std::fflush(stderr);
  Zum::assertionFailed(assertText, __FILE__, line, function);
}

// Bits lo .. hi of a word, 0 <= lo <= hi <= 63.
constexpr U64 bitsBetween(U32 lo, U32 hi) { return (allBits >> (63 - hi)) & (allBits << lo); }

Id idOf(U32 bucketNumber, U64 word) {
  return Id(static_cast<U16>(bucketNumber * 64 + static_cast<U32>(std::countr_zero(word))));
}

// Reads one decimal id or range bound of a text item.
U32 parseNumber(const String& text) {
  Zum::StrepIter cur = text.begin();
  U64 v = Zum::parseUnsigned(cur, text.end(), 0xffff, "Olk::Id");
  Zum::needEnd(cur, text.end(), "Olk::Id");
  return static_cast<U32>(v);
}

std::vector<String> split(const String& text, char sep) {
  std::vector<String> parts;
  String::size_type start = 0;
  for (;;) {
    String::size_type pos = text.find(sep, start);
    parts.push_back(text.substr(start, pos - start));
    if (pos == String::npos) return parts;
    start = pos + 1;
  }
}

}  // namespace

String valueToStrep(Id id) { return Zum::valueToStrep(id.value()); }

void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, Id* out) {
  U16 v;
  Zum::sequenceToValue(cur, end, &v);
  out->valueIs(v);
}

IdSet::IdSet(U16 size, Id initialId) : size_(size), initialId_(initialId) { handleInitialized(); }

void IdSet::handleInitialized() {
  if (initialId_ != Id::null()) idIs(initialId_, true);
}

void IdSet::sizeIs(U16 size) { ZUM_ASSERT_TEXT(size == size_, "size should not be changed"); }

void IdSet::checkBelowSize(Id bitPos) const {
  OLK_IDSET_CHECK(bitPos.value() < size(),
                  std::to_string(bitPos.value()) + " exceeds limit of " + std::to_string(size()));
}

bool IdSet::id(Id bitPos) const {
  checkBelowSize(bitPos);
  return bucketValue(BucketId::of(bitPos)) & (U64{1} << (bitPos.value() & 63));
}

bool IdSet::updateId(Id bitPos, bool value) {
  checkBelowSize(bitPos);
  BucketId b = BucketId::of(bitPos);
  U64 mask = U64{1} << (bitPos.value() & 63);
  U64 old = bucketValue(b);
  updateBucket(b, value ? old | mask : old & ~mask);
  return old & mask;
}

void IdSet::idSetRange(Id begin, Id end) {
  OLK_IDSET_CHECK(begin.value() < end.value(), "range should be of at least length 1");
  OLK_IDSET_CHECK(end.value() <= size(), "end can't be greater than bitmap limit");
  U32 first = begin.value(), last = end.value() - 1u;
  for (U32 b = first >> 6; b <= last >> 6; ++b) {
    U32 lo = b == first >> 6 ? first & 63 : 0;
    U32 hi = b == last >> 6 ? last & 63 : 63;
    BucketId bucket(static_cast<U8>(b));
    updateBucket(bucket, bucketValue(bucket) | bitsBetween(lo, hi));
  }
}

void IdSet::idSetAll() {
  if (size_ > 0) idSetRange(0, size_);
}

U32 IdSet::ids() const {
  U32 n = 0;
  forEachBucket([&n](U32, U64 word) { n += static_cast<U32>(std::popcount(word)); });
  return n;
}

template <class F>
void IdSet::forEachBucket(F f) const {
  if (!dense_) {
    for (const Bucket& b : bucket_) f(U32{b.id.value()}, b.word);
    return;
  }
  for (U32 w = 0; w < word_.size(); ++w) {
    if (word_[w]) f(w, word_[w]);
  }
}

Id IdSet::firstId() const {
  if (dense_) return denseIdFromWord(0, nullptr);
  return bucket_.empty() ? Id::null() : idOf(bucket_.front().id.value(), bucket_.front().word);
}

void IdSet::failNextIdBeyondLimit() const {
  OLK_IDSET_FAIL(bitPos.value() < size() || bitPos.value() == Id::null(),
                 "current bit can't be greater than bitmap limit");
}

Id IdSet::sparseIdAtOrAbove(Id from, std::size_t* hint) const {
  U32 start = from.value();
  if ((start >> 6) > 0xff) return Id::null();
  BucketId want(static_cast<U8>(start >> 6));
  std::size_t i = hint ? bucketIndexAtOrAbove(want, *hint)
                      : static_cast<std::size_t>(bucketAtOrAbove(want) - bucket_.begin());
  if (i < bucket_.size() && bucket_[i].id == want) {
    U64 rest = bucket_[i].word & (allBits << (start & 63));
    if (rest) {
      if (hint) *hint = i;
      return idOf(want.value(), rest);
    }
    ++i;
  }
  if (i == bucket_.size()) return Id::null();
  if (hint) *hint = i;
  return idOf(bucket_[i].id.value(), bucket_[i].word);
}

IdSet::Buckets::const_iterator IdSet::bucketAtOrAbove(BucketId b) const {
  return std::lower_bound(bucket_.begin(), bucket_.end(), b,
                          [](const Bucket& x, BucketId key) { return x.id < key; });
}

std::size_t IdSet::bucketIndexAtOrAbove(BucketId b, std::size_t hint) const {
  // A walk asks for the id after the last one, which lies in the hinted
  // bucket or the one after it; the binary search is only the fallback.
  std::size_t n = bucket_.size();
  if (hint < n && bucket_[hint].id <= b) {
    if (bucket_[hint].id == b) return hint;
    if (hint + 1 == n || b <= bucket_[hint + 1].id) return hint + 1;
  }
  return static_cast<std::size_t>(bucketAtOrAbove(b) - bucket_.begin());
}

U64 IdSet::bucketValue(BucketId b) const {
  if (dense_) return b.value() < word_.size() ? word_[b.value()] : 0;
  auto it = bucketAtOrAbove(b);
  return it != bucket_.end() && it->id == b ? it->word : 0;
}

void IdSet::updateBucket(BucketId b, U64 word) {
  if (dense_) {
    ZUM_ASSERT(b.value() < word_.size());
    U64& slot = word_[b.value()];
    nonZeroWords_ = denseNonZero() - (slot != 0) + (word != 0);
    slot = word;
    fitForm();
    return;
  }
  auto it = bucket_.begin() + (bucketAtOrAbove(b) - bucket_.cbegin());
  bool present = it != bucket_.end() && it->id == b;
  if (word == 0) {
    if (present) bucket_.erase(it);
  } else if (present) {
    it->word = word;
  } else {
    bucket_.insert(it, Bucket{b, word});
  }
  fitForm();
}

void IdSet::fitForm() {
  const U32 used = buckets();
  if (dense_ ? 4 * used < denseWords() : 2 * used > denseWords()) {
    dense_ ? toSparse() : toDense();
  }
}

void IdSet::toDense() {
  std::vector<U64> words(denseWords(), 0);
  for (const Bucket& b : bucket_) words[b.id.value()] = b.word;
  nonZeroWords_ = static_cast<U32>(bucket_.size());
  word_.swap(words);
  Buckets().swap(bucket_);
  dense_ = true;
}

void IdSet::toSparse() {
  Buckets buckets;
  buckets.reserve(this->buckets());
  forEachBucket([&buckets](U32 b, U64 word) { buckets.push_back(Bucket{BucketId(static_cast<U8>(b)), word}); });
  bucket_.swap(buckets);
  std::vector<U64>().swap(word_);
  nonZeroWords_ = 0;
  dense_ = false;
}

namespace {

// 1 for a non-zero word, 0 for 0, without a branch: the top bit of
// (word | -word) is set exactly when the word is not 0. Loops summing it
// compile to vector instructions.
constexpr U64 nonZeroBit(U64 word) { return (word | (0 - word)) >> 63; }

// out[w] = op(a[w], b[w]) for every word (out may be a); answers how many
// are non-zero when `counted`, else 0.
template <bool counted, class Op>
U32 combineWords(U64* out, const U64* a, const U64* b, std::size_t words, Op op) {
  U64 nonZero = 0;
  for (std::size_t w = 0; w < words; ++w) {
    const U64 word = op(a[w], b[w]);
    out[w] = word;
    if constexpr (counted) nonZero += nonZeroBit(word);
  }
  return static_cast<U32>(nonZero);
}

// The word operations. `keepsEveryId`: the result holds every id of both
// operands, so it is dense whenever one of them is. `withinLeft`: the
// result holds only ids of the left operand, so it needs no bucket the left
// operand lacks.
struct Union {
  static constexpr bool keepsEveryId = true, withinLeft = false;
  U64 operator()(U64 a, U64 b) const { return a | b; }
};
struct Difference {
  static constexpr bool keepsEveryId = false, withinLeft = true;
  U64 operator()(U64 a, U64 b) const { return a & ~b; }
};
struct Intersection {
  static constexpr bool keepsEveryId = false, withinLeft = true;
  U64 operator()(U64 a, U64 b) const { return a & b; }
};
struct SymDifference {
  static constexpr bool keepsEveryId = false, withinLeft = false;
  U64 operator()(U64 a, U64 b) const { return a ^ b; }
};

}  // namespace

U32 IdSet::denseNonZero() const {
  if (nonZeroWords_ == uncounted) {
    U64 n = 0;
    for (U64 word : word_) n += nonZeroBit(word);
    nonZeroWords_ = static_cast<U32>(n);
  }
  return nonZeroWords_;
}

const U64* IdSet::denseView(U64* scratch) const {
  if (dense_) return word_.data();
  std::fill_n(scratch, denseWords(), 0);
  for (const Bucket& b : bucket_) scratch[b.id.value()] = b.word;
  return scratch;
}

void IdSet::wordsAre(const U64* words, U32 nonZero) {
  // The border at which fitForm() leaves the dense form, so the result is
  // in the form an update would fit it to.
  if (nonZero != uncounted && 4 * nonZero < denseWords()) {
    bucket_.clear();
    bucket_.reserve(nonZero);
    for (U32 w = 0; w < denseWords(); ++w) {
      if (words[w]) bucket_.push_back(Bucket{BucketId(static_cast<U8>(w)), words[w]});
    }
    std::vector<U64>().swap(word_);
    nonZeroWords_ = 0;
    dense_ = false;
    return;
  }
  word_.assign(words, words + denseWords());
  Buckets().swap(bucket_);
  nonZeroWords_ = nonZero;
  dense_ = true;
}

template <class Op>
void IdSet::assignFiltered(const IdSet& left, const IdSet& right, Op op) {
  // In place the kept buckets are written behind the one being read.
  if (&left != this) bucket_.resize(left.bucket_.size());
  std::size_t kept = 0, j = 0;
  for (std::size_t i = 0; i < left.bucket_.size(); ++i) {
    const Bucket mine = left.bucket_[i];
    U64 theirs = 0;
    if (right.dense_) {
      theirs = right.word_[mine.id.value()];
    } else {
      while (j < right.bucket_.size() && right.bucket_[j].id < mine.id) ++j;
      if (j < right.bucket_.size() && right.bucket_[j].id == mine.id) theirs = right.bucket_[j].word;
    }
    if (U64 word = op(mine.word, theirs)) bucket_[kept++] = Bucket{mine.id, word};
  }
  bucket_.resize(kept);
  fitForm();
}

template <class Op>
void IdSet::assignCombined(const IdSet& left, const IdSet& right, Op op) {
  if constexpr (Op::withinLeft) {
    if (!left.dense_) {
      assignFiltered(left, right, op);
      return;
    }
  }
  if (left.dense_ || right.dense_) {
    // Word by word; a sparse operand is spread over a scratch array. A new
    // value from a dense set starts as a copy of its words.
    U64 scratch[256], leftScratch[256];
    const U64* b = right.denseView(scratch);
    if (&left != this && left.dense_) {
      word_ = left.word_;
      dense_ = true;
    }
    if (dense_) {
      if (&left == this || Op::keepsEveryId) {
        // In place a dense set stays dense, and a union keeps every id of
        // its dense operand: no count is needed to know the form, and
        // counting would double the cost of the loop. The count waits for
        // the first question and the form for the next update.
        combineWords<false>(word_.data(), word_.data(), b, denseWords(), op);
        nonZeroWords_ = uncounted;
      } else {
        nonZeroWords_ = combineWords<true>(word_.data(), word_.data(), b, denseWords(), op);
        fitForm();
      }
      return;
    }
    // Sparse before, into whichever form suits the result.
    U64 result[256];
    const U64* a = left.denseView(leftScratch);
    if (Op::keepsEveryId) {
      combineWords<false>(result, a, b, denseWords(), op);
      wordsAre(result, uncounted);
    } else {
      wordsAre(result, combineWords<true>(result, a, b, denseWords(), op));
    }
    return;
  }
  Buckets out;
  out.reserve(left.bucket_.size() + right.bucket_.size());
  auto a = left.bucket_.cbegin(), aEnd = left.bucket_.cend();
  auto b = right.bucket_.cbegin(), bEnd = right.bucket_.cend();
  while (a != aEnd || b != bEnd) {
    BucketId id;
    U64 mine = 0, theirs = 0;
    if (b == bEnd || (a != aEnd && a->id < b->id)) {
      id = a->id;
      mine = (a++)->word;
    } else if (a == aEnd || b->id < a->id) {
      id = b->id;
      theirs = (b++)->word;
    } else {
      id = a->id;
      mine = (a++)->word;
      theirs = (b++)->word;
    }
    if (U64 word = op(mine, theirs)) out.push_back(Bucket{id, word});
  }
  bucket_.swap(out);
  fitForm();
}

template <class Op>
IdSet& IdSet::combine(const IdSet& other, Op op) {
  ZUM_ASSERT(size() == other.size());
  assignCombined(*this, other, op);
  return *this;
}

template <class Op>
IdSet IdSet::combined(const IdSet& other, Op op) const {
  ZUM_ASSERT(size() == other.size());
  IdSet result(*this, NoIds{});
  result.assignCombined(*this, other, op);
  return result;
}

IdSet& IdSet::operator|=(const IdSet& other) { return combine(other, Union{}); }
IdSet& IdSet::operator-=(const IdSet& other) { return combine(other, Difference{}); }
IdSet& IdSet::operator&=(const IdSet& other) { return combine(other, Intersection{}); }
IdSet& IdSet::operator^=(const IdSet& other) { return combine(other, SymDifference{}); }
IdSet IdSet::operator|(const IdSet& other) const { return combined(other, Union{}); }
IdSet IdSet::operator-(const IdSet& other) const { return combined(other, Difference{}); }
IdSet IdSet::operator&(const IdSet& other) const { return combined(other, Intersection{}); }
IdSet IdSet::operator^(const IdSet& other) const { return combined(other, SymDifference{}); }

IdSet IdSet::operator~() const {
  IdSet result(*this);
  for (U32 b = 0; b < maxBuckets(); ++b) {
    BucketId bucket(static_cast<U8>(b));
    result.updateBucket(bucket, ~result.bucketValue(bucket));
  }
  return result;
}

bool IdSet::operator==(const IdSet& other) const {
  ZUM_ASSERT(size() == other.size());
  if (buckets() != other.buckets()) return false;
  if (dense_ && other.dense_) return word_ == other.word_;
  // Same number of non-zero buckets, so every one of ours matching theirs
  // leaves none of theirs unmatched.
  bool same = true;
  forEachBucket([&](U32 b, U64 word) { same = same && other.bucketValue(BucketId(static_cast<U8>(b))) == word; });
  return same;
}

bool IdSet::operator!() const { return *this == IdSet(0, Id::null()); }

U64 IdSet::hash() const {
  // FNV-1a over (bucket number, word) pairs, with the word folded in whole
  // and then mixed, so sets differing in one bit differ in many hash bits.
  U64 h = 0xcbf29ce484222325ull;
  forEachBucket([&h](U32 b, U64 word) {
    h = (h ^ b) * 0x100000001b3ull;
    h = (h ^ word) * 0x100000001b3ull;
    h ^= h >> 29;
  });
  return h;
}

String IdSet::stringValue() const {
  String text = "(";
  for (IdIteratorConst it = idIteratorConst(); it.inRange();) {
    U32 first = it.key().value(), last = first;
    for (it.next(); it.inRange() && it.key().value() == last + 1; it.next()) last = it.key().value();
    if (text.size() > 1) text += ',';
    text += std::to_string(first);
    if (last != first) text += '-' + std::to_string(last);
  }
  return text + ")";
}

String valueToStrep(const IdSet& set) { return set.stringValue(); }

std::ostream& operator<<(std::ostream& os, const IdSet& set) { return os << set.stringValue(); }

void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, IdSet* out) {
  Zum::StrepIter p = cur;
  Zum::StrepIter strepEnd = std::find(p, end, ')');
  ZUM_ASSERT_TEXT(p != end && *p == '(' && strepEnd != end, "*p == '(' && strepEnd != end");
  String inner(p + 1, strepEnd);
  IdSet result(*out);
  if (!inner.empty()) {
    for (const String& item : split(inner, ',')) {
      if (item.find('-') == String::npos) {
        result.idIs(Id(static_cast<U16>(parseNumber(item))), true);
        continue;
      }
      std::vector<String> range = split(item, '-');
      ZUM_ASSERT(range.size() == 2);
      U32 start = parseNumber(range[0]), stop = parseNumber(range[1]);
      OLK_IDSET_CHECK(start < stop, "Invalid range");
      result.idSetRange(Id(static_cast<U16>(start)), Id(static_cast<U16>(stop + 1)));
    }
  }
  *out = std::move(result);
  cur = strepEnd + 1;
}

}  // namespace Olk
