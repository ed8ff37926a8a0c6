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
#include <string_view>

#include <fmt/format.h>

#include "platform/CharRange.h"
#include "platform/Hash.h"
#include "platform/net/VrfId.h"
#include "platform/shm/ShmImage.h"

namespace Routing::Multicast {

// The fields of a VRF-qualified key, with the padding an inner key of wider alignment would
// leave made explicit and zero, so that a key's bytes are a function of its value.
template <class Inner, size_t Pad>
struct VrfKeyFields {
  Vrf::VrfIdMap::VrfId vrfId;
  uint8_t pad[Pad] = {};
  Inner key;
  friend bool operator==(const VrfKeyFields&, const VrfKeyFields&) = default;
  friend auto operator<=>(const VrfKeyFields&, const VrfKeyFields&) = default;
};
template <class Inner>
struct VrfKeyFields<Inner, 0> {
  Vrf::VrfIdMap::VrfId vrfId;
  Inner key;
  friend bool operator==(const VrfKeyFields&, const VrfKeyFields&) = default;
  friend auto operator<=>(const VrfKeyFields&, const VrfKeyFields&) = default;
};

// The type name a VRF-qualified key goes by in messages: each instance's header names its own.
template <class Inner>
inline constexpr std::string_view kVrfQualifiedKeyName = "Routing::Multicast::VrfQualifiedKey";

template <class Inner>
class VrfQualifiedKey {
 public:
  using VrfId = Vrf::VrfIdMap::VrfId;

  VrfQualifiedKey() = default;
  VrfQualifiedKey(VrfId vrfId, const Inner& key) { f_.vrfId = vrfId; f_.key = key; }

  static VrfQualifiedKey readFrom(Oro::CharRange& in) {
    in.expect("VRF ");
    const VrfId vrf = in.readKeyField(VrfId::readFrom);
    in.expect(" ");
    return VrfQualifiedKey(vrf, Inner::readFrom(in));
  }
  explicit VrfQualifiedKey(Oro::CharRange& in) {
    *this = readFrom(in);
    in.expectEnd();
  }

  VrfId vrfId() const { return f_.vrfId; }
  const Inner& key() const { return f_.key; }
  void vrfIdIs(VrfId v) { f_.vrfId = v; }
  void keyIs(const Inner& v) { f_.key = v; }

  static bool isEq(const VrfQualifiedKey& a, const VrfQualifiedKey& b) { return a == b; }
  bool isEq(const VrfQualifiedKey& o) const { return isEq(*this, o); }
  uint32_t hash(uint32_t seed) const {
    return Oro::hashFinish(Oro::hashMix(Oro::hashMix(seed, f_.vrfId.value()), f_.key.hash(seed)));
  }
  std::string toStrep() const { return "VRF " + f_.vrfId.toStrep() + " " + f_.key.toStrep(); }

  friend bool operator==(const VrfQualifiedKey&, const VrfQualifiedKey&) = default;
  friend auto operator<=>(const VrfQualifiedKey&, const VrfQualifiedKey&) = default;

  // The image of a stored key: the VRF id (any value), zero padding, the inner key's image.
  static bool shmImageValid(const std::byte* p) {
    return Oro::shmZeroBytes(p + sizeof(VrfId), kPad) && Inner::shmImageValid(p + sizeof(VrfId) + kPad);
  }

 private:
  static constexpr size_t kPad = alignof(Inner) > sizeof(VrfId) ? alignof(Inner) - sizeof(VrfId) : 0;
  VrfKeyFields<Inner, kPad> f_;
};

}  // namespace Routing::Multicast

template <class Inner>
struct Oro::ShmImage<Routing::Multicast::VrfQualifiedKey<Inner>>
    : Oro::ShmPlainImage<Routing::Multicast::VrfQualifiedKey<Inner>,
                         Routing::Multicast::VrfQualifiedKey<Inner>::shmImageValid> {
  static constexpr uint64_t fingerprint =
      shmFingerprint(shmFingerprint("Routing::Multicast::VrfQualifiedKey{vrfId:u32,pad,key}",
                                    sizeof(Routing::Multicast::VrfQualifiedKey<Inner>)),
                     Oro::ShmImage<Inner>::fingerprint);
  static Routing::Multicast::VrfQualifiedKey<Inner> read(const std::byte* in) {
    return ShmPlainImage<Routing::Multicast::VrfQualifiedKey<Inner>,
                         Routing::Multicast::VrfQualifiedKey<Inner>::shmImageValid>::
        read(in, Routing::Multicast::kVrfQualifiedKeyName<Inner>);
  }
};

template <class Inner>
struct std::hash<Routing::Multicast::VrfQualifiedKey<Inner>> {
  size_t operator()(const Routing::Multicast::VrfQualifiedKey<Inner>& k) const {
    return k.hash(Oro::processHashSeed());
  }
};

template <class Inner>
struct fmt::formatter<Routing::Multicast::VrfQualifiedKey<Inner>>
    : fmt::formatter<std::string_view> {
  auto format(const Routing::Multicast::VrfQualifiedKey<Inner>& v, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(v.toStrep(), ctx);
  }
};
