// The rigs of the merge tests: a merge machine over in-process writer statuses and a merged
// status, driven by a real scheduler, and what the merged status must hold for the inputs.
// MergeTest: MergedMvpnVrfStatusSm over the four VRF statuses. EncapTest:
// MergedMcastTunnelEncapStatusSm over the MVPN, static and EVPN tunnel encapsulation statuses.
#pragma once

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <ostream>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "merge/MvpnTunnelEncapStatusMergeSm.h"
#include "merge/MvpnVrfStatusMergeSm.h"
#include "platform/Trace.h"
#include "platform/net/IpAddr.h"
#include "platform/runtime/TaskScheduler.h"
#include "status/MvpnVrfStatus.h"

namespace MergeTest {

using Routing::Multicast::MergedMvpnVrfStatusSm;
using Routing::Multicast::MvpnClient;
using Routing::Multicast::MvpnVrf;
using Routing::Multicast::MvpnVrfStatus;
using Vrf::VrfIdMap::VrfId;

// The merged status's contents: each VRF's client.
using Merged = std::map<uint32_t, MvpnClient>;

// The writer of each input, in argument order.
inline constexpr MvpnClient kWriters[4] = {MvpnClient::bgp_, MvpnClient::staticMvpn_,
                                           MvpnClient::evpn_, MvpnClient::staticEvpn_};

// Readers of the four writers' statuses at their mount paths, dispatching on `scheduler`.
inline std::array<Oro::Ptr<MvpnVrfStatus>, 4> mountedReaders(Oro::TaskScheduler& scheduler) {
  std::array<Oro::Ptr<MvpnVrfStatus>, 4> in;
  for (int w = 0; w < 4; ++w) {
    in[w] = Routing::Multicast::mvpnVrfStatusFactory("reader" + std::to_string(w));
    in[w]->mount(Oro::ShmAttach{MvpnVrfStatus::mountPath(Nevo::ipv4, kWriters[w]),
                                Oro::ShmRole::reader, &scheduler});
  }
  return in;
}

// The merged client of a VRF held by the inputs flagged in `present` (bit n = input n):
// BGP, then EVPN, then static MVPN, then static EVPN.
inline std::optional<MvpnClient> precedence(unsigned present) {
  if (present & 1u) return MvpnClient::bgp_;
  if (present & 4u) return MvpnClient::evpn_;
  if (present & 2u) return MvpnClient::staticMvpn_;
  if (present & 8u) return MvpnClient::staticEvpn_;
  return std::nullopt;
}

// The merged contents for the inputs holding each VRF (bit n = input n).
inline Merged mergeOf(const std::map<uint32_t, unsigned>& present) {
  Merged out;
  for (auto [vrf, bits] : present) out[vrf] = *precedence(bits);
  return out;
}

inline Merged contents(const MvpnVrfStatus& status) {
  Merged out;
  for (auto it = status.mvpnVrfIter(); it.valid(); it.next()) {
    out[it.key().value()] = it.value().client();
  }
  return out;
}

// Collects a machine's trace lines at every level while alive.
struct TraceCapture {
  explicit TraceCapture(std::string c) : component(std::move(c)) {
    for (int level = 0; level <= Oro::kTraceMaxLevel; ++level) {
      Oro::traceEnable(component, level, true);
    }
    sink.install();
  }
  ~TraceCapture() {
    sink.uninstall();
    for (int level = 0; level <= Oro::kTraceMaxLevel; ++level) {
      Oro::traceEnable(component, level, false);
    }
  }
  // The first appearance of each of `lines` among the captured messages, in capture order.
  std::vector<std::string> firstAppearances(const std::vector<std::string>& lines) const {
    std::vector<std::string> out;
    for (const auto& m : sink.messages()) {
      if (std::ranges::find(lines, m) != lines.end() && std::ranges::find(out, m) == out.end())
        out.push_back(m);
    }
    return out;
  }
  void expectOnlyOwnLines() const {
    for (const auto& line : sink.lines()) EXPECT_EQ(line.component, component);
  }
  std::string component;
  Oro::TraceMemorySink sink;
};

// What both merge rigs share: a real scheduler, and the machine under test started as its
// owner starts it. By default no task yields for time, so that what a test sees does not
// depend on the machine's speed (a sanitizer build is many times slower); 0ns yields after
// every key.
template <class Derived, class Sm>
struct SmRig {
  explicit SmRig(std::chrono::nanoseconds slice) : scheduler(slice) {}
  Dyx::SmControl control(bool synchronous) {
    return Dyx::SmControl{&scheduler, Oro::TaskPriority::normal, synchronous};
  }
  void start(bool synchronous = false) {
    sm = static_cast<Derived*>(this)->make(synchronous);
    sm->initializedIs(true);
  }
  // Runs until idle; whether the machine is ready then.
  bool settle() {
    scheduler.runUntilIdle();
    return sm->ready();
  }

