// One collection of a shared-memory store: its slot chunks, its index generations and, for a
// nested collection, the page chains of its parents. Internal to ShmStore, which owns the
// header (journal, change log, operation words) and calls in here with the words of records.
//
// Top-level collections take slots from a free list and, past it, from the high-water mark;
// a walk visits slots in order. A nested collection carves pages from its chunks and hands
// each to one parent (its chain); a parent's members live in its own pages only, so walking a
// parent costs its pages and never another parent's.
//
// The index is open addressing over uint32 entries (slot + 1 | hash tag << slotBits). It grows
// without stopping the writer: the next generation is filled a few slots per write (slots
// below its cursor are in it, and the writer mirrors their changes into it) and published only
// once complete, so readers and lookups always use a complete generation.
//
// Thread safety: as ShmStore. REQUIRES writer for the mutators.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/shm/ShmLayout.h"
#include "platform/shm/ShmSegment.h"

namespace Oro {

class ShmStore;

class ShmCollection {
 public:
  static constexpr uint32_t kNoSlot = ShmLayout::kNoSlot;

  ShmCollection(ShmStore& store, uint32_t index);
  // The store object moved (its mappings did not).
  void storeIs(ShmStore* store) { storePtr_ = store; }

  // ---- geometry ----
  uint32_t index() const { return index_; }
  uint32_t keyWords() const { return kw_; }
  uint32_t valueWords() const { return vw_; }
  uint32_t recordWords() const { return kw_ + vw_; }
  bool nested() const { return parent_ != ShmLayout::kNoParent; }
  bool entity() const { return children_ != 0 || kind_ == ShmLayout::kCollEntities; }
  bool blobs() const { return blobs_; }
  uint32_t parent() const { return parent_; }
  uint32_t childIndex() const { return childIndex_; }
  ShmLayout::CollectionDesc* desc() const { return desc_; }

  // ---- mapping ----
  // Maps what exists (readers, take-over); a new collection needs nothing.
  void attach();
  void refreshIndex() const;
  bool lost() const;

  // ---- reading ----
  uint32_t highWater() const;
  // The high-water mark, with the chunks below it mapped: what a reader can really meet there.
  // A chunk the header names but that cannot be mapped is damage.
  uint32_t readableHighWater() const;
  // Reads one slot consistently (from the journal while the writer rewrites it); true when it
  // holds a record. *seq receives the sequence word the copy is valid for.
  bool readSlot(uint32_t slot, uint32_t* out, uint32_t* seq) const;
  // Whether the slot is still as it was when readSlot returned `seq`.
  bool unchanged(uint32_t slot, uint32_t seq) const;
  uint32_t seek(uint32_t from, uint32_t* out, uint32_t* seq) const;
  uint32_t find(const uint32_t* keyWords, uint32_t* out, uint32_t* seq) const;
  // The first member of `parent` at slot `from` or later in its page chain (from kNoSlot: the
  // chain's start); with `after`, strictly after `from`, which must be in the chain.
  uint32_t seekChild(uint64_t parent, uint32_t from, bool after, uint32_t* out, uint32_t* seq) const;
  // Side words of an entity slot (atomic words, outside the sequence lock).
  uint32_t* side(uint32_t slot) const;
  // Whether the entity `ref` (slot and generation) of this collection is alive.
  bool alive(uint64_t ref) const;

  // The slot of a key, for the writer (kNoSlot when absent).
  uint32_t findWriter(const uint32_t* keyWords) const {
    uint32_t slot, insertAt;
    return probe(hashKey(keyWords), keyWords, &slot, &insertAt) == kNoSlot ? kNoSlot : slot;
  }

  // ---- writing ----
  // Inserts or replaces the record `words`. On a replace the old words go to `old`.
  // Returns true for a new key; *slotOut is the record's slot.
  bool put(const uint32_t* words, uint32_t* old, uint32_t* slotOut);
  // Removes; the old words go to `old`; *slotOut is the slot it was in.
  bool remove(const uint32_t* keyWords, uint32_t* old, uint32_t* slotOut);
  // Empties every member of entity `ref` (of the parent collection) and gives its pages back;
  // `onMember(slot, words)` is called for each member before its slot is emptied.
  void reclaimMembers(uint64_t ref, const std::function<void(uint32_t, const uint32_t*)>& onMember);
  void reserve(uint32_t records);
  // Take-over: rebuilds the writer's bookkeeping (parents first) and the index.
  void recover();
  // Updates this collection's total by `delta` within the store's current operation.
  void countAdd(int64_t delta);

