// Shared-memory store figures, each next to a baseline measured in the same run:
//  - mvpnVrfIs inserts (1M) and random replaces (1M, 10M) vs absl::flat_hash_map;
//  - the longest single mvpnVrfIs while the table grows to 1M records;
//  - writer throughput with 0, 1 and 16 readers in other processes, following or idle;
//  - writer-to-reader notification latency across processes vs a raw futex ping-pong;
//  - shared memory per record at every size from 10k to 10M vs 2 x (record + key);
//  - a reader's first dispatch over 1M records vs a walk of them;
//  - the route status tree: mvpnSourceIs into 10k VRFs x 10 groups x 10 sources vs nested
//    hash maps, a new reader attaching to it, and shared memory per source;
//  - an integrity check of a 1M-record store (flat, and the 1M-source tree) vs a walk of every
//    record of the same store through the engine's reader API.
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <functional>
#include <string>
#include <vector>

#include <absl/container/flat_hash_map.h>
#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include "ShmNamespace.h"
#include "platform/runtime/Futex.h"
#include "platform/runtime/TaskScheduler.h"
#include "platform/shm/ShmSegment.h"
#include "platform/shm/ShmTable.h"
#include "platform/shm/ShmVerify.h"
#include "status/MvpnRouteStatus.h"
#include "status/MvpnVrfStatus.h"

namespace {

using Routing::Multicast::MvpnClient;
using Routing::Multicast::MvpnVrf;
using Routing::Multicast::MvpnVrfStatus;
using Vrf::VrfIdMap::VrfId;

constexpr uint32_t kRecords = 1000000;

struct BenchNamespace : bench::ScopedShmNamespace {
  BenchNamespace() : ScopedShmNamespace(fmt::format("mvpnbench{}", ::getpid())) {}
};

uint64_t nowNs() {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                   std::chrono::steady_clock::now().time_since_epoch())
                                   .count());
}

double threadCpuMs() {
  timespec ts{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) * 1e3 + static_cast<double>(ts.tv_nsec) / 1e6;
}

