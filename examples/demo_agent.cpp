// demo_agent: a small agent that shows libOlk at work end to end.
//
//   demo_agent [--name NAME] [--seed N] [--dump-dir DIR]
//
// It serves operator commands on the abstract socket "\0s<NAME>" (default
// "demo") and keeps the library's components busy with a synthetic workload
// on its single event-loop thread. Talk to it with olkctl:
//
//   olkctl demo help          # the registered commands
//   olkctl demo stats         # workload and scheduler statistics
//   olkctl demo dump          # every component's state
//   olkctl demo dump gz state.gz   # the same into DIR/state.gz
//   olkctl demo shutdown      # stops cleanly (so do SIGTERM and SIGINT)
//
// Each part of the workload is a `DemoModule`: it starts its periodic work
// with `every`, registers its own commands and writes its state into dumps.
// Adding a component to the demo means adding one module and one line in
// `DemoAgent::DemoAgent`. Only the agent's own uid and root may send
// commands: the socket checks the peer's credentials.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Cell/Cell.h"
#include "Olk/BestFitAllocator.h"
#include "Olk/CuckooHashTable.h"
#include "Olk/DumpContext.h"
#include "Olk/HTimerWheel.h"
#include "Olk/IdSet.h"
#include "Olk/MallocTrimmerSm.h"
#include "Olk/NumAllocator.h"
#include "Olk/ProcSysUtils.h"
#include "Olk/SimpleAgentSocketHandler.h"
#include "Olk/TaskScheduler.h"
#include "Olk/XactLib.h"
#include "platform/ActivityManager.h"
#include "platform/Clock.h"
#include "platform/Format.h"

using namespace Olk;

namespace {

using namespace std::chrono_literals;

// What every module may use: the loop, its clock and the command table.
struct DemoEnv {
  Ptr<Zum::ActivityManager> loop;
  Ptr<Zum::Clock> clock;
  Ptr<SimpleAgentSocketHandler> commands;
};

class DemoModule {
 public:
  virtual ~DemoModule() = default;
  // One or more lines for the "stats" command.
  virtual String stats() const = 0;
  virtual void dump(const Ptr<const DumpContext>& ctx) const = 0;
};

// Writes `text` into a dump one line at a time, so that no single call can
// overrun the context's formatting buffer.
void dumpLines(const Ptr<const DumpContext>& ctx, const String& text) {
  std::istringstream in(text);
  for (String line; std::getline(in, line);) objDumpPrintf(ctx, "%s\n", line.c_str());
}

// --- timer wheel: many self-rearming timers on one clock notifiee -----------

class WheelModule : public DemoModule {
 public:
  explicit WheelModule(DemoEnv& env) : clock_(env.clock), wheel_(timerWheelFactory(env.clock)) {
    addTimers(200);
    env.commands->commandIs("timers", "timers [add <n>]: the timer wheel, or arm n more timers", 0, 2,
                            [this](const CommandArgs& a) { return command(a); });
  }
  String stats() const override {
    return Zum::format("timers: armed %zu fired %llu buckets in use %u\n", timers_.size(),
                       static_cast<unsigned long long>(fired_), wheel_->timers());
  }
  void dump(const Ptr<const DumpContext>& ctx) const override { wheel_->dump(ctx); }

 private:
  // Re-arms itself with a period between 50 ms and 2 s.
  class Timer : public TimerWheel::NotifieeConst {
   public:
    Timer(WheelModule* owner, Seconds period) : owner_(owner), period_(period) {}
    void arm() { timeMinIs(owner_->clock_->now() + period_); }
    void onTime() override {
      ++owner_->fired_;
      arm();
    }

   private:
    WheelModule* owner_;
    Seconds period_;
  };

  void addTimers(U32 n) {
    for (U32 i = 0; i < n; ++i) {
      auto t = std::make_unique<Timer>(this, 0.05 + (rand() % 1950) / 1000.0);
      t->notifierIs(wheel_);
      t->arm();
      timers_.push_back(std::move(t));
    }
  }

  String command(const CommandArgs& a) {
    if (a.empty()) return stats();
    if (a.size() != 2 || a[0] != "add") throw CommandError("usage: timers [add <n>]");
    addTimers(a.number(1, 1, 10000));
    return stats();
  }

