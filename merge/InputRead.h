// What one input answers to a lookup of one key: the value, absent, or unreadable (its storage
// reported damage, which has already been handed to the input's corruption handler).
//
// Damaged input never wipes merged output. A merge rule that gets an unreadable answer from an
// input that could change its outcome changes the merged entry only where the readable inputs
// prove it wrong: a missing entry is created from the best readable candidate, an entry
// outranked by a readable candidate (where the rule can tell ranks) is replaced, and nothing is
// ever deleted or replaced by a lower-ranked value. The key still counts as seen, so a
// reconciliation keeps it. The entry is corrected when the input's writer republishes: its
// reader announces the keys again and each is merged anew.
#pragma once

#include <cstdint>
#include <optional>

namespace Routing::Multicast::DynaCode {

template <class V>
struct InputRead {
  std::optional<V> value;
  bool unreadable = false;

  bool present() const { return value.has_value(); }
  static InputRead damaged() { return InputRead{std::nullopt, true}; }
};

// The damage bookkeeping of one stream: it is damaged from a failed read of its input until a
// scan that started after the last failed read ends cleanly.
class StreamDamage {
 public:
  bool damaged() const { return damaged_; }
  void readFailed() {
    ++failedReads_;
    damaged_ = true;
  }
  void scanStarts() { failedReadsAtScanStart_ = failedReads_; }
  // At the end of a scan; true when the scan was clean and followed damage.
  bool scanEnds() {
    const bool was = damaged_;
    damaged_ = failedReads_ != failedReadsAtScanStart_;
    return was && !damaged_;
  }

 private:
  uint64_t failedReads_ = 0;
  uint64_t failedReadsAtScanStart_ = 0;
  bool damaged_ = false;
};

}  // namespace Routing::Multicast::DynaCode
