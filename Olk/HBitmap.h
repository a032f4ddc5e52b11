// HBitmap: a fixed-size bitmap for large id spaces (2^16, 2^20 bits and
// more) that finds the first set or the first clear bit at or after a
// position without scanning.
//
// Bits live in 64-bit leaf words. Above them sit two summary trees, one bit
// per word of the level below: in the "any set" tree a bit is set when that
// word is not 0, in the "any clear" tree when it is not all ones. A search
// looks at one word per level going up and one per level coming down, so
// `findFirstSet`/`findFirstClear` cost O(levels) = O(log64 size): four word
// reads each way for 2^20 bits. `set`/`clear` also touch at most one word per
// level. Memory is size/8 bytes plus about 1/32 of that for the summaries.
//
// Typical use is an allocator of ids: `findFirstClear(0)` then `set`.
// Positions are U32; `npos` means "none". The size is fixed at construction.
// A plain value, not shared between threads.
#pragma once

#include <iterator>
#include <vector>

#include "Olk/Types.h"

namespace Olk {

class HBitmap {
 public:
  static constexpr U32 npos = 0xffffffffu;

  // `size` bits, all clear; size must be below npos.
  explicit HBitmap(U32 size);

  U32 size() const { return size_; }
  // The number of set bits, kept as bits change (O(1)).
  U32 count() const { return count_; }
  bool empty() const { return count_ == 0; }
  bool full() const { return count_ == size_; }

  // Bit `pos`, which must be below size().
  bool test(U32 pos) const;
  // Set or clear bit `pos` (below size()); answer whether it was set before.
  bool set(U32 pos);
  bool clear(U32 pos);
  void setAll();
  void clearAll();

  // The lowest set (clear) bit at or after `from`; npos when there is none,
  // including for any `from` at or beyond size().
  U32 findFirstSet(U32 from = 0) const { return find(from, setTree_, false); }
  U32 findFirstClear(U32 from = 0) const { return find(from, clearTree_, true); }

  // Walks the set bits in ascending order; the bitmap must not change
  // while walking.
  class Iterator {
   public:
    Iterator(const HBitmap* map, U32 pos) : map_(map), pos_(pos) {}
    U32 operator*() const { return pos_; }
    Iterator& operator++() {
      pos_ = map_->findFirstSet(pos_ + 1);
      return *this;
    }
    bool operator==(std::default_sentinel_t) const { return pos_ == npos; }

   private:
    const HBitmap* map_;
    U32 pos_;  // npos once the walk is over
  };
  Iterator begin() const { return Iterator(this, findFirstSet(0)); }
  std::default_sentinel_t end() const { return {}; }

  // Aborts unless both summary trees and the count agree with the leaves;
  // for tests, O(size).
  void audit() const;

 private:
  // Level 0 of a tree summarises the leaves, level k + 1 summarises level k;
  // the last level is a single word. Empty when the leaves fit in one word.
  using Tree = std::vector<std::vector<U64>>;

  U32 find(U32 from, const Tree& tree, bool clearBits) const;
  // Records that leaf word `word` now is or is not interesting in `tree`.
  static void mark(Tree& tree, U32 word, bool on);
  void leafChanged(U32 word, U64 before);
  void rebuild();
  // The leaf word as the search sees it: inverted when looking for clear bits.
  U64 leafFor(U32 word, bool clearBits) const { return clearBits ? ~leaf_[word] : leaf_[word]; }

  U32 size_;
  U32 count_ = 0;         // popcount of all leaf words
  std::vector<U64> leaf_; // bits at and above size_ in the last word stay 0
  Tree setTree_;          // bit set <=> the word below is not 0
  Tree clearTree_;        // bit set <=> the word below is not all ones
};

}  // namespace Olk
