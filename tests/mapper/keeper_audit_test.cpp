// MvpnMapperKeeper and auditMvpnMapper: seeded random event sequences kept by the keeper leave
// the audit clean and the mapper equal to a plain model; mistakes a hand-written agent makes
// are each reported; the JSON form of a report; an agent's scenario end to end.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "mapper/MvpnMapperAudit.h"
#include "mapper/MvpnMapperKeeper.h"

namespace Routing::Multicast {
namespace {

using Family = MvpnMapperAuditFamily;
using Kind = MvpnMapperAuditKind;
using Nevo::IntfId;
using Nevo::IpGenAddr;
using Vrf::VrfIdMap::VrfId;

MvpnVrfRouteKey routeKey(int i) {
  return MvpnVrfRouteKey(VrfId(1 + i % 3), MvpnRouteKey(IpGenAddr::ipv4Addr(0x0a000000u + i),
                                                        IpGenAddr::ipv4Addr(0xef000001u), false));
}
MvpnVrfRouteIntfKey routeIntfKey(int i) {
  return MvpnVrfRouteIntfKey(
      VrfId(1 + i % 3),
      MvpnRouteIntfKey(IpGenAddr::zero(Nevo::ipv4), IpGenAddr::ipv4Addr(0xef000000u + i),
                       IntfId::vlan(10 + i % 4), true));
}
MulticastTreeId treeId(int i) {
  return MulticastTreeId("mldp:" + std::to_string(i));
}

Oro::Ptr<MvpnMapper> newMapper(Oro::Ptr<MvpnIntfStatus> intf = nullptr) {
  return mvpnMapperFactory(intf ? intf : mvpnIntfStatusFactory("keeper-test"),
                           Vrf::VrfIdMap::vrfIdMapStatusFactory());
}

// What the mapper's forward maps should say, kept the simplest way.
struct Model {
  std::map<MvpnVrfRouteKey, TunnelId> routes;
  std::map<MvpnVrfRouteIntfKey, TunnelId> routeIntfs;
  std::map<std::string, std::pair<TunnelId, VrfId>> trees;

