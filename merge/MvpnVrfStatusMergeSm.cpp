#include "merge/MvpnVrfStatusMergeSm.h"

#include <string_view>

#include "merge/IntoClause.h"
#include "merge/MergeTraceLevels.h"
#include "platform/runtime/Optional.h"

namespace Routing::Multicast::DynaCode::MergedMvpnVrfStatusSm {

void MvpnVrfSource::handleCorruption(const Root& root, const Oro::ShmCorruptionException& e) {
  root.mvpnVrfHandleCorruption(e.what());
}

bool MergedVrfStatusMvpnVrfOutputColl::del(const VrfId& key) const {
  status->mvpnVrfDel(key);
  return true;
}

}  // namespace Routing::Multicast::DynaCode::MergedMvpnVrfStatusSm

namespace Routing::Multicast {

namespace {

using DynaCode::kTraceMerge;
using DynaCode::MergedMvpnVrfStatusSm::MergedVrfStatusMvpnVrfOutputColl;

}  // namespace

Oro::TraceHandle& MergedMvpnVrfStatusSm::traceHandle() {
  static Oro::TraceHandle& handle =
      Oro::TraceHandle::immortal(std::string{DynaCode::MergedMvpnVrfStatusSm::kDesc.shortName});
  return handle;
}

MergedMvpnVrfStatusSm::MergedMvpnVrfStatusSm(Oro::Ptr<const MvpnVrfStatus> mvpnVrfStatus,
                                             Oro::Ptr<const MvpnVrfStatus> staticMvpnVrfStatus,
                                             Oro::Ptr<const MvpnVrfStatus> evpnVrfStatus,
                                             Oro::Ptr<const MvpnVrfStatus> staticEvpnVrfStatus,
                                             Oro::Ptr<MvpnVrfStatus> mergedVrfStatus,
                                             const Dyx::SmControl& dynaControl)
    : MergeMachine(
          {std::move(mvpnVrfStatus), std::move(staticMvpnVrfStatus), std::move(evpnVrfStatus),
           std::move(staticEvpnVrfStatus), std::move(mergedVrfStatus)},
          dynaControl),
      output_(this, 0, MergedVrfStatusMvpnVrfOutputColl{arg<4>()},
              [this](const VrfId& vrfId) { merge(vrfId, kInputs); }) {
  outputIs(&output_);
}

Oro::Ptr<MergedMvpnVrfStatusSm> MergedMvpnVrfStatusSm::MergedMvpnVrfStatusSmIs(
    Oro::Ptr<const MvpnVrfStatus> mvpnVrfStatus, Oro::Ptr<const MvpnVrfStatus> staticMvpnVrfStatus,
    Oro::Ptr<const MvpnVrfStatus> evpnVrfStatus, Oro::Ptr<const MvpnVrfStatus> staticEvpnVrfStatus,
    Oro::Ptr<MvpnVrfStatus> mergedVrfStatus, const Dyx::SmControl& dynaControl) {
  return Oro::makePtr<MergedMvpnVrfStatusSm>(
      std::move(mvpnVrfStatus), std::move(staticMvpnVrfStatus), std::move(evpnVrfStatus),
      std::move(staticEvpnVrfStatus), std::move(mergedVrfStatus), dynaControl);
}

Oro::Ptr<MergedMvpnVrfStatusSm> mergedMvpnVrfStatusSmFactory(
    Oro::Ptr<const MvpnVrfStatus> mvpnVrfStatus, Oro::Ptr<const MvpnVrfStatus> staticMvpnVrfStatus,
    Oro::Ptr<const MvpnVrfStatus> evpnVrfStatus, Oro::Ptr<const MvpnVrfStatus> staticEvpnVrfStatus,
    Oro::Ptr<MvpnVrfStatus> mergedVrfStatus, const Dyx::SmControl& dynaControl) {
  return MergedMvpnVrfStatusSm::MergedMvpnVrfStatusSmIs(
      std::move(mvpnVrfStatus), std::move(staticMvpnVrfStatus), std::move(evpnVrfStatus),
      std::move(staticEvpnVrfStatus), std::move(mergedVrfStatus), dynaControl);
}

void MergedMvpnVrfStatusSm::inputRootDel(size_t n) {
  if (VrfInput* sm = inputSm(n)) sm->inputRootDel();
}

namespace {
using DynaCode::MergedMvpnVrfStatusSm::kPrecedence;
using DynaCode::MergedMvpnVrfStatusSm::Rank;
// The no-input case quotes the rank-4 line as well.
constexpr int kNoWinnerLine = 28;

// The rank (index in kPrecedence) of a merged client.
size_t rankOf(MvpnClient client) {
  for (size_t i = 0; i < std::size(kPrecedence); ++i) {
    if (kPrecedence[i].client == client) return i;
  }
  return std::size(kPrecedence);
}

// The merge of a key for which input `unreadable`, ranked above the winner `w` (or any input
// when `w` is null), could not be read (see merge/InputRead.h). The true winner ranks at
// least as high as `w`: a missing merged entry or one of a lower rank is wrong for certain
// and is replaced; anything else may be right and stays.
void keepOrUpgrade(MergedMvpnVrfStatusSm& sm, const MergedMvpnVrfStatusSm::VrfId& vrfId,
                   const Rank* w, size_t unreadable) {
  sm.keyKept(vrfId);
  std::optional<MvpnVrf> current;
  try {
    current = sm.mergedVrfStatus()->mvpnVrf(vrfId);
  } catch (const Oro::ShmCorruptionException& e) {
    sm.mergedVrfStatus()->mvpnVrfHandleCorruption(e.what());
    return;
  }
  if (w && (!current || rankOf(current->client()) > static_cast<size_t>(w - kPrecedence))) {
    sm.intoMergedVrfStatusMvpnVrf(vrfId, MvpnVrf(vrfId, w->client));
    return;
  }
  ORO_TRACE(sm.qtHandle(), kTraceMerge,
            "into( mergedVrfStatus.mvpnVrf[ vrfId ] ): keeping k1={}: dyx_stream{} unreadable",
            vrfId, unreadable);
}
}  // namespace

void MergedMvpnVrfStatusSm::merge(const VrfId& vrfId, size_t heldBy) {
  if (!initialScanDone()) return;
  const Oro::TraceHandle& trace = qtHandle();
  ORO_TRACE(trace, kTraceMerge,
            "Line 15: merge( dyx_stream0, dyx_stream1, dyx_stream2, dyx_stream3 ): vrfId={}",
            vrfId);
  // The winner, and whether an input ranked above it (any input when there is none) could
  // not be read: then the decision is left to keepOrUpgrade.
  const Rank* w = nullptr;
  size_t unreadable = kInputs;
  if (!trace.enabled(DynaCode::kTraceMerge)) {
    // Without the trace lines that print every input, only the inputs up to the winner are
    // looked up (in precedence order), and an input that was found holding the key just
    // before is not asked again: the decision is the same.
    w = DynaCode::MergedMvpnVrfStatusSm::vrfWinner([&](size_t stream) {
      if (stream == heldBy) return true;
      const auto read = inputSm(stream)->lookup(vrfId);
      if (read.unreadable && unreadable == kInputs) unreadable = stream;
      return read.present();
    });
    output_.keyMerged(vrfId);
    if (unreadable != kInputs) {
      keepOrUpgrade(*this, vrfId, w, unreadable);
      return;
    }
    intoMergedVrfStatusMvpnVrf(vrfId, DynaCode::MergedMvpnVrfStatusSm::mergedVrfOf(vrfId, w));
    return;
  }
  // Every input, in argument order; only presence counts, the winner's own client field is
  // not copied.
  DynaCode::InputRead<MvpnVrf> in[kInputs];
  for (size_t n = 0; n < kInputs; ++n) in[n] = inputSm(n)->lookup(vrfId);
  w = DynaCode::MergedMvpnVrfStatusSm::vrfWinner([&](size_t stream) {
    if (in[stream].unreadable && unreadable == kInputs) unreadable = stream;
    return in[stream].present();
  });
  const MvpnVrf myVrf(vrfId, w ? w->client : MvpnClient::staticEvpn_);
  ORO_TRACE(trace, kTraceMerge,
            "Line {}: merge( dyx_pipeline0 ): vrfId={} myVrf={} mvpnVrf={} staticMvpnVrf={} "
            "evpnVrf={} staticEvpnVrf={}",
            w ? w->line : kNoWinnerLine, vrfId, myVrf.toStrep(), Oro::optionalStrep(in[0].value),
            Oro::optionalStrep(in[1].value), Oro::optionalStrep(in[2].value),
            Oro::optionalStrep(in[3].value));
  const std::optional<MvpnVrf> valMyVrf = DynaCode::MergedMvpnVrfStatusSm::mergedVrfOf(vrfId, w);
  ORO_TRACE(trace, kTraceMerge,
            "Line 22: merge( dyx_pipeline1, dyx_pipeline2, dyx_pipeline3, dyx_pipeline4, "
            "dyx_pipeline5 ): valMyVrf={} vrfId={} mvpnVrf={} staticMvpnVrf={} evpnVrf={} "
            "staticEvpnVrf={}",
            Oro::optionalStrep(valMyVrf), vrfId, Oro::optionalStrep(in[0].value),
            Oro::optionalStrep(in[1].value), Oro::optionalStrep(in[2].value),
            Oro::optionalStrep(in[3].value));
  // Seen records every key merged while reconciling, whether it ends in a write or a delete.
  output_.keyMerged(vrfId);
  if (unreadable != kInputs) {
    keepOrUpgrade(*this, vrfId, w, unreadable);
    return;
  }
  intoMergedVrfStatusMvpnVrf(vrfId, valMyVrf);
}

void MergedMvpnVrfStatusSm::intoMergedVrfStatusMvpnVrf(const VrfId& vrfId,
                                                       const std::optional<MvpnVrf>& value) {
  if (!value) {
    ORO_TRACE(qtHandle(), kTraceMerge, "into( mergedVrfStatus.mvpnVrf[ vrfId ] ): deleting k1={}",
              vrfId);
    mergedVrfStatus()->mvpnVrfDel(vrfId);
    return;
  }
  DynaCode::intoKeyCheck("into( mergedVrfStatus.mvpnVrf[ vrfId ] )", value->key(), vrfId);
  ORO_TRACE(qtHandle(), kTraceMerge,
            "into( mergedVrfStatus.mvpnVrf[ vrfId ] ): inserting k1={}, value={}", vrfId,
            value->toStrep());
  mergedVrfStatus()->mvpnVrfIs(*value);
}

}  // namespace Routing::Multicast
