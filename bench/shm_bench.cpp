// Shared-memory table figures, each next to a baseline measured in the same run:
//  - writer mvpnVrfIs throughput vs absl::flat_hash_map inserts of the same records;
//  - the longest single mvpnVrfIs while the table grows to 1M records;
//  - writer-to-reader notification latency across processes (half a round trip through two
//    tables, reader schedulers asleep) vs a raw futex ping-pong between two processes;
//  - shared memory committed per record at 1M records vs 2 x (record + key);
//  - time for a reader to resynchronise (and deliver every key) after an overrun at 1M records.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <vector>

#include <absl/container/flat_hash_map.h>
#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include "platform/runtime/Futex.h"
#include "platform/shm/ShmSegment.h"
#include "platform/shm/ShmTable.h"
#include "platform/runtime/TaskScheduler.h"
#include "status/MvpnVrfStatus.h"

namespace {

using Routing::Multicast::MvpnClient;
using Routing::Multicast::MvpnVrf;
using Routing::Multicast::MvpnVrfStatus;
using Vrf::VrfIdMap::VrfId;

constexpr uint32_t kRecords = 1000000;

struct BenchNamespace {
  BenchNamespace() {
    Oro::shmNamespaceIs(fmt::format("h4bench{}", ::getpid()));
    Oro::shmUnlinkNamespace();
  }
  ~BenchNamespace() { Oro::shmUnlinkNamespace(); }
};

uint64_t nowNs() {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                   std::chrono::steady_clock::now().time_since_epoch())
                                   .count());
}

void BM_MvpnVrfIsInsert(benchmark::State& state) {
  BenchNamespace ns;
  for (auto _ : state) {
    state.PauseTiming();
    {
      auto s = Routing::Multicast::mvpnVrfStatusFactory("bgp");
      s->mount(Oro::ShmAttach{"bench/vrf", Oro::ShmRole::writer});
      state.ResumeTiming();
      for (uint32_t k = 0; k < kRecords; ++k) s->mvpnVrfIs(MvpnVrf(VrfId(k), MvpnClient::evpn_));
      state.PauseTiming();
      s->unmount();
    }
    Oro::shmUnlinkNamespace();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kRecords);
}
BENCHMARK(BM_MvpnVrfIsInsert)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_MvpnVrfIsReplace(benchmark::State& state) {
  BenchNamespace ns;
  auto s = Routing::Multicast::mvpnVrfStatusFactory("bgp");
  s->mount(Oro::ShmAttach{"bench/vrf", Oro::ShmRole::writer});
  for (uint32_t k = 0; k < kRecords; ++k) s->mvpnVrfIs(MvpnVrf(VrfId(k)));
  uint32_t i = 0;
  for (auto _ : state) {
    s->mvpnVrfIs(MvpnVrf(VrfId(i), MvpnClient::staticMvpn_));
    i = i + 7919 < kRecords ? i + 7919 : i + 7919 - kRecords;
  }
  state.SetItemsProcessed(state.iterations());
  s->unmount();
}
BENCHMARK(BM_MvpnVrfIsReplace);

