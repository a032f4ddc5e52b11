// Design notes.
//
// Layout in Redis: one hash per directory, "<prefix>config:<name>" or
// "<prefix>status:<name>", field = decimal id, value = the record's text
// form ("Value('Olk::XactConfig', ** {...})"), which is what the library
// prints everywhere else and what an operator reads with redis-cli. Every
// write to a hash is followed, in the same MULTI/EXEC, by a PUBLISH on the
// channel of the same name listing the changed ids ("*": re-read whole).
//
// Why a follower re-reads instead of trusting the message: pub/sub loses
// messages across a disconnect and arrives on a different connection from
// the snapshot, so a message cannot be ordered against the snapshot. Reads
// issued on the command connection are: the answer to an HMGET sent after
// the HGETALL reflects a later state than the snapshot. So a follower only
// ever moves forward in the server's history, and the message is a signal.
//
// hiredis 0.14 runs on the activity loop through its five event hooks. It
// frees a context itself when the connection fails; the cleanup hook hands
// the descriptor back to it and the disconnect (or failed connect) callback
// tells the mirror, which drops the pair and retries on the clock. Replies
// pending on a context that goes away come back null and are dropped: the
// resynchronisation after the reconnect supersedes them. A hiredis callback
// may make the owner close a context, which hiredis defers while it is in a
// callback; the Link objects therefore live as long as the mirror, and the
// mirror is kept alive while hiredis runs.
#include "Olk/XactDirMirror.h"

#include <hiredis/async.h>
#include <hiredis/hiredis.h>

#include <algorithm>
#include <charconv>

#include "platform/Exception.h"
#include "platform/Format.h"
#include "platform/Log.h"

namespace Olk {

namespace {

const Zum::LogMessage unreachableLog{
    "XACT_REDIS_UNREACHABLE", Zum::LogSeverity::warning, "cannot connect to Redis at %s: %s; retrying in %.2f s",
    "The transaction directories cannot be shared with other agents until Redis answers; local changes are kept.",
    "Check that redis-server runs and listens at this address, and the agent's Redis user and password.", 10.0};
const Zum::LogMessage lostLog{
    "XACT_REDIS_CONNECTION_LOST", Zum::LogSeverity::warning, "connection to Redis at %s lost: %s; retrying in %.2f s",
    "Changes are kept locally and written, and followed directories re-read whole, when Redis is back.",
    "Check redis-server's health and its log; nothing is needed if it comes back.", 10.0};
const Zum::LogMessage refusedLog{
    "XACT_REDIS_COMMAND_REFUSED", Zum::LogSeverity::error, "Redis at %s refused %s: %s",
    "The server answered a command with an error; the connection is dropped and rebuilt, rewriting what this agent "
    "publishes.",
    "Check the agent's Redis user, its ACL rights on the key prefix, the database number and the server's memory.",
    10.0};
const Zum::LogMessage malformedLog{
    "XACT_REDIS_MALFORMED_ENTRY", Zum::LogSeverity::warning, "ignoring %s field '%s': %s",
    "Something other than this library wrote under the transaction key prefix; the entry is skipped.",
    "Find the client that writes under this prefix, or give this deployment a prefix of its own.", 10.0};

// Parses a whole decimal U32 (no sign, no spaces).
bool parseId(std::string_view text, U32* out) {
  if (text.empty() || text.size() > 10) return false;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), *out);
  return ec == std::errc() && end == text.data() + text.size();
}

String replyText(const redisReply* r) { return r->str ? String(r->str, r->len) : String(); }

bool isError(const redisReply* r) { return r->type == REDIS_REPLY_ERROR; }

// How a record type is stored in and read back from a directory.
struct ConfigOps {
  using Dir = XactConfigDir;
  using Value = XactConfig;
  static constexpr std::string_view typeName = "Olk::XactConfig";
  static bool has(const Dir& d, U32 id) { return d.xactConfigHas(id); }
  static Value get(const Dir& d, U32 id) { return d.xactConfig(id); }
  static void set(Dir& d, const Value& v) { d.xactConfigIs(v); }
  static void del(Dir& d, U32 id) { d.xactConfigDel(id); }
  static std::vector<U32> ids(const Dir& d) { return d.xactConfig().keys(); }
  class Watch : public Dir::Notifiee {
   public:
    void onXactConfig(U32 id) override { changed(id); }
    virtual void changed(U32 id) = 0;
  };
};

