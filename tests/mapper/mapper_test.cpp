// MvpnMapper: publication with old values, lookups and DelAll on one map of each kind, every
// map's wiring, key collections, ready, and the PMSI VLAN lookup (every way it comes back
// empty, its range error, a corrupt interface table); the VLAN range and VRF id map status it
// stands on. MvpnMapperKeeper and auditMvpnMapper: seeded random events keep the audit clean
// and match a plain model, each agent mistake is reported, the report's JSON, the agent's flow.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "common/notice_log.h"
#include "common/shm_test_util.h"
#include "mapper/MvpnMapper.h"
#include "mapper/MvpnMapperAudit.h"
#include "mapper/MvpnMapperKeeper.h"
#include "platform/CharRange.h"
#include "platform/Error.h"
#include "platform/net/VlanId.h"
#include "platform/net/VlanIntf.h"
#include "platform/net/VrfIdMapStatus.h"
#include "platform/shm/ShmTable.h"

namespace Routing::Multicast {
namespace {

using ::testing::HasSubstr;

using Bridging::VlanIdOrNone;
using Nevo::IntfId;
using Nevo::IpGenAddr;
using Vrf::VrfIdMap::VrfId;

MvpnVrfRouteKey routeKey(int i) {
  return MvpnVrfRouteKey(VrfId(1 + i % 3), MvpnRouteKey(IpGenAddr::ipv4Addr(0x0a000000u + i),
                                                        IpGenAddr::ipv4Addr(0xef000001u), false));
}
MvpnVrfRouteIntfKey routeIntfKey(int i) {
  return MvpnVrfRouteIntfKey(VrfId(1 + i % 3),
                             MvpnRouteIntfKey(routeKey(i).key(), IntfId::vlan(i)));
}
MulticastTreeId treeId(int i) {
  return MulticastTreeId("mldp:" + std::to_string(i));
}

Oro::Ptr<MvpnMapper> newMapper(Oro::Ptr<MvpnIntfStatus> intf = mvpnIntfStatusFactory("mapper")) {
  return mvpnMapperFactory(intf, Vrf::VrfIdMap::vrfIdMapStatusFactory());
}

using shmtest::ChangeLog;
using shmtest::KeyLog;
using RouteLog = ChangeLog<MvpnVrfRouteKey, TunnelId>;

TEST(Mapper, ValueMapPublishesChangesWithTheOldValueAndDelAllEachRemovalToSubscribers) {
  auto m = newMapper();
  RouteLog log(m.get(), MvpnMapper::routeKeyToTunnelIdAttr);
  m->routeKeyToTunnelIdIs(routeKey(1), TunnelId(7));
  m->routeKeyToTunnelIdIs(routeKey(1), TunnelId(7));  // the value already stored: nothing
  m->routeKeyToTunnelIdIs(routeKey(1), TunnelId(8));
  EXPECT_EQ(m->routeKeyToTunnelIdDel(routeKey(2)), TunnelId());  // absent: nothing
  EXPECT_EQ(m->routeKeyToTunnelIdGet(routeKey(1)), TunnelId(8));
  EXPECT_EQ(m->routeKeyToTunnelIdDel(routeKey(1)), TunnelId(8));
  EXPECT_EQ(log.changes, (std::vector<RouteLog::Change>{{routeKey(1), std::nullopt, TunnelId(7)},
                                                        {routeKey(1), TunnelId(7), TunnelId(8)},
                                                        {routeKey(1), TunnelId(8), std::nullopt}}));
  EXPECT_EQ(m->routeKeyToTunnelIdGet(routeKey(1)), std::nullopt);

  // DelAll announces each removal in map order, only to subscribers.
  auto d = newMapper();
  for (int i = 0; i < 20; ++i) d->routeKeyToTunnelIdIs(routeKey(i), TunnelId(1));
  d->routeKeyToTunnelIdDelAll();  // no subscriber: emptied at once
  EXPECT_EQ(d->routeKeyToTunnelIdSize(), 0u);

  for (int i = 0; i < 20; ++i) d->routeKeyToTunnelIdIs(routeKey(i), TunnelId(1));
  std::vector<MvpnVrfRouteKey> order;
  for (const auto& e : d->routeKeyToTunnelIdMap()) order.push_back(e.first);
  // A subscriber that removes another key while a removal is published: each key is still
  // announced exactly once, and each removal is already done when it is announced.
  RouteLog removals(d.get(), MvpnMapper::routeKeyToTunnelIdAttr);
  removals.onChange = [&](const MvpnVrfRouteKey& k) {
    EXPECT_FALSE(d->routeKeyToTunnelIdHas(k));
    if (k == order[0]) d->routeKeyToTunnelIdDel(order[5]);
  };
  d->routeKeyToTunnelIdDelAll();
  EXPECT_EQ(d->routeKeyToTunnelIdSize(), 0u);
  std::vector<MvpnVrfRouteKey> want = {order[0], order[5]};  // [5] inside [0]'s announcement
  for (size_t i = 1; i < order.size(); ++i) {
    if (i != 5) want.push_back(order[i]);
  }
  std::vector<MvpnVrfRouteKey> announced;
  for (const auto& c : removals.changes) announced.push_back(std::get<0>(c));
  EXPECT_EQ(announced, want);

  // A subscriber letting go of the last reference inside the first announcement of a DelAll:
  // the mapper goes when the DelAll returns, every removal announced.
  removals.onChange = nullptr;
  for (int i = 0; i < 3; ++i) d->routeKeyToTunnelIdIs(routeKey(i), TunnelId(1));
  size_t told = 0;
  removals.onChange = [&](const MvpnVrfRouteKey&) {
    if (++told == 1) d = nullptr;
  };
  MvpnMapper* raw = d.get();
  raw->routeKeyToTunnelIdDelAll();
  EXPECT_EQ(told, 3u);
  EXPECT_FALSE(d);
}

TEST(Mapper, CollectionsAndTheirKeysEachMapsAttributeAndReady) {
  auto m = newMapper();
  ChangeLog<TunnelId, const MvpnVrfRouteKeyColl*> log(m.get(), MvpnMapper::tunnelIdToRouteKeysAttr);
  const auto coll = m->tunnelIdToRouteKeysIs(TunnelId(7));
  EXPECT_EQ(m->tunnelIdToRouteKeysIs(TunnelId(7)), coll);  // the same one, not announced again
  EXPECT_EQ(m->tunnelIdToRouteKeysDel(TunnelId(8)), nullptr);
  EXPECT_EQ(m->tunnelIdToRouteKeysDel(TunnelId(7)), coll);
  EXPECT_EQ(m->tunnelIdToRouteKeys(TunnelId(7)), nullptr);
  using C = decltype(log)::Change;
  EXPECT_EQ(log.changes, (std::vector<C>{{TunnelId(7), std::nullopt, coll.get()},
                                         {TunnelId(7), coll.get(), std::nullopt}}));
  EXPECT_EQ(coll->refs(), 1u);  // the mapper let go of it
  m->tunnelIdToRouteKeysIs(TunnelId(1));
  m->tunnelIdToRouteKeysIs(TunnelId(2));
  log.changes.clear();
  m->tunnelIdToRouteKeysDelAll();
  EXPECT_EQ(log.changes.size(), 2u);
  EXPECT_EQ(m->tunnelIdToRouteKeysSize(), 0u);

  // Every map is wired to its own attribute id and storage: an insertion and a DelAll publish
  // exactly two changes of that attribute. Defaults of the value maps' getters.
  const MvpnVrfRouteIntfKey intfKey(VrfId(1), MvpnRouteIntfKey(routeKey(1).key(), IntfId::vlan(3)));
  std::vector<Oro::AttrId> published;
  struct Log : Oro::Notifiee {
    std::vector<Oro::AttrId>* out;
    void onAttributeKey(Oro::AttrId a, const void*) override { out->push_back(a); }
  } attrs;
  attrs.out = &published;
  attrs.notifierIs(m.get());
  const std::vector<std::tuple<Oro::AttrId, std::function<void()>, std::function<void()>>> rows = {
      {MvpnMapper::treeIdToVrfIdAttr, [&] { m->treeIdToVrfIdIs(treeId(1), VrfId(4)); },
       [&] { m->treeIdToVrfIdDelAll(); }},
      {MvpnMapper::tunnelIdToTreeIdCollAttr, [&] { m->tunnelIdToTreeIdCollIs(TunnelId(1)); },
       [&] { m->tunnelIdToTreeIdCollDelAll(); }},
      {MvpnMapper::routeKeyToTunnelIdAttr,
       [&] { m->routeKeyToTunnelIdIs(routeKey(1), TunnelId(4)); },
       [&] { m->routeKeyToTunnelIdDelAll(); }},
      {MvpnMapper::routeIntfKeyToTunnelIdAttr,
       [&] { m->routeIntfKeyToTunnelIdIs(intfKey, TunnelId(4)); },
       [&] { m->routeIntfKeyToTunnelIdDelAll(); }},
      {MvpnMapper::tunnelIdToRouteKeysAttr, [&] { m->tunnelIdToRouteKeysIs(TunnelId(1)); },
       [&] { m->tunnelIdToRouteKeysDelAll(); }},
      {MvpnMapper::tunnelIdToRouteIntfKeysAttr, [&] { m->tunnelIdToRouteIntfKeysIs(TunnelId(1)); },
       [&] { m->tunnelIdToRouteIntfKeysDelAll(); }},
  };
  for (const auto& [attr, is, delAll] : rows) {
    published.clear();
    is();
    delAll();
    EXPECT_EQ(published, (std::vector<Oro::AttrId>{attr, attr})) << attr;
  }
  EXPECT_EQ(m->treeIdToVrfId(treeId(1)), VrfId(16777215));
  EXPECT_EQ(m->routeIntfKeyToTunnelId(intfKey), TunnelId(0));

  // Key collections are left alone by forward deletes and announce real changes.
  m->routeKeyToTunnelIdIs(routeKey(1), TunnelId(5));
  const auto routes = m->tunnelIdToRouteKeysIs(TunnelId(5));
  routes->keyCollIs(routeKey(1));
  m->routeKeyToTunnelIdDel(routeKey(1));
  EXPECT_TRUE(routes->keyCollHas(routeKey(1)));  // the caller's to remove
  routes->keyCollDel(routeKey(1));
  EXPECT_TRUE(m->tunnelIdToRouteKeysHas(TunnelId(5)));  // empty, but still there

  auto trees = tunnelIdToTreeIdCollFactory(TunnelId(3));
  KeyLog<MulticastTreeId> announced(trees.get(), TunnelIdToTreeIdColl::keyCollAttr);
  trees->keyCollIs(treeId(1));
  trees->keyCollIs(treeId(1));  // present: left alone, not announced
  trees->keyCollIs(treeId(2));
  trees->keyCollDel(treeId(9));  // absent: not announced
  trees->keyCollDel(treeId(1));
  trees->keyCollDelAll();
  EXPECT_EQ(announced.keys, (std::vector{treeId(1), treeId(2), treeId(1), treeId(2)}));

  // Ready is published on change, with the old flag.
  EXPECT_FALSE(m->ready());
  ChangeLog<bool, bool> oldNew(m.get(), MvpnMapper::readyAttr);
  std::vector<Oro::AttrId> plain;
  Oro::AttrReactor readyWatch([&](Oro::AttrId a) { plain.push_back(a); });
  readyWatch.notifierIs(m.get());
  m->readyIs(false);  // unchanged
  m->readyIs(true);
  m->readyIs(true);
  m->readyIs(false);
  using ReadyChange = ChangeLog<bool, bool>::Change;
  EXPECT_EQ(oldNew.changes, (std::vector<ReadyChange>{{true, false, true}, {false, true, false}}));
  EXPECT_EQ(plain, (std::vector<Oro::AttrId>{MvpnMapper::readyAttr, MvpnMapper::readyAttr}));
}

TEST(MapperPlatformTypes, VrfNamesArePublishedWithOldValuesAndVlanRangesCheckedOnEveryWayIn) {
  auto s = Vrf::VrfIdMap::vrfIdMapStatusFactory();
  ChangeLog<VrfId, std::string> log(s.get(), Vrf::VrfIdMap::Status::vrfNameAttr);
  s->vrfNameIs(VrfId(5), "red");
  s->vrfNameIs(VrfId(5), "red");  // unchanged: nothing published
  s->vrfNameIs(VrfId(5), "blue");
  s->vrfNameIs(VrfId(2), "green");
  EXPECT_EQ(s->vrfNameDel(VrfId(9)), "");  // absent: nothing published
  EXPECT_EQ(s->vrfNameDel(VrfId(2)), "green");
  s->vrfNameIs(VrfId(1), "a");
  s->vrfNameDelAll();  // someone listens: each removal, in VRF id order
  using C = decltype(log)::Change;
  EXPECT_EQ(log.changes, (std::vector<C>{{VrfId(5), std::nullopt, "red"},
                                         {VrfId(5), "red", "blue"},
                                         {VrfId(2), std::nullopt, "green"},
                                         {VrfId(2), "green", std::nullopt},
                                         {VrfId(1), std::nullopt, "a"},
                                         {VrfId(1), "a", std::nullopt},
                                         {VrfId(5), "blue", std::nullopt}}));
  EXPECT_EQ(s->vrfNameGet(VrfId(5)), std::nullopt);

  // The VLAN range is checked on every way in.
  for (const uint32_t v : {0u, 1u, 4094u, 4095u, 65541u}) {
    SCOPED_TRACE(v);
    VlanIdOrNone kept(100);
    const std::vector<std::function<uint16_t()>> waysIn = {
        [&] { return VlanIdOrNone(v).value(); },
        [&] { return (kept.valueIs(v), kept.value()); },
        [&] { return Oro::strepToValue<VlanIdOrNone>(std::to_string(v)).value(); },
        [&] { return Nevo::vlanIntfVlanId(Nevo::IntfId::vlan(v)).value(); },
    };
    for (const auto& wayIn : waysIn) {
      if (v <= 4094) {
        EXPECT_EQ(wayIn(), v);
      } else {
        EXPECT_THAT(wayIn, ::testing::ThrowsMessage<Oro::RangeException>(::testing::StrEq(
                               "Bridging::VlanIdOrNone::value > 4094 not allowed")));
      }
    }
    EXPECT_EQ(kept.value(), v <= 4094 ? v : 100);  // a refused value changes nothing
  }
  EXPECT_TRUE(Nevo::vlanIntfVlanId(Nevo::IntfId()).isNone());
}

// --- tunnelIdToPmsiVlan ---

class PmsiVlanTest : public ::testing::Test {
 protected:
  // Tunnel t carries tree "tree-t"; trees map to VRFs; VRFs have PMSI interfaces.
  void carry(uint64_t tunnel, const MulticastTreeId& tree, std::optional<VrfId> vrf) {
    mapper_->tunnelIdToTreeIdCollIs(TunnelId(tunnel))->keyCollIs(tree);
    if (vrf) mapper_->treeIdToVrfIdIs(tree, *vrf);
  }
  Oro::Ptr<MvpnIntfStatus> intf_ = mvpnIntfStatusFactory("pmsi");
  Oro::Ptr<MvpnMapper> mapper_ = newMapper(intf_);
};

TEST_F(PmsiVlanTest, EveryMissingLinkGivesNoneOnlyTheFirstTreeIdCountsAndBadTablesRaiseOrGiveNone) {
  intf_->vrfIntfIdIs(MvpnVrfIntfId(VrfId(5), IntfId::vlan(105)));
  intf_->vrfIntfIdIs(MvpnVrfIntfId(VrfId(7), IntfId()));
  // Even a record under the invalid VRF id is not used for it.
  intf_->vrfIntfIdIs(MvpnVrfIntfId(VrfId(), IntfId::vlan(999)));
  carry(1, treeId(1), VrfId(5));
  mapper_->tunnelIdToTreeIdCollIs(TunnelId(3));  // an empty collection
  carry(4, treeId(4), std::nullopt);             // a tree without a VRF
  carry(5, treeId(5), VrfId());                  // the invalid VRF id
  carry(6, treeId(6), VrfId(6));                 // a VRF without an interface record
  carry(7, treeId(7), VrfId(7));                 // an empty PMSI interface
  struct Case {
    const char* what;
    uint64_t tunnel;
    uint16_t vlan;
  };
  const std::vector<Case> cases = {
      {"complete", 1, 105},           {"unknown tunnel", 2, 0}, {"empty collection", 3, 0},
      {"tree without VRF", 4, 0},     {"invalid VRF id", 5, 0}, {"VRF without record", 6, 0},
      {"empty PMSI interface", 7, 0},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(mapper_->tunnelIdToPmsiVlan(TunnelId(c.tunnel)).value(), c.vlan) << c.what;
  }
  auto blind = mvpnMapperFactory(nullptr, nullptr);
  blind->tunnelIdToTreeIdCollIs(TunnelId(1))->keyCollIs(treeId(1));
  blind->treeIdToVrfIdIs(treeId(1), VrfId(5));
  EXPECT_TRUE(blind->tunnelIdToPmsiVlan(TunnelId(1)).isNone()) << "no interface status table";

  // Only the first tree id is consulted.
  intf_->vrfIntfIdIs(MvpnVrfIntfId(VrfId(5), IntfId::vlan(105)));
  intf_->vrfIntfIdIs(MvpnVrfIntfId(VrfId(9), IntfId::vlan(109)));
  for (int i = 0; i < 8; ++i) carry(8, treeId(i), VrfId(i % 2 ? 9 : 5));
  const MulticastTreeId first = *mapper_->tunnelIdToTreeIdColl(TunnelId(8))->keyCollFirst();
  const uint16_t want = mapper_->treeIdToVrfId(first) == VrfId(9) ? 109 : 105;
  EXPECT_EQ(mapper_->tunnelIdToPmsiVlan(TunnelId(8)).value(), want);
  // Taking the first tree's VRF away empties the answer although other trees have one.
  mapper_->treeIdToVrfIdDel(first);
  EXPECT_EQ(mapper_->tunnelIdToPmsiVlan(TunnelId(8)), 0);  // reads as the number

  // An interface beyond the VLAN range raises.
  intf_->vrfIntfIdIs(MvpnVrfIntfId(VrfId(5), IntfId::vlan(5000)));
  carry(1, treeId(1), VrfId(5));
  EXPECT_THAT([&] { mapper_->tunnelIdToPmsiVlan(TunnelId(1)); },
              ::testing::ThrowsMessage<Oro::RangeException>(
                  ::testing::StrEq("Bridging::VlanIdOrNone::value > 4094 not allowed")));
  intf_->vrfIntfIdIs(MvpnVrfIntfId(VrfId(5), IntfId::vlan(4094)));
  EXPECT_EQ(mapper_->tunnelIdToPmsiVlan(TunnelId(1)).value(), 4094);

  // A corrupt interface table is reported and gives none.
  const std::string path = "h1test/mapper/intfStatus";
  intf_->mount(Oro::ShmAttach{path, Oro::ShmRole::writer});
  std::vector<std::string> reports;
  intf_->vrfIntfIdCorruptionHandlerIs([&](const std::string& m) { reports.push_back(m); });
  intf_->vrfIntfIdIs(MvpnVrfIntfId(VrfId(5), IntfId::vlan(105)));
  carry(1, treeId(1), VrfId(5));
  ASSERT_EQ(mapper_->tunnelIdToPmsiVlan(TunnelId(1)).value(), 105);
  ASSERT_TRUE(shmtest::damageTable(path, "vrfIntfId"));
  EXPECT_TRUE(mapper_->tunnelIdToPmsiVlan(TunnelId(1)).isNone());
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_THAT(reports[0], HasSubstr("corrupt"));
  // Lookups that stop before the table do not touch it.
  EXPECT_TRUE(mapper_->tunnelIdToPmsiVlan(TunnelId(2)).isNone());
  EXPECT_EQ(reports.size(), 1u);
}

// --- MvpnMapperKeeper and auditMvpnMapper ---

using Family = MvpnMapperAuditFamily;
using Kind = MvpnMapperAuditKind;
using Issues = std::vector<MvpnMapperAuditIssue>;

// What the mapper's forward maps should say, kept the simplest way.
struct Model {
  std::map<MvpnVrfRouteKey, TunnelId> routes;
  std::map<MvpnVrfRouteIntfKey, TunnelId> routeIntfs;
  std::map<std::string, std::pair<TunnelId, VrfId>> trees;  // tunnel and VRF of each tree id

