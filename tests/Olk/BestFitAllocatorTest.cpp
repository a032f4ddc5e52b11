#include "Olk/BestFitAllocator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "platform/Trace.h"

using namespace Olk;

namespace {

// Checks every invariant the allocator promises, from its public records:
// used and free blocks tile the memory, free blocks never touch, each free
// block is filed once in the right size index and in both index maps, and
// numFreeEntries is the sum of the free sizes.
void checkInvariants(const BestFitAllocator& a) {
  std::vector<int> owner(a.memSz(), 0);  // 0 unclaimed, 1 free, 2 used
  U64 freeSum = 0;
  U64 filed = 0;
  U32 prevEnd = 0;
  bool first = true;
  for (const auto& [start, sz] : a.freeBlkStartIndexToSzMap()) {
    ASSERT_GT(sz, 0u);
    ASSERT_LE(U64(start) + sz, a.memSz());
    if (!first) {
      ASSERT_GT(start, prevEnd + 1) << "free blocks touch at " << start;
    }
    first = false;
    prevEnd = start + sz - 1;
    ASSERT_EQ(a.freeBlkEndIndexToSz(prevEnd), sz);
    if (sz > a.maxBlkSz()) {
      ASSERT_TRUE(a.jumboFreeBlk(BFA::JumboFreeBlk(sz, start)));
    } else {
      ASSERT_NE(a.freeBlkSet(sz), nullptr);
      ASSERT_TRUE(a.freeBlkSet(sz)->freeBlk(start));
    }
    for (U32 i = start; i < start + sz; ++i) owner[i] = 1;
    freeSum += sz;
  }
  ASSERT_EQ(a.freeBlkEndIndexToSzs(), a.freeBlkStartIndexToSzs());
  for (const auto& [sz, set] : a.freeBlkSetMap()) {
    ASSERT_FALSE(set.freeBlks().empty());
    filed += set.freeBlks().size();
  }
  filed += a.jumboFreeBlkSet().size();
  ASSERT_EQ(filed, a.freeBlkStartIndexToSzs());
  ASSERT_EQ(freeSum, a.numFreeEntries());
  for (const auto& [index, blk] : a.inUseBlockMap()) {
    ASSERT_EQ(blk->index(), index);
    const U32 start = index - a.offset();
    ASSERT_LE(U64(start) + blk->size(), a.memSz());
    for (U32 i = start; i < start + blk->size(); ++i) {
      ASSERT_EQ(owner[i], 0) << "entry " << i << " claimed twice";
      owner[i] = 2;
    }
  }
  ASSERT_EQ(std::count(owner.begin(), owner.end(), 0), 0) << "memory not tiled";
}

std::vector<std::pair<U32, U32>> freeBlocks(const BestFitAllocator& a) {
  return {a.freeBlkStartIndexToSzMap().begin(), a.freeBlkStartIndexToSzMap().end()};
}

using Blocks = std::vector<std::pair<U32, U32>>;

}  // namespace

TEST(BestFitAllocator, FreshMemoryIsOneJumboBlockCutFromTheLowEnd) {
  auto a = bestFitAllocatorFactory(100, 1000, 10);
  EXPECT_EQ(a->jumboFreeBlkSet(), (std::set<BFA::JumboFreeBlk>{BFA::JumboFreeBlk(100, 0)}));
  EXPECT_EQ(a->numFreeEntries(), 100u);
  auto b = a->alloc(4);
  ASSERT_TRUE(b);
  EXPECT_EQ(b->index(), 1000u);
  EXPECT_EQ(b->size(), 4u);
  EXPECT_EQ(a->jumboFreeBlkSet(), (std::set<BFA::JumboFreeBlk>{BFA::JumboFreeBlk(96, 4)}));
  EXPECT_EQ(a->numFreeEntries(), 96u);
  EXPECT_EQ(a->inUseBlock(1000), b.ptr());
  checkInvariants(*a);
}

TEST(BestFitAllocator, DroppingTheLastPointerFreesAndCoalesces) {
  auto a = bestFitAllocatorFactory(30, 0, 10);
  auto b1 = a->alloc(5);
  auto b2 = a->alloc(5);
  auto b3 = a->alloc(5);
  auto keep = a->alloc(5);
  b1 = nullptr;
  b3 = nullptr;
  EXPECT_EQ(freeBlocks(*a), (Blocks{{0, 5}, {10, 5}, {20, 10}}));
  auto copy = b2;
  b2 = nullptr;  // still referenced
  EXPECT_EQ(a->numFreeEntries(), 20u);
  copy = nullptr;  // between two free blocks: one block from 0 to 14
  EXPECT_EQ(freeBlocks(*a), (Blocks{{0, 15}, {20, 10}}));
  EXPECT_EQ(a->numFreeEntries(), 25u);
  EXPECT_EQ(a->inUseBlockMap().size(), 1u);
  checkInvariants(*a);
}

