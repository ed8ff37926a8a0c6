// MergedMcastTunnelEncapStatusSm over three in-process writer statuses (MVPN, static, EVPN)
// and one merged status, driven by a real scheduler (the rig shape of MergeTestRig.h); and the rule
// the merged status must follow, computed from the inputs. Shared by the tunnel merge tests.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <ostream>
#include <set>
#include <string>
#include <utility>

#include "merge/MergeTestRig.h"
#include "merge/MvpnTunnelEncapStatusMergeSm.h"
#include "platform/net/IpAddr.h"
#include "platform/runtime/TaskScheduler.h"

namespace EncapTest {

using Routing::Multicast::MergedMcastTunnelEncapStatusSm;
using Routing::Multicast::MvpnEncapIntfTunnel;
using Routing::Multicast::MvpnEncapTunnel;
using Routing::Multicast::MvpnRouteIntfKey;
using Routing::Multicast::MvpnRouteKey;
using Routing::Multicast::MvpnTunnelEncapStatus;
using Routing::Multicast::MvpnVrfTunnelEncapStatus;
using Vrf::VrfIdMap::VrfId;

// The writers, in argument order.
enum Writer { kMvpn = 0, kStatic = 1, kEvpn = 2 };

inline MvpnRouteKey route(uint32_t n) {
  return MvpnRouteKey(Nevo::IpGenAddr::ipv4Addr(0x0a000001),
                      Nevo::IpGenAddr::ipv4Addr(0xef000000 + n), false);
}
inline MvpnRouteIntfKey intf(uint32_t n) {
  return MvpnRouteIntfKey(route(n), Nevo::IntfId::vlan(5));
}

// What a status holds, per VRF and key: the encapData.
struct Contents {
  std::map<std::pair<uint32_t, uint32_t>, std::string> routes;  // (vrf, n of route(n))
  std::map<std::pair<uint32_t, uint32_t>, std::string> intfs;   // (vrf, n of intf(n))
  std::set<uint32_t> vrfs;
  bool operator==(const Contents&) const = default;
  friend void PrintTo(const Contents& c, std::ostream* os) {
    for (const auto& [k, d] : c.routes) *os << " r" << k.first << "/" << k.second << "=" << d;
    for (const auto& [k, d] : c.intfs) *os << " i" << k.first << "/" << k.second << "=" << d;
    *os << " vrfs";
    for (uint32_t v : c.vrfs) *os << " " << v;
  }
};

inline uint32_t numberOf(const MvpnRouteKey& k) {
  return k.group().v4HostOrder() - 0xef000000;
}

inline Contents contents(const MvpnTunnelEncapStatus& status) {
  Contents c;
  for (auto v = status.vrfStatusIter(); v.valid(); v.next()) {
    const uint32_t vrf = v.key().value();
    Oro::Ptr<MvpnVrfTunnelEncapStatus> e = v.value();
    if (!e) continue;  // gone since the walk met it (a writer in another process)
    c.vrfs.insert(vrf);
    for (auto r = e->encapTunnelIter(); r.valid(); r.next()) {
      c.routes[{vrf, numberOf(r.key())}] = r.value().encapData();
    }
    for (auto i = e->encapIntfTunnelIter(); i.valid(); i.next()) {
      c.intfs[{vrf, numberOf(i.key().routeKey())}] = i.value().encapData();
    }
  }
  return c;
}

// The merged status the rule gives for these inputs: per key the static writer's record when
// it has one, else the other writer's; a VRF exactly where a merged record is.
inline Contents mergeOf(const Contents& mvpn, const Contents& stat, const Contents& evpn) {
  Contents out;
  out.routes = mvpn.routes;
  for (const auto& [k, d] : stat.routes) out.routes[k] = d;
  out.intfs = evpn.intfs;
  for (const auto& [k, d] : stat.intfs) out.intfs[k] = d;
  for (const auto& [k, d] : out.routes) out.vrfs.insert(k.first);
  for (const auto& [k, d] : out.intfs) out.vrfs.insert(k.first);
  return out;
}

struct Rig : MergeTest::SmRig<Rig, MergedMcastTunnelEncapStatusSm> {
  explicit Rig(std::chrono::nanoseconds slice = std::chrono::hours(1)) : SmRig(slice) {
    for (int w = 0; w < 3; ++w) {
      in[w] = Routing::Multicast::mvpnTunnelEncapStatusFactory("writer" + std::to_string(w));
    }
    merged = Routing::Multicast::mvpnTunnelEncapStatusFactory("merged");
  }
  Oro::Ptr<MergedMcastTunnelEncapStatusSm> make(bool synchronous) {
    return Routing::Multicast::mergedMcastTunnelEncapStatusSmFactory(in[0], in[1], in[2], merged,
                                                                     control(synchronous));
  }

  void putRoute(int w, uint32_t vrf, uint32_t n, const std::string& data) {
    in[w]->vrfStatusIs(VrfId(vrf))->encapTunnelIs(MvpnEncapTunnel(route(n), data));
  }
  void delRoute(int w, uint32_t vrf, uint32_t n) {
    if (auto e = in[w]->vrfStatus(VrfId(vrf))) e->encapTunnelDel(route(n));
  }
  void putIntf(int w, uint32_t vrf, uint32_t n, const std::string& data) {
    in[w]->vrfStatusIs(VrfId(vrf))->encapIntfTunnelIs(MvpnEncapIntfTunnel(intf(n), data));
  }
  void delIntf(int w, uint32_t vrf, uint32_t n) {
    if (auto e = in[w]->vrfStatus(VrfId(vrf))) e->encapIntfTunnelDel(intf(n));
  }
  void delVrf(int w, uint32_t vrf) { in[w]->vrfStatusDel(VrfId(vrf)); }

  Contents mergedContents() const { return contents(*merged); }
  Contents expected() const {
    return mergeOf(contents(*in[kMvpn]), contents(*in[kStatic]), contents(*in[kEvpn]));
  }

  Oro::Ptr<MvpnTunnelEncapStatus> in[3];
  Oro::Ptr<MvpnTunnelEncapStatus> merged;
};

}  // namespace EncapTest
