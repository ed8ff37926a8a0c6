// MergedMvpnVrfStatusSm: folds the VRF statuses of the four MVPN writers (BGP MVPN, static
// MVPN, EVPN, static EVPN) into one merged MvpnVrfStatus. For every VRF that some writer lists
// the merged status holds one MvpnVrf whose client names the winner by the fixed precedence
// BGP, EVPN, static MVPN, static EVPN; a VRF that no writer lists is removed.
//
// A merge machine of the runtime described by kDesc below: four keyed inputs, streams 0..3 in
// argument order, and one output collection, "mergedVrfStatusMvpnVrfOutput". What is its own is
// the precedence rule and its trace lines. Construction does nothing; initializedIs(true)
// starts it. Every re-merged key is written again even when its merged value did not change,
// so readers of the merged status see it as a change.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <tuple>

#include "merge/KeyedInputSm.h"
#include "merge/MachineDesc.h"
#include "merge/MergeMachine.h"
#include "merge/OutputReconciler.h"
#include "platform/Error.h"
#include "platform/Trace.h"
#include "platform/net/VrfId.h"
#include "platform/runtime/Ptr.h"
#include "platform/runtime/TaskScheduler.h"
#include "status/MvpnVrfStatus.h"

namespace Routing::Multicast {
class MergedMvpnVrfStatusSm;
}

namespace Routing::Multicast::DynaCode::MergedMvpnVrfStatusSm {

using VrfId = Vrf::VrfIdMap::VrfId;

// The watched collection of every input: MvpnVrfStatus::mvpnVrf.
struct MvpnVrfSource {
  using Root = MvpnVrfStatus;
  using Key = VrfId;
  using Value = MvpnVrf;
  using Iterator = MvpnVrfIterator;
  using Bookmark = MvpnVrfBookmark;
  static constexpr Oro::AttrId attr = MvpnVrfStatus::mvpnVrfAttr;
  static std::optional<MvpnVrf> lookup(const Root& root, const VrfId& key) {
    return root.mvpnVrf(key);
  }
  static Iterator iter(const Root& root) { return root.mvpnVrfIter(); }
  static Iterator iterAt(const Root& root, const Bookmark& b) { return root.mvpnVrfIterAt(b); }
  static size_t size(const Root& root) { return root.mvpnVrfSize(); }
  static void handleCorruption(const Root& root, const Oro::ShmCorruptionException& e);
};

// The element of mergedVrfStatusMvpnVrfOutputSeen: the output collection's key as a value.
class MergedVrfStatusMvpnVrfOutputKeyType {
 public:
  MergedVrfStatusMvpnVrfOutputKeyType() = default;
  explicit MergedVrfStatusMvpnVrfOutputKeyType(VrfId vrfId) : vrfId_(vrfId) {}
  VrfId vrfId() const { return vrfId_; }
  std::string toStrep() const { return vrfId_.toStrep(); }
  uint32_t hash(uint32_t seed) const { return vrfId_.hash(seed); }
  friend bool operator==(const MergedVrfStatusMvpnVrfOutputKeyType&,
                         const MergedVrfStatusMvpnVrfOutputKeyType&) = default;
  friend auto operator<=>(const MergedVrfStatusMvpnVrfOutputKeyType&,
                          const MergedVrfStatusMvpnVrfOutputKeyType&) = default;

