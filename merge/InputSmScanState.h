// Scan-state companion of a merge machine: one flag per input stream ("dyx_stream<n>Scan"),
// set when that stream has finished a scan, and the machine-wide `idle` flag.
//
// Invariants: the number of streams is fixed at construction; every change of a flag is
// published (attribute idleAttr, or streamScanAttr(n)), and setting a flag to the value it
// already holds publishes nothing.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/runtime/Entity.h"

namespace Routing::Multicast::DynaCode {

class InputSmScanState : public Oro::Entity {
 public:
  static constexpr Oro::AttrId idleAttr = 0;
  static constexpr Oro::AttrId streamScanAttr(size_t stream) {
    return static_cast<Oro::AttrId>(1 + stream);
  }

  InputSmScanState(std::string typeName, size_t streams);
  std::string_view typeName() const override { return typeName_; }

  size_t streams() const { return streamScan_.size(); }
  bool idle() const { return idle_; }
  void idleIs(bool idle);
  // dyx_stream<n>Scan.
  bool streamScan(size_t stream) const { return streamScan_.at(stream); }
  void streamScanIs(size_t stream, bool done);
  // The highest-numbered stream whose flag is clear, or streams() when all are set.
  size_t lastUnscannedStream() const;
  bool allStreamsScanned() const { return lastUnscannedStream() == streams(); }

 private:
  std::string typeName_;
  bool idle_ = false;
  std::vector<bool> streamScan_;
};

// A machine's own scan-state companion: the flags of its `Streams` streams under their numbered
// names, dyx_stream<n>Scan, over the generic ones.
template <size_t Streams>
class NumberedInputSmScanState : public InputSmScanState {
  static_assert(Streams <= 4, "the numbered accessors are written out for up to four streams");

 public:
  explicit NumberedInputSmScanState(std::string typeName)
      : InputSmScanState(std::move(typeName), Streams) {}
  bool dyx_stream0Scan() const requires(Streams > 0) { return streamScan(0); }
  void dyx_stream0ScanIs(bool done) requires(Streams > 0) { streamScanIs(0, done); }
  bool dyx_stream1Scan() const requires(Streams > 1) { return streamScan(1); }
  void dyx_stream1ScanIs(bool done) requires(Streams > 1) { streamScanIs(1, done); }
  bool dyx_stream2Scan() const requires(Streams > 2) { return streamScan(2); }
  void dyx_stream2ScanIs(bool done) requires(Streams > 2) { streamScanIs(2, done); }
  bool dyx_stream3Scan() const requires(Streams > 3) { return streamScan(3); }
  void dyx_stream3ScanIs(bool done) requires(Streams > 3) { streamScanIs(3, done); }
};

}  // namespace Routing::Multicast::DynaCode
