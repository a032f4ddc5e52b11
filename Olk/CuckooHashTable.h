// Hitless cuckoo placement of items into multi-table hardware hash tables.
//
// A `HashTable` places items into up to nine tables, each `tableSize` indexes
// of `binSize` slots, by cuckoo hashing with a random walk. It keeps a shadow
// of every slot and turns each insertion or removal into a command list
// (`status.cuckooCmds`) that the agent copies to the hardware from head to
// tail, then acknowledges by changing `config.cmdReadCompleted`.
//
// Invariant: applied one write at a time, a list never overwrites the last
// hardware copy of an item that stays in the table, so lookups never miss
// during the moves. Items that cannot be placed wait in `status.pendingItemSet`
// and are retried from a clock every `pendingItemReviewQuantum` seconds.
// Cost: an insertion is O(maxLoop * maxRetry) slot writes at worst, O(tables *
// bins) when a free slot exists; the shadow holds a pointer and a tag per slot of
// every table from the start. Random choices use the process-wide rand(),
// seeded with `randomSeed`. Event-loop thread only; no locking.
#pragma once

#include <deque>
#include <functional>
#include <iosfwd>
#include <iterator>
#include <utility>
#include <vector>

#include "Olk/DumpContext.h"
#include "Olk/Types.h"
#include "platform/Clock.h"
#include "platform/Collection.h"
#include "platform/Entity.h"
#include "platform/Notifier.h"
#include "platform/Strep.h"

namespace Olk::Cuckoo {

// The value types the table keeps by value open the header: C++ needs them whole there.

// One of the tables, 0..8, or `null` (9): no table.
class TableId {
 public:
  static constexpr U8 min = 0;
  static constexpr U8 null = 9;

  // Throws RangeException for a value above `null`.
  TableId(U32 value = null) : value_(static_cast<U8>(value)) {
    if (value > null) refuse();
  }
  U8 value() const { return value_; }
  bool operator==(const TableId& o) const { return value_ == o.value_; }
  bool operator<(const TableId& o) const { return value_ < o.value_; }

 private:
  [[noreturn]] static void refuse();

  U8 value_;
};

// Shape of one table; immutable once made.
class TableDescriptor : public Zum::PtrInterface {
 public:
  TableId tableId() const { return tableId_; }
  U32 tableSize() const { return tableSize_; }
  U8 binSize() const { return binSize_; }
  U32 capacity() const { return tableSize_ * binSize_; }

 private:
  friend Ptr<TableDescriptor const> tableDescriptorFactory(TableId, U32, U32);
  TableDescriptor(TableId tableId, U32 tableSize, U8 binSize)
      : tableId_(tableId), tableSize_(tableSize), binSize_(binSize) {}

  TableId tableId_;
  U32 tableSize_;  // zero is refused when a table starts, not here
  U8 binSize_;     // 1..8
};

// Throws RangeException "TableDescriptor::binSize < 1 or > 8 not allowed".
Ptr<TableDescriptor const> tableDescriptorFactory(TableId tableId, U32 tableSize, U32 binSize);

// One slot: table, bin within the index, index within the table.
struct CuckooLocation {
  TableId tableId;
  U8 binId = 0;
  U32 index = 0;

  bool operator==(const CuckooLocation& o) const {
    return tableId == o.tableId && binId == o.binId && index == o.index;
  }
  bool operator<(const CuckooLocation& o) const;
};

}  // namespace Olk::Cuckoo

template <>
struct std::hash<Olk::Cuckoo::TableId> {
  size_t operator()(const Olk::Cuckoo::TableId& t) const noexcept { return t.value(); }
};
template <>
struct std::hash<Olk::Cuckoo::CuckooLocation> {
  size_t operator()(const Olk::Cuckoo::CuckooLocation& l) const noexcept {
    return (size_t(l.index) * 16 + l.tableId.value()) * 8 + l.binId;
  }
};

namespace Olk::Cuckoo {

// The records the table hands out and the reports it writes; defined after
// the table.
class HashItem;
class CuckooItem;
class EvictCmd;
class EvictCmdPath;
class CuckooCmds;
class TableStat;
class Status;

// Config and ItemShadow come before the table because C++ needs them whole
// there: the table's reactor derives from Config::Notifiee and it holds its
// shadow by value.
// What the agent asks of a table. Setters store only a changed value and then
// notify. The table reads the descriptors once, when it starts.
class Config : public Zum::Entity, public Zum::Notifier {
 public:
  class Notifiee : public Zum::BaseNotifiee<Config> {
   public:
    virtual void onTableDescList(TableId) {}
    virtual void onCmdReadCompleted() {}
    virtual void onTryReduceCmdsOnInsert() {}
    virtual void onHitless() {}
    virtual void onMaxLoop() {}
    virtual void onMaxRetry() {}
    virtual void onReviewPendingItemSupport() {}
    virtual void onPendingItemReviewQuantum() {}
    virtual void onMaxPendingItemsToReview() {}
    virtual void onSyslogIntervalForPendingItems() {}
    virtual void onRandomSeed() {}
    virtual void onNumFailureRecords() {}
  };