struct StatusOps {
  using Dir = XactStatusDir;
  using Value = XactStatus;
  static constexpr std::string_view typeName = "Olk::XactStatus";
  static bool has(const Dir& d, U32 id) { return d.xactStatusHas(id); }
  static Value get(const Dir& d, U32 id) { return d.xactStatus(id); }
  static void set(Dir& d, const Value& v) { d.xactStatusIs(v); }
  static void del(Dir& d, U32 id) { d.xactStatusDel(id); }
  static std::vector<U32> ids(const Dir& d) { return d.xactStatus().keys(); }
  class Watch : public Dir::Notifiee {
   public:
    void onXactStatus(U32 id) override { changed(id); }
    virtual void changed(U32 id) = 0;
  };
};

}  // namespace

// ---------------------------------------------------------------------------
// RedisAddress

RedisAddress RedisAddress::unixSocket(const String& path) {
  RedisAddress a;
  a.unixPath = path;
  return a;
}

RedisAddress RedisAddress::tcp(const String& host, U16 port) {
  RedisAddress a;
  a.host = host;
  a.port = port;
  return a;
}

String RedisAddress::text() const {
  String where = unixPath.empty() ? host + ":" + std::to_string(port) : "unix:" + unixPath;
  return where + "/" + std::to_string(db);
}

// ---------------------------------------------------------------------------
// A clock callback.

class XactDirMirror::Timer : public Zum::Clock::Notifiee {
 public:
  Timer(const Ptr<Zum::Clock>& clock, std::function<void()> fn) : fn_(std::move(fn)) { notifierIs(clock); }
  void onTime() override { fn_(); }

 private:
  std::function<void()> fn_;
};

// ---------------------------------------------------------------------------
// One hiredis connection on the loop.

class XactDirMirror::Link : public Zum::FileDescriptor::Notifiee {
 public:
  using ReplyFn = std::function<void(const redisReply*)>;

  explicit Link(XactDirMirror* owner) : owner_(owner) {}
  ~Link() override { close(); }

  bool ready() const { return ready_; }
  // Commands sent and not answered yet.
  std::size_t pendingCount() const { return pending_.size(); }
  // Answers received since creation; moves whenever the server makes progress.
  U64 replies() const { return replies_; }

  // Starts connecting and queues AUTH, SELECT and a PING whose answer makes
  // the link ready. Answers why when it failed at once, empty otherwise.
  String open(const RedisAddress& a, Zum::ActivityManager& loop) {
    ZUM_ASSERT(!ac_ && pending_.empty());
    closing_ = false;
    redisAsyncContext* ac =
        a.unixPath.empty() ? redisAsyncConnect(a.host.c_str(), a.port) : redisAsyncConnectUnix(a.unixPath.c_str());
    if (!ac) return "out of memory";
    if (ac->err) {
      String why = ac->errstr;
      redisAsyncFree(ac);
      return why;
    }
    ac_ = ac;
    ac->data = this;
    ac->ev.data = this;
    ac->ev.addRead = [](void* p) { static_cast<Link*>(p)->interestIs(true, true); };
    ac->ev.delRead = [](void* p) { static_cast<Link*>(p)->interestIs(true, false); };
    ac->ev.addWrite = [](void* p) { static_cast<Link*>(p)->interestIs(false, true); };
    ac->ev.delWrite = [](void* p) { static_cast<Link*>(p)->interestIs(false, false); };
    ac->ev.cleanup = [](void* p) { static_cast<Link*>(p)->forget(); };
    redisAsyncSetConnectCallback(ac, &Link::onConnect);
    redisAsyncSetDisconnectCallback(ac, &Link::onDisconnect);
    notifierIs(loop.fileDescriptorNew(ac->c.fd));
    notifier()->readInterestIs(false);
    queueSetup(a);
    return {};
  }

  // Queues a command; false when the link cannot take it (it is going down).
  bool command(const std::vector<String>& argv, ReplyFn fn) {
    if (!send(argv, &Link::onReply, this)) return false;
    pending_.push_back(std::move(fn));
    return true;
  }

  // SUBSCRIBE and UNSUBSCRIBE: their answers and the messages that follow
  // go to the owner's handleSubscribed and handleMessage.
  bool pushCommand(const std::vector<String>& argv) { return send(argv, &Link::onPush, this); }

