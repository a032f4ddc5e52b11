// Transaction completions, and a long run showing that a coordinator built
// on them keeps every directory and the aggregator's sets bounded.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <vector>

#include "Olk/TaskScheduler.h"
#include "Olk/XactLib.h"
#include "TestSupport.h"

using namespace Olk;

namespace {

// One outcome as a completion saw it.
struct Seen {
  U32 id;
  XactResult result;
  std::vector<std::pair<String, String>> comments;
  bool finished;
  bool operator==(const Seen&) const = default;
};

struct CompletionFixture : ::testing::Test {
  Ptr<Zum::ManualClock> clock = Zum::manualClockFactory(100.0);
  Ptr<XactDir> xacts = xactDirFactory("xacts");
  Ptr<XactAggregatorSm> agg = xactAggregatorSmFactory("agg", clock);
  Ptr<XactConfigDir> configA = xactConfigDirFactory("a");
  Ptr<XactConfigDir> configB = xactConfigDirFactory("b");
  Ptr<XactStatusDir> statusA = xactStatusDirFactory("a");
  Ptr<XactStatusDir> statusB = xactStatusDirFactory("b");
  std::vector<Seen> seen;

  void attach() {
    agg->xactConfigDirIs(configA);
    agg->xactConfigDirIs(configB);
    agg->xactStatusDirIs(statusA);
    agg->xactStatusDirIs(statusB);
  }
  Xact::Completion record() {
    return [this](const Xact& x) {
      std::vector<std::pair<String, String>> comments(x.comment().begin(), x.comment().end());
      seen.push_back({x.id(), x.result(), comments, x.finished()});
    };
  }
  void answer(const Ptr<XactStatusDir>& dir, const Ptr<Xact>& x, XactResult r, const String& comment = "") {
    dir->xactStatusIs(XactStatus(x->id(), r, comment, x->configVersion()));
  }
};

TEST_F(CompletionFixture, CalledOnceWhenEveryExecutorHasAnswered) {
  attach();
  Ptr<Xact> x = xacts->xactIs(7);
  agg->doStartXact(x, record());
  answer(statusA, x, xactSuccess, "fine");
  EXPECT_TRUE(seen.empty());  // b has not answered
  answer(statusB, x, xactSuccess);
  ASSERT_EQ(seen, (std::vector<Seen>{{7, xactSuccess, {{"a", "fine"}}, true}}));
  EXPECT_FALSE(x->completion());
  // Later changes of the same run, and runs started without one, call nobody.
  answer(statusB, x, xactSuccess, "again");
  agg->doStartXact(x);
  answer(statusA, x, xactSuccess);
  answer(statusB, x, xactSuccess);
  EXPECT_TRUE(x->finished());
  EXPECT_EQ(seen.size(), 1u);
}

TEST_F(CompletionFixture, FailureAndTimeOutEndTheRunWithTheirComments) {
  attach();
  agg->timeoutIs(5.0);
  Ptr<Xact> failed = xacts->xactIs(1);
  Ptr<Xact> silent = xacts->xactIs(2);
  agg->doStartXact(failed, record());
  agg->doStartXact(silent, record());
  answer(statusB, failed, xactFailure, "no room");
  answer(statusA, silent, xactSuccess);
  clock->advance(5.5);
  EXPECT_EQ(seen, (std::vector<Seen>{{1, xactFailure, {{"b", "no room"}}, true},
                                     {2, xactFailure, {{"b", "Timeout"}}, true}}));
}

TEST_F(CompletionFixture, RunThatEndsInsideTheStartCallsAtOnce) {
  Ptr<Xact> nowhere = xacts->xactIs(1);
  agg->doStartXact(nowhere, record());  // no directories: success at once
  EXPECT_EQ(seen, (std::vector<Seen>{{1, xactSuccess, {}, true}}));
}

TEST_F(CompletionFixture, BlockedRunFailedByItsBlockerCompletes) {
  attach();
  Ptr<Xact> blocker = xacts->xactIs(1);
  agg->doStartXact(blocker);
  Ptr<Xact> dependant = xacts->xactIs(2);
  dependant->failIfBlockingXactFailsIs(true);
  dependant->blockingXactIs(blocker);
  agg->doStartXact(dependant, record());
  EXPECT_TRUE(seen.empty());
  EXPECT_TRUE(agg->blockedXactHas(2));
  answer(statusA, blocker, xactFailure);
  EXPECT_EQ(seen, (std::vector<Seen>{{2, xactFailure, {}, true}}));
}

TEST_F(CompletionFixture, StoppedRunKeepsItsCompletionForTheNextRun) {
  attach();
  Ptr<Xact> x = xacts->xactIs(4);
  agg->doStartXact(x, record());
  agg->doStopXact(4);
  EXPECT_TRUE(seen.empty());
  agg->doStartXact(x);
  answer(statusA, x, xactSuccess);
  answer(statusB, x, xactSuccess);
  EXPECT_EQ(seen.size(), 1u);
}

TEST_F(CompletionFixture, CompletionMayWithdrawAndDeleteItsTransaction) {
  attach();
  Ptr<Xact> x = xacts->xactIs(9);
  agg->doStartXact(x, [this](const Xact& done) {
    agg->doStopXact(done.id());
    xacts->xactDel(done.id());
    seen.push_back({done.id(), done.result(), {}, done.finished()});
  });
  x = nullptr;
  answer(statusA, xacts->xact(9), xactSuccess);
  const U32 version = configB->xactConfig(9).configVersion;
  statusB->xactStatusIs(XactStatus(9, xactSuccess, "", version));
  EXPECT_EQ(seen, (std::vector<Seen>{{9, xactSuccess, {}, true}}));
  EXPECT_FALSE(xacts->xactHas(9));
  EXPECT_TRUE(configA->xactConfig().empty());
  EXPECT_TRUE(configB->xactConfig().empty());
  EXPECT_TRUE(agg->inProgressXact().empty());
}

// Executors written as functions: their results and comments reach the
// coordinator, also for configurations published before they existed (their
// catch-up must run the function, not the base's refusal).
TEST_F(CompletionFixture, FunctionExecutorsAnswerWithTheirResultsAndComments) {
  attach();
  agg->doStartXact(xacts->xactIs(1), record());
  auto execA = xactExecutorSmFactory("a", configA, statusA, nullptr,
                                     [](const XactConfig&) { return ExecResult(xactSuccess, "done"); });
  auto execB = xactExecutorSmFactory("b", configB, statusB, nullptr, [](const XactConfig& c) {
    return c.id == 2 ? ExecResult(xactFailure, "no room") : ExecResult(xactSuccess);
  });
  agg->doStartXact(xacts->xactIs(2), record());
  EXPECT_EQ(seen, (std::vector<Seen>{{1, xactSuccess, {{"a", "done"}}, true},
                                     {2, xactFailure, {{"a", "done"}, {"b", "no room"}}, true}}));
  EXPECT_EQ(OlkTest::rangeErrorText([&] { xactExecutorSmFactory("c", configA, statusA, nullptr, nullptr); }),
            "null _execute parameter to mutator for Olk::XactExecutorSm::execute not allowed\"");
}

// Fails every `failEvery`th id and never answers every `silentEvery`th one,
// so that runs end in all three ways.
XactExecuteFn soakExecution(U32 failEvery, U32 silentEvery) {
  return [failEvery, silentEvery](const XactConfig& config) {
    if (silentEvery && config.id % silentEvery == 0) return ExecResult(xactInProgress);
    if (failEvery && config.id % failEvery == 0) return ExecResult(xactFailure, "refused");
    return ExecResult(xactSuccess);
  };
}

TEST(XactSoak, HundredThousandTransactionsKeepEveryCollectionBounded) {
  using namespace std::chrono_literals;
  constexpr U32 total = 100000;
  constexpr U32 perTick = 10;
  Ptr<Zum::ManualClock> clock = Zum::manualClockFactory(0.0);
  Ptr<TaskSchedulerZumActivity> sched = taskSchedulerZumActivityFactory("soak", clock);
  Ptr<XactDir> xacts = xactDirFactory("xacts");
  Ptr<XactAggregatorSm> agg = xactAggregatorSmFactory("agg", clock);
  agg->timeoutIs(2.0);
  std::vector<Ptr<XactConfigDir>> configs;
  std::vector<Ptr<XactStatusDir>> statuses;
  std::vector<Ptr<XactExecutorSm>> executors;
  for (U32 i = 0; i < 3; ++i) {
    const String name = "executor-" + std::to_string(i);
    configs.push_back(xactConfigDirFactory(name));
    statuses.push_back(xactStatusDirFactory(name));
    agg->xactConfigDirIs(configs.back());
    agg->xactStatusDirIs(statuses.back());
    executors.push_back(xactExecutorSmFactory(name, configs.back(), statuses.back(), clock,
                                              soakExecution(i == 1 ? 13 : 0, i == 2 ? 97 : 0)));
  }

  U32 started = 0;
  U32 outcomes[3] = {};
  XactAggregatorSm* const aggregator = agg.ptr();
  XactDir* const dir = xacts.ptr();
  // The largest size any collection reached.
  std::size_t highWater = 0;
  auto measure = [&] {
    highWater = std::max({highWater, std::size_t(xacts->xactCount()), agg->inProgressXact().size(),
                          agg->pendingXact().size()});
    for (U32 i = 0; i < 3; ++i) {
      highWater = std::max({highWater, configs[i]->xactConfig().size(), statuses[i]->xactStatus().size(),
                            std::size_t(executors[i]->backlogCount())});
    }
  };
  Ptr<PeriodicTask> load = every(sched, 10ms, [&] {
    for (U32 i = 0; i < perTick && started < total; ++i) {
      aggregator->doStartXact(dir->xactIs(++started), [&, aggregator, dir](const Xact& done) {
        ++outcomes[done.result()];
        aggregator->doStopXact(done.id());
        dir->xactDel(done.id());
      });
    }
    measure();
  }, "xact-load");

  while (outcomes[xactSuccess] + outcomes[xactFailure] < total && clock->now() < 1000.0) {
    clock->advance(0.01);
    measure();
  }

  EXPECT_EQ(started, total);
  EXPECT_EQ(outcomes[xactInProgress], 0u);
  // 1 in 97 ids never answered (timed out), and of the rest 1 in 13 failed.
  const U32 silent = total / 97;
  const U32 refused = total / 13 - total / (13 * 97);
  EXPECT_EQ(outcomes[xactFailure], silent + refused);
  EXPECT_EQ(outcomes[xactSuccess], total - silent - refused);
  // Bounded by the load and the time-out, not by the number of transactions.
  EXPECT_LE(highWater, 200u);
  // Everything withdrawn at the end.
  EXPECT_EQ(xacts->xactCount(), 0u);
  for (U32 i = 0; i < 3; ++i) {
    EXPECT_TRUE(configs[i]->xactConfig().empty()) << i;
    EXPECT_TRUE(statuses[i]->xactStatus().empty()) << i;
  }
  EXPECT_TRUE(agg->inProgressXact().empty());
  EXPECT_TRUE(agg->pendingXact().empty());
  EXPECT_EQ(agg->blockedXactCount(), 0u);
}

}  // namespace
