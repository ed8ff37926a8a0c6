#include "types/MvpnClient.h"

#include <array>
#include <string_view>

namespace Routing::Multicast {

namespace {

// Indexed by the enumeration's value.
constexpr std::array<std::string_view, 5> kNames{"bgp", "pimBidir", "staticMvpn", "evpn",
                                                 "staticEvpn"};

}  // namespace

std::string stringValue(MvpnClient client) {
  auto v = static_cast<uint8_t>(client);
  if (v < kNames.size()) return std::string(kNames[v]);
  return fmt::format("MvpnClient({})", v);
}

void sequenceToValue(Oro::CharRange& in, MvpnClient* client) {
  size_t start = in.position();
  auto name = in.readWhile([](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
  });
  if (name.empty()) in.fail("an MvpnClient name");
  for (size_t i = 0; i < kNames.size(); ++i) {
    if (kNames[i] == name) {
      *client = static_cast<MvpnClient>(i);
      return;
    }
  }
  in.positionIs(start);
  throw Oro::RangeException(fmt::format("'{}' is not a Routing::Multicast::MvpnClient", name));
}

}  // namespace Routing::Multicast