  // Drops the connection now (or, inside one of its callbacks, as soon as
  // hiredis returns); its pending replies are dropped.
  void close() {
    ready_ = false;
    if (!ac_) return;
    closing_ = true;
    redisAsyncContext* ac = ac_;
    ac_ = nullptr;
    redisAsyncFree(ac);
  }

 private:
  void queueSetup(const RedisAddress& a) {
    if (!a.password.empty()) {
      std::vector<String> auth{"AUTH"};
      if (!a.user.empty()) auth.push_back(a.user);
      auth.push_back(a.password);
      command(auth, [this](const redisReply* r) { refuseUnlessOk("AUTH", r); });
    }
    if (a.db != 0) {
      command({"SELECT", std::to_string(a.db)}, [this](const redisReply* r) { refuseUnlessOk("SELECT", r); });
    }
    command({"PING"}, [this](const redisReply* r) {
      if (refuseUnlessOk("PING", r)) return;
      ready_ = true;
      owner_->handleLinkReady();
    });
  }

  // Answers true (after telling the owner) when `r` is an error.
  bool refuseUnlessOk(const char* what, const redisReply* r) {
    if (!isError(r)) return false;
    owner_->refuse(what, r);
    return true;
  }

  bool send(const std::vector<String>& argv, redisCallbackFn* fn, void* privdata) {
    if (!ac_ || closing_) return false;
    std::vector<const char*> args;
    std::vector<size_t> lens;
    args.reserve(argv.size());
    lens.reserve(argv.size());
    for (const String& s : argv) {
      args.push_back(s.data());
      lens.push_back(s.size());
    }
    return redisAsyncCommandArgv(ac_, fn, privdata, static_cast<int>(argv.size()), args.data(), lens.data()) ==
           REDIS_OK;
  }

  void interestIs(bool read, bool on) {
    const Ptr<Zum::FileDescriptor>& fd = notifier();
    if (!fd) return;
    if (read) {
      fd->readInterestIs(on);
    } else {
      fd->writeInterestIs(on);
    }
  }

  // hiredis closes the descriptor itself.
  void forget() {
    if (const Ptr<Zum::FileDescriptor>& fd = notifier()) fd->release();
    notifierIs(nullptr);
    ac_ = nullptr;
    ready_ = false;
  }

  void onReadable() override { handle(&redisAsyncHandleRead); }
  void onWritable() override { handle(&redisAsyncHandleWrite); }
  void handle(void (*f)(redisAsyncContext*)) {
    if (!ac_) return;
    Ptr<XactDirMirror> keep(owner_);  // hiredis may still touch this link after a callback dropped the mirror
    f(ac_);
  }

  // Reports a loss that the link did not ask for.
  void down(const char* why) {
    ready_ = false;
    owner_->handleLinkDown(why ? why : "closed");
  }

  static void onConnect(const redisAsyncContext* ac, int status) {
    if (status == REDIS_OK) return;
    auto* link = static_cast<Link*>(ac->data);
    // hiredis frees the context once this returns; the mirror must not.
    link->ac_ = nullptr;
    link->down(ac->errstr);
  }

  static void onDisconnect(const redisAsyncContext* ac, int) {
    auto* link = static_cast<Link*>(ac->data);
    if (!link->closing_) link->down(ac->errstr);
  }

  static void onReply(redisAsyncContext*, void* reply, void* privdata) {
    auto* link = static_cast<Link*>(privdata);
    ReplyFn fn = std::move(link->pending_.front());
    link->pending_.pop_front();
    ++link->replies_;
    if (reply && !link->closing_) fn(static_cast<const redisReply*>(reply));
  }

  static void onPush(redisAsyncContext*, void* reply, void* privdata) {
    auto* link = static_cast<Link*>(privdata);
    auto* r = static_cast<const redisReply*>(reply);
    if (!r || link->closing_ || r->type != REDIS_REPLY_ARRAY || r->elements < 3) return;
    String kind = replyText(r->element[0]);
    String channel = replyText(r->element[1]);
    if (kind == "subscribe") {
      link->owner_->handleSubscribed(channel);
    } else if (kind == "message") {
      link->owner_->handleMessage(channel, replyText(r->element[2]));
    }
  }

