// Costs of the platform's hot paths: an attribute change reaching its
// notifiees, and a clock notifiee moving its wake-up time among many others.
//
// Names are <Operation>_<Impl>/<args>, the size last; every iteration is one
// operation, so cpu_time is the time of one operation.
#include <benchmark/benchmark.h>

#include <memory>
#include <random>
#include <vector>

#include "platform/Clock.h"
#include "platform/Entity.h"
#include "platform/Notifier.h"

namespace {

class Counter : public Zum::Entity, public Zum::Notifier {
 public:
  class Notifiee : public Zum::BaseNotifiee<Counter> {
   public:
    virtual void onValue() {}
  };
  void valueIs(Zum::U64 v) {
    if (Zum::assignIfChanged(value_, v)) notify(&Notifiee::onValue);
  }

 private:
  Zum::U64 value_ = 0;
};

struct Sink : Counter::Notifiee {
  void onValue() override { ++calls; }
  Zum::U64 calls = 0;
};

void AttributeSetAndNotify_Olk(benchmark::State& state) {
  auto counter = Zum::create<Counter>();
  std::vector<Sink> sinks(static_cast<std::size_t>(state.range(0)));
  for (auto& s : sinks) s.notifierIs(counter);
  Zum::U64 v = 0;
  for (auto _ : state) counter->valueIs(++v);
  benchmark::DoNotOptimize(sinks.front().calls);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(AttributeSetAndNotify_Olk)->Arg(1)->Arg(4)->Arg(16);

void AttributeSetUnchanged_Olk(benchmark::State& state) {
  auto counter = Zum::create<Counter>();
  Sink sink;
  sink.notifierIs(counter);
  counter->valueIs(1);
  for (auto _ : state) counter->valueIs(1);
  benchmark::DoNotOptimize(sink.calls);
}
BENCHMARK(AttributeSetUnchanged_Olk);

struct Wake : Zum::Clock::Notifiee {};

// One notifiee among N scheduled ones moves its time: O(log N).
void ClockReschedule_Olk(benchmark::State& state) {
  auto clock = Zum::manualClockFactory(0.0);
  const auto n = static_cast<std::size_t>(state.range(0));
  std::vector<Wake> wakes(n);
  std::mt19937 rng(1);
  std::uniform_real_distribution<double> when(1.0, 1e6);
  for (auto& w : wakes) {
    w.notifierIs(clock);
    w.timeMinIs(when(rng));
  }
  std::size_t i = 0;
  for (auto _ : state) {
    wakes[i].timeMinIs(when(rng));
    if (++i == n) i = 0;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(ClockReschedule_Olk)->RangeMultiplier(10)->Range(1000, 1000000);

}  // namespace

BENCHMARK_MAIN();
