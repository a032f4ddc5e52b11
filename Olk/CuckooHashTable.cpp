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
// Failure modes: exhaustion is not an error (the item goes pending); a broken
// chain or a shadow that disagrees with a lookup is an assertion.
#include "Olk/CuckooHashTable.h"

#include <cmath>
#include <cstdlib>
#include <ostream>
#include <unordered_set>

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

TableId::TableId(U32 value) : value_(static_cast<U8>(value)) {
  if (value > null) throw Zum::RangeException("TableId::value < TableId::min or > TableId::null not allowed");
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
  auto* o = dynamic_cast<const IntHashItem*>(other.ptr());
  return o && o->key_ == key_;
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

Ptr<CuckooItem const> cuckooItemFactory(const CuckooLocation& location, const Ptr<HashItem const>& item) {
  return Ptr<CuckooItem const>(new CuckooItem(location, item));
}

Ptr<EvictCmd const> evictCmdFactory(const Ptr<HashItem const>& oldItem, const Ptr<HashItem const>& newItem,
                                    const CuckooLocation& location) {
  return Ptr<EvictCmd const>(new EvictCmd(oldItem, newItem, location));
}

void traceEvictCmd(const String& prefix, const Ptr<EvictCmd const>& cmd) {
  ZUM_TRACE(tr, 6) << prefix << " " << cmd->location() << " newItem: " << cmd->newItem()
                   << " oldItem: " << cmd->oldItem();
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
  if (Ptr<TableStat> present = tableStat_.get(tableId)) return present;
  Ptr<TableStat> stat = tableStatFactory(tableId);
  entryIs(tableStat_, tableId, stat, &Notifiee::onTableStat);
  return stat;
}

void Status::tableStatDel(TableId tableId) {
  entryDel(tableStat_, tableId, &Notifiee::onTableStat);
}

void Status::tableStatDelAll() {
  entryDelAll(tableStat_, &Notifiee::onTableStat);
}

std::vector<Ptr<HashItem const>> Status::pendingItemSet() const {
  std::vector<Ptr<HashItem const>> items;
  items.reserve(pendingBySeq_.size());
  for (const auto& kv : pendingBySeq_) items.push_back(kv.second);
  return items;
}

void Status::pendingItemSetIs(const Ptr<HashItem const>& item) {
  if (!pendingSeq_.emplace(item, nextPendingSeq_).second) return;
  pendingBySeq_.emplace(nextPendingSeq_++, item);
  notify(&Notifiee::onPendingItemSet, item);
}

void Status::pendingItemSetDel(const Ptr<HashItem const>& item) {
  auto it = pendingSeq_.find(item);
  if (it == pendingSeq_.end()) return;
  pendingBySeq_.erase(it->second);
  pendingSeq_.erase(it);
  notify(&Notifiee::onPendingItemSet, item);
}

void Status::pendingItemSetDelAll() {
  for (const Ptr<HashItem const>& item : pendingItemSet()) pendingItemSetDel(item);
}

void Status::pendingItemVersionInc() {
  ++pendingItemVersion_;
  notify(&Notifiee::onPendingItemVersion);
}

void Status::pendingItemSyslogVersionInc() {
  ++pendingItemSyslogVersion_;
  notify(&Notifiee::onPendingItemSyslogVersion);
}

void Status::totalCmdReadCompletedIs(U32 v) { attributeIs(totalCmdReadCompleted_, v, &Notifiee::onTotalCmdReadCompleted); }

void Status::enq(Zum::Queue<float>& queue, float v, QueueReaction reaction) {
  notify(reaction, queue.push(v));
}

float Status::deq(Zum::Queue<float>& queue, QueueReaction reaction) {
  const U64 index = queue.head();
  const float v = queue.pop();
  notify(reaction, index);
  return v;
}

void Status::delAll(Zum::Queue<float>& queue, QueueReaction reaction) {
  const U64 head = queue.head();
  const U64 tail = queue.tail();
  queue.clear();
  for (U64 index = head; index < tail; ++index) notify(reaction, index);
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
    status()->tableStatIs(tableId)->tableDescIs(tableId, tableDesc->tableSize(), tableDesc->binSize());
    tableDescs_.push_back(tableDesc);
  }
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
  ZUM_ASSERT(item);
  ZUM_TRACE(tr, 8) << " item: " << item;
  for (U8 t = 0; t < tableDescs_.size(); ++t) {
    const U32 index = getTableIndexForItem(t, item);
    for (U8 b = 0; b < desc(t).binSize(); ++b) {
      const CuckooLocation location{t, b, index};
      const Ptr<HashItem const>* stored = itemShadow_.find(location);
      if (stored && item->isEqual(*stored)) return cuckooItemFactory(location, *stored);
    }
  }
  return nullptr;
}

