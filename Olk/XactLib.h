// Transactions: a coordinating agent hands units of configuration work to
// several executing agents and collects their answers.
//
// An `Xact` lives in the coordinator's `XactDir`. To start it, the
// `XactAggregatorSm` raises its `configVersion` and writes `XactConfig{id,
// configVersion}` into every attached `XactConfigDir`; each executor (an
// `XactExecutorSm` subclass supplying `doExecute`) answers with an
// `XactStatus` of the same version in its own `XactStatusDir`. A run is
// finished exactly when `configVersion == statusVersion`; restarting raises
// the version again, so answers of an earlier run never count. The aggregator
// also orders transactions (`blockingXact`), caps how many run at once and
// fails silent runs after `timeout`; a clocked executor works off bursts in
// slices of about `backlogQuantum`. Checking a status costs O(directories).
// One event-loop thread; traces under "XactLib" (flow 8, status dumps 9).
#pragma once

#include <array>
#include <functional>
#include <map>
#include <ostream>
#include <string_view>

#include "Olk/Types.h"
#include "platform/Clock.h"
#include "platform/Collection.h"
#include "platform/Entity.h"
#include "platform/Notifier.h"
#include "platform/Ptr.h"
#include "platform/Strep.h"

namespace Olk {

// A transaction stores its result by value, so the enum comes first.
enum XactResult : U32 {
  xactInProgress = 0,  // not finished, or no answer yet
  xactSuccess = 1,     // every executor agreed
  xactFailure = 2,     // an executor or a blocker failed, or the time-out struck
};

}  // namespace Olk

template <>
struct Zum::EnumTraits<Olk::XactResult> {
  static constexpr std::string_view typeName = "Olk::XactResult";
  static constexpr std::array<std::string_view, 3> names = {"xactInProgress", "xactSuccess", "xactFailure"};
};

namespace Olk {

String stringValue(XactResult r);
std::ostream& operator<<(std::ostream& os, XactResult r);

// ---------------------------------------------------------------------------
// Entities.

// One transaction. Its run state is read from the versions: configVersion ==
// statusVersion means finished (with `result`); the aggregator is the only
// writer of everything but `blockingXact` and `failIfBlockingXactFails`.
class Xact : public Zum::Entity, public Zum::Notifier {
 public:
  using CommentMap = Zum::OrderedMap<String, String>;
  using BlockingXactMap = Zum::HashMap<U32, Ptr<const Xact>>;

  // Observers only read a transaction, so they attach to it as const.
  class Notifiee : public Zum::BaseNotifiee<const Xact> {
   public:
    virtual void onConfigVersion() {}
    virtual void onStartTime() {}
    virtual void onStatusVersion() {}
    virtual void onResult() {}
    virtual void onComment(const String&) {}
    virtual void onBlockingXact(U32) {}
    virtual void onFailIfBlockingXactFails() {}
  };

  // What the owner runs when the transaction's current run ends.
  using Completion = std::function<void(const Xact& xact)>;
  // The callback for the end of the next run the aggregator concludes
  // (success, failure or time-out): called once, after result, comment and
  // statusVersion hold the outcome, and dropped before it is called, so it
  // may delete this record or start the transaction again with a new one.
  // Replaces any callback still waiting; an empty one clears it. A run left
  // by doStopXact never ends: its callback waits for the next run.
  const Completion& completion() const { return completion_; }
  void completionIs(Completion done) { completion_ = std::move(done); }

  U32 id() const { return id_; }
  U32 configVersion() const { return configVersion_; }
  Seconds startTime() const { return startTime_; }
  U32 statusVersion() const { return statusVersion_; }
  XactResult result() const { return result_; }
  bool failIfBlockingXactFails() const { return failIfBlockingXactFails_; }
  // The current run is over: its outcome is result().
  bool finished() const { return configVersion_ == statusVersion_; }

