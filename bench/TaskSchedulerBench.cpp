// Cost of one dispatch on the task scheduler against boost::asio.
//
// Each pair measures the same thing on both: one empty unit of work posted
// and run (ours: scheduleTask() and one scheduler run, with every statistic
// the runtime keeps; Asio: post() and poll()), a batch of such units, and a
// timer round trip (ours: a timer task on the timer wheel of a manual clock
// moved one tick; Asio: a steady_timer that has expired, waited on and run).
#include <benchmark/benchmark.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include <vector>

#include "Olk/Task.h"

namespace {

using Olk::TaskPriority;

struct Counter : Olk::Task::NotifieeConst {
  Zum::U64 runs = 0;
  void onTaskRun() override { ++runs; }
};

void BM_TaskScheduleAndRun(benchmark::State& state) {
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
BENCHMARK(BM_TaskScheduleAndRun);

void BM_AsioPostAndPoll(benchmark::State& state) {
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
BENCHMARK(BM_AsioPostAndPoll);

void BM_TaskBatchScheduleAndRun(benchmark::State& state) {
  auto root = Olk::taskSchedulerRootFactory("bench");
  root->dornRoot()->historyEntryCountIs(32);
  std::vector<Zum::Ptr<Olk::Task>> tasks;
  Counter c;
  for (int i = 0; i < state.range(0); ++i) tasks.push_back(Olk::taskFactory(root, TaskPriority::normal, "t"));
  for (auto _ : state) {
    for (auto& t : tasks) t->scheduleTask();
    root->handleSchedulerRun();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_TaskBatchScheduleAndRun)->Arg(10)->Arg(1000);

void BM_AsioBatchPostAndPoll(benchmark::State& state) {
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
BENCHMARK(BM_AsioBatchPostAndPoll)->Arg(10)->Arg(1000);

void BM_TimerTaskRoundTrip(benchmark::State& state) {
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
BENCHMARK(BM_TimerTaskRoundTrip);

void BM_AsioSteadyTimerRoundTrip(benchmark::State& state) {
  boost::asio::io_context io;
  boost::asio::steady_timer timer(io);
  Zum::U64 runs = 0;
  for (auto _ : state) {
    timer.expires_after(std::chrono::nanoseconds(0));
    timer.async_wait([&runs](const boost::system::error_code&) { ++runs; });
    io.run();
    io.restart();
  }
  benchmark::DoNotOptimize(runs);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_AsioSteadyTimerRoundTrip);

}  // namespace

BENCHMARK_MAIN();
