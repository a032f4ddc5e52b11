#include "Olk/BestFitAllocator.h"

#include <gtest/gtest.h>

#include <vector>

#include "platform/Trace.h"

using namespace Olk;

// Where blocks land, how free space is counted and what moves do to the
// entries are checked against a model by the allocator's fuzz target; these
// cases pin the traces, the text forms, the lifetimes and the assertions.

TEST(BestFitAllocator, FreshMemoryIsOneJumboBlockCutFromTheLowEnd) {
  auto a = bestFitAllocatorFactory(100, 1000, 10);
  EXPECT_EQ(a->jumboFreeBlkSet(), (std::set<BFA::JumboFreeBlk>{BFA::JumboFreeBlk(100, 0)}));
  auto b = a->alloc(4);
  ASSERT_TRUE(b);
  EXPECT_EQ(b->index(), 1000u);
  EXPECT_EQ(a->jumboFreeBlkSet(), (std::set<BFA::JumboFreeBlk>{BFA::JumboFreeBlk(96, 4)}));
  EXPECT_EQ(a->numFreeEntries(), 96u);
  EXPECT_EQ(a->inUseBlock(1000), b.ptr());
  EXPECT_EQ(valueToStrep(BFA::JumboFreeBlk(96, 4)),
            "Value('Olk::BFA::JumboFreeBlk', ** {'blkSz': 96, 'startIndex': 4})");
}

TEST(BestFitAllocator, TracesEachStepAtLevel7AndExhaustionReturnsNull) {
  Zum::TraceCapture capture(7);
  auto a = bestFitAllocatorFactory(10, 100, 4);
  auto b = a->alloc(4);
  auto c = a->alloc(2);
  b = nullptr;
  auto d = a->alloc(4);
  auto e = a->alloc(4);  // the two free blocks of 4 go in the set's own order
  EXPECT_TRUE(d && e);
  EXPECT_FALSE(a->alloc(1));
  const std::vector<std::string> texts = capture.texts();
  const std::vector<std::string> start = {
      "memSz = 10, offset = 100, maxBlkSz = 4",
      "Adding free blk: sz 10, index 0",
      "Initialized allocator: memSz 10 offset 100 maxBlkSz 4",
      "Alloc: blkSz 4",
      "Removing free blk: sz 10, index 0",
      "Adding free blk: sz 6, index 4",
      "Alloc: blkSz 4, startIndex 0",
      "numFreeEntries decreased by 4, now = 6",
  };
  ASSERT_GT(texts.size(), start.size());
  EXPECT_EQ(std::vector<std::string>(texts.begin(), texts.begin() + start.size()), start);
  for (const char* text : {"Creating freeBlkSet for blkSz = 4", "Free: startIndex 0, blkSz 4",
                           "numFreeEntries increased by 4, now = 8"}) {
    EXPECT_TRUE(capture.contains(text)) << text;
  }
  EXPECT_TRUE(capture.contains("Deleting freeBlkSet for blkSz = 4"));
  EXPECT_EQ(texts.back(), "Alloc: blkSz 1, no free blk available");
  for (const auto& r : capture.records()) {
    EXPECT_EQ(r.level, 7);
    EXPECT_EQ(r.handle->name(), "BestFitAllocator");
  }
}

TEST(BestFitAllocator, ReallocTracesWhyItFailsAndHowItSplitsAFreeBlock) {
  Zum::TraceCapture capture(7);
  auto a = bestFitAllocatorFactory(50, 10, 8);
  auto b1 = a->alloc(4);  // 0..3
  auto b2 = a->alloc(4);  // 4..7
  b1 = nullptr;
  EXPECT_FALSE(a->realloc(2, 4));  // 4 and 5 in use
  EXPECT_TRUE(capture.contains("Not all the required entries are free."));
  auto r = a->realloc(20, 8);  // inside the tail block 8..49
  EXPECT_EQ(r->index(), 30u);
  EXPECT_TRUE(capture.contains("Adding a free block up till startIndex."));
  EXPECT_TRUE(capture.contains("Adding a free block after new realloced block ends."));
  auto tail = a->realloc(42, 8);
  EXPECT_FALSE(a->realloc(45, 1));
  EXPECT_TRUE(capture.contains("No free blocks after startIndex"));
}

