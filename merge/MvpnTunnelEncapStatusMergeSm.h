// MergedMcastTunnelEncapStatusSm: merges the tunnel encapsulation statuses of the MVPN, the
// static and the EVPN writers into one merged status. Route encapsulations (encapTunnel, source
// line 11) come from the MVPN and the static writer, interface encapsulations (encapIntfTunnel,
// source line 19) from the EVPN and the static writer; in both the static writer's record wins
// whenever it has one, whole (no fields are combined). A merged per-VRF entity exists exactly
// while one of its collections holds a record this machine wrote.
//
// A merge machine of the runtime described by kDesc below: three nested input machines (a
// child machine per VRF follows the VRF's entity), streams 0..3, and two two-level outputs
// with their own Seen sets, bookmarks, tasks and ready flags; the machine is ready when both
// are. What is its own is the rule and its trace lines. Construction does nothing;
// initializedIs(true) starts it.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <tuple>

#include "merge/MachineDesc.h"
#include "merge/MergeMachine.h"
#include "merge/MvpnTunnelEncapStatus.h"
#include "merge/NestedInputSm.h"
#include "merge/OutputReconciler.h"
#include "merge/TwoLevelOutput.h"
#include "platform/Error.h"
#include "platform/Trace.h"
#include "platform/runtime/Ptr.h"
#include "platform/runtime/TaskScheduler.h"

namespace Routing::Multicast {
class MergedMcastTunnelEncapStatusSm;
}

