// The reader side of a shared-memory table's change notifications. A ShmReader is a
// WaitSource of the reader's TaskScheduler: it drains the table's change log and hands every
// changed key to the table's per-key callback, a bounded batch per dispatch.
//
// Nothing is missed: a reader that fell more than the log's capacity behind (overrun), or that
// sees a new epoch (a writer took the table over), resynchronises. It then reports every key
// present now plus every key it knew before, which it keeps in a reader-side key set. Keys may
// be reported more often than they changed, never less. The first dispatch reports every key
// present then and every key known before, and the change log is read from where it stood at
// construction, so that no change made after the reader was created is lost.
//
// Sleeping: sleepBegin counts the reader in the table's reader-control segment, so that the
// writer (which checks the count after every publication) wakes the futex word in the header.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "platform/shm/ShmStore.h"
#include "platform/runtime/WaitSource.h"

namespace Oro {

class ShmTableCore;
class TaskScheduler;

// A set of fixed-size keys (their word images), open addressing, for the reader's known keys.
class ShmKeySet {
 public:
  explicit ShmKeySet(uint32_t keyWords = 1) : kw_(keyWords) {}
  bool insert(const uint32_t* key);
  bool erase(const uint32_t* key);
  bool contains(const uint32_t* key) const;
  size_t size() const { return size_; }
  void clear();
  template <class F>
  void forEach(F&& f) const {
    for (size_t i = 0; i < state_.size(); ++i) {
      if (state_[i] == kFull) f(&keys_[i * kw_]);
    }
  }

 private:
  static constexpr uint8_t kEmpty = 0, kFull = 1, kDeleted = 2;
  size_t probe(const uint32_t* key, bool* found) const;
  void grow();
  uint32_t kw_;
  std::vector<uint32_t> keys_;
  std::vector<uint8_t> state_;
  size_t size_ = 0;
  size_t used_ = 0;  // full + deleted
};

class ShmReader : public WaitSource {
 public:
  static constexpr uint32_t kDefaultBatch = 256;

  // knownKeys: keys the table's owner already knows about (they are reported on the first
  // dispatch, together with every key present in the table).
  ShmReader(ShmTableCore& table, const ShmStore& store, TaskScheduler* scheduler,
            ShmKeySet knownKeys);
  ~ShmReader() override;
  ShmReader(const ShmReader&) = delete;
  ShmReader& operator=(const ShmReader&) = delete;

  bool hasPending() const override;
  void dispatch() override;
  void sleepBegin(std::vector<FutexWait>& words) override;
  void sleepEnd() override;

  void batchIs(uint32_t n) { batch_ = n == 0 ? 1 : n; }
  uint32_t batch() const { return batch_; }
  uint64_t resyncs() const { return resyncs_; }
  uint64_t keysDelivered() const { return delivered_; }
  bool failed() const { return failed_; }
  const ShmKeySet& knownKeys() const { return known_; }

 private:
  bool keysPending() const { return resyncPos_ < resyncKeys_.size() || logPos_ < logKeys_.size(); }
  void deliver();
  void resync();
  void drainLog();

  ShmTableCore& table_;
  const ShmStore& store_;
  TaskScheduler* scheduler_;
  uint32_t kw_;
  uint32_t batch_ = kDefaultBatch;
  uint64_t tail_ = 0;
  uint64_t epoch_ = 0;  // 0: never synchronised
  uint64_t attachEpoch_ = 0;
  uint32_t seenMount_ = 0;
  uint32_t seenQuiesced_ = 0;
  bool sleeping_ = false;
  bool failed_ = false;  // met a corrupt table: delivers nothing more
  ShmKeySet known_;
  std::vector<uint32_t> resyncKeys_;  // reported without a presence check (known_ is current)
  size_t resyncPos_ = 0;
  std::vector<uint32_t> logKeys_;  // from the change log: presence updates known_
  size_t logPos_ = 0;
  std::vector<uint32_t> key_;  // the key being delivered
  uint64_t resyncs_ = 0;
  uint64_t delivered_ = 0;
};

}  // namespace Oro
