#include "mapper/MvpnMapperKeeper.h"

#include <optional>
#include <utility>
#include <vector>

#include "platform/Assert.h"

namespace Routing::Multicast {

namespace {

// The mapper's members of one key family: forward map key -> tunnel, reverse map tunnel ->
// collection of keys.
template <class Key, class Coll>
struct KeyFamily {
  std::optional<TunnelId> (MvpnMapper::*get)(const Key&) const;
  void (MvpnMapper::*is)(const Key&, TunnelId);
  TunnelId (MvpnMapper::*del)(const Key&);
  Oro::Ptr<Coll> (MvpnMapper::*coll)(TunnelId) const;
  Oro::Ptr<Coll> (MvpnMapper::*collIs)(TunnelId);
  Oro::Ptr<Coll> (MvpnMapper::*collDel)(TunnelId);
};

constexpr KeyFamily<MvpnVrfRouteKey, MvpnVrfRouteKeyColl> kRoutes{
    &MvpnMapper::routeKeyToTunnelIdGet, &MvpnMapper::routeKeyToTunnelIdIs,
    &MvpnMapper::routeKeyToTunnelIdDel, &MvpnMapper::tunnelIdToRouteKeys,
    &MvpnMapper::tunnelIdToRouteKeysIs, &MvpnMapper::tunnelIdToRouteKeysDel};

constexpr KeyFamily<MvpnVrfRouteIntfKey, MvpnVrfRouteIntfKeyColl> kRouteIntfs{
    &MvpnMapper::routeIntfKeyToTunnelIdGet, &MvpnMapper::routeIntfKeyToTunnelIdIs,
    &MvpnMapper::routeIntfKeyToTunnelIdDel, &MvpnMapper::tunnelIdToRouteIntfKeys,
    &MvpnMapper::tunnelIdToRouteIntfKeysIs, &MvpnMapper::tunnelIdToRouteIntfKeysDel};

// Takes key out of the tunnel's collection, and the collection out of the mapper once empty.
template <class Key, class Coll>
void leave(MvpnMapper& m, const KeyFamily<Key, Coll>& f, TunnelId tunnelId, const Key& key) {
  const Oro::Ptr<Coll> coll = (m.*f.coll)(tunnelId);
  if (!coll) return;
  coll->keyCollDel(key);
  if (coll->keyCollEmpty()) (m.*f.collDel)(tunnelId);
}

template <class Key, class Coll>
void keyIs(MvpnMapper& m, const KeyFamily<Key, Coll>& f, const Key& key, TunnelId tunnelId) {
  MVPN_ASSERT_MSG(tunnelId.isValid(), "Tunnel id 0 names no tunnel");
  const std::optional<TunnelId> old = (m.*f.get)(key);
  if (old == tunnelId) return;
  (m.*f.collIs)(tunnelId)->keyCollIs(key);
  (m.*f.is)(key, tunnelId);
  if (old) leave(m, f, *old, key);
}

template <class Key, class Coll>
void keyDel(MvpnMapper& m, const KeyFamily<Key, Coll>& f, const Key& key) {
  const std::optional<TunnelId> old = (m.*f.get)(key);
  if (!old) return;
  (m.*f.del)(key);
  leave(m, f, *old, key);
}

// Forgets every key of the tunnel's collection, then the collection.
template <class Key, class Coll>
void tunnelKeysDel(MvpnMapper& m, const KeyFamily<Key, Coll>& f, TunnelId tunnelId) {
  const Oro::Ptr<Coll> coll = (m.*f.coll)(tunnelId);
  if (!coll) return;
  // Removals are announced; a copy keeps the walk safe from what subscribers do. A subscriber
  // may map another key to this tunnel through the keeper meanwhile: that key stays, in the
  // collection, which then stays too (a key maps to the tunnel exactly when it holds it).
  const std::vector<Key> keys(coll->keyColl().begin(), coll->keyColl().end());
  for (const Key& key : keys) {
    if ((m.*f.get)(key) == tunnelId) (m.*f.del)(key);
  }
  for (const Key& key : keys) coll->keyCollDel(key);
  if (coll->keyCollEmpty() && (m.*f.coll)(tunnelId) == coll) (m.*f.collDel)(tunnelId);
}

}  // namespace

MvpnMapperKeeper::MvpnMapperKeeper(Oro::Ptr<MvpnMapper> mapper)
    : mapper_(std::move(mapper)),
      treeTunnel_(0,
                  SeededKeyHash<MulticastTreeId>{namedHashSeed("MvpnMapperKeeper::treeTunnel")}) {
  for (const auto& [tunnelId, coll] : mapper_->tunnelIdToTreeIdCollMap()) {
    for (const MulticastTreeId& treeId : coll->keyColl()) {
      const bool fresh = treeTunnel_.try_emplace(treeId, tunnelId).second;
      MVPN_ASSERT_MSG(fresh, "A tree id is held by the collections of two tunnels");
    }
  }
}

void MvpnMapperKeeper::routeIs(const MvpnVrfRouteKey& key, TunnelId tunnelId) {
  keyIs(*mapper_, kRoutes, key, tunnelId);
}
void MvpnMapperKeeper::routeDel(const MvpnVrfRouteKey& key) {
  keyDel(*mapper_, kRoutes, key);
}
void MvpnMapperKeeper::routeIntfIs(const MvpnVrfRouteIntfKey& key, TunnelId tunnelId) {
  keyIs(*mapper_, kRouteIntfs, key, tunnelId);
}
void MvpnMapperKeeper::routeIntfDel(const MvpnVrfRouteIntfKey& key) {
  keyDel(*mapper_, kRouteIntfs, key);
}

void MvpnMapperKeeper::treeIdLeave(TunnelId tunnelId, const MulticastTreeId& treeId) {
  const Oro::Ptr<TunnelIdToTreeIdColl> coll = mapper_->tunnelIdToTreeIdColl(tunnelId);
  if (!coll) return;
  coll->keyCollDel(treeId);
  if (coll->keyCollEmpty()) mapper_->tunnelIdToTreeIdCollDel(tunnelId);
}

void MvpnMapperKeeper::treeIdIs(TunnelId tunnelId, const MulticastTreeId& treeId, VrfId vrfId) {
  MVPN_ASSERT_MSG(tunnelId.isValid(), "Tunnel id 0 names no tunnel");
  mapper_->treeIdToVrfIdIs(treeId, vrfId);
  const auto [it, fresh] = treeTunnel_.try_emplace(treeId, tunnelId);
  const TunnelId old = fresh ? tunnelId : std::exchange(it->second, tunnelId);
  mapper_->tunnelIdToTreeIdCollIs(tunnelId)->keyCollIs(treeId);
  if (old != tunnelId) treeIdLeave(old, treeId);
}

void MvpnMapperKeeper::treeIdDel(const MulticastTreeId& treeId) {
  const auto it = treeTunnel_.find(treeId);
  if (it == treeTunnel_.end()) return;
  const TunnelId tunnelId = it->second;
  treeTunnel_.erase(it);
  treeIdLeave(tunnelId, treeId);
  mapper_->treeIdToVrfIdDel(treeId);
}

void MvpnMapperKeeper::tunnelDel(TunnelId tunnelId) {
  tunnelKeysDel(*mapper_, kRoutes, tunnelId);
  tunnelKeysDel(*mapper_, kRouteIntfs, tunnelId);
  const Oro::Ptr<TunnelIdToTreeIdColl> trees = mapper_->tunnelIdToTreeIdColl(tunnelId);
  if (!trees) return;
  const std::vector<MulticastTreeId> treeIds(trees->keyColl().begin(), trees->keyColl().end());
  trees->keyCollDelAll();
  mapper_->tunnelIdToTreeIdCollDel(tunnelId);
  for (const MulticastTreeId& treeId : treeIds) {
    treeTunnel_.erase(treeId);
    mapper_->treeIdToVrfIdDel(treeId);
  }
}

}  // namespace Routing::Multicast
