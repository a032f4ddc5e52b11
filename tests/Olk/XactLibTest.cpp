#include "Olk/XactLib.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "platform/Clock.h"
#include "platform/Exception.h"
#include "platform/Trace.h"
#include "TestSupport.h"

namespace Olk {
namespace {

using OlkTest::rangeErrorText;

using ::testing::ElementsAre;
using ::testing::Pair;

// Records every reaction of one transaction, in order.
class XactEvents : public Xact::Notifiee {
 public:
  explicit XactEvents(const Ptr<Xact>& x) { notifierIs(x); }
  void onConfigVersion() override { events.push_back("configVersion"); }
  void onStartTime() override { events.push_back("startTime"); }
  void onStatusVersion() override { events.push_back("statusVersion"); }
  void onResult() override { events.push_back("result"); }
  void onComment(const String& key) override { events.push_back("comment:" + key); }
  void onBlockingXact(U32 id) override { events.push_back("blockingXact:" + std::to_string(id)); }
  void onFailIfBlockingXactFails() override { events.push_back("failIf"); }
  std::vector<String> events;
};

class StatusEvents : public XactStatusDir::Notifiee {
 public:
  explicit StatusEvents(const Ptr<XactStatusDir>& d) { notifierIs(d); }
  void onXactStatus(U32 id) override { ids.push_back(id); }
  std::vector<U32> ids;
};

std::vector<std::pair<String, String>> comments(const Xact& x) {
  return {x.comment().begin(), x.comment().end()};
}

// A clock whose time moves only when the test says, without firing anything.
class StepClock : public Zum::Clock {
 public:
  StepClock() : Clock("StepClock") {}
  Seconds now() const override { return t; }
  Seconds t = 50.0;
};

// Executes by rule (success by default); each execution costs `cost`
// seconds of the step clock, when there is one.
class RuleExecutor : public XactExecutorSm {
 public:
  RuleExecutor(const Ptr<const XactConfigDir>& c, const Ptr<XactStatusDir>& s, const Ptr<Zum::Clock>& clk,
               Ptr<StepClock> step = nullptr)
      : XactExecutorSm("rule", c, s, clk), step_(std::move(step)) {}
  ExecResult doExecute(const XactConfig& cfg) override {
    executed.push_back(cfg.id);
    if (step_) step_->t += cost;
    return rule ? rule(cfg) : ExecResult(xactSuccess);
  }
  std::vector<U32> executed;
  std::function<ExecResult(const XactConfig&)> rule;
  Seconds cost = 0.0;

 private:
  Ptr<StepClock> step_;
};

// ---------------------------------------------------------------------------
// Records

TEST(XactRecords, TextForms) {
  std::ostringstream os;
  os << xactSuccess << ' ' << stringValue(xactFailure);
  EXPECT_EQ(os.str(), "xactSuccess xactFailure");

  const XactConfig cfg(3, 7);
  EXPECT_EQ(valueToStrep(cfg), "Value('Olk::XactConfig', ** {'id': 3, 'configVersion': 7})");
  EXPECT_EQ(strepToValue<XactConfig>(valueToStrep(cfg)), cfg);
  const XactStatus st(4, xactFailure, "it's broken", 9);
  EXPECT_EQ(valueToStrep(st),
            "Value('Olk::XactStatus', ** {'id': 4, 'result': xactFailure, 'comment': 'it\\'s broken', "
            "'statusVersion': 9})");
  EXPECT_EQ(strepToValue<XactStatus>(valueToStrep(st)), st);
  const ExecResult er(xactSuccess, "ok");
  EXPECT_EQ(valueToStrep(er), "Value('Olk::ExecResult', ** {'result': xactSuccess, 'comment': 'ok'})");
  EXPECT_EQ(strepToValue<ExecResult>(valueToStrep(er)), er);
}

TEST(XactRecords, NullBlockerIsRangeErrorWithStrayQuoteAndChangesNothing) {
  Ptr<Xact> a = xactFactory(1);
  a->blockingXactIs(xactFactory(2));
  XactEvents ev(a);
  EXPECT_EQ(rangeErrorText([&] { a->blockingXactIs(nullptr); }),
            "null _blockingXact parameter to mutator for Olk::Xact::blockingXact not allowed\"");
  EXPECT_EQ(a->blockingXact().size(), 1u);
  EXPECT_TRUE(ev.events.empty());
}

TEST(XactRecords, DirectoriesReplaceAndNotifyOnChangeOnly) {
  Ptr<XactStatusDir> st = xactStatusDirFactory("s");
  StatusEvents sev(st);
  st->xactStatusIs(XactStatus(5, xactSuccess, "", 1));
  st->xactStatusIs(XactStatus(5, xactSuccess, "", 1));
  st->xactStatusIs(XactStatus(5, xactSuccess, "c", 1));
  st->xactStatusDel(5);
  st->xactStatusDel(5);
  EXPECT_THAT(sev.ids, ElementsAre(5u, 5u, 5u));
  EXPECT_EQ(st->xactStatus(5), XactStatus());
}

// ---------------------------------------------------------------------------
// Aggregator

class XactAggregator : public ::testing::Test {
 protected:
  Ptr<Zum::ManualClock> clock = Zum::manualClockFactory(1000.0);
  Ptr<XactAggregatorSm> agg = xactAggregatorSmFactory("agg", clock);
  Ptr<XactDir> dir = xactDirFactory("xacts");
  Ptr<XactConfigDir> cfgA = xactConfigDirFactory("a");
  Ptr<XactConfigDir> cfgB = xactConfigDirFactory("b");
  Ptr<XactStatusDir> stA = xactStatusDirFactory("a");
  Ptr<XactStatusDir> stB = xactStatusDirFactory("b");

