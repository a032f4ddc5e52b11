#include "Olk/CuckooHashTable.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <optional>
#include <random>
#include <set>

#include "platform/Clock.h"
#include "platform/Log.h"
#include "platform/Trace.h"
#include "TestSupport.h"

using namespace Olk;
using namespace Olk::Cuckoo;

namespace {

using OlkTest::expectRangeError;

using Item = Ptr<HashItem const>;
using Shape = std::vector<std::pair<U32, U32>>;  // (tableSize, binSize) per table

struct Fixture {
  Ptr<Config> config;
  Ptr<Status> status = statusFactory("status");
  Ptr<Zum::ManualClock> clock = Zum::manualClockFactory(1000.0);
  Ptr<HashTable> table;

  explicit Fixture(const Shape& shape, U32 seed = 1, U32 maxLoop = 200, U32 maxRetry = 3, bool hitless = true) {
    config = configFactory("cfg", U8(shape.size()));
    for (U32 t = 0; t < shape.size(); ++t) config->tableDescListIs(t, shape[t].first, shape[t].second);
    config->randomSeedIs(seed);
    config->maxLoopIs(maxLoop);
    config->maxRetryIs(maxRetry);
    config->hitlessIs(hitless);
  }
  Fixture& start() {
    table = hashTableFactory(config, status, clock);
    return *this;
  }
  size_t cmds() const { return status->cuckooCmds()->itemSeqs(); }
  Ptr<CuckooItem const> cmd(size_t i) const { return status->cuckooCmds()->itemSeq(i); }
};

Item item(U32 key, U32 h0, U32 h1, U32 h2 = 0) { return intHashItemFactory(key, h0, h1, h2); }
const IntHashItem& intItem(const Item& i) { return static_cast<const IntHashItem&>(*i); }

// The hardware as the agent sees it: one slot array per table, written one
// command at a time, searched the way the lookup engine does (each table at
// the item's index, every bin).
class HardwareModel {
 public:
  explicit HardwareModel(const Shape& shape) : shape_(shape) {
    for (const auto& [size, bins] : shape) slots_.emplace_back(size_t(size) * bins);
  }
  void write(const CuckooItem& c) { slots_[c.location().tableId.value()][pos(c.location())] = c.item(); }
  Item at(const CuckooLocation& l) const { return slots_[l.tableId.value()][pos(l)]; }
  bool found(const Item& item) const {
    for (U8 t = 0; t < shape_.size(); ++t) {
      for (U8 b = 0; b < shape_[t].second; ++b) {
        const Item stored = at(CuckooLocation{t, b, item->getHash(t) % shape_[t].first});
        if (stored && item->isEqual(stored)) return true;
      }
    }
    return false;
  }
  // Equal to the table's shadow, slot for slot.
  bool equals(const HashTable& table) const {
    size_t occupied = 0;
    for (const auto& slots : slots_) occupied += slots.size() - size_t(std::count(slots.begin(), slots.end(), nullptr));
    for (const auto& [l, stored] : table.itemShadow()) {
      if (at(l) != stored) return false;
    }
    return occupied == table.itemShadow().size();
  }

 private:
  size_t pos(const CuckooLocation& l) const { return size_t(l.index) * shape_[l.tableId.value()].second + l.binId; }
  Shape shape_;
  std::vector<std::vector<Item>> slots_;
};

// One operation's share of the command list and the items that must stay
// findable while it is written.
struct Segment {
  size_t end;
  std::vector<Item> mustStay;
  bool oneInsertion;  // a review may place several items and move its own
};

// Drives a table with random insertions, deletions and reviews, writes every
// command list to the hardware model and checks after each single write.
class RandomRun {
 public:
  RandomRun(const Shape& shape, U32 seed, U32 maxLoop, bool hitless, U32 batch)
      : f_(shape, seed, maxLoop, 3, hitless), hw_(shape), rng_(seed), batch_(batch) {
    f_.start();
  }
  ~RandomRun() { Zum::logSinkIs(quietLogs_); }

  // Performs `ops` operations; answers whether the hardware ever missed an item.
  bool go(U32 ops, U32 keySpace) {
    for (U32 op = 0; op < ops; ++op) {
      std::map<U32, Item> live;  // key -> placed item
      for (const auto& kv : f_.table->itemShadow()) live[intItem(kv.second).key()] = kv.second;
      std::optional<U32> gone;
      const bool review = rng_() % 8 == 0;
      if (review) {
        f_.clock->advance(f_.config->pendingItemReviewQuantum());
      } else if (!live.empty() && rng_() % 3 == 0) {
        const IntHashItem& v = intItem(std::next(live.begin(), std::ptrdiff_t(rng_() % live.size()))->second);
        gone = v.key();
        EXPECT_TRUE(f_.table->deleteItem(item(v.key(), v.hashIndex0(), v.hashIndex1(), v.hashIndex2())));
      } else {
        const U32 key = rng_() % keySpace;
        Item fresh = constantHash_ ? item(key, 5, 5, 5) : item(key, rng_(), rng_(), rng_());
        if (!live.count(key)) f_.table->insertItem(fresh);
      }
      Segment segment{f_.cmds(), {}, !review};
      for (const auto& [key, i] : live) {
        if (key != gone) segment.mustStay.push_back(i);
      }
      segments_.push_back(std::move(segment));
      if (++sinceAck_ >= batch_) acknowledge();
    }
    acknowledge();
    return missed_;
  }
  Fixture& fixture() { return f_; }
  U32 segmentsWithRepeats() const { return repeats_; }
  // Every new item gets the same hash in every table: all of them compete
  // for one bucket per table, the worst case for walks and cycles.
  void constantHashIs(bool on) { constantHash_ = on; }

