// Cost of one Rivlog record, against the baseline of formatting the same
// text with snprintf into a stack buffer (what any trace must pay at least).
#include <benchmark/benchmark.h>

#include <cstdio>

#include "platform/Rivlog.h"

namespace {

void BM_SnprintfBaseline(benchmark::State& state) {
  char buf[Rivlog::textCapacity];
  unsigned i = 0;
  for (auto _ : state) {
    std::snprintf(buf, sizeof buf, "freed %u bytes in %u calls", i, i + 1);
    benchmark::DoNotOptimize(buf);
    ++i;
  }
}
BENCHMARK(BM_SnprintfBaseline);

void BM_RivlogWrite(benchmark::State& state) {
  Rivlog::Handle& h = Rivlog::handle("RivlogBench");
  Rivlog::ring().capacityIs(static_cast<Zum::U32>(state.range(0)));
  unsigned i = 0;
  for (auto _ : state) {
    RIVLOG(h, 1, "freed %u bytes in %u calls", i, i + 1);
    ++i;
  }
  Rivlog::ring().capacityIs(Rivlog::Ring::defaultCapacity);
}
BENCHMARK(BM_RivlogWrite)->Arg(64)->Arg(4096)->Arg(65536);

void BM_RivlogWriteFiltered(benchmark::State& state) {
  Rivlog::Handle& h = Rivlog::handle("RivlogBenchQuiet");
  h.levelIs(0);
  unsigned i = 0;
  for (auto _ : state) {
    RIVLOG(h, 5, "freed %u bytes in %u calls", i, i + 1);
    benchmark::ClobberMemory();
    ++i;
  }
}
BENCHMARK(BM_RivlogWriteFiltered);

}  // namespace
BENCHMARK_MAIN();
