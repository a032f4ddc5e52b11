// Design note.
//
// Free space is indexed three ways, each for one question:
//   * freeBlkSet_: size -> start indexes of the free blocks of that size, for
//     sizes up to maxBlkSz. lower_bound(blkSz) is the best fit in O(log n).
//   * jumboFreeBlk_: the free blocks above maxBlkSz, ordered by (size,
//     start). A fresh memory is one jumbo block; ordinary sizes are preferred
//     so that the big free areas stay whole as long as possible.
//   * freeBlkStartIndexToSz_ / freeBlkEndIndexToSz_: start -> size and
//     last index -> size of every free block, so a freed span finds the free
//     neighbour just below (by end index) and just above (by start index) in
//     O(log n) and merges with them. That merge is what keeps the memory
//     tiled by used and free blocks with no two free blocks touching.
// Every change goes through doAddFreeBlk/doRemoveFreeBlk, which keep the
// three indexes in step and abort when a block is filed twice or missing.
//
// defragment() repeatedly takes the lowest hole and slides the used block
// just above it down to the hole's start. Freeing the block's old span first
// lets it merge with whatever is free above, so after each move the lowest
// hole starts where the moved block ends; n used blocks cost n moves of
// O(log n) each. A block larger than the hole overlaps its own old span,
// which is why the caller must copy low to high.
//
// The allocator does not own its blocks (inUseBlock_ holds raw pointers);
// each block holds its allocator, so the allocator outlives its blocks and a
// block's delete reaction can always give its entries back.
#include "Olk/BestFitAllocator.h"

#include <algorithm>
#include <ostream>
#include <utility>

#include "platform/Exception.h"
#include "platform/Trace.h"

namespace Olk {

namespace {
Zum::TraceHandle& tr = Zum::traceHandle("BestFitAllocator");
constexpr int traceLevel = 7;
}  // namespace

namespace BFA {

void Blk::handleDel() { allocator_->handleFree(this); }

Ptr<Blk> blkFactory(U32 size, const Ptr<BestFitAllocator>& allocator) {
  return Zum::create<Blk>(size, allocator);
}

String valueToStrep(const Ptr<Blk>& blk) {
  if (!blk) return "None";
  Zum::ValueStrepWriter w("Olk::BFA::Blk");
  w.field("size", blk->size()).field("index", blk->index());
  return std::move(w).done();
}

String valueToStrep(const JumboFreeBlk& v) {
  Zum::ValueStrepWriter w("Olk::BFA::JumboFreeBlk");
  w.field("blkSz", v.blkSz).field("startIndex", v.startIndex);
  return std::move(w).done();
}

void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, JumboFreeBlk* out) {
  Zum::ValueStrepReader(cur, end, "Olk::BFA::JumboFreeBlk")
      .field("blkSz", &out->blkSz)
      .field("startIndex", &out->startIndex)
      .done();
}

std::ostream& operator<<(std::ostream& os, const JumboFreeBlk& v) { return os << valueToStrep(v); }

String valueToStrep(const PendingCmd& v) {
  Zum::ValueStrepWriter w("Olk::BFA::PendingCmd");
  w.field("oldIndex", v.oldIndex).field("blk", v.blk);
  return std::move(w).done();
}

std::ostream& operator<<(std::ostream& os, const PendingCmd& v) { return os << valueToStrep(v); }

Ptr<PendingCmds> pendingCmdsFactory() { return Zum::create<PendingCmds>(); }

}  // namespace BFA

Ptr<BestFitAllocator> bestFitAllocatorFactory(U32 memSz, U32 offset, U32 maxBlkSz) {
  return Zum::create<BestFitAllocator>(memSz, offset, maxBlkSz);
}

void BestFitAllocator::handleInitialized() {
  ZUM_TRACE(tr, traceLevel) << "memSz = " << memSz_ << ", offset = " << offset_ << ", maxBlkSz = " << maxBlkSz_;
  ZUM_ASSERT( memSz() );
  // Only the exact wrap to 0xFFFFFFFF is refused; larger sums wrap and pass.
  ZUM_ASSERT( ( memSz() + offset() ) < 0xFFFFFFFF );
  ZUM_ASSERT( maxBlkSz() );
  ZUM_ASSERT( maxBlkSz() < memSz() );
  doAddFreeBlk(memSz_, 0);
  numFreeEntries_ = memSz_;
  ZUM_TRACE(tr, traceLevel) << "Initialized allocator: memSz " << memSz_ << " offset " << offset_ << " maxBlkSz "
                            << maxBlkSz_;
}

