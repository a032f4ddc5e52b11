// Cost of one dispatch on the task scheduler against boost::asio.
//
// Each pair measures the same thing on both: one unit of work (a counter
// increment) posted and run (ours: scheduleTask() and one scheduler run, with
// every statistic the runtime keeps; Asio: post() and poll()), a batch of such
// units, and a unit that posts itself again from its run.
//
// The timer round trip has no peer: an Asio timer always passes through the
// kernel (timerfd and epoll, microseconds), while a timer task on the wheel
// of a manual clock never does, so a ratio between them would measure the
// system calls, not the dispatch. It runs alone, as a figure to watch.
//
// Names are <Operation>_<Impl>/<args>, the size last. cpu_time is the time
// of one iteration; where an iteration holds several operations,
// items_per_second counts the operations (their time is its inverse).

#include <benchmark/benchmark.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

#include <functional>
#include <vector>

#include "Olk/Task.h"

namespace {

using Olk::TaskPriority;

struct Counter : Olk::Task::NotifieeConst {
  Zum::U64 runs = 0;
  void onTaskRun() override { ++runs; }
};

void ScheduleAndRun_Olk(benchmark::State& state) {
  auto root = Olk::taskSchedulerRootFactory("bench");
  auto task = Olk::taskFactory(root, TaskPriority::normal, "empty");
  Counter c;
  c.notifierIs(task);
  for (auto _ : state) {
    task->scheduleTask();
    root->handleSchedulerRun();
  }
  benchmark::DoNotOptimize(c.runs);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(ScheduleAndRun_Olk);

// A task that yields and schedules itself again from its run, as a busy
// worker does; against a handler that posts itself again.
void RescheduleFromRun_Olk(benchmark::State& state) {
  auto root = Olk::taskSchedulerRootFactory("bench");
  auto task = Olk::taskFactory(root, TaskPriority::normal, "again");
  struct Again : Olk::Task::NotifieeConst {
    Zum::U64 left = 0;
    void onTaskRun() override {
      if (--left != 0) notifier()->scheduleTask();
    }
  } again;
  again.notifierIs(task);
  for (auto _ : state) {
    again.left = 1000;
    task->scheduleTask();
    while (again.left != 0) root->handleSchedulerRun();
  }
  state.SetItemsProcessed(state.iterations() * 1000);
}
BENCHMARK(RescheduleFromRun_Olk);

void RescheduleFromRun_Asio(benchmark::State& state) {
  boost::asio::io_context io;
  Zum::U64 left = 0;
  std::function<void()> again = [&] {
    if (--left != 0) boost::asio::post(io, again);
  };
  for (auto _ : state) {
    left = 1000;
    boost::asio::post(io, again);
    io.poll();
    io.restart();
  }
  state.SetItemsProcessed(state.iterations() * 1000);
}
BENCHMARK(RescheduleFromRun_Asio);

void ScheduleAndRun_Asio(benchmark::State& state) {
  boost::asio::io_context io;
  Zum::U64 runs = 0;
  for (auto _ : state) {
    boost::asio::post(io, [&runs] { ++runs; });
    io.poll();
    io.restart();
  }
  benchmark::DoNotOptimize(runs);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(ScheduleAndRun_Asio);

void BatchScheduleAndRun_Olk(benchmark::State& state) {
  auto root = Olk::taskSchedulerRootFactory("bench");
  root->dornRoot()->historyEntryCountIs(32);
  std::vector<Zum::Ptr<Olk::Task>> tasks;
  // One reactor per task, as every Asio handler does its own increment.
  std::vector<Counter> counters(state.range(0));
  for (Counter& c : counters) {
    tasks.push_back(Olk::taskFactory(root, TaskPriority::normal, "t"));
    c.notifierIs(tasks.back());
  }
  for (auto _ : state) {
    for (auto& t : tasks) t->scheduleTask();
    root->handleSchedulerRun();
  }
  benchmark::DoNotOptimize(counters.front().runs);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BatchScheduleAndRun_Olk)->Arg(10)->Arg(1000);

void BatchScheduleAndRun_Asio(benchmark::State& state) {
  boost::asio::io_context io;
  Zum::U64 runs = 0;
  for (auto _ : state) {
    for (int i = 0; i < state.range(0); ++i) boost::asio::post(io, [&runs] { ++runs; });
    io.poll();
    io.restart();
  }
  benchmark::DoNotOptimize(runs);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BatchScheduleAndRun_Asio)->Arg(10)->Arg(1000);

void TimerRoundTrip_Olk(benchmark::State& state) {
  auto clock = Zum::manualClockFactory(1000.0);
  auto sched = Olk::taskSchedulerZumActivityFactory("bench", clock);
  auto task = Olk::timerTaskFactory(sched, TaskPriority::normal, "timer");
  Counter c;
  c.notifierIs(task);
  for (auto _ : state) {
    task->scheduleTaskDelay(0.005);
    clock->advance(0.01);
  }
  if (c.runs != static_cast<Zum::U64>(state.iterations())) state.SkipWithError("timer runs were lost");
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(TimerRoundTrip_Olk);

}  // namespace

BENCHMARK_MAIN();
