// Randomized check of the transaction aggregator against the rules a
// coordinator relies on: random blockers (with and without fail-through),
// in-progress limits, restarts, withdrawals, executor answers (current,
// stale, failed, commented) and time-outs on a manual clock. The test plays
// every executor by writing statuses itself.
//
// Which pending transaction starts first follows hash order, so the model
// does not predict every step; it checks, after each operation and at each
// finish, what must hold whatever that order is, and at the end that
// nothing is left stuck.

#include "Olk/XactLib.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "platform/Clock.h"

namespace Olk {
namespace {

constexpr Seconds kTimeout = 10.0;
constexpr Seconds kPolling = 1.0;

// What the transaction looked like when its run finished.
struct Finish {
  U32 configVersion;
  XactResult result;
  std::map<String, String> comments;
  Seconds now;
  Seconds startTime;
  std::map<String, XactStatus> statuses;  // every executor's answer at that moment
};

class FinishRecorder : public Xact::Notifiee {
 public:
  FinishRecorder(const Ptr<Xact>& x, const Ptr<Zum::ManualClock>& clock, const std::vector<Ptr<XactStatusDir>>& st)
      : clock_(clock), st_(st) {
    notifierIs(x);
  }
  void onStatusVersion() override {
    const Xact& x = *notifier();
    if (!x.finished()) return;
    Finish f{x.configVersion(), x.result(), {x.comment().begin(), x.comment().end()}, clock_->now(), x.startTime(), {}};
    for (const Ptr<XactStatusDir>& d : st_) f.statuses[d->name()] = d->xactStatus(x.id());
    finishes.push_back(f);
  }
  std::vector<Finish> finishes;

 private:
  Ptr<Zum::ManualClock> clock_;
  const std::vector<Ptr<XactStatusDir>>& st_;
};

class AggregatorModel {
 public:
  AggregatorModel(unsigned seed, U32 limit, int dirs) : rng_(seed) {
    agg_->maxAllowedInProgressXactsIs(limit);
    agg_->timeoutIs(kTimeout);
    agg_->pollingIntervalIs(kPolling);
    for (int i = 0; i < dirs; ++i) {
      String name(1, static_cast<char>('a' + i));
      cfg_.push_back(xactConfigDirFactory(name));
      st_.push_back(xactStatusDirFactory(name));
      agg_->xactConfigDirIs(cfg_.back());
      agg_->xactStatusDirIs(st_.back());
    }
  }

  void step() {
    before_ = inProgressIds();
    int op = pick(100);
    if (op < 25) createAndStart();
    else if (op < 70) answer();
    else if (op < 82) clock_->advance(uniform(0.0, 0.6 * kTimeout));
    else if (op < 95) restartOne();
    else stopOne();
    checkInvariants();
  }

  // Lets every executor answer every run with success until nothing moves,
  // then checks that each started transaction either finished or waits on
  // a blocker that has not succeeded.
  void drainAndCheckNothingStuck() {
    for (int round = 0; round < 10000 && !agg_->inProgressXact().empty(); ++round) {
      before_ = inProgressIds();
      // One per round: each answer may change the in-progress map.
      Ptr<Xact> x = agg_->inProgressXact().begin()->second;
      for (const Ptr<XactStatusDir>& d : st_) d->xactStatusIs(XactStatus(x->id(), xactSuccess, "", x->configVersion()));
      checkInvariants();
    }
    EXPECT_TRUE(agg_->inProgressXact().empty());
    EXPECT_TRUE(agg_->pendingXact().empty());
    for (const auto& [id, x] : xacts_) {
      if (!started_.count(id) || x->finished()) continue;
      ASSERT_TRUE(agg_->blockedXactHas(id)) << "xact " << id << " neither finished nor blocked";
      EXPECT_FALSE(allBlockersSucceeded(*x)) << "xact " << id << " blocked although every blocker succeeded";
    }
  }

 private:
  int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng_); }
  Seconds uniform(Seconds lo, Seconds hi) { return std::uniform_real_distribution<Seconds>(lo, hi)(rng_); }

  std::set<U32> inProgressIds() const {
    std::set<U32> ids;
    for (const auto& [id, x] : agg_->inProgressXact()) ids.insert(id);
    return ids;
  }