TEST(BestFitAllocator, BestFitPrefersSmallestOrdinaryBlockOverJumbo) {
  auto a = bestFitAllocatorFactory(100, 0, 10);
  std::vector<Ptr<BFA::Blk>> b;
  for (U32 sz : {3u, 1u, 8u, 1u}) b.push_back(a->alloc(sz));
  b[0] = nullptr;  // free 0..2 (size 3)
  b[2] = nullptr;  // free 4..11 (size 8)
  auto five = a->alloc(5);
  ASSERT_TRUE(five);
  EXPECT_EQ(five->index(), 4u);
  EXPECT_EQ(freeBlocks(*a), (Blocks{{0, 3}, {9, 3}, {13, 87}}));
  auto three = a->alloc(3);  // two size-3 blocks; either is a best fit
  ASSERT_TRUE(three);
  EXPECT_TRUE(three->index() == 0 || three->index() == 9);
  checkInvariants(*a);
}

TEST(BestFitAllocator, ExhaustionReturnsNullAndTraces) {
  Zum::TraceCapture capture(7);
  auto a = bestFitAllocatorFactory(12, 0, 6);
  auto b1 = a->alloc(6);
  auto b2 = a->alloc(5);
  EXPECT_FALSE(a->alloc(2));
  EXPECT_TRUE(capture.contains("Alloc: blkSz 2, no free blk available"));
  auto last = a->alloc(1);
  EXPECT_TRUE(last);
  EXPECT_EQ(a->numFreeEntries(), 0u);
}

TEST(BestFitAllocator, TracesEachStepAtLevel7) {
  Zum::TraceCapture capture(7);
  auto a = bestFitAllocatorFactory(20, 100, 4);
  auto b = a->alloc(4);
  b = nullptr;
  const std::vector<std::string> expected = {
      "memSz = 20, offset = 100, maxBlkSz = 4",
      "Adding free blk: sz 20, index 0",
      "Initialized allocator: memSz 20 offset 100 maxBlkSz 4",
      "Alloc: blkSz 4",
      "Removing free blk: sz 20, index 0",
      "Adding free blk: sz 16, index 4",
      "Alloc: blkSz 4, startIndex 0",
      "numFreeEntries decreased by 4, now = 16",
      "Free: startIndex 0, blkSz 4",
      "Adding free blk: sz 4, index 0",
      "Removing free blk: sz 16, index 4",
      "numFreeEntries increased by 4, now = 20",
  };
  EXPECT_EQ(capture.texts(), expected);
  for (const auto& r : capture.records()) {
    EXPECT_EQ(r.level, 7);
    EXPECT_EQ(r.handle->name(), "BestFitAllocator");
  }
}

TEST(BestFitAllocator, FreeBlkSetsAreCreatedAndDeletedWithTheirLastBlock) {
  Zum::TraceCapture capture(7);
  auto a = bestFitAllocatorFactory(20, 0, 5);
  auto b1 = a->alloc(2);
  auto b2 = a->alloc(1);
  b1 = nullptr;
  ASSERT_NE(a->freeBlkSet(2), nullptr);
  EXPECT_TRUE(capture.contains("Creating freeBlkSet for blkSz = 2"));
  auto b3 = a->alloc(2);
  EXPECT_EQ(a->freeBlkSet(2), nullptr);
  EXPECT_TRUE(capture.contains("Deleting freeBlkSet for blkSz = 2"));
}

TEST(BestFitAllocator, ReallocOverPartlyFreeSpanChangesNothing) {
  Zum::TraceCapture capture(7);
  auto a = bestFitAllocatorFactory(50, 10, 8);
  auto b1 = a->alloc(4);  // 0..3
  auto b2 = a->alloc(4);  // 4..7
  b1 = nullptr;
  const Blocks before = freeBlocks(*a);
  EXPECT_FALSE(a->realloc(2, 4));  // 2..5, 4 and 5 in use
  EXPECT_TRUE(capture.contains("Not all the required entries are free."));
  EXPECT_EQ(freeBlocks(*a), before);
  EXPECT_EQ(a->numFreeEntries(), 46u);

  auto r = a->realloc(20, 8);  // inside the tail block 8..49
  ASSERT_TRUE(r);
  EXPECT_EQ(r->index(), 30u);
  EXPECT_EQ(freeBlocks(*a), (Blocks{{0, 4}, {8, 12}, {28, 22}}));
  EXPECT_TRUE(capture.contains("Adding a free block up till startIndex."));
  EXPECT_TRUE(capture.contains("Adding a free block after new realloced block ends."));
  auto exact = a->realloc(0, 4);  // a whole free block
  ASSERT_TRUE(exact);
  EXPECT_EQ(exact->index(), 10u);
  checkInvariants(*a);
}