  Oro::TaskScheduler scheduler;
  Oro::Ptr<Sm> sm;
};

struct Rig : SmRig<Rig, MergedMvpnVrfStatusSm> {
  explicit Rig(std::chrono::nanoseconds slice = std::chrono::hours(1)) : SmRig(slice) {
    static int instance = 0;
    const std::string tag = std::to_string(++instance);
    for (int n = 0; n < 4; ++n) {
      in[n] = Routing::Multicast::mvpnVrfStatusFactory("in" + std::to_string(n) + "-" + tag);
    }
    merged = Routing::Multicast::mvpnVrfStatusFactory("merged-" + tag);
  }

  Oro::Ptr<MergedMvpnVrfStatusSm> make(bool synchronous) {
    return Routing::Multicast::mergedMvpnVrfStatusSmFactory(in[0], in[1], in[2], in[3], merged,
                                                            control(synchronous));
  }
  void put(int n, uint32_t vrf) { in[n]->mvpnVrfIs(MvpnVrf(VrfId(vrf), kWriters[n])); }
  // Each (input, VRF) in turn.
  void put(std::initializer_list<std::pair<int, uint32_t>> records) {
    for (auto [n, vrf] : records) put(n, vrf);
  }
  void del(int n, uint32_t vrf) { in[n]->mvpnVrfDel(VrfId(vrf)); }
  // Records of the merged status, as an earlier life left them.
  void mergedIs(std::initializer_list<std::pair<uint32_t, MvpnClient>> records) {
    for (auto [vrf, client] : records) merged->mvpnVrfIs(MvpnVrf(VrfId(vrf), client));
  }
  Merged mergedMap() const { return contents(*merged); }
  // What the merged status must hold for the inputs' present contents, leaving out the
  // inputs flagged in `departed` (bit n = input n).
  Merged expected(unsigned departed = 0) const {
    std::map<uint32_t, unsigned> present;
    for (int n = 0; n < 4; ++n) {
      if (departed & (1u << n)) continue;
      for (auto it = in[n]->mvpnVrfIter(); it.valid(); it.next()) {
        present[it.key().value()] |= 1u << n;
      }
    }
    return mergeOf(present);
  }

  Oro::Ptr<MvpnVrfStatus> in[4];
  Oro::Ptr<MvpnVrfStatus> merged;
};

}  // namespace MergeTest

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
// Puts given kOutput write to the merged status (as an earlier life left it).
constexpr int kOutput = 3;

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
    (w == kOutput ? merged : in[w])
        ->vrfStatusIs(VrfId(vrf))
        ->encapTunnelIs(MvpnEncapTunnel(route(n), data));
  }
  // Each (writer, VRF, n, data) in turn.
  struct Record {
    int w;
    uint32_t vrf, n;
    std::string data;
  };
  void putRoutes(std::initializer_list<Record> records) {
    for (const Record& r : records) putRoute(r.w, r.vrf, r.n, r.data);
  }
  void putIntfs(std::initializer_list<Record> records) {
    for (const Record& r : records) putIntf(r.w, r.vrf, r.n, r.data);
  }
  void delRoute(int w, uint32_t vrf, uint32_t n) {
    if (auto e = in[w]->vrfStatus(VrfId(vrf))) e->encapTunnelDel(route(n));
  }
  void putIntf(int w, uint32_t vrf, uint32_t n, const std::string& data) {
    (w == kOutput ? merged : in[w])
        ->vrfStatusIs(VrfId(vrf))
        ->encapIntfTunnelIs(MvpnEncapIntfTunnel(intf(n), data));
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
