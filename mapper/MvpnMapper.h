// MvpnMapper: in-process bookkeeping that relates provider tunnels to the MVPN routes that use
// them, to multicast tree ids and, through the interface status table, to the PMSI VLAN of a
// tunnel's VRF.
//
// Attributes, in declaration order (their AttrIds follow it):
//   mvpnIntfStatus           constant, set at construction (may be null)
//   vrfIdToNameStatus        constant, set at construction (may be null)
//   treeIdToVrfId            MulticastTreeId -> VrfId
//   tunnelIdToTreeIdColl     TunnelId -> TunnelIdToTreeIdColl (owned)
//   routeKeyToTunnelId       MvpnVrfRouteKey -> TunnelId
//   routeIntfKeyToTunnelId   MvpnVrfRouteIntfKey -> TunnelId
//   tunnelIdToRouteKeys      TunnelId -> MvpnVrfRouteKeyColl (owned)
//   tunnelIdToRouteIntfKeys  TunnelId -> MvpnVrfRouteIntfKeyColl (owned)
//   tunnelIdToPmsiVlan       computed on demand, never published
//   ready                    set by the owner once the mapper is complete
//
// Every mutator touches its own attribute only. Keeping a forward map and its reverse map
// consistent, and deleting a tunnel's collection once it is empty, is the caller's duty
// (MvpnMapperKeeper does it; auditMvpnMapper checks it).
//
// Publication: every change of a map is published for its key through the old-value
// channel (Notifiee::onAttributeOldNew, whose default forwards the key to onAttributeKey):
// old is null for an insertion, new is null for a removal. Values are VrfId or TunnelId; for
// the collection maps they are the collection entities themselves. Storing the value already
// there publishes nothing. `ready` is published both ways: onAttributeOldNew(readyAttr, key,
// old, new) with key and new both pointing at the new flag, then onAttribute(readyAttr).
//
// Each map is a hash map with a seed of its own (see namedHashSeed); map order is that
// hash order.
//
// Threads: single-threaded, on the owning agent's thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>
#include <vector>

#include <absl/container/flat_hash_map.h>

#include "mapper/MvpnMapperKeyColl.h"
#include "platform/net/TunnelId.h"
#include "platform/net/VlanId.h"
#include "platform/net/VrfId.h"
#include "platform/net/VrfIdMapStatus.h"
#include "platform/runtime/Entity.h"
#include "platform/runtime/Ptr.h"
#include "status/MvpnIntfStatus.h"
#include "types/MulticastTreeId.h"
#include "types/MvpnVrfRouteIntfKey.h"
#include "types/MvpnVrfRouteKey.h"

namespace Routing::Multicast {

class MvpnMapper : public Oro::Entity {
 public:
  using VrfId = Vrf::VrfIdMap::VrfId;

  static constexpr Oro::AttrId mvpnIntfStatusAttr = 0;
  static constexpr Oro::AttrId vrfIdToNameStatusAttr = 1;
  static constexpr Oro::AttrId treeIdToVrfIdAttr = 2;
  static constexpr Oro::AttrId tunnelIdToTreeIdCollAttr = 3;
  static constexpr Oro::AttrId routeKeyToTunnelIdAttr = 4;
  static constexpr Oro::AttrId routeIntfKeyToTunnelIdAttr = 5;
  static constexpr Oro::AttrId tunnelIdToRouteKeysAttr = 6;
  static constexpr Oro::AttrId tunnelIdToRouteIntfKeysAttr = 7;
  static constexpr Oro::AttrId tunnelIdToPmsiVlanAttr = 8;
  static constexpr Oro::AttrId readyAttr = 9;

  template <class K, class V>
  using HashMap = absl::flat_hash_map<K, V, SeededKeyHash<K>>;
  using TreeIdToVrfIdMap = HashMap<MulticastTreeId, VrfId>;
  using TunnelIdToTreeIdCollMap = HashMap<TunnelId, Oro::Ptr<TunnelIdToTreeIdColl>>;
  using RouteKeyToTunnelIdMap = HashMap<MvpnVrfRouteKey, TunnelId>;
  using RouteIntfKeyToTunnelIdMap = HashMap<MvpnVrfRouteIntfKey, TunnelId>;
  using TunnelIdToRouteKeysMap = HashMap<TunnelId, Oro::Ptr<MvpnVrfRouteKeyColl>>;
  using TunnelIdToRouteIntfKeysMap = HashMap<TunnelId, Oro::Ptr<MvpnVrfRouteIntfKeyColl>>;