  Ptr<Zum::Clock> clock_;
  Ptr<TimerWheel> wheel_;
  std::vector<std::unique_ptr<Timer>> timers_;
  U64 fired_ = 0;
};

// --- cuckoo: a three-table hash table fed with inserts and deletes ----------

class CuckooModule : public DemoModule {
 public:
  static constexpr U32 tableSize = 64;
  static constexpr U32 binSize = 4;
  static constexpr size_t targetItems = 3 * tableSize * binSize * 85 / 100;

  explicit CuckooModule(DemoEnv& env)
      : clock_(env.clock),
        config_(Cuckoo::configFactory("demo-cuckoo", 3)),
        status_(Cuckoo::statusFactory("demo-cuckoo")),
        workload_(every(10ms, [this] { churn(); }, "cuckoo-churn")),
        hardwareWriter_(every(50ms, [this] { writeHardware(); }, "cuckoo-hardware")) {
    for (U32 t = 0; t < 3; ++t) config_->tableDescListIs(Cuckoo::TableId(t), tableSize, binSize);
    config_->pendingItemReviewQuantumIs(1.0);
    table_ = Cuckoo::hashTableFactory(config_, status_, env.clock);
    env.commands->commandIs(
        "cuckoo",
        "cuckoo [insert <key> | delete <key> | items [0-2] | fill <n>]: the cuckoo table; fill loads n "
        "items into a fresh 4-table one",
        0, 2, [this](const CommandArgs& a) { return command(a); });
  }
  String stats() const override {
    return Zum::format(
        "cuckoo: items %zu pending %zu occupancy %.2f inserts %llu deletes %llu hardware writes %llu "
        "acks %u non-hitless lists %llu\n",
        keys_.size(), status_->pendingItemSets(), status_->occupancy(),
        static_cast<unsigned long long>(inserts_), static_cast<unsigned long long>(deletes_),
        static_cast<unsigned long long>(writes_), status_->totalCmdReadCompleted(),
        static_cast<unsigned long long>(violations_));
  }
  void dump(const Ptr<const DumpContext>& ctx) const override {
    table_->displayItems(ctx->level() == dumpVerbose ? 2 : 0, ctx);
  }

 private:
  static U32 mix(U32 x, U32 salt) {
    x ^= salt;
    x *= 0x9e3779b1u;
    x ^= x >> 15;
    x *= 0x85ebca77u;
    return x ^ (x >> 13);
  }
  static Ptr<Cuckoo::IntHashItem> item(U32 key) {
    return Cuckoo::intHashItemFactory(key, mix(key, 1), mix(key, 2), mix(key, 3));
  }

  // Fills the table to its target load, then keeps it there with a mix of
  // deletes and inserts so that evictions keep happening.
  void churn() {
    churnOnce();
    churnOnce();
  }
  void churnOnce() {
    if (keys_.size() < targetItems || rand() % 2) {
      insert(static_cast<U32>(rand()) % 100000);
    } else {
      auto it = keys_.begin();
      std::advance(it, rand() % keys_.size());
      remove(*it);
    }
  }
  bool insert(U32 key) {
    if (!keys_.insert(key).second) return false;
    ++inserts_;
    return table_->insertItem(item(key));
  }
  bool remove(U32 key) {
    if (!keys_.erase(key)) return false;
    ++deletes_;
    return table_->deleteItem(item(key));
  }

  // Plays the agent's part: copies the list to "hardware" and acknowledges.
  void writeHardware() {
    const size_t n = status_->cuckooCmds()->itemSeqs();
    if (n == 0) return;
    if (!table_->verifyCuckooCmdsHitless()) ++violations_;
    writes_ += n;
    config_->cmdReadCompletedInc();
  }

  String listFrom(size_t first) const {
    const Ptr<Cuckoo::CuckooCmds>& cmds = status_->cuckooCmds();
    std::ostringstream os;
    for (size_t i = first; i < cmds->itemSeqs(); ++i) {
      os << "  write " << cmds->itemSeq(i)->location() << " <- " << cmds->itemSeq(i)->item() << "\n";
    }
    return os.str();
  }