  // Comment of `key`, empty when there is none.
  String comment(const String& key) const { return comment_.get(key); }
  const CommentMap& comment() const { return comment_; }
  // Blocker with id `id`, null when there is none.
  Ptr<const Xact> blockingXact(U32 id) const { return blockingXact_.get(id); }
  const BlockingXactMap& blockingXact() const { return blockingXact_; }

  void configVersionIs(U32 v);
  // Wrap around modulo 2^32 like every version number.
  void configVersionInc(U32 n = 1) { configVersionIs(configVersion_ + n); }
  void configVersionDec(U32 n = 1) { configVersionIs(configVersion_ - n); }
  void startTimeIs(Seconds t);
  void statusVersionIs(U32 v);
  void resultIs(XactResult r);
  void failIfBlockingXactFailsIs(bool on);
  void commentIs(const String& key, const String& value);
  void commentDel(const String& key);
  void commentDelAll();
  // Keyed by the blocker's id; a null blocker throws RangeException and
  // changes nothing.
  void blockingXactIs(const Ptr<const Xact>& blocker);
  void blockingXactDel(U32 id);
  void blockingXactDelAll();

 private:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  explicit Xact(U32 id);

  friend class XactAggregatorSm;
  // Takes the completion off the record and calls it; nothing when none.
  void handleRunFinished();

  const U32 id_;
  Completion completion_;  // called at most once, then empty
  U32 configVersion_ = 0;
  Seconds startTime_ = 0.0;
  U32 statusVersion_ = 0;
  XactResult result_ = xactInProgress;
  CommentMap comment_;
  BlockingXactMap blockingXact_;
  bool failIfBlockingXactFails_ = false;
};

Ptr<Xact> xactFactory(U32 id);

// The directories carry a name that is their identity towards an
// aggregator (comments are keyed by the status directory's name). The
// restore path may set it again after construction, which an entity's own
// name does not allow, so the directories keep it here.
class XactNamedDir : public Zum::Entity, public Zum::Notifier {
 public:
  const Zum::Name& name() const { return name_; }
  // Used by restore only; renaming an attached directory is not supported.
  void nameIsFromBackup(const Zum::Name& name) { name_ = name; }

 protected:
  explicit XactNamedDir(const Zum::Name& name) : Entity(name), name_(name) {}

 private:
  Zum::Name name_;
};

// The coordinator's transactions, owned here and ordered by id.
class XactDir : public XactNamedDir {
 public:
  class Notifiee : public Zum::BaseNotifiee<const XactDir> {
   public:
    virtual void onXact(U32) {}
  };

  Ptr<Xact> xact(U32 id) const { return xact_.get(id); }
  bool xactHas(U32 id) const { return xact_.has(id); }
  std::size_t xactCount() const { return xact_.size(); }
  const Zum::OrderedMap<U32, Ptr<Xact>>& xact() const { return xact_; }

  // The transaction `id`, created with defaults when missing.
  Ptr<Xact> xactIs(U32 id);
  void xactDel(U32 id);
  void xactDelAll();

 private:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  explicit XactDir(const Zum::Name& name) : XactNamedDir(name) {}

  Zum::OrderedMap<U32, Ptr<Xact>> xact_;
};

Ptr<XactDir> xactDirFactory(const Zum::Name& name);

// ---------------------------------------------------------------------------
// Values exchanged between aggregator and executors; complete here because
// the config and status directories below store them by value.

// What the aggregator asks of an executor: run `id` at `configVersion`.
// The all-zero value stands for "no configuration".
struct XactConfig {
  U32 id = 0;
  U32 configVersion = 0;

  XactConfig() = default;
  XactConfig(U32 i, U32 v) : id(i), configVersion(v) {}
  XactConfig(Zum::StrepIter& cur, Zum::StrepIter end);

  bool operator==(const XactConfig&) const = default;
  bool operator!() const { return *this == XactConfig(); }
};

// An executor's answer for `id`, valid for the run whose configVersion equals
// `statusVersion`. The all-default value stands for "no answer".
struct XactStatus {
  U32 id = 0;
  XactResult result = xactInProgress;
  String comment;
  U32 statusVersion = 0;