namespace Routing::Multicast::DynaCode::MergedMcastTunnelEncapStatusSm {

using VrfId = Vrf::VrfIdMap::VrfId;

// The collections the machine reads and writes.
struct VrfStatusSource {
  using Root = MvpnTunnelEncapStatus;
  using Key = VrfId;
  using Entity = MvpnVrfTunnelEncapStatus;
  using Iterator = VrfStatusIterator;
  using Bookmark = VrfStatusBookmark;
  static constexpr Oro::AttrId attr = MvpnTunnelEncapStatus::vrfStatusAttr;
  static Oro::Ptr<Entity> lookup(const Root& r, const VrfId& k) { return r.vrfStatus(k); }
  static Iterator iter(const Root& r) { return r.vrfStatusIter(); }
  static Iterator iterAt(const Root& r, const Bookmark& b) { return r.vrfStatusIterAt(b); }
  static size_t size(const Root& r) { return r.vrfStatusSize(); }
  // Records in every VRF's collections.
  static size_t records(const Root& r) { return r.encapTunnelTotal() + r.encapIntfTunnelTotal(); }
  static void handleCorruption(const Root& r, const Oro::ShmCorruptionException& e) {
    r.vrfStatusHandleCorruption(e.what());
  }
};

struct EncapTunnelSource {
  using Entity = MvpnVrfTunnelEncapStatus;
  using Key = MvpnRouteKey;
  using Value = MvpnEncapTunnel;
  using Iterator = EncapTunnelIterator;
  using Bookmark = EncapTunnelBookmark;
  static constexpr Oro::AttrId attr = MvpnVrfTunnelEncapStatus::encapTunnelAttr;
  static std::optional<Value> lookup(const Entity& e, const Key& k) { return e.encapTunnel(k); }
  static Iterator iter(const Entity& e) { return e.encapTunnelIter(); }
  static Iterator iterAt(const Entity& e, const Bookmark& b) { return e.encapTunnelIterAt(b); }
  static size_t size(const Entity& e) { return e.encapTunnelSize(); }
  static size_t total(const MvpnTunnelEncapStatus& r) { return r.encapTunnelTotal(); }
  static uint32_t version(const Entity& e) { return e.encapTunnelVersion(); }
  static void handleCorruption(const Entity& e, const Oro::ShmCorruptionException& x) {
    e.encapTunnelHandleCorruption(x.what());
  }
};

struct EncapIntfTunnelSource {
  using Entity = MvpnVrfTunnelEncapStatus;
  using Key = MvpnRouteIntfKey;
  using Value = MvpnEncapIntfTunnel;
  using Iterator = EncapIntfTunnelIterator;
  using Bookmark = EncapIntfTunnelBookmark;
  static constexpr Oro::AttrId attr = MvpnVrfTunnelEncapStatus::encapIntfTunnelAttr;
  static std::optional<Value> lookup(const Entity& e, const Key& k) { return e.encapIntfTunnel(k); }
  static Iterator iter(const Entity& e) { return e.encapIntfTunnelIter(); }
  static Iterator iterAt(const Entity& e, const Bookmark& b) { return e.encapIntfTunnelIterAt(b); }
  static size_t size(const Entity& e) { return e.encapIntfTunnelSize(); }
  static size_t total(const MvpnTunnelEncapStatus& r) { return r.encapIntfTunnelTotal(); }
  static uint32_t version(const Entity& e) { return e.encapIntfTunnelVersion(); }
  static void handleCorruption(const Entity& e, const Oro::ShmCorruptionException& x) {
    e.encapIntfTunnelHandleCorruption(x.what());
  }
};

// The elements of the two Seen sets.
class MergedEncapVrfStatusEncapTunnelOutputKeyType : public TwoLevelKey<MvpnRouteKey> {
 public:
  using TwoLevelKey::TwoLevelKey;
  const MvpnRouteKey& routeKey() const { return inner(); }
};
class MergedEncapVrfStatusEncapIntfTunnelOutputKeyType : public TwoLevelKey<MvpnRouteIntfKey> {
 public:
  using TwoLevelKey::TwoLevelKey;
  const MvpnRouteIntfKey& routeIntfKey() const { return inner(); }
};

using MergedEncapVrfStatusEncapTunnelOutput =
    OutputReconciler<TwoLevelOutputColl<VrfStatusSource, EncapTunnelSource,
                                        MergedEncapVrfStatusEncapTunnelOutputKeyType>,
                     MergedEncapVrfStatusEncapTunnelOutputKeyType,
                     OutputKeyHash<MergedEncapVrfStatusEncapTunnelOutputKeyType>>;
using MergedEncapVrfStatusEncapIntfTunnelOutput =
    OutputReconciler<TwoLevelOutputColl<VrfStatusSource, EncapIntfTunnelSource,
                                        MergedEncapVrfStatusEncapIntfTunnelOutputKeyType>,
                     MergedEncapVrfStatusEncapIntfTunnelOutputKeyType,
                     OutputKeyHash<MergedEncapVrfStatusEncapIntfTunnelOutputKeyType>>;

// The merge rule of both collections: the static writer's record, whole, when it has one;
// else the other writer's (MVPN for encapTunnel, EVPN for encapIntfTunnel); else none. The
// machine and the tools' audit decide with this same function.
template <class V>
std::optional<V> staticWins(const std::optional<V>& fromStatic, const std::optional<V>& other) {
  return fromStatic ? fromStatic : other;
}

// The machine's description.
inline constexpr std::string_view kArgs[] = {"mvpnEncap", "staticEncap", "evpnEncap",
                                             "mergedEncap"};
inline constexpr InputDesc kInputs[] = {{"MvpnEncapSm0", 0, {0}, 1, "VrfStatusSm1"},
                                        {"StaticEncapSm2", 1, {1, 3}, 2, "VrfStatusSm3"},
                                        {"EvpnEncapSm4", 2, {2}, 1, "VrfStatusSm5"}};
inline constexpr StreamDesc kStreams[] = {
    {"Line 11: from( mvpnEncap.vrfStatus[].encapTunnel[] ): vrfId={} routeKey={}", "encapTunnel"},
    {"Line 11: from( staticEncap.vrfStatus[].encapTunnel[] ): vrfId={} routeKey={}", "encapTunnel"},
    {"Line 19: from( evpnEncap.vrfStatus[].encapIntfTunnel[] ): vrfId={} routeIntfKey={}",
     "encapIntfTunnel"},
    {"Line 19: from( staticEncap.vrfStatus[].encapIntfTunnel[] ): vrfId={} routeIntfKey={}",
     "encapIntfTunnel"},
};
inline constexpr OutputDesc kOutputs[] = {
    {"mergedEncapVrfStatusEncapTunnelOutput", {0, 1}, 2, true},
    {"mergedEncapVrfStatusEncapIntfTunnelOutput", {2, 3}, 2, true}};
inline constexpr MachineDesc kDesc{"Routing::Multicast::MergedMcastTunnelEncapStatusSm",
                                   "MergedMcastTunnelEncapStatusSm",
                                   "Routing::Multicast::DynaCode::MergedMcastTunnelEncapStatusSm::",
                                   kArgs,
                                   kInputs,
                                   kStreams,
                                   kOutputs,
                                   "static wins: encapTunnel from staticEncap else mvpnEncap, "
                                   "encapIntfTunnel from staticEncap else evpnEncap, whole "
                                   "records"};

using Machine = Routing::Multicast::MergedMcastTunnelEncapStatusSm;
// The companions, under the names of the machine's streams and outputs.
using InputSmScanState = NumberedInputSmScanState<4>;
class OutputState : public DynaCode::OutputState {
 public:
  explicit OutputState(std::string typeName) : DynaCode::OutputState(std::move(typeName), 2) {}
  bool mergedEncapVrfStatusEncapTunnelOutputReady() const { return outputReady(0); }
  void mergedEncapVrfStatusEncapTunnelOutputReadyIs(bool ready) { outputReadyIs(0, ready); }
  bool mergedEncapVrfStatusEncapIntfTunnelOutputReady() const { return outputReady(1); }
  void mergedEncapVrfStatusEncapIntfTunnelOutputReadyIs(bool ready) { outputReadyIs(1, ready); }
};

class VrfStatusSm1;
class VrfStatusSm3;
class VrfStatusSm5;

// The input machines, following each writer's vrfStatus, and their child machines per VRF.
class MvpnEncapSm0 : public NestedInputSm<Machine, kDesc, 0, VrfStatusSource, VrfStatusSm1> {
 public:
  using NestedInputSm::NestedInputSm;
  DYX_NESTED_STREAM(VrfStatus, 0, 0)
  DYX_CHILD_MAP(childSmVrfStatusRoutingMulticastMvpnVrfTunnelEncapStatusPtrConst, MvpnEncapSm0)
};
class StaticEncapSm2 : public NestedInputSm<Machine, kDesc, 1, VrfStatusSource, VrfStatusSm3> {
 public:
  using NestedInputSm::NestedInputSm;
  DYX_NESTED_STREAM(VrfStatus, 1, 0)
  DYX_NESTED_STREAM(VrfStatus, 3, 1)
  DYX_CHILD_MAP(childSmVrfStatusRoutingMulticastMvpnVrfTunnelEncapStatusPtrConst, StaticEncapSm2)
};
class EvpnEncapSm4 : public NestedInputSm<Machine, kDesc, 2, VrfStatusSource, VrfStatusSm5> {
 public:
  using NestedInputSm::NestedInputSm;
  DYX_NESTED_STREAM(VrfStatus, 2, 0)
  DYX_CHILD_MAP(childSmVrfStatusRoutingMulticastMvpnVrfTunnelEncapStatusPtrConst, EvpnEncapSm4)
};

class VrfStatusSm1 : public ChildSm<MvpnEncapSm0, EncapTunnelSource> {
 public:
  using ChildSm::ChildSm;
  DYX_CHILD_STREAM(EncapTunnel, 0, 0)
};
class VrfStatusSm3 : public ChildSm<StaticEncapSm2, EncapTunnelSource, EncapIntfTunnelSource> {
 public:
  using ChildSm::ChildSm;
  DYX_CHILD_STREAM(EncapTunnel, 1, 0)
  DYX_CHILD_STREAM(EncapIntfTunnel, 3, 1)
};
class VrfStatusSm5 : public ChildSm<EvpnEncapSm4, EncapIntfTunnelSource> {
 public:
  using ChildSm::ChildSm;
  DYX_CHILD_STREAM(EncapIntfTunnel, 2, 0)
};

}  // namespace Routing::Multicast::DynaCode::MergedMcastTunnelEncapStatusSm