  void expectMatchedBy(const MvpnMapper& m) const {
    const auto& r = m.routeKeyToTunnelIdMap();
    EXPECT_EQ(routes, (std::map<MvpnVrfRouteKey, TunnelId>(r.begin(), r.end())));
    const auto& ri = m.routeIntfKeyToTunnelIdMap();
    EXPECT_EQ(routeIntfs, (std::map<MvpnVrfRouteIntfKey, TunnelId>(ri.begin(), ri.end())));
    EXPECT_EQ(trees.size(), m.treeIdToVrfIdSize());
    for (const auto& [tree, tv] : trees) {
      EXPECT_EQ(m.treeIdToVrfIdGet(MulticastTreeId(tree)), tv.second);
      const auto coll = m.tunnelIdToTreeIdColl(tv.first);
      EXPECT_TRUE(coll && coll->keyCollHas(MulticastTreeId(tree))) << tree;
    }
  }
};

std::string issuesText(const MvpnMapperAuditReport& r) {
  std::string out;
  for (const auto& i : r.issues) out += i.toStrep() + "\n";
  return out;
}

// Seeded random agent events, applied through the keeper and the model alike; small key spaces
// make routes and trees move between tunnels and tunnels empty out often.
void randomEvents(uint32_t seed, int events, MvpnMapperKeeper& keeper, Model& model,
                  const std::function<void()>& afterEach = {}) {
  std::mt19937 rng(seed);
  auto pick = [&](uint32_t n) { return static_cast<int>(rng() % n); };
  for (int n = 0; n < events; ++n) {
    const int what = pick(100);
    const int k = pick(12);
    const TunnelId t(1 + static_cast<uint64_t>(pick(5)));
    if (what < 30) {
      keeper.routeIs(routeKey(k), t);
      model.routes[routeKey(k)] = t;
    } else if (what < 45) {
      keeper.routeDel(routeKey(k));
      model.routes.erase(routeKey(k));
    } else if (what < 60) {
      keeper.routeIntfIs(routeIntfKey(k), t);
      model.routeIntfs[routeIntfKey(k)] = t;
    } else if (what < 70) {
      keeper.routeIntfDel(routeIntfKey(k));
      model.routeIntfs.erase(routeIntfKey(k));
    } else if (what < 85) {
      const VrfId vrf(1 + static_cast<uint32_t>(pick(3)));
      keeper.treeIdIs(t, treeId(k % 8), vrf);
      model.trees[treeId(k % 8).value()] = {t, vrf};
    } else if (what < 93) {
      keeper.treeIdDel(treeId(k % 8));
      model.trees.erase(treeId(k % 8).value());
    } else {
      keeper.tunnelDel(t);
      std::erase_if(model.routes, [&](const auto& e) { return e.second == t; });
      std::erase_if(model.routeIntfs, [&](const auto& e) { return e.second == t; });
      std::erase_if(model.trees, [&](const auto& e) { return e.second.first == t; });
    }
    if (afterEach) afterEach();
  }
}

constexpr uint32_t kSeeds[] = {1, 7, 42, 2024, 65537};

TEST(KeeperAudit, RandomEventSequencesKeepTheAuditClean) {
  for (const uint32_t seed : kSeeds) {
    SCOPED_TRACE(seed);
    auto mapper = newMapper();
    MvpnMapperKeeper keeper(mapper);
    Model model;
    randomEvents(seed, 600, keeper, model, [&] {
      const auto report = auditMvpnMapper(*mapper);
      ASSERT_TRUE(report.clean()) << issuesText(report);
    });
    model.expectMatchedBy(*mapper);
    // A second keeper over the same mapper picks up the tree ids' tunnels and carries on.
    MvpnMapperKeeper successor(mapper);
    randomEvents(seed + 1, 200, successor, model);
    model.expectMatchedBy(*mapper);
    EXPECT_TRUE(auditMvpnMapper(*mapper).clean()) << issuesText(auditMvpnMapper(*mapper));
  }
}

const TunnelId kStranger(77);  // a tunnel the random events never use

// A mistake made by hand on a mapper the keeper has kept so far, and the issues it must raise
// (in report order).
struct Mistake {
  const char* what;
  std::function<Issues(MvpnMapper&, const Model&)> apply;
};

const std::vector<Mistake> kMistakes = {
    {"forgotten reverse delete of a route",
     [](MvpnMapper& m, const Model& model) {
       const auto& [k, t] = *model.routes.begin();
       m.routeKeyToTunnelIdDel(k);
       return Issues{{Family::routeKey, Kind::collKeyWithoutForward, t, k.toStrep(), {}}};
     }},
    {"stale forward entry of a moved route",
     [](MvpnMapper& m, const Model& model) {
       const auto& [k, t] = *model.routes.begin();
       m.tunnelIdToRouteKeysIs(kStranger)->keyCollIs(k);
       const auto old = m.tunnelIdToRouteKeys(t);
       old->keyCollDel(k);
       if (old->keyCollEmpty()) m.tunnelIdToRouteKeysDel(t);
       return Issues{{Family::routeKey, Kind::forwardKeyNotInColl, t, k.toStrep(), {}},
                     {Family::routeKey, Kind::collKeyPointsElsewhere, kStranger, k.toStrep(), t}};
     }},
    {"empty route collection left behind",
     [](MvpnMapper& m, const Model& model) {
       const TunnelId t = model.routes.begin()->second;
       const auto coll = m.tunnelIdToRouteKeys(t);
       for (const auto& [k, kt] : model.routes) {
         if (kt == t && m.routeKeyToTunnelIdDel(k) == t) coll->keyCollDel(k);
       }
       return Issues{{Family::routeKey, Kind::emptyColl, t, {}, {}}};
     }},
    {"route-interface key pointed at another tunnel, collections unchanged",
     [](MvpnMapper& m, const Model& model) {
       const auto& [k, t] = *model.routeIntfs.begin();
       m.routeIntfKeyToTunnelIdIs(k, kStranger);
       return Issues{
           {Family::routeIntfKey, Kind::forwardKeyNotInColl, kStranger, k.toStrep(), {}},
           {Family::routeIntfKey, Kind::collKeyPointsElsewhere, t, k.toStrep(), kStranger}};
     }},
    {"forgotten reverse delete of a tree id",
     [](MvpnMapper& m, const Model& model) {
       const auto& [tree, tv] = *model.trees.begin();
       m.treeIdToVrfIdDel(MulticastTreeId(tree));
       return Issues{{Family::treeId, Kind::collKeyWithoutForward, tv.first, tree, {}}};
     }},
    {"tree id added to a second tunnel",
     [](MvpnMapper& m, const Model& model) {
       const auto& [tree, tv] = *model.trees.begin();
       m.tunnelIdToTreeIdCollIs(kStranger)->keyCollIs(MulticastTreeId(tree));
       return Issues{{Family::treeId, Kind::collKeyPointsElsewhere, kStranger, tree, tv.first}};
     }},
    {"empty tree id collection left behind",
     [](MvpnMapper& m, const Model&) {
       m.tunnelIdToTreeIdCollIs(kStranger);
       return Issues{{Family::treeId, Kind::emptyColl, kStranger, {}, {}}};
     }},
    {"tree id given a VRF but no tunnel",
     [](MvpnMapper& m, const Model&) {
       m.treeIdToVrfIdIs(MulticastTreeId("orphan"), VrfId(3));
       return Issues{{Family::treeId, Kind::forwardKeyNotInColl, TunnelId(), "orphan", {}}};
     }},
};

TEST(KeeperAudit, EachInjectedMistakeIsReported) {
  for (const uint32_t seed : kSeeds) {
    for (const Mistake& mistake : kMistakes) {
      SCOPED_TRACE(testing::Message() << "seed " << seed << ": " << mistake.what);
      auto mapper = newMapper();
      MvpnMapperKeeper keeper(mapper);
      Model model;
      randomEvents(seed, 300, keeper, model);
      ASSERT_FALSE(model.routes.empty() || model.routeIntfs.empty() || model.trees.empty());
      ASSERT_TRUE(auditMvpnMapper(*mapper).clean());
      const Issues expected = mistake.apply(*mapper, model);
      const auto report = auditMvpnMapper(*mapper);
      EXPECT_EQ(report.issues, expected) << issuesText(report);
    }
  }
}

TEST(KeeperAudit, ReportAsJsonAndTheAgentScenarios) {
  auto json = newMapper();
  MvpnMapperKeeper jsonKeeper(json);
  jsonKeeper.routeIs(routeKey(1), TunnelId(7));
  json->routeKeyToTunnelIdDel(routeKey(1));
  json->treeIdToVrfIdIs(MulticastTreeId("a \"quoted\" tree"), VrfId(5));
  EXPECT_EQ(
      mvpnMapperAuditJson(auditMvpnMapper(*json)),
      "{\"type\": \"Routing::Multicast::MvpnMapper\", \"routeKeys\": 0, \"routeIntfKeys\": 0, "
      "\"treeIds\": 1, \"collections\": 1, \"clean\": false, \"issues\": [\n"
      "  {\"family\": \"routeKey\", \"kind\": \"collKeyWithoutForward\", \"tunnelId\": \"7\", "
      "\"key\": \"VRF 2 (10.0.0.1, 239.0.0.1)\", \"otherTunnelId\": null, \"text\": \"routeKey "
      "VRF 2 (10.0.0.1, 239.0.0.1) in tunnel 7's collection has no tunnel\"},\n"
      "  {\"family\": \"treeId\", \"kind\": \"forwardKeyNotInColl\", \"tunnelId\": null, "
      "\"key\": \"a \\\"quoted\\\" tree\", \"otherTunnelId\": null, \"text\": \"treeId a "
      "\\\"quoted\\\" tree has a VRF but no tunnel's collection holds it\"}\n"
      "]}\n");
  json->tunnelIdToRouteKeysDelAll();
  json->treeIdToVrfIdDelAll();
  EXPECT_NE(mvpnMapperAuditJson(auditMvpnMapper(*json)).find("\"clean\": true, \"issues\": []}"),
            std::string::npos);

  // The example agent's flow: a tree moves to another tunnel (make-before-break) and the PMSI
  // answer follows it; a tunnel goes away with all it carried; the audit stays clean.
  auto intf = mvpnIntfStatusFactory("agent");
  intf->vrfIntfIdIs(MvpnVrfIntfId(VrfId(5), IntfId::vlan(105)));
  auto flow = newMapper(intf);
  MvpnMapperKeeper agent(flow);
  agent.treeIdIs(TunnelId(10), treeId(1), VrfId(5));
  agent.treeIdIs(TunnelId(20), treeId(2), VrfId(6));
  for (int i = 0; i < 4; ++i) agent.routeIs(routeKey(i), TunnelId(i % 2 ? 20 : 10));
  EXPECT_EQ(agent.pmsiVlan(TunnelId(10)).value(), 105);
  agent.treeIdIs(TunnelId(30), treeId(1), VrfId(5));
  EXPECT_TRUE(agent.pmsiVlan(TunnelId(10)).isNone());
  EXPECT_EQ(agent.pmsiVlan(TunnelId(30)).value(), 105);
  agent.tunnelDel(TunnelId(20));
  EXPECT_FALSE(flow->routeKeyToTunnelIdHas(routeKey(1)));
  EXPECT_FALSE(flow->treeIdToVrfIdHas(treeId(2)));
  const auto report = auditMvpnMapper(*flow);
  EXPECT_TRUE(report.clean()) << issuesText(report);
  EXPECT_EQ(report.routeKeys, 2u);    // routes 0 and 2, still on tunnel 10
  EXPECT_EQ(report.collections, 2u);  // routes of 10, trees of 30

  // An agent that maps a route to a tunnel from a mapper notification while that tunnel goes:
  // the route stays mapped, and in the tunnel's collection.
  auto mapper = newMapper();
  MvpnMapperKeeper keeper(mapper);
  const TunnelId t(30);
  keeper.routeIs(routeKey(1), t);
  Oro::KeyReactor<MvpnVrfRouteKey> onRoute(
      MvpnMapper::routeKeyToTunnelIdAttr, [&](const MvpnVrfRouteKey& k) {
        if (k == routeKey(1) && mapper->routeKeyToTunnelId(k) == TunnelId()) {
          keeper.routeIs(routeKey(2), t);
        }
      });
  onRoute.notifierIs(mapper.get());
  keeper.tunnelDel(t);
  EXPECT_TRUE(auditMvpnMapper(*mapper).clean()) << issuesText(auditMvpnMapper(*mapper));
  EXPECT_EQ(mapper->routeKeyToTunnelId(routeKey(2)), t);
  ASSERT_TRUE(mapper->tunnelIdToRouteKeys(t));
  EXPECT_TRUE(mapper->tunnelIdToRouteKeys(t)->keyCollHas(routeKey(2)));
}

}  // namespace
}  // namespace Routing::Multicast
