// Transaction directories shared between agent processes through Redis.
//
// A mirror keeps one Redis connection pair on the agent's activity loop and
// mirrors directories both ways. A published directory is the local truth:
// every change it announces is written to Redis, a burst per loop turn in
// one pipelined MULTI/EXEC (a hash per directory, field = id, value = the
// record's text form) together with a PUBLISH on the channel named like the
// key, whose message lists the changed ids. A followed directory is created
// here and follows Redis: after every (re)connect it subscribes first, then
// reads the hash whole, so no change falls between; each message makes it
// read the named fields again on the command connection, which orders the
// answers after the snapshot. The stored setters notify only on change, so a
// record applied twice is harmless and the state machines, which keep
// seeing local directories, are unchanged:
//
//   // an executor process
//   auto mirror = Olk::xactDirMirrorFactory("exec1", Olk::RedisAddress::unixSocket(path), "olk:", loop);
//   auto status = Olk::xactStatusDirFactory("exec1");
//   mirror->publishedStatusDirIs(status);
//   auto exec = Olk::xactExecutorSmFactory("exec1", mirror->followedConfigDirIs("exec1"), status, loop->clock(),
//                                          [](const Olk::XactConfig& c) { return Olk::ExecResult(Olk::xactSuccess); });
//
//   // the coordinator process, one pair per executor
//   auto mirror = Olk::xactDirMirrorFactory("coord", Olk::RedisAddress::unixSocket(path), "olk:", loop);
//   auto agg = Olk::xactAggregatorSmFactory("coord", loop->clock());
//   for (const char* name : {"exec1", "exec2"}) {
//     auto config = Olk::xactConfigDirFactory(name);
//     mirror->publishedConfigDirIs(config);
//     agg->xactConfigDirIs(config);
//     agg->xactStatusDirIs(mirror->followedStatusDirIs(name));
//   }
//
// Faults: an unreachable or lost server, or one that leaves commands
// unanswered for replyTimeout, is retried with capped, doubling back-off
// on the loop's clock; local writes meanwhile are kept (latest per
// id) and a reconnected publisher rewrites its hash whole, so nothing written
// is lost and nothing stale wins; followers re-read whole. A publisher's
// first sync takes in the entries a previous incarnation left in Redis for
// ids it has not written itself, so a restarted agent finds its records.
// Malformed or foreign fields are logged once per field and ignored.
// Costs: a burst of n changes is one round trip and O(n) bytes each way; a
// (re)sync reads each followed hash whole, O(entries).
// One writer per directory is assumed (nothing arbitrates two publishers of
// one name). One loop thread; nothing blocks, no thread is started.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "Olk/XactLib.h"
#include "platform/ActivityManager.h"

struct redisReply;  // hiredis' reply, kept out of this header

namespace Olk {

// Where the server is and who this agent is to it. Ahead of the mirror,
// which keeps one by value.
struct RedisAddress {
  String unixPath;  // when set, the Unix socket; otherwise host and port
  String host;
  U16 port = 6379;
  String user;      // a Redis 6 ACL user; empty authenticates with the password alone
  String password;  // empty: no AUTH
  U32 db = 0;       // selected on every connection

  static RedisAddress unixSocket(const String& path);
  static RedisAddress tcp(const String& host, U16 port);
  // "unix:<path>" or "<host>:<port>", followed by "/<db>".
  String text() const;
};

class XactDirMirror : public Zum::Entity, public Zum::Notifier {
 public:
  enum ConnectionState : U8 {
    connectionDown,     // no connection; a retry is scheduled
    connectionSyncing,  // connected; some directory is not yet in step
    connectionUp,       // connected and every directory in step
  };

  class Notifiee : public Zum::BaseNotifiee<const XactDirMirror> {
   public:
    virtual void onConnectionState() {}
  };

  static constexpr Seconds reconnectIntervalMinDefault = 0.05;
  static constexpr Seconds reconnectIntervalMaxDefault = 5.0;
  static constexpr Seconds replyTimeoutDefault = 10.0;

  ~XactDirMirror() override;

  const RedisAddress& address() const { return address_; }
  const String& keyPrefix() const { return keyPrefix_; }
  ConnectionState connectionState() const { return connectionState_; }
  // Times a connection pair came up since creation.
  U64 connectCount() const { return connectCount_; }
  // Attempts that failed before the pair came up.
  U64 failedConnectCount() const { return failedConnectCount_; }
  // Distinct malformed fields seen so far (each logged once).
  U64 malformedEntryCount() const { return malformedLogged_.size(); }
  // Published ids not yet confirmed by the server (dirty or in flight).
  std::size_t pendingWriteCount() const;
  Seconds reconnectIntervalMax() const { return reconnectIntervalMax_; }
  // Caps the back-off between attempts; takes effect from the next failure.
  void reconnectIntervalMaxIs(Seconds s) { reconnectIntervalMax_ = s; }
  // How long a connection may take to come up, and the server may go
  // without answering while commands await answers, before the pair is
  // dropped as lost (hiredis has no time-outs of its own).
  Seconds replyTimeout() const { return replyTimeout_; }
  void replyTimeoutIs(Seconds s) { replyTimeout_ = s; }
  // The Redis key (and channel) of a directory: prefix, kind, name.
  String configKey(const Zum::Name& dirName) const { return keyPrefix_ + "config:" + dirName; }
  String statusKey(const Zum::Name& dirName) const { return keyPrefix_ + "status:" + dirName; }