  static bool succeeded(const Xact& x) { return x.finished() && x.result() == xactSuccess; }
  // Held by the aggregator in some stage. A never-run transaction has equal
  // versions, so finished() alone does not tell it is idle.
  bool held(U32 id) const {
    return agg_->inProgressXact(id) || agg_->pendingXact(id) || agg_->blockedXactHas(id);
  }
  static bool allBlockersSucceeded(const Xact& x) {
    for (const auto& [id, b] : x.blockingXact())
      if (!succeeded(*b)) return false;
    return true;
  }

  // A transaction others wait on is not restarted while they wait: a
  // pending start does not look at blockers again, which is by design.
  bool hasWaitingDependant(U32 id) const {
    for (const auto& [other, x] : xacts_)
      if (x->blockingXact(id) && (!x->finished() || held(other))) return true;
    return false;
  }

  void createAndStart() {
    U32 id = nextId_++;
    Ptr<Xact> x = dir_->xactIs(id);
    for (const auto& [other, ox] : xacts_)
      if (pick(8) == 0) x->blockingXactIs(ox);
    x->failIfBlockingXactFailsIs(pick(2) == 0);
    xacts_[id] = x;
    recorders_[id] = std::make_unique<FinishRecorder>(x, clock_, st_);
    start(x);
  }

  void start(const Ptr<Xact>& x) {
    started_.insert(x->id());
    size_t finishesBefore = recorders_[x->id()]->finishes.size();
    U32 cvBefore = x->configVersion();
    bool wasBlockedOut = !allBlockersSucceeded(*x);
    agg_->doStartXact(x);
    if (x->configVersion() == cvBefore) {
      // Parked: blocked, or waiting for a slot.
      EXPECT_TRUE(agg_->blockedXactHas(x->id()) || agg_->pendingXact(x->id())) << x->id();
      return;
    }
    EXPECT_EQ(x->configVersion(), cvBefore + 1);
    if (recorders_[x->id()]->finishes.size() > finishesBefore) {
      // Finished at once: only a failed blocker it asked to follow does that here.
      EXPECT_TRUE(wasBlockedOut && x->failIfBlockingXactFails()) << x->id();
      EXPECT_EQ(x->result(), xactFailure);
    } else {
      EXPECT_FALSE(wasBlockedOut) << "xact " << x->id() << " started before its blockers succeeded";
    }
  }

  void answer() {
    if (agg_->inProgressXact().empty()) return;
    // An in-progress transaction, found through a configuration as an executor would.
    int dirIndex = pick(static_cast<int>(cfg_.size()));
    const auto& configs = cfg_[dirIndex]->xactConfig();
    if (configs.empty()) return;
    auto it = configs.begin();
    std::advance(it, pick(static_cast<int>(configs.size())));
    const XactConfig& cfg = it->second;
    int kind = pick(20);
    XactResult r = kind < 3 ? xactFailure : xactSuccess;
    U32 version = kind == 19 ? cfg.configVersion - 1 : cfg.configVersion;  // now and then a stale answer
    String comment = pick(4) == 0 ? "note" + std::to_string(pick(3)) : "";
    st_[dirIndex]->xactStatusIs(XactStatus(cfg.id, r, comment, version));
  }

  void restartOne() {
    std::vector<U32> candidates;
    for (const auto& [id, x] : xacts_)
      if (!held(id) && (x->finished() || stopped_.count(id)) && !hasWaitingDependant(id)) candidates.push_back(id);
    if (candidates.empty()) return;
    U32 id = candidates[pick(static_cast<int>(candidates.size()))];
    stopped_.erase(id);
    start(xacts_[id]);
  }

  void stopOne() {
    if (xacts_.empty()) return;
    U32 id = static_cast<U32>(pick(static_cast<int>(nextId_)));
    agg_->doStopXact(id);
    started_.erase(id);
    stopped_.insert(id);
    EXPECT_FALSE(agg_->inProgressXact(id));
    EXPECT_FALSE(agg_->pendingXact(id));
    EXPECT_FALSE(agg_->blockedXactHas(id));
    for (const Ptr<XactConfigDir>& d : cfg_) EXPECT_FALSE(d->xactConfigHas(id));
  }

