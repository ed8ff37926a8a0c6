// Both merge machines over in-process writer statuses, and the runtime parts they share.
// - MergedMvpnVrfStatusSm: precedence, lifecycle, yielding scans, reconciliation (and the Seen
//   set's memory given back after it), trace lines and fatal checks.
// - MergedMcastTunnelEncapStatusSm: static wins whole records, deletes of what the merged status
//   lacks, child scans yield, reconciliation per output, trace lines and fatal checks.
// - The companions' publications and the Seen set against a reference set.
// Departures, withdrawals and input VRFs leaving, against a model: merge_model_test.cpp.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "common/notice_log.h"
#include "common/shm_test_util.h"
#include "merge/InputSmScanState.h"
#include "merge/MergeTestRig.h"
#include "merge/MvpnVrfStatusMergeSm.h"
#include "merge/OutputState.h"
#include "merge/SeenSet.h"
#include "platform/runtime/Entity.h"
#include "platform/shm/ShmSegment.h"
#include "platform/shm/ShmStore.h"

namespace {

using namespace std::chrono_literals;
using MergeTest::TraceCapture;
using Routing::Multicast::DynaCode::kScanComplete;
using Routing::Multicast::DynaCode::kScanInitialComplete;
using Routing::Multicast::DynaCode::kScanInterrupted;
using ::testing::HasSubstr;

// Leaving out one argument (in the last round, every one) is fatal when the machine starts,
// naming the argument the check meets first: it goes from the output back.
template <class R, size_t N>
void expectNullArgumentsFatal(const char* const (&names)[N], const auto& make) {
  for (size_t missing = 0; missing <= N; ++missing) {
    R rig;
    auto sm = make(rig, [&](size_t n) { return n == missing || missing == N; });
    EXPECT_DEATH(sm->initializedIs(true),
                 HasSubstr(std::string(names[std::min(missing, N - 1)]) +
                           "() && \"Pointer SM args cannot be null unless they are marked "
                           "Optional\""));
  }
}

// A subscriber of the output may let go of the machine's last reference inside a merge, during
// the scans or in a later notification, in either mode: the machine ends that step, then goes.
// `put(rig, n, v)` has input n (0 or 1) list VRF v; `merged(rig, v)`: the output lists VRF v.
template <class R>
void expectTheLastReferenceMayGoFromInsideAMerge(Oro::AttrId mergedVrfs, const auto& put,
                                                 const auto& merged) {
  for (bool synchronous : {false, true}) {
    for (uint32_t dropAt : {3u, 8u}) {
      SCOPED_TRACE(fmt::format("synchronous {} drop at {}", synchronous, dropAt));
      R rig;
      for (uint32_t v = 1; v <= 5; ++v) put(rig, static_cast<int>(v % 2), v);
      Oro::KeyReactor<Vrf::VrfIdMap::VrfId> drop(mergedVrfs, [&](const Vrf::VrfIdMap::VrfId& k) {
        if (k.value() == dropAt) rig.sm = nullptr;
      });
      drop.notifierIs(rig.merged.get());
      rig.start(synchronous);
      rig.scheduler.runUntilIdle();
      put(rig, 0, 8);
      rig.scheduler.runUntilIdle();
      EXPECT_FALSE(rig.sm);
      put(rig, 1, 9);  // nobody merges any more
      rig.scheduler.runUntilIdle();
      EXPECT_FALSE(merged(rig, 9));
    }
  }
}

namespace vrfMerge {

using namespace MergeTest;
using enum MvpnClient;

TEST(VrfMerge, PrecedenceFollowsEveryChangeAndEveryRemergedKeyIsWritten) {
  for (bool synchronous : {false, true}) {
    SCOPED_TRACE(synchronous ? "synchronous" : "asynchronous");
    Rig rig;
    rig.put(1, 7);  // static MVPN and EVPN: EVPN wins
    rig.put(2, 7);
    for (int n = 0; n < 4; ++n) rig.put(n, 9);  // everyone: BGP wins
    rig.start(synchronous);
    ASSERT_TRUE(rig.settle());
    EXPECT_EQ(rig.mergedMap(), (Merged{{7, evpn_}, {9, bgp_}}));
    // Every re-merged key is written again, even when its merged value stays.
    shmtest::KeyLog<VrfId> changes(rig.merged.get(), MvpnVrfStatus::mvpnVrfAttr);
    rig.put(2, 7);  // the winner's same record again
    rig.put(3, 7);  // a lower-ranked writer: the merged value stays evpn_
    EXPECT_EQ(changes.keys, (std::vector<VrfId>{7, 7}));
    EXPECT_EQ(rig.mergedMap().at(7), evpn_);
    rig.del(2, 7);  // the winner leaves: static MVPN's, at once
    EXPECT_EQ(rig.mergedMap().at(7), staticMvpn_);
  }
}

// A scan asks for the scheduler's verdict after every key, the last one too (which cannot
// yield: nothing is left to resume).
TEST(VrfMergeLifecycle, AScanAsksForAVerdictAfterEveryKey) {
  Rig rig;
  for (uint32_t v = 1; v <= 3; ++v) rig.put(0, v);
  rig.start();
  const Oro::Task* task0 = rig.sm->mvpnVrfStatusSm0()->task0();
  int asked = 0;
  rig.scheduler.yieldPolicyIs([&](const Oro::Task& t) {
    if (&t == task0) ++asked;
    return asked == 3;  // the verdict after the last key
  });
  while (rig.sm->mvpnVrfStatusSm0()->inputScanState0() != kScanInitialComplete) {
    ASSERT_TRUE(rig.scheduler.runOnce());
  }
  EXPECT_EQ(asked, 3);
}

TEST(VrfMergeLifecycle, ScansStartWhenInitializedYieldByTheSliceAndTheFirstWritesNothing) {
  Rig rig(0ns);  // every slice is used up after one key
  for (uint32_t v = 1; v <= 3; ++v) rig.put(0, v);
  rig.put(2, 3);
  shmtest::KeyLog<VrfId> writes(rig.merged.get(), MvpnVrfStatus::mvpnVrfAttr);
  // Construction alone does nothing; initializedIs starts the scans.
  rig.sm = rig.make(false);
  EXPECT_EQ(rig.scheduler.runUntilIdle(), 0u);
  EXPECT_EQ(rig.sm->mvpnVrfStatusSm0(), nullptr);
  // The parent's handlers have nothing to act on yet.
  rig.sm->handleInitialScanDone();
  rig.sm->handleIdle();
  rig.sm->handleReady();
  rig.sm->handleMergedVrfStatusMvpnVrfOutputInputReady();
  EXPECT_FALSE(rig.sm->initialScanDone() || rig.sm->ready());
  rig.sm->initializedIs(true);
  auto* sm0 = rig.sm->mvpnVrfStatusSm0();
  ASSERT_NE(sm0->task0(), nullptr);

  ASSERT_TRUE(rig.scheduler.runOnce());  // task0: one key, then the slice is over
  EXPECT_EQ(sm0->inputScanState0(), kScanInterrupted);
  EXPECT_TRUE(sm0->inputScanBookmark0().has_value());
  EXPECT_EQ(sm0->task0()->workCount(), 1u);
  EXPECT_EQ(sm0->task0()->pendingWork(), 3u);
  EXPECT_TRUE(sm0->task0()->scheduled());

  while (!rig.sm->initialScanDone()) ASSERT_TRUE(rig.scheduler.runOnce());
  EXPECT_TRUE(writes.keys.empty());
  EXPECT_TRUE(rig.mergedMap().empty());
  EXPECT_FALSE(rig.sm->ready());
  // The scan flags were cleared for the rescan (by the names the machine gives them).
  const auto* scans = rig.sm->inputSmScanState();
  EXPECT_FALSE(scans->dyx_stream0Scan() || scans->dyx_stream1Scan() || scans->dyx_stream2Scan() ||
               scans->dyx_stream3Scan());

  EXPECT_TRUE(rig.settle());
  EXPECT_TRUE(rig.sm->idle());
  EXPECT_TRUE(rig.sm->outputState()->mergedVrfStatusMvpnVrfOutputReady());
  EXPECT_TRUE(scans->dyx_stream0Scan() && scans->dyx_stream3Scan());
  EXPECT_EQ(rig.mergedMap(), rig.expected());
  EXPECT_EQ(writes.keys.size(), 4u);  // VRF 3 is merged by both inputs' scans
  for (size_t n = 0; n < 4; ++n) {
    EXPECT_EQ(rig.sm->inputSm(n)->inputScanState(), kScanComplete);
    EXPECT_EQ(rig.sm->inputSm(n)->task(), nullptr);  // deleted once complete
  }
}

TEST(VrfMergeReconcile, RestartDeletesExactlyTheUnsupportedEntries) {
  // Over an earlier merged status: yielding, large slice, synchronous with the smallest slice;
  // then (3) over an empty one, which is not reconciled at all.
  for (auto mode : {0, 1, 2, 3}) {
    SCOPED_TRACE(mode);
    const bool earlier = mode != 3;
    Rig rig(mode == 1 ? std::chrono::nanoseconds(1s) : 0ns);
    if (earlier) {
      rig.mergedIs({{100, bgp_}, {101, evpn_}, {5, staticEvpn_}});
    }
    rig.put({{0, 5}, {3, 6}});
    rig.start(mode == 2);
    EXPECT_EQ(rig.sm->mergedVrfStatusMvpnVrfOutputReconciling(), mode < 2);
    if (mode == 0) {
      // Every key merged while reconciling is seen, also one whose merge deletes it.
      while (!rig.sm->initialScanDone()) ASSERT_TRUE(rig.scheduler.runOnce());
      rig.sm->eventToDyx_pipeline0(VrfId(200));
      EXPECT_TRUE(rig.sm->mergedVrfStatusMvpnVrfOutputSeen().contains(
          MergedMvpnVrfStatusSm::MergedVrfStatusMvpnVrfOutputKeyType(VrfId(200))));
    }
    // A synchronous machine did everything inside initializedIs, however short the slice.
    EXPECT_EQ(rig.scheduler.runUntilIdle() == 0, mode == 2);
    ASSERT_TRUE(rig.sm->ready() && rig.sm->idle());
    EXPECT_EQ(rig.mergedMap(), (Merged{{5, bgp_}, {6, staticEvpn_}}));
    const auto& output = rig.sm->mergedVrfStatusMvpnVrfOutput();
    EXPECT_EQ(output.deletedTotal(), earlier ? 2u : 0u);
    EXPECT_EQ(output.processedTotal(), earlier ? 4u : 0u);
    EXPECT_FALSE(rig.sm->mergedVrfStatusMvpnVrfOutputReconciling());
    EXPECT_FALSE(rig.sm->mergedVrfStatusMvpnVrfOutputUseBookmark());
    EXPECT_TRUE(rig.sm->mergedVrfStatusMvpnVrfOutputSeen().empty());
    rig.sm->doDeleteAll();  // every input still there: nothing changes
    EXPECT_EQ(rig.mergedMap(), rig.expected());
  }
}

TEST(VrfMergeTrace, LifecycleLinesAndReconciliationLinesWithAndWithoutYields) {
  Rig rig(0ns);
  rig.put({{0, 1}, {0, 2}});
  auto it = rig.in[0]->mvpnVrfIter();  // the keys in store order
  const std::string a = std::to_string(it.key().value());
  it.next();
  const std::string b = std::to_string(it.key().value());
  TraceCapture trace("MergedMvpnVrfStatusSm");
  rig.start();
  rig.settle();
  rig.put(0, 5);
  const std::string others[] = {"StaticMvpnVrfStatusSm1", "EvpnVrfStatusSm2",
                                "StaticEvpnVrfStatusSm3"};
  // First scans: input 0 yields after one key and resumes at its bookmark, the empty inputs
  // complete at once. No key is merged before the initial scans are done.
  std::vector<std::string> lines = {
      "create local SMs", "create non-public arg SMs", "k: " + a,
      "MergedMvpnVrfStatusSm MvpnVrfStatusSm0 yielding after 1 iterations (2 total items)",
      "Initial scan yielding for child SM MergedMvpnVrfStatusSm."};
  for (const auto& sm : others) lines.push_back(sm + " initial scan, and parent scan, complete.");
  lines.insert(lines.end(), {" scan complete: false resumed: true scan: 1", "k: " + b,
                             "Initial scan done for child SMs. Now scanning with events triggered.",
                             "MvpnVrfStatusSm0 initial scan, and parent scan, complete."});
  auto merge = [&](const std::string& k) {
    lines.insert(
        lines.end(),
        {"Line 15: from( mvpnVrfStatus.mvpnVrf[] ): vrfId=" + k,
         "Line 15: merge( dyx_stream0, dyx_stream1, dyx_stream2, dyx_stream3 ): vrfId=" + k,
         "Line 22: merge( dyx_pipeline0 ): vrfId=" + k + " myVrf=" + k + " mvpnVrf=Optional(" + k +
             ") staticMvpnVrf=None evpnVrf=None staticEvpnVrf=None",
         "Line 22: merge( dyx_pipeline1, dyx_pipeline2, dyx_pipeline3, dyx_pipeline4, "
         "dyx_pipeline5 ): valMyVrf=Optional(" +
             k + ") vrfId=" + k + " mvpnVrf=Optional(" + k +
             ") staticMvpnVrf=None evpnVrf=None staticEvpnVrf=None",
         "into( mergedVrfStatus.mvpnVrf[ vrfId ] ): inserting k1=" + k + ", value=" + k});
  };
  // The merging scans, the reconciliation of an empty output, and a per-key merge once ready.
  merge(a);
  for (const auto& sm : others) lines.push_back(sm + " scan, and parent scan, complete.");
  merge(b);
  lines.insert(lines.end(), {"Input scans for mergedVrfStatusMvpnVrfOutput complete",
                             "Deletion scan for reconciliation is done, last task run processed "
                             "0 items, deleting 0 items.",
                             "MvpnVrfStatusSm0 scan, and parent scan, complete.", "k: 5"});
  merge("5");
  EXPECT_EQ(trace.firstAppearances(lines), lines);
  trace.expectOnlyOwnLines();

  const std::vector<std::string> yielding = {
      "Input scans for mergedVrfStatusMvpnVrfOutput complete",
      "Yielding in reconciliation processing after processing 1 items, including 1 deletions .",
      "Input scans for mergedVrfStatusMvpnVrfOutput complete",
      "Deletion scan for reconciliation is done, last task run processed 1 items, deleting 1 "
      "items.",
  };
  const std::vector<std::string> straight = {
      "Input scans for mergedVrfStatusMvpnVrfOutput complete",
      "Deletion scan for reconciliation is done, last task run processed 2 items, deleting 2 "
      "items.",
      "already ready, not reconciling.",
  };
  for (bool synchronous : {false, true}) {
    Rig rig(0ns);
    rig.mergedIs({{8, bgp_}, {9, bgp_}});
    TraceCapture trace("MergedMvpnVrfStatusSm");
    rig.start(synchronous);
    if (!synchronous) {
      // Stop while the reconciliation waits for its own task.
      while (!rig.sm->mergedVrfStatusMvpnVrfOutputUseBookmark())
        ASSERT_TRUE(rig.scheduler.runOnce());
      EXPECT_TRUE(rig.sm->mergedVrfStatusMvpnVrfOutputReconciliationTask()->scheduled());
      EXPECT_EQ(rig.merged->mvpnVrfSize(), 1u);
      EXPECT_EQ(*rig.sm->mergedVrfStatusMvpnVrfOutputBookmark(), VrfId(9));
      EXPECT_FALSE(rig.sm->ready());
    }
    ASSERT_TRUE(rig.settle());
    rig.sm->handleMergedVrfStatusMvpnVrfOutputInputReady();
    std::vector<std::string> lines;
    std::ranges::copy_if(trace.sink.messages(), std::back_inserter(lines), [](const auto& m) {
      return m.starts_with("Input scans") || m.find("reconcil") != std::string::npos;
    });
    std::vector<std::string> want = synchronous ? straight : yielding;
    if (!synchronous) want.push_back("already ready, not reconciling.");
    EXPECT_EQ(lines, want);
    EXPECT_TRUE(rig.mergedMap().empty());
  }
}

TEST(VrfMergeDeathTest, NullArgumentsIntoKeyMismatchAndAnInputLeavingInItsOwnNotification) {
  const char* const names[] = {"mvpnVrfStatus", "staticMvpnVrfStatus", "evpnVrfStatus",
                               "staticEvpnVrfStatus", "mergedVrfStatus"};
  expectNullArgumentsFatal<Rig>(names, [](Rig& r, auto null) {
    auto in = [&](int n) { return null(n) ? nullptr : Oro::Ptr<const MvpnVrfStatus>(r.in[n]); };
    return Routing::Multicast::mergedMvpnVrfStatusSmFactory(
        in(0), in(1), in(2), in(3), null(4) ? nullptr : r.merged, Dyx::SmControl{&r.scheduler});
  });

  // The merged status fed back as an input is refused before anything is merged.
  Rig loop;
  loop.put(1, 7);
  EXPECT_DEATH(Routing::Multicast::mergedMvpnVrfStatusSmFactory(
                   loop.in[0], loop.merged, loop.in[2], loop.in[3], loop.merged,
                   Dyx::SmControl{&loop.scheduler, Oro::TaskPriority::normal, true})
                   ->initializedIs(true),
               "mergedVrfStatus cannot also be the input staticMvpnVrfStatus");

  Rig rig;
  rig.start(true);
  EXPECT_DEATH(
      rig.sm->intoMergedVrfStatusMvpnVrf(VrfId(5), MvpnVrf(VrfId(6), bgp_)),
      HasSubstr("In \"into( mergedVrfStatus.mvpnVrf[ vrfId ] )\" the value inserted in the "
                "into statement has internal key: 6, but the key specified in the into "
                "is: 5"));
  // A reader of the merged status that tears the inputs down while input 0 is still
  // handling the notification that caused the merged write.
  Oro::KeyReactor<VrfId> teardown(MvpnVrfStatus::mvpnVrfAttr,
                                  [&](const VrfId&) { rig.sm->doDeleteAll(); });
  teardown.notifierIs(rig.merged.get());
  EXPECT_DEATH(rig.put(0, 3), HasSubstr("We missed notifications that happened to mvpnVrf before "
                                        "the enclosing entity got deleted"));
}

using Routing::Multicast::DynaCode::InputSmScanState;
using Routing::Multicast::DynaCode::OutputState;
using Routing::Multicast::DynaCode::SeenSet;
using VrfSeenSet = SeenSet<VrfId, std::hash<VrfId>>;

struct Recorder {
  std::vector<Oro::AttrId> attrs;
  Oro::AttrReactor reactor{[this](Oro::AttrId a) { attrs.push_back(a); }};
};

TEST(MergeCompanions, TheirStatesPublishChangesAndTheSeenSetAgreesWithAReferenceSet) {
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

  // The Seen set agrees with a reference set through growth and clearing.
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

}  // namespace vrfMerge

namespace tunnelMerge {

using namespace EncapTest;

// One step of the inputs (a record put or deleted) and the merged record for its key
// afterwards: "" when there is none, and then the merged VRF is gone too.
struct Step {
  const char* what;
  bool put, intfColl;
  int writer;
  uint32_t vrf, n;
  const char* data;
  const char* merged;
};

TEST(TunnelMerge, StaticWinsWholeAndTheOtherWriterTakesOverOnDelete) {
  const Step steps[] = {
      {"MVPN route", true, false, kMvpn, 1, 1, "mvpn", "mvpn"},
      {"static route wins", true, false, kStatic, 1, 1, "static", "static"},
      {"MVPN change hidden", true, false, kMvpn, 1, 1, "mvpn2", "static"},
      {"static gone: MVPN", false, false, kStatic, 1, 1, "", "mvpn2"},
      {"MVPN gone: VRF gone", false, false, kMvpn, 1, 1, "", ""},
      {"EVPN interface", true, true, kEvpn, 2, 7, "evpn", "evpn"},
      {"static interface wins", true, true, kStatic, 2, 7, "st", "st"},
      {"EVPN change hidden", true, true, kEvpn, 2, 7, "e2", "st"},
      {"static gone: EVPN", false, true, kStatic, 2, 7, "", "e2"},
      {"EVPN gone: VRF gone", false, true, kEvpn, 2, 7, "", ""},
      // MVPN interface and EVPN route records are no input of the merge.
      {"MVPN interface ignored", true, true, kMvpn, 3, 1, "x", ""},
      {"EVPN route ignored", true, false, kEvpn, 3, 1, "x", ""},
  };
  // Merged at once by an asynchronous machine that is ready (a synchronous one: TunnelMergeModel).
  Rig rig;
  rig.start();
  ASSERT_TRUE(rig.settle());
  for (const Step& s : steps) {
    SCOPED_TRACE(s.what);
    if (s.intfColl) {
      s.put ? rig.putIntf(s.writer, s.vrf, s.n, s.data) : rig.delIntf(s.writer, s.vrf, s.n);
    } else {
      s.put ? rig.putRoute(s.writer, s.vrf, s.n, s.data) : rig.delRoute(s.writer, s.vrf, s.n);
    }
    const Contents got = rig.mergedContents();
    const auto& coll = s.intfColl ? got.intfs : got.routes;
    auto it = coll.find({s.vrf, s.n});
    EXPECT_EQ(it == coll.end() ? "" : it->second, s.merged);
    EXPECT_EQ(got.vrfs.count(s.vrf) == 1, *s.merged != '\0');
  }
}

// Deleting what the merged VRF does not hold, or in a VRF it does not have, changes and creates
// nothing. (Which records keep a merged VRF: the steps above, and TunnelMergeModel.)
TEST(TunnelMerge, DeletingWhatTheMergedStatusDoesNotHoldChangesNothing) {
  Rig rig;
  rig.start(true);
  rig.putRoute(kMvpn, 4, 1, "r");
  const Contents before = rig.mergedContents();
  rig.putRoute(kMvpn, 9, 1, "x");
  rig.merged->vrfStatusDel(VrfId(9));  // as if the merged VRF were gone
  shmtest::KeyLog<VrfId> mergedChanges(rig.merged.get(), MvpnTunnelEncapStatus::vrfStatusAttr);
  rig.sm->intoMergedEncapVrfStatusEncapTunnel(VrfId(9), route(1), std::nullopt);
  rig.sm->intoMergedEncapVrfStatusEncapTunnel(VrfId(4), route(7), std::nullopt);
  rig.sm->intoMergedEncapVrfStatusEncapIntfTunnel(VrfId(8), intf(1), std::nullopt);
  EXPECT_TRUE(mergedChanges.keys.empty());
  EXPECT_EQ(rig.mergedContents(), before);
}

// A subscriber of the merged status (here one that came before the machine, so it hears of a
// merged VRF going before the machine's own notifiees do) changes the inputs from inside the
// merge: it gives VRF 3 a static record, and removes the static writer's emptied VRF 1 while
// that VRF's child machine is still handling the deletion that emptied it; told of merged VRF
// 5 as it is made for its first record, it adds and removes another record there first.
TEST(TunnelMerge, SubscribersOfTheMergedStatusMayChangeTheInputsFromInsideAMerge) {
  Rig rig;
  rig.putRoute(kStatic, 1, 1, "s");
  rig.in[kStatic]->vrfStatusIs(VrfId(3));
  Oro::KeyReactor<VrfId> inputs(MvpnTunnelEncapStatus::vrfStatusAttr, [&](const VrfId& v) {
    if (rig.merged->vrfStatus(v)) {
      if (v == VrfId(5) && !rig.in[kMvpn]->vrfStatus(v)->encapTunnel(route(2))) {
        rig.putRoute(kMvpn, 5, 2, "m2");
        rig.delRoute(kMvpn, 5, 2);
      }
      return;
    }
    if (v == VrfId(3)) rig.putRoute(kStatic, 3, 2, "s2");
    if (v == VrfId(1)) rig.delVrf(kStatic, 1);
  });
  inputs.notifierIs(rig.merged.get());
  rig.start();
  ASSERT_TRUE(rig.settle());
  rig.delRoute(kStatic, 1, 1);
  rig.putRoute(kMvpn, 3, 1, "m");  // the merged VRF 3 is the one last written
  rig.delRoute(kMvpn, 3, 1);
  rig.putRoute(kMvpn, 5, 1, "m");
  rig.settle();
  EXPECT_EQ(rig.mergedContents(), rig.expected());
  EXPECT_EQ(rig.mergedContents().routes.count({3, 2}), 1u);
  EXPECT_EQ(rig.mergedContents().routes.count({5, 1}), 1u);
  inputs.notifierIs(nullptr);
}

class TunnelMergeShm : public shmtest::ShmTest {};

// A reader may be told of a VRF the writer has removed since (here by the walk that replaces
// a change log the reader fell behind on; a writer's successor taking the status over does the
// same): the merge reacting to that must still withdraw every record of the VRF once the
// removal reaches it, and not lose them with the store's copy.
TEST_F(TunnelMergeShm, AVrfRemovedRightAfterTheReaderWasToldOfItIsWithdrawnWhole) {
  Rig rig;
  auto writer = Routing::Multicast::mvpnTunnelEncapStatusFactory("staticWriter");
  writer->mount(Oro::ShmAttach{"t/static", Oro::ShmRole::writer, nullptr, 0600, 16});
  rig.in[kStatic]->mount(Oro::ShmAttach{"t/static", Oro::ShmRole::reader, &rig.scheduler});
  rig.putRoute(kMvpn, 3, 1, "m");
  writer->vrfStatusIs(VrfId(3))->encapTunnelIs(MvpnEncapTunnel(route(1), "s"));
  writer->vrfStatusIs(VrfId(3))->encapIntfTunnelIs(MvpnEncapIntfTunnel(intf(2), "si"));
  // Told before the merge is (notifiees hear in the order they came): the writer removes
  // VRF 3 between the reader's look at it and the merge's.
  bool armed = false;
  Oro::KeyReactor<VrfId> race(Routing::Multicast::MvpnTunnelEncapStatus::vrfStatusAttr,
                              [&](const VrfId& v) {
                                if (!armed || v != VrfId(3)) return;
                                armed = false;
                                writer->vrfStatusDel(v);
                              });
  race.notifierIs(rig.in[kStatic].get());
  rig.start();
  rig.settle();
  ASSERT_EQ(rig.mergedContents().routes.at({3, 1}), "s");

  armed = true;
  for (uint32_t n = 0; n < 40; ++n) {
    writer->vrfStatusIs(VrfId(9))->encapTunnelIs(MvpnEncapTunnel(route(n), "s9"));
  }
  rig.settle();
  EXPECT_FALSE(armed);
  EXPECT_EQ(rig.mergedContents(),
            mergeOf(contents(*rig.in[kMvpn]), contents(*writer), contents(*rig.in[kEvpn])));
  EXPECT_EQ(rig.mergedContents().routes.at({3, 1}), "m");
}

// A reader that meets damage in its store drops the store and opens it again; until the new
// store is read, its VRFs know their keys alone. A scan over such a VRF neither merges made-up
// records nor withdraws merged ones: their records are unknown, not gone.
TEST_F(TunnelMergeShm, AReaderThatLostItsDamagedStoreKeepsTheMergedRecordsOfItsVrfs) {
  Rig rig;
  auto writer = Routing::Multicast::mvpnTunnelEncapStatusFactory("mvpnWriter");
  writer->mount(Oro::ShmAttach{"t/mvpn", Oro::ShmRole::writer, nullptr, 0600, 16});
  writer->vrfStatusIs(VrfId(3))->encapTunnelIs(MvpnEncapTunnel(route(1), "m1"));
  writer->vrfStatusIs(VrfId(3))->encapTunnelIs(MvpnEncapTunnel(route(2), "m2"));
  writer->vrfStatusIs(VrfId(4))->encapTunnelIs(MvpnEncapTunnel(route(1), "m4"));
  rig.putRoute(kStatic, 3, 1, "s");
  {
    // A stray write into the key of VRF 3's second record (slot 1): a byte an IPv4 source
    // address leaves zero.
    const Oro::ShmStore view = Oro::ShmStore::openReader("t/mvpn", nullptr);
    const uint32_t coll = Routing::Multicast::TunnelEncapStore::kEncapTunnel;
    const std::string name = view.segName(fmt::format("{}k0", coll));
    const size_t offset = (size_t{view.header()->colls[coll].slotWords} + 7) * 4;
    const uint32_t one = 1;
    shmtest::writeSegment(name, offset, &one, 4);
  }
  std::vector<std::string> reports;
  rig.in[kMvpn]->vrfStatusCorruptionHandlerIs([&](const std::string& m) { reports.push_back(m); });
  rig.in[kMvpn]->mount(Oro::ShmAttach{"t/mvpn", Oro::ShmRole::reader, &rig.scheduler});
  rig.start();
  // The damage is met by the merge's scan and by the reader, which drops its store, opens it
  // again after a pause and fails anew: by the fifth report the merge has rescanned VRFs the
  // reader left with their keys alone.
  const auto failures = [&] {
    return std::count_if(reports.begin(), reports.end(), [](const std::string& m) {
      return m.find("bad image") != std::string::npos;
    });
  };
  ASSERT_TRUE(rig.scheduler.runUntil([&] { return failures() >= 5; },
                                     std::chrono::steady_clock::now() + 20s));
  rig.settle();
  const Contents merged = rig.mergedContents();
  EXPECT_EQ(merged.routes.at({3, 1}), "s");
  EXPECT_EQ(merged.routes.at({4, 1}), "m4");
  EXPECT_FALSE(rig.sm->ready());
}

TEST(TunnelMergeLifecycle, ChildScansYieldInTheInputsTaskAndWriteNothingBeforeTheyEnd) {
  Rig rig(0ns);  // every slice is used up after one key
  for (uint32_t v = 1; v <= 3; ++v) {
    for (uint32_t n = 1; n <= 3; ++n) rig.putRoute(kMvpn, v, n, "m");
  }
  rig.putIntf(kStatic, 2, 1, "s");
  rig.start();
  auto* sm0 = rig.sm->mvpnEncapSm0();
  auto* sm2 = rig.sm->staticEncapSm2();

  // task0's first run: VRF 1's child scans one key and yields; its scan waits in the queue
  // and the stream is not complete.
  while (sm0->queuedChildScans<0>() == 0) ASSERT_TRUE(rig.scheduler.runOnce());
  auto* child1 = sm0->childSmVrfStatusRoutingMulticastMvpnVrfTunnelEncapStatusPtrConst(VrfId(1));
  ASSERT_NE(child1, nullptr);
  EXPECT_EQ(child1->inputScanState0(), Routing::Multicast::DynaCode::kScanInterrupted);
  EXPECT_TRUE(sm0->task0()->scheduled());
  EXPECT_FALSE(rig.sm->inputSmScanState()->dyx_stream0Scan());
  EXPECT_FALSE(sm0->initialScanDone());

  // Changes before the initial scan is done do not reach the merged status.
  rig.putRoutes({{kMvpn, 1, 9, "early"}, {kStatic, 7, 1, "early"}});
  EXPECT_TRUE(rig.mergedContents().vrfs.empty());
  while (!rig.sm->initialScanDone()) ASSERT_TRUE(rig.scheduler.runOnce());
  EXPECT_TRUE(rig.mergedContents().vrfs.empty());
  EXPECT_FALSE(rig.sm->ready());

  EXPECT_TRUE(rig.settle());
  EXPECT_TRUE(rig.sm->idle());
  EXPECT_EQ(rig.mergedContents(), rig.expected());
  EXPECT_EQ(sm0->childSmVrfStatusRoutingMulticastMvpnVrfTunnelEncapStatusPtrConst(VrfId(3))
                ->versionEncapTunnel(),
            rig.in[kMvpn]->vrfStatus(VrfId(3))->encapTunnelVersion());
  EXPECT_EQ(sm2->inputScanState1(), kScanComplete);
  EXPECT_EQ(sm2->inputScanState3(), kScanComplete);
  EXPECT_EQ(sm0->task0(), nullptr);  // deleted once complete
  // A child asked to scan again once complete has nothing to do.
  const auto mergedBefore = rig.mergedContents();
  sm2->childSmVrfStatusRoutingMulticastMvpnVrfTunnelEncapStatusPtrConst(VrfId(2))->doInputScan();
  EXPECT_EQ(rig.mergedContents(), mergedBefore);
  // A VRF that appears after ready gets a child whose scan runs in the input's task; the
  // stream stays complete, not announced again, and the task goes when the scan is done.
  {
    TraceCapture trace("MergedMcastTunnelEncapStatusSm");
    rig.in[kMvpn]->vrfStatusIs(VrfId(8));
    EXPECT_NE(sm0->task0(), nullptr);
    rig.putRoute(kMvpn, 8, 1, "late");
    rig.settle();
    EXPECT_EQ(rig.mergedContents(), rig.expected());
    EXPECT_EQ(sm0->task0(), nullptr);
    const auto& lines = trace.sink.messages();
    const auto has = [&](std::string_view part) {
      return std::ranges::any_of(
          lines, [&](const std::string& m) { return m.find(part) != std::string::npos; });
    };
    EXPECT_TRUE(has("scan complete. Processed 1 children."));
    EXPECT_FALSE(has("scan, and parent scan, complete."));
  }
  // A child is never repointed at another entity.
  auto other = Oro::makePtr<MvpnVrfTunnelEncapStatus>(VrfId(1));
  EXPECT_THROW(
      sm0->childSmVrfStatusRoutingMulticastMvpnVrfTunnelEncapStatusPtrConstIs(other, sm0, VrfId(1)),
      Oro::MutatorReinstantiationException);
  auto same = rig.in[kMvpn]->vrfStatus(VrfId(1));
  EXPECT_EQ(
      sm0->childSmVrfStatusRoutingMulticastMvpnVrfTunnelEncapStatusPtrConstIs(same, sm0, VrfId(1))
          ->entity(),
      same.get());
  // A child goes with its input VRF (whose keys are merged again: TunnelMergeModel).
  rig.delVrf(kStatic, 2);
  EXPECT_EQ(sm2->childSmVrfStatusRoutingMulticastMvpnVrfTunnelEncapStatusPtrConst(VrfId(2)),
            nullptr);
}

TEST(TunnelMergeReconcile, RestartDeletesUnsupportedRecordsPerOutputAndEachIsReadyOnItsOwn) {
  for (auto mode : {0, 1, 2}) {  // yielding, large slice, synchronous
    SCOPED_TRACE(mode);
    Rig rig(mode == 1 ? std::chrono::nanoseconds(1s) : 0ns);
    // A merged status from an earlier life: 1/1 and 2/(intf 1) are still supported.
    rig.putRoutes({{kOutput, 1, 1, "old"}, {kOutput, 1, 2, "stale"}, {kOutput, 6, 1, "stale"}});
    rig.putIntfs({{kOutput, 1, 3, "stale"}, {kOutput, 2, 1, "old"}});
    rig.merged->vrfStatusIs(VrfId(7));  // an empty merged VRF goes too
    rig.putRoute(kMvpn, 1, 1, "new");
    rig.putIntf(kEvpn, 2, 1, "new");
    TraceCapture trace("MergedMcastTunnelEncapStatusSm");
    rig.start(mode == 2);
    if (mode == 0) {
      // Every key merged while reconciling is seen, also one whose merge deletes it.
      while (!rig.sm->initialScanDone()) ASSERT_TRUE(rig.scheduler.runOnce());
      rig.sm->eventToDyx_pipeline0(VrfId(9), route(9));
      EXPECT_TRUE(rig.sm->mergedEncapVrfStatusEncapTunnelOutputSeen().contains(
          Routing::Multicast::DynaCode::MergedMcastTunnelEncapStatusSm::
              MergedEncapVrfStatusEncapTunnelOutputKeyType(VrfId(9), route(9))));
    }
    // A synchronous machine has reconciled inside initializedIs.
    EXPECT_EQ(rig.sm->mergedEncapVrfStatusEncapTunnelOutputReconciling(), mode != 2);
    EXPECT_EQ(rig.sm->mergedEncapVrfStatusEncapIntfTunnelOutputReconciling(), mode != 2);
    ASSERT_TRUE(rig.settle());
    EXPECT_EQ(rig.mergedContents(), rig.expected());  // VRFs 1 and 2 only
    // A run of the walk stops only after an entry, also where it first steps on a VRF that
    // holds none of its kind (2 and 7 for the routes, 1, 6 and 7 for the interfaces).
    std::vector<std::string> stops;
    for (const auto& m : trace.sink.messages()) {
      if (m.starts_with("Yielding in reconciliation")) stops.push_back(m);
    }
    EXPECT_EQ(stops.empty(), mode == 2);
    for (const auto& m : stops)
      EXPECT_THAT(m, testing::Not(testing::HasSubstr("after processing 0")));
    // The counts are of entries: the route output walked 3 routes and deleted 2, the interface
    // output walked 2 and deleted 1; neither counts VRF 7 or a VRF without its kind of entry.
    const auto& routes = rig.sm->mergedEncapVrfStatusEncapTunnelOutput();
    const auto& intfs = rig.sm->mergedEncapVrfStatusEncapIntfTunnelOutput();
    EXPECT_EQ(std::pair(routes.processedTotal(), routes.deletedTotal()), std::pair(3ul, 2ul));
    EXPECT_EQ(std::pair(intfs.processedTotal(), intfs.deletedTotal()), std::pair(2ul, 1ul));
    EXPECT_TRUE(rig.sm->mergedEncapVrfStatusEncapTunnelOutputSeen().empty());
    EXPECT_FALSE(rig.sm->mergedEncapVrfStatusEncapIntfTunnelOutputUseBookmark());
  }

  // Each output is ready on its own, and the machine when both are.
  Rig rig(0ns);
  rig.putRoute(kOutput, 1, 1, "stale");
  for (uint32_t n = 0; n < 5; ++n) rig.putIntf(kOutput, 2, n, "stale");
  rig.start();
  auto* state = rig.sm->outputState();
  // The outputs reconcile in their own tasks: one is ready before the other, and the
  // interface output's walk of five records yields with a bookmark of both levels.
  while (!state->mergedEncapVrfStatusEncapTunnelOutputReady() &&
         !state->mergedEncapVrfStatusEncapIntfTunnelOutputReady()) {
    ASSERT_TRUE(rig.scheduler.runOnce());
  }
  EXPECT_NE(state->mergedEncapVrfStatusEncapTunnelOutputReady(),
            state->mergedEncapVrfStatusEncapIntfTunnelOutputReady());
  EXPECT_FALSE(rig.sm->ready());
  while (!rig.sm->mergedEncapVrfStatusEncapIntfTunnelOutputUseBookmark()) {
    ASSERT_TRUE(rig.scheduler.runOnce());
  }
  EXPECT_EQ(rig.sm->mergedEncapVrfStatusEncapIntfTunnelOutputBookmark()->outerKey, VrfId(2));
  EXPECT_FALSE(rig.sm->ready());
  rig.settle();
  EXPECT_TRUE(state->mergedEncapVrfStatusEncapIntfTunnelOutputReady());
  EXPECT_TRUE(rig.sm->ready());
  EXPECT_TRUE(rig.mergedContents().vrfs.empty());

  // An output reconciles exactly when it holds records: a hundred merged VRFs of route
  // records leave the interface output nothing to walk.
  Rig many(0ns);
  for (uint32_t v = 0; v < 100; ++v) many.putRoute(kOutput, v, 1, "stale");
  many.start();
  EXPECT_TRUE(many.sm->mergedEncapVrfStatusEncapTunnelOutputReconciling());
  EXPECT_FALSE(many.sm->mergedEncapVrfStatusEncapIntfTunnelOutputReconciling());
  many.settle();
  EXPECT_TRUE(many.mergedContents().vrfs.empty());

  // Merged VRFs without a record (an earlier life stopped between a VRF's last record and the
  // VRF): no output holds records, yet the walks drop them.
  Rig empty(0ns);
  for (uint32_t v = 0; v < 3; ++v) empty.merged->vrfStatusIs(VrfId(v));
  empty.putIntf(kEvpn, 1, 1, "new");
  empty.start();
  EXPECT_TRUE(empty.sm->mergedEncapVrfStatusEncapTunnelOutputReconciling());
  ASSERT_TRUE(empty.settle());
  EXPECT_EQ(empty.mergedContents(), empty.expected());
  EXPECT_EQ(empty.mergedContents().vrfs, std::set<uint32_t>{1});
}

TEST(TunnelMergeTrace, LifecycleLines) {
  Rig rig;
  rig.putRoutes({{kMvpn, 1, 1, "a"}, {kMvpn, 1, 2, "b"}});
  TraceCapture trace("MergedMcastTunnelEncapStatusSm");
  rig.start();
  rig.settle();
  rig.putRoute(kStatic, 1, 1, "s");
  rig.delRoute(kStatic, 1, 1);
  rig.putIntf(kEvpn, 2, 1, "e");
  rig.delIntf(kEvpn, 2, 1);
  const std::string r1 = route(1).toStrep(), i1 = intf(1).toStrep();
  const std::string child = "Routing::Multicast::DynaCode::MergedMcastTunnelEncapStatusSm::";
  const std::vector<std::string> lines = {
      "create local SMs",
      "create non-public arg SMs",
      child + "VrfStatusSm1::doInputScan0 scan complete. Processed 2 children.",
      "Initial scan yielding for child SM MergedMcastTunnelEncapStatusSm.",
      "MvpnEncapSm0 initial scan, and parent scan, complete.",
      "Initial scan done for child SMs. Now scanning with events triggered.",
      "Line 11: from( mvpnEncap.vrfStatus[].encapTunnel[] ): vrfId=1 routeKey=" + r1,
      "Line 11: merge( dyx_stream0, dyx_stream1 ): vrfId=1 routeKey=" + r1,
      "into( mergedEncap.vrfStatus[ vrfId ].encapTunnel[ routeKey ] ): inserting k1=1, k2=" + r1 +
          ", value=" + MvpnEncapTunnel(route(1), "a").toStrep(),
      "MvpnEncapSm0 scan, and parent scan, complete.",
      "Input scans for mergedEncapVrfStatusEncapTunnelOutput complete",
      "Reconciling mergedEncapVrfStatusEncapTunnelOutput: false",
      "Input scans for mergedEncapVrfStatusEncapIntfTunnelOutput complete",
      "Reconciling mergedEncapVrfStatusEncapIntfTunnelOutput: false",
      "Line 11: from( staticEncap.vrfStatus[].encapTunnel[] ): vrfId=1 routeKey=" + r1,
      "into( mergedEncap.vrfStatus[ vrfId ].encapTunnel[ routeKey ] ): inserting k1=1, k2=" + r1 +
          ", value=" + MvpnEncapTunnel(route(1), "s").toStrep(),
      "Line 19: from( evpnEncap.vrfStatus[].encapIntfTunnel[] ): vrfId=2 routeIntfKey=" + i1,
      "Line 19: merge( dyx_stream2, dyx_stream3 ): vrfId=2 routeIntfKey=" + i1,
      "into( mergedEncap.vrfStatus[ vrfId ].encapIntfTunnel[ routeIntfKey ] ): inserting k1=2, "
      "k2=" +
          i1 + ", value=" + MvpnEncapIntfTunnel(intf(1), "e").toStrep(),
      "into( mergedEncap.vrfStatus[ vrfId ].encapIntfTunnel[ routeIntfKey ] ): deleting k1=2, "
      "k2=" +
          i1,
  };
  // The first time each line appears, in lifecycle order (some recur: every yielding input
  // traces the initial-scan wait, route 1 is merged again when the static writer comes).
  EXPECT_EQ(trace.firstAppearances(lines), lines);
  trace.expectOnlyOwnLines();
}

// An input's scan is announced complete once: not again by a scan that has nothing new to do
// (before the parent's initial scan is done), nor after a later VRF's child scan (before the
// parent's initial scan is done or after), whether the machine is synchronous or not.
TEST(TunnelMergeTrace, AStreamIsAnnouncedCompleteOnce) {
  for (bool synchronous : {false, true}) {
    SCOPED_TRACE(synchronous);
    Rig rig;
    rig.putRoute(kMvpn, 1, 1, "a");
    TraceCapture trace("MergedMcastTunnelEncapStatusSm");
    const auto announced = [&] {
      return std::ranges::count_if(trace.sink.messages(), [](const std::string& m) {
        return m.ends_with("scan, and parent scan, complete.");
      });
    };
    rig.sm = rig.make(synchronous);
    if (!synchronous) {
      rig.sm->initializedIs(true);
      auto* sm0 = rig.sm->mvpnEncapSm0();
      while (sm0->inputScanState0() != kScanInitialComplete) ASSERT_TRUE(rig.scheduler.runOnce());
      ASSERT_FALSE(rig.sm->initialScanDone());
      const auto before = announced();
      sm0->doInputScan0();
      rig.putRoute(kMvpn, 4, 1, "d");  // a later VRF: its child's scan waits for task0
      sm0->doInputScan0();
      ASSERT_EQ(sm0->queuedChildScans<0>(), 0u);
      EXPECT_EQ(announced(), before);
    } else {
      rig.sm->initializedIs(true);
    }
    ASSERT_TRUE(rig.settle());
    const auto atReady = announced();
    rig.putRoute(kMvpn, 2, 1, "b");
    rig.putIntf(kStatic, 3, 1, "c");
    ASSERT_TRUE(rig.settle());
    EXPECT_EQ(rig.mergedContents(), rig.expected());
    EXPECT_EQ(announced(), atReady);
  }
}

TEST(TunnelMergeDeathTest, NullArgumentsIntoKeyMismatchAndAVrfLeavingWithAnUnseenChange) {
  const char* const names[] = {"mvpnEncap", "staticEncap", "evpnEncap", "mergedEncap"};
  expectNullArgumentsFatal<Rig>(names, [](Rig& r, auto null) {
    auto in = [&](int n) {
      return null(n) ? nullptr : Oro::Ptr<const MvpnTunnelEncapStatus>(r.in[n]);
    };
    return Routing::Multicast::mergedMcastTunnelEncapStatusSmFactory(
        in(0), in(1), in(2), null(3) ? nullptr : r.merged, Dyx::SmControl{&r.scheduler});
  });

  Rig rig;
  rig.start(true);
  EXPECT_DEATH(rig.sm->intoMergedEncapVrfStatusEncapTunnel(VrfId(1), route(1),
                                                           MvpnEncapTunnel(route(2), "x")),
               HasSubstr("In \"into( mergedEncap.vrfStatus[ vrfId ].encapTunnel[ routeKey ] )\" "
                         "the value inserted in the into statement has internal key: " +
                         route(2).toStrep() +
                         ", but the key specified in the into is: " + route(1).toStrep()));
  EXPECT_DEATH(
      rig.sm->intoMergedEncapVrfStatusEncapIntfTunnel(VrfId(1), intf(1),
                                                      MvpnEncapIntfTunnel(intf(2), "x")),
      HasSubstr("In \"into( mergedEncap.vrfStatus[ vrfId ].encapIntfTunnel[ routeIntfKey ] )\" "
                "the value inserted in the into statement has internal key: " +
                intf(2).toStrep()));

  for (bool intfColl : {false, true}) {
    Rig rig;
    const int w = intfColl ? kEvpn : kMvpn;
    auto vrf = rig.in[w]->vrfStatusIs(VrfId(3));
    // A reader of the input VRF subscribed before the machine, that withdraws the whole VRF
    // when told of a change: the child has not been told yet.
    Oro::KeyReactor<MvpnRouteKey> routes(MvpnVrfTunnelEncapStatus::encapTunnelAttr,
                                         [&](const MvpnRouteKey&) { rig.delVrf(w, 3); });
    Oro::KeyReactor<MvpnRouteIntfKey> intfs(MvpnVrfTunnelEncapStatus::encapIntfTunnelAttr,
                                            [&](const MvpnRouteIntfKey&) { rig.delVrf(w, 3); });
    (intfColl ? static_cast<Oro::Notifiee&>(intfs) : routes).notifierIs(vrf.get());
    rig.start(true);
    EXPECT_DEATH(intfColl ? rig.putIntf(w, 3, 1, "x") : rig.putRoute(w, 3, 1, "x"),
                 HasSubstr(std::string("We missed notifications that happened to ") +
                           (intfColl ? "encapIntfTunnel" : "encapTunnel") +
                           " before the enclosing entity got deleted"));
  }
}

TEST(MergeLifetime, TheLastReferenceMayGoFromInsideEitherMerge) {
  using VrfRig = MergeTest::Rig;
  expectTheLastReferenceMayGoFromInsideAMerge<VrfRig>(
      MergeTest::MvpnVrfStatus::mvpnVrfAttr, [](VrfRig& rig, int n, uint32_t v) { rig.put(n, v); },
      [](VrfRig& rig, uint32_t v) { return rig.merged->mvpnVrf(VrfId(v)).has_value(); });
  expectTheLastReferenceMayGoFromInsideAMerge<Rig>(
      MvpnTunnelEncapStatus::vrfStatusAttr,
      [](Rig& rig, int w, uint32_t v) { rig.putRoute(w, v, 1, "r"); },
      [](Rig& rig, uint32_t v) { return rig.merged->vrfStatus(VrfId(v)) != nullptr; });
}

// A machine that outlives its scheduler runs in place what it would have scheduled: a VRF
// that comes after the scheduler went is scanned and merged at once (after ready), and one that
// comes while scans were pending changes nothing (nothing is merged before the initial scan).
TEST(MergeLifetime, AMachineThatOutlivesItsSchedulerRunsItsWorkInPlace) {
  for (const bool ready : {true, false}) {
    SCOPED_TRACE(ready ? "ready" : "scans pending");
    Rig rig;
    auto scheduler = std::make_unique<Oro::TaskScheduler>(std::chrono::hours(1));
    rig.putRoutes({{kMvpn, 1, 1, "a"}, {kStatic, 1, 2, "b"}});
    auto sm = Routing::Multicast::mergedMcastTunnelEncapStatusSmFactory(
        rig.in[0], rig.in[1], rig.in[2], rig.merged,
        Dyx::SmControl{scheduler.get(), Oro::TaskPriority::normal, false});
    sm->initializedIs(true);
    if (ready) {
      scheduler->runUntilIdle();
      ASSERT_TRUE(sm->ready());
    }
    scheduler.reset();
    rig.putRoutes({{kMvpn, 7, 1, "c"}, {kMvpn, 7, 2, "d"}, {kStatic, 8, 1, "e"}});
    rig.putIntf(kEvpn, 9, 1, "f");
    rig.delVrf(kMvpn, 1);
    EXPECT_EQ(rig.mergedContents(), ready ? rig.expected() : Contents{});
  }
}

}  // namespace tunnelMerge

}  // namespace
