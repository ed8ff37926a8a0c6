// MergedMcastTunnelEncapStatusSm over in-process inputs of 100k VRFs x 10 route records in each
// of the MVPN and the static writer's statuses (2M records; per VRF the static writer holds
// routes 5..14 and the MVPN writer 0..9, so half of each VRF's keys conflict), each figure next
// to a baseline from the same run:
// - construction to ready, next to copying every input record into a merged status once;
// - one merge after ready, the writer's encapTunnelIs to the merged write, next to the same
//   table operations by hand and to the writer's write alone;
// - a whole MVPN VRF of 10k records deleted until the merged status has settled, next to the
//   10k deletions done by hand;
// - the longest single task run as a multiple of the time slice, from construction to ready,
//   for an empty merged status and for a restart over a grown one (10% stale records), with
//   the time initializedIs takes outside any task.
#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>

#include "ShmNamespace.h"
#include "TaskRuns.h"
#include "merge/MvpnTunnelEncapStatusMergeSm.h"
#include "platform/net/IpAddr.h"
#include "platform/runtime/TaskScheduler.h"

namespace {

using Routing::Multicast::MergedMcastTunnelEncapStatusSm;
using Routing::Multicast::MvpnEncapTunnel;
using Routing::Multicast::MvpnRouteKey;
using Routing::Multicast::MvpnTunnelEncapStatus;
using Routing::Multicast::MvpnVrfTunnelEncapStatus;
using Vrf::VrfIdMap::VrfId;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kVrfs = 100'000;
constexpr uint32_t kRoutes = 10;
constexpr uint32_t kStaticFirst = 5;  // the static writer holds routes 5..14 of every VRF

MvpnRouteKey route(uint32_t n) {
  return MvpnRouteKey(Nevo::IpGenAddr::ipv4Addr(0x0a000001),
                      Nevo::IpGenAddr::ipv4Addr(0xef000000 + n), false);
}
const std::string kData = "mpls label 1000";

Oro::Ptr<MvpnTunnelEncapStatus> status(const std::string& name) {
  return Routing::Multicast::mvpnTunnelEncapStatusFactory(name);
}

struct Inputs {
  Oro::Ptr<MvpnTunnelEncapStatus> mvpn = status("bench-mvpn");
  Oro::Ptr<MvpnTunnelEncapStatus> stat = status("bench-static");
  Oro::Ptr<MvpnTunnelEncapStatus> evpn = status("bench-evpn");
  Inputs() {
    for (uint32_t v = 0; v < kVrfs; ++v) {
      auto m = mvpn->vrfStatusIs(VrfId(v));
      auto s = stat->vrfStatusIs(VrfId(v));
      for (uint32_t r = 0; r < kRoutes; ++r) {
        m->encapTunnelIs(MvpnEncapTunnel(route(r), kData));
        s->encapTunnelIs(MvpnEncapTunnel(route(kStaticFirst + r), kData));
      }
    }
  }
  static Inputs& get() {
    static Inputs inputs;
    return inputs;
  }
};

Oro::Ptr<MergedMcastTunnelEncapStatusSm> makeSm(Inputs& in,
                                                const Oro::Ptr<MvpnTunnelEncapStatus>& merged,
                                                Oro::TaskScheduler& scheduler) {
  return Routing::Multicast::mergedMcastTunnelEncapStatusSmFactory(
      in.mvpn, in.stat, in.evpn, merged,
      Dyx::SmControl{&scheduler, Oro::TaskPriority::normal, false});
}

void BM_TunnelMergeConstructionToReady(benchmark::State& state) {
  Inputs& in = Inputs::get();
  Oro::TaskScheduler scheduler;
  size_t records = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto merged = status("bench-merged-ready");
    state.ResumeTiming();
    auto sm = makeSm(in, merged, scheduler);
    sm->initializedIs(true);
    scheduler.runUntilIdle();
    if (!sm->ready()) state.SkipWithError("machine not ready");
    state.PauseTiming();
    records = 0;
    for (auto it = merged->vrfStatusIter(); it.valid(); it.next()) {
      records += it.value()->encapTunnelSize();
    }
    sm = nullptr;
    merged = nullptr;
    state.ResumeTiming();
  }
  state.counters["mergedRecords"] = static_cast<double>(records);
}
BENCHMARK(BM_TunnelMergeConstructionToReady)->Unit(benchmark::kMillisecond)->Iterations(3);

