// Transactions across processes through Redis, against the same run in one
// process and against a floor: the same Redis commands issued by bare
// hiredis clients.
//
// Each case has one coordinator (this process) and 1, 4 or 16 executors;
// an iteration starts a burst of transactions at once and waits until every
// one has finished. items_per_second is transactions per second; p50_ms and
// p99_ms are the start-to-finish latencies of the transactions of all
// bursts.
//   XactRedis_Olk/N          executors are forked agents, each with its own
//                            loop and mirror; the coordinator's mirror too.
//   XactRedis_InProcess/N    the executors share the coordinator's
//                            directories and loop: no Redis at all.
//   XactRedis_HiredisFloor/N per burst and executor: MULTI, HSET of the
//                            configurations, PUBLISH, EXEC; each executor
//                            process reads the change, HMGETs the fields and
//                            answers the same way; the coordinator HMGETs
//                            the statuses. Blocking hiredis, no loop, no
//                            state machines.
// One private redis-server (Unix socket) serves every case, each under a key
// prefix of its own. Forking and connecting happen before the timing.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <sstream>

#include "Olk/XactDirMirror.h"
#include "RedisTestSupport.h"
#include "XactBenchSupport.h"

namespace {

using namespace Olk;
using OlkTest::ChildProcess;
using OlkTest::RedisServer;

constexpr U32 burst = 200;
constexpr Seconds patience = 120.0;

double monotonicNow() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

RedisServer& server() {
  static RedisServer s;
  if (!s.running()) s.start();
  return s;
}

String freshPrefix() {
  static int run = 0;
  return "olkbench" + std::to_string(run++) + ":";
}

String executorName(int k) { return "e" + std::to_string(k); }

void reportLatency(benchmark::State& state, std::vector<double>& latencies) {
  std::sort(latencies.begin(), latencies.end());
  if (latencies.empty()) return;
  state.counters["p50_ms"] = latencies[latencies.size() / 2] * 1e3;
  state.counters["p99_ms"] = latencies[latencies.size() * 99 / 100] * 1e3;
  state.SetItemsProcessed(static_cast<int64_t>(latencies.size()));
}

// Records when a transaction finishes, relative to its burst's start.
class FinishTimer : public Xact::Notifiee {
 public:
  FinishTimer(const Ptr<Xact>& x, double start, std::vector<double>* out) : start_(start), out_(out) {
    notifierIs(x);
  }
  void onStatusVersion() override {
    if (notifier()->finished()) out_->push_back(monotonicNow() - start_);
  }

