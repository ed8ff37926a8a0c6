#include "mapper/MvpnMapper.h"

#include <type_traits>
#include <utility>

#include "platform/Error.h"
#include "platform/net/VlanIntf.h"

namespace Routing::Multicast {

namespace {

template <class Map>
Map seededMap(std::string_view name) {
  using Hash = typename Map::hasher;
  return Map(0, Hash{namedHashSeed(name)});
}

template <class Map>
std::optional<typename Map::mapped_type> lookup(const Map& map, const typename Map::key_type& key) {
  const auto it = map.find(key);
  if (it == map.end()) return std::nullopt;
  return it->second;
}

// The collection entity type of a TunnelId -> Ptr<Coll> map.
template <class Map>
using CollOf = std::remove_pointer_t<decltype(std::declval<typename Map::mapped_type>().get())>;

template <class Map>
typename Map::mapped_type lookupOrNull(const Map& map, TunnelId tunnelId) {
  const auto it = map.find(tunnelId);
  return it == map.end() ? nullptr : it->second;
}

}  // namespace

MvpnMapper::MvpnMapper(Oro::Ptr<const MvpnIntfStatus> mvpnIntfStatus,
                       Oro::Ptr<const Vrf::VrfIdMap::Status> vrfIdToNameStatus)
    : mvpnIntfStatus_(std::move(mvpnIntfStatus)),
      vrfIdToNameStatus_(std::move(vrfIdToNameStatus)),
      treeIdToVrfId_(seededMap<TreeIdToVrfIdMap>("MvpnMapper::treeIdToVrfId")),
      tunnelIdToTreeIdColl_(seededMap<TunnelIdToTreeIdCollMap>("MvpnMapper::tunnelIdToTreeIdColl")),
      routeKeyToTunnelId_(seededMap<RouteKeyToTunnelIdMap>("MvpnMapper::routeKeyToTunnelId")),
      routeIntfKeyToTunnelId_(
          seededMap<RouteIntfKeyToTunnelIdMap>("MvpnMapper::routeIntfKeyToTunnelId")),
      tunnelIdToRouteKeys_(seededMap<TunnelIdToRouteKeysMap>("MvpnMapper::tunnelIdToRouteKeys")),
      tunnelIdToRouteIntfKeys_(
          seededMap<TunnelIdToRouteIntfKeysMap>("MvpnMapper::tunnelIdToRouteIntfKeys")) {}

MvpnMapper::~MvpnMapper() = default;

Oro::Ptr<MvpnMapper> MvpnMapper::MvpnMapperIs(
    Oro::Ptr<const MvpnIntfStatus> mvpnIntfStatus,
    Oro::Ptr<const Vrf::VrfIdMap::Status> vrfIdMapStatus) {
  return Oro::makePtr<MvpnMapper>(std::move(mvpnIntfStatus), std::move(vrfIdMapStatus));
}

Oro::Ptr<MvpnMapper> mvpnMapperFactory(Oro::Ptr<const MvpnIntfStatus> intfStatus,
                                       Oro::Ptr<const Vrf::VrfIdMap::Status> vrfIdMapStatus) {
  return MvpnMapper::MvpnMapperIs(std::move(intfStatus), std::move(vrfIdMapStatus));
}

// --- the map families ---

template <class Map>
void MvpnMapper::valueIs(Oro::AttrId attr, Map& map, const typename Map::key_type& key,
                         const typename Map::mapped_type& value) {
  using K = typename Map::key_type;
  using V = typename Map::mapped_type;
  const auto [it, inserted] = map.try_emplace(key, value);
  if (inserted) {
    publishOldNew<K, V>(attr, key, nullptr, &value);
    return;
  }
  if (it->second == value) return;
  // Subscribers get copies: they may change the map (and move its slots) while they run.
  const V old = std::exchange(it->second, value);
  publishOldNew<K, V>(attr, key, &old, &value);
}

template <class Map>
typename Map::mapped_type MvpnMapper::valueDel(Oro::AttrId attr, Map& map,
                                               const typename Map::key_type& key) {
  using K = typename Map::key_type;
  using V = typename Map::mapped_type;
  const auto it = map.find(key);
  if (it == map.end()) return V();
  // The extracted node keeps key and value alive for the subscribers, even when `key`
  // refers into the removed slot.
  auto node = map.extract(it);
  publishOldNew<K, V>(attr, node.key(), &node.mapped(), nullptr);
  return node.mapped();
}

template <class Map>
void MvpnMapper::valueDelAll(Oro::AttrId attr, Map& map) {
  const auto held = holdForMutation();
  using K = typename Map::key_type;
  if (!hasNotifiees()) {
    map.clear();
    return;
  }
  // Each removal is announced; subscribers may change the map meanwhile, so walk a copy of
  // the keys taken in map order.
  std::vector<K> keys;
  keys.reserve(map.size());
  for (const auto& entry : map) keys.push_back(entry.first);
  for (const K& key : keys) valueDel(attr, map, key);
}

template <class Map>
auto MvpnMapper::collIs(Oro::AttrId attr, Map& map, TunnelId tunnelId) ->
    typename Map::mapped_type {
  using Coll = CollOf<Map>;
  if (const auto it = map.find(tunnelId); it != map.end()) return it->second;
  Oro::Ptr<Coll> coll = Oro::makePtr<Coll>(tunnelId);
  map.emplace(tunnelId, coll);
  publishOldNew<TunnelId, Coll>(attr, tunnelId, nullptr, coll.get());
  return coll;
}

template <class Map>
auto MvpnMapper::collDel(Oro::AttrId attr, Map& map, TunnelId tunnelId) ->
    typename Map::mapped_type {
  using Coll = CollOf<Map>;
  const auto it = map.find(tunnelId);
  if (it == map.end()) return nullptr;
  Oro::Ptr<Coll> coll = std::move(it->second);
  map.erase(it);
  publishOldNew<TunnelId, Coll>(attr, tunnelId, coll.get(), nullptr);
  return coll;
}

template <class Map>
void MvpnMapper::collDelAll(Oro::AttrId attr, Map& map) {
  const auto held = holdForMutation();
  if (!hasNotifiees()) {
    map.clear();
    return;
  }
  std::vector<TunnelId> keys;
  keys.reserve(map.size());
  for (const auto& entry : map) keys.push_back(entry.first);
  for (TunnelId key : keys) collDel(attr, map, key);
}

// --- treeIdToVrfId ---

MvpnMapper::VrfId MvpnMapper::treeIdToVrfId(const MulticastTreeId& treeId) const {
  const auto it = treeIdToVrfId_.find(treeId);
  return it == treeIdToVrfId_.end() ? VrfId() : it->second;
}
std::optional<MvpnMapper::VrfId> MvpnMapper::treeIdToVrfIdGet(const MulticastTreeId& treeId) const {
  return lookup(treeIdToVrfId_, treeId);
}
bool MvpnMapper::treeIdToVrfIdHas(const MulticastTreeId& treeId) const {
  return treeIdToVrfId_.contains(treeId);
}
void MvpnMapper::treeIdToVrfIdIs(const MulticastTreeId& treeId, VrfId vrfId) {
  valueIs(treeIdToVrfIdAttr, treeIdToVrfId_, treeId, vrfId);
}
MvpnMapper::VrfId MvpnMapper::treeIdToVrfIdDel(const MulticastTreeId& treeId) {
  return valueDel(treeIdToVrfIdAttr, treeIdToVrfId_, treeId);
}
void MvpnMapper::treeIdToVrfIdDelAll() {
  valueDelAll(treeIdToVrfIdAttr, treeIdToVrfId_);
}

// --- tunnelIdToTreeIdColl ---

Oro::Ptr<TunnelIdToTreeIdColl> MvpnMapper::tunnelIdToTreeIdColl(TunnelId tunnelId) const {
  return lookupOrNull(tunnelIdToTreeIdColl_, tunnelId);
}
bool MvpnMapper::tunnelIdToTreeIdCollHas(TunnelId tunnelId) const {
  return tunnelIdToTreeIdColl_.contains(tunnelId);
}
Oro::Ptr<TunnelIdToTreeIdColl> MvpnMapper::tunnelIdToTreeIdCollIs(TunnelId tunnelId) {
  return collIs(tunnelIdToTreeIdCollAttr, tunnelIdToTreeIdColl_, tunnelId);
}
Oro::Ptr<TunnelIdToTreeIdColl> MvpnMapper::tunnelIdToTreeIdCollDel(TunnelId tunnelId) {
  return collDel(tunnelIdToTreeIdCollAttr, tunnelIdToTreeIdColl_, tunnelId);
}
void MvpnMapper::tunnelIdToTreeIdCollDelAll() {
  collDelAll(tunnelIdToTreeIdCollAttr, tunnelIdToTreeIdColl_);
}

// --- routeKeyToTunnelId ---

TunnelId MvpnMapper::routeKeyToTunnelId(const MvpnVrfRouteKey& key) const {
  const auto it = routeKeyToTunnelId_.find(key);
  return it == routeKeyToTunnelId_.end() ? TunnelId() : it->second;
}
std::optional<TunnelId> MvpnMapper::routeKeyToTunnelIdGet(const MvpnVrfRouteKey& key) const {
  return lookup(routeKeyToTunnelId_, key);
}
bool MvpnMapper::routeKeyToTunnelIdHas(const MvpnVrfRouteKey& key) const {
  return routeKeyToTunnelId_.contains(key);
}
void MvpnMapper::routeKeyToTunnelIdIs(const MvpnVrfRouteKey& key, TunnelId tunnelId) {
  valueIs(routeKeyToTunnelIdAttr, routeKeyToTunnelId_, key, tunnelId);
}
TunnelId MvpnMapper::routeKeyToTunnelIdDel(const MvpnVrfRouteKey& key) {
  return valueDel(routeKeyToTunnelIdAttr, routeKeyToTunnelId_, key);
}
void MvpnMapper::routeKeyToTunnelIdDelAll() {
  valueDelAll(routeKeyToTunnelIdAttr, routeKeyToTunnelId_);
}

// --- routeIntfKeyToTunnelId ---

TunnelId MvpnMapper::routeIntfKeyToTunnelId(const MvpnVrfRouteIntfKey& key) const {
  const auto it = routeIntfKeyToTunnelId_.find(key);
  return it == routeIntfKeyToTunnelId_.end() ? TunnelId() : it->second;
}
std::optional<TunnelId> MvpnMapper::routeIntfKeyToTunnelIdGet(
    const MvpnVrfRouteIntfKey& key) const {
  return lookup(routeIntfKeyToTunnelId_, key);
}
bool MvpnMapper::routeIntfKeyToTunnelIdHas(const MvpnVrfRouteIntfKey& key) const {
  return routeIntfKeyToTunnelId_.contains(key);
}
void MvpnMapper::routeIntfKeyToTunnelIdIs(const MvpnVrfRouteIntfKey& key, TunnelId tunnelId) {
  valueIs(routeIntfKeyToTunnelIdAttr, routeIntfKeyToTunnelId_, key, tunnelId);
}
TunnelId MvpnMapper::routeIntfKeyToTunnelIdDel(const MvpnVrfRouteIntfKey& key) {
  return valueDel(routeIntfKeyToTunnelIdAttr, routeIntfKeyToTunnelId_, key);
}
void MvpnMapper::routeIntfKeyToTunnelIdDelAll() {
  valueDelAll(routeIntfKeyToTunnelIdAttr, routeIntfKeyToTunnelId_);
}

// --- tunnelIdToRouteKeys ---

Oro::Ptr<MvpnVrfRouteKeyColl> MvpnMapper::tunnelIdToRouteKeys(TunnelId tunnelId) const {
  return lookupOrNull(tunnelIdToRouteKeys_, tunnelId);
}
bool MvpnMapper::tunnelIdToRouteKeysHas(TunnelId tunnelId) const {
  return tunnelIdToRouteKeys_.contains(tunnelId);
}
Oro::Ptr<MvpnVrfRouteKeyColl> MvpnMapper::tunnelIdToRouteKeysIs(TunnelId tunnelId) {
  return collIs(tunnelIdToRouteKeysAttr, tunnelIdToRouteKeys_, tunnelId);
}
Oro::Ptr<MvpnVrfRouteKeyColl> MvpnMapper::tunnelIdToRouteKeysDel(TunnelId tunnelId) {
  return collDel(tunnelIdToRouteKeysAttr, tunnelIdToRouteKeys_, tunnelId);
}
void MvpnMapper::tunnelIdToRouteKeysDelAll() {
  collDelAll(tunnelIdToRouteKeysAttr, tunnelIdToRouteKeys_);
}

// --- tunnelIdToRouteIntfKeys ---

Oro::Ptr<MvpnVrfRouteIntfKeyColl> MvpnMapper::tunnelIdToRouteIntfKeys(TunnelId tunnelId) const {
  return lookupOrNull(tunnelIdToRouteIntfKeys_, tunnelId);
}
bool MvpnMapper::tunnelIdToRouteIntfKeysHas(TunnelId tunnelId) const {
  return tunnelIdToRouteIntfKeys_.contains(tunnelId);
}
Oro::Ptr<MvpnVrfRouteIntfKeyColl> MvpnMapper::tunnelIdToRouteIntfKeysIs(TunnelId tunnelId) {
  return collIs(tunnelIdToRouteIntfKeysAttr, tunnelIdToRouteIntfKeys_, tunnelId);
}
Oro::Ptr<MvpnVrfRouteIntfKeyColl> MvpnMapper::tunnelIdToRouteIntfKeysDel(TunnelId tunnelId) {
  return collDel(tunnelIdToRouteIntfKeysAttr, tunnelIdToRouteIntfKeys_, tunnelId);
}
void MvpnMapper::tunnelIdToRouteIntfKeysDelAll() {
  collDelAll(tunnelIdToRouteIntfKeysAttr, tunnelIdToRouteIntfKeys_);
}

// --- computed and flag attributes ---

Bridging::VlanIdOrNone MvpnMapper::tunnelIdToPmsiVlan(const TunnelId& tunnelId) const {
  const auto collIt = tunnelIdToTreeIdColl_.find(tunnelId);
  if (collIt == tunnelIdToTreeIdColl_.end()) return {};
  if (!mvpnIntfStatus_) return {};
  // Only the first tree id is consulted, however many the tunnel carries.
  const MulticastTreeId* treeId = collIt->second->keyCollFirst();
  if (treeId == nullptr) return {};
  const auto vrfIt = treeIdToVrfId_.find(*treeId);
  if (vrfIt == treeIdToVrfId_.end() || !vrfIt->second.isValid()) return {};
  std::optional<MvpnVrfIntfId> intf;
  try {
    intf = mvpnIntfStatus_->vrfIntfId(vrfIt->second);
  } catch (const Oro::ShmCorruptionException& e) {
    mvpnIntfStatus_->vrfIntfIdHandleCorruption(e.what());
    return {};
  }
  if (!intf || intf->pmsiIntfId().empty()) return {};
  return Nevo::vlanIntfVlanId(intf->pmsiIntfId());
}

void MvpnMapper::readyIs(bool ready) {
  const auto held = holdForMutation();
  if (ready == ready_) return;
  const bool old = std::exchange(ready_, ready);
  publishOldNew(readyAttr, ready_, &old, &ready_);
  publish(readyAttr);
}

}  // namespace Routing::Multicast