  String command(const CommandArgs& a) {
    if (a.empty()) return stats() + dumpText([this](const Ptr<const DumpContext>& ctx) { table_->currentSnapshot(ctx); });
    if (a[0] == "items") {
      const U32 verbosity = a.size() == 2 ? a.number(1, 0, 2) : 1;
      return dumpText([&](const Ptr<const DumpContext>& ctx) { table_->displayItems(verbosity, ctx); });
    }
    if (a.size() != 2) throw CommandError("usage: cuckoo [insert <key> | delete <key> | items [0-2] | fill <n>]");
    if (a[0] == "fill") return fill(a.number(1, 1, 16384));
    if (a[0] == "insert") return change(a.number(1, 0, 0xffffffffu), true);
    if (a[0] == "delete") return change(a.number(1, 0, 0xffffffffu), false);
    throw CommandError("usage: cuckoo [insert <key> | delete <key> | items [0-2] | fill <n>]");
  }

  // Inserts or deletes `key` and shows the command list it took.
  String change(U32 key, bool insertIt) {
    const size_t first = status_->cuckooCmds()->itemSeqs();
    const bool present = keys_.count(key) != 0;
    if (insertIt == present) {
      return Zum::format("key %u is %s\n", key, present ? "already present" : "not present");
    }
    const bool done = insertIt ? insert(key) : remove(key);
    return Zum::format("%s %u: %s, command list:\n", insertIt ? "insert" : "delete", key,
                       done ? "done" : "pending (table full here)") +
           listFrom(first);
  }

  // Inserts n items into a fresh table of four 1024 x 4 tables, writing and
  // acknowledging every command list as an agent would, and reports how the
  // table filled. At most the table's 16384 slots: past them every insert
  // walks to its limit and retries, and the loop would be held for seconds.
  // (The churn workload checks each of its lists hitless; that check copies
  // the shadow, too costly to run on every insert here.)
  String fill(U32 n) {
    constexpr U32 tables = 4;
    Ptr<Cuckoo::Config> config = Cuckoo::configFactory("demo-fill", tables);
    for (U32 t = 0; t < tables; ++t) config->tableDescListIs(Cuckoo::TableId(t), 1024, 4);
    Ptr<Cuckoo::Status> status = Cuckoo::statusFactory("demo-fill");
    Ptr<Cuckoo::HashTable> table = Cuckoo::hashTableFactory(config, status, clock_);
    U64 writes = 0, lists = 0;
    for (U32 key = 0; key < n; ++key) {
      table->insertItem(item(key * 2654435761u));
      const size_t cmds = status->cuckooCmds()->itemSeqs();
      if (cmds == 0) continue;
      writes += cmds;
      ++lists;
      config->cmdReadCompletedInc();
    }
    String out = Zum::format(
        "fill %u: occupancy %.3f pending %zu hardware writes %llu in %llu lists cycles %u longest %u "
        "retries %u\n",
        n, status->occupancy(), status->pendingItemSets(), static_cast<unsigned long long>(writes),
        static_cast<unsigned long long>(lists), status->cycleCount(), status->longestCycle(),
        status->retryCount());
    for (U32 t = 0; t < tables; ++t) {
      const Ptr<Cuckoo::TableStat> stat = status->tableStat(Cuckoo::TableId(t));
      out += Zum::format("  table %u: items %u evictions %u\n", t, stat->numOfHashItems(), stat->numOfEvicts());
    }
    return out;
  }

  Ptr<Zum::Clock> clock_;
  Ptr<Cuckoo::Config> config_;
  Ptr<Cuckoo::Status> status_;
  Ptr<Cuckoo::HashTable> table_;
  std::set<U32> keys_;  // keys inserted and not deleted (placed or pending)
  U64 inserts_ = 0;
  U64 deletes_ = 0;
  U64 writes_ = 0;
  U64 violations_ = 0;  // lists that would have lost an item: must stay 0
  Ptr<PeriodicTask> workload_;
  Ptr<PeriodicTask> hardwareWriter_;
};

// --- transactions: one aggregator, three executors ---------------------------

class XactModule : public DemoModule {
 public:
  explicit XactModule(DemoEnv& env)
      : xacts_(xactDirFactory("demo-xacts")),
        aggregator_(xactAggregatorSmFactory("demo-aggregator", env.clock)),
        workload_(every(250ms, [this] { startXacts(1); }, "xact-start")) {
    aggregator_->timeoutIs(5.0);
    for (const char* name : {"executor-a", "executor-b", "executor-c"}) {
      auto configs = xactConfigDirFactory(name);
      auto statuses = xactStatusDirFactory(name);
      aggregator_->xactConfigDirIs(configs);
      aggregator_->xactStatusDirIs(statuses);
      // executor-c refuses every 13th transaction, to show failures.
      const U32 failEvery = String(name) == "executor-c" ? 13 : 0;
      executors_.push_back(xactExecutorSmFactory(name, configs, statuses, env.clock, [failEvery](const XactConfig& c) {
        if (failEvery && c.id % failEvery == 0) return ExecResult(xactFailure, "injected failure");
        return ExecResult(xactSuccess);
      }));
    }
    env.commands->commandIs("xact", "xact [start <n>]: transaction outcomes, or start n now", 0, 2,
                            [this](const CommandArgs& a) { return command(a); });
  }