  U8 numTables() const { return numTables_; }
  bool hasBackupSupport() const { return false; }

  const Zum::OrderedMap<TableId, Ptr<TableDescriptor const>>& tableDescList() const { return tableDescList_; }
  // Null when there is no descriptor for `tableId`.
  Ptr<TableDescriptor const> tableDescList(TableId tableId) const { return tableDescList_.get(tableId); }
  size_t tableDescLists() const { return tableDescList_.size(); }
  // Adds a descriptor. Re-adding one with the same shape does nothing; a
  // different size or bin count is refused with a RangeException: remove the
  // old descriptor first.
  void tableDescListIs(TableId tableId, U32 tableSize, U32 binSize);
  void tableDescListDel(TableId tableId);
  void tableDescListDelAll();

  U32 cmdReadCompleted() const { return cmdReadCompleted_; }
  void cmdReadCompletedIs(U32 v) { attributeIs(cmdReadCompleted_, v, &Notifiee::onCmdReadCompleted); }
  void cmdReadCompletedInc() { cmdReadCompletedIs(cmdReadCompleted_ + 1); }
  bool tryReduceCmdsOnInsert() const { return tryReduceCmdsOnInsert_; }
  void tryReduceCmdsOnInsertIs(bool v) { attributeIs(tryReduceCmdsOnInsert_, v, &Notifiee::onTryReduceCmdsOnInsert); }
  bool hitless() const { return hitless_; }
  void hitlessIs(bool v) { attributeIs(hitless_, v, &Notifiee::onHitless); }
  U32 maxLoop() const { return maxLoop_; }
  void maxLoopIs(U32 v) { attributeIs(maxLoop_, v, &Notifiee::onMaxLoop); }
  U32 maxRetry() const { return maxRetry_; }
  void maxRetryIs(U32 v) { attributeIs(maxRetry_, v, &Notifiee::onMaxRetry); }
  bool reviewPendingItemSupport() const { return reviewPendingItemSupport_; }
  void reviewPendingItemSupportIs(bool v) { attributeIs(reviewPendingItemSupport_, v, &Notifiee::onReviewPendingItemSupport); }
  Seconds pendingItemReviewQuantum() const { return pendingItemReviewQuantum_; }
  void pendingItemReviewQuantumIs(Seconds v) { attributeIs(pendingItemReviewQuantum_, v, &Notifiee::onPendingItemReviewQuantum); }
  U32 maxPendingItemsToReview() const { return maxPendingItemsToReview_; }
  void maxPendingItemsToReviewIs(U32 v) { attributeIs(maxPendingItemsToReview_, v, &Notifiee::onMaxPendingItemsToReview); }
  // Infinite: never log about pending items.
  Seconds syslogIntervalForPendingItems() const { return syslogIntervalForPendingItems_; }
  void syslogIntervalForPendingItemsIs(Seconds v) {
    attributeIs(syslogIntervalForPendingItems_, v, &Notifiee::onSyslogIntervalForPendingItems);
  }
  // Read when the table starts; changing it later has no effect on that table.
  U32 randomSeed() const { return randomSeed_; }
  void randomSeedIs(U32 v) { attributeIs(randomSeed_, v, &Notifiee::onRandomSeed); }
  U32 numFailureRecords() const { return numFailureRecords_; }
  void numFailureRecordsIs(U32 v) { attributeIs(numFailureRecords_, v, &Notifiee::onNumFailureRecords); }

 private:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  Config(const String& name, U8 numTables) : Zum::Entity(name), numTables_(numTables) {}

  U8 numTables_;  // 1..9, checked when a table starts
  Zum::OrderedMap<TableId, Ptr<TableDescriptor const>> tableDescList_;  // key == value's tableId
  U32 cmdReadCompleted_ = 0;
  bool tryReduceCmdsOnInsert_ = true;
  bool hitless_ = true;
  U32 maxLoop_ = 200;
  U32 maxRetry_ = 3;
  bool reviewPendingItemSupport_ = true;
  Seconds pendingItemReviewQuantum_ = 5.0;
  U32 maxPendingItemsToReview_ = 25;
  Seconds syslogIntervalForPendingItems_ = 60.0;
  U32 randomSeed_ = 0;
  U32 numFailureRecords_ = 100;
};

Ptr<Config> configFactory(const String& name, U8 numTables);

// The item shadow: one entry per slot of every table in one flat array,
// table after table, index after index, bin after bin, so that a slot is
// found by arithmetic, never by a search. It costs one pointer and one tag
// per slot, allocated when the table starts. Iteration visits the occupied slots in
// that order as (location, item) pairs.
class ItemShadow {
 public:
  using value_type = std::pair<CuckooLocation, Ptr<HashItem const>>;

