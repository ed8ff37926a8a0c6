// Model-based randomized tests of both merge machines: random histories of their inputs
// interleaved with scheduler steps and restarts of the merging reader over the merged status
// it left, with yields at random points from a seeded generator (so the interleaving is the
// seed's alone), for synchronous and asynchronous machines.
// - MergedMvpnVrfStatusSm: inserts, deletes, whole-root deletion and departures of the four
//   inputs; the merged status is the precedence function of what the machine watches.
// - MergedMcastTunnelEncapStatusSm: records of the three writers written, rewritten and deleted
//   in both collections, whole VRFs withdrawn, records the merge does not read; the merged
//   status is the rule applied to the inputs.
// Once ready, a machine must follow withdrawals and departures (a synchronous tunnel machine,
// every change) at once; once the scheduler is idle, it must be ready, whatever the order of
// the events that led there.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>

#include "merge/MergeTestRig.h"

namespace {

// One history's random choices, all from its seed. Yields come at random points: a task asking
// whether to yield is told so with probability 1/odds (1: after every key, 0: never), from a
// generator of its own seed.
struct History {
  History(uint32_t seed, Oro::TaskScheduler& scheduler) : rng(seed) {
    const uint32_t odds[] = {1, 2, 5, 0};
    const uint32_t yieldOdds = odds[pick(4)];
    scheduler.yieldPolicyIs([yields = std::mt19937(seed), yieldOdds](const Oro::Task&) mutable {
      return yieldOdds != 0 && yields() % yieldOdds == 0;
    });
    synchronous = pick(4) == 0;
    log = "yield odds " + std::to_string(yieldOdds) + (synchronous ? " sync" : " async");
  }
  uint32_t pick(uint32_t n) { return static_cast<uint32_t>(rng() % n); }
  void note(const std::string& what) { log += "; " + what; }
  std::mt19937 rng;
  bool synchronous = false;
  std::string log;  // what the history did, for a failure's message
};

// Every seed's history up to the first failure; MVPN_MERGE_MODEL_SEED=<n> replays one history.
void runSeeds(void (*runHistory)(uint32_t)) {
  if (const char* one = std::getenv("MVPN_MERGE_MODEL_SEED")) {
    runHistory(static_cast<uint32_t>(std::strtoul(one, nullptr, 10)));
    return;
  }
  for (uint32_t seed = 1; seed <= 3000 && !::testing::Test::HasFatalFailure(); ++seed) {
    runHistory(seed);
  }
}

namespace vrfModel {

using namespace MergeTest;

constexpr uint32_t kKeys = 24;

void runHistory(uint32_t seed) {
  Rig rig;
  History h(seed, rig.scheduler);
  unsigned departed = 0;  // bit n: input n has left

  // A merged output that survived an earlier life, and inputs filled before the start.
  for (uint32_t i = h.pick(6); i > 0; --i) {
    rig.merged->mvpnVrfIs(MvpnVrf(VrfId(h.pick(kKeys)), kWriters[h.pick(4)]));
  }
  for (uint32_t i = h.pick(20); i > 0; --i) rig.put(static_cast<int>(h.pick(4)), h.pick(kKeys));
  rig.start(h.synchronous);

  for (uint32_t step = 0, steps = 10 + h.pick(40); step < steps; ++step) {
    const uint32_t op = h.pick(100);
    const int n = static_cast<int>(h.pick(4));
    if (op < 40) {
      const uint32_t k = h.pick(kKeys);
      h.note("put " + std::to_string(n) + ":" + std::to_string(k));
      rig.put(n, k);
    } else if (op < 65) {
      const uint32_t k = h.pick(kKeys);
      h.note("del " + std::to_string(n) + ":" + std::to_string(k));
      rig.del(n, k);
    } else if (op < 68) {
      h.note("delAll " + std::to_string(n));
      rig.in[n]->mvpnVrfDelAll();  // the writer withdraws everything at once
    } else if (op < 70) {
      if (!(departed & (1u << n))) {
        h.note("depart " + std::to_string(n));
        departed |= 1u << n;
        rig.sm->inputRootDel(static_cast<size_t>(n));
      }
    } else if (op < 73) {
      h.note("restart");
      // The reader restarts, possibly in the middle of its scans, over the merged output
      // as it was left; the new machine watches every input again.
      rig.sm = nullptr;
      departed = 0;
      for (uint32_t i = h.pick(3); i > 0; --i) rig.put(static_cast<int>(h.pick(4)), h.pick(kKeys));
      rig.start(h.synchronous);
    } else {
      const uint32_t runs = h.pick(4);
      h.note("run " + std::to_string(runs));
      for (uint32_t i = runs; i > 0; --i) rig.scheduler.runOnce();
    }
    // Once ready, withdrawals and departures are merged at once (a record's change: VrfMerge).
    if (op >= 65 && op < 70 && rig.sm->ready()) {
      ASSERT_EQ(rig.mergedMap(), rig.expected(departed)) << "seed " << seed << ": " << h.log;
    }
  }
  ASSERT_TRUE(rig.settle()) << "seed " << seed;
  ASSERT_TRUE(rig.sm->idle()) << "seed " << seed;
  ASSERT_EQ(rig.mergedMap(), rig.expected(departed)) << "seed " << seed << ": " << h.log;
  ASSERT_TRUE(rig.sm->mergedVrfStatusMvpnVrfOutputSeen().empty()) << "seed " << seed;
}

}  // namespace vrfModel

TEST(VrfMergeModel, RandomHistoriesConvergeToThePrecedenceOfTheInputs) {
  runSeeds(vrfModel::runHistory);
}

namespace tunnelModel {

using namespace EncapTest;

constexpr uint32_t kVrfs = 4;
constexpr uint32_t kKeys = 4;

void runHistory(uint32_t seed) {
  Rig rig;
  History h(seed, rig.scheduler);
  auto data = [&] { return "d" + std::to_string(h.pick(3)); };
  const int routeWriters[] = {kMvpn, kStatic};
  const int intfWriters[] = {kEvpn, kStatic};

  // A merged status that survived an earlier life, and inputs filled before the start.
  for (uint32_t i = h.pick(5); i > 0; --i) {
    auto vrf = rig.merged->vrfStatusIs(VrfId(1 + h.pick(kVrfs)));
    if (h.pick(2)) {
      vrf->encapTunnelIs(MvpnEncapTunnel(route(h.pick(kKeys)), "old"));
    } else {
      vrf->encapIntfTunnelIs(MvpnEncapIntfTunnel(intf(h.pick(kKeys)), "old"));
    }
  }
  for (uint32_t i = h.pick(12); i > 0; --i) {
    rig.putRoute(routeWriters[h.pick(2)], 1 + h.pick(kVrfs), h.pick(kKeys), data());
    rig.putIntf(intfWriters[h.pick(2)], 1 + h.pick(kVrfs), h.pick(kKeys), data());
  }
  rig.start(h.synchronous);

  for (uint32_t step = 0, steps = 10 + h.pick(50); step < steps; ++step) {
    const uint32_t op = h.pick(100);
    const uint32_t vrf = 1 + h.pick(kVrfs), key = h.pick(kKeys);
    const int rw = routeWriters[h.pick(2)], iw = intfWriters[h.pick(2)];
    const std::string where = std::to_string(vrf) + "/" + std::to_string(key);
    if (op < 25) {
      h.note("putRoute " + std::to_string(rw) + " " + where);
      rig.putRoute(rw, vrf, key, data());
    } else if (op < 40) {
      h.note("delRoute " + std::to_string(rw) + " " + where);
      rig.delRoute(rw, vrf, key);
    } else if (op < 55) {
      h.note("putIntf " + std::to_string(iw) + " " + where);
      rig.putIntf(iw, vrf, key, data());
    } else if (op < 67) {
      h.note("delIntf " + std::to_string(iw) + " " + where);
      rig.delIntf(iw, vrf, key);
    } else if (op < 74) {
      const int w = static_cast<int>(h.pick(3));
      h.note("delVrf " + std::to_string(w) + " " + std::to_string(vrf));
      rig.delVrf(w, vrf);
    } else if (op < 77) {
      // Records of collections the merge does not read from these writers.
      h.note("unread " + where);
      rig.putIntf(kMvpn, vrf, key, "x");
      rig.putRoute(kEvpn, vrf, key, "x");
    } else if (op < 80) {
      h.note("restart");
      rig.sm = nullptr;
      rig.start(h.synchronous);
    } else {
      const uint32_t runs = h.pick(6);
      h.note("run " + std::to_string(runs));
      for (uint32_t i = runs; i > 0; --i) rig.scheduler.runOnce();
    }
    // Once ready, a synchronous machine merges every change at once, any machine a withdrawn VRF
    // (a record's change: TunnelMerge.StaticWinsWhole).
    if ((h.synchronous || (op >= 67 && op < 74)) && op < 77 && rig.sm->ready()) {
      ASSERT_EQ(rig.mergedContents(), rig.expected()) << "seed " << seed << ": " << h.log;
    }
  }
  ASSERT_TRUE(rig.settle()) << "seed " << seed << ": " << h.log;
  ASSERT_TRUE(rig.sm->idle()) << "seed " << seed;
  ASSERT_EQ(rig.mergedContents(), rig.expected()) << "seed " << seed << ": " << h.log;
  ASSERT_TRUE(rig.sm->mergedEncapVrfStatusEncapTunnelOutputSeen().empty()) << "seed " << seed;
  ASSERT_TRUE(rig.sm->mergedEncapVrfStatusEncapIntfTunnelOutputSeen().empty()) << "seed " << seed;
}

}  // namespace tunnelModel

TEST(TunnelMergeModel, RandomHistoriesConvergeToTheRuleAppliedToTheInputs) {
  runSeeds(tunnelModel::runHistory);
}

}  // namespace
