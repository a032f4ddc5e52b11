#include "Olk/XactLib.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "platform/Exception.h"
#include "platform/Trace.h"

namespace Olk {
namespace {

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

class ConfigEvents : public XactConfigDir::Notifiee {
 public:
  explicit ConfigEvents(const Ptr<XactConfigDir>& d) { notifierIs(d); }
  void onXactConfig(U32 id) override { ids.push_back(id); }
  std::vector<U32> ids;
};

std::vector<std::pair<String, String>> comments(const Xact& x) {
  return {x.comment().begin(), x.comment().end()};
}

// ---------------------------------------------------------------------------
// Records

TEST(XactRecords, ResultNamesAndConversions) {
  EXPECT_EQ(stringValue(xactInProgress), "xactInProgress");
  EXPECT_EQ(stringValue(xactSuccess), "xactSuccess");
  EXPECT_EQ(stringValue(xactFailure), "xactFailure");
  EXPECT_EQ(Zum::enumValue<XactResult>("xactFailure"), xactFailure);
  EXPECT_EQ(Zum::enumValue<XactResult>(std::size_t{1}), xactSuccess);
  EXPECT_THROW(Zum::enumValue<XactResult>("xactDone"), Zum::RangeException);
  EXPECT_THROW(Zum::enumValue<XactResult>(std::size_t{3}), Zum::RangeException);
  std::ostringstream os;
  os << xactSuccess;
  EXPECT_EQ(os.str(), "xactSuccess");
  EXPECT_EQ(Zum::EnumTraits<XactResult>::typeName, "Olk::XactResult");
}

TEST(XactRecords, ValueTextFormsRoundTrip) {
  const XactConfig cfg(3, 7);
  EXPECT_EQ(valueToStrep(cfg), "Value('Olk::XactConfig', ** {'id': 3, 'configVersion': 7})");
  EXPECT_EQ(strepToValue<XactConfig>(valueToStrep(cfg)), cfg);

  const XactStatus st(4, xactFailure, "it's broken", 9);
  const String text = valueToStrep(st);
  EXPECT_EQ(text,
            "Value('Olk::XactStatus', ** {'id': 4, 'result': xactFailure, 'comment': 'it\\'s broken', "
            "'statusVersion': 9})");
  EXPECT_EQ(strepToValue<XactStatus>(text), st);
  Zum::StrepIter cur = text.begin();
  EXPECT_EQ(XactStatus(cur, text.end()), st);
  EXPECT_TRUE(cur == text.end());

  const ExecResult er(xactSuccess, "ok");
  EXPECT_EQ(valueToStrep(er), "Value('Olk::ExecResult', ** {'result': xactSuccess, 'comment': 'ok'})");
  EXPECT_EQ(strepToValue<ExecResult>(valueToStrep(er)), er);
  std::ostringstream os;
  os << cfg;
  EXPECT_EQ(os.str(), valueToStrep(cfg));

  EXPECT_THROW(strepToValue<XactConfig>("Value('Olk::XactConfig', ** {'id': 3})"), Zum::RangeException);
  EXPECT_THROW(strepToValue<XactStatus>(
                   "Value('Olk::XactStatus', ** {'id': 4, 'result': xactDone, 'comment': '', 'statusVersion': 9})"),
               Zum::RangeException);
}

TEST(XactRecords, AbsentValuesAndEquality) {
  EXPECT_TRUE(!XactConfig());
  EXPECT_FALSE(!XactConfig(0, 1));
  EXPECT_TRUE(!XactStatus());
  EXPECT_FALSE(!XactStatus(0, xactInProgress, "", 1));
  EXPECT_FALSE(!XactStatus(0, xactInProgress, "x", 0));
  EXPECT_NE(XactStatus(1, xactSuccess, "a", 2), XactStatus(1, xactSuccess, "b", 2));

  Ptr<XactStatusDir> st = xactStatusDirFactory("s");
  EXPECT_EQ(st->xactStatus(42), XactStatus());
  Ptr<XactConfigDir> cfg = xactConfigDirFactory("c");
  EXPECT_TRUE(!cfg->xactConfig(42));
  EXPECT_FALSE(cfg->xactConfigHas(42));
}

TEST(XactRecords, SettersNotifyOnlyOnChange) {
  Ptr<Xact> a = xactFactory(1);
  Ptr<Xact> b = xactFactory(2);
  XactEvents ev(a);
  for (int round = 0; round < 2; ++round) {
    a->configVersionIs(5);
    a->startTimeIs(12.5);
    a->statusVersionIs(5);
    a->resultIs(xactSuccess);
    a->failIfBlockingXactFailsIs(true);
    a->commentIs("dir", "text");
    a->blockingXactIs(b);
  }
  EXPECT_THAT(ev.events, ElementsAre("configVersion", "startTime", "statusVersion", "result", "failIf",
                                     "comment:dir", "blockingXact:2"));
  ev.events.clear();
  a->configVersionInc(2);
  a->configVersionDec(1);
  EXPECT_EQ(a->configVersion(), 6u);
  a->commentIs("dir", "other");
  a->commentDel("none");
  a->blockingXactDel(99);
  a->blockingXactDelAll();
  a->commentDelAll();
  a->commentDelAll();
  EXPECT_THAT(ev.events, ElementsAre("configVersion", "configVersion", "comment:dir", "blockingXact:2",
                                     "comment:dir"));
  EXPECT_TRUE(a->blockingXact().empty());
  EXPECT_TRUE(a->comment().empty());
}

TEST(XactRecords, NullBlockerIsRangeErrorWithStrayQuoteAndChangesNothing) {
  Ptr<Xact> a = xactFactory(1);
  a->blockingXactIs(xactFactory(2));
  XactEvents ev(a);
  try {
    a->blockingXactIs(nullptr);
    FAIL() << "no exception";
  } catch (const Zum::RangeException& e) {
    EXPECT_STREQ(e.what(), "null _blockingXact parameter to mutator for Olk::Xact::blockingXact not allowed\"");
  }
  EXPECT_EQ(a->blockingXact().size(), 1u);
  EXPECT_TRUE(ev.events.empty());
}

TEST(XactRecords, DirectoriesReplaceAndNotifyOnChangeOnly) {
  Ptr<XactConfigDir> cfg = xactConfigDirFactory("c");
  ConfigEvents cev(cfg);
  cfg->xactConfigIs(XactConfig(3, 1));
  cfg->xactConfigIs(XactConfig(3, 1));
  cfg->xactConfigIs(XactConfig(3, 2));
  cfg->xactConfigIs(XactConfig(1, 1));
  EXPECT_EQ(cfg->xactConfig(3), XactConfig(3, 2));
  std::vector<U32> order;
  for (const auto& kv : cfg->xactConfig()) order.push_back(kv.first);
  EXPECT_THAT(order, ElementsAre(1u, 3u));
  cfg->xactConfigDel(7);
  cfg->xactConfigDelAll();
  EXPECT_THAT(cev.ids, ElementsAre(3u, 3u, 1u, 1u, 3u));

  Ptr<XactStatusDir> st = xactStatusDirFactory("s");
  StatusEvents sev(st);
  st->xactStatusIs(XactStatus(5, xactSuccess, "", 1));
  st->xactStatusIs(XactStatus(5, xactSuccess, "", 1));
  st->xactStatusIs(XactStatus(5, xactSuccess, "c", 1));
  st->xactStatusDel(5);
  st->xactStatusDel(5);
  EXPECT_THAT(sev.ids, ElementsAre(5u, 5u, 5u));

  Ptr<XactDir> xd = xactDirFactory("x");
  Ptr<Xact> x = xd->xactIs(9);
  EXPECT_EQ(xd->xactIs(9), x);
  EXPECT_TRUE(xd->xactHas(9));
  xd->xactDel(9);
  EXPECT_FALSE(xd->xactHas(9));
  xd->nameIsFromBackup("restored");
  EXPECT_EQ(xd->name(), "restored");
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
  // Answers the current run of `x` from `d`.
  static void answer(const Ptr<XactStatusDir>& d, const Ptr<Xact>& x, XactResult r, const String& c = "") {
    d->xactStatusIs(XactStatus(x->id(), r, c, x->configVersion()));
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
  EXPECT_TRUE(agg->inProgressXact().empty());
  EXPECT_TRUE(cap.contains("No xactConfigDirs or xactStatusDirs. Marking Xact as success"));
  EXPECT_TRUE(cap.contains("xact id: 1 configVersion: 0"));
  EXPECT_TRUE(cap.contains("void Olk::XactAggregatorSm::doStartXact(const Ptr&)"));
  EXPECT_FALSE(cfgA->xactConfigHas(1));
}

TEST_F(XactAggregator, StartPublishesToEveryConfigDirAndArmsTheScan) {
  attach();
  clock->advance(5.0);
  Zum::TraceCapture cap;
  Ptr<Xact> x = start(7);
  EXPECT_EQ(x->configVersion(), 1u);
  EXPECT_EQ(x->statusVersion(), 0u);
  EXPECT_EQ(x->result(), xactInProgress);
  EXPECT_EQ(x->startTime(), 1005.0);
  EXPECT_EQ(cfgA->xactConfig(7), XactConfig(7, 1));
  EXPECT_EQ(cfgB->xactConfig(7), XactConfig(7, 1));
  EXPECT_EQ(agg->inProgressXact(7), x);
  EXPECT_EQ(agg->clockTimeMin(), 1006.0);
  EXPECT_TRUE(cap.contains("a: setting xactConfig: id: 7 configVersion: 1"));
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
  EXPECT_EQ(x->result(), xactInProgress);
  stB->xactStatusIs(XactStatus(1, xactSuccess, "", 0));  // an older run's answer
  EXPECT_EQ(x->result(), xactInProgress);
  EXPECT_TRUE(cap.contains("xact status from: b statusVersion: 0 Value('Olk::XactStatus', ** {'id': 1, "
                           "'result': xactSuccess, 'comment': '', 'statusVersion': 0})"));
  EXPECT_TRUE(cap.contains("Comment from: a comment: fine"));
  answer(stB, x, xactSuccess);
  EXPECT_EQ(x->result(), xactSuccess);
  EXPECT_EQ(x->statusVersion(), 1u);
  EXPECT_EQ(x->configVersion(), 1u);
  EXPECT_THAT(comments(*x), ElementsAre(Pair("a", "fine")));
  EXPECT_TRUE(agg->inProgressXact().empty());
  EXPECT_EQ(agg->clockTimeMin(), Zum::endOfTime);
  EXPECT_TRUE(cap.contains(" id 1 version 1 result xactSuccess"));
  // Completion leaves the published configurations in place.
  EXPECT_TRUE(cfgA->xactConfigHas(1));
}

TEST_F(XactAggregator, StatusDumpSaysNoneForSilentDirectories) {
  attach();
  Ptr<Xact> x = start(1);
  Zum::TraceCapture cap;
  agg->handleStatusChange(1);
  EXPECT_TRUE(cap.contains("xact status from: a statusVersion: 0 None"));
  bool atNine = false;
  for (const auto& r : cap.records()) atNine |= r.text.find("xact status from: a") == 0 && r.level == 9;
  EXPECT_TRUE(atNine);
}

TEST_F(XactAggregator, OneFailureIsFinalWhileOthersAreSilent) {
  attach();
  Ptr<Xact> x = start(1);
  Zum::TraceCapture cap;
  answer(stB, x, xactFailure, "no room");
  EXPECT_EQ(x->result(), xactFailure);
  EXPECT_EQ(x->statusVersion(), 1u);
  EXPECT_THAT(comments(*x), ElementsAre(Pair("b", "no room")));
  EXPECT_TRUE(cap.contains("Failed status from: b statusVersion: 1"));
  // A later success has nothing to override: the transaction is no longer held.
  answer(stA, x, xactSuccess, "late");
  EXPECT_EQ(x->result(), xactFailure);
  EXPECT_TRUE(cap.contains("Xact not found for the id: 1"));
}

TEST_F(XactAggregator, FailureBeforeSilenceStillWinsInDirectoryOrder) {
  attach();
  Ptr<Xact> x = start(1);
  // "a" fails first in directory order and "b" is silent: still a failure.
  Zum::TraceCapture cap;
  stA->xactStatusIs(XactStatus(1, xactFailure, "", 1));
  EXPECT_EQ(x->result(), xactFailure);
  EXPECT_TRUE(x->comment().empty());
}

TEST_F(XactAggregator, RestartAfterFinishIgnoresStaleStatuses) {
  attach();
  Ptr<Xact> x = start(1);
  answer(stA, x, xactSuccess);
  answer(stB, x, xactSuccess);
  ASSERT_EQ(x->result(), xactSuccess);
  agg->doStartXact(x);
  EXPECT_EQ(x->configVersion(), 2u);
  EXPECT_EQ(x->statusVersion(), 1u);
  EXPECT_EQ(x->result(), xactInProgress);
  EXPECT_EQ(cfgA->xactConfig(1), XactConfig(1, 2));
  agg->handleStatusChange(1);
  EXPECT_EQ(x->result(), xactInProgress);
  answer(stA, x, xactSuccess);
  EXPECT_EQ(x->result(), xactInProgress);
  answer(stB, x, xactFailure, "second run");
  EXPECT_EQ(x->result(), xactFailure);
  EXPECT_EQ(x->statusVersion(), 2u);
}

TEST_F(XactAggregator, BlockedByTwoStartsOnlyWhenBothSucceed) {
  attach();
  Ptr<Xact> a = dir->xactIs(1);
  Ptr<Xact> b = dir->xactIs(2);
  Ptr<Xact> x = dir->xactIs(3);
  x->blockingXactIs(a);
  x->blockingXactIs(b);
  Zum::TraceCapture cap;
  agg->doStartXact(x);
  EXPECT_TRUE(agg->blockedXactHas(3));
  EXPECT_EQ(agg->blockedXact(3)->blockingXactCount(), 2u);
  EXPECT_EQ(x->configVersion(), 0u);
  EXPECT_FALSE(cfgA->xactConfigHas(3));
  EXPECT_TRUE(cap.contains("blocked due to: "));
  agg->doStartXact(a);
  agg->doStartXact(b);
  answer(stA, a, xactSuccess);
  answer(stB, a, xactSuccess);
  EXPECT_EQ(a->result(), xactSuccess);
  EXPECT_TRUE(agg->blockedXactHas(3));
  EXPECT_TRUE(cap.contains("blockingXact: 1 blockedXact: 3"));
  EXPECT_TRUE(cap.contains("Xact: 3 blocked due to: 2"));
  answer(stA, b, xactSuccess);
  EXPECT_TRUE(agg->blockedXactHas(3));
  answer(stB, b, xactSuccess);
  EXPECT_FALSE(agg->blockedXactHas(3));
  EXPECT_TRUE(x->blockingXact().empty());
  EXPECT_EQ(x->configVersion(), 1u);
  EXPECT_EQ(cfgA->xactConfig(3), XactConfig(3, 1));
  EXPECT_EQ(agg->inProgressXact(3), x);
}

TEST_F(XactAggregator, BlockerAddedWhileBlockedIsWatchedToo) {
  attach();
  Ptr<Xact> a = dir->xactIs(1);
  Ptr<Xact> b = dir->xactIs(2);
  Ptr<Xact> x = dir->xactIs(3);
  x->blockingXactIs(a);
  agg->doStartXact(x);
  x->blockingXactIs(b);
  EXPECT_EQ(agg->blockedXact(3)->blockingXactCount(), 2u);
  agg->doStartXact(a);
  answer(stA, a, xactSuccess);
  answer(stB, a, xactSuccess);
  EXPECT_TRUE(agg->blockedXactHas(3));
  x->blockingXactDel(2);
  EXPECT_EQ(agg->blockedXact(3)->blockingXactCount(), 1u);
  // Removing the blocker is not a blocker status change: still parked until
  // someone restarts it.
  EXPECT_TRUE(agg->blockedXactHas(3));
  agg->doStartXact(x);
  EXPECT_FALSE(agg->blockedXactHas(3));
  EXPECT_EQ(x->configVersion(), 1u);
}

TEST_F(XactAggregator, FailingBlockerFailsDependantThatAskedForIt) {
  attach();
  Ptr<Xact> a = dir->xactIs(1);
  Ptr<Xact> b = dir->xactIs(2);
  Ptr<Xact> x = dir->xactIs(3);
  // x ran once before and carries that run's comment.
  agg->doStartXact(x);
  answer(stA, x, xactFailure, "first run");
  ASSERT_EQ(x->statusVersion(), 1u);
  x->blockingXactIs(a);
  x->blockingXactIs(b);
  x->failIfBlockingXactFailsIs(true);
  agg->doStartXact(x);
  agg->doStartXact(a);
  agg->doStartXact(b);
  ASSERT_TRUE(agg->blockedXactHas(3));
  XactEvents ev(x);
  Zum::TraceCapture cap;
  answer(stA, a, xactFailure, "broken");
  EXPECT_EQ(a->result(), xactFailure);
  EXPECT_EQ(x->result(), xactFailure);
  EXPECT_EQ(x->configVersion(), 2u);
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
  EXPECT_EQ(x->result(), xactFailure);
  EXPECT_EQ(x->configVersion(), 1u);
  EXPECT_EQ(x->statusVersion(), 1u);
  EXPECT_FALSE(agg->blockedXactHas(3));
  EXPECT_THAT(ev.events, ElementsAre("blockingXact:1", "configVersion", "comment:a", "result", "statusVersion"));
}

TEST_F(XactAggregator, FailedBlockerKeepsOthersBlockedUntilRerunSucceeds) {
  attach();
  Ptr<Xact> a = start(1);
  Ptr<Xact> x = dir->xactIs(3);
  x->blockingXactIs(a);
  agg->doStartXact(x);
  answer(stA, a, xactFailure);
  EXPECT_TRUE(agg->blockedXactHas(3));
  EXPECT_EQ(x->result(), xactInProgress);
  EXPECT_EQ(x->configVersion(), 0u);
  agg->doStartXact(a);
  answer(stA, a, xactSuccess);
  EXPECT_TRUE(agg->blockedXactHas(3));
  answer(stB, a, xactSuccess);
  EXPECT_FALSE(agg->blockedXactHas(3));
  EXPECT_EQ(agg->inProgressXact(3), x);
}

TEST_F(XactAggregator, LimitOfOneDrainsPendingOneByOne) {
  attach();
  agg->maxAllowedInProgressXactsIs(1);
  Zum::TraceCapture cap;
  std::vector<Ptr<Xact>> xs;
  for (U32 id = 1; id <= 4; ++id) xs.push_back(start(id));
  EXPECT_TRUE(cap.contains("Xact: 2 could not be started due to maxAllowedInProgress Xacts"));
  EXPECT_EQ(agg->inProgressXact().size(), 1u);
  EXPECT_EQ(agg->pendingXact().size(), 3u);
  std::vector<U32> order{1};
  for (int round = 0; round < 4; ++round) {
    ASSERT_EQ(agg->inProgressXact().size(), 1u);
    Ptr<Xact> running = agg->inProgressXact().begin()->second;
    EXPECT_EQ(running->configVersion(), 1u);
    answer(stA, running, xactSuccess);
    answer(stB, running, xactSuccess);
    EXPECT_EQ(running->result(), xactSuccess);
    if (!agg->inProgressXact().empty()) order.push_back(agg->inProgressXact().begin()->first);
  }
  EXPECT_TRUE(agg->pendingXact().empty());
  EXPECT_FALSE(agg->purgingPendingXact());
  std::sort(order.begin(), order.end());
  EXPECT_THAT(order, ElementsAre(1u, 2u, 3u, 4u));
  for (const auto& x : xs) EXPECT_EQ(x->result(), xactSuccess);
}

// An executor that answers inside the notification of its configuration.
class ImmediateExecutor : public XactExecutorSm {
 public:
  ImmediateExecutor(const Ptr<const XactConfigDir>& c, const Ptr<XactStatusDir>& s)
      : XactExecutorSm("immediate", c, s, nullptr) {}
  ExecResult doExecute(const XactConfig& cfg) override {
    executed.push_back(cfg.id);
    return ExecResult(xactSuccess);
  }
  std::vector<U32> executed;
};

TEST_F(XactAggregator, SynchronousCompletionsDuringTheDrainDoNotRecurse) {
  attach();
  auto exec = Zum::create<ImmediateExecutor>(cfgA, stA);
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
  EXPECT_EQ(exec->executed.size(), 5u);
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
  clock->nowIs(1002.0);
  Ptr<Xact> y = start(2);
  stA->xactStatusIs(XactStatus(1, xactSuccess, "", 0));  // stale
  clock->nowIs(1004.0);                                   // scan: x times out, y does not
  EXPECT_EQ(x->result(), xactFailure);
  EXPECT_THAT(comments(*x), ElementsAre(Pair("a", "Timeout"), Pair("b", "Timeout")));
  EXPECT_EQ(y->result(), xactInProgress);
  EXPECT_EQ(agg->clockTimeMin(), 1006.0);
  clock->nowIs(1006.0);
  EXPECT_EQ(y->result(), xactFailure);
  // Nothing left: the scan leaves its time as the clock reset it.
  EXPECT_EQ(agg->clockTimeMin(), Zum::endOfTime);
}

TEST_F(XactAggregator, TimeoutWithEveryDirectoryAnsweredBlamesUnknown) {
  attach();
  agg->timeoutIs(2.0);
  // Answers written before the start match the version it is about to get,
  // and nothing changes afterwards to make the aggregator look at them.
  stA->xactStatusIs(XactStatus(1, xactSuccess, "", 1));
  stB->xactStatusIs(XactStatus(1, xactSuccess, "", 1));
  Ptr<Xact> x = start(1);
  ASSERT_EQ(x->result(), xactInProgress);
  clock->nowIs(1002.0);
  EXPECT_EQ(x->result(), xactFailure);
  EXPECT_THAT(comments(*x), ElementsAre(Pair("unknown", "Timeout")));
}

TEST_F(XactAggregator, DetachedStatusDirectoryReleasesInProgressTransactions) {
  attach();
  Ptr<Xact> x = start(1);
  Ptr<Xact> y = start(2);
  answer(stA, x, xactSuccess);
  Zum::TraceCapture cap;
  agg->xactStatusDirDel("b");
  EXPECT_TRUE(cap.contains("xactStatusDir b removed"));
  EXPECT_EQ(x->result(), xactSuccess);
  EXPECT_EQ(y->result(), xactInProgress);
  EXPECT_EQ(agg->clockTimeMin(), 1001.0);
  answer(stA, y, xactSuccess);
  EXPECT_EQ(y->result(), xactSuccess);
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

TEST_F(XactAggregator, AnswerAtTheCurrentVersionCountsWhateverItsResult) {
  attach();
  Ptr<Xact> x = start(1);
  answer(stB, x, xactSuccess);
  // An executor that wrote xactInProgress at the current version has
  // answered; only a missing or older status holds the transaction up.
  answer(stA, x, xactInProgress, "working");
  EXPECT_EQ(x->result(), xactSuccess);
  EXPECT_THAT(comments(*x), ElementsAre(Pair("a", "working")));
}

TEST_F(XactAggregator, StatusChangeForUnknownIdOnlyTraces) {
  attach();
  Ptr<Xact> x = start(1);
  Zum::TraceCapture cap;
  agg->handleStatusChange(99);
  EXPECT_TRUE(cap.contains("Xact not found for the id: 99"));
  EXPECT_EQ(agg->inProgressXact().size(), 1u);
  EXPECT_EQ(x->result(), xactInProgress);
}

TEST_F(XactAggregator, StopWithdrawsFromEveryStageAndDeletesConfigurations) {
  attach();
  agg->maxAllowedInProgressXactsIs(1);
  Ptr<Xact> running = start(1);
  Ptr<Xact> pending = start(2);
  Ptr<Xact> blocked = dir->xactIs(3);
  blocked->blockingXactIs(pending);
  agg->doStartXact(blocked);
  ASSERT_TRUE(agg->blockedXactHas(3));
  ASSERT_TRUE(agg->pendingXact(2));

  agg->doStopXact(3);
  EXPECT_FALSE(agg->blockedXactHas(3));
  agg->doStopXact(2);
  EXPECT_TRUE(agg->pendingXact().empty());
  Zum::TraceCapture cap;
  agg->doStopXact(1);
  EXPECT_TRUE(cap.contains(" id: 1"));
  EXPECT_TRUE(agg->inProgressXact().empty());
  EXPECT_FALSE(cfgA->xactConfigHas(1));
  EXPECT_FALSE(cfgB->xactConfigHas(1));
  // The records keep what they had.
  EXPECT_EQ(running->configVersion(), 1u);
  EXPECT_EQ(running->result(), xactInProgress);
  EXPECT_EQ(blocked->blockingXact().size(), 1u);
}

TEST_F(XactAggregator, StopFreesASlotForPendingTransactions) {
  attach();
  agg->maxAllowedInProgressXactsIs(1);
  start(1);
  Ptr<Xact> next = start(2);
  agg->doStopXact(1);
  EXPECT_EQ(agg->inProgressXact(2), next);
  EXPECT_EQ(cfgA->xactConfig(2), XactConfig(2, 1));
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
  auto text = [](const std::function<void()>& f) -> String {
    try {
      f();
    } catch (const Zum::RangeException& e) {
      return e.what();
    }
    return "no exception";
  };
  EXPECT_EQ(text([&] { agg->pendingXactIs(nullptr); }),
            "null _pendingXact parameter to mutator for Olk::XactAggregatorSm::pendingXact not allowed\"");
  EXPECT_EQ(text([&] { agg->blockedXactIs(nullptr); }),
            "null _blockedXact parameter to mutator for Olk::XactAggregatorSm::blockedXact not allowed\"");
  EXPECT_EQ(text([&] { agg->inProgressXactIs(nullptr); }),
            "null _inProgressXact parameter to mutator for Olk::XactAggregatorSm::inProgressXact not allowed\"");
  EXPECT_EQ(text([&] { agg->xactConfigDirIs(nullptr); }),
            "null _xactConfigDir parameter to mutator for Olk::XactAggregatorSm::xactConfigDir not allowed\"");
  EXPECT_EQ(text([&] { agg->xactStatusDirIs(nullptr); }),
            "null _xactStatusDir parameter to mutator for Olk::XactAggregatorSm::xactStatusDir not allowed\"");
  attach();
  Ptr<Xact> x = dir->xactIs(3);
  x->blockingXactIs(dir->xactIs(1));
  agg->doStartXact(x);
  EXPECT_EQ(text([&] { agg->blockedXact(3)->blockingXactIs(nullptr); }),
            "null _blockingXact parameter to mutator for Olk::XactAggregatorSm::ZumBlockedXact::blockingXact not "
            "allowed\"");
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

// A clock whose time moves only when the test says, without firing anything.
class StepClock : public Zum::Clock {
 public:
  StepClock() : Clock("StepClock") {}
  Seconds now() const override { return t; }
  Seconds t = 50.0;
};

// Executes by rule; each execution costs `cost` seconds of the step clock.
class RuleExecutor : public XactExecutorSm {
 public:
  RuleExecutor(const Ptr<const XactConfigDir>& c, const Ptr<XactStatusDir>& s, const Ptr<Zum::Clock>& clk,
               Ptr<StepClock> step = nullptr)
      : XactExecutorSm("rule", c, s, clk), step_(std::move(step)) {}
  ExecResult doExecute(const XactConfig& cfg) override {
    executed.push_back(cfg.id);
    if (step_) step_->t += cost;
    if (rule) return rule(cfg);
    return ExecResult(xactSuccess);
  }
  std::vector<U32> executed;
  std::function<ExecResult(const XactConfig&)> rule;
  Seconds cost = 0.0;

 private:
  Ptr<StepClock> step_;
};

TEST(XactExecutor, WithoutClockAnswersInsideTheNotification) {
  Ptr<XactConfigDir> c = xactConfigDirFactory("c");
  Ptr<XactStatusDir> s = xactStatusDirFactory("s");
  auto e = Zum::create<RuleExecutor>(c, s, nullptr);
  e->rule = [](const XactConfig& cfg) { return ExecResult(cfg.id % 2 ? xactFailure : xactSuccess, "r"); };
  c->xactConfigIs(XactConfig(4, 3));
  c->xactConfigIs(XactConfig(5, 1));
  EXPECT_EQ(s->xactStatus(4), XactStatus(4, xactSuccess, "r", 3));
  EXPECT_EQ(s->xactStatus(5), XactStatus(5, xactFailure, "r", 1));
  EXPECT_EQ(e->updatesSeen(), 2u);
  Zum::TraceCapture cap;
  c->xactConfigDel(4);
  EXPECT_FALSE(s->xactStatusHas(4));
  EXPECT_TRUE(cap.contains("Deleting xactStatus with id: 4"));
}

TEST(XactExecutor, InProgressAnswerWritesNothing) {
  Ptr<XactConfigDir> c = xactConfigDirFactory("c");
  Ptr<XactStatusDir> s = xactStatusDirFactory("s");
  auto e = Zum::create<RuleExecutor>(c, s, nullptr);
  e->rule = [](const XactConfig&) { return ExecResult(xactInProgress, "later"); };
  StatusEvents ev(s);
  c->xactConfigIs(XactConfig(1, 1));
  EXPECT_THAT(e->executed, ElementsAre(1u));
  EXPECT_TRUE(ev.ids.empty());
}

TEST(XactExecutor, RepeatedIdenticalConfigurationSendsNoStatusNotification) {
  Ptr<XactConfigDir> c = xactConfigDirFactory("c");
  Ptr<XactStatusDir> s = xactStatusDirFactory("s");
  auto e = Zum::create<RuleExecutor>(c, s, nullptr);
  StatusEvents ev(s);
  c->xactConfigIs(XactConfig(1, 1));
  e->handleXactConfig(1);
  EXPECT_THAT(e->executed, ElementsAre(1u, 1u));
  EXPECT_THAT(ev.ids, ElementsAre(1u));
}

TEST(XactExecutor, CatchesUpWithExistingConfigurationsInIdOrder) {
  Ptr<XactConfigDir> c = xactConfigDirFactory("c");
  Ptr<XactStatusDir> s = xactStatusDirFactory("s");
  for (U32 id : {9u, 2u, 5u}) c->xactConfigIs(XactConfig(id, 1));
  auto e = Zum::create<RuleExecutor>(c, s, nullptr);
  EXPECT_THAT(e->executed, ElementsAre(2u, 5u, 9u));
  EXPECT_EQ(e->updatesSeen(), 3u);
}

TEST(XactExecutor, BaseWorkFunctionIsNotImplemented) {
  Ptr<XactExecutorSm> e = Zum::create<XactExecutorSm>("base", nullptr, nullptr, nullptr);
  try {
    e->doExecute(XactConfig(1, 1));
    FAIL() << "no exception";
  } catch (const Zum::NoImplementationException& ex) {
    EXPECT_STREQ(ex.what(), "doExecute must be implemented in the derived class");
  }
}

TEST(XactExecutor, TearDownWithdrawsEveryStatusAndDisarms) {
  auto clock = Zum::manualClockFactory(0.0);
  Ptr<XactConfigDir> c = xactConfigDirFactory("c");
  Ptr<XactStatusDir> s = xactStatusDirFactory("s");
  auto e = Zum::create<RuleExecutor>(c, s, clock);
  c->xactConfigIs(XactConfig(1, 1));
  clock->fire();
  c->xactConfigIs(XactConfig(2, 1));
  ASSERT_TRUE(s->xactStatusHas(1));
  ASSERT_EQ(clock->scheduledCount(), 1u);
  e = nullptr;
  EXPECT_TRUE(s->xactStatus().empty());
  EXPECT_EQ(clock->scheduledCount(), 0u);
}

TEST(XactExecutor, DeletionSkipsTheBacklog) {
  auto clock = Zum::manualClockFactory(0.0);
  Ptr<XactConfigDir> c = xactConfigDirFactory("c");
  Ptr<XactStatusDir> s = xactStatusDirFactory("s");
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
}

TEST(XactExecutor, ZeroQuantumProcessesOneIdPerSlice) {
  auto clock = Zum::manualClockFactory(0.0);
  Ptr<XactConfigDir> c = xactConfigDirFactory("c");
  Ptr<XactStatusDir> s = xactStatusDirFactory("s");
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
  EXPECT_EQ(e->updatesProcessed(), 3u);
  EXPECT_EQ(e->bookmark(), 3u);
  EXPECT_EQ(s->xactStatus().size(), 3u);
}

TEST(XactExecutor, SlicesResumeAtTheBookmarkAndWrapAround) {
  auto clock = Zum::create<StepClock>();
  Ptr<XactConfigDir> c = xactConfigDirFactory("c");
  Ptr<XactStatusDir> s = xactStatusDirFactory("s");
  auto e = Zum::create<RuleExecutor>(c, s, clock, clock);
  e->cost = 0.004;  // quantum 0.01: readings at +0, +4, +8 ms run, +12 ms yields
  for (U32 id = 10; id <= 16; ++id) c->xactConfigIs(XactConfig(id, 1));
  clock->fireDue(clock->t);
  EXPECT_THAT(e->executed, ElementsAre(10u, 11u, 12u));
  EXPECT_EQ(e->bookmark(), 13u);
  EXPECT_EQ(e->clockTimeMin(), 0.0);
  EXPECT_NEAR(e->timeUsed(), 0.012, 1e-9);
  // New work below the bookmark waits for the wrap.
  c->xactConfigIs(XactConfig(1, 1));
  c->xactConfigIs(XactConfig(11, 2));
  clock->fireDue(clock->t);
  EXPECT_THAT(e->executed, ElementsAre(10u, 11u, 12u, 13u, 14u, 15u));
  clock->fireDue(clock->t);
  EXPECT_THAT(e->executed, ElementsAre(10u, 11u, 12u, 13u, 14u, 15u, 16u, 1u, 11u));
  EXPECT_EQ(e->backlogCount(), 0u);
  EXPECT_EQ(e->clockTimeMin(), Zum::endOfTime);
  EXPECT_EQ(e->dispatchCount(), 3u);
  EXPECT_EQ(e->yieldBeforeFinishingCount(), 2u);
  EXPECT_EQ(e->updatesProcessed(), 9u);
  EXPECT_EQ(s->xactStatus(11), XactStatus(11, xactSuccess, "", 2));
}

TEST(XactExecutor, BookmarkPastTheLastIdWrapsToTheStart) {
  auto clock = Zum::create<StepClock>();
  Ptr<XactConfigDir> c = xactConfigDirFactory("c");
  Ptr<XactStatusDir> s = xactStatusDirFactory("s");
  auto e = Zum::create<RuleExecutor>(c, s, clock, clock);
  e->bookmarkIs(0xFFFFFFFFu);
  c->xactConfigIs(XactConfig(0xFFFFFFFFu, 1));
  c->xactConfigIs(XactConfig(0, 1));
  c->xactConfigIs(XactConfig(7, 1));
  clock->fireDue(clock->t);
  EXPECT_THAT(e->executed, ElementsAre(0xFFFFFFFFu, 0u, 7u));
}

TEST(XactExecutor, WorkThatRequeuesItsOwnIdIsNotLost) {
  auto clock = Zum::manualClockFactory(0.0);
  Ptr<XactConfigDir> c = xactConfigDirFactory("c");
  Ptr<XactStatusDir> s = xactStatusDirFactory("s");
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

// Aggregator and clocked executors together on the manual clock.
TEST(XactTogether, ClockedExecutorsFinishTransactionsAndDepartureReleasesThem) {
  auto clock = Zum::manualClockFactory(0.0);
  Ptr<XactAggregatorSm> agg = xactAggregatorSmFactory("agg", clock);
  Ptr<XactConfigDir> c1 = xactConfigDirFactory("e1");
  Ptr<XactConfigDir> c2 = xactConfigDirFactory("e2");
  Ptr<XactStatusDir> s1 = xactStatusDirFactory("e1");
  Ptr<XactStatusDir> s2 = xactStatusDirFactory("e2");
  agg->xactConfigDirIs(c1);
  agg->xactConfigDirIs(c2);
  agg->xactStatusDirIs(s1);
  agg->xactStatusDirIs(s2);
  auto e1 = Zum::create<RuleExecutor>(c1, s1, clock);
  auto e2 = Zum::create<RuleExecutor>(c2, s2, clock);
  e2->rule = [](const XactConfig&) { return ExecResult(xactInProgress); };  // never answers
  std::vector<Ptr<Xact>> xs;
  for (U32 id = 1; id <= 3; ++id) {
    xs.push_back(xactFactory(id));
    agg->doStartXact(xs.back());
  }
  clock->advance(0.5);
  for (const auto& x : xs) EXPECT_EQ(x->result(), xactInProgress);
  EXPECT_EQ(s1->xactStatus().size(), 3u);
  // e1 leaves: its answers are withdrawn, nothing finishes.
  e1 = nullptr;
  EXPECT_TRUE(s1->xactStatus().empty());
  for (const auto& x : xs) EXPECT_EQ(x->result(), xactInProgress);
  // Its agent detaches its directory, and e2 leaves too: both detached, the
  // aggregator has nobody left to wait for.
  agg->xactStatusDirDel("e1");
  agg->xactConfigDirDel("e1");
  for (const auto& x : xs) EXPECT_EQ(x->result(), xactInProgress);
  e2 = nullptr;
  agg->xactStatusDirDel("e2");
  for (const auto& x : xs) {
    EXPECT_EQ(x->result(), xactSuccess);
    EXPECT_EQ(x->statusVersion(), 1u);
  }
  EXPECT_EQ(agg->clockTimeMin(), Zum::endOfTime);
}

}  // namespace
}  // namespace Olk
