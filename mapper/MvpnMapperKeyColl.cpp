#include "mapper/MvpnMapperKeyColl.h"

namespace Routing::Multicast {

namespace {

// One seed per collection type: every collection of a type hashes alike, and a type's
// layout says nothing about another's.
uint32_t treeIdCollSeed() {
  static const uint32_t seed = namedHashSeed("TunnelIdToTreeIdColl::keyColl");
  return seed;
}
uint32_t routeKeyCollSeed() {
  static const uint32_t seed = namedHashSeed("MvpnVrfRouteKeyColl::keyColl");
  return seed;
}
uint32_t routeIntfKeyCollSeed() {
  static const uint32_t seed = namedHashSeed("MvpnVrfRouteIntfKeyColl::keyColl");
  return seed;
}

}  // namespace

TunnelIdToTreeIdColl::TunnelIdToTreeIdColl(TunnelId tunnelId)
    : TunnelKeyColl(tunnelId, treeIdCollSeed()) {}

Oro::Ptr<TunnelIdToTreeIdColl> TunnelIdToTreeIdColl::TunnelIdToTreeIdCollIs(TunnelId tunnelId) {
  return Oro::makePtr<TunnelIdToTreeIdColl>(tunnelId);
}

MvpnVrfRouteKeyColl::MvpnVrfRouteKeyColl(TunnelId tunnelId)
    : TunnelKeyColl(tunnelId, routeKeyCollSeed()) {}

MvpnVrfRouteIntfKeyColl::MvpnVrfRouteIntfKeyColl(TunnelId tunnelId)
    : TunnelKeyColl(tunnelId, routeIntfKeyCollSeed()) {}

Oro::Ptr<TunnelIdToTreeIdColl> tunnelIdToTreeIdCollFactory(TunnelId tunnelId) {
  return TunnelIdToTreeIdColl::TunnelIdToTreeIdCollIs(tunnelId);
}

}  // namespace Routing::Multicast
