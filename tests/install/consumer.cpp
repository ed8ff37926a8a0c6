// Links the installed library: publishes a VRF in a detached status root, checks its wire form,
// and creates a root of each status type by its type name alone (as a directory does), which
// needs every type's registration although this program names none of the others.
#include <mvpnstatus/platform/WireBuffer.h>
#include <mvpnstatus/platform/runtime/EntityDirectory.h>
#include <mvpnstatus/status/MvpnVrfStatus.h>

#include <cstdio>

using namespace Routing::Multicast;

int main() {
  auto status = mvpnVrfStatusFactory(MvpnVrfStatus::mountPath(Nevo::ipv6, MvpnClient::evpn_));
  status->mvpnVrfIs(MvpnVrf(Vrf::VrfIdMap::VrfId(7), MvpnClient::bgp_));
  Oro::PbWriteBuffer buf;
  writeMessage(buf, *status->mvpnVrf(Vrf::VrfIdMap::VrfId(7)));
  const unsigned char want[] = {0xB0, 0xD5, 0x07, 0x07, 0xC0, 0xE6, 0x0F, 0x00};
  const bool ok = buf.size() == sizeof want && std::equal(want, want + sizeof want, buf.data());
  std::printf("%s %zu record(s), wire form %s\n", status->name().c_str(), status->mvpnVrfSize(),
              ok ? "ok" : "WRONG");
  bool created = true;
  for (const char* type :
       {"Routing::Multicast::MvpnRouteStatus", "Routing::Multicast::MvpnIntfStatus",
        "Routing::Multicast::MvpnTunnelEncapStatus"}) {
    const auto root = Oro::EntityDirectory::global().create(type, {"byName"});
    std::printf("%s by type name: %s\n", type, root ? "created" : "MISSING");
    created = created && root;
  }
  return ok && created && status->name() == "routing6/multicast/vpn/vrfStatus/evpn" ? 0 : 1;
}
