// Design note: hitless cuckoo placement.
//
// Each item has one candidate index per table (its hash for that table modulo
// the table size) and `binSize` candidate slots at that index. An insertion
// takes the first free candidate slot in (table, bin) order. When all are
// full it evicts a random victim (a random table, never the table of the
// previous eviction unless there is only one, and a random bin) and carries
// on with the victim: a random walk, bounded by `maxLoop` steps per attempt
// and `maxRetry` attempts. The walk runs on the software shadow only; a
// failed attempt is undone step by step, so the shadow is all-or-nothing.
//
// The hardware must keep answering lookups while the moves are written. The
// walk's steps form a chain: step k evicted the item that step k+1 placed.
// Written in reverse (free slot first, new item last), every displaced item
// gets its new copy before its old slot is overwritten, so at every moment
// each item already in the table sits in at least one of its candidate slots.
// A walk that returns to a slot it wrote earlier has made a loop: the items
// on it were rotated and the same item is homeless again. Writing such a loop
// would overwrite a slot twice and break the chain argument, so the loop's
// steps are dropped and undone on the shadow before the list is built; the
// rest still chains and now writes every slot once. Loops are dropped latest
// first: the steps after the latest revisit touch only slots no other step
// wrote, so what they recorded stays true once the loop is undone, which is
// not so for an earlier loop whose slots a later step revisits.
//
// Tuning: with 2 tables and 1 bin cuckoo hashing fills to ~50%; more tables or
// bins push the threshold towards 90-98%. maxLoop 200 with 3 attempts reaches
// those loads for the usual shapes; beyond them items go pending rather than
// the walk running unbounded. Reference: Pagh and Rodler, "Cuckoo Hashing"
// (2001); Fotakis et al., "Space efficient hash tables with worst case
// constant access time" (d-ary); Dietzfelbinger and Weidling (blocked bins).
//
// Layout and cost: the shadow is one flat array of item pointers (one per
// slot), so a probe is arithmetic plus one load, and beside it an array of
// slot tags (see ItemShadow::Tag). A search for the library's own item type
// compares tags, a whole row at a time, and never reads a stored item: the
// items live all over the heap and each read would be a cache miss. Other
// item types are asked through their isEqual, as before. A walk records its
// steps by value in a vector kept across insertions; repeated slots are found
// by sorting the walk's writes, O(n log n) in its length. Command records are
// recycled through a free list, so once warm an insertion allocates nothing.
//
// Failure modes: exhaustion is not an error (the item goes pending); a broken
// chain or a shadow that disagrees with a lookup is an assertion.
#include "Olk/CuckooHashTable.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <map>
#include <new>
#include <ostream>
#include <typeinfo>
#include <unordered_map>
#include <utility>

#include "platform/ActivityManager.h"
#include "platform/Exception.h"
#include "platform/Format.h"
#include "platform/Log.h"
#include "platform/Trace.h"

namespace Olk::Cuckoo {

namespace {

Zum::TraceHandle& tr = Zum::traceHandle("CuckooHashTable");

const Zum::LogMessage pendingItemsExist{
    "CUCKOO_PENDING_ITEMS_EXIST", Zum::LogSeverity::warning,
    "Syslog - Pending items existed for more than %g secs.",
    "Some items could not be placed in the hardware hash table and are waiting for space.",
    "Remove entries or enlarge the table; the items are retried periodically.", 0.0};
const Zum::LogMessage pendingItemsEmpty{
    "CUCKOO_PENDING_ITEMS_EMPTY", Zum::LogSeverity::notice, "Syslog - Pending items are empty",
    "Every item that waited for space in the hardware hash table has been placed or removed.",
    "None.", 0.0};

constexpr Seconds notSet = -Zum::endOfTime;

U32 parseNumber(Zum::StrepIter& cur, Zum::StrepIter end, U32 hi, std::string_view type) {
  return static_cast<U32>(Zum::parseUnsigned(cur, end, hi, type));
}

// The refusal for re-creating a descriptor with another shape.
void refuseReshape(const Ptr<TableDescriptor const>& old, U32 tableSize, U32 binSize) {
  const char* text =
      "Reinstantiating the pointer interface where constructor parameter attribute %s has a different value of %u %u";
  if (old->tableSize() != tableSize) throw Zum::RangeException(Zum::format(text, "_tableSize", old->tableSize(), tableSize));
  if (old->binSize() != binSize) throw Zum::RangeException(Zum::format(text, "_binSize", unsigned(old->binSize()), binSize));
}

// Stores a descriptor in `slot` unless an equal one is there; answers whether
// it changed. The new one is built first so a bad bin count is refused either way.
bool storeDescriptor(Ptr<TableDescriptor const>& slot, TableId tableId, U32 tableSize, U32 binSize) {
  Ptr<TableDescriptor const> fresh = tableDescriptorFactory(tableId, tableSize, binSize);
  if (!slot) {
    slot = fresh;
    return true;
  }
  refuseReshape(slot, tableSize, binSize);
  return false;
}

[[noreturn]] void notImplemented(const char* function) {
  Zum::assertionFailed("(!(\"not implemented\"))", __FILE__, __LINE__, function);
}

}  // namespace

// ---- Value types ----------------------------------------------------------

void TableId::refuse() {
  throw Zum::RangeException("TableId::value < TableId::min or > TableId::null not allowed");
}

Ptr<TableDescriptor const> tableDescriptorFactory(TableId tableId, U32 tableSize, U32 binSize) {
  if (binSize < 1 || binSize > 8) throw Zum::RangeException("TableDescriptor::binSize < 1 or > 8 not allowed");
  return Ptr<TableDescriptor const>(new TableDescriptor(tableId, tableSize, static_cast<U8>(binSize)));
}

bool CuckooLocation::operator<(const CuckooLocation& o) const {
  if (!(tableId == o.tableId)) return tableId < o.tableId;
  if (binId != o.binId) return binId < o.binId;
  return index < o.index;
}

String valueToStrep(const TableId& t) { return Zum::format("( %d )", int(t.value())); }

void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, TableId* out) {
  Zum::needString(cur, end, "( ");
  U32 v = parseNumber(cur, end, 255, "Olk::Cuckoo::TableId");
  Zum::needString(cur, end, " )");
  *out = TableId(v);
}

