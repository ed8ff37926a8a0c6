// A tunnel-mapping agent for demos: keeps an MvpnMapper from a script of tunnel, tree and
// route events through MvpnMapperKeeper, answers PMSI VLAN questions and audits the mapper.
//
//   mvpn_mapper_agent [--attach] [SCRIPT | -]
//
// Without SCRIPT a built-in script runs; "-" reads events from stdin. With --attach the PMSI
// interfaces come from the shared-memory interface status table that mvpn_writer's intf steps
// publish (the intf and nointf events are then refused); without it they come from the
// script. One event per line; '#' starts a comment:
//   vrf VRF NAME                 name a VRF id          intf VRF IF / nointf VRF
//   tree TUNNEL VRF TREEID       tree id of a tunnel    notree TREEID
//   route TUNNEL KEY             e.g. route 7 VRF 5 (10.0.0.1, 239.1.1.1)     noroute KEY
//   routeintf TUNNEL KEY         e.g. routeintf 7 VRF 5 (*, 239.1.1.1) on Vlan5
//   norouteintf KEY              notunnel TUNNEL        ready
//   pmsi TUNNEL                  prints the tunnel's PMSI VLAN
//   audit                        prints the audit as JSON
// Every change of a forward map is printed as it is published, with its old value. A bad
// line is reported and skipped; the exit status is then 1.
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include <fmt/format.h>

#include "mapper/MvpnMapperAudit.h"
#include "mapper/MvpnMapperKeeper.h"
#include "platform/CharRange.h"
#include "platform/Error.h"
#include "platform/net/VrfIdMapStatus.h"
#include "platform/shm/ShmTable.h"
#include "status/MvpnIntfStatus.h"

using namespace Routing::Multicast;
using Vrf::VrfIdMap::VrfId;

namespace {

constexpr const char* kBuiltInScript = R"(# PMSI interfaces and names of two VRFs
vrf 5 red
vrf 6 blue
intf 5 Vlan105
intf 6 Vlan106
# two provider tunnels, one tree each, routes on both
tree 10 5 mldp:root=10.1.1.1,opaque=1
tree 20 6 mldp:root=10.1.1.1,opaque=2
route 10 VRF 5 (10.0.0.1, 239.1.1.1)
route 10 VRF 5 (*, 239.1.1.2)
route 20 VRF 6 (10.0.0.2, 239.2.2.2)
routeintf 10 VRF 5 (*, 239.1.1.2) on Vlan105
ready
pmsi 10
pmsi 20
# the first tree moves to a new tunnel, and so do its routes
tree 30 5 mldp:root=10.1.1.1,opaque=1
route 30 VRF 5 (10.0.0.1, 239.1.1.1)
route 30 VRF 5 (*, 239.1.1.2)
pmsi 10
pmsi 30
# tunnel 20 goes away with everything it carried
notunnel 20
pmsi 20
audit
)";

// Prints each published change of the forward maps.
class ChangePrinter : public Oro::Notifiee {
 public:
  void onAttributeOldNew(Oro::AttrId attr, const void* key, const void* o, const void* n) override {
    switch (attr) {
      case MvpnMapper::treeIdToVrfIdAttr:
        print<MulticastTreeId, VrfId>("treeIdToVrfId", key, o, n);
        break;
      case MvpnMapper::routeKeyToTunnelIdAttr:
        print<MvpnVrfRouteKey, TunnelId>("routeKeyToTunnelId", key, o, n);
        break;
      case MvpnMapper::routeIntfKeyToTunnelIdAttr:
        print<MvpnVrfRouteIntfKey, TunnelId>("routeIntfKeyToTunnelId", key, o, n);
        break;
      case MvpnMapper::readyAttr:
        fmt::print("  ready: {} -> {}\n", *static_cast<const bool*>(o),
                   *static_cast<const bool*>(n));
        break;
      default:
        break;
    }
  }

 private:
  template <class K, class V>
  static void print(const char* attr, const void* key, const void* o, const void* n) {
    auto text = [](const void* v) {
      return v ? static_cast<const V*>(v)->toStrep() : std::string("(none)");
    };
    fmt::print("  {} {}: {} -> {}\n", attr, static_cast<const K*>(key)->toStrep(), text(o),
               text(n));
  }
};

class Agent {
 public:
  Agent(Oro::Ptr<MvpnIntfStatus> intfs, bool attached)
      : intfs_(std::move(intfs)),
        attached_(attached),
        names_(Vrf::VrfIdMap::vrfIdMapStatusFactory()),
        keeper_(mvpnMapperFactory(intfs_, names_)) {
    printer_.notifierIs(keeper_.mapper().get());
  }