  class const_iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = ItemShadow::value_type;
    using difference_type = std::ptrdiff_t;
    using pointer = void;
    using reference = value_type;

    value_type operator*() const;
    const_iterator& operator++();
    bool operator==(const const_iterator& o) const { return slot_ == o.slot_; }
    bool operator!=(const const_iterator& o) const { return slot_ != o.slot_; }

   private:
    friend class ItemShadow;
    const_iterator(const ItemShadow* shadow, size_t slot);
    void skipEmpty();

    const ItemShadow* shadow_;
    size_t slot_;  // an occupied slot, or the slot count at the end
    U8 table_;     // the table holding slot_
  };

  const_iterator begin() const { return const_iterator(this, 0); }
  const_iterator end() const { return const_iterator(this, slots_.size()); }
  // Occupied slots.
  size_t size() const { return occupied_; }
  // True for a location inside the tables.
  bool holds(const CuckooLocation& location) const;
  // The item at `location`; null for an empty slot or a location outside the tables.
  Ptr<HashItem const> get(const CuckooLocation& location) const;

  // What a search compares instead of reading the stored item: `empty`,
  // `opaque` for an item only its own isEqual can judge, or an IntHashItem's
  // key with `intKey` set. IntHashItem::isEqual is true exactly for another
  // IntHashItem with the same key, so for such a probe equal tags answer as
  // isEqual would, without touching the stored item's memory.
  using Tag = U64;
  static constexpr Tag empty = 0;
  static constexpr Tag opaque = 1;
  static constexpr Tag intKey = U64(1) << 32;
  static Tag tagOf(const HashItem* item);

 private:
  friend class HashTable;
  struct Table {
    size_t base;  // slot of (index 0, bin 0)
    U32 size;
    U8 bins;
    U64 modMagic;  // 2^64 / size rounded up (0 for size 1), for index()
  };

  // Lays out empty tables of the given shapes; called once, at start.
  void tablesIs(const std::vector<Ptr<TableDescriptor const>>& descs);
  U8 bins(U8 table) const { return tables_[table].bins; }
  // The index of a hash in `table`: hash % size.
  U32 index(U8 table, U32 hash) const {
#if defined(__SIZEOF_INT128__)
    // By two multiplications instead of a division (Lemire, Kaser and Kurz,
    // "Faster remainder by direct computation", 2019); exact for every
    // 32-bit hash and size.
    const Table& t = tables_[table];
    return U32((unsigned __int128)(t.modMagic * hash) * t.size >> 64);
#else
    return hash % tables_[table].size;
#endif
  }
  // The first slot of `index` in `table`; its bins follow.
  size_t row(U8 table, U32 index) const { return tables_[table].base + size_t(index) * tables_[table].bins; }
  size_t slot(const CuckooLocation& l) const { return row(l.tableId.value(), l.index) + l.binId; }
  const Ptr<HashItem const>& at(size_t slot) const { return slots_[slot]; }
  const Tag& tag(size_t slot) const { return tags_[slot]; }
  // Bit b set when bin b of the row starting at slot `row` of `table` holds `tag`.
  U32 binsTagged(U8 table, size_t row, Tag tag) const {
    U32 mask = 0;
    for (U8 b = 0; b < bins(table); ++b) mask |= U32(tags_[row + b] == tag) << b;
    return mask;
  }
  // Stores `item` (null empties the slot) and answers what was there.
  Ptr<HashItem const> exchange(size_t slot, const Ptr<HashItem const>& item);

  std::vector<Table> tables_;
  std::vector<Ptr<HashItem const>> slots_;  // null: empty
  std::vector<Tag> tags_;                   // tagOf(slots_[i]) for every i
  size_t occupied_ = 0;                     // non-null entries of slots_
};

// The table itself.
class HashTable : public Zum::Entity {
 public:
  const Ptr<Config>& config() const { return config_; }
  const Ptr<Status>& status() const { return status_; }
  const Ptr<Zum::Clock>& clock() const { return clock_; }
  bool initialized() const { return initialized_; }
  TableId lastEvictedTable() const { return lastEvictedTable_; }
  // Negative infinity: not set. Both start at 0.0, which counts as set.
  Seconds pendingItemBeginTime() const { return pendingItemBeginTime_; }
  Seconds lastSyslogTime() const { return lastSyslogTime_; }
  // The item stored at `location`, null for an empty slot.
  Ptr<HashItem const> itemShadow(const CuckooLocation& location) const { return itemShadow_.get(location); }
  const ItemShadow& itemShadow() const { return itemShadow_; }