  MvpnMapper(Oro::Ptr<const MvpnIntfStatus> mvpnIntfStatus,
             Oro::Ptr<const Vrf::VrfIdMap::Status> vrfIdToNameStatus);
  ~MvpnMapper() override;

  static Oro::Ptr<MvpnMapper> MvpnMapperIs(Oro::Ptr<const MvpnIntfStatus> mvpnIntfStatus,
                                           Oro::Ptr<const Vrf::VrfIdMap::Status> vrfIdMapStatus);

  std::string_view typeName() const override { return "Routing::Multicast::MvpnMapper"; }

  const Oro::Ptr<const MvpnIntfStatus>& mvpnIntfStatus() const { return mvpnIntfStatus_; }
  const Oro::Ptr<const Vrf::VrfIdMap::Status>& vrfIdToNameStatus() const {
    return vrfIdToNameStatus_;
  }

  // --- treeIdToVrfId: the VRF a tree id belongs to (default: the invalid VRF id) ---
  VrfId treeIdToVrfId(const MulticastTreeId& treeId) const;
  std::optional<VrfId> treeIdToVrfIdGet(const MulticastTreeId& treeId) const;
  bool treeIdToVrfIdHas(const MulticastTreeId& treeId) const;
  size_t treeIdToVrfIdSize() const { return treeIdToVrfId_.size(); }
  const TreeIdToVrfIdMap& treeIdToVrfIdMap() const { return treeIdToVrfId_; }
  void treeIdToVrfIdIs(const MulticastTreeId& treeId, VrfId vrfId);
  // The removed VRF id, or the default when treeId was absent.
  VrfId treeIdToVrfIdDel(const MulticastTreeId& treeId);
  void treeIdToVrfIdDelAll();

  // --- tunnelIdToTreeIdColl: the tree ids of a tunnel ---
  // The tunnel's collection, or null.
  Oro::Ptr<TunnelIdToTreeIdColl> tunnelIdToTreeIdColl(TunnelId tunnelId) const;
  bool tunnelIdToTreeIdCollHas(TunnelId tunnelId) const;
  size_t tunnelIdToTreeIdCollSize() const { return tunnelIdToTreeIdColl_.size(); }
  const TunnelIdToTreeIdCollMap& tunnelIdToTreeIdCollMap() const { return tunnelIdToTreeIdColl_; }
  // The present collection (nothing published), or a new empty one, inserted and published.
  Oro::Ptr<TunnelIdToTreeIdColl> tunnelIdToTreeIdCollIs(TunnelId tunnelId);
  // The removed collection, or null when there was none.
  Oro::Ptr<TunnelIdToTreeIdColl> tunnelIdToTreeIdCollDel(TunnelId tunnelId);
  void tunnelIdToTreeIdCollDelAll();

  // --- routeKeyToTunnelId: the tunnel a route uses (default: tunnel id 0) ---
  TunnelId routeKeyToTunnelId(const MvpnVrfRouteKey& key) const;
  std::optional<TunnelId> routeKeyToTunnelIdGet(const MvpnVrfRouteKey& key) const;
  bool routeKeyToTunnelIdHas(const MvpnVrfRouteKey& key) const;
  size_t routeKeyToTunnelIdSize() const { return routeKeyToTunnelId_.size(); }
  const RouteKeyToTunnelIdMap& routeKeyToTunnelIdMap() const { return routeKeyToTunnelId_; }
  void routeKeyToTunnelIdIs(const MvpnVrfRouteKey& key, TunnelId tunnelId);
  TunnelId routeKeyToTunnelIdDel(const MvpnVrfRouteKey& key);
  void routeKeyToTunnelIdDelAll();

  // --- routeIntfKeyToTunnelId: the tunnel a route-interface key uses ---
  TunnelId routeIntfKeyToTunnelId(const MvpnVrfRouteIntfKey& key) const;
  std::optional<TunnelId> routeIntfKeyToTunnelIdGet(const MvpnVrfRouteIntfKey& key) const;
  bool routeIntfKeyToTunnelIdHas(const MvpnVrfRouteIntfKey& key) const;
  size_t routeIntfKeyToTunnelIdSize() const { return routeIntfKeyToTunnelId_.size(); }
  const RouteIntfKeyToTunnelIdMap& routeIntfKeyToTunnelIdMap() const {
    return routeIntfKeyToTunnelId_;
  }
  void routeIntfKeyToTunnelIdIs(const MvpnVrfRouteIntfKey& key, TunnelId tunnelId);
  TunnelId routeIntfKeyToTunnelIdDel(const MvpnVrfRouteIntfKey& key);
  void routeIntfKeyToTunnelIdDelAll();

