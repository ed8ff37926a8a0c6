// MvpnVrfRouteIntfKey: a route-interface key qualified by its VRF
// ("VRF 5 (10.0.0.1, 239.1.1.1) on Vlan5"). The key has 4 bytes of padding after the
// VRF id: compare and hash it field by field, never as raw bytes.
#pragma once

#include "types/MvpnRouteIntfKey.h"
#include "types/VrfQualifiedKey.h"

namespace Routing::Multicast {

using MvpnVrfRouteIntfKey = VrfQualifiedKey<MvpnRouteIntfKey>;

}  // namespace Routing::Multicast
