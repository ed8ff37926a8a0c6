// The records of a tunnel encapsulation status (MvpnVrfTunnelEncapStatus): the encapsulation a
// writer chose for one customer multicast route of a VRF (MvpnEncapTunnel, keyed by its
// routeKey), and for one route on one interface (MvpnEncapIntfTunnel, keyed by its
// routeIntfKey). The payload, encapData, is the writers' business: the merge copies it whole
// and never looks inside.
//
// Text form (toStrep, used by trace lines): the runtime's value form, e.g.
//   Value('Routing::Multicast::MvpnEncapTunnel', ** {'routeKey': (10.0.0.1, 239.1.1.1),
//         'encapData': 'mpls 100'})
// with encapData quoted ('...', backslash and quote escaped by a backslash).
//
// Equality and order: key first, then encapData.
#pragma once

#include <compare>
#include <string>
#include <utility>

#include <fmt/format.h>

#include "types/MvpnRouteIntfKey.h"
#include "types/MvpnRouteKey.h"

namespace Routing::Multicast {

class MvpnEncapTunnel {
 public:
  static constexpr const char* kTypeName = "Routing::Multicast::MvpnEncapTunnel";

  MvpnEncapTunnel() = default;
  explicit MvpnEncapTunnel(const MvpnRouteKey& routeKey) : routeKey_(routeKey) {}
  // Not explicit: {key, data} reads as the record.
  MvpnEncapTunnel(const MvpnRouteKey& routeKey, std::string encapData)
      : routeKey_(routeKey), encapData_(std::move(encapData)) {}

  const MvpnRouteKey& routeKey() const { return routeKey_; }
  void routeKeyIs(const MvpnRouteKey& k) { routeKey_ = k; }
  const std::string& encapData() const { return encapData_; }
  void encapDataIs(std::string d) { encapData_ = std::move(d); }

  std::string toStrep() const;

  friend bool operator==(const MvpnEncapTunnel&, const MvpnEncapTunnel&) = default;
  friend auto operator<=>(const MvpnEncapTunnel&, const MvpnEncapTunnel&) = default;

 private:
  MvpnRouteKey routeKey_;
  std::string encapData_;
};

class MvpnEncapIntfTunnel {
 public:
  static constexpr const char* kTypeName = "Routing::Multicast::MvpnEncapIntfTunnel";

  MvpnEncapIntfTunnel() = default;
  explicit MvpnEncapIntfTunnel(const MvpnRouteIntfKey& routeIntfKey)
      : routeIntfKey_(routeIntfKey) {}
  MvpnEncapIntfTunnel(const MvpnRouteIntfKey& routeIntfKey, std::string encapData)
      : routeIntfKey_(routeIntfKey), encapData_(std::move(encapData)) {}

  const MvpnRouteIntfKey& routeIntfKey() const { return routeIntfKey_; }
  void routeIntfKeyIs(const MvpnRouteIntfKey& k) { routeIntfKey_ = k; }
  const std::string& encapData() const { return encapData_; }
  void encapDataIs(std::string d) { encapData_ = std::move(d); }

  std::string toStrep() const;

  friend bool operator==(const MvpnEncapIntfTunnel&, const MvpnEncapIntfTunnel&) = default;
  friend auto operator<=>(const MvpnEncapIntfTunnel&, const MvpnEncapIntfTunnel&) = default;

 private:
  MvpnRouteIntfKey routeIntfKey_;
  std::string encapData_;
};

// The text form of a string value: quoted, with backslash and quote escaped.
std::string quotedStrep(const std::string& s);

}  // namespace Routing::Multicast

template <>
struct fmt::formatter<Routing::Multicast::MvpnEncapTunnel> : fmt::formatter<std::string_view> {
  auto format(const Routing::Multicast::MvpnEncapTunnel& v, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(v.toStrep(), ctx);
  }
};

template <>
struct fmt::formatter<Routing::Multicast::MvpnEncapIntfTunnel> : fmt::formatter<std::string_view> {
  auto format(const Routing::Multicast::MvpnEncapIntfTunnel& v, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(v.toStrep(), ctx);
  }
};
