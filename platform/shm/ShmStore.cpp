#include "platform/shm/ShmStore.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <new>

#include <fmt/format.h>

#include "platform/Error.h"
#include "platform/runtime/Futex.h"

namespace Oro {

using namespace ShmLayout;

namespace {

// slot + 1 must stay below the all-ones slot field (a tombstone is all ones).
constexpr uint32_t kMaxSlots = (1u << kMaxSlotBits) - 2;
constexpr uint32_t kMinIndexCapacity = 64;
// The index is rebuilt when live entries plus tombstones pass 4/5 of its capacity; the new
// generation holds the live entries at load 1/2, or 4/7 once the table is large, which keeps
// the index below 7 bytes per record while every rebuild still grows it by 1.4x.
constexpr uint64_t kMaxLoadNum = 4, kMaxLoadDen = 5;
constexpr uint32_t kLargeTable = 1u << 18;
constexpr uint32_t kSpinLimit = 1u << 22;
// Occupied slots whose index homes are computed (and prefetched) before any is placed.
constexpr uint32_t kBuildBatch = 16;
// Growth of the index into its next generation starts when the present one is 69/100 full
// (or its slot field 4/5 used); from then on each write moves at least kMinGrowthStep slots,
// and more when the room left would not last otherwise. At that rate the slots of a
// generation filled to a fraction s are all moved after s / (kMinGrowthStep - 1) more keys,
// so s * 8/7 must stay below the 4/5 limit: 69/100 is the latest start that leaves room for
// the writes that commit the new generation's memory too. A late start makes each
// generation cover more growth, so each record is moved into fewer generations.
constexpr uint64_t kGrowthStartNum = 69, kGrowthStartDen = 100;
constexpr uint32_t kMinGrowthStep = 8;
// Memory of the next generation committed per write before its slots are moved.
constexpr size_t kGrowthCommitStep = 64 * 1024;

uint32_t indexCapacityFor(uint64_t live) {
  const uint64_t cap = live >= kLargeTable ? live * 7 / 4 : live * 2;
  return static_cast<uint32_t>(std::clamp<uint64_t>(cap, kMinIndexCapacity, UINT32_MAX - 1));
}

// Width of the slot field for a generation built while `chunks` chunks exist: room for the
// next chunk too, so that growing by one chunk does not force a rebuild. The bits above the
// field tag the entry with the key's hash, so that a probe rarely reads a slot in vain.
uint32_t slotBitsFor(uint32_t chunks) {
  const uint64_t slots = slotCapacity(std::min(chunks + 1, kMaxChunks));
  return std::min<uint32_t>(static_cast<uint32_t>(std::bit_width(slots + 1)), kMaxSlotBits);
}

bool processAlive(uint64_t owner) {
  if (owner == 0) return false;
  const uint32_t pid = ownerPid(owner);
  if (::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) return false;
  return processStartTime(static_cast<pid_t>(pid)) == ownerStart(owner);
}

uint64_t myOwnerWord() {
  const pid_t pid = ::getpid();
  return ownerWord(static_cast<uint32_t>(pid), processStartTime(pid));
}

void copyName(char* dst, size_t cap, const std::string& s) {
  std::memset(dst, 0, cap);
  std::memcpy(dst, s.data(), std::min(s.size(), cap - 1));
}

std::string nameOf(const char* field, size_t cap) {
  return std::string(field, strnlen(field, cap));
}

}  // namespace

bool ShmStore::ownerAlive(uint64_t owner) {
  return processAlive(owner);
}

void ShmStore::corrupt(const std::string& what) const {
  throw ShmCorruptionException(fmt::format("shared memory table {}/{} is corrupt: {}",
                                           shape_.mountPath, shape_.collection, what));
}

std::string ShmStore::segName(const std::string& suffix) const {
  return shmSegmentName(shape_.mountPath, shape_.collection, suffix);
}

ShmSegment ShmStore::makeSegment(const std::string& suffix, size_t bytes) const {
  if (!shared()) return ShmSegment::anonymous(bytes);
  return ShmSegment::create(segName(suffix), bytes, mode_, /*replace=*/true);
}

void ShmStore::initShape(const Shape& shape) {
  if (shape.keySize == 0 || shape.keySize > kMaxKeyBytes || shape.valueSize > kMaxRecordBytes) {
    throw ShmException(fmt::format("record type {} has unsupported sizes (key {}, value {})",
                                   shape.typeName, shape.keySize, shape.valueSize));
  }
  shape_ = shape;
  keySize_ = shape.keySize;
  valueSize_ = shape.valueSize;
  kw_ = words(keySize_);
  vw_ = words(valueSize_);
  slotWords_ = 1 + kw_ + vw_;
}

// ---- creation and opening -------------------------------------------------------------

namespace {
struct Geometry {
  uint32_t ringCap, journalOffset, ringOffset, bytes;
};
Geometry geometryOf(uint32_t kw, uint32_t vw, uint32_t ringCapacity) {
  Geometry g{};
  g.ringCap = std::bit_ceil(std::clamp<uint32_t>(ringCapacity, 16, kMaxRingCapacity));
  g.journalOffset = alignUp(sizeof(Header), 64);
  g.ringOffset = alignUp(g.journalOffset + 4 * (kw + vw), 64);
  g.bytes = alignUp(g.ringOffset + 4 * kw * g.ringCap, 4096);
  return g;
}
}  // namespace

// Fills a freshly created (zeroed) header segment; the magic is stored by the caller, last.
void ShmStore::initHeader(ShmSegment seg, const Shape& shape, uint32_t ringCapacity) {
  const Geometry g = geometryOf(kw_, vw_, ringCapacity);
  ringCap_ = g.ringCap;
  headerSeg_ = std::move(seg);
  hdr_ = new (headerSeg_.data()) Header();
  if (shared()) hdr_->owner.store(myOwnerWord(), std::memory_order_relaxed);
  hdr_->layoutVersion = kLayoutVersion;
  hdr_->headerBytes = static_cast<uint32_t>(headerSeg_.size());
  copyName(hdr_->typeName, kTypeNameBytes, shape.typeName);
  copyName(hdr_->mountPath, kPathBytes, shape.mountPath);
  copyName(hdr_->collection, kCollectionBytes, shape.collection);
  hdr_->keySize = keySize_;
  hdr_->valueSize = valueSize_;
  hdr_->keyWords = kw_;
  hdr_->valueWords = vw_;
  hdr_->slotBytes = 4 * slotWords_;
  hdr_->ringCapacity = ringCap_;
  hdr_->ringEntryBytes = 4 * kw_;
  hdr_->ringOffset = g.ringOffset;
  hdr_->journalDataOffset = g.journalOffset;
  hdr_->epoch.store(1, std::memory_order_relaxed);
  journal_ = reinterpret_cast<uint32_t*>(headerSeg_.data() + g.journalOffset);
  ring_ = reinterpret_cast<uint32_t*>(headerSeg_.data() + g.ringOffset);
  writable_ = true;
}

ShmStore ShmStore::detached(const Shape& shape) {
  ShmStore s;
  s.initShape(shape);
  s.initHeader(ShmSegment::anonymous(geometryOf(s.kw_, s.vw_, 16).bytes), shape, 16);
  s.buildIndex(kMinIndexCapacity);
  s.hdr_->magic.store(kMagic, std::memory_order_release);
  return s;
}

ShmStore ShmStore::openWriter(const Shape& shape, mode_t mode, uint32_t ringCapacity) {
  shmValidateName(shape.mountPath, shape.collection);
  ShmStore s;
  s.initShape(shape);
  s.mode_ = mode;
  const std::string name = s.segName("");
  const Geometry g = geometryOf(s.kw_, s.vw_, ringCapacity);
  for (int attempt = 0;; ++attempt) {
    ShmSegment seg;
    try {
      // Creating the header segment exclusively elects this process as the table's creator.
      seg = ShmSegment::create(name, g.bytes, mode);
    } catch (const ShmException&) {
      if (!ShmSegment::exists(name)) {
        if (attempt < 10) continue;
        throw;
      }
      ShmSegment old = ShmSegment::open(name, ShmSegment::Access::readWrite);
      const auto* h = reinterpret_cast<const Header*>(old.data());
      if (old.size() < sizeof(Header) || h->magic.load(std::memory_order_acquire) != kMagic) {
        // Being created by another process right now, or left half-created by a dead one.
        if (attempt < 200) {
          ::usleep(1000);
          continue;
        }
        ShmSegment::unlink(name);
        attempt = 0;
        continue;
      }
      s.attachHeader(std::move(old), shape, /*writable=*/true);
      s.takeOver(shape);
      return s;
    }
    // A new table: build every segment, then publish the header's magic last.
    s.initHeader(std::move(seg), shape, ringCapacity);
    try {
      s.controlSeg_ = ShmSegment::create(s.segName("rctl"), 4096, mode, /*replace=*/true);
      s.rctl_ = new (s.controlSeg_.data()) ReaderControl();
      s.rctl_->magic.store(kControlMagic, std::memory_order_release);
      s.buildIndex(kMinIndexCapacity);
    } catch (...) {
      ShmSegment::unlink(name);
      throw;
    }
    s.hdr_->magic.store(kMagic, std::memory_order_release);
    return s;
  }
}

void ShmStore::attachHeader(ShmSegment seg, const Shape& shape, bool writable) {
  const auto* h = reinterpret_cast<const Header*>(seg.data());
  const size_t bytes = seg.size();
  if (bytes < sizeof(Header)) corrupt(fmt::format("header segment holds {} bytes", bytes));
  const uint64_t magic = h->magic.load(std::memory_order_acquire);
  if (magic == 0) {
    throw ShmException(fmt::format("shared memory table {}/{} is still being created",
                                   shape.mountPath, shape.collection));
  }
  if (magic != kMagic) corrupt("bad magic number in the header");
  const std::string storedType = nameOf(h->typeName, kTypeNameBytes);
  if (!shape.typeName.empty() &&
      (storedType != shape.typeName || h->layoutVersion != kLayoutVersion ||
       h->keySize != shape.keySize || h->valueSize != shape.valueSize)) {
    throw ShmException(fmt::format(
        "shared memory table {}/{} holds records of type {} (layout {}, key {} bytes, value {} "
        "bytes), not {} (layout {}, key {} bytes, value {} bytes)",
        shape.mountPath, shape.collection, storedType, h->layoutVersion, h->keySize, h->valueSize,
        shape.typeName, kLayoutVersion, shape.keySize, shape.valueSize));
  }
  if (h->layoutVersion != kLayoutVersion) {
    throw ShmException(fmt::format("shared memory table {}/{} has layout version {}, not {}",
                                   shape.mountPath, shape.collection, h->layoutVersion,
                                   kLayoutVersion));
  }
  Shape actual = shape;
  actual.typeName = storedType;
  actual.keySize = h->keySize;
  actual.valueSize = h->valueSize;
  if (h->keySize == 0 || h->keySize > kMaxKeyBytes || h->valueSize > kMaxRecordBytes) {
    shape_ = shape;
    corrupt(fmt::format("bad record sizes (key {}, value {})", h->keySize, h->valueSize));
  }
  initShape(actual);
  const uint32_t ringCap = h->ringCapacity;
  const uint64_t journalEnd = uint64_t{h->journalDataOffset} + 4ull * (kw_ + vw_);
  const uint64_t ringEnd = uint64_t{h->ringOffset} + 4ull * kw_ * ringCap;
  if (h->keyWords != kw_ || h->valueWords != vw_ || h->slotBytes != 4 * slotWords_ ||
      h->ringEntryBytes != 4 * kw_ || ringCap < 16 || ringCap > kMaxRingCapacity ||
      !std::has_single_bit(ringCap) || h->journalDataOffset < sizeof(Header) ||
      h->journalDataOffset % 4 != 0 || h->ringOffset % 4 != 0 || journalEnd > bytes ||
      h->ringOffset < journalEnd || ringEnd > bytes || h->headerBytes != bytes) {
    corrupt("inconsistent header geometry");
  }
  ringCap_ = ringCap;
  headerSeg_ = std::move(seg);
  hdr_ = reinterpret_cast<Header*>(headerSeg_.data());
  journal_ = reinterpret_cast<uint32_t*>(headerSeg_.data() + h->journalDataOffset);
  ring_ = reinterpret_cast<uint32_t*>(headerSeg_.data() + h->ringOffset);
  writable_ = writable;
  controlSeg_ =
      ShmSegment::open(segName("rctl"), ShmSegment::Access::readWrite, sizeof(ReaderControl));
  rctl_ = reinterpret_cast<ReaderControl*>(controlSeg_.data());
  if (rctl_->magic.load(std::memory_order_acquire) != kControlMagic) {
    corrupt("bad magic number in the reader control segment");
  }
  mapChunks();
  refreshIndex();
}

ShmStore ShmStore::openReader(const Shape& shape) {
  shmValidateName(shape.mountPath, shape.collection);
  ShmStore s;
  s.shape_ = shape;
  ShmSegment seg = ShmSegment::open(shmSegmentName(shape.mountPath, shape.collection),
                                    ShmSegment::Access::readOnly);
  s.attachHeader(std::move(seg), shape, /*writable=*/false);
  return s;
}

void ShmStore::takeOver(const Shape& shape) {
  uint64_t owner = hdr_->owner.load(std::memory_order_acquire);
  const uint64_t me = myOwnerWord();
  for (;;) {
    if (owner == me) break;
    if (processAlive(owner)) {
      throw ShmException(fmt::format("shared memory table {}/{} already has a live writer (pid {})",
                                     shape.mountPath, shape.collection, ownerPid(owner)));
    }
    if (hdr_->owner.compare_exchange_strong(owner, me, std::memory_order_acq_rel)) break;
  }
  recover();
}

void ShmStore::releaseOwnership() {
  if (hdr_ && shared() && writable_) hdr_->owner.store(0, std::memory_order_release);
}

// A new writer continues a table: it finishes or undoes the journaled write, rebuilds its
// bookkeeping from the slots, and advances the epoch so that readers resynchronise.
void ShmStore::recover() {
  const uint32_t jseq = hdr_->journalSeq.load(std::memory_order_acquire);
  if (jseq & 1) {
    // Died while filling the journal: the slot itself was not touched yet.
    hdr_->journalSeq.store(jseq + 1, std::memory_order_release);
  } else {
    const uint32_t slot = hdr_->journalSlot.load(std::memory_order_relaxed);
    const uint32_t oldSeq = hdr_->journalSlotSeq.load(std::memory_order_relaxed);
    if (slot < highWater()) {
      uint32_t* s = slotPtr(slot);
      const uint32_t seq = loadWord(s);
      if ((seq & kSeqWriting) && (seq & ~kSeqWriting) == oldSeq) {
        if (oldSeq & kSeqOccupied) {
          std::vector<uint32_t> buf(kw_ + vw_);
          loadWords(journal_, buf.data(), kw_ + vw_);
          storeWords(s + 1, buf.data(), kw_ + vw_);
        }
        storeWord(s, ((oldSeq & ~3u) + kSeqStep) | (oldSeq & kSeqOccupied),
                  std::memory_order_release);
      }
    }
  }
  freeSlots_.clear();
  const uint32_t hw = highWater();
  uint32_t records = 0;
  for (uint32_t slot = 0; slot < hw; ++slot) {
    const uint32_t seq = loadWord(slotPtr(slot));
    if (seq & kSeqWriting) corrupt(fmt::format("slot {} was left half-written", slot));
    if (seq & kSeqOccupied) {
      ++records;
    } else {
      freeSlots_.push_back(slot);
    }
  }
  std::reverse(freeSlots_.begin(), freeSlots_.end());  // reuse low slots first
  hdr_->recordCount.store(records, std::memory_order_relaxed);
  head_ = hdr_->ringHead.load(std::memory_order_relaxed);
  buildIndex(indexCapacityFor(records));
  hdr_->epoch.fetch_add(1, std::memory_order_release);
  publishControl();
}

// ---- slots and chunks -----------------------------------------------------------------

uint32_t ShmStore::recordCount() const {
  const uint32_t n = hdr_->recordCount.load(std::memory_order_acquire);
  return n;
}

uint32_t ShmStore::highWater() const {
  const uint32_t hw = hdr_->slotHighWater.load(std::memory_order_acquire);
  const uint32_t chunks = hdr_->chunkCount.load(std::memory_order_acquire);
  if (chunks > kMaxChunks || hw > slotCapacity(chunks)) {
    corrupt(fmt::format("{} slots used but {} chunks", hw, chunks));
  }
  return hw;
}

void ShmStore::mapChunks() const {
  const uint32_t chunks = hdr_->chunkCount.load(std::memory_order_acquire);
  if (chunks > kMaxChunks) corrupt(fmt::format("chunk count {}", chunks));
  while (chunks_.size() < chunks) {
    const uint32_t c = static_cast<uint32_t>(chunks_.size());
    const size_t bytes = size_t{chunkSlots(c)} * 4 * slotWords_;
    ShmSegment seg = ShmSegment::open(
        segName(fmt::format("chunk{}", c)),
        writable_ ? ShmSegment::Access::readWrite : ShmSegment::Access::readOnly, bytes);
    uint32_t* base = reinterpret_cast<uint32_t*>(seg.data());
    chunks_.push_back(Chunk{std::move(seg), base});
  }
}

uint32_t* ShmStore::slotPtrSlow(uint32_t slot) const {
  const uint32_t c = chunkOf(slot);
  if (c >= chunks_.size()) {
    if (shared()) mapChunks();
    if (c >= chunks_.size()) corrupt(fmt::format("slot {} lies beyond the mapped chunks", slot));
  }
  return chunks_[c].base + size_t{slot - chunkFirstSlot(c)} * slotWords_;
}

void ShmStore::addChunk() {
  const uint32_t c = static_cast<uint32_t>(chunks_.size());
  if (c >= kMaxChunks) {
    throw ShmException(
        fmt::format("shared memory table {}/{} is full", shape_.mountPath, shape_.collection));
  }
  const size_t bytes = size_t{chunkSlots(c)} * 4 * slotWords_;
  ShmSegment seg;
  if (nextChunk_.valid()) {
    seg = std::move(nextChunk_);
    nextChunk_ = ShmSegment();
    try {
      seg.commit(nextChunkCommitted_, bytes - nextChunkCommitted_);
    } catch (...) {
      ShmSegment::unlink(seg.name());
      throw;
    }
  } else {
    seg = makeSegment(fmt::format("chunk{}", c), bytes);
  }
  uint32_t* base = reinterpret_cast<uint32_t*>(seg.data());
  chunks_.push_back(Chunk{std::move(seg), base});
  hdr_->chunkCount.store(c + 1, std::memory_order_release);
}

// Committing a whole chunk at once would stall one write for as long as it takes to commit
// megabytes; instead the chunk is committed kGrowthCommitStep (or more) per new slot while
// the last chunk's final slots are used. Readers never see it before chunkCount names it.
void ShmStore::prepareChunk(uint64_t slotsLeft) {
  const uint32_t c = static_cast<uint32_t>(chunks_.size());
  if (c >= kMaxChunks) return;
  const size_t bytes = size_t{chunkSlots(c)} * 4 * slotWords_;
  if (!nextChunk_.valid()) {
    if (slotsLeft > 2 * (bytes / kGrowthCommitStep) + 2) return;
    try {
      nextChunk_ = ShmSegment::createUncommitted(segName(fmt::format("chunk{}", c)), bytes, mode_);
    } catch (const ShmException&) {
      return;  // addChunk tries again when the chunk is needed
    }
    nextChunkCommitted_ = 0;
  }
  if (nextChunkCommitted_ >= bytes) return;
  const size_t left = bytes - nextChunkCommitted_;
  size_t step = std::max<size_t>(kGrowthCommitStep, (left + slotsLeft - 1) / slotsLeft);
  step = std::min(left, (step + 4095) & ~size_t{4095});
  try {
    nextChunk_.commit(nextChunkCommitted_, step);
    nextChunkCommitted_ += step;
  } catch (const ShmException&) {
    ShmSegment::unlink(nextChunk_.name());
    nextChunk_ = ShmSegment();
  }
}

bool ShmStore::readSlot(uint32_t slot, uint32_t* out) const {
  const uint32_t* s = slotPtr(slot);
  const uint32_t n = kw_ + vw_;
  for (uint32_t spin = 0; spin < kSpinLimit; ++spin) {
    const uint32_t s1 = loadWord(s, std::memory_order_acquire);
    if (!(s1 & kSeqWriting)) {
      loadWords(s + 1, out, n);
      std::atomic_thread_fence(std::memory_order_acquire);
      if (loadWord(s) == s1) return (s1 & kSeqOccupied) != 0;
      continue;
    }
    // The slot is being written (or its writer died mid-write): the journal holds its
    // previous content when it names this slot and this sequence.
    const uint32_t j1 = hdr_->journalSeq.load(std::memory_order_acquire);
    if (j1 & 1) continue;
    const uint32_t js = hdr_->journalSlot.load(std::memory_order_relaxed);
    const uint32_t jseq = hdr_->journalSlotSeq.load(std::memory_order_relaxed);
    loadWords(journal_, out, n);
    std::atomic_thread_fence(std::memory_order_acquire);
    if (hdr_->journalSeq.load(std::memory_order_relaxed) != j1) continue;
    if (js == slot && jseq == (s1 & ~kSeqWriting) && loadWord(s) == s1) {
      return (jseq & kSeqOccupied) != 0;
    }
  }
  corrupt(fmt::format("slot {} stays half-written and the journal does not name it", slot));
}

uint32_t ShmStore::seek(uint32_t from, uint32_t* out) const {
  const uint32_t hw = highWater();
  for (uint32_t slot = from; slot < hw; ++slot) {
    if (readSlot(slot, out)) return slot;
  }
  return kNoSlot;
}

bool ShmStore::keyEquals(uint32_t slot, const uint32_t* keyWords) const {
  const uint32_t* s = slotPtr(slot) + 1;
  for (uint32_t i = 0; i < kw_; ++i) {
    if (loadWord(s + i) != keyWords[i]) return false;
  }
  return true;
}

// ---- index ----------------------------------------------------------------------------

void ShmStore::mapIndex(uint32_t generation) const {
  ShmSegment seg = ShmSegment::open(segName(fmt::format("index{}", generation)),
                                    ShmSegment::Access::readOnly, sizeof(IndexHeader));
  const auto* ih = reinterpret_cast<const IndexHeader*>(seg.data());
  if (ih->magic.load(std::memory_order_acquire) != kIndexMagic || ih->generation != generation ||
      ih->capacity < 1 || sizeof(IndexHeader) + 4ull * ih->capacity > seg.size() ||
      ih->slotBits < 1 || ih->slotBits > kMaxSlotBits) {
    corrupt(fmt::format("bad index generation {}", generation));
  }
  indexCap_ = ih->capacity;
  indexSlotBits_ = ih->slotBits;
  index_ = reinterpret_cast<const uint32_t*>(seg.data() + sizeof(IndexHeader));
  indexGen_ = generation;
  indexSeg_ = std::move(seg);
}

void ShmStore::refreshIndex() const {
  for (int attempt = 0;; ++attempt) {
    const uint32_t gen = hdr_->indexGeneration.load(std::memory_order_acquire);
    if (gen == indexGen_ && index_) return;
    try {
      mapIndex(gen);
      return;
    } catch (const ShmException&) {
      // The writer may have replaced that generation meanwhile: retry with the newer one.
      if (attempt > 100 || hdr_->indexGeneration.load(std::memory_order_acquire) == gen) throw;
    }
  }
}

// Writes a new index generation holding every record of the slots, then publishes it.
void ShmStore::buildIndex(uint32_t capacity) {
  dropGrowth();
  try {
    beginGrowth(capacity, /*commitNow=*/true);
    if (!migrateSlots(hdr_->slotHighWater.load(std::memory_order_relaxed))) {
      corrupt("index overflow while rebuilding");
    }
  } catch (...) {
    dropGrowth();
    throw;
  }
  publishGrowth();
}

// Entries and slots the present generation can still take before it must be replaced.
uint64_t ShmStore::growthRoom() const {
  const uint64_t used = uint64_t{indexLive_} + indexTombstones_;
  const uint64_t maxUsed = uint64_t{indexCap_} * kMaxLoadNum / kMaxLoadDen;
  const uint32_t hw = hdr_->slotHighWater.load(std::memory_order_relaxed);
  const uint64_t loadRoom = maxUsed > used ? maxUsed - used : 0;
  const uint64_t slotRoom = indexSlotLimit_ > hw ? indexSlotLimit_ - hw : 0;
  return std::min(loadRoom, slotRoom);
}

// The next generation is sized for the present records plus every key that can arrive before
// it is published: no more than the present generation's room, nor than the writes the growth
// takes (each moves at least kMinGrowthStep - 1 slots net, after the writes that commit).
void ShmStore::beginGrowth(uint32_t capacity, bool commitNow) {
  if (capacity == 0) {
    const uint64_t room = growthRoom();
    const uint64_t hw = hdr_->slotHighWater.load(std::memory_order_relaxed);
    const uint64_t commitWrites =
        (sizeof(IndexHeader) + 4ull * indexCapacityFor(uint64_t{indexLive_} + room + 1)) /
            kGrowthCommitStep +
        1;
    const uint64_t newKeys = std::min(room, commitWrites + hw / (kMinGrowthStep - 1) + 1);
    capacity = indexCapacityFor(uint64_t{indexLive_} + newKeys + 1);
  }
  const uint32_t gen = hdr_->indexGeneration.load(std::memory_order_relaxed) + 1;
  const size_t bytes = sizeof(IndexHeader) + 4ull * capacity;
  const std::string suffix = fmt::format("index{}", gen);
  NextIndex n;
  if (!shared()) {
    n.seg = ShmSegment::anonymous(bytes);
  } else if (commitNow) {
    n.seg = makeSegment(suffix, bytes);
  } else {
    n.seg = ShmSegment::createUncommitted(segName(suffix), bytes, mode_);
  }
  n.committed = commitNow || !shared() ? bytes : 0;
  n.entries = reinterpret_cast<uint32_t*>(n.seg.data() + sizeof(IndexHeader));
  n.capacity = capacity;
  n.slotBits = slotBitsFor(static_cast<uint32_t>(chunks_.size()));
  next_ = std::move(n);
}

void ShmStore::maybeStartGrowth() {
  if (uint64_t{indexLive_} + indexTombstones_ < growthStartUsed_ &&
      hdr_->slotHighWater.load(std::memory_order_relaxed) < growthStartHighWater_) {
    return;
  }
  try {
    beginGrowth(0, /*commitNow=*/false);
  } catch (const ShmException&) {
    // Out of shared memory: the present generation still has room; a later write retries.
    dropGrowth();
  }
}

// One write's share of the growth: first the next generation's memory, then its slots. Each
// step covers the work left divided by the room left (half the room for the memory), so the
// growth ends before the present generation runs out of room however fast it fills.
void ShmStore::advanceGrowth() {
  const uint64_t room = std::max<uint64_t>(growthRoom(), 2);
  const size_t size = next_.seg.size();
  if (next_.committed < size) {
    const size_t left = size - next_.committed;
    size_t step = std::max<size_t>(kGrowthCommitStep, (left + room / 2 - 1) / (room / 2));
    step = std::min(left, (step + 4095) & ~size_t{4095});
    try {
      next_.seg.commit(next_.committed, step);
    } catch (const ShmException&) {
      dropGrowth();
      return;
    }
    next_.committed += step;
    return;
  }
  const uint32_t hw = hdr_->slotHighWater.load(std::memory_order_relaxed);
  const uint64_t left = hw - next_.cursor;
  // + 1: the write itself may take a new slot above the cursor.
  const uint64_t step = std::max<uint64_t>(kMinGrowthStep, (left + room - 1) / room + 1);
  if (!migrateSlots(static_cast<uint32_t>(std::min<uint64_t>(hw, next_.cursor + step)))) {
    dropGrowth();
    return;
  }
  if (next_.cursor >= hw) publishGrowth();
}

// Completes a running growth within this write (when the present generation is out of room).
void ShmStore::finishGrowth() {
  const size_t size = next_.seg.size();
  if (next_.committed < size) {
    next_.seg.commit(next_.committed, size - next_.committed);
    next_.committed = size;
  }
  if (!migrateSlots(hdr_->slotHighWater.load(std::memory_order_relaxed))) {
    dropGrowth();
    return;
  }
  publishGrowth();
}

void ShmStore::dropGrowth() {
  if (next_.seg.named()) ShmSegment::unlink(next_.seg.name());
  next_ = NextIndex{};
}

// Indexes the occupied slots in [cursor, end) into the next generation. Homes not looked up
// ahead are computed a batch ahead and prefetched, so the random writes overlap their cache
// misses. False when the next generation is full (it can then only be dropped).
bool ShmStore::migrateSlots(uint32_t end) {
  uint32_t batchSlot[kBuildBatch];
  uint64_t batchHash[kBuildBatch];
  uint32_t pending = 0;
  bool fits = true;
  auto place = [&] {
    for (uint32_t i = 0; i < pending && fits; ++i) fits = nextInsert(batchSlot[i], batchHash[i]);
    pending = 0;
  };
  NextIndex& n = next_;
  const uint32_t begin = n.cursor;
  for (uint32_t slot = begin; slot < end && fits; ++slot) {
    const uint32_t* s = slotPtr(slot);
    const uint32_t seq = loadWord(s);
    bool hashed = false;
    uint64_t h = 0;
    if (n.aheadCount != 0 && n.ahead[n.aheadFirst].slot == slot) {
      const NextIndex::Ahead& a = n.ahead[n.aheadFirst];
      hashed = a.seq == seq;
      h = a.hash;
      n.aheadFirst = (n.aheadFirst + 1) % kGrowthLookahead;
      --n.aheadCount;
    }
    if (!(seq & kSeqOccupied)) continue;
    if (!hashed) {
      uint32_t key[kMaxKeyBytes / 4];
      loadWords(s + 1, key, kw_);
      h = hashKey(key);
      __builtin_prefetch(n.entries + homeOf(h, n.capacity), 1);
    }
    batchSlot[pending] = slot;
    batchHash[pending] = h;
    if (++pending == kBuildBatch) place();
  }
  place();
  n.cursor = end;
  migratedThisWrite_ += end - begin;
  if (fits) lookAhead(end);
  return fits;
}

// Hashes the occupied slots of the next kGrowthLookahead above `end` that were not looked at
// yet and prefetches their home entries for the writes that will move them.
void ShmStore::lookAhead(uint32_t end) {
  NextIndex& n = next_;
  const uint32_t hw = hdr_->slotHighWater.load(std::memory_order_relaxed);
  const uint32_t stop = std::min(hw, end + kGrowthLookahead);
  uint32_t slot = std::max(n.aheadEnd, end);
  for (; slot < stop && n.aheadCount < kGrowthLookahead; ++slot) {
    const uint32_t* s = slotPtr(slot);
    const uint32_t seq = loadWord(s);
    if (!(seq & kSeqOccupied)) continue;
    uint32_t key[kMaxKeyBytes / 4];
    loadWords(s + 1, key, kw_);
    const uint64_t h = hashKey(key);
    __builtin_prefetch(n.entries + homeOf(h, n.capacity), 1);
    n.ahead[(n.aheadFirst + n.aheadCount) % kGrowthLookahead] = NextIndex::Ahead{slot, seq, h};
    ++n.aheadCount;
  }
  n.aheadEnd = slot;
}

// Adds the record of `slot` to the next generation, in the first tombstone or free entry of
// its probe (the probe runs to a free entry to catch a key held twice).
bool ShmStore::nextInsert(uint32_t slot, uint64_t h) {
  const uint32_t cap = next_.capacity;
  const uint32_t bits = next_.slotBits;
  uint32_t pos = homeOf(h, cap);
  uint32_t at = kNoSlot;
  for (uint32_t probes = 0;; ++probes) {
    if (probes == cap) return false;
    const uint32_t e = next_.entries[pos];
    if (e == 0) break;
    if (e == kTombstone) {
      if (at == kNoSlot) at = pos;
    } else if (tagMatches(e, h, bits) && keyEquals(slotOfEntry(e, bits), slotPtr(slot) + 1)) {
      corrupt(fmt::format("slots {} and {} hold the same key", slotOfEntry(e, bits), slot));
    }
    if (++pos == cap) pos = 0;
  }
  if (at == kNoSlot) {
    if (uint64_t{next_.used + 1} * kMaxLoadDen > uint64_t{cap} * kMaxLoadNum) return false;
    at = pos;
    ++next_.used;
  }
  next_.entries[at] = entryOf(slot, h, bits);
  ++next_.live;
  return true;
}

void ShmStore::nextRemove(uint32_t slot, uint64_t h) {
  const uint32_t cap = next_.capacity;
  const uint32_t want = entryOf(slot, h, next_.slotBits);
  uint32_t pos = homeOf(h, cap);
  for (uint32_t probes = 0; probes < cap; ++probes) {
    const uint32_t e = next_.entries[pos];
    if (e == want) {
      next_.entries[pos] = kTombstone;
      --next_.live;
      return;
    }
    if (e == 0) break;
    if (++pos == cap) pos = 0;
  }
  corrupt(fmt::format("slot {} is missing from the index generation being built", slot));
}

// The next generation is complete: its header goes in, readers are told its number, and the
// old generation's name is removed (readers that still map it keep it until they re-map).
void ShmStore::publishGrowth() {
  NextIndex n = std::move(next_);
  next_ = NextIndex{};
  const uint32_t gen = hdr_->indexGeneration.load(std::memory_order_relaxed) + 1;
  auto* ih = new (n.seg.data()) IndexHeader();
  ih->generation = gen;
  ih->capacity = n.capacity;
  ih->slotBits = n.slotBits;
  ih->magic.store(kIndexMagic, std::memory_order_release);
  retired_ = std::move(indexSeg_);  // frees a generation still being released, at once
  retiredLeft_ = retired_.size() & ~size_t{4095};
  indexSeg_ = std::move(n.seg);
  index_ = n.entries;
  indexCap_ = n.capacity;
  indexGen_ = gen;
  indexSlotBits_ = n.slotBits;
  indexLive_ = n.live;
  indexTombstones_ = n.used - n.live;
  indexSlotLimit_ = std::min((1u << n.slotBits) - 2, kMaxSlots);
  growthStartUsed_ = uint64_t{n.capacity} * kGrowthStartNum / kGrowthStartDen;
  growthStartHighWater_ = indexSlotLimit_ / 5 * 4;
  ++generationsPublished_;
  hdr_->indexGeneration.store(gen, std::memory_order_release);
  // Readers still on the old generation find its entries zeroed once released, and then the
  // new generation number, so they retry there.
  if (retired_.named()) ShmSegment::unlink(retired_.name());
}

// Gives back the replaced generation's memory from its end, kGrowthCommitStep per write; the
// segment is unmapped when nothing is left (or at once when it cannot be released in parts).
void ShmStore::releaseRetired() {
  const size_t step = std::min(retiredLeft_, kGrowthCommitStep);
  if (retiredLeft_ > step && retired_.decommit(retiredLeft_ - step, step)) {
    retiredLeft_ -= step;
    return;
  }
  retired_ = ShmSegment();
  retiredLeft_ = 0;
}

ShmStore::IndexGrowth ShmStore::indexGrowth() const {
  IndexGrowth g;
  g.migrating = next_.capacity != 0;
  g.cursor = next_.cursor;
  g.nextCapacity = next_.capacity;
  g.maxSlotsPerWrite = maxMigratedPerWrite_;
  g.generationsPublished = generationsPublished_;
  return g;
}

uint32_t ShmStore::find(const uint32_t* keyWords, uint32_t* out) const {
  const uint64_t h = hashKey(keyWords);
  uint32_t scratch[kMaxKeyBytes / 4 + kMaxRecordBytes / 4];
  if (writable_) {
    uint32_t slot;
    uint32_t insertAt;
    if (probe(h, keyWords, &slot, &insertAt) == kNoSlot) return kNoSlot;
    if (out) loadWords(slotPtr(slot) + 1, out, kw_ + vw_);
    return slot;
  }
  for (;;) {
    refreshIndex();
    const uint32_t gen = indexGen_;
    const uint32_t cap = indexCap_;
    uint32_t pos = homeOf(h, cap);
    uint32_t found = kNoSlot;
    bool ended = false;  // met a free entry or the key
    for (uint32_t probes = 0; probes < cap; ++probes) {
      const uint32_t e = loadWord(index_ + pos);
      if (e == 0) {
        ended = true;
        break;
      }
      if (e != kTombstone && tagMatches(e, h)) {
        const uint32_t slot = slotOfEntry(e);
        if (slot >= kMaxSlots) corrupt(fmt::format("index entry names slot {}", slot));
        uint32_t* buf = out ? out : scratch;
        if (readSlot(slot, buf) && std::equal(buf, buf + kw_, keyWords)) {
          found = slot;
          ended = true;
          break;
        }
      }
      if (++pos == cap) pos = 0;
    }
    // The entries were read before the generation is checked again: a generation replaced
    // meanwhile may have been zeroed while it was read.
    std::atomic_thread_fence(std::memory_order_acquire);
    if (hdr_->indexGeneration.load(std::memory_order_acquire) != gen) continue;
    // A sound index always has free entries (its load stays below 4/5).
    if (!ended) noFreeEntry();
    return found;
  }
}

// ---- writing --------------------------------------------------------------------------

uint32_t ShmStore::probe(uint64_t h, const uint32_t* keyWords, uint32_t* slot,
                         uint32_t* insertAt) const {
  const uint32_t cap = indexCap_;
  uint32_t pos = homeOf(h, cap);
  *insertAt = kNoSlot;
  for (uint32_t probes = 0; probes < cap; ++probes) {
    const uint32_t e = index_[pos];
    if (e == 0) {
      if (*insertAt == kNoSlot) *insertAt = pos;
      return kNoSlot;
    }
    if (e == kTombstone) {
      if (*insertAt == kNoSlot) *insertAt = pos;
    } else if (tagMatches(e, h)) {
      const uint32_t s = slotOfEntry(e);
      if (s >= kMaxSlots) corrupt(fmt::format("index entry names slot {}", s));
      if (keyEquals(s, keyWords)) {
        *slot = s;
        return pos;
      }
    }
    if (++pos == cap) pos = 0;
  }
  noFreeEntry();
}

void ShmStore::noFreeEntry() const {
  corrupt(fmt::format("index generation {} has no free entry", indexGen_));
}

uint32_t ShmStore::allocSlot() {
  if (!freeSlots_.empty()) {
    const uint32_t slot = freeSlots_.back();
    freeSlots_.pop_back();
    return slot;
  }
  const uint32_t hw = hdr_->slotHighWater.load(std::memory_order_relaxed);
  if (hw >= kMaxSlots) {
    throw ShmException(
        fmt::format("shared memory table {}/{} is full", shape_.mountPath, shape_.collection));
  }
  const uint64_t capacity = slotCapacity(static_cast<uint32_t>(chunks_.size()));
  if (hw >= capacity) {
    addChunk();
  } else if (shared()) {
    prepareChunk(capacity - hw);
  }
  hdr_->slotHighWater.store(hw + 1, std::memory_order_release);
  return hw;
}

// A free slot holds no record, so readers ignore its words: they are written first and the
// slot is then marked occupied in one release store. A writer killed in between leaves a free
// slot; no journal is needed.
void ShmStore::fillFreeSlot(uint32_t slot, const uint32_t* words) {
  uint32_t* s = slotPtr(slot);
  const uint32_t old = loadWord(s);
  storeWords(s + 1, words, kw_ + vw_);
  storeWord(s, ((old & ~3u) + kSeqStep) | kSeqOccupied, std::memory_order_release);
}

// Emptying a slot is one store: its words stay as they were and are ignored from then on.
void ShmStore::freeSlot(uint32_t slot) {
  uint32_t* s = slotPtr(slot);
  storeWord(s, (loadWord(s) & ~3u) + kSeqStep, std::memory_order_release);
}

// Rewrites an occupied slot: its present content goes to the journal first (under the
// journal's own sequence lock), then the slot is written under its sequence lock.
void ShmStore::rewriteSlot(uint32_t slot, const uint32_t* words) {
  uint32_t* s = slotPtr(slot);
  const uint32_t old = loadWord(s);
  const uint32_t n = kw_ + vw_;
  if (!shared()) {
    // Process memory: no other process reads it and nothing survives this one, so a reader
    // (another thread) only needs the sequence lock; it waits while the writing bit is set.
    storeWord(s, old | kSeqWriting);
    std::atomic_thread_fence(std::memory_order_release);
    storeWords(s + 1, words, n);
    storeWord(s, ((old & ~3u) + kSeqStep) | kSeqOccupied, std::memory_order_release);
    return;
  }
  const uint32_t j = hdr_->journalSeq.load(std::memory_order_relaxed);
  hdr_->journalSeq.store(j + 1, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_release);
  hdr_->journalSlot.store(slot, std::memory_order_relaxed);
  hdr_->journalSlotSeq.store(old, std::memory_order_relaxed);
  for (uint32_t i = 0; i < n; ++i) storeWord(journal_ + i, loadWord(s + 1 + i));
  hdr_->journalSeq.store(j + 2, std::memory_order_release);
  storeWord(s, old | kSeqWriting);
  std::atomic_thread_fence(std::memory_order_release);
  storeWords(s + 1, words, n);
  storeWord(s, ((old & ~3u) + kSeqStep) | kSeqOccupied, std::memory_order_release);
}

bool ShmStore::put(const uint32_t* words, uint32_t* oldWords) {
  migratedThisWrite_ = 0;
  // The key's index line is fetched while this write's share of the growth runs: the probe
  // is the one cache miss every write pays, and the growth step hides most of it.
  const uint64_t h = hashKey(words);
  __builtin_prefetch(index_ + homeOf(h, indexCap_));
  if (next_.capacity != 0) advanceGrowth();
  if (retired_.valid()) releaseRetired();
  uint32_t slot;
  uint32_t insertAt;
  if (probe(h, words, &slot, &insertAt) != kNoSlot) {
    if (oldWords) loadWords(slotPtr(slot) + 1, oldWords, kw_ + vw_);
    rewriteSlot(slot, words);
    growthStepDone();
    return false;
  }
  // A new key. Make room first, so that a failure (out of memory) changes nothing.
  if (next_.capacity == 0) maybeStartGrowth();
  auto fits = [&] {
    const bool reuse = insertAt != kNoSlot && index_[insertAt] == kTombstone;
    const uint32_t nextSlot = freeSlots_.empty()
                                  ? hdr_->slotHighWater.load(std::memory_order_relaxed)
                                  : freeSlots_.back();
    return insertAt != kNoSlot && nextSlot < indexSlotLimit_ &&
           (uint64_t{indexLive_} + indexTombstones_ + (reuse ? 0 : 1)) * kMaxLoadDen <=
               uint64_t{indexCap_} * kMaxLoadNum;
  };
  if (!fits()) {
    // Growth did not keep up (or never started): complete it now, else rebuild at once.
    if (next_.capacity != 0) {
      finishGrowth();
      probe(h, words, &slot, &insertAt);
    }
    if (!fits()) {
      buildIndex(indexCapacityFor(uint64_t{indexLive_} + 1));
      // The key is absent: its place is the first free position of its probe.
      insertAt = homeOf(h, indexCap_);
      while (index_[insertAt] != 0) {
        if (++insertAt == indexCap_) insertAt = 0;
      }
    }
  }
  const bool reuseTombstone = index_[insertAt] == kTombstone;
  slot = allocSlot();
  fillFreeSlot(slot, words);
  if (reuseTombstone) --indexTombstones_;
  storeWord(const_cast<uint32_t*>(index_) + insertAt, entryOf(slot, h), std::memory_order_release);
  ++indexLive_;
  // A slot below the cursor was already passed by the growth: mirror the record into it.
  if (next_.capacity != 0 && slot < next_.cursor && !nextInsert(slot, h)) dropGrowth();
  growthStepDone();
  hdr_->recordCount.store(hdr_->recordCount.load(std::memory_order_relaxed) + 1,
                          std::memory_order_release);
  return true;
}

bool ShmStore::remove(const uint32_t* keyWords, uint32_t* oldWords) {
  migratedThisWrite_ = 0;
  const uint64_t h = hashKey(keyWords);
  __builtin_prefetch(index_ + homeOf(h, indexCap_));
  if (next_.capacity != 0) advanceGrowth();
  if (retired_.valid()) releaseRetired();
  uint32_t slot;
  uint32_t insertAt;
  const uint32_t pos = probe(h, keyWords, &slot, &insertAt);
  if (pos == kNoSlot) {
    growthStepDone();
    return false;
  }
  if (oldWords) loadWords(slotPtr(slot) + 1, oldWords, kw_ + vw_);
  freeSlot(slot);
  storeWord(const_cast<uint32_t*>(index_) + pos, kTombstone, std::memory_order_release);
  --indexLive_;
  ++indexTombstones_;
  if (next_.capacity != 0 && slot < next_.cursor) nextRemove(slot, h);
  growthStepDone();
  freeSlots_.push_back(slot);
  hdr_->recordCount.store(hdr_->recordCount.load(std::memory_order_relaxed) - 1,
                          std::memory_order_release);
  return true;
}

// ---- change log and wake-up -----------------------------------------------------------

void ShmStore::publishKey(const uint32_t* keyWords) {
  uint32_t* e = ring_ + size_t(head_ & (ringCap_ - 1)) * kw_;
  // Orders the previous head store before the entry's words: a reader that sees a torn entry
  // then also sees a head that invalidates it.
  std::atomic_thread_fence(std::memory_order_release);
  storeWords(e, keyWords, kw_);
  ++head_;
  hdr_->ringHead.store(head_, std::memory_order_release);
  publishControl();
}

void ShmStore::publishControl() {
  // Pairs with the sleeper's increment of `sleepers` followed by its load of the wake word:
  // both sides use sequentially consistent operations, so either the sleeper reads the new
  // wake word (and, through it, everything published before) or this load sees the sleeper.
  // The read-modify-write doubles as the full barrier, cheaper than a separate fence.
  hdr_->wakeWord.fetch_add(1, std::memory_order_seq_cst);
  if (rctl_ && rctl_->sleepers.load(std::memory_order_seq_cst) != 0) {
    futexWake(&hdr_->wakeWord, INT_MAX, /*shared=*/true);
  }
}

uint64_t ShmStore::ringHead() const {
  return hdr_->ringHead.load(std::memory_order_seq_cst);
}

void ShmStore::readRingEntry(uint64_t pos, uint32_t* keyWords) const {
  loadWords(ring_ + size_t(pos & (ringCap_ - 1)) * kw_, keyWords, kw_);
}

size_t ShmStore::committedBytes() const {
  size_t total = headerSeg_.committedBytes() + controlSeg_.committedBytes() +
                 indexSeg_.committedBytes() + next_.seg.committedBytes() +
                 nextChunk_.committedBytes() + retired_.committedBytes();
  for (const Chunk& c : chunks_) total += c.seg.committedBytes();
  return total;
}

}  // namespace Oro