  XactStatus() = default;
  XactStatus(U32 i, XactResult r, String c, U32 v) : id(i), result(r), comment(std::move(c)), statusVersion(v) {}
  XactStatus(Zum::StrepIter& cur, Zum::StrepIter end);

  bool operator==(const XactStatus&) const = default;
  bool operator!() const { return *this == XactStatus(); }
};

// What an executor's work function returns. `xactInProgress` means the
// executor will write the status itself later.
struct ExecResult {
  XactResult result = xactInProgress;
  String comment;

  ExecResult() = default;
  ExecResult(XactResult r, String c = {}) : result(r), comment(std::move(c)) {}
  ExecResult(Zum::StrepIter& cur, Zum::StrepIter end);

  bool operator==(const ExecResult&) const = default;
};

String valueToStrep(const XactConfig& v);
String valueToStrep(const XactStatus& v);
String valueToStrep(const ExecResult& v);
void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, XactConfig* out);
void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, XactStatus* out);
void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, ExecResult* out);
std::ostream& operator<<(std::ostream& os, const XactConfig& v);
std::ostream& operator<<(std::ostream& os, const XactStatus& v);
std::ostream& operator<<(std::ostream& os, const ExecResult& v);

// Configurations published to one executor, ordered by id. Written by the
// aggregator only.
class XactConfigDir : public XactNamedDir {
 public:
  class Notifiee : public Zum::BaseNotifiee<const XactConfigDir> {
   public:
    virtual void onXactConfig(U32) {}
  };

  // The configuration of `id`, the absent value when missing.
  XactConfig xactConfig(U32 id) const { return xactConfig_.get(id); }
  bool xactConfigHas(U32 id) const { return xactConfig_.has(id); }
  const Zum::OrderedMap<U32, XactConfig>& xactConfig() const { return xactConfig_; }

  // Inserts or replaces under cfg.id; notifies only when the value changed.
  void xactConfigIs(const XactConfig& cfg);
  void xactConfigDel(U32 id);
  void xactConfigDelAll();

 private:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  explicit XactConfigDir(const Zum::Name& name) : XactNamedDir(name) {}

  Zum::OrderedMap<U32, XactConfig> xactConfig_;
};

Ptr<XactConfigDir> xactConfigDirFactory(const Zum::Name& name);

// One executor's answers, in no promised order. Written by that executor
// only.
class XactStatusDir : public XactNamedDir {
 public:
  class Notifiee : public Zum::BaseNotifiee<const XactStatusDir> {
   public:
    virtual void onXactStatus(U32) {}
  };

  // The status of `id`, the absent value when missing.
  XactStatus xactStatus(U32 id) const { return xactStatus_.get(id); }
  bool xactStatusHas(U32 id) const { return xactStatus_.has(id); }
  const Zum::HashMap<U32, XactStatus>& xactStatus() const { return xactStatus_; }

  // Inserts or replaces under st.id; notifies only when the value changed.
  void xactStatusIs(const XactStatus& st);
  void xactStatusDel(U32 id);
  void xactStatusDelAll();

 private:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  explicit XactStatusDir(const Zum::Name& name) : XactNamedDir(name) {}

  Zum::HashMap<U32, XactStatus> xactStatus_;
};

Ptr<XactStatusDir> xactStatusDirFactory(const Zum::Name& name);

