// MvpnConsts: a value with no stored fields that carries the library's named constants.
// All values are equal. The type is not hashable: hash() raises
// NonHashableTypeException.
//
// Text form: the generic value form with no attributes,
// "Value('Routing::Multicast::MvpnConsts', ** {})"; the parser reads exactly that.
#pragma once

#include <compare>
#include <cstdint>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "platform/CharRange.h"

namespace Routing::Multicast {

class MvpnConsts {
 public:
  static constexpr std::string_view kTypeName = "Routing::Multicast::MvpnConsts";
  // The trunk group under which the library's internal interfaces are kept.
  static inline const std::string trunkGroup{"InternalMvpn"};

  MvpnConsts() = default;
  explicit MvpnConsts(Oro::CharRange& in);

  static bool isEq(const MvpnConsts&, const MvpnConsts&) { return true; }
  bool isEq(const MvpnConsts& o) const { return isEq(*this, o); }
  [[noreturn]] uint32_t hash(uint32_t seed) const;
  std::string toStrep() const;

  friend bool operator==(const MvpnConsts&, const MvpnConsts&) { return true; }
  friend std::strong_ordering operator<=>(const MvpnConsts&, const MvpnConsts&) {
    return std::strong_ordering::equal;
  }
};

}  // namespace Routing::Multicast

template <>
struct fmt::formatter<Routing::Multicast::MvpnConsts> : fmt::formatter<std::string_view> {
  auto format(const Routing::Multicast::MvpnConsts& v, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(v.toStrep(), ctx);
  }
};
