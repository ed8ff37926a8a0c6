#include "platform/shm/ShmCollection.h"

#include <sched.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstring>
#include <new>

#include <fmt/format.h>

#include "platform/Error.h"
#include "platform/shm/ShmStore.h"

namespace Oro {

using namespace ShmLayout;

namespace {

constexpr uint32_t kMinIndexCapacity = 64;
// The index is rebuilt when live entries plus tombstones pass 4/5 of its capacity; a new
// generation holds the live entries at load 1/2, or 4/7 once the collection is large, which
// keeps the index below 7 bytes per record while every rebuild still grows it by 1.4x.
constexpr uint64_t kMaxLoadNum = 4, kMaxLoadDen = 5;
constexpr uint32_t kLargeTable = 1u << 18;
// Rounds a reader of a shared store spends on a slot whose sequence word does not move before
// it calls the slot damaged; past kYieldAfter rounds it lets other threads run (a detached
// store's writer may be another thread of this process, preempted mid-write: such a reader
// waits as long as it takes). A live writer does not hold a slot still: a slot it rewrites
// shows the writing bit only after the journal names it, and a word that keeps moving resets
// the count. The limit bounds how long a slot forged (or left by a killed writer) half-written
// stalls a reader: about a millisecond, where 2^22 rounds took seconds.
constexpr uint32_t kYieldAfter = 1024;
constexpr uint32_t kStuckLimit = 2048;
// Occupied slots whose index homes are computed (and prefetched) before any is placed.
constexpr uint32_t kBuildBatch = 16;
// Growth of the index into its next generation starts when the present one is 69/100 full
// (or its slot field 4/5 used); from then on each write moves at least kMinGrowthStep slots,
// and more when the room left would not last otherwise. At that rate the slots of a
// generation filled to a fraction s are all moved after s / (kMinGrowthStep - 1) more keys,
// so s * 8/7 must stay below the 4/5 limit: 69/100 is the latest start that leaves room for
// the writes that commit the new generation's memory too.
constexpr uint64_t kGrowthStartNum = 69, kGrowthStartDen = 100;
constexpr uint32_t kMinGrowthStep = 8;
// Memory committed (or given back) per write: no single write commits or frees megabytes. A
// growing index's memory is committed in pieces of this size spread over the writes.
constexpr size_t kCommitStep = 16 * 1024;

uint32_t indexCapacityFor(uint64_t live) {
  const uint64_t cap = live >= kLargeTable ? live * 7 / 4 : live * 2;
  return static_cast<uint32_t>(std::clamp<uint64_t>(cap, kMinIndexCapacity, UINT32_MAX - 1));
}

// Width of the slot field for a generation built while `chunks` chunks exist: room for the
// next chunk too, so that growing by one chunk does not force a rebuild. A nested insert may
// carve a whole page above the high-water mark, so a nested collection gets room for the two
// next chunks and a page: with one, a collection of a few thousand slots came within a page
// of the field's end before its growth (started at 4/5 of the field) could finish, and one
// insert then moved every slot at once.
uint32_t slotBitsFor(uint32_t chunks, bool nested) {
  uint64_t slots = slotCapacity(std::min(chunks + (nested ? 2 : 1), kMaxChunks));
  if (nested) slots += pageSlots(kMaxPageClass);
  return std::min<uint32_t>(static_cast<uint32_t>(std::bit_width(slots + 1)), kMaxSlotBits);
}

size_t pageRound(size_t bytes) {
  const size_t page = ShmSegment::pageBytes();
  return (bytes + page - 1) / page * page;
}

}  // namespace

ShmCollection::ShmCollection(ShmStore& store, uint32_t index)
    : storePtr_(&store), index_(index), desc_(&store.hdr_->colls[index]) {
  kind_ = desc_->kind;
  parent_ = desc_->parent;
  childIndex_ = desc_->childIndex;
  children_ = desc_->children;
  blobs_ = desc_->blobs != 0;
  kw_ = desc_->keyWords;
  vw_ = desc_->valueWords;
  slotWords_ = desc_->slotWords;
  sideWords_ = desc_->sideWords;
  sideOffset_ = slotWords_ - sideWords_;
}

std::string ShmCollection::suffix(char kind, uint32_t n) const {
  return fmt::format("{}{}{}", index_, kind, n);
}

size_t ShmCollection::chunkBytes(uint32_t chunk) const {
  const size_t slots = chunkSlots(chunk);
  return slots * slotWords_ * 4 + (nested() ? slots / kMinPageSlots * sizeof(PageEntry) : 0);
}

bool ShmCollection::lost() const {
  if (indexSeg_.lost()) return true;
  for (const ShmSegment& c : chunks_) {
    if (c.lost()) return true;
  }
  return false;
}

void ShmCollection::suffixesInUse(std::vector<std::string>& out) const {
  for (uint32_t c = 0; c < chunks_.size(); ++c) out.push_back(suffix('k', c));
  out.push_back(suffix('i', indexGen_));
  if (next_.seg.valid()) out.push_back(suffix('i', indexGen_ + 1));
}

// ---- chunks and slots -------------------------------------------------------------------

void ShmCollection::attach() {
  mapChunks();
  refreshIndex();
  if (storePtr_->writable_) {
    ownHighWater_ = false;
    hw_ = highWater();
    ownHighWater_ = true;
    recommitUsed();
  }
}

// The used part of the last chunk is committed; committing it again tells where it ends.
void ShmCollection::recommitUsed() {
  if (chunks_.empty()) return;
  const uint32_t c = static_cast<uint32_t>(chunks_.size()) - 1;
  forgetCommitted();
  if (hw_ > chunkFirstSlot(c)) ensureCommitted(hw_);
}

// The last chunk as not committed at all (a new one, or one whose commits are to be found out).
void ShmCollection::forgetCommitted() {
  lastCommitted_ = 0;
  dirCommitted_ = 0;
  committedEnd_ = 0;
}

uint32_t ShmCollection::highWater() const {
  if (storePtr_->writable_ && ownHighWater_) return hw_;
  const uint32_t hw = desc_->slotHighWater.load(std::memory_order_acquire);
  const uint32_t chunks = desc_->chunkCount.load(std::memory_order_acquire);
  if (chunks > kMaxChunks || hw > slotCapacity(chunks)) {
    storePtr_->corrupt(fmt::format("collection {}: {} slots used but {} chunks", index_, hw, chunks));
  }
  return hw;
}

uint32_t ShmCollection::readableHighWater() const {
  const uint32_t hw = highWater();
  try {
    if (hw != 0) slotPtr(hw - 1);  // maps the chunks below hw, unless they are already
  } catch (const ShmCorruptionException&) {
    throw;
  } catch (const ShmResourceException& e) {
    storePtr_->segmentMissing(e);
  } catch (const ShmException& e) {
    storePtr_->corrupt(fmt::format("collection {}: {}", index_, e.what()));
  }
  return hw;
}

void ShmCollection::mapChunks() const {
  const uint32_t chunks = desc_->chunkCount.load(std::memory_order_acquire);
  if (chunks > kMaxChunks) storePtr_->corrupt(fmt::format("collection {}: chunk count {}", index_, chunks));
  while (chunks_.size() < chunks) {
    const uint32_t c = static_cast<uint32_t>(chunks_.size());
    chunkMapped(storePtr_->openSegment(suffix('k', c), chunkBytes(c)));
  }
}

void ShmCollection::chunkMapped(ShmSegment seg) const {
  chunkBase_[chunkCount_++] = reinterpret_cast<uint32_t*>(seg.data());
  chunks_.push_back(std::move(seg));
}

uint32_t* ShmCollection::slotPtrSlow(uint32_t slot) const {
  if (slot >= kMaxSlots) storePtr_->corrupt(fmt::format("collection {}: slot {} out of range", index_, slot));
  const uint32_t c = chunkOf(slot);
  if (c >= chunks_.size()) {
    if (storePtr_->shared()) mapChunks();
    if (c >= chunks_.size()) {
      storePtr_->corrupt(fmt::format("collection {}: slot {} lies beyond the chunks", index_, slot));
    }
  }
  return chunkBase_[c] + size_t{slot - chunkFirstSlot(c)} * slotWords_;
}

PageEntry* ShmCollection::pageEntry(uint32_t slot) const {
  slotPtr(slot);  // maps the chunk, checks the range
  const uint32_t c = chunkOf(slot);
  auto* dir = reinterpret_cast<PageEntry*>(chunkBase_[c] + size_t{chunkSlots(c)} * slotWords_);
  return dir + (slot - chunkFirstSlot(c)) / kMinPageSlots;
}

uint32_t* ShmCollection::side(uint32_t slot) const {
  return slotPtr(slot) + sideOffset_;
}

void ShmCollection::addChunk() {
  const uint32_t c = static_cast<uint32_t>(chunks_.size());
  if (c >= kMaxChunks) {
    throw ShmException(fmt::format("shared memory store {}: collection {} is full",
                                   storePtr_->mountPath_,
                                   storePtr_->schema_.collections[index_].name));
  }
  // Committed a step at a time as its slots are used (ensureCommitted): neither a write that
  // opens a chunk nor the store's memory pays for the whole chunk at once. So is a nested
  // collection's page directory, at the chunk's end (megabytes for a large chunk).
  const size_t bytes = chunkBytes(c);
  chunkMapped(storePtr_->makeSegment(suffix('k', c), bytes, /*commitNow=*/false));
  forgetCommitted();
  desc_->chunkCount.store(c + 1, std::memory_order_release);
  storePtr_->fault(ShmFaultPoint::chunkAdded);
}

// Makes sure the last chunk's memory is committed up to slot `end` (exclusive): its slots and,
// for a nested chunk, the directory entries of the pages below `end`, each kCommitStep or
// more at a time.
void ShmCollection::ensureCommittedSlow(uint32_t end) {
  const uint32_t c = static_cast<uint32_t>(chunks_.size()) - 1;
  ShmSegment& seg = chunks_[c];
  const uint32_t used = end - chunkFirstSlot(c);
  const size_t slotBytes = size_t{chunkSlots(c)} * slotWords_ * 4;
  // Commits [0, need) of the region [at, at + size), of which `done` bytes are committed.
  auto commitRegion = [&seg](size_t at, size_t size, size_t need, size_t& done) {
    if (need <= done) return;
    const size_t step = std::min(size - done, pageRound(std::max(need - done, kCommitStep)));
    seg.commit(at + done, step);
    done += step;
  };
  commitRegion(0, slotBytes, size_t{used} * slotWords_ * 4, lastCommitted_);
  size_t covered = lastCommitted_ / (size_t{slotWords_} * 4);
  if (nested()) {
    commitRegion(slotBytes, chunkBytes(c) - slotBytes,
                 size_t{(used + kMinPageSlots - 1) / kMinPageSlots} * sizeof(PageEntry),
                 dirCommitted_);
    covered = std::min(covered, dirCommitted_ / sizeof(PageEntry) * kMinPageSlots);
  }
  committedEnd_ = chunkFirstSlot(c) + static_cast<uint32_t>(covered);
}

bool ShmCollection::readSlot(uint32_t slot, uint32_t* out, uint32_t* seq) const {
  const uint32_t* s = slotPtr(slot);
  const uint32_t n = kw_ + vw_;
  const Header* h = storePtr_->hdr_;
  uint32_t last = 0;
  uint32_t stuck = 0;
  for (uint32_t round = 0;; ++round) {
    if (round >= kYieldAfter) ::sched_yield();
    const uint32_t s1 = loadWord(s, std::memory_order_acquire);
    if (s1 != last) {
      last = s1;
      stuck = 0;
    } else if (++stuck >= kStuckLimit && storePtr_->shared()) {
      break;
    }
    if (!(s1 & kSeqWriting)) {
      loadWords(s + 1, out, n);
      std::atomic_thread_fence(std::memory_order_acquire);
      if (loadWord(s) == s1) {
        *seq = s1;
        return (s1 & kSeqOccupied) != 0;
      }
      continue;
    }
    // Being rewritten (or its writer died mid-rewrite): the journal holds the previous content
    // when it names this slot and this sequence. A detached store has no journal: its writer
    // is a thread of this process, so the reader waits for it.
    if (!storePtr_->shared()) continue;
    const uint32_t j1 = h->journalSeq.load(std::memory_order_acquire);
    if (j1 & 1) continue;
    const uint32_t jc = h->journalColl.load(std::memory_order_relaxed);
    const uint32_t js = h->journalSlot.load(std::memory_order_relaxed);
    const uint32_t jseq = h->journalSlotSeq.load(std::memory_order_relaxed);
    if (n > storePtr_->journalWords_) break;
    loadWords(storePtr_->journal_, out, n);
    std::atomic_thread_fence(std::memory_order_acquire);
    if (h->journalSeq.load(std::memory_order_relaxed) != j1) continue;
    if (jc == index_ && js == slot && jseq == (s1 & ~kSeqWriting) && loadWord(s) == s1) {
      *seq = s1;
      return (jseq & kSeqOccupied) != 0;
    }
  }
  storePtr_->corrupt(fmt::format("collection {}: slot {} stays half-written and the journal does not "
                             "name it",
                             index_, slot));
}

bool ShmCollection::unchanged(uint32_t slot, uint32_t seq) const {
  std::atomic_thread_fence(std::memory_order_acquire);
  if (loadWord(slotPtr(slot)) != seq) return false;
  if (!(seq & kSeqWriting)) return true;
  const Header* h = storePtr_->hdr_;
  return h->journalColl.load(std::memory_order_relaxed) == index_ &&
         h->journalSlot.load(std::memory_order_relaxed) == slot &&
         (h->journalSeq.load(std::memory_order_relaxed) & 1) == 0;
}

uint32_t ShmCollection::seek(uint32_t from, uint32_t* out, uint32_t* seq) const {
  const uint32_t hw = highWater();
  for (uint32_t slot = from; slot < hw; ++slot) {
    if (readSlot(slot, out, seq)) return slot;
  }
  return kNoSlot;
}

bool ShmCollection::keyEquals(uint32_t slot, const uint32_t* keyWords) const {
  return keyAt(slotPtr(slot), keyWords);
}

bool ShmCollection::keyAt(const uint32_t* s, const uint32_t* keyWords) const {
  for (uint32_t i = 0; i < kw_; ++i) {
    if (loadWord(s + 1 + i) != keyWords[i]) return false;
  }
  return true;
}

bool ShmCollection::alive(uint64_t ref) const {
  const uint32_t slot = refSlot(ref);
  if (refGen(ref) == 0 || slot >= highWater()) return false;
  const uint32_t* s = slotPtr(slot);
  const uint32_t seq = loadWord(s, std::memory_order_acquire);
  if (!(seq & kSeqOccupied)) return false;
  const uint32_t gen = loadWord(s + sideOffset_ + kSideGen, std::memory_order_acquire);
  std::atomic_thread_fence(std::memory_order_acquire);
  return gen == refGen(ref) && (loadWord(s) & kSeqOccupied);
}

uint32_t ShmCollection::seekChild(uint64_t parent, uint32_t from, bool after, uint32_t* out,
                                  uint32_t* seq) const {
  const ShmCollection& p = *storePtr_->colls_[parent_];
  if (!p.alive(parent)) return kNoSlot;
  uint32_t page;
  if (from == kNoSlot) {
    const uint32_t first =
        loadWord(p.side(refSlot(parent)) + childBlock(childIndex_) + kChildFirst,
                 std::memory_order_acquire);
    if (first == 0) return kNoSlot;
    page = first - 1;
    from = page;
  } else {
    // A position past the carved pages (a bookmark from before the store was rebuilt) is
    // past the end of every chain.
    if (from >= highWater()) return kNoSlot;
    const PageEntry* e = pageEntry(from);
    const uint32_t info = e->info.load(std::memory_order_acquire);
    page = from - (from % kMinPageSlots) - headDistanceOf(info) * kMinPageSlots;
    if (after) ++from;  // may be the next page's first slot: the chain decides where that is
  }
  const uint64_t carved = highWater();
  for (uint64_t pages = 0; pages <= carved / kMinPageSlots; ++pages) {
    if (page >= carved || page % kMinPageSlots != 0) {
      storePtr_->corrupt(fmt::format("collection {}: page {} out of range", index_, page));
    }
    const PageEntry* e = pageEntry(page);
    const uint32_t info = e->info.load(std::memory_order_acquire);
    const uint32_t cls = pageClassOf(info);
    if (cls > kMaxPageClass || headDistanceOf(info) != 0 ||
        (page - chunkFirstSlot(chunkOf(page))) % pageSlots(cls) != 0) {
      storePtr_->corrupt(fmt::format("collection {}: bad page entry at slot {}", index_, page));
    }
    // A page that no longer belongs to the parent: the parent was removed meanwhile.
    if (e->owner.load(std::memory_order_acquire) != parent) return kNoSlot;
    const uint32_t end = page + pageSlots(cls);
    for (uint32_t slot = std::clamp(from, page, end); slot < end; ++slot) {
      if (readSlot(slot, out, seq) && refOfWords(out) == parent) return slot;
    }
    const uint32_t next = e->next.load(std::memory_order_acquire);
    if (e->owner.load(std::memory_order_acquire) != parent) return kNoSlot;
    if (next == 0) return kNoSlot;
    page = next - 1;
    from = page;
  }
  storePtr_->corrupt(fmt::format("collection {}: the page chain of a parent loops", index_));
}

// ---- index ------------------------------------------------------------------------------

void ShmCollection::mapIndex(uint32_t generation) const {
  ShmSegment seg = ShmSegment::open(storePtr_->segName(suffix('i', generation)),
                                    ShmSegment::Access::readOnly, sizeof(IndexHeader));
  seg.dropDescriptor();
  const auto* ih = reinterpret_cast<const IndexHeader*>(seg.data());
  if (ih->magic.load(std::memory_order_acquire) != kIndexMagic || ih->generation != generation ||
      ih->capacity < 1 || sizeof(IndexHeader) + 4ull * ih->capacity > seg.size() ||
      ih->slotBits < 1 || ih->slotBits > kMaxSlotBits) {
    storePtr_->corrupt(fmt::format("collection {}: bad index generation {}", index_, generation));
  }
  indexCap_ = ih->capacity;
  indexSlotBits_ = ih->slotBits;
  entries_ = reinterpret_cast<const uint32_t*>(seg.data() + sizeof(IndexHeader));
  indexGen_ = generation;
  indexSeg_ = std::move(seg);
}

void ShmCollection::refreshIndex() const {
  for (int attempt = 0;; ++attempt) {
    const uint32_t gen = desc_->indexGeneration.load(std::memory_order_acquire);
    if (gen == indexGen_ && entries_) return;
    try {
      mapIndex(gen);
      return;
    } catch (const ShmException& e) {
      // The writer may have replaced that generation meanwhile: retry with the newer one.
      if (attempt > 100 || desc_->indexGeneration.load(std::memory_order_acquire) == gen)
        storePtr_->segmentMissing(e);
    }
  }
}

void ShmCollection::noFreeEntry() const {
  storePtr_->corrupt(fmt::format("collection {}: index generation {} has no free entry", index_, indexGen_));
}

uint32_t ShmCollection::find(const uint32_t* keyWords, uint32_t* out, uint32_t* seq) const {
  const uint64_t h = hashKey(keyWords);
  if (storePtr_->writable_) {
    uint32_t slot;
    uint32_t insertAt;
    if (probe(h, keyWords, &slot, &insertAt) == kNoSlot) return kNoSlot;
    if (!readSlot(slot, out, seq)) return kNoSlot;
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
      const uint32_t e = loadWord(entries_ + pos);
      if (e == 0) {
        ended = true;
        break;
      }
      if (e != kTombstone && tagMatches(e, h, indexSlotBits_)) {
        const uint32_t slot = slotOfEntry(e, indexSlotBits_);
        if (slot >= kMaxSlots) storePtr_->corrupt(fmt::format("collection {}: index entry names slot {}", index_, slot));
        // An entry may name a slot whose record was never committed (a writer killed between
        // indexing and committing) or was removed since: only an occupied slot with the key
        // is a match.
        if (readSlot(slot, out, seq) && std::equal(out, out + kw_, keyWords)) {
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
    if (desc_->indexGeneration.load(std::memory_order_acquire) != gen) continue;
    if (!ended) noFreeEntry();
    return found;
  }
}

uint32_t ShmCollection::probe(uint64_t h, const uint32_t* keyWords, uint32_t* slot,
                              uint32_t* insertAt) const {
  const uint32_t cap = indexCap_;
  uint32_t pos = homeOf(h, cap);
  *insertAt = kNoSlot;
  for (uint32_t probes = 0; probes < cap; ++probes) {
    const uint32_t e = entries_[pos];
    if (e == 0) {
      if (*insertAt == kNoSlot) *insertAt = pos;
      return kNoSlot;
    }
    if (e == kTombstone) {
      if (*insertAt == kNoSlot) *insertAt = pos;
    } else if (tagMatches(e, h, indexSlotBits_)) {
      const uint32_t s = slotOfEntry(e, indexSlotBits_);
      if (s >= kMaxSlots) storePtr_->corrupt(fmt::format("collection {}: index entry names slot {}", index_, s));
      const uint32_t* sp = slotPtr(s);
      if ((loadWord(sp) & kSeqOccupied) && keyAt(sp, keyWords)) {
        *slot = s;
        return pos;
      }
    }
    if (++pos == cap) pos = 0;
  }
  noFreeEntry();
}

// Writes a new index generation holding every record of the slots, then publishes it.
void ShmCollection::buildIndex(uint32_t capacity) {
  dropGrowth();
  try {
    beginGrowth(capacity, /*commitNow=*/true);
    if (!migrateSlots(hw_)) {
      storePtr_->corrupt("index overflow while rebuilding");
    }
  } catch (...) {
    dropGrowth();
    throw;
  }
  publishGrowth();
}

uint64_t ShmCollection::growthRoom() const {
  const uint64_t used = uint64_t{indexLive_} + indexTombstones_;
  const uint64_t maxUsed = uint64_t{indexCap_} * kMaxLoadNum / kMaxLoadDen;
  const uint32_t hw = hw_;
  const uint64_t loadRoom = maxUsed > used ? maxUsed - used : 0;
  const uint64_t slotRoom = indexSlotLimit_ > hw ? indexSlotLimit_ - hw : 0;
  return std::min(loadRoom, slotRoom);
}

// The next generation is sized for the present records plus every key that can arrive before
// it is published: no more than the present generation's room, nor than the writes the growth
// takes (each moves at least kMinGrowthStep - 1 slots net, after the writes that commit).
void ShmCollection::beginGrowth(uint32_t capacity, bool commitNow) {
  const uint64_t room = growthRoom();
  if (capacity == 0) {
    const uint64_t hw = hw_;
    // The memory's commits are spread over at most half the room (see advanceGrowth).
    const uint64_t commitWrites = room / 2 + 1;
    const uint64_t newKeys = std::min(room, commitWrites + hw / (kMinGrowthStep - 1) + 1);
    capacity = indexCapacityFor(uint64_t{indexLive_} + newKeys + 1);
  }
  const uint32_t gen = indexGen_ + 1;
  const size_t bytes = sizeof(IndexHeader) + 4ull * capacity;
  NextIndex n;
  const uint64_t pieces = (bytes + kCommitStep - 1) / kCommitStep;
  n.commitEvery = std::max<uint64_t>(1, room / 2 / (pieces + 1));
  n.seg = storePtr_->makeSegment(suffix('i', gen), bytes, commitNow);
  n.committed = commitNow || !storePtr_->shared() ? bytes : 0;
  n.entries = reinterpret_cast<uint32_t*>(n.seg.data() + sizeof(IndexHeader));
  n.capacity = capacity;
  n.maxUsed = static_cast<uint32_t>(uint64_t{capacity} * kMaxLoadNum / kMaxLoadDen);
  n.slotBits = slotBitsFor(static_cast<uint32_t>(chunks_.size()), nested());
  next_ = std::move(n);
}

void ShmCollection::maybeStartGrowth() {
  if (uint64_t{indexLive_} + indexTombstones_ < growthStartUsed_ &&
      hw_ < growthStartHighWater_) {
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
void ShmCollection::advanceGrowth() {
  const uint64_t room = std::max<uint64_t>(growthRoom(), 2);
  const size_t size = next_.seg.size();
  if (next_.committed < size) {
    const size_t left = size - next_.committed;
    // As planned, unless the room left no longer holds the plan (it shrinks by a whole page
    // when a nested insert carves one): then every write commits its share.
    const uint64_t piecesLeft = (left + kCommitStep - 1) / kCommitStep;
    if (piecesLeft * next_.commitEvery < room / 2 && ++next_.commitSkipped < next_.commitEvery) {
      return;
    }
    next_.commitSkipped = 0;
    size_t step = std::max<size_t>(kCommitStep, (left + room / 2 - 1) / (room / 2));
    step = std::min(left, pageRound(step));
    try {
      next_.seg.commit(next_.committed, step);
    } catch (const ShmException&) {
      dropGrowth();
      return;
    }
    next_.committed += step;
    return;
  }
  const uint32_t hw = hw_;
  const uint64_t left = hw - next_.cursor;
  // + 1: the write itself may take a new slot above the cursor.
  const uint64_t step = std::max<uint64_t>(kMinGrowthStep, (left + room - 1) / room + 1);
  if (!migrateSlots(static_cast<uint32_t>(std::min<uint64_t>(hw, next_.cursor + step)))) {
    dropGrowth();
    return;
  }
  storePtr_->fault(ShmFaultPoint::growthStep);
  if (next_.cursor >= hw) publishGrowth();
}

void ShmCollection::finishGrowth() {
  const size_t size = next_.seg.size();
  if (next_.committed < size) {
    next_.seg.commit(next_.committed, size - next_.committed);
    next_.committed = size;
  }
  if (!migrateSlots(hw_)) {
    dropGrowth();
    return;
  }
  publishGrowth();
}

void ShmCollection::dropGrowth() {
  if (next_.seg.named()) ShmSegment::unlink(next_.seg.name());
  next_ = NextIndex{};
}

// Indexes the occupied slots in [cursor, end) into the next generation. Homes not looked up
// ahead are computed a batch ahead and prefetched, so the random writes overlap their cache
// misses. False when the next generation is full (it can then only be dropped).
bool ShmCollection::migrateSlots(uint32_t end) {
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
  SlotRun run(*this);
  for (uint32_t slot = begin; slot < end && fits; ++slot) {
    const uint32_t* s = run.at(slot);
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
      h = hashKey(s + 1);  // the writer's own words: no copy needed to read them
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

// Hashes the occupied slots of the next kGrowthLookahead above `end` not looked at yet and
// prefetches their home entries for the writes that will move them.
void ShmCollection::lookAhead(uint32_t end) {
  NextIndex& n = next_;
  const uint32_t hw = hw_;
  const uint32_t stop = std::min(hw, end + kGrowthLookahead);
  uint32_t slot = std::max(n.aheadEnd, end);
  SlotRun run(*this);
  for (; slot < stop && n.aheadCount < kGrowthLookahead; ++slot) {
    const uint32_t* s = run.at(slot);
    const uint32_t seq = loadWord(s);
    if (!(seq & kSeqOccupied)) continue;
    const uint64_t h = hashKey(s + 1);  // only the writer grows an index, over its own words
    __builtin_prefetch(n.entries + homeOf(h, n.capacity), 1);
    n.ahead[(n.aheadFirst + n.aheadCount) % kGrowthLookahead] = NextIndex::Ahead{slot, seq, h};
    ++n.aheadCount;
  }
  n.aheadEnd = slot;
}

// Adds the record of `slot` to the next generation, in the first tombstone or free entry of
// its probe (the probe runs to a free entry to catch a key held twice).
inline bool ShmCollection::nextInsert(uint32_t slot, uint64_t h) {
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
      storePtr_->corrupt(fmt::format("collection {}: slots {} and {} hold the same key", index_,
                                 slotOfEntry(e, bits), slot));
    }
    if (++pos == cap) pos = 0;
  }
  if (at == kNoSlot) {
    if (next_.used >= next_.maxUsed) return false;
    at = pos;
    ++next_.used;
  }
  next_.entries[at] = entryOf(slot, h, bits);
  ++next_.live;
  return true;
}

void ShmCollection::nextRemove(uint32_t slot, uint64_t h) {
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
  storePtr_->corrupt(fmt::format("collection {}: slot {} is missing from the index being built", index_, slot));
}

// The next generation is complete: its header goes in, readers are told its number, and the
// old generation's name is removed (readers that still map it keep it until they re-map).
void ShmCollection::publishGrowth() {
  NextIndex n = std::move(next_);
  next_ = NextIndex{};
  const uint32_t gen = indexGen_ + 1;
  auto* ih = new (n.seg.data()) IndexHeader();
  ih->generation = gen;
  ih->capacity = n.capacity;
  ih->slotBits = n.slotBits;
  ih->magic.store(kIndexMagic, std::memory_order_release);
  retired_ = std::move(indexSeg_);  // frees a generation still being released, at once
  retiredLeft_ = retired_.size() & ~(ShmSegment::pageBytes() - 1);
  indexSeg_ = std::move(n.seg);
  entries_ = n.entries;
  indexCap_ = n.capacity;
  indexGen_ = gen;
  indexSlotBits_ = n.slotBits;
  indexLive_ = n.live;
  indexTombstones_ = n.used - n.live;
  indexSlotLimit_ = std::min((1u << n.slotBits) - 2, kMaxSlots);
  growthStartUsed_ = uint64_t{n.capacity} * kGrowthStartNum / kGrowthStartDen;
  growthStartHighWater_ = indexSlotLimit_ / 5 * 4;
  ++generationsPublished_;
  desc_->indexGeneration.store(gen, std::memory_order_release);
  storePtr_->fault(ShmFaultPoint::growthPublished);
  // Readers still on the old generation find its entries zeroed once released, and then the
  // new generation number, so they retry there.
  if (retired_.named()) ShmSegment::unlink(retired_.name());
}

// Gives back the replaced generation's memory from its end, kCommitStep per write; the
// segment is unmapped when nothing is left.
void ShmCollection::releaseRetired() {
  const size_t step = std::min(retiredLeft_, kCommitStep);
  if (retiredLeft_ > step && retired_.decommit(retiredLeft_ - step, step)) {
    retiredLeft_ -= step;
    return;
  }
  retired_ = ShmSegment();
  retiredLeft_ = 0;
}

// ---- writing ----------------------------------------------------------------------------

uint32_t ShmCollection::allocTopSlot() {
  if (!freeSlots_.empty()) {
    const uint32_t slot = freeSlots_.back();
    freeSlots_.pop_back();
    return slot;
  }
  const uint32_t hw = hw_;
  if (hw >= kMaxSlots) {
    throw ShmException(fmt::format("shared memory store {}: collection {} is full",
                                   storePtr_->mountPath_,
                                   storePtr_->schema_.collections[index_].name));
  }
  if (hw >= slotCapacity(static_cast<uint32_t>(chunks_.size()))) addChunk();
  ensureCommitted(hw + 1);
  hwIs(hw + 1);
  return hw;
}

// Splits the free range [from, to) of one chunk into the largest aligned pages it holds.
void ShmCollection::carveFree(uint32_t from, uint32_t to) {
  const uint32_t base = chunkFirstSlot(chunkOf(from));
  while (from < to) {
    uint32_t cls = kMaxPageClass;
    while (cls > 0 && ((from - base) % pageSlots(cls) != 0 || from + pageSlots(cls) > to)) --cls;
    if ((from - base) % pageSlots(cls) != 0 || from + pageSlots(cls) > to) break;
    freePages_[cls].push_back(from);
    from += pageSlots(cls);
  }
}

uint32_t ShmCollection::allocPage(uint32_t cls) {
  if (!freePages_[cls].empty()) {
    const uint32_t page = freePages_[cls].back();
    freePages_[cls].pop_back();
    return page;
  }
  // A larger free page splits into two halves until one of the right class is left.
  for (uint32_t bigger = cls + 1; bigger <= kMaxPageClass; ++bigger) {
    if (freePages_[bigger].empty()) continue;
    uint32_t page = freePages_[bigger].back();
    freePages_[bigger].pop_back();
    for (uint32_t k = bigger; k > cls; --k) freePages_[k - 1].push_back(page + pageSlots(k - 1));
    return page;
  }
  const uint32_t size = pageSlots(cls);
  for (;;) {
    const uint32_t hw = hw_;
    const uint32_t chunks = static_cast<uint32_t>(chunks_.size());
    const uint64_t capacity = slotCapacity(chunks);
    if (hw < capacity) {
      const uint32_t c = chunkOf(hw);
      const uint32_t base = chunkFirstSlot(c);
      const uint32_t start = base + alignUp(hw - base, size);
      const uint32_t end = base + chunkSlots(c);
      if (uint64_t{start} + size <= end) {
        ensureCommitted(start + size);
        carveFree(hw, start);
        hwIs(start + size);
        return start;
      }
      // The rest of the chunk becomes free pages, handed out later: committed now, since
      // the next chunk's commits do not reach back into this one.
      ensureCommitted(end);
      carveFree(hw, end);
      hwIs(end);
      continue;
    }
    if (hw >= kMaxSlots - size) {
      throw ShmException(fmt::format("shared memory store {}: collection {} is full",
                                     storePtr_->mountPath_,
                                     storePtr_->schema_.collections[index_].name));
    }
    addChunk();
  }
}

// A new member slot of `parent`: the first free slot of its pages, else a new page linked at
// the end of its chain. With no free slot the chain is full: the new page holds about half
// its members (2, 2, 2, 2, 4, 4, 8, 8...), never less than the last page nor more than
// twice it, so a parent's pages stay two-thirds full where doubling left them a third full.
uint32_t ShmCollection::allocMember(uint64_t parent) {
  ShmCollection& p = *storePtr_->colls_[parent_];
  uint32_t* block = p.side(refSlot(parent)) + childBlock(childIndex_);
  const uint32_t freeHead = loadWord(block + kChildFree);
  if (freeHead != 0) {
    const uint32_t slot = freeHead - 1;
    storeWord(block + kChildFree, loadWord(slotPtr(slot) + 1));
    return slot;
  }
  const uint32_t last = loadWord(block + kChildLast);
  uint32_t cls = 0;
  if (last != 0) {
    const uint32_t lastCls = std::min(
        pageClassOf(pageEntry(last - 1)->info.load(std::memory_order_relaxed)), kMaxPageClass);
    const uint32_t members = countOf(loadWord64(block + kChildCount));
    uint32_t half = 0;
    while (half < kMaxPageClass && pageSlots(half + 1) <= members / 2) ++half;
    cls = std::clamp(half, lastCls, std::min(lastCls + 1, kMaxPageClass));
  }
  const uint32_t page = allocPage(cls);
  const uint32_t size = pageSlots(cls);
  // The page is described completely before it is linked: a reader that follows the link
  // finds its owner and class.
  for (uint32_t g = 0; g < size / kMinPageSlots; ++g) {
    PageEntry* e = pageEntry(page + g * kMinPageSlots);
    e->next.store(0, std::memory_order_relaxed);
    e->info.store(pageInfo(cls, g), std::memory_order_relaxed);
    e->owner.store(parent, std::memory_order_release);
  }
  // The new page's slots other than the first become the parent's free slots, lowest first.
  uint32_t head = 0;
  for (uint32_t s = page + size - 1; s > page; --s) {
    storeWord(slotPtr(s) + 1, head);
    head = s + 1;
  }
  storeWord(block + kChildFree, head);
  if (last != 0) {
    pageEntry(last - 1)->next.store(page + 1, std::memory_order_release);
  } else {
    storeWord(block + kChildFirst, page + 1, std::memory_order_release);
  }
  storeWord(block + kChildLast, page + 1);
  storePtr_->fault(ShmFaultPoint::pageLinked);
  return page;
}

void ShmCollection::freePage(uint32_t page) {
  const uint32_t cls = pageClassOf(pageEntry(page)->info.load(std::memory_order_relaxed));
  for (uint32_t g = 0; g < pageSlots(cls) / kMinPageSlots; ++g) {
    pageEntry(page + g * kMinPageSlots)->owner.store(0, std::memory_order_release);
  }
  freePages_[cls].push_back(page);
}

uint32_t ShmCollection::allocSlot(const uint32_t* keyWords) {
  if (!nested()) return allocTopSlot();
  const uint64_t parent = uint64_t{keyWords[1]} << 32 | keyWords[0];
  // The writer names a parent it holds a live entity of: a parent the store has lost is damage
  // (a lost segment reads as zeros), not a caller's mistake.
  if (!storePtr_->colls_[parent_]->alive(parent)) {
    storePtr_->corrupt(fmt::format("collection {}: the parent entity is gone",
                                   storePtr_->schema_.collections[index_].name));
  }
  return allocMember(parent);
}

// A free slot holds no record, so readers ignore its words: they are written first and the
// slot is then marked occupied in one release store.
void ShmCollection::fillFreeSlot(uint32_t slot, const uint32_t* words) {
  uint32_t* s = slotPtr(slot);
  storeWords(s + 1, words, kw_ + vw_);
}

void ShmCollection::freeSlot(uint32_t slot) {
  uint32_t* s = slotPtr(slot);
  storeWord(s, (loadWord(s) & ~kSeqFlags) + kSeqStep, std::memory_order_release);
}

// Rewrites an occupied slot: its present content goes to the journal first (under the
// journal's own sequence lock), then the slot is written under its sequence lock.
void ShmCollection::rewriteSlot(uint32_t slot, const uint32_t* words) {
  uint32_t* s = slotPtr(slot);
  const uint32_t old = loadWord(s);
  const uint32_t n = kw_ + vw_;
  Header* h = storePtr_->hdr_;
  if (storePtr_->shared()) {
    const uint32_t j = h->journalSeq.load(std::memory_order_relaxed);
    h->journalSeq.store(j + 1, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
    h->journalColl.store(index_, std::memory_order_relaxed);
    h->journalSlot.store(slot, std::memory_order_relaxed);
    h->journalSlotSeq.store(old, std::memory_order_relaxed);
    for (uint32_t i = 0; i < n; ++i) storeWord(storePtr_->journal_ + i, loadWord(s + 1 + i));
    h->journalSeq.store(j + 2, std::memory_order_release);
    storePtr_->fault(ShmFaultPoint::rewriteJournaled);
  }
  // In process memory no other process reads and nothing survives a crash: a reader thread
  // only needs the sequence lock (it waits while the writing bit is set).
  storeWord(s, old | kSeqWriting);
  std::atomic_thread_fence(std::memory_order_release);
  storeWords(s + 1, words, n / 2);
  storePtr_->fault(ShmFaultPoint::rewriteWriting);
  storeWords(s + 1 + n / 2, words + n / 2, n - n / 2);
  storeWord(s, ((old & ~kSeqFlags) + kSeqStep) | kSeqOccupied, std::memory_order_release);
}

void ShmCollection::countAdd(int64_t delta) {
  const uint64_t w = desc_->count.load(std::memory_order_relaxed);
  desc_->count.store(countWord(static_cast<uint32_t>(countOf(w) + delta), storePtr_->opSeq()),
                     std::memory_order_release);
}

void ShmCollection::parentCountAdd(uint64_t parent, int64_t delta, bool versionToo) {
  ShmCollection& p = *storePtr_->colls_[parent_];
  uint32_t* block = p.side(refSlot(parent)) + childBlock(childIndex_);
  if (delta != 0) {
    const uint64_t w = loadWord64(block + kChildCount);
    storeWord64(block + kChildCount,
                countWord(static_cast<uint32_t>(countOf(w) + delta), storePtr_->opSeq()));
  }
  if (versionToo) {
    storeWord(block + kChildVersion, loadWord(block + kChildVersion) + 1, std::memory_order_release);
  }
}

// Makes sure a new key fits the index: completes a running growth, else rebuilds at once.
void ShmCollection::makeRoomForInsert(uint64_t h, const uint32_t* keyWords, uint32_t* insertAt) {
  auto fits = [&] {
    const bool reuse = *insertAt != kNoSlot && entries_[*insertAt] == kTombstone;
    const uint32_t hw = hw_;
    // A nested insert may carve a whole page above the high-water mark.
    const uint32_t nextSlot = nested() ? hw + pageSlots(kMaxPageClass)
                                       : (freeSlots_.empty() ? hw : freeSlots_.back());
    return *insertAt != kNoSlot && nextSlot < indexSlotLimit_ &&
           (uint64_t{indexLive_} + indexTombstones_ + (reuse ? 0 : 1)) * kMaxLoadDen <=
               uint64_t{indexCap_} * kMaxLoadNum;
  };
  if (fits()) return;
  // A new generation indexes every occupied slot: when it finds the key the present one did
  // not, a slot holds it behind the index's back (damage), and inserting it would hold it twice.
  auto probeAgain = [&] {
    uint32_t slot;
    if (probe(h, keyWords, &slot, insertAt) != kNoSlot) {
      storePtr_->corrupt(
          fmt::format("collection {}: slot {} holds a key its index did not find", index_, slot));
    }
  };
  if (next_.capacity != 0) {
    finishGrowth();
    probeAgain();
    if (fits()) return;
  }
  buildIndex(indexCapacityFor(uint64_t{indexLive_} + 1));
  probeAgain();
}

bool ShmCollection::put(const uint32_t* words, uint32_t* old, uint32_t* slotOut) {
  migratedThisWrite_ = 0;
  // The key's index line is fetched while this write's share of the growth runs.
  const uint64_t h = hashKey(words);
  __builtin_prefetch(entries_ + homeOf(h, indexCap_));
  if (next_.capacity != 0) advanceGrowth();
  if (retired_.valid()) releaseRetired();
  uint32_t slot;
  uint32_t insertAt;
  const uint64_t parent = nested() ? uint64_t{words[1]} << 32 | words[0] : 0;
  if (probe(h, words, &slot, &insertAt) != kNoSlot) {
    if (old) loadWords(slotPtr(slot) + 1, old, kw_ + vw_);
    storePtr_->beginOp(index_, kOpRewrite, slot);
    rewriteSlot(slot, words);
    if (nested()) parentCountAdd(parent, 0, true);
    storePtr_->fault(ShmFaultPoint::rewriteCommitted);
    storePtr_->endOp();
    growthStepDone();
    *slotOut = slot;
    return false;
  }
  // A new key. Room first, so that a failure (out of memory) changes nothing.
  if (next_.capacity == 0) maybeStartGrowth();
  makeRoomForInsert(h, words, &insertAt);
  const bool reuseTombstone = entries_[insertAt] == kTombstone;
  slot = allocSlot(words);
  storePtr_->beginOp(index_, kOpInsert, slot);
  fillFreeSlot(slot, words);
  storePtr_->fault(ShmFaultPoint::insertFilled);
  if (reuseTombstone) --indexTombstones_;
  storeWord(const_cast<uint32_t*>(entries_) + insertAt, entryOf(slot, h, indexSlotBits_),
            std::memory_order_release);
  ++indexLive_;
  // A slot below the cursor was already passed by the growth: mirror the record into it.
  if (next_.capacity != 0 && slot < next_.cursor && !nextInsert(slot, h)) dropGrowth();
  storePtr_->fault(ShmFaultPoint::insertIndexed);
  uint32_t* s = slotPtr(slot);
  if (entity()) {
    // A new entity: a new generation (never 0, which names no entity), and no members yet.
    uint32_t* sw = s + sideOffset_;
    for (uint32_t i = 1; i < sideWords_; ++i) storeWord(sw + i, 0);
    const uint32_t gen = loadWord(sw + kSideGen) + 1;
    storeWord(sw + kSideGen, gen == 0 ? 1 : gen, std::memory_order_release);
  }
  storeWord(s, ((loadWord(s) & ~kSeqFlags) + kSeqStep) | kSeqOccupied, std::memory_order_release);
  storePtr_->fault(ShmFaultPoint::insertCommitted);
  countAdd(1);
  if (nested()) parentCountAdd(parent, 1, true);
  storePtr_->endOp();
  growthStepDone();
  *slotOut = slot;
  return true;
}

void ShmCollection::unindex(uint32_t slot, const uint32_t* keyWords) {
  const uint64_t h = hashKey(keyWords);
  const uint32_t want = entryOf(slot, h, indexSlotBits_);
  uint32_t pos = homeOf(h, indexCap_);
  for (uint32_t probes = 0; probes < indexCap_; ++probes) {
    const uint32_t e = entries_[pos];
    if (e == want) {
      storeWord(const_cast<uint32_t*>(entries_) + pos, kTombstone, std::memory_order_release);
      --indexLive_;
      ++indexTombstones_;
      if (next_.capacity != 0 && slot < next_.cursor) nextRemove(slot, h);
      return;
    }
    if (e == 0) break;
    if (++pos == indexCap_) pos = 0;
  }
}

// Returns an emptied slot to where new records are taken from.
void ShmCollection::releaseSlot(uint32_t slot, const uint32_t* keyWords) {
  if (!nested()) {
    freeSlots_.push_back(slot);
    return;
  }
  ShmCollection& p = *storePtr_->colls_[parent_];
  const uint64_t parent = uint64_t{keyWords[1]} << 32 | keyWords[0];
  uint32_t* block = p.side(refSlot(parent)) + childBlock(childIndex_);
  storeWord(slotPtr(slot) + 1, loadWord(block + kChildFree));
  storeWord(block + kChildFree, slot + 1);
}

bool ShmCollection::remove(const uint32_t* keyWords, uint32_t* old, uint32_t* slotOut) {
  migratedThisWrite_ = 0;
  const uint64_t h = hashKey(keyWords);
  __builtin_prefetch(entries_ + homeOf(h, indexCap_));
  if (next_.capacity != 0) advanceGrowth();
  if (retired_.valid()) releaseRetired();
  uint32_t slot;
  uint32_t insertAt;
  const uint32_t pos = probe(h, keyWords, &slot, &insertAt);
  if (pos == kNoSlot) {
    growthStepDone();
    return false;
  }
  if (old) loadWords(slotPtr(slot) + 1, old, kw_ + vw_);
  storePtr_->beginOp(index_, kOpRemove, slot);
  // The slot is emptied first: from then on walks and lookups agree that the key is gone.
  freeSlot(slot);
  storePtr_->fault(ShmFaultPoint::removeFreed);
  storeWord(const_cast<uint32_t*>(entries_) + pos, kTombstone, std::memory_order_release);
  --indexLive_;
  ++indexTombstones_;
  if (next_.capacity != 0 && slot < next_.cursor) nextRemove(slot, h);
  storePtr_->fault(ShmFaultPoint::removeUnindexed);
  countAdd(-1);
  if (nested()) {
    parentCountAdd(uint64_t{keyWords[1]} << 32 | keyWords[0], -1, true);
    releaseSlot(slot, keyWords);
  } else {
    freeSlots_.push_back(slot);
  }
  // endOp is the caller's: an entity's members are reclaimed within the same operation.
  growthStepDone();
  *slotOut = slot;
  return true;
}

void ShmCollection::reserve(uint32_t records) {
  if (nested()) return;
  uint64_t need = records > freeSlots_.size() ? records - freeSlots_.size() : 0;
  const uint32_t hw = hw_;
  while (slotCapacity(static_cast<uint32_t>(chunks_.size())) < hw + need) addChunk();
  // Committed now, so that the records reserved for can be written without failing.
  for (uint32_t c = chunkOf(hw); need != 0 && c < chunks_.size(); ++c) {
    const uint32_t end = static_cast<uint32_t>(std::min<uint64_t>(hw + need, chunkFirstSlot(c) + chunkSlots(c)));
    if (c + 1 == chunks_.size()) {
      ensureCommitted(end);
    } else if (c + 1 < chunks_.size() && end > hw) {
      chunks_[c].commit(0, size_t{chunkSlots(c)} * slotWords_ * 4);
    }
  }
  if (uint64_t{indexLive_} + indexTombstones_ + records > uint64_t{indexCap_} * kMaxLoadNum / kMaxLoadDen ||
      hw + need >= indexSlotLimit_) {
    buildIndex(indexCapacityFor(uint64_t{indexLive_} + records));
  }
}

// ---- take-over --------------------------------------------------------------------------

// Carving takes slots and page directory entries past the high-water mark as empty. They are
// unless someone else wrote there (a lowered mark would bring old records back to life in
// the next carved page): a writer taking over zeroes them, giving whole pages back rather than
// writing zeros into memory nothing uses.
void ShmCollection::clearBeyondHighWater(uint32_t hw) {
  for (uint32_t c = 0; c < chunks_.size(); ++c) {
    const uint32_t base = chunkFirstSlot(c);
    if (base + chunkSlots(c) <= hw) continue;
    const uint32_t from = std::max(hw, base) - base;
    const size_t slotBytes = size_t{chunkSlots(c)} * slotWords_ * 4;
    auto clear = [&](size_t at, size_t end) {
      const size_t aligned = std::min(end, pageRound(at));
      std::memset(reinterpret_cast<std::byte*>(chunkBase_[c]) + at, 0, aligned - at);
      if (aligned < end && !chunks_[c].decommit(aligned, end - aligned)) {
        std::memset(reinterpret_cast<std::byte*>(chunkBase_[c]) + aligned, 0, end - aligned);
      }
    };
    clear(size_t{from} * slotWords_ * 4, slotBytes);
    if (nested()) {
      clear(slotBytes + size_t{from / kMinPageSlots} * sizeof(PageEntry), chunkBytes(c));
    }
  }
  recommitUsed();  // what was committed past the mark may be gone now
}

void ShmCollection::recover() {
  dropGrowth();
  freeSlots_.clear();
  for (auto& f : freePages_) f.clear();
  const uint32_t hw = highWater();
  if (nested() && hw % kMinPageSlots != 0) {
    storePtr_->corrupt(fmt::format("collection {}: carved {} slots", index_, hw));
  }
  clearBeyondHighWater(hw);
  uint32_t records = 0;
  if (!nested()) {
    for (uint32_t slot = 0; slot < hw; ++slot) {
      const uint32_t seq = loadWord(slotPtr(slot));
      if (seq & kSeqWriting) storePtr_->corrupt(fmt::format("collection {}: slot {} was left half-written", index_, slot));
      if (seq & kSeqOccupied) {
        ++records;
      } else {
        freeSlots_.push_back(slot);
      }
    }
    std::reverse(freeSlots_.begin(), freeSlots_.end());  // reuse low slots first
  } else {
    ShmCollection& p = *storePtr_->colls_[parent_];
    // Pages reachable from a live parent's chain are kept; every other page (its owner gone,
    // or carved but never linked) is emptied and freed.
    std::vector<uint8_t> kept(hw / kMinPageSlots, 0);
    const uint32_t phw = p.highWater();
    for (uint32_t ps = 0; ps < phw; ++ps) {
      const uint32_t pseq = loadWord(p.slotPtr(ps));
      uint32_t* block = p.side(ps) + childBlock(childIndex_);
      const uint64_t ref = parentRef(ps, loadWord(p.side(ps) + kSideGen));
      if (!(pseq & kSeqOccupied) || (p.nested() && !p.alive(ref))) continue;
      uint32_t count = 0;
      uint32_t freeHead = 0;
      uint32_t lastKept = 0;
      uint32_t page = loadWord(block + kChildFirst);
      std::vector<uint32_t> freeList;
      while (page != 0) {
        const uint32_t first = page - 1;
        if (first >= hw || first % kMinPageSlots != 0 || kept[first / kMinPageSlots]) break;
        PageEntry* e = pageEntry(first);
        const uint32_t info = e->info.load(std::memory_order_relaxed);
        const uint32_t cls = pageClassOf(info);
        if (cls > kMaxPageClass || headDistanceOf(info) != 0 ||
            e->owner.load(std::memory_order_relaxed) != ref || first + pageSlots(cls) > hw) {
          break;
        }
        for (uint32_t g = 0; g < pageSlots(cls) / kMinPageSlots; ++g) kept[first / kMinPageSlots + g] = 1;
        for (uint32_t s = first; s < first + pageSlots(cls); ++s) {
          const uint32_t seq = loadWord(slotPtr(s));
          if ((seq & kSeqOccupied) && refOfWords(slotPtr(s) + 1) == ref) {
            ++count;
          } else {
            if (seq & kSeqOccupied) freeSlot(s);  // a member of nobody
            freeList.push_back(s);
          }
        }
        lastKept = page;
        page = e->next.load(std::memory_order_relaxed);
      }
      if (lastKept != 0) {
        pageEntry(lastKept - 1)->next.store(0, std::memory_order_release);
      } else {
        storeWord(block + kChildFirst, 0, std::memory_order_release);
      }
      for (auto it = freeList.rbegin(); it != freeList.rend(); ++it) {
        storeWord(slotPtr(*it) + 1, freeHead);
        freeHead = *it + 1;
      }
      storeWord(block + kChildFree, freeHead);
      storeWord(block + kChildLast, lastKept);
      storeWord64(block + kChildCount, countWord(count, 0));
      records += count;
    }
    // Everything carved and not kept is free again, in the largest aligned pages it forms.
    const uint32_t groups = hw / kMinPageSlots;
    for (uint32_t g = 0; g < groups;) {
      if (kept[g]) {
        ++g;
        continue;
      }
      const uint32_t start = g;
      const uint32_t chunk = chunkOf(start * kMinPageSlots);
      for (; g < groups && !kept[g] && chunkOf(g * kMinPageSlots) == chunk; ++g) {
        for (uint32_t s = g * kMinPageSlots; s < (g + 1) * kMinPageSlots; ++s) {
          if (loadWord(slotPtr(s)) & kSeqOccupied) freeSlot(s);
        }
        pageEntry(g * kMinPageSlots)->owner.store(0, std::memory_order_release);
      }
      carveFree(start * kMinPageSlots, g * kMinPageSlots);
    }
  }
  desc_->count.store(countWord(records, 0), std::memory_order_release);
  buildIndex(indexCapacityFor(records));
}

void ShmCollection::reclaimMembers(uint64_t ref,
                                   const std::function<void(uint32_t, const uint32_t*)>& onMember) {
  ShmCollection& p = *storePtr_->colls_[parent_];
  uint32_t* block = p.side(refSlot(ref)) + childBlock(childIndex_);
  uint32_t page = loadWord(block + kChildFirst);
  uint32_t removed = 0;
  uint32_t words[ShmStore::kMaxRecordWords];
  for (uint32_t pages = 0; page != 0; ++pages) {
    const uint32_t first = page - 1;
    PageEntry* e = pageEntry(first);
    const uint32_t cls = pageClassOf(e->info.load(std::memory_order_relaxed));
    if (pages > highWater() / kMinPageSlots || cls > kMaxPageClass ||
        e->owner.load(std::memory_order_relaxed) != ref) {
      storePtr_->corrupt(fmt::format("collection {}: bad page chain at slot {}", index_, first));
    }
    const uint32_t next = e->next.load(std::memory_order_relaxed);
    for (uint32_t slot = first; slot < first + pageSlots(cls); ++slot) {
      uint32_t* s = slotPtr(slot);
      if (!(loadWord(s) & kSeqOccupied)) continue;
      loadWords(s + 1, words, kw_ + vw_);
      if (refOfWords(words) != ref) continue;
      onMember(slot, words);
      freeSlot(slot);
      unindex(slot, words);
      ++removed;
    }
    freePage(first);
    page = next;
  }
  for (uint32_t i = 0; i < kChildBlockWords; ++i) {
    if (i != kChildVersion) storeWord(block + i, 0, std::memory_order_release);
  }
  if (removed != 0) countAdd(-static_cast<int64_t>(removed));
}

size_t ShmCollection::committedBytes() const {
  size_t total = indexSeg_.committedBytes() + next_.seg.committedBytes() + retired_.committedBytes();
  for (const ShmSegment& c : chunks_) total += c.committedBytes();
  return total;
}

}  // namespace Oro
