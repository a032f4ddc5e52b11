// Transaction directories shared through a real redis-server: each fixture
// starts its own server on a Unix socket in a temporary directory (one case
// uses TCP on 127.0.0.1), and agents run as forked processes, each on its
// own activity loop. Waits are bounded only so that a lost record fails the
// test instead of hanging it; nothing is asserted about how long anything
// takes.
#include "Olk/XactDirMirror.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <map>
#include <set>

#include "RedisTestSupport.h"
#include "platform/Log.h"

using namespace Olk;
using OlkTest::ChildProcess;
using OlkTest::RedisServer;

namespace {

constexpr Seconds patience = 60.0;  // only a lost record or a hang gets near it
const String prefix = "olktest:";

// How a test executor answers: it fails ids with id % 997 == failSlot and
// succeeds on the rest; or, with a silentFd, it answers nothing and writes
// each id it is given there, so the test knows the configuration arrived.
struct Behaviour {
  U32 failSlot = 999;
  int silentFd = -1;
};

// The work of an executor that behaves as `b` says.
XactExecuteFn testExecution(Behaviour b) {
  return [b](const XactConfig& c) {
    if (b.silentFd >= 0) {
      [[maybe_unused]] auto n = ::write(b.silentFd, &c.id, sizeof c.id);
      return ExecResult(xactInProgress);
    }
    if (c.id % 997 == b.failSlot) return ExecResult(xactFailure, "refused");
    return ExecResult(xactSuccess);
  };
}

// The body of an executor process: follows its configurations, publishes
// its statuses, and runs its loop until killed.
std::function<void()> executorProcess(const String& socket, const String& name, Behaviour b = {}) {
  return [socket, name, b] {
    auto loop = Zum::activityManagerFactory();
    auto mirror = xactDirMirrorFactory(name, RedisAddress::unixSocket(socket), prefix, loop);
    auto status = xactStatusDirFactory(name);
    mirror->publishedStatusDirIs(status);
    auto exec = xactExecutorSmFactory(name, mirror->followedConfigDirIs(name), status, loop->clock(), testExecution(b));
    loop->run();
  };
}

// Counts the runs of transactions that finish, by id.
class FinishCounter : public Xact::Notifiee {
 public:
  explicit FinishCounter(std::map<U32, int>* counts) : counts_(counts) {}
  void onStatusVersion() override { ++(*counts_)[notifier()->id()]; }

 private:
  std::map<U32, int>* counts_;
};

// Records each notification of a config directory with the value it saw.
class ConfigLog : public XactConfigDir::Notifiee {
 public:
  void onXactConfig(U32 id) override {
    ++calls;
    last[id] = notifier()->xactConfig(id);
  }
  int calls = 0;
  std::map<U32, XactConfig> last;
};

class StateLog : public XactDirMirror::Notifiee {
 public:
  void onConnectionState() override { states.push_back(notifier()->connectionState()); }
  std::vector<XactDirMirror::ConnectionState> states;
};

// Captures log lines for the test's duration.
class LogCapture {
 public:
  LogCapture() {
    old_ = Zum::logSinkIs([this](const Zum::LogRecord& r) { keys.push_back(r.key); });
  }
  ~LogCapture() { Zum::logSinkIs(old_); }
  bool has(const std::string& key) const { return std::find(keys.begin(), keys.end(), key) != keys.end(); }
  std::vector<std::string> keys;

