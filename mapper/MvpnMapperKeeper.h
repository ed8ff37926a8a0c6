// MvpnMapperKeeper: the agent side of a tunnel mapper. The mapper's mutators each touch one
// map; the keeper turns an agent's events (a route moved to a tunnel, a tree id learnt or
// lost, a tunnel gone) into the mutations of every map concerned, so that after each call:
//   - a route (route-interface) key maps to tunnel T exactly when T's collection holds it;
//   - a tree id has a VRF exactly when exactly one tunnel's collection holds it;
//   - no tunnel keeps an empty collection.
// auditMvpnMapper checks these. The keeper must be the mapper's only writer (it keeps the
// tunnel of each tree id, which the mapper does not record).
//
// Order of changes, for subscribers of the mapper: on an addition the tunnel's collection
// is filled before the forward map announces the key; on a removal the forward entry goes
// first. A tree id's VRF is set before its tunnel's collection announces it, so a reader of
// tunnelIdToPmsiVlan woken by the collection sees the new tree complete.
#pragma once

#include <absl/container/flat_hash_map.h>

#include "mapper/MvpnMapper.h"

namespace Routing::Multicast {

class MvpnMapperKeeper {
 public:
  using VrfId = Vrf::VrfIdMap::VrfId;

  // Takes over the mapper as it is; its tree id collections must not share a tree id.
  explicit MvpnMapperKeeper(Oro::Ptr<MvpnMapper> mapper);

  const Oro::Ptr<MvpnMapper>& mapper() const { return mapper_; }

  // The route uses tunnelId (which must not be 0), leaving the tunnel it used before.
  void routeIs(const MvpnVrfRouteKey& key, TunnelId tunnelId);
  // The route uses no tunnel any more; an unknown route is ignored.
  void routeDel(const MvpnVrfRouteKey& key);
  void routeIntfIs(const MvpnVrfRouteIntfKey& key, TunnelId tunnelId);
  void routeIntfDel(const MvpnVrfRouteIntfKey& key);

  // The tree id belongs to vrfId and is carried by tunnelId (which must not be 0), leaving
  // the tunnel that carried it before.
  void treeIdIs(TunnelId tunnelId, const MulticastTreeId& treeId, VrfId vrfId);
  // The tree id is gone; an unknown one is ignored.
  void treeIdDel(const MulticastTreeId& treeId);

  // The tunnel is gone: every route, route-interface key and tree id it carried is
  // forgotten with it.
  void tunnelDel(TunnelId tunnelId);

  Bridging::VlanIdOrNone pmsiVlan(TunnelId tunnelId) const {
    return mapper_->tunnelIdToPmsiVlan(tunnelId);
  }

 private:
  void treeIdLeave(TunnelId tunnelId, const MulticastTreeId& treeId);

  Oro::Ptr<MvpnMapper> mapper_;
  // The tunnel that carries each tree id.
  absl::flat_hash_map<MulticastTreeId, TunnelId, SeededKeyHash<MulticastTreeId>> treeTunnel_;
};

}  // namespace Routing::Multicast