  // Inserts and queues the writes on status.cuckooCmds. An item that cannot be
  // placed is kept pending and reviewed later; an item already present (by
  // isEqual) succeeds without change.
  bool insertItem(const Ptr<HashItem const>& item);
  // The insertion algorithm: up to maxRetry walks of up to maxLoop steps, each
  // failed walk reverted. Appends the writes to `cmds` only on success.
  bool insert(const Ptr<HashItem const>& item, const Ptr<CuckooCmds>& cmds);
  // Removes the item (found by isEqual) and queues the write; drops every
  // equal item from the pending set whether or not it was placed.
  bool deleteItem(const Ptr<HashItem const>& item);
  // False for a null or absent item.
  bool remove(const Ptr<HashItem const>& item, const Ptr<CuckooCmds>& cmds);
  // The slot holding an item equal to `item`, searched table by table and bin
  // by bin, or null.
  Ptr<CuckooItem const> lookupItem(const Ptr<HashItem const>& item) const;
  U32 getTableIndexForItem(TableId tableId, const Ptr<HashItem const>& item) const;

  // Shadow write with item counts kept; returns what it replaced. The
  // location must lie inside the tables.
  Ptr<EvictCmd const> setItemAtLocation(const Ptr<HashItem const>& item, const CuckooLocation& location);
  // One walk step: places `item` in the first free candidate slot (null
  // returned) or evicts a random victim and returns it.
  Ptr<HashItem const> tryInsertItem(const Ptr<HashItem const>& item, const Ptr<EvictCmdPath>& path);
  // Turns a finished walk into writes on `cmds`, free slot first, new item
  // last; clears the path.
  void updateCuckooCmds(const Ptr<EvictCmdPath>& path, const Ptr<CuckooCmds>& cmds);
  // Drops the loops of a walk that came back to a slot, restoring the shadow
  // they changed; returns how many loops it dropped. A loop runs from the
  // earlier write of the slot through the write that came back to it: that
  // last write goes too, because once the loop is undone the item it would
  // overwrite is no longer in the slot, and the walk then carries on from
  // the item the loop began with. The latest loop goes first, since no later
  // step touches its slots; an earlier loop may share slots with later steps.
  U32 maybeDeleteCycle(const Ptr<EvictCmdPath>& path);
  // Undoes a walk on the shadow, latest step first, and clears the path.
  void revertChanges(const Ptr<EvictCmdPath>& path);
  // Never shortens the list, on purpose: the order built is the hitless one.
  bool tryReduceCuckooCmds(const Ptr<CuckooCmds>& cmds);
  void updateFailStats(float loadFactor);

  // The agent applied status.cuckooCmds: counts and clears it.
  void handleCmdReadCompleted();
  // Retries up to maxPendingItemsToReview pending items; runs from the clock
  // and when the table attaches to it. With items left it logs "existed" once
  // the interval has passed since the last message of either kind; with none
  // left it logs "empty" whenever some message time is on record. The record
  // starts at 0.0, so the review made on attaching, finding nothing pending,
  // already logs "empty", and on a wall clock the first review with items
  // pending logs "existed" at once.
  void reviewPendingItems();
  // Replays status.cuckooCmds on a copy of the hardware state and answers
  // whether no write loses the last copy of an item. Writes the agent already
  // dequeued count as applied. Changes nothing.
  bool verifyCuckooCmdsHitless() const;

  // Operator dumps through `dumpCtx` (standard output when null); they change
  // nothing in the table. The snapshot gives the totals and per-table counts.
  void currentSnapshot(const Ptr<const DumpContext>& dumpCtx = nullptr) const;
  // verbosity 0: the snapshot; 1: also the pending items; 2: also every
  // occupied slot in location order. Lists stop at the context's
  // maxListEntriesDumped and then mark it truncated.
  void displayItems(U32 verbosity, const Ptr<const DumpContext>& dumpCtx = nullptr) const;

 protected:
  void handleInitialized() override;

 private:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  HashTable(const Ptr<Config>& config, const Ptr<Status>& status, const Ptr<Zum::Clock>& clock);

  class ConfigReactor : public Config::Notifiee {
   public:
    explicit ConfigReactor(HashTable* table) : table_(table) {}
    void onCmdReadCompleted() override { table_->handleCmdReadCompleted(); }

   private:
    HashTable* table_;  // owns this reactor
  };
  class ReviewReactor : public Zum::Clock::Notifiee {
   public:
    explicit ReviewReactor(HashTable* table) : table_(table) {}
    void onTime() override { table_->reviewPendingItems(); }

   protected:
    void onNotifier() override { table_->reviewPendingItems(); }

   private:
    HashTable* table_;  // owns this reactor
  };

