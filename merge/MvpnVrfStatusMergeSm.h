// MergedMvpnVrfStatusSm: folds the VRF statuses of the four MVPN writers (BGP MVPN, static
// MVPN, EVPN, static EVPN) into one merged MvpnVrfStatus. For every VRF that some writer lists
// the merged status holds one MvpnVrf whose client names the winner by the fixed precedence
// BGP, EVPN, static MVPN, static EVPN; a VRF that no writer lists is removed.
//
// An instance of the merge machine runtime (MergeSm) with four keyed inputs, streams 0..3 in
// argument order, and one output collection, "mergedVrfStatusMvpnVrfOutput". Construction does
// nothing; initializedIs(true) starts it. Every re-merged key is written again even when its
// merged value did not change, so readers of the merged status see it as a change.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "merge/KeyedInputSm.h"
#include "merge/MergeSm.h"
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
  void del(const VrfId& key) const;
  void handleCorruption(const Oro::ShmCorruptionException& e) const {
    MvpnVrfSource::handleCorruption(*status, e);
  }
};

using MergedVrfStatusMvpnVrfOutput =
    OutputReconciler<MergedVrfStatusMvpnVrfOutputColl, MergedVrfStatusMvpnVrfOutputKeyType,
                     MergedVrfStatusMvpnVrfOutputKeyHash>;

using VrfInputSm = KeyedInputSm<MvpnVrfSource>;

// The four input machines: the generic keyed input machine under its numbered names.
DYX_KEYED_INPUT_SM(MvpnVrfStatusSm0, VrfInputSm, MvpnVrf, 0);
DYX_KEYED_INPUT_SM(StaticMvpnVrfStatusSm1, VrfInputSm, MvpnVrf, 1);
DYX_KEYED_INPUT_SM(EvpnVrfStatusSm2, VrfInputSm, MvpnVrf, 2);
DYX_KEYED_INPUT_SM(StaticEvpnVrfStatusSm3, VrfInputSm, MvpnVrf, 3);

}  // namespace Routing::Multicast::DynaCode::MergedMvpnVrfStatusSm

namespace Routing::Multicast {

class MergedMvpnVrfStatusSm : public DynaCode::MergeSm {
 public:
  using VrfId = Vrf::VrfIdMap::VrfId;
  using MergedVrfStatusMvpnVrfOutputKeyType =
      DynaCode::MergedMvpnVrfStatusSm::MergedVrfStatusMvpnVrfOutputKeyType;
  using MvpnVrfStatusSm0 = DynaCode::MergedMvpnVrfStatusSm::MvpnVrfStatusSm0;
  using StaticMvpnVrfStatusSm1 = DynaCode::MergedMvpnVrfStatusSm::StaticMvpnVrfStatusSm1;
  using EvpnVrfStatusSm2 = DynaCode::MergedMvpnVrfStatusSm::EvpnVrfStatusSm2;
  using StaticEvpnVrfStatusSm3 = DynaCode::MergedMvpnVrfStatusSm::StaticEvpnVrfStatusSm3;
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
  ~MergedMvpnVrfStatusSm() override;

  const MvpnVrfStatus* mvpnVrfStatus() const { return mvpnVrfStatus_.get(); }
  const MvpnVrfStatus* staticMvpnVrfStatus() const { return staticMvpnVrfStatus_.get(); }
  const MvpnVrfStatus* evpnVrfStatus() const { return evpnVrfStatus_.get(); }
  const MvpnVrfStatus* staticEvpnVrfStatus() const { return staticEvpnVrfStatus_.get(); }
  MvpnVrfStatus* mergedVrfStatus() const { return mergedVrfStatus_.get(); }

  // The input machines (null before initialisation).
  MvpnVrfStatusSm0* mvpnVrfStatusSm0() const { return mvpnVrfStatusSm0_.get(); }
  StaticMvpnVrfStatusSm1* staticMvpnVrfStatusSm1() const { return staticMvpnVrfStatusSm1_.get(); }
  EvpnVrfStatusSm2* evpnVrfStatusSm2() const { return evpnVrfStatusSm2_.get(); }
  StaticEvpnVrfStatusSm3* staticEvpnVrfStatusSm3() const { return staticEvpnVrfStatusSm3_.get(); }
  // Input machine n (0..3) through the generic interface.
  DynaCode::MergedMvpnVrfStatusSm::VrfInputSm* inputSm(size_t n) const;