 private:
  Zum::LogSink old_;
};

bool up(const Ptr<XactDirMirror>& m) { return m->connectionState() == XactDirMirror::connectionUp; }
// Up, and every published change confirmed by the server.
bool settled(const Ptr<XactDirMirror>& m) { return up(m) && m->pendingWriteCount() == 0; }

using S = XactDirMirror::ConnectionState;
// The states a mirror passes through from its start over one loss of the server.
const std::vector<S> upDownAndUpAgain{S::connectionSyncing, S::connectionUp, S::connectionDown, S::connectionSyncing,
                                      S::connectionUp};

// Coordinator side: one published config directory and one followed status
// directory per executor name.
Ptr<XactAggregatorSm> coordinatorOn(const Ptr<XactDirMirror>& m, const Ptr<Zum::Clock>& clock,
                                    const std::vector<String>& names,
                                    std::map<String, Ptr<XactConfigDir>>* configs = nullptr) {
  auto agg = xactAggregatorSmFactory("coord", clock);
  for (const auto& name : names) {
    auto config = xactConfigDirFactory(name);
    m->publishedConfigDirIs(config);
    agg->xactConfigDirIs(config);
    agg->xactStatusDirIs(m->followedStatusDirIs(name));
    if (configs) (*configs)[name] = config;
  }
  return agg;
}

bool sameConfigs(const XactConfigDir& a, const XactConfigDir& b) {
  if (a.xactConfig().size() != b.xactConfig().size()) return false;
  for (const auto& [id, cfg] : a.xactConfig()) {
    if (b.xactConfig(id) != cfg) return false;
  }
  return true;
}

class XactDirMirrorTest : public ::testing::Test {
 protected:
  void SetUp() override { server_.start(); }

  Ptr<XactDirMirror> mirror(const String& name) {
    auto m = xactDirMirrorFactory(name, RedisAddress::unixSocket(server_.socketPath()), prefix, loop_);
    m->reconnectIntervalMaxIs(0.2);
    return m;
  }
  bool runUntil(const std::function<bool()>& done) { return loop_->runUntil(done, patience); }
  // Config directory "e1" published by mirror "pub" and followed by mirror "fol".
  struct Shared {
    Ptr<XactDirMirror> pub;
    Ptr<XactConfigDir> config;
    Ptr<XactDirMirror> fol;
    Ptr<const XactConfigDir> followed;
  };
  Shared sharedConfigDir() {
    Shared s{mirror("pub"), xactConfigDirFactory("e1"), mirror("fol"), nullptr};
    s.pub->publishedConfigDirIs(s.config);
    s.followed = s.fol->followedConfigDirIs("e1");
    return s;
  }
  Ptr<XactAggregatorSm> coordinator(const Ptr<XactDirMirror>& m, const std::vector<String>& names,
                                    std::map<String, Ptr<XactConfigDir>>* configs = nullptr) {
    return coordinatorOn(m, loop_->clock(), names, configs);
  }

  Ptr<Zum::ActivityManager> loop_ = Zum::activityManagerFactory();
  RedisServer server_{persistentServer()};