  // One step of a walk: what EvictCmd records, kept by value so that a walk
  // allocates nothing once its vector has grown.
  struct Step {
    CuckooLocation location;
    Ptr<HashItem const> oldItem;
    Ptr<HashItem const> newItem;
    U32 origin = 0;  // index in the EvictCmdPath it came from, if any
  };
  using Steps = std::vector<Step>;
  // A slot a walk wrote and the number of the step that wrote it.
  using SlotWrite = std::pair<CuckooLocation, U32>;

  const TableDescriptor& desc(TableId tableId) const { return *tableDescs_[tableId.value()]; }
  TableStat& tableStat(TableId tableId) const { return *tableStats_[tableId.value()]; }
  void checkConfig() const;
  void scheduleReviewIfPending();
  void logPendingState();
  // What the search of lookupItem(item) saw: the slot holding an equal item,
  // or else, searching for an insertion, the first free candidate slot in
  // (table, bin) order, where the walk's first step would place the item.
  struct Probe {
    static constexpr size_t none = ~size_t(0);
    size_t found = none;
    CuckooLocation foundAt;
    size_t free = none;
    CuckooLocation freeAt;
  };
  Probe lookupItem(const Ptr<HashItem const>& item, bool forInsert) const;
  // Requests the items stored at the candidate rows `index` (one per table).
  void prefetchStoredItems(const U32* index) const;
  // The two halves of that search over the candidate rows `index`: by the
  // slots' tags, and by the item's isEqual on every stored item.
  void searchByTag(ItemShadow::Tag probeTag, const U32* index, bool forInsert, Probe& probe) const;
  void searchByIsEqual(const Ptr<HashItem const>& item, const U32* index, bool forInsert, Probe& probe) const;
  // The write of setItemAtLocation(item, location) on slot `slot` of the
  // shadow; answers what the slot held.
  Ptr<HashItem const> setItemAtLocation(const Ptr<HashItem const>& item, const CuckooLocation& location, size_t slot);
  // tryInsertItem on a path of steps.
  Ptr<HashItem const> tryInsertItem(const Ptr<HashItem const>& item, Steps& path);
  // The walk step that ends in a free slot.
  void placeInFreeSlot(const Ptr<HashItem const>& item, const CuckooLocation& location, size_t slot, Steps& path);
  // The same operations on a path of steps; each empties `path` as the
  // public one empties its EvictCmdPath, except maybeDeleteCycle, which
  // leaves the steps that remain.
  void updateCuckooCmds(Steps& path, const Ptr<CuckooCmds>& cmds);
  U32 maybeDeleteCycle(Steps& path);
  void revertChanges(Steps& path);
  // The latest write of a slot written earlier in `path`, as maybeDeleteCycle
  // defines it: false when no slot is written twice.
  bool findLatestLoop(const Steps& path, size_t& first, size_t& last);
  // The steps of a caller's path, each in `origin` numbered by its place.
  Steps stepsOf(const Ptr<EvictCmdPath>& path) const;
  // Fills writes_ with the writes of `path` grouped by slot, earliest first.
  void sortWrites(const Steps& path);
  // Undo the steps [first, last] of `steps` on the shadow, latest first.
  void undoSteps(const Steps& steps, size_t first, size_t last);
  // Appends the list for `path`: each slot once, latest value, latest step first.
  void emitSteps(const Steps& path, const Ptr<CuckooCmds>& cmds);
  void emitCmd(const Step& step, const Ptr<HashItem const>& prior, const Ptr<CuckooCmds>& cmds);

  Ptr<Config> config_;
  Ptr<Status> status_;
  Ptr<Zum::Clock> clock_;
  ConfigReactor configReactor_;
  ReviewReactor reviewReactor_;
  std::vector<Ptr<TableDescriptor const>> tableDescs_;  // by table number, read at start
  std::vector<Ptr<TableStat>> tableStats_;              // by table number, made at start
  ItemShadow itemShadow_;
  // Scratch space of insert(), kept to spare the allocations: the walk of
  // the attempt in progress, its writes sorted by slot, and per step the
  // step whose oldItem its slot held before the walk.
  Steps walk_;
  std::vector<SlotWrite> writes_;
  std::vector<U32> priorStep_;
  // What each write of status.cuckooCmds overwrote, index for index; lets the
  // self-check rebuild the hardware state the list starts from.
  std::vector<Ptr<HashItem const>> cmdPriorItems_;
  TableId lastEvictedTable_;  // table of the last eviction; null after a free-slot placement
  Seconds pendingItemBeginTime_ = 0.0;  // when items last began to wait; traced only
  Seconds lastSyslogTime_ = 0.0;        // time of the last pending-items message
  bool initialized_ = false;
};

// The table is driven by `clock` for the pending review; null takes the
// activity loop's clock. An agent running its own loop, or a test with a
// manual clock, passes its clock here: the table attaches at start, and the
// activity loop's clock cannot be replaced.
Ptr<HashTable> hashTableFactory(const Ptr<Config>& config, const Ptr<Status>& status,
                                const Ptr<Zum::Clock>& clock = nullptr);

