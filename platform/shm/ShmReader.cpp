#include "platform/shm/ShmReader.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include "platform/Error.h"
#include "platform/runtime/TaskScheduler.h"

namespace Oro {

using namespace ShmLayout;

namespace {
// Words after each queued entry: the slot and sequence word a walk saw the key in.
constexpr uint32_t kHintWords = 2;
// A reader that cannot ring the doorbell sleeps at most this long between looks.
constexpr std::chrono::milliseconds kShortSleep{20};

std::string entryKey(uint32_t c, const uint32_t* keyWords, uint32_t kw) {
  std::string k(4 * (kw + 1), '\0');
  std::memcpy(k.data(), &c, 4);
  std::memcpy(k.data() + 4, keyWords, 4 * kw);
  return k;
}
}  // namespace

void ShmResync::add(uint32_t c, const uint32_t* keyWords, uint32_t slot, uint32_t seq) {
  const uint32_t kw = store->keyWords(c);
  if (skip && !skip->empty() && skip->contains(entryKey(c, keyWords, kw))) return;
  const size_t at = queue->size();
  queue->resize(at + entryWords + kHintWords, 0);
  (*queue)[at] = c;
  std::memcpy(queue->data() + at + 1, keyWords, 4 * kw);
  (*queue)[at + entryWords] = slot;
  (*queue)[at + entryWords + 1] = seq;
  if (walkOf && slot != kNoSlot) walkOf->walked(c, keyWords, slot, seq);
}

void ShmReader::walked(uint32_t c, const uint32_t* keyWords, uint32_t slot, uint32_t seq) {
  // Read after the slot: every entry logged before the walk's read is below this head.
  const uint64_t until = store_.ringHead();
  // No log entry is left to report the key again: none queued, none unread (a quiet store's
  // first synchronisation, which meets every entity for the first time, lands here).
  if (!queueFromLog_ && until == tail_) return;
  walked_.insert_or_assign(entryKey(c, keyWords, store_.keyWords(c)), Walked{slot, seq, until});
  walkedUntil_ = std::max(walkedUntil_, until);
}

bool ShmReader::walkedUnchanged(uint32_t c, const uint32_t* keyWords) {
  const auto it = walked_.find(entryKey(c, keyWords, store_.keyWords(c)));
  if (it == walked_.end()) return false;
  const Walked w = it->second;
  walked_.erase(it);
  return store_.unchanged(c, keyWords, w.slot, w.seq);
}

void ShmReader::forgetWalked() {
  // Called with the queue delivered: every entry below tail_ has been looked at.
  if (walked_.empty()) return;
  if (tail_ >= walkedUntil_) {
    walked_.clear();
    walkedSwept_ = 0;
  } else if (walked_.size() > 2 * walkedSwept_ + 1024) {
    // A reader behind a writer that keeps creating entities may never catch up with the
    // last walk's head; the keys whose log window has passed go now and then.
    absl::erase_if(walked_, [&](const auto& kv) { return kv.second.until <= tail_; });
    walkedSwept_ = walked_.size();
  }
}

ShmReader::ShmReader(Sink& sink, const ShmStore& store, TaskScheduler* scheduler)
    : sink_(sink),
      store_(store),
      scheduler_(scheduler),
      entryWords_(store.header()->ringEntryWords),
      stride_(entryWords_ + kHintWords),
      bell_(store.bellPath()) {
  // Changes from now on reach the first dispatch through the change log, even when it runs
  // after they were made (a key added and removed again in between is still reported).
  attachEpoch_ = store_.epoch();
  tail_ = store_.ringHead();
  key_.resize(stride_);
  if (scheduler_) scheduler_->waitSourceIs(this);
}

ShmReader::~ShmReader() {
  *alive_ = false;
  if (scheduler_) scheduler_->waitSourceDel(this);
}

namespace {
// The merge record's state bits and the epoch they were written in: a merger that took the
// store over starts a new record even when it reaches the same state as the one before.
uint64_t mergeStamp(const Header& h) {
  const uint32_t bits = h.merge.state.load(std::memory_order_acquire);
  return h.merge.epoch.load(std::memory_order_relaxed) << 32 | bits;
}
}  // namespace

bool ShmReader::hasPending() const {
  if (failed_) return false;
  const Header* h = store_.header();
  return queued() || store_.ringHead() != tail_ || store_.epoch() != epoch_ ||
         h->magic.load(std::memory_order_acquire) != kMagic || h->instance != store_.instance() ||
         h->mountStatus.load(std::memory_order_acquire) != seenMount_ ||
         h->quiesced.load(std::memory_order_acquire) != seenQuiesced_ ||
         mergeStamp(*h) != seenMerge_;
}

void ShmReader::sleepBegin(std::vector<FutexWait>& words) {
  if (failed_) return;
  const Header* h = store_.header();
  const uint32_t wake = h->wakeWord.load(std::memory_order_seq_cst);
  shortSleep_ = false;
  if (!store_.bellless() && bell_.ring(wake) == ShmBellClient::Ring::failed) shortSleep_ = true;
  words.push_back(FutexWait{&h->wakeWord, wake, true});
}

void ShmReader::sleepEnd() {}

std::chrono::steady_clock::time_point ShmReader::wakeBy() const {
  if (!shortSleep_) return std::chrono::steady_clock::time_point::max();
  return std::chrono::steady_clock::now() + kShortSleep;
}

ShmResync ShmReader::resyncQueue() {
  ShmResync out;
  out.queue = &queue_;
  out.entryWords = entryWords_;
  out.store = &store_;
  out.walkOf = this;
  return out;
}

void ShmReader::resync() {
  const uint64_t epoch = store_.epoch();
  const uint64_t head = store_.ringHead();
  // The first synchronisation keeps the log position taken at construction when the writer is
  // still the same and the log has not wrapped since: keys logged since then are left to the
  // log, which reports them in the order they changed. Otherwise the log starts anew here and
  // the walk below covers everything before.
  absl::flat_hash_set<std::string> logged;
  bool fromAttach =
      epoch_ == 0 && epoch == attachEpoch_ && head >= tail_ && head - tail_ < store_.ringCapacity();
  if (fromAttach) {
    std::vector<uint32_t> key(entryWords_);
    for (uint64_t pos = tail_; pos < head; ++pos) {
      const uint32_t c = store_.readRingEntry(pos, key.data());
      if (c == kNoSlot) store_.corrupt("a change-log entry names no collection");
      logged.insert(entryKey(c, key.data(), store_.keyWords(c)));
    }
    std::atomic_thread_fence(std::memory_order_acquire);
    fromAttach = store_.ringHead() - tail_ < store_.ringCapacity();
  }
  if (!fromAttach) {
    tail_ = head;
    logged.clear();
  }
  epoch_ = epoch;
  ++resyncs_;
  queue_.clear();
  queueFromLog_ = false;
  pos_ = 0;
  walked_.clear();
  walkedUntil_ = 0;
  walkedSwept_ = 0;
  ShmResync out;
  out.queue = &queue_;
  out.entryWords = entryWords_;
  out.store = &store_;
  out.skip = &logged;
  sink_.resyncKeys(out);
}

void ShmReader::drainLog() {
  const uint64_t head = store_.ringHead();
  const uint64_t cap = store_.ringCapacity();
  if (head < tail_ || head - tail_ > cap) {
    resync();
    return;
  }
  forgetWalked();
  const uint64_t end = std::min<uint64_t>(head, tail_ + batch_);
  queue_.clear();
  queueFromLog_ = true;
  pos_ = 0;
  queue_.resize((end - tail_) * stride_, 0);
  for (uint64_t pos = tail_; pos < end; ++pos) {
    uint32_t* e = &queue_[(pos - tail_) * stride_];
    e[0] = store_.readRingEntry(pos, e + 1);
    e[entryWords_] = kNoSlot;
  }
  std::atomic_thread_fence(std::memory_order_acquire);
  // The oldest entry read is intact only while the writer has not come round to it again.
  if (store_.ringHead() - tail_ >= cap) {
    resync();
    return;
  }
  for (uint64_t pos = tail_; pos < end; ++pos) {
    if (queue_[(pos - tail_) * stride_] == kNoSlot)
      store_.corrupt("a change-log entry names no collection");
  }
  tail_ = end;
}

void ShmReader::fail(const std::string& message, bool replaced) {
  failed_ = true;
  queue_.clear();
  pos_ = 0;
  sink_.readerFailed(message, replaced);
}

void ShmReader::dispatch() {
  if (failed_) return;
  // Released last: the owner may go with it, and this reader with the owner.
  const Ptr<const RefCounted> hold = sink_.dispatchHold();
  try {
    deliver();
  } catch (const ShmCorruptionException& e) {
    // A damaged store stops this reader (it would fail again on every dispatch); the owner
    // hears of it and decides when to look again.
    fail(e.what(), false);
  }
}

void ShmReader::deliver() {
  // The owner may destroy this reader from inside a callback (unmounting the root).
  const std::shared_ptr<bool> alive = alive_;
  const Header* h = store_.header();
  store_.checkIntact();
  if (h->magic.load(std::memory_order_acquire) != kMagic) {
    fail("the store was replaced by its writer", true);
    return;
  }
  if (h->instance != store_.instance()) store_.corrupt("the header was overwritten by another");
  const uint32_t mount = h->mountStatus.load(std::memory_order_acquire);
  if (mount != seenMount_) {
    seenMount_ = mount;
    sink_.deliverMountStatus(mount);
    if (!*alive || failed_) return;
  }
  const uint32_t quiesced = h->quiesced.load(std::memory_order_acquire);
  if (quiesced != seenQuiesced_) {
    seenQuiesced_ = quiesced;
    sink_.deliverQuiesced(quiesced != 0);
    if (!*alive || failed_) return;
  }
  if (!queued()) {
    if (store_.epoch() != epoch_) {
      resync();
    } else {
      drainLog();
    }
  }
  for (uint32_t n = 0; n < batch_ && queued() && !failed_; ++n) {
    std::copy_n(&queue_[pos_], stride_, key_.data());
    pos_ += stride_;
    if (!walked_.empty() && key_[entryWords_] == kNoSlot && walkedUnchanged(key_[0], &key_[1]))
      continue;  // reported by a walk in the state it still has
    ++delivered_;
    sink_.deliverKey(key_[0], key_.data() + 1, key_[entryWords_], key_[entryWords_ + 1]);
    if (!*alive) return;
  }
  if (!queued()) {
    queue_.clear();
    pos_ = 0;
    // A merger's state is reported after the changes logged before it: "ready" follows the
    // last change the merger made on its way there.
    // The state is read before the log's head: a change logged before the state was written
    // is then seen in the head, and waits for the next dispatch to come first.
    const uint64_t merge = mergeStamp(*h);
    if (merge != seenMerge_ && !failed_ && store_.ringHead() == tail_) {
      seenMerge_ = merge;
      sink_.deliverMergeState(static_cast<uint32_t>(merge));
    }
  }
}

}  // namespace Oro
