// MvpnClient names the agents that may write MVPN status. It is stored in one unsigned
// byte. The MVPN status writers are bgp_, staticMvpn_, evpn_ and staticEvpn_; value 1
// (pimBidir_) is a client of the enumeration but never an MVPN status writer.
//
// Text form (stringValue, also the last component of every per-writer mount path): the
// enumerator's name without its trailing underscore ("bgp", "staticMvpn", ...). A byte
// outside the enumeration prints as "MvpnClient(<n>)" and is never parsed back.
#pragma once

#include <cstdint>
#include <string>

#include <fmt/format.h>

#include "platform/CharRange.h"
#include "platform/net/VrfId.h"

namespace Routing::Multicast {

// Names every record and key of this namespace uses, as they are written there.
using Oro::CharRange;
using VrfId = Vrf::VrfIdMap::VrfId;

enum class MvpnClient : uint8_t {
  bgp_ = 0,
  pimBidir_ = 1,
  staticMvpn_ = 2,
  evpn_ = 3,
  staticEvpn_ = 4,
};

std::string stringValue(MvpnClient client);

// Reads an enumerator's text from in into *client. ParseException when no name is
// there; RangeException for a name that is not an enumerator.
void sequenceToValue(Oro::CharRange& in, MvpnClient* client);

// The writer test: true for bgp_ (0) and for the values 2, 3 and 4, i.e. when the value
// is 0 or the value minus 2, taken as an unsigned byte, is at most 2.
constexpr bool isMvpnWriter(MvpnClient client) {
  auto v = static_cast<uint8_t>(client);
  return v == 0 || static_cast<uint8_t>(v - 2) <= 2;
}

}  // namespace Routing::Multicast

template <>
struct fmt::formatter<Routing::Multicast::MvpnClient> : fmt::formatter<std::string_view> {
  auto format(Routing::Multicast::MvpnClient v, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(Routing::Multicast::stringValue(v), ctx);
  }
};
