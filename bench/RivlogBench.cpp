// Cost of one Rivlog record, against the baseline of formatting the same
// text with snprintf into a stack buffer (what any trace must pay at least).
//
// Names are <Operation>_<Impl>/<args>; every iteration is one record, so
// cpu_time is the time of one record. The argument is the ring capacity; the
// baseline has no ring and runs once per capacity so that each has its pair.
#include <benchmark/benchmark.h>

#include <cstdio>

#include "platform/Rivlog.h"

namespace {

void Write_Snprintf(benchmark::State& state) {
  char buf[Rivlog::textCapacity];
  unsigned i = 0;
  for (auto _ : state) {
    std::snprintf(buf, sizeof buf, "freed %u bytes in %u calls", i, i + 1);
    benchmark::DoNotOptimize(buf);
    ++i;
  }
}
BENCHMARK(Write_Snprintf)->Arg(64)->Arg(4096)->Arg(65536);

void Write_Olk(benchmark::State& state) {
  Rivlog::Handle& h = Rivlog::handle("RivlogBench");
  Rivlog::ring().capacityIs(static_cast<Zum::U32>(state.range(0)));
  unsigned i = 0;
  for (auto _ : state) {
    RIVLOG(h, 1, "freed %u bytes in %u calls", i, i + 1);
    ++i;
  }
  Rivlog::ring().capacityIs(Rivlog::Ring::defaultCapacity);
}
BENCHMARK(Write_Olk)->Arg(64)->Arg(4096)->Arg(65536);

void WriteFiltered_Olk(benchmark::State& state) {
  Rivlog::Handle& h = Rivlog::handle("RivlogBenchQuiet");
  h.levelIs(0);
  unsigned i = 0;
  for (auto _ : state) {
    RIVLOG(h, 5, "freed %u bytes in %u calls", i, i + 1);
    benchmark::ClobberMemory();
    ++i;
  }
}
BENCHMARK(WriteFiltered_Olk);

}  // namespace
BENCHMARK_MAIN();
