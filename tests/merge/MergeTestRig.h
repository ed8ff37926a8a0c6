// A merge machine over four in-process writer statuses and one merged status, driven by a
// real scheduler. Shared by the merge tests.
#pragma once

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <iterator>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "merge/MvpnVrfStatusMergeSm.h"
#include "platform/Trace.h"
#include "platform/runtime/TaskScheduler.h"
#include "status/MvpnVrfStatus.h"

namespace MergeTest {

using Routing::Multicast::MergedMvpnVrfStatusSm;
using Routing::Multicast::MvpnClient;
using Routing::Multicast::MvpnVrf;
using Routing::Multicast::MvpnVrfStatus;
using Vrf::VrfIdMap::VrfId;

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
inline std::map<uint32_t, MvpnClient> mergeOf(const std::map<uint32_t, unsigned>& present) {
  std::map<uint32_t, MvpnClient> out;
  for (auto [vrf, bits] : present) out[vrf] = *precedence(bits);
  return out;
}

inline std::map<uint32_t, MvpnClient> contents(const MvpnVrfStatus& status) {
  std::map<uint32_t, MvpnClient> out;
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
  // The captured messages for which `keep` holds, in order.
  std::vector<std::string> messagesWhere(
      const std::function<bool(const std::string&)>& keep) const {
    std::vector<std::string> out;
    std::ranges::copy_if(sink.messages(), std::back_inserter(out), keep);
    return out;
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
  void settle() { scheduler.runUntilIdle(); }

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
  void del(int n, uint32_t vrf) { in[n]->mvpnVrfDel(VrfId(vrf)); }
  std::map<uint32_t, MvpnClient> mergedMap() const { return contents(*merged); }
  // What the merged status must hold for the inputs' present contents, leaving out the
  // inputs flagged in `departed` (bit n = input n).
  std::map<uint32_t, MvpnClient> expected(unsigned departed = 0) const {
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
