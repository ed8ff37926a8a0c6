// MvpnRoute: one customer multicast route learnt by an MVPN writer in a VRF: its key,
// the prefix of its upstream multicast hop (UMH) and its route flags.
//
// Invariant (checked by routeFlagsIs and handleRouteFlags, not by construction or
// parsing): sharedTreeJoin() xor (routeFlags() has a bit set). A (*,G) join carries no
// flags; an (S,G) route carries at least one.
//
// Display form (toStrep): "<key>: UMH: <prefix>" followed by the flag suffixes, e.g.
// "(10.0.0.1, 239.1.1.1): UMH: 10.0.0.0/8, (S,G), discovered". Value form (toValueForm,
// read back by the constructor from a CharRange):
//   Value('Routing::Multicast::MvpnRoute', ** {'key': <key>, 'umhPrefix': <prefix>,
//         'routeFlags': <flags value form>})
// Order: key, then umhPrefix, then the flag byte.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "platform/CharRange.h"
#include "platform/net/IpAddr.h"
#include "types/MvpnFlagSet.h"
#include "types/MvpnRouteKey.h"

namespace Routing::Multicast {

class MvpnRoute {
 public:
  static constexpr std::string_view kTypeName = "Routing::Multicast::MvpnRoute";
  struct RouteFlagsName {
    static constexpr std::string_view kTypeName = "Routing::Multicast::MvpnRoute::RouteFlags";
  };
  using RouteFlags = MvpnFlagSet<RouteFlagsName>;

  MvpnRoute() = default;
  MvpnRoute(const MvpnRouteKey& key, const Nevo::IpGenPrefix& umhPrefix, RouteFlags routeFlags)
      : key_(key), umhPrefix_(umhPrefix), routeFlags_(routeFlags) {}

  static MvpnRoute readFrom(Oro::CharRange& in);
  explicit MvpnRoute(Oro::CharRange& in);

  const MvpnRouteKey& key() const { return key_; }
  const Nevo::IpGenPrefix& umhPrefix() const { return umhPrefix_; }
  RouteFlags routeFlags() const { return routeFlags_; }
  bool sharedTreeJoin() const { return key_.sharedTreeJoin(); }

  // Stores flags and checks the invariant; storing the flags already held does nothing.
  void routeFlagsIs(RouteFlags flags);
  // Checks the invariant on the stored key and flags.
  void handleRouteFlags() const;

  static bool isEq(const MvpnRoute& a, const MvpnRoute& b) { return a == b; }
  bool isEq(const MvpnRoute& o) const { return isEq(*this, o); }
  uint32_t hash(uint32_t seed) const;
  std::string toStrep() const;
  std::string toValueForm() const;

  friend bool operator==(const MvpnRoute&, const MvpnRoute&) = default;
  friend auto operator<=>(const MvpnRoute&, const MvpnRoute&) = default;

 private:
  MvpnRouteKey key_;
  Nevo::IpGenPrefix umhPrefix_;
  RouteFlags routeFlags_;
};

}  // namespace Routing::Multicast

template <>
struct fmt::formatter<Routing::Multicast::MvpnRoute> : fmt::formatter<std::string_view> {
  auto format(const Routing::Multicast::MvpnRoute& v, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(v.toStrep(), ctx);
  }
};