  // ---- raw views (integrity checks; every number read through them is the caller's to
  // bounds-check) ----
  // The words of a slot (sequence word first) and the page directory entry of a nested slot;
  // both map new chunks and raise ShmCorruptionException for a slot beyond them.
  const uint32_t* slotWordsAt(uint32_t slot) const { return slotPtr(slot); }
  const ShmLayout::PageEntry* pageEntryAt(uint32_t slot) const { return pageEntry(slot); }
  uint32_t sideWordsOffset() const { return sideOffset_; }

  // ---- introspection ----
  size_t committedBytes() const;
  uint32_t maxSlotsPerWrite() const { return maxMigratedPerWrite_; }
  uint32_t generationsPublished() const { return generationsPublished_; }
  bool migrating() const { return next_.capacity != 0; }
  uint32_t indexCapacity() const { return indexCap_; }
  // Segment suffixes in use (for the clean-up of leftovers).
  void suffixesInUse(std::vector<std::string>& out) const;

 private:
  friend class ShmStore;

  std::string suffix(char kind, uint32_t n) const;
  size_t chunkBytes(uint32_t chunk) const;
  [[gnu::always_inline]] uint32_t* slotPtr(uint32_t slot) const {
    const uint32_t c = ShmLayout::chunkOf(slot);
    if (c < chunkCount_) [[likely]] {
      return chunkBase_[c] + size_t{slot - ShmLayout::chunkFirstSlot(c)} * slotWords_;
    }
    return slotPtrSlow(slot);
  }
  void chunkMapped(ShmSegment seg) const;
  uint32_t* slotPtrSlow(uint32_t slot) const;
  // Slot words for slots visited in ascending order: the chunk is found (and mapped, and the
  // slot range-checked) once per chunk rather than once per slot.
  class SlotRun {
   public:
    explicit SlotRun(const ShmCollection& c) : c_(c) {}
    const uint32_t* at(uint32_t slot) {
      if (slot < first_ || slot >= end_) {
        base_ = c_.slotPtr(slot);
        const uint32_t chunk = ShmLayout::chunkOf(slot);
        first_ = slot;
        end_ = ShmLayout::chunkFirstSlot(chunk) + ShmLayout::chunkSlots(chunk);
      }
      return base_ + size_t{slot - first_} * c_.slotWords_;
    }

   private:
    const ShmCollection& c_;
    const uint32_t* base_ = nullptr;
    uint32_t first_ = 0, end_ = 0;
  };
  ShmLayout::PageEntry* pageEntry(uint32_t slot) const;
  void mapChunks() const;
  void addChunk();
  // Commits the last chunk's slots (and page directory) below slot `end`.
  void ensureCommitted(uint32_t end) {
    if (end > committedEnd_) ensureCommittedSlow(end);
  }
  void ensureCommittedSlow(uint32_t end);
  void forgetCommitted();
  void recommitUsed();
  void clearBeyondHighWater(uint32_t hw);
  bool keyEquals(uint32_t slot, const uint32_t* keyWords) const;
  bool keyAt(const uint32_t* slotWords, const uint32_t* keyWords) const;
  uint64_t hashKey(const uint32_t* keyWords) const { return ShmLayout::hashWords(keyWords, kw_); }

  // Slots and pages (writer).
  uint32_t allocSlot(const uint32_t* keyWords);
  uint32_t allocTopSlot();
  uint32_t allocMember(uint64_t parent);
  uint32_t allocPage(uint32_t pageClass);
  void carveFree(uint32_t from, uint32_t to);
  void freePage(uint32_t page);
  void fillFreeSlot(uint32_t slot, const uint32_t* words);
  void rewriteSlot(uint32_t slot, const uint32_t* words);
  void freeSlot(uint32_t slot);
  void releaseSlot(uint32_t slot, const uint32_t* keyWords);
  void parentCountAdd(uint64_t parent, int64_t delta, bool versionToo);

