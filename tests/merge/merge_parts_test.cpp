// The merge runtime's companions and its Seen set: what they publish, in which order, that the
// set agrees with a reference set through growth and clearing, and that its memory goes back in
// pieces after a reconciliation, by the output's release task over several runs.
#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <set>
#include <vector>

#include "merge/InputSmScanState.h"
#include "merge/MergeTestRig.h"
#include "merge/OutputState.h"
#include "merge/SeenSet.h"

namespace {

using Routing::Multicast::DynaCode::InputSmScanState;
using Routing::Multicast::DynaCode::OutputState;
using Routing::Multicast::DynaCode::SeenSet;
using namespace MergeTest;
using VrfSeenSet = SeenSet<VrfId, std::hash<VrfId>>;
using namespace std::chrono_literals;

struct Recorder {
  std::vector<Oro::AttrId> attrs;
  Oro::AttrReactor reactor{[this](Oro::AttrId a) { attrs.push_back(a); }};
};

TEST(MergeCompanions, OutputStateIsReadyWhenEveryOutputIsAndScanStateNamesTheLastUnscannedStream) {
  auto state = Oro::makePtr<OutputState>("Test::OutputState", 2);
  Recorder rec;
  rec.reactor.notifierIs(state.get());
  state->outputReadyIs(0, true);
  EXPECT_FALSE(state->ready());
  state->outputReadyIs(0, true);  // unchanged: nothing published
  state->outputReadyIs(1, true);  // ready changes too, and is published first
  EXPECT_TRUE(state->ready());
  state->outputReadyIs(0, false);
  EXPECT_FALSE(state->ready());
  state->handleReady();  // already consistent
  EXPECT_EQ(rec.attrs,
            (std::vector<Oro::AttrId>{OutputState::outputReadyAttr(0), OutputState::readyAttr,
                                      OutputState::outputReadyAttr(1), OutputState::readyAttr,
                                      OutputState::outputReadyAttr(0)}));

  // The scan state publishes changes and names the last unscanned stream.
  auto scan = Oro::makePtr<InputSmScanState>("Test::InputSmScanState", 4);
  Recorder scanRec;
  scanRec.reactor.notifierIs(scan.get());
  EXPECT_EQ(scan->lastUnscannedStream(), 3u);
  scan->streamScanIs(3, true);
  scan->streamScanIs(3, true);
  EXPECT_EQ(scan->lastUnscannedStream(), 2u);
  for (size_t n = 0; n < 3; ++n) scan->streamScanIs(n, true);
  EXPECT_TRUE(scan->allStreamsScanned());
  scan->idleIs(true);
  scan->idleIs(true);
  EXPECT_EQ(scanRec.attrs,
            (std::vector<Oro::AttrId>{
                InputSmScanState::streamScanAttr(3), InputSmScanState::streamScanAttr(0),
                InputSmScanState::streamScanAttr(1), InputSmScanState::streamScanAttr(2),
                InputSmScanState::idleAttr}));
}

TEST(MergeSeenSet, AgreesWithAReferenceSetAndGivesClearedMemoryBackInPieces) {
  VrfSeenSet seen;
  std::set<uint32_t> model;
  std::mt19937 rng(7);
  seen.reserve(100);
  for (int round = 0; round < 3; ++round) {
    for (int i = 0; i < 5000; ++i) {  // far past the reserved size
      const uint32_t k = rng() % 20000;
      EXPECT_EQ(seen.insert(VrfId(k)), model.insert(k).second);
    }
    EXPECT_EQ(seen.size(), model.size());
    for (uint32_t k = 0; k < 20000; ++k) {
      ASSERT_EQ(seen.contains(VrfId(k)), model.count(k) == 1) << k;
    }
    seen.clear();
    model.clear();
    EXPECT_TRUE(seen.empty());
    EXPECT_FALSE(seen.contains(VrfId(1)));
  }

  // A cleared set keeps its mapping until releaseSome() has given it back piece by piece; it is
  // usable again at once, and its new arrays are not given back with the old ones.
  VrfSeenSet big;
  big.reserve(1 << 20);  // 2M slots: 8 MiB of keys and 2 MiB of flags
  for (uint32_t k = 0; k < 1000; ++k) big.insert(VrfId(k));
  EXPECT_EQ(big.retainedBytes(), 0u);
  big.clear();
  const size_t retained = big.retainedBytes();
  EXPECT_GE(retained, (size_t{1} << 21) * (sizeof(VrfId) + 1));
  EXPECT_TRUE(big.empty());
  EXPECT_FALSE(big.contains(VrfId(5)));
  EXPECT_TRUE(big.insert(VrfId(5)));

  size_t calls = 0;
  for (bool more = true; more; ++calls) {
    const size_t before = big.retainedBytes();
    more = big.releaseSome();
    ASSERT_EQ(big.retainedBytes(), more ? before - VrfSeenSet::kReleaseStep : 0u);
  }
  EXPECT_EQ(calls, (retained + VrfSeenSet::kReleaseStep - 1) / VrfSeenSet::kReleaseStep);
  EXPECT_FALSE(big.releaseSome());
  EXPECT_TRUE(big.contains(VrfId(5)));
  EXPECT_FALSE(big.insert(VrfId(5)));
  EXPECT_EQ(big.size(), 1u);
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
