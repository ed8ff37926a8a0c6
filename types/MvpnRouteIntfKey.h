// MvpnRouteIntfKey: a route key extended by the interface on which the route's state is
// held. The two addresses come first; the tail holds the interface id (default: the
// empty id) and the shared-tree flag.
//
// Text form: the route key's text, " on ", the interface id's text, e.g.
// "(10.0.0.1, 239.1.1.1) on Vlan5" or "(*, 239.1.1.1) on (empty)".
//
// Trivially copyable with zeroed padding. Equality and order: source, group, intfId,
// sharedTreeJoin.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <string>

#include <fmt/format.h>

#include "platform/CharRange.h"
#include "platform/net/IntfId.h"
#include "platform/net/IpAddr.h"
#include "types/MvpnRouteKey.h"

namespace Routing::Multicast {

class MvpnRouteIntfKey {
 public:
  MvpnRouteIntfKey() = default;
  MvpnRouteIntfKey(const Nevo::IpGenAddr& source, const Nevo::IpGenAddr& group, Nevo::IntfId intfId,
                   bool sharedTreeJoin)
      : source_(source), group_(group), intfId_(intfId), sharedTreeJoin_(sharedTreeJoin) {}
  MvpnRouteIntfKey(const MvpnRouteKey& key, Nevo::IntfId intfId)
      : MvpnRouteIntfKey(key.source(), key.group(), intfId, key.sharedTreeJoin()) {}

  static MvpnRouteIntfKey readFrom(Oro::CharRange& in);
  explicit MvpnRouteIntfKey(Oro::CharRange& in);

  const Nevo::IpGenAddr& source() const { return source_; }
  const Nevo::IpGenAddr& group() const { return group_; }
  Nevo::IntfId intfId() const { return intfId_; }
  bool sharedTreeJoin() const { return sharedTreeJoin_; }
  void sourceIs(const Nevo::IpGenAddr& v) { source_ = v; }
  void groupIs(const Nevo::IpGenAddr& v) { group_ = v; }
  void intfIdIs(Nevo::IntfId v) { intfId_ = v; }
  void sharedTreeJoinIs(bool v) { sharedTreeJoin_ = v; }
  // The route key without the interface.
  MvpnRouteKey routeKey() const { return MvpnRouteKey(source_, group_, sharedTreeJoin_); }

  static bool isEq(const MvpnRouteIntfKey& a, const MvpnRouteIntfKey& b) { return a == b; }
  bool isEq(const MvpnRouteIntfKey& o) const { return isEq(*this, o); }
  uint32_t hash(uint32_t seed) const;
  std::string toStrep() const;

  friend bool operator==(const MvpnRouteIntfKey&, const MvpnRouteIntfKey&) = default;
  friend auto operator<=>(const MvpnRouteIntfKey&, const MvpnRouteIntfKey&) = default;

  // Whether 56 bytes are the image of a route-interface key: two addresses, the interface,
  // a flag byte of 0 or 1, zero padding.
  static bool shmImageValid(const std::byte* p) {
    return Nevo::IpGenAddr::shmImageValid(p) && Nevo::IpGenAddr::shmImageValid(p + 20) &&
           static_cast<uint8_t>(p[48]) <= 1 && Oro::shmZeroBytes(p + 49, 7);
  }

 private:
  Nevo::IpGenAddr source_;
  Nevo::IpGenAddr group_;
  Nevo::IntfId intfId_;
  bool sharedTreeJoin_ = false;
  uint8_t pad_[7] = {0, 0, 0, 0, 0, 0, 0};
};
static_assert(sizeof(MvpnRouteIntfKey) == 56);

}  // namespace Routing::Multicast

template <>
struct Oro::ShmImage<Routing::Multicast::MvpnRouteIntfKey>
    : Oro::ShmPlainImage<Routing::Multicast::MvpnRouteIntfKey,
                         Routing::Multicast::MvpnRouteIntfKey::shmImageValid> {
  static constexpr uint64_t fingerprint = shmFingerprint(
      "Routing::Multicast::MvpnRouteIntfKey{source:Nevo::IpGenAddr,group:Nevo::IpGenAddr,"
      "intfId:Nevo::IntfId,sharedTreeJoin:bool,pad:7}",
      bytes);
  static Routing::Multicast::MvpnRouteIntfKey read(const std::byte* in) {
    return ShmPlainImage::read(in, "Routing::Multicast::MvpnRouteIntfKey");
  }
};

template <>
struct std::hash<Routing::Multicast::MvpnRouteIntfKey> {
  size_t operator()(const Routing::Multicast::MvpnRouteIntfKey& k) const {
    return k.hash(Oro::processHashSeed());
  }
};

template <>
struct fmt::formatter<Routing::Multicast::MvpnRouteIntfKey> : fmt::formatter<std::string_view> {
  auto format(const Routing::Multicast::MvpnRouteIntfKey& v, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(v.toStrep(), ctx);
  }
};
