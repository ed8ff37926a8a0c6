// MvpnMapper: the map families (publication with old values, lookups, DelAll with and without
// subscribers), the key collections, ready, and the PMSI VLAN lookup with every way it comes
// back empty, its range error and a corrupt interface table.
#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "common/shm_damage.h"
#include "mapper/MvpnMapper.h"
#include "platform/Error.h"
#include "platform/shm/ShmTable.h"

namespace Routing::Multicast {
namespace {

using Nevo::IntfId;
using Nevo::IpGenAddr;
using Vrf::VrfIdMap::VrfId;

MvpnVrfRouteKey routeKey(int i) {
  return MvpnVrfRouteKey(VrfId(i % 3), MvpnRouteKey(IpGenAddr::ipv4Addr(0x0a000000u + i),
                                                    IpGenAddr::ipv4Addr(0xef000001u), false));
}
MvpnVrfRouteIntfKey routeIntfKey(int i) {
  return MvpnVrfRouteIntfKey(
      VrfId(i % 3), MvpnRouteIntfKey(IpGenAddr::ipv4Addr(0x0a000000u + i),
                                     IpGenAddr::ipv4Addr(0xef000001u), IntfId::vlan(i), true));
}
MulticastTreeId treeId(int i) {
  return MulticastTreeId("tree-" + std::to_string(i));
}

Oro::Ptr<MvpnMapper> emptyMapper() {
  return mvpnMapperFactory(mvpnIntfStatusFactory("mapper-test"),
                           Vrf::VrfIdMap::vrfIdMapStatusFactory());
}

// Records the old-value publications of one attribute; values are copied, or kept as
// pointers when they are entities.
template <class K, class V>
struct ChangeLog : Oro::Notifiee {
  using Change = std::tuple<K, std::optional<V>, std::optional<V>>;
  explicit ChangeLog(Oro::AttrId a) : attr(a) {}
  Oro::AttrId attr;
  std::vector<Change> changes;
  std::function<void(const K&)> onChange;
  void onAttributeOldNew(Oro::AttrId a, const void* key, const void* o, const void* n) override {
    if (a != attr) return;
    auto value = [](const void* p) -> std::optional<V> {
      if (p == nullptr) return std::nullopt;
      if constexpr (std::is_pointer_v<V>) {
        return static_cast<V>(p);
      } else {
        return *static_cast<const V*>(p);
      }
    };
    const K& k = *static_cast<const K*>(key);
    changes.emplace_back(k, value(o), value(n));
    if (onChange) onChange(k);
  }
};

// --- value maps: treeIdToVrfId, routeKeyToTunnelId, routeIntfKeyToTunnelId ---

template <class K, class V>
struct ValueMap {
  using Key = K;
  using Value = V;
  Oro::AttrId attr;
  void (MvpnMapper::*is)(const K&, V);
  V (MvpnMapper::*del)(const K&);
  void (MvpnMapper::*delAll)();
  V (MvpnMapper::*get)(const K&) const;
  std::optional<V> (MvpnMapper::*getOpt)(const K&) const;
  bool (MvpnMapper::*has)(const K&) const;
  size_t (MvpnMapper::*size)() const;
  K (*key)(int);
  V (*value)(int);
  V defaultValue;
};

struct TreeIdToVrfId {
  static ValueMap<MulticastTreeId, VrfId> map() {
    return {MvpnMapper::treeIdToVrfIdAttr,
            &MvpnMapper::treeIdToVrfIdIs,
            &MvpnMapper::treeIdToVrfIdDel,
            &MvpnMapper::treeIdToVrfIdDelAll,
            &MvpnMapper::treeIdToVrfId,
            &MvpnMapper::treeIdToVrfIdGet,
            &MvpnMapper::treeIdToVrfIdHas,
            &MvpnMapper::treeIdToVrfIdSize,
            &treeId,
            [](int i) { return VrfId(i); },
            VrfId(16777215)};
  }
};
struct RouteKeyToTunnelId {
  static ValueMap<MvpnVrfRouteKey, TunnelId> map() {
    return {MvpnMapper::routeKeyToTunnelIdAttr,
            &MvpnMapper::routeKeyToTunnelIdIs,
            &MvpnMapper::routeKeyToTunnelIdDel,
            &MvpnMapper::routeKeyToTunnelIdDelAll,
            &MvpnMapper::routeKeyToTunnelId,
            &MvpnMapper::routeKeyToTunnelIdGet,
            &MvpnMapper::routeKeyToTunnelIdHas,
            &MvpnMapper::routeKeyToTunnelIdSize,
            &routeKey,
            [](int i) { return TunnelId(100 + i); },
            TunnelId(0)};
  }
};
struct RouteIntfKeyToTunnelId {
  static ValueMap<MvpnVrfRouteIntfKey, TunnelId> map() {
    return {MvpnMapper::routeIntfKeyToTunnelIdAttr,
            &MvpnMapper::routeIntfKeyToTunnelIdIs,
            &MvpnMapper::routeIntfKeyToTunnelIdDel,
            &MvpnMapper::routeIntfKeyToTunnelIdDelAll,
            &MvpnMapper::routeIntfKeyToTunnelId,
            &MvpnMapper::routeIntfKeyToTunnelIdGet,
            &MvpnMapper::routeIntfKeyToTunnelIdHas,
            &MvpnMapper::routeIntfKeyToTunnelIdSize,
            &routeIntfKey,
            [](int i) { return TunnelId(100 + i); },
            TunnelId(0)};
  }
};

template <class Traits>
class ValueMapTest : public ::testing::Test {
 protected:
  using M = decltype(Traits::map());
  using K = typename M::Key;
  using V = typename M::Value;
  const M map_ = Traits::map();
  Oro::Ptr<MvpnMapper> mapper_ = emptyMapper();
  ChangeLog<K, V> log_{map_.attr};