// Baseline: every input record written into a merged status once.
void BM_TunnelMergeBaselineCopyInputs(benchmark::State& state) {
  Inputs& in = Inputs::get();
  for (auto _ : state) {
    state.PauseTiming();
    auto merged = status("bench-merged-copy");
    state.ResumeTiming();
    for (const auto& input : {in.mvpn, in.stat}) {
      for (auto v = input->vrfStatusIter(); v.valid(); v.next()) {
        auto out = merged->vrfStatusIs(v.key());
        for (auto r = v.value()->encapTunnelIter(); r.valid(); r.next()) {
          out->encapTunnelIs(r.value());
        }
      }
    }
    state.PauseTiming();
    merged = nullptr;
    state.ResumeTiming();
  }
}
BENCHMARK(BM_TunnelMergeBaselineCopyInputs)->Unit(benchmark::kMillisecond)->Iterations(3);

// From the MVPN writer's encapTunnelIs to the merged write, after ready; the routes written
// (0..4) are the MVPN writer's alone, so every write reaches the merged status.
void BM_TunnelMergePerKey(benchmark::State& state) {
  Inputs& in = Inputs::get();
  auto merged = status("bench-merged-perkey");
  Oro::TaskScheduler scheduler;
  auto sm = makeSm(in, merged, scheduler);
  sm->initializedIs(true);
  scheduler.runUntilIdle();
  uint32_t i = 0;
  for (auto _ : state) {
    i = (i + 7919) % (kVrfs * kStaticFirst);
    in.mvpn->vrfStatus(VrfId(i / kStaticFirst))
        ->encapTunnelIs(MvpnEncapTunnel(route(i % kStaticFirst), kData));
  }
  if (!sm->ready()) state.SkipWithError("machine not ready");
}
BENCHMARK(BM_TunnelMergePerKey);

// Baseline: the same write and the table operations of its merge by hand (the static
// writer's and the MVPN writer's lookups, the merged write).
void BM_TunnelMergeBaselineSameTableOps(benchmark::State& state) {
  Inputs& in = Inputs::get();
  auto merged = status("bench-merged-byhand");
  for (uint32_t v = 0; v < kVrfs; ++v) {
    auto out = merged->vrfStatusIs(VrfId(v));
    for (uint32_t r = 0; r < kStaticFirst; ++r)
      out->encapTunnelIs(MvpnEncapTunnel(route(r), kData));
  }
  uint32_t i = 0;
  for (auto _ : state) {
    i = (i + 7919) % (kVrfs * kStaticFirst);
    const VrfId vrf(i / kStaticFirst);
    const MvpnRouteKey key = route(i % kStaticFirst);
    in.mvpn->vrfStatus(vrf)->encapTunnelIs(MvpnEncapTunnel(key, kData));
    auto fromStatic = in.stat->vrfStatus(vrf)->encapTunnel(key);
    auto fromMvpn = in.mvpn->vrfStatus(vrf)->encapTunnel(key);
    merged->vrfStatusIs(vrf)->encapTunnelIs(fromStatic ? *fromStatic : *fromMvpn);
  }
}
BENCHMARK(BM_TunnelMergeBaselineSameTableOps);

// Baseline: the writer's write with nobody listening.
void BM_TunnelMergeBaselineWriterOnly(benchmark::State& state) {
  auto writer = status("bench-writer-only");
  for (uint32_t v = 0; v < kVrfs; ++v) {
    auto out = writer->vrfStatusIs(VrfId(v));
    for (uint32_t r = 0; r < kStaticFirst; ++r)
      out->encapTunnelIs(MvpnEncapTunnel(route(r), kData));
  }
  uint32_t i = 0;
  for (auto _ : state) {
    i = (i + 7919) % (kVrfs * kStaticFirst);
    writer->vrfStatus(VrfId(i / kStaticFirst))
        ->encapTunnelIs(MvpnEncapTunnel(route(i % kStaticFirst), kData));
  }
}
BENCHMARK(BM_TunnelMergeBaselineWriterOnly);

// A VRF of 10k MVPN records, half of them also the static writer's, withdrawn at once by the
// MVPN writer: from vrfStatusDel until the scheduler is idle (the 5k MVPN-only records leave
// the merged status, the others fall back to the static records).
constexpr uint32_t kBigVrf = kVrfs + 1;
constexpr uint32_t kBigVrfRecords = 10'000;

MvpnRouteKey bigRoute(uint32_t n) {
  return MvpnRouteKey(Nevo::IpGenAddr::ipv4Addr(0x0a000000 + n),
                      Nevo::IpGenAddr::ipv4Addr(0xef010101), false);
}

