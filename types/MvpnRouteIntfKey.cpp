#include "types/MvpnRouteIntfKey.h"

#include <type_traits>

namespace Routing::Multicast {

static_assert(std::is_trivially_copyable_v<MvpnRouteIntfKey>);

MvpnRouteIntfKey MvpnRouteIntfKey::readFrom(Oro::CharRange& in) {
  MvpnRouteKey key = MvpnRouteKey::readFrom(in);
  in.expect(" on ");
  return MvpnRouteIntfKey(key, in.readKeyField(Nevo::IntfId::readFrom));
}

MvpnRouteIntfKey::MvpnRouteIntfKey(Oro::CharRange& in) {
  *this = readFrom(in);
  in.expectEnd();
}

uint32_t MvpnRouteIntfKey::hash(uint32_t seed) const {
  uint32_t h = group_.mixInto(source_.mixInto(seed));
  h = Oro::hashMix64(h, intfId_.value());
  return Oro::hashFinish(Oro::hashMix(h, sharedTreeJoin_ ? 1u : 0u));
}

std::string MvpnRouteIntfKey::toStrep() const {
  return fmt::format("{} on {}", routeKey(), intfId_);
}

}  // namespace Routing::Multicast