// ---- helper records ---------------------------------------------------------

// "( %d )"
String valueToStrep(const TableId& t);
void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, TableId* out);
// "TableId/BinId/Index: ( %u, %u, %u )"
String valueToStrep(const CuckooLocation& l);
void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, CuckooLocation* out);
String valueToStrep(const TableDescriptor& d);
// "None" for a missing descriptor.
String valueToStrep(const Ptr<TableDescriptor const>& d);
std::ostream& operator<<(std::ostream& os, const TableId& t);
std::ostream& operator<<(std::ostream& os, const CuckooLocation& l);

// An item the table can place. Immutable once handed to the table. The base
// answers every operation with an assertion failure: item types override all
// three.
class HashItem : public Zum::PtrInterface {
 public:
  // True when `other` denotes the same item (same key).
  virtual bool isEqual(const Ptr<HashItem const>& other) const;
  // The item's 32-bit hash for table `tableId`; its index is hash % tableSize.
  virtual U32 getHash(U8 tableId) const;
  virtual String toStrep() const;

 protected:
  friend Ptr<HashItem> hashItemFactory();
  HashItem() = default;
};

Ptr<HashItem> hashItemFactory();
// Traces print items through toStrep(); null prints as "null".
std::ostream& operator<<(std::ostream& os, const Ptr<HashItem const>& item);

// An item with a 32-bit key and precomputed hashes. Tables 2 to 8 all use
// `hashIndex2`, on purpose: three hashes are all a test needs.
class IntHashItem final : public HashItem {
 public:
  U32 key() const { return key_; }
  U32 hashIndex0() const { return hashIndex0_; }
  U32 hashIndex1() const { return hashIndex1_; }
  U32 hashIndex2() const { return hashIndex2_; }

  // Only another IntHashItem with the same key is equal.
  bool isEqual(const Ptr<HashItem const>& other) const override;
  U32 getHash(U8 tableId) const override;
  String toStrep() const override;

 private:
  friend Ptr<IntHashItem> intHashItemFactory(U32, U32, U32, U32);
  IntHashItem(U32 key, U32 h0, U32 h1, U32 h2)
      : key_(key), hashIndex0_(h0), hashIndex1_(h1), hashIndex2_(h2) {}

  U32 key_;
  U32 hashIndex0_;
  U32 hashIndex1_;
  U32 hashIndex2_;
};

Ptr<IntHashItem> intHashItemFactory(U32 item, U32 hashIndex0, U32 hashIndex1, U32 hashIndex2);

// One hardware write: put `item` at `location`; a null item empties the slot.
class CuckooItem : public Zum::PtrInterface {
 public:
  const CuckooLocation& location() const { return location_; }
  const Ptr<HashItem const>& item() const { return item_; }

 private:
  friend Ptr<CuckooItem const> cuckooItemFactory(const CuckooLocation&, const Ptr<HashItem const>&);
  CuckooItem(const CuckooLocation& l, const Ptr<HashItem const>& i) : location_(l), item_(i) {}
  // A record is made for every write and dropped when the agent
  // acknowledges it; its memory is recycled rather than returned.
  static void* operator new(size_t size);
  static void operator delete(void* p);

  CuckooLocation location_;
  Ptr<HashItem const> item_;
};

Ptr<CuckooItem const> cuckooItemFactory(const CuckooLocation& location, const Ptr<HashItem const>& item);

// One step of an insertion walk: `newItem` replaced `oldItem` at `location`.
class EvictCmd : public Zum::PtrInterface {
 public:
  const Ptr<HashItem const>& oldItem() const { return oldItem_; }
  const Ptr<HashItem const>& newItem() const { return newItem_; }
  const CuckooLocation& location() const { return location_; }

 private:
  friend Ptr<EvictCmd const> evictCmdFactory(const Ptr<HashItem const>&, const Ptr<HashItem const>&,
                                             const CuckooLocation&);
  EvictCmd(const Ptr<HashItem const>& o, const Ptr<HashItem const>& n, const CuckooLocation& l)
      : oldItem_(o), newItem_(n), location_(l) {}

  Ptr<HashItem const> oldItem_;  // null: the slot was free
  Ptr<HashItem const> newItem_;  // null: a deletion
  CuckooLocation location_;
};

Ptr<EvictCmd const> evictCmdFactory(const Ptr<HashItem const>& oldItem, const Ptr<HashItem const>& newItem,
                                    const CuckooLocation& location);
// One trace line (level 6) for `cmd`, after `prefix`.
void traceEvictCmd(const String& prefix, const Ptr<EvictCmd const>& cmd);

