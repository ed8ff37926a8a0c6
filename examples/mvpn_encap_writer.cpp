// A tunnel encapsulation writer for demos: publishes one writer's tunnel encapsulation status
// (mvpn, static or evpn) in shared memory, step by step.
//
//   mvpn_encap_writer WRITER STEP...
//
// Steps run in order (S and G are IPv4 addresses, IF an interface name such as Vlan105):
//   route:V:S,G=DATA        route encapsulation of (S,G) in VRF V
//   noroute:V:S,G           remove it
//   intf:V:S,G@IF=DATA      interface encapsulation of (S,G) on IF in VRF V
//   nointf:V:S,G@IF         remove it
//   novrf:V                 remove VRF V with all its records
//   sleep:MS                wait MS milliseconds
//   hold                    stay up until SIGINT/SIGTERM
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <string>
#include <thread>

#include "merge/MvpnTunnelEncapStatus.h"
#include "examples/ExampleSteps.h"
#include "platform/CharRange.h"
#include "platform/Error.h"
#include "platform/net/IntfId.h"
#include "platform/net/IpAddr.h"

using namespace Routing::Multicast;
using Vrf::VrfIdMap::VrfId;
using example::hold;
using example::number;
using example::parsed;

namespace {

// "V:S,G" (a route) or "V:S,G@IF" (an interface), followed by "=DATA" when `withData`.
struct Target {
  VrfId vrf;
  MvpnRouteKey route;
  std::string intf;
  std::string data;
};
Target target(const std::string& text, bool withData, bool withIntf) {
  Target t;
  std::string rest = text;
  if (withData) {
    const size_t eq = rest.find('=');
    if (eq == std::string::npos) throw Oro::ParseException("=DATA expected: " + text);
    t.data = rest.substr(eq + 1);
    rest.resize(eq);
  }
  const size_t colon = rest.find(':');
  const size_t comma = rest.find(',');
  if (colon == std::string::npos || comma == std::string::npos || comma < colon) {
    throw Oro::ParseException("V:S,G expected: " + text);
  }
  t.vrf = VrfId(number(rest.substr(0, colon)));
  const size_t at = rest.find('@');
  if ((at != std::string::npos) != withIntf) {
    throw Oro::ParseException(std::string(withIntf ? "@IF expected: " : "no @IF on a route: ") +
                              text);
  }
  if (at != std::string::npos) t.intf = rest.substr(at + 1);
  const std::string group =
      rest.substr(comma + 1, (at == std::string::npos ? rest.size() : at) - comma - 1);
  t.route = MvpnRouteKey(parsed<Nevo::IpGenAddr>(rest.substr(colon + 1, comma - colon - 1), "an address"),
                         parsed<Nevo::IpGenAddr>(group, "an address"), false);
  return t;
}

MvpnRouteIntfKey intfKey(const Target& t) {
  if (t.intf.empty()) throw Oro::ParseException("@IF expected");
  std::string text = t.intf;
  Oro::CharRange in(text);
  return MvpnRouteIntfKey(t.route, Nevo::IntfId(in));
}

bool startsWith(const std::string& s, const char* prefix) {
  return s.rfind(prefix, 0) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  const bool help =
      argc == 2 && (std::string_view(argv[1]) == "-h" || std::string_view(argv[1]) == "--help");
  if (argc < 2 || help) {
    std::fprintf(help ? stdout : stderr, "usage: mvpn_encap_writer mvpn|static|evpn STEP...\n");
    return help ? 0 : 2;
  }
  example::blockStopSignals();
  try {
    const std::string writer = argv[1];
    if (writer == "merged") throw Oro::RangeException("the merged status has its own writer");
    const std::string path = MvpnTunnelEncapStatus::mountPath(writer);
    auto status = mvpnTunnelEncapStatusFactory(writer + "Encap");
    status->mount(Oro::ShmAttach{path, Oro::ShmRole::writer, nullptr, 0644});
    for (int i = 2; i < argc; ++i) {
      const std::string step = argv[i];
      if (step == "hold") {
        hold();
      } else if (startsWith(step, "sleep:")) {
        std::this_thread::sleep_for(std::chrono::milliseconds(number(step.substr(6))));
      } else if (startsWith(step, "route:")) {
        const Target t = target(step.substr(6), true, false);
        status->vrfStatusIs(t.vrf)->encapTunnelIs(MvpnEncapTunnel(t.route, t.data));
      } else if (startsWith(step, "noroute:")) {
        const Target t = target(step.substr(8), false, false);
        if (auto v = status->vrfStatus(t.vrf)) v->encapTunnelDel(t.route);
      } else if (startsWith(step, "intf:")) {
        const Target t = target(step.substr(5), true, true);
        status->vrfStatusIs(t.vrf)->encapIntfTunnelIs(MvpnEncapIntfTunnel(intfKey(t), t.data));
      } else if (startsWith(step, "nointf:")) {
        const Target t = target(step.substr(7), false, true);
        if (auto v = status->vrfStatus(t.vrf)) v->encapIntfTunnelDel(intfKey(t));
      } else if (startsWith(step, "novrf:")) {
        status->vrfStatusDel(VrfId(number(step.substr(6))));
      } else {
        throw Oro::ParseException("unknown step: " + step);
      }
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "mvpn_encap_writer: %s\n", e.what());
    return 1;
  }
  return 0;
}