TEST(BestFitAllocator, ReallocBeyondTheLastFreeBlock) {
  Zum::TraceCapture capture(7);
  auto a = bestFitAllocatorFactory(10, 0, 5);
  auto b1 = a->alloc(5);
  auto b2 = a->alloc(5);
  b1 = nullptr;
  EXPECT_FALSE(a->realloc(6, 2));
  EXPECT_TRUE(capture.contains("No free blocks after startIndex"));
}

TEST(BestFitAllocator, DefragmentWithoutFreeEntriesReturnsAnEmptyLog) {
  Zum::TraceCapture capture(7);
  auto a = bestFitAllocatorFactory(10, 0, 5);
  auto b1 = a->alloc(5);
  auto b2 = a->alloc(5);
  auto log = a->defragment();
  ASSERT_TRUE(log);
  EXPECT_EQ(log->pendingCmdLogs(), 0u);
  EXPECT_TRUE(capture.contains("No free blocks. Returning."));
}

TEST(BestFitAllocator, DefragmentMovesTheBlockAfterTheHoleDown) {
  auto a = bestFitAllocatorFactory(10, 100, 5);
  auto A = a->alloc(2);
  auto hole = a->alloc(3);
  auto B = a->alloc(5);
  ASSERT_EQ(B->index(), 105u);
  hole = nullptr;
  Zum::TraceCapture capture(7);
  auto log = a->defragment();
  ASSERT_EQ(log->pendingCmdLogs(), 1u);
  const BFA::PendingCmd& cmd = log->pendingCmdLog(log->pendingCmdLogMetadata().head);
  EXPECT_EQ(cmd.oldIndex, 105u);
  EXPECT_EQ(cmd.blk, B);
  EXPECT_EQ(B->index(), 102u);
  EXPECT_EQ(A->index(), 100u);
  EXPECT_EQ(freeBlocks(*a), (Blocks{{7, 3}}));
  EXPECT_EQ(a->inUseBlock(102), B.ptr());
  EXPECT_EQ(a->inUseBlock(105), nullptr);
  EXPECT_EQ(valueToStrep(cmd),
            "Value('Olk::BFA::PendingCmd', ** {'oldIndex': 105, 'blk': Value('Olk::BFA::Blk', ** {'size': 5, "
            "'index': 102})})");
  EXPECT_TRUE(capture.contains("start index = 2, Size = 3"));
  EXPECT_TRUE(capture.contains("Used blocks after defragmenting"));
  checkInvariants(*a);
  // The log keeps its blocks: B is freed only when both let go.
  B = nullptr;
  EXPECT_EQ(a->numFreeEntries(), 3u);
  log = nullptr;
  EXPECT_EQ(a->numFreeEntries(), 8u);
}

TEST(BestFitAllocator, DefragmentHandlesHolesLargerThanTheBlock) {
  auto a = bestFitAllocatorFactory(20, 0, 6);
  auto h1 = a->alloc(6);
  auto b1 = a->alloc(2);
  auto h2 = a->alloc(1);
  auto b2 = a->alloc(6);
  h1 = nullptr;
  h2 = nullptr;
  auto log = a->defragment();
  ASSERT_EQ(log->pendingCmdLogs(), 2u);
  EXPECT_EQ(log->pendingCmdLogDeq().oldIndex, 6u);
  EXPECT_EQ(log->pendingCmdLogDeq().oldIndex, 9u);
  EXPECT_EQ(b1->index(), 0u);
  EXPECT_EQ(b2->index(), 2u);
  EXPECT_EQ(freeBlocks(*a), (Blocks{{8, 12}}));
  EXPECT_EQ(log->pendingCmdLogMetadata().head, 2u);
  checkInvariants(*a);
}

