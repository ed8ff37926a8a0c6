// A writer agent for demos: publishes one MVPN writer's VRF status (and, optionally, PMSI
// interfaces in the interface status table) in shared memory, step by step.
//
//   mvpn_writer CLIENT STEP...
//
// CLIENT is bgp, staticMvpn, evpn or staticEvpn (IPv4 family: addresses are IPv4 ones). Steps run
// in order:
//   +N          declare VRF N                  -N          withdraw VRF N
//   intf:N=IF   PMSI interface IF of VRF N     nointf:N    remove VRF N's PMSI interface
//   sleep:MS    wait MS milliseconds           hold        stay up until SIGINT/SIGTERM
//   shared:V:G,S=UMH   source S of group G in VRF V's shared tree (UMH a prefix, e.g. 10.0.0.0/8)
//   source:V:G,S=UMH   the same in the source tree
//   nogroup:V:G        remove group G of VRF V with both its trees
// The interface status table is opened (as its writer) at the first intf step, the route
// status tree at the first shared, source or nogroup step.
#include <poll.h>
#include <sys/signalfd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <string>
#include <thread>

#include "examples/ExampleSteps.h"
#include "platform/CharRange.h"
#include "platform/Error.h"
#include "platform/net/IntfId.h"
#include "platform/net/IpAddr.h"
#include "status/MvpnIntfStatus.h"
#include "status/MvpnRouteStatus.h"
#include "status/MvpnVrfStatus.h"

using namespace Routing::Multicast;
using Vrf::VrfIdMap::VrfId;
using example::hold;
using example::number;
using example::parsed;

namespace {

// The tree this writer publishes is the IPv4 family's: an IPv6 address has no place in it.
template <class T>
T parsedV4(const std::string& text, const char* what) {
  T v = parsed<T>(text, what);
  if (v.af() != Nevo::ipv4)
    throw Oro::ParseException(std::string("not IPv4 ") + what + ": " + text);
  return v;
}

}  // namespace

int main(int argc, char** argv) {
  const bool help =
      argc == 2 && (std::string_view(argv[1]) == "-h" || std::string_view(argv[1]) == "--help");
  if (argc < 2 || help) {
    std::fprintf(help ? stdout : stderr, "usage: mvpn_writer CLIENT STEP...\n");
    return help ? 0 : 2;
  }
  example::blockStopSignals();
  try {
    MvpnClient client;
    std::string clientText = argv[1];
    Oro::CharRange in(clientText);
    sequenceToValue(in, &client);
    if (!isMvpnWriter(client)) throw Oro::RangeException("not an MVPN writer: " + clientText);
    const std::string path = MvpnVrfStatus::mountPath(Nevo::ipv4, client);
    auto vrfs = mvpnVrfStatusFactory(path);
    vrfs->mount(Oro::ShmAttach{path, Oro::ShmRole::writer});
    Oro::Ptr<MvpnIntfStatus> intfs;
    Oro::Ptr<MvpnRouteStatus> tree;
    auto treeIs = [&] {
      if (tree) return;
      const std::string treePath = MvpnRouteStatus::mountPath(Nevo::ipv4, client);
      tree = mvpnRouteStatusFactory(treePath);
      tree->mount(Oro::ShmAttach{treePath, Oro::ShmRole::writer});
    };
    for (int i = 2; i < argc; ++i) {
      const std::string step = argv[i];
      if (step == "hold") {
        hold();
      } else if (step.rfind("sleep:", 0) == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(number(step.substr(6))));
      } else if (step[0] == '+') {
        vrfs->mvpnVrfIs(MvpnVrf(number(step.substr(1)), client));
      } else if (step[0] == '-') {
        vrfs->mvpnVrfDel(number(step.substr(1)));
      } else if (step.rfind("intf:", 0) == 0 || step.rfind("nointf:", 0) == 0) {
        if (!intfs) {
          intfs = mvpnIntfStatusFactory(MvpnIntfStatus::mountPath());
          intfs->mount(Oro::ShmAttach{MvpnIntfStatus::mountPath(), Oro::ShmRole::writer});
        }
        if (step[0] == 'n') {
          intfs->vrfIntfIdDel(number(step.substr(7)));
        } else {
          const size_t eq = step.find('=');
          if (eq == std::string::npos) throw Oro::ParseException("intf:N=IF expected: " + step);
          std::string intfText = step.substr(eq + 1);
          Oro::CharRange intfIn(intfText);
          intfs->vrfIntfIdIs(MvpnVrfIntfId(number(step.substr(5, eq - 5)), Nevo::IntfId(intfIn)));
        }
      } else if (step.rfind("shared:", 0) == 0 || step.rfind("source:", 0) == 0) {
        // shared:V:G,S=UMH or source:V:G,S=UMH
        const size_t colon = step.find(':', 7), comma = step.find(','), eq = step.find('=');
        if (colon == std::string::npos || comma == std::string::npos || eq == std::string::npos ||
            !(colon < comma && comma < eq)) {
          throw Oro::ParseException("shared|source:V:G,S=UMH expected: " + step);
        }
        // Every part is read before anything is written: a bad one leaves no empty VRF behind.
        const VrfId vrfId(number(step.substr(7, colon - 7)));
        const auto group =
            parsedV4<Nevo::IpGenAddr>(step.substr(colon + 1, comma - colon - 1), "an address");
        const auto source =
            parsedV4<Nevo::IpGenAddr>(step.substr(comma + 1, eq - comma - 1), "an address");
        const auto umh = parsedV4<Nevo::IpGenPrefix>(step.substr(eq + 1), "a prefix");
        treeIs();
        tree->vrfRouteStatusIs(vrfId)->mvpnSourceIs(group, source, umh, step[1] == 'h',
                                                    MvpnSource::SourceFlags());
      } else if (step.rfind("nogroup:", 0) == 0) {
        const size_t colon = step.find(':', 8);
        if (colon == std::string::npos) throw Oro::ParseException("nogroup:V:G expected: " + step);
        treeIs();
        if (auto vrf = tree->vrfRouteStatus(VrfId(number(step.substr(8, colon - 8))))) {
          vrf->mvpnGroupDel(parsedV4<Nevo::IpGenAddr>(step.substr(colon + 1), "an address"));
        }
      } else {
        throw Oro::ParseException("unknown step: " + step);
      }
    }
  } catch (const Oro::Exception& e) {
    std::fprintf(stderr, "mvpn_writer: %s\n", e.what());
    return 1;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "mvpn_writer: %s\n", e.what());
    return 1;
  }
  return 0;
}