  void checkInvariants() {
    ASSERT_LE(agg_->inProgressXact().size(), agg_->maxAllowedInProgressXacts());
    for (const auto& [id, x] : agg_->inProgressXact()) {
      EXPECT_FALSE(x->finished()) << id;
      EXPECT_EQ(x->result(), xactInProgress) << id;
      EXPECT_FALSE(agg_->pendingXact(id)) << id;
      EXPECT_FALSE(agg_->blockedXactHas(id)) << id;
      for (const Ptr<XactConfigDir>& d : cfg_) EXPECT_EQ(d->xactConfig(id), XactConfig(id, x->configVersion())) << id;
    }
    for (const auto& [id, x] : agg_->pendingXact()) EXPECT_FALSE(agg_->blockedXactHas(id)) << id;
    // The time-out scan stays armed while anything is in progress.
    if (!agg_->inProgressXact().empty()) {
      EXPECT_NE(agg_->clockTimeMin(), Zum::endOfTime);
    }
    for (auto& [id, rec] : recorders_) checkNewFinishes(id, *rec);
  }

  void checkNewFinishes(U32 id, FinishRecorder& rec) {
    size_t& seen = checked_[id];
    for (; seen < rec.finishes.size(); ++seen) {
      const Finish& f = rec.finishes[seen];
      EXPECT_TRUE(finishedVersions_[id].insert(f.configVersion).second)
          << "xact " << id << " finished twice at version " << f.configVersion;
      if (before_.count(id)) checkRunOutcome(id, f);
      else EXPECT_TRUE(f.result == xactFailure && f.comments.empty()) << "xact " << id << " finished unstarted";
    }
  }

  // The outcome of a run that was in progress follows from the statuses.
  void checkRunOutcome(U32 id, const Finish& f) {
    std::map<String, String> answeredComments, silent;
    bool anyFailure = false;
    for (const auto& [dir, s] : f.statuses) {
      if (!s || s.statusVersion != f.configVersion) {
        silent[dir] = "Timeout";
        continue;
      }
      anyFailure |= s.result == xactFailure;
      if (!s.comment.empty()) answeredComments[dir] = s.comment;
    }
    if (f.result == xactSuccess) {
      EXPECT_TRUE(silent.empty() && !anyFailure) << "xact " << id << " succeeded without every answer";
      EXPECT_EQ(f.comments, answeredComments) << id;
    } else if (anyFailure) {
      EXPECT_EQ(f.comments, answeredComments) << id;
    } else {
      // Timed out: the silent directories are named.
      EXPECT_GE(f.now - f.startTime, kTimeout - 1e-9) << "xact " << id << " timed out early";
      EXPECT_LT(f.now - f.startTime, kTimeout + kPolling + 1e-9) << "xact " << id << " timed out late";
      std::map<String, String> expected = silent;
      if (expected.empty()) expected["unknown"] = "Timeout";
      EXPECT_EQ(f.comments, expected) << id;
    }
  }

  std::mt19937 rng_;
  Ptr<Zum::ManualClock> clock_ = Zum::manualClockFactory(1000.0);
  Ptr<XactAggregatorSm> agg_ = xactAggregatorSmFactory("model", clock_);
  Ptr<XactDir> dir_ = xactDirFactory("xacts");
  std::vector<Ptr<XactConfigDir>> cfg_;
  std::vector<Ptr<XactStatusDir>> st_;
  U32 nextId_ = 0;
  std::map<U32, Ptr<Xact>> xacts_;
  std::map<U32, std::unique_ptr<FinishRecorder>> recorders_;
  std::map<U32, size_t> checked_;
  std::map<U32, std::set<U32>> finishedVersions_;
  std::set<U32> started_, stopped_;
  std::set<U32> before_;  // in progress when the current operation began
};

TEST(XactAggregatorModel, RandomRunsKeepTheRulesAndLeaveNothingStuck) {
  const U32 limits[] = {1, 2, 3, 10000};
  for (unsigned seed = 1; seed <= 60; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    AggregatorModel model(seed, limits[seed % 4], 1 + static_cast<int>(seed % 3));
    for (int i = 0; i < 400 && !::testing::Test::HasFatalFailure(); ++i) model.step();
    model.drainAndCheckNothingStuck();
    if (::testing::Test::HasFailure()) break;
  }
}

}  // namespace
}  // namespace Olk
