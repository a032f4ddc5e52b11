// Timer wheel against the binary-heap timer queues event loops commonly use.
//
// Each benchmark keeps N live timers (10^3 to 10^6) with due times spread
// over one minute ahead and measures one operation per iteration:
//   ScheduleCancel  arm an idle timer, then cancel one live timer;
//   Reschedule      move a live timer to another time;
//   Fire            arm N timers (not timed), then run the clock past them
//                   (timed; reported per timer fired).
// Baselines: `LazyHeap`, a std::priority_queue whose cancellation only marks
// the entry stale (rebuilt when stale entries outnumber live ones), and
// `HandleHeap`, a boost 4-ary mutable heap that erases and updates through
// handles. Both keep a per-timer record the size of a wheel timer, as a loop
// keeps its timer objects, so neither side gets its timers for free in the
// cache. The wheel is configured as the task scheduler builds it (10 ms
// ticks, buckets of 1024 slots) and driven by a manual clock, so no system
// call is measured.
//
// Names are <Operation>_<Impl>/<timers>. ScheduleCancel and Reschedule do
// one operation per iteration, so cpu_time is the time of one operation;
// Fire fires N timers per iteration, so cpu_time is per round and
// items_per_second counts timers fired (the time per timer is its inverse).
#include <benchmark/benchmark.h>

#include <boost/heap/d_ary_heap.hpp>
#include <memory>
#include <queue>
#include <random>
#include <vector>

#include "Olk/HTimerWheel.h"

using namespace Olk;

namespace {

constexpr Seconds horizon = 60.0;
constexpr Seconds start = 1000.0;

// Random offsets within the horizon, drawn once so no benchmark times the
// generator.
const std::vector<Seconds>& offsets() {
  static const std::vector<Seconds> v = [] {
    std::mt19937 rng(42);
    std::uniform_real_distribution<Seconds> d(0.001, horizon);
    std::vector<Seconds> out(1 << 20);
    for (Seconds& s : out) s = d(rng);
    return out;
  }();
  return v;
}

Seconds offset(size_t i) { return offsets()[i & (offsets().size() - 1)]; }

class NopTimer : public TimerWheel::NotifieeConst {
 public:
  void onTime() override { ++fired; }
  static inline U64 fired = 0;
};

// N live wheel timers plus one spare, all attached to one wheel.
struct WheelFixture {
  explicit WheelFixture(size_t n)
      : clock(Zum::manualClockFactory(start)),
        wheel(timerWheelFactory(clock, 10, 8640000, true, 1024)),
        timers(n + 1) {
    for (NopTimer& t : timers) t.notifierIs(wheel);
    for (size_t i = 0; i < n; ++i) timers[i].timeMinIs(start + offset(i));
  }
  Ptr<Zum::ManualClock> clock;
  Ptr<TimerWheel> wheel;
  std::vector<NopTimer> timers;
};

struct Entry {
  Seconds due;
  U32 id;
  U32 gen;
};
struct Later {
  bool operator()(const Entry& a, const Entry& b) const { return a.due > b.due; }
};

// The per-timer record an event loop keeps for a heap timer, padded to the
// size of a wheel timer so both sides touch the same memory per timer.
template <class Handle>
struct alignas(8) HeapTimer {
  Handle handle{};  // generation (lazy heap) or heap handle
  bool live = false;
  char pad[sizeof(NopTimer) - sizeof(Handle) - sizeof(bool)];
};

// A priority queue with lazy cancellation: cancelled entries stay in the
// heap, recognised by a stale generation, until popped or purged.
class LazyHeap : public std::priority_queue<Entry, std::vector<Entry>, Later> {
 public:
  explicit LazyHeap(size_t n) : timers_(n + 1) {}
  void schedule(U32 id, Seconds due) {
    HeapTimer<U32>& t = timers_[id];
    if (t.live) cancel(id);
    t.live = true;
    ++liveCount_;
    push(Entry{due, id, ++t.handle});
  }
  void cancel(U32 id) {
    HeapTimer<U32>& t = timers_[id];
    if (!t.live) return;
    t.live = false;
    --liveCount_;
    ++t.handle;
    if (size() - liveCount_ > liveCount_) purge();
  }
  // Pops every live entry due by `now`; returns how many.
  size_t fireDue(Seconds now) {
    size_t n = 0;
    while (!empty() && top().due <= now) {
      Entry e = top();
      pop();
      HeapTimer<U32>& t = timers_[e.id];
      if (e.gen != t.handle) continue;
      t.live = false;
      --liveCount_;
      ++n;
    }
    return n;
  }

 private:
  void purge() {
    std::erase_if(c, [&](const Entry& e) { return e.gen != timers_[e.id].handle; });
    std::make_heap(c.begin(), c.end(), comp);
  }
  std::vector<HeapTimer<U32>> timers_;
  size_t liveCount_ = 0;
};

struct HeapEntry {
  Seconds due;
  U32 id;
  bool operator<(const HeapEntry& o) const { return due > o.due; }  // earliest on top
};
using BoostHeap = boost::heap::d_ary_heap<HeapEntry, boost::heap::arity<4>, boost::heap::mutable_<true>>;

// A mutable heap with handles: cancel and reschedule in place.
class HandleHeap {
 public:
  explicit HandleHeap(size_t n) : timers_(n + 1) {}
  void schedule(U32 id, Seconds due) {
    HeapTimer<BoostHeap::handle_type>& t = timers_[id];
    if (t.live) {
      heap_.update(t.handle, HeapEntry{due, id});
      return;
    }
    t.live = true;
    t.handle = heap_.push(HeapEntry{due, id});
  }
  void cancel(U32 id) {
    HeapTimer<BoostHeap::handle_type>& t = timers_[id];
    if (!t.live) return;
    t.live = false;
    heap_.erase(t.handle);
  }
  size_t fireDue(Seconds now) {
    size_t n = 0;
    while (!heap_.empty() && heap_.top().due <= now) {
      timers_[heap_.top().id].live = false;
      heap_.pop();
      ++n;
    }
    return n;
  }

