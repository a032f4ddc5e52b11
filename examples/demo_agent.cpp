// demo_agent: a small agent that shows libOlk at work end to end.
//
//   demo_agent [--name NAME] [--seed N]
//
// It serves operator commands on the abstract socket "\0s<NAME>" (default
// "demo") and keeps the library's components busy with a synthetic workload
// on its single event-loop thread. Talk to it with olkctl:
//
//   olkctl demo help          # the registered commands
//   olkctl demo stats         # workload and scheduler statistics
//   olkctl demo dump          # every component's state
//   olkctl demo dump gz /tmp/demo.gz
//   olkctl demo shutdown      # stops cleanly (so do SIGTERM and SIGINT)
//
// Each part of the workload is a `DemoModule`: it starts its work, registers
// its own commands and writes its state into dumps. Adding a component to
// the demo means adding one module and one line in `DemoAgent::DemoAgent`.
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Cell/Cell.h"
#include "Olk/AgentSocketHandler.h"
#include "Olk/BestFitAllocator.h"
#include "Olk/CuckooHashTable.h"
#include "Olk/DumpContext.h"
#include "Olk/HTimerWheel.h"
#include "Olk/IdSet.h"
#include "Olk/NumAllocator.h"
#include "Olk/ProcSysUtils.h"
#include "Olk/MallocTrimmerSm.h"
#include "Olk/SimpleAgentSocketHandler.h"
#include "Olk/Task.h"
#include "Olk/TaskScheduler.h"
#include "Olk/XactLib.h"
#include "platform/ActivityManager.h"
#include "platform/Clock.h"
#include "platform/Format.h"

using namespace Olk;

namespace {

// What every module may use: the loop, its clock and the command table.
struct DemoEnv {
  Ptr<Zum::ActivityManager> loop;
  Ptr<Zum::Clock> clock;
  Ptr<TaskSchedulerZumActivity> scheduler;  // the agent scheduler "main"
  Ptr<SimpleAgentSocketHandler> commands;
};

class DemoModule {
 public:
  virtual ~DemoModule() = default;
  virtual const char* name() const = 0;
  // One or more lines for the "stats" command.
  virtual String stats() const = 0;
  virtual void dump(const Ptr<const DumpContext>& ctx) const = 0;
};

// Splits command arguments at blanks, dropping empty words.
std::vector<String> words(const String& args) {
  std::istringstream in(args);
  std::vector<String> out;
  for (String w; in >> w;) out.push_back(w);
  return out;
}

U32 parseNumber(const String& text, U32 min, U32 max) {
  char* end = nullptr;
  const unsigned long v = strtoul(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || v < min || v > max) {
    throw CommandError(Zum::format("expected a number %u..%u, not '%s'", min, max, text.c_str()));
  }
  return static_cast<U32>(v);
}

// Writes `text` into a dump one line at a time, so that no single call can
// overrun the context's formatting buffer.
void dumpText(const Ptr<const DumpContext>& ctx, const String& text) {
  std::istringstream in(text);
  for (String line; std::getline(in, line);) objDumpPrintf(ctx, "%s\n", line.c_str());
}

// Calls `work` every `period` seconds from a timer task on the agent
// scheduler, so that each workload shows up in the scheduler's statistics.
class Periodic : private Task::NotifieeConst {
 public:
  Periodic(DemoEnv& env, const String& name, Seconds period, std::function<void()> work)
      : period_(period), work_(std::move(work)) {
    task_ = timerTaskFactory(env.scheduler, TaskPriority::normal, name);
    notifierIs(task_);
    task_->scheduleTaskDelay(period_);
  }

 private:
  void onTaskRun() override {
    task_->scheduleTaskDelay(period_);
    work_();
  }

  const Seconds period_;
  const std::function<void()> work_;
  Ptr<TimerTask> task_;
};

// --- timer wheel: many self-rearming timers on one clock notifiee -----------

class WheelModule : public DemoModule {
 public:
  explicit WheelModule(DemoEnv& env)
      : clock_(env.clock), wheel_(timerWheelFactory(env.clock, 10, 8640000, true, 1024)) {
    addTimers(200);
    env.commands->commandIs("timers", "timers [add <n>]: the timer wheel, or arm n more timers",
                            [this](const CommandRequest& r) { return command(r); });
  }
  const char* name() const override { return "timers"; }
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