// ---------------------------------------------------------------------------
// The whole life of a transaction, as a coordinating agent writes it:
//
//   Ptr<Xact> x = xacts->xactIs(id);               // a record in the agent's XactDir
//   x->blockingXactIs(earlier);                     // optional: wait for `earlier`
//   aggregator->doStartXact(x, [this](const Xact& done) {
//     log(done.id(), done.result(), done.comment());  // the outcome, once
//     aggregator->doStopXact(done.id());            // withdraw its configurations
//     xacts->xactDel(done.id());                    // and forget the record
//   });
//
// The last two lines matter in a long-running agent: finishing a run leaves
// its XactConfig in every config directory, and each executor keeps its
// XactStatus as long as the configuration stands, so without doStopXact
// every directory grows by one entry per transaction forever. Capture the
// aggregator by raw pointer or `this`: the record holds its completion, and
// the aggregator holds the record while the run is in progress.
//
// The aggregator.
//
// Per transaction: blocked (waiting for its blockers) -> pending (waiting for
// a slot) -> in progress (configurations published) -> finished, entered
// again by every doStartXact. Completion never deletes the published
// configurations; only doStopXact and tear-down do. Pending transactions
// start in the pending set's hash order; a drain keeps starting while slots
// are free, so one queued by a reaction during the drain is not left behind
// a slot that a run completing inside the drain has already freed.
// Neither state machine announces changes of its own attributes: they are
// the owner's to read, and nothing observes them.
class XactAggregatorSm : public Zum::Entity {
 public:
  // Comments collected from the status directories while deciding an
  // outcome, keyed by directory name.
  class XactComments;
  class ZumBlockingXact;
  class ZumBlockedXact;
  class ZumXactStatusDir;
  class ZumClock;

  static constexpr U32 maxAllowedInProgressXactsDefault = 10000;
  static constexpr Seconds pollingIntervalDefault = 1.0;
  static constexpr Seconds timeoutDefault = 600.0;

  // `clock` may be null: then nothing times out.
  XactAggregatorSm(const Zum::Name& name, const Ptr<Zum::Clock>& clock);
  ~XactAggregatorSm() override;

  // Starts or restarts `xact`: fails it at once when a blocker failed and it
  // asked for that, parks it while blocked, queues it while the in-progress
  // limit is reached, and otherwise publishes its next configVersion. With no
  // config or no status directory attached it succeeds at once.
  void doStartXact(const Ptr<Xact>& xact);
  // As doStartXact(xact), with `done` as the transaction's completion; it may
  // be called before this returns, when the start finishes the run at once.
  void doStartXact(const Ptr<Xact>& xact, Xact::Completion done);
  // Withdraws `id` from every stage and deletes its configuration from every
  // config directory; the Xact record itself is left as it is.
  void doStopXact(U32 id);

  // Re-evaluates the in-progress transaction `id` against every status
  // directory; only traces when `id` is not in progress.
  void handleStatusChange(U32 id);
  // The time-out scan (the clock's call).
  void handleClock();

  // --- attributes
  const Zum::OrderedMap<U32, Ptr<Xact>>& inProgressXact() const { return inProgressXact_; }
  Ptr<Xact> inProgressXact(U32 id) const { return inProgressXact_.get(id); }
  const Zum::HashMap<U32, Ptr<Xact>>& pendingXact() const { return pendingXact_; }
  Ptr<Xact> pendingXact(U32 id) const { return pendingXact_.get(id); }
  bool blockedXactHas(U32 id) const { return blockedXact_.has(id); }
  Ptr<ZumBlockedXact> blockedXact(U32 id) const;
  std::size_t blockedXactCount() const { return blockedXact_.size(); }
  Ptr<XactConfigDir> xactConfigDir(const Zum::Name& name) const { return xactConfigDir_.get(name); }
  std::size_t xactConfigDirCount() const { return xactConfigDir_.size(); }
  Ptr<const XactStatusDir> xactStatusDir(const Zum::Name& name) const;
  std::size_t xactStatusDirCount() const { return xactStatusDir_.size(); }
  bool purgingPendingXact() const { return purgingPendingXact_; }
  U32 maxAllowedInProgressXacts() const { return maxAllowedInProgressXacts_; }
  Seconds pollingInterval() const { return pollingInterval_; }
  Seconds timeout() const { return timeout_; }
  Ptr<Zum::Clock> clock() const;
  // The time-out scan's wake-up time; endOfTime when idle or clockless.
  Seconds clockTimeMin() const;