String valueToStrep(const CuckooLocation& l) {
  return Zum::format("TableId/BinId/Index: ( %u, %u, %u )", unsigned(l.tableId.value()), unsigned(l.binId),
                     l.index);
}

void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, CuckooLocation* out) {
  static constexpr std::string_view type = "Olk::Cuckoo::CuckooLocation";
  Zum::needString(cur, end, "TableId/BinId/Index: ( ");
  TableId t(parseNumber(cur, end, 255, type));
  Zum::needString(cur, end, ", ");
  U8 bin = static_cast<U8>(parseNumber(cur, end, 255, type));
  Zum::needString(cur, end, ", ");
  U32 index = parseNumber(cur, end, 0xFFFFFFFFu, type);
  Zum::needString(cur, end, " )");
  *out = CuckooLocation{t, bin, index};
}

String valueToStrep(const TableDescriptor& d) {
  Zum::ValueStrepWriter w("Olk::Cuckoo::TableDescriptor");
  w.field("tableId", d.tableId()).field("tableSize", d.tableSize()).field("binSize", d.binSize());
  return std::move(w).done();
}

String valueToStrep(const Ptr<TableDescriptor const>& d) { return d ? valueToStrep(*d) : String("None"); }

std::ostream& operator<<(std::ostream& os, const TableId& t) { return os << valueToStrep(t); }
std::ostream& operator<<(std::ostream& os, const CuckooLocation& l) { return os << valueToStrep(l); }

// ---- Items and records ----------------------------------------------------

bool HashItem::isEqual(const Ptr<HashItem const>&) const { notImplemented(__func__); }
U32 HashItem::getHash(U8) const { notImplemented(__func__); }
String HashItem::toStrep() const { notImplemented(__func__); }

Ptr<HashItem> hashItemFactory() { return Ptr<HashItem>(new HashItem()); }

std::ostream& operator<<(std::ostream& os, const Ptr<HashItem const>& item) {
  return os << (item ? item->toStrep() : String("null"));
}

bool IntHashItem::isEqual(const Ptr<HashItem const>& other) const {
  // The class is final, so comparing the exact type answers as a cast would,
  // without the cast's walk of the class hierarchy on every probed slot.
  return other && typeid(*other) == typeid(IntHashItem) && static_cast<const IntHashItem&>(*other).key_ == key_;
}

U32 IntHashItem::getHash(U8 tableId) const {
  if (tableId == 0) return hashIndex0_;
  if (tableId == 1) return hashIndex1_;
  return hashIndex2_;
}

String IntHashItem::toStrep() const {
  return Zum::format("IntHashItem( %u; %u, %u, %u )", key_, hashIndex0_, hashIndex1_, hashIndex2_);
}

Ptr<IntHashItem> intHashItemFactory(U32 item, U32 hashIndex0, U32 hashIndex1, U32 hashIndex2) {
  return Ptr<IntHashItem>(new IntHashItem(item, hashIndex0, hashIndex1, hashIndex2));
}

namespace {

// Recycled CuckooItem memory: a free list of at most `cap` blocks. Like the
// rest of the library it belongs to the event-loop thread; with atomic
// reference counts records may be dropped on other threads, so then every
// block goes back to the allocator. Trivially destructible, so records
// dropped during exit still find it.
class RecordPool {
 public:
  void* get() {
    if (!head_) return ::operator new(sizeof(CuckooItem));
    Block* block = head_;
    head_ = block->next;
    --blocks_;
    return block;
  }
  void put(void* p) {
    if (blocks_ == cap || atomicRefs) {
      ::operator delete(p);
      return;
    }
    head_ = new (p) Block{head_};
    ++blocks_;
  }

 private:
  struct Block {
    Block* next;
  };
  static constexpr size_t cap = 4096;
#if OLK_ATOMIC_REFCOUNT
  static constexpr bool atomicRefs = true;
#else
  static constexpr bool atomicRefs = false;
#endif
  Block* head_;     // zero-initialised: a static
  size_t blocks_;   // on the list, <= cap
};

RecordPool cuckooItemPool;

}  // namespace

void* CuckooItem::operator new(size_t size) {
  ZUM_ASSERT(size == sizeof(CuckooItem));
  return cuckooItemPool.get();
}

void CuckooItem::operator delete(void* p) { cuckooItemPool.put(p); }

Ptr<CuckooItem const> cuckooItemFactory(const CuckooLocation& location, const Ptr<HashItem const>& item) {
  return Ptr<CuckooItem const>(new CuckooItem(location, item));
}

Ptr<EvictCmd const> evictCmdFactory(const Ptr<HashItem const>& oldItem, const Ptr<HashItem const>& newItem,
                                    const CuckooLocation& location) {
  return Ptr<EvictCmd const>(new EvictCmd(oldItem, newItem, location));
}

namespace {

void traceEvictCmd(const String& prefix, const CuckooLocation& location, const Ptr<HashItem const>& newItem,
                   const Ptr<HashItem const>& oldItem) {
  ZUM_TRACE(tr, 6) << prefix << " " << location << " newItem: " << newItem << " oldItem: " << oldItem;
}

}  // namespace

void traceEvictCmd(const String& prefix, const Ptr<EvictCmd const>& cmd) {
  traceEvictCmd(prefix, cmd->location(), cmd->newItem(), cmd->oldItem());
}

