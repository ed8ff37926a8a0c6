// MvpnVrfRouteKey: a route key qualified by its VRF ("VRF 5 (10.0.0.1, 239.1.1.1)"), so that
// the routes of all VRFs can share one collection (the tunnel mapper's maps).
#pragma once

#include "types/MvpnRouteKey.h"
#include "types/VrfQualifiedKey.h"

namespace Routing::Multicast {

template <>
inline constexpr std::string_view kVrfQualifiedKeyName<MvpnRouteKey> =
    "Routing::Multicast::MvpnVrfRouteKey";
using MvpnVrfRouteKey = VrfQualifiedKey<MvpnRouteKey>;

}  // namespace Routing::Multicast
