// Transactions: records, aggregator and executor.
//
// Design notes.
// * Completion is a version handshake, not a message: the aggregator raises
//   configVersion on every start and an executor's status counts only when
//   its statusVersion equals it. Restarts, lost answers and departing
//   executors therefore need no cleanup of old statuses: they simply stop
//   matching.
// * The aggregator reacts synchronously. An executor without a clock answers
//   inside the notification of its configuration, so a start can finish, free
//   a slot and start pending transactions while doStartXact is still on the
//   stack. purgingPendingXact keeps that from draining the pending set
//   recursively; the outer drain picks up the freed slots instead.
// * Reactors may be destroyed by the very call they make (a blocker's change
//   starts the blocked transaction, which drops the blocked reactor and with
//   it the blocking reactor that is running). Each reaction therefore holds
//   a Ptr to itself and to the aggregator for its duration, and everything it
//   needs afterwards is copied into locals first.
// * The executor's backlog is an ordered id set walked from a bookmark with
//   wrap-around, so a burst is worked off in slices of about backlogQuantum
//   and a slice that yields resumes exactly where it stopped. Every slice
//   processes at least one id, so a tiny quantum still makes progress.
//   Deletions bypass the backlog: withdrawing an answer is cheap and must not
//   wait behind a burst.
#include "Olk/XactLib.h"

#include <utility>
#include <vector>

#include "platform/Exception.h"
#include "platform/Trace.h"

namespace Olk {

namespace {

Zum::TraceHandle& tr = Zum::traceHandle("XactLib");

// Wall time for an aggregator that has no clock of its own.
Seconds wallNow() {
  thread_local Ptr<Zum::SystemClock> clock = Zum::systemClockFactory();
  return clock->now();
}

}  // namespace

// ---------------------------------------------------------------------------
// XactResult and values

String stringValue(XactResult r) { return Zum::enumName(r); }

std::ostream& operator<<(std::ostream& os, XactResult r) { return os << stringValue(r); }

XactConfig::XactConfig(Zum::StrepIter& cur, Zum::StrepIter end) { sequenceToValue(cur, end, this); }
XactStatus::XactStatus(Zum::StrepIter& cur, Zum::StrepIter end) { sequenceToValue(cur, end, this); }
ExecResult::ExecResult(Zum::StrepIter& cur, Zum::StrepIter end) { sequenceToValue(cur, end, this); }

String valueToStrep(const XactConfig& v) {
  Zum::ValueStrepWriter w("Olk::XactConfig");
  w.field("id", v.id).field("configVersion", v.configVersion);
  return std::move(w).done();
}

String valueToStrep(const XactStatus& v) {
  Zum::ValueStrepWriter w("Olk::XactStatus");
  w.field("id", v.id).field("result", v.result).field("comment", v.comment).field("statusVersion", v.statusVersion);
  return std::move(w).done();
}

String valueToStrep(const ExecResult& v) {
  Zum::ValueStrepWriter w("Olk::ExecResult");
  w.field("result", v.result).field("comment", v.comment);
  return std::move(w).done();
}

void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, XactConfig* out) {
  Zum::ValueStrepReader r(cur, end, "Olk::XactConfig");
  r.field("id", &out->id).field("configVersion", &out->configVersion);
  r.done();
}

void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, XactStatus* out) {
  Zum::ValueStrepReader r(cur, end, "Olk::XactStatus");
  r.field("id", &out->id).field("result", &out->result).field("comment", &out->comment);
  r.field("statusVersion", &out->statusVersion);
  r.done();
}

void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, ExecResult* out) {
  Zum::ValueStrepReader r(cur, end, "Olk::ExecResult");
  r.field("result", &out->result).field("comment", &out->comment);
  r.done();
}

std::ostream& operator<<(std::ostream& os, const XactConfig& v) { return os << valueToStrep(v); }
std::ostream& operator<<(std::ostream& os, const XactStatus& v) { return os << valueToStrep(v); }
std::ostream& operator<<(std::ostream& os, const ExecResult& v) { return os << valueToStrep(v); }

// ---------------------------------------------------------------------------
// Xact

Xact::Xact(U32 id) : Entity("Xact"), id_(id) {}

