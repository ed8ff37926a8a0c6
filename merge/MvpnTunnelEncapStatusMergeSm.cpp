#include "merge/MvpnTunnelEncapStatusMergeSm.h"

#include <string_view>
#include <utility>

#include <absl/cleanup/cleanup.h>
#include <fmt/format.h>

#include "merge/InputRead.h"
#include "merge/IntoClause.h"
#include "merge/MergeTraceLevels.h"

namespace Routing::Multicast {

namespace {

using DynaCode::InputRead;
using DynaCode::kTraceMerge;
using namespace DynaCode::MergedMcastTunnelEncapStatusSm;

// The two merge statements. Each reads the static writer first: its record, when it has one,
// is the merged record. Otherwise the other writer's record is, or nothing.
struct RouteRule {  // source line 11
  using Key = MvpnRouteKey;
  using Value = MvpnEncapTunnel;
  using OutKey = MergedEncapVrfStatusEncapTunnelOutputKeyType;
  static constexpr size_t kOutput = 0;
  static constexpr std::string_view kMerge =
      "Line 11: merge( dyx_stream0, dyx_stream1 ): vrfId={} routeKey={}";
  static constexpr std::string_view kInto =
      "into( mergedEncap.vrfStatus[ vrfId ].encapTunnel[ routeKey ] )";
  static constexpr std::string_view kInserting =
      "into( mergedEncap.vrfStatus[ vrfId ].encapTunnel[ routeKey ] ): inserting k1={}, k2={}, "
      "value={}";
  static constexpr std::string_view kDeleting =
      "into( mergedEncap.vrfStatus[ vrfId ].encapTunnel[ routeKey ] ): deleting k1={}, k2={}";
  static constexpr std::string_view kKeeping =
      "into( mergedEncap.vrfStatus[ vrfId ].encapTunnel[ routeKey ] ): keeping k1={}, k2={}: an "
      "input is unreadable";

  static InputRead<Value> readStatic(const MergedMcastTunnelEncapStatusSm& m, const VrfId& v,
                                     const Key& k) {
    return m.staticEncapSm2()->lookup<0>(v, k);
  }
  static InputRead<Value> readOther(const MergedMcastTunnelEncapStatusSm& m, const VrfId& v,
                                    const Key& k) {
    return m.mvpnEncapSm0()->lookup<0>(v, k);
  }
  static const Key& keyOf(const Value& v) { return v.routeKey(); }
  static bool holds(const MvpnVrfTunnelEncapStatus& e, const Key& k) {
    return e.encapTunnel(k).has_value();
  }
  static void write(MvpnVrfTunnelEncapStatus& e, const Value& v) { e.encapTunnelIs(v); }
  static void del(MvpnVrfTunnelEncapStatus& e, const Key& k) { e.encapTunnelDel(k); }
};

struct IntfRule {  // source line 19
  using Key = MvpnRouteIntfKey;
  using Value = MvpnEncapIntfTunnel;
  using OutKey = MergedEncapVrfStatusEncapIntfTunnelOutputKeyType;
  static constexpr size_t kOutput = 1;
  static constexpr std::string_view kMerge =
      "Line 19: merge( dyx_stream2, dyx_stream3 ): vrfId={} routeIntfKey={}";
  static constexpr std::string_view kInto =
      "into( mergedEncap.vrfStatus[ vrfId ].encapIntfTunnel[ routeIntfKey ] )";
  static constexpr std::string_view kInserting =
      "into( mergedEncap.vrfStatus[ vrfId ].encapIntfTunnel[ routeIntfKey ] ): inserting k1={}, "
      "k2={}, value={}";
  static constexpr std::string_view kDeleting =
      "into( mergedEncap.vrfStatus[ vrfId ].encapIntfTunnel[ routeIntfKey ] ): deleting k1={}, "
      "k2={}";
  static constexpr std::string_view kKeeping =
      "into( mergedEncap.vrfStatus[ vrfId ].encapIntfTunnel[ routeIntfKey ] ): keeping k1={}, "
      "k2={}: an input is unreadable";

