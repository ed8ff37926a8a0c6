// MergedMcastTunnelEncapStatusSm over a damaged static writer's status: the damage is reported
// through the status's corruption handlers, no merged record is deleted or replaced on the
// ground of damage, neither at a restart nor after ready, and the merged status follows the
// inputs again once the writer republishes.
#include <gtest/gtest.h>

#include <string>

#include "merge/EncapTestRig.h"

namespace {

using namespace EncapTest;
using Routing::Multicast::EncapStatusFaults;

TEST(TunnelMergeDamage, RestartOverADamagedStaticRootKeepsTheMergedStatusUntilRepublished) {
  for (bool synchronous : {false, true}) {
    SCOPED_TRACE(synchronous ? "synchronous" : "asynchronous");
    Rig rig;
    rig.putRoute(kStatic, 1, 1, "s");
    rig.putIntf(kStatic, 2, 1, "si");
    rig.putRoute(kMvpn, 1, 1, "m");
    rig.putRoute(kMvpn, 1, 2, "m2");
    // What an earlier life merged; (9, route 1) no writer holds any more.
    auto m1 = rig.merged->vrfStatusIs(VrfId(1));
    m1->encapTunnelIs(MvpnEncapTunnel(route(1), "s"));
    m1->encapTunnelIs(MvpnEncapTunnel(route(2), "m2"));
    rig.merged->vrfStatusIs(VrfId(2))->encapIntfTunnelIs(MvpnEncapIntfTunnel(intf(1), "si"));
    rig.merged->vrfStatusIs(VrfId(9))->encapTunnelIs(MvpnEncapTunnel(route(1), "old"));
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
    rig.settle();
    EXPECT_TRUE(rig.sm->ready());
    EXPECT_EQ(rig.mergedContents(), rig.expected());
    EXPECT_EQ(rig.mergedContents().vrfs.count(9), 0u);
  }
}

TEST(TunnelMergeDamage, AfterReadyAnUnreadableStaticVrfNeitherLosesNorYieldsItsRecords) {
  Rig rig;
  rig.putRoute(kStatic, 1, 1, "s");
  rig.putRoute(kMvpn, 1, 1, "m");
  rig.putIntf(kStatic, 1, 4, "si");
  rig.start();
  rig.settle();
  ASSERT_TRUE(rig.sm->ready());
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
  EXPECT_EQ(rig.mergedContents(), rig.expected());
  EXPECT_EQ(rig.mergedContents().routes.count({1, 1}), 0u);
}

}  // namespace
