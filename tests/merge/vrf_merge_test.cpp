// MergedMvpnVrfStatusSm over in-process writer statuses: precedence, lifecycle, scans with
// yields, reconciliation after a restart, input departure, trace lines and fatal checks.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "merge/MergeTestRig.h"
#include "merge/MvpnVrfStatusMergeSm.h"
#include "platform/runtime/Entity.h"

namespace {

using namespace MergeTest;
using namespace std::chrono_literals;
using Routing::Multicast::DynaCode::kScanComplete;
using Routing::Multicast::DynaCode::kScanInterrupted;

using ::testing::HasSubstr;

std::vector<uint32_t> keysInOrder(const MvpnVrfStatus& status) {
  std::vector<uint32_t> keys;
  for (auto it = status.mvpnVrfIter(); it.valid(); it.next()) keys.push_back(it.key().value());
  return keys;
}

TEST(VrfMerge, PrecedenceFollowsEveryChangeAndEveryRemergedKeyIsWritten) {
  for (bool synchronous : {false, true}) {
    SCOPED_TRACE(synchronous ? "synchronous" : "asynchronous");
    Rig rig;
    rig.put(1, 7);  // static MVPN and EVPN: EVPN wins
    rig.put(2, 7);
    for (int n = 0; n < 4; ++n) rig.put(n, 9);  // everyone: BGP wins
    rig.start(synchronous);
    rig.settle();
    ASSERT_TRUE(rig.sm->ready());
    EXPECT_EQ(rig.mergedMap(),
              (std::map<uint32_t, MvpnClient>{{7, MvpnClient::evpn_}, {9, MvpnClient::bgp_}}));
    // Every re-merged key is written again, even when its merged value stays.
    int changes = 0;
    Oro::KeyReactor<VrfId> watcher(MvpnVrfStatus::mvpnVrfAttr,
                                   [&](const VrfId& k) { changes += k == VrfId(7); });
    watcher.notifierIs(rig.merged.get());
    rig.put(2, 7);  // the winner's same record again
    rig.put(3, 7);  // a lower-ranked writer: the merged value stays evpn_
    EXPECT_EQ(changes, 2);
    EXPECT_EQ(rig.mergedMap().at(7), MvpnClient::evpn_);

    // Each change is merged at once; then EVPN leaves 7 (static MVPN remains) and BGP
    // leaves 9 (EVPN ranks above static MVPN).
    struct Step {
      bool put;
      int input;
      uint32_t vrf;
      std::optional<MvpnClient> merged;
    } steps[] = {{true, 3, 11, MvpnClient::staticEvpn_},  {true, 0, 11, MvpnClient::bgp_},
                 {false, 0, 11, MvpnClient::staticEvpn_}, {false, 3, 11, std::nullopt},
                 {false, 2, 7, MvpnClient::staticMvpn_},  {false, 0, 9, MvpnClient::evpn_}};
    for (const Step& step : steps) {
      step.put ? rig.put(step.input, step.vrf) : rig.del(step.input, step.vrf);
      auto got = rig.merged->mvpnVrf(VrfId(step.vrf));
      EXPECT_EQ(got ? std::optional(got->client()) : std::nullopt, step.merged) << step.vrf;
    }
    EXPECT_EQ(rig.mergedMap(), rig.expected());
  }
}

TEST(VrfMergeLifecycle, ScansStartWhenInitializedYieldByTheSliceAndTheFirstWritesNothing) {
  Rig rig(0ns);  // every slice is used up after one key
  for (uint32_t v = 1; v <= 3; ++v) rig.put(0, v);
  rig.put(2, 3);
  int writes = 0;
  Oro::KeyReactor<VrfId> watcher(MvpnVrfStatus::mvpnVrfAttr, [&](const VrfId&) { ++writes; });
  watcher.notifierIs(rig.merged.get());
  // Construction alone does nothing; initializedIs starts the scans.
  rig.sm = rig.make(false);
  EXPECT_EQ(rig.scheduler.runUntilIdle(), 0u);
  EXPECT_EQ(rig.sm->mvpnVrfStatusSm0(), nullptr);
  rig.sm->initializedIs(true);
  auto* sm0 = rig.sm->mvpnVrfStatusSm0();
  ASSERT_NE(sm0->task0(), nullptr);
  EXPECT_EQ(sm0->task0()->name(),
            "Routing::Multicast::MergedMvpnVrfStatusSm-MvpnVrfStatusSm0InputScanTask0");
  EXPECT_EQ(rig.sm->evpnVrfStatusSm2()->task2()->name(),
            "Routing::Multicast::MergedMvpnVrfStatusSm-EvpnVrfStatusSm2InputScanTask2");
  EXPECT_EQ(rig.sm->mergedVrfStatusMvpnVrfOutputReconciliationTask()->name(),
            "MergedMvpnVrfStatusSm-mergedVrfStatusMvpnVrfOutputTask");

  ASSERT_TRUE(rig.scheduler.runOnce());  // task0: one key, then the slice is over
  EXPECT_EQ(sm0->inputScanState0(), kScanInterrupted);
  EXPECT_TRUE(sm0->inputScanBookmark0().has_value());
  EXPECT_EQ(sm0->task0()->workCount(), 1u);
  EXPECT_EQ(sm0->task0()->pendingWork(), 3u);
  EXPECT_TRUE(sm0->task0()->scheduled());

  while (!rig.sm->initialScanDone()) ASSERT_TRUE(rig.scheduler.runOnce());
  EXPECT_EQ(writes, 0);
  EXPECT_TRUE(rig.mergedMap().empty());
  EXPECT_FALSE(rig.sm->ready());
  for (size_t n = 0; n < 4; ++n) EXPECT_FALSE(rig.sm->inputSmScanState()->streamScan(n));

  rig.settle();
  EXPECT_TRUE(rig.sm->ready());
  EXPECT_TRUE(rig.sm->idle());
  EXPECT_EQ(rig.mergedMap(), rig.expected());
  EXPECT_EQ(writes, 4);  // VRF 3 is merged by both inputs' scans
  for (size_t n = 0; n < 4; ++n) {
    EXPECT_EQ(rig.sm->inputSm(n)->inputScanState(), kScanComplete);
    EXPECT_EQ(rig.sm->inputSm(n)->task(), nullptr);  // deleted once complete
  }
}

TEST(VrfMergeReconcile, RestartDeletesExactlyTheUnsupportedEntriesAndAnEmptyOutputIsLeftAlone) {
  // Over an earlier merged status: yielding, large slice, synchronous with the smallest slice;
  // then (3) over an empty one, which is not reconciled at all.
  for (auto mode : {0, 1, 2, 3}) {
    SCOPED_TRACE(mode);
    const bool earlier = mode != 3;
    Rig rig(mode == 1 ? std::chrono::nanoseconds(1s) : 0ns);
    if (earlier) {
      rig.merged->mvpnVrfIs(MvpnVrf(VrfId(100), MvpnClient::bgp_));
      rig.merged->mvpnVrfIs(MvpnVrf(VrfId(101), MvpnClient::evpn_));
      rig.merged->mvpnVrfIs(MvpnVrf(VrfId(5), MvpnClient::staticEvpn_));
    }
    rig.put(0, 5);
    rig.put(3, 6);
    rig.start(mode == 2);
    EXPECT_EQ(rig.sm->mergedVrfStatusMvpnVrfOutputReconciling(), mode < 2);
    // A synchronous machine did everything inside initializedIs, however short the slice.
    EXPECT_EQ(rig.scheduler.runUntilIdle() == 0, mode == 2);
    ASSERT_TRUE(rig.sm->ready() && rig.sm->idle());
    EXPECT_EQ(rig.mergedMap(), (std::map<uint32_t, MvpnClient>{{5, MvpnClient::bgp_},
                                                               {6, MvpnClient::staticEvpn_}}));
    const auto& output = rig.sm->mergedVrfStatusMvpnVrfOutput();
    EXPECT_EQ(output.deletedTotal(), earlier ? 2u : 0u);
    EXPECT_EQ(output.processedTotal(), earlier ? 4u : 0u);
    EXPECT_FALSE(rig.sm->mergedVrfStatusMvpnVrfOutputReconciling());
    EXPECT_FALSE(rig.sm->mergedVrfStatusMvpnVrfOutputUseBookmark());
    EXPECT_TRUE(rig.sm->mergedVrfStatusMvpnVrfOutputSeen().empty());
  }
}

TEST(VrfMergeDeparture, DepartedInputFallsBackToTheOthers) {
  Rig rig;
  rig.put(0, 5);
  rig.put(0, 6);
  rig.put(3, 5);
  rig.start();
  rig.settle();
  rig.sm->doDeleteAll();  // every input still there: nothing changes
  EXPECT_EQ(rig.mergedMap(), rig.expected());

  rig.sm->inputRootDel(0);
  EXPECT_EQ(rig.mergedMap(), (std::map<uint32_t, MvpnClient>{{5, MvpnClient::staticEvpn_}}));
  rig.put(0, 7);  // no longer watched
  EXPECT_FALSE(rig.merged->mvpnVrf(VrfId(7)).has_value());
  rig.put(2, 5);
  EXPECT_EQ(rig.mergedMap().at(5), MvpnClient::evpn_);
}

TEST(VrfMergeDeparture, InputDepartingBeforeTheInitialScanCountsAsEmpty) {
  Rig rig(0ns);
  rig.put(2, 4);
  rig.put(2, 8);
  rig.put(1, 8);
  rig.start();
  rig.scheduler.runOnce();
  rig.sm->inputRootDel(2);
  rig.settle();
  EXPECT_TRUE(rig.sm->ready());
  EXPECT_EQ(rig.mergedMap(), (std::map<uint32_t, MvpnClient>{{8, MvpnClient::staticMvpn_}}));
}

TEST(VrfMergeTrace, FullLifecycleLines) {
  Rig rig(0ns);
  rig.put(0, 1);
  rig.put(0, 2);
  const std::vector<uint32_t> order = keysInOrder(*rig.in[0]);
  const std::string a = std::to_string(order[0]), b = std::to_string(order[1]);
  TraceCapture trace("MergedMvpnVrfStatusSm");
  rig.start();
  rig.settle();
  rig.put(0, 5);
  std::vector<std::string> expected;
  auto add = [&](std::initializer_list<std::string> lines) {
    expected.insert(expected.end(), lines);
  };
  auto merge = [&](const std::string& k) {
    add({"Line 15: from( mvpnVrfStatus.mvpnVrf[] ): vrfId=" + k,
         "Line 15: merge( dyx_stream0, dyx_stream1, dyx_stream2, dyx_stream3 ): vrfId=" + k,
         "Line 22: merge( dyx_pipeline0 ): vrfId=" + k + " myVrf=" + k + " mvpnVrf=Optional(" + k +
             ") staticMvpnVrf=None evpnVrf=None staticEvpnVrf=None",
         "Line 22: merge( dyx_pipeline1, dyx_pipeline2, dyx_pipeline3, dyx_pipeline4, "
         "dyx_pipeline5 ): valMyVrf=Optional(" +
             k + ") vrfId=" + k + " mvpnVrf=Optional(" + k +
             ") staticMvpnVrf=None evpnVrf=None staticEvpnVrf=None",
         "into( mergedVrfStatus.mvpnVrf[ vrfId ] ): inserting k1=" + k + ", value=" + k});
  };
  const std::string others[] = {"StaticMvpnVrfStatusSm1", "EvpnVrfStatusSm2",
                                "StaticEvpnVrfStatusSm3"};
  const std::string yielded =
      "MergedMvpnVrfStatusSm MvpnVrfStatusSm0 yielding after 1 iterations (2 total items)";
  // First scans: input 0 yields after one key, the empty inputs complete at once.
  add({"create local SMs", "create non-public arg SMs",
       " scan complete: false resumed: false scan: 0", "k: " + a, yielded});
  for (const std::string& sm : others) {
    add({" scan complete: false resumed: false scan: 0",
         sm == others[2] ? " dyx_stream0 scan is false" : " dyx_stream3 scan is false",
         "Initial scan yielding for child SM MergedMvpnVrfStatusSm.",
         sm + " initial scan, and parent scan, complete."});
  }
  add({" scan complete: false resumed: true scan: 1", "k: " + b,
       "Initial scan done for child SMs. Now scanning with events triggered.",
       "MvpnVrfStatusSm0 initial scan, and parent scan, complete.",
       // Merging scans.
       " scan complete: false resumed: false scan: 3", "k: " + a});
  merge(a);
  add({yielded});
  for (const std::string& sm : others) {
    add({" scan complete: false resumed: false scan: 3", sm + " scan, and parent scan, complete."});
  }
  add({" scan complete: false resumed: true scan: 1", "k: " + b});
  merge(b);
  add({"Input scans for mergedVrfStatusMvpnVrfOutput complete",
       "Deletion scan for reconciliation is done, last task run processed 0 items, deleting 0 "
       "items.",
       "MvpnVrfStatusSm0 scan, and parent scan, complete.",
       // A per-key merge once ready.
       "k: 5"});
  merge("5");
  EXPECT_EQ(trace.sink.messages(), expected);
  trace.expectOnlyOwnLines();
}

TEST(VrfMergeTrace, ReconciliationLinesWithAndWithoutYields) {
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
    rig.merged->mvpnVrfIs(MvpnVrf(VrfId(8), MvpnClient::bgp_));
    rig.merged->mvpnVrfIs(MvpnVrf(VrfId(9), MvpnClient::bgp_));
    TraceCapture trace("MergedMvpnVrfStatusSm");
    rig.start(synchronous);
    if (!synchronous) {
      // Stop while the reconciliation waits for its own task.
      while (!rig.sm->mergedVrfStatusMvpnVrfOutputUseBookmark())
        ASSERT_TRUE(rig.scheduler.runOnce());
      EXPECT_TRUE(rig.sm->mergedVrfStatusMvpnVrfOutputReconciliationTask()->scheduled());
      EXPECT_EQ(rig.merged->mvpnVrfSize(), 1u);
      EXPECT_FALSE(rig.sm->ready());
    }
    rig.settle();
    ASSERT_TRUE(rig.sm->ready());
    rig.sm->handleMergedVrfStatusMvpnVrfOutputInputReady();
    const auto lines = trace.messagesWhere([](const std::string& m) {
      return m.starts_with("Input scans") || m.find("reconcil") != std::string::npos;
    });
    std::vector<std::string> want = synchronous ? straight : yielding;
    if (!synchronous) want.push_back("already ready, not reconciling.");
    EXPECT_EQ(lines, want);
    EXPECT_TRUE(rig.mergedMap().empty());
  }
}