 private:
  VrfId vrfId_;
};

struct MergedVrfStatusMvpnVrfOutputKeyHash {
  size_t operator()(const MergedVrfStatusMvpnVrfOutputKeyType& k) const {
    return std::hash<VrfId>()(k.vrfId());
  }
};

// The output collection mergedVrfStatus.mvpnVrf as the reconciliation walks it.
struct MergedVrfStatusMvpnVrfOutputColl {
  using Key = VrfId;
  using Bookmark = MvpnVrfBookmark;
  MvpnVrfStatus* status;
  MvpnVrfIterator iter() const { return status->mvpnVrfIter(); }
  MvpnVrfIterator iterAt(const Bookmark& b) const { return MvpnVrfSource::iterAt(*status, b); }
  size_t size() const { return status->mvpnVrfSize(); }
  bool del(const VrfId& key) const;
  void handleCorruption(const Oro::ShmCorruptionException& e) const {
    MvpnVrfSource::handleCorruption(*status, e);
  }
};

using MergedVrfStatusMvpnVrfOutput =
    OutputReconciler<MergedVrfStatusMvpnVrfOutputColl, MergedVrfStatusMvpnVrfOutputKeyType,
                     MergedVrfStatusMvpnVrfOutputKeyHash>;

using VrfInput = KeyedInput<MvpnVrfSource>;

// The merge rule: the inputs (by stream) in precedence order, best first (deliberately not
// the argument order: EVPN ranks above static MVPN), each with the client a merged VRF names
// when it wins and the source line its trace quotes. The machine and the tools' audit decide
// with these same functions.
struct Rank {
  size_t stream;
  MvpnClient client;
  int line;
};
inline constexpr Rank kPrecedence[] = {{0, MvpnClient::bgp_, 22},
                                       {2, MvpnClient::evpn_, 24},
                                       {1, MvpnClient::staticMvpn_, 26},
                                       {3, MvpnClient::staticEvpn_, 28}};
// The winner: the first rank whose input `lists(stream)` says holds the VRF (inputs are
// asked in precedence order and no further than the winner), or null.
template <class Lists>
const Rank* vrfWinner(Lists&& lists) {
  for (const Rank& r : kPrecedence) {
    if (lists(r.stream)) return &r;
  }
  return nullptr;
}
// The merged record of a VRF won by `w` (none when no input lists it).
inline std::optional<MvpnVrf> mergedVrfOf(VrfId vrfId, const Rank* w) {
  return w ? std::optional<MvpnVrf>(MvpnVrf(vrfId, w->client)) : std::nullopt;
}

// The machine's description.
inline constexpr std::string_view kArgs[] = {"mvpnVrfStatus", "staticMvpnVrfStatus",
                                             "evpnVrfStatus", "staticEvpnVrfStatus",
                                             "mergedVrfStatus"};
inline constexpr InputDesc kInputs[] = {{"MvpnVrfStatusSm0", 0, {0}},
                                        {"StaticMvpnVrfStatusSm1", 1, {1}},
                                        {"EvpnVrfStatusSm2", 2, {2}},
                                        {"StaticEvpnVrfStatusSm3", 3, {3}}};
inline constexpr StreamDesc kStreams[] = {
    {"Line 15: from( mvpnVrfStatus.mvpnVrf[] ): vrfId={}", "mvpnVrf"},
    {"Line 15: from( staticMvpnVrfStatus.mvpnVrf[] ): vrfId={}", "mvpnVrf"},
    {"Line 15: from( evpnVrfStatus.mvpnVrf[] ): vrfId={}", "mvpnVrf"},
    {"Line 15: from( staticEvpnVrfStatus.mvpnVrf[] ): vrfId={}", "mvpnVrf"},
};
inline constexpr OutputDesc kOutputs[] = {{"mergedVrfStatusMvpnVrfOutput", {0, 1, 2, 3}, 4}};
inline constexpr MachineDesc kDesc{"Routing::Multicast::MergedMvpnVrfStatusSm",
                                   "MergedMvpnVrfStatusSm",
                                   "Routing::Multicast::DynaCode::MergedMvpnVrfStatusSm::",
                                   kArgs,
                                   kInputs,
                                   kStreams,
                                   kOutputs,
                                   "precedence: the first of mvpnVrfStatus, evpnVrfStatus, "
                                   "staticMvpnVrfStatus, staticEvpnVrfStatus that lists the VRF "
                                   "names its client"};

// The companions, under the names of the machine's streams and output.
using InputSmScanState = NumberedInputSmScanState<4>;
class OutputState : public DynaCode::OutputState {
 public:
  explicit OutputState(std::string typeName) : DynaCode::OutputState(std::move(typeName), 1) {}
  bool mergedVrfStatusMvpnVrfOutputReady() const { return outputReady(0); }
  void mergedVrfStatusMvpnVrfOutputReadyIs(bool ready) { outputReadyIs(0, ready); }
};

using Machine = Routing::Multicast::MergedMvpnVrfStatusSm;
DYX_KEYED_INPUT_SM(MvpnVrfStatusSm0, MvpnVrfSource, Machine, kDesc, 0, MvpnVrf, 0);
DYX_KEYED_INPUT_SM(StaticMvpnVrfStatusSm1, MvpnVrfSource, Machine, kDesc, 1, MvpnVrf, 1);
DYX_KEYED_INPUT_SM(EvpnVrfStatusSm2, MvpnVrfSource, Machine, kDesc, 2, MvpnVrf, 2);
DYX_KEYED_INPUT_SM(StaticEvpnVrfStatusSm3, MvpnVrfSource, Machine, kDesc, 3, MvpnVrf, 3);

}  // namespace Routing::Multicast::DynaCode::MergedMvpnVrfStatusSm

