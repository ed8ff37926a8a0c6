// Task-switch overhead of the cooperative scheduler and the cost of asking whether to
// yield, each reported as a ratio to a baseline measured in the same run: a plain
// std::function call loop doing the same tiny work.
#include <benchmark/benchmark.h>

#include <chrono>
#include <functional>
#include <memory>
#include <vector>

#include "platform/runtime/TaskScheduler.h"

namespace {

using Oro::Task;
using Oro::TaskPriority;
using Oro::TaskScheduler;
using Clock = std::chrono::steady_clock;

constexpr uint64_t kSwitches = 100'000;

// ns per call of a std::function in a loop: the cheapest way to hand control to a
// piece of work. Measured with the same clock as the benchmarks below.
double functionCallBaselineNs() {
  static const double ns = [] {
    uint64_t counter = 0;
    std::vector<std::function<void()>> ring;
    for (int i = 0; i < 8; ++i) ring.emplace_back([&counter] { ++counter; });
    double best = 1e9;
    for (int round = 0; round < 5; ++round) {
      auto start = Clock::now();
      for (uint64_t i = 0; i < kSwitches; ++i) {
        ring[i & 7]();
        benchmark::DoNotOptimize(counter);
      }
      std::chrono::duration<double, std::nano> d = Clock::now() - start;
      best = std::min(best, d.count() / kSwitches);
    }
    return best;
  }();
  return ns;
}

// Per-operation cost over kSwitches operations per iteration, and its ratio to the
// std::function baseline.
void report(benchmark::State& state, double totalNs, const char* name) {
  double perOp = totalNs / static_cast<double>(state.iterations() * kSwitches);
  double base = functionCallBaselineNs();
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kSwitches));
  state.counters[name] = perOp;
  state.counters["fn_call_ns"] = base;
  state.counters["ratio_to_fn_call"] = perOp / base;
}

// A ring of tasks: each run schedules the next one, until kSwitches runs are done.
void BM_TaskSwitchRing(benchmark::State& state) {
  const int ringSize = static_cast<int>(state.range(0));
  TaskScheduler s;
  uint64_t left = 0;
  std::vector<std::unique_ptr<Task>> ring;
  for (int i = 0; i < ringSize; ++i) {
    ring.push_back(std::make_unique<Task>(&s, TaskPriority::normal, "ring", [&, i] {
      if (--left) ring[(i + 1) % ringSize]->schedule();
    }));
  }
  double ns = 0;
  for (auto _ : state) {
    left = kSwitches;
    auto start = Clock::now();
    ring[0]->schedule();
    benchmark::DoNotOptimize(s.runUntilIdle());
    ns += std::chrono::duration<double, std::nano>(Clock::now() - start).count();
  }
  report(state, ns, "ns_per_switch");
}
BENCHMARK(BM_TaskSwitchRing)->Arg(1)->Arg(64)->Unit(benchmark::kMicrosecond);

// taskShouldYield() asked in a loop from inside a running task.
void BM_TaskShouldYield(benchmark::State& state) {
  TaskScheduler s(std::chrono::hours(1));
  uint64_t yes = 0;
  Task probe(&s, TaskPriority::normal, "probe", [&] {
    for (uint64_t i = 0; i < kSwitches; ++i) yes += s.taskShouldYield();
  });
  double ns = 0;
  for (auto _ : state) {
    probe.schedule();
    auto start = Clock::now();
    s.runOnce();
    ns += std::chrono::duration<double, std::nano>(Clock::now() - start).count();
  }
  benchmark::DoNotOptimize(yes);
  report(state, ns, "ns_per_check");
}
BENCHMARK(BM_TaskShouldYield)->Unit(benchmark::kMicrosecond);

}  // namespace