  // Index.
  void mapIndex(uint32_t generation) const;
  uint32_t probe(uint64_t hash, const uint32_t* keyWords, uint32_t* slot, uint32_t* insertAt) const;
  void unindex(uint32_t slot, const uint32_t* keyWords);
  void buildIndex(uint32_t capacity);
  void beginGrowth(uint32_t capacity, bool commitNow);
  void advanceGrowth();
  void finishGrowth();
  void dropGrowth();
  void publishGrowth();
  void releaseRetired();
  bool migrateSlots(uint32_t end);
  void lookAhead(uint32_t end);
  [[gnu::always_inline]] inline bool nextInsert(uint32_t slot, uint64_t hash);
  void nextRemove(uint32_t slot, uint64_t hash);
  uint64_t growthRoom() const;
  void maybeStartGrowth();
  void growthStepDone() {
    if (migratedThisWrite_ > maxMigratedPerWrite_) maxMigratedPerWrite_ = migratedThisWrite_;
  }
  void makeRoomForInsert(uint64_t hash, const uint32_t* keyWords, uint32_t* insertAt);
  static uint32_t entryOf(uint32_t slot, uint64_t hash, uint32_t bits) {
    return (slot + 1) | static_cast<uint32_t>(hash) << bits;
  }
  static bool tagMatches(uint32_t entry, uint64_t hash, uint32_t bits) {
    return ((entry ^ static_cast<uint32_t>(hash) << bits) >> bits) == 0;
  }
  static uint32_t slotOfEntry(uint32_t entry, uint32_t bits) {
    return (entry & ((1u << bits) - 1)) - 1;
  }
  [[noreturn]] void noFreeEntry() const;

  ShmStore* storePtr_;
  ShmStore& storeRef() const { return *storePtr_; }
  uint32_t index_;
  ShmLayout::CollectionDesc* desc_;
  uint32_t kind_ = 0;
  uint32_t parent_ = ShmLayout::kNoParent;
  uint32_t childIndex_ = 0;
  uint32_t children_ = 0;
  bool blobs_ = false;
  // The shape, read once from the header the store was attached with (checked against the
  // schema then): words written later by someone else do not move a write.
  uint32_t kw_ = 0, vw_ = 0, sideOffset_ = 0, sideWords_ = 0, slotWords_ = 0;

  // The mapped chunks (in slot order) and their bases: counted and addressed by slotPtr without
  // the division that counting a vector of segments takes.
  mutable std::vector<ShmSegment> chunks_;
  mutable uint32_t* chunkBase_[ShmLayout::kMaxChunks] = {};
  mutable uint32_t chunkCount_ = 0;
  mutable ShmSegment indexSeg_;
  mutable const uint32_t* entries_ = nullptr;  // entries of the mapped index generation
  mutable uint32_t indexCap_ = 0;
  mutable uint32_t indexGen_ = 0;
  mutable uint32_t indexSlotBits_ = ShmLayout::kMaxSlotBits;

  // Writer-only bookkeeping (rebuilt from the slots on take-over). The writer never reads its
  // own high-water mark back from the header, where anyone able to write the file could
  // change it: it keeps its own and publishes it.
  uint32_t hw_ = 0;
  bool ownHighWater_ = true;
  void hwIs(uint32_t v) {
    hw_ = v;
    desc_->slotHighWater.store(v, std::memory_order_release);
  }
  std::vector<uint32_t> freeSlots_;                           // top level
  std::vector<uint32_t> freePages_[ShmLayout::kMaxPageClass + 1];  // nested
  uint32_t indexLive_ = 0;
  uint32_t indexTombstones_ = 0;
  uint32_t indexSlotLimit_ = 0;

  static constexpr uint32_t kGrowthLookahead = 32;
  struct NextIndex {
    ShmSegment seg;
    uint32_t* entries = nullptr;
    uint32_t capacity = 0;
    uint32_t slotBits = 0;
    uint32_t cursor = 0;
    uint32_t live = 0;
    uint32_t used = 0;  // live entries plus tombstones
    uint32_t maxUsed = 0;  // `used` at the load limit
    size_t committed = 0;
    // Writes between two kCommitStep commits of the memory, planned when the growth began so
    // that the memory is taken over half the room rather than at once next to the present
    // generation; writes skipped since the last commit.
    uint64_t commitEvery = 1;
    uint64_t commitSkipped = 0;
    struct Ahead {
      uint32_t slot;
      uint32_t seq;
      uint64_t hash;
    };
    Ahead ahead[kGrowthLookahead];
    uint32_t aheadFirst = 0;
    uint32_t aheadCount = 0;
    uint32_t aheadEnd = 0;
  };
  NextIndex next_;
  ShmSegment retired_;
  size_t retiredLeft_ = 0;
  size_t lastCommitted_ = 0;  // bytes of the last chunk's slots committed (writer)
  size_t dirCommitted_ = 0;   // bytes of the last chunk's page directory committed (writer)
  uint32_t committedEnd_ = 0;  // slots below it need no commit (writer; 0: look again)
  uint64_t growthStartUsed_ = 0;
  uint32_t growthStartHighWater_ = 0;
  uint32_t migratedThisWrite_ = 0;
  uint32_t maxMigratedPerWrite_ = 0;
  uint32_t generationsPublished_ = 0;
};

}  // namespace Oro