Ptr<Xact> xactFactory(U32 id) { return Zum::create<Xact>(id); }

void Xact::handleRunFinished() {
  if (!completion_) return;
  const Completion done = std::exchange(completion_, nullptr);
  Zum::DestructorGuard guard(this);  // the owner may delete the record from its directory
  done(*this);
}

void Xact::configVersionIs(U32 v) {
  attributeIs(configVersion_, v, &Notifiee::onConfigVersion);
}

void Xact::startTimeIs(Seconds t) {
  attributeIs(startTime_, t, &Notifiee::onStartTime);
}

void Xact::statusVersionIs(U32 v) {
  attributeIs(statusVersion_, v, &Notifiee::onStatusVersion);
}

void Xact::resultIs(XactResult r) {
  attributeIs(result_, r, &Notifiee::onResult);
}

void Xact::failIfBlockingXactFailsIs(bool on) {
  attributeIs(failIfBlockingXactFails_, on, &Notifiee::onFailIfBlockingXactFails);
}

void Xact::commentIs(const String& key, const String& value) {
  entryIs(comment_, key, value, &Notifiee::onComment);
}

void Xact::commentDel(const String& key) {
  entryDel(comment_, key, &Notifiee::onComment);
}

void Xact::commentDelAll() {
  entryDelAll(comment_, &Notifiee::onComment);
}

void Xact::blockingXactIs(const Ptr<const Xact>& blocker) {
  Zum::requireNonNull(blocker, "Olk::Xact", "blockingXact");
  const U32 id = blocker->id();
  entryIs(blockingXact_, id, blocker, &Notifiee::onBlockingXact);
}

void Xact::blockingXactDel(U32 id) {
  entryDel(blockingXact_, id, &Notifiee::onBlockingXact);
}

void Xact::blockingXactDelAll() {
  entryDelAll(blockingXact_, &Notifiee::onBlockingXact);
}

// ---------------------------------------------------------------------------
// Directories

Ptr<Xact> XactDir::xactIs(U32 id) {
  return entryFoundOrIs(xact_, id, [id] { return xactFactory(id); }, &Notifiee::onXact);
}

void XactDir::xactDel(U32 id) {
  entryDel(xact_, id, &Notifiee::onXact);
}

void XactDir::xactDelAll() {
  entryDelAll(xact_, &Notifiee::onXact);
}

Ptr<XactDir> xactDirFactory(const Zum::Name& name) { return Zum::create<XactDir>(name); }

void XactConfigDir::xactConfigIs(const XactConfig& cfg) {
  entryIs(xactConfig_, cfg.id, cfg, &Notifiee::onXactConfig);
}

void XactConfigDir::xactConfigDel(U32 id) {
  entryDel(xactConfig_, id, &Notifiee::onXactConfig);
}

void XactConfigDir::xactConfigDelAll() {
  entryDelAll(xactConfig_, &Notifiee::onXactConfig);
}

Ptr<XactConfigDir> xactConfigDirFactory(const Zum::Name& name) { return Zum::create<XactConfigDir>(name); }

void XactStatusDir::xactStatusIs(const XactStatus& st) {
  entryIs(xactStatus_, st.id, st, &Notifiee::onXactStatus);
}

void XactStatusDir::xactStatusDel(U32 id) {
  entryDel(xactStatus_, id, &Notifiee::onXactStatus);
}

void XactStatusDir::xactStatusDelAll() {
  entryDelAll(xactStatus_, &Notifiee::onXactStatus);
}

Ptr<XactStatusDir> xactStatusDirFactory(const Zum::Name& name) { return Zum::create<XactStatusDir>(name); }

// ---------------------------------------------------------------------------
// Aggregator reactors

XactAggregatorSm::XactComments::XactComments(Zum::StrepIter&, Zum::StrepIter) {
  ZUM_ASSERT_TEXT(false, "No String constructor for XactComments - has collection");
}

XactAggregatorSm::ZumBlockingXact::ZumBlockingXact(XactAggregatorSm* sm, const Ptr<Xact>& blocked,
                                                   const Ptr<const Xact>& blocker)
    : sm_(sm), blocked_(blocked) {
  notifierIs(blocker);
}