// The steps of one insertion attempt, earliest at index 0, latest on top.
class EvictCmdPath : public Zum::PtrInterface {
 public:
  size_t cmdLogs() const { return cmdLog_.size(); }
  const Ptr<EvictCmd const>& cmdLog(size_t i) const { return cmdLog_[i]; }
  void cmdLogPush(const Ptr<EvictCmd const>& cmd) { cmdLog_.push_back(cmd); }
  // Removes and returns the top; the log must not be empty.
  Ptr<EvictCmd const> cmdLogPop();
  void cmdLogDelAll() { cmdLog_.clear(); }

 private:
  friend Ptr<EvictCmdPath> evictCmdPathFactory();
  EvictCmdPath() = default;

  std::vector<Ptr<EvictCmd const>> cmdLog_;
};

Ptr<EvictCmdPath> evictCmdPathFactory();

// The command list, applied by the agent from index 0 (head) to the tail.
class CuckooCmds : public Zum::PtrInterface {
 public:
  size_t itemSeqs() const { return itemSeq_.size(); }
  const Ptr<CuckooItem const>& itemSeq(size_t i) const { return itemSeq_[i]; }
  void itemSeqEnq(Ptr<CuckooItem const> item) { itemSeq_.push_back(std::move(item)); }
  // Removes and returns the head; the list must not be empty.
  Ptr<CuckooItem const> itemSeqDeq();
  void itemSeqDelAll() { itemSeq_.clear(); }

 private:
  friend Ptr<CuckooCmds> cuckooCmdsFactory();
  CuckooCmds() = default;

  std::deque<Ptr<CuckooItem const>> itemSeq_;
};

Ptr<CuckooCmds> cuckooCmdsFactory();

// Per-table statistics, written by the table; each change notifies.
class TableStat : public Zum::Entity, public Zum::Notifier {
 public:
  class Notifiee : public Zum::BaseNotifiee<TableStat> {
   public:
    virtual void onTableDesc() {}
    virtual void onLookupSuccess() {}
    virtual void onLookupFailures() {}
    virtual void onNumOfEvicts() {}
    virtual void onNumOfHashItems() {}
  };

  TableId tableId() const { return tableId_; }
  const Ptr<TableDescriptor const>& tableDesc() const { return tableDesc_; }
  // Same refusal as Config::tableDescListIs when the shape changes.
  void tableDescIs(TableId tableId, U32 tableSize, U32 binSize);

  // Kept for the agent; the table never changes them.
  U32 lookupSuccess() const { return lookupSuccess_; }
  void lookupSuccessInc() { attributeIs(lookupSuccess_, lookupSuccess_ + 1, &Notifiee::onLookupSuccess); }
  U32 lookupFailures() const { return lookupFailures_; }
  void lookupFailuresInc() { attributeIs(lookupFailures_, lookupFailures_ + 1, &Notifiee::onLookupFailures); }

  // Slots overwritten on the hardware by evictions in this table.
  U32 numOfEvicts() const { return numOfEvicts_; }
  void numOfEvictsInc() { attributeIs(numOfEvicts_, numOfEvicts_ + 1, &Notifiee::onNumOfEvicts); }
  // Occupied slots in this table.
  U32 numOfHashItems() const { return numOfHashItems_; }
  void numOfHashItemsInc() { attributeIs(numOfHashItems_, numOfHashItems_ + 1, &Notifiee::onNumOfHashItems); }
  void numOfHashItemsDec();
  // numOfHashItems / capacity; 0 without a descriptor.
  float occupancy() const;

 private:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  explicit TableStat(TableId tableId) : tableId_(tableId) {}

  TableId tableId_;
  Ptr<TableDescriptor const> tableDesc_;
  U32 lookupSuccess_ = 0;
  U32 lookupFailures_ = 0;
  U32 numOfEvicts_ = 0;
  U32 numOfHashItems_ = 0;  // <= tableDesc capacity
};

Ptr<TableStat> tableStatFactory(TableId tableId);
String valueToStrep(const TableStat& s);

// What the table reports. The pending set keeps insertion order, so reviews
// retry the oldest items first and equal runs review in equal order.
class Status : public Zum::Entity, public Zum::Notifier {
 public:
  class Notifiee : public Zum::BaseNotifiee<Status> {
   public:
    virtual void onTableStat(TableId) {}
    virtual void onPendingItemSet(const Ptr<HashItem const>&) {}
    virtual void onPendingItemVersion() {}
    virtual void onPendingItemSyslogVersion() {}
    virtual void onTotalCmdReadCompleted() {}
    virtual void onRetryCount() {}
    // The running index of the entry that came or went.
    virtual void onFirstFailLoadFactor(U64) {}
    virtual void onLastFailLoadFactor(U64) {}
    virtual void onLongestCycle() {}
    virtual void onCycleCount() {}
  };