TEST(BestFitAllocator, GrowingMergesWithTheFreeTail) {
  auto a = bestFitAllocatorFactory(10, 0, 4);
  auto b = a->alloc(4);
  EXPECT_FALSE(a->resizeMemory(16));
  EXPECT_EQ(a->memSz(), 16u);
  EXPECT_EQ(freeBlocks(*a), (Blocks{{4, 12}}));
  EXPECT_EQ(a->numFreeEntries(), 12u);
  checkInvariants(*a);
}

TEST(BestFitAllocator, ShrinkingUsesTheFreeTailWithoutMoving) {
  auto a = bestFitAllocatorFactory(20, 0, 4);
  auto b = a->alloc(4);
  EXPECT_FALSE(a->resizeMemory(12));
  EXPECT_EQ(a->memSz(), 12u);
  EXPECT_EQ(freeBlocks(*a), (Blocks{{4, 8}}));
  EXPECT_FALSE(a->resizeMemory(4));  // the whole tail
  EXPECT_EQ(a->memSz(), 4u);
  EXPECT_TRUE(a->freeBlkStartIndexToSzMap().empty());
  EXPECT_FALSE(a->resizeMemory(2));  // no free entries: ignored
  EXPECT_EQ(a->memSz(), 4u);
  checkInvariants(*a);
}

// Deliberate: the memory never shrinks below its used entries.
TEST(BestFitAllocator, ShrinkBelowUsedEntriesDefragmentsAndIsClamped) {
  auto a = bestFitAllocatorFactory(20, 0, 5);
  auto hole = a->alloc(5);
  auto b1 = a->alloc(5);
  auto b2 = a->alloc(5);
  hole = nullptr;  // free: 0..4 and 15..19
  auto log = a->resizeMemory(3);
  ASSERT_TRUE(log);
  EXPECT_EQ(log->pendingCmdLogs(), 2u);
  EXPECT_EQ(a->memSz(), 10u);
  EXPECT_EQ(a->numFreeEntries(), 0u);
  EXPECT_EQ(b1->index(), 0u);
  EXPECT_EQ(b2->index(), 5u);
  checkInvariants(*a);
}

TEST(BestFitAllocator, BlocksKeepTheirAllocatorAlive) {
  auto a = bestFitAllocatorFactory(10, 0, 5);
  auto b = a->alloc(3);
  BestFitAllocator* raw = a.ptr();
  a = nullptr;
  EXPECT_EQ(b->allocator().ptr(), raw);
  EXPECT_EQ(raw->numFreeEntries(), 7u);
  b = nullptr;  // frees into the allocator, then the allocator goes
}

TEST(BestFitAllocator, ConstructionArgumentsAreChecked) {
  EXPECT_DEATH(bestFitAllocatorFactory(0, 0, 1), "memSz\\(\\)");
  EXPECT_DEATH(bestFitAllocatorFactory(10, 0xFFFFFFFF - 10, 5),
               "\\( memSz\\(\\) \\+ offset\\(\\) \\) < 0xFFFFFFFF");
  EXPECT_DEATH(bestFitAllocatorFactory(10, 0, 0), "maxBlkSz\\(\\)");
  EXPECT_DEATH(bestFitAllocatorFactory(10, 0, 10), "maxBlkSz\\(\\) < memSz\\(\\)");
  // Deliberate: a sum that wraps past 0xFFFFFFFF is not caught.
  auto wrapped = bestFitAllocatorFactory(10, 0xFFFFFFFF - 5, 5);
  EXPECT_EQ(wrapped->numFreeEntries(), 10u);
}

TEST(BestFitAllocator, RequestSizesAreChecked) {
  auto a = bestFitAllocatorFactory(10, 0, 5);
  EXPECT_DEATH(a->alloc(0), "blkSz");
  EXPECT_DEATH(a->alloc(6), "blkSz <= maxBlkSz\\(\\)");
  EXPECT_DEATH(a->realloc(0, 0), "blkSz");
  EXPECT_DEATH(a->realloc(0, 6), "blkSz <= maxBlkSz\\(\\)");
  EXPECT_DEATH(a->realloc(8, 3), "startIndex \\+ blkSz <= memSz\\(\\)");
}

TEST(BestFitAllocator, JumboFreeBlkTextForm) {
  BFA::JumboFreeBlk j(96, 4);
  EXPECT_EQ(valueToStrep(j), "Value('Olk::BFA::JumboFreeBlk', ** {'blkSz': 96, 'startIndex': 4})");
  EXPECT_EQ(strepToValue<BFA::JumboFreeBlk>(valueToStrep(j)), j);
  EXPECT_LT(BFA::JumboFreeBlk(11, 50), BFA::JumboFreeBlk(12, 0));
  EXPECT_LT(BFA::JumboFreeBlk(11, 0), BFA::JumboFreeBlk(11, 50));
}