  XactDirMirror* const owner_;  // owns this link and outlives it
  redisAsyncContext* ac_ = nullptr;  // null when there is no connection
  std::deque<ReplyFn> pending_;      // one per command sent, in order
  U64 replies_ = 0;
  bool ready_ = false;               // set by the PING answer, cleared on any loss
  bool closing_ = false;             // the loss that follows is our own doing
};

// ---------------------------------------------------------------------------
// One mirrored directory.

class XactDirMirror::Mirrored {
 public:
  enum Role { publisher, follower };

  Mirrored(String key, Role role) : key_(std::move(key)), role_(role) {}
  virtual ~Mirrored() = default;

  const String& key() const { return key_; }
  Role role() const { return role_; }

  virtual std::vector<U32> ids() const = 0;
  virtual bool has(U32 id) const = 0;
  virtual String text(U32 id) const = 0;
  // Stores the record `text` under `id` (without marking it dirty); answers
  // why not when it is malformed, empty when stored.
  virtual String apply(U32 id, const String& text) = 0;
  virtual void erase(U32 id) = 0;

  bool synced = false;   // in step with Redis since the last (re)connect
  bool adopted = false;  // publisher: first sync done; from then on the local directory is all the truth
  bool rewrite = false;  // publisher: the next flush replaces the hash whole
  std::set<U32> dirty;   // publisher: ids changed locally and not yet sent

 private:
  const String key_;
  const Role role_;
};

template <class Ops>
class XactDirMirror::MirroredDir : public Mirrored, public Ops::Watch {
 public:
  using Dir = typename Ops::Dir;

  MirroredDir(XactDirMirror* owner, String key, Role role, const Ptr<Dir>& dir)
      : Mirrored(std::move(key), role), owner_(owner), dir_(dir) {
    if (role != publisher) return;
    for (U32 id : ids()) dirty.insert(id);
    this->notifierIs(dir);
  }
  ~MirroredDir() override { this->notifierIs(nullptr); }

  const Ptr<Dir>& dir() const { return dir_; }

  std::vector<U32> ids() const override { return Ops::ids(*dir_); }
  bool has(U32 id) const override { return Ops::has(*dir_, id); }
  String text(U32 id) const override { return valueToStrep(Ops::get(*dir_, id)); }

  String apply(U32 id, const String& text) override {
    typename Ops::Value v;
    try {
      v = strepToValue<typename Ops::Value>(text, Ops::typeName);
    } catch (const Zum::RangeException& e) {
      return e.what();
    }
    if (v.id != id) return "record id " + std::to_string(v.id) + " differs from its field";
    applying_ = true;
    Ops::set(*dir_, v);
    applying_ = false;
    return {};
  }

  void erase(U32 id) override {
    applying_ = true;
    Ops::del(*dir_, id);
    applying_ = false;
  }

  void changed(U32 id) override {
    if (applying_) return;
    dirty.insert(id);
    owner_->flushSoon();
  }

 private:
  XactDirMirror* const owner_;
  const Ptr<Dir> dir_;
  bool applying_ = false;  // set while storing what Redis holds, which is not a local change
};

// ---------------------------------------------------------------------------
// The mirror.

XactDirMirror::XactDirMirror(const Zum::Name& name, const RedisAddress& address, const String& keyPrefix,
                             const Ptr<Zum::ActivityManager>& loop)
    : Entity(name),
      address_(address),
      keyPrefix_(keyPrefix),
      loop_(loop),
      cmd_(std::make_unique<Link>(this)),
      sub_(std::make_unique<Link>(this)),
      retry_(std::make_unique<Timer>(loop->clock(), [this] { connect(); })),
      flusher_(std::make_unique<Timer>(loop->clock(), [this] { flush(); })),
      watchdog_(std::make_unique<Timer>(loop->clock(), [this] { handleWatchdog(); })) {}

XactDirMirror::~XactDirMirror() {
  cmd_->close();
  sub_->close();
}

void XactDirMirror::handleInitialized() { connect(); }

std::size_t XactDirMirror::pendingWriteCount() const {
  std::size_t n = 0;
  for (std::size_t k : inFlight_) n += k;
  for (const auto& [key, m] : mirrored_) n += m->dirty.size();
  return n;
}