namespace Routing::Multicast {

class MergedMvpnVrfStatusSm
    : public DynaCode::MergeMachine<
          MergedMvpnVrfStatusSm, DynaCode::MergedMvpnVrfStatusSm::kDesc,
          std::tuple<Oro::Ptr<const MvpnVrfStatus>, Oro::Ptr<const MvpnVrfStatus>,
                     Oro::Ptr<const MvpnVrfStatus>, Oro::Ptr<const MvpnVrfStatus>,
                     Oro::Ptr<MvpnVrfStatus>>,
          std::tuple<DynaCode::MergedMvpnVrfStatusSm::MvpnVrfStatusSm0,
                     DynaCode::MergedMvpnVrfStatusSm::StaticMvpnVrfStatusSm1,
                     DynaCode::MergedMvpnVrfStatusSm::EvpnVrfStatusSm2,
                     DynaCode::MergedMvpnVrfStatusSm::StaticEvpnVrfStatusSm3>> {
 public:
  using VrfId = Vrf::VrfIdMap::VrfId;
  using MergedVrfStatusMvpnVrfOutputKeyType =
      DynaCode::MergedMvpnVrfStatusSm::MergedVrfStatusMvpnVrfOutputKeyType;
  using InputSmScanState = DynaCode::MergedMvpnVrfStatusSm::InputSmScanState;
  using OutputState = DynaCode::MergedMvpnVrfStatusSm::OutputState;
  using MvpnVrfStatusSm0 = DynaCode::MergedMvpnVrfStatusSm::MvpnVrfStatusSm0;
  using StaticMvpnVrfStatusSm1 = DynaCode::MergedMvpnVrfStatusSm::StaticMvpnVrfStatusSm1;
  using EvpnVrfStatusSm2 = DynaCode::MergedMvpnVrfStatusSm::EvpnVrfStatusSm2;
  using StaticEvpnVrfStatusSm3 = DynaCode::MergedMvpnVrfStatusSm::StaticEvpnVrfStatusSm3;
  using VrfInput = DynaCode::MergedMvpnVrfStatusSm::VrfInput;
  static constexpr size_t kInputs = 4;

  // The machine's trace handle, component "MergedMvpnVrfStatusSm".
  static Oro::TraceHandle& traceHandle();

  static Oro::Ptr<MergedMvpnVrfStatusSm> MergedMvpnVrfStatusSmIs(
      Oro::Ptr<const MvpnVrfStatus> mvpnVrfStatus,
      Oro::Ptr<const MvpnVrfStatus> staticMvpnVrfStatus,
      Oro::Ptr<const MvpnVrfStatus> evpnVrfStatus,
      Oro::Ptr<const MvpnVrfStatus> staticEvpnVrfStatus, Oro::Ptr<MvpnVrfStatus> mergedVrfStatus,
      const Dyx::SmControl& dynaControl);

  MergedMvpnVrfStatusSm(Oro::Ptr<const MvpnVrfStatus> mvpnVrfStatus,
                        Oro::Ptr<const MvpnVrfStatus> staticMvpnVrfStatus,
                        Oro::Ptr<const MvpnVrfStatus> evpnVrfStatus,
                        Oro::Ptr<const MvpnVrfStatus> staticEvpnVrfStatus,
                        Oro::Ptr<MvpnVrfStatus> mergedVrfStatus, const Dyx::SmControl& dynaControl);

  const MvpnVrfStatus* mvpnVrfStatus() const { return arg<0>(); }
  const MvpnVrfStatus* staticMvpnVrfStatus() const { return arg<1>(); }
  const MvpnVrfStatus* evpnVrfStatus() const { return arg<2>(); }
  const MvpnVrfStatus* staticEvpnVrfStatus() const { return arg<3>(); }
  MvpnVrfStatus* mergedVrfStatus() const { return arg<4>(); }

  // The input machines (null before initialisation).
  MvpnVrfStatusSm0* mvpnVrfStatusSm0() const { return input<0>(); }
  StaticMvpnVrfStatusSm1* staticMvpnVrfStatusSm1() const { return input<1>(); }
  EvpnVrfStatusSm2* evpnVrfStatusSm2() const { return input<2>(); }
  StaticEvpnVrfStatusSm3* staticEvpnVrfStatusSm3() const { return input<3>(); }
  // Input machine n (0..3) through the interface they share.
  VrfInput* inputSm(size_t n) const { return static_cast<VrfInput*>(inputSmAt(n)); }

  // The input root of stream n goes away: its keys are re-merged without it.
  void inputRootDel(size_t n);

  // Events of the four inputs; the value handed in is not used, the merge looks every input up.
  void eventToDyx_stream0(const VrfId& vrfId, const std::optional<MvpnVrf>&) {
    onStream<0>(vrfId, std::nullopt);
  }
  void eventToDyx_stream1(const VrfId& vrfId, const std::optional<MvpnVrf>&) {
    onStream<1>(vrfId, std::nullopt);
  }
  void eventToDyx_stream2(const VrfId& vrfId, const std::optional<MvpnVrf>&) {
    onStream<2>(vrfId, std::nullopt);
  }
  void eventToDyx_stream3(const VrfId& vrfId, const std::optional<MvpnVrf>&) {
    onStream<3>(vrfId, std::nullopt);
  }
  // An event of input N. `value` is what the input itself has just read for the key: when
  // present, the merge need not ask that input again.
  template <size_t N>
  void onStream(const VrfId& vrfId, const std::optional<MvpnVrf>& value) {
    if (streamEventBegins<N>(vrfId)) merge(vrfId, value ? N : kInputs);
  }
  // The merge rule for one VRF (source line 15), written into the merged status.
  void eventToDyx_pipeline0(const VrfId& vrfId) { merge(vrfId, kInputs); }
  // The into clause: writes `value` under `vrfId`, or deletes the entry when absent.
  void intoMergedVrfStatusMvpnVrf(const VrfId& vrfId, const std::optional<MvpnVrf>& value);
  // Records a key merged with an input unreadable, to merge it again once that input reads.
  void keyKept(const VrfId& vrfId) { output_.keyKept(vrfId); }

  // Output bookkeeping of mergedVrfStatus.mvpnVrf.
  DYX_OUTPUT_ATTRS(mergedVrfStatusMvpnVrfOutput, MergedVrfStatusMvpnVrfOutput, output_)

 private:
  // heldBy names an input that a lookup has just found holding the key (the notifying input
  // itself), or is kInputs.
  void merge(const VrfId& vrfId, size_t heldBy);

  DynaCode::MergedMvpnVrfStatusSm::MergedVrfStatusMvpnVrfOutput output_;
};

Oro::Ptr<MergedMvpnVrfStatusSm> mergedMvpnVrfStatusSmFactory(
    Oro::Ptr<const MvpnVrfStatus> mvpnVrfStatus, Oro::Ptr<const MvpnVrfStatus> staticMvpnVrfStatus,
    Oro::Ptr<const MvpnVrfStatus> evpnVrfStatus, Oro::Ptr<const MvpnVrfStatus> staticEvpnVrfStatus,
    Oro::Ptr<MvpnVrfStatus> mergedVrfStatus, const Dyx::SmControl& dynaControl);

}  // namespace Routing::Multicast