Ptr<EvictCmd const> HashTable::setItemAtLocation(const Ptr<HashItem const>& item, const CuckooLocation& location) {
  Ptr<HashItem const> old = itemShadow_.get(location);
  Ptr<TableStat> stat = status()->tableStat(location.tableId);
  if (!item) {
    ZUM_TRACE(tr, 8) << " " << location << ", Delete: " << item;
    if (itemShadow_.del(location)) stat->numOfHashItemsDec();
  } else {
    itemShadow_.set(location, item);
    if (old) {
      ZUM_TRACE(tr, 8) << " " << location << ", Assign: " << item << ", Evict: " << old;
    } else {
      ZUM_TRACE(tr, 8) << " " << location << ", Assign: " << item;
      stat->numOfHashItemsInc();
    }
  }
  return evictCmdFactory(old, item, location);
}

Ptr<HashItem const> HashTable::tryInsertItem(const Ptr<HashItem const>& item, const Ptr<EvictCmdPath>& path) {
  const U8 numTables = config()->numTables();
  for (U8 t = 0; t < numTables; ++t) {
    const U32 index = getTableIndexForItem(t, item);
    for (U8 b = 0; b < desc(t).binSize(); ++b) {
      const CuckooLocation location{t, b, index};
      if (itemShadow_.has(location)) continue;
      path->cmdLogPush(setItemAtLocation(item, location));
      lastEvictedTable_ = TableId::null;
      return nullptr;
    }
  }
  U8 victimTable = static_cast<U8>(std::rand() % numTables);
  if (victimTable == lastEvictedTable_.value()) victimTable = static_cast<U8>((victimTable + 1) % numTables);
  const U8 binSize = desc(victimTable).binSize();
  const U8 bin = binSize == 1 ? 0 : static_cast<U8>(std::rand() % binSize);
  const CuckooLocation location{victimTable, bin, getTableIndexForItem(victimTable, item)};
  lastEvictedTable_ = victimTable;
  Ptr<EvictCmd const> cmd = setItemAtLocation(item, location);
  path->cmdLogPush(cmd);
  return cmd->oldItem();
}

