// MvpnFlagSet<Name>: the three-flag set of route and source records, packed into one
// unsigned byte: bit 0 rptPrune, bit 1 sourceTreeJoin, bit 2 discoveredSg. Bits 3..7 are
// always zero. Name supplies the full type name (kTypeName) so that route flags and
// source flags are distinct types with their own value forms and range errors.
//
// Value form, exactly:
//   Value('<kTypeName>', ** {'rptPrune': B, 'sourceTreeJoin': B, 'discoveredSg': B})
// with B True or False. Display suffix (records' toStrep): ", (S,G)" for sourceTreeJoin,
// ", (S,G,Rpt)" for rptPrune, ", discovered" for discoveredSg, in that order.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "platform/CharRange.h"
#include "platform/Error.h"
#include "platform/Hash.h"
#include "platform/ValueForm.h"

namespace Routing::Multicast {

template <class Name>
class MvpnFlagSet {
 public:
  static constexpr uint8_t kRptPrune = 1;
  static constexpr uint8_t kSourceTreeJoin = 2;
  static constexpr uint8_t kDiscoveredSg = 4;
  static constexpr uint8_t kAll = 7;

  constexpr MvpnFlagSet() = default;
  // DenseEnumBoolSetRangeException for a byte above 7.
  explicit MvpnFlagSet(uint64_t raw) : bits_(static_cast<uint8_t>(raw)) {
    if (raw > kAll) throw Oro::DenseEnumBoolSetRangeException(std::string(Name::kTypeName), raw);
  }

  // Reads the value form, leaving the position behind it.
  static MvpnFlagSet readFrom(Oro::CharRange& in) {
    Oro::ValueFormReader reader(in, Name::kTypeName);
    MvpnFlagSet f;
    f.rptPruneIs(reader.boolAttr("rptPrune"));
    f.sourceTreeJoinIs(reader.boolAttr("sourceTreeJoin"));
    f.discoveredSgIs(reader.boolAttr("discoveredSg"));
    reader.end();
    return f;
  }
  // Parses all of in; trailing characters are a ParseException.
  explicit MvpnFlagSet(Oro::CharRange& in) : bits_(readFrom(in).bits_) { in.expectEnd(); }

  constexpr uint8_t value() const { return bits_; }
  constexpr explicit operator bool() const { return bits_ != 0; }
  constexpr bool rptPrune() const { return (bits_ & kRptPrune) != 0; }
  constexpr bool sourceTreeJoin() const { return (bits_ & kSourceTreeJoin) != 0; }
  constexpr bool discoveredSg() const { return (bits_ & kDiscoveredSg) != 0; }
  constexpr void rptPruneIs(bool v) { bitIs(kRptPrune, v); }
  constexpr void sourceTreeJoinIs(bool v) { bitIs(kSourceTreeJoin, v); }
  constexpr void discoveredSgIs(bool v) { bitIs(kDiscoveredSg, v); }

  std::string toStrep() const {
    return Oro::ValueFormWriter(Name::kTypeName)
        .attr("rptPrune", rptPrune())
        .attr("sourceTreeJoin", sourceTreeJoin())
        .attr("discoveredSg", discoveredSg())
        .done();
  }
  // Appends the display suffixes of the set flags to out.
  void appendDisplay(std::string& out) const {
    if (sourceTreeJoin()) out += ", (S,G)";
    if (rptPrune()) out += ", (S,G,Rpt)";
    if (discoveredSg()) out += ", discovered";
  }
  constexpr uint32_t hash(uint32_t seed) const { return Oro::hashU32(bits_, seed); }

  friend constexpr bool operator==(MvpnFlagSet, MvpnFlagSet) = default;
  friend constexpr auto operator<=>(MvpnFlagSet, MvpnFlagSet) = default;

 private:
  constexpr void bitIs(uint8_t mask, bool v) {
    bits_ = static_cast<uint8_t>(v ? (bits_ | mask) : (bits_ & ~mask));
  }

  uint8_t bits_ = 0;
};

}  // namespace Routing::Multicast

template <class Name>
struct fmt::formatter<Routing::Multicast::MvpnFlagSet<Name>> : fmt::formatter<std::string_view> {
  auto format(const Routing::Multicast::MvpnFlagSet<Name>& v, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(v.toStrep(), ctx);
  }
};
