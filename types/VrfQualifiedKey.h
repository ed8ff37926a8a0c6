// VrfQualifiedKey<Inner>: a key qualified by its VRF, so that the keys of all VRFs can share one
// collection (MvpnVrfRouteKey and MvpnVrfRouteIntfKey are its instances). Fields in order:
// vrfId, key.
//
// Text form: "VRF <vrf id> <inner key's text>", e.g. "VRF 5 (10.0.0.1, 239.1.1.1)"; the parser
// reads it back and, as a whole-text constructor, rejects trailing characters. Trivially
// copyable when Inner is; equality and order by vrfId, then key.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <string>

#include <fmt/format.h>

#include "platform/CharRange.h"
#include "platform/Hash.h"
#include "platform/net/VrfId.h"

namespace Routing::Multicast {

template <class Inner>
class VrfQualifiedKey {
 public:
  using VrfId = Vrf::VrfIdMap::VrfId;

  VrfQualifiedKey() = default;
  VrfQualifiedKey(VrfId vrfId, const Inner& key) : vrfId_(vrfId), key_(key) {}

  static VrfQualifiedKey readFrom(Oro::CharRange& in) {
    in.expect("VRF ");
    const VrfId vrf = VrfId::readFrom(in);
    in.expect(" ");
    return VrfQualifiedKey(vrf, Inner::readFrom(in));
  }
  explicit VrfQualifiedKey(Oro::CharRange& in) {
    *this = readFrom(in);
    in.expectEnd();
  }

  VrfId vrfId() const { return vrfId_; }
  const Inner& key() const { return key_; }
  void vrfIdIs(VrfId v) { vrfId_ = v; }
  void keyIs(const Inner& v) { key_ = v; }

  static bool isEq(const VrfQualifiedKey& a, const VrfQualifiedKey& b) { return a == b; }
  uint32_t hash(uint32_t seed) const {
    return Oro::hashFinish(Oro::hashMix(Oro::hashMix(seed, vrfId_.value()), key_.hash(seed)));
  }
  std::string toStrep() const { return "VRF " + vrfId_.toStrep() + " " + key_.toStrep(); }

  friend bool operator==(const VrfQualifiedKey&, const VrfQualifiedKey&) = default;
  friend auto operator<=>(const VrfQualifiedKey&, const VrfQualifiedKey&) = default;

 private:
  VrfId vrfId_;
  Inner key_;
};

}  // namespace Routing::Multicast

template <class Inner>
struct std::hash<Routing::Multicast::VrfQualifiedKey<Inner>> {
  size_t operator()(const Routing::Multicast::VrfQualifiedKey<Inner>& k) const {
    return k.hash(Oro::kFixedHashSeed);
  }
};

template <class Inner>
struct fmt::formatter<Routing::Multicast::VrfQualifiedKey<Inner>>
    : fmt::formatter<std::string_view> {
  auto format(const Routing::Multicast::VrfQualifiedKey<Inner>& v, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(v.toStrep(), ctx);
  }
};
