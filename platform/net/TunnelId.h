// The tunnel table's identifier of a provider tunnel: one 64-bit value. The default, 0, names
// no tunnel.
//
// Text form: the decimal value ("42"); the parser raises RangeException for a number that
// does not fit in 64 bits. Trivially copyable; compared and ordered as an unsigned number.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <string>

#include <fmt/format.h>

#include "platform/CharRange.h"
#include "platform/Hash.h"

namespace Tunnel::TunnelTable {

class TunnelId {
 public:
  constexpr TunnelId() = default;
  constexpr explicit TunnelId(uint64_t value) : value_(value) {}

  static TunnelId readFrom(Oro::CharRange& in) { return TunnelId(in.readUnsigned()); }
  explicit TunnelId(Oro::CharRange& in) : value_(readFrom(in).value_) { in.expectEnd(); }

  constexpr uint64_t value() const { return value_; }
  constexpr bool isValid() const { return value_ != 0; }

  std::string toStrep() const { return std::to_string(value_); }
  constexpr uint32_t hash(uint32_t seed) const { return Oro::hashU64(value_, seed); }

  friend constexpr bool operator==(TunnelId, TunnelId) = default;
  friend constexpr auto operator<=>(TunnelId, TunnelId) = default;

 private:
  uint64_t value_ = 0;
};

}  // namespace Tunnel::TunnelTable

template <>
struct std::hash<Tunnel::TunnelTable::TunnelId> {
  size_t operator()(Tunnel::TunnelTable::TunnelId v) const {
    return v.hash(Oro::processHashSeed());
  }
};

template <>
struct fmt::formatter<Tunnel::TunnelTable::TunnelId> : fmt::formatter<uint64_t> {
  auto format(Tunnel::TunnelTable::TunnelId v, fmt::format_context& ctx) const {
    return fmt::formatter<uint64_t>::format(v.value(), ctx);
  }
};
