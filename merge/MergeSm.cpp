#include "merge/MergeSm.h"

#include <fmt/format.h>

#include "merge/MergeTraceLevels.h"
#include "platform/Assert.h"

namespace Routing::Multicast::DynaCode {

MergeSm::MergeSm(const MachineDesc& desc, const Oro::TraceHandle& trace,
                 const Dyx::SmControl& control)
    : desc_(desc),
      qtHandle_(&trace),
      dynaControl_(control),
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
  initialized_ = initialized;
  publish(initializedAttr);
  if (initialized_) handleInitialized();
}

void MergeSm::handleInitialized() {
  if (inputSmScanState_) return;  // already started
  initialized_ = true;
  checkPointers();
  ORO_TRACE(*qtHandle_, kTraceLifecycle, "create local SMs");
  const std::string typeName(desc_.typeName);
  inputSmScanState_ = Oro::makePtr<InputSmScanState>(typeName + "::InputSmScanState", streams_);
  outputState_ = Oro::makePtr<OutputState>(typeName + "::OutputState", desc_.outputs.size());
  scanStateReactor_.notifierIs(inputSmScanState_.get());
  outputStateReactor_.notifierIs(outputState_.get());
  for (OutputBase* output : outputs_) output->initialize();
  outputsPrepare();
  ORO_TRACE(*qtHandle_, kTraceLifecycle, "create non-public arg SMs");
  createInputSms();
  for (InputSmBase* sm : inputSms_) sm->start();
}

void MergeSm::checkPointers() const {
  for (size_t arg = desc_.args.size(); arg-- > 0;) {
    if (!argPresent(arg)) {
      MVPN_FATAL(
          fmt::format("{}() && \"Pointer SM args cannot be null unless they are marked Optional\"",
                      desc_.args[arg]));
    }
  }
}

void MergeSm::handleInitialScanDone() {
  if (initialScanDone_) return;
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
  for (size_t n = 0; n < streams_; ++n) inputSmScanState_->streamScanIs(n, false);
  for (InputSmBase* sm : inputSms_) sm->rescan();
}

void MergeSm::handleIdle() {
  if (!inputSmScanState_->idle()) inputSmScanState_->idleIs(true);
}

void MergeSm::handleReady() {
  outputState_->handleReady();
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
  if (!inputSmScanState_->streamScan(stream)) return;
  if (!initialScanDone_) {
    handleInitialScanDone();
    return;
  }
  for (OutputBase* output : outputs_) output->handleInputReady();
}

void MergeSm::onOutputStateChange(Oro::AttrId attr) {
  if (attr == OutputState::readyAttr) handleReady();
}

}  // namespace Routing::Multicast::DynaCode