Ptr<EvictCmd const> EvictCmdPath::cmdLogPop() {
  ZUM_ASSERT(!cmdLog_.empty());
  Ptr<EvictCmd const> top = cmdLog_.back();
  cmdLog_.pop_back();
  return top;
}

Ptr<EvictCmdPath> evictCmdPathFactory() { return Ptr<EvictCmdPath>(new EvictCmdPath()); }

Ptr<CuckooItem const> CuckooCmds::itemSeqDeq() {
  ZUM_ASSERT(!itemSeq_.empty());
  Ptr<CuckooItem const> head = itemSeq_.front();
  itemSeq_.pop_front();
  return head;
}

Ptr<CuckooCmds> cuckooCmdsFactory() { return Ptr<CuckooCmds>(new CuckooCmds()); }

// ---- Config, TableStat, Status ---------------------------------------------

void Config::tableDescListIs(TableId tableId, U32 tableSize, U32 binSize) {
  Ptr<TableDescriptor const> slot = tableDescList_.get(tableId);
  if (!storeDescriptor(slot, tableId, tableSize, binSize)) return;
  entryIs(tableDescList_, tableId, slot, &Notifiee::onTableDescList);
}

void Config::tableDescListDel(TableId tableId) {
  entryDel(tableDescList_, tableId, &Notifiee::onTableDescList);
}

void Config::tableDescListDelAll() {
  entryDelAll(tableDescList_, &Notifiee::onTableDescList);
}

Ptr<Config> configFactory(const String& name, U8 numTables) { return Zum::create<Config>(name, numTables); }

void TableStat::tableDescIs(TableId tableId, U32 tableSize, U32 binSize) {
  if (storeDescriptor(tableDesc_, tableId, tableSize, binSize)) notify(&Notifiee::onTableDesc);
}

void TableStat::numOfHashItemsDec() {
  ZUM_ASSERT(numOfHashItems_ > 0);
  attributeIs(numOfHashItems_, numOfHashItems_ - 1, &Notifiee::onNumOfHashItems);
}

float TableStat::occupancy() const {
  if (!tableDesc_ || tableDesc_->capacity() == 0) return 0.0f;
  return float(numOfHashItems_) / float(tableDesc_->capacity());
}

Ptr<TableStat> tableStatFactory(TableId tableId) { return Zum::create<TableStat>(tableId); }

String valueToStrep(const TableStat& s) {
  Zum::ValueStrepWriter w("Olk::Cuckoo::TableStat");
  w.field("tableId", s.tableId()).field("tableDesc", s.tableDesc()).field("lookupSuccess", s.lookupSuccess());
  w.field("lookupFailures", s.lookupFailures()).field("numOfEvicts", s.numOfEvicts());
  w.field("numOfHashItems", s.numOfHashItems());
  return std::move(w).done();
}

Ptr<TableStat> Status::tableStatIs(TableId tableId) {
  return entryFoundOrIs(tableStat_, tableId, [&] { return tableStatFactory(tableId); }, &Notifiee::onTableStat);
}

void Status::tableStatDel(TableId tableId) {
  entryDel(tableStat_, tableId, &Notifiee::onTableStat);
}

void Status::tableStatDelAll() {
  entryDelAll(tableStat_, &Notifiee::onTableStat);
}

float Status::occupancy() const {
  U64 items = 0;
  U64 capacity = 0;
  for (const auto& [tableId, stat] : tableStat_) {
    U32 tableCapacity = stat->tableDesc() ? stat->tableDesc()->capacity() : 0;
    ZUM_TRACE(tr, 7) << "Table[" << tableId << "] numOfHashItems: " << stat->numOfHashItems() << " / "
                     << tableCapacity << ", numOfEvicts: " << stat->numOfEvicts();
    items += stat->numOfHashItems();
    capacity += tableCapacity;
  }
  return capacity ? float(double(items) / double(capacity)) : 0.0f;
}

Ptr<Status> statusFactory(const String& name) { return Zum::create<Status>(name); }

// ---- The item shadow ---------------------------------------------------------

void ItemShadow::tablesIs(const std::vector<Ptr<TableDescriptor const>>& descs) {
  size_t base = 0;
  for (const Ptr<TableDescriptor const>& desc : descs) {
    tables_.push_back(Table{base, desc->tableSize(), desc->binSize(), ~U64(0) / desc->tableSize() + 1});
    base += size_t(desc->tableSize()) * desc->binSize();
  }
  slots_.assign(base, nullptr);
  tags_.assign(base, empty);
  occupied_ = 0;
}

bool ItemShadow::holds(const CuckooLocation& l) const {
  const U8 t = l.tableId.value();
  return t < tables_.size() && l.index < tables_[t].size && l.binId < tables_[t].bins;
}

Ptr<HashItem const> ItemShadow::get(const CuckooLocation& location) const {
  return holds(location) ? at(slot(location)) : nullptr;
}

ItemShadow::Tag ItemShadow::tagOf(const HashItem* item) {
  if (!item) return empty;
  if (typeid(*item) != typeid(IntHashItem)) return opaque;
  return intKey | static_cast<const IntHashItem&>(*item).key();
}

Ptr<HashItem const> ItemShadow::exchange(size_t slot, const Ptr<HashItem const>& item) {
  tags_[slot] = tagOf(item.ptr());
  Ptr<HashItem const> old = std::exchange(slots_[slot], item);
  occupied_ += size_t(bool(item)) - size_t(bool(old));
  return old;
}

ItemShadow::const_iterator::const_iterator(const ItemShadow* shadow, size_t slot)
    : shadow_(shadow), slot_(slot), table_(0) {
  skipEmpty();
}