 private:
  void acknowledge() {
    const bool verified = f_.table->verifyCuckooCmdsHitless();
    bool missed = false;
    size_t start = 0;
    for (const Segment& s : segments_) {
      std::set<CuckooLocation> written;
      for (size_t i = start; i < s.end; ++i) {
        const Ptr<CuckooItem const> c = f_.cmd(i);
        if (!written.insert(c->location()).second && s.oneInsertion) ++repeats_;
        const Item overwritten = hw_.at(c->location());
        hw_.write(*c);
        for (const Item& must : s.mustStay) missed |= !hw_.found(must);
        // Stricter: nothing the hardware holds may vanish unless deleted,
        // including items placed earlier in the same list.
        missed |= overwritten && c->item() && !hw_.found(overwritten);
      }
      start = s.end;
    }
    EXPECT_EQ(start, f_.cmds());
    EXPECT_EQ(verified, !missed);
    missed_ |= missed;
    segments_.clear();
    f_.config->cmdReadCompletedInc();
    EXPECT_TRUE(hw_.equals(*f_.table));
    sinceAck_ = 0;
  }

  Zum::LogSink quietLogs_ = Zum::logSinkIs([](const Zum::LogRecord&) {});
  Fixture f_;
  HardwareModel hw_;
  std::mt19937 rng_;
  U32 batch_;
  U32 sinceAck_ = 0;
  U32 repeats_ = 0;
  bool missed_ = false;
  bool constantHash_ = false;
  std::vector<Segment> segments_;
};

const std::vector<Shape> shapes = {
    {{61, 1}},                                                           // one table
    {{16, 4}, {16, 4}},                                                  // 2 x 4 bins
    {{23, 1}, {29, 1}, {31, 1}, {37, 1}},                                // 4 x 1
    {{17, 2}, {19, 2}, {13, 2}},                                         // 3 x 2
    {{7, 1}, {5, 2}, {3, 4}, {11, 1}, {2, 8}, {5, 3}, {3, 2}, {9, 1}, {4, 2}},  // 9 mixed
    {{2, 1}, {3, 1}},                                                    // tiny: long walks, cycles
    {{1, 2}, {2, 1}, {1, 1}},                                            // tiny, mixed bins
};

U32 capacity(const Shape& s) {
  U32 c = 0;
  for (const auto& [size, bins] : s) c += size * bins;
  return c;
}

}  // namespace

// ---- value types and records ----------------------------------------------


TEST(CuckooHashTable, ValueTypesRangesTextsAndOrder) {
  EXPECT_EQ(9, TableId(9).value());
  expectRangeError([] { TableId(10); }, "TableId::value < TableId::min or > TableId::null not allowed");
  EXPECT_EQ(TableId(3), strepToValue<TableId>("( 3 )"));
  const CuckooLocation l{2, 3, 70000};
  EXPECT_EQ("TableId/BinId/Index: ( 2, 3, 70000 )", valueToStrep(l));
  EXPECT_EQ(l, strepToValue<CuckooLocation>(valueToStrep(l)));
  EXPECT_TRUE((CuckooLocation{1, 7, 9} < CuckooLocation{2, 0, 0}));
  EXPECT_TRUE((CuckooLocation{1, 0, 9} < CuckooLocation{1, 1, 0}));
  EXPECT_TRUE((CuckooLocation{1, 1, 0} < CuckooLocation{1, 1, 1}));
  Ptr<Config> c = configFactory("c", 2);
  for (U32 bad : {0u, 9u}) {
    expectRangeError([&] { c->tableDescListIs(0, 10, bad); }, "TableDescriptor::binSize < 1 or > 8 not allowed");
  }
  c->tableDescListIs(0, 10, 1);
  c->tableDescListIs(1, 10, 8);
  c->tableDescListIs(1, 10, 8);  // the same shape again is no change
  expectRangeError([&] { c->tableDescListIs(1, 11, 8); },
                   "Reinstantiating the pointer interface where constructor parameter attribute _tableSize "
                   "has a different value of 10 11");
  expectRangeError([&] { c->tableDescListIs(1, 10, 4); }, "Reinstantiating the pointer interface where "
                                                          "constructor parameter attribute _binSize "
                                                          "has a different value of 8 4");
  Item i = item(5, 10, 11, 12);
  EXPECT_EQ(11u, i->getHash(1));
  EXPECT_EQ(12u, i->getHash(5));  // tables 2 to 8 share the third hash
  EXPECT_TRUE(i->isEqual(item(5, 0, 0, 0)));
  EXPECT_FALSE(i->isEqual(item(6, 10, 11, 12)));
}

TEST(CuckooHashTableDeathTest, BaseItemAndBadConfigAbort) {
  EXPECT_DEATH(hashItemFactory()->getHash(0), "not implemented");
  EXPECT_DEATH(Fixture({{4, 1}}, 1, 0).start(), "config\\(\\)->maxLoop\\(\\)");
  EXPECT_DEATH(Fixture({{4, 1}}, 1, 1, 0).start(), "config\\(\\)->maxRetry\\(\\)");
  EXPECT_DEATH(Fixture({{0, 1}}).start(), "tableDesc->tableSize\\(\\)");
  Fixture missing({{4, 1}});
  missing.config->tableDescListDel(0);
  EXPECT_DEATH(missing.start(), "config\\(\\)->numTables\\(\\) == config\\(\\)->tableDescLists\\(\\)");
  EXPECT_DEATH(Fixture({}).start(), "config\\(\\)->numTables\\(\\)");
}

// ---- placement ---------------------------------------------------------------

TEST(CuckooHashTable, OccupancyCountsSlots) {
  Fixture f({{10, 4}});
  f.start();
  for (U32 k = 0; k < 20; ++k) EXPECT_TRUE(f.table->insertItem(item(k, k, 0)));
  EXPECT_FLOAT_EQ(0.5f, f.status->tableStat(0)->occupancy());
  Zum::TraceCapture trace;
  EXPECT_FLOAT_EQ(0.5f, f.status->occupancy());
  EXPECT_TRUE(trace.contains("Table[( 0 )] numOfHashItems: 20 / 40, numOfEvicts: 0"));
}