namespace Routing::Multicast {

class MergedMcastTunnelEncapStatusSm
    : public DynaCode::MergeMachine<
          MergedMcastTunnelEncapStatusSm, DynaCode::MergedMcastTunnelEncapStatusSm::kDesc,
          std::tuple<Oro::Ptr<const MvpnTunnelEncapStatus>, Oro::Ptr<const MvpnTunnelEncapStatus>,
                     Oro::Ptr<const MvpnTunnelEncapStatus>, Oro::Ptr<MvpnTunnelEncapStatus>>,
          std::tuple<DynaCode::MergedMcastTunnelEncapStatusSm::MvpnEncapSm0,
                     DynaCode::MergedMcastTunnelEncapStatusSm::StaticEncapSm2,
                     DynaCode::MergedMcastTunnelEncapStatusSm::EvpnEncapSm4>> {
 public:
  using VrfId = Vrf::VrfIdMap::VrfId;
  using InputSmScanState = DynaCode::MergedMcastTunnelEncapStatusSm::InputSmScanState;
  using OutputState = DynaCode::MergedMcastTunnelEncapStatusSm::OutputState;
  using MvpnEncapSm0 = DynaCode::MergedMcastTunnelEncapStatusSm::MvpnEncapSm0;
  using StaticEncapSm2 = DynaCode::MergedMcastTunnelEncapStatusSm::StaticEncapSm2;
  using EvpnEncapSm4 = DynaCode::MergedMcastTunnelEncapStatusSm::EvpnEncapSm4;
  using VrfStatusSm1 = DynaCode::MergedMcastTunnelEncapStatusSm::VrfStatusSm1;
  using VrfStatusSm3 = DynaCode::MergedMcastTunnelEncapStatusSm::VrfStatusSm3;
  using VrfStatusSm5 = DynaCode::MergedMcastTunnelEncapStatusSm::VrfStatusSm5;
  using MergedEncapVrfStatusEncapTunnelOutputKeyType =
      DynaCode::MergedMcastTunnelEncapStatusSm::MergedEncapVrfStatusEncapTunnelOutputKeyType;
  using MergedEncapVrfStatusEncapIntfTunnelOutputKeyType =
      DynaCode::MergedMcastTunnelEncapStatusSm::MergedEncapVrfStatusEncapIntfTunnelOutputKeyType;

  // The machine's trace handle, component "MergedMcastTunnelEncapStatusSm".
  static Oro::TraceHandle& traceHandle();

  static Oro::Ptr<MergedMcastTunnelEncapStatusSm> MergedMcastTunnelEncapStatusSmIs(
      Oro::Ptr<const MvpnTunnelEncapStatus> mvpnEncap,
      Oro::Ptr<const MvpnTunnelEncapStatus> staticEncap,
      Oro::Ptr<const MvpnTunnelEncapStatus> evpnEncap, Oro::Ptr<MvpnTunnelEncapStatus> mergedEncap,
      const Dyx::SmControl& dynaControl);

  MergedMcastTunnelEncapStatusSm(Oro::Ptr<const MvpnTunnelEncapStatus> mvpnEncap,
                                 Oro::Ptr<const MvpnTunnelEncapStatus> staticEncap,
                                 Oro::Ptr<const MvpnTunnelEncapStatus> evpnEncap,
                                 Oro::Ptr<MvpnTunnelEncapStatus> mergedEncap,
                                 const Dyx::SmControl& dynaControl);
  ~MergedMcastTunnelEncapStatusSm() override;
  void outputsPrepare() override;

  const MvpnTunnelEncapStatus* mvpnEncap() const { return arg<0>(); }
  const MvpnTunnelEncapStatus* staticEncap() const { return arg<1>(); }
  const MvpnTunnelEncapStatus* evpnEncap() const { return arg<2>(); }
  MvpnTunnelEncapStatus* mergedEncap() const { return arg<3>(); }

  // The input machines (null before initialisation).
  MvpnEncapSm0* mvpnEncapSm0() const { return input<0>(); }
  StaticEncapSm2* staticEncapSm2() const { return input<1>(); }
  EvpnEncapSm4* evpnEncapSm4() const { return input<2>(); }

  // Events of the four streams; the record handed in is not used, the merge looks the inputs
  // up again.
  void eventToDyx_stream0(const VrfId& vrfId, const MvpnRouteKey& routeKey,
                          const std::optional<MvpnEncapTunnel>&) {
    onStream<0>(vrfId, routeKey, kNoRoute);
  }
  void eventToDyx_stream1(const VrfId& vrfId, const MvpnRouteKey& routeKey,
                          const std::optional<MvpnEncapTunnel>&) {
    onStream<1>(vrfId, routeKey, kNoRoute);
  }
  void eventToDyx_stream2(const VrfId& vrfId, const MvpnRouteIntfKey& routeIntfKey,
                          const std::optional<MvpnEncapIntfTunnel>&) {
    onStream<2>(vrfId, routeIntfKey, kNoIntf);
  }
  void eventToDyx_stream3(const VrfId& vrfId, const MvpnRouteIntfKey& routeIntfKey,
                          const std::optional<MvpnEncapIntfTunnel>&) {
    onStream<3>(vrfId, routeIntfKey, kNoIntf);
  }
  // An event of stream N from its input machine. `held` is the record the input has just
  // read for the key: when present it stands for that input's lookup in the merge.
  template <size_t N, class K, class V>
  void onStream(const VrfId& vrfId, const K& key, const std::optional<V>& held) {
    if (!streamEventBegins<N>(vrfId, key)) return;
    const V* h = held ? &*held : nullptr;
    // Streams 1 and 3 are the static writer's.
    if constexpr (N == 0) {
      mergeRoute(vrfId, key, nullptr, h);
    } else if constexpr (N == 1) {
      mergeRoute(vrfId, key, h, nullptr);
    } else if constexpr (N == 2) {
      mergeIntf(vrfId, key, nullptr, h);
    } else {
      mergeIntf(vrfId, key, h, nullptr);
    }
  }
  // Source line 11: the route encapsulation of (vrfId, routeKey), static over MVPN.
  void eventToDyx_pipeline0(const VrfId& vrfId, const MvpnRouteKey& routeKey);
  // Source line 19: the interface encapsulation of (vrfId, routeIntfKey), static over EVPN.
  void eventToDyx_pipeline1(const VrfId& vrfId, const MvpnRouteIntfKey& routeIntfKey);
  // The into clauses: write the record under the key (creating the merged VRF), or delete the
  // key (and the merged VRF once both its collections are empty).
  void intoMergedEncapVrfStatusEncapTunnel(const VrfId& vrfId, const MvpnRouteKey& routeKey,
                                           const std::optional<MvpnEncapTunnel>& value);
  void intoMergedEncapVrfStatusEncapIntfTunnel(const VrfId& vrfId,
                                               const MvpnRouteIntfKey& routeIntfKey,
                                               const std::optional<MvpnEncapIntfTunnel>& value);

  // Output bookkeeping of mergedEncap.vrfStatus[].encapTunnel[] and ...encapIntfTunnel[].
  DYX_OUTPUT_ATTRS(mergedEncapVrfStatusEncapTunnelOutput, MergedEncapVrfStatusEncapTunnelOutput,
                   encapTunnelOutput_)
  DYX_OUTPUT_ATTRS(mergedEncapVrfStatusEncapIntfTunnelOutput,
                   MergedEncapVrfStatusEncapIntfTunnelOutput, encapIntfTunnelOutput_)

 private:
  static inline const std::optional<MvpnEncapTunnel> kNoRoute;
  static inline const std::optional<MvpnEncapIntfTunnel> kNoIntf;

  // The rules with what the notifying input has just read (static, other writer; null when
  // it read nothing or the event did not come from it).
  void mergeRoute(const VrfId& vrfId, const MvpnRouteKey& routeKey,
                  const MvpnEncapTunnel* heldStatic, const MvpnEncapTunnel* heldOther);
  void mergeIntf(const VrfId& vrfId, const MvpnRouteIntfKey& routeIntfKey,
                 const MvpnEncapIntfTunnel* heldStatic, const MvpnEncapIntfTunnel* heldOther);
  template <class Rule>
  void merge(const VrfId& vrfId, const typename Rule::Key& key,
             const typename Rule::Value* heldStatic, const typename Rule::Value* heldOther);
  template <class Rule>
  void into(const VrfId& vrfId, const typename Rule::Key& key,
            const std::optional<typename Rule::Value>& value);
  // Reconciliation: deletes a key of the merged status without tracing it, or for a key of the
  // VRF alone, the merged VRF when it is empty. True when something was deleted.
  template <class Rule>
  bool deleteMerged(const typename Rule::OutKey& key);
  // The merged VRF's entity, created when absent.
  MvpnVrfTunnelEncapStatus& mergedVrfIs(const VrfId& vrfId);
  // Deletes the merged VRF (emptied by this machine).
  void mergedVrfDel(const VrfId& vrfId);

  // The merged per-VRF entity last written, dropped when the merged root announces a change
  // of that VRF: the merges of one VRF's keys, which scans do one after the other, look the
  // VRF up in the merged root once.
  struct MergedVrfCache : Oro::Notifiee {
    VrfId vrfId;
    Oro::Ptr<MvpnVrfTunnelEncapStatus> entity;
    void onAttributeKey(Oro::AttrId attr, const void* key) override {
      if (attr == MvpnTunnelEncapStatus::vrfStatusAttr && keyAs<VrfId>(key) == vrfId) {
        entity = nullptr;
      }
    }
  };
  MergedVrfCache mergedVrf_;
  // The merged VRF mergedVrfIs is making (its creation is being announced), kept even when
  // empty until the record it is made for is written.
  std::optional<VrfId> creatingVrf_;

  DynaCode::MergedMcastTunnelEncapStatusSm::MergedEncapVrfStatusEncapTunnelOutput
      encapTunnelOutput_;
  DynaCode::MergedMcastTunnelEncapStatusSm::MergedEncapVrfStatusEncapIntfTunnelOutput
      encapIntfTunnelOutput_;
};

Oro::Ptr<MergedMcastTunnelEncapStatusSm> mergedMcastTunnelEncapStatusSmFactory(
    Oro::Ptr<const MvpnTunnelEncapStatus> mvpnEncap,
    Oro::Ptr<const MvpnTunnelEncapStatus> staticEncap,
    Oro::Ptr<const MvpnTunnelEncapStatus> evpnEncap, Oro::Ptr<MvpnTunnelEncapStatus> mergedEncap,
    const Dyx::SmControl& dynaControl);

}  // namespace Routing::Multicast