  // Each insertion into or removal from inProgressXact may start pending
  // transactions. Null pointers throw RangeException.
  void pendingXactIs(const Ptr<Xact>& xact);
  void pendingXactDel(U32 id);
  void pendingXactDelAll();
  void blockedXactIs(const Ptr<Xact>& xact);
  void blockedXactDel(U32 id);
  void blockedXactDelAll();
  void inProgressXactIs(const Ptr<Xact>& xact);
  void inProgressXactDel(U32 id);
  void inProgressXactDelAll();
  void xactConfigDirIs(const Ptr<XactConfigDir>& dir);
  void xactConfigDirDel(const Zum::Name& name);
  void xactConfigDirDelAll();
  // Attaching takes in the directory's present statuses; detaching
  // re-evaluates every in-progress transaction without it.
  void xactStatusDirIs(const Ptr<const XactStatusDir>& dir);
  void xactStatusDirDel(const Zum::Name& name);
  void xactStatusDirDelAll();
  void purgingPendingXactIs(bool on) { purgingPendingXact_ = on; }
  void maxAllowedInProgressXactsIs(U32 n) { maxAllowedInProgressXacts_ = n; }
  void pollingIntervalIs(Seconds s) { pollingInterval_ = s; }
  void timeoutIs(Seconds s) { timeout_ = s; }
  void clockIs(const Ptr<Zum::Clock>& clock);
  void clockDel();

 protected:
  void handleDel() override;

 private:
  friend class ZumBlockingXact;
  friend class ZumXactStatusDir;

  void handleInit();
  void handleInProgressXact(U32 id);
  void handleXactStatusDir(const Zum::Name& name);
  void handleBlockingXactStatus(U32 blockerId, const Ptr<Xact>& blocked);
  bool xactIsBlocked(const Xact& xact) const;
  bool failXact(const Xact& xact) const;
  // Ends the run of `xact` with `r`: comments replaced by `comments` (only
  // changed keys notify), statusVersion set to the current configVersion.
  void concludeXact(const Ptr<Xact>& xact, XactResult r, const XactComments& comments);
  // Raises the version and finishes at once, with no comments.
  void finishAtOnce(const Ptr<Xact>& xact, XactResult r);
  void publishXact(const Ptr<Xact>& xact);
  // Calls f(dir) for every config directory attached when the walk starts.
  template <class F>
  void forEachConfigDir(F&& f);
  void clockTimeMinIs(Seconds t);
  Seconds now() const;

  Zum::OrderedMap<U32, Ptr<Xact>> inProgressXact_;  // size <= limit, unless the limit was lowered
  Zum::OrderedMap<Zum::Name, Ptr<XactConfigDir>> xactConfigDir_;
  Zum::OrderedMap<Zum::Name, Ptr<ZumXactStatusDir>> xactStatusDir_;
  Zum::OrderedMap<U32, Ptr<ZumBlockedXact>> blockedXact_;
  Zum::HashMap<U32, Ptr<Xact>> pendingXact_;  // disjoint from inProgressXact_ and blockedXact_
  bool purgingPendingXact_ = false;           // set only while draining pendingXact_
  U32 maxAllowedInProgressXacts_ = maxAllowedInProgressXactsDefault;
  Ptr<ZumClock> clock_;
  Seconds pollingInterval_ = pollingIntervalDefault;
  Seconds timeout_ = timeoutDefault;
};

// The comments of one outcome, keyed by status directory name.
class XactAggregatorSm::XactComments {
 public:
  XactComments() = default;
  // A collection has no text form to be built from; asserts.
  XactComments(Zum::StrepIter& cur, Zum::StrepIter end);

  String comment(const String& key) const { return comment_.get(key); }
  const Xact::CommentMap& comment() const { return comment_; }
  void commentIs(const String& key, const String& value) { comment_.set(key, value); }
  void commentDel(const String& key) { comment_.del(key); }
  void commentDelAll() { comment_ = {}; }

 private:
  Xact::CommentMap comment_;
};

