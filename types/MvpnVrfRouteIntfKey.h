// MvpnVrfRouteIntfKey: a route-interface key qualified by its VRF
// ("VRF 5 (10.0.0.1, 239.1.1.1) on Vlan5").
#pragma once

#include "types/MvpnRouteIntfKey.h"
#include "types/VrfQualifiedKey.h"

namespace Routing::Multicast {

template <>
inline constexpr std::string_view kVrfQualifiedKeyName<MvpnRouteIntfKey> =
    "Routing::Multicast::MvpnVrfRouteIntfKey";
using MvpnVrfRouteIntfKey = VrfQualifiedKey<MvpnRouteIntfKey>;

}  // namespace Routing::Multicast
