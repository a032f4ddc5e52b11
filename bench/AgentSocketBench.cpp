// Round trips through the agent command socket against floors: connect,
// send one command, read the reply to the end of stream.
//
// - `Command_Olk`: an AgentSocketHandlerSm serving "ping" on its activity loop.
// - `Command_CFloor`: the least a server can do for the same protocol, a
//   plain C loop of blocking accept4, recv, send and close, with no event
//   loop, no send-buffer sizing and no SIGPIPE handling.
// - `Command_CEpollFloor`: the same in C on an epoll loop that never blocks
//   (accept4, register, wait for readability, recv, send, deregister,
//   close), the floor for any server that shares its thread with other work,
//   as an agent's loop does. Blocking calls wake their sleeper with a hint
//   that keeps client and server on one CPU, while epoll's wake-ups do not,
//   so the clients of an event loop block and wake more often
//   (client_waits_per_cmd shows it); the two floors apart measure that cost.
// Each server has its own thread, as it would have its own process; the
// clients are the benchmark threads and run the same code against all three,
// one at a time and four at once (within the listen backlog of 5, beyond
// which the kernel makes connecting clients wait for reasons of its own).
// Reported: commands per second (items_per_second), latency percentiles in
// microseconds averaged over client threads, the whole process's CPU time
// per command (servers and clients together) and the times a client blocked
// per command. Compare them as ratios. On a shared machine the rate follows
// the few commands whose server thread waited a time slice for a busy CPU,
// so it swings from run to run; the median latency and the CPU time per
// command are the figures that reproduce.
#include <benchmark/benchmark.h>
#include <stddef.h>
#include <string.h>
#include <errno.h>
#include <sys/epoll.h>
#include <sys/resource.h>
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

constexpr char command[] = "ping";
constexpr char reply[] = "pong\n";

std::string socketName(const char* impl) {
  return std::string("olkbench-") + impl + "-" + std::to_string(getpid());
}

socklen_t abstractAddress(const std::string& name, sockaddr_un& addr) {
  addr = sockaddr_un{};
  addr.sun_family = AF_UNIX;
  const std::string path = "s" + name;
  memcpy(addr.sun_path + 1, path.data(), path.size());
  return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + path.size());
}

class PingCallback : public Olk::AgentSocketCallback {
 private:
  template <class T, class... A>
  friend Olk::Ptr<T> Zum::create(A&&...);
  PingCallback() : AgentSocketCallback("ping", command) {}
  void handleCommand(Olk::U32 clientFd, const Olk::String&) override {
    Olk::writeToClient(static_cast<int>(clientFd), reply);
  }
};

// The agent: its own thread and loop, until the program ends.
class OlkServer {
 public:
  const std::string name = socketName("olk");

  OlkServer() : thread_([this] { serve(); }) {
    while (!ready_) std::this_thread::yield();
  }
  ~OlkServer() {
    stop_ = true;
    thread_.join();
  }

 private:
  void serve() {
    auto handler = Olk::agentSocketHandlerSmFactory(name);
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

// A listening abstract socket, as the agent makes it; fatal on failure.
int listenOn(const std::string& name, int flags) {
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
  sockaddr_un addr;
  const socklen_t len = abstractAddress(name, addr);
  if (listener < 0 || bind(listener, reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
      listen(listener, 5) != 0) {
    perror("floor server");
    abort();
  }
  return listener;
}

// Answers "ping" on a connected socket; true when it was a ping.
bool answer(int fd, const char* buf, ssize_t n) {
  if (n != sizeof(command) - 1 || memcmp(buf, command, sizeof(command) - 1) != 0) return false;
  send(fd, reply, sizeof(reply) - 1, MSG_NOSIGNAL);
  return true;
}

// The blocking floor: one command per connection in four system calls.
class CFloorServer {
 public:
  const std::string name = socketName("cfloor");

  CFloorServer() : listener_(listenOn(name, 0)), thread_([this] { serve(); }) {}
  ~CFloorServer() {
    shutdown(listener_, SHUT_RDWR);  // wakes the blocked accept
    thread_.join();
    close(listener_);
  }

 private:
  void serve() {
    char buf[Olk::AgentSocketHandlerSm::maxCommandBytes + 1];
    for (;;) {
      const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) return;
      answer(fd, buf, recv(fd, buf, sizeof(buf) - 1, 0));
      close(fd);
    }
  }

  const int listener_;
  std::thread thread_;
};

// The event-loop floor: what any server on a loop that must never block
// needs per connection.
class CEpollFloorServer {
 public:
  const std::string name = socketName("cepollfloor");

  CEpollFloorServer()
      : listener_(listenOn(name, SOCK_NONBLOCK)), epoll_(epoll_create1(EPOLL_CLOEXEC)) {
    watch(listener_);
    thread_ = std::thread([this] { serve(); });
  }
  ~CEpollFloorServer() {
    stop_ = true;
    thread_.join();
    close(epoll_);
    close(listener_);
  }

 private:
  void watch(int fd) {
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &ev);
  }
  void serve() {
    char buf[Olk::AgentSocketHandlerSm::maxCommandBytes + 1];
    epoll_event events[64];
    while (!stop_) {
      const int n = epoll_wait(epoll_, events, 64, 50);
      for (int i = 0; i < n; ++i) {
        const int fd = events[i].data.fd;
        if (fd == listener_) {
          const int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
          if (client >= 0) watch(client);
          continue;
        }
        const ssize_t got = recv(fd, buf, sizeof(buf) - 1, 0);
        if (got < 0 && errno == EAGAIN) continue;
        answer(fd, buf, got);
        epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, nullptr);
        close(fd);
      }
    }
  }

