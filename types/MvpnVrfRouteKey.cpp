#include "types/MvpnVrfRouteKey.h"

#include <type_traits>

namespace Routing::Multicast {

static_assert(std::is_trivially_copyable_v<MvpnVrfRouteKey>);

MvpnVrfRouteKey MvpnVrfRouteKey::readFrom(Oro::CharRange& in) {
  in.expect("VRF ");
  VrfId vrf = VrfId::readFrom(in);
  in.expect(" ");
  return MvpnVrfRouteKey(vrf, MvpnRouteKey::readFrom(in));
}

MvpnVrfRouteKey::MvpnVrfRouteKey(Oro::CharRange& in) {
  *this = readFrom(in);
  in.expectEnd();
}

std::string MvpnVrfRouteKey::toStrep() const {
  return fmt::format("VRF {} {}", vrfId_, key_);
}

}  // namespace Routing::Multicast