  String stats() const override {
    return Zum::format("xact: started %u in progress %zu succeeded %llu failed %llu\n", nextId_ - 1,
                       aggregator_->inProgressXact().size(), static_cast<unsigned long long>(succeeded_),
                       static_cast<unsigned long long>(failed_));
  }
  void dump(const Ptr<const DumpContext>& ctx) const override {
    objDumpPrintf(ctx, "XactAggregatorSm %s in progress: %zu config dirs: %zu status dirs: %zu\n",
                  aggregator_->name().c_str(), aggregator_->inProgressXact().size(),
                  aggregator_->xactConfigDirCount(), aggregator_->xactStatusDirCount());
    for (const auto& e : executors_) {
      objDumpPrintf(ctx, "  XactExecutorSm %s seen: %llu processed: %llu backlog: %zu\n", e->name().c_str(),
                    static_cast<unsigned long long>(e->updatesSeen()),
                    static_cast<unsigned long long>(e->updatesProcessed()), e->backlogCount());
    }
    for (const auto& [id, xact] : xacts_->xact()) objDumpPrintf(ctx, "  %s\n", describe(*xact).c_str());
  }

 private:
  static String describe(const Xact& x) {
    String text = Zum::format("xact %u: %s", x.id(), stringValue(x.result()).c_str());
    for (const auto& [dir, comment] : x.comment()) text += " " + dir + "=" + comment;
    return text;
  }

  // The whole life of a transaction: a record, a start with its completion,
  // and at the end its configurations withdrawn and the record deleted, so
  // that no directory grows with the number of transactions.
  std::vector<Ptr<Xact>> startXacts(U32 n) {
    std::vector<Ptr<Xact>> started;
    for (U32 i = 0; i < n; ++i) {
      Ptr<Xact> xact = xacts_->xactIs(nextId_++);
      aggregator_->doStartXact(xact, [this](const Xact& done) { handleFinished(done); });
      started.push_back(xact);
    }
    return started;
  }

  void handleFinished(const Xact& x) {
    ++(x.result() == xactSuccess ? succeeded_ : failed_);
    recent_.push_back(describe(x));
    if (recent_.size() > 10) recent_.pop_front();
    aggregator_->doStopXact(x.id());
    xacts_->xactDel(x.id());
  }

  String command(const CommandArgs& a) {
    if (a.empty()) {
      String text = stats() + "recent outcomes:\n";
      for (const String& line : recent_) text += "  " + line + "\n";
      return text;
    }
    if (a.size() != 2 || a[0] != "start") throw CommandError("usage: xact [start <n>]");
    String text;
    for (const Ptr<Xact>& x : startXacts(a.number(1, 1, 1000))) {
      text += Zum::format("started xact %u (config version %u)\n", x->id(), x->configVersion());
    }
    return text + "executors answer within their next slices; see: xact\n";
  }

  // Declared before the executors: an executor going away withdraws its
  // statuses, which may end a run and call handleFinished.
  Ptr<XactDir> xacts_;
  Ptr<XactAggregatorSm> aggregator_;
  std::deque<String> recent_;
  U32 nextId_ = 1;
  U64 succeeded_ = 0;
  U64 failed_ = 0;
  std::vector<Ptr<XactExecutorSm>> executors_;
  Ptr<PeriodicTask> workload_;
};

// --- allocation: labels with hold-down, their id set, and table blocks -------

class AllocModule : public DemoModule {
 public:
  static constexpr U32 labelBase = 100;
  static constexpr U32 labelCount = 64;