  // --- tunnelIdToRouteKeys: the routes of a tunnel ---
  Oro::Ptr<MvpnVrfRouteKeyColl> tunnelIdToRouteKeys(TunnelId tunnelId) const;
  bool tunnelIdToRouteKeysHas(TunnelId tunnelId) const;
  size_t tunnelIdToRouteKeysSize() const { return tunnelIdToRouteKeys_.size(); }
  const TunnelIdToRouteKeysMap& tunnelIdToRouteKeysMap() const { return tunnelIdToRouteKeys_; }
  Oro::Ptr<MvpnVrfRouteKeyColl> tunnelIdToRouteKeysIs(TunnelId tunnelId);
  Oro::Ptr<MvpnVrfRouteKeyColl> tunnelIdToRouteKeysDel(TunnelId tunnelId);
  void tunnelIdToRouteKeysDelAll();

  // --- tunnelIdToRouteIntfKeys: the route-interface keys of a tunnel ---
  Oro::Ptr<MvpnVrfRouteIntfKeyColl> tunnelIdToRouteIntfKeys(TunnelId tunnelId) const;
  bool tunnelIdToRouteIntfKeysHas(TunnelId tunnelId) const;
  size_t tunnelIdToRouteIntfKeysSize() const { return tunnelIdToRouteIntfKeys_.size(); }
  const TunnelIdToRouteIntfKeysMap& tunnelIdToRouteIntfKeysMap() const {
    return tunnelIdToRouteIntfKeys_;
  }
  Oro::Ptr<MvpnVrfRouteIntfKeyColl> tunnelIdToRouteIntfKeysIs(TunnelId tunnelId);
  Oro::Ptr<MvpnVrfRouteIntfKeyColl> tunnelIdToRouteIntfKeysDel(TunnelId tunnelId);
  void tunnelIdToRouteIntfKeysDelAll();

  // The PMSI VLAN of the tunnel's VRF, none (0) when any link is missing: the tunnel's tree
  // id collection, the interface status table, the collection's first tree id (only that
  // one is consulted), its VRF (the invalid VRF id counts as none), that VRF's interface
  // record, a non-empty PMSI interface. A corrupt interface table is handed to the table's
  // corruption handler and gives none. A PMSI interface number above 4094 raises
  // RangeException "Bridging::VlanIdOrNone::value > 4094 not allowed".
  Bridging::VlanIdOrNone tunnelIdToPmsiVlan(const TunnelId& tunnelId) const;

  bool ready() const { return ready_; }
  void readyIs(bool ready);

 private:
  template <class Map>
  void valueIs(Oro::AttrId attr, Map& map, const typename Map::key_type& key,
               const typename Map::mapped_type& value);
  template <class Map>
  typename Map::mapped_type valueDel(Oro::AttrId attr, Map& map, const typename Map::key_type& key);
  template <class Map>
  void valueDelAll(Oro::AttrId attr, Map& map);
  template <class Map>
  auto collIs(Oro::AttrId attr, Map& map, TunnelId tunnelId) -> typename Map::mapped_type;
  template <class Map>
  auto collDel(Oro::AttrId attr, Map& map, TunnelId tunnelId) -> typename Map::mapped_type;
  template <class Map>
  void collDelAll(Oro::AttrId attr, Map& map);

  const Oro::Ptr<const MvpnIntfStatus> mvpnIntfStatus_;
  const Oro::Ptr<const Vrf::VrfIdMap::Status> vrfIdToNameStatus_;
  TreeIdToVrfIdMap treeIdToVrfId_;
  TunnelIdToTreeIdCollMap tunnelIdToTreeIdColl_;
  RouteKeyToTunnelIdMap routeKeyToTunnelId_;
  RouteIntfKeyToTunnelIdMap routeIntfKeyToTunnelId_;
  TunnelIdToRouteKeysMap tunnelIdToRouteKeys_;
  TunnelIdToRouteIntfKeysMap tunnelIdToRouteIntfKeys_;
  bool ready_ = false;
};

Oro::Ptr<MvpnMapper> mvpnMapperFactory(Oro::Ptr<const MvpnIntfStatus> intfStatus,
                                       Oro::Ptr<const Vrf::VrfIdMap::Status> vrfIdMapStatus);

}  // namespace Routing::Multicast
