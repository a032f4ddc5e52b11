// Best-fit allocator of blocks of consecutive entries in a linear memory.
//
// `BestFitAllocator` manages `memSz` entries whose entry 0 has the absolute
// index `offset` (typically a region of a hardware table) and hands out
// `BFA::Blk` blocks of 1..`maxBlkSz` consecutive entries. A block is freed by
// dropping its last `Ptr`; a block keeps its allocator alive. Free space is
// always coalesced: used and free blocks tile the memory and no two free
// blocks touch. `alloc` takes the smallest free block that fits (free blocks
// larger than `maxBlkSz` are "jumbo" and used only when no ordinary one fits)
// and cuts from its low end; alloc/free cost O(log n) in the free blocks.
// `defragment()` packs the used blocks towards index 0 and returns the moves
// the caller must replay, in order, on the real memory (a move's source and
// destination may overlap: copy from low to high). `resizeMemory` grows or
// shrinks the memory, never below its used entries. Exhaustion returns null;
// broken invariants abort. Traces: "BestFitAllocator", level 7. One thread.
#pragma once

#include <iosfwd>
#include <map>
#include <set>
#include <unordered_set>

#include "Olk/Types.h"
#include "platform/Collection.h"
#include "platform/Entity.h"
#include "platform/Notifier.h"
#include "platform/Ptr.h"
#include "platform/Strep.h"

namespace Olk {

class BestFitAllocator;

namespace BFA {

// A block in use. Its index is absolute (memory start index + offset) and
// changes only when defragment() moves it.
class Blk : public Zum::Entity {
 public:
  U32 size() const { return size_; }
  U32 index() const { return index_; }
  const Ptr<BestFitAllocator>& allocator() const { return allocator_; }

 protected:
  // Gives the entries back to the allocator.
  void handleDel() override;

 private:
  friend class Olk::BestFitAllocator;
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  Blk(U32 size, const Ptr<BestFitAllocator>& allocator) : size_(size), allocator_(allocator) {}
  void indexIs(U32 index) { index_ = index; }

  const U32 size_;
  U32 index_ = 0;                           // 0 until placed
  const Ptr<BestFitAllocator> allocator_;  // never null
};

Ptr<Blk> blkFactory(U32 size, const Ptr<BestFitAllocator>& allocator);
// "Value('Olk::BFA::Blk', ** {'size': %s, 'index': %s})", or "None" for null.
String valueToStrep(const Ptr<Blk>& blk);

// Start indexes of the free blocks of one size, in no promised order.
class FreeBlkSet {
 public:
  bool freeBlk(U32 startIndex) const { return freeBlk_.count(startIndex) != 0; }
  const std::unordered_set<U32>& freeBlks() const { return freeBlk_; }

 private:
  friend class Olk::BestFitAllocator;
  std::unordered_set<U32> freeBlk_;  // invariant: never empty while in the allocator
};

// A free block larger than maxBlkSz; ordered by size, then start.
struct JumboFreeBlk {
  JumboFreeBlk() = default;
  JumboFreeBlk(U32 sz, U32 start) : blkSz(sz), startIndex(start) {}

  U32 blkSz = 0;
  U32 startIndex = 0;

  bool operator==(const JumboFreeBlk&) const = default;
  bool operator<(const JumboFreeBlk& o) const {
    return blkSz < o.blkSz || (blkSz == o.blkSz && startIndex < o.startIndex);
  }
};

String valueToStrep(const JumboFreeBlk& v);
void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, JumboFreeBlk* out);
std::ostream& operator<<(std::ostream& os, const JumboFreeBlk& v);

// One move made by defragment(): the block was at absolute `oldIndex` and is
// now at blk->index().
struct PendingCmd {
  U32 oldIndex = 0;
  Ptr<Blk> blk;

  bool operator==(const PendingCmd&) const = default;
};

String valueToStrep(const PendingCmd& v);
std::ostream& operator<<(std::ostream& os, const PendingCmd& v);

// The moves of one defragment(), first move at the head. Holding the log
// keeps its blocks alive.
class PendingCmds : public Zum::Entity {
 public:
  struct LogMetadata {
    U64 head = 0;  // running index of the oldest entry
    U64 tail = 0;  // running index the next entry will get
  };

  void pendingCmdLogEnq(const PendingCmd& cmd) { pendingCmdLog_.push(cmd); }
  // Removes and returns the oldest move; the log must not be empty.
  PendingCmd pendingCmdLogDeq() { return pendingCmdLog_.pop(); }
  // The move with running index i, head <= i < tail.
  const PendingCmd& pendingCmdLog(U64 i) const { return pendingCmdLog_.at(i); }
  LogMetadata pendingCmdLogMetadata() const { return {pendingCmdLog_.head(), pendingCmdLog_.tail()}; }
  U64 pendingCmdLogs() const { return pendingCmdLog_.size(); }