 private:
  double start_;
  std::vector<double>* out_;
};

// Runs one burst through `agg` and waits for it; answers the latencies.
std::vector<double> runBurst(Zum::ActivityManager& loop, XactAggregatorSm& agg, XactDir& dir, U32* nextId) {
  std::vector<double> latencies;
  std::vector<std::unique_ptr<FinishTimer>> timers;
  const double start = monotonicNow();
  for (U32 i = 0; i < burst; ++i) {
    Ptr<Xact> x = dir.xactIs((*nextId)++);
    timers.push_back(std::make_unique<FinishTimer>(x, start, &latencies));
    agg.doStartXact(x);
  }
  if (!loop.runUntil([&] { return latencies.size() == burst; }, patience)) throw std::runtime_error("burst lost");
  return latencies;
}

// The timed loop shared by the Olk and in-process cases; one untimed burst
// first, so every executor is known to answer.
void runBursts(benchmark::State& state, Zum::ActivityManager& loop, XactAggregatorSm& agg) {
  auto dir = xactDirFactory("xacts");
  U32 nextId = 0;
  runBurst(loop, agg, *dir, &nextId);
  std::vector<double> all;
  for (auto _ : state) {
    std::vector<double> l = runBurst(loop, agg, *dir, &nextId);
    all.insert(all.end(), l.begin(), l.end());
  }
  reportLatency(state, all);
}

void XactRedis_Olk(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const String prefix = freshPrefix();
  const RedisAddress address = RedisAddress::unixSocket(server().socketPath());
  std::vector<ChildProcess> executors;
  for (int k = 0; k < n; ++k) {
    executors.emplace_back([&, k] {
      auto loop = Zum::activityManagerFactory();
      auto mirror = xactDirMirrorFactory(executorName(k), address, prefix, loop);
      auto status = xactStatusDirFactory(executorName(k));
      mirror->publishedStatusDirIs(status);
      auto exec = Zum::create<OlkBench::SuccessExecutor>(executorName(k), mirror->followedConfigDirIs(executorName(k)),
                                               status, loop->clock());
      loop->run();
    });
  }
  auto loop = Zum::activityManagerFactory();
  auto mirror = xactDirMirrorFactory("coord", address, prefix, loop);
  auto agg = xactAggregatorSmFactory("coord", loop->clock());
  for (int k = 0; k < n; ++k) {
    auto config = xactConfigDirFactory(executorName(k));
    mirror->publishedConfigDirIs(config);
    agg->xactConfigDirIs(config);
    agg->xactStatusDirIs(mirror->followedStatusDirIs(executorName(k)));
  }
  runBursts(state, *loop, *agg);
}

void XactRedis_InProcess(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  auto loop = Zum::activityManagerFactory();
  auto agg = xactAggregatorSmFactory("coord", loop->clock());
  std::vector<Ptr<XactExecutorSm>> executors;
  for (int k = 0; k < n; ++k) {
    auto config = xactConfigDirFactory(executorName(k));
    auto status = xactStatusDirFactory(executorName(k));
    agg->xactConfigDirIs(config);
    agg->xactStatusDirIs(status);
    executors.push_back(Zum::create<OlkBench::SuccessExecutor>(executorName(k), config, status, loop->clock()));
  }
  runBursts(state, *loop, *agg);
}

// --- the floor: blocking hiredis, the same commands -----------------------

class Client {
 public:
  Client() : c_(redisConnectUnix(server().socketPath().c_str())) {
    if (!c_ || c_->err) throw std::runtime_error("cannot connect");
    timeval tv{30, 0};
    redisSetTimeout(c_, tv);
  }
  ~Client() { redisFree(c_); }
  void append(const std::vector<String>& argv) {
    std::vector<const char*> args;
    std::vector<size_t> lens;
    for (const auto& a : argv) {
      args.push_back(a.data());
      lens.push_back(a.size());
    }
    redisAppendCommandArgv(c_, int(args.size()), args.data(), lens.data());
  }
  // The next reply; the caller frees it.
  redisReply* next() {
    void* r = nullptr;
    if (redisGetReply(c_, &r) != REDIS_OK) throw std::runtime_error(String("redis connection lost: ") + c_->errstr);
    return static_cast<redisReply*>(r);
  }
  void skip(int n) {
    while (n-- > 0) freeReplyObject(next());
  }