TEST(CuckooHashTable, FreeSlotGivesOneCommandAndClearsLastEvicted) {
  Fixture f({{8, 2}, {8, 1}});
  f.start();
  Zum::TraceCapture trace;
  ASSERT_TRUE(f.table->insertItem(item(1, 3, 5)));
  ASSERT_EQ(1u, f.cmds());
  EXPECT_EQ((CuckooLocation{0, 0, 3}), f.cmd(0)->location());
  ASSERT_TRUE(f.table->insertItem(item(2, 3, 5)));
  EXPECT_EQ((CuckooLocation{0, 1, 3}), f.cmd(1)->location());  // next bin before next table
  ASSERT_TRUE(f.table->insertItem(item(3, 3, 5)));
  EXPECT_EQ((CuckooLocation{1, 0, 5}), f.cmd(2)->location());
  EXPECT_EQ(TableId::null, f.table->lastEvictedTable().value());
  EXPECT_TRUE(f.table->insertItem(item(3, 3, 5)));  // an equal item: already there
  EXPECT_EQ(3u, f.cmds());
  EXPECT_TRUE(trace.contains(" item already exists: "));
  f.config->cmdReadCompletedInc();
  EXPECT_EQ(0u, f.cmds());
  EXPECT_EQ(3u, f.status->totalCmdReadCompleted());
}

TEST(CuckooHashTable, SingleTableVictimWrapsToTableZero) {
  Fixture f({{1, 1}}, 7, 5, 2);
  f.start();
  Item a = item(1, 0, 0);
  ASSERT_TRUE(f.table->insertItem(a));
  f.config->cmdReadCompletedInc();
  EXPECT_FALSE(f.table->insertItem(item(2, 0, 0)));
  EXPECT_EQ(0, f.table->lastEvictedTable().value());
  EXPECT_EQ(a, f.table->itemShadow(CuckooLocation{0, 0, 0}));
  EXPECT_EQ(2u, f.status->retryCount());
  EXPECT_EQ(0u, f.cmds());
}

TEST(CuckooHashTable, MaxLoopOneOnFullTableRevertsEveryAttempt) {
  Fixture f({{1, 1}, {1, 1}}, 3, 1, 4);
  f.start();
  Item a = item(1, 0, 0), b = item(2, 0, 0);
  ASSERT_TRUE(f.table->insertItem(a));
  ASSERT_TRUE(f.table->insertItem(b));
  f.config->cmdReadCompletedInc();
  Zum::TraceCapture trace;
  EXPECT_FALSE(f.table->insertItem(item(3, 0, 0)));
  EXPECT_EQ(4u, f.status->retryCount());
  EXPECT_EQ(a, f.table->itemShadow(CuckooLocation{0, 0, 0}));
  EXPECT_EQ(b, f.table->itemShadow(CuckooLocation{1, 0, 0}));
  EXPECT_FLOAT_EQ(1.0f, f.status->occupancy());
  EXPECT_EQ(0u, f.cmds());
  EXPECT_EQ(1u, f.status->pendingItemSets());
  EXPECT_EQ(4u, f.status->firstFailLoadFactor().size());
  EXPECT_TRUE(trace.contains("Try[3] maxLoop reached - item: "));
}

TEST(CuckooHashTable, FailureRecordsSettleOneBeyondTheLimit) {
  Fixture f({{1, 1}}, 3, 1, 1);
  f.config->numFailureRecordsIs(2);
  f.start();
  f.table->insertItem(item(1, 0, 0));
  for (U32 k = 2; k < 8; ++k) f.table->insertItem(item(k, 0, 0));
  EXPECT_EQ(2u, f.status->firstFailLoadFactor().size());
  EXPECT_EQ(3u, f.status->lastFailLoadFactor().size());
}

TEST(CuckooHashTable, RemoveAbsentNullAndPending) {
  Fixture f({{1, 1}}, 3, 1, 1);
  f.start();
  Zum::TraceCapture trace;
  EXPECT_FALSE(f.table->deleteItem(nullptr));
  EXPECT_TRUE(trace.contains(" Invalid item."));
  EXPECT_FALSE(f.table->deleteItem(item(1, 0, 0)));
  EXPECT_TRUE(trace.contains(" Item does not exist."));
  ASSERT_TRUE(f.table->insertItem(item(1, 0, 0)));
  EXPECT_FALSE(f.table->insertItem(item(2, 0, 0)));
  EXPECT_EQ(1u, f.clock->scheduledCount());
  EXPECT_FALSE(f.table->deleteItem(item(2, 9, 9)));  // pending, equal by key
  EXPECT_EQ(0u, f.status->pendingItemSets());
  EXPECT_TRUE(f.table->deleteItem(item(1, 0, 0)));
  EXPECT_TRUE(trace.contains("TableId/BinId/Index: ( 0, 0, 0 ), Delete: null"));
  ASSERT_EQ(2u, f.cmds());
  EXPECT_FALSE(f.cmd(1)->item());
  EXPECT_EQ(0u, f.status->tableStat(0)->numOfHashItems());
}

TEST(CuckooHashTable, ItemCountNotifiesOnlyOnAWrite) {
  struct TableWatch : TableStat::Notifiee {
    U32 items = 0;
    void onNumOfHashItems() override { ++items; }
  } tableWatch;
  Fixture f({{4, 1}});
  f.start();
  tableWatch.notifierIs(f.status->tableStat(0));
  f.table->insertItem(item(1, 0, 0));
  f.table->insertItem(item(2, 1, 0));
  f.table->insertItem(item(2, 1, 0));  // already there: no write
  f.table->deleteItem(item(1, 0, 0));
  EXPECT_EQ(3u, tableWatch.items);
}