  void attach() {
    agg->xactConfigDirIs(cfgA);
    agg->xactConfigDirIs(cfgB);
    agg->xactStatusDirIs(stA);
    agg->xactStatusDirIs(stB);
  }
  Ptr<Xact> start(U32 id) {
    Ptr<Xact> x = dir->xactIs(id);
    agg->doStartXact(x);
    return x;
  }
  // Blocks `x` on `blockers`, then starts it.
  Ptr<Xact> startBlocked(U32 id, std::initializer_list<Ptr<Xact>> blockers, bool failIf = false) {
    Ptr<Xact> x = dir->xactIs(id);
    for (const Ptr<Xact>& b : blockers) x->blockingXactIs(b);
    x->failIfBlockingXactFailsIs(failIf);
    agg->doStartXact(x);
    return x;
  }
  // Answers the current run of `x` from `d`.
  static void answer(const Ptr<XactStatusDir>& d, const Ptr<Xact>& x, XactResult r, const String& c = "") {
    d->xactStatusIs(XactStatus(x->id(), r, c, x->configVersion()));
  }
  void succeed(const Ptr<Xact>& x) {
    answer(stA, x, xactSuccess);
    answer(stB, x, xactSuccess);
  }
};

TEST_F(XactAggregator, WithoutDirectoriesStartSucceedsAtOnce) {
  Zum::TraceCapture cap;
  agg->xactConfigDirIs(cfgA);  // a config directory alone is not enough
  Ptr<Xact> x = dir->xactIs(1);
  x->commentIs("old", "stale");
  agg->doStartXact(x);
  EXPECT_EQ(x->configVersion(), 1u);
  EXPECT_EQ(x->statusVersion(), 1u);
  EXPECT_EQ(x->result(), xactSuccess);
  EXPECT_TRUE(x->comment().empty());
  EXPECT_TRUE(cap.contains("No xactConfigDirs or xactStatusDirs. Marking Xact as success"));
  EXPECT_TRUE(cap.contains("void Olk::XactAggregatorSm::doStartXact(const Ptr&) agg xact id: 1 configVersion: 0"));
}

TEST_F(XactAggregator, StartPublishesToEveryConfigDirAndArmsTheScan) {
  attach();
  clock->advance(5.0);
  Zum::TraceCapture cap;
  Ptr<Xact> x = start(7);
  EXPECT_EQ(x->startTime(), 1005.0);
  EXPECT_EQ(cfgA->xactConfig(7), XactConfig(7, 1));
  EXPECT_EQ(cfgB->xactConfig(7), XactConfig(7, 1));
  EXPECT_EQ(agg->clockTimeMin(), 1006.0);
  EXPECT_TRUE(cap.contains("b: setting xactConfig: id: 7 configVersion: 1"));
  // A second start does not push the scan further out.
  clock->nowIs(1005.5);
  start(8);
  EXPECT_EQ(agg->clockTimeMin(), 1006.0);
}

TEST_F(XactAggregator, SuccessNeedsEveryDirectoryAtTheCurrentVersion) {
  attach();
  Ptr<Xact> x = start(1);
  Zum::TraceCapture cap;
  answer(stA, x, xactSuccess, "fine");
  EXPECT_TRUE(cap.contains("xact status from: b statusVersion: 0 None"));
  stB->xactStatusIs(XactStatus(1, xactSuccess, "", 0));  // an older run's answer
  EXPECT_EQ(x->result(), xactInProgress);
  EXPECT_TRUE(cap.contains("xact status from: b statusVersion: 0 Value('Olk::XactStatus', ** {'id': 1, "
                           "'result': xactSuccess, 'comment': '', 'statusVersion': 0})"));
  for (const auto& r : cap.records()) {
    EXPECT_EQ(r.level, r.text.starts_with("xact status from: ") ? 9 : 8) << r.text;
  }
  EXPECT_TRUE(cap.contains("Comment from: a comment: fine"));
  // An answer at the current version counts whatever its result: only a
  // missing or older status holds the transaction up.
  answer(stB, x, xactInProgress, "working");
  EXPECT_EQ(x->result(), xactSuccess);
  EXPECT_EQ(x->statusVersion(), 1u);
  EXPECT_THAT(comments(*x), ElementsAre(Pair("a", "fine"), Pair("b", "working")));
  EXPECT_EQ(agg->clockTimeMin(), Zum::endOfTime);
  EXPECT_TRUE(cap.contains(" id 1 version 1 result xactSuccess"));
  // Completion leaves the published configurations in place.
  EXPECT_TRUE(cfgA->xactConfigHas(1));
}

TEST_F(XactAggregator, OneFailureIsFinalWhereverTheSilentDirectoryStands) {
  attach();
  Ptr<Xact> x = start(1);
  Ptr<Xact> y = start(2);
  Zum::TraceCapture cap;
  answer(stB, x, xactFailure, "no room");  // "a", before it, is silent
  answer(stA, y, xactFailure);             // "b", after it, is silent
  for (const Ptr<Xact>& xact : {x, y}) {
    EXPECT_EQ(xact->result(), xactFailure);
    EXPECT_EQ(xact->statusVersion(), 1u);
  }
  EXPECT_THAT(comments(*x), ElementsAre(Pair("b", "no room")));
  EXPECT_TRUE(y->comment().empty());
  EXPECT_TRUE(cap.contains("Failed status from: b statusVersion: 1"));
  // A later success has nothing to override: the transaction is no longer held.
  answer(stA, x, xactSuccess, "late");
  EXPECT_EQ(x->result(), xactFailure);
  EXPECT_TRUE(cap.contains("Xact not found for the id: 1"));
}

TEST_F(XactAggregator, RestartedRunAnnouncesOnlyTheCommentsThatChanged) {
  attach();
  Ptr<Xact> x = start(1);
  answer(stA, x, xactSuccess, "fine");
  answer(stB, x, xactSuccess, "first run");
  agg->doStartXact(x);
  answer(stA, x, xactSuccess, "fine");
  XactEvents ev(x);
  answer(stB, x, xactFailure);
  EXPECT_EQ(x->result(), xactFailure);
  EXPECT_EQ(x->statusVersion(), 2u);
  // "a" said the same again: only the comment that went away is announced.
  EXPECT_THAT(comments(*x), ElementsAre(Pair("a", "fine")));
  EXPECT_THAT(ev.events, ElementsAre("comment:b", "result", "statusVersion"));
}

TEST_F(XactAggregator, BlockedByTwoStartsOnlyWhenBothSucceed) {
  attach();
  Ptr<Xact> a = dir->xactIs(1);
  Ptr<Xact> b = dir->xactIs(2);
  Zum::TraceCapture cap;
  Ptr<Xact> x = startBlocked(3, {a, b});
  EXPECT_EQ(agg->blockedXact(3)->blockingXactCount(), 2u);
  agg->doStartXact(a);
  agg->doStartXact(b);
  succeed(a);
  EXPECT_TRUE(cap.contains("blockingXact: 1 blockedXact: 3"));
  EXPECT_TRUE(cap.contains("Xact: 3 blocked due to: 2"));
  EXPECT_TRUE(agg->blockedXactHas(3));
  succeed(b);
  EXPECT_FALSE(agg->blockedXactHas(3));
  EXPECT_TRUE(x->blockingXact().empty());
  EXPECT_EQ(cfgA->xactConfig(3), XactConfig(3, 1));
}

TEST_F(XactAggregator, FailingBlockerFailsDependantThatAskedForIt) {
  attach();
  Ptr<Xact> a = dir->xactIs(1);
  Ptr<Xact> b = dir->xactIs(2);
  // x ran once before and carries that run's comment.
  Ptr<Xact> x = start(3);
  answer(stA, x, xactFailure, "first run");
  ASSERT_EQ(x->statusVersion(), 1u);
  startBlocked(3, {a, b}, true);
  agg->doStartXact(a);
  agg->doStartXact(b);
  ASSERT_TRUE(agg->blockedXactHas(3));
  XactEvents ev(x);
  Zum::TraceCapture cap;
  answer(stA, a, xactFailure, "broken");
  EXPECT_EQ(x->result(), xactFailure);
  EXPECT_EQ(x->statusVersion(), 2u);
  EXPECT_TRUE(x->comment().empty());
  EXPECT_TRUE(x->blockingXact().empty());
  EXPECT_FALSE(agg->blockedXactHas(3));
  EXPECT_TRUE(cap.contains("Xact: 3 failed due to: 1"));
  // The result changes before the old comments go.
  std::vector<String> tail(ev.events.end() - 4, ev.events.end());
  EXPECT_THAT(tail, ElementsAre("configVersion", "result", "comment:a", "statusVersion"));
  // Its configuration from the earlier run was withdrawn.
  EXPECT_FALSE(cfgA->xactConfigHas(3));
  // b still runs on its own.
  EXPECT_EQ(agg->inProgressXact(2), b);
}

TEST_F(XactAggregator, StartingAfterBlockerFailedFailsAtOnceWithCommentsClearedFirst) {
  attach();
  Ptr<Xact> a = start(1);
  answer(stA, a, xactFailure);
  Ptr<Xact> x = dir->xactIs(3);
  x->commentIs("a", "old");
  x->blockingXactIs(a);
  x->failIfBlockingXactFailsIs(true);
  XactEvents ev(x);
  agg->doStartXact(x);
  EXPECT_EQ(x->statusVersion(), 1u);
  EXPECT_FALSE(agg->blockedXactHas(3));
  EXPECT_THAT(ev.events, ElementsAre("blockingXact:1", "configVersion", "comment:a", "result", "statusVersion"));
}

TEST_F(XactAggregator, LimitOfOneQueuesTheRestAndAFinishStartsOne) {
  attach();
  agg->maxAllowedInProgressXactsIs(1);
  Zum::TraceCapture cap;
  std::vector<Ptr<Xact>> xs;
  for (U32 id = 1; id <= 4; ++id) xs.push_back(start(id));
  EXPECT_TRUE(cap.contains("Xact: 2 could not be started due to maxAllowedInProgress Xacts"));
  EXPECT_EQ(agg->pendingXact().size(), 3u);
  succeed(xs[0]);
  EXPECT_EQ(agg->inProgressXact().size(), 1u);
  EXPECT_EQ(agg->pendingXact().size(), 2u);
}

TEST_F(XactAggregator, SynchronousCompletionsDuringTheDrainDoNotRecurse) {
  attach();
  auto exec = Zum::create<RuleExecutor>(cfgA, stA, nullptr);
  agg->maxAllowedInProgressXactsIs(1);
  std::vector<Ptr<Xact>> xs;
  for (U32 id = 1; id <= 5; ++id) xs.push_back(start(id));
  ASSERT_EQ(agg->pendingXact().size(), 4u);
  // Watch the guard while a drained start completes inside the drain.
  struct Guard : Xact::Notifiee {
    XactAggregatorSm* agg;
    std::vector<bool> seen;
    void onStatusVersion() override { seen.push_back(agg->purgingPendingXact()); }
  } guard;
  guard.agg = agg.ptr();
  guard.notifierIs(xs[2]);
  // While one drained start runs, the agent queues one more; that run then
  // completes inside the drain, and the newcomer must not be stranded.
  struct Queuer : Xact::Notifiee {
    XactAggregatorSm* agg;
    Ptr<Xact> late;
    void onConfigVersion() override {
      if (late) agg->doStartXact(std::exchange(late, nullptr));
    }
  } queuer;
  queuer.agg = agg.ptr();
  queuer.late = dir->xactIs(6);
  xs.push_back(queuer.late);
  queuer.notifierIs(xs[4]);
  // Once b is gone, every transaction completes inside its own start.
  agg->xactStatusDirDel("b");
  for (const auto& x : xs) {
    EXPECT_EQ(x->result(), xactSuccess);
    EXPECT_EQ(x->statusVersion(), 1u);
  }
  EXPECT_THAT(guard.seen, ElementsAre(true));
  EXPECT_FALSE(agg->purgingPendingXact());
  EXPECT_TRUE(agg->pendingXact().empty());
  EXPECT_TRUE(agg->inProgressXact().empty());
  EXPECT_EQ(exec->executed.size(), 6u);
}

TEST_F(XactAggregator, TimesOutExactlyAtTimeoutNamingOnlySilentDirectories) {
  attach();
  agg->timeoutIs(5.0);
  Ptr<Xact> x = start(1);
  answer(stA, x, xactSuccess, "done");
  clock->nowIs(1004.999);
  EXPECT_EQ(x->result(), xactInProgress);
  EXPECT_EQ(agg->clockTimeMin(), 1005.0);
  Zum::TraceCapture cap;
  clock->nowIs(1005.0);
  EXPECT_EQ(x->result(), xactFailure);
  EXPECT_EQ(x->statusVersion(), 1u);
  EXPECT_THAT(comments(*x), ElementsAre(Pair("b", "Timeout")));
  EXPECT_TRUE(cap.contains("Timeout for Xact: 1"));
  EXPECT_TRUE(agg->inProgressXact().empty());
}

TEST_F(XactAggregator, ScanRearmsWhileWorkRemainsAndStaleAnswersCountAsSilence) {
  attach();
  agg->timeoutIs(3.0);
  agg->pollingIntervalIs(2.0);
  Ptr<Xact> x = start(1);
  // Answers written before the start match the version it is about to get,
  // and nothing changes afterwards to make the aggregator look at them.
  stA->xactStatusIs(XactStatus(3, xactSuccess, "", 1));
  stB->xactStatusIs(XactStatus(3, xactSuccess, "", 1));
  Ptr<Xact> z = start(3);
  clock->nowIs(1002.0);
  Ptr<Xact> y = start(2);
  stA->xactStatusIs(XactStatus(1, xactSuccess, "", 0));  // stale
  clock->nowIs(1004.0);                                   // scan: x and z time out, y does not
  EXPECT_THAT(comments(*x), ElementsAre(Pair("a", "Timeout"), Pair("b", "Timeout")));
  // Every directory had answered z: the blame goes to nobody in particular.
  EXPECT_EQ(z->result(), xactFailure);
  EXPECT_THAT(comments(*z), ElementsAre(Pair("unknown", "Timeout")));
  EXPECT_EQ(y->result(), xactInProgress);
  EXPECT_EQ(agg->clockTimeMin(), 1006.0);
  clock->nowIs(1006.0);
  EXPECT_EQ(y->result(), xactFailure);
  // Nothing left: the scan leaves its time as the clock reset it.
  EXPECT_EQ(agg->clockTimeMin(), Zum::endOfTime);
}

TEST_F(XactAggregator, DetachedStatusDirectoryReleasesInProgressTransactions) {
  attach();
  Ptr<Xact> x = start(1);
  Ptr<Xact> y = start(2);
  answer(stA, x, xactSuccess);
  answer(stA, y, xactSuccess);
  // An executor that leaves withdraws its answers: y is held up again.
  stA->xactStatusDel(2);
  Zum::TraceCapture cap;
  agg->xactStatusDirDel("b");
  EXPECT_TRUE(cap.contains("xactStatusDir b removed"));
  EXPECT_EQ(x->result(), xactSuccess);
  EXPECT_EQ(y->result(), xactInProgress);
  EXPECT_EQ(agg->clockTimeMin(), 1001.0);
  // With every status directory gone, nobody is left to wait for.
  agg->xactStatusDirDel("a");
  EXPECT_EQ(y->result(), xactSuccess);
  EXPECT_EQ(y->statusVersion(), 1u);
  EXPECT_EQ(agg->clockTimeMin(), Zum::endOfTime);
}

TEST_F(XactAggregator, AttachingStatusDirectoryTakesInItsPresentStatuses) {
  agg->xactConfigDirIs(cfgA);
  agg->xactStatusDirIs(stA);
  Ptr<Xact> x = start(1);
  // b is not attached yet: its answer changes nothing.
  answer(stB, x, xactFailure, "b says no");
  EXPECT_EQ(x->result(), xactInProgress);
  agg->xactStatusDirIs(stB);
  EXPECT_EQ(x->result(), xactFailure);
  EXPECT_THAT(comments(*x), ElementsAre(Pair("b", "b says no")));
}

TEST_F(XactAggregator, TearDownWithdrawsConfigurationsAndDisarms) {
  attach();
  start(1);
  start(2);
  ASSERT_EQ(clock->scheduledCount(), 1u);
  agg = nullptr;
  EXPECT_TRUE(cfgA->xactConfig().empty());
  EXPECT_TRUE(cfgB->xactConfig().empty());
  EXPECT_EQ(clock->scheduledCount(), 0u);
  clock->advance(1000.0);  // nothing fires into a dead aggregator
}

TEST_F(XactAggregator, NullMutatorArgumentsAreRangeErrorsWithStrayQuote) {
  const String tail = " not allowed\"";
  EXPECT_EQ(rangeErrorText([&] { agg->pendingXactIs(nullptr); }),
            "null _pendingXact parameter to mutator for Olk::XactAggregatorSm::pendingXact" + tail);
  EXPECT_EQ(rangeErrorText([&] { agg->blockedXactIs(nullptr); }),
            "null _blockedXact parameter to mutator for Olk::XactAggregatorSm::blockedXact" + tail);
  EXPECT_EQ(rangeErrorText([&] { agg->inProgressXactIs(nullptr); }),
            "null _inProgressXact parameter to mutator for Olk::XactAggregatorSm::inProgressXact" + tail);
  EXPECT_EQ(rangeErrorText([&] { agg->xactConfigDirIs(nullptr); }),
            "null _xactConfigDir parameter to mutator for Olk::XactAggregatorSm::xactConfigDir" + tail);
  EXPECT_EQ(rangeErrorText([&] { agg->xactStatusDirIs(nullptr); }),
            "null _xactStatusDir parameter to mutator for Olk::XactAggregatorSm::xactStatusDir" + tail);
  startBlocked(3, {dir->xactIs(1)});
  EXPECT_EQ(rangeErrorText([&] { agg->blockedXact(3)->blockingXactIs(nullptr); }),
            "null _blockingXact parameter to mutator for Olk::XactAggregatorSm::ZumBlockedXact::blockingXact" + tail);
}

TEST(XactAggregatorDeathTest, CommentsHaveNoTextConstructor) {
  const String text = "{}";
  Zum::StrepIter cur = text.begin();
  EXPECT_DEATH(XactAggregatorSm::XactComments(cur, text.end()),
               "No String constructor for XactComments - has collection");
}

TEST(XactAggregatorNoClock, WorksWithoutTimeOuts) {
  Ptr<XactAggregatorSm> agg = xactAggregatorSmFactory("plain", nullptr);
  Ptr<XactConfigDir> c = xactConfigDirFactory("c");
  Ptr<XactStatusDir> s = xactStatusDirFactory("s");
  agg->xactConfigDirIs(c);
  agg->xactStatusDirIs(s);
  Ptr<Xact> x = xactFactory(1);
  agg->doStartXact(x);
  EXPECT_GT(x->startTime(), 0.0);
  EXPECT_EQ(agg->clockTimeMin(), Zum::endOfTime);
  s->xactStatusIs(XactStatus(1, xactSuccess, "", 1));
  EXPECT_EQ(x->result(), xactSuccess);
}

// ---------------------------------------------------------------------------
// Executor

class XactExecutor : public ::testing::Test {
 protected:
  Ptr<XactConfigDir> c = xactConfigDirFactory("c");
  Ptr<XactStatusDir> s = xactStatusDirFactory("s");
  Ptr<Zum::ManualClock> clock = Zum::manualClockFactory(0.0);
  Ptr<StepClock> step = Zum::create<StepClock>();
};

TEST_F(XactExecutor, WithoutClockAnswersInsideTheNotification) {
  auto e = Zum::create<RuleExecutor>(c, s, nullptr);
  e->rule = [](const XactConfig& cfg) {
    return ExecResult(cfg.id == 6 ? xactInProgress : cfg.id % 2 ? xactFailure : xactSuccess, "r");
  };
  StatusEvents ev(s);
  c->xactConfigIs(XactConfig(4, 3));
  c->xactConfigIs(XactConfig(5, 1));
  c->xactConfigIs(XactConfig(6, 1));  // answered later by other means
  EXPECT_EQ(s->xactStatus(4), XactStatus(4, xactSuccess, "r", 3));
  EXPECT_EQ(s->xactStatus(5), XactStatus(5, xactFailure, "r", 1));
  EXPECT_FALSE(s->xactStatusHas(6));
  // The same configuration again gives the same status: no notification.
  e->handleXactConfig(4);
  EXPECT_THAT(e->executed, ElementsAre(4u, 5u, 6u, 4u));
  EXPECT_THAT(ev.ids, ElementsAre(4u, 5u));
  EXPECT_EQ(e->updatesSeen(), 4u);
  Zum::TraceCapture cap;
  c->xactConfigDel(4);
  EXPECT_FALSE(s->xactStatusHas(4));
  EXPECT_TRUE(cap.contains("Deleting xactStatus with id: 4"));
}

TEST_F(XactExecutor, CatchesUpWithExistingConfigurationsInIdOrder) {
  for (U32 id : {9u, 2u, 5u}) c->xactConfigIs(XactConfig(id, 1));
  auto e = Zum::create<RuleExecutor>(c, s, nullptr);
  EXPECT_THAT(e->executed, ElementsAre(2u, 5u, 9u));
  EXPECT_EQ(e->updatesSeen(), 3u);
}

TEST_F(XactExecutor, BaseWorkFunctionIsNotImplemented) {
  Ptr<XactExecutorSm> e = XactExecutorSmIs("base", nullptr, nullptr, nullptr);
  EXPECT_EQ(e->name(), "base");
  try {
    e->doExecute(XactConfig(1, 1));
    FAIL() << "no range error";
  } catch (const Zum::NoImplementationException& ex) {
    EXPECT_STREQ(ex.what(), "doExecute must be implemented in the derived class");
  }
}

TEST_F(XactExecutor, DeletionSkipsTheBacklogAndTearDownWithdrawsEverything) {
  auto e = Zum::create<RuleExecutor>(c, s, clock);
  c->xactConfigIs(XactConfig(1, 1));
  clock->fire();
  ASSERT_TRUE(s->xactStatusHas(1));
  c->xactConfigIs(XactConfig(1, 2));
  c->xactConfigIs(XactConfig(2, 1));
  EXPECT_TRUE(e->backlog(1));
  EXPECT_EQ(e->clockTimeMin(), 0.0);
  c->xactConfigDel(1);
  EXPECT_FALSE(e->backlog(1));
  EXPECT_FALSE(s->xactStatusHas(1));
  EXPECT_THAT(e->executed, ElementsAre(1u));
  clock->fire();
  EXPECT_THAT(e->executed, ElementsAre(1u, 2u));
  EXPECT_EQ(e->updatesSeen(), 4u);
  EXPECT_EQ(e->updatesProcessed(), 2u);
  c->xactConfigIs(XactConfig(3, 1));
  ASSERT_EQ(clock->scheduledCount(), 1u);
  e = nullptr;
  EXPECT_TRUE(s->xactStatus().empty());
  EXPECT_EQ(clock->scheduledCount(), 0u);
}

TEST_F(XactExecutor, ZeroQuantumProcessesOneIdPerSlice) {
  auto e = Zum::create<RuleExecutor>(c, s, clock);
  e->backlogQuantumIs(0.0);
  for (U32 id : {3u, 1u, 2u}) c->xactConfigIs(XactConfig(id, 1));
  EXPECT_TRUE(e->executed.empty());
  for (U64 slice = 1; slice <= 3; ++slice) {
    // One slice per pass: a re-arm at 0.0 from inside waits for the next.
    clock->fireDue(clock->now());
    EXPECT_EQ(e->executed.size(), slice);
    EXPECT_EQ(e->clockTimeMin(), slice < 3 ? 0.0 : Zum::endOfTime);
  }
  EXPECT_THAT(e->executed, ElementsAre(1u, 2u, 3u));
  EXPECT_EQ(e->dispatchCount(), 3u);
  EXPECT_EQ(e->yieldBeforeFinishingCount(), 2u);
  EXPECT_EQ(e->bookmark(), 3u);
}

TEST_F(XactExecutor, SlicesResumeAtTheBookmarkAndWrapAround) {
  auto e = Zum::create<RuleExecutor>(c, s, step, step);
  e->cost = 0.004;  // quantum 0.01: readings at +0, +4, +8 ms run, +12 ms yields
  for (U32 id = 10; id <= 16; ++id) c->xactConfigIs(XactConfig(id, 1));
  step->fireDue(step->t);
  EXPECT_THAT(e->executed, ElementsAre(10u, 11u, 12u));
  EXPECT_EQ(e->bookmark(), 13u);
  EXPECT_EQ(e->clockTimeMin(), 0.0);
  EXPECT_NEAR(e->timeUsed(), 0.012, 1e-9);
  // New work below the bookmark waits for the wrap.
  c->xactConfigIs(XactConfig(1, 1));
  c->xactConfigIs(XactConfig(11, 2));
  step->fireDue(step->t);
  EXPECT_THAT(e->executed, ElementsAre(10u, 11u, 12u, 13u, 14u, 15u));
  step->fireDue(step->t);
  EXPECT_THAT(e->executed, ElementsAre(10u, 11u, 12u, 13u, 14u, 15u, 16u, 1u, 11u));
  EXPECT_EQ(e->backlogCount(), 0u);
  EXPECT_EQ(e->clockTimeMin(), Zum::endOfTime);
  EXPECT_EQ(e->dispatchCount(), 3u);
  EXPECT_EQ(e->yieldBeforeFinishingCount(), 2u);
  EXPECT_EQ(e->updatesProcessed(), 9u);
  EXPECT_EQ(s->xactStatus(11), XactStatus(11, xactSuccess, "", 2));
}

TEST_F(XactExecutor, BookmarkPastTheLastIdWrapsToTheStart) {
  auto e = Zum::create<RuleExecutor>(c, s, step, step);
  e->bookmarkIs(0xFFFFFFFFu);
  for (U32 id : {0xFFFFFFFFu, 0u, 7u}) c->xactConfigIs(XactConfig(id, 1));
  step->fireDue(step->t);
  EXPECT_THAT(e->executed, ElementsAre(0xFFFFFFFFu, 0u, 7u));
}

TEST_F(XactExecutor, WorkThatRequeuesItsOwnIdIsNotLost) {
  auto e = Zum::create<RuleExecutor>(c, s, clock);
  // The first run publishes a newer version of the same id from inside.
  e->rule = [&](const XactConfig& cfg) {
    if (cfg.configVersion == 1) c->xactConfigIs(XactConfig(cfg.id, 2));
    return ExecResult(xactSuccess);
  };
  c->xactConfigIs(XactConfig(5, 1));
  clock->fire();
  EXPECT_THAT(e->executed, ElementsAre(5u, 5u));
  EXPECT_EQ(s->xactStatus(5).statusVersion, 2u);
}

}  // namespace
}  // namespace Olk