  void is(int k, int v) { ((*mapper_).*map_.is)(map_.key(k), map_.value(v)); }
  std::optional<V> v(int i) const { return map_.value(i); }
};
using ValueMaps = ::testing::Types<TreeIdToVrfId, RouteKeyToTunnelId, RouteIntfKeyToTunnelId>;
TYPED_TEST_SUITE(ValueMapTest, ValueMaps);

TYPED_TEST(ValueMapTest, IsPublishesChangesOnlyWithTheOldValue) {
  auto& m = this->map_;
  MvpnMapper& mapper = *this->mapper_;
  this->log_.notifierIs(&mapper);
  this->is(1, 1);
  this->is(1, 1);  // the value already stored: nothing
  this->is(1, 2);
  this->is(2, 1);
  using C = typename decltype(this->log_)::Change;
  EXPECT_EQ(this->log_.changes, (std::vector<C>{{m.key(1), std::nullopt, this->v(1)},
                                                {m.key(1), this->v(1), this->v(2)},
                                                {m.key(2), std::nullopt, this->v(1)}}));
  EXPECT_EQ((mapper.*m.get)(m.key(1)), m.value(2));
  EXPECT_EQ((mapper.*m.getOpt)(m.key(1)), this->v(2));
  EXPECT_TRUE((mapper.*m.has)(m.key(2)));
  EXPECT_EQ((mapper.*m.get)(m.key(3)), m.defaultValue);
  EXPECT_EQ((mapper.*m.getOpt)(m.key(3)), std::nullopt);
  EXPECT_FALSE((mapper.*m.has)(m.key(3)));
  EXPECT_EQ((mapper.*m.size)(), 2u);
}

TYPED_TEST(ValueMapTest, DelPublishesOnlyWhenTheKeyWasPresent) {
  auto& m = this->map_;
  MvpnMapper& mapper = *this->mapper_;
  this->is(1, 4);
  this->log_.notifierIs(&mapper);
  EXPECT_EQ((mapper.*m.del)(m.key(2)), m.defaultValue);
  EXPECT_TRUE(this->log_.changes.empty());
  EXPECT_EQ((mapper.*m.del)(m.key(1)), m.value(4));
  using C = typename decltype(this->log_)::Change;
  EXPECT_EQ(this->log_.changes, (std::vector<C>{{m.key(1), this->v(4), std::nullopt}}));
  EXPECT_FALSE((mapper.*m.has)(m.key(1)));
}

TYPED_TEST(ValueMapTest, DelAllAnnouncesEachRemovalInMapOrderOnlyToSubscribers) {
  using K = typename TestFixture::K;
  auto& m = this->map_;
  MvpnMapper& mapper = *this->mapper_;
  for (int i = 0; i < 20; ++i) this->is(i, i);
  ((mapper).*m.delAll)();  // no subscriber: emptied at once
  EXPECT_EQ((mapper.*m.size)(), 0u);

  for (int i = 0; i < 20; ++i) this->is(i, i);
  std::vector<K> order;  // map order
  if constexpr (std::is_same_v<K, MulticastTreeId>) {
    for (const auto& e : mapper.treeIdToVrfIdMap()) order.push_back(e.first);
  } else if constexpr (std::is_same_v<K, MvpnVrfRouteKey>) {
    for (const auto& e : mapper.routeKeyToTunnelIdMap()) order.push_back(e.first);
  } else {
    for (const auto& e : mapper.routeIntfKeyToTunnelIdMap()) order.push_back(e.first);
  }
  // A subscriber that removes another key while a removal is published: every key is still
  // announced exactly once, and each removal is visible when it is announced.
  this->log_.onChange = [&](const K& k) {
    EXPECT_FALSE((mapper.*m.has)(k));
    if (k == order[0]) (mapper.*m.del)(order[5]);
  };
  this->log_.notifierIs(&mapper);
  (mapper.*m.delAll)();
  EXPECT_EQ((mapper.*m.size)(), 0u);
  std::vector<K> announced;
  for (const auto& c : this->log_.changes) {
    announced.push_back(std::get<0>(c));
    EXPECT_EQ(std::get<2>(c), std::nullopt);
  }
  // order[5] is announced from within order[0]'s announcement, and not again.
  std::vector<K> want = {order[0], order[5]};
  for (size_t i = 1; i < order.size(); ++i) {
    if (i != 5) want.push_back(order[i]);
  }
  EXPECT_EQ(announced, want);
}

// --- collection maps: tunnelIdToTreeIdColl, tunnelIdToRouteKeys, tunnelIdToRouteIntfKeys ---

template <class C>
struct CollMap {
  using Coll = C;
  Oro::AttrId attr;
  Oro::Ptr<C> (MvpnMapper::*is)(TunnelId);
  Oro::Ptr<C> (MvpnMapper::*del)(TunnelId);
  void (MvpnMapper::*delAll)();
  Oro::Ptr<C> (MvpnMapper::*get)(TunnelId) const;
  bool (MvpnMapper::*has)(TunnelId) const;
};
struct TunnelIdToTreeIdCollMap {
  static CollMap<TunnelIdToTreeIdColl> map() {
    return {MvpnMapper::tunnelIdToTreeIdCollAttr, &MvpnMapper::tunnelIdToTreeIdCollIs,
            &MvpnMapper::tunnelIdToTreeIdCollDel, &MvpnMapper::tunnelIdToTreeIdCollDelAll,
            &MvpnMapper::tunnelIdToTreeIdColl,    &MvpnMapper::tunnelIdToTreeIdCollHas};
  }
};
struct TunnelIdToRouteKeysMap {
  static CollMap<MvpnVrfRouteKeyColl> map() {
    return {MvpnMapper::tunnelIdToRouteKeysAttr, &MvpnMapper::tunnelIdToRouteKeysIs,
            &MvpnMapper::tunnelIdToRouteKeysDel, &MvpnMapper::tunnelIdToRouteKeysDelAll,
            &MvpnMapper::tunnelIdToRouteKeys,    &MvpnMapper::tunnelIdToRouteKeysHas};
  }
};
struct TunnelIdToRouteIntfKeysMap {
  static CollMap<MvpnVrfRouteIntfKeyColl> map() {
    return {MvpnMapper::tunnelIdToRouteIntfKeysAttr, &MvpnMapper::tunnelIdToRouteIntfKeysIs,
            &MvpnMapper::tunnelIdToRouteIntfKeysDel, &MvpnMapper::tunnelIdToRouteIntfKeysDelAll,
            &MvpnMapper::tunnelIdToRouteIntfKeys,    &MvpnMapper::tunnelIdToRouteIntfKeysHas};
  }
};

template <class Traits>
class CollMapTest : public ::testing::Test {
 protected:
  using M = decltype(Traits::map());
  using Coll = typename M::Coll;
  const M map_ = Traits::map();
  Oro::Ptr<MvpnMapper> mapper_ = emptyMapper();
  ChangeLog<TunnelId, const Coll*> log_{map_.attr};
};
using CollMaps =
    ::testing::Types<TunnelIdToTreeIdCollMap, TunnelIdToRouteKeysMap, TunnelIdToRouteIntfKeysMap>;
TYPED_TEST_SUITE(CollMapTest, CollMaps);

TYPED_TEST(CollMapTest, IsCreatesOnceAndDelHandsTheCollectionBack) {
  using Coll = typename TestFixture::Coll;
  auto& m = this->map_;
  MvpnMapper& mapper = *this->mapper_;
  this->log_.notifierIs(&mapper);
  EXPECT_EQ((mapper.*m.get)(TunnelId(7)), nullptr);
  const Oro::Ptr<Coll> first = (mapper.*m.is)(TunnelId(7));
  ASSERT_TRUE(first);
  EXPECT_EQ(first->tunnelId(), TunnelId(7));
  EXPECT_TRUE(first->keyCollEmpty());
  EXPECT_EQ((mapper.*m.is)(TunnelId(7)), first);  // the same one, not announced again
  EXPECT_EQ((mapper.*m.get)(TunnelId(7)), first);
  EXPECT_EQ((mapper.*m.del)(TunnelId(8)), nullptr);
  EXPECT_EQ((mapper.*m.del)(TunnelId(7)), first);
  EXPECT_FALSE((mapper.*m.has)(TunnelId(7)));
  using C = typename decltype(this->log_)::Change;
  EXPECT_EQ(this->log_.changes, (std::vector<C>{{TunnelId(7), std::nullopt, first.get()},
                                                {TunnelId(7), first.get(), std::nullopt}}));
  EXPECT_EQ(first->refs(), 1u);  // the mapper let go of it
}

TYPED_TEST(CollMapTest, DelAllAnnouncesEachRemovalOnlyToSubscribers) {
  auto& m = this->map_;
  MvpnMapper& mapper = *this->mapper_;
  for (uint64_t t = 1; t <= 4; ++t) (mapper.*m.is)(TunnelId(t));
  (mapper.*m.delAll)();
  EXPECT_FALSE((mapper.*m.has)(TunnelId(1)));
  for (uint64_t t = 1; t <= 4; ++t) (mapper.*m.is)(TunnelId(t));
  this->log_.notifierIs(&mapper);
  (mapper.*m.delAll)();
  ASSERT_EQ(this->log_.changes.size(), 4u);
  for (const auto& c : this->log_.changes) EXPECT_EQ(std::get<2>(c), std::nullopt);
  for (uint64_t t = 1; t <= 4; ++t) EXPECT_FALSE((mapper.*m.has)(TunnelId(t)));
}

// --- key collections ---

TEST(MapperKeyColl, OnlyTheTreeIdCollectionAnnouncesAndOnlyRealChanges) {
  auto trees = tunnelIdToTreeIdCollFactory(TunnelId(3));
  EXPECT_EQ(trees->tunnelId(), TunnelId(3));
  EXPECT_EQ(TunnelIdToTreeIdColl::TunnelIdToTreeIdCollIs(TunnelId(4))->tunnelId(), TunnelId(4));
  std::vector<std::string> announced;
  Oro::KeyReactor<MulticastTreeId> reactor(
      TunnelIdToTreeIdColl::keyCollAttr,
      [&](const MulticastTreeId& t) { announced.push_back(t.value()); });
  reactor.notifierIs(trees.get());
  trees->keyCollIs(treeId(1));
  trees->keyCollIs(treeId(1));  // present: left alone, not announced
  trees->keyCollIs(treeId(2));
  trees->keyCollDel(treeId(9));  // absent: not announced
  trees->keyCollDel(treeId(1));
  EXPECT_EQ(announced, (std::vector<std::string>{"tree-1", "tree-2", "tree-1"}));
  EXPECT_TRUE(trees->keyCollHas(treeId(2)));
  EXPECT_FALSE(trees->keyCollHas(treeId(1)));
  trees->keyCollIs(treeId(3));
  trees->keyCollDelAll();
  EXPECT_EQ(announced.size(), 6u);  // + tree-3 added, then tree-2 and tree-3 removed
  EXPECT_TRUE(trees->keyCollEmpty());

  // The route collections are entities too, but announce nothing.
  int routeAnnouncements = 0;
  Oro::KeyReactor<MvpnVrfRouteKey> routeReactor(
      MvpnVrfRouteKeyColl::keyCollAttr, [&](const MvpnVrfRouteKey&) { ++routeAnnouncements; });
  auto mapper = emptyMapper();
  auto routes = mapper->tunnelIdToRouteKeysIs(TunnelId(3));
  routeReactor.notifierIs(routes.get());
  routes->keyCollIs(routeKey(1));
  routes->keyCollIs(routeKey(2));
  routes->keyCollDel(routeKey(1));
  routes->keyCollDelAll();
  EXPECT_EQ(routeAnnouncements, 0);
  EXPECT_TRUE(routes->keyCollEmpty());
  auto intfs = mapper->tunnelIdToRouteIntfKeysIs(TunnelId(3));
  intfs->keyCollIs(routeIntfKey(1));
  EXPECT_TRUE(intfs->keyCollHas(routeIntfKey(1)));
  EXPECT_FALSE(intfs->keyCollHas(routeIntfKey(2)));
}

TEST(Mapper, DeletingARouteLeavesItsTunnelsCollectionAlone) {
  auto mapper = emptyMapper();
  mapper->routeKeyToTunnelIdIs(routeKey(1), TunnelId(5));
  mapper->tunnelIdToRouteKeysIs(TunnelId(5))->keyCollIs(routeKey(1));
  EXPECT_EQ(mapper->routeKeyToTunnelIdDel(routeKey(1)), TunnelId(5));
  const auto coll = mapper->tunnelIdToRouteKeys(TunnelId(5));
  ASSERT_TRUE(coll);
  EXPECT_TRUE(coll->keyCollHas(routeKey(1)));
  // And the other way round: emptying a collection keeps it in the mapper.
  coll->keyCollDel(routeKey(1));
  EXPECT_TRUE(mapper->tunnelIdToRouteKeysHas(TunnelId(5)));
}

TEST(Mapper, ReadyIsPublishedOnChangeWithTheOldFlag) {
  auto mapper = emptyMapper();
  EXPECT_FALSE(mapper->ready());
  ChangeLog<bool, bool> oldNew(MvpnMapper::readyAttr);
  oldNew.notifierIs(mapper.get());
  std::vector<Oro::AttrId> plain;
  Oro::AttrReactor attrs([&](Oro::AttrId a) { plain.push_back(a); });
  attrs.notifierIs(mapper.get());
  mapper->readyIs(false);  // unchanged
  mapper->readyIs(true);
  mapper->readyIs(true);
  mapper->readyIs(false);
  using C = ChangeLog<bool, bool>::Change;
  EXPECT_EQ(oldNew.changes, (std::vector<C>{{true, false, true}, {false, true, false}}));
  EXPECT_EQ(plain, (std::vector<Oro::AttrId>{MvpnMapper::readyAttr, MvpnMapper::readyAttr}));
}

TEST(Mapper, HoldsItsStatusesForItsLifetime) {
  auto intf = mvpnIntfStatusFactory("held");
  auto names = Vrf::VrfIdMap::vrfIdMapStatusFactory();
  const uint32_t namesBefore = names->refs();
  auto mapper = MvpnMapper::MvpnMapperIs(intf, names);
  EXPECT_EQ(mapper->mvpnIntfStatus().get(), intf.get());
  EXPECT_EQ(mapper->vrfIdToNameStatus().get(), names.get());
  EXPECT_EQ(names->refs(), namesBefore + 1);
  mapper = nullptr;
  EXPECT_EQ(names->refs(), namesBefore);
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
  Oro::Ptr<MvpnMapper> mapper_ = mvpnMapperFactory(intf_, Vrf::VrfIdMap::vrfIdMapStatusFactory());
};

TEST_F(PmsiVlanTest, EveryMissingLinkGivesNone) {
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
}

TEST_F(PmsiVlanTest, OnlyTheFirstTreeIdIsConsulted) {
  intf_->vrfIntfIdIs(MvpnVrfIntfId(VrfId(5), IntfId::vlan(105)));
  intf_->vrfIntfIdIs(MvpnVrfIntfId(VrfId(9), IntfId::vlan(109)));
  for (int i = 0; i < 8; ++i) carry(8, treeId(i), VrfId(i % 2 ? 9 : 5));
  const MulticastTreeId first = *mapper_->tunnelIdToTreeIdColl(TunnelId(8))->keyCollFirst();
  const uint16_t want = mapper_->treeIdToVrfId(first) == VrfId(9) ? 109 : 105;
  EXPECT_EQ(mapper_->tunnelIdToPmsiVlan(TunnelId(8)).value(), want);
  // Taking the first tree's VRF away empties the answer although other trees have one.
  mapper_->treeIdToVrfIdDel(first);
  EXPECT_TRUE(mapper_->tunnelIdToPmsiVlan(TunnelId(8)).isNone());
}

TEST_F(PmsiVlanTest, APmsiInterfaceBeyondTheVlanRangeRaises) {
  intf_->vrfIntfIdIs(MvpnVrfIntfId(VrfId(5), IntfId::vlan(5000)));
  carry(1, treeId(1), VrfId(5));
  try {
    mapper_->tunnelIdToPmsiVlan(TunnelId(1));
    ADD_FAILURE() << "no range error";
  } catch (const Oro::RangeException& e) {
    EXPECT_STREQ(e.what(), "Bridging::VlanIdOrNone::value > 4094 not allowed");
  }
  intf_->vrfIntfIdIs(MvpnVrfIntfId(VrfId(5), IntfId::vlan(4094)));
  EXPECT_EQ(mapper_->tunnelIdToPmsiVlan(TunnelId(1)).value(), 4094);
}

TEST_F(PmsiVlanTest, ACorruptInterfaceTableIsReportedAndGivesNone) {
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
  EXPECT_NE(reports[0].find("corrupt"), std::string::npos) << reports[0];
  // Lookups that stop before the table do not touch it.
  EXPECT_TRUE(mapper_->tunnelIdToPmsiVlan(TunnelId(2)).isNone());
  EXPECT_EQ(reports.size(), 1u);
}

}  // namespace
}  // namespace Routing::Multicast
