#include "status/MvpnVrfStatus.h"

#include "platform/EntityDirectory.h"

namespace Routing::Multicast {

Oro::Ptr<MvpnVrfStatus> MvpnVrfStatus::MvpnVrfStatusIs(const std::string& name) {
  Oro::Ptr<MvpnVrfStatus> p(new MvpnVrfStatus(name));
  if (!p) throw Oro::NullPointerException("MvpnVrfStatus");
  return p;
}

Oro::Ptr<MvpnVrfStatus> mvpnVrfStatusFactory(const std::string& name) {
  return MvpnVrfStatus::MvpnVrfStatusIs(name);
}

std::string MvpnVrfStatus::mountPath(Nevo::AddressFamily af, MvpnClient client) {
  // The condition's exact spelling is the assertion's message.
  // clang-format off
  MVPN_ASSERT_MSG(( client == MvpnClient::bgp_ || client == MvpnClient::staticMvpn_ || client == MvpnClient::evpn_ || client == MvpnClient::staticEvpn_ ), "Unexpected writer agent");
  // clang-format on
  if (af == Nevo::AddressFamily::ipv4)
    return "routing/multicast/vpn/vrfStatus/" + stringValue(client);
  if (af == Nevo::AddressFamily::ipv6)
    return "routing6/multicast/vpn/vrfStatus/" + stringValue(client);
  MVPN_ASSERT_MSG(false, "Unsupported address family");
  return {};
}

namespace {
// Creation by type name takes the name only.
const bool registered = [] {
  Oro::EntityDirectory::global().registerType(
      MvpnVrfStatusTraits::typeName, 1, [](const std::vector<std::string>& args) {
        return Oro::Ptr<Oro::Entity>(mvpnVrfStatusFactory(args.empty() ? std::string() : args[0]));
      });
  return true;
}();
}  // namespace

}  // namespace Routing::Multicast
