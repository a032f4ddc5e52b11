// Transactions end to end, and the executor's slice length under a burst.
//
// BM_XactEndToEnd: one aggregator and 1, 4 or 16 clocked executors on the
// real activity loop; each iteration starts a batch of transactions and runs
// the loop until every one has finished. items_per_second is transactions
// per second.
//
// BM_ExecutorSlice: a burst of 10^5 configurations for one clocked executor;
// slices are run back to back on the wall clock until the backlog is empty.
// Reports the number of slices and the mean and longest slice against
// backlogQuantum (all in milliseconds).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "Olk/XactLib.h"
#include "XactBenchSupport.h"
#include "platform/ActivityManager.h"

namespace {

using namespace Olk;

class FinishCounter : public Xact::Notifiee {
 public:
  FinishCounter(const Ptr<Xact>& x, U64* total) : total_(total) { notifierIs(x); }
  void onStatusVersion() override {
    if (notifier()->finished()) ++*total_;
  }

 private:
  U64* total_;
};

void BM_XactEndToEnd(benchmark::State& state) {
  constexpr U32 batch = 1000;
  const int executors = static_cast<int>(state.range(0));
  Ptr<Zum::ActivityManager> loop = Zum::activityManager();
  Ptr<XactAggregatorSm> agg = xactAggregatorSmFactory("agg", loop->clock());
  std::vector<Ptr<XactExecutorSm>> execs;
  for (int i = 0; i < executors; ++i) {
    const String name = "e" + std::to_string(i);
    Ptr<XactConfigDir> c = xactConfigDirFactory(name);
    Ptr<XactStatusDir> s = xactStatusDirFactory(name);
    agg->xactConfigDirIs(c);
    agg->xactStatusDirIs(s);
    execs.push_back(Zum::create<OlkBench::SuccessExecutor>(name, c, s, loop->clock()));
  }
  std::vector<Ptr<Xact>> xacts;
  std::vector<std::unique_ptr<FinishCounter>> counters;
  U64 finished = 0;
  for (U32 id = 1; id <= batch; ++id) {
    xacts.push_back(xactFactory(id));
    counters.push_back(std::make_unique<FinishCounter>(xacts.back(), &finished));
  }
  U64 target = 0;
  for (auto _ : state) {
    target += batch;
    for (const Ptr<Xact>& x : xacts) agg->doStartXact(x);
    if (!loop->runUntil([&] { return finished >= target; }, 60.0)) {
      state.SkipWithError("transactions did not finish");
      break;
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * batch);
}
BENCHMARK(BM_XactEndToEnd)->Arg(1)->Arg(4)->Arg(16)->Unit(benchmark::kMillisecond);

void BM_ExecutorSlice(benchmark::State& state) {
  constexpr U32 burst = 100000;
  const Seconds quantum = static_cast<Seconds>(state.range(0)) * 1e-3;
  Ptr<Zum::SystemClock> clock = Zum::systemClockFactory();
  double slices = 0, meanMs = 0, maxMs = 0;
  // Set up and torn down outside the timing: only the slices are measured.
  Ptr<XactConfigDir> c;
  Ptr<OlkBench::SuccessExecutor> exec;
  for (auto _ : state) {
    state.PauseTiming();
    exec = nullptr;
    c = xactConfigDirFactory("c");
    exec = Zum::create<OlkBench::SuccessExecutor>("e", c, xactStatusDirFactory("s"), clock);
    exec->backlogQuantumIs(quantum);
    for (U32 id = 0; id < burst; ++id) c->xactConfigIs(XactConfig(id, 1));
    state.ResumeTiming();
    Seconds longest = 0;
    while (exec->backlogCount() != 0) {
      const Seconds start = clock->now();
      clock->fireDue(start);
      longest = std::max(longest, clock->now() - start);
    }
    slices = static_cast<double>(exec->dispatchCount());
    meanMs = exec->timeUsed() / slices * 1e3;
    maxMs = std::max(maxMs, longest * 1e3);
  }
  state.counters["slices"] = slices;
  state.counters["meanSliceMs"] = meanMs;
  state.counters["maxSliceMs"] = maxMs;
  state.counters["quantumMs"] = quantum * 1e3;
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * burst);
}
BENCHMARK(BM_ExecutorSlice)->Arg(0)->Arg(1)->Arg(10)->Arg(100)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