  // Publishes `dir`: its present entries now, then every change. A name
  // already mirrored here, either way, is a broken invariant.
  void publishedConfigDirIs(const Ptr<XactConfigDir>& dir);
  void publishedStatusDirIs(const Ptr<XactStatusDir>& dir);
  // Stops publishing; what was written stays in Redis.
  void publishedConfigDirDel(const Zum::Name& name);
  void publishedStatusDirDel(const Zum::Name& name);
  // The local directory `name` that follows Redis, created on the first
  // call; later calls return the same one. Never write to it.
  Ptr<const XactConfigDir> followedConfigDirIs(const Zum::Name& name);
  Ptr<const XactStatusDir> followedStatusDirIs(const Zum::Name& name);
  // Stops following; the local directory keeps its last entries.
  void followedConfigDirDel(const Zum::Name& name);
  void followedStatusDirDel(const Zum::Name& name);

 protected:
  void handleInitialized() override;

 private:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  XactDirMirror(const Zum::Name& name, const RedisAddress& address, const String& keyPrefix,
                const Ptr<Zum::ActivityManager>& loop);

  class Link;  // one hiredis connection on the loop
  class Mirrored;
  template <class Ops>
  class MirroredDir;
  class Timer;

  template <class Ops>
  void publishedDirIs(const Ptr<typename Ops::Dir>& dir);
  template <class Ops>
  Ptr<const typename Ops::Dir> followedDirIs(const Zum::Name& name);
  void mirroredIs(std::unique_ptr<Mirrored> m);
  void mirroredDel(const String& key);

  void connect();
  // Drops both connections and schedules the next attempt, unless this
  // attempt has failed already; answers whether it scheduled one. The
  // back-off starts afresh after a connection that had come up.
  bool reset(bool wasConnected);
  void handleLinkReady();
  void handleLinkDown(const String& why);
  // The server answered with an error: logs, and reconnects after a
  // growing back-off (a refusal tends to repeat).
  void refuse(const char* what, const ::redisReply* reply);
  void handleSubscribed(const String& channel);
  void handleMessage(const String& channel, const String& payload);
  void startSync(Mirrored& m);
  void handleSnapshot(const String& key, const ::redisReply* reply);
  void handleFields(const String& key, const std::vector<U32>& ids, const ::redisReply* reply);
  void handleExecReply(const ::redisReply* reply);
  bool commandIs(const std::vector<String>& argv, std::function<void(const ::redisReply*)> onReply);
  void armWatchdog();
  void handleWatchdog();
  void flushSoon();
  void flush();
  void checkUp();
  void connectionStateIs(ConnectionState s);
  // Logs once per key and field; later ones only count.
  void malformedIs(const String& key, const String& field, const String& why);
  Mirrored* mirrored(const String& key) const;

  const RedisAddress address_;
  const String keyPrefix_;
  const Ptr<Zum::ActivityManager> loop_;
  std::unique_ptr<Link> cmd_;  // commands and replies, in order
  std::unique_ptr<Link> sub_;  // subscriptions only
  std::map<String, std::unique_ptr<Mirrored>> mirrored_;  // by Redis key
  std::unique_ptr<Timer> retry_;
  std::unique_ptr<Timer> flusher_;
  std::unique_ptr<Timer> watchdog_;  // armed while connecting or while commands await answers
  U64 watchedReplies_ = 0;           // the command link's reply count when the watchdog was armed
  std::deque<std::size_t> inFlight_;  // ids per MULTI/EXEC awaiting EXEC, oldest first
  std::set<String> malformedLogged_;  // "key field" pairs already reported
  ConnectionState connectionState_ = connectionDown;
  U64 connectCount_ = 0;
  U64 failedConnectCount_ = 0;
  Seconds reconnectInterval_ = reconnectIntervalMinDefault;  // the next back-off
  Seconds reconnectIntervalMax_ = reconnectIntervalMaxDefault;
  Seconds replyTimeout_ = replyTimeoutDefault;
};

Ptr<XactDirMirror> xactDirMirrorFactory(const Zum::Name& name, const RedisAddress& address, const String& keyPrefix,
                                        const Ptr<Zum::ActivityManager>& loop);

}  // namespace Olk