// Random alloc/free/realloc/defragment/resize against a model of the memory:
// each entry holds a tag of the block owning it; replaying every defragment
// log on that memory must carry each block's contents to its new index.
TEST(BestFitAllocator, RandomOperationsKeepInvariantsAndDefragmentLogsReplay) {
  std::mt19937 rng(5150);
  const U32 offset = 7000;
  auto a = bestFitAllocatorFactory(400, offset, 24);
  std::vector<Ptr<BFA::Blk>> held;
  std::vector<U64> memory(a->memSz(), 0);  // the simulated table
  U64 nextTag = 1;
  int moves = 0;
  int nulls = 0;
  int clamped = 0;
  auto fill = [&](const Ptr<BFA::Blk>& b) {
    const U64 tag = nextTag++;
    for (U32 i = 0; i < b->size(); ++i) memory[b->index() - offset + i] = tag << 16 | i;
  };
  auto contentsIntact = [&](const Ptr<BFA::Blk>& b) {
    const U64 tag = memory[b->index() - offset] >> 16;
    for (U32 i = 0; i < b->size(); ++i) {
      if (memory[b->index() - offset + i] != (tag << 16 | i)) return false;
    }
    return true;
  };
  auto replay = [&](const Ptr<BFA::PendingCmds>& log) {
    while (log->pendingCmdLogs() != 0) {
      BFA::PendingCmd cmd = log->pendingCmdLogDeq();
      const U32 from = cmd.oldIndex - offset;
      const U32 to = cmd.blk->index() - offset;
      ASSERT_LT(to, from);
      ++moves;
      for (U32 i = 0; i < cmd.blk->size(); ++i) memory[to + i] = memory[from + i];  // low to high
    }
  };
  for (int op = 0; op < 4000; ++op) {
    const U32 kind = rng() % 20;
    if (kind < 9) {
      const U32 sz = 1 + rng() % a->maxBlkSz();
      auto b = a->alloc(sz);
      // Null only when no free block is large enough.
      U32 largest = 0;
      for (const auto& kv : a->freeBlkStartIndexToSzMap()) largest = std::max(largest, kv.second);
      if (!b) {
        ++nulls;
        ASSERT_LT(largest, sz);
      } else {
        fill(b);
        held.push_back(b);
      }
    } else if (kind < 16 && !held.empty()) {
      std::swap(held[rng() % held.size()], held.back());
      held.pop_back();
    } else if (kind < 18) {
      const U32 sz = 1 + rng() % a->maxBlkSz();
      if (sz > a->memSz()) continue;
      const U32 start = rng() % (a->memSz() - sz + 1);
      bool spanFree = true;
      for (U32 i = start; i < start + sz; ++i) {
        for (const auto& [index, blk] : a->inUseBlockMap()) {
          if (i + offset >= index && i + offset < index + blk->size()) spanFree = false;
        }
      }
      auto b = a->realloc(start, sz);
      ASSERT_EQ(static_cast<bool>(b), spanFree);
      if (b) {
        fill(b);
        held.push_back(b);
      }
    } else if (kind == 18) {
      auto log = a->defragment();
      replay(log);
      if (a->numFreeEntries() != 0) {
        ASSERT_EQ(a->freeBlkStartIndexToSzs(), 1u);
        ASSERT_EQ(a->freeBlkEndIndexToSz(a->memSz() - 1), a->numFreeEntries());
      }
    } else {
      const U32 newSz = 300 + rng() % 200;
      const U32 oldSz = a->memSz();
      const U32 oldFree = a->numFreeEntries();
      const U32 used = oldSz - oldFree;
      auto log = a->resizeMemory(newSz);
      if (log) replay(log);
      if (newSz >= oldSz) {
        ASSERT_EQ(a->memSz(), newSz);
      } else if (oldFree == 0) {
        ASSERT_EQ(a->memSz(), oldSz);
      } else {
        ASSERT_EQ(a->memSz(), std::max(newSz, used));  // clamped at the used entries
        clamped += newSz < used;
      }
      memory.resize(std::max<size_t>(memory.size(), a->memSz()));
    }
    checkInvariants(*a);
    for (const auto& b : held) ASSERT_TRUE(contentsIntact(b)) << "block at " << b->index();
  }
  // The run must have reached the interesting states.
  EXPECT_GT(moves, 100);
  EXPECT_GT(nulls, 10);
  EXPECT_GT(clamped, 3);
}
