#include "status/MvpnVrfStatus.h"

namespace Routing::Multicast {

template class ShmStatusRoot<MvpnVrfStatusTraits>;

Oro::Ptr<MvpnVrfStatus> MvpnVrfStatus::MvpnVrfStatusIs(const std::string& name) {
  return Oro::Ptr<MvpnVrfStatus>(new MvpnVrfStatus(name));
}

Oro::Ptr<MvpnVrfStatus> mvpnVrfStatusFactory(const std::string& name) {
  return MvpnVrfStatus::MvpnVrfStatusIs(name);
}

std::string MvpnVrfStatus::mountPath(Nevo::AddressFamily af, MvpnClient client) {
  // The condition's exact spelling is the assertion's message.
  // clang-format off
  MVPN_ASSERT_MSG_AT(( client == MvpnClient::bgp_ || client == MvpnClient::staticMvpn_ || client == MvpnClient::evpn_ || client == MvpnClient::staticEvpn_ ), "Unexpected writer agent", "MvpnVrfStatus", 22);
  // clang-format on
  if (af == Nevo::AddressFamily::ipv4)
    return "routing/multicast/vpn/vrfStatus/" + stringValue(client);
  if (af == Nevo::AddressFamily::ipv6)
    return "routing6/multicast/vpn/vrfStatus/" + stringValue(client);
  MVPN_ASSERT_MSG_AT(false, "Unsupported address family", "MvpnVrfStatus", 32);
  return {};
}

namespace {
const bool registered =
    registerStatusRootType<MvpnVrfStatus>(MvpnVrfStatusTraits::typeName, &mvpnVrfStatusFactory);
}  // namespace

}  // namespace Routing::Multicast