void XactAggregatorSm::ZumBlockingXact::handleBlockingXactStatus() {
  // The aggregator's answer usually destroys this reactor.
  Zum::DestructorGuard guard(this, sm_);
  sm_->handleBlockingXactStatus(notifier()->id(), blocked_);
}

XactAggregatorSm::ZumBlockedXact::ZumBlockedXact(XactAggregatorSm* sm, const Ptr<Xact>& xact)
    : sm_(sm), xact_(xact) {
  notifierIs(xact);
}

void XactAggregatorSm::ZumBlockedXact::blockingXactIs(const Ptr<const Xact>& blocker) {
  Zum::requireNonNull(blocker, "Olk::XactAggregatorSm::ZumBlockedXact", "blockingXact");
  Ptr<ZumBlockingXact> present = blockingXact_.get(blocker->id());
  if (present && present->notifier() == blocker) return;
  blockingXact_.set(blocker->id(), Ptr<ZumBlockingXact>(new ZumBlockingXact(sm_, xact_, blocker)));
}

void XactAggregatorSm::ZumBlockedXact::onBlockingXact(U32 id) {
  if (Ptr<const Xact> blocker = xact_->blockingXact(id)) {
    blockingXactIs(blocker);
  } else {
    blockingXactDel(id);
  }
}

void XactAggregatorSm::ZumBlockedXact::onNotifier() {
  for (U32 id : xact_->blockingXact().keys()) onBlockingXact(id);
}

class XactAggregatorSm::ZumXactStatusDir : public Zum::PtrInterface, public XactStatusDir::Notifiee {
 public:
  explicit ZumXactStatusDir(XactAggregatorSm* sm) : sm_(sm) {}

  void onXactStatus(U32 id) override { handleStatus(id); }

  void handleStatus(U32 id) {
    Zum::DestructorGuard guard(this, sm_);
    ZUM_TRACE(tr, 8) << "void Olk::XactAggregatorSm::ZumXactStatusDir::handleStatus(U32) " << sm_->name()
                     << " xactStatusDir: " << notifier()->name() << " id: " << id;
    sm_->handleStatusChange(id);
  }

 protected:
  // Attaching is a notification for the whole collection.
  void onNotifier() override {
    Zum::DestructorGuard guard(this);
    for (U32 id : notifier()->xactStatus().keys()) {
      if (!notifier()) return;  // detached by an earlier reaction
      handleStatus(id);
    }
  }

 private:
  XactAggregatorSm* const sm_;  // the owner, which outlives its reactors
};

class XactAggregatorSm::ZumClock : public Zum::PtrInterface, public Zum::Clock::Notifiee {
 public:
  explicit ZumClock(XactAggregatorSm* sm) : sm_(sm) {}
  void onTime() override {
    Zum::DestructorGuard guard(this, sm_);
    sm_->handleClock();
  }

 private:
  XactAggregatorSm* const sm_;  // the owner, which outlives its reactors
};

// ---------------------------------------------------------------------------
// Aggregator

template <class F>
void XactAggregatorSm::forEachConfigDir(F&& f) {
  // Executors may answer, and the agent react, inside each call: walk a
  // snapshot so that a directory detached meanwhile cannot upset the walk.
  std::vector<Ptr<XactConfigDir>> dirs;
  dirs.reserve(xactConfigDir_.size());
  for (const auto& entry : xactConfigDir_) dirs.push_back(entry.second);
  for (const Ptr<XactConfigDir>& dir : dirs) f(*dir);
}

XactAggregatorSm::XactAggregatorSm(const Zum::Name& name, const Ptr<Zum::Clock>& clock) : Entity(name) {
  clockIs(clock);
  handleInit();
}

XactAggregatorSm::~XactAggregatorSm() = default;

Ptr<XactAggregatorSm> xactAggregatorSmFactory(const Zum::Name& name, const Ptr<Zum::Clock>& clock) {
  return Zum::create<XactAggregatorSm>(name, clock);
}

void XactAggregatorSm::handleInit() {
  ZUM_TRACE(tr, 8) << "void Olk::XactAggregatorSm::handleInit() " << name();
}

