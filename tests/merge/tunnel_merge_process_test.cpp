// End to end across processes: the MVPN, static and EVPN writers publish their tunnel
// encapsulation statuses from three processes, a merging reader in a fourth process writes
// the merged status, and this process follows the merged status as a reader, comparing it
// with the rule applied to its model of the inputs after every phase. The merger starts on a
// merged status a dead merger left behind, and is killed and restarted while the writers
// change things under it.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <random>
#include <string>

#include <fmt/format.h>

#include "merge/EncapTestRig.h"
#include "merge/WriterProcesses.h"
#include "platform/shm/ShmSegment.h"

namespace {

using namespace EncapTest;
using namespace std::chrono_literals;
using Oro::ShmAttach;
using Oro::ShmRole;
using Routing::Multicast::mvpnTunnelEncapStatusFactory;

const char* const kWriterNames[] = {"mvpn", "static", "evpn"};
constexpr int kMergerDown = 7;  // the phase run while no merger is up
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
  auto dropVrf = [&c](uint32_t vrf) {
    std::erase_if(c.routes, [vrf](const auto& e) { return e.first.first == vrf; });
    std::erase_if(c.intfs, [vrf](const auto& e) { return e.first.first == vrf; });
  };
  return Ops{[&c](uint32_t v, uint32_t n, const std::string& d) {
               c.routes[{v, n}] = d;
             },
             [&c](uint32_t v, uint32_t n, const std::string& d) {
               c.intfs[{v, n}] = d;
             },
             [&c](uint32_t v, uint32_t n) {
               c.routes.erase({v, n});
             },
             [&c](uint32_t v, uint32_t n) {
               c.intfs.erase({v, n});
             },
             dropVrf};
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

class TunnelMergeProcessTest : public shmtest::ShmTest {};

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

  ASSERT_TRUE(settle()) << ::testing::PrintToString(contents(*merged));
  EXPECT_EQ(data(1, 1), "s1");
  EXPECT_EQ(contents(*merged).intfs.at({2, 1}), "s21");
  for (int phase = 1; phase < kPhases; ++phase) {
    SCOPED_TRACE(phase);
    if (phase == kMergerDown) {
      ASSERT_EQ(::kill(merger, SIGKILL), 0);
      EXPECT_EQ(shmtest::waitChild(merger), 128 + SIGKILL);
      runPhase(phase);
      merger = startMerger();
      runPhase(++phase);  // while the new merger scans and reconciles
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

}  // namespace
