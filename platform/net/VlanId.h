// A VLAN id or none: 1..4094 name a VLAN, 0 names none. 4095 (reserved by 802.1Q) and above
// are refused with RangeException "Bridging::VlanIdOrNone::value > 4094 not allowed", whether
// they come from the constructor, valueIs or the parser; a refused value changes nothing.
//
// Text form: the decimal number ("100", "0" for none). Trivially copyable; ordered as a
// number.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <string>

#include <fmt/format.h>

#include "platform/CharRange.h"
#include "platform/Hash.h"

namespace Bridging {

class VlanIdOrNone {
 public:
  static constexpr uint16_t kMax = 4094;

  constexpr VlanIdOrNone() = default;
  // Wide on purpose: a 32-bit interface number or a parsed 64-bit value is range-checked
  // whole instead of being truncated into range first.
  explicit VlanIdOrNone(uint64_t value) : value_(checked(value)) {}

  static VlanIdOrNone readFrom(Oro::CharRange& in) { return VlanIdOrNone(in.readUnsigned()); }
  explicit VlanIdOrNone(Oro::CharRange& in) : value_(readFrom(in).value_) { in.expectEnd(); }

  constexpr uint16_t value() const { return value_; }
  // Reads as its number (0 for none) wherever a VLAN number is expected.
  constexpr operator uint16_t() const { return value_; }
  void valueIs(uint64_t value) { value_ = checked(value); }
  constexpr bool isNone() const { return value_ == 0; }

  std::string toStrep() const { return std::to_string(value_); }
  constexpr uint32_t hash(uint32_t seed) const { return Oro::hashU32(value_, seed); }

  friend constexpr bool operator==(VlanIdOrNone, VlanIdOrNone) = default;
  friend constexpr auto operator<=>(VlanIdOrNone, VlanIdOrNone) = default;

 private:
  static uint16_t checked(uint64_t value) {
    if (value > kMax) [[unlikely]]
      throwOutOfRange();
    return static_cast<uint16_t>(value);
  }
  [[noreturn]] static void throwOutOfRange();

  uint16_t value_ = 0;
};

}  // namespace Bridging

template <>
struct std::hash<Bridging::VlanIdOrNone> {
  size_t operator()(Bridging::VlanIdOrNone v) const { return v.hash(Oro::processHashSeed()); }
};

template <>
struct fmt::formatter<Bridging::VlanIdOrNone> : fmt::formatter<uint16_t> {
  auto format(Bridging::VlanIdOrNone v, fmt::format_context& ctx) const {
    return fmt::formatter<uint16_t>::format(v.value(), ctx);
  }
};
