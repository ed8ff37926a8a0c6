// End to end across processes, for both merge machines.
// - Four writer processes publish their VRF statuses in shared memory; this process merges
//   them as a reader, writing the merged status as its writer. A reader that died earlier left
//   a stale merged table behind, which the new machine takes over and reconciles.
// - The MVPN, static and EVPN writers publish their tunnel encapsulation statuses from three
//   processes, a merging reader in a fourth process writes the merged status, and this process
//   follows the merged status as a reader, comparing it with the rule applied to its model of
//   the inputs after every phase. The merger starts on a merged status a dead merger left
//   behind, and is killed and restarted while the writers change things under it.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>

#include <fmt/format.h>

#include "common/mvpnstat_run.h"
#include "merge/MergeTestRig.h"
#include "merge/MvpnVrfStatusMergeSm.h"
#include "merge/WriterProcesses.h"
#include "platform/net/IpAddr.h"

namespace {

using namespace std::chrono_literals;
using Oro::ShmAttach;
using Oro::ShmRole;
using Routing::Multicast::mvpnTunnelEncapStatusFactory;
using Routing::Multicast::mvpnVrfStatusFactory;

class VrfMergeProcessTest : public shmtest::ShmTest {};
using TunnelMergeProcessTest = VrfMergeProcessTest;

namespace vrfProcess {

using namespace MergeTest;
using enum MvpnClient;

constexpr const char* kMergedPath = "test/multicast/vpn/vrfStatus/merged";
constexpr int kPhases = 7;

// What writer `w` does in `phase`; run by the writer processes on their statuses and by the
// test on its model of them.
struct Ops {
  std::function<void(uint32_t)> put;
  std::function<void(uint32_t)> del;
  std::function<void()> delAll;
};
void script(int w, int phase, const Ops& ops) {
  switch (phase) {
    case 0: {  // contents before the merging reader starts
      const std::map<int, std::set<uint32_t>> initial = {
          {0, {1, 2, 3}}, {1, {7, 10}}, {2, {7, 3}}, {3, {20}}};
      for (uint32_t k : initial.at(w)) ops.put(k);
      break;
    }
    case 1:  // static EVPN lists 30, then BGP; then both withdraw
    case 2:
    case 3:
    case 4: {
      const int writer[] = {3, 0, 0, 3};
      if (w == writer[phase - 1]) phase <= 2 ? ops.put(30) : ops.del(30);
      break;
    }
    case 5: {  // everyone at once, on overlapping keys
      std::mt19937 rng(static_cast<uint32_t>(100 + w));
      for (int i = 0; i < 3000; ++i) {
        const uint32_t k = 1000 + rng() % 300;
        rng() % 3 == 0 ? ops.del(k) : ops.put(k);
      }
      break;
    }
    case 6:  // static MVPN withdraws everything
      if (w == 1) ops.delAll();
      break;
  }
}

TEST_F(VrfMergeProcessTest, MergedTableFollowsFourWriterProcesses) {
  // An earlier reader wrote a merged table and died without cleaning up.
  const pid_t previous = shmtest::forkChild([]() -> int {
    auto merged = shmtest::mounted(mvpnVrfStatusFactory("merged"), {kMergedPath, ShmRole::writer});
    for (auto [vrf, client] : Merged{{500, bgp_}, {501, evpn_}, {2, staticEvpn_}, {7, bgp_}}) {
      merged->mvpnVrfIs(MvpnVrf(VrfId(vrf), client));
    }
    ::_exit(0);  // no clean-up, like a crash
  });
  ASSERT_EQ(shmtest::waitChild(previous), 0);

  std::set<uint32_t> model[4];
  WriterProcesses writers(4, [](int w) {
    auto status = mvpnVrfStatusFactory(fmt::format("writer{}", w));
    status->mount(ShmAttach{MvpnVrfStatus::mountPath(Nevo::ipv4, kWriters[w]), ShmRole::writer});
    return [w, status](int phase) {
      script(
          w, phase,
          Ops{[&](uint32_t k) { status->mvpnVrfIs(MvpnVrf(VrfId(k), kWriters[w])); },
              [&](uint32_t k) { status->mvpnVrfDel(VrfId(k)); }, [&] { status->mvpnVrfDelAll(); }});
    };
  });
  auto runPhase = [&](int phase) {
    writers.runPhase(phase);
    for (int w = 0; w < 4; ++w) {
      script(w, phase,
             Ops{[&](uint32_t k) { model[w].insert(k); }, [&](uint32_t k) { model[w].erase(k); },
                 [&] { model[w].clear(); }});
    }
  };
  runPhase(0);

  // The merging reader.
  Oro::TaskScheduler scheduler;
  auto in = mountedReaders(scheduler);
  auto merged = shmtest::mounted(mvpnVrfStatusFactory("merged"), {kMergedPath, ShmRole::writer});
  ASSERT_EQ(merged->mvpnVrfSize(), 4u);  // taken over from the dead reader

  auto sm = Routing::Multicast::mergedMvpnVrfStatusSmFactory(in[0], in[1], in[2], in[3], merged,
                                                             Dyx::SmControl{&scheduler});
  sm->initializedIs(true);

  auto expected = [&] {
    std::map<uint32_t, unsigned> present;
    for (int w = 0; w < 4; ++w) {
      for (uint32_t k : model[w]) present[k] |= 1u << w;
    }
    return mergeOf(present);
  };
  // Runs the reader's scheduler (asleep between the writers' wake-ups) until the merged
  // table agrees with the model; the bound only turns a hang into a failure.
  auto settle = [&] {
    return scheduler.runUntil([&] { return sm->ready() && contents(*merged) == expected(); },
                              Oro::TaskScheduler::Clock::now() + 60s);
  };

  ASSERT_TRUE(settle());  // 7 and 2, which writers list, merged anew
  // The two stale entries no writer supports were deleted.
  EXPECT_EQ(sm->mergedVrfStatusMvpnVrfOutput().deletedTotal(), 2u);

  const MvpnClient after30[] = {staticEvpn_, bgp_, staticEvpn_};
  for (int phase = 1; phase < kPhases; ++phase) {
    SCOPED_TRACE(phase);
    runPhase(phase);
    ASSERT_TRUE(settle());
    if (phase <= 3) {
      EXPECT_EQ(contents(*merged).at(30), after30[phase - 1]);
    } else {
      EXPECT_FALSE(merged->mvpnVrf(VrfId(30)).has_value());
    }
  }
  sm = nullptr;
}

}  // namespace vrfProcess

namespace tunnelProcess {

using namespace EncapTest;

const char* const kWriterNames[] = {"mvpn", "static", "evpn"};
constexpr int kMergerDown = 7;      // the phase run while no merger is up
constexpr int kStaticTakeOver = 9;  // run by a successor of the static writer, killed before
constexpr int kPhases = 10;

// One writer's changes, applied by the writer processes to their statuses and by the test to
// its model of them.
struct Ops {
  std::function<void(uint32_t vrf, uint32_t n, const std::string&)> putRoute, putIntf;
  std::function<void(uint32_t vrf, uint32_t n)> delRoute, delIntf;
  std::function<void(uint32_t vrf)> delVrf;
};

void script(int w, int phase, const Ops& ops) {
  const std::string tag = kWriterNames[w];
  switch (phase) {
    case 0:  // before any merger
      if (w == kMvpn) {
        ops.putRoute(1, 1, "m1");
        ops.putRoute(1, 2, "m2");
        ops.putRoute(3, 1, "m31");
      } else if (w == kStatic) {
        ops.putRoute(1, 1, "s1");
        ops.putIntf(2, 1, "s21");
      } else {
        ops.putIntf(2, 1, "e21");
        ops.putIntf(2, 2, "e22");
        ops.putIntf(4, 1, "e41");
      }
      break;
    case 1:  // the static writer's record wins over the MVPN writer's
      if (w == kStatic) ops.putRoute(1, 2, "s2");
      break;
    case 2:  // and the MVPN record comes back when it goes
      if (w == kStatic) ops.delRoute(1, 2);
      break;
    case 3:  // the last record of a merged VRF goes, and VRF 2 gains a route record
      if (w == kEvpn) ops.delIntf(4, 1);
      if (w == kMvpn) ops.putRoute(2, 5, "m25");
      break;
    case 4:  // VRF 2 loses every interface record but keeps its route record
      if (w == kStatic) ops.delIntf(2, 1);
      if (w == kEvpn) ops.delVrf(2);
      break;
    case 5:  // a whole input VRF goes: its keys fall back to the static writer or go
      if (w == kMvpn) ops.delVrf(1);
      break;
    case 6:    // everyone at once on overlapping keys
    case 7:    // the same while the merger is down
    case 8: {  // and while the restarted merger scans and reconciles
      std::mt19937 rng(static_cast<uint32_t>(phase * 10 + w));
      for (int i = 0; i < 1500; ++i) {
        const uint32_t vrf = 10 + rng() % 5, n = rng() % 40, op = rng() % 10;
        const std::string data = fmt::format("{}{}-{}", tag, phase, i);
        if (op == 0 && rng() % 8 == 0) {
          ops.delVrf(vrf);
        } else if (op < 3) {
          w == kEvpn ? ops.delIntf(vrf, n) : ops.delRoute(vrf, n);
        } else if (op < 5 && w == kStatic) {
          ops.putIntf(vrf, n, data);
        } else {
          w == kEvpn ? ops.putIntf(vrf, n, data) : ops.putRoute(vrf, n, data);
        }
      }
      break;
    }
    case 9:  // the static writer's successor withdraws everything
      if (w == kStatic) {
        for (uint32_t vrf : {1u, 2u, 10u, 11u, 12u, 13u, 14u}) ops.delVrf(vrf);
      }
      break;
  }
}

Ops modelOps(Contents& c) {
  Ops ops;
  ops.putRoute = [&c](uint32_t v, uint32_t n, const std::string& d) { c.routes[{v, n}] = d; };
  ops.putIntf = [&c](uint32_t v, uint32_t n, const std::string& d) { c.intfs[{v, n}] = d; };
  ops.delRoute = [&c](uint32_t v, uint32_t n) { c.routes.erase({v, n}); };
  ops.delIntf = [&c](uint32_t v, uint32_t n) { c.intfs.erase({v, n}); };
  ops.delVrf = [&c](uint32_t vrf) {
    std::erase_if(c.routes, [vrf](const auto& e) { return e.first.first == vrf; });
    std::erase_if(c.intfs, [vrf](const auto& e) { return e.first.first == vrf; });
  };
  return ops;
}

Ops statusOps(MvpnTunnelEncapStatus& s) {
  return Ops{[&s](uint32_t v, uint32_t n, const std::string& d) {
               s.vrfStatusIs(VrfId(v))->encapTunnelIs(MvpnEncapTunnel(route(n), d));
             },
             [&s](uint32_t v, uint32_t n, const std::string& d) {
               s.vrfStatusIs(VrfId(v))->encapIntfTunnelIs(MvpnEncapIntfTunnel(intf(n), d));
             },
             [&s](uint32_t v, uint32_t n) {
               if (auto e = s.vrfStatus(VrfId(v))) e->encapTunnelDel(route(n));
             },
             [&s](uint32_t v, uint32_t n) {
               if (auto e = s.vrfStatus(VrfId(v))) e->encapIntfTunnelDel(intf(n));
             },
             [&s](uint32_t v) { s.vrfStatusDel(VrfId(v)); }};
}

// A merging reader in its own process, until killed.
pid_t startMerger() {
  return shmtest::forkChild([] {
    Oro::TaskScheduler scheduler;
    Oro::Ptr<const MvpnTunnelEncapStatus> in[3];
    for (int w = 0; w < 3; ++w) {
      auto s = mvpnTunnelEncapStatusFactory(kWriterNames[w]);
      s->mount(ShmAttach{MvpnTunnelEncapStatus::mountPath(kWriterNames[w]), ShmRole::reader,
                         &scheduler});
      in[w] = s;
    }
    auto merged = mvpnTunnelEncapStatusFactory("merged");
    merged->mount(ShmAttach{MvpnTunnelEncapStatus::mountPath("merged"), ShmRole::writer});
    auto sm = Routing::Multicast::mergedMcastTunnelEncapStatusSmFactory(
        in[kMvpn], in[kStatic], in[kEvpn], merged, Dyx::SmControl{&scheduler});
    sm->initializedIs(true);
    scheduler.run();
    return 0;
  });
}

TEST_F(TunnelMergeProcessTest, MergedStatusFollowsThreeWriterProcesses) {
  // A merger that died left stale records in both collections, and a wrong one.
  const pid_t previous = shmtest::forkChild([]() -> int {
    auto merged = mvpnTunnelEncapStatusFactory("merged");
    merged->mount(ShmAttach{MvpnTunnelEncapStatus::mountPath("merged"), ShmRole::writer});
    statusOps(*merged).putRoute(1, 9, "stale");
    statusOps(*merged).putRoute(1, 1, "m1");
    statusOps(*merged).putIntf(5, 1, "stale");
    ::_exit(0);  // no clean-up, like a crash
  });
  ASSERT_EQ(shmtest::waitChild(previous), 0);

  Contents model[3];
  MergeTest::WriterProcesses writers(3, [](int w) {
    auto status = mvpnTunnelEncapStatusFactory(kWriterNames[w]);
    status->mount(ShmAttach{MvpnTunnelEncapStatus::mountPath(kWriterNames[w]), ShmRole::writer});
    return [w, status](int phase) { script(w, phase, statusOps(*status)); };
  });
  auto runPhase = [&](int phase) {
    writers.runPhase(phase);
    for (int w = 0; w < 3; ++w) script(w, phase, modelOps(model[w]));
  };
  runPhase(0);

  Oro::TaskScheduler scheduler;
  auto merged = mvpnTunnelEncapStatusFactory("mergedReader");
  merged->mount(ShmAttach{MvpnTunnelEncapStatus::mountPath("merged"), ShmRole::reader, &scheduler});
  ASSERT_EQ(contents(*merged).routes.size(), 2u);
  pid_t merger = startMerger();

  // Runs this reader (asleep between the merger's wake-ups) until the merged status is what
  // the rule gives; the bound only turns a hang into a failure.
  auto settle = [&] {
    const auto expected = mergeOf(model[kMvpn], model[kStatic], model[kEvpn]);
    return scheduler.runUntil([&] { return contents(*merged) == expected; },
                              Oro::TaskScheduler::Clock::now() + 60s);
  };
  auto data = [&](uint32_t vrf, uint32_t n) { return contents(*merged).routes.at({vrf, n}); };

  // The stale records and the wrong one (1, 1) are reconciled to the rule.
  ASSERT_TRUE(settle()) << ::testing::PrintToString(contents(*merged));

  // An operator's watch hears of the merger's death (nothing changes in the store then) and
  // of its successor's progress. Its first lines are the records present when it attaches.
  shmtest::Child watch({MVPNSTAT_PATH, "--namespace", Oro::shmNamespace(), "watch",
                        MvpnTunnelEncapStatus::mountPath("merged")});
  ASSERT_FALSE(watch.line().empty());
  for (int phase = 1; phase < kPhases; ++phase) {
    SCOPED_TRACE(phase);
    if (phase == kMergerDown) {
      ASSERT_EQ(::kill(merger, SIGKILL), 0);
      EXPECT_EQ(shmtest::waitChild(merger), 128 + SIGKILL);
      EXPECT_TRUE(watch.waitFor("merger: not running")) << watch.seen;
      runPhase(phase);
      merger = startMerger();
      runPhase(++phase);  // while the new merger scans and reconciles
      EXPECT_TRUE(watch.waitFor("merger: ready")) << watch.seen;
    } else {
      if (phase == kStaticTakeOver) writers.restart(kStatic);
      runPhase(phase);
    }
    ASSERT_TRUE(settle()) << ::testing::PrintToString(contents(*merged));
    const Contents now = contents(*merged);
    switch (phase) {
      case 1:
        EXPECT_EQ(data(1, 2), "s2");
        break;
      case 2:
        EXPECT_EQ(data(1, 2), "m2");
        break;
      case 3:
        EXPECT_EQ(now.vrfs.count(4), 0u);
        break;
      case 4:
        EXPECT_EQ(now.vrfs.count(2), 1u);
        EXPECT_EQ(data(2, 5), "m25");
        break;
      case 5:
        EXPECT_EQ(data(1, 1), "s1");
        EXPECT_EQ(now.routes.count({1, 2}), 0u);
        break;
      case 9:  // every static record fell back to another writer's or went
        EXPECT_EQ(now.vrfs.count(1), 0u);
        for (const auto& [key, d] : now.routes) EXPECT_EQ(d.rfind("static", 0), std::string::npos);
        for (const auto& [key, d] : now.intfs) EXPECT_EQ(d.rfind("static", 0), std::string::npos);
        break;
    }
  }
  ASSERT_EQ(::kill(merger, SIGKILL), 0);
  shmtest::waitChild(merger);
}

}  // namespace tunnelProcess

}  // namespace
