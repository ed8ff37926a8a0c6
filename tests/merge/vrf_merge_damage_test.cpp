// MergedMvpnVrfStatusSm over an input whose shared-memory table is damaged: the damage is
// reported through the input's corruption handler, the merged entries of that input survive
// the reader's restart and later merges, and the output follows again once the writer
// republishes.
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "common/shm_damage.h"
#include "merge/MergeTestRig.h"
#include "platform/shm/ShmTable.h"

namespace {

using namespace MergeTest;

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

TEST(VrfMergeDamage, RestartOverADamagedInputKeepsItsEntriesUntilItIsRepublished) {
  for (bool synchronous : {false, true}) {
    SCOPED_TRACE(synchronous ? "synchronous" : "asynchronous");
    DamageRig rig;
    rig.put(0, 1);
    rig.put(0, 5);
    rig.put(2, 2);
    rig.put(2, 5);
    // The merged status a previous reader left: 9 is stale.
    for (auto [vrf, client] : std::map<uint32_t, MvpnClient>{{1, MvpnClient::bgp_},
                                                             {2, MvpnClient::evpn_},
                                                             {5, MvpnClient::bgp_},
                                                             {9, MvpnClient::bgp_}}) {
      rig.merged->mvpnVrfIs(MvpnVrf(VrfId(vrf), client));
    }
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
    rig.settle();
    EXPECT_TRUE(rig.sm->ready());
    EXPECT_EQ(rig.mergedMap(),
              (std::map<uint32_t, MvpnClient>{
                  {1, MvpnClient::bgp_}, {2, MvpnClient::evpn_}, {5, MvpnClient::evpn_}}));
  }
}

TEST(VrfMergeDamage, MergesAfterReadyNeverDeleteOrDowngradeWhatAnUnreadableInputHolds) {
  DamageRig rig;
  rig.put(0, 3);
  rig.put(2, 3);
  rig.put(0, 4);
  rig.put(3, 6);
  rig.start();
  rig.settle();
  ASSERT_TRUE(rig.sm->ready());
  rig.damage();

  // Input 2 withdraws and rewrites 3 and 4, and input 1 writes 6 and 7: the BGP entries stay,
  // 6 is upgraded past static EVPN (whatever BGP holds, static MVPN outranks it), and 7 is
  // created from the best readable input.
  rig.del(2, 3);
  rig.put(2, 4);
  rig.del(2, 4);
  rig.put(1, 6);
  rig.put(1, 7);
  EXPECT_GT(rig.reports, 0);
  EXPECT_EQ(rig.mergedMap(), (std::map<uint32_t, MvpnClient>{{3, MvpnClient::bgp_},
                                                             {4, MvpnClient::bgp_},
                                                             {6, MvpnClient::staticMvpn_},
                                                             {7, MvpnClient::staticMvpn_}}));

  // BGP republishes without 3: every key follows its inputs again.
  rig.republish({4, 7});
  rig.settle();
  EXPECT_TRUE(rig.sm->ready());
  EXPECT_EQ(rig.mergedMap(), rig.expected());
  EXPECT_EQ(rig.mergedMap().count(3), 0u);
}

}  // namespace
