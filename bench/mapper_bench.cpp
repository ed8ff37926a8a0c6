// Tunnel mapper figures, each next to a same-run baseline:
//  - 1M routeKeyToTunnelIdIs inserts into a fresh mapper vs the same inserts into an
//    absl::flat_hash_map with the key's own hash (goal: within 1.5x);
//  - tunnelIdToPmsiVlan per call with a warm cache, over 1024 tunnels whose VRFs all have a
//    PMSI interface (goal: under 100 ns), vs the interface table lookup it ends with and vs
//    the same three lookups written out by hand; with the interface table detached (process
//    memory) and attached as writer in shared memory.
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include <absl/container/flat_hash_map.h>
#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include "mapper/MvpnMapper.h"
#include "platform/net/VlanIntf.h"
#include "platform/shm/ShmSegment.h"
#include "platform/shm/ShmTable.h"

namespace {

using namespace Routing::Multicast;
using Nevo::IpGenAddr;
using Vrf::VrfIdMap::VrfId;

constexpr size_t kRoutes = 1'000'000;
constexpr uint32_t kTunnels = 1024;

const std::vector<MvpnVrfRouteKey>& routeKeys() {
  static const std::vector<MvpnVrfRouteKey> keys = [] {
    std::vector<MvpnVrfRouteKey> out;
    out.reserve(kRoutes);
    for (uint32_t i = 0; i < kRoutes; ++i) {
      out.emplace_back(VrfId(i % 64),
                       MvpnRouteKey(IpGenAddr::ipv4Addr(0x0a000000u + i / 16),
                                    IpGenAddr::ipv4Addr(0xef000000u + i % 16), i % 3 == 0));
    }
    return out;
  }();
  return keys;
}

void BM_Baseline_FlatHashMapInsert1M(benchmark::State& state) {
  const auto& keys = routeKeys();
  for (auto _ : state) {
    absl::flat_hash_map<MvpnVrfRouteKey, TunnelId, std::hash<MvpnVrfRouteKey>> m;
    for (uint32_t i = 0; i < kRoutes; ++i) m.try_emplace(keys[i], TunnelId(1 + i % kTunnels));
    benchmark::DoNotOptimize(m.size());
  }
  state.SetItemsProcessed(state.iterations() * kRoutes);
}
BENCHMARK(BM_Baseline_FlatHashMapInsert1M)->Unit(benchmark::kMillisecond)->Iterations(5);

void BM_Mapper_RouteKeyToTunnelIdIs1M(benchmark::State& state) {
  const auto& keys = routeKeys();
  for (auto _ : state) {
    auto mapper = mvpnMapperFactory(nullptr, nullptr);
    for (uint32_t i = 0; i < kRoutes; ++i) {
      mapper->routeKeyToTunnelIdIs(keys[i], TunnelId(1 + i % kTunnels));
    }
    benchmark::DoNotOptimize(mapper->routeKeyToTunnelIdSize());
  }
  state.SetItemsProcessed(state.iterations() * kRoutes);
}
BENCHMARK(BM_Mapper_RouteKeyToTunnelIdIs1M)->Unit(benchmark::kMillisecond)->Iterations(5);

// 1024 tunnels, one tree each, each tree in its own VRF, each VRF with a PMSI interface.
struct PmsiRig {
  explicit PmsiRig(bool sharedTable) : shared(sharedTable) {
    if (shared) {
      Oro::shmNamespaceIs(fmt::format("h1bench{}", ::getpid()));
      Oro::shmUnlinkNamespace();
      intf->mount(Oro::ShmAttach{"bench/mapper/intfStatus", Oro::ShmRole::writer});
    }
    for (uint32_t t = 1; t <= kTunnels; ++t) {
      const MulticastTreeId tree(fmt::format("mldp:root=10.0.0.1,opaque={}", t));
      mapper->tunnelIdToTreeIdCollIs(TunnelId(t))->keyCollIs(tree);
      mapper->treeIdToVrfIdIs(tree, VrfId(t));
      intf->vrfIntfIdIs(MvpnVrfIntfId(VrfId(t), Nevo::IntfId::vlan(t)));
    }
  }
  ~PmsiRig() {
    if (shared) {
      intf->unmount();
      Oro::shmUnlinkNamespace();
    }
  }
  const bool shared;
  Oro::Ptr<MvpnIntfStatus> intf = mvpnIntfStatusFactory("bench");
  Oro::Ptr<MvpnMapper> mapper = mvpnMapperFactory(intf, nullptr);
};

void BM_Baseline_IntfStatusLookup(benchmark::State& state) {
  PmsiRig rig(state.range(0) != 0);
  uint32_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(rig.intf->vrfIntfId(VrfId(1 + i++ % kTunnels)));
  }
}
BENCHMARK(BM_Baseline_IntfStatusLookup)->ArgName("shared")->Arg(0)->Arg(1);

// The three lookups of the PMSI question written out by hand, without the early returns.
void BM_Baseline_PmsiLookupsByHand(benchmark::State& state) {
  PmsiRig rig(state.range(0) != 0);
  const MvpnMapper& m = *rig.mapper;
  uint32_t i = 0;
  for (auto _ : state) {
    const auto& coll = m.tunnelIdToTreeIdCollMap().find(TunnelId(1 + i++ % kTunnels))->second;
    const VrfId vrf = m.treeIdToVrfIdMap().find(*coll->keyCollFirst())->second;
    benchmark::DoNotOptimize(Nevo::vlanIntfVlanId(rig.intf->vrfIntfId(vrf)->pmsiIntfId()));
  }
}
BENCHMARK(BM_Baseline_PmsiLookupsByHand)->ArgName("shared")->Arg(0)->Arg(1);

void BM_Mapper_TunnelIdToPmsiVlan(benchmark::State& state) {
  PmsiRig rig(state.range(0) != 0);
  uint32_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(rig.mapper->tunnelIdToPmsiVlan(TunnelId(1 + i++ % kTunnels)));
  }
}
BENCHMARK(BM_Mapper_TunnelIdToPmsiVlan)->ArgName("shared")->Arg(0)->Arg(1);

}  // namespace