Oro::Ptr<MvpnVrfStatus> filledWriter(const std::string& path, uint32_t n, uint32_t ring = 8192) {
  auto s = Routing::Multicast::mvpnVrfStatusFactory("bgp");
  s->mount(Oro::ShmAttach{path, Oro::ShmRole::writer, nullptr, 0600, ring});
  for (uint32_t k = 0; k < n; ++k) s->mvpnVrfIs(MvpnVrf(VrfId(k), MvpnClient::evpn_));
  return s;
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

void BM_FlatHashMapInsert(benchmark::State& state) {
  for (auto _ : state) {
    absl::flat_hash_map<uint32_t, MvpnVrf> m;
    for (uint32_t k = 0; k < kRecords; ++k) m[k] = MvpnVrf(VrfId(k), MvpnClient::evpn_);
    benchmark::DoNotOptimize(m.size());
  }
  state.SetItemsProcessed(state.iterations() * kRecords);
}
BENCHMARK(BM_FlatHashMapInsert)->Unit(benchmark::kMillisecond)->Iterations(3);

// Random replaces: the keys are visited in a scattered order (a large prime step).
void BM_MvpnVrfIsReplace(benchmark::State& state) {
  BenchNamespace ns;
  const auto n = static_cast<uint32_t>(state.range(0));
  auto s = filledWriter("bench/replace", n);
  uint32_t i = 0;
  for (auto _ : state) {
    s->mvpnVrfIs(MvpnVrf(VrfId(i), MvpnClient::staticMvpn_));
    i = (i + 7919) % n;
  }
  state.SetItemsProcessed(state.iterations());
  s->unmount();
}
BENCHMARK(BM_MvpnVrfIsReplace)->Arg(kRecords)->Arg(10 * kRecords);

absl::flat_hash_map<uint32_t, MvpnVrf> filledFlatMap(uint32_t n) {
  absl::flat_hash_map<uint32_t, MvpnVrf> m;
  for (uint32_t k = 0; k < n; ++k) m[k] = MvpnVrf(VrfId(k));
  return m;
}

void BM_FlatHashMapReplace(benchmark::State& state) {
  const auto n = static_cast<uint32_t>(state.range(0));
  auto m = filledFlatMap(n);
  uint32_t i = 0;
  for (auto _ : state) {
    m[i] = MvpnVrf(VrfId(i), MvpnClient::staticMvpn_);
    benchmark::ClobberMemory();
    i = (i + 7919) % n;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FlatHashMapReplace)->Arg(kRecords)->Arg(10 * kRecords);

// The same replaces, each key depending on the record the previous replace found: the loop
// can no longer overlap one replace's cache misses with the next one's, so this is the
// latency of a replace where the loop above measures its throughput. A store replace (some
// 600 instructions with two dependent misses, the index entry and then the slot) keeps too
// many instructions in flight to overlap consecutive replaces either way.
void BM_FlatHashMapReplaceDependent(benchmark::State& state) {
  const auto n = static_cast<uint32_t>(state.range(0));
  auto m = filledFlatMap(n);
  uint32_t i = 0;
  for (auto _ : state) {
    MvpnVrf& v = m[i];
    // Always 0, but known only once the record has been read.
    const uint32_t dep = static_cast<uint32_t>(v.key().value() != i);
    v = MvpnVrf(VrfId(i), MvpnClient::staticMvpn_);
    i = (i + 7919 + dep) % n;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FlatHashMapReplaceDependent)->Arg(kRecords)->Arg(10 * kRecords);

// The same replaces through the store alone (no typed handle, no root, no counters), without
// and with the publication of the key (change-log entry and wake word): where a replace's
// time goes between the store's write, its publication and the layers above.
void BM_StorePutReplace(benchmark::State& state) {
  BenchNamespace ns;
  const auto n = static_cast<uint32_t>(state.range(0));
  const bool publish = state.range(1) != 0;
  auto s = filledWriter("bench/storeput", n);
  Oro::ShmStore& store = s->binding().store();
  uint32_t words[Oro::ShmStore::kMaxRecordWords] = {};
  Routing::Multicast::MvpnVrfStatusTraits::writeValue(
      MvpnVrf(VrfId(0), MvpnClient::staticMvpn_),
      reinterpret_cast<std::byte*>(words + store.keyWords(0)));
  uint32_t i = 0;
  for (auto _ : state) {
    Oro::shmKeyImage(store, 0, 0, VrfId(i), words);
    store.put(0, words, {}, nullptr);
    if (publish) store.publishKey(0, words);
    i = (i + 7919) % n;
  }
  state.SetItemsProcessed(state.iterations());
  s->unmount();
}
BENCHMARK(BM_StorePutReplace)
    ->Args({kRecords, 0})
    ->Args({kRecords, 1})
    ->Args({10 * kRecords, 0})
    ->Args({10 * kRecords, 1});

// The longest single mvpnVrfIs while a table grows from empty to 1M records: index growth and
// new chunks must not make any one write pay for the whole table.
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
BENCHMARK(BM_LongestMvpnVrfIsUpTo1M)->Unit(benchmark::kMillisecond)->Iterations(1);

// Writer throughput with readers in other processes. The writer's CPU time is the figure (on
// a 2-core machine the wall time also measures the readers' share of the cores). Each iteration
// times a writer without readers right before the one with them: the machine's drift between runs
// is as large as the effect measured, so the ratio is taken pair by pair (median), and also between
// the fastest run of each kind.
enum class ReaderMode : uint8_t {
  idle,         // readers registered their sleep once and stay away
  following,    // readers take every change
  busyControl,  // no readers: as many processes that only burn CPU, to tell what sharing the
                // cores costs the writer from what following readers cost it
};

struct WriterRun {
  double cpuMs = 0, wallMs = 0, preempted = 0, wakes = 0;
};

WriterRun runWriter(int readers, ReaderMode mode) {
  constexpr uint32_t kWrites = 1000000;
  WriterRun out;
  auto s = Routing::Multicast::mvpnVrfStatusFactory("bgp");
  s->mount(Oro::ShmAttach{"bench/readers", Oro::ShmRole::writer, nullptr, 0600, 65536});
  s->mvpnVrfIs(MvpnVrf(VrfId(0)));
  int ready[2];
  if (::pipe(ready) != 0) return out;
  std::vector<pid_t> children;
  for (int r = 0; r < readers; ++r) {
    const pid_t child = ::fork();
    if (child == 0 && mode == ReaderMode::busyControl) {
      (void)!::write(ready[1], "x", 1);
      for (uint64_t spin = 0;; ++spin) benchmark::DoNotOptimize(spin);
    }
    if (child == 0) {
      Oro::TaskScheduler sched;
      auto reader = Routing::Multicast::mvpnVrfStatusFactory("bgp");
      Oro::KeyReactor<VrfId> stop(MvpnVrfStatus::mvpnVrfAttr, [&](const VrfId& k) {
        if (k == VrfId(kWrites)) sched.stop();
      });
      stop.notifierIs(reader.get());
      reader->mount(Oro::ShmAttach{"bench/readers", Oro::ShmRole::reader, &sched});
      sched.runUntilIdle();
      std::vector<Oro::FutexWait> words;
      reader->binding().reader()->sleepBegin(words);  // registered as a sleeper
      (void)!::write(ready[1], "x", 1);
      if (mode == ReaderMode::following) {
        sched.run();
      } else {
        for (;;) ::pause();  // idle until killed
      }
      ::_exit(0);
    }
    children.push_back(child);
    char c;
    (void)!::read(ready[0], &c, 1);
  }
  rusage u0{}, u1{};
  ::getrusage(RUSAGE_THREAD, &u0);
  const double c0 = threadCpuMs();
  const uint64_t t0 = nowNs();
  for (uint32_t k = 1; k <= kWrites; ++k) s->mvpnVrfIs(MvpnVrf(VrfId(k), MvpnClient::evpn_));
  out.cpuMs = threadCpuMs() - c0;
  out.wallMs = static_cast<double>(nowNs() - t0) / 1e6;
  ::getrusage(RUSAGE_THREAD, &u1);
  out.preempted = static_cast<double>(u1.ru_nivcsw - u0.ru_nivcsw);
  for (pid_t c : children) {
    if (mode != ReaderMode::following) ::kill(c, SIGKILL);
    ::waitpid(c, nullptr, 0);
  }
  ::close(ready[0]);
  ::close(ready[1]);
  out.wakes = static_cast<double>(s->binding().store().bellWakes());
  s->unmount();
  Oro::shmUnlinkNamespace();
  return out;
}

void BM_WriterWithReaders(benchmark::State& state) {
  BenchNamespace ns;
  const int readers = static_cast<int>(state.range(0));
  const auto mode = static_cast<ReaderMode>(state.range(1));
  std::vector<double> ratios;
  double minAlone = 1e18, minWith = 1e18;
  WriterRun sum;
  for (auto _ : state) {
    const WriterRun alone = runWriter(0, ReaderMode::idle);
    const WriterRun with = runWriter(readers, mode);
    ratios.push_back(with.cpuMs / alone.cpuMs);
    minAlone = std::min(minAlone, alone.cpuMs);
    minWith = std::min(minWith, with.cpuMs);
    sum.cpuMs += with.cpuMs;
    sum.wallMs += with.wallMs;
    sum.preempted += with.preempted;
    sum.wakes += with.wakes;
  }
  std::sort(ratios.begin(), ratios.end());
  const auto n = static_cast<double>(state.iterations());
  state.counters["writer_cpu_ms"] = sum.cpuMs / n;
  state.counters["wall_ms"] = sum.wallMs / n;
  state.counters["preempted"] = sum.preempted / n;
  state.counters["bell_wakes"] = sum.wakes / n;
  state.counters["alone_cpu_ms_min"] = minAlone;
  state.counters["ratio_median"] = ratios[ratios.size() / 2];
  state.counters["ratio_of_mins"] = minWith / minAlone;
}
BENCHMARK(BM_WriterWithReaders)
    ->Args({1, 1})
    ->Args({1, 0})
    ->Args({16, 1})
    ->Args({16, 0})
    ->Args({16, 2})
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void reportLatencies(benchmark::State& state, std::vector<uint64_t>& halfTrips) {
  std::sort(halfTrips.begin(), halfTrips.end());
  if (halfTrips.empty()) return;
  state.counters["median_ns"] = static_cast<double>(halfTrips[halfTrips.size() / 2]);
  state.counters["p99_ns"] = static_cast<double>(halfTrips[halfTrips.size() * 99 / 100]);
}

constexpr int kTrips = 5000;
using Tiny = Oro::ShmTable<uint32_t, uint64_t>;

// The parent writes key i into store "ping"; the child's scheduler wakes, reads it and writes
// it into store "pong"; the parent's scheduler wakes on that. Both sleep in between.
void BM_TableNotificationLatency(benchmark::State& state) {
  BenchNamespace ns;
  std::vector<uint64_t> halfTrips;
  for (auto _ : state) {
    Tiny ping("bench::Ping", "ping", {});
    ping.attach(Oro::ShmAttach{"bench/ping", Oro::ShmRole::writer});
    int ready[2];
    if (::pipe(ready) != 0) return;
    const pid_t child = ::fork();
    if (child == 0) {
      Oro::TaskScheduler sched;
      Tiny pong("bench::Ping", "ping", {});
      pong.attach(Oro::ShmAttach{"bench/pong", Oro::ShmRole::writer});
      Tiny* in = nullptr;
      Tiny reader("bench::Ping", "ping", {[&](const uint32_t& k) {
                    if (auto v = in->find(k)) pong.insert(k, *v);
                    if (k == UINT32_MAX) sched.stop();
                  }});
      in = &reader;
      reader.attach(Oro::ShmAttach{"bench/ping", Oro::ShmRole::reader, &sched});
      (void)!::write(ready[1], "x", 1);
      sched.run();
      ::_exit(0);
    }
    char c;
    (void)!::read(ready[0], &c, 1);
    Oro::TaskScheduler sched;
    uint32_t expect = 0;
    Tiny* back = nullptr;
    Tiny reader("bench::Ping", "ping", {[&](const uint32_t& k) {
                  if (k == expect && back->find(k)) sched.stop();
                }});
    back = &reader;
    for (int attempt = 0; attempt < 1000 && !Oro::shmStoreExists("bench/pong"); ++attempt) {
      ::usleep(1000);
    }
    reader.attach(Oro::ShmAttach{"bench/pong", Oro::ShmRole::reader, &sched});
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

// Shared memory per record while a table grows to 10M, sampled at every 2% of growth from 10k
// (so the sizes just past a chunk or an index generation are among them); the worst sample is
// the figure, next to the goal of 2 x (record + key).
void BM_SharedBytesPerRecordUpTo10M(benchmark::State& state) {
  BenchNamespace ns;
  for (auto _ : state) {
    auto s = Routing::Multicast::mvpnVrfStatusFactory("bgp");
    s->mount(Oro::ShmAttach{"bench/mem", Oro::ShmRole::writer});
    double worst = 0, at1M = 0;
    uint32_t worstAt = 0;
    uint32_t next = 10000;
    for (uint32_t k = 0; k < 10 * kRecords; ++k) {
      s->mvpnVrfIs(MvpnVrf(VrfId(k)));
      if (k + 1 == next || k + 1 == kRecords) {
        const double per = static_cast<double>(s->binding().committedBytes()) / (k + 1);
        if (per > worst) {
          worst = per;
          worstAt = k + 1;
        }
        if (k + 1 == kRecords) at1M = per;
        if (k + 1 == next) next = next + std::max<uint32_t>(next / 50, 1);
      }
    }
    state.counters["worst_bytes_per_record"] = worst;
    state.counters["worst_at_records"] = worstAt;
    state.counters["bytes_per_record_at_1M"] = at1M;
    state.counters["goal_bytes"] = 2.0 * (sizeof(MvpnVrf) + sizeof(VrfId));
    s->unmount();
  }
}
BENCHMARK(BM_SharedBytesPerRecordUpTo10M)->Iterations(1)->Unit(benchmark::kMillisecond);

// A new reader's first dispatch over 1M records (every key reported, the reader's key set
// built), next to a plain walk of the same records.
void BM_ReaderFirstDispatchAt1M(benchmark::State& state) {
  BenchNamespace ns;
  auto w = filledWriter("bench/first", kRecords);
  for (auto _ : state) {
    uint64_t delivered = 0;
    auto reader = Routing::Multicast::mvpnVrfStatusFactory("bgp");
    Oro::KeyReactor<VrfId> count(MvpnVrfStatus::mvpnVrfAttr, [&](const VrfId&) { ++delivered; });
    count.notifierIs(reader.get());
    reader->mount(Oro::ShmAttach{"bench/first", Oro::ShmRole::reader});
    Oro::ShmReader* rd = reader->binding().reader();
    rd->batchIs(1u << 30);
    while (rd->hasPending()) rd->dispatch();
    state.counters["keys_delivered"] = static_cast<double>(delivered);
    count.notifierIs(nullptr);
  }
  w->unmount();
}
BENCHMARK(BM_ReaderFirstDispatchAt1M)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_WalkOf1M(benchmark::State& state) {
  BenchNamespace ns;
  auto w = filledWriter("bench/walk", kRecords);
  auto reader = Routing::Multicast::mvpnVrfStatusFactory("bgp");
  reader->mount(Oro::ShmAttach{"bench/walk", Oro::ShmRole::reader});
  for (auto _ : state) {
    uint64_t n = 0;
    for (auto it = reader->mvpnVrfIter(); it.valid(); it.next()) n += it.key().value() != 0;
    benchmark::DoNotOptimize(n);
  }
  w->unmount();
}
BENCHMARK(BM_WalkOf1M)->Unit(benchmark::kMillisecond)->Iterations(3);

// ---- route status tree ------------------------------------------------------------------------

using namespace Routing::Multicast;
constexpr uint32_t kVrfs = 10000, kGroups = 10, kSources = 10;

Nevo::IpGenAddr v4(uint32_t a) {
  return Nevo::IpGenAddr::ipv4Addr(a);
}

void fillTree(MvpnRouteStatus& root) {
  for (uint32_t v = 0; v < kVrfs; ++v) {
    auto vrf = root.vrfRouteStatusIs(VrfId(v));
    for (uint32_t g = 0; g < kGroups; ++g) {
      for (uint32_t s = 0; s < kSources; ++s) {
        vrf->mvpnSourceIs(v4(0xef000000 + g), v4(0x0a000000 + s),
                          Nevo::IpGenPrefix(v4(0x0a000000), 24), s % 2 == 0,
                          MvpnSource::SourceFlags(2));
      }
    }
  }
}

void BM_MvpnSourceIs1M(benchmark::State& state) {
  BenchNamespace ns;
  for (auto _ : state) {
    state.PauseTiming();
    auto root = mvpnRouteStatusFactory("bgp");
    root->mount(Oro::ShmAttach{"bench/tree", Oro::ShmRole::writer});
    state.ResumeTiming();
    fillTree(*root);
    state.PauseTiming();
    state.counters["shm_bytes_per_source"] =
        static_cast<double>(root->binding().committedBytes()) / (kVrfs * kGroups * kSources);
    state.counters["goal_bytes"] = 2.0 * (sizeof(MvpnSource) + sizeof(Nevo::IpGenAddr));
    // The most slots one insert moved into a next index generation, over the tree's collections.
    const Oro::ShmStore& store = root->binding().store();
    uint32_t moved = 0;
    for (uint32_t c = 0; c < store.collections(); ++c)
      moved = std::max(moved, store.indexGrowth(c).maxSlotsPerWrite);
    state.counters["max_slots_moved_by_one_write"] = moved;
    root->unmount();
    root = nullptr;  // its teardown is not part of the inserts
    Oro::shmUnlinkNamespace();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kVrfs * kGroups * kSources);
}
BENCHMARK(BM_MvpnSourceIs1M)->Unit(benchmark::kMillisecond)->Iterations(2);

// The same sources into nested process-local hash maps: VRF -> group -> source -> record.
void BM_NestedHashMapSources1M(benchmark::State& state) {
  for (auto _ : state) {
    absl::flat_hash_map<
        uint32_t, absl::flat_hash_map<Nevo::IpGenAddr,
                                      std::pair<absl::flat_hash_map<Nevo::IpGenAddr, MvpnSource>,
                                                absl::flat_hash_map<Nevo::IpGenAddr, MvpnSource>>>>
        tree;
    for (uint32_t v = 0; v < kVrfs; ++v) {
      auto& vrf = tree[v];
      for (uint32_t g = 0; g < kGroups; ++g) {
        for (uint32_t s = 0; s < kSources; ++s) {
          auto& group = vrf[v4(0xef000000 + g)];
          const MvpnSource rec(v4(0x0a000000 + s), Nevo::IpGenPrefix(v4(0x0a000000), 24),
                               MvpnSource::SourceFlags(2));
          (s % 2 == 0 ? group.first : group.second)[rec.source()] = rec;
        }
      }
    }
    benchmark::DoNotOptimize(tree.size());
  }
  state.SetItemsProcessed(state.iterations() * kVrfs * kGroups * kSources);
}
BENCHMARK(BM_NestedHashMapSources1M)->Unit(benchmark::kMillisecond)->Iterations(2);

// A reader attaching to the 1M-source tree until its proxies and key sets are all built (its
// first dispatch done).
void BM_TreeReaderReadyAt1M(benchmark::State& state) {
  BenchNamespace ns;
  auto root = mvpnRouteStatusFactory("bgp");
  root->mount(Oro::ShmAttach{"bench/treeread", Oro::ShmRole::writer});
  fillTree(*root);
  for (auto _ : state) {
    auto reader = mvpnRouteStatusFactory("bgp");
    reader->mount(Oro::ShmAttach{"bench/treeread", Oro::ShmRole::reader});
    Oro::ShmReader* rd = reader->binding().reader();
    rd->batchIs(1u << 30);
    while (rd->hasPending()) rd->dispatch();
    state.counters["keys_delivered"] = static_cast<double>(rd->keysDelivered());
    state.PauseTiming();
    reader = nullptr;  // its teardown is not part of getting ready
    state.ResumeTiming();
  }
  root->unmount();
}
BENCHMARK(BM_TreeReaderReadyAt1M)->Unit(benchmark::kMillisecond)->Iterations(2);

// ---- integrity check ------------------------------------------------------------------------

// Every record of a store through the reader API: top-level collections in slot order, each
// entity's members through its page chains.
uint64_t walkStore(const Oro::ShmStore& s) {
  Oro::ShmStore::Record rec;
  uint64_t n = 0;
  std::function<void(uint32_t, uint64_t)> members = [&](uint32_t c, uint64_t ref) {
    for (uint32_t cc = 0; cc < s.collections(); ++cc) {
      if (s.schema().collections[cc].parent != c) continue;
      const bool entity = s.schema().collections[cc].kind == Oro::ShmLayout::kCollEntities;
      for (uint32_t m = s.seekChild(cc, ref, Oro::ShmStore::kNoSlot, &rec);
           m != Oro::ShmStore::kNoSlot; m = s.nextChild(cc, ref, m, &rec)) {
        ++n;
        if (entity) members(cc, s.refOf(cc, m));
      }
    }
  };
  for (uint32_t c = 0; c < s.collections(); ++c) {
    if (s.nested(c)) continue;
    const bool entity = s.schema().collections[c].kind == Oro::ShmLayout::kCollEntities;
    for (uint32_t slot = s.seek(c, 0, &rec); slot != Oro::ShmStore::kNoSlot;
         slot = s.seek(c, slot + 1, &rec)) {
      ++n;
      if (entity) members(c, s.refOf(c, slot));
    }
  }
  return n;
}

// shmVerifyStore of one store next to a reader's walk of the same store, in the same iteration.
void verifyVsWalk(benchmark::State& state, const std::string& path) {
  double verifyMs = 0, walkMs = 0;
  size_t records = 0;
  for (auto _ : state) {
    const uint64_t t0 = nowNs();
    const Oro::ShmIntegrityReport r = Oro::shmVerifyStore(path);
    const uint64_t t1 = nowNs();
    const Oro::ShmStore s = Oro::ShmStore::openReader(path, nullptr);
    const uint64_t walked = walkStore(s);
    const uint64_t t2 = nowNs();
    if (!r.ok() || r.recordsChecked != walked)
      state.SkipWithError("the check disagrees with the walk");
    records = r.recordsChecked;
    verifyMs += static_cast<double>(t1 - t0) / 1e6;
    walkMs += static_cast<double>(t2 - t1) / 1e6;
  }
  const auto n = static_cast<double>(state.iterations());
  state.counters["records"] = static_cast<double>(records);
  state.counters["verify_ms"] = verifyMs / n;
  state.counters["walk_ms"] = walkMs / n;
  state.counters["verify_per_walk"] = verifyMs / walkMs;
}

void BM_VerifyOf1M(benchmark::State& state) {
  BenchNamespace ns;
  auto w = filledWriter("bench/verify", kRecords);
  verifyVsWalk(state, "bench/verify");
  w->unmount();
}
BENCHMARK(BM_VerifyOf1M)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

void BM_VerifyOfTree1M(benchmark::State& state) {
  BenchNamespace ns;
  auto root = mvpnRouteStatusFactory("bgp");
  root->mount(Oro::ShmAttach{"bench/verifytree", Oro::ShmRole::writer});
  fillTree(*root);
  verifyVsWalk(state, "bench/verifytree");
  root->unmount();
}
BENCHMARK(BM_VerifyOfTree1M)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

// A restarted writer taking over a store of 1M records whose writer died (recovery, then the
// integrity check of what it recovered), next to a reader's walk of the same store.
void BM_WriterTakeOver1M(benchmark::State& state) {
  BenchNamespace ns;
  filledWriter("bench/takeover", kRecords) = nullptr;  // the store outlives its writer
  const Oro::ShmStoreSchema schema = Oro::ShmStore::openReader("bench/takeover", nullptr).schema();
  double takeMs = 0, walkMs = 0;
  for (auto _ : state) {
    const uint64_t t0 = nowNs();
    {
      const Oro::ShmStore w = Oro::ShmStore::openWriter("bench/takeover", schema, 0600, 8192);
      if (w.count(0) != kRecords) state.SkipWithError("records lost in the take-over");
    }
    const uint64_t t1 = nowNs();
    const Oro::ShmStore r = Oro::ShmStore::openReader("bench/takeover", nullptr);
    if (walkStore(r) != kRecords) state.SkipWithError("the walk disagrees");
    const uint64_t t2 = nowNs();
    takeMs += static_cast<double>(t1 - t0) / 1e6;
    walkMs += static_cast<double>(t2 - t1) / 1e6;
  }
  const auto n = static_cast<double>(state.iterations());
  state.counters["takeover_ms"] = takeMs / n;
  state.counters["walk_ms"] = walkMs / n;
  state.counters["takeover_per_walk"] = takeMs / walkMs;
}
BENCHMARK(BM_WriterTakeOver1M)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

}  // namespace