TEST(VrfMergeDeathTest, NullPointerArgumentsAreFatal) {
  const char* names[5] = {"mvpnVrfStatus", "staticMvpnVrfStatus", "evpnVrfStatus",
                          "staticEvpnVrfStatus", "mergedVrfStatus"};
  // The last round leaves out every argument: the check goes from the output back.
  for (int missing = 0; missing < 6; ++missing) {
    Rig rig;
    Oro::Ptr<const MvpnVrfStatus> in[4] = {rig.in[0], rig.in[1], rig.in[2], rig.in[3]};
    Oro::Ptr<MvpnVrfStatus> merged = missing >= 4 ? nullptr : rig.merged;
    for (int n = 0; n < 4; ++n) {
      if (n == missing || missing == 5) in[n] = nullptr;
    }
    auto sm = Routing::Multicast::mergedMvpnVrfStatusSmFactory(in[0], in[1], in[2], in[3], merged,
                                                               Dyx::SmControl{&rig.scheduler});
    EXPECT_DEATH(sm->initializedIs(true),
                 HasSubstr(std::string(names[std::min(missing, 4)]) +
                           "() && \"Pointer SM args cannot be null unless they are marked "
                           "Optional\""));
  }
}

TEST(VrfMergeDeathTest, IntoKeyMismatchOrAnInputLeavingDuringItsOwnNotificationIsFatal) {
  Rig rig;
  rig.start(true);
  EXPECT_DEATH(
      rig.sm->intoMergedVrfStatusMvpnVrf(VrfId(5), MvpnVrf(VrfId(6), MvpnClient::bgp_)),
      HasSubstr("In \"into( mergedVrfStatus.mvpnVrf[ vrfId ] )\" the value inserted in the "
                "into statement has internal key: 6, but the key specified in the into "
                "is: 5"));
  EXPECT_TRUE(rig.mergedMap().empty());
  // A reader of the merged status that tears the inputs down while input 0 is still
  // handling the notification that caused the merged write.
  Oro::KeyReactor<VrfId> teardown(MvpnVrfStatus::mvpnVrfAttr,
                                  [&](const VrfId&) { rig.sm->doDeleteAll(); });
  teardown.notifierIs(rig.merged.get());
  EXPECT_DEATH(rig.put(0, 3), HasSubstr("We missed notifications that happened to mvpnVrf before "
                                        "the enclosing entity got deleted"));
}

}  // namespace
