#include "platform/shm/ShmTable.h"

#include <cstring>
#include <utility>

#include <fmt/format.h>

#include "platform/Assert.h"
#include "platform/Error.h"

namespace Oro {

using namespace ShmLayout;

namespace {
// Room for the words of any record (key and value), so that lookups need no allocation.
constexpr uint32_t kRecordWordsMax = ShmStore::kMaxKeyBytes / 4 + kMaxRecordBytes / 4;
}  // namespace

ShmTableCore::ShmTableCore(std::string typeName, std::string collection, uint32_t keySize,
                           uint32_t valueSize, Callbacks callbacks)
    : typeName_(std::move(typeName)),
      collection_(std::move(collection)),
      keySize_(keySize),
      valueSize_(valueSize),
      callbacks_(std::move(callbacks)) {
  store_ = ShmStore::detached(shape("detached"));
  scratch_.resize(store_.recordWords());
}

ShmTableCore::~ShmTableCore() {
  *alive_ = false;
  reader_.reset();
  if (role_ == ShmRole::writer) store_.releaseOwnership();
}

ShmStore::Shape ShmTableCore::shape(const std::string& mountPath) const {
  return ShmStore::Shape{typeName_, mountPath, collection_, keySize_, valueSize_};
}

void ShmTableCore::toKeyWords(const void* key, uint32_t* out) const {
  const uint32_t kw = store_.keyWords();
  out[kw - 1] = 0;
  std::memcpy(out, key, keySize_);
}

void ShmTableCore::assertWritable() const {
  MVPN_ASSERT_MSG(role_ != ShmRole::reader, "a reader cannot write a shared memory table");
}

void ShmTableCore::copyRecords(const ShmStore& from, bool announce, ShmKeySet* keys) {
  std::vector<uint32_t> words(from.recordWords());
  for (uint32_t slot = from.seek(0, words.data()); slot != ShmStore::kNoSlot;
       slot = from.seek(slot + 1, words.data())) {
    if (keys) {
      keys->insert(words.data());
      continue;
    }
    store_.put(words.data());
    if (announce) store_.publishKey(words.data());
  }
}

void ShmTableCore::attach(const ShmAttach& how) {
  if (attached()) detach();
  if (how.role == ShmRole::detached) return;
  if (how.role == ShmRole::writer) {
    ShmStore fresh = ShmStore::openWriter(shape(how.mountPath), how.mode, how.ringCapacity);
    ShmStore local = std::move(store_);
    store_ = std::move(fresh);
    try {
      copyRecords(local, /*announce=*/true, nullptr);
    } catch (...) {
      store_.releaseOwnership();
      store_ = std::move(local);
      throw;
    }
    role_ = ShmRole::writer;
    mountPath_ = how.mountPath;
    quiesced_ = store_.header()->quiesced.load(std::memory_order_relaxed) != 0;
    mountStatusIs(TylKetab::MountStatus::mounted);
    return;
  }
  ShmStore fresh = ShmStore::openReader(shape(how.mountPath));
  ShmKeySet known(store_.keyWords());
  copyRecords(store_, false, &known);
  store_ = std::move(fresh);
  role_ = ShmRole::reader;
  mountPath_ = how.mountPath;
  reader_ = std::make_unique<ShmReader>(*this, store_, how.scheduler, std::move(known));
}

void ShmTableCore::detach() {
  if (!attached()) return;
  reader_.reset();
  const bool wasWriter = role_ == ShmRole::writer;
  if (wasWriter) {
    store_.header()->mountStatus.store(static_cast<uint32_t>(TylKetab::MountStatus::notMounted),
                                       std::memory_order_release);
    store_.publishControl();
    store_.releaseOwnership();
  }
  ShmStore shared = std::move(store_);
  store_ = ShmStore::detached(shape("detached"));
  role_ = ShmRole::detached;
  mountPath_.clear();
  try {
    copyRecords(shared, false, nullptr);
  } catch (const ShmCorruptionException& e) {
    handleCorruption(e.what());
  }
  if (mountStatus_ != TylKetab::MountStatus::notMounted) {
    mountStatus_ = TylKetab::MountStatus::notMounted;
    if (callbacks_.onMountStatus) callbacks_.onMountStatus();
  }
}

bool ShmTableCore::insert(const void* key, const void* value, void* oldValue) {
  assertWritable();
  uint32_t* w = scratch_.data();
  const uint32_t kw = store_.keyWords();
  const uint32_t vw = store_.valueWords();
  toKeyWords(key, w);
  if (vw) {
    w[kw + vw - 1] = 0;
    std::memcpy(w + kw, value, valueSize_);
  }
  uint32_t old[kRecordWordsMax];
  const bool added = store_.put(w, oldValue ? old : nullptr);
  if (oldValue && !added) std::memcpy(oldValue, old + kw, valueSize_);
  store_.publishKey(w);
  return added;
}

bool ShmTableCore::remove(const void* key, void* removedValue) {
  assertWritable();
  const uint32_t kw = store_.keyWords();
  uint32_t old[kRecordWordsMax];
  uint32_t* k = scratch_.data();
  toKeyWords(key, k);
  if (!store_.remove(k, old)) return false;
  if (removedValue) std::memcpy(removedValue, old + kw, valueSize_);
  store_.publishKey(k);
  return true;
}

void ShmTableCore::mountStatusIs(TylKetab::MountStatus status) {
  assertWritable();
  if (attached()) {
    store_.header()->mountStatus.store(static_cast<uint32_t>(status), std::memory_order_release);
    store_.publishControl();
  }
  if (status == mountStatus_) return;
  mountStatus_ = status;
  if (callbacks_.onMountStatus) callbacks_.onMountStatus();
}

void ShmTableCore::quiescedIs(bool quiesced) {
  assertWritable();
  if (attached()) {
    store_.header()->quiesced.store(quiesced ? 1 : 0, std::memory_order_release);
    store_.publishControl();
  }
  if (quiesced == quiesced_) return;
  quiesced_ = quiesced;
  if (callbacks_.onQuiesced) callbacks_.onQuiesced(quiesced);
}

bool ShmTableCore::find(const void* key, void* value) const {
  const uint32_t kw = store_.keyWords();
  uint32_t k[ShmStore::kMaxKeyBytes / 4];
  uint32_t w[kRecordWordsMax];
  toKeyWords(key, k);
  if (store_.find(k, w) == ShmStore::kNoSlot) return false;
  if (value) std::memcpy(value, w + kw, valueSize_);
  return true;
}

uint32_t ShmTableCore::seek(uint32_t from, void* key, void* value) const {
  uint32_t w[kRecordWordsMax];
  const uint32_t slot = store_.seek(from, w);
  if (slot != ShmStore::kNoSlot) {
    if (key) std::memcpy(key, w, keySize_);
    if (value) std::memcpy(value, w + store_.keyWords(), valueSize_);
  }
  return slot;
}

std::atomic<uint64_t>* ShmTableCore::counterSlot(uint32_t index, std::string_view name) {
  if (role_ != ShmRole::writer || index >= kCounters) return nullptr;
  CounterCell& cell = store_.header()->counters[index];
  std::memset(cell.name, 0, kCounterNameBytes);
  std::memcpy(cell.name, name.data(), std::min<size_t>(name.size(), kCounterNameBytes - 1));
  return &cell.value;
}

void ShmTableCore::handleCorruption(const std::string& message) const {
  ++corruptions_;
  if (corruptionHandler_) corruptionHandler_(message);
}

void ShmTableCore::deliverKey(const uint32_t* keyWords) {
  if (callbacks_.onKey) callbacks_.onKey(keyWords);
}

void ShmTableCore::deliverMountStatus(uint32_t status) {
  mountStatus_ = static_cast<TylKetab::MountStatus>(status & 3);
  if (callbacks_.onMountStatus) callbacks_.onMountStatus();
}

void ShmTableCore::deliverQuiesced(bool quiesced) {
  quiesced_ = quiesced;
  if (callbacks_.onQuiesced) callbacks_.onQuiesced(quiesced);
}

}  // namespace Oro