  String command(const CommandRequest& r) {
    const std::vector<String> w = words(r.args);
    if (w.empty()) return stats();
    if (w.size() != 2 || w[0] != "add") throw CommandError("usage: timers [add <n>]");
    addTimers(parseNumber(w[1], 1, 10000));
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
        workload_(env, "cuckoo-churn", 0.01, [this] { churn(); }),
        hardwareWriter_(env, "cuckoo-hardware", 0.05, [this] { writeHardware(); }) {
    for (U32 t = 0; t < 3; ++t) config_->tableDescListIs(Cuckoo::TableId(t), tableSize, binSize);
    config_->pendingItemReviewQuantumIs(1.0);
    table_ = Cuckoo::hashTableFactory(config_, status_, env.clock);
    env.commands->commandIs(
        "cuckoo",
        "cuckoo [insert <key> | delete <key> | items [0-2] | fill <n>]: the cuckoo table; fill loads n "
        "items into a fresh 4-table one",
        [this](const CommandRequest& r) { return command(r); });
  }
  const char* name() const override { return "cuckoo"; }
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

  String command(const CommandRequest& r) {
    const std::vector<String> w = words(r.args);
    if (w.empty()) {
      writeToClient(r.clientFd, stats());
      table_->currentSnapshot(DumpContext::dumpContext(r.clientFd, dumpNormal, false));
      return "";
    }
    if (w[0] == "items" && w.size() <= 2) {
      const U32 verbosity = w.size() == 2 ? parseNumber(w[1], 0, 2) : 1;
      table_->displayItems(verbosity, DumpContext::dumpContext(r.clientFd, dumpNormal, false));
      return "";
    }
    if (w[0] == "fill" && w.size() == 2) return fill(parseNumber(w[1], 1, 16384));
    if ((w[0] != "insert" && w[0] != "delete") || w.size() != 2) {
      throw CommandError("usage: cuckoo [insert <key> | delete <key> | items [0-2] | fill <n>]");
    }
    const U32 key = parseNumber(w[1], 0, 0xffffffffu);
    const size_t first = status_->cuckooCmds()->itemSeqs();
    const bool present = keys_.count(key) != 0;
    if (w[0] == "insert" ? present : !present) {
      return Zum::format("key %u is %s\n", key, present ? "already present" : "not present");
    }
    const bool done = w[0] == "insert" ? insert(key) : remove(key);
    String text = Zum::format("%s %u: %s, command list:\n", w[0].c_str(), key,
                              done ? "done" : "pending (table full here)");
    return text + listFrom(first);
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
        static_cast<unsigned long long>(lists),
        status->cycleCount(), status->longestCycle(), status->retryCount());
    for (U32 t = 0; t < tables; ++t) {
      const Ptr<Cuckoo::TableStat> stat = status->tableStat(Cuckoo::TableId(t));
      out += Zum::format("  table %u: items %u evictions %u\n", t, stat->numOfHashItems(),
                         stat->numOfEvicts());
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
  Periodic workload_;
  Periodic hardwareWriter_;
};

// --- transactions: one aggregator, three executors ---------------------------

class XactModule : public DemoModule {
 public:
  explicit XactModule(DemoEnv& env)
      : clock_(env.clock),
        xacts_(xactDirFactory("demo-xacts")),
        aggregator_(xactAggregatorSmFactory("demo-aggregator", env.clock)),
        workload_(env, "xact-start", 0.25, [this] { startXacts(1); }) {
    aggregator_->timeoutIs(5.0);
    for (const char* name : {"executor-a", "executor-b", "executor-c"}) {
      auto configs = xactConfigDirFactory(name);
      auto statuses = xactStatusDirFactory(name);
      aggregator_->xactConfigDirIs(configs);
      aggregator_->xactStatusDirIs(statuses);
      // executor-c refuses every 13th transaction, to show failures.
      executors_.push_back(Zum::create<Executor>(name, configs, statuses, env.clock,
                                                 String(name) == "executor-c" ? 13u : 0u));
    }
    env.commands->commandIs("xact", "xact [start <n>]: transaction outcomes, or start n now",
                            [this](const CommandRequest& r) { return command(r); });
  }
  ~XactModule() override { aggregator_->xactConfigDirDelAll(); }

  const char* name() const override { return "xact"; }
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
      objDumpPrintf(ctx, "  XactExecutorSm %s seen: %llu processed: %llu backlog: %zu\n",
                    e->name().c_str(), static_cast<unsigned long long>(e->updatesSeen()),
                    static_cast<unsigned long long>(e->updatesProcessed()), e->backlogCount());
    }
    for (const auto& [id, xact] : xacts_->xact()) {
      if (ctx->level() == dumpVerbose || !xact->finished()) objDumpPrintf(ctx, "  %s\n", describe(*xact).c_str());
    }
  }