 private:
  static RedisServer::Options persistentServer() {
    RedisServer::Options o;
    o.persistent = true;
    return o;
  }
};

// --- one process, two agents' mirrors --------------------------------------

// Changes and deletions reach a follower in the late-follower and restart cases.
TEST_F(XactDirMirrorTest, FollowerTracksABurstInOneRoundTripAndAResyncNotifiesNothing) {
  auto pub = mirror("pub");
  auto config = xactConfigDirFactory("e1");
  pub->publishedConfigDirIs(config);
  for (U32 id = 1; id <= 100; ++id) config->xactConfigIs({id, 1});
  ASSERT_TRUE(runUntil([&] { return settled(pub); }));
  // The follower starts after those writes were announced, so no message of
  // theirs can still be on its way when the counting starts.
  auto fol = mirror("fol");
  auto followed = fol->followedConfigDirIs("e1");
  ASSERT_TRUE(runUntil([&] { return up(fol) && sameConfigs(*config, *followed); }));

  // A burst costs one transaction on the publisher's side and one read on
  // the follower's, whatever its size.
  server_.command({"CONFIG", "RESETSTAT"});
  for (U32 id = 1000; id < 2000; ++id) config->xactConfigIs({id, 1});
  ASSERT_TRUE(runUntil([&] { return settled(pub) && sameConfigs(*config, *followed); }));
  const String stats = server_.command({"INFO", "commandstats"});
  for (const char* command : {"multi", "exec", "hset", "publish", "hmget"}) {
    EXPECT_NE(stats.find("cmdstat_" + String(command) + ":calls=1,"), String::npos) << command << "\n" << stats;
  }

  // Drop every client: both rebuild, the publisher rewrites its hash and
  // the follower re-reads it whole, which changes nothing it holds.
  ConfigLog log;
  log.notifierIs(followed);
  const U64 before = fol->connectCount();
  server_.command({"CLIENT", "KILL", "TYPE", "normal"});
  server_.command({"CLIENT", "KILL", "TYPE", "pubsub"});
  ASSERT_TRUE(runUntil([&] { return fol->connectCount() > before && settled(pub) && up(fol); }));
  EXPECT_EQ(log.calls, 0);
  EXPECT_TRUE(sameConfigs(*config, *followed));
}

TEST_F(XactDirMirrorTest, LateFollowerSeesTenThousandEntriesAndTheWritesMadeWhileItStarts) {
  auto pub = mirror("pub");
  auto config = xactConfigDirFactory("e1");
  for (U32 id = 0; id < 10000; ++id) config->xactConfigIs({id, 1});
  pub->publishedConfigDirIs(config);
  ASSERT_TRUE(runUntil([&] { return settled(pub); }));

  auto fol = mirror("late");
  auto followed = fol->followedConfigDirIs("e1");
  ConfigLog log;
  log.notifierIs(followed);
  // Write while the follower subscribes and reads its snapshot.
  bool written = false;
  auto writeSome = [&] {
    for (U32 id = 0; id < 100; ++id) config->xactConfigIs({id, 2});
    for (U32 id = 100; id < 150; ++id) config->xactConfigDel(id);
    for (U32 id = 10000; id < 10050; ++id) config->xactConfigIs({id, 1});
    written = true;
  };
  ASSERT_TRUE(runUntil([&] { return fol->connectionState() == XactDirMirror::connectionSyncing; }));
  writeSome();
  ASSERT_TRUE(runUntil([&] { return settled(pub) && up(fol) && sameConfigs(*config, *followed); }));
  EXPECT_TRUE(written);
  EXPECT_EQ(followed->xactConfig().size(), 10000u);
  // Every entry was announced, and its last announcement showed its final value.
  for (const auto& [id, cfg] : config->xactConfig()) ASSERT_EQ(log.last[id], cfg) << id;
  EXPECT_EQ(log.last[7], XactConfig(7, 2));
}

TEST_F(XactDirMirrorTest, UnreachableAtStartThenRestartedWithAndWithoutItsDataBothSidesCatchUp) {
  LogCapture logs;
  server_.stop();
  auto [pub, config, fol, followed] = sharedConfigDir();
  auto statusPub = mirror("exec");
  auto status = xactStatusDirFactory("e1");
  statusPub->publishedStatusDirIs(status);
  StateLog states;
  states.notifierIs(fol);
  for (U32 id = 1; id <= 50; ++id) config->xactConfigIs({id, 1});
  status->xactStatusIs({7, xactFailure, "kept while down", 3});
  ASSERT_TRUE(runUntil([&] { return fol->failedConnectCount() >= 2; }));
  EXPECT_EQ(fol->connectionState(), XactDirMirror::connectionDown);
  EXPECT_TRUE(logs.has("XACT_REDIS_UNREACHABLE"));

  server_.start();
  ASSERT_TRUE(runUntil([&] { return settled(pub) && settled(statusPub) && up(fol) && sameConfigs(*config, *followed); }));

  // The executor goes away for good; its answer must outlive it and the restart.
  statusPub = nullptr;
  server_.stop();
  ASSERT_TRUE(runUntil([&] { return !up(pub) && !up(fol); }));
  for (U32 id = 1; id <= 10; ++id) config->xactConfigIs({id, 2});
  for (U32 id = 40; id <= 50; ++id) config->xactConfigDel(id);
  EXPECT_EQ(pub->pendingWriteCount(), 21u);
  server_.start();
  ASSERT_TRUE(runUntil([&] { return settled(pub) && up(fol) && sameConfigs(*config, *followed); }));
  EXPECT_EQ(followed->xactConfig(3), XactConfig(3, 2));
  EXPECT_FALSE(followed->xactConfigHas(45));
  EXPECT_EQ(states.states, upDownAndUpAgain);

  auto coordinator = mirror("coord");
  auto statuses = coordinator->followedStatusDirIs("e1");
  ASSERT_TRUE(runUntil([&] { return up(coordinator); }));
  EXPECT_EQ(statuses->xactStatus(7), XactStatus(7, xactFailure, "kept while down", 3));

  // A server that comes back empty gets the publisher's whole directory again.
  server_.stop();
  server_.wipe();
  config->xactConfigDel(1);
  server_.start();
  ASSERT_TRUE(runUntil([&] { return settled(pub) && up(fol) && sameConfigs(*config, *followed); }));
  EXPECT_EQ(followed->xactConfig().size(), 38u);
  EXPECT_EQ(server_.command({"HLEN", pub->configKey("e1")}), "38");
}

TEST_F(XactDirMirrorTest, AServerThatStopsAnsweringIsDroppedAndRejoinedWhenItAnswersAgain) {
  auto [pub, config, fol, followed] = sharedConfigDir();
  pub->replyTimeoutIs(0.3);
  StateLog states;
  states.notifierIs(pub);
  config->xactConfigIs({1, 1});
  ASSERT_TRUE(runUntil([&] { return settled(pub) && up(fol) && sameConfigs(*config, *followed); }));

  server_.pause();
  config->xactConfigIs({2, 1});
  // Its write goes unanswered; then attempts to reconnect find no answer either.
  ASSERT_TRUE(runUntil([&] { return pub->failedConnectCount() >= 1; }));
  config->xactConfigIs({3, 1});
  server_.resume();
  ASSERT_TRUE(runUntil([&] { return settled(pub) && up(fol) && sameConfigs(*config, *followed); }));
  EXPECT_EQ(states.states, upDownAndUpAgain);
  EXPECT_EQ(followed->xactConfig().size(), 3u);
}

TEST_F(XactDirMirrorTest, GarbageUnderThePrefixIsReportedOncePerFieldAndIgnored) {
  LogCapture logs;
  auto pub = mirror("pub");
  auto status = xactStatusDirFactory("e1");
  pub->publishedStatusDirIs(status);
  for (U32 id = 1; id <= 5; ++id) status->xactStatusIs({id, xactSuccess, "", 1});
  auto fol = mirror("fol");
  auto followed = fol->followedStatusDirIs("e1");
  ASSERT_TRUE(runUntil([&] { return settled(pub) && up(fol) && followed->xactStatus().size() == 5; }));

  const String key = fol->statusKey("e1");
  auto tamper = [&] {
    server_.command({"HSET", key, "abc", "x", "7", "junk", "8", valueToStrep(XactStatus(9, xactSuccess, "", 1))});
    server_.command({"PUBLISH", key, "abc 7 8"});
    server_.command({"SET", fol->configKey("e2"), "a string, not a hash"});
  };
  tamper();
  auto wrongType = fol->followedConfigDirIs("e2");
  // A follower that starts now meets the garbage in its snapshot.
  auto late = mirror("late");
  auto lateFollowed = late->followedStatusDirIs("e1");
  status->xactStatusIs({6, xactFailure, "after the garbage", 1});
  ASSERT_TRUE(runUntil([&] {
    return settled(pub) && up(fol) && up(late) && followed->xactStatusHas(6) && lateFollowed->xactStatusHas(6);
  }));
  tamper();
  status->xactStatusIs({6, xactFailure, "still working", 2});
  ASSERT_TRUE(runUntil([&] { return settled(pub) && followed->xactStatus(6).statusVersion == 2; }));

  // Once each, however often repeated: the change message, "7", "8" and the
  // string key for the first follower; "abc", "7", "8" (in its snapshot)
  // and the change message for the late one.
  EXPECT_EQ(fol->malformedEntryCount(), 4u);
  EXPECT_EQ(late->malformedEntryCount(), 4u);
  EXPECT_TRUE(logs.has("XACT_REDIS_MALFORMED_ENTRY"));
  EXPECT_EQ(followed->xactStatus().size(), 6u);
  EXPECT_FALSE(followed->xactStatusHas(7));
  EXPECT_FALSE(followed->xactStatusHas(9));
  EXPECT_EQ(lateFollowed->xactStatus().size(), 6u);
  EXPECT_TRUE(wrongType->xactConfig().empty());
}

TEST(XactDirMirrorTcp, LoopbackWithAclUserAndDatabaseAndARefusedPassword) {
  const int port = OlkTest::freeLoopbackPort();
  RedisServer::Options options;
  options.tcpPort = port;
  options.extra = {"--user", "default", "off", "--user", "agent", "on", ">secret", "~*", "&*", "+@all"};
  options.login = {"AUTH", "agent", "secret"};
  RedisServer server(options);
  server.start();
  auto loop = Zum::activityManagerFactory();
  RedisAddress address = RedisAddress::tcp("127.0.0.1", U16(port));
  address.user = "agent";
  address.password = "secret";
  address.db = 3;
  auto pub = xactDirMirrorFactory("pub", address, prefix, loop);
  auto fol = xactDirMirrorFactory("fol", address, prefix, loop);
  auto config = xactConfigDirFactory("e1");
  pub->publishedConfigDirIs(config);
  auto followed = fol->followedConfigDirIs("e1");
  for (U32 id = 1; id <= 20; ++id) config->xactConfigIs({id, id});
  config->xactConfigDel(4);
  ASSERT_TRUE(loop->runUntil([&] { return settled(pub) && up(fol) && sameConfigs(*config, *followed); }, patience));
  EXPECT_EQ(server.command({"HLEN", pub->configKey("e1")}, 3), "19");
  EXPECT_EQ(server.command({"EXISTS", pub->configKey("e1")}, 0), "0");

  LogCapture logs;
  RedisAddress wrong = address;
  wrong.password = "guess";
  auto refused = xactDirMirrorFactory("refused", wrong, prefix, loop);
  ASSERT_TRUE(loop->runUntil([&] { return logs.has("XACT_REDIS_COMMAND_REFUSED"); }, patience));
  EXPECT_EQ(refused->connectionState(), XactDirMirror::connectionDown);
}

// --- agents in separate processes ------------------------------------------

TEST_F(XactDirMirrorTest, TenThousandXactsWithFourExecutorProcessesFinishOnceWithTheRightResult) {
  const std::vector<String> names{"exec0", "exec1", "exec2", "exec3"};
  std::vector<ChildProcess> executors;
  for (U32 k = 0; k < names.size(); ++k) {
    executors.emplace_back(executorProcess(server_.socketPath(), names[k], Behaviour{.failSlot = k}));
  }
  auto m = mirror("coord");
  auto agg = coordinator(m, names);
  ASSERT_TRUE(runUntil([&] { return up(m); }));

  constexpr U32 count = 10000;
  auto dir = xactDirFactory("xacts");
  std::map<U32, int> finished;
  std::vector<std::unique_ptr<FinishCounter>> counters;
  for (U32 id = 0; id < count; ++id) {
    counters.push_back(std::make_unique<FinishCounter>(&finished));
    counters.back()->notifierIs(dir->xactIs(id));
  }
  for (U32 id = 0; id < count; ++id) agg->doStartXact(dir->xact(id));
  ASSERT_TRUE(runUntil([&] { return finished.size() == count; }));

  for (U32 id = 0; id < count; ++id) {
    auto x = dir->xact(id);
    ASSERT_EQ(finished[id], 1) << id;
    ASSERT_TRUE(x->finished()) << id;
    if (id % 997 < names.size()) {
      EXPECT_EQ(x->result(), xactFailure) << id;
      EXPECT_EQ(x->comment().size(), 1u) << id;
      EXPECT_EQ(x->comment(names[id % 997]), "refused") << id;
    } else {
      EXPECT_EQ(x->result(), xactSuccess) << id;
      EXPECT_TRUE(x->comment().empty()) << id;
    }
  }
}

TEST_F(XactDirMirrorTest, ExecutorKilledMidXactAnswersAfterRestartAndOneThatNeverReturnsTimesOut) {
  int arrived[2];
  ASSERT_EQ(::pipe(arrived), 0);
  ::fcntl(arrived[0], F_SETFL, O_NONBLOCK);
  ChildProcess steady(executorProcess(server_.socketPath(), "steady"));
  ChildProcess flaky(executorProcess(server_.socketPath(), "flaky", Behaviour{.silentFd = arrived[1]}));
  auto m = mirror("coord");
  auto agg = coordinator(m, {"steady", "flaky"});
  agg->pollingIntervalIs(0.05);
  auto dir = xactDirFactory("xacts");
  agg->doStartXact(dir->xactIs(1));
  U32 seen = 0;
  ASSERT_TRUE(runUntil([&] { return ::read(arrived[0], &seen, sizeof seen) == sizeof seen; }));
  EXPECT_EQ(seen, 1u);
  EXPECT_FALSE(dir->xact(1)->finished());

  flaky.kill();
  flaky = ChildProcess(executorProcess(server_.socketPath(), "flaky"));
  ASSERT_TRUE(runUntil([&] { return dir->xact(1)->finished(); }));
  EXPECT_EQ(dir->xact(1)->result(), xactSuccess);
  EXPECT_TRUE(dir->xact(1)->comment().empty());

  flaky.kill();
  agg->timeoutIs(0.5);
  agg->doStartXact(dir->xactIs(2));
  ASSERT_TRUE(runUntil([&] { return dir->xact(2)->finished(); }));
  EXPECT_EQ(dir->xact(2)->result(), xactFailure);
  EXPECT_EQ(dir->xact(2)->comment().size(), 1u);
  EXPECT_EQ(dir->xact(2)->comment("flaky"), "Timeout");
  ::close(arrived[0]);
  ::close(arrived[1]);
}

TEST_F(XactDirMirrorTest, RestartedCoordinatorFindsEveryConfigurationAndStatus) {
  ChildProcess executor(executorProcess(server_.socketPath(), "e1", Behaviour{.failSlot = 5}));
  int done[2];
  ASSERT_EQ(::pipe(done), 0);
  const String socket = server_.socketPath();
  ChildProcess first([&] {
    auto loop = Zum::activityManagerFactory();
    auto m = xactDirMirrorFactory("coord", RedisAddress::unixSocket(socket), prefix, loop);
    auto agg = coordinatorOn(m, loop->clock(), {"e1"});
    auto dir = xactDirFactory("xacts");
    for (U32 id = 1; id <= 100; ++id) agg->doStartXact(dir->xactIs(id));
    loop->runUntil([&] { return agg->inProgressXact().empty() && m->pendingWriteCount() == 0; }, patience);
    char byte = 1;
    [[maybe_unused]] auto n = ::write(done[1], &byte, 1);
    loop->run();
  });
  char byte = 0;
  ASSERT_EQ(::read(done[0], &byte, 1), 1);
  first.kill();

  std::map<String, Ptr<XactConfigDir>> configs;
  auto m = mirror("coord");
  auto agg = coordinator(m, {"e1"}, &configs);
  auto statuses = agg->xactStatusDir("e1");
  ASSERT_TRUE(runUntil([&] { return up(m) && statuses->xactStatus().size() == 100; }));
  EXPECT_EQ(configs["e1"]->xactConfig().size(), 100u);
  for (U32 id = 1; id <= 100; ++id) {
    XactStatus st = statuses->xactStatus(id);
    EXPECT_EQ(st.statusVersion, configs["e1"]->xactConfig(id).configVersion) << id;
    EXPECT_EQ(st.result, id == 5 ? xactFailure : xactSuccess) << id;
  }

  // The new coordinator carries on with the same executor.
  auto dir = xactDirFactory("xacts");
  auto x = dir->xactIs(1000);
  agg->doStartXact(x);
  ASSERT_TRUE(runUntil([&] { return x->finished(); }));
  EXPECT_EQ(x->result(), xactSuccess);
  ::close(done[0]);
  ::close(done[1]);
}

}  // namespace
