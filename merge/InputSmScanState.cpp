#include "merge/InputSmScanState.h"

namespace Routing::Multicast::DynaCode {

InputSmScanState::InputSmScanState(std::string typeName, size_t streams)
    : typeName_(std::move(typeName)), streamScan_(streams, false) {}

void InputSmScanState::idleIs(bool idle) {
  if (idle_ == idle) return;
  idle_ = idle;
  publish(idleAttr);
}

void InputSmScanState::streamScanIs(size_t stream, bool done) {
  if (streamScan_.at(stream) == done) return;
  streamScan_[stream] = done;
  publish(streamScanAttr(stream));
}

size_t InputSmScanState::lastUnscannedStream() const {
  for (size_t n = streamScan_.size(); n-- > 0;) {
    if (!streamScan_[n]) return n;
  }
  return streamScan_.size();
}

}  // namespace Routing::Multicast::DynaCode
