// xact_agent: a coordinator or an executor of transactions, in its own
// process, sharing its transaction directories with the others through
// Redis. Each agent serves operator commands on its own socket (olkctl).
//
//   xact_agent --role coordinator --name coord --redis /tmp/r.sock --executors e1,e2,e3
//   xact_agent --role executor --name e1 --redis /tmp/r.sock [--fail-digit D]
//
// Coordinator commands: "start <n>" starts n transactions, "xacts" lists the
// latest ones with their outcome, "timeout <seconds>" sets the time-out.
// Executor commands: "status". Both: "redis" (connection state) and
// "shutdown".
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "Olk/SimpleAgentSocketHandler.h"
#include "Olk/XactDirMirror.h"
#include "platform/Format.h"

using namespace Olk;

namespace {

const char* const usageText =
    "usage: xact_agent --role coordinator|executor --name NAME --redis SOCKET\n"
    "                  [--prefix PREFIX] [--executors A,B,...] [--fail-digit D]\n"
    "Serves operator commands on the abstract socket \"\\0s<NAME>\"; try: olkctl NAME help\n";

struct Options {
  String role;
  String name;
  String redis;
  String prefix = "olk:demo:";
  std::vector<String> executors;
  int failDigit = -1;  // an executor fails the ids whose last decimal digit this is (-1: none)
};

const char* stateName(XactDirMirror::ConnectionState s) {
  switch (s) {
    case XactDirMirror::connectionDown:
      return "down (retrying)";
    case XactDirMirror::connectionSyncing:
      return "synchronising";
    case XactDirMirror::connectionUp:
      return "up";
  }
  return "?";
}

String xactLine(const Xact& x) {
  String text = Zum::format("xact %u: ", x.id());
  if (!x.finished()) return text + "in progress\n";
  text += x.result() == xactSuccess ? "success" : "failure";
  for (const auto& [dir, comment] : x.comment()) text += " " + dir + "=" + comment;
  return text + "\n";
}

class Agent {
 public:
  explicit Agent(const Options& o) : loop_(Zum::activityManager()), commands_(simpleAgentSocketHandlerFactory(o.name)) {
    mirror_ = xactDirMirrorFactory(o.name, RedisAddress::unixSocket(o.redis), o.prefix, loop_);
    commands_->commandIs("redis", "redis: the Redis connection", 0, 0, [this](const CommandArgs&) {
      return Zum::format("redis %s: %s, connected %llu times, %llu failed attempts, %zu writes pending\n",
                         mirror_->address().text().c_str(), stateName(mirror_->connectionState()),
                         (unsigned long long)mirror_->connectCount(),
                         (unsigned long long)mirror_->failedConnectCount(), mirror_->pendingWriteCount());
    });
    commands_->commandIs("shutdown", "shutdown: stops the agent", 0, 0, [this](const CommandArgs&) {
      loop_->stop();
      return String("shutting down\n");
    });
    if (o.role == "coordinator") {
      coordinator(o);
    } else {
      executor(o);
    }
  }

  void run() { loop_->run(); }

 private:
  void coordinator(const Options& o) {
    aggregator_ = xactAggregatorSmFactory(o.name, loop_->clock());
    aggregator_->timeoutIs(5.0);
    aggregator_->pollingIntervalIs(0.5);
    for (const String& e : o.executors) {
      auto config = xactConfigDirFactory(e);
      mirror_->publishedConfigDirIs(config);
      aggregator_->xactConfigDirIs(config);
      aggregator_->xactStatusDirIs(mirror_->followedStatusDirIs(e));
    }
    xacts_ = xactDirFactory(o.name);
    // Ids start from the time, so a restarted coordinator does not reuse
    // one whose old answers are still in Redis; a multiple of 1000 keeps
    // the demo's last digits predictable.
    nextId_ = static_cast<U32>(loop_->clock()->now()) % 1000000 * 1000;
    commands_->commandIs("start", "start <n>: starts n transactions", 1, 1, [this](const CommandArgs& a) {
      const U32 n = a.number(0, 1, 100000);
      for (U32 i = 0; i < n; ++i) start(nextId_++);
      return Zum::format("started %u, %zu in progress\n", n, aggregator_->inProgressXact().size());
    });
    commands_->commandIs("xacts", "xacts: the latest 10 transactions", 0, 0, [this](const CommandArgs&) {
      String text;
      int shown = 0;
      for (auto it = xacts_->xact().end(); it != xacts_->xact().begin() && shown < 10; ++shown) {
        text = xactLine(*(--it)->second) + text;
      }
      return text.empty() ? String("no transactions\n") : text;
    });
    commands_->commandIs("timeout", "timeout <seconds>: fail transactions older than this", 1, 1,
                         [this](const CommandArgs& a) {
                           const U32 t = a.number(0, 1, 3600);
                           aggregator_->timeoutIs(t);
                           return Zum::format("timeout %u s\n", t);
                         });
  }