  // The input root of stream n goes away: its keys are re-merged without it.
  void inputRootDel(size_t n);

  // Events of the four inputs; the value handed in is not used, the merge looks every input up.
  void eventToDyx_stream0(const VrfId& vrfId, const std::optional<MvpnVrf>& value);
  void eventToDyx_stream1(const VrfId& vrfId, const std::optional<MvpnVrf>& value);
  void eventToDyx_stream2(const VrfId& vrfId, const std::optional<MvpnVrf>& value);
  void eventToDyx_stream3(const VrfId& vrfId, const std::optional<MvpnVrf>& value);
  // The merge rule for one VRF (source line 15), written into the merged status.
  void eventToDyx_pipeline0(const VrfId& vrfId);
  // The into clause: writes `value` under `vrfId`, or deletes the entry when absent.
  void intoMergedVrfStatusMvpnVrf(const VrfId& vrfId, const std::optional<MvpnVrf>& value);

  // Records a key merged with an input unreadable, to merge it again once that input reads.
  void keyKept(const VrfId& vrfId) { output_.keyKept(vrfId); }

  // Output bookkeeping of mergedVrfStatus.mvpnVrf.
  void handleMergedVrfStatusMvpnVrfOutputInputReady() { output_.handleInputReady(); }
  const DynaCode::MergedMvpnVrfStatusSm::MergedVrfStatusMvpnVrfOutput&
  mergedVrfStatusMvpnVrfOutput() const {
    return output_;
  }
  const auto& mergedVrfStatusMvpnVrfOutputSeen() const { return output_.seen(); }
  const auto& mergedVrfStatusMvpnVrfOutputBookmark() const { return output_.bookmark(); }
  bool mergedVrfStatusMvpnVrfOutputUseBookmark() const { return output_.useBookmark(); }
  bool mergedVrfStatusMvpnVrfOutputReconciling() const { return output_.reconciling(); }
  Oro::Task* mergedVrfStatusMvpnVrfOutputReconciliationTask() const {
    return output_.reconciliationTask();
  }
  Oro::Task* mergedVrfStatusMvpnVrfOutputSeenReleaseTask() const {
    return output_.seenReleaseTask();
  }

 protected:
  void checkPointers() const override;
  void createInputSms() override;

 private:
  // An event of input `stream`. heldBy names an input that a lookup has just found holding
  // the key (the notifying input itself), or is kInputs.
  void streamEvent(size_t stream, const VrfId& vrfId, size_t heldBy);
  void merge(const VrfId& vrfId, size_t heldBy);

  Oro::Ptr<const MvpnVrfStatus> mvpnVrfStatus_;
  Oro::Ptr<const MvpnVrfStatus> staticMvpnVrfStatus_;
  Oro::Ptr<const MvpnVrfStatus> evpnVrfStatus_;
  Oro::Ptr<const MvpnVrfStatus> staticEvpnVrfStatus_;
  Oro::Ptr<MvpnVrfStatus> mergedVrfStatus_;
  DynaCode::MergedMvpnVrfStatusSm::MergedVrfStatusMvpnVrfOutput output_;
  Oro::Ptr<MvpnVrfStatusSm0> mvpnVrfStatusSm0_;
  Oro::Ptr<StaticMvpnVrfStatusSm1> staticMvpnVrfStatusSm1_;
  Oro::Ptr<EvpnVrfStatusSm2> evpnVrfStatusSm2_;
  Oro::Ptr<StaticEvpnVrfStatusSm3> staticEvpnVrfStatusSm3_;
};

Oro::Ptr<MergedMvpnVrfStatusSm> mergedMvpnVrfStatusSmFactory(
    Oro::Ptr<const MvpnVrfStatus> mvpnVrfStatus, Oro::Ptr<const MvpnVrfStatus> staticMvpnVrfStatus,
    Oro::Ptr<const MvpnVrfStatus> evpnVrfStatus, Oro::Ptr<const MvpnVrfStatus> staticEvpnVrfStatus,
    Oro::Ptr<MvpnVrfStatus> mergedVrfStatus, const Dyx::SmControl& dynaControl);

}  // namespace Routing::Multicast
