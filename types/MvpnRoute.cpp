#include "types/MvpnRoute.h"

#include <type_traits>

#include "platform/Assert.h"
#include "platform/ValueForm.h"

namespace Routing::Multicast {

static_assert(std::is_trivially_copyable_v<MvpnRoute>);
static_assert(sizeof(MvpnRoute::RouteFlags) == 1);

MvpnRoute MvpnRoute::readFrom(Oro::CharRange& in) {
  Oro::ValueFormReader reader(in, kTypeName);
  MvpnRoute r;
  r.key_ = reader.attr("key", MvpnRouteKey::readFrom);
  r.umhPrefix_ = reader.attr("umhPrefix", Nevo::IpGenPrefix::readFrom);
  r.routeFlags_ = reader.attr("routeFlags", RouteFlags::readFrom);
  reader.end();
  return r;
}

MvpnRoute::MvpnRoute(Oro::CharRange& in) {
  *this = readFrom(in);
  in.expectEnd();
}

void MvpnRoute::routeFlagsIs(RouteFlags flags) {
  if (flags == routeFlags_) return;
  routeFlags_ = flags;
  handleRouteFlags();
}

void MvpnRoute::handleRouteFlags() const {
  if (sharedTreeJoin() == static_cast<bool>(routeFlags_)) [[unlikely]] {
    // Reported where the type declares the check.
    Oro::assertionFailed("sharedTreeJoin() xor ( bool ) routeFlags()", "MvpnRouteStatus", 27,
                         "handleRouteFlags");
  }
}

uint32_t MvpnRoute::hash(uint32_t seed) const {
  uint32_t h = Oro::hashMix(seed, key_.hash(seed));
  h = Oro::hashMix(h, umhPrefix_.hash(seed));
  return Oro::hashFinish(Oro::hashMix(h, routeFlags_.value()));
}

std::string MvpnRoute::toStrep() const {
  std::string out = fmt::format("{}: UMH: {}", key_, umhPrefix_);
  routeFlags_.appendDisplay(out);
  return out;
}

std::string MvpnRoute::toValueForm() const {
  return Oro::ValueFormWriter(kTypeName)
      .attr("key", key_.toStrep())
      .attr("umhPrefix", umhPrefix_.toStrep())
      .attr("routeFlags", routeFlags_.toStrep())
      .done();
}

}  // namespace Routing::Multicast