  void tunnelDel(TunnelId t) {
    std::erase_if(routes, [&](const auto& e) { return e.second == t; });
    std::erase_if(routeIntfs, [&](const auto& e) { return e.second == t; });
    std::erase_if(trees, [&](const auto& e) { return e.second.first == t; });
  }
  // The tunnels the keys of each family use, with their keys.
  std::map<TunnelId, std::vector<MvpnVrfRouteKey>> routesByTunnel() const {
    std::map<TunnelId, std::vector<MvpnVrfRouteKey>> out;
    for (const auto& [k, t] : routes) out[t].push_back(k);
    return out;
  }
};

void expectMatches(const MvpnMapper& m, const Model& model) {
  ASSERT_EQ(m.routeKeyToTunnelIdSize(), model.routes.size());
  for (const auto& [k, t] : model.routes) EXPECT_EQ(m.routeKeyToTunnelIdGet(k), t);
  ASSERT_EQ(m.routeIntfKeyToTunnelIdSize(), model.routeIntfs.size());
  for (const auto& [k, t] : model.routeIntfs) EXPECT_EQ(m.routeIntfKeyToTunnelIdGet(k), t);
  ASSERT_EQ(m.treeIdToVrfIdSize(), model.trees.size());
  for (const auto& [tree, tv] : model.trees) {
    EXPECT_EQ(m.treeIdToVrfIdGet(MulticastTreeId(tree)), tv.second);
    const auto coll = m.tunnelIdToTreeIdColl(tv.first);
    ASSERT_TRUE(coll);
    EXPECT_TRUE(coll->keyCollHas(MulticastTreeId(tree)));
  }
}

std::string issuesText(const MvpnMapperAuditReport& r) {
  std::string out;
  for (const auto& i : r.issues) out += i.toStrep() + "\n";
  return out;
}

// Applies `ops` seeded random agent events through the keeper and the model alike; small key
// spaces make routes and trees move between tunnels and tunnels empty out often.
void randomEvents(uint32_t seed, int ops, MvpnMapperKeeper& keeper, Model& model,
                  const std::function<void()>& afterEach = {}) {
  std::mt19937 rng(seed);
  auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<uint32_t>(n)); };
  auto tunnel = [&] { return TunnelId(1 + static_cast<uint64_t>(pick(5))); };
  for (int op = 0; op < ops; ++op) {
    const int what = pick(100);
    if (what < 30) {
      const int k = pick(12);
      const TunnelId t = tunnel();
      keeper.routeIs(routeKey(k), t);
      model.routes[routeKey(k)] = t;
    } else if (what < 45) {
      const int k = pick(12);
      keeper.routeDel(routeKey(k));
      model.routes.erase(routeKey(k));
    } else if (what < 60) {
      const int k = pick(12);
      const TunnelId t = tunnel();
      keeper.routeIntfIs(routeIntfKey(k), t);
      model.routeIntfs[routeIntfKey(k)] = t;
    } else if (what < 70) {
      const int k = pick(12);
      keeper.routeIntfDel(routeIntfKey(k));
      model.routeIntfs.erase(routeIntfKey(k));
    } else if (what < 85) {
      const int k = pick(8);
      const TunnelId t = tunnel();
      const VrfId vrf(1 + static_cast<uint32_t>(pick(3)));
      keeper.treeIdIs(t, treeId(k), vrf);
      model.trees[treeId(k).value()] = {t, vrf};
    } else if (what < 93) {
      const int k = pick(8);
      keeper.treeIdDel(treeId(k));
      model.trees.erase(treeId(k).value());
    } else {
      const TunnelId t = tunnel();
      keeper.tunnelDel(t);
      model.tunnelDel(t);
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
    int checked = 0;
    randomEvents(seed, 600, keeper, model, [&] {
      const auto report = auditMvpnMapper(*mapper);
      ASSERT_TRUE(report.clean()) << "after event " << checked << ":\n" << issuesText(report);
      ++checked;
    });
    expectMatches(*mapper, model);
    // A second keeper over the same mapper picks up the tree ids' tunnels and carries on.
    MvpnMapperKeeper successor(mapper);
    randomEvents(seed + 1, 200, successor, model);
    expectMatches(*mapper, model);
    EXPECT_TRUE(auditMvpnMapper(*mapper).clean()) << issuesText(auditMvpnMapper(*mapper));
  }
}

// A mistake an agent makes by hand on a mapper the keeper has kept so far, and what the audit
// must say about it.
struct Mistake {
  const char* what;
  // Applies the mistake; returns the issues expected, in report order.
  std::function<std::vector<MvpnMapperAuditIssue>(MvpnMapper&, const Model&)> apply;
};

const TunnelId kStranger(77);  // a tunnel the random events never use

std::vector<Mistake> mistakes() {
  return {
      {"forgotten reverse delete of a route",
       [](MvpnMapper& m, const Model& model) -> std::vector<MvpnMapperAuditIssue> {
         const auto& [k, t] = *model.routes.begin();
         m.routeKeyToTunnelIdDel(k);
         return {{Family::routeKey, Kind::collKeyWithoutForward, t, k.toStrep(), {}}};
       }},
      {"stale forward entry of a moved route",
       [](MvpnMapper& m, const Model& model) -> std::vector<MvpnMapperAuditIssue> {
         const auto& [k, t] = *model.routes.begin();
         m.tunnelIdToRouteKeysIs(kStranger)->keyCollIs(k);
         const auto old = m.tunnelIdToRouteKeys(t);
         old->keyCollDel(k);
         if (old->keyCollEmpty()) m.tunnelIdToRouteKeysDel(t);
         return {{Family::routeKey, Kind::forwardKeyNotInColl, t, k.toStrep(), {}},
                 {Family::routeKey, Kind::collKeyPointsElsewhere, kStranger, k.toStrep(), t}};
       }},
      {"empty route collection left behind",
       [](MvpnMapper& m, const Model& model) -> std::vector<MvpnMapperAuditIssue> {
         const auto [t, keys] = *model.routesByTunnel().begin();
         const auto coll = m.tunnelIdToRouteKeys(t);
         for (const auto& k : keys) {
           m.routeKeyToTunnelIdDel(k);
           coll->keyCollDel(k);
         }
         return {{Family::routeKey, Kind::emptyColl, t, {}, {}}};
       }},
      {"route-interface key pointed at another tunnel without its collections",
       [](MvpnMapper& m, const Model& model) -> std::vector<MvpnMapperAuditIssue> {
         const auto& [k, t] = *model.routeIntfs.begin();
         m.routeIntfKeyToTunnelIdIs(k, kStranger);
         return {{Family::routeIntfKey, Kind::forwardKeyNotInColl, kStranger, k.toStrep(), {}},
                 {Family::routeIntfKey, Kind::collKeyPointsElsewhere, t, k.toStrep(), kStranger}};
       }},
      {"forgotten reverse delete of a tree id",
       [](MvpnMapper& m, const Model& model) -> std::vector<MvpnMapperAuditIssue> {
         const auto& [tree, tv] = *model.trees.begin();
         m.treeIdToVrfIdDel(MulticastTreeId(tree));
         return {{Family::treeId, Kind::collKeyWithoutForward, tv.first, tree, {}}};
       }},
      {"tree id added to a second tunnel",
       [](MvpnMapper& m, const Model& model) -> std::vector<MvpnMapperAuditIssue> {
         const auto& [tree, tv] = *model.trees.begin();
         m.tunnelIdToTreeIdCollIs(kStranger)->keyCollIs(MulticastTreeId(tree));
         return {{Family::treeId, Kind::collKeyPointsElsewhere, kStranger, tree, tv.first}};
       }},
      {"tree id given a VRF but no tunnel",
       [](MvpnMapper& m, const Model&) -> std::vector<MvpnMapperAuditIssue> {
         m.treeIdToVrfIdIs(MulticastTreeId("orphan"), VrfId(3));
         return {{Family::treeId, Kind::forwardKeyNotInColl, TunnelId(), "orphan", {}}};
       }},
      {"empty tree id collection left behind",
       [](MvpnMapper& m, const Model& model) -> std::vector<MvpnMapperAuditIssue> {
         const TunnelId t = model.trees.begin()->second.first;
         const auto coll = m.tunnelIdToTreeIdColl(t);
         for (const auto& [tree, tv] : model.trees) {
           if (tv.first != t) continue;
           m.treeIdToVrfIdDel(MulticastTreeId(tree));
           coll->keyCollDel(MulticastTreeId(tree));
         }
         return {{Family::treeId, Kind::emptyColl, t, {}, {}}};
       }},
  };
}

TEST(KeeperAudit, EachInjectedMistakeIsReported) {
  for (const uint32_t seed : kSeeds) {
    for (const Mistake& mistake : mistakes()) {
      SCOPED_TRACE(testing::Message() << "seed " << seed << ": " << mistake.what);
      auto mapper = newMapper();
      MvpnMapperKeeper keeper(mapper);
      Model model;
      randomEvents(seed, 300, keeper, model);
      ASSERT_FALSE(model.routes.empty() || model.routeIntfs.empty() || model.trees.empty());
      ASSERT_TRUE(auditMvpnMapper(*mapper).clean());
      const auto expected = mistake.apply(*mapper, model);
      const auto report = auditMvpnMapper(*mapper);
      EXPECT_EQ(report.issues, expected) << issuesText(report);
    }
  }
}

TEST(KeeperAudit, ReportAsJson) {
  auto mapper = newMapper();
  MvpnMapperKeeper keeper(mapper);
  keeper.routeIs(routeKey(1), TunnelId(7));
  keeper.treeIdIs(TunnelId(7), treeId(1), VrfId(5));
  EXPECT_EQ(mvpnMapperAuditJson(auditMvpnMapper(*mapper)),
            "{\"type\": \"Routing::Multicast::MvpnMapper\", \"routeKeys\": 1, "
            "\"routeIntfKeys\": 0, \"treeIds\": 1, \"collections\": 2, \"clean\": true, "
            "\"issues\": []}\n");

  mapper->routeKeyToTunnelIdDel(routeKey(1));
  mapper->treeIdToVrfIdIs(MulticastTreeId("a \"quoted\" tree"), VrfId(5));
  const auto report = auditMvpnMapper(*mapper);
  EXPECT_EQ(report.count(Kind::collKeyWithoutForward), 1u);
  EXPECT_EQ(report.count(Kind::forwardKeyNotInColl, Family::routeKey), 0u);
  EXPECT_EQ(
      mvpnMapperAuditJson(report),
      "{\"type\": \"Routing::Multicast::MvpnMapper\", \"routeKeys\": 0, \"routeIntfKeys\": 0, "
      "\"treeIds\": 2, \"collections\": 2, \"clean\": false, \"issues\": [\n"
      "  {\"family\": \"routeKey\", \"kind\": \"collKeyWithoutForward\", \"tunnelId\": \"7\", "
      "\"key\": \"VRF 2 (10.0.0.1, 239.0.0.1)\", \"otherTunnelId\": null, \"text\": \"routeKey "
      "VRF 2 (10.0.0.1, 239.0.0.1) in tunnel 7's collection has no tunnel\"},\n"
      "  {\"family\": \"treeId\", \"kind\": \"forwardKeyNotInColl\", \"tunnelId\": null, "
      "\"key\": \"a \\\"quoted\\\" tree\", \"otherTunnelId\": null, \"text\": \"treeId a "
      "\\\"quoted\\\" tree has a VRF but no tunnel's collection holds it\"}\n"
      "]}\n");
}

// The flow of the example agent: PMSI interfaces per VRF, trees and routes arriving on
// tunnels, a tree moving to another tunnel, a tunnel going away.
TEST(KeeperAudit, AgentScenario) {
  auto intf = mvpnIntfStatusFactory("agent");
  intf->vrfIntfIdIs(MvpnVrfIntfId(VrfId(5), IntfId::vlan(105)));
  intf->vrfIntfIdIs(MvpnVrfIntfId(VrfId(6), IntfId::vlan(106)));
  auto mapper = newMapper(intf);
  MvpnMapperKeeper keeper(mapper);
  keeper.treeIdIs(TunnelId(10), treeId(1), VrfId(5));
  keeper.treeIdIs(TunnelId(20), treeId(2), VrfId(6));
  for (int i = 0; i < 4; ++i) keeper.routeIs(routeKey(i), TunnelId(i % 2 ? 20 : 10));
  keeper.routeIntfIs(routeIntfKey(1), TunnelId(10));
  mapper->readyIs(true);
  EXPECT_EQ(keeper.pmsiVlan(TunnelId(10)).value(), 105);
  EXPECT_EQ(keeper.pmsiVlan(TunnelId(20)).value(), 106);

  keeper.treeIdIs(TunnelId(30), treeId(1), VrfId(5));  // make-before-break onto tunnel 30
  EXPECT_TRUE(keeper.pmsiVlan(TunnelId(10)).isNone());
  EXPECT_FALSE(mapper->tunnelIdToTreeIdCollHas(TunnelId(10)));
  EXPECT_EQ(keeper.pmsiVlan(TunnelId(30)).value(), 105);
  keeper.routeIs(routeKey(0), TunnelId(30));
  keeper.routeIs(routeKey(2), TunnelId(30));
  EXPECT_FALSE(mapper->tunnelIdToRouteKeysHas(TunnelId(10)));

  keeper.tunnelDel(TunnelId(20));
  EXPECT_FALSE(mapper->routeKeyToTunnelIdHas(routeKey(1)));
  EXPECT_FALSE(mapper->treeIdToVrfIdHas(treeId(2)));
  EXPECT_TRUE(keeper.pmsiVlan(TunnelId(20)).isNone());
  const auto report = auditMvpnMapper(*mapper);
  EXPECT_TRUE(report.clean()) << issuesText(report);
  EXPECT_EQ(report.routeKeys, 2u);      // routes 0 and 2 on tunnel 30
  EXPECT_EQ(report.routeIntfKeys, 1u);  // still on tunnel 10
  EXPECT_EQ(report.collections, 3u);    // routes of 30, route-interface keys of 10, trees of 30
}

}  // namespace
}  // namespace Routing::Multicast