// Watches one blocker of a blocked transaction; each change of the
// blocker's statusVersion asks the aggregator to reconsider the blocked one.
class XactAggregatorSm::ZumBlockingXact : public Zum::PtrInterface, public Xact::Notifiee {
 public:
  ZumBlockingXact(XactAggregatorSm* sm, const Ptr<Xact>& blocked, const Ptr<const Xact>& blocker);
  void onStatusVersion() override { handleBlockingXactStatus(); }
  void handleBlockingXactStatus();

 private:
  XactAggregatorSm* const sm_;  // the owner, which outlives its reactors
  const Ptr<Xact> blocked_;
};

// Watches one blocked transaction and keeps one ZumBlockingXact per entry of
// its blockingXact collection, following entries as they come and go.
class XactAggregatorSm::ZumBlockedXact : public Zum::PtrInterface, public Xact::Notifiee {
 public:
  ZumBlockedXact(XactAggregatorSm* sm, const Ptr<Xact>& xact);

  const Ptr<Xact>& xact() const { return xact_; }
  Ptr<ZumBlockingXact> blockingXact(U32 id) const { return blockingXact_.get(id); }
  std::size_t blockingXactCount() const { return blockingXact_.size(); }
  // Starts watching `blocker`; null throws RangeException.
  void blockingXactIs(const Ptr<const Xact>& blocker);
  void blockingXactDel(U32 id) { blockingXact_.del(id); }

  void onBlockingXact(U32 id) override;

 protected:
  void onNotifier() override;

 private:
  XactAggregatorSm* const sm_;  // the owner, which outlives its reactors
  const Ptr<Xact> xact_;
  Zum::HashMap<U32, Ptr<ZumBlockingXact>> blockingXact_;  // mirrors xact_->blockingXact()
};

Ptr<XactAggregatorSm> xactAggregatorSmFactory(const Zum::Name& name, const Ptr<Zum::Clock>& clock);

// ---------------------------------------------------------------------------
// The executor base.
//
// An agent usually passes its work as a function to xactExecutorSmFactory
// (below). Otherwise derive, implement doExecute, and create the derived
// object with Zum::create<Derived>(...) or XactExecutorSmIs<Derived>(...): the catch-up
// over configurations already present runs in handleInitialized(), not in
// the constructor, where doExecute would still be the base's refusal (a
// derived handleInitialized must call this one). Without a clock each
// configuration is executed inside its notification; with one, ids are
// queued and executed in slices of about backlogQuantum seconds, resuming
// at the bookmark. Deletions are never queued. An id leaves the backlog
// before its work runs, so a newer configuration of it published from
// inside that work stays queued instead of being dropped with the old one.
class XactExecutorSm : public Zum::Entity {
 public:
  class ZumXactConfigDir;
  class ZumClock;

  static constexpr Seconds backlogQuantumDefault = 0.01;

  // Any of the three may be null.
  XactExecutorSm(const Zum::Name& name, const Ptr<const XactConfigDir>& xactConfigDir,
                 const Ptr<XactStatusDir>& xactStatusDir, const Ptr<Zum::Clock>& clock);
  ~XactExecutorSm() override;

  // The agent's work for one configuration. Returning xactInProgress writes
  // nothing: the agent then writes the status itself. Exceptions propagate
  // to whoever notified. The base throws NoImplementationException.
  virtual ExecResult doExecute(const XactConfig& config);

  void handleXactConfig(U32 id);
  // Runs handleXactConfig(id) for every configuration present, by id.
  void handleXactConfig();
  // Executes the present configuration of `id`, or withdraws its status
  // when the configuration is gone.
  void doProcessXact(U32 id);
  // One backlog slice; always processes at least one id when there is one.
  void handleClock();