void ItemShadow::const_iterator::skipEmpty() {
  const std::vector<Ptr<HashItem const>>& slots = shadow_->slots_;
  while (slot_ < slots.size() && !slots[slot_]) ++slot_;
  while (table_ + 1u < shadow_->tables_.size() && slot_ >= shadow_->tables_[table_ + 1].base) ++table_;
}

ItemShadow::value_type ItemShadow::const_iterator::operator*() const {
  const Table& t = shadow_->tables_[table_];
  const size_t offset = slot_ - t.base;
  return {CuckooLocation{table_, U8(offset % t.bins), U32(offset / t.bins)}, shadow_->slots_[slot_]};
}

ItemShadow::const_iterator& ItemShadow::const_iterator::operator++() {
  ++slot_;
  skipEmpty();
  return *this;
}

// ---- HashTable: start ------------------------------------------------------

HashTable::HashTable(const Ptr<Config>& config, const Ptr<Status>& status, const Ptr<Zum::Clock>& clock)
    : Zum::Entity(config ? config->name() : String()),
      config_(config),
      status_(status),
      clock_(clock),
      configReactor_(this),
      reviewReactor_(this) {}

Ptr<HashTable> hashTableFactory(const Ptr<Config>& config, const Ptr<Status>& status,
                                const Ptr<Zum::Clock>& clock) {
  Zum::requireNonNull(config, "HashTable", "config");
  Zum::requireNonNull(status, "HashTable", "status");
  return Zum::create<HashTable>(config, status, Zum::clockOrLoop(clock));
}

void HashTable::checkConfig() const {
  ZUM_ASSERT(config()->numTables());
  ZUM_ASSERT(config()->numTables() < 10);
  ZUM_ASSERT(config()->numTables() == config()->tableDescLists());
  ZUM_ASSERT(config()->maxRetry());
  ZUM_ASSERT(config()->maxLoop());
  for (const auto& [tableId, tableDesc] : config()->tableDescList()) {
    ZUM_ASSERT(tableDesc->tableId() == tableId);
    ZUM_ASSERT(tableDesc->tableSize());
    ZUM_ASSERT(tableDesc->binSize() >= 1);
  }
}

void HashTable::handleInitialized() {
  ZUM_TRACE(tr, 5) << " numTables: " << unsigned(config()->numTables())
                   << " tableDescLists: " << config()->tableDescLists() << " randomSeed: " << config()->randomSeed();
  checkConfig();
  for (const auto& [tableId, tableDesc] : config()->tableDescList()) {
    // Tables are numbered 0..numTables-1; a descriptor keyed outside that
    // range leaves a hole that lookups would fall into.
    ZUM_ASSERT_TEXT(tableId.value() == tableDescs_.size(), "tableId.value() < config()->numTables()");
    tableStats_.push_back(status()->tableStatIs(tableId));
    tableStats_.back()->tableDescIs(tableId, tableDesc->tableSize(), tableDesc->binSize());
    tableDescs_.push_back(tableDesc);
  }
  itemShadow_.tablesIs(tableDescs_);
  std::srand(config()->randomSeed());
  int first = std::rand();
  ZUM_TRACE(tr, 5) << " rand() == " << first;
  configReactor_.notifierIs(config_);
  reviewReactor_.notifierIs(clock_);
  initialized_ = true;
}

// ---- HashTable: placement --------------------------------------------------

U32 HashTable::getTableIndexForItem(TableId tableId, const Ptr<HashItem const>& item) const {
  return item->getHash(tableId.value()) % desc(tableId).tableSize();
}

Ptr<CuckooItem const> HashTable::lookupItem(const Ptr<HashItem const>& item) const {
  const Probe probe = lookupItem(item, false);
  return probe.found == Probe::none ? nullptr : cuckooItemFactory(probe.foundAt, itemShadow_.at(probe.found));
}

HashTable::Probe HashTable::lookupItem(const Ptr<HashItem const>& item, bool forInsert) const {
  ZUM_ASSERT(item);
  ZUM_TRACE(tr, 8) << " item: " << item;
  // An IntHashItem is judged by the slots' tags alone. Any other item needs
  // its isEqual on every stored item; an insertion, which expects the item to
  // be absent, then requests the stored items before comparing any, so that
  // the cache misses overlap. A search for a present item usually stops early
  // and fetches lazily.
  const ItemShadow::Tag probeTag = ItemShadow::tagOf(item.ptr());
  const bool byTag = probeTag != ItemShadow::opaque;
  const U8 numTables = U8(tableDescs_.size());
  U32 index[TableId::null];
  for (U8 t = 0; t < numTables; ++t) index[t] = itemShadow_.index(t, item->getHash(t));
  Probe probe;
  if (byTag) {
    searchByTag(probeTag, index, forInsert, probe);
  } else {
    if (forInsert) prefetchStoredItems(index);
    searchByIsEqual(item, index, forInsert, probe);
  }
  return probe;
}

void HashTable::searchByTag(ItemShadow::Tag probeTag, const U32* index, bool forInsert, Probe& probe) const {
  // Bit masks over each row instead of a branch per bin: whether a bin is
  // free is as good as random, and a mispredicted branch per bin costs more
  // than comparing them all.
  for (U8 t = 0; t < tableDescs_.size(); ++t) {
    const size_t row = itemShadow_.row(t, index[t]);
    if (const U32 equal = itemShadow_.binsTagged(t, row, probeTag)) {
      probe.found = row + U32(__builtin_ctz(equal));
      probe.foundAt = CuckooLocation{t, U8(__builtin_ctz(equal)), index[t]};
      return;
    }
    if (!forInsert || probe.free != Probe::none) continue;
    if (const U32 free = itemShadow_.binsTagged(t, row, ItemShadow::empty)) {
      probe.free = row + U32(__builtin_ctz(free));
      probe.freeAt = CuckooLocation{t, U8(__builtin_ctz(free)), index[t]};
    }
  }
}

