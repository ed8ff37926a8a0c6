// The merge runtime's companions and its Seen set on their own: what they publish, in which
// order, and that the set agrees with a reference set through growth and clearing.
#include <gtest/gtest.h>

#include <random>
#include <set>
#include <vector>

#include "merge/InputSmScanState.h"
#include "merge/OutputState.h"
#include "merge/SeenSet.h"
#include "platform/net/VrfId.h"

namespace {

using Routing::Multicast::DynaCode::InputSmScanState;
using Routing::Multicast::DynaCode::OutputState;
using Routing::Multicast::DynaCode::SeenSet;

struct Recorder {
  std::vector<Oro::AttrId> attrs;
  Oro::AttrReactor reactor{[this](Oro::AttrId a) { attrs.push_back(a); }};
};

TEST(MergeCompanions, OutputStateIsReadyOnlyWhenEveryOutputIs) {
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
}

TEST(MergeCompanions, ScanStatePublishesChangesAndNamesTheLastUnscannedStream) {
  auto state = Oro::makePtr<InputSmScanState>("Test::InputSmScanState", 4);
  Recorder rec;
  rec.reactor.notifierIs(state.get());
  EXPECT_EQ(state->lastUnscannedStream(), 3u);
  state->streamScanIs(3, true);
  state->streamScanIs(3, true);
  EXPECT_EQ(state->lastUnscannedStream(), 2u);
  for (size_t n = 0; n < 3; ++n) state->streamScanIs(n, true);
  EXPECT_TRUE(state->allStreamsScanned());
  state->idleIs(true);
  state->idleIs(true);
  EXPECT_EQ(rec.attrs, (std::vector<Oro::AttrId>{
                           InputSmScanState::streamScanAttr(3), InputSmScanState::streamScanAttr(0),
                           InputSmScanState::streamScanAttr(1), InputSmScanState::streamScanAttr(2),
                           InputSmScanState::idleAttr}));
}

TEST(MergeSeenSet, AgreesWithAReferenceSetThroughGrowthAndClear) {
  using VrfId = Vrf::VrfIdMap::VrfId;
  SeenSet<VrfId, std::hash<VrfId>> seen;
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
}

}  // namespace
