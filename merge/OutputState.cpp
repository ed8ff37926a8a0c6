#include "merge/OutputState.h"

#include <algorithm>

namespace Routing::Multicast::DynaCode {

OutputState::OutputState(std::string typeName, size_t outputs)
    : typeName_(std::move(typeName)), outputReady_(outputs, false) {}

bool OutputState::derivedReady() const {
  return std::all_of(outputReady_.begin(), outputReady_.end(), [](bool b) { return b; });
}

void OutputState::outputReadyIs(size_t output, bool ready) {
  const auto held = holdForMutation();
  if (outputReady_.at(output) == ready) return;
  outputReady_[output] = ready;
  if (derivedReady() != ready_) {
    ready_ = !ready_;
    publish(readyAttr);
  }
  publish(outputReadyAttr(output));
}

void OutputState::handleReady() {
  if (derivedReady() == ready_) return;
  ready_ = !ready_;
  publish(readyAttr);
}

}  // namespace Routing::Multicast::DynaCode