void HashTable::searchByIsEqual(const Ptr<HashItem const>& item, const U32* index, bool forInsert,
                                Probe& probe) const {
  for (U8 t = 0; t < tableDescs_.size(); ++t) {
    const size_t row = itemShadow_.row(t, index[t]);
    for (U8 b = 0; b < itemShadow_.bins(t); ++b) {
      const Ptr<HashItem const>& stored = itemShadow_.at(row + b);
      if (!stored) {
        if (forInsert && probe.free == Probe::none) {
          probe.free = row + b;
          probe.freeAt = CuckooLocation{t, b, index[t]};
        }
      } else if (item->isEqual(stored)) {
        probe.found = row + b;
        probe.foundAt = CuckooLocation{t, b, index[t]};
        return;
      }
    }
  }
}

void HashTable::prefetchStoredItems(const U32* index) const {
  for (U8 t = 0; t < tableDescs_.size(); ++t) {
    const size_t row = itemShadow_.row(t, index[t]);
    for (U8 b = 0; b < itemShadow_.bins(t); ++b) {
      // Only real items: a prefetch of null costs a page walk on some machines.
      if (const HashItem* stored = itemShadow_.at(row + b).ptr()) __builtin_prefetch(stored);
    }
  }
}

Ptr<EvictCmd const> HashTable::setItemAtLocation(const Ptr<HashItem const>& item, const CuckooLocation& location) {
  ZUM_ASSERT(itemShadow_.holds(location));
  return evictCmdFactory(setItemAtLocation(item, location, itemShadow_.slot(location)), item, location);
}

Ptr<HashItem const> HashTable::setItemAtLocation(const Ptr<HashItem const>& item, const CuckooLocation& location,
                                                 size_t slot) {
  Ptr<HashItem const> old = itemShadow_.exchange(slot, item);
  if (!item) {
    ZUM_TRACE(tr, 8) << " " << location << ", Delete: " << item;
    if (old) tableStat(location.tableId).numOfHashItemsDec();
  } else if (old) {
    ZUM_TRACE(tr, 8) << " " << location << ", Assign: " << item << ", Evict: " << old;
  } else {
    ZUM_TRACE(tr, 8) << " " << location << ", Assign: " << item;
    tableStat(location.tableId).numOfHashItemsInc();
  }
  return old;
}

Ptr<HashItem const> HashTable::tryInsertItem(const Ptr<HashItem const>& item, const Ptr<EvictCmdPath>& path) {
  Steps steps;
  Ptr<HashItem const> evicted = tryInsertItem(item, steps);
  path->cmdLogPush(evictCmdFactory(steps[0].oldItem, steps[0].newItem, steps[0].location));
  return evicted;
}

Ptr<HashItem const> HashTable::tryInsertItem(const Ptr<HashItem const>& item, Steps& path) {
  const U8 numTables = config()->numTables();
  U32 index[TableId::null];
  for (U8 t = 0; t < numTables; ++t) {
    index[t] = itemShadow_.index(t, item->getHash(t));
    __builtin_prefetch(&itemShadow_.tag(itemShadow_.row(t, index[t])));  // the misses overlap
  }
  for (U8 t = 0; t < numTables; ++t) {
    const size_t row = itemShadow_.row(t, index[t]);
    if (const U32 free = itemShadow_.binsTagged(t, row, ItemShadow::empty)) {
      const U8 bin = U8(__builtin_ctz(free));
      placeInFreeSlot(item, CuckooLocation{t, bin, index[t]}, row + bin, path);
      return nullptr;
    }
  }
  U8 victimTable = static_cast<U8>(std::rand() % numTables);
  if (victimTable == lastEvictedTable_.value()) victimTable = static_cast<U8>((victimTable + 1) % numTables);
  const U8 binSize = itemShadow_.bins(victimTable);
  const U8 bin = binSize == 1 ? 0 : static_cast<U8>(std::rand() % binSize);
  const CuckooLocation location{victimTable, bin, index[victimTable]};
  lastEvictedTable_ = victimTable;
  path.push_back(Step{location, setItemAtLocation(item, location, itemShadow_.slot(location)), item});
  return path.back().oldItem;
}

void HashTable::placeInFreeSlot(const Ptr<HashItem const>& item, const CuckooLocation& location, size_t slot,
                                Steps& path) {
  path.push_back(Step{location, setItemAtLocation(item, location, slot), item});
  lastEvictedTable_ = TableId::null;
}

bool HashTable::insert(const Ptr<HashItem const>& item, const Ptr<CuckooCmds>& cmds) {
  ZUM_TRACE(tr, 7) << " item: " << item;
  const Probe probe = lookupItem(item, true);
  if (probe.found != Probe::none) {
    ZUM_TRACE(tr, 7) << " item already exists: " << item;
    return true;
  }
  // The lookup has seen what the walk's first step would: with a free
  // candidate slot the walk is that one step.
  if (probe.free != Probe::none) {
    walk_.clear();
    placeInFreeSlot(item, probe.freeAt, probe.free, walk_);
    updateCuckooCmds(walk_, cmds);
    return true;
  }
  for (U32 retry = 0; retry < config()->maxRetry(); ++retry) {
    walk_.clear();
    Ptr<HashItem const> current = item;
    for (U32 step = 0; step < config()->maxLoop(); ++step) {
      current = tryInsertItem(current, walk_);
      if (!current) {
        updateCuckooCmds(walk_, cmds);
        return true;
      }
    }
    const float occ = status()->occupancy();
    ZUM_TRACE(tr, 5) << "Try[" << retry << "] maxLoop reached - item: " << item << " occupancy: " << occ;
    status()->retryCountInc();
    updateFailStats(occ);
    revertChanges(walk_);
  }
  return false;
}