TEST(BestFitAllocator, DefragmentWithoutFreeEntriesReturnsAnEmptyLog) {
  Zum::TraceCapture capture(7);
  auto a = bestFitAllocatorFactory(10, 0, 5);
  auto b1 = a->alloc(5);
  auto b2 = a->alloc(5);
  EXPECT_EQ(a->defragment()->pendingCmdLogs(), 0u);
  EXPECT_TRUE(capture.contains("No free blocks. Returning."));
}

TEST(BestFitAllocator, DefragmentMovesTheBlockAfterTheHoleDown) {
  auto a = bestFitAllocatorFactory(10, 100, 5);
  auto A = a->alloc(2);
  auto hole = a->alloc(3);
  auto B = a->alloc(5);
  hole = nullptr;
  Zum::TraceCapture capture(7);
  auto log = a->defragment();
  ASSERT_EQ(log->pendingCmdLogs(), 1u);
  const BFA::PendingCmd& cmd = log->pendingCmdLog(log->pendingCmdLogMetadata().head);
  EXPECT_EQ(cmd.oldIndex, 105u);
  EXPECT_EQ(cmd.blk, B);
  EXPECT_EQ(B->index(), 102u);
  EXPECT_EQ(a->inUseBlock(105), nullptr);
  EXPECT_EQ(valueToStrep(cmd),
            "Value('Olk::BFA::PendingCmd', ** {'oldIndex': 105, 'blk': Value('Olk::BFA::Blk', ** {'size': 5, "
            "'index': 102})})");
  EXPECT_TRUE(capture.contains("start index = 2, Size = 3"));
  B = nullptr;  // the log still holds B
  EXPECT_EQ(a->numFreeEntries(), 3u);
  log = nullptr;
  EXPECT_EQ(a->numFreeEntries(), 8u);
}

TEST(BestFitAllocator, BlocksKeepTheirAllocatorAlive) {
  auto a = bestFitAllocatorFactory(10, 0, 5);
  auto b = a->alloc(3);
  a = nullptr;
  EXPECT_EQ(b->allocator()->numFreeEntries(), 7u);
  b = nullptr;  // frees into the allocator, which then goes
}

TEST(BestFitAllocator, ArgumentsAreChecked) {
  EXPECT_DEATH(bestFitAllocatorFactory(0, 0, 1), "memSz\\(\\)");
  EXPECT_DEATH(bestFitAllocatorFactory(10, 0xFFFFFFFF - 10, 5), "\\( memSz\\(\\) \\+ offset\\(\\) \\) < 0xFFFFFFFF");
  EXPECT_DEATH(bestFitAllocatorFactory(10, 0, 0), "maxBlkSz\\(\\)");
  EXPECT_DEATH(bestFitAllocatorFactory(10, 0, 10), "maxBlkSz\\(\\) < memSz\\(\\)");
  // Deliberate: a sum that wraps past 0xFFFFFFFF is not caught.
  EXPECT_EQ(bestFitAllocatorFactory(10, 0xFFFFFFFF - 5, 5)->numFreeEntries(), 10u);
  auto a = bestFitAllocatorFactory(10, 0, 5);
  EXPECT_DEATH(a->alloc(0), "blkSz");
  EXPECT_DEATH(a->alloc(6), "blkSz <= maxBlkSz\\(\\)");
  EXPECT_DEATH(a->realloc(0, 6), "blkSz <= maxBlkSz\\(\\)");
  EXPECT_DEATH(a->realloc(8, 3), "startIndex \\+ blkSz <= memSz\\(\\)");
}