  // --- attributes
  Ptr<const XactConfigDir> xactConfigDir() const;
  const Ptr<XactStatusDir>& xactStatusDir() const { return xactStatusDir_; }
  U64 updatesSeen() const { return updatesSeen_; }
  U64 updatesProcessed() const { return updatesProcessed_; }
  Seconds timeUsed() const { return timeUsed_; }
  U64 dispatchCount() const { return dispatchCount_; }
  U64 yieldBeforeFinishingCount() const { return yieldBeforeFinishingCount_; }
  bool backlog(U32 id) const;
  std::size_t backlogCount() const { return backlog_.size(); }
  U32 bookmark() const { return bookmark_; }
  Seconds backlogQuantum() const { return backlogQuantum_; }
  Ptr<Zum::Clock> clock() const;
  // The next slice's wake-up time; endOfTime when idle or clockless.
  Seconds clockTimeMin() const;

  void updatesSeenIs(U64 n) { updatesSeen_ = n; }
  void updatesSeenInc(U64 n = 1) { updatesSeen_ += n; }
  void updatesProcessedIs(U64 n) { updatesProcessed_ = n; }
  void updatesProcessedInc(U64 n = 1) { updatesProcessed_ += n; }
  void timeUsedIs(Seconds s) { timeUsed_ = s; }
  void timeUsedInc(Seconds s) { timeUsed_ += s; }
  void dispatchCountIs(U64 n) { dispatchCount_ = n; }
  void dispatchCountInc(U64 n = 1) { dispatchCount_ += n; }
  void yieldBeforeFinishingCountIs(U64 n) { yieldBeforeFinishingCount_ = n; }
  void yieldBeforeFinishingCountInc(U64 n = 1) { yieldBeforeFinishingCount_ += n; }
  void backlogIs(U32 id, bool on) { backlog_[id] = on; }
  void backlogDel(U32 id) { backlog_.erase(id); }
  void backlogDelAll() { backlog_.clear(); }
  void bookmarkIs(U32 id) { bookmark_ = id; }
  void backlogQuantumIs(Seconds s) { backlogQuantum_ = s; }

 protected:
  void handleInitialized() override;
  void handleDel() override;

 private:
  void handleInit();
  void clockTimeMinIs(Seconds t);

  Ptr<ZumXactConfigDir> xactConfigDir_;
  Ptr<XactStatusDir> xactStatusDir_;
  U64 updatesSeen_ = 0;
  U64 updatesProcessed_ = 0;
  Seconds timeUsed_ = 0.0;
  U64 dispatchCount_ = 0;
  U64 yieldBeforeFinishingCount_ = 0;
  std::map<U32, bool> backlog_;  // ids whose configuration changed since last executed
  U32 bookmark_ = 0;             // the next slice starts at the first backlog id >= bookmark_
  Seconds backlogQuantum_ = backlogQuantumDefault;
  Ptr<ZumClock> clock_;
};

// An executor's work as a function: what doExecute returns, for one
// configuration.
using XactExecuteFn = std::function<ExecResult(const XactConfig& config)>;

// An executor whose doExecute is `execute`, so an agent writes its work as a
// lambda instead of a subclass:
//
//   auto exec = xactExecutorSmFactory("e1", configDir, statusDir, loop->clock(),
//                                     [](const XactConfig& c) { return ExecResult(xactSuccess); });
//
// Everything else is the base's: the catch-up over configurations already
// present runs before this returns (so `execute` may be called from inside
// it), results reach the status directory as doExecute's do, and an
// exception from `execute` propagates to whoever notified. An empty
// `execute` throws RangeException and creates nothing.
Ptr<XactExecutorSm> xactExecutorSmFactory(const Zum::Name& name, const Ptr<const XactConfigDir>& xactConfigDir,
                                          const Ptr<XactStatusDir>& xactStatusDir, const Ptr<Zum::Clock>& clock,
                                          XactExecuteFn execute);

// Creates an executor of type T from the four constructor arguments. The
// base type itself refuses every configuration it is given.
template <class T = XactExecutorSm>
Ptr<T> XactExecutorSmIs(const Zum::Name& name, const Ptr<const XactConfigDir>& xactConfigDir,
                        const Ptr<XactStatusDir>& xactStatusDir, const Ptr<Zum::Clock>& clock) {
  return Zum::create<T>(name, xactConfigDir, xactStatusDir, clock);
}

}  // namespace Olk
