// Interface identifier: one 64-bit value. 0 is the empty id (no interface). A typed id
// keeps its interface type in the top 8 bits and its number in the low 32 bits, with
// bits 32..55 zero; any other value is an opaque id.
//
// Text form: "(empty)" for the empty id; "<TypeName><number>" for typed ids, e.g.
// "Ethernet3", "Vlan100", "Loopback0", "Tunnel7", "Port-Channel2"; "IntfId(<decimal
// value>)" for an opaque value. The parser reads all three back.
//
// Trivially copyable (stored in shared memory); ordered and compared by the 64-bit value.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <string>

#include <fmt/format.h>

#include "platform/CharRange.h"
#include "platform/Hash.h"
#include "platform/shm/ShmImage.h"

namespace Nevo {

class IntfId {
 public:
  enum class Type : uint8_t {
    none = 0,
    ethernet = 1,
    vlan = 2,
    loopback = 3,
    tunnel = 4,
    portChannel = 5,
  };
  static constexpr unsigned kTypeShift = 56;

  constexpr IntfId() = default;
  constexpr explicit IntfId(uint64_t value) : value_(value) {}
  constexpr IntfId(Type type, uint32_t number)
      : value_((uint64_t{static_cast<uint8_t>(type)} << kTypeShift) | number) {}

  static constexpr IntfId ethernet(uint32_t n) { return IntfId(Type::ethernet, n); }
  static constexpr IntfId vlan(uint32_t n) { return IntfId(Type::vlan, n); }
  static constexpr IntfId loopback(uint32_t n) { return IntfId(Type::loopback, n); }
  static constexpr IntfId tunnel(uint32_t n) { return IntfId(Type::tunnel, n); }

  static IntfId readFrom(Oro::CharRange& in);
  explicit IntfId(Oro::CharRange& in);

  constexpr uint64_t value() const { return value_; }
  constexpr bool empty() const { return value_ == 0; }
  // The type of a typed id; Type::none for the empty id and for opaque values.
  Type type() const;
  constexpr uint32_t number() const { return static_cast<uint32_t>(value_); }
  bool isVlan() const { return type() == Type::vlan; }
  // The id read as a VLAN interface: its number field, whatever its type. Callers that
  // need a VLAN id check isVlan() and the 802.1Q range themselves.
  constexpr uint32_t vlanId() const { return number(); }

  std::string toStrep() const;
  uint32_t hash(uint32_t seed) const { return Oro::hashU64(value_, seed); }

  friend bool operator==(const IntfId&, const IntfId&) = default;
  friend auto operator<=>(const IntfId&, const IntfId&) = default;

 private:
  uint64_t value_ = 0;
};

}  // namespace Nevo

template <>
struct Oro::ShmImage<Nevo::IntfId> : Oro::ShmPlainImage<Nevo::IntfId, Oro::shmAnyImage> {
  static constexpr uint64_t fingerprint = shmFingerprint("Nevo::IntfId{value:u64}", bytes);
  static Nevo::IntfId read(const std::byte* in) { return ShmPlainImage::read(in, "Nevo::IntfId"); }
};

template <>
struct std::hash<Nevo::IntfId> {
  size_t operator()(const Nevo::IntfId& v) const { return v.hash(Oro::processHashSeed()); }
};

template <>
struct fmt::formatter<Nevo::IntfId> : fmt::formatter<std::string_view> {
  auto format(const Nevo::IntfId& v, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(v.toStrep(), ctx);
  }
};
