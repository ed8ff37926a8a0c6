#include "types/MvpnVrfRouteIntfKey.h"

#include <type_traits>

namespace Routing::Multicast {

static_assert(std::is_trivially_copyable_v<MvpnVrfRouteIntfKey>);

MvpnVrfRouteIntfKey MvpnVrfRouteIntfKey::readFrom(Oro::CharRange& in) {
  in.expect("VRF ");
  VrfId vrf = VrfId::readFrom(in);
  in.expect(" ");
  return MvpnVrfRouteIntfKey(vrf, MvpnRouteIntfKey::readFrom(in));
}

MvpnVrfRouteIntfKey::MvpnVrfRouteIntfKey(Oro::CharRange& in) {
  *this = readFrom(in);
  in.expectEnd();
}

std::string MvpnVrfRouteIntfKey::toStrep() const {
  return fmt::format("VRF {} {}", vrfId_, key_);
}

}  // namespace Routing::Multicast
