// Design note.
//
// Why two summary trees: one "not empty" tree answers find-first-set, but
// find-first-clear on a nearly full bitmap (the common allocator case) would
// still have to walk full words one by one. Keeping a second tree of "not
// full" bits makes both searches symmetric: the search code is shared and
// only sees the leaves inverted when it looks for clear bits.
//
// The search from `from` first looks at the rest of its own leaf word. If
// that is empty it climbs: at each level it looks for a marked sibling to
// the right within the same summary word; the first level that has one is
// where it turns, and it then descends taking the lowest marked bit at each
// level. A mark is only ever set for a word that really has a candidate, so
// the descent never dead-ends.
//
// The bits past `size` in the last leaf word stay 0. That word therefore
// always counts as "not full", and a clear-bit search may land on a padding
// bit: that only happens when no real clear bit exists at or after `from`,
// so a result at or beyond `size` is reported as npos.
#include "Olk/HBitmap.h"

#include <algorithm>
#include <bit>

#include "platform/Exception.h"

namespace Olk {

namespace {

constexpr U64 allBits = ~U64{0};

U32 lowestBit(U64 word) { return static_cast<U32>(std::countr_zero(word)); }

// Words needed for `bits` bits.
U32 wordsFor(U32 bits) { return bits / 64 + (bits % 64 != 0); }

}  // namespace

HBitmap::HBitmap(U32 size) : size_(size), leaf_(wordsFor(size), 0) {
  ZUM_ASSERT(size < npos);
  for (U32 words = static_cast<U32>(leaf_.size()); words > 1;) {
    words = wordsFor(words);
    setTree_.emplace_back(words, 0);
  }
  clearTree_ = setTree_;
  rebuild();
}

bool HBitmap::test(U32 pos) const {
  ZUM_ASSERT(pos < size());
  return leaf_[pos >> 6] & (U64{1} << (pos & 63));
}

bool HBitmap::set(U32 pos) {
  ZUM_ASSERT(pos < size());
  U64 before = leaf_[pos >> 6];
  U64 bit = U64{1} << (pos & 63);
  if (before & bit) return true;
  leaf_[pos >> 6] = before | bit;
  ++count_;
  leafChanged(pos >> 6, before);
  return false;
}

bool HBitmap::clear(U32 pos) {
  ZUM_ASSERT(pos < size());
  U64 before = leaf_[pos >> 6];
  U64 bit = U64{1} << (pos & 63);
  if (!(before & bit)) return false;
  leaf_[pos >> 6] = before & ~bit;
  --count_;
  leafChanged(pos >> 6, before);
  return true;
}

void HBitmap::setAll() {
  std::fill(leaf_.begin(), leaf_.end(), allBits);
  if (size_ % 64) leaf_.back() = allBits >> (64 - size_ % 64);
  count_ = size_;
  rebuild();
}

void HBitmap::clearAll() {
  std::fill(leaf_.begin(), leaf_.end(), 0);
  count_ = 0;
  rebuild();
}

U32 HBitmap::find(U32 from, const Tree& tree, bool clearBits) const {
  if (from >= size_) return npos;
  U32 word = from >> 6;
  U64 rest = leafFor(word, clearBits) & (allBits << (from & 63));
  if (!rest) {
    // Climb until some level has a marked entry right of `word`'s ancestor.
    std::size_t level = 0;
    for (; level < tree.size(); ++level) {
      U32 bit = word & 63;
      U64 right = bit == 63 ? 0 : tree[level][word >> 6] & (allBits << (bit + 1));
      if (right) {
        word = (word & ~63u) + lowestBit(right);
        break;
      }
      word >>= 6;
    }
    if (level == tree.size()) return npos;
    // `word` indexes an entry of the level below `level`; descend to a leaf.
    for (; level > 0; --level) word = word * 64 + lowestBit(tree[level - 1][word]);
    rest = leafFor(word, clearBits);
  }
  U32 pos = word * 64 + lowestBit(rest);
  return pos < size_ ? pos : npos;
}

void HBitmap::mark(Tree& tree, U32 word, bool on) {
  for (auto& level : tree) {
    U64& summary = level[word >> 6];
    U64 bit = U64{1} << (word & 63);
    bool wasMarked = summary != 0;
    summary = on ? summary | bit : summary & ~bit;
    // The parent's mark changes only when this summary word turns 0 or non-0.
    if (wasMarked == (summary != 0)) return;
    word >>= 6;
  }
}

void HBitmap::leafChanged(U32 word, U64 before) {
  U64 after = leaf_[word];
  if ((before != 0) != (after != 0)) mark(setTree_, word, after != 0);
  if ((before != allBits) != (after != allBits)) mark(clearTree_, word, after != allBits);
}

void HBitmap::rebuild() {
  for (Tree* tree : {&setTree_, &clearTree_}) {
    const bool clearBits = tree == &clearTree_;
    for (std::size_t level = 0; level < tree->size(); ++level) {
      auto& words = (*tree)[level];
      std::fill(words.begin(), words.end(), 0);
      const std::size_t below = level == 0 ? leaf_.size() : (*tree)[level - 1].size();
      for (std::size_t i = 0; i < below; ++i) {
        bool marked = level == 0 ? leafFor(static_cast<U32>(i), clearBits) != 0 : (*tree)[level - 1][i] != 0;
        if (marked) words[i >> 6] |= U64{1} << (i & 63);
      }
    }
  }
}

void HBitmap::audit() const {
  HBitmap fresh(*this);
  fresh.rebuild();
  ZUM_ASSERT(fresh.setTree_ == setTree_);
  ZUM_ASSERT(fresh.clearTree_ == clearTree_);
  U32 bits = 0;
  for (U64 w : leaf_) bits += static_cast<U32>(std::popcount(w));
  ZUM_ASSERT(bits == count_);
  ZUM_ASSERT(size_ % 64 == 0 || (leaf_.back() >> (size_ % 64)) == 0);
}

}  // namespace Olk
