#include "platform/shm/ShmReader.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include "platform/Error.h"
#include "platform/shm/ShmTable.h"
#include "platform/runtime/TaskScheduler.h"

namespace Oro {

using namespace ShmLayout;

// ---- ShmKeySet ------------------------------------------------------------------------

size_t ShmKeySet::probe(const uint32_t* key, bool* found) const {
  const size_t mask = state_.size() - 1;
  size_t pos = hashWords(key, kw_) & mask;
  size_t firstDeleted = SIZE_MAX;
  for (;;) {
    const uint8_t st = state_[pos];
    if (st == kEmpty) {
      *found = false;
      return firstDeleted != SIZE_MAX ? firstDeleted : pos;
    }
    if (st == kFull && std::equal(key, key + kw_, &keys_[pos * kw_])) {
      *found = true;
      return pos;
    }
    if (st == kDeleted && firstDeleted == SIZE_MAX) firstDeleted = pos;
    pos = (pos + 1) & mask;
  }
}

void ShmKeySet::grow() {
  std::vector<uint32_t> oldKeys = std::move(keys_);
  std::vector<uint8_t> oldState = std::move(state_);
  size_t cap = 16;
  while (cap < (size_ + 1) * 2) cap *= 2;
  keys_.assign(cap * kw_, 0);
  state_.assign(cap, kEmpty);
  used_ = size_;
  for (size_t i = 0; i < oldState.size(); ++i) {
    if (oldState[i] != kFull) continue;
    bool found;
    const size_t pos = probe(&oldKeys[i * kw_], &found);
    std::copy_n(&oldKeys[i * kw_], kw_, &keys_[pos * kw_]);
    state_[pos] = kFull;
  }
}

bool ShmKeySet::insert(const uint32_t* key) {
  if ((used_ + 1) * 4 > state_.size() * 3) grow();
  bool found;
  const size_t pos = probe(key, &found);
  if (found) return false;
  if (state_[pos] == kEmpty) ++used_;
  std::copy_n(key, kw_, &keys_[pos * kw_]);
  state_[pos] = kFull;
  ++size_;
  return true;
}

bool ShmKeySet::erase(const uint32_t* key) {
  if (size_ == 0) return false;
  bool found;
  const size_t pos = probe(key, &found);
  if (!found) return false;
  state_[pos] = kDeleted;
  --size_;
  return true;
}

bool ShmKeySet::contains(const uint32_t* key) const {
  if (size_ == 0) return false;
  bool found;
  probe(key, &found);
  return found;
}

void ShmKeySet::clear() {
  keys_.clear();
  state_.clear();
  size_ = used_ = 0;
}

// ---- ShmReader ------------------------------------------------------------------------

ShmReader::ShmReader(ShmTableCore& table, const ShmStore& store, TaskScheduler* scheduler,
                     ShmKeySet knownKeys)
    : table_(table),
      store_(store),
      scheduler_(scheduler),
      kw_(store.keyWords()),
      known_(std::move(knownKeys)) {
  // Changes from now on reach the first dispatch through the change log, even when it runs
  // after they were made (a key added and removed again in between is still reported).
  attachEpoch_ = store_.header()->epoch.load(std::memory_order_acquire);
  tail_ = store_.ringHead();
  key_.resize(kw_);
  if (scheduler_) scheduler_->waitSourceIs(this);
}

ShmReader::~ShmReader() {
  sleepEnd();
  if (scheduler_) scheduler_->waitSourceDel(this);
}

bool ShmReader::hasPending() const {
  if (failed_) return false;
  const Header* h = store_.header();
  return keysPending() || store_.ringHead() != tail_ ||
         h->epoch.load(std::memory_order_acquire) != epoch_ ||
         h->mountStatus.load(std::memory_order_acquire) != seenMount_ ||
         h->quiesced.load(std::memory_order_acquire) != seenQuiesced_;
}

void ShmReader::sleepBegin(std::vector<FutexWait>& words) {
  ReaderControl* rc = store_.readerControl();
  if (!sleeping_ && rc) {
    rc->sleepers.fetch_add(1, std::memory_order_seq_cst);
    sleeping_ = true;
  }
  const Header* h = store_.header();
  words.push_back(FutexWait{&h->wakeWord, h->wakeWord.load(std::memory_order_seq_cst), true});
}

void ShmReader::sleepEnd() {
  if (!sleeping_) return;
  sleeping_ = false;
  store_.readerControl()->sleepers.fetch_sub(1, std::memory_order_relaxed);
}

void ShmReader::resync() {
  const Header* h = store_.header();
  const uint64_t epoch = h->epoch.load(std::memory_order_acquire);
  const uint64_t head = store_.ringHead();
  // The first synchronisation keeps the log position taken at construction when the writer is
  // still the same and the log has not wrapped since; the keys logged since then are left to
  // the log, which reports them in the order they changed. Otherwise the log starts anew here
  // and the scan below covers everything before.
  ShmKeySet logged(kw_);
  bool fromAttach =
      epoch_ == 0 && epoch == attachEpoch_ && head >= tail_ && head - tail_ < store_.ringCapacity();
  if (fromAttach) {
    std::vector<uint32_t> key(kw_);
    for (uint64_t pos = tail_; pos < head; ++pos) {
      store_.readRingEntry(pos, key.data());
      logged.insert(key.data());
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
  resyncKeys_.clear();
  resyncPos_ = 0;
  logKeys_.clear();
  logPos_ = 0;
  ShmKeySet present(kw_);
  std::vector<uint32_t> words(store_.recordWords());
  for (uint32_t slot = store_.seek(0, words.data()); slot != ShmStore::kNoSlot;
       slot = store_.seek(slot + 1, words.data())) {
    if (present.insert(words.data()) && !logged.contains(words.data())) {
      resyncKeys_.insert(resyncKeys_.end(), words.begin(), words.begin() + kw_);
    }
  }
  known_.forEach([&](const uint32_t* key) {
    if (!present.contains(key) && !logged.contains(key)) {
      resyncKeys_.insert(resyncKeys_.end(), key, key + kw_);
    }
  });
  known_ = std::move(present);
}

void ShmReader::drainLog() {
  const uint64_t head = store_.ringHead();
  const uint64_t cap = store_.ringCapacity();
  if (head < tail_ || head - tail_ > cap) {
    resync();
    return;
  }
  const uint64_t end = std::min<uint64_t>(head, tail_ + batch_);
  logKeys_.clear();
  logPos_ = 0;
  logKeys_.resize((end - tail_) * kw_);
  for (uint64_t pos = tail_; pos < end; ++pos) {
    store_.readRingEntry(pos, &logKeys_[(pos - tail_) * kw_]);
  }
  std::atomic_thread_fence(std::memory_order_acquire);
  // The oldest entry read is intact only while the writer has not come round to it again.
  if (store_.ringHead() - tail_ >= cap) {
    resync();
    return;
  }
  tail_ = end;
}

void ShmReader::dispatch() {
  if (failed_) return;
  try {
    deliver();
  } catch (const ShmCorruptionException& e) {
    // A damaged table stops this reader's notifications (it would fail again on every
    // dispatch); the owner hears of it through the corruption handler.
    failed_ = true;
    table_.handleCorruption(e.what());
  }
}

void ShmReader::deliver() {
  const std::shared_ptr<bool> alive = table_.aliveToken();
  const Header* h = store_.header();
  const uint32_t mount = h->mountStatus.load(std::memory_order_acquire);
  if (mount != seenMount_) {
    seenMount_ = mount;
    table_.deliverMountStatus(mount);
    if (!*alive) return;
  }
  const uint32_t quiesced = h->quiesced.load(std::memory_order_acquire);
  if (quiesced != seenQuiesced_) {
    seenQuiesced_ = quiesced;
    table_.deliverQuiesced(quiesced != 0);
    if (!*alive) return;
  }
  if (!keysPending()) {
    if (h->epoch.load(std::memory_order_acquire) != epoch_) {
      resync();
    } else {
      drainLog();
    }
  }
  uint32_t* key = key_.data();
  for (uint32_t n = 0; n < batch_ && keysPending(); ++n) {
    if (resyncPos_ < resyncKeys_.size()) {
      std::copy_n(&resyncKeys_[resyncPos_], kw_, key);
      resyncPos_ += kw_;
    } else {
      std::copy_n(&logKeys_[logPos_], kw_, key);
      logPos_ += kw_;
      if (store_.find(key, nullptr) != ShmStore::kNoSlot) {
        known_.insert(key);
      } else {
        known_.erase(key);
      }
    }
    ++delivered_;
    table_.deliverKey(key);
    if (!*alive) return;
  }
}

}  // namespace Oro
