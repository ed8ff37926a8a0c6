#include "merge/MvpnTunnelEncapStatus.h"

#include <utility>

namespace Routing::Multicast {

MvpnVrfTunnelEncapStatus::MvpnVrfTunnelEncapStatus(VrfId vrfId)
    : vrfId_(vrfId),
      encapTunnel_("encapTunnel of VRF " + vrfId.toStrep()),
      encapIntfTunnel_("encapIntfTunnel of VRF " + vrfId.toStrep()) {}

std::string_view MvpnVrfTunnelEncapStatus::typeName() const {
  return "Routing::Multicast::MvpnVrfTunnelEncapStatus";
}

std::optional<MvpnEncapTunnel> MvpnVrfTunnelEncapStatus::encapTunnel(
    const MvpnRouteKey& key) const {
  const MvpnEncapTunnel* r = encapTunnel_.find(key);
  return r ? std::optional<MvpnEncapTunnel>(*r) : std::nullopt;
}

void MvpnVrfTunnelEncapStatus::encapTunnelIs(const MvpnEncapTunnel& record) {
  const MvpnRouteKey& key = encapTunnel_.put(record.routeKey(), record).routeKey();
  publishKey(encapTunnelAttr, key);
}

void MvpnVrfTunnelEncapStatus::encapTunnelDel(const MvpnRouteKey& key) {
  const MvpnRouteKey k = key;  // `key` may live in the removed record
  if (encapTunnel_.remove(k)) publishKey(encapTunnelAttr, k);
}

std::optional<MvpnEncapIntfTunnel> MvpnVrfTunnelEncapStatus::encapIntfTunnel(
    const MvpnRouteIntfKey& key) const {
  const MvpnEncapIntfTunnel* r = encapIntfTunnel_.find(key);
  return r ? std::optional<MvpnEncapIntfTunnel>(*r) : std::nullopt;
}

void MvpnVrfTunnelEncapStatus::encapIntfTunnelIs(const MvpnEncapIntfTunnel& record) {
  const MvpnRouteIntfKey key = record.routeIntfKey();
  encapIntfTunnel_.put(key, record);
  publishKey(encapIntfTunnelAttr, key);
}

void MvpnVrfTunnelEncapStatus::encapIntfTunnelDel(const MvpnRouteIntfKey& key) {
  const MvpnRouteIntfKey k = key;
  if (encapIntfTunnel_.remove(k)) publishKey(encapIntfTunnelAttr, k);
}

MvpnTunnelEncapStatus::MvpnTunnelEncapStatus(std::string name)
    : name_(std::move(name)), vrfStatus_("vrfStatus of " + name_) {}

Oro::Ptr<MvpnTunnelEncapStatus> MvpnTunnelEncapStatus::MvpnTunnelEncapStatusIs(
    const std::string& name) {
  return Oro::makePtr<MvpnTunnelEncapStatus>(name);
}

std::string_view MvpnTunnelEncapStatus::typeName() const {
  return "Routing::Multicast::MvpnTunnelEncapStatus";
}

Oro::Ptr<MvpnVrfTunnelEncapStatus> MvpnTunnelEncapStatus::vrfStatus(VrfId vrfId) const {
  const Oro::Ptr<MvpnVrfTunnelEncapStatus>* p = vrfStatus_.find(vrfId);
  return p ? *p : nullptr;
}

Oro::Ptr<MvpnVrfTunnelEncapStatus> MvpnTunnelEncapStatus::vrfStatusIs(VrfId vrfId) {
  if (const Oro::Ptr<MvpnVrfTunnelEncapStatus>* p = vrfStatus_.find(vrfId)) return *p;
  Oro::Ptr<MvpnVrfTunnelEncapStatus> entity = Oro::makePtr<MvpnVrfTunnelEncapStatus>(vrfId);
  vrfStatus_.put(vrfId, entity);
  publishKey(vrfStatusAttr, vrfId);
  return entity;
}

void MvpnTunnelEncapStatus::vrfStatusDel(VrfId vrfId) {
  // Subscribers told of the removal may still read the departing entity: it lives in
  // `removed` until they are done.
  Oro::Ptr<MvpnVrfTunnelEncapStatus> removed;
  if (vrfStatus_.remove(vrfId, &removed)) publishKey(vrfStatusAttr, vrfId);
}

Oro::Ptr<MvpnTunnelEncapStatus> mvpnTunnelEncapStatusFactory(const std::string& name) {
  return MvpnTunnelEncapStatus::MvpnTunnelEncapStatusIs(name);
}

}  // namespace Routing::Multicast