TEST(CuckooHashTable, StatusCollectionsAnnounceEachChangeOnceInOrder) {
  struct StatusWatch : Status::Notifiee {
    std::vector<String> seen;
    void onPendingItemSet(const Item& i) override { seen.push_back("pending " + i->toStrep()); }
    void onFirstFailLoadFactor(U64 index) override { seen.push_back("first " + std::to_string(index)); }
    void onLastFailLoadFactor(U64 index) override { seen.push_back("last " + std::to_string(index)); }
  } watch;
  Ptr<Status> status = statusFactory("s");
  watch.notifierIs(status);
  Item a = item(1, 0, 0), b = item(2, 0, 0), c = item(3, 0, 0), b2 = item(2, 0, 0);
  status->pendingItemSetIs(a);
  status->pendingItemSetIs(b);
  status->pendingItemSetIs(a);  // present: nobody hears of it
  status->pendingItemSetIs(c);
  status->pendingItemSetIs(b2);  // by identity, not by key
  EXPECT_EQ(4u, status->pendingItemSets());
  status->pendingItemSetDel(b);
  status->pendingItemSetDel(b);  // absent: silent
  EXPECT_EQ((std::vector<Item>{a, c, b2}), status->pendingItemSet());
  status->pendingItemSetDelAll();  // oldest first
  EXPECT_EQ(0u, status->pendingItemSets());
  EXPECT_FALSE(status->pendingItemSetHas(a));

  status->firstFailLoadFactorEnq(0.5f);
  status->firstFailLoadFactorEnq(0.75f);
  EXPECT_EQ(0.5f, status->firstFailLoadFactorDeq());
  status->firstFailLoadFactorDelAll();
  status->firstFailLoadFactorEnq(0.25f);  // running indexes never repeat
  status->lastFailLoadFactorEnq(0.125f);
  EXPECT_EQ(2u, status->firstFailLoadFactor().head());
  EXPECT_EQ(0.25f, status->firstFailLoadFactor().front());
  const std::vector<String> expected = {
      "pending IntHashItem( 1; 0, 0, 0 )", "pending IntHashItem( 2; 0, 0, 0 )", "pending IntHashItem( 3; 0, 0, 0 )",
      "pending IntHashItem( 2; 0, 0, 0 )", "pending IntHashItem( 2; 0, 0, 0 )", "pending IntHashItem( 1; 0, 0, 0 )",
      "pending IntHashItem( 3; 0, 0, 0 )", "pending IntHashItem( 2; 0, 0, 0 )", "first 0",
      "first 1",                           "first 0",                           "first 1",
      "first 2",                           "last 0"};
  EXPECT_EQ(expected, watch.seen);
}

namespace {

// Behaves as IntHashItem does, with the same text, but is another type: the
// table can only judge it through its isEqual.
class ForeignItem final : public HashItem {
 public:
  ForeignItem(U32 key, U32 h0, U32 h1, U32 h2) : key_(key), hashes_{h0, h1, h2} {}
  bool isEqual(const Item& other) const override {
    auto* o = dynamic_cast<const ForeignItem*>(other.ptr());
    return o && o->key_ == key_;
  }
  U32 getHash(U8 tableId) const override { return hashes_[std::min<U8>(tableId, 2)]; }
  String toStrep() const override {
    return "IntHashItem( " + std::to_string(key_) + "; " + std::to_string(hashes_[0]) + ", " +
           std::to_string(hashes_[1]) + ", " + std::to_string(hashes_[2]) + " )";
  }

 private:
  U32 key_;
  U32 hashes_[3];
};

Item foreign(U32 key, U32 h0, U32 h1, U32 h2 = 0) { return Item(new ForeignItem(key, h0, h1, h2)); }

// Random insertions and deletions on a small, crowded table, items made by
// `make`; every answer and command list in text. Keys repeat with hashes
// that differ but often give the same index, so equal items are met both
// where a search looks and where it does not.
std::vector<String> crowdedRun(const Shape& shape, U32 seed, Item (*make)(U32, U32, U32, U32)) {
  auto quiet = Zum::logSinkIs([](const Zum::LogRecord&) {});
  Fixture f(shape, seed, 30, 2);
  f.start();
  std::mt19937 rng(seed);
  std::vector<String> seen;
  for (U32 op = 0; op < 600; ++op) {
    const U32 key = rng() % (capacity(shape) + 4);
    const U32 h0 = key * 7 + shape[0].first * (rng() % 2), h1 = key * 13 + (rng() % 2), h2 = key;
    const Item i = make(key, h0, h1, h2);
    const bool ok = rng() % 4 == 0 ? f.table->deleteItem(i) : f.table->insertItem(i);
    seen.push_back((ok ? "ok " : "no ") + i->toStrep());
    for (size_t c = 0; c < f.cmds(); ++c) {
      const Item& written = f.cmd(c)->item();
      seen.push_back(valueToStrep(f.cmd(c)->location()) + (written ? written->toStrep() : String("null")));
    }
    if (Ptr<CuckooItem const> found = f.table->lookupItem(make(key, h0, h1, h2))) {
      seen.push_back("at " + valueToStrep(found->location()));
    }
    f.config->cmdReadCompletedInc();
  }
  Zum::logSinkIs(quiet);
  return seen;
}

Item intMaker(U32 key, U32 h0, U32 h1, U32 h2) { return item(key, h0, h1, h2); }

}  // namespace

