// The Seen set's memory after a reconciliation: given back a piece per call, and by the
// output's release task over several runs rather than in the run that ends the walk.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>

#include "merge/MergeTestRig.h"
#include "merge/MvpnVrfStatusMergeSm.h"
#include "merge/SeenSet.h"
#include "platform/net/VrfId.h"

namespace {

using namespace MergeTest;
using namespace std::chrono_literals;
using Routing::Multicast::DynaCode::SeenSet;
using VrfSeenSet = SeenSet<VrfId, std::hash<VrfId>>;

// A cleared set keeps its mapping until releaseSome() has given it back piece by piece; it
// is usable again at once, and its new arrays are not given back with the old ones.
TEST(MergeSeenSet, ClearedMemoryIsGivenBackInPieces) {
  using Set = VrfSeenSet;
  Set seen;
  seen.reserve(1 << 20);  // 2M slots: 8 MiB of keys and 2 MiB of flags
  for (uint32_t k = 0; k < 1000; ++k) seen.insert(VrfId(k));
  EXPECT_EQ(seen.retainedBytes(), 0u);
  seen.clear();
  const size_t retained = seen.retainedBytes();
  EXPECT_GE(retained, (size_t{1} << 21) * (sizeof(VrfId) + 1));
  EXPECT_TRUE(seen.empty());
  EXPECT_FALSE(seen.contains(VrfId(5)));
  EXPECT_TRUE(seen.insert(VrfId(5)));

  size_t calls = 0;
  for (bool more = true; more; ++calls) {
    const size_t before = seen.retainedBytes();
    more = seen.releaseSome();
    ASSERT_EQ(seen.retainedBytes(), more ? before - Set::kReleaseStep : 0u);
  }
  EXPECT_EQ(calls, (retained + Set::kReleaseStep - 1) / Set::kReleaseStep);
  EXPECT_FALSE(seen.releaseSome());
  EXPECT_TRUE(seen.contains(VrfId(5)));
  EXPECT_FALSE(seen.insert(VrfId(5)));
  EXPECT_EQ(seen.size(), 1u);
}

// A restart over a grown output: the output is ready as soon as the walk ends, with Seen
// emptied; its memory then goes back in later runs of the release task, one piece per run
// when every run must yield at once, and the output's contents stay merged throughout.
TEST(VrfMergeReconciliation, SeenMemoryIsGivenBackAfterReadyOverSeveralRuns) {
  constexpr uint32_t kVrfs = 30000;
  Rig rig(0ns);
  for (uint32_t v = 0; v < kVrfs; ++v) rig.put(0, v);
  for (uint32_t v = 0; v < kVrfs + kVrfs / 10; ++v) {
    rig.merged->mvpnVrfIs(MvpnVrf(VrfId(v), MvpnClient::bgp_));
  }
  rig.start();
  while (!rig.sm->ready()) ASSERT_TRUE(rig.scheduler.runOnce());
  EXPECT_EQ(rig.mergedMap(), rig.expected());
  const auto& seen = rig.sm->mergedVrfStatusMvpnVrfOutputSeen();
  Oro::Task* release = rig.sm->mergedVrfStatusMvpnVrfOutputSeenReleaseTask();
  ASSERT_NE(release, nullptr);
  EXPECT_TRUE(seen.empty());
  const size_t retained = seen.retainedBytes();
  EXPECT_GT(retained, VrfSeenSet::kReleaseStep);
  EXPECT_TRUE(release->scheduled());

  const uint64_t runsBefore = release->runs();
  rig.settle();
  EXPECT_EQ(seen.retainedBytes(), 0u);
  EXPECT_FALSE(release->scheduled());
  EXPECT_GE(release->runs() - runsBefore, 2u);
  EXPECT_TRUE(rig.sm->ready());
  EXPECT_EQ(rig.mergedMap(), rig.expected());
}

}  // namespace