  const Zum::OrderedMap<TableId, Ptr<TableStat>>& tableStat() const { return tableStat_; }
  Ptr<TableStat> tableStat(TableId tableId) const { return tableStat_.get(tableId); }
  size_t tableStats() const { return tableStat_.size(); }
  // Creates the entry if absent and returns it.
  Ptr<TableStat> tableStatIs(TableId tableId);
  void tableStatDel(TableId tableId);
  void tableStatDelAll();

  const Ptr<CuckooCmds>& cuckooCmds() const { return cuckooCmds_; }

  // Items by pointer identity, oldest first. Adding a present item changes
  // nothing and notifies nobody.
  std::vector<Ptr<HashItem const>> pendingItemSet() const { return pendingItemSet_.keys(); }
  bool pendingItemSetHas(const Ptr<HashItem const>& item) const { return pendingItemSet_.has(item); }
  size_t pendingItemSets() const { return pendingItemSet_.size(); }
  void pendingItemSetIs(const Ptr<HashItem const>& item) {
    entryIs(pendingItemSet_, item, true, &Notifiee::onPendingItemSet);
  }
  void pendingItemSetDel(const Ptr<HashItem const>& item) {
    entryDel(pendingItemSet_, item, &Notifiee::onPendingItemSet);
  }
  void pendingItemSetDelAll() { entryDelAll(pendingItemSet_, &Notifiee::onPendingItemSet); }

  U32 pendingItemVersion() const { return pendingItemVersion_; }
  void pendingItemVersionInc() {
    attributeIs(pendingItemVersion_, pendingItemVersion_ + 1, &Notifiee::onPendingItemVersion);
  }
  U32 pendingItemSyslogVersion() const { return pendingItemSyslogVersion_; }
  void pendingItemSyslogVersionInc() {
    attributeIs(pendingItemSyslogVersion_, pendingItemSyslogVersion_ + 1, &Notifiee::onPendingItemSyslogVersion);
  }
  U32 totalCmdReadCompleted() const { return totalCmdReadCompleted_; }
  void totalCmdReadCompletedIs(U32 v) { attributeIs(totalCmdReadCompleted_, v, &Notifiee::onTotalCmdReadCompleted); }
  U32 retryCount() const { return retryCount_; }
  void retryCountInc() { attributeIs(retryCount_, retryCount_ + 1, &Notifiee::onRetryCount); }

  // Each entry that comes or goes is announced by its running index; DelAll
  // empties a queue head first, one announcement per entry.
  const Zum::Queue<float>& firstFailLoadFactor() const { return firstFailLoadFactor_; }
  void firstFailLoadFactorEnq(float v) { entryEnq(firstFailLoadFactor_, v, &Notifiee::onFirstFailLoadFactor); }
  float firstFailLoadFactorDeq() { return entryDeq(firstFailLoadFactor_, &Notifiee::onFirstFailLoadFactor); }
  void firstFailLoadFactorDelAll() { entryDelAll(firstFailLoadFactor_, &Notifiee::onFirstFailLoadFactor); }
  const Zum::Queue<float>& lastFailLoadFactor() const { return lastFailLoadFactor_; }
  void lastFailLoadFactorEnq(float v) { entryEnq(lastFailLoadFactor_, v, &Notifiee::onLastFailLoadFactor); }
  float lastFailLoadFactorDeq() { return entryDeq(lastFailLoadFactor_, &Notifiee::onLastFailLoadFactor); }
  void lastFailLoadFactorDelAll() { entryDelAll(lastFailLoadFactor_, &Notifiee::onLastFailLoadFactor); }

  U32 longestCycle() const { return longestCycle_; }
  void longestCycleIs(U32 v) { attributeIs(longestCycle_, v, &Notifiee::onLongestCycle); }
  U32 cycleCount() const { return cycleCount_; }
  void cycleCountIs(U32 v) { attributeIs(cycleCount_, v, &Notifiee::onCycleCount); }

  // Occupied slots over all slots of all tables; traces each table's counts.
  float occupancy() const;

 private:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  explicit Status(const String& name) : Zum::Entity(name), cuckooCmds_(cuckooCmdsFactory()) {}

  Zum::OrderedMap<TableId, Ptr<TableStat>> tableStat_;
  Ptr<CuckooCmds> cuckooCmds_;  // never null
  Zum::SequencedMap<Ptr<HashItem const>, bool> pendingItemSet_;  // a set: every value is true
  U32 pendingItemVersion_ = 0;
  U32 pendingItemSyslogVersion_ = 0;
  U32 totalCmdReadCompleted_ = 0;
  U32 retryCount_ = 0;
  Zum::Queue<float> firstFailLoadFactor_;  // at most numFailureRecords entries
  Zum::Queue<float> lastFailLoadFactor_;   // settles at numFailureRecords + 1 entries
  U32 longestCycle_ = 0;
  U32 cycleCount_ = 0;
};

Ptr<Status> statusFactory(const String& name);

}  // namespace Olk::Cuckoo