  // Runs one event line; bad input raises an Oro::Exception.
  void run(const std::string& line) {
    Oro::CharRange in(line);
    in.skipSpaces();
    if (in.atEnd() || in.peek() == '#') return;
    const std::string event(in.readWhile([](char c) { return c != ' '; }));
    in.skipSpaces();
    MvpnMapper& mapper = *keeper_.mapper();
    if (event == "vrf") {
      const VrfId vrf = VrfId::readFrom(in);
      in.expect(" ");
      if (!vrf.isValid()) throw Oro::RangeException("the invalid VRF id has no name");
      names_->vrfNameIs(vrf, std::string(in.rest()));
    } else if (event == "intf" || event == "nointf") {
      if (attached_) throw Oro::Exception("PMSI interfaces come from the attached table");
      const VrfId vrf = VrfId::readFrom(in);
      if (event == "nointf") {
        in.expectEnd();
        intfs_->vrfIntfIdDel(vrf);
      } else {
        in.expect(" ");
        intfs_->vrfIntfIdIs(MvpnVrfIntfId(vrf, Nevo::IntfId(in)));
      }
    } else if (event == "tree") {
      const TunnelId tunnel = tunnelIn(in);
      const VrfId vrf = VrfId::readFrom(in);
      in.expect(" ");
      keeper_.treeIdIs(tunnel, MulticastTreeId(in), vrf);
    } else if (event == "notree") {
      keeper_.treeIdDel(MulticastTreeId(in));
    } else if (event == "route") {
      const TunnelId tunnel = tunnelIn(in);
      keeper_.routeIs(MvpnVrfRouteKey(in), tunnel);
    } else if (event == "noroute") {
      keeper_.routeDel(MvpnVrfRouteKey(in));
    } else if (event == "routeintf") {
      const TunnelId tunnel = tunnelIn(in);
      keeper_.routeIntfIs(MvpnVrfRouteIntfKey(in), tunnel);
    } else if (event == "norouteintf") {
      keeper_.routeIntfDel(MvpnVrfRouteIntfKey(in));
    } else if (event == "notunnel") {
      keeper_.tunnelDel(TunnelId(in));
    } else if (event == "ready") {
      in.expectEnd();
      mapper.readyIs(true);
    } else if (event == "pmsi") {
      const TunnelId tunnel(in);
      const Bridging::VlanIdOrNone vlan = keeper_.pmsiVlan(tunnel);
      if (vlan.isNone()) {
        fmt::print("tunnel {}: no PMSI VLAN\n", tunnel);
      } else {
        fmt::print("tunnel {}: PMSI VLAN {}\n", tunnel, vlan);
      }
    } else if (event == "audit") {
      in.expectEnd();
      fmt::print("{}", mvpnMapperAuditJson(auditMvpnMapper(mapper)));
    } else {
      throw Oro::ParseException(fmt::format("unknown event '{}'", event));
    }
  }

 private:
  // A tunnel id followed by one space.
  static TunnelId tunnelIn(Oro::CharRange& in) {
    const TunnelId tunnel = TunnelId::readFrom(in);
    in.expect(" ");
    if (!tunnel.isValid()) throw Oro::RangeException("tunnel id 0 names no tunnel");
    return tunnel;
  }

  Oro::Ptr<MvpnIntfStatus> intfs_;
  bool attached_;
  Oro::Ptr<Vrf::VrfIdMap::Status> names_;
  MvpnMapperKeeper keeper_;
  ChangePrinter printer_;
};

}  // namespace

int main(int argc, char** argv) {
  bool attach = false;
  std::string script;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--attach") {
      attach = true;
    } else if (script.empty() && !arg.empty() && (arg == "-" || arg[0] != '-')) {
      script = arg;
    } else {
      std::fprintf(stderr, "usage: mvpn_mapper_agent [--attach] [SCRIPT | -]\n");
      return 2;
    }
  }
  std::istringstream builtIn(kBuiltInScript);
  std::ifstream file;
  std::istream* events = &builtIn;
  if (script == "-") {
    events = &std::cin;
  } else if (!script.empty()) {
    file.open(script);
    if (!file) {
      std::fprintf(stderr, "mvpn_mapper_agent: cannot read %s\n", script.c_str());
      return 1;
    }
    events = &file;
  }
  if (attach && script.empty()) {
    std::fprintf(stderr, "mvpn_mapper_agent: --attach needs a script without intf events\n");
    return 2;
  }

  auto intfs = mvpnIntfStatusFactory(MvpnIntfStatus::mountPath());
  try {
    if (attach) {
      intfs->mount(Oro::ShmAttach{MvpnIntfStatus::mountPath(), Oro::ShmRole::reader});
    }
  } catch (const Oro::Exception& e) {
    std::fprintf(stderr, "mvpn_mapper_agent: cannot attach to %s: %s\n",
                 MvpnIntfStatus::mountPath().c_str(), e.what());
    return 1;
  }
  intfs->vrfIntfIdCorruptionHandlerIs([](const std::string& message) {
    std::fprintf(stderr, "mvpn_mapper_agent: the interface status table is damaged: %s\n",
                 message.c_str());
  });

  int status = 0;
  {
    Agent agent(intfs, attach);
    std::string line;
    for (int n = 1; std::getline(*events, line); ++n) {
      try {
        agent.run(line);
      } catch (const Oro::Exception& e) {
        std::fprintf(stderr, "line %d: %s\n", n, e.what());
        status = 1;
      }
    }
  }
  if (attach) intfs->unmount();
  return status;
}