template <class Ops>
void XactDirMirror::publishedDirIs(const Ptr<typename Ops::Dir>& dir) {
  ZUM_ASSERT(dir);
  String key = std::is_same_v<Ops, ConfigOps> ? configKey(dir->name()) : statusKey(dir->name());
  mirroredIs(std::make_unique<MirroredDir<Ops>>(this, key, Mirrored::publisher, dir));
  flushSoon();
}

template <class Ops>
Ptr<const typename Ops::Dir> XactDirMirror::followedDirIs(const Zum::Name& name) {
  String key = std::is_same_v<Ops, ConfigOps> ? configKey(name) : statusKey(name);
  if (auto* m = dynamic_cast<MirroredDir<Ops>*>(mirrored(key))) {
    ZUM_ASSERT(m->role() == Mirrored::follower);
    return m->dir();
  }
  Ptr<typename Ops::Dir> dir = Zum::create<typename Ops::Dir>(name);
  mirroredIs(std::make_unique<MirroredDir<Ops>>(this, key, Mirrored::follower, dir));
  return dir;
}

void XactDirMirror::publishedConfigDirIs(const Ptr<XactConfigDir>& dir) { publishedDirIs<ConfigOps>(dir); }
void XactDirMirror::publishedStatusDirIs(const Ptr<XactStatusDir>& dir) { publishedDirIs<StatusOps>(dir); }
void XactDirMirror::publishedConfigDirDel(const Zum::Name& name) { mirroredDel(configKey(name)); }
void XactDirMirror::publishedStatusDirDel(const Zum::Name& name) { mirroredDel(statusKey(name)); }
Ptr<const XactConfigDir> XactDirMirror::followedConfigDirIs(const Zum::Name& name) {
  return followedDirIs<ConfigOps>(name);
}
Ptr<const XactStatusDir> XactDirMirror::followedStatusDirIs(const Zum::Name& name) {
  return followedDirIs<StatusOps>(name);
}
void XactDirMirror::followedConfigDirDel(const Zum::Name& name) { mirroredDel(configKey(name)); }
void XactDirMirror::followedStatusDirDel(const Zum::Name& name) { mirroredDel(statusKey(name)); }

void XactDirMirror::mirroredIs(std::unique_ptr<Mirrored> m) {
  ZUM_ASSERT(!mirrored_.count(m->key()));
  Mirrored& added = *m;
  mirrored_.emplace(added.key(), std::move(m));
  if (connectionState_ == connectionDown) return;
  connectionStateIs(connectionSyncing);
  startSync(added);
}

void XactDirMirror::mirroredDel(const String& key) {
  auto it = mirrored_.find(key);
  if (it == mirrored_.end()) return;
  if (it->second->role() == Mirrored::follower) sub_->pushCommand({"UNSUBSCRIBE", key});
  mirrored_.erase(it);
  checkUp();
}

XactDirMirror::Mirrored* XactDirMirror::mirrored(const String& key) const {
  auto it = mirrored_.find(key);
  return it == mirrored_.end() ? nullptr : it->second.get();
}

void XactDirMirror::connect() {
  watchdog_->timeMinIs(loop_->clock()->now() + replyTimeout_);  // the deadline for coming up
  String why = cmd_->open(address_, *loop_);
  if (why.empty()) why = sub_->open(address_, *loop_);
  if (why.empty()) return;
  handleLinkDown(why);
}

void XactDirMirror::handleLinkDown(const String& why) {
  const bool wasConnected = connectionState_ != connectionDown;
  if (reset(wasConnected)) {
    if (!wasConnected) ++failedConnectCount_;
    const Zum::LogMessage& log = wasConnected ? lostLog : unreachableLog;
    log.log(address_.text().c_str(), why.c_str(), retry_->timeMin() - loop_->clock()->now());
  }
}

bool XactDirMirror::reset(bool wasConnected) {
  cmd_->close();
  sub_->close();
  inFlight_.clear();  // a reconnected publisher rewrites its hash whole
  watchdog_->timeMinIs(Zum::endOfTime);
  for (auto& [key, m] : mirrored_) m->synced = false;
  connectionStateIs(connectionDown);
  if (retry_->timeMin() != Zum::endOfTime) return false;  // this attempt has failed already
  if (wasConnected) reconnectInterval_ = reconnectIntervalMinDefault;
  retry_->timeMinIs(loop_->clock()->now() + reconnectInterval_);
  reconnectInterval_ = std::min(2 * reconnectInterval_, reconnectIntervalMax_);
  return true;
}