void HashTable::scheduleReviewIfPending() {
  if (status()->pendingItemSets() == 0 || reviewReactor_.timeMin() != Zum::endOfTime) return;
  reviewReactor_.timeMinIs(clock()->now() + config()->pendingItemReviewQuantum());
}

bool HashTable::insertItem(const Ptr<HashItem const>& item) {
  ZUM_TRACE(tr, 7) << " item: " << item;
  const bool ok = insert(item, status()->cuckooCmds());
  if (!ok) status()->pendingItemSetIs(item);
  scheduleReviewIfPending();
  return ok;
}

bool HashTable::remove(const Ptr<HashItem const>& item, const Ptr<CuckooCmds>& cmds) {
  if (!item) {
    ZUM_TRACE(tr, 7) << " Invalid item.";
    return false;
  }
  ZUM_TRACE(tr, 7) << " item: " << item;
  const Probe probe = lookupItem(item, false);
  if (probe.found == Probe::none) {
    ZUM_TRACE(tr, 7) << " Item does not exist.";
    return false;
  }
  ZUM_ASSERT_TEXT(item->isEqual(itemShadow_.at(probe.found)), "item->isEqual( itemShadow( cuckooItem->location() ) )");
  Ptr<HashItem const> removed = setItemAtLocation(nullptr, probe.foundAt, probe.found);
  cmds->itemSeqEnq(cuckooItemFactory(probe.foundAt, nullptr));
  if (cmds == status()->cuckooCmds()) cmdPriorItems_.push_back(std::move(removed));
  return true;
}

bool HashTable::deleteItem(const Ptr<HashItem const>& item) {
  const bool ok = remove(item, status()->cuckooCmds());
  if (item && status()->pendingItemSets()) {
    for (const Ptr<HashItem const>& pending : status()->pendingItemSet()) {
      if (pending == item || item->isEqual(pending)) status()->pendingItemSetDel(pending);
    }
  }
  scheduleReviewIfPending();
  return ok;
}

// ---- HashTable: the command list -------------------------------------------

namespace {

constexpr U32 notLatest = ~U32(0);

}  // namespace

HashTable::Steps HashTable::stepsOf(const Ptr<EvictCmdPath>& path) const {
  Steps steps;
  for (size_t i = 0; i < path->cmdLogs(); ++i) {
    const Ptr<EvictCmd const>& cmd = path->cmdLog(i);
    ZUM_ASSERT(itemShadow_.holds(cmd->location()));
    steps.push_back(Step{cmd->location(), cmd->oldItem(), cmd->newItem(), U32(i)});
  }
  return steps;
}

void HashTable::undoSteps(const Steps& steps, size_t first, size_t last) {
  for (size_t i = last + 1; i-- > first;) {
    traceEvictCmd(" Deleting cycle: ", steps[i].location, steps[i].newItem, steps[i].oldItem);
    setItemAtLocation(steps[i].oldItem, steps[i].location, itemShadow_.slot(steps[i].location));
  }
}

void HashTable::sortWrites(const Steps& path) {
  writes_.clear();
  for (size_t j = 0; j < path.size(); ++j) writes_.emplace_back(path[j].location, U32(j));
  std::sort(writes_.begin(), writes_.end());
}

bool HashTable::findLatestLoop(const Steps& path, size_t& first, size_t& last) {
  if (path.size() < 2) return false;
  sortWrites(path);
  last = 0;
  for (size_t k = 1; k < writes_.size(); ++k) {
    if (writes_[k].first == writes_[k - 1].first && writes_[k].second > last) {
      first = writes_[k - 1].second;
      last = writes_[k].second;
    }
  }
  return last != 0;
}

U32 HashTable::maybeDeleteCycle(const Ptr<EvictCmdPath>& path) {
  Steps steps = stepsOf(path);
  const U32 cycles = maybeDeleteCycle(steps);
  std::vector<Ptr<EvictCmd const>> cmds;
  for (const Step& step : steps) cmds.push_back(path->cmdLog(step.origin));
  path->cmdLogDelAll();
  for (const Ptr<EvictCmd const>& cmd : cmds) path->cmdLogPush(cmd);
  return cycles;
}

U32 HashTable::maybeDeleteCycle(Steps& path) {
  U32 cycles = 0;
  for (;;) {
    for (size_t j = 1; j < path.size(); ++j) {
      ZUM_ASSERT_TEXT(path[j - 1].oldItem == path[j].newItem, "( *prevIter )->oldItem() == ( *ecIt )->newItem()");
    }
    // The loop to drop is the one closed by the latest revisit: no later step
    // touches its slots, so the later steps' records stay true once it goes.
    size_t first = 0;
    size_t last = 0;
    if (!findLatestLoop(path, first, last)) break;
    // Steps first..last rotated items round a loop of slots and left the item
    // placed at `first` homeless again, exactly as before `first`.
    for (size_t k = first; k <= last; ++k) {
      traceEvictCmd(" detectCycle: ", path[k].location, path[k].newItem, path[k].oldItem);
    }
    undoSteps(path, first, last);
    path.erase(path.begin() + std::ptrdiff_t(first), path.begin() + std::ptrdiff_t(last) + 1);
    ++cycles;
  }
  return cycles;
}

void HashTable::emitCmd(const Step& step, const Ptr<HashItem const>& prior, const Ptr<CuckooCmds>& cmds) {
  if (step.oldItem) {
    tableStat(step.location.tableId).numOfEvictsInc();
    ZUM_TRACE(tr, 8) << " " << step.location << " Assign: " << step.newItem << " Evict: " << step.oldItem;
  } else {
    ZUM_TRACE(tr, 8) << " " << step.location << " Assign: " << step.newItem;
  }
  cmds->itemSeqEnq(cuckooItemFactory(step.location, step.newItem));
  if (cmds == status()->cuckooCmds()) cmdPriorItems_.push_back(prior);
}