// The table answers for its own item type without asking the stored items;
// any other type it must ask. Both must give the same placements.
TEST(CuckooHashTable, OwnAndForeignItemTypesPlaceAlike) {
  auto quiet = Zum::logSinkIs([](const Zum::LogRecord&) {});
  Fixture f({{4, 2}, {4, 1}});
  f.start();
  ASSERT_TRUE(f.table->insertItem(item(7, 1, 1)));
  ASSERT_TRUE(f.table->insertItem(item(7, 5, 9)));  // equal key, same indexes: already there
  EXPECT_EQ(1u, f.cmds());
  ASSERT_TRUE(f.table->insertItem(foreign(7, 1, 1)));  // same key, another type: not equal
  EXPECT_EQ(2u, f.cmds());
  EXPECT_EQ((CuckooLocation{0, 1, 1}), f.cmd(1)->location());
  ASSERT_TRUE(f.table->insertItem(item(7, 2, 2)));  // equal key where no search looks: placed again
  EXPECT_EQ(3u, f.cmds());
  EXPECT_TRUE(f.table->deleteItem(item(7, 9, 0)));  // the first equal one in (table, bin) order
  EXPECT_EQ((CuckooLocation{0, 0, 1}), f.cmd(3)->location());
  EXPECT_EQ((CuckooLocation{0, 1, 1}), f.table->lookupItem(foreign(7, 5, 5))->location());

  for (size_t s : {size_t(1), size_t(3), size_t(5)}) {
    const std::vector<String> own = crowdedRun(shapes[s], 40 + U32(s), intMaker);
    EXPECT_EQ(own, crowdedRun(shapes[s], 40 + U32(s), foreign)) << "shape " << s;
  }
  Zum::logSinkIs(quiet);
}

// ---- hitlessness against the hardware model -----------------------------------

TEST(CuckooHashTable, RandomRunsStayHitlessOnEveryWrite) {
  U32 cycles = 0, pendingSeen = 0;
  for (size_t s = 0; s < shapes.size(); ++s) {
    for (U32 seed = 1; seed <= 4; ++seed) {
      for (U32 batch : {1u, 7u}) {
        for (U32 maxLoop : {200u, 4u}) {
          RandomRun run(shapes[s], seed * 101 + U32(s), maxLoop, true, batch);
          const U32 keys = capacity(shapes[s]) * 5 / 4 + 2;
          EXPECT_FALSE(run.go(400, keys)) << "shape " << s << " seed " << seed;
          EXPECT_EQ(0u, run.segmentsWithRepeats());  // a revisited slot is written once
          cycles += run.fixture().status->cycleCount();
          pendingSeen += run.fixture().status->retryCount() ? 1 : 0;
        }
      }
    }
  }
  EXPECT_GT(cycles, 0u);       // walks that came back to a slot were exercised
  EXPECT_GT(pendingSeen, 20u);  // and so were full tables
}

TEST(CuckooHashTable, ConstantHashRunsStayHitlessAndFillOnlyOneBucketPerTable) {
  for (size_t s = 0; s < shapes.size(); ++s) {
    for (U32 seed = 1; seed <= 3; ++seed) {
      RandomRun run(shapes[s], seed * 31 + U32(s), 50, true, 3);
      run.constantHashIs(true);
      EXPECT_FALSE(run.go(200, capacity(shapes[s]) + 4)) << "shape " << s << " seed " << seed;
      EXPECT_EQ(0u, run.segmentsWithRepeats());
      U32 oneBucketEach = 0;
      for (const auto& [size, bins] : shapes[s]) oneBucketEach += bins;
      EXPECT_LE(run.fixture().table->itemShadow().size(), oneBucketEach) << "shape " << s;
    }
  }
}

TEST(CuckooHashTable, WithoutHitlessSelfCheckAgreesWithHardwareModel) {
  bool anyMiss = false;
  for (size_t s = 0; s < shapes.size(); ++s) {
    for (U32 seed = 1; seed <= 6; ++seed) {
      RandomRun run(shapes[s], seed, 50, false, 1);
      // go() asserts verify == !missed after every acknowledgement.
      anyMiss |= run.go(300, capacity(shapes[s]) * 5 / 4 + 2);
      EXPECT_EQ(0u, run.segmentsWithRepeats());  // each slot written once, latest value
    }
  }
  EXPECT_TRUE(anyMiss);  // without cycle removal some lists do lose an item
}

// ---- pending items -----------------------------------------------------------

namespace {

// A full two-slot table holding `a` and `b`, with `n` items pending behind them.
struct Backlog : Fixture {
  Item a = item(1000, 0, 0), b = item(1001, 0, 0);
  explicit Backlog(U32 n) : Fixture({{1, 1}, {1, 1}}, 5, 1, 1) {
    start();
    table->insertItem(a);
    table->insertItem(b);
    for (U32 k = 0; k < n; ++k) EXPECT_FALSE(table->insertItem(item(k, 0, 0)));
  }
};

}  // namespace

TEST(CuckooHashTable, ReviewRetriesAtMostTheQuantumOfItems) {
  Backlog f(30);
  EXPECT_EQ(30u, f.status->pendingItemSets());
  f.table->deleteItem(f.a);
  f.table->deleteItem(f.b);
  const U32 retries = f.status->retryCount();
  const U32 version = f.status->pendingItemVersion();
  Zum::TraceCapture trace;
  f.clock->advance(5.0);
  EXPECT_EQ(retries + 23, f.status->retryCount());  // 25 tried: 2 placed, 23 failed
  EXPECT_EQ(28u, f.status->pendingItemSets());
  EXPECT_EQ(version + 1, f.status->pendingItemVersion());
  EXPECT_TRUE(trace.contains("Number of pending items inserted: 2"));
  // The oldest pending items went first.
  EXPECT_EQ(0u, intItem(f.table->itemShadow(CuckooLocation{0, 0, 0})).key());
  EXPECT_EQ(1010.0, f.clock->nextTime());  // the next review
  f.clock->advance(5.0);
  EXPECT_EQ(retries + 23 + 25, f.status->retryCount());
  EXPECT_EQ(version + 1, f.status->pendingItemVersion());
  f.table = nullptr;  // a dropped table leaves no review behind
  EXPECT_EQ(0u, f.clock->scheduledCount());
}

