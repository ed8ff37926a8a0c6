// Measuring how long single task runs take: the thread's CPU clock and a meter that runs a
// scheduler one step at a time until it is idle, keeping the longest step as a multiple of
// the time slice.
#pragma once

#include <benchmark/benchmark.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdint>

#include "platform/runtime/TaskScheduler.h"

namespace bench {

// Thread CPU time: unlike the wall clock it leaves out time the OS gave to other processes.
inline double threadCpuSeconds() {
  timespec ts{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

struct TaskRunMeter {
  explicit TaskRunMeter(std::chrono::nanoseconds slice)
      : sliceSeconds(std::chrono::duration<double>(slice).count()) {}

  // Runs `scheduler` until it is idle, one task run at a time.
  void runUntilIdle(Oro::TaskScheduler& scheduler) {
    for (;;) {
      const auto start = std::chrono::steady_clock::now();
      const double cpuStart = threadCpuSeconds();
      if (!scheduler.runOnce()) break;
      const double cpu = threadCpuSeconds() - cpuStart;
      const double wall =
          std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      worstWall = std::max(worstWall, wall / sliceSeconds);
      worstCpu = std::max(worstCpu, cpu / sliceSeconds);
      if (cpu > 2 * sliceSeconds) ++over;
      ++runs;
    }
  }
  void report(benchmark::State& state) const {
    state.counters["maxWallOverSlice"] = worstWall;
    state.counters["maxCpuOverSlice"] = worstCpu;
    state.counters["runsOver2xSlice"] = static_cast<double>(over);
    state.counters["taskRuns"] = static_cast<double>(runs);
  }

  double sliceSeconds;
  double worstWall = 0, worstCpu = 0;
  uint64_t runs = 0, over = 0;
};

}  // namespace bench