  // Starts transaction `id`. When its run ends, its configurations are
  // withdrawn from every executor, and only the latest records are kept for
  // `xacts`, so a long-running coordinator stays bounded.
  void start(U32 id) {
    aggregator_->doStartXact(xacts_->xactIs(id), [this](const Xact& x) {
      aggregator_->doStopXact(x.id());
      while (xacts_->xactCount() > keptRecords) xacts_->xactDel(xacts_->xact().begin()->first);
    });
  }
  static constexpr std::size_t keptRecords = 100;

  void executor(const Options& o) {
    auto status = xactStatusDirFactory(o.name);
    mirror_->publishedStatusDirIs(status);
    // Answers every configuration at once; fails the ids it is told to.
    const String refusal = "refused by " + o.name;
    executor_ = xactExecutorSmFactory(o.name, mirror_->followedConfigDirIs(o.name), status, loop_->clock(),
                                      [this, failDigit = o.failDigit, refusal](const XactConfig& c) {
                                        ++executed_;
                                        if (int(c.id % 10) == failDigit) return ExecResult(xactFailure, refusal);
                                        return ExecResult(xactSuccess);
                                      });
    commands_->commandIs("status", "status: configurations seen and answered", 0, 0, [this](const CommandArgs&) {
      return Zum::format("configurations %zu, executed %llu, statuses %zu\n",
                         executor_->xactConfigDir()->xactConfig().size(),
                         (unsigned long long)executed_, executor_->xactStatusDir()->xactStatus().size());
    });
  }

  Ptr<Zum::ActivityManager> loop_;
  Ptr<SimpleAgentSocketHandler> commands_;
  Ptr<XactDirMirror> mirror_;
  Ptr<XactAggregatorSm> aggregator_;
  Ptr<XactDir> xacts_;
  U32 nextId_ = 0;
  Ptr<XactExecutorSm> executor_;
  U64 executed_ = 0;
};

Options parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    const String opt = argv[i];
    if (opt == "-h" || opt == "--help") {
      fputs(usageText, stdout);
      exit(0);
    }
    if (i + 1 == argc) break;
    const String value = argv[++i];
    if (opt == "--role") {
      o.role = value;
    } else if (opt == "--name") {
      o.name = value;
    } else if (opt == "--redis") {
      o.redis = value;
    } else if (opt == "--prefix") {
      o.prefix = value;
    } else if (opt == "--fail-digit") {
      o.failDigit = atoi(value.c_str());
    } else if (opt == "--executors") {
      std::istringstream in(value);
      for (String e; std::getline(in, e, ',');) o.executors.push_back(e);
    } else {
      o.role.clear();
      break;
    }
  }
  if ((o.role != "coordinator" && o.role != "executor") || o.name.empty() || o.redis.empty()) {
    fputs(usageText, stderr);
    exit(1);
  }
  return o;
}

}  // namespace

int main(int argc, char** argv) {
  const Options o = parse(argc, argv);
  Agent agent(o);
  printf("xact_agent: %s %s serving commands on \\0s%s (pid %d)\n", o.role.c_str(), o.name.c_str(), o.name.c_str(),
         getpid());
  fflush(stdout);
  agent.run();
  return 0;
}