const BFA::FreeBlkSet* BestFitAllocator::freeBlkSet(U32 blkSz) const {
  auto it = freeBlkSet_.find(blkSz);
  return it == freeBlkSet_.end() ? nullptr : &it->second;
}

U32 BestFitAllocator::freeBlkStartIndexToSz(U32 startIndex) const {
  auto it = freeBlkStartIndexToSz_.find(startIndex);
  return it == freeBlkStartIndexToSz_.end() ? 0 : it->second;
}

U32 BestFitAllocator::freeBlkEndIndexToSz(U32 endIndex) const {
  auto it = freeBlkEndIndexToSz_.find(endIndex);
  return it == freeBlkEndIndexToSz_.end() ? 0 : it->second;
}

BFA::Blk* BestFitAllocator::inUseBlock(U32 index) const {
  auto it = inUseBlock_.find(index);
  return it == inUseBlock_.end() ? nullptr : it->second;
}

void BestFitAllocator::numFreeEntriesInc(U32 n) {
  numFreeEntries_ += n;
  ZUM_TRACE(tr, traceLevel) << "numFreeEntries increased by " << n << ", now = " << numFreeEntries_;
  if (n != 0) notify(&Notifiee::onNumFreeEntries);
}

void BestFitAllocator::numFreeEntriesDec(U32 n) {
  numFreeEntries_ -= n;
  ZUM_TRACE(tr, traceLevel) << "numFreeEntries decreased by " << n << ", now = " << numFreeEntries_;
  if (n != 0) notify(&Notifiee::onNumFreeEntries);
}

void BestFitAllocator::memSzIs(U32 memSz) {
  attributeIs(memSz_, memSz, &Notifiee::onMemSz);
}

void BestFitAllocator::doAddFreeBlk(U32 blkSz, U32 startIndex) {
  ZUM_TRACE(tr, traceLevel) << "Adding free blk: sz " << blkSz << ", index " << startIndex;
  if (blkSz == 0) return;
  if (startIndex > 0) {
    if (U32 below = freeBlkEndIndexToSz(startIndex - 1)) {
      doRemoveFreeBlk(below, startIndex - below);
      startIndex -= below;
      blkSz += below;
    }
  }
  if (startIndex + blkSz <= memSz_ - 1) {
    if (U32 above = freeBlkStartIndexToSz(startIndex + blkSz)) {
      doRemoveFreeBlk(above, startIndex + blkSz);
      blkSz += above;
    }
  }
  if (blkSz <= maxBlkSz_) {
    if (!freeBlkSet(blkSz)) {
      ZUM_TRACE(tr, traceLevel) << "Creating freeBlkSet for blkSz = " << blkSz;
      freeBlkSet_.try_emplace(blkSz);
    }
    ZUM_ASSERT( !freeBlkSet( blkSz )->freeBlk( startIndex ) );
    freeBlkSet_[blkSz].freeBlk_.insert(startIndex);
  } else {
    ZUM_ASSERT( !jumboFreeBlk( BFA::JumboFreeBlk( blkSz, startIndex ) ) );
    jumboFreeBlk_.insert(BFA::JumboFreeBlk(blkSz, startIndex));
  }
  ZUM_ASSERT( freeBlkStartIndexToSz( startIndex ) == 0 );
  ZUM_ASSERT( freeBlkEndIndexToSz( startIndex + blkSz - 1 ) == 0 );
  freeBlkStartIndexToSz_[startIndex] = blkSz;
  freeBlkEndIndexToSz_[startIndex + blkSz - 1] = blkSz;
}

void BestFitAllocator::doRemoveFreeBlk(U32 blkSz, U32 startIndex) {
  ZUM_TRACE(tr, traceLevel) << "Removing free blk: sz " << blkSz << ", index " << startIndex;
  if (blkSz > maxBlkSz_) {
    ZUM_ASSERT( jumboFreeBlk( BFA::JumboFreeBlk( blkSz, startIndex ) ) );
    jumboFreeBlk_.erase(BFA::JumboFreeBlk(blkSz, startIndex));
  } else {
    ZUM_ASSERT( freeBlkSet( blkSz ) );
    ZUM_ASSERT( freeBlkSet( blkSz )->freeBlk( startIndex ) );
    auto set = freeBlkSet_.find(blkSz);
    set->second.freeBlk_.erase(startIndex);
    if (set->second.freeBlk_.empty()) {
      ZUM_TRACE(tr, traceLevel) << "Deleting freeBlkSet for blkSz = " << blkSz;
      freeBlkSet_.erase(set);
    }
  }
  ZUM_ASSERT( freeBlkStartIndexToSz( startIndex ) > 0 );
  ZUM_ASSERT( freeBlkEndIndexToSz( startIndex + blkSz - 1 ) > 0 );
  freeBlkStartIndexToSz_.erase(startIndex);
  freeBlkEndIndexToSz_.erase(startIndex + blkSz - 1);
}