// The longest single mvpnVrfIs while a writer's table grows from empty to 1M records: index
// growth and new chunks must not make any one write pay for the whole table.
void BM_LongestMvpnVrfIsUpTo1M(benchmark::State& state) {
  BenchNamespace ns;
  for (auto _ : state) {
    auto s = Routing::Multicast::mvpnVrfStatusFactory("bgp");
    s->mount(Oro::ShmAttach{"bench/longest", Oro::ShmRole::writer});
    uint64_t longest = 0;
    for (uint32_t k = 0; k < kRecords; ++k) {
      const uint64_t t0 = nowNs();
      s->mvpnVrfIs(MvpnVrf(VrfId(k), MvpnClient::evpn_));
      longest = std::max(longest, nowNs() - t0);
    }
    state.counters["longest_us"] = static_cast<double>(longest) / 1000.0;
    s->unmount();
    Oro::shmUnlinkNamespace();
  }
}
BENCHMARK(BM_LongestMvpnVrfIsUpTo1M)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_FlatHashMapInsert(benchmark::State& state) {
  for (auto _ : state) {
    absl::flat_hash_map<uint32_t, MvpnVrf> m;
    for (uint32_t k = 0; k < kRecords; ++k) m[k] = MvpnVrf(VrfId(k), MvpnClient::evpn_);
    benchmark::DoNotOptimize(m.size());
  }
  state.SetItemsProcessed(state.iterations() * kRecords);
}
BENCHMARK(BM_FlatHashMapInsert)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_FlatHashMapReplace(benchmark::State& state) {
  absl::flat_hash_map<uint32_t, MvpnVrf> m;
  for (uint32_t k = 0; k < kRecords; ++k) m[k] = MvpnVrf(VrfId(k));
  uint32_t i = 0;
  for (auto _ : state) {
    m[i] = MvpnVrf(VrfId(i), MvpnClient::staticMvpn_);
    benchmark::ClobberMemory();
    i = i + 7919 < kRecords ? i + 7919 : i + 7919 - kRecords;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FlatHashMapReplace);

void reportLatencies(benchmark::State& state, std::vector<uint64_t>& halfTrips) {
  std::sort(halfTrips.begin(), halfTrips.end());
  if (halfTrips.empty()) return;
  state.counters["median_ns"] = static_cast<double>(halfTrips[halfTrips.size() / 2]);
  state.counters["p99_ns"] = static_cast<double>(halfTrips[halfTrips.size() * 99 / 100]);
}

constexpr int kTrips = 5000;

// Parent writes key i into table "ping"; the child's scheduler wakes, reads it and writes it
// into table "pong"; the parent's scheduler wakes on that. Both sleep in between.
void BM_TableNotificationLatency(benchmark::State& state) {
  BenchNamespace ns;
  std::vector<uint64_t> halfTrips;
  for (auto _ : state) {
    Oro::ShmTable<uint32_t, uint64_t> ping("bench::Ping", "ping", {});
    ping.attach(Oro::ShmAttach{"bench/lat", Oro::ShmRole::writer});
    int ready[2];
    if (::pipe(ready) != 0) return;
    const pid_t child = ::fork();
    if (child == 0) {
      Oro::TaskScheduler sched;
      Oro::ShmTable<uint32_t, uint64_t> pong("bench::Ping", "pong", {});
      pong.attach(Oro::ShmAttach{"bench/lat", Oro::ShmRole::writer});
      Oro::ShmTable<uint32_t, uint64_t>* in = nullptr;
      Oro::ShmTable<uint32_t, uint64_t> reader("bench::Ping", "ping",
                                               {[&](const uint32_t& k) {
                                                  if (auto v = in->find(k)) pong.insert(k, *v);
                                                  if (k == UINT32_MAX) sched.stop();
                                                },
                                                {},
                                                {}});
      in = &reader;
      reader.attach(Oro::ShmAttach{"bench/lat", Oro::ShmRole::reader, &sched});
      (void)!::write(ready[1], "x", 1);
      sched.run();
      ::_exit(0);
    }
    char c;
    (void)!::read(ready[0], &c, 1);
    Oro::TaskScheduler sched;
    uint32_t expect = 0;
    Oro::ShmTable<uint32_t, uint64_t>* back = nullptr;
    Oro::ShmTable<uint32_t, uint64_t> reader("bench::Ping", "pong",
                                             {[&](const uint32_t& k) {
                                                if (k == expect && back->find(k)) sched.stop();
                                              },
                                              {},
                                              {}});
    back = &reader;
    reader.attach(Oro::ShmAttach{"bench/lat", Oro::ShmRole::reader, &sched});
    sched.runUntilIdle();
    for (int i = 1; i <= kTrips; ++i) {
      expect = static_cast<uint32_t>(i);
      const uint64_t t0 = nowNs();
      ping.insert(expect, t0);
      sched.run();
      halfTrips.push_back((nowNs() - t0) / 2);
      if (i % 64 == 0) ::usleep(100);  // let both sides settle into their sleep
    }
    ping.insert(UINT32_MAX, 0);
    ::waitpid(child, nullptr, 0);
    ::close(ready[0]);
    ::close(ready[1]);
  }
  reportLatencies(state, halfTrips);
}
BENCHMARK(BM_TableNotificationLatency)->Iterations(1)->UseRealTime();

// The same round trip over two futex words in a shared anonymous mapping.
void BM_RawFutexPingPongLatency(benchmark::State& state) {
  std::vector<uint64_t> halfTrips;
  for (auto _ : state) {
    void* mem = ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto* words = new (mem) std::atomic<uint32_t>[2]();
    const pid_t child = ::fork();
    if (child == 0) {
      uint32_t seen = 0;
      for (;;) {
        uint32_t v;
        while ((v = words[0].load(std::memory_order_acquire)) == seen) {
          Oro::futexWait(&words[0], seen, true, nullptr);
        }
        seen = v;
        words[1].store(v, std::memory_order_release);
        Oro::futexWake(&words[1], INT_MAX, true);
        if (v == UINT32_MAX) ::_exit(0);
      }
    }
    for (uint32_t i = 1; i <= kTrips; ++i) {
      const uint64_t t0 = nowNs();
      words[0].store(i, std::memory_order_release);
      Oro::futexWake(&words[0], INT_MAX, true);
      uint32_t v;
      while ((v = words[1].load(std::memory_order_acquire)) != i) {
        Oro::futexWait(&words[1], v, true, nullptr);
      }
      halfTrips.push_back((nowNs() - t0) / 2);
      if (i % 64 == 0) ::usleep(100);
    }
    words[0].store(UINT32_MAX, std::memory_order_release);
    Oro::futexWake(&words[0], INT_MAX, true);
    ::waitpid(child, nullptr, 0);
    ::munmap(mem, 4096);
  }
  reportLatencies(state, halfTrips);
}
BENCHMARK(BM_RawFutexPingPongLatency)->Iterations(1)->UseRealTime();

void BM_SharedBytesPerRecordAt1M(benchmark::State& state) {
  BenchNamespace ns;
  for (auto _ : state) {
    auto s = Routing::Multicast::mvpnVrfStatusFactory("bgp");
    s->mount(Oro::ShmAttach{"bench/mem", Oro::ShmRole::writer});
    for (uint32_t k = 0; k < kRecords; ++k) s->mvpnVrfIs(MvpnVrf(VrfId(k)));
    const double perRecord = static_cast<double>(s->table().core().committedBytes()) / kRecords;
    state.counters["bytes_per_record"] = perRecord;
    state.counters["goal_bytes"] = 2.0 * (sizeof(MvpnVrf) + sizeof(VrfId));
    s->unmount();
  }
}
BENCHMARK(BM_SharedBytesPerRecordAt1M)->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_ReaderResyncAfterOverrunAt1M(benchmark::State& state) {
  BenchNamespace ns;
  auto w = Routing::Multicast::mvpnVrfStatusFactory("bgp");
  w->mount(Oro::ShmAttach{"bench/resync", Oro::ShmRole::writer, nullptr, 0600, 4096});
  for (uint32_t k = 0; k < kRecords; ++k) w->mvpnVrfIs(MvpnVrf(VrfId(k)));
  uint64_t delivered = 0;
  Oro::ShmTable<VrfId, MvpnVrf> r("Routing::Multicast::MvpnVrf", "mvpnVrf",
                                  {[&](const VrfId&) { ++delivered; }, {}, {}});
  r.attach(Oro::ShmAttach{"bench/resync", Oro::ShmRole::reader});
  Oro::ShmReader* reader = r.core().reader();
  reader->batchIs(1u << 30);
  while (reader->hasPending()) reader->dispatch();
  for (auto _ : state) {
    state.PauseTiming();
    for (uint32_t k = 0; k < 10000; ++k) w->mvpnVrfIs(MvpnVrf(VrfId(k), MvpnClient::evpn_));
    delivered = 0;
    state.ResumeTiming();
    while (reader->hasPending()) reader->dispatch();
  }
  state.counters["keys_delivered"] = static_cast<double>(delivered);
  w->unmount();
}
BENCHMARK(BM_ReaderResyncAfterOverrunAt1M)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace
