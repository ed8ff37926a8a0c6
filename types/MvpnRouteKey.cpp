#include "types/MvpnRouteKey.h"

#include <type_traits>

#include "platform/Assert.h"

namespace Routing::Multicast {

static_assert(std::is_trivially_copyable_v<MvpnRouteKey>);

MvpnRouteKey MvpnRouteKey::readFrom(Oro::CharRange& in) {
  in.expect("(");
  bool star = in.consume("*");
  Nevo::IpGenAddr source;
  if (!star) source = Nevo::IpGenAddr::readFrom(in);
  in.expect(", ");
  Nevo::IpGenAddr group = Nevo::IpGenAddr::readFrom(in);
  bool shared = star;
  if (star) {
    source = Nevo::IpGenAddr::zero(group.af());
  } else if (in.consume(", *")) {
    shared = true;
  }
  in.expect(")");
  return MvpnRouteKey(source, group, shared);
}

MvpnRouteKey::MvpnRouteKey(Oro::CharRange& in) {
  *this = readFrom(in);
  in.expectEnd();
}

void MvpnRouteKey::handleInit() const {
  MVPN_ASSERT_MSG((source_.af() == Nevo::ipv4 || source_.af() == Nevo::ipv6) &&
                      (group_.af() == Nevo::ipv4 || group_.af() == Nevo::ipv6),
                  "Route key address of unknown family");
}

std::string MvpnRouteKey::toStrep() const {
  if (!sharedTreeJoin_) return fmt::format("({}, {})", source_, group_);
  if (source_ == Nevo::IpGenAddr::zero(group_.af())) return fmt::format("(*, {})", group_);
  return fmt::format("({}, {}, *)", source_, group_);
}

}  // namespace Routing::Multicast