TEST(CuckooHashTable, ReviewDisabledOnlyUnschedules) {
  Backlog f(3);
  f.table->deleteItem(f.a);
  f.config->reviewPendingItemSupportIs(false);
  Zum::TraceCapture trace;
  f.clock->advance(5.0);
  EXPECT_TRUE(trace.contains("Skip processing pending items, check reviewPendingItemSupport."));
  EXPECT_EQ(3u, f.status->pendingItemSets());
  EXPECT_EQ(0u, f.clock->scheduledCount());
  EXPECT_FALSE(f.table->itemShadow(CuckooLocation{0, 0, 0}));
}

TEST(CuckooHashTable, PendingAlarmTimedFromTheLastMessage) {
  std::vector<String> logs;
  auto old = Zum::logSinkIs([&](const Zum::LogRecord& r) { logs.push_back(r.text); });
  const String exist = "Syslog - Pending items existed for more than 60 secs.";
  const String empty = "Syslog - Pending items are empty";
  {
    // 0.0 counts as a message time: the review made on attaching to the
    // clock finds nothing pending and says so.
    Backlog f(2);
    EXPECT_EQ(std::vector<String>{empty}, logs);
    f.clock->advance(55.0);  // reviews at 1005..1055: under a minute since that message
    EXPECT_EQ(1u, logs.size());
    f.clock->advance(10.0);
    EXPECT_EQ((std::vector<String>{empty, exist}), logs);
    EXPECT_EQ(2u, f.status->pendingItemSyslogVersion());
    f.clock->advance(30.0);
    EXPECT_EQ(2u, logs.size());  // not again within the interval
    f.table->deleteItem(f.a);
    f.table->deleteItem(f.b);
    f.clock->advance(5.0);
    EXPECT_EQ((std::vector<String>{empty, exist, empty}), logs);
    EXPECT_EQ(3u, f.status->pendingItemSyslogVersion());
    EXPECT_EQ(-Zum::endOfTime, f.table->pendingItemBeginTime());
    EXPECT_EQ(0u, f.clock->scheduledCount());
  }
  logs.clear();
  {
    // The interval runs from the last message, not from when items began to wait.
    Fixture f({{1, 1}}, 5, 1, 1);
    f.start();
    f.clock->advance(100.0);
    f.table->insertItem(item(1, 0, 0));
    f.table->insertItem(item(2, 0, 0));
    f.clock->advance(5.0);
    EXPECT_EQ((std::vector<String>{empty, exist}), logs);
  }
  logs.clear();
  {
    Backlog f(2);
    f.config->syslogIntervalForPendingItemsIs(Zum::endOfTime);
    const U32 version = f.status->pendingItemSyslogVersion();
    f.clock->advance(1000.0);
    f.table->deleteItem(f.a);
    f.table->deleteItem(f.b);
    f.clock->advance(5.0);
    EXPECT_EQ(0u, f.status->pendingItemSets());
    EXPECT_EQ(version, f.status->pendingItemSyslogVersion());
  }
  EXPECT_EQ(1u, logs.size());  // only the one on attaching
  Zum::logSinkIs(old);
}

namespace {

struct Collect : DumpWriteCallbackBase {
  String text;
  int write(const void* buffer, U32 length) override {
    text.append(static_cast<const char*>(buffer), length);
    return int(length);
  }
};

}  // namespace

TEST(CuckooHashTable, DumpsListCountsAndSlotsUpToTheCap) {
  Fixture f({{8, 1}});
  f.start();
  f.table->insertItem(item(7, 3, 0));
  f.table->insertItem(item(8, 5, 0));
  Collect out;
  Ptr<DumpContext> ctx = dumpContextFactory(1, nullptr, dumpNormal);
  ctx->writeCallbackIs(&out);
  f.table->displayItems(2, ctx);
  EXPECT_NE(String::npos, out.text.find("Table[( 0 )] numOfHashItems: 2 / 8, numOfEvicts: 0"));
  EXPECT_NE(String::npos, out.text.find("TableId/BinId/Index: ( 0, 0, 3 ) IntHashItem( 7; 3, 0, 0 )"));
  EXPECT_FALSE(ctx->truncated());
  out.text.clear();
  ctx->maxListEntriesDumpedIs(1);
  f.table->displayItems(2, ctx);
  EXPECT_EQ(String::npos, out.text.find("( 0, 0, 5 )"));
  EXPECT_TRUE(ctx->truncated());
}

TEST(CuckooHashTableDeathTest, BrokenChainInAPathAborts) {
  Fixture f({{4, 1}, {4, 1}});
  f.start();
  Ptr<EvictCmdPath> path = evictCmdPathFactory();
  path->cmdLogPush(evictCmdFactory(item(1, 0, 0), item(2, 0, 0), CuckooLocation{0, 0, 0}));
  path->cmdLogPush(evictCmdFactory(nullptr, item(3, 0, 0), CuckooLocation{1, 0, 0}));
  EXPECT_DEATH(f.table->maybeDeleteCycle(path), "\\( \\*prevIter \\)->oldItem\\(\\) == \\( \\*ecIt \\)->newItem\\(\\)");
}

TEST(CuckooHashTable, StartTracesSeedAndFirstDraw) {
  Zum::TraceCapture trace;
  Fixture f({{4, 1}, {4, 2}}, 77);
  f.start();
  EXPECT_TRUE(trace.contains(" numTables: 2 tableDescLists: 2 randomSeed: 77"));
  std::srand(77);
  EXPECT_TRUE(trace.contains(" rand() == " + std::to_string(std::rand())));
  EXPECT_EQ("Value('Olk::Cuckoo::TableStat', ** {'tableId': ( 1 ), 'tableDesc': Value('Olk::Cuckoo::TableDescriptor', "
            "** {'tableId': ( 1 ), 'tableSize': 4, 'binSize': 2}), 'lookupSuccess': 0, 'lookupFailures': 0, "
            "'numOfEvicts': 0, 'numOfHashItems': 0})",
            valueToStrep(*f.status->tableStat(1)));
}