void XactAggregatorSm::handleDel() {
  ZUM_TRACE(tr, 8) << "void Olk::XactAggregatorSm::handleDel() " << name();
  clockTimeMinIs(Zum::endOfTime);
  forEachConfigDir([](XactConfigDir& dir) { dir.xactConfigDelAll(); });
}

Seconds XactAggregatorSm::now() const { return clock_ ? clock_->notifier()->now() : wallNow(); }

Ptr<Zum::Clock> XactAggregatorSm::clock() const { return clock_ ? clock_->notifier() : nullptr; }

Seconds XactAggregatorSm::clockTimeMin() const { return clock_ ? clock_->timeMin() : Zum::endOfTime; }

void XactAggregatorSm::clockTimeMinIs(Seconds t) {
  if (clock_) clock_->timeMinIs(t);
}

void XactAggregatorSm::clockIs(const Ptr<Zum::Clock>& clock) {
  if (!clock) {
    clockDel();
    return;
  }
  if (!clock_) clock_ = new ZumClock(this);
  clock_->notifierIs(clock);
}

void XactAggregatorSm::clockDel() { clock_ = nullptr; }

Ptr<XactAggregatorSm::ZumBlockedXact> XactAggregatorSm::blockedXact(U32 id) const { return blockedXact_.get(id); }

Ptr<const XactStatusDir> XactAggregatorSm::xactStatusDir(const Zum::Name& name) const {
  Ptr<ZumXactStatusDir> r = xactStatusDir_.get(name);
  return r ? r->notifier() : nullptr;
}

void XactAggregatorSm::pendingXactIs(const Ptr<Xact>& xact) {
  Zum::requireNonNull(xact, "Olk::XactAggregatorSm", "pendingXact");
  pendingXact_.set(xact->id(), xact);
}

void XactAggregatorSm::pendingXactDel(U32 id) { pendingXact_.del(id); }

void XactAggregatorSm::pendingXactDelAll() { pendingXact_ = {}; }

void XactAggregatorSm::blockedXactIs(const Ptr<Xact>& xact) {
  Zum::requireNonNull(xact, "Olk::XactAggregatorSm", "blockedXact");
  Ptr<ZumBlockedXact> present = blockedXact_.get(xact->id());
  if (present && present->xact() == xact) return;
  blockedXact_.set(xact->id(), Ptr<ZumBlockedXact>(new ZumBlockedXact(this, xact)));
}

void XactAggregatorSm::blockedXactDel(U32 id) { blockedXact_.del(id); }

void XactAggregatorSm::blockedXactDelAll() { blockedXact_ = {}; }

void XactAggregatorSm::inProgressXactIs(const Ptr<Xact>& xact) {
  Zum::requireNonNull(xact, "Olk::XactAggregatorSm", "inProgressXact");
  if (inProgressXact_.set(xact->id(), xact)) handleInProgressXact(xact->id());
}

void XactAggregatorSm::inProgressXactDel(U32 id) {
  if (inProgressXact_.del(id)) handleInProgressXact(id);
}

void XactAggregatorSm::inProgressXactDelAll() {
  inProgressXact_.delAll([&](U32 id) { handleInProgressXact(id); });
}

void XactAggregatorSm::xactConfigDirIs(const Ptr<XactConfigDir>& dir) {
  Zum::requireNonNull(dir, "Olk::XactAggregatorSm", "xactConfigDir");
  xactConfigDir_.set(dir->name(), dir);
}

void XactAggregatorSm::xactConfigDirDel(const Zum::Name& name) { xactConfigDir_.del(name); }

void XactAggregatorSm::xactConfigDirDelAll() { xactConfigDir_ = {}; }

void XactAggregatorSm::xactStatusDirIs(const Ptr<const XactStatusDir>& dir) {
  Zum::requireNonNull(dir, "Olk::XactAggregatorSm", "xactStatusDir");
  const Zum::Name name = dir->name();
  Ptr<ZumXactStatusDir> present = xactStatusDir_.get(name);
  if (present && present->notifier() == dir) return;
  // In the collection before attaching, so the statuses it brings are
  // weighed together with the others.
  Ptr<ZumXactStatusDir> reactor(new ZumXactStatusDir(this));
  xactStatusDir_.set(name, reactor);
  reactor->notifierIs(dir);
  handleXactStatusDir(name);
}

