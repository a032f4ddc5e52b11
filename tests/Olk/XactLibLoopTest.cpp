// One aggregator and four kinds of executor on the real activity loop.
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include "Olk/XactLib.h"
#include "platform/ActivityManager.h"

namespace Olk {
namespace {

constexpr U32 xactCount = 1000;

// Succeeds; with `failSevens` fails every id divisible by 7 instead, naming
// the id. Given a clock, its executor works through its backlog.
XactExecuteFn plainWork(bool failSevens = false) {
  return [failSevens](const XactConfig& cfg) {
    if (failSevens && cfg.id % 7 == 0) return ExecResult(xactFailure, "bad id " + std::to_string(cfg.id));
    return ExecResult(xactSuccess);
  };
}

// Says "in progress" and writes its answers itself a little later.
class LazyExecutor : public XactExecutorSm {
 public:
  LazyExecutor(const Ptr<const XactConfigDir>& c, const Ptr<XactStatusDir>& s, const Ptr<Zum::Clock>& clock)
      : XactExecutorSm("lazy", c, s, nullptr), writer_(this) {
    writer_.notifierIs(clock);
  }
  ExecResult doExecute(const XactConfig& cfg) override {
    owed_.push_back(cfg);
    if (writer_.timeMin() == Zum::endOfTime) writer_.timeMinIs(writer_.notifier()->now() + 0.002);
    return ExecResult(xactInProgress);
  }

 private:
  struct Writer : Zum::Clock::Notifiee {
    explicit Writer(LazyExecutor* e) : exec(e) {}
    void onTime() override { exec->payDebts(); }
    LazyExecutor* exec;
  };
  void payDebts() {
    std::deque<XactConfig> owed;
    owed.swap(owed_);
    for (const XactConfig& cfg : owed) {
      xactStatusDir()->xactStatusIs(XactStatus(cfg.id, xactSuccess, "late", cfg.configVersion));
    }
  }

  Writer writer_;
  std::deque<XactConfig> owed_;
};

// Counts how often each transaction finishes.
class FinishCounter : public Xact::Notifiee {
 public:
  FinishCounter(const Ptr<Xact>& x, U32* total) : total_(total) { notifierIs(x); }
  void onStatusVersion() override {
    if (notifier()->finished()) {
      ++finishes;
      ++*total_;
    }
  }
  U32 finishes = 0;

 private:
  U32* total_;
};

// The transaction plan: who blocks whom, and what must come out.
struct Plan {
  std::vector<U32> blockers(U32 id) const {
    if (id % 10 == 3) return {id - 1, id - 2};
    if (id % 10 == 6 && (id - 1) % 7 != 0) return {id - 1};  // never blocked by a failure
    if (id % 10 == 9) return {id - 6};                       // behind a blocked one
    return {};
  }
  bool failIfBlockerFails(U32 id) const { return id % 10 == 3 || id % 10 == 9; }
  bool blockerFailed(U32 id) const {
    for (U32 b : blockers(id)) {
      if (expected(b) == xactFailure) return true;
    }
    return false;
  }
  XactResult expected(U32 id) const {
    if (failIfBlockerFails(id) && blockerFailed(id)) return xactFailure;
    return id % 7 == 0 ? xactFailure : xactSuccess;
  }
};

TEST(XactLoop, ThousandTransactionsEndRightOnceEach) {
  Ptr<Zum::ActivityManager> loop = Zum::activityManager();
  Ptr<Zum::Clock> clock = loop->clock();
  Ptr<XactAggregatorSm> agg = xactAggregatorSmFactory("agg", clock);
  agg->pollingIntervalIs(0.05);
  agg->timeoutIs(60.0);
  agg->maxAllowedInProgressXactsIs(64);

  std::map<String, Ptr<XactConfigDir>> cfg;
  std::map<String, Ptr<XactStatusDir>> st;
  for (const char* name : {"fast", "slow", "failing", "lazy"}) {
    cfg[name] = xactConfigDirFactory(name);
    st[name] = xactStatusDirFactory(name);
    agg->xactConfigDirIs(cfg[name]);
    agg->xactStatusDirIs(st[name]);
  }
  auto fast = xactExecutorSmFactory("fast", cfg["fast"], st["fast"], nullptr, plainWork());
  auto slow = xactExecutorSmFactory("slow", cfg["slow"], st["slow"], clock, plainWork());
  slow->backlogQuantumIs(0.0);
  auto failing = xactExecutorSmFactory("failing", cfg["failing"], st["failing"], nullptr, plainWork(true));
  auto lazy = Zum::create<LazyExecutor>(cfg["lazy"], st["lazy"], clock);

  const Plan plan;
  Ptr<XactDir> xacts = xactDirFactory("xacts");
  std::vector<std::unique_ptr<FinishCounter>> counters;
  U32 finished = 0;
  for (U32 id = 1; id <= xactCount; ++id) {
    Ptr<Xact> x = xacts->xactIs(id);
    for (U32 b : plan.blockers(id)) x->blockingXactIs(xacts->xactIs(b));
    x->failIfBlockingXactFailsIs(plan.failIfBlockerFails(id));
    counters.push_back(std::make_unique<FinishCounter>(x, &finished));
  }
  std::vector<U32> order(xactCount);
  for (U32 i = 0; i < xactCount; ++i) order[i] = i + 1;
  std::shuffle(order.begin(), order.end(), std::mt19937(7));
  for (U32 id : order) agg->doStartXact(xacts->xact(id));

  ASSERT_TRUE(loop->runUntil([&] { return finished >= xactCount; }, 30.0)) << finished << " finished";

  for (U32 id = 1; id <= xactCount; ++id) {
    SCOPED_TRACE(id);
    const Ptr<Xact> x = xacts->xact(id);
    EXPECT_EQ(counters[id - 1]->finishes, 1u);
    EXPECT_EQ(x->configVersion(), 1u);
    EXPECT_EQ(x->statusVersion(), 1u);
    EXPECT_EQ(x->result(), plan.expected(id));
    EXPECT_TRUE(x->blockingXact().empty());
    if (x->result() == xactSuccess) {
      EXPECT_EQ(x->comment().size(), 1u);
      EXPECT_EQ(x->comment("lazy"), "late");
    } else if (id % 7 == 0 && !(plan.failIfBlockerFails(id) && plan.blockerFailed(id))) {
      EXPECT_EQ(x->comment("failing"), "bad id " + std::to_string(id));
      for (const auto& [key, text] : x->comment()) EXPECT_TRUE(key == "failing" || key == "lazy") << key;
    } else {
      EXPECT_TRUE(x->comment().empty());
    }
  }
  EXPECT_TRUE(agg->inProgressXact().empty());
  EXPECT_TRUE(agg->pendingXact().empty());
  EXPECT_EQ(agg->blockedXactCount(), 0u);
  EXPECT_GT(slow->yieldBeforeFinishingCount(), 0u);
  EXPECT_EQ(slow->backlogCount(), 0u);
  EXPECT_EQ(st["fast"]->xactStatus().size(), fast->updatesSeen());
}

}  // namespace
}  // namespace Olk
