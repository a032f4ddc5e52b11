// The best-fit allocator against an array standing for the real table.
//
// Every block, when allocated, writes its own tag into its entries of the
// array. defragment() and resizeMemory() return moves; they are replayed on
// the array in order, each copying the block's entries from its old index to
// its new one, low to high, as the caller of the allocator must. After every
// step each live block's entries must hold its tag exactly where the
// allocator says the block is: a lost, misordered or overlapping move, or
// two blocks handed the same entries, shows as a wrong tag.
//
// The model also knows where the free runs are, so it checks the choices:
// alloc() takes the smallest free run that fits (among jumbo runs the
// lowest), from its low end, and answers null only when nothing fits;
// realloc() succeeds exactly when its span is free; free space stays
// counted; defragment() packs the blocks from 0; a shrink never drops below
// the used entries.
#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "Olk/BestFitAllocator.h"

namespace {

using Olk::BestFitAllocator;
using Olk::BFA::Blk;

constexpr U32 freeTag = 0;

struct Live {
  Ptr<Blk> blk;
  U32 tag;
};

struct Run {
  U32 start, size;
};

class Model {
 public:
  Model(U32 memSz, U32 offset, U32 maxBlkSz)
      : mem_(memSz, freeTag), used_(memSz, false), offset_(offset), maxBlkSz_(maxBlkSz) {}

  // Records a new block the allocator placed; its entries must be free.
  void placed(const Ptr<Blk>& blk) {
    const U32 start = blk->index() - offset_;
    FUZZ_CHECK(start + U64{blk->size()} <= mem_.size(), "block " + where(blk) + " outside the memory");
    for (U32 i = start; i < start + blk->size(); ++i) {
      FUZZ_CHECK(!used_[i], "block " + where(blk) + " handed out over a used entry " + std::to_string(i));
    }
    const U32 tag = nextTag_++;
    for (U32 i = start; i < start + blk->size(); ++i) {
      mem_[i] = tag;
      used_[i] = true;
    }
    live_.push_back({blk, tag});
  }

  // Drops the i-th live block: the allocator gets its space back.
  void free(size_t i) {
    const Ptr<Blk>& blk = live_[i].blk;
    for (U32 e = blk->index() - offset_; e < blk->index() - offset_ + blk->size(); ++e) used_[e] = false;
    live_.erase(live_.begin() + static_cast<std::ptrdiff_t>(i));
  }

  // Copies one block's entries to where the allocator now has it.
  void replay(const Olk::BFA::PendingCmd& cmd) {
    const U32 from = cmd.oldIndex - offset_, to = cmd.blk->index() - offset_;
    FUZZ_CHECK(from + U64{cmd.blk->size()} <= mem_.size() && to + U64{cmd.blk->size()} <= mem_.size(),
               "move of " + where(cmd.blk) + " from " + std::to_string(cmd.oldIndex) + " outside the memory");
    for (U32 i = 0; i < cmd.blk->size(); ++i) mem_[to + i] = mem_[from + i];
  }

  void replayAll(const Ptr<Olk::BFA::PendingCmds>& cmds) {
    if (!cmds) return;
    const auto bounds = cmds->pendingCmdLogMetadata();
    for (U64 i = bounds.head; i < bounds.tail; ++i) replay(cmds->pendingCmdLog(i));
  }

  // After the allocator moved blocks or resized: memory and used map follow.
  void relayout(U32 memSz) {
    mem_.resize(memSz, freeTag);
    used_.assign(memSz, false);
    for (const Live& l : live_) {
      const U32 start = l.blk->index() - offset_;
      FUZZ_CHECK(start + U64{l.blk->size()} <= memSz, "block " + where(l.blk) + " left outside the memory");
      for (U32 i = start; i < start + l.blk->size(); ++i) {
        FUZZ_CHECK(!used_[i], "blocks overlap at " + std::to_string(i) + " after moves");
        used_[i] = true;
      }
    }
  }

  void expectContents() const {
    for (const Live& l : live_) {
      for (U32 i = l.blk->index() - offset_; i < l.blk->index() - offset_ + l.blk->size(); ++i) {
        FUZZ_CHECK(mem_[i] == l.tag, "entry " + std::to_string(i) + " of block " + where(l.blk) +
                                         " holds another block's data");
      }
    }
  }

  std::vector<Run> freeRuns() const {
    std::vector<Run> runs;
    for (U32 i = 0; i < used_.size(); ++i) {
      if (used_[i]) continue;
      if (runs.empty() || runs.back().start + runs.back().size != i) runs.push_back({i, 0});
      ++runs.back().size;
    }
    return runs;
  }