TEST(CuckooHashTable, SelfCheckFollowsAnAgentThatDequeuesAsItWrites) {
  Fixture f({{2, 1}, {3, 1}}, 9, 50, 3);
  f.start();
  std::mt19937 rng(9);
  for (U32 k = 0; k < 5; ++k) f.table->insertItem(item(k, rng(), rng()));
  ASSERT_GT(f.cmds(), 3u);
  while (f.cmds() > 2) {
    f.status->cuckooCmds()->itemSeqDeq();
    EXPECT_TRUE(f.table->verifyCuckooCmdsHitless());
  }
  // A write the table did not make is refused.
  f.status->cuckooCmds()->itemSeqEnq(cuckooItemFactory(CuckooLocation{0, 0, 0}, nullptr));
  f.status->cuckooCmds()->itemSeqEnq(cuckooItemFactory(CuckooLocation{0, 0, 1}, nullptr));
  f.status->cuckooCmds()->itemSeqEnq(cuckooItemFactory(CuckooLocation{0, 0, 1}, nullptr));
  EXPECT_FALSE(f.table->verifyCuckooCmdsHitless());
}

// ---- recorded behaviour ------------------------------------------------------

namespace {

// FNV-1a over a sequence of texts; each text is closed by a separator so that
// ("ab", "c") and ("a", "bc") differ.
class Fingerprint {
 public:
  Fingerprint& operator<<(std::string_view text) {
    for (unsigned char c : text) mix(c);
    mix(0xFF);
    return *this;
  }
  Fingerprint& operator<<(U64 n) { return *this << std::string_view(std::to_string(n)); }
  U64 value() const { return hash_; }

 private:
  void mix(unsigned char c) {
    hash_ ^= c;
    hash_ *= 0x100000001B3ULL;
  }
  U64 hash_ = 0xCBF29CE484222325ULL;
};

String text(const Item& i) { return i ? i->toStrep() : String("null"); }

// What an agent can observe of one long run, in three parts so that a change
// shows where it lies: the command lists and answers, the trace and log
// lines, and the final state with the next number rand() gives.
struct Observed {
  U64 commands;
  U64 traces;
  U64 state;
  bool operator==(const Observed&) const = default;
};

std::ostream& operator<<(std::ostream& os, const Observed& o) {
  return os << "{0x" << std::hex << o.commands << "ULL, 0x" << o.traces << "ULL, 0x" << o.state << "ULL}"
            << std::dec;
}

// Random insertions (fresh, repeated and equal-but-distinct items),
// deletions (placed, pending and absent) and reviews, acknowledged in
// batches of `batch`. Keys are drawn from `keysPerCent` of the slot count;
// with three insertions to each deletion about two thirds of them are live.
Observed observe(const Shape& shape, U32 seed, U32 maxLoop, bool hitless, U32 ops, U32 batch, U32 keysPerCent,
                 bool traced) {
  Fingerprint commands, traces, state;
  std::optional<Zum::TraceCapture> capture;
  if (traced) capture.emplace();
  auto oldLogs = Zum::logSinkIs([&](const Zum::LogRecord& r) { traces << r.key << r.text; });
  Fixture f(shape, seed, maxLoop, 3, hitless);
  f.config->numFailureRecordsIs(5);
  f.start();
  std::mt19937 rng(seed);
  const U32 keys = capacity(shape) * keysPerCent / 100;  // above 150 the tables stay full
  std::map<U32, Item> made;  // key -> the first item made for it
  for (U32 op = 1; op <= ops; ++op) {
    const U32 kind = rng() % 10;
    const U32 key = rng() % keys;
    auto known = made.find(key);
    if (kind == 0) {
      f.clock->advance(f.config->pendingItemReviewQuantum());
    } else if (kind <= 3) {
      Item victim = known == made.end() ? item(key, rng(), rng(), rng()) : known->second;
      if (kind == 3 && known != made.end()) {
        victim = item(key, intItem(victim).hashIndex0(), intItem(victim).hashIndex1(), intItem(victim).hashIndex2());
      }
      commands << "delete" << text(victim) << U64(f.table->deleteItem(victim));
    } else {
      Item fresh = item(key, rng(), rng(), rng());
      if (known != made.end()) {
        const IntHashItem& k = intItem(known->second);
        fresh = kind == 9 ? known->second : item(key, k.hashIndex0(), k.hashIndex1(), k.hashIndex2());
      } else {
        made.emplace(key, fresh);
      }
      commands << "insert" << text(fresh) << U64(f.table->insertItem(fresh));
    }
    if (Ptr<CuckooItem const> found = f.table->lookupItem(item(key, 0, 0, 0))) {
      commands << valueToStrep(found->location()) << text(found->item());
    }
    if (op % batch != 0 && op != ops) continue;
    commands << "verify" << U64(f.table->verifyCuckooCmdsHitless());
    for (size_t i = 0; i < f.cmds(); ++i) commands << valueToStrep(f.cmd(i)->location()) << text(f.cmd(i)->item());
    f.config->cmdReadCompletedInc();
  }
  if (capture) {
    for (const Zum::TraceRecord& r : capture->records()) {
      if (r.handle->name() == "CuckooHashTable") traces << U64(r.level) << r.function << r.text;
    }
    capture.reset();
  }
  Zum::logSinkIs(oldLogs);
  Collect dump;
  Ptr<DumpContext> ctx = dumpContextFactory(1, nullptr, dumpNormal);
  ctx->writeCallbackIs(&dump);
  ctx->maxListEntriesDumpedIs(100000);
  f.table->displayItems(2, ctx);
  state << dump.text << U64(f.table->lastEvictedTable().value()) << U64(f.status->pendingItemVersion())
        << U64(f.status->pendingItemSyslogVersion()) << U64(f.status->cycleCount())
        << U64(f.status->longestCycle()) << U64(f.status->retryCount()) << U64(f.status->totalCmdReadCompleted());
  for (const auto& [tableId, stat] : f.status->tableStat()) state << valueToStrep(*stat);
  for (const auto* queue : {&f.status->firstFailLoadFactor(), &f.status->lastFailLoadFactor()}) {
    for (U64 i = queue->head(); i < queue->tail(); ++i) state << std::to_string(queue->at(i));
  }
  state << U64(std::rand());
  return {commands.value(), traces.value(), state.value()};
}

}  // namespace