bool HashTable::insert(const Ptr<HashItem const>& item, const Ptr<CuckooCmds>& cmds) {
  ZUM_TRACE(tr, 7) << " item: " << item;
  if (lookupItem(item)) {
    ZUM_TRACE(tr, 7) << " item already exists: " << item;
    return true;
  }
  for (U32 retry = 0; retry < config()->maxRetry(); ++retry) {
    Ptr<EvictCmdPath> path = evictCmdPathFactory();
    Ptr<HashItem const> current = item;
    for (U32 step = 0; step < config()->maxLoop(); ++step) {
      current = tryInsertItem(current, path);
      if (!current) {
        updateCuckooCmds(path, cmds);
        return true;
      }
    }
    const float occ = status()->occupancy();
    ZUM_TRACE(tr, 5) << "Try[" << retry << "] maxLoop reached - item: " << item << " occupancy: " << occ;
    status()->retryCountInc();
    updateFailStats(occ);
    revertChanges(path);
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
  Ptr<CuckooItem const> cuckooItem = lookupItem(item);
  if (!cuckooItem) {
    ZUM_TRACE(tr, 7) << " Item does not exist.";
    return false;
  }
  ZUM_ASSERT(item->isEqual( itemShadow( cuckooItem->location() ) ));
  setItemAtLocation(nullptr, cuckooItem->location());
  cmds->itemSeqEnq(cuckooItemFactory(cuckooItem->location(), nullptr));
  if (cmds == status()->cuckooCmds()) cmdPriorItems_.push_back(cuckooItem->item());
  return true;
}

bool HashTable::deleteItem(const Ptr<HashItem const>& item) {
  const bool ok = remove(item, status()->cuckooCmds());
  if (item) {
    for (const Ptr<HashItem const>& pending : status()->pendingItemSet()) {
      if (pending == item || item->isEqual(pending)) status()->pendingItemSetDel(pending);
    }
  }
  scheduleReviewIfPending();
  return ok;
}

// ---- HashTable: the command list -------------------------------------------

void HashTable::undoSteps(const std::deque<Ptr<EvictCmd const>>& steps, size_t first, size_t last) {
  for (size_t i = last + 1; i-- > first;) {
    traceEvictCmd(" Deleting cycle: ", steps[i]);
    setItemAtLocation(steps[i]->oldItem(), steps[i]->location());
  }
}

U32 HashTable::maybeDeleteCycle(const Ptr<EvictCmdPath>& path) {
  std::deque<Ptr<EvictCmd const>> steps;
  for (size_t i = 0; i < path->cmdLogs(); ++i) steps.push_back(path->cmdLog(i));
  U32 cycles = 0;
  for (;;) {
    // The loop to drop is the one closed by the latest revisit: no later step
    // touches its slots, so the later steps' records stay true once it goes.
    std::unordered_map<CuckooLocation, size_t> lastWrite;  // location -> latest step writing it
    size_t first = 0;
    size_t last = 0;
    for (size_t j = 0; j < steps.size(); ++j) {
      if (j > 0) {
        auto prevIter = steps.begin() + std::ptrdiff_t(j) - 1;
        auto ecIt = prevIter + 1;
        ZUM_ASSERT(( *prevIter )->oldItem() == ( *ecIt )->newItem());
      }
      auto [it, fresh] = lastWrite.try_emplace(steps[j]->location(), j);
      if (fresh) continue;
      first = it->second;
      last = j;
      it->second = j;
    }
    if (last == 0) break;
    // Steps first..last rotated items round a loop of slots and left the item
    // placed at `first` homeless again, exactly as before `first`.
    for (size_t k = first; k <= last; ++k) traceEvictCmd(" detectCycle: ", steps[k]);
    undoSteps(steps, first, last);
    steps.erase(steps.begin() + std::ptrdiff_t(first), steps.begin() + std::ptrdiff_t(last) + 1);
    ++cycles;
  }
  path->cmdLogDelAll();
  for (const Ptr<EvictCmd const>& step : steps) path->cmdLogPush(step);
  return cycles;
}

void HashTable::emitCmd(const Ptr<EvictCmd const>& step, const Ptr<HashItem const>& prior,
                        const Ptr<CuckooCmds>& cmds) {
  if (step->oldItem()) {
    status()->tableStat(step->location().tableId)->numOfEvictsInc();
    ZUM_TRACE(tr, 8) << " " << step->location() << " Assign: " << step->newItem() << " Evict: " << step->oldItem();
  } else {
    ZUM_TRACE(tr, 8) << " " << step->location() << " Assign: " << step->newItem();
  }
  cmds->itemSeqEnq(cuckooItemFactory(step->location(), step->newItem()));
  if (cmds == status()->cuckooCmds()) cmdPriorItems_.push_back(prior);
}

void HashTable::updateCuckooCmds(const Ptr<EvictCmdPath>& path, const Ptr<CuckooCmds>& cmds) {
  ZUM_TRACE(tr, 8) << "";
  if (config()->hitless()) {
    const U32 n = maybeDeleteCycle(path);
    ZUM_TRACE(tr, 7) << "Number of cycles detected: " << n;
    status()->longestCycleIs(std::max(status()->longestCycle(), n));
    status()->cycleCountIs(status()->cycleCount() + n);
  }
  // A slot written more than once held, before the walk, the oldItem of its
  // earliest write: that is what the hardware holds when the list starts.
  std::unordered_map<CuckooLocation, Ptr<HashItem const>> prior;
  for (size_t i = 0; i < path->cmdLogs(); ++i) prior.emplace(path->cmdLog(i)->location(), path->cmdLog(i)->oldItem());
  std::unordered_set<CuckooLocation> emitted;
  for (size_t i = path->cmdLogs(); i-- > 0;) {
    const Ptr<EvictCmd const>& step = path->cmdLog(i);
    if (emitted.insert(step->location()).second) emitCmd(step, prior[step->location()], cmds);
  }
  path->cmdLogDelAll();
  if (config()->tryReduceCmdsOnInsert()) tryReduceCuckooCmds(cmds);
}

void HashTable::revertChanges(const Ptr<EvictCmdPath>& path) {
  ZUM_TRACE(tr, 7) << "";
  for (size_t i = path->cmdLogs(); i-- > 0;) {
    setItemAtLocation(path->cmdLog(i)->oldItem(), path->cmdLog(i)->location());
  }
  path->cmdLogDelAll();
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
