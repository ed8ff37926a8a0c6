#include "merge/MergeSm.h"

#include <algorithm>

#include <fmt/format.h>

#include "merge/MergeTraceLevels.h"
#include "platform/Assert.h"
#include "platform/shm/ShmBinding.h"

namespace Routing::Multicast::DynaCode {

MergeSm::MergeSm(const MachineDesc& desc, const Oro::TraceHandle& trace,
                 const Dyx::SmControl& control)
    : desc_(desc),
      qtHandle_(&trace),
      dynaControl_(control),
      schedulerLife_(control.taskScheduler ? control.taskScheduler->lifetime()
                                           : std::weak_ptr<const void>()),
      streams_(desc.streams.size()),
      synchronous_(control.defaultSynchronous),
      scanStateReactor_([this](Oro::AttrId attr) { onScanStateChange(attr); }),
      outputStateReactor_([this](Oro::AttrId attr) { onOutputStateChange(attr); }) {}

MergeSm::~MergeSm() {
  // Companions may outlive the machine in a caller's Ptr; stop listening to them first.
  scanStateReactor_.notifierIs(nullptr);
  outputStateReactor_.notifierIs(nullptr);
}

void MergeSm::initializedIs(bool initialized) {
  if (initialized_ == initialized) return;
  const auto held = hold();
  initialized_ = initialized;
  publish(initializedAttr);
  if (initialized_) handleInitialized();
}

void MergeSm::handleInitialized() {
  if (inputSmScanState_) return;  // already started
  initialized_ = true;
  checkPointers();
  ORO_TRACE(*qtHandle_, kTraceLifecycle, "create local SMs");
  inputSmScanState_ = makeInputSmScanState();
  outputState_ = makeOutputState();
  scanStateReactor_.notifierIs(inputSmScanState_.get());
  outputStateReactor_.notifierIs(outputState_.get());
  for (OutputBase* output : outputs_) output->initialize();
  Oro::ShmMergeDescription record{std::string(desc_.typeName), std::string(desc_.rule), {}, {}, {}};
  for (const InputDesc& in : desc_.inputs) {
    record.inputs.push_back({std::string(desc_.args[in.arg]), argPath(in.arg)});
  }
  for (size_t n = 0; n < streams_; ++n) {
    for (size_t i = 0; i < desc_.inputs.size(); ++i) {
      const InputDesc& in = desc_.inputs[i];
      if (in.streams[0] == n || (in.streamCount > 1 && in.streams[1] == n)) {
        record.streamInput.push_back(static_cast<uint8_t>(i));
      }
    }
  }
  for (const OutputDesc& out : desc_.outputs) record.outputs.emplace_back(out.name);
  recorder_ = std::make_unique<Oro::ShmMergeRecorder>(std::move(record));
  recordState();
  outputsPrepare();
  ORO_TRACE(*qtHandle_, kTraceLifecycle, "create non-public arg SMs");
  createInputSms();
  for (InputSmBase* sm : inputSms_) sm->start();
}

void MergeSm::recordState() {
  if (!recorder_) return;
  Oro::ShmBinding* out = outputBinding();
  if (!out) return;
  uint32_t bits = initialized_ ? Oro::ShmLayout::kMergeInitialized : 0;
  if (initialScanDone_) bits |= Oro::ShmLayout::kMergeInitialScanDone;
  if (ready()) bits |= Oro::ShmLayout::kMergeReady;
  for (size_t o = 0; o < outputs_.size() && o < Oro::ShmLayout::kMergeOutputs; ++o) {
    const auto oo = static_cast<uint32_t>(o);
    if (outputState_->outputReady(o)) bits |= Oro::ShmLayout::mergeOutputReady(oo);
    if (outputs_[o]->reconciling()) bits |= Oro::ShmLayout::mergeOutputReconciling(oo);
  }
  for (size_t n = 0; n < streams_ && n < Oro::ShmLayout::kMergeStreams; ++n) {
    const auto nn = static_cast<uint32_t>(n);
    if (inputSmScanState_->streamScan(n)) bits |= Oro::ShmLayout::mergeStreamScanned(nn);
    if (streamDamaged(n)) bits |= Oro::ShmLayout::mergeStreamDamaged(nn);
  }
  recorder_->stateIs(out->store(), bits);
}

void MergeSm::recordStopped() {
  Oro::ShmBinding* out = recorder_ ? outputBinding() : nullptr;
  if (out) recorder_->stateIs(out->store(), recorder_->state() | Oro::ShmLayout::kMergeStopped);
}

void MergeSm::scanProgressIs(size_t stream, uint64_t scanned, uint64_t total) {
  Oro::ShmBinding* out = recorder_ ? outputBinding() : nullptr;
  if (out) recorder_->streamProgressIs(out->store(), static_cast<uint32_t>(stream), scanned, total);
}

void MergeSm::reconcileProgressIs(size_t output, uint64_t walked, uint64_t total,
                                  uint64_t deleted) {
  Oro::ShmBinding* out = recorder_ ? outputBinding() : nullptr;
  if (out) {
    recorder_->outputProgressIs(out->store(), static_cast<uint32_t>(output),
                                {walked, std::max(walked, total), deleted});
  }
}

void MergeSm::checkPointers() const {
  for (size_t arg = desc_.args.size(); arg-- > 0;) {
    if (!argEntity(arg)) {
      MVPN_FATAL(
          fmt::format("{}() && \"Pointer SM args cannot be null unless they are marked Optional\"",
                      desc_.args[arg]));
    }
  }
  // The merged root (the last argument) watched as an input too would merge its own writes
  // without end: every write publishes its key, and the publication reaches the merge again.
  const size_t out = desc_.args.size() - 1;
  const std::string outPath = argPath(out);
  for (const InputDesc& in : desc_.inputs) {
    if (argEntity(in.arg) == argEntity(out) || (!outPath.empty() && argPath(in.arg) == outPath)) {
      MVPN_FATAL(
          fmt::format("{} cannot also be the input {}", desc_.args[out], desc_.args[in.arg]));
    }
  }
}

// The handlers below run on the companions' changes; called before initialisation (there are
// no companions yet) they have nothing to act on.
void MergeSm::handleInitialScanDone() {
  if (initialScanDone_ || !inputSmScanState_) return;
  const size_t missing = inputSmScanState_->lastUnscannedStream();
  if (missing != streams_) {
    ORO_TRACE(*qtHandle_, kTraceScan, " dyx_stream{} scan is false", missing);
    ORO_TRACE(*qtHandle_, kTraceScan, "Initial scan yielding for child SM {}.", desc_.shortName);
    return;
  }
  ORO_TRACE(*qtHandle_, kTraceLifecycle,
            "Initial scan done for child SMs. Now scanning with events triggered.");
  initialScanDone_ = true;
  publish(initialScanDoneAttr);
  recordState();
  for (size_t n = 0; n < streams_; ++n) inputSmScanState_->streamScanIs(n, false);
  for (InputSmBase* sm : inputSms_) sm->rescan();
}

void MergeSm::handleIdle() {
  if (inputSmScanState_ && !inputSmScanState_->idle()) inputSmScanState_->idleIs(true);
}

void MergeSm::handleReady() {
  if (!outputState_) return;
  outputState_->handleReady();
  recordState();
  publish(readyAttr);
  if (outputState_->ready()) handleIdle();
}

bool MergeSm::streamDamaged(size_t stream) const {
  for (const InputSmBase* sm : inputSms_) {
    if (sm->streamDamaged(stream)) return true;
  }
  return false;
}

void MergeSm::streamRecovered(size_t stream) {
  ORO_TRACE(*qtHandle_, kTraceLifecycle, "dyx_stream{} readable again", stream);
  for (OutputBase* output : outputs_) {
    if (output->mergesStream(stream)) output->remergeKept();
  }
}

void MergeSm::doDeleteAll() {
  for (InputSmBase* sm : inputSms_) sm->doDeleteAll();
}

void MergeSm::onScanStateChange(Oro::AttrId attr) {
  if (attr == InputSmScanState::idleAttr) {
    publish(idleAttr);
    return;
  }
  // Only a scan that completes can complete an output's inputs: the flags cleared when the
  // merging scans start (or a damaged stream's rescan) must not start a reconciliation of an
  // output whose other flags are still set.
  const size_t stream = attr - InputSmScanState::streamScanAttr(0);
  recordState();
  if (!inputSmScanState_->streamScan(stream)) return;
  if (!initialScanDone_) {
    handleInitialScanDone();
    return;
  }
  for (OutputBase* output : outputs_) output->handleInputReady();
}

void MergeSm::onOutputStateChange(Oro::AttrId attr) {
  if (attr == OutputState::readyAttr) {
    handleReady();
    return;
  }
  recordState();
}

}  // namespace Routing::Multicast::DynaCode
