// Model-based randomized test of MergedMvpnVrfStatusSm: random histories of the four inputs
// (inserts, deletes, whole-root deletion, departures, reader restarts over the surviving
// merged output) interleaved with scheduler steps, with yields at random points taken from a
// seeded generator, for synchronous and asynchronous machines. Once the scheduler is idle, the
// merged status must be the precedence function of what the machine watches, and the machine must
// be ready.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>

#include "merge/MergeTestRig.h"

namespace {

using namespace MergeTest;

constexpr uint32_t kKeys = 24;

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
  unsigned departed = 0;  // bit n: input n has left

  // A merged output that survived an earlier life, and inputs filled before the start.
  for (uint32_t i = pick(6); i > 0; --i) {
    rig.merged->mvpnVrfIs(MvpnVrf(VrfId(pick(kKeys)), kWriters[pick(4)]));
  }
  for (uint32_t i = pick(20); i > 0; --i) rig.put(static_cast<int>(pick(4)), pick(kKeys));
  rig.start(synchronous);

  for (uint32_t step = 0, steps = 10 + pick(40); step < steps; ++step) {
    const uint32_t op = pick(100);
    const int n = static_cast<int>(pick(4));
    if (op < 40) {
      const uint32_t k = pick(kKeys);
      note("put " + std::to_string(n) + ":" + std::to_string(k));
      rig.put(n, k);
    } else if (op < 65) {
      const uint32_t k = pick(kKeys);
      note("del " + std::to_string(n) + ":" + std::to_string(k));
      rig.del(n, k);
    } else if (op < 68) {
      note("delAll " + std::to_string(n));
      rig.in[n]->mvpnVrfDelAll();  // the writer withdraws everything at once
    } else if (op < 70) {
      if (!(departed & (1u << n))) {
        note("depart " + std::to_string(n));
        departed |= 1u << n;
        rig.sm->inputRootDel(static_cast<size_t>(n));
      }
    } else if (op < 73) {
      note("restart");
      // The reader restarts, possibly in the middle of its scans, over the merged output
      // as it was left; the new machine watches every input again.
      rig.sm = nullptr;
      departed = 0;
      for (uint32_t i = pick(3); i > 0; --i) rig.put(static_cast<int>(pick(4)), pick(kKeys));
      rig.start(synchronous);
    } else {
      const uint32_t runs = pick(4);
      note("run " + std::to_string(runs));
      for (uint32_t i = runs; i > 0; --i) rig.scheduler.runOnce();
    }
  }
  rig.settle();
  ASSERT_TRUE(rig.sm->ready()) << "seed " << seed;
  ASSERT_TRUE(rig.sm->idle()) << "seed " << seed;
  ASSERT_EQ(rig.mergedMap(), rig.expected(departed)) << "seed " << seed << ": " << log;
  ASSERT_TRUE(rig.sm->mergedVrfStatusMvpnVrfOutputSeen().empty()) << "seed " << seed;
}

TEST(VrfMergeModel, RandomHistoriesConvergeToThePrecedenceOfTheInputs) {
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