 private:
  class Executor : public XactExecutorSm {
   public:
    Executor(const Zum::Name& name, const Ptr<XactConfigDir>& configs, const Ptr<XactStatusDir>& statuses,
             const Ptr<Zum::Clock>& clock, U32 failEvery)
        : XactExecutorSm(name, configs, statuses, clock), failEvery_(failEvery) {}
    ExecResult doExecute(const XactConfig& config) override {
      if (failEvery_ && config.id % failEvery_ == 0) return ExecResult(xactFailure, "injected failure");
      return ExecResult(xactSuccess);
    }

   private:
    U32 failEvery_;
  };

  // Watches one transaction until it ends, then counts its outcome.
  class Outcome : public Xact::Notifiee {
   public:
    explicit Outcome(XactModule* owner) : owner_(owner) {}
    void onStatusVersion() override { owner_->handleFinished(*notifier()); }

   private:
    XactModule* owner_;
  };

  static String describe(const Xact& x) {
    String text = Zum::format("xact %u: %s", x.id(), stringValue(x.result()).c_str());
    for (const auto& [dir, comment] : x.comment()) text += " " + dir + "=" + comment;
    return text;
  }

  std::vector<U32> startXacts(U32 n) {
    std::vector<U32> ids;
    for (U32 i = 0; i < n; ++i) {
      const U32 id = nextId_++;
      Ptr<Xact> xact = xacts_->xactIs(id);
      auto outcome = std::make_unique<Outcome>(this);
      outcome->notifierIs(xact);
      outcomes_[id] = std::move(outcome);
      aggregator_->doStartXact(xact);
      ids.push_back(id);
    }
    return ids;
  }

  void handleFinished(const Xact& x) {
    if (!x.finished() || x.result() == xactInProgress) return;
    ++(x.result() == xactSuccess ? succeeded_ : failed_);
    recent_.push_back(describe(x));
    if (recent_.size() > 10) recent_.pop_front();
    const U32 id = x.id();
    if (id > keepFinished) xacts_->xactDel(id - keepFinished);
    outcomes_.erase(id);  // a notifiee may go from inside its own reaction
  }

  String command(const CommandRequest& r) {
    const std::vector<String> w = words(r.args);
    if (w.empty()) {
      String text = stats() + "recent outcomes:\n";
      for (const String& line : recent_) text += "  " + line + "\n";
      return text;
    }
    if (w.size() != 2 || w[0] != "start") throw CommandError("usage: xact [start <n>]");
    String text;
    for (U32 id : startXacts(parseNumber(w[1], 1, 1000))) {
      text += Zum::format("started xact %u (config version %u)\n", id, xacts_->xact(id)->configVersion());
    }
    return text + "executors answer within their next slices; see: xact\n";
  }

  static constexpr U32 keepFinished = 100;

