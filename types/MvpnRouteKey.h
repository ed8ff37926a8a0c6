// MvpnRouteKey: the key of one customer multicast route in a VRF: source, group and
// whether the state is a shared-tree (*,G) join (true) or a source-tree (S,G) state.
//
// Text form: "(S, G)" for source-tree state, e.g. "(10.0.0.1, 239.1.1.1)"; "(*, G)" for a
// shared-tree join whose source is the zero address of the group's family; "(S, G, *)"
// for a shared-tree join with any other source. The parser reads all three back exactly.
//
// Trivially copyable with zeroed padding (kept in shared memory). Equality and order
// use source, group, sharedTreeJoin in that order.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <string>

#include <fmt/format.h>

#include "platform/CharRange.h"
#include "platform/Hash.h"
#include "platform/net/IpAddr.h"

namespace Routing::Multicast {

class MvpnRouteKey {
 public:
  MvpnRouteKey() = default;
  MvpnRouteKey(const Nevo::IpGenAddr& source, const Nevo::IpGenAddr& group, bool sharedTreeJoin)
      : source_(source), group_(group), sharedTreeJoin_(sharedTreeJoin) {}

  // Reads one key, leaving the position behind it.
  static MvpnRouteKey readFrom(Oro::CharRange& in);
  // Parses all of in; trailing characters are a ParseException.
  explicit MvpnRouteKey(Oro::CharRange& in);

  const Nevo::IpGenAddr& source() const { return source_; }
  const Nevo::IpGenAddr& group() const { return group_; }
  bool sharedTreeJoin() const { return sharedTreeJoin_; }
  void sourceIs(const Nevo::IpGenAddr& v) { source_ = v; }
  void groupIs(const Nevo::IpGenAddr& v) { group_ = v; }
  void sharedTreeJoinIs(bool v) { sharedTreeJoin_ = v; }

  // Checks a key assembled from raw fields (for example copied out of shared memory):
  // both addresses must carry a known family.
  void handleInit() const;

  static bool isEq(const MvpnRouteKey& a, const MvpnRouteKey& b) { return a == b; }
  bool isEq(const MvpnRouteKey& o) const { return isEq(*this, o); }
  // Folds all fields into a running hash state (no finish); see Nevo::IpGenAddr::mixInto.
  uint32_t mixInto(uint32_t h) const {
    return Oro::hashMix(group_.mixInto(source_.mixInto(h)), sharedTreeJoin_ ? 1u : 0u);
  }
  uint32_t hash(uint32_t seed) const { return Oro::hashFinish(mixInto(seed)); }
  std::string toStrep() const;

  friend bool operator==(const MvpnRouteKey&, const MvpnRouteKey&) = default;
  friend auto operator<=>(const MvpnRouteKey&, const MvpnRouteKey&) = default;

  // Whether 44 bytes are the image of a route key: two addresses, a flag byte of 0 or 1,
  // zero padding.
  static bool shmImageValid(const std::byte* p) {
    return Nevo::IpGenAddr::shmImageValid(p) && Nevo::IpGenAddr::shmImageValid(p + 20) &&
           static_cast<uint8_t>(p[40]) <= 1 && Oro::shmZeroBytes(p + 41, 3);
  }

 private:
  Nevo::IpGenAddr source_;
  Nevo::IpGenAddr group_;
  bool sharedTreeJoin_ = false;
  uint8_t pad_[3] = {0, 0, 0};
};
static_assert(sizeof(MvpnRouteKey) == 44);

}  // namespace Routing::Multicast

template <>
struct Oro::ShmImage<Routing::Multicast::MvpnRouteKey>
    : Oro::ShmPlainImage<Routing::Multicast::MvpnRouteKey,
                         Routing::Multicast::MvpnRouteKey::shmImageValid> {
  static constexpr uint64_t fingerprint = shmFingerprint(
      "Routing::Multicast::MvpnRouteKey{source:Nevo::IpGenAddr,group:Nevo::IpGenAddr,"
      "sharedTreeJoin:bool,pad:3}",
      bytes);
  static Routing::Multicast::MvpnRouteKey read(const std::byte* in) {
    return ShmPlainImage::read(in, "Routing::Multicast::MvpnRouteKey");
  }
};

template <>
struct std::hash<Routing::Multicast::MvpnRouteKey> {
  size_t operator()(const Routing::Multicast::MvpnRouteKey& k) const {
    return k.hash(Oro::processHashSeed());
  }
};

template <>
struct fmt::formatter<Routing::Multicast::MvpnRouteKey> : fmt::formatter<std::string_view> {
  auto format(const Routing::Multicast::MvpnRouteKey& v, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(v.toStrep(), ctx);
  }
};
