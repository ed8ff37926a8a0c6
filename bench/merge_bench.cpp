// MergedMvpnVrfStatusSm: time from construction to ready over 1M VRFs spread over the four
// inputs (next to a same-run baseline that only copies every input record into the merged
// status once), the per-key merge cost after ready (next to the writer's own mvpnVrfIs with
// nobody listening), and the longest single task run during the scans against the slice.
#include <benchmark/benchmark.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <string>

#include "ShmNamespace.h"
#include "TaskRuns.h"
#include "merge/MergeAudit.h"
#include "merge/MvpnVrfStatusMergeSm.h"
#include "platform/runtime/TaskScheduler.h"
#include "platform/shm/ShmSegment.h"
#include "platform/shm/ShmStoreInfo.h"
#include "platform/shm/ShmVerify.h"
#include "status/MvpnVrfStatus.h"

namespace {

using Routing::Multicast::MergedMvpnVrfStatusSm;
using Routing::Multicast::MvpnClient;
using Routing::Multicast::MvpnVrf;
using Routing::Multicast::MvpnVrfStatus;
using Vrf::VrfIdMap::VrfId;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kVrfs = 1'000'000;
constexpr MvpnClient kWriters[4] = {MvpnClient::bgp_, MvpnClient::staticMvpn_, MvpnClient::evpn_,
                                    MvpnClient::staticEvpn_};

// Four inputs: VRF v is written by writer v % 4, and every 8th VRF also by the next writer,
// so that the merge resolves real conflicts.
struct Inputs {
  Oro::Ptr<MvpnVrfStatus> in[4];
  Inputs() {
    for (int n = 0; n < 4; ++n) {
      in[n] = Routing::Multicast::mvpnVrfStatusFactory("bench-in" + std::to_string(n));
    }
    for (uint32_t v = 0; v < kVrfs; ++v) {
      in[v % 4]->mvpnVrfIs(MvpnVrf(VrfId(v), kWriters[v % 4]));
      if (v % 8 == 0) in[(v + 1) % 4]->mvpnVrfIs(MvpnVrf(VrfId(v), kWriters[(v + 1) % 4]));
    }
  }
  static Inputs& get() {
    static Inputs inputs;
    return inputs;
  }
};

Oro::Ptr<MergedMvpnVrfStatusSm> makeSm(Inputs& inputs, const Oro::Ptr<MvpnVrfStatus>& merged,
                                       Oro::TaskScheduler& scheduler) {
  return Routing::Multicast::mergedMvpnVrfStatusSmFactory(
      inputs.in[0], inputs.in[1], inputs.in[2], inputs.in[3], merged,
      Dyx::SmControl{&scheduler, Oro::TaskPriority::normal, false});
}

void BM_MergeConstructionToReady(benchmark::State& state) {
  Inputs& inputs = Inputs::get();
  auto merged = Routing::Multicast::mvpnVrfStatusFactory("bench-merged-ready");
  Oro::TaskScheduler scheduler;
  for (auto _ : state) {
    state.PauseTiming();
    merged->mvpnVrfDelAll();
    state.ResumeTiming();
    auto sm = makeSm(inputs, merged, scheduler);
    sm->initializedIs(true);
    scheduler.runUntilIdle();
    if (!sm->ready()) state.SkipWithError("machine not ready");
    state.PauseTiming();
    sm = nullptr;
    state.ResumeTiming();
  }
  state.counters["mergedVrfs"] = static_cast<double>(merged->mvpnVrfSize());
}
BENCHMARK(BM_MergeConstructionToReady)->Unit(benchmark::kMillisecond)->Iterations(3);

// Baseline: one pass over every input writing each record into the merged status.
void BM_MergeBaselineCopyInputs(benchmark::State& state) {
  Inputs& inputs = Inputs::get();
  auto merged = Routing::Multicast::mvpnVrfStatusFactory("bench-merged-copy");
  for (auto _ : state) {
    state.PauseTiming();
    merged->mvpnVrfDelAll();
    state.ResumeTiming();
    for (auto& in : inputs.in) {
      for (auto it = in->mvpnVrfIter(); it.valid(); it.next()) merged->mvpnVrfIs(it.value());
    }
  }
}
BENCHMARK(BM_MergeBaselineCopyInputs)->Unit(benchmark::kMillisecond)->Iterations(3);

// From the writer's mvpnVrfIs to the merged status's write, after ready.
void BM_MergePerKey(benchmark::State& state) {
  Inputs& inputs = Inputs::get();
  auto merged = Routing::Multicast::mvpnVrfStatusFactory("bench-merged-perkey");
  Oro::TaskScheduler scheduler;
  auto sm = makeSm(inputs, merged, scheduler);
  sm->initializedIs(true);
  scheduler.runUntilIdle();
  uint32_t v = 0;
  for (auto _ : state) {
    v = (v + 7919) % kVrfs;
    inputs.in[2]->mvpnVrfIs(MvpnVrf(VrfId(v), MvpnClient::evpn_));
  }
  benchmark::DoNotOptimize(merged->mvpnVrfSize());
}
BENCHMARK(BM_MergePerKey);

// Baseline: the same writes with no machine listening.
void BM_MergeBaselineWriterOnly(benchmark::State& state) {
  auto status = Routing::Multicast::mvpnVrfStatusFactory("bench-writer-only");
  for (uint32_t v = 0; v < kVrfs; ++v) status->mvpnVrfIs(MvpnVrf(VrfId(v), MvpnClient::evpn_));
  uint32_t v = 0;
  for (auto _ : state) {
    v = (v + 7919) % kVrfs;
    status->mvpnVrfIs(MvpnVrf(VrfId(v), MvpnClient::evpn_));
  }
}
BENCHMARK(BM_MergeBaselineWriterOnly);

// Baseline: the table operations of one merge done by hand, without the machine: the
// writer's write, the lookups the merge makes (the notifying input, BGP) and the merged write.
void BM_MergeBaselineSameTableOps(benchmark::State& state) {
  Inputs& inputs = Inputs::get();
  auto merged = Routing::Multicast::mvpnVrfStatusFactory("bench-merged-byhand");
  for (uint32_t v = 0; v < kVrfs; ++v) merged->mvpnVrfIs(MvpnVrf(VrfId(v), MvpnClient::evpn_));
  uint32_t v = 0;
  for (auto _ : state) {
    v = (v + 7919) % kVrfs;
    inputs.in[2]->mvpnVrfIs(MvpnVrf(VrfId(v), MvpnClient::evpn_));
    benchmark::DoNotOptimize(inputs.in[2]->mvpnVrf(VrfId(v)));
    const bool bgp = inputs.in[0]->mvpnVrf(VrfId(v)).has_value();
    merged->mvpnVrfIs(MvpnVrf(VrfId(v), bgp ? MvpnClient::bgp_ : MvpnClient::evpn_));
  }
}
BENCHMARK(BM_MergeBaselineSameTableOps);

// The longest task run while the machine scans and merges 1M VRFs, as a multiple of the
// configured slice (arg: slice in microseconds), by wall clock and by thread CPU time, and how
// many runs took more than twice the slice.
// Arg 1 selects a reader restart over a surviving merged status (already grown, with 10%
// stale entries the reconciliation deletes) instead of an empty one that grows meanwhile.
void BM_MergeLongestTaskRun(benchmark::State& state) {
  Inputs& inputs = Inputs::get();
  const bool restart = state.range(1) != 0;
  Oro::Ptr<MvpnVrfStatus> merged;
  const auto slice = std::chrono::microseconds(state.range(0));
  bench::TaskRunMeter meter(slice);
  for (auto _ : state) {
    state.PauseTiming();
    merged = Routing::Multicast::mvpnVrfStatusFactory("bench-merged-slice");
    if (restart) {
      for (uint32_t v = 0; v < kVrfs + kVrfs / 10; ++v) {
        merged->mvpnVrfIs(MvpnVrf(VrfId(v), MvpnClient::bgp_));
      }
    }
    state.ResumeTiming();
    Oro::TaskScheduler scheduler(slice);
    auto sm = makeSm(inputs, merged, scheduler);
    sm->initializedIs(true);
    meter.runUntilIdle(scheduler);
    if (!sm->ready()) state.SkipWithError("machine not ready");
    state.PauseTiming();
    sm = nullptr;
    state.ResumeTiming();
  }
  meter.report(state);
}
BENCHMARK(BM_MergeLongestTaskRun)
    ->Args({200, 0})
    ->Args({1000, 0})
    ->Args({200, 1})
    ->Args({1000, 1})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(2);

// What `mvpnstat check PATH` does over a 1M-VRF merged status and its four inputs, all in
// shared memory: the merge audit (every merged VRF recomputed from the inputs, every input VRF
// looked up in the merged status) and the integrity check of the five stores. Baseline: a
// reader's walk of every record of the five stores.
void BM_CheckMerged1M(benchmark::State& state) {
  bench::ScopedShmNamespace ns("mvpnbenchcheck");
  {
    Oro::Ptr<MvpnVrfStatus> in[4];
    std::string paths[5];
    for (int n = 0; n < 4; ++n) {
      paths[n] = "bench/check/in" + std::to_string(n);
      in[n] = Routing::Multicast::mvpnVrfStatusFactory(paths[n]);
      in[n]->mount(Oro::ShmAttach{paths[n], Oro::ShmRole::writer});
    }
    for (uint32_t v = 0; v < kVrfs; ++v) {
      in[v % 4]->mvpnVrfIs(MvpnVrf(VrfId(v), kWriters[v % 4]));
      if (v % 8 == 0) in[(v + 1) % 4]->mvpnVrfIs(MvpnVrf(VrfId(v), kWriters[(v + 1) % 4]));
    }
    paths[4] = "bench/check/merged";
    auto merged = Routing::Multicast::mvpnVrfStatusFactory(paths[4]);
    merged->mount(Oro::ShmAttach{paths[4], Oro::ShmRole::writer});
    Oro::TaskScheduler scheduler;
    auto sm = Routing::Multicast::mergedMvpnVrfStatusSmFactory(
        in[0], in[1], in[2], in[3], merged,
        Dyx::SmControl{&scheduler, Oro::TaskPriority::normal, false});
    sm->initializedIs(true);
    scheduler.runUntilIdle();
    if (!sm->ready()) state.SkipWithError("machine not ready");
    double checkMs = 0, walkMs = 0;
    uint64_t problems = 0;
    for (auto _ : state) {
      const auto t0 = Clock::now();
      const auto m = Oro::shmStoreInfo(paths[4]).merge;
      const auto report =
          Routing::Multicast::mergeAuditFor(m->desc.machineType)->check(*m, paths[4]);
      problems += report.problems;
      for (const std::string& p : paths) problems += Oro::shmVerifyStore(p).problems.size();
      const auto t1 = Clock::now();
      size_t walked = 0;
      for (const std::string& p : paths) {
        auto reader = Routing::Multicast::mvpnVrfStatusFactory(p + "-reader");
        reader->mount(Oro::ShmAttach{p, Oro::ShmRole::reader, nullptr});
        for (auto it = reader->mvpnVrfIter(); it.valid(); it.next()) walked += it.key().value() & 1;
        reader->unmount();
      }
      benchmark::DoNotOptimize(walked);
      const auto t2 = Clock::now();
      checkMs += std::chrono::duration<double, std::milli>(t1 - t0).count();
      walkMs += std::chrono::duration<double, std::milli>(t2 - t1).count();
    }
    if (problems) state.SkipWithError("check found problems in a consistent merge");
    const double runs = static_cast<double>(state.iterations());
    state.counters["check_ms"] = checkMs / runs;
    state.counters["walk_ms"] = walkMs / runs;
    state.counters["check_per_walk"] = checkMs / walkMs;
    sm = nullptr;
    merged->unmount();
    for (auto& i : in) i->unmount();
  }
}
BENCHMARK(BM_CheckMerged1M)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

}  // namespace
