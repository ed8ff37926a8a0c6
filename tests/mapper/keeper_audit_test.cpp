// MvpnMapperKeeper and auditMvpnMapper: seeded random event sequences kept by the keeper leave
// the audit clean and the mapper equal to a plain model; mistakes a hand-written agent makes
// are each reported; the JSON form of a report; the example agent's flow.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "mapper/MvpnMapperAudit.h"
#include "mapper/MvpnMapperKeeper.h"

namespace Routing::Multicast {
namespace {

using Family = MvpnMapperAuditFamily;
using Kind = MvpnMapperAuditKind;
using Issues = std::vector<MvpnMapperAuditIssue>;
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

Oro::Ptr<MvpnMapper> newMapper(Oro::Ptr<MvpnIntfStatus> intf = mvpnIntfStatusFactory("keeper")) {
  return mvpnMapperFactory(intf, Vrf::VrfIdMap::vrfIdMapStatusFactory());
}

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

TEST(KeeperAudit, ReportAsJson) {
  auto mapper = newMapper();
  MvpnMapperKeeper keeper(mapper);
  keeper.routeIs(routeKey(1), TunnelId(7));
  mapper->routeKeyToTunnelIdDel(routeKey(1));
  mapper->treeIdToVrfIdIs(MulticastTreeId("a \"quoted\" tree"), VrfId(5));
  EXPECT_EQ(
      mvpnMapperAuditJson(auditMvpnMapper(*mapper)),
      "{\"type\": \"Routing::Multicast::MvpnMapper\", \"routeKeys\": 0, \"routeIntfKeys\": 0, "
      "\"treeIds\": 1, \"collections\": 1, \"clean\": false, \"issues\": [\n"
      "  {\"family\": \"routeKey\", \"kind\": \"collKeyWithoutForward\", \"tunnelId\": \"7\", "
      "\"key\": \"VRF 2 (10.0.0.1, 239.0.0.1)\", \"otherTunnelId\": null, \"text\": \"routeKey "
      "VRF 2 (10.0.0.1, 239.0.0.1) in tunnel 7's collection has no tunnel\"},\n"
      "  {\"family\": \"treeId\", \"kind\": \"forwardKeyNotInColl\", \"tunnelId\": null, "
      "\"key\": \"a \\\"quoted\\\" tree\", \"otherTunnelId\": null, \"text\": \"treeId a "
      "\\\"quoted\\\" tree has a VRF but no tunnel's collection holds it\"}\n"
      "]}\n");
  mapper->tunnelIdToRouteKeysDelAll();
  mapper->treeIdToVrfIdDelAll();
  EXPECT_NE(mvpnMapperAuditJson(auditMvpnMapper(*mapper)).find("\"clean\": true, \"issues\": []}"),
            std::string::npos);
}

// The example agent's flow: a tree moves to another tunnel (make-before-break) and the PMSI
// answer follows it; a tunnel goes away with all it carried; the audit stays clean.
TEST(KeeperAudit, AgentScenario) {
  auto intf = mvpnIntfStatusFactory("agent");
  intf->vrfIntfIdIs(MvpnVrfIntfId(VrfId(5), IntfId::vlan(105)));
  auto mapper = newMapper(intf);
  MvpnMapperKeeper keeper(mapper);
  keeper.treeIdIs(TunnelId(10), treeId(1), VrfId(5));
  keeper.treeIdIs(TunnelId(20), treeId(2), VrfId(6));
  for (int i = 0; i < 4; ++i) keeper.routeIs(routeKey(i), TunnelId(i % 2 ? 20 : 10));
  EXPECT_EQ(keeper.pmsiVlan(TunnelId(10)).value(), 105);
  keeper.treeIdIs(TunnelId(30), treeId(1), VrfId(5));
  EXPECT_TRUE(keeper.pmsiVlan(TunnelId(10)).isNone());
  EXPECT_EQ(keeper.pmsiVlan(TunnelId(30)).value(), 105);
  keeper.tunnelDel(TunnelId(20));
  EXPECT_FALSE(mapper->routeKeyToTunnelIdHas(routeKey(1)));
  EXPECT_FALSE(mapper->treeIdToVrfIdHas(treeId(2)));
  const auto report = auditMvpnMapper(*mapper);
  EXPECT_TRUE(report.clean()) << issuesText(report);
  EXPECT_EQ(report.routeKeys, 2u);    // routes 0 and 2, still on tunnel 10
  EXPECT_EQ(report.collections, 2u);  // routes of 10, trees of 30
}

}  // namespace
}  // namespace Routing::Multicast