  explicit AllocModule(DemoEnv& env)
      : labels_(numAllocatorFactory("demo-labels", Range(labelBase, labelBase + labelCount - 1), env.clock,
                                    1.0)),
        activeIds_(labelCount, Id(0)),
        blocks_(bestFitAllocatorFactory(512, 0x1000, 32)),
        workload_(every(50ms, [this] { churn(); }, "alloc-churn")) {
    env.commands->commandIs("labels",
                            "labels [allocate | release <label>]: the label allocator and its active set", 0, 2,
                            [this](const CommandArgs& a) { return labelCommand(a); });
    env.commands->commandIs("blocks", "blocks [defrag]: the block allocator, or pack its blocks", 0, 1,
                            [this](const CommandArgs& a) { return blockCommand(a); });
  }
  String stats() const override { return labelStats() + blockStats(); }
  void dump(const Ptr<const DumpContext>& ctx) const override {
    dumpLines(ctx, labelStats());
    objDumpPrintf(ctx, "  active: %s\n", activeIds_.stringValue().c_str());
    dumpLines(ctx, blockStats());
    if (ctx->level() != dumpVerbose) return;
    for (const auto& [index, blk] : blocks_->inUseBlockMap()) {
      objDumpPrintf(ctx, "  block 0x%x size %u\n", index, blk->size());
    }
  }

 private:
  String labelStats() const {
    return Zum::format("labels: active %llu held down %llu free %llu available %llu\n",
                       static_cast<unsigned long long>(labels_->numActive()),
                       static_cast<unsigned long long>(labels_->numHeldDown()),
                       static_cast<unsigned long long>(labels_->numFree()),
                       static_cast<unsigned long long>(labels_->numAvailable()));
  }
  String blockStats() const {
    return Zum::format("blocks: in use %zu free entries %u of %u free blocks %zu\n", held_.size(),
                       blocks_->numFreeEntries(), blocks_->memSz(), blocks_->freeBlkStartIndexToSzMap().size());
  }

  std::optional<U32> allocateLabel() {
    std::optional<U32> label = labels_->allocate();
    if (label) activeIds_.updateId(Id(static_cast<U16>(*label - labelBase)), true);
    return label;
  }
  bool releaseLabel(U32 label) {
    if (!labels_->release(label)) return false;
    activeIds_.updateId(Id(static_cast<U16>(label - labelBase)), false);
    return true;
  }

  // Allocates and frees labels and blocks at random, so the hold-down pool
  // fills and drains and the block memory fragments.
  void churn() {
    if (activeIds_.ids() < labelCount / 2 && rand() % 2) {
      allocateLabel();
    } else if (activeIds_.ids() != 0) {
      Id id = activeIds_.firstId();
      for (int skip = rand() % 8; skip > 0 && activeIds_.nextId(id) != Id::null(); --skip) {
        id = activeIds_.nextId(id);
      }
      releaseLabel(labelBase + id.value());
    }
    if (held_.size() < 40 && rand() % 3 != 0) {
      if (Ptr<BFA::Blk> blk = blocks_->alloc(1 + rand() % 24)) held_.push_back(blk);
    } else if (!held_.empty()) {
      held_.erase(held_.begin() + rand() % held_.size());  // dropping the last pointer frees it
    }
  }

  String labelCommand(const CommandArgs& a) {
    if (a.empty()) return labelStats() + "active: " + activeIds_.stringValue() + "\n";
    if (a.size() == 1 && a[0] == "allocate") {
      std::optional<U32> label = allocateLabel();
      return label ? Zum::format("allocated label %u\n", *label) : String("no label available\n");
    }
    if (a.size() != 2 || a[0] != "release") throw CommandError("usage: labels [allocate | release <label>]");
    const U32 label = a.number(1, labelBase, labelBase + labelCount - 1);
    if (!releaseLabel(label)) throw CommandError(Zum::format("label %u is not active", label));
    return Zum::format("released label %u; held down for %g s\n", label, labels_->holdDownTime());
  }