// Pins what the table does, down to the order of its random draws, against a
// record made from an earlier build: a faster shadow or command list must
// give the same writes, traces, counters and placements for the same seed.
TEST(CuckooHashTable, LongSeededRunsMatchTheirRecord) {
  struct Run {
    Shape shape;
    U32 seed, maxLoop;
    bool hitless;
    U32 ops, batch, keysPerCent;
    Observed expected;
  };
  const Shape twoByFour = {{64, 4}, {64, 4}};
  const std::vector<Run> runs = {
      // High load, nothing fails.
      {twoByFour, 17, 200, true, 2500, 1, 125,
       {0x180e8e96851d6a11ULL, 0x19475db9eb3c3846ULL, 0x48d95360f1ef99a3ULL}},
      // Full: loops dropped, attempts failed, pending items reviewed and logged.
      {twoByFour, 18, 30, true, 1500, 9, 200,
       {0xb63255b944fa7248ULL, 0xca9250dd04f2ac30ULL, 0xa3597439ec429e7cULL}},
      {shapes[2], 19, 40, true, 500, 1, 200,
       {0x4aa0eec22906c428ULL, 0x908f22100daaabeeULL, 0x75cda96217ba3cabULL}},
      {shapes[3], 20, 6, true, 500, 4, 200,
       {0x5ef581b797a64b8eULL, 0x24d57eb34fd18fe5ULL, 0xd1f2b2b8a3b88791ULL}},
      {shapes[4], 21, 40, true, 500, 3, 200,
       {0xa414e2fa1874510bULL, 0x81a7df3128708665ULL, 0x331292dfbf497470ULL}},
      {shapes[5], 22, 40, true, 500, 1, 200,
       {0x983520c134495586ULL, 0x7053f2efba9b7aa5ULL, 0xa30e69372b22a255ULL}},
      {shapes[6], 23, 40, false, 500, 2, 200,
       {0xd060c58e7acb33a4ULL, 0x73357a83b649abb9ULL, 0xadada6fe51bce360ULL}},
      {shapes[0], 24, 12, true, 300, 5, 200,
       {0x68f0a7c8083db8b9ULL, 0x89210cf17cb26fa7ULL, 0x4e0e37abc998e232ULL}},
      {twoByFour, 25, 30, false, 2000, 6, 200,
       {0x7e45bb7f86fefa65ULL, 0xf509ce94fa80fa5aULL, 0x8698362d981f3b91ULL}},
  };
  for (size_t i = 0; i < runs.size(); ++i) {
    const Run& r = runs[i];
    const Observed traced = observe(r.shape, r.seed, r.maxLoop, r.hitless, r.ops, r.batch, r.keysPerCent, true);
    EXPECT_EQ(r.expected, traced) << "run " << i;
    // Tracing only reports: with it off the table does exactly the same.
    const Observed quiet = observe(r.shape, r.seed, r.maxLoop, r.hitless, r.ops, r.batch, r.keysPerCent, false);
    EXPECT_EQ(traced.commands, quiet.commands) << "run " << i;
    EXPECT_EQ(traced.state, quiet.state) << "run " << i;
  }
}

TEST(CuckooHashTable, ShadowListsSlotsInOrderAndRecordsOutliveTheirList) {
  Fixture f({{4, 2}, {3, 1}});
  f.start();
  Item a = item(1, 2, 0), b = item(2, 2, 0), c = item(3, 2, 1), d = item(4, 0, 0);
  for (const Item& i : {a, b, c, d}) ASSERT_TRUE(f.table->insertItem(i));
  // Table by table, index by index, bin by bin; empty slots left out.
  std::vector<std::pair<CuckooLocation, Item>> seen;
  for (const auto& [l, i] : f.table->itemShadow()) seen.emplace_back(l, i);
  const std::vector<std::pair<CuckooLocation, Item>> expected = {
      {CuckooLocation{0, 0, 0}, d}, {CuckooLocation{0, 0, 2}, a}, {CuckooLocation{0, 1, 2}, b},
      {CuckooLocation{1, 0, 1}, c}};
  EXPECT_EQ(expected, seen);
  EXPECT_EQ(4u, f.table->itemShadow().size());
  EXPECT_FALSE(f.table->itemShadow(CuckooLocation{1, 1, 1}));  // no second bin in table 1
  EXPECT_FALSE(f.table->itemShadow(CuckooLocation{0, 0, 4}));  // past the last index
  EXPECT_FALSE(f.table->itemShadow(CuckooLocation{2, 0, 0}));  // no such table

  // A write held by the agent stays as it was while later lists come and go.
  const Ptr<CuckooItem const> held = f.cmd(2);
  f.config->cmdReadCompletedInc();
  for (U32 k = 10; k < 13; ++k) {
    f.table->insertItem(item(k, k, k));
    f.config->cmdReadCompletedInc();
  }
  EXPECT_EQ((CuckooLocation{1, 0, 1}), held->location());
  EXPECT_EQ(c, held->item());
}

TEST(CuckooHashTableDeathTest, WriteOutsideTheTablesAborts) {
  Fixture f({{4, 2}});
  f.start();
  EXPECT_DEATH(f.table->setItemAtLocation(item(1, 0, 0), CuckooLocation{0, 2, 0}),
               "itemShadow_\\.holds\\(location\\)");
}