 private:
  redisContext* c_;
};

// MULTI, HSET key fields, PUBLISH key ids, EXEC.
void appendWrite(Client& c, const String& key, const std::vector<std::pair<U32, String>>& entries) {
  std::vector<String> hset{"HSET", key};
  String ids;
  for (const auto& [id, text] : entries) {
    hset.push_back(std::to_string(id));
    hset.push_back(text);
    ids += (ids.empty() ? "" : " ") + std::to_string(id);
  }
  c.append({"MULTI"});
  c.append(hset);
  c.append({"PUBLISH", key, ids});
  c.append({"EXEC"});
}

// Waits for a message on `sub` and HMGETs the fields it names from `cmd`:
// answers the channel and the (id, text) pairs read.
std::pair<String, std::vector<std::pair<U32, String>>> readChange(Client& sub, Client& cmd) {
  for (;;) {
    redisReply* m = sub.next();
    bool message = m->type == REDIS_REPLY_ARRAY && m->elements == 3 && String(m->element[0]->str) == "message";
    if (!message) {
      freeReplyObject(m);
      continue;
    }
    const String channel = m->element[1]->str;
    std::vector<String> argv{"HMGET", channel};
    std::istringstream in(m->element[2]->str);
    std::vector<U32> ids;
    for (U32 id; in >> id;) {
      ids.push_back(id);
      argv.push_back(std::to_string(id));
    }
    freeReplyObject(m);
    cmd.append(argv);
    redisReply* r = cmd.next();
    std::vector<std::pair<U32, String>> out;
    for (std::size_t i = 0; i < r->elements && i < ids.size(); ++i) {
      if (r->element[i]->str) out.emplace_back(ids[i], r->element[i]->str);
    }
    freeReplyObject(r);
    return {channel, out};
  }
}

void subscribe(Client& sub, const String& channel) {
  sub.append({"SUBSCRIBE", channel});
  sub.skip(1);
}

// Pub/sub keeps nothing for late subscribers: waits until `channel` has one.
void waitSubscribed(Client& cmd, const String& channel) {
  for (;;) {
    cmd.append({"PUBSUB", "NUMSUB", channel});
    redisReply* r = cmd.next();
    const bool subscribed = r->elements == 2 && r->element[1]->integer > 0;
    freeReplyObject(r);
    if (subscribed) return;
    usleep(1000);
  }
}

[[noreturn]] void floorExecutor(const String& prefix, int k) {
  Client sub;
  Client cmd;
  const String configKey = prefix + "config:" + executorName(k);
  const String statusKey = prefix + "status:" + executorName(k);
  subscribe(sub, configKey);
  for (;;) {
    auto [channel, configs] = readChange(sub, cmd);
    std::vector<std::pair<U32, String>> statuses;
    for (const auto& [id, text] : configs) {
      XactConfig c = strepToValue<XactConfig>(text);
      statuses.emplace_back(id, valueToStrep(XactStatus(id, xactSuccess, "", c.configVersion)));
    }
    appendWrite(cmd, statusKey, statuses);
    cmd.skip(4);
  }
}

void XactRedis_HiredisFloor(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const String prefix = freshPrefix();
  server();  // started here, so the executors find it running rather than start their own
  std::vector<ChildProcess> executors;
  for (int k = 0; k < n; ++k) executors.emplace_back([&, k] { floorExecutor(prefix, k); });
  Client sub;
  Client cmd;
  for (int k = 0; k < n; ++k) {
    subscribe(sub, prefix + "status:" + executorName(k));
    waitSubscribed(cmd, prefix + "config:" + executorName(k));
  }

  U32 nextId = 0;
  auto runFloorBurst = [&] {
    std::vector<double> latencies;
    std::map<U32, int> answers;
    const double start = monotonicNow();
    std::vector<std::pair<U32, String>> configs;
    for (U32 i = 0; i < burst; ++i, ++nextId) configs.emplace_back(nextId, valueToStrep(XactConfig(nextId, 1)));
    for (int k = 0; k < n; ++k) appendWrite(cmd, prefix + "config:" + executorName(k), configs);
    cmd.skip(4 * n);
    while (latencies.size() < burst) {
      for (const auto& [id, text] : readChange(sub, cmd).second) {
        if (strepToValue<XactStatus>(text).statusVersion == 1 && ++answers[id] == n) {
          latencies.push_back(monotonicNow() - start);
        }
      }
    }
    return latencies;
  };
  runFloorBurst();
  std::vector<double> all;
  for (auto _ : state) {
    std::vector<double> l = runFloorBurst();
    all.insert(all.end(), l.begin(), l.end());
  }
  reportLatency(state, all);
}

void executorCounts(benchmark::internal::Benchmark* b) {
  b->Arg(1)->Arg(4)->Arg(16)->Iterations(20)->Unit(benchmark::kMillisecond)->UseRealTime();
}

BENCHMARK(XactRedis_Olk)->Apply(executorCounts);
BENCHMARK(XactRedis_InProcess)->Apply(executorCounts);
BENCHMARK(XactRedis_HiredisFloor)->Apply(executorCounts);

}  // namespace

BENCHMARK_MAIN();
