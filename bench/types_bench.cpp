// Hash, compare and parse cost of the key types, each next to a baseline over the same
// bytes (std::hash of an integer, memcmp, from_chars) so the figures read as ratios.
#include <benchmark/benchmark.h>

#include <charconv>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "platform/CharRange.h"
#include "platform/net/VrfId.h"
#include "types/MvpnRouteKey.h"
#include "types/MvpnVrfRouteKey.h"

namespace {

using Nevo::IpGenAddr;
using Routing::Multicast::MvpnRouteKey;
using Routing::Multicast::MvpnVrfRouteKey;
using Vrf::VrfIdMap::VrfId;

constexpr size_t kKeys = 1024;

std::vector<MvpnRouteKey> routeKeys() {
  std::vector<MvpnRouteKey> keys;
  for (uint32_t i = 0; i < kKeys; ++i) {
    keys.emplace_back(IpGenAddr::ipv4Addr(0x0a000000u + i),
                      IpGenAddr::ipv4Addr(0xef000000u + i % 7), i % 3 == 0);
  }
  return keys;
}

std::vector<MvpnVrfRouteKey> vrfRouteKeys() {
  std::vector<MvpnVrfRouteKey> keys;
  auto inner = routeKeys();
  for (uint32_t i = 0; i < kKeys; ++i) keys.emplace_back(i % 16, inner[i]);
  return keys;
}

// --- hash ---

void BM_Baseline_StdHashU64(benchmark::State& state) {
  std::vector<uint64_t> v(kKeys);
  for (size_t i = 0; i < kKeys; ++i) v[i] = i * 0x9e3779b97f4a7c15ull;
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(std::hash<uint64_t>{}(v[i++ % kKeys]));
}
BENCHMARK(BM_Baseline_StdHashU64);

void BM_Baseline_HashBytes44(benchmark::State& state) {
  auto keys = routeKeys();
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(Oro::hashBytes(&keys[i++ % kKeys], sizeof(MvpnRouteKey), 1));
  }
}
BENCHMARK(BM_Baseline_HashBytes44);

void BM_VrfId_Hash(benchmark::State& state) {
  uint32_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(VrfId(i++).hash(1));
}
BENCHMARK(BM_VrfId_Hash);

void BM_MvpnRouteKey_Hash(benchmark::State& state) {
  auto keys = routeKeys();
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(keys[i++ % kKeys].hash(1));
}
BENCHMARK(BM_MvpnRouteKey_Hash);

void BM_MvpnVrfRouteKey_Hash(benchmark::State& state) {
  auto keys = vrfRouteKeys();
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(keys[i++ % kKeys].hash(1));
}
BENCHMARK(BM_MvpnVrfRouteKey_Hash);

// --- compare ---

void BM_Baseline_Memcmp44(benchmark::State& state) {
  auto keys = routeKeys();
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        std::memcmp(&keys[i % kKeys], &keys[(i + 1) % kKeys], sizeof(MvpnRouteKey)));
    ++i;
  }
}
BENCHMARK(BM_Baseline_Memcmp44);

void BM_MvpnRouteKey_Compare(benchmark::State& state) {
  auto keys = routeKeys();
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(keys[i % kKeys] < keys[(i + 1) % kKeys]);
    ++i;
  }
}
BENCHMARK(BM_MvpnRouteKey_Compare);

void BM_MvpnVrfRouteKey_Compare(benchmark::State& state) {
  auto keys = vrfRouteKeys();
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(keys[i % kKeys] < keys[(i + 1) % kKeys]);
    ++i;
  }
}
BENCHMARK(BM_MvpnVrfRouteKey_Compare);

void BM_VrfId_Compare(benchmark::State& state) {
  uint32_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(VrfId(i) < VrfId(i ^ 5));
    ++i;
  }
}
BENCHMARK(BM_VrfId_Compare);

// --- parse ---

void BM_Baseline_FromCharsU32(benchmark::State& state) {
  const std::string text = "16777214";
  for (auto _ : state) {
    uint32_t v = 0;
    std::from_chars(text.data(), text.data() + text.size(), v);
    benchmark::DoNotOptimize(v);
  }
}
BENCHMARK(BM_Baseline_FromCharsU32);

void BM_VrfId_Parse(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(Oro::strepToValue<VrfId>("16777214"));
}
BENCHMARK(BM_VrfId_Parse);

void BM_MvpnRouteKey_Parse(benchmark::State& state) {
  const std::string text = routeKeys()[5].toStrep();
  for (auto _ : state) benchmark::DoNotOptimize(Oro::strepToValue<MvpnRouteKey>(text));
}
BENCHMARK(BM_MvpnRouteKey_Parse);

void BM_MvpnVrfRouteKey_Parse(benchmark::State& state) {
  const std::string text = vrfRouteKeys()[5].toStrep();
  for (auto _ : state) benchmark::DoNotOptimize(Oro::strepToValue<MvpnVrfRouteKey>(text));
}
BENCHMARK(BM_MvpnVrfRouteKey_Parse);

}  // namespace