  static InputRead<Value> readStatic(const MergedMcastTunnelEncapStatusSm& m, const VrfId& v,
                                     const Key& k) {
    return m.staticEncapSm2()->lookup<1>(v, k);
  }
  static InputRead<Value> readOther(const MergedMcastTunnelEncapStatusSm& m, const VrfId& v,
                                    const Key& k) {
    return m.evpnEncapSm4()->lookup<0>(v, k);
  }
  static const Key& keyOf(const Value& v) { return v.routeIntfKey(); }
  static bool holds(const MvpnVrfTunnelEncapStatus& e, const Key& k) {
    return e.encapIntfTunnel(k).has_value();
  }
  static void write(MvpnVrfTunnelEncapStatus& e, const Value& v) { e.encapIntfTunnelIs(v); }
  static void del(MvpnVrfTunnelEncapStatus& e, const Key& k) { e.encapIntfTunnelDel(k); }
};

bool emptyVrf(const MvpnVrfTunnelEncapStatus& e) {
  return e.encapTunnelSize() == 0 && e.encapIntfTunnelSize() == 0;
}

}  // namespace

Oro::TraceHandle& MergedMcastTunnelEncapStatusSm::traceHandle() {
  static Oro::TraceHandle& handle = Oro::TraceHandle::immortal(std::string{kDesc.shortName});
  return handle;
}

MergedMcastTunnelEncapStatusSm::MergedMcastTunnelEncapStatusSm(
    Oro::Ptr<const MvpnTunnelEncapStatus> mvpnEncap,
    Oro::Ptr<const MvpnTunnelEncapStatus> staticEncap,
    Oro::Ptr<const MvpnTunnelEncapStatus> evpnEncap, Oro::Ptr<MvpnTunnelEncapStatus> mergedEncap,
    const Dyx::SmControl& dynaControl)
    : MergeMachine({std::move(mvpnEncap), std::move(staticEncap), std::move(evpnEncap),
                    std::move(mergedEncap)},
                   dynaControl),
      encapTunnelOutput_(
          this, RouteRule::kOutput,
          {arg<3>(), [this](const RouteRule::OutKey& k) { return deleteMerged<RouteRule>(k); }},
          [this](const RouteRule::OutKey& k) {
            merge<RouteRule>(k.vrfId(), k.inner(), nullptr, nullptr);
          }),
      encapIntfTunnelOutput_(
          this, IntfRule::kOutput,
          {arg<3>(), [this](const IntfRule::OutKey& k) { return deleteMerged<IntfRule>(k); }},
          [this](const IntfRule::OutKey& k) {
            merge<IntfRule>(k.vrfId(), k.inner(), nullptr, nullptr);
          }) {
  outputIs(&encapTunnelOutput_);
  outputIs(&encapIntfTunnelOutput_);
  mergedVrf_.notifierIs(arg<3>());
}

MergedMcastTunnelEncapStatusSm::~MergedMcastTunnelEncapStatusSm() {
  mergedVrf_.notifierIs(nullptr);
}

Oro::Ptr<MergedMcastTunnelEncapStatusSm>
MergedMcastTunnelEncapStatusSm::MergedMcastTunnelEncapStatusSmIs(
    Oro::Ptr<const MvpnTunnelEncapStatus> mvpnEncap,
    Oro::Ptr<const MvpnTunnelEncapStatus> staticEncap,
    Oro::Ptr<const MvpnTunnelEncapStatus> evpnEncap, Oro::Ptr<MvpnTunnelEncapStatus> mergedEncap,
    const Dyx::SmControl& dynaControl) {
  return Oro::makePtr<MergedMcastTunnelEncapStatusSm>(std::move(mvpnEncap), std::move(staticEncap),
                                                      std::move(evpnEncap), std::move(mergedEncap),
                                                      dynaControl);
}

Oro::Ptr<MergedMcastTunnelEncapStatusSm> mergedMcastTunnelEncapStatusSmFactory(
    Oro::Ptr<const MvpnTunnelEncapStatus> mvpnEncap,
    Oro::Ptr<const MvpnTunnelEncapStatus> staticEncap,
    Oro::Ptr<const MvpnTunnelEncapStatus> evpnEncap, Oro::Ptr<MvpnTunnelEncapStatus> mergedEncap,
    const Dyx::SmControl& dynaControl) {
  return MergedMcastTunnelEncapStatusSm::MergedMcastTunnelEncapStatusSmIs(
      std::move(mvpnEncap), std::move(staticEncap), std::move(evpnEncap), std::move(mergedEncap),
      dynaControl);
}

void MergedMcastTunnelEncapStatusSm::eventToDyx_pipeline0(const VrfId& vrfId,
                                                          const MvpnRouteKey& routeKey) {
  merge<RouteRule>(vrfId, routeKey, nullptr, nullptr);
}

void MergedMcastTunnelEncapStatusSm::eventToDyx_pipeline1(const VrfId& vrfId,
                                                          const MvpnRouteIntfKey& routeIntfKey) {
  merge<IntfRule>(vrfId, routeIntfKey, nullptr, nullptr);
}

void MergedMcastTunnelEncapStatusSm::mergeRoute(const VrfId& vrfId, const MvpnRouteKey& routeKey,
                                                const MvpnEncapTunnel* heldStatic,
                                                const MvpnEncapTunnel* heldOther) {
  merge<RouteRule>(vrfId, routeKey, heldStatic, heldOther);
}

void MergedMcastTunnelEncapStatusSm::mergeIntf(const VrfId& vrfId,
                                               const MvpnRouteIntfKey& routeIntfKey,
                                               const MvpnEncapIntfTunnel* heldStatic,
                                               const MvpnEncapIntfTunnel* heldOther) {
  merge<IntfRule>(vrfId, routeIntfKey, heldStatic, heldOther);
}

void MergedMcastTunnelEncapStatusSm::intoMergedEncapVrfStatusEncapTunnel(
    const VrfId& vrfId, const MvpnRouteKey& routeKey, const std::optional<MvpnEncapTunnel>& value) {
  into<RouteRule>(vrfId, routeKey, value);
}

void MergedMcastTunnelEncapStatusSm::intoMergedEncapVrfStatusEncapIntfTunnel(
    const VrfId& vrfId, const MvpnRouteIntfKey& routeIntfKey,
    const std::optional<MvpnEncapIntfTunnel>& value) {
  into<IntfRule>(vrfId, routeIntfKey, value);
}

template <class Rule>
void MergedMcastTunnelEncapStatusSm::merge(const VrfId& vrfId, const typename Rule::Key& key,
                                           const typename Rule::Value* heldStatic,
                                           const typename Rule::Value* heldOther) {
  if (!initialScanDone()) return;
  ORO_TRACE(qtHandle(), kTraceMerge, fmt::runtime(Rule::kMerge), vrfId, key);
  auto& output = [this]() -> auto& {
    if constexpr (Rule::kOutput == 0) {
      return encapTunnelOutput_;
    } else {
      return encapIntfTunnelOutput_;
    }
  }
  ();
  const InputRead<typename Rule::Value> stat = heldStatic
                                                   ? InputRead<typename Rule::Value>{*heldStatic}
                                                   : Rule::readStatic(*this, vrfId, key);
  InputRead<typename Rule::Value> other;
  if (!stat.present()) {
    other = heldOther ? InputRead<typename Rule::Value>{*heldOther}
                      : Rule::readOther(*this, vrfId, key);
  }
  const std::optional<typename Rule::Value> value = staticWins(stat.value, other.value);
  const typename Rule::OutKey outKey(vrfId, key);
  // Seen records every key merged while reconciling, whether it ends in a write or a delete.
  output.keyMerged(outKey);
  if (stat.unreadable || (!stat.present() && other.unreadable)) {
    // The static record may exist unseen (see merge/InputRead.h): an existing merged record
    // may be right and stays; a missing one is created from the readable candidate, since
    // some writer holds the key.
    output.keyKept(outKey);
    bool held = true;
    try {
      const Oro::Ptr<MvpnVrfTunnelEncapStatus> entity = mergedEncap()->vrfStatus(vrfId);
      held = entity && Rule::holds(*entity, key);
    } catch (const Oro::ShmCorruptionException& e) {
      mergedEncap()->vrfStatusHandleCorruption(e.what());
    }
    if (value && !held) {
      into<Rule>(vrfId, key, value);
    } else {
      ORO_TRACE(qtHandle(), kTraceMerge, fmt::runtime(Rule::kKeeping), vrfId, key);
    }
    return;
  }
  into<Rule>(vrfId, key, value);
}

// Writes `value` under (vrfId, key) of the merged status, or deletes the key (and the merged
// VRF once both of its collections are empty).
template <class Rule>
void MergedMcastTunnelEncapStatusSm::into(const VrfId& vrfId, const typename Rule::Key& key,
                                          const std::optional<typename Rule::Value>& value) {
  if (!value) {
    const Oro::Ptr<MvpnVrfTunnelEncapStatus> entity = mergedEncap()->vrfStatus(vrfId);
    if (!entity) return;
    ORO_TRACE(qtHandle(), kTraceMerge, fmt::runtime(Rule::kDeleting), vrfId, key);
    Rule::del(*entity, key);
    if (emptyVrf(*entity)) mergedVrfDel(vrfId);
    return;
  }
  // The merged VRF first (created when absent), then the trace, the key check, the write. The
  // cache holds it throughout: only a change of the merged root's VRFs clears it.
  MvpnVrfTunnelEncapStatus& vrf = mergedVrfIs(vrfId);
  ORO_TRACE(qtHandle(), kTraceMerge, fmt::runtime(Rule::kInserting), vrfId, key, value->toStrep());
  DynaCode::intoKeyCheck(Rule::kInto, Rule::keyOf(*value), key);
  Rule::write(vrf, *value);
}

// Every merged VRF is some input's VRF: room for all of them up front keeps the creation of
// a hundred thousand merged VRFs from stopping one task run for a rehash.
void MergedMcastTunnelEncapStatusSm::outputsPrepare() {
  size_t vrfs = 0;
  for (const MvpnTunnelEncapStatus* in : {mvpnEncap(), staticEncap(), evpnEncap()}) {
    try {
      vrfs += in->vrfStatusSize();
    } catch (const Oro::ShmCorruptionException&) {
      // The input's scan reports it.
    }
  }
  mergedEncap()->vrfStatusReserve(vrfs + vrfs / 4);
}

MvpnVrfTunnelEncapStatus& MergedMcastTunnelEncapStatusSm::mergedVrfIs(const VrfId& vrfId) {
  if (!mergedVrf_.entity || mergedVrf_.vrfId != vrfId) {
    // vrfStatusIs may announce a new VRF, which clears the cache: fill it afterwards. A merge
    // made from inside that announcement must not delete the VRF for holding nothing yet: the
    // record written next is what it is made for.
    absl::Cleanup restore = [this, outer = std::exchange(creatingVrf_, vrfId)] {
      creatingVrf_ = outer;
    };
    Oro::Ptr<MvpnVrfTunnelEncapStatus> entity = mergedEncap()->vrfStatusIs(vrfId);
    mergedVrf_.vrfId = vrfId;
    mergedVrf_.entity = std::move(entity);
  }
  return *mergedVrf_.entity;
}

void MergedMcastTunnelEncapStatusSm::mergedVrfDel(const VrfId& vrfId) {
  if (creatingVrf_ == vrfId) return;  // its record comes next (mergedVrfIs)
  // The cache is dropped before the deletion is announced: a subscriber notified ahead of the
  // cache's own notifiee may merge into this VRF again, and must find a new entity.
  if (mergedVrf_.vrfId == vrfId) mergedVrf_.entity = nullptr;
  mergedEncap()->vrfStatusDel(vrfId);
}

template <class Rule>
bool MergedMcastTunnelEncapStatusSm::deleteMerged(const typename Rule::OutKey& key) {
  const Oro::Ptr<MvpnVrfTunnelEncapStatus> entity = mergedEncap()->vrfStatus(key.vrfId());
  if (!entity) return false;
  const bool record = key.k1Valid();
  if (record) Rule::del(*entity, key.inner());
  if (emptyVrf(*entity)) {
    mergedVrfDel(key.vrfId());
    return true;
  }
  return record;
}

}  // namespace Routing::Multicast