void BM_TunnelMergeWholeVrfDeleted(benchmark::State& state) {
  auto mvpn = status("bench-vrf-mvpn");
  auto stat = status("bench-vrf-static");
  auto evpn = status("bench-vrf-evpn");
  auto merged = status("bench-vrf-merged");
  auto s = stat->vrfStatusIs(VrfId(kBigVrf));
  for (uint32_t n = 0; n < kBigVrfRecords; n += 2)
    s->encapTunnelIs(MvpnEncapTunnel(bigRoute(n), "s"));
  Oro::TaskScheduler scheduler;
  auto sm = Routing::Multicast::mergedMcastTunnelEncapStatusSmFactory(
      mvpn, stat, evpn, merged, Dyx::SmControl{&scheduler, Oro::TaskPriority::normal, false});
  sm->initializedIs(true);
  scheduler.runUntilIdle();
  for (auto _ : state) {
    state.PauseTiming();
    auto m = mvpn->vrfStatusIs(VrfId(kBigVrf));
    for (uint32_t n = 0; n < kBigVrfRecords; ++n)
      m->encapTunnelIs(MvpnEncapTunnel(bigRoute(n), kData));
    m = nullptr;
    scheduler.runUntilIdle();
    state.ResumeTiming();
    mvpn->vrfStatusDel(VrfId(kBigVrf));
    scheduler.runUntilIdle();
  }
  if (merged->vrfStatus(VrfId(kBigVrf))->encapTunnelSize() != kBigVrfRecords / 2) {
    state.SkipWithError("merged VRF not settled");
  }
}
BENCHMARK(BM_TunnelMergeWholeVrfDeleted)->Unit(benchmark::kMicrosecond);

// Baseline: the 10k deletions and rewrites of the merged records by hand.
void BM_TunnelMergeBaselineVrfByHand(benchmark::State& state) {
  auto merged = status("bench-vrf-byhand");
  for (auto _ : state) {
    state.PauseTiming();
    auto m = merged->vrfStatusIs(VrfId(kBigVrf));
    for (uint32_t n = 0; n < kBigVrfRecords; ++n)
      m->encapTunnelIs(MvpnEncapTunnel(bigRoute(n), kData));
    state.ResumeTiming();
    for (uint32_t n = 0; n < kBigVrfRecords; ++n) {
      if (n % 2) {
        m->encapTunnelDel(bigRoute(n));
      } else {
        m->encapTunnelIs(MvpnEncapTunnel(bigRoute(n), "s"));
      }
    }
  }
}
BENCHMARK(BM_TunnelMergeBaselineVrfByHand)->Unit(benchmark::kMicrosecond);

// The longest task run from construction to ready as a multiple of the slice (arg 0: slice in
// microseconds), by thread CPU time and wall clock, the runs over twice the slice, and the time
// initializedIs takes before the first task runs. Arg 1 selects a restart over a grown merged
// status (every merged record, plus 10% stale ones the reconciliation deletes).
void BM_TunnelMergeLongestTaskRun(benchmark::State& state) {
  Inputs& in = Inputs::get();
  const bool restart = state.range(1) != 0;
  const bool shared = state.range(2) != 0;
  std::optional<bench::ScopedShmNamespace> ns;
  if (shared) ns.emplace(fmt::format("mvpnbenchslice{}", ::getpid()));
  const auto slice = std::chrono::microseconds(state.range(0));
  bench::TaskRunMeter meter(slice);
  double initCpu = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto merged = status("bench-merged-slice");
    if (shared) merged->mount(Oro::ShmAttach{"bench/slice", Oro::ShmRole::writer});
    if (restart) {
      for (uint32_t v = 0; v < kVrfs + kVrfs / 10; ++v) {
        auto out = merged->vrfStatusIs(VrfId(v));
        for (uint32_t r = 0; r < kRoutes + kStaticFirst; ++r) {
          out->encapTunnelIs(MvpnEncapTunnel(route(r), "old"));
        }
      }
    }
    state.ResumeTiming();
    Oro::TaskScheduler scheduler(slice);
    auto sm = makeSm(in, merged, scheduler);
    const double initStart = bench::threadCpuSeconds();
    sm->initializedIs(true);
    initCpu = std::max(initCpu, bench::threadCpuSeconds() - initStart);
    meter.runUntilIdle(scheduler);
    if (!sm->ready()) state.SkipWithError("machine not ready");
    state.PauseTiming();
    sm = nullptr;
    merged = nullptr;
    state.ResumeTiming();
  }
  meter.report(state);
  state.counters["initializedIsMs"] = initCpu * 1e3;
}
// Arguments: the slice in microseconds, a restart over a grown output, the merged status in
// shared memory (as deployed: its memory is committed as it grows) or in process memory.
BENCHMARK(BM_TunnelMergeLongestTaskRun)
    ->Args({200, 0, 1})
    ->Args({1000, 0, 1})
    ->Args({200, 1, 1})
    ->Args({1000, 1, 1})
    ->Args({200, 0, 0})
    ->Args({200, 1, 0})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);

}  // namespace