 private:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  PendingCmds() = default;

  Zum::Queue<PendingCmd> pendingCmdLog_;
};

Ptr<PendingCmds> pendingCmdsFactory();

}  // namespace BFA

class BestFitAllocator : public Zum::Entity, public Zum::Notifier {
 public:
  class Notifiee : public Zum::BaseNotifiee<BestFitAllocator> {
   public:
    virtual void onNumFreeEntries() {}
    virtual void onMemSz() {}
  };

  U32 memSz() const { return memSz_; }
  U32 offset() const { return offset_; }
  U32 maxBlkSz() const { return maxBlkSz_; }
  U32 numFreeEntries() const { return numFreeEntries_; }

  // A block of blkSz (1..maxBlkSz) entries, or null when no free block is
  // large enough.
  Ptr<BFA::Blk> alloc(U32 blkSz);
  // A block of blkSz entries at exactly memory start index `startIndex`, or
  // null (and no change) unless every entry of that span is free. Re-creates
  // a known allocation, e.g. after a restart.
  Ptr<BFA::Blk> realloc(U32 startIndex, U32 blkSz);
  // Packs every used block down towards index 0, leaving one free block at
  // the top; returns the moves in the order they must be carried out.
  Ptr<BFA::PendingCmds> defragment();
  // Grows (returns null) or shrinks the memory. A shrink that needs more
  // than the free tail defragments first and returns that log; it shrinks
  // by at most the free entries. No free entries: nothing happens.
  Ptr<BFA::PendingCmds> resizeMemory(U32 newSz);

  // --- the free-space records, for inspection and dumps ---
  const BFA::FreeBlkSet* freeBlkSet(U32 blkSz) const;
  const std::map<U32, BFA::FreeBlkSet>& freeBlkSetMap() const { return freeBlkSet_; }
  bool jumboFreeBlk(const BFA::JumboFreeBlk& b) const { return jumboFreeBlk_.count(b) != 0; }
  const std::set<BFA::JumboFreeBlk>& jumboFreeBlkSet() const { return jumboFreeBlk_; }
  // Size of the free block starting / ending at the index, 0 when none.
  U32 freeBlkStartIndexToSz(U32 startIndex) const;
  U32 freeBlkEndIndexToSz(U32 endIndex) const;
  U64 freeBlkStartIndexToSzs() const { return freeBlkStartIndexToSz_.size(); }
  U64 freeBlkEndIndexToSzs() const { return freeBlkEndIndexToSz_.size(); }
  const std::map<U32, U32>& freeBlkStartIndexToSzMap() const { return freeBlkStartIndexToSz_; }
  // Blocks in use by absolute index; not owned.
  BFA::Blk* inUseBlock(U32 index) const;
  const std::map<U32, BFA::Blk*>& inUseBlockMap() const { return inUseBlock_; }

 protected:
  void handleInitialized() override;

 private:
  friend class BFA::Blk;
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  BestFitAllocator(U32 memSz, U32 offset, U32 maxBlkSz) : memSz_(memSz), offset_(offset), maxBlkSz_(maxBlkSz) {}

  // Called from the block's delete reaction: returns its entries.
  void handleFree(BFA::Blk* blk);
  // Files a free block, merging it with free neighbours. Size 0: no-op.
  void doAddFreeBlk(U32 blkSz, U32 startIndex);
  void doRemoveFreeBlk(U32 blkSz, U32 startIndex);
  void numFreeEntriesInc(U32 n);
  void numFreeEntriesDec(U32 n);
  void memSzIs(U32 memSz);
  Ptr<BFA::Blk> newBlk(U32 blkSz, U32 startIndex);
  // Moves the used block right after the lowest hole down into it.
  void moveBlkIntoLowestHole(BFA::PendingCmds* log);
  void traceBlks(const char* freeTitle, const char* usedTitle) const;

  U32 memSz_;
  const U32 offset_;
  const U32 maxBlkSz_;
  U32 numFreeEntries_ = 0;                         // invariant: sum of free block sizes
  std::map<U32, BFA::FreeBlkSet> freeBlkSet_;      // sizes 1..maxBlkSz_ with a free block
  std::set<BFA::JumboFreeBlk> jumboFreeBlk_;       // free blocks > maxBlkSz_
  std::map<U32, U32> freeBlkStartIndexToSz_;       // every free block: start -> size
  std::map<U32, U32> freeBlkEndIndexToSz_;         // every free block: last index -> size
  std::map<U32, BFA::Blk*> inUseBlock_;            // absolute index -> block in use there
};

Ptr<BestFitAllocator> bestFitAllocatorFactory(U32 memSz, U32 offset, U32 maxBlkSz);

}  // namespace Olk
