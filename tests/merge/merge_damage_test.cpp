// Both merge machines over a damaged input, reported through its corruption handlers: no
// merged record is deleted or replaced on the ground of damage, at a restart or after ready, and
// each output follows its inputs again once the writer republishes.
#include <gtest/gtest.h>

#include <string>

#include "common/shm_test_util.h"
#include "merge/MergeTestRig.h"

namespace {

using namespace MergeTest;
using enum MvpnClient;
using Routing::Multicast::EncapStatusFaults;

// Input 0 (BGP) published through a shared-memory table that can be damaged.
struct DamageRig : Rig {
  DamageRig() {
    static int instance = 0;
    path = "test/multicast/vpn/vrfStatus/damaged" + std::to_string(++instance);
    in[0]->mount(Oro::ShmAttach{path, Oro::ShmRole::writer});
    in[0]->mvpnVrfCorruptionHandlerIs([this](const std::string&) { ++reports; });
  }
  void damage() { ASSERT_TRUE(shmtest::damageTable(path, "mvpnVrf")); }
  // The BGP writer restarts on a fresh table and publishes `vrfs` again.
  void republish(std::initializer_list<uint32_t> vrfs) {
    in[0]->mount(Oro::ShmAttach{path + "-again", Oro::ShmRole::writer});
    in[0]->mvpnVrfDelAll();
    for (uint32_t v : vrfs) put(0, v);
  }
  std::string path;
  int reports = 0;
};

TEST(VrfMergeDamage, ADamagedInputKeepsItsEntriesAtARestartAndAfterReadyUntilItIsRepublished) {
  for (bool synchronous : {false, true}) {
    SCOPED_TRACE(synchronous ? "synchronous" : "asynchronous");
    DamageRig rig;
    rig.put({{0, 1}, {0, 5}, {2, 2}, {2, 5}});
    // The merged status a previous reader left: 9 is stale.
    rig.mergedIs({{1, bgp_}, {2, evpn_}, {5, bgp_}, {9, bgp_}});
    const auto before = rig.mergedMap();
    rig.damage();
    rig.start(synchronous);
    rig.settle();
    EXPECT_GT(rig.reports, 0);
    // Nothing was deleted or downgraded, not even the stale entry: with input 0's keys
    // unknown, the reconciliation waits.
    EXPECT_EQ(rig.mergedMap(), before);
    EXPECT_FALSE(rig.sm->ready());
    EXPECT_TRUE(rig.sm->mergedVrfStatusMvpnVrfOutputReconciling());

    rig.republish({1});
    EXPECT_TRUE(rig.settle());
    EXPECT_EQ(rig.mergedMap(), (Merged{{1, bgp_}, {2, evpn_}, {5, evpn_}}));
  }

  // Merges after ready never delete or downgrade what an unreadable input holds.
  DamageRig rig;
  rig.put({{0, 3}, {2, 3}, {0, 4}, {3, 6}});
  rig.start();
  ASSERT_TRUE(rig.settle());
  rig.damage();

  // Input 2 withdraws and rewrites 3 and 4, and input 1 writes 6 and 7: the BGP entries stay,
  // 6 is upgraded past static EVPN (whatever BGP holds, static MVPN outranks it), and 7 is
  // created from the best readable input.
  rig.del(2, 3);
  rig.put(2, 4);
  rig.del(2, 4);
  rig.put({{1, 6}, {1, 7}});
  EXPECT_GT(rig.reports, 0);
  EXPECT_EQ(rig.mergedMap(), (Merged{{3, bgp_}, {4, bgp_}, {6, staticMvpn_}, {7, staticMvpn_}}));

  // BGP republishes without 3: every key follows its inputs again.
  rig.republish({4, 7});
  EXPECT_TRUE(rig.settle());
  EXPECT_EQ(rig.mergedMap(), rig.expected());  // 3 too goes
}

namespace tunnel {

using namespace EncapTest;

TEST(TunnelMergeDamage, AnUnreadableStaticInputKeepsTheMergedRecordsUntilRepublished) {
  for (bool synchronous : {false, true}) {
    SCOPED_TRACE(synchronous ? "synchronous" : "asynchronous");
    EncapTest::Rig rig;
    rig.putRoute(kStatic, 1, 1, "s");
    rig.putIntf(kStatic, 2, 1, "si");
    rig.putRoutes({{kMvpn, 1, 1, "m"}, {kMvpn, 1, 2, "m2"}});
    // What an earlier life merged; (9, route 1) no writer holds any more.
    rig.putRoutes({{kOutput, 1, 1, "s"}, {kOutput, 1, 2, "m2"}, {kOutput, 9, 1, "old"}});
    rig.putIntf(kOutput, 2, 1, "si");
    const Contents before = rig.mergedContents();
    int reports = 0;
    rig.in[kStatic]->vrfStatusCorruptionHandlerIs([&](const std::string&) { ++reports; });
    EncapStatusFaults::vrfStatusDamagedIs(*rig.in[kStatic], true);

    rig.start(synchronous);
    rig.settle();
    EXPECT_GT(reports, 0);
    // The MVPN record did not replace the static one it may be hidden by, and nothing was
    // reconciled away: both outputs wait for the static writer's streams.
    EXPECT_EQ(rig.mergedContents(), before);
    EXPECT_FALSE(rig.sm->ready());

    // The static writer republishes: its status reads again and it announces its VRFs.
    EncapStatusFaults::vrfStatusDamagedIs(*rig.in[kStatic], false);
    rig.delVrf(kStatic, 2);
    rig.putIntf(kStatic, 2, 1, "si2");
    EXPECT_TRUE(rig.settle());
    EXPECT_EQ(rig.mergedContents(), rig.expected());  // VRF 9 too goes
  }

  // After ready, an unreadable static VRF neither loses nor yields its records.
  EncapTest::Rig rig;
  rig.putRoutes({{kStatic, 1, 1, "s"}, {kMvpn, 1, 1, "m"}});
  rig.putIntf(kStatic, 1, 4, "si");
  rig.start();
  ASSERT_TRUE(rig.settle());
  auto staticVrf = rig.in[kStatic]->vrfStatus(VrfId(1));
  int reports = 0;
  staticVrf->encapTunnelCorruptionHandlerIs([&](const std::string&) { ++reports; });
  EncapStatusFaults::encapTunnelDamagedIs(*staticVrf, true);

  rig.putRoute(kMvpn, 1, 1, "m2");  // the static record may still be there: kept
  rig.delRoute(kMvpn, 1, 1);        // kept, not deleted
  rig.putRoute(kMvpn, 1, 5, "m5");  // missing: created from the readable writer
  rig.putIntf(kEvpn, 1, 4, "e");    // the interface collection is sound: static still wins
  EXPECT_GT(reports, 0);
  Contents got = rig.mergedContents();
  EXPECT_EQ(got.routes.at({1, 1}), "s");
  EXPECT_EQ(got.routes.at({1, 5}), "m5");
  EXPECT_EQ(got.intfs.at({1, 4}), "si");

  // The static writer's next change, once its status reads again, rescans it and merges the
  // kept keys anew.
  EncapStatusFaults::encapTunnelDamagedIs(*staticVrf, false);
  rig.delRoute(kStatic, 1, 1);
  rig.putRoute(kStatic, 1, 5, "s5");
  rig.settle();
  EXPECT_EQ(rig.mergedContents(), rig.expected());  // (1, 1) too goes
}

}  // namespace tunnel

}  // namespace