void HashTable::emitSteps(const Steps& path, const Ptr<CuckooCmds>& cmds) {
  // Without repeated slots (always so once loops are dropped) every step is
  // the only write of its slot.
  if (config()->hitless() || path.size() < 2) {
    for (size_t i = path.size(); i-- > 0;) emitCmd(path[i], path[i].oldItem, cmds);
    return;
  }
  // A slot written more than once held, before the walk, the oldItem of its
  // earliest write: that is what the hardware holds when the list starts.
  // Only its latest write is emitted.
  sortWrites(path);
  priorStep_.assign(path.size(), notLatest);
  for (size_t k = 0; k < writes_.size();) {
    size_t end = k + 1;
    while (end < writes_.size() && writes_[end].first == writes_[k].first) ++end;
    priorStep_[writes_[end - 1].second] = writes_[k].second;
    k = end;
  }
  for (size_t i = path.size(); i-- > 0;) {
    if (priorStep_[i] != notLatest) emitCmd(path[i], path[priorStep_[i]].oldItem, cmds);
  }
}

void HashTable::updateCuckooCmds(const Ptr<EvictCmdPath>& path, const Ptr<CuckooCmds>& cmds) {
  Steps steps = stepsOf(path);
  path->cmdLogDelAll();
  updateCuckooCmds(steps, cmds);
}

void HashTable::updateCuckooCmds(Steps& path, const Ptr<CuckooCmds>& cmds) {
  ZUM_TRACE(tr, 8) << "";
  if (config()->hitless()) {
    const U32 n = maybeDeleteCycle(path);
    ZUM_TRACE(tr, 7) << "Number of cycles detected: " << n;
    if (n) {  // no loop dropped changes neither counter
      status()->longestCycleIs(std::max(status()->longestCycle(), n));
      status()->cycleCountIs(status()->cycleCount() + n);
    }
  }
  emitSteps(path, cmds);
  path.clear();
  if (config()->tryReduceCmdsOnInsert()) tryReduceCuckooCmds(cmds);
}

void HashTable::revertChanges(const Ptr<EvictCmdPath>& path) {
  Steps steps = stepsOf(path);
  path->cmdLogDelAll();
  revertChanges(steps);
}

void HashTable::revertChanges(Steps& path) {
  ZUM_TRACE(tr, 7) << "";
  for (size_t i = path.size(); i-- > 0;) {
    setItemAtLocation(path[i].oldItem, path[i].location, itemShadow_.slot(path[i].location));
  }
  path.clear();
}

bool HashTable::tryReduceCuckooCmds(const Ptr<CuckooCmds>&) {
  ZUM_TRACE(tr, 8) << "";
  return false;
}

void HashTable::updateFailStats(float loadFactor) {
  ZUM_TRACE(tr, 7) << "";
  const U32 records = config()->numFailureRecords();
  if (status()->firstFailLoadFactor().size() < records) {
    status()->firstFailLoadFactorEnq(loadFactor);
    return;
  }
  if (status()->lastFailLoadFactor().size() > records) status()->lastFailLoadFactorDeq();
  status()->lastFailLoadFactorEnq(loadFactor);
}

void HashTable::handleCmdReadCompleted() {
  ZUM_TRACE(tr, 7) << "";
  status()->totalCmdReadCompletedIs(status()->totalCmdReadCompleted() + U32(status()->cuckooCmds()->itemSeqs()));
  status()->cuckooCmds()->itemSeqDelAll();
  cmdPriorItems_.clear();
}

// ---- HashTable: pending items ----------------------------------------------

void HashTable::reviewPendingItems() {
  ZUM_TRACE(tr, 7) << "";
  reviewReactor_.timeMinIs(Zum::endOfTime);
  if (!config()->reviewPendingItemSupport()) {
    ZUM_TRACE(tr, 5) << "Skip processing pending items, check reviewPendingItemSupport.";
    return;
  }
  std::vector<Ptr<HashItem const>> pending = status()->pendingItemSet();
  pending.resize(std::min<size_t>(pending.size(), config()->maxPendingItemsToReview()));
  U32 inserted = 0;
  for (const Ptr<HashItem const>& item : pending) {
    if (!insert(item, status()->cuckooCmds())) continue;
    status()->pendingItemSetDel(item);
    ++inserted;
  }
  if (inserted) {
    ZUM_TRACE(tr, 5) << "Number of pending items inserted: " << inserted;
    status()->pendingItemVersionInc();
  }
  ZUM_TRACE(tr, 5) << "Number of pending items: " << status()->pendingItemSets()
                   << " lastSyslogTime: " << lastSyslogTime_ << " pendingItemBeginTime: " << pendingItemBeginTime_;
  logPendingState();
}

void HashTable::logPendingState() {
  const Seconds now = clock()->now();
  const Seconds interval = config()->syslogIntervalForPendingItems();
  const bool logging = std::isfinite(interval);
  if (status()->pendingItemSets() == 0) {
    pendingItemBeginTime_ = notSet;
    if (logging && lastSyslogTime_ != notSet) {
      pendingItemsEmpty.log();
      status()->pendingItemSyslogVersionInc();
      lastSyslogTime_ = now;
    }
    return;
  }
  if (pendingItemBeginTime_ == notSet) pendingItemBeginTime_ = now;
  if (logging && now - lastSyslogTime_ >= interval) {
    pendingItemsExist.log(interval);
    status()->pendingItemSyslogVersionInc();
    lastSyslogTime_ = now;
  }
  reviewReactor_.timeMinIs(now + config()->pendingItemReviewQuantum());
}

// ---- HashTable: self-check -------------------------------------------------

