// The cuckoo table against an array standing for the hardware tables.
//
// Items are inserted and deleted, pending items reviewed from a manual
// clock, and from time to time the command list is written to the "hardware"
// one command at a time, as an agent does. After every single write, every
// item that was in the hardware before the list and is not being deleted
// must still be found where the lookup engine searches (each table at the
// item's index, every bin): the list is hitless. After the whole list the
// hardware holds exactly the items the table holds, each where lookupItem()
// says, once; then the list is acknowledged through `cmdReadCompleted`.
//
// Hashes are good, identical across tables, or crowded onto a few indexes
// (the adversarial cases that force long eviction walks, cycles and
// failures), chosen by the input; tables and bins are small so they fill.
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "Olk/CuckooHashTable.h"
#include "platform/Clock.h"

namespace {

using namespace Olk::Cuckoo;
using Item = Ptr<HashItem const>;

constexpr int noKey = -1;

struct Shape {
  U32 tableSize, binSize;
};

U32 hashOf(U32 key, unsigned table, unsigned mode, U32 salt) {
  switch (mode % 3) {
    case 0: {  // well mixed, different per table
      U32 h = (key + 1) * 0x9e3779b1u ^ (table + 1) * 0x85ebca6bu ^ salt;
      return h ^ (h >> 15);
    }
    case 1: return key;                       // the same index in every table
    default: return (key * (table + 1)) % 3;  // a handful of crowded indexes
  }
}

class Hardware {
 public:
  explicit Hardware(const std::vector<Shape>& shape) : shape_(shape) {
    for (const Shape& s : shape) slots_.emplace_back(s.tableSize * s.binSize, noKey);
  }

  void write(const CuckooItem& cmd) {
    const CuckooLocation& l = cmd.location();
    const unsigned t = l.tableId.value();
    FUZZ_CHECK(t < shape_.size() && l.binId < shape_[t].binSize && l.index < shape_[t].tableSize,
               "a command writes outside the tables: " + Olk::Cuckoo::valueToStrep(l));
    slot(l) = cmd.item() ? static_cast<int>(static_cast<const IntHashItem&>(*cmd.item()).key()) : noKey;
  }
  int at(const CuckooLocation& l) const {
    return slots_[l.tableId.value()][l.index * shape_[l.tableId.value()].binSize + l.binId];
  }
  // Found as the lookup engine finds it: each table at the item's index, every bin.
  bool findable(const IntHashItem& item) const {
    for (unsigned t = 0; t < shape_.size(); ++t) {
      const U32 index = item.getHash(static_cast<U8>(t)) % shape_[t].tableSize;
      for (U32 b = 0; b < shape_[t].binSize; ++b) {
        if (slots_[t][index * shape_[t].binSize + b] == static_cast<int>(item.key())) return true;
      }
    }
    return false;
  }
  size_t occupied() const {
    size_t n = 0;
    for (const auto& table : slots_) {
      for (int key : table) n += key != noKey;
    }
    return n;
  }

 private:
  int& slot(const CuckooLocation& l) {
    return slots_[l.tableId.value()][l.index * shape_[l.tableId.value()].binSize + l.binId];
  }
  std::vector<Shape> shape_;
  std::vector<std::vector<int>> slots_;  // a key per slot, or noKey
};

class Scenario {
 public:
  explicit Scenario(OlkFuzz::FuzzInput& in)
      : in_(in), shape_(readShape(in)), hashMode_(in.u8()), salt_(in.u32()), hardware_(shape_) {
    config_ = configFactory("fuzz", static_cast<U8>(shape_.size()));
    for (unsigned t = 0; t < shape_.size(); ++t) config_->tableDescListIs(t, shape_[t].tableSize, shape_[t].binSize);
    config_->maxLoopIs(1 + in.below(16));
    config_->maxRetryIs(1 + in.below(3));
    config_->maxPendingItemsToReviewIs(1 + in.below(8));
    config_->randomSeedIs(in.u32());
    table_ = hashTableFactory(config_, status_, clock_);
  }

  void run() {
    while (in_.nextStep(80)) {
      const unsigned op = in_.u8();
      const U32 key = in_.below(24);
      switch (op % 8) {
        case 0: case 1: case 2: case 3: insert(key); break;
        case 4: case 5: remove(key); break;
        case 6: writeToHardware(); break;
        default: review(); break;
      }
      // The item touched, and the counts; every item after a review and at each write.
      expectLookup(key);
      expectCounts();
    }
    writeToHardware();
  }

 private:
  static std::vector<Shape> readShape(OlkFuzz::FuzzInput& in) {
    std::vector<Shape> shape(1 + in.below(5));
    for (Shape& s : shape) s = {1 + in.below(8), 1 + in.below(4)};
    return shape;
  }

  const Item& item(U32 key) {
    Item& it = items_[key];
    if (!it) {
      it = intHashItemFactory(key, hashOf(key, 0, hashMode_, salt_), hashOf(key, 1, hashMode_, salt_),
                              hashOf(key, 2, hashMode_, salt_));
    }
    return it;
  }
  const IntHashItem& intItem(U32 key) { return static_cast<const IntHashItem&>(*item(key)); }