void XactAggregatorSm::xactStatusDirDel(const Zum::Name& name) {
  if (xactStatusDir_.del(name)) handleXactStatusDir(name);
}

void XactAggregatorSm::xactStatusDirDelAll() {
  xactStatusDir_.delAll([&](const Zum::Name& name) { handleXactStatusDir(name); });
}

void XactAggregatorSm::doStartXact(const Ptr<Xact>& xact) {
  ZUM_ASSERT(xact);
  const U32 id = xact->id();
  ZUM_TRACE(tr, 8) << "void Olk::XactAggregatorSm::doStartXact(const Ptr&) " << name() << " xact id: " << id
                   << " configVersion: " << xact->configVersion();
  xact->resultIs(xactInProgress);
  if (xactIsBlocked(*xact)) {
    if (failXact(*xact)) {
      xact->blockingXactDelAll();
      finishAtOnce(xact, xactFailure);
    } else if (!blockedXact_.has(id)) {
      blockedXactIs(xact);
      xact->resultIs(xactInProgress);
    }
    return;
  }
  blockedXactDel(id);
  if (inProgressXact_.size() >= maxAllowedInProgressXacts_) {
    ZUM_TRACE(tr, 8) << "Xact: " << id << " could not be started due to maxAllowedInProgress Xacts";
    pendingXactIs(xact);
    return;
  }
  if (xactConfigDir_.empty() || xactStatusDir_.empty()) {
    ZUM_TRACE(tr, 8) << "No xactConfigDirs or xactStatusDirs. Marking Xact as success";
    finishAtOnce(xact, xactSuccess);
    return;
  }
  publishXact(xact);
}

void XactAggregatorSm::doStartXact(const Ptr<Xact>& xact, Xact::Completion done) {
  ZUM_ASSERT(xact);
  xact->completionIs(std::move(done));
  doStartXact(xact);
}

void XactAggregatorSm::finishAtOnce(const Ptr<Xact>& xact, XactResult r) {
  xact->configVersionInc(1);
  xact->commentDelAll();
  xact->resultIs(r);
  xact->statusVersionIs(xact->configVersion());
  xact->handleRunFinished();
}

void XactAggregatorSm::publishXact(const Ptr<Xact>& xact) {
  const U32 id = xact->id();
  inProgressXactIs(xact);
  xact->startTimeIs(now());
  if (clock_ && clockTimeMin() == Zum::endOfTime) clockTimeMinIs(now() + pollingInterval_);
  xact->configVersionInc(1);
  const XactConfig cfg(id, xact->configVersion());
  forEachConfigDir([&](XactConfigDir& dir) {
    ZUM_TRACE(tr, 8) << dir.name() << ": setting xactConfig: id: " << id << " configVersion: " << cfg.configVersion;
    dir.xactConfigIs(cfg);
  });
}

bool XactAggregatorSm::xactIsBlocked(const Xact& xact) const {
  for (const auto& [blockerId, blocker] : xact.blockingXact()) {
    if (blocker->finished() && blocker->result() == xactSuccess) continue;
    ZUM_TRACE(tr, 8) << "Xact: " << xact.id() << " blocked due to: " << blockerId;
    return true;
  }
  return false;
}

bool XactAggregatorSm::failXact(const Xact& xact) const {
  if (!xact.failIfBlockingXactFails()) return false;
  for (const auto& [blockerId, blocker] : xact.blockingXact()) {
    if (!blocker->finished() || blocker->result() != xactFailure) continue;
    ZUM_TRACE(tr, 8) << "Xact: " << xact.id() << " failed due to: " << blockerId;
    return true;
  }
  return false;
}

void XactAggregatorSm::handleBlockingXactStatus(U32 blockerId, const Ptr<Xact>& blocked) {
  const U32 id = blocked->id();
  ZUM_TRACE(tr, 8) << "void Olk::XactAggregatorSm::ZumBlockingXact::handleBlockingXactStatus() " << name()
                   << " blockingXact: " << blockerId << " blockedXact: " << id;
  if (!xactIsBlocked(*blocked)) {
    blocked->blockingXactDelAll();
    doStartXact(blocked);
    return;
  }
  if (!failXact(*blocked)) return;
  doStopXact(id);
  blocked->blockingXactDelAll();
  // Result before the comments are cleared: watchers of the result see the
  // previous run's comments still in place.
  blocked->configVersionInc(1);
  blocked->resultIs(xactFailure);
  blocked->commentDelAll();
  blocked->statusVersionIs(blocked->configVersion());
  blocked->handleRunFinished();
}