bool HashTable::verifyCuckooCmdsHitless() const {
  const Ptr<CuckooCmds>& cmds = status()->cuckooCmds();
  // An agent may dequeue writes as it applies them: the list then lost its
  // head, and the records of those writes are skipped.
  if (cmds->itemSeqs() > cmdPriorItems_.size()) {
    ZUM_TRACE(tr, 3) << "Command list changed outside the table: " << cmds->itemSeqs() << " commands, "
                     << cmdPriorItems_.size() << " known";
    return false;
  }
  const size_t applied = cmdPriorItems_.size() - cmds->itemSeqs();
  auto priorItem = [&](size_t i) { return cmdPriorItems_[applied + i]; };
  // Rebuild the hardware state the list starts from: the shadow with the
  // list's writes undone, latest first.
  std::unordered_map<CuckooLocation, Ptr<HashItem const>> hwTable(itemShadow_.begin(), itemShadow_.end());
  for (size_t i = cmds->itemSeqs(); i-- > 0;) {
    const Ptr<CuckooItem const>& cuckooItem = cmds->itemSeq(i);
    auto at = hwTable.find(cuckooItem->location());
    const Ptr<HashItem const> present = at == hwTable.end() ? nullptr : at->second;
    if (present != cuckooItem->item()) {
      ZUM_TRACE(tr, 3) << "Item mismatch! expected item " << cuckooItem->item() << " at "
                       << cuckooItem->location() << " found " << present;
      return false;
    }
    if (priorItem(i)) {
      hwTable[cuckooItem->location()] = priorItem(i);
    } else {
      hwTable.erase(cuckooItem->location());
    }
  }
  // Replay forward: a write may drop the last copy of an item only when it
  // deletes that item.
  std::unordered_map<Ptr<HashItem const>, U32> itemToLoc;  // copies of each item in hwTable
  for (const auto& kv : hwTable) ++itemToLoc[kv.second];
  for (size_t i = 0; i < cmds->itemSeqs(); ++i) {
    const Ptr<CuckooItem const>& cuckooItem = cmds->itemSeq(i);
    const Ptr<HashItem const> prevItem = priorItem(i);
    if (cuckooItem->item()) ++itemToLoc[cuckooItem->item()];  // first, in case it rewrites prevItem
    if (prevItem) {
      ZUM_ASSERT(hwTable.count( cuckooItem->location() ));
      ZUM_ASSERT(itemToLoc.count( prevItem ));
      if (--itemToLoc[prevItem] == 0) {
        itemToLoc.erase(prevItem);
        if (cuckooItem->item()) {
          ZUM_TRACE(tr, 3) << "Missing item " << prevItem << " after write " << i << " at " << cuckooItem->location();
          return false;
        }
      }
    }
    if (cuckooItem->item()) {
      hwTable[cuckooItem->location()] = cuckooItem->item();
    } else {
      hwTable.erase(cuckooItem->location());
    }
  }
  if (hwTable.size() != itemShadow_.size()) {
    ZUM_TRACE(tr, 3) << "Table sizes are different " << hwTable.size() << " " << itemShadow_.size();
    return false;
  }
  for (const auto& [location, item] : itemShadow_) {
    auto at = hwTable.find(location);
    if (at == hwTable.end() || at->second != item) {
      ZUM_TRACE(tr, 3) << "Tables are different at " << location;
      return false;
    }
  }
  return true;
}

// ---- HashTable: dumps ------------------------------------------------------

void HashTable::currentSnapshot(const Ptr<const DumpContext>& dumpCtx) const {
  objDumpPrintf(dumpCtx,
                "HashTable %s occupancy: %.3f pendingItems: %zu commands: %zu cycleCount: %u longestCycle: %u "
                "retryCount: %u totalCmdReadCompleted: %u\n",
                name().c_str(), double(status()->occupancy()), status()->pendingItemSets(),
                status()->cuckooCmds()->itemSeqs(), status()->cycleCount(), status()->longestCycle(),
                status()->retryCount(), status()->totalCmdReadCompleted());
  for (const auto& [tableId, stat] : status()->tableStat()) {
    objDumpPrintf(dumpCtx, "  Table[%s] numOfHashItems: %u / %u, numOfEvicts: %u\n", valueToStrep(tableId).c_str(),
                  stat->numOfHashItems(), stat->tableDesc() ? stat->tableDesc()->capacity() : 0u, stat->numOfEvicts());
  }
}

namespace {

// Prints one line per entry, stopping at the context's cap.
template <class Items, class Line>
void dumpList(const Ptr<const DumpContext>& dumpCtx, const Items& items, Line line) {
  const U32 cap = dumpCtx ? dumpCtx->maxListEntriesDumped() : DumpContext::defaultMaxListEntriesDumped;
  U32 n = 0;
  for (const auto& entry : items) {
    if (n++ == cap) {
      if (dumpCtx) dumpCtx->truncatedIs(true);
      objDumpPrintf(dumpCtx, "  ... truncated at %u entries\n", cap);
      return;
    }
    line(entry);
  }
}

}  // namespace

void HashTable::displayItems(U32 verbosity, const Ptr<const DumpContext>& dumpCtx) const {
  currentSnapshot(dumpCtx);
  if (verbosity >= 1) {
    dumpList(dumpCtx, status()->pendingItemSet(), [&](const Ptr<HashItem const>& item) {
      objDumpPrintf(dumpCtx, "  pending %s\n", item->toStrep().c_str());
    });
  }
  if (verbosity >= 2) {
    const std::map<CuckooLocation, Ptr<HashItem const>> ordered(itemShadow_.begin(), itemShadow_.end());
    dumpList(dumpCtx, ordered, [&](const auto& slot) {
      objDumpPrintf(dumpCtx, "  %s %s\n", valueToStrep(slot.first).c_str(), slot.second->toStrep().c_str());
    });
  }
}

}  // namespace Olk::Cuckoo