  String blockCommand(const CommandArgs& a) {
    if (a.empty()) return blockStats();
    if (a[0] != "defrag") throw CommandError("usage: blocks [defrag]");
    Ptr<BFA::PendingCmds> moves = blocks_->defragment();
    String text = Zum::format("defragment: %llu moves\n", static_cast<unsigned long long>(moves->pendingCmdLogs()));
    const auto span = moves->pendingCmdLogMetadata();
    for (U64 i = span.head; i < span.tail; ++i) {
      const BFA::PendingCmd& move = moves->pendingCmdLog(i);
      text += Zum::format("  move 0x%x -> 0x%x (%u entries)\n", move.oldIndex, move.blk->index(), move.blk->size());
    }
    return text + blockStats();
  }

  Ptr<NumAllocator> labels_;
  IdSet activeIds_;  // label - labelBase for every active label
  Ptr<BestFitAllocator> blocks_;
  std::vector<Ptr<BFA::Blk>> held_;
  Ptr<PeriodicTask> workload_;
};

// --- system: the cell this agent runs on and kernel tunables ----------------

class SystemModule : public DemoModule {
 public:
  explicit SystemModule(DemoEnv& env) {
    env.commands->commandIs("system", "system [sysctl <name>]: cell identity, or read a /proc/sys tunable", 0, 2,
                            [](const CommandArgs& a) { return command(a); });
  }
  String stats() const override { return ""; }
  void dump(const Ptr<const DumpContext>& ctx) const override { dumpLines(ctx, identity()); }

 private:
  // Looked up on demand: a malformed identity file is the operator's news,
  // not a reason for the agent to fail.
  static String identity() {
    try {
      return Zum::format("cell: id %u type %s product %s\n", static_cast<unsigned>(Cell::cellId()),
                         Cell::cellType().c_str(), Cell::product().c_str());
    } catch (const std::exception& e) {
      return String("cell: unknown (") + e.what() + ")\n";
    }
  }

  // "net.core.somaxconn" and "net/core/somaxconn" both name the same file.
  static String sysctl(String name) {
    if (name.find("..") != String::npos) throw CommandError("no '..' in tunable names");
    std::replace(name.begin(), name.end(), '.', '/');
    char buf[4096] = {};
    const int err = readProcSys(("/proc/sys/" + name).c_str(), buf, sizeof(buf) - 1);
    if (err != 0) throw CommandError(name + ": " + strerror(err));
    return buf;
  }

  static String command(const CommandArgs& a) {
    if (a.empty()) return identity();
    if (a.size() != 2 || a[0] != "sysctl") throw CommandError("usage: system [sysctl <name>]");
    return sysctl(a[1]);
  }
};

// Makes `dir` (mode 0700) unless it exists; refuses anything but a directory
// of our own, since operators name files inside it.
void ensureDumpDir(const String& dir) {
  if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
    throw std::runtime_error("cannot create " + dir + ": " + strerror(errno));
  }
  struct stat st;
  if (lstat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != geteuid()) {
    throw std::runtime_error(dir + " is not a directory of this user");
  }
}

class DemoAgent {
 public:
  DemoAgent(const String& name, const String& dumpDir) : dumpDir_(dumpDir) {
    ensureDumpDir(dumpDir_);
    env_.loop = Zum::activityManager();
    env_.loop->stopOnSignalsIs(true);
    env_.clock = env_.loop->clock();
    env_.commands = simpleAgentSocketHandlerFactory(name);
    env_.commands->agentSocketHandlerSm()->peerCredentialCheckIs(true);
    scheduler_ = TaskSchedulerZumActivity::findOrCreateAgentScheduler();
    trimmer_ = mallocTrimmerSmFactory(scheduler_);
    trimmer_->taskDelayIntervalIs(5.0);
    modules_.push_back(std::make_unique<WheelModule>(env_));
    modules_.push_back(std::make_unique<CuckooModule>(env_));
    modules_.push_back(std::make_unique<XactModule>(env_));
    modules_.push_back(std::make_unique<AllocModule>(env_));
    modules_.push_back(std::make_unique<SystemModule>(env_));
    registerAgentCommands();
  }

  // Until "shutdown", SIGTERM or SIGINT.
  void run() {
    env_.loop->run();
    if (env_.loop->stopSignal()) fprintf(stderr, "demo_agent: signal %d, stopping\n", env_.loop->stopSignal());
  }