void XactAggregatorSm::handleStatusChange(U32 id) {
  ZUM_TRACE(tr, 8) << "void Olk::XactAggregatorSm::handleStatusChange(U32) " << name() << " id: " << id;
  Ptr<Xact> xact = inProgressXact_.get(id);
  if (!xact) {
    ZUM_TRACE(tr, 8) << "Xact not found for the id: " << id;
    return;
  }
  const U32 cv = xact->configVersion();
  ZUM_TRACE(tr, 8) << " id " << id << " configVersion " << cv;
  if (cv == 0) return;
  XactResult outcome = xactSuccess;
  XactComments comments;
  for (const auto& [dirName, reactor] : xactStatusDir_) {
    const XactStatus st = reactor->notifier()->xactStatus(id);
    ZUM_TRACE(tr, 9) << "xact status from: " << dirName << " " << "statusVersion: " << st.statusVersion << " "
                     << (!st ? String("None") : valueToStrep(st));
    if (!st || st.statusVersion != cv) {
      if (outcome != xactFailure) outcome = xactInProgress;
      continue;
    }
    if (st.result == xactFailure) {
      outcome = xactFailure;
      ZUM_TRACE(tr, 8) << "Failed status from: " << dirName << " statusVersion: " << st.statusVersion;
    }
    if (!st.comment.empty()) {
      comments.commentIs(dirName, st.comment);
      ZUM_TRACE(tr, 8) << "Comment from: " << dirName << " comment: " << st.comment;
    }
  }
  ZUM_TRACE(tr, 8) << " id " << id << " version " << cv << " result " << outcome;
  if (outcome != xactInProgress) concludeXact(xact, outcome, comments);
  if (inProgressXact_.empty()) clockTimeMinIs(Zum::endOfTime);
}

void XactAggregatorSm::concludeXact(const Ptr<Xact>& xact, XactResult r, const XactComments& comments) {
  const U32 cv = xact->configVersion();
  // Comments that stay as they were are not announced again.
  for (const String& key : xact->comment().keys()) {
    if (!comments.comment().has(key)) xact->commentDel(key);
  }
  for (const auto& [key, value] : comments.comment()) xact->commentIs(key, value);
  inProgressXactDel(xact->id());
  xact->resultIs(r);
  xact->statusVersionIs(cv);
  xact->handleRunFinished();
}

void XactAggregatorSm::handleInProgressXact(U32 id) {
  ZUM_TRACE(tr, 8) << "void Olk::XactAggregatorSm::handleInProgressXact(U32) " << name() << " id: " << id;
  if (inProgressXact_.has(id) || pendingXact_.empty() || purgingPendingXact_) return;
  purgingPendingXactIs(true);
  // Always take the first entry: starts may complete at once and the agent
  // may queue more from its reactions, so the set changes under the walk.
  while (!pendingXact_.empty() && inProgressXact_.size() < maxAllowedInProgressXacts_) {
    Ptr<Xact> next = pendingXact_.begin()->second;
    pendingXactDel(next->id());
    doStartXact(next);
  }
  purgingPendingXactIs(false);
}

void XactAggregatorSm::handleClock() {
  ZUM_TRACE(tr, 8) << "void Olk::XactAggregatorSm::handleClock() " << name();
  const Seconds t = now();
  XactComments comments;
  for (U32 id : inProgressXact_.keys()) {
    Ptr<Xact> xact = inProgressXact_.get(id);
    if (!xact) continue;  // finished by an earlier one's consequences
    comments.commentDelAll();
    if (t - xact->startTime() < timeout_) continue;
    ZUM_TRACE(tr, 8) << "Timeout for Xact: " << id;
    for (const auto& [dirName, reactor] : xactStatusDir_) {
      const XactStatus st = reactor->notifier()->xactStatus(id);
      if (!st || st.statusVersion != xact->configVersion()) comments.commentIs(dirName, "Timeout");
    }
    if (comments.comment().empty()) comments.commentIs("unknown", "Timeout");
    concludeXact(xact, xactFailure, comments);
  }
  if (!inProgressXact_.empty()) clockTimeMinIs(now() + pollingInterval_);
}

