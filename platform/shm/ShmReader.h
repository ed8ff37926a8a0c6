// The reader side of a shared-memory store's change notifications: a WaitSource of the
// reader's TaskScheduler that drains the store's change log and hands every changed key, with
// its collection, to its owner (the reader instance of the store's root), a bounded batch per
// dispatch.
//
// Nothing is missed: a reader that fell more than the log's capacity behind (overrun), or
// that sees a new epoch (a writer took the store over), resynchronises: its owner enumerates
// every key present now plus every key it knew, and those are delivered before the log
// resumes. Keys may be reported more often than they changed, never less. The first dispatch
// is such a resynchronisation, except that keys changed since the reader was created and still
// in the log are left to the log (which reports them in the order they changed).
//
// An entity met for the first time reports its members right after it (a walk). Their own
// log entries, written before the walk read them, would report them again: a log entry of a
// key the walk reported is dropped while the key's slot is unchanged since (a later change
// rewrites the slot, and is reported).
//
// Sleeping: before the scheduler sleeps on the store's wake word, the reader registers the
// sleep with the writer's doorbell (ShmBell). It never writes shared memory.
//
// Thread safety: the scheduler's thread only.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>

#include "platform/runtime/Ptr.h"
#include "platform/runtime/WaitSource.h"
#include "platform/shm/ShmBell.h"
#include "platform/shm/ShmStore.h"

namespace Oro {

class TaskScheduler;
class ShmReader;

// Where a resynchronisation puts the keys to report.
class ShmResync {
 public:
  // A key to report. A key a walk found present gives its slot and sequence word: while the
  // slot is unchanged at delivery, the key is known present without a lookup.
  void add(uint32_t c, const uint32_t* keyWords, uint32_t slot = ShmLayout::kNoSlot,
           uint32_t seq = 0);

 private:
  friend class ShmReader;
  std::vector<uint32_t>* queue = nullptr;
  uint32_t entryWords = 0;
  const ShmStore* store = nullptr;
  const absl::flat_hash_set<std::string>* skip = nullptr;  // keys the log will report
  ShmReader* walkOf = nullptr;  // a new entity's walk: its reader remembers what it reported
};

class ShmReader : public WaitSource {
 public:
  static constexpr uint32_t kDefaultBatch = 256;

  // What the reader reports to.
  class Sink {
   public:
    virtual ~Sink() = default;
    // `slot` and `seq`: where a walk found the key present (kNoSlot: not from a walk).
    virtual void deliverKey(uint32_t c, const uint32_t* keyWords, uint32_t slot, uint32_t seq) = 0;
    // Every key present or known, for a resynchronisation.
    virtual void resyncKeys(ShmResync& out) = 0;
    virtual void deliverMountStatus(uint32_t status) = 0;
    virtual void deliverQuiesced(bool quiesced) = 0;
    // The state bits of the store's merge record changed (a merged status's merger moved on).
    virtual void deliverMergeState(uint32_t /*bits*/) {}
    // The store is damaged or was replaced: the reader delivers nothing more.
    virtual void readerFailed(const std::string& message, bool replaced) = 0;
    // The reader's scheduler is being destroyed.
    virtual void readerSchedulerGone() {}
    // A reference that keeps the reader's owner (and so the reader) alive for one dispatch: a
    // subscriber may let go of the owner's last reference from inside a notification.
    virtual Ptr<const RefCounted> dispatchHold() { return nullptr; }
  };

  ShmReader(Sink& sink, const ShmStore& store, TaskScheduler* scheduler);
  ~ShmReader() override;
  ShmReader(const ShmReader&) = delete;
  ShmReader& operator=(const ShmReader&) = delete;

  bool hasPending() const override;
  void dispatch() override;
  void sleepBegin(std::vector<FutexWait>& words) override;
  void sleepEnd() override;
  std::chrono::steady_clock::time_point wakeBy() const override;
  void schedulerGone() override {
    scheduler_ = nullptr;
    sink_.readerSchedulerGone();
  }

  // A queue for keys to be delivered after those already queued (an owner that meets an
  // entity for the first time reports its members this way).
  ShmResync resyncQueue();

  void batchIs(uint32_t n) { batch_ = n == 0 ? 1 : n; }
  uint64_t resyncs() const { return resyncs_; }
  uint64_t keysDelivered() const { return delivered_; }
  bool failed() const { return failed_; }

 private:
  bool queued() const { return pos_ < queue_.size(); }
  void deliver();
  void resync();
  void drainLog();
  void fail(const std::string& message, bool replaced);
  friend class ShmResync;
  void walked(uint32_t c, const uint32_t* keyWords, uint32_t slot, uint32_t seq);
  bool walkedUnchanged(uint32_t c, const uint32_t* keyWords);
  void forgetWalked();

  Sink& sink_;
  const ShmStore& store_;
  TaskScheduler* scheduler_;
  uint32_t entryWords_;
  uint32_t stride_;  // queued entry: entryWords_ plus the slot and sequence word a walk saw
  uint32_t batch_ = kDefaultBatch;
  uint64_t tail_ = 0;
  uint64_t epoch_ = 0;  // 0: never synchronised
  uint64_t attachEpoch_ = 0;
  uint32_t seenMount_ = 0;
  uint32_t seenQuiesced_ = 0;
  uint64_t seenMerge_ = 0;  // epoch << 32 | state bits of the merge record
  bool failed_ = false;
  bool shortSleep_ = false;  // the doorbell could not be rung: sleep briefly
  // Entries of stride_ words: collection, key image, slot and sequence word seen.
  std::vector<uint32_t> queue_;
  bool queueFromLog_ = false;  // queue_ holds log entries (else a resynchronisation's keys)
  size_t pos_ = 0;
  std::vector<uint32_t> key_;
  ShmBellClient bell_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  uint64_t resyncs_ = 0;
  uint64_t delivered_ = 0;
  // Keys a new entity's walk reported, with the slot and sequence word read and the log's
  // head after the read: log entries before that head may report what the walk did.
  struct Walked {
    uint32_t slot;
    uint32_t seq;
    uint64_t until;
  };
  absl::flat_hash_map<std::string, Walked> walked_;
  uint64_t walkedUntil_ = 0;  // the largest `until` in walked_
  size_t walkedSwept_ = 0;    // walked_'s size after its last sweep
};

}  // namespace Oro