 private:
  void registerAgentCommands() {
    env_.commands->commandIs("stats", "stats [all]: every workload, then the scheduler's task table", 0, 1,
                             [this](const CommandArgs& a) { return stats(a); });
    env_.commands->commandIs("dump",
                             "dump [verbose] [gz <file>]: every component's state, here or gzipped into a file "
                             "of the dump directory",
                             0, 3, [this](const CommandArgs& a) { return dump(a); });
    env_.commands->commandIs("shutdown", "shutdown: stops the agent cleanly", 0, 0, [this](const CommandArgs&) {
      env_.loop->stop();
      return String("shutting down\n");
    });
  }

  // "all" adds tasks that never ran, dead tasks and the run history.
  String stats(const CommandArgs& a) const {
    if (!a.empty() && a[0] != "all") throw CommandError("usage: stats [all]");
    const bool all = !a.empty();
    std::ostringstream text;
    text << Zum::format("loop: descriptors %zu\n", env_.loop->fileDescriptorCount());
    for (const auto& m : modules_) text << m->stats();
    scheduler_->printStatsToStream(text, all, all, false, all);
    return text.str();
  }

  void dumpAll(const Ptr<const DumpContext>& ctx) const {
    env_.commands->agentSocketHandlerSm()->dumpState(ctx, ctx->level());
    for (const auto& m : modules_) m->dump(ctx);
    trimmer_->dumpState(ctx, ctx->level());
    scheduler_->printStats(ctx, false, false, false, false);
  }

  String dump(const CommandArgs& a) const {
    const bool verbose = !a.empty() && a[0] == "verbose";
    const DumpLevel level = verbose ? dumpVerbose : dumpNormal;
    const size_t rest = a.size() - (verbose ? 1 : 0);
    if (rest == 0) return dumpText([this](const Ptr<const DumpContext>& ctx) { dumpAll(ctx); }, level);
    if (rest != 2 || a[a.size() - 2] != "gz") throw CommandError("usage: dump [verbose] [gz <file>]");
    const String& file = a[a.size() - 1];
    gzFile gz = openCompressedDumpFileInDir(dumpDir_, file);
    if (!gz) throw CommandError("cannot write " + file + " in " + dumpDir_ + ": " + strerror(errno));
    dumpAll(dumpContextFactory(0, gz, level));
    closeCompressedDumpFile(gz);
    return "dumped to " + dumpDir_ + "/" + file + "\n";
  }

  const String dumpDir_;
  DemoEnv env_;
  Ptr<TaskSchedulerZumActivity> scheduler_;
  Ptr<MallocTrimmerSm> trimmer_;
  std::vector<std::unique_ptr<DemoModule>> modules_;
};

const char* const usageText =
    "usage: demo_agent [--name NAME] [--seed N] [--dump-dir DIR]\n"
    "Serves operator commands on the abstract socket \"\\0s<NAME>\" (default demo);\n"
    "\"dump gz <file>\" writes into DIR (default /tmp/demo_agent.<NAME>, made 0700).\n"
    "try: olkctl demo help\n";

}  // namespace

int main(int argc, char** argv) {
  String name = "demo";
  String dumpDir;
  unsigned seed = 1;
  for (int i = 1; i < argc; ++i) {
    const String opt = argv[i];
    if (opt == "-h" || opt == "--help") {
      fputs(usageText, stdout);
      return 0;
    }
    if (i + 1 == argc || (opt != "--name" && opt != "--seed" && opt != "--dump-dir")) {
      fputs(usageText, stderr);
      return 1;
    }
    const String value = argv[++i];
    if (opt == "--name") name = value;
    if (opt == "--seed") seed = static_cast<unsigned>(strtoul(value.c_str(), nullptr, 10));
    if (opt == "--dump-dir") dumpDir = value;
  }
  if (dumpDir.empty()) dumpDir = "/tmp/demo_agent." + name;
  srand(seed);
  try {
    DemoAgent agent(name, dumpDir);
    printf("demo_agent: serving commands on \\0s%s (pid %d), dumps in %s\n", name.c_str(), getpid(),
           dumpDir.c_str());
    fflush(stdout);
    agent.run();
  } catch (const std::exception& e) {
    fprintf(stderr, "demo_agent: %s\n", e.what());
    return 1;
  }
  printf("demo_agent: stopped\n");
  return 0;
}
