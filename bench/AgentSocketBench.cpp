// Round trips through the agent command socket: connect, send one command,
// read the reply to the end of stream. The agent runs its loop on its own
// thread, as it would in its own process; clients are benchmark threads.
// Reported: commands per second (items_per_second) and latency percentiles
// in microseconds, averaged over client threads.
#include <benchmark/benchmark.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "Olk/AgentSocketHandler.h"
#include "platform/Entity.h"

namespace {

const std::string socketName = "olkbench-" + std::to_string(getpid());

class PingCallback : public Olk::AgentSocketCallback {
 private:
  template <class T, class... A>
  friend Olk::Ptr<T> Zum::create(A&&...);
  PingCallback() : AgentSocketCallback("ping", "ping") {}
  void handleCommand(Olk::U32 clientFd, const Olk::String&) override {
    Olk::writeToClient(static_cast<int>(clientFd), "pong\n");
  }
};

// The agent: its own thread and loop, until the program ends.
class Agent {
 public:
  Agent() : thread_([this] { serve(); }) {
    while (!ready_) std::this_thread::yield();
  }
  ~Agent() {
    stop_ = true;
    thread_.join();
  }

 private:
  void serve() {
    auto handler = Olk::agentSocketHandlerSmFactory(socketName);
    handler->maxClientsIs(1024);
    handler->agentSocketCallbackIs(Zum::create<PingCallback>());
    ready_ = true;
    auto loop = Zum::activityManager();
    while (!stop_) loop->runOnce(0.05);
  }

  std::atomic<bool> ready_{false};
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

bool roundTrip() {
  int sock = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  const std::string path = "s" + socketName;
  memcpy(addr.sun_path + 1, path.data(), path.size());
  const socklen_t len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + path.size());
  bool ok = connect(sock, reinterpret_cast<sockaddr*>(&addr), len) == 0 &&
            send(sock, "ping", 4, MSG_NOSIGNAL) == 4;
  char buf[64];
  size_t got = 0;
  for (ssize_t n; ok && (n = recv(sock, buf, sizeof(buf), 0)) > 0;) got += static_cast<size_t>(n);
  close(sock);
  return ok && got == 5;
}

double percentile(std::vector<double>& v, double p) {
  if (v.empty()) return 0;
  const size_t i = std::min(v.size() - 1, static_cast<size_t>(p * static_cast<double>(v.size())));
  std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(i), v.end());
  return v[i];
}

void BM_CommandRoundTrip(benchmark::State& state) {
  static Agent agent;
  std::vector<double> micros;
  micros.reserve(100000);
  Olk::U64 failures = 0;
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    failures += !roundTrip();
    micros.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count());
  }
  state.SetItemsProcessed(state.iterations());
  const auto avg = benchmark::Counter::kAvgThreads;
  state.counters["p50_us"] = benchmark::Counter(percentile(micros, 0.50), avg);
  state.counters["p90_us"] = benchmark::Counter(percentile(micros, 0.90), avg);
  state.counters["p99_us"] = benchmark::Counter(percentile(micros, 0.99), avg);
  state.counters["failures"] = static_cast<double>(failures);
}
BENCHMARK(BM_CommandRoundTrip)->Threads(1)->Threads(32)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
