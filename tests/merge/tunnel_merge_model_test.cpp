// Model-based randomized test of MergedMcastTunnelEncapStatusSm: random histories of the three
// writers (records written, rewritten and deleted in both collections, whole VRFs withdrawn,
// records the merge does not read) interleaved with scheduler steps and restarts of the merging
// reader over the merged status it left. Yields come at random points from a seeded generator,
// so the interleaving is the seed's alone. A synchronous
// machine must follow the rule after every change once ready; every machine, once the
// scheduler is idle, must be ready with the merged status equal to the rule applied to the
// inputs, whatever the order of the events that led there.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>

#include "merge/EncapTestRig.h"

namespace {

using namespace EncapTest;

constexpr uint32_t kVrfs = 4;
constexpr uint32_t kKeys = 4;

void runHistory(uint32_t seed) {
  std::mt19937 rng(seed);
  auto pick = [&](uint32_t n) { return static_cast<uint32_t>(rng() % n); };
  // Yields at random points: a task asking whether to yield is told so with probability
  // 1/odds (1: after every key, 0: never), from a generator of its own seed.
  const uint32_t odds[] = {1, 2, 5, 0};
  const uint32_t yieldOdds = odds[pick(4)];
  Rig rig;
  rig.scheduler.yieldPolicyIs([yields = std::mt19937(seed), yieldOdds](const Oro::Task&) mutable {
    return yieldOdds != 0 && yields() % yieldOdds == 0;
  });
  const bool synchronous = pick(4) == 0;
  std::string log = "yield odds " + std::to_string(yieldOdds) + (synchronous ? " sync" : " async");
  auto note = [&](const std::string& what) { log += "; " + what; };
  auto data = [&] { return "d" + std::to_string(pick(3)); };
  const int routeWriters[] = {kMvpn, kStatic};
  const int intfWriters[] = {kEvpn, kStatic};

  // A merged status that survived an earlier life, and inputs filled before the start.
  for (uint32_t i = pick(5); i > 0; --i) {
    auto vrf = rig.merged->vrfStatusIs(VrfId(1 + pick(kVrfs)));
    if (pick(2)) {
      vrf->encapTunnelIs(MvpnEncapTunnel(route(pick(kKeys)), "old"));
    } else {
      vrf->encapIntfTunnelIs(MvpnEncapIntfTunnel(intf(pick(kKeys)), "old"));
    }
  }
  for (uint32_t i = pick(12); i > 0; --i) {
    rig.putRoute(routeWriters[pick(2)], 1 + pick(kVrfs), pick(kKeys), data());
    rig.putIntf(intfWriters[pick(2)], 1 + pick(kVrfs), pick(kKeys), data());
  }
  rig.start(synchronous);

  for (uint32_t step = 0, steps = 10 + pick(50); step < steps; ++step) {
    const uint32_t op = pick(100);
    const uint32_t vrf = 1 + pick(kVrfs), key = pick(kKeys);
    const int rw = routeWriters[pick(2)], iw = intfWriters[pick(2)];
    const std::string where = std::to_string(vrf) + "/" + std::to_string(key);
    if (op < 25) {
      note("putRoute " + std::to_string(rw) + " " + where);
      rig.putRoute(rw, vrf, key, data());
    } else if (op < 40) {
      note("delRoute " + std::to_string(rw) + " " + where);
      rig.delRoute(rw, vrf, key);
    } else if (op < 55) {
      note("putIntf " + std::to_string(iw) + " " + where);
      rig.putIntf(iw, vrf, key, data());
    } else if (op < 67) {
      note("delIntf " + std::to_string(iw) + " " + where);
      rig.delIntf(iw, vrf, key);
    } else if (op < 74) {
      const int w = static_cast<int>(pick(3));
      note("delVrf " + std::to_string(w) + " " + std::to_string(vrf));
      rig.delVrf(w, vrf);
    } else if (op < 77) {
      // Records of collections the merge does not read from these writers.
      note("unread " + where);
      rig.putIntf(kMvpn, vrf, key, "x");
      rig.putRoute(kEvpn, vrf, key, "x");
    } else if (op < 80) {
      note("restart");
      rig.sm = nullptr;
      rig.start(synchronous);
    } else {
      const uint32_t runs = pick(6);
      note("run " + std::to_string(runs));
      for (uint32_t i = runs; i > 0; --i) rig.scheduler.runOnce();
    }
    if (synchronous && rig.sm->ready()) {
      ASSERT_EQ(rig.mergedContents(), rig.expected()) << "seed " << seed << ": " << log;
    }
  }
  rig.settle();
  ASSERT_TRUE(rig.sm->ready()) << "seed " << seed << ": " << log;
  ASSERT_TRUE(rig.sm->idle()) << "seed " << seed;
  ASSERT_EQ(rig.mergedContents(), rig.expected()) << "seed " << seed << ": " << log;
  ASSERT_TRUE(rig.sm->mergedEncapVrfStatusEncapTunnelOutputSeen().empty()) << "seed " << seed;
  ASSERT_TRUE(rig.sm->mergedEncapVrfStatusEncapIntfTunnelOutputSeen().empty()) << "seed " << seed;
}

TEST(TunnelMergeModel, RandomHistoriesConvergeToTheRuleAppliedToTheInputs) {
  // MVPN_MERGE_MODEL_SEED=<n> replays one history.
  if (const char* one = std::getenv("MVPN_MERGE_MODEL_SEED")) {
    runHistory(static_cast<uint32_t>(std::strtoul(one, nullptr, 10)));
    return;
  }
  for (uint32_t seed = 1; seed <= 3000; ++seed) {
    runHistory(seed);
    if (HasFatalFailure()) return;
  }
}

}  // namespace
