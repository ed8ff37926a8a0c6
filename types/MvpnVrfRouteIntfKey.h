// MvpnVrfRouteIntfKey: a route-interface key qualified by its VRF. Fields in order:
// vrfId, key.
//
// Text form: "VRF <vrf id> <route-interface key>", e.g.
// "VRF 5 (10.0.0.1, 239.1.1.1) on Vlan5". Trivially copyable; equality and order by
// vrfId, then key.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <string>

#include <fmt/format.h>

#include "platform/CharRange.h"
#include "platform/VrfId.h"
#include "types/MvpnRouteIntfKey.h"

namespace Routing::Multicast {

class MvpnVrfRouteIntfKey {
 public:
  using VrfId = Vrf::VrfIdMap::VrfId;

  MvpnVrfRouteIntfKey() = default;
  MvpnVrfRouteIntfKey(VrfId vrfId, const MvpnRouteIntfKey& key) : vrfId_(vrfId), key_(key) {}

  static MvpnVrfRouteIntfKey readFrom(Oro::CharRange& in);
  explicit MvpnVrfRouteIntfKey(Oro::CharRange& in);

  VrfId vrfId() const { return vrfId_; }
  const MvpnRouteIntfKey& key() const { return key_; }
  void vrfIdIs(VrfId v) { vrfId_ = v; }
  void keyIs(const MvpnRouteIntfKey& v) { key_ = v; }

  static bool isEq(const MvpnVrfRouteIntfKey& a, const MvpnVrfRouteIntfKey& b) { return a == b; }
  uint32_t hash(uint32_t seed) const {
    return Oro::hashFinish(Oro::hashMix(Oro::hashMix(seed, vrfId_.value()), key_.hash(seed)));
  }
  std::string toStrep() const;

  friend bool operator==(const MvpnVrfRouteIntfKey&, const MvpnVrfRouteIntfKey&) = default;
  friend auto operator<=>(const MvpnVrfRouteIntfKey&, const MvpnVrfRouteIntfKey&) = default;

 private:
  VrfId vrfId_;
  MvpnRouteIntfKey key_;
};

}  // namespace Routing::Multicast

template <>
struct std::hash<Routing::Multicast::MvpnVrfRouteIntfKey> {
  size_t operator()(const Routing::Multicast::MvpnVrfRouteIntfKey& k) const {
    return k.hash(Oro::kFixedHashSeed);
  }
};

template <>
struct fmt::formatter<Routing::Multicast::MvpnVrfRouteIntfKey> : fmt::formatter<std::string_view> {
  auto format(const Routing::Multicast::MvpnVrfRouteIntfKey& v, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(v.toStrep(), ctx);
  }
};
