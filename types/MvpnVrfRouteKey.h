// MvpnVrfRouteKey: a route key qualified by its VRF, so that the routes of all VRFs can
// share one collection. Fields in order: vrfId, key.
//
// Text form: "VRF <vrf id> <route key>", e.g. "VRF 5 (10.0.0.1, 239.1.1.1)".
// Trivially copyable; equality and order by vrfId, then key.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <string>

#include <fmt/format.h>

#include "platform/CharRange.h"
#include "platform/VrfId.h"
#include "types/MvpnRouteKey.h"

namespace Routing::Multicast {

class MvpnVrfRouteKey {
 public:
  using VrfId = Vrf::VrfIdMap::VrfId;

  MvpnVrfRouteKey() = default;
  MvpnVrfRouteKey(VrfId vrfId, const MvpnRouteKey& key) : vrfId_(vrfId), key_(key) {}

  static MvpnVrfRouteKey readFrom(Oro::CharRange& in);
  explicit MvpnVrfRouteKey(Oro::CharRange& in);

  VrfId vrfId() const { return vrfId_; }
  const MvpnRouteKey& key() const { return key_; }
  void vrfIdIs(VrfId v) { vrfId_ = v; }
  void keyIs(const MvpnRouteKey& v) { key_ = v; }

  static bool isEq(const MvpnVrfRouteKey& a, const MvpnVrfRouteKey& b) { return a == b; }
  uint32_t hash(uint32_t seed) const {
    return Oro::hashFinish(key_.mixInto(Oro::hashMix(seed, vrfId_.value())));
  }
  std::string toStrep() const;

  friend bool operator==(const MvpnVrfRouteKey&, const MvpnVrfRouteKey&) = default;
  friend auto operator<=>(const MvpnVrfRouteKey&, const MvpnVrfRouteKey&) = default;

 private:
  VrfId vrfId_;
  MvpnRouteKey key_;
};

}  // namespace Routing::Multicast

template <>
struct std::hash<Routing::Multicast::MvpnVrfRouteKey> {
  size_t operator()(const Routing::Multicast::MvpnVrfRouteKey& k) const {
    return k.hash(Oro::kFixedHashSeed);
  }
};

template <>
struct fmt::formatter<Routing::Multicast::MvpnVrfRouteKey> : fmt::formatter<std::string_view> {
  auto format(const Routing::Multicast::MvpnVrfRouteKey& v, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(v.toStrep(), ctx);
  }
};
