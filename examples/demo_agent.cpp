// demo_agent: a small agent that shows libOlk at work end to end.
//
//   demo_agent [--name NAME] [--seed N]
//
// It serves operator commands on the abstract socket "\0s<NAME>" (default
// "demo") and keeps the library's components busy with a synthetic workload
// on its single event-loop thread. Talk to it with olkctl:
//
//   olkctl demo help          # the registered commands
//   olkctl demo stats         # loop and workload statistics
//   olkctl demo dump          # every component's state
//   olkctl demo dump gz /tmp/demo.gz
//   olkctl demo shutdown      # stops cleanly (so do SIGTERM and SIGINT)
//
// Each part of the workload is a `DemoModule`: it starts its work, registers
// its own commands and writes its state into dumps. Adding a component to
// the demo means adding one module and one line in `DemoAgent::DemoAgent`.
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Olk/AgentSocketHandler.h"
#include "Olk/DumpContext.h"
#include "Olk/SimpleAgentSocketHandler.h"
#include "platform/ActivityManager.h"
#include "platform/Clock.h"
#include "platform/Format.h"

using namespace Olk;

namespace {

// What every module may use: the loop, its clock and the command table.
struct DemoEnv {
  Ptr<Zum::ActivityManager> loop;
  Ptr<Zum::Clock> clock;
  Ptr<SimpleAgentSocketHandler> commands;
};

class DemoModule {
 public:
  virtual ~DemoModule() = default;
  virtual const char* name() const = 0;
  // One or more lines for the "stats" command.
  virtual String stats() const = 0;
  virtual void dump(const Ptr<const DumpContext>& ctx) const = 0;
};

// Splits command arguments at blanks, dropping empty words.
std::vector<String> words(const String& args) {
  std::istringstream in(args);
  std::vector<String> out;
  for (String w; in >> w;) out.push_back(w);
  return out;
}

// A periodic heartbeat on the loop's clock: the simplest reactor there is.
class HeartbeatModule : public DemoModule, private Zum::Clock::Notifiee {
 public:
  static constexpr Seconds period = 0.1;

  explicit HeartbeatModule(DemoEnv& env) : started_(env.clock->now()) {
    notifierIs(env.clock);
    timeMinIs(env.clock->now() + period);
  }
  const char* name() const override { return "heartbeat"; }
  String stats() const override {
    return Zum::format("heartbeat: beats %llu uptime %.1f s\n", static_cast<unsigned long long>(beats_),
                       notifier()->now() - started_);
  }
  void dump(const Ptr<const DumpContext>& ctx) const override {
    objDumpPrintf(ctx, "Heartbeat period: %g beats: %llu\n", period,
                  static_cast<unsigned long long>(beats_));
  }

 private:
  void onTime() override {
    ++beats_;
    timeMinIs(notifier()->now() + period);
  }

  Seconds started_;
  U64 beats_ = 0;
};

class DemoAgent {
 public:
  explicit DemoAgent(const String& name) {
    env_.loop = Zum::activityManager();
    env_.clock = env_.loop->clock();
    env_.commands = simpleAgentSocketHandlerFactory(name);
    modules_.push_back(std::make_unique<HeartbeatModule>(env_));
    registerAgentCommands();
    watchSignals();
  }

  void run() { env_.loop->run(); }

 private:
  void registerAgentCommands() {
    env_.commands->commandIs("stats", "statistics of the loop and every workload",
                             [this](const CommandRequest&) { return statsText(); });
    env_.commands->commandIs(
        "dump", "dump [verbose] [gz <path>]: every component's state, here or to a gzip file",
        [this](const CommandRequest& r) { return dump(r); });
    env_.commands->commandIs("shutdown", "stops the agent cleanly", [this](const CommandRequest&) {
      env_.loop->stop();
      return String("shutting down\n");
    });
  }

  String statsText() const {
    String text = Zum::format("loop: descriptors %zu\n", env_.loop->fileDescriptorCount());
    for (const auto& m : modules_) text += m->stats();
    return text;
  }

  void dumpAll(const Ptr<const DumpContext>& ctx) const {
    env_.commands->agentSocketHandlerSm()->dumpState(ctx, ctx->level());
    for (const auto& m : modules_) m->dump(ctx);
  }

  String dump(const CommandRequest& r) const {
    std::vector<String> w = words(r.args);
    DumpLevel level = dumpNormal;
    if (!w.empty() && w.front() == "verbose") {
      level = dumpVerbose;
      w.erase(w.begin());
    }
    if (w.empty()) {
      dumpAll(DumpContext::dumpContext(r.clientFd, level, false));
      return "";
    }
    if (w.size() != 2 || w[0] != "gz") throw CommandError("usage: dump [verbose] [gz <path>]");
    gzFile gz = openCompressedDumpFile(w[1].c_str());
    if (!gz) throw CommandError("cannot open " + w[1]);
    dumpAll(dumpContextFactory(0, gz, level));
    closeCompressedDumpFile(gz);
    return "dumped to " + w[1] + "\n";
  }

  // SIGTERM and SIGINT stop the loop like "shutdown" does.
  void watchSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    signals_ = env_.loop->fileDescriptorNew(signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
    signalReactor_.agent = this;
    signalReactor_.notifierIs(signals_);
  }

  struct SignalReactor : Zum::FileDescriptor::Notifiee {
    DemoAgent* agent = nullptr;
    void onReadable() override {
      signalfd_siginfo info;
      if (read(notifier()->fd(), &info, sizeof(info)) != sizeof(info)) return;
      fprintf(stderr, "demo_agent: signal %u, stopping\n", info.ssi_signo);
      agent->env_.loop->stop();
    }
  };

  DemoEnv env_;
  std::vector<std::unique_ptr<DemoModule>> modules_;
  Ptr<Zum::FileDescriptor> signals_;
  SignalReactor signalReactor_;
};

const char* const usageText =
    "usage: demo_agent [--name NAME] [--seed N]\n"
    "Serves operator commands on the abstract socket \"\\0s<NAME>\" (default demo);\n"
    "try: olkctl demo help\n";

}  // namespace

int main(int argc, char** argv) {
  String name = "demo";
  unsigned seed = 1;
  for (int i = 1; i < argc; ++i) {
    const String opt = argv[i];
    if (opt == "-h" || opt == "--help") {
      fputs(usageText, stdout);
      return 0;
    }
    if (i + 1 == argc || (opt != "--name" && opt != "--seed")) {
      fputs(usageText, stderr);
      return 1;
    }
    if (opt == "--name") name = argv[++i];
    if (opt == "--seed") seed = static_cast<unsigned>(strtoul(argv[++i], nullptr, 10));
  }
  srand(seed);
  DemoAgent agent(name);
  printf("demo_agent: serving commands on \\0s%s (pid %d)\n", name.c_str(), getpid());
  fflush(stdout);
  agent.run();
  printf("demo_agent: stopped\n");
  return 0;
}
