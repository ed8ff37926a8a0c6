// The merge record of a merged status: what the merge machine writing the store merges (its
// type, its rule, its inputs' mount paths, its outputs) and how far it is (started, initial
// scan done, per-stream scan progress, per-output reconciliation, ready). The merger writes it
// into its output store's header; tools and any reader of the merged status read it from there.
//
// A record belongs to the store's epoch it was written in: after a take-over it describes a
// merger that is gone until the new one writes its own, and it is read as not running.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/shm/ShmLayout.h"

namespace Oro {

class ShmStore;

struct ShmMergeInput {
  std::string name;  // the argument it is, e.g. "staticMvpnVrfStatus"
  std::string path;  // its mount path, "" when it is not in shared memory
};

struct ShmMergeDescription {
  std::string machineType;
  std::string rule;
  std::vector<ShmMergeInput> inputs;
  std::vector<uint8_t> streamInput;  // per stream: the input it reads
  std::vector<std::string> outputs;
};

struct ShmMergeProgress {
  uint64_t done = 0;     // keys scanned / output entries walked
  uint64_t total = 0;    // keys of the input / entries of the output
  uint64_t deleted = 0;  // outputs: stale entries deleted
};

// The record as read.
struct ShmMergeState {
  ShmMergeDescription desc;
  bool running = false;  // written by the store's live writer, in its epoch
  uint32_t bits = 0;     // ShmLayout::kMerge* state bits
  std::vector<ShmMergeProgress> streams;
  std::vector<ShmMergeProgress> outputs;

  bool initialized() const { return bits & ShmLayout::kMergeInitialized; }
  bool initialScanDone() const { return bits & ShmLayout::kMergeInitialScanDone; }
  bool ready() const {
    return running && (bits & ShmLayout::kMergeReady) && !(bits & ShmLayout::kMergeStopped);
  }
  bool streamScanned(uint32_t s) const { return bits & ShmLayout::mergeStreamScanned(s); }
  bool streamDamaged(uint32_t s) const { return bits & ShmLayout::mergeStreamDamaged(s); }
  bool outputReady(uint32_t o) const { return bits & ShmLayout::mergeOutputReady(o); }
  bool outputReconciling(uint32_t o) const { return bits & ShmLayout::mergeOutputReconciling(o); }
  // One word for where the merger is: "not running", "starting", "initial scan", "scanning",
  // "reconciling" or "ready".
  std::string_view phase() const;
  // The phase with its progress, e.g. "scanning 340k/1M", "reconciling 20k/1M, 3 deleted".
  std::string phaseText() const;
};

// Reads the record of a store's header; nullopt when the store has none. `writerAlive`: whether
// the store's writer is alive (a record of a dead writer is not running).
std::optional<ShmMergeState> shmReadMergeState(const ShmLayout::Header& h, bool writerAlive);

// A count as the tools print it: 950, 12k, 1.2M.
std::string shmShortCount(uint64_t n);

// The writer's side: the merger's handle on its output store's record. Every call is a no-op
// while the store is not a writer's shared store; the description is written again whenever
// the store (or its epoch) is not the one it was written for.
class ShmMergeRecorder {
 public:
  explicit ShmMergeRecorder(ShmMergeDescription desc) : desc_(std::move(desc)) {}

  // Writes the state bits (waking readers when they changed) into `store`.
  void stateIs(ShmStore& store, uint32_t bits);
  uint32_t state() const { return bits_; }
  void streamProgressIs(ShmStore& store, uint32_t stream, uint64_t done, uint64_t total);
  void outputProgressIs(ShmStore& store, uint32_t output, const ShmMergeProgress& p);
  const ShmMergeDescription& desc() const { return desc_; }

 private:
  // The record of `store`, described for its epoch; null when the store has none to write.
  ShmLayout::MergeInfo* record(ShmStore& store);

  ShmMergeDescription desc_;
  uint32_t bits_ = 0;
};

}  // namespace Oro