 private:
  BoostHeap heap_;
  std::vector<HeapTimer<BoostHeap::handle_type>> timers_;
};

template <class Heap>
struct HeapFixture {
  explicit HeapFixture(size_t n) : heap(n) {
    for (size_t i = 0; i < n; ++i) heap.schedule(static_cast<U32>(i), start + offset(i));
  }
  Heap heap;
  Seconds now = start;
};

// Arm the idle timer, cancel another, so the idle one rotates through all.
void WheelScheduleCancel(benchmark::State& state) {
  const size_t n = static_cast<size_t>(state.range(0));
  WheelFixture f(n);
  size_t idle = n, i = 0;
  for (auto _ : state) {
    f.timers[idle].timeMinIs(start + offset(i));
    const size_t victim = (idle + 1 + (i * 7919) % n) % (n + 1);
    f.timers[victim].timeMinIs(Zum::endOfTime);
    idle = victim;
    ++i;
  }
  state.SetItemsProcessed(static_cast<S64>(state.iterations()));
}

template <class Heap>
void HeapScheduleCancel(benchmark::State& state) {
  const size_t n = static_cast<size_t>(state.range(0));
  HeapFixture<Heap> f(n);
  size_t idle = n, i = 0;
  for (auto _ : state) {
    f.heap.schedule(static_cast<U32>(idle), start + offset(i));
    const size_t victim = (idle + 1 + (i * 7919) % n) % (n + 1);
    f.heap.cancel(static_cast<U32>(victim));
    idle = victim;
    ++i;
  }
  state.SetItemsProcessed(static_cast<S64>(state.iterations()));
}

void WheelReschedule(benchmark::State& state) {
  const size_t n = static_cast<size_t>(state.range(0));
  WheelFixture f(n);
  size_t i = 0;
  for (auto _ : state) {
    f.timers[(i * 7919) % n].timeMinIs(start + offset(i + n));
    ++i;
  }
  state.SetItemsProcessed(static_cast<S64>(state.iterations()));
}

template <class Heap>
void HeapReschedule(benchmark::State& state) {
  const size_t n = static_cast<size_t>(state.range(0));
  HeapFixture<Heap> f(n);
  size_t i = 0;
  for (auto _ : state) {
    f.heap.schedule(static_cast<U32>((i * 7919) % n), start + offset(i + n));
    ++i;
  }
  state.SetItemsProcessed(static_cast<S64>(state.iterations()));
}

void WheelFire(benchmark::State& state) {
  const size_t n = static_cast<size_t>(state.range(0));
  WheelFixture f(0);
  std::vector<NopTimer> timers(n);
  for (NopTimer& t : timers) t.notifierIs(f.wheel);
  size_t round = 0;
  for (auto _ : state) {
    state.PauseTiming();
    const Seconds now = f.clock->now();
    for (size_t i = 0; i < n; ++i) timers[i].timeMinIs(now + offset(i + round));
    state.ResumeTiming();
    f.clock->advance(horizon + 1.0);
    round += n;
  }
  state.SetItemsProcessed(static_cast<S64>(state.iterations() * n));
}

template <class Heap>
void HeapFire(benchmark::State& state) {
  const size_t n = static_cast<size_t>(state.range(0));
  Heap heap(n);
  Seconds now = start;
  size_t round = 0;
  for (auto _ : state) {
    state.PauseTiming();
    for (size_t i = 0; i < n; ++i) heap.schedule(static_cast<U32>(i), now + offset(i + round));
    state.ResumeTiming();
    // Fire in 10 ms steps, as a loop woken once per tick would.
    const Seconds end = now + horizon + 1.0;
    for (; now < end; now += 0.01) benchmark::DoNotOptimize(heap.fireDue(now));
    round += n;
  }
  state.SetItemsProcessed(static_cast<S64>(state.iterations() * n));
}

void sizes(benchmark::internal::Benchmark* b) {
  for (S64 n : {1000, 10000, 100000, 1000000}) b->Arg(n);
}

}  // namespace

BENCHMARK(WheelScheduleCancel)->Name("ScheduleCancel_Olk")->Apply(sizes);
BENCHMARK(HeapScheduleCancel<LazyHeap>)->Name("ScheduleCancel_LazyHeap")->Apply(sizes);
BENCHMARK(HeapScheduleCancel<HandleHeap>)->Name("ScheduleCancel_HandleHeap")->Apply(sizes);
BENCHMARK(WheelReschedule)->Name("Reschedule_Olk")->Apply(sizes);
BENCHMARK(HeapReschedule<LazyHeap>)->Name("Reschedule_LazyHeap")->Apply(sizes);
BENCHMARK(HeapReschedule<HandleHeap>)->Name("Reschedule_HandleHeap")->Apply(sizes);
BENCHMARK(WheelFire)->Name("Fire_Olk")->Apply(sizes);
BENCHMARK(HeapFire<LazyHeap>)->Name("Fire_LazyHeap")->Apply(sizes);
BENCHMARK(HeapFire<HandleHeap>)->Name("Fire_HandleHeap")->Apply(sizes);

BENCHMARK_MAIN();
