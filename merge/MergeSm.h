// The parent of every merge machine: the lifecycle shared by all machines generated from a
// dataflow description (several keyed inputs merged per key into output collections).
//
// Lifecycle: idle -> initialized (handleInitialized: pointer checks, companions, input
// machines, first scans) -> initialScanDone (every stream finished its first scan, which
// writes nothing; the inputs scan again, now merging) -> ready (every stream finished its
// second scan and every output reconciled its stale entries). Afterwards input changes are
// merged key by key.
//
// Invariants: the merge functions of a machine do nothing while initialScanDone() is false;
// ready() is the output companion's ready (false before initialisation); idle() implies
// ready(). Everything runs on the thread of dynaControl().taskScheduler.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "merge/InputSmScanState.h"
#include "merge/MachineDesc.h"
#include "merge/MergeSmParts.h"
#include "merge/OutputState.h"
#include "platform/Trace.h"
#include "platform/runtime/Entity.h"
#include "platform/runtime/Ptr.h"
#include "platform/runtime/TaskScheduler.h"
#include "platform/shm/ShmMergeInfo.h"

namespace Oro {
class ShmBinding;
}

namespace Routing::Multicast::DynaCode {

class MergeSm : public Oro::Entity {
 public:
  static constexpr Oro::AttrId initializedAttr = 0;
  static constexpr Oro::AttrId initialScanDoneAttr = 1;
  static constexpr Oro::AttrId readyAttr = 2;
  static constexpr Oro::AttrId idleAttr = 3;
  // Held by each entry point (a task, a notification, initializedIs) while it runs: a
  // subscriber of the output may let go of the machine's last reference from inside a merge.
  Oro::Ptr<const MergeSm> hold() const { return Oro::keepAlive(this); }

  ~MergeSm() override;

  std::string_view typeName() const override { return desc_.typeName; }
  // The machine's name without namespaces, e.g. "MergedMvpnVrfStatusSm".
  std::string_view shortName() const { return desc_.shortName; }
  const MachineDesc& desc() const { return desc_; }
  // The full type name of the input (or child) machine `name`.
  std::string inputTypeName(std::string_view name) const {
    return std::string(desc_.inputTypePrefix) + std::string(name);
  }

  const Dyx::SmControl& dynaControl() const { return dynaControl_; }
  // The scheduler of dynaControl() while it exists; null without one or once it is destroyed.
  // A machine that outlives its scheduler runs in place whatever it would have scheduled.
  Oro::TaskScheduler* scheduler() const {
    return schedulerLife_.expired() ? nullptr : dynaControl_.taskScheduler;
  }
  bool initialized() const { return initialized_; }
  // Setting true for the first time starts the machine (handleInitialized).
  void initializedIs(bool initialized);
  bool initialScanDone() const { return initialScanDone_; }
  const bool* initialScanDonePtr() const { return &initialScanDone_; }
  bool synchronous() const { return synchronous_; }
  bool ready() const { return outputState_ && outputState_->ready(); }
  bool idle() const { return ready() && (synchronous_ || inputSmScanState_->idle()); }

  InputSmScanState* inputSmScanState() const { return inputSmScanState_.get(); }
  // Input machine i (in description order); null before initialisation.
  InputSmBase* inputSmAt(size_t i) const { return i < inputSms_.size() ? inputSms_[i] : nullptr; }
  OutputState* outputState() const { return outputState_.get(); }
  const Oro::TraceHandle& qtHandle() const { return *qtHandle_; }

  // A read of `stream`'s input met damage and no clean scan has followed (see InputRead.h).
  bool streamDamaged(size_t stream) const;
  // A clean scan of `stream` followed damage: the outputs it feeds merge again the keys they
  // kept on the ground of damage.
  void streamRecovered(size_t stream);

  // Progress of the current scan of `stream` and of output `output`'s reconciliation, for the
  // merge record of the output store.
  void scanProgressIs(size_t stream, uint64_t scanned, uint64_t total);
  void reconcileProgressIs(size_t output, uint64_t walked, uint64_t total, uint64_t deleted);

  // The machine goes away (its output store may stay with its writer): its record says so.
  void recordStopped();

  void handleInitialized();
  void handleInitialScanDone();
  void handleIdle();
  void handleReady();
  void doDeleteAll();

 protected:
  MergeSm(const MachineDesc& desc, const Oro::TraceHandle& trace, const Dyx::SmControl& control);

  // The entity mandatory argument `arg` (in desc().args order) points at, null when unset.
  virtual const void* argEntity(size_t arg) const = 0;
  // Creates the input machines and registers each with inputSmIs.
  virtual void createInputSms() = 0;
  // Before the inputs start: a machine may prepare its outputs for what the inputs hold.
  virtual void outputsPrepare() {}
  // The binding of the root the machine writes (its merge record goes there), and the mount
  // path of argument `arg` ("" when it is not in shared memory).
  virtual Oro::ShmBinding* outputBinding() const = 0;
  virtual std::string argPath(size_t arg) const = 0;
  // The companions, made when the machine starts: each machine makes its own kinds, which
  // name its flags over the numbered ones.
  virtual Oro::Ptr<InputSmScanState> makeInputSmScanState() const = 0;
  virtual Oro::Ptr<OutputState> makeOutputState() const = 0;

  void inputSmIs(InputSmBase* sm) { inputSms_.push_back(sm); }
  void outputIs(OutputBase* output) { outputs_.push_back(output); }

 private:
  // Fails the null-pointer assertion of the first missing mandatory argument, tested from
  // the last argument back to the first.
  void checkPointers() const;
  void onScanStateChange(Oro::AttrId attr);
  void onOutputStateChange(Oro::AttrId attr);
  // Writes the state bits into the merge record of the output store.
  void recordState();

  const MachineDesc& desc_;
  const Oro::TraceHandle* qtHandle_;
  Dyx::SmControl dynaControl_;
  std::weak_ptr<const void> schedulerLife_;
  size_t streams_;
  bool initialized_ = false;
  bool initialScanDone_ = false;
  bool synchronous_;
  Oro::Ptr<InputSmScanState> inputSmScanState_;
  Oro::Ptr<OutputState> outputState_;
  Oro::AttrReactor scanStateReactor_;
  Oro::AttrReactor outputStateReactor_;
  std::vector<InputSmBase*> inputSms_;  // owned by the derived machine
  std::vector<OutputBase*> outputs_;    // owned by the derived machine
  std::unique_ptr<Oro::ShmMergeRecorder> recorder_;
};

}  // namespace Routing::Multicast::DynaCode