  void insert(U32 key) {
    const bool member = members_.count(key) != 0;
    const bool ok = table_->insertItem(item(key));
    FUZZ_CHECK(ok || !member, "inserting a present item failed");
    // A placed item that was pending stays in the pending set until a review.
    if (ok) {
      members_.insert(key);
    } else {
      pending_.insert(key);
    }
  }

  void remove(U32 key) {
    const bool ok = table_->deleteItem(item(key));
    FUZZ_CHECK(ok == (members_.count(key) != 0), "deleteItem(" + std::to_string(key) + ") answered " +
                                                      std::to_string(ok));
    members_.erase(key);
    pending_.erase(key);
    deletedSinceWrite_.insert(key);
  }

  // The keys of the items in the table's pending set.
  std::set<U32> pendingKeys() const {
    std::set<U32> keys;
    for (const Item& i : status_->pendingItemSet()) keys.insert(static_cast<const IntHashItem&>(*i).key());
    return keys;
  }

  void review() {
    clock_->advance(config_->pendingItemReviewQuantum());
    const std::set<U32> stillPending = pendingKeys();
    for (auto it = pending_.begin(); it != pending_.end();) {
      if (stillPending.count(*it)) {
        ++it;
        continue;
      }
      members_.insert(*it);  // the review placed it
      it = pending_.erase(it);
    }
    for (U32 key = 0; key < 24; ++key) expectLookup(key);
  }

  // The table's public reads agree with the model.
  void expectLookup(U32 key) {
    FUZZ_CHECK(!!table_->lookupItem(item(key)) == (members_.count(key) != 0),
               "lookupItem(" + std::to_string(key) + ")");
  }
  void expectCounts() {
    FUZZ_CHECK(pendingKeys() == pending_ && status_->pendingItemSet().size() == pending_.size(),
               "the pending set holds other items than the failed insertions");
    U32 held = 0;
    for (unsigned t = 0; t < shape_.size(); ++t) held += status_->tableStat(t)->numOfHashItems();
    FUZZ_CHECK(held == members_.size(), "numOfHashItems adds up to " + std::to_string(held) + ", the table holds " +
                                            std::to_string(members_.size()));
  }

  // Applies the list one write at a time, checking after each that nothing
  // already in the hardware went missing; then acknowledges it.
  void writeToHardware() {
    FUZZ_CHECK(table_->verifyCuckooCmdsHitless(), "the table's own check finds the list not hitless");
    std::set<U32> mustStay;
    for (U32 key : inHardware_) {
      if (!deletedSinceWrite_.count(key)) mustStay.insert(key);
    }
    const Ptr<CuckooCmds> cmds = status_->cuckooCmds();
    const size_t n = cmds->itemSeqs();
    for (size_t i = 0; i < n; ++i) {
      hardware_.write(*cmds->itemSeq(i));
      for (U32 key : mustStay) {
        FUZZ_CHECK(hardware_.findable(intItem(key)), "item " + std::to_string(key) + " missing after write " +
                                                        std::to_string(i) + " of " + std::to_string(n));
      }
    }
    for (U32 key = 0; key < 24; ++key) {
      FUZZ_CHECK(hardware_.findable(intItem(key)) == (members_.count(key) != 0),
                 "after the list, item " + std::to_string(key) + " is wrongly " +
                     (members_.count(key) ? "absent" : "present"));
      if (const Ptr<CuckooItem const> found = table_->lookupItem(item(key))) {
        FUZZ_CHECK(hardware_.at(found->location()) == static_cast<int>(key),
                   "the hardware does not hold item " + std::to_string(key) + " where the table has it");
      }
    }
    FUZZ_CHECK(hardware_.occupied() == members_.size(), "stale copies left in the hardware");

    const U32 total = status_->totalCmdReadCompleted();
    config_->cmdReadCompletedInc();
    FUZZ_CHECK(status_->cuckooCmds()->itemSeqs() == 0, "the acknowledged list was not cleared");
    FUZZ_CHECK(status_->totalCmdReadCompleted() == total + n, "totalCmdReadCompleted");
    inHardware_ = members_;
    deletedSinceWrite_.clear();
  }

  OlkFuzz::FuzzInput& in_;
  std::vector<Shape> shape_;
  unsigned hashMode_;
  U32 salt_;
  Hardware hardware_;
  Ptr<Config> config_;
  Ptr<Status> status_ = statusFactory("fuzz");
  Ptr<Zum::ManualClock> clock_ = Zum::manualClockFactory(1000.0);
  Ptr<HashTable> table_;
  std::map<U32, Item> items_;  // one item object per key, as an agent keeps them
  std::set<U32> members_, pending_, inHardware_, deletedSinceWrite_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  OlkFuzz::FuzzInput in = OlkFuzz::tracedInput(data, size);
  Scenario(in).run();
  return 0;
}