void XactAggregatorSm::handleXactStatusDir(const Zum::Name& dirName) {
  ZUM_TRACE(tr, 8) << "void Olk::XactAggregatorSm::handleXactStatusDir(const String&) " << name() << " "
                   << dirName;
  if (xactStatusDir_.has(dirName)) return;
  ZUM_TRACE(tr, 8) << "xactStatusDir " << dirName << " removed";
  for (U32 id : inProgressXact_.keys()) handleStatusChange(id);
}

void XactAggregatorSm::doStopXact(U32 id) {
  ZUM_TRACE(tr, 8) << "void Olk::XactAggregatorSm::doStopXact(U32) " << name() << " id: " << id;
  pendingXactDel(id);
  blockedXactDel(id);
  inProgressXactDel(id);
  forEachConfigDir([id](XactConfigDir& dir) { dir.xactConfigDel(id); });
}

// ---------------------------------------------------------------------------
// Executor

class XactExecutorSm::ZumXactConfigDir : public Zum::PtrInterface, public XactConfigDir::Notifiee {
 public:
  explicit ZumXactConfigDir(XactExecutorSm* sm) : sm_(sm) {}
  void onXactConfig(U32 id) override {
    Zum::DestructorGuard guard(this, sm_);
    sm_->handleXactConfig(id);
  }

 private:
  XactExecutorSm* const sm_;  // the owner, which outlives its reactors
};

class XactExecutorSm::ZumClock : public Zum::PtrInterface, public Zum::Clock::Notifiee {
 public:
  explicit ZumClock(XactExecutorSm* sm) : sm_(sm) {}
  void onTime() override {
    Zum::DestructorGuard guard(this, sm_);
    sm_->handleClock();
  }

 private:
  XactExecutorSm* const sm_;  // the owner, which outlives its reactors
};

XactExecutorSm::XactExecutorSm(const Zum::Name& name, const Ptr<const XactConfigDir>& xactConfigDir,
                               const Ptr<XactStatusDir>& xactStatusDir, const Ptr<Zum::Clock>& clock)
    : Entity(name), xactStatusDir_(xactStatusDir) {
  if (xactConfigDir) {
    xactConfigDir_ = new ZumXactConfigDir(this);
    xactConfigDir_->notifierIs(xactConfigDir);
  }
  if (clock) {
    clock_ = new ZumClock(this);
    clock_->notifierIs(clock);
  }
  handleInit();
}

XactExecutorSm::~XactExecutorSm() = default;

namespace {

// The executor of xactExecutorSmFactory: its work is a function.
class FunctionExecutor : public XactExecutorSm {
 public:
  FunctionExecutor(const Zum::Name& name, const Ptr<const XactConfigDir>& xactConfigDir,
                   const Ptr<XactStatusDir>& xactStatusDir, const Ptr<Zum::Clock>& clock, XactExecuteFn execute)
      : XactExecutorSm(name, xactConfigDir, xactStatusDir, clock), execute_(std::move(execute)) {}
  ExecResult doExecute(const XactConfig& config) override { return execute_(config); }

 private:
  const XactExecuteFn execute_;  // never empty
};

}  // namespace

Ptr<XactExecutorSm> xactExecutorSmFactory(const Zum::Name& name, const Ptr<const XactConfigDir>& xactConfigDir,
                                          const Ptr<XactStatusDir>& xactStatusDir, const Ptr<Zum::Clock>& clock,
                                          XactExecuteFn execute) {
  Zum::requireNonNull(execute, "Olk::XactExecutorSm", "execute");
  return Zum::create<FunctionExecutor>(name, xactConfigDir, xactStatusDir, clock, std::move(execute));
}

void XactExecutorSm::handleInit() { ZUM_TRACE(tr, 8) << "void Olk::XactExecutorSm::handleInit() " << name(); }