void XactDirMirror::handleLinkReady() {
  if (!cmd_->ready() || !sub_->ready()) return;
  ++connectCount_;
  watchdog_->timeMinIs(Zum::endOfTime);  // up in time; commands arm it again
  connectionStateIs(connectionSyncing);
  for (auto& [key, m] : mirrored_) startSync(*m);
  checkUp();
}

void XactDirMirror::startSync(Mirrored& m) {
  const String key = m.key();
  if (m.role() == Mirrored::follower) {
    // The snapshot is read once the subscription is confirmed, so every
    // change after it is signalled.
    if (!sub_->pushCommand({"SUBSCRIBE", key})) reset(true);
    return;
  }
  if (m.adopted) {
    m.rewrite = true;
    m.synced = true;
    flushSoon();
    return;
  }
  commandIs({"HGETALL", key}, [this, key](const redisReply* r) { handleSnapshot(key, r); });
}

void XactDirMirror::handleSubscribed(const String& channel) {
  Mirrored* m = mirrored(channel);
  if (!m || m->synced) return;
  commandIs({"HGETALL", channel}, [this, channel](const redisReply* r) { handleSnapshot(channel, r); });
}

void XactDirMirror::handleSnapshot(const String& key, const redisReply* r) {
  Mirrored* m = mirrored(key);
  if (!m) return;
  std::set<U32> seen;
  if (r->type != REDIS_REPLY_ARRAY) {
    malformedIs(key, "", "not a hash: " + replyText(r));
    m->rewrite = m->role() == Mirrored::publisher;  // a publisher replaces it
  } else {
    for (std::size_t i = 0; i + 1 < r->elements; i += 2) {
      String field = replyText(r->element[i]);
      U32 id = 0;
      if (!parseId(field, &id)) {
        malformedIs(key, field, "not an id");
        continue;
      }
      seen.insert(id);
      // A publisher takes in only what it has not written itself since it started.
      if (m->role() == Mirrored::publisher && (m->has(id) || m->dirty.count(id))) continue;
      String why = m->apply(id, replyText(r->element[i + 1]));
      if (!why.empty()) malformedIs(key, field, why);
    }
  }
  if (m->role() == Mirrored::follower) {
    for (U32 id : m->ids()) {
      if (!seen.count(id)) m->erase(id);
    }
  }
  m->adopted = m->role() == Mirrored::publisher;
  m->synced = true;
  flushSoon();
  checkUp();
}

void XactDirMirror::handleMessage(const String& channel, const String& payload) {
  Mirrored* m = mirrored(channel);
  if (!m || m->role() != Mirrored::follower) return;
  if (payload == "*") {
    commandIs({"HGETALL", channel}, [this, channel](const redisReply* r) { handleSnapshot(channel, r); });
    return;
  }
  std::vector<String> argv{"HMGET", channel};
  std::vector<U32> ids;
  std::string_view rest = payload;
  while (!rest.empty()) {
    std::size_t sp = rest.find(' ');
    std::string_view token = rest.substr(0, sp);
    rest = sp == std::string_view::npos ? std::string_view() : rest.substr(sp + 1);
    U32 id = 0;
    if (!parseId(token, &id)) {
      malformedIs(channel, "(change message)", "not a list of ids: " + payload.substr(0, 80));
      continue;
    }
    ids.push_back(id);
    argv.emplace_back(token);
  }
  if (ids.empty()) return;
  commandIs(argv, [this, channel, ids](const redisReply* r) { handleFields(channel, ids, r); });
}

void XactDirMirror::handleFields(const String& key, const std::vector<U32>& ids, const redisReply* r) {
  Mirrored* m = mirrored(key);
  if (!m) return;
  if (r->type != REDIS_REPLY_ARRAY || r->elements != ids.size()) {
    malformedIs(key, "", "not a hash: " + replyText(r));
    return;
  }
  for (std::size_t i = 0; i < ids.size(); ++i) {
    const redisReply* e = r->element[i];
    if (e->type == REDIS_REPLY_NIL) {
      m->erase(ids[i]);
      continue;
    }
    String why = m->apply(ids[i], replyText(e));
    if (!why.empty()) malformedIs(key, std::to_string(ids[i]), why);
  }
}

