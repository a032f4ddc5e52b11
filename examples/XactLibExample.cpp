// An aggregator with three executors on the activity loop: starts a batch of
// transactions, some ordered behind others, and prints how each one ended.
#include <cstdio>
#include <memory>
#include <vector>

#include "Olk/XactLib.h"
#include "platform/ActivityManager.h"

namespace {

using namespace Olk;

// Programs a pretend table; refuses entries whose id is a multiple of 5.
class TableExecutor : public XactExecutorSm {
 public:
  TableExecutor(const Zum::Name& name, const Ptr<const XactConfigDir>& c, const Ptr<XactStatusDir>& s,
                const Ptr<Zum::Clock>& clock)
      : XactExecutorSm(name, c, s, clock) {}
  ExecResult doExecute(const XactConfig& cfg) override {
    if (cfg.id % 5 == 0) return ExecResult(xactFailure, name() + " has no room for entry " + std::to_string(cfg.id));
    return ExecResult(xactSuccess);
  }
};

class Finished : public Xact::Notifiee {
 public:
  Finished(const Ptr<Xact>& x, int* count) : count_(count) { notifierIs(x); }
  void onStatusVersion() override {
    if (notifier()->finished()) ++*count_;
  }

 private:
  int* count_;
};

}  // namespace

int main() {
  Ptr<Zum::ActivityManager> loop = Zum::activityManager();
  Ptr<XactAggregatorSm> agg = xactAggregatorSmFactory("coordinator", loop->clock());
  agg->timeoutIs(5.0);
  agg->pollingIntervalIs(0.1);

  std::vector<Ptr<XactExecutorSm>> executors;
  for (const char* name : {"linecard1", "linecard2", "fabric"}) {
    Ptr<XactConfigDir> c = xactConfigDirFactory(name);
    Ptr<XactStatusDir> s = xactStatusDirFactory(name);
    agg->xactConfigDirIs(c);
    agg->xactStatusDirIs(s);
    executors.push_back(Zum::create<TableExecutor>(name, c, s, loop->clock()));
  }

  Ptr<XactDir> xacts = xactDirFactory("batch");
  std::vector<std::unique_ptr<Finished>> watchers;
  int finished = 0;
  constexpr U32 count = 12;
  for (U32 id = 1; id <= count; ++id) {
    Ptr<Xact> x = xacts->xactIs(id);
    // Every third transaction waits for the one before it and gives up if
    // that one fails.
    if (id % 3 == 0) {
      x->blockingXactIs(xacts->xactIs(id - 1));
      x->failIfBlockingXactFailsIs(true);
    }
    watchers.push_back(std::make_unique<Finished>(x, &finished));
  }
  for (const auto& [id, x] : xacts->xact()) agg->doStartXact(x);

  if (!loop->runUntil([&] { return finished == static_cast<int>(count); }, 10.0)) {
    std::printf("only %d of %u transactions finished\n", finished, count);
    return 1;
  }
  for (const auto& [id, x] : xacts->xact()) {
    std::printf("xact %2u: %-12s", id, stringValue(x->result()).c_str());
    for (const auto& [source, text] : x->comment()) std::printf("  [%s] %s", source.c_str(), text.c_str());
    std::printf("\n");
  }
  return 0;
}
