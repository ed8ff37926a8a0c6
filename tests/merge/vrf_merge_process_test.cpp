// End to end across processes: four writer processes publish their VRF statuses in shared
// memory; this process merges them as a reader, writing the merged status as its writer. A
// reader that died earlier left a stale merged table behind, which the new machine takes
// over and reconciles.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>

#include <fmt/format.h>

#include "merge/MergeTestRig.h"
#include "merge/MvpnVrfStatusMergeSm.h"
#include "merge/WriterProcesses.h"
#include "platform/net/IpAddr.h"
#include "platform/shm/ShmSegment.h"
#include "platform/shm/ShmTable.h"

namespace {

using namespace MergeTest;
using namespace std::chrono_literals;
using Oro::ShmAttach;
using Oro::ShmRole;
using Routing::Multicast::mvpnVrfStatusFactory;

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
        if (rng() % 3 == 0) {
          ops.del(k);
        } else {
          ops.put(k);
        }
      }
      break;
    }
    case 6:  // static MVPN withdraws everything
      if (w == 1) ops.delAll();
      break;
  }
}

class VrfMergeProcessTest : public shmtest::ShmTest {};

TEST_F(VrfMergeProcessTest, MergedTableFollowsFourWriterProcesses) {
  // An earlier reader wrote a merged table and died without cleaning up.
  const pid_t previous = shmtest::forkChild([]() -> int {
    auto merged = mvpnVrfStatusFactory("merged");
    merged->mount(ShmAttach{kMergedPath, ShmRole::writer});
    merged->mvpnVrfIs(MvpnVrf(VrfId(500), MvpnClient::bgp_));
    merged->mvpnVrfIs(MvpnVrf(VrfId(501), MvpnClient::evpn_));
    merged->mvpnVrfIs(MvpnVrf(VrfId(2), MvpnClient::staticEvpn_));
    merged->mvpnVrfIs(MvpnVrf(VrfId(7), MvpnClient::bgp_));
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
  Oro::Ptr<MvpnVrfStatus> in[4];
  for (int w = 0; w < 4; ++w) {
    in[w] = mvpnVrfStatusFactory(fmt::format("reader{}", w));
    in[w]->mount(
        ShmAttach{MvpnVrfStatus::mountPath(Nevo::ipv4, kWriters[w]), ShmRole::reader, &scheduler});
  }
  auto merged = mvpnVrfStatusFactory("merged");
  merged->mount(ShmAttach{kMergedPath, ShmRole::writer});
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

  ASSERT_TRUE(settle());
  EXPECT_EQ(contents(*merged).at(7), MvpnClient::evpn_);  // static MVPN and EVPN: EVPN
  EXPECT_EQ(contents(*merged).at(2), MvpnClient::bgp_);
  // The two stale entries no writer supports were deleted.
  EXPECT_EQ(sm->mergedVrfStatusMvpnVrfOutput().deletedTotal(), 2u);

  const MvpnClient after30[] = {MvpnClient::staticEvpn_, MvpnClient::bgp_, MvpnClient::staticEvpn_};
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
  EXPECT_EQ(contents(*merged).at(7), MvpnClient::evpn_);
  EXPECT_EQ(contents(*merged).count(10), 0u);

  sm = nullptr;
}

}  // namespace
