// The VRF identifier: a 32-bit unsigned number, the key of every per-VRF collection.
// The default is the invalid VRF id 16777215 (0xFFFFFF).
//
// Text form: the decimal number ("12"); the parser raises RangeException for a number
// that does not fit in 32 bits. Trivially copyable (stored in shared memory); compared
// and ordered as an unsigned number.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <string>

#include <fmt/format.h>

#include "platform/CharRange.h"
#include "platform/Hash.h"
#include "platform/shm/ShmImage.h"

namespace Vrf::VrfIdMap {

class VrfId {
 public:
  static constexpr uint32_t kInvalid = 0xFFFFFF;

  constexpr VrfId() = default;
  constexpr VrfId(uint32_t value) : value_(value) {}  // NOLINT: a VRF id is its number

  static VrfId readFrom(Oro::CharRange& in) {
    return VrfId(static_cast<uint32_t>(in.readUnsigned(UINT32_MAX)));
  }
  explicit VrfId(Oro::CharRange& in) : value_(readFrom(in).value_) { in.expectEnd(); }

  constexpr uint32_t value() const { return value_; }
  constexpr bool isValid() const { return value_ != kInvalid; }

  std::string toStrep() const { return std::to_string(value_); }
  constexpr uint32_t hash(uint32_t seed) const { return Oro::hashU32(value_, seed); }

  friend constexpr bool operator==(VrfId, VrfId) = default;
  friend constexpr auto operator<=>(VrfId, VrfId) = default;

 private:
  uint32_t value_ = kInvalid;
};

}  // namespace Vrf::VrfIdMap

template <>
struct Oro::ShmImage<Vrf::VrfIdMap::VrfId>
    : Oro::ShmPlainImage<Vrf::VrfIdMap::VrfId, Oro::shmAnyImage> {
  static constexpr uint64_t fingerprint = shmFingerprint("Vrf::VrfIdMap::VrfId{value:u32}", bytes);
  static Vrf::VrfIdMap::VrfId read(const std::byte* in) {
    return ShmPlainImage::read(in, "Vrf::VrfIdMap::VrfId");
  }
};

template <>
struct std::hash<Vrf::VrfIdMap::VrfId> {
  size_t operator()(Vrf::VrfIdMap::VrfId v) const { return v.hash(Oro::processHashSeed()); }
};

template <>
struct fmt::formatter<Vrf::VrfIdMap::VrfId> : fmt::formatter<uint32_t> {
  auto format(Vrf::VrfIdMap::VrfId v, fmt::format_context& ctx) const {
    return fmt::formatter<uint32_t>::format(v.value(), ctx);
  }
};