  Ptr<Zum::Clock> clock_;
  Ptr<XactDir> xacts_;
  Ptr<XactAggregatorSm> aggregator_;
  std::vector<Ptr<Executor>> executors_;
  std::map<U32, std::unique_ptr<Outcome>> outcomes_;
  std::deque<String> recent_;
  U32 nextId_ = 1;
  U64 succeeded_ = 0;
  U64 failed_ = 0;
  Periodic workload_;
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
        workload_(env, "alloc-churn", 0.05, [this] { churn(); }) {
    env.commands->commandIs(
        "labels", "labels [allocate | release <label>]: the label allocator and its active set",
        [this](const CommandRequest& r) { return labelCommand(r); });
    env.commands->commandIs("blocks", "blocks [defrag]: the block allocator, or pack its blocks",
                            [this](const CommandRequest& r) { return blockCommand(r); });
  }
  const char* name() const override { return "alloc"; }
  String stats() const override { return labelStats() + blockStats(); }
  void dump(const Ptr<const DumpContext>& ctx) const override {
    dumpText(ctx, labelStats());
    objDumpPrintf(ctx, "  active: %s\n", activeIds_.stringValue().c_str());
    dumpText(ctx, blockStats());
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

  String labelCommand(const CommandRequest& r) {
    const std::vector<String> w = words(r.args);
    if (w.empty()) return labelStats() + "active: " + activeIds_.stringValue() + "\n";
    if (w.size() == 1 && w[0] == "allocate") {
      std::optional<U32> label = allocateLabel();
      return label ? Zum::format("allocated label %u\n", *label) : String("no label available\n");
    }
    if (w.size() == 2 && w[0] == "release") {
      const U32 label = parseNumber(w[1], labelBase, labelBase + labelCount - 1);
      if (!releaseLabel(label)) throw CommandError(Zum::format("label %u is not active", label));
      return Zum::format("released label %u; held down for %g s\n", label, labels_->holdDownTime());
    }
    throw CommandError("usage: labels [allocate | release <label>]");
  }

  String blockCommand(const CommandRequest& r) {
    const std::vector<String> w = words(r.args);
    if (w.empty()) return blockStats();
    if (w.size() != 1 || w[0] != "defrag") throw CommandError("usage: blocks [defrag]");
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
  Periodic workload_;
};
// --- system: the cell this agent runs on and kernel tunables ----------------

class SystemModule : public DemoModule {
 public:
  explicit SystemModule(DemoEnv& env) {
    env.commands->commandIs("system", "system [sysctl <name>]: cell identity, or read a /proc/sys tunable",
                            [this](const CommandRequest& r) { return command(r); });
  }
  const char* name() const override { return "system"; }
  String stats() const override { return ""; }
  void dump(const Ptr<const DumpContext>& ctx) const override { dumpText(ctx, identity()); }

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

  String command(const CommandRequest& r) {
    const std::vector<String> w = words(r.args);
    if (w.empty()) return identity();
    if (w.size() == 2 && w[0] == "sysctl") return sysctl(w[1]);
    throw CommandError("usage: system [sysctl <name>]");
  }
};

class DemoAgent {
 public:
  explicit DemoAgent(const String& name) {
    env_.loop = Zum::activityManager();
    env_.clock = env_.loop->clock();
    env_.scheduler = TaskSchedulerZumActivity::findOrCreateAgentScheduler();
    env_.commands = simpleAgentSocketHandlerFactory(name);
    trimmer_ = mallocTrimmerSmFactory(env_.scheduler);
    trimmer_->taskDelayIntervalIs(5.0);
    modules_.push_back(std::make_unique<WheelModule>(env_));
    modules_.push_back(std::make_unique<CuckooModule>(env_));
    modules_.push_back(std::make_unique<XactModule>(env_));
    modules_.push_back(std::make_unique<AllocModule>(env_));
    modules_.push_back(std::make_unique<SystemModule>(env_));
    registerAgentCommands();
    watchSignals();
  }

  void run() { env_.loop->run(); }

 private:
  void registerAgentCommands() {
    env_.commands->commandIs("stats", "stats [all]: every workload, then the scheduler's task table",
                             [this](const CommandRequest& r) { return stats(r); });
    env_.commands->commandIs(
        "dump", "dump [verbose] [gz <path>]: every component's state, here or to a gzip file",
        [this](const CommandRequest& r) { return dump(r); });
    env_.commands->commandIs("shutdown", "stops the agent cleanly", [this](const CommandRequest&) {
      env_.loop->stop();
      return String("shutting down\n");
    });
  }

  // "all" adds tasks that never ran, dead tasks and the run history.
  String stats(const CommandRequest& r) const {
    const std::vector<String> w = words(r.args);
    if (!w.empty() && (w.size() > 1 || w[0] != "all")) throw CommandError("usage: stats [all]");
    const bool all = !w.empty();
    String text = Zum::format("loop: descriptors %zu\n", env_.loop->fileDescriptorCount());
    for (const auto& m : modules_) text += m->stats();
    writeToClient(r.clientFd, text);
    env_.scheduler->printStats(DumpContext::dumpContext(r.clientFd, dumpNormal, false), all, all, false, all);
    return "";
  }

  void dumpAll(const Ptr<const DumpContext>& ctx) const {
    env_.commands->agentSocketHandlerSm()->dumpState(ctx, ctx->level());
    for (const auto& m : modules_) m->dump(ctx);
    trimmer_->dumpState(ctx, ctx->level());
    env_.scheduler->printStats(ctx, false, false, false, false);
  }

  String dump(const CommandRequest& r) const {
    std::vector<String> w = words(r.args);
    DumpLevel level = dumpNormal;
    if (!w.empty() && w.front() == "verbose") {
      level = dumpVerbose;
      w.erase(w.begin());
    }
    if (w.empty()) {
      dumpAll(DumpContext::dumpContext(r.clientFd, level, false));
      return "";
    }
    if (w.size() != 2 || w[0] != "gz") throw CommandError("usage: dump [verbose] [gz <path>]");
    // A pipe or a device could stall the loop for as long as nobody reads it.
    struct stat st;
    if (stat(w[1].c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
      throw CommandError(w[1] + " is not a regular file");
    }
    gzFile gz = openCompressedDumpFile(w[1].c_str());
    if (!gz) throw CommandError("cannot open " + w[1]);
    dumpAll(dumpContextFactory(0, gz, level));
    closeCompressedDumpFile(gz);
    return "dumped to " + w[1] + "\n";
  }

  // SIGTERM and SIGINT stop the loop like "shutdown" does.
  void watchSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    signals_ = env_.loop->fileDescriptorNew(signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
    signalReactor_.agent = this;
    signalReactor_.notifierIs(signals_);
  }

  struct SignalReactor : Zum::FileDescriptor::Notifiee {
    DemoAgent* agent = nullptr;
    void onReadable() override {
      signalfd_siginfo info;
      if (read(notifier()->fd(), &info, sizeof(info)) != sizeof(info)) return;
      fprintf(stderr, "demo_agent: signal %u, stopping\n", info.ssi_signo);
      agent->env_.loop->stop();
    }
  };

  DemoEnv env_;
  Ptr<MallocTrimmerSm> trimmer_;
  std::vector<std::unique_ptr<DemoModule>> modules_;
  Ptr<Zum::FileDescriptor> signals_;
  SignalReactor signalReactor_;
};

const char* const usageText =
    "usage: demo_agent [--name NAME] [--seed N]\n"
    "Serves operator commands on the abstract socket \"\\0s<NAME>\" (default demo);\n"
    "try: olkctl demo help\n";

}  // namespace

int main(int argc, char** argv) {
  String name = "demo";
  unsigned seed = 1;
  for (int i = 1; i < argc; ++i) {
    const String opt = argv[i];
    if (opt == "-h" || opt == "--help") {
      fputs(usageText, stdout);
      return 0;
    }
    if (i + 1 == argc || (opt != "--name" && opt != "--seed")) {
      fputs(usageText, stderr);
      return 1;
    }
    if (opt == "--name") name = argv[++i];
    if (opt == "--seed") seed = static_cast<unsigned>(strtoul(argv[++i], nullptr, 10));
  }
  srand(seed);
  DemoAgent agent(name);
  printf("demo_agent: serving commands on \\0s%s (pid %d)\n", name.c_str(), getpid());
  fflush(stdout);
  agent.run();
  printf("demo_agent: stopped\n");
  return 0;
}