  // The size of the smallest free run that holds sz entries; 0 when none does.
  U32 bestFitSize(U32 sz) const {
    U32 best = 0;
    for (const Run& r : freeRuns()) {
      if (r.size >= sz && (best == 0 || r.size < best)) best = r.size;
    }
    return best;
  }
  // Whether alloc(sz) may cut from the run at `start`: one of the best-fit
  // size, any of them among ordinary runs, the lowest among jumbo runs.
  bool bestFitAt(U32 start, U32 sz) const {
    const U32 best = bestFitSize(sz);
    for (const Run& r : freeRuns()) {
      if (r.size != best) continue;
      if (r.start == start) return true;
      if (best > maxBlkSz_) return false;
    }
    return false;
  }

  bool spanFree(U32 start, U32 sz) const {
    for (U32 i = start; i < start + sz; ++i) {
      if (used_[i]) return false;
    }
    return true;
  }

  U32 usedEntries() const {
    U32 n = 0;
    for (const Live& l : live_) n += l.blk->size();
    return n;
  }
  size_t lives() const { return live_.size(); }
  U32 memSz() const { return static_cast<U32>(mem_.size()); }

 private:
  std::string where(const Ptr<Blk>& b) const {
    return std::to_string(b->index()) + "+" + std::to_string(b->size());
  }

  std::vector<U32> mem_;  // the tag of the block whose data each entry holds
  std::vector<bool> used_;  // entries of live blocks
  std::vector<Live> live_;
  U32 offset_;
  U32 maxBlkSz_;
  U32 nextTag_ = 1;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  OlkFuzz::FuzzInput in = OlkFuzz::tracedInput(data, size);
  const U32 memSz = 2 + in.below(120);
  const U32 maxBlkSz = 1 + in.below(memSz - 1);
  const U32 offset = in.u8() % 2 ? in.u16() : 0;
  Ptr<BestFitAllocator> bfa = Olk::bestFitAllocatorFactory(memSz, offset, maxBlkSz);
  Model model(memSz, offset, maxBlkSz);

  while (in.nextStep(64)) {
    const unsigned op = in.u8() % 8;
    const U32 sz = 1 + in.below(maxBlkSz);
    if (op <= 2) {
      const bool fits = model.bestFitSize(sz) > 0;
      Ptr<Blk> blk = bfa->alloc(sz);
      FUZZ_CHECK(!!blk == fits, "alloc(" + std::to_string(sz) + ") " + (blk ? "succeeded" : "failed"));
      if (blk) {
        FUZZ_CHECK(blk->size() == sz, "alloc gave the wrong size");
        FUZZ_CHECK(model.bestFitAt(blk->index() - offset, sz), "alloc(" + std::to_string(sz) + ") at " +
                                                                  std::to_string(blk->index() - offset) +
                                                                  " is not the best fit");
        model.placed(blk);
      }
    } else if (op == 3) {
      if (sz > bfa->memSz()) continue;  // no span fits: a broken invariant on purpose
      const U32 start = in.below(bfa->memSz() - sz + 1);
      const bool free = model.spanFree(start, sz);
      Ptr<Blk> blk = bfa->realloc(start, sz);
      FUZZ_CHECK(!!blk == free, "realloc(" + std::to_string(start) + ", " + std::to_string(sz) + ")");
      if (blk) {
        FUZZ_CHECK(blk->index() == start + offset && blk->size() == sz, "realloc placed the block elsewhere");
        model.placed(blk);
      }
    } else if (op <= 5) {
      if (model.lives() > 0) model.free(in.below(static_cast<U32>(model.lives())));
    } else if (op == 6) {
      model.replayAll(bfa->defragment());
      model.relayout(bfa->memSz());
      const std::vector<Run> runs = model.freeRuns();
      FUZZ_CHECK(runs.empty() || (runs.size() == 1 && runs[0].start == model.usedEntries()),
                 "defragment() left the blocks unpacked");
    } else {
      const U32 used = model.usedEntries();
      const U32 newSz = std::max<U32>(1, in.below(2 * memSz));
      const U32 oldSz = bfa->memSz();
      model.replayAll(bfa->resizeMemory(newSz));
      const U32 expected = newSz >= oldSz ? newSz : std::max(newSz, used);
      FUZZ_CHECK(bfa->memSz() == expected, "resizeMemory(" + std::to_string(newSz) + ") from " +
                                               std::to_string(oldSz) + " with " + std::to_string(used) +
                                               " used gave " + std::to_string(bfa->memSz()));
      model.relayout(bfa->memSz());
    }
    FUZZ_CHECK(bfa->numFreeEntries() == bfa->memSz() - model.usedEntries(), "numFreeEntries()");
    model.expectContents();
  }
  return 0;
}