bool XactDirMirror::commandIs(const std::vector<String>& argv, std::function<void(const redisReply*)> onReply) {
  if (cmd_->command(argv, std::move(onReply))) {
    armWatchdog();
    return true;
  }
  reset(true);
  return false;
}

void XactDirMirror::armWatchdog() {
  if (watchdog_->timeMin() != Zum::endOfTime) return;
  watchedReplies_ = cmd_->replies();
  watchdog_->timeMinIs(loop_->clock()->now() + replyTimeout_);
}

void XactDirMirror::handleWatchdog() {
  const bool connecting = connectionState_ == connectionDown;
  if (!connecting) {
    if (cmd_->pendingCount() == 0) return;  // everything answered: idle until the next command
    if (cmd_->replies() != watchedReplies_) {  // slow but moving
      armWatchdog();
      return;
    }
  }
  handleLinkDown(Zum::format("no answer within %.1f s", replyTimeout_));
}

void XactDirMirror::flushSoon() {
  if (flusher_->timeMin() == Zum::endOfTime) flusher_->timeMinIs(0.0);
}

void XactDirMirror::flush() {
  if (!cmd_->ready()) return;
  std::vector<std::vector<String>> writes;
  std::size_t count = 0;
  for (auto& [key, m] : mirrored_) {
    if (!m->synced || (!m->rewrite && m->dirty.empty())) continue;
    std::vector<U32> ids = m->rewrite ? m->ids() : std::vector<U32>(m->dirty.begin(), m->dirty.end());
    std::vector<String> hset{"HSET", key};
    std::vector<String> hdel{"HDEL", key};
    String changed;
    for (U32 id : ids) {
      String field = std::to_string(id);
      if (!changed.empty()) changed += ' ';
      changed += field;
      if (m->has(id)) {
        hset.push_back(field);
        hset.push_back(m->text(id));
      } else {
        hdel.push_back(field);
      }
    }
    if (m->rewrite) writes.push_back({"DEL", key});
    if (hset.size() > 2) writes.push_back(std::move(hset));
    if (hdel.size() > 2) writes.push_back(std::move(hdel));
    writes.push_back({"PUBLISH", key, m->rewrite ? String("*") : changed});
    count += ids.size();
    m->rewrite = false;
    m->dirty.clear();
  }
  if (writes.empty()) return;
  inFlight_.push_back(count);
  auto refuseOnError = [this](const redisReply* r) {
    if (isError(r)) refuse("a queued write", r);
  };
  if (!commandIs({"MULTI"}, refuseOnError)) return;
  for (const auto& w : writes) {
    if (!commandIs(w, refuseOnError)) return;
  }
  commandIs({"EXEC"}, [this](const redisReply* r) { handleExecReply(r); });
}

void XactDirMirror::handleExecReply(const redisReply* r) {
  if (!inFlight_.empty()) inFlight_.pop_front();
  if (isError(r)) {
    refuse("EXEC", r);
    return;
  }
  for (std::size_t i = 0; r->type == REDIS_REPLY_ARRAY && i < r->elements; ++i) {
    if (isError(r->element[i])) {
      refuse("a write", r->element[i]);
      return;
    }
  }
}

void XactDirMirror::refuse(const char* what, const redisReply* r) {
  refusedLog.log(address_.text().c_str(), what, replyText(r).c_str());
  reset(false);
}

void XactDirMirror::checkUp() {
  if (connectionState_ == connectionDown) return;
  for (const auto& [key, m] : mirrored_) {
    if (!m->synced) {
      connectionStateIs(connectionSyncing);
      return;
    }
  }
  reconnectInterval_ = reconnectIntervalMinDefault;
  connectionStateIs(connectionUp);
}

void XactDirMirror::connectionStateIs(ConnectionState s) {
  attributeIs(connectionState_, s, &Notifiee::onConnectionState);
}

void XactDirMirror::malformedIs(const String& key, const String& field, const String& why) {
  if (!malformedLogged_.insert(key + " " + field).second) return;
  malformedLog.log(key.c_str(), field.c_str(), why.c_str());
}

Ptr<XactDirMirror> xactDirMirrorFactory(const Zum::Name& name, const RedisAddress& address, const String& keyPrefix,
                                        const Ptr<Zum::ActivityManager>& loop) {
  return Zum::create<XactDirMirror>(name, address, keyPrefix, loop);
}

}  // namespace Olk