Ptr<BFA::Blk> BestFitAllocator::newBlk(U32 blkSz, U32 startIndex) {
  numFreeEntriesDec(blkSz);
  Ptr<BFA::Blk> blk = BFA::blkFactory(blkSz, Ptr<BestFitAllocator>(this));
  blk->indexIs(startIndex + offset_);
  inUseBlock_[blk->index()] = blk.ptr();
  return blk;
}

Ptr<BFA::Blk> BestFitAllocator::alloc(U32 blkSz) {
  ZUM_TRACE(tr, traceLevel) << "Alloc: blkSz " << blkSz;
  ZUM_ASSERT( blkSz );
  ZUM_ASSERT( blkSz <= maxBlkSz() );
  U32 freeSz = 0;
  U32 startIndex = 0;
  if (auto fit = freeBlkSet_.lower_bound(blkSz); fit != freeBlkSet_.end()) {
    freeSz = fit->first;
    startIndex = *fit->second.freeBlk_.begin();
  } else if (!jumboFreeBlk_.empty()) {
    freeSz = jumboFreeBlk_.begin()->blkSz;
    startIndex = jumboFreeBlk_.begin()->startIndex;
  } else {
    ZUM_TRACE(tr, traceLevel) << "Alloc: blkSz " << blkSz << ", no free blk available";
    return nullptr;
  }
  doRemoveFreeBlk(freeSz, startIndex);
  if (freeSz > blkSz) doAddFreeBlk(freeSz - blkSz, startIndex + blkSz);
  ZUM_TRACE(tr, traceLevel) << "Alloc: blkSz " << blkSz << ", startIndex " << startIndex;
  return newBlk(blkSz, startIndex);
}

Ptr<BFA::Blk> BestFitAllocator::realloc(U32 startIndex, U32 blkSz) {
  ZUM_TRACE(tr, traceLevel) << "Realloc: startIndex " << startIndex << ", blkSz " << blkSz << ", memSz " << memSz_;
  ZUM_ASSERT( blkSz );
  ZUM_ASSERT( blkSz <= maxBlkSz() );
  ZUM_ASSERT( startIndex + blkSz <= memSz() );
  auto free = freeBlkEndIndexToSz_.lower_bound(startIndex);
  if (free == freeBlkEndIndexToSz_.end()) {
    ZUM_TRACE(tr, traceLevel) << "No free blocks after startIndex";
    return nullptr;
  }
  const U32 freeEnd = free->first;
  const U32 freeSz = free->second;
  const U32 freeStart = freeEnd - freeSz + 1;
  const U32 blkEnd = startIndex + blkSz - 1;
  if (!(freeStart <= startIndex && blkEnd <= freeEnd)) {
    ZUM_TRACE(tr, traceLevel) << "Not all the required entries are free.";
    return nullptr;
  }
  doRemoveFreeBlk(freeSz, freeStart);
  if (startIndex != freeStart) {
    ZUM_TRACE(tr, traceLevel) << "Adding a free block up till startIndex.";
    doAddFreeBlk(startIndex - freeStart, freeStart);
  }
  if (blkEnd != freeEnd) {
    ZUM_TRACE(tr, traceLevel) << "Adding a free block after new realloced block ends.";
    doAddFreeBlk(freeEnd - blkEnd, blkEnd + 1);
  }
  ZUM_TRACE(tr, traceLevel) << "Realloc: blkSz " << blkSz << ", startIndex " << startIndex;
  return newBlk(blkSz, startIndex);
}

void BestFitAllocator::handleFree(BFA::Blk* blk) {
  const U32 startIndex = blk->index() - offset_;
  const U32 blkSz = blk->size();
  ZUM_TRACE(tr, traceLevel) << "Free: startIndex " << startIndex << ", blkSz " << blkSz;
  ZUM_ASSERT( blkSz );
  inUseBlock_.erase(blk->index());
  doAddFreeBlk(blkSz, startIndex);
  numFreeEntriesInc(blkSz);
}