  const int listener_;
  const int epoll_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

bool roundTrip(const std::string& name) {
  const int sock = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr;
  const socklen_t len = abstractAddress(name, addr);
  bool ok = connect(sock, reinterpret_cast<sockaddr*>(&addr), len) == 0 &&
            send(sock, command, sizeof(command) - 1, MSG_NOSIGNAL) == sizeof(command) - 1;
  char buf[64];
  size_t got = 0;
  for (ssize_t n; ok && (n = recv(sock, buf, sizeof(buf), 0)) > 0;) got += static_cast<size_t>(n);
  close(sock);
  return ok && got == sizeof(reply) - 1;
}

double percentile(std::vector<double>& v, double p) {
  if (v.empty()) return 0;
  const size_t i = std::min(v.size() - 1, static_cast<size_t>(p * static_cast<double>(v.size())));
  std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(i), v.end());
  return v[i];
}

double cpuSeconds(const rusage& u) {
  auto seconds = [](const timeval& t) {
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6;
  };
  return seconds(u.ru_utime) + seconds(u.ru_stime);
}

rusage usage(int who) {
  rusage u{};
  getrusage(who, &u);
  return u;
}

void runClients(benchmark::State& state, const std::string& name) {
  const auto avg = benchmark::Counter::kAvgThreads;
  std::vector<double> micros;
  micros.reserve(100000);
  Olk::U64 failures = 0;
  const rusage processBefore = usage(RUSAGE_SELF);
  const rusage threadBefore = usage(RUSAGE_THREAD);
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    failures += !roundTrip(name);
    micros.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count());
  }
  state.SetItemsProcessed(state.iterations());
  const double waits = static_cast<double>(usage(RUSAGE_THREAD).ru_nvcsw - threadBefore.ru_nvcsw);
  state.counters["client_waits_per_cmd"] =
      benchmark::Counter(waits / static_cast<double>(state.iterations()), avg);
  if (state.thread_index() == 0) {  // process-wide, counted once
    const double commands = static_cast<double>(state.iterations()) * state.threads();
    const double cpu = cpuSeconds(usage(RUSAGE_SELF)) - cpuSeconds(processBefore);
    state.counters["cpu_us_per_cmd"] = cpu * 1e6 / commands;
  }
  state.counters["p50_us"] = benchmark::Counter(percentile(micros, 0.50), avg);
  state.counters["p99_us"] = benchmark::Counter(percentile(micros, 0.99), avg);
  state.counters["failures"] = static_cast<double>(failures);
}

void commandOlk(benchmark::State& state) {
  static OlkServer server;
  runClients(state, server.name);
}

void commandCFloor(benchmark::State& state) {
  static CFloorServer server;
  runClients(state, server.name);
}

void commandCEpollFloor(benchmark::State& state) {
  static CEpollFloorServer server;
  runClients(state, server.name);
}

BENCHMARK(commandOlk)->Name("Command_Olk")->Threads(1)->Threads(4)->UseRealTime();
BENCHMARK(commandCFloor)->Name("Command_CFloor")->Threads(1)->Threads(4)->UseRealTime();
BENCHMARK(commandCEpollFloor)->Name("Command_CEpollFloor")->Threads(1)->Threads(4)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