void XactExecutorSm::handleInitialized() { handleXactConfig(); }

void XactExecutorSm::handleDel() {
  ZUM_TRACE(tr, 8) << "void Olk::XactExecutorSm::handleDel() " << name();
  if (xactStatusDir_) xactStatusDir_->xactStatusDelAll();
  clockTimeMinIs(Zum::endOfTime);
}

ExecResult XactExecutorSm::doExecute(const XactConfig&) {
  throw Zum::NoImplementationException("doExecute must be implemented in the derived class");
}

Ptr<const XactConfigDir> XactExecutorSm::xactConfigDir() const {
  return xactConfigDir_ ? xactConfigDir_->notifier() : nullptr;
}

Ptr<Zum::Clock> XactExecutorSm::clock() const { return clock_ ? clock_->notifier() : nullptr; }

Seconds XactExecutorSm::clockTimeMin() const { return clock_ ? clock_->timeMin() : Zum::endOfTime; }

void XactExecutorSm::clockTimeMinIs(Seconds t) {
  if (clock_) clock_->timeMinIs(t);
}

bool XactExecutorSm::backlog(U32 id) const {
  auto it = backlog_.find(id);
  return it != backlog_.end() && it->second;
}

void XactExecutorSm::handleXactConfig(U32 id) {
  ZUM_TRACE(tr, 8) << "void Olk::XactExecutorSm::handleXactConfig(U32) " << name() << " id: " << id;
  updatesSeenInc();
  if (!clock_) {
    doProcessXact(id);
    return;
  }
  Ptr<const XactConfigDir> dir = xactConfigDir();
  if (!dir || !dir->xactConfig(id)) {
    backlogDel(id);
    doProcessXact(id);
    return;
  }
  backlogIs(id, true);
  if (clockTimeMin() == Zum::endOfTime) clockTimeMinIs(0.0);
}

void XactExecutorSm::handleXactConfig() {
  Ptr<const XactConfigDir> dir = xactConfigDir();
  if (!dir) return;
  for (U32 id : dir->xactConfig().keys()) handleXactConfig(id);
}

void XactExecutorSm::doProcessXact(U32 id) {
  ZUM_TRACE(tr, 8) << "void Olk::XactExecutorSm::doProcessXact(U32) " << name() << " id " << id;
  Ptr<const XactConfigDir> dir = xactConfigDir();
  const XactConfig cfg = dir ? dir->xactConfig(id) : XactConfig();
  if (!cfg) {
    ZUM_TRACE(tr, 8) << "Deleting xactStatus with id: " << id;
    if (xactStatusDir_) xactStatusDir_->xactStatusDel(id);
    return;
  }
  ZUM_TRACE(tr, 8) << "configVersion: " << cfg.configVersion;
  const ExecResult r = doExecute(cfg);
  if (r.result == xactInProgress || !xactStatusDir_) return;
  xactStatusDir_->xactStatusIs(XactStatus(id, r.result, r.comment, cfg.configVersion));
}

void XactExecutorSm::handleClock() {
  ZUM_TRACE(tr, 8) << "void Olk::XactExecutorSm::handleClock() " << name();
  const Ptr<Zum::Clock> clk = clock();
  const Seconds start = clk->now();
  const Seconds deadline = start + backlogQuantum_;
  Seconds t = start;
  U64 processed = 0;
  U32 cursor = bookmark_;
  while (!backlog_.empty()) {
    auto it = backlog_.lower_bound(cursor);
    if (it == backlog_.end()) it = backlog_.begin();
    const U32 id = it->first;
    t = clk->now();
    if (processed > 0 && t >= deadline) {
      bookmarkIs(id);
      clockTimeMinIs(0.0);
      yieldBeforeFinishingCountInc();
      break;
    }
    // Out before the work runs: a newer version published from inside the
    // answer queues the id again, to be processed on the way round.
    backlog_.erase(it);
    doProcessXact(id);
    ++processed;
    cursor = id + 1;  // past the top id wraps to 0, the start of the backlog
  }
  updatesProcessedInc(processed);
  timeUsedInc(t - start);
  dispatchCountInc();
}

}  // namespace Olk
