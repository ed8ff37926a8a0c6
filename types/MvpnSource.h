// MvpnSource: one source of a group's shared or source tree, with the prefix of its
// upstream multicast hop (UMH) and its source flags. No invariant ties the flags to
// anything.
//
// Display form (toStrep): "<source>: UMH: <prefix>" followed by the flag suffixes, e.g.
// "10.0.0.1: UMH: 10.0.0.0/8, (S,G,Rpt)". Value form (toValueForm, read back by the
// constructor from a CharRange):
//   Value('Routing::Multicast::MvpnSource', ** {'source': <address>,
//         'umhPrefix': <prefix>, 'sourceFlags': <flags value form>})
// Order: source, then umhPrefix, then the flag byte.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "platform/CharRange.h"
#include "platform/net/IpAddr.h"
#include "types/MvpnFlagSet.h"

namespace Routing::Multicast {

class MvpnSource {
 public:
  static constexpr std::string_view kTypeName = "Routing::Multicast::MvpnSource";
  struct SourceFlagsName {
    static constexpr std::string_view kTypeName = "Routing::Multicast::MvpnSource::SourceFlags";
  };
  using SourceFlags = MvpnFlagSet<SourceFlagsName>;

  MvpnSource() = default;
  MvpnSource(const Nevo::IpGenAddr& source, const Nevo::IpGenPrefix& umhPrefix,
             SourceFlags sourceFlags)
      : source_(source), umhPrefix_(umhPrefix), sourceFlags_(sourceFlags) {}

  static MvpnSource readFrom(Oro::CharRange& in);
  explicit MvpnSource(Oro::CharRange& in);

  const Nevo::IpGenAddr& source() const { return source_; }
  const Nevo::IpGenPrefix& umhPrefix() const { return umhPrefix_; }
  SourceFlags sourceFlags() const { return sourceFlags_; }
  void umhPrefixIs(const Nevo::IpGenPrefix& v) { umhPrefix_ = v; }
  void sourceFlagsIs(SourceFlags v) { sourceFlags_ = v; }

  static bool isEq(const MvpnSource& a, const MvpnSource& b) { return a == b; }
  bool isEq(const MvpnSource& o) const { return isEq(*this, o); }
  uint32_t hash(uint32_t seed) const;
  std::string toStrep() const;
  std::string toValueForm() const;

  friend bool operator==(const MvpnSource&, const MvpnSource&) = default;
  friend auto operator<=>(const MvpnSource&, const MvpnSource&) = default;

 private:
  Nevo::IpGenAddr source_;
  Nevo::IpGenPrefix umhPrefix_;
  SourceFlags sourceFlags_;
};

}  // namespace Routing::Multicast

template <>
struct fmt::formatter<Routing::Multicast::MvpnSource> : fmt::formatter<std::string_view> {
  auto format(const Routing::Multicast::MvpnSource& v, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(v.toStrep(), ctx);
  }
};