void BestFitAllocator::traceBlks(const char* freeTitle, const char* usedTitle) const {
  if (!tr.on(traceLevel)) return;
  ZUM_TRACE(tr, traceLevel) << freeTitle;
  for (const auto& [start, size] : freeBlkStartIndexToSz_) {
    ZUM_TRACE(tr, traceLevel) << "start index = " << start << ", Size = " << size;
  }
  ZUM_TRACE(tr, traceLevel) << usedTitle;
  for (const auto& [index, blk] : inUseBlock_) {
    ZUM_TRACE(tr, traceLevel) << "start index = " << index - offset_ << ", Size = " << blk->size();
  }
}

void BestFitAllocator::moveBlkIntoLowestHole(BFA::PendingCmds* log) {
  auto freeBlk = freeBlkStartIndexToSz_.begin();
  ZUM_ASSERT_TEXT(freeBlk != freeBlkStartIndexToSz_.end(), "freeBlk");
  const U32 holeStart = freeBlk->first;
  const U32 holeSz = freeBlk->second;
  auto i = inUseBlock_.find(holeStart + holeSz + offset_);
  ZUM_ASSERT_TEXT(i != inUseBlock_.end(), "i");
  BFA::Blk* blk = i->second;
  const U32 oldStart = holeStart + holeSz;
  const U32 blkSz = blk->size();

  doRemoveFreeBlk(holeSz, holeStart);
  doAddFreeBlk(blkSz, oldStart);
  inUseBlock_.erase(i);
  inUseBlock_[holeStart + offset_] = blk;
  if (blkSz < holeSz) {
    doAddFreeBlk(holeSz - blkSz, holeStart + blkSz);
  } else if (blkSz > holeSz) {
    // The block still covers the low part of its old span: take it back.
    const U32 overlap = blkSz - holeSz;
    const U32 freeSz = freeBlkStartIndexToSz(oldStart);
    doRemoveFreeBlk(freeSz, oldStart);
    doAddFreeBlk(freeSz - overlap, holeStart + blkSz);
  }
  log->pendingCmdLogEnq(BFA::PendingCmd{blk->index(), Ptr<BFA::Blk>(blk)});
  blk->indexIs(holeStart + offset_);
}

Ptr<BFA::PendingCmds> BestFitAllocator::defragment() {
  Ptr<BFA::PendingCmds> log = BFA::pendingCmdsFactory();
  traceBlks("Free blocks before defragmenting", "Used blocks before defragmenting");
  if (freeBlkEndIndexToSz_.empty()) {
    ZUM_TRACE(tr, traceLevel) << "No free blocks. Returning.";
    return log;
  }
  while (freeBlkEndIndexToSz_.begin()->first != memSz_ - 1) moveBlkIntoLowestHole(log.ptr());
  ZUM_ASSERT_TEXT(freeBlkStartIndexToSz_.size() == 1 && freeBlkEndIndexToSz_.size() == 1 &&
                      freeBlkEndIndexToSz_.begin()->first == memSz_ - 1,
                  "( freeBlkStartIndexToSzs() == 1 ) && ( freeBlkEndIndexToSzs() == 1 ) && "
                  "( freeBlkEndIndexToSzIterator().key() == memSz() - 1 )");
  traceBlks("Free blocks after defragmenting", "Used blocks after defragmenting");
  return log;
}

Ptr<BFA::PendingCmds> BestFitAllocator::resizeMemory(U32 newSz) {
  ZUM_TRACE(tr, traceLevel) << "Resize memory: old size = " << memSz_ << ", new size = " << newSz;
  Ptr<BFA::PendingCmds> result;
  if (newSz > memSz_) {
    const U32 growth = newSz - memSz_;
    doAddFreeBlk(growth, memSz_);
    memSzIs(newSz);
    numFreeEntriesInc(growth);
    return result;
  }
  if (newSz == memSz_ || freeBlkStartIndexToSz_.empty()) return result;
  U32 shrink = memSz_ - newSz;
  U32 tailSz = freeBlkEndIndexToSz(memSz_ - 1);
  if (tailSz < shrink) {
    result = defragment();
    tailSz = freeBlkEndIndexToSz(memSz_ - 1);
    shrink = std::min(shrink, tailSz);
  }
  const U32 tailStart = memSz_ - tailSz;
  doRemoveFreeBlk(tailSz, tailStart);
  if (shrink < tailSz) doAddFreeBlk(tailSz - shrink, tailStart);
  memSzIs(memSz_ - shrink);
  numFreeEntriesDec(shrink);
  return result;
}

}  // namespace Olk
