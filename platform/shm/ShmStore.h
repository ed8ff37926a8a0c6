// The storage engine of one shared-memory table: header, slot chunks, index generations and
// reader control, in shared segments (or anonymous memory for a detached table). It stores
// records as key and value word images; ShmTableCore gives them types and roles.
//
// Invariants:
//  - exactly one writer mutates a shared store (its owner word names it); readers map the data
//    segments read-only and never lock;
//  - a writer killed at any instant leaves every slot readable as a whole record: a free slot
//    is filled before it is marked occupied, and the rewrite of an occupied slot is journaled
//    in the header first (the half-written slot's old content is in the journal);
//  - every number read from shared memory is bounds-checked before use; bad data raises
//    ShmCorruptionException, never an out-of-bounds access;
//  - the index grows without stopping the writer: the next generation is filled a few slots
//    per write (slots below its cursor are in it, and the writer mirrors their changes into
//    it) and published only once complete, so readers and lookups always use a complete one.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "platform/shm/ShmLayout.h"
#include "platform/shm/ShmSegment.h"

namespace Oro {

class ShmStore {
 public:
  static constexpr uint32_t kNoSlot = 0xFFFFFFFFu;
  static constexpr uint32_t kMaxKeyBytes = 256;

  struct Shape {
    std::string typeName;  // empty when opening: accept any record type (tools)
    std::string mountPath;
    std::string collection;
    uint32_t keySize = 0;
    uint32_t valueSize = 0;
  };

  ShmStore() = default;
  ShmStore(ShmStore&&) noexcept = default;
  ShmStore& operator=(ShmStore&&) noexcept = default;

  // An empty table in process memory.
  static ShmStore detached(const Shape& shape);
  // A writer's table: creates it, or takes over an existing one whose writer is dead (restoring
  // a journaled slot, rebuilding the index, advancing the epoch). A live writer: ShmException.
  static ShmStore openWriter(const Shape& shape, mode_t mode, uint32_t ringCapacity);
  // A reader's (or a tool's) mapping of an existing table; shape.typeName empty accepts any.
  static ShmStore openReader(const Shape& shape);

  bool valid() const { return hdr_ != nullptr; }
  bool shared() const { return headerSeg_.named(); }
  const ShmLayout::Header* header() const { return hdr_; }
  ShmLayout::Header* header() { return hdr_; }
  ShmLayout::ReaderControl* readerControl() const { return rctl_; }
  uint32_t keyWords() const { return kw_; }
  uint32_t valueWords() const { return vw_; }
  uint32_t recordWords() const { return kw_ + vw_; }
  uint32_t keySize() const { return keySize_; }
  uint32_t valueSize() const { return valueSize_; }
  uint32_t recordCount() const;
  uint32_t highWater() const;

  // Reading (any role). Words hold the key's then the value's word image.
  // Reads one slot consistently; returns true when it holds a record.
  bool readSlot(uint32_t slot, uint32_t* words) const;
  // First slot >= from that holds a record (its words in `words`), or kNoSlot.
  uint32_t seek(uint32_t from, uint32_t* words) const;
  // Looks a key up; on success fills words (may be null; must not alias keyWords) and
  // returns its slot, else kNoSlot.
  uint32_t find(const uint32_t* keyWords, uint32_t* words) const;

  // Writing (writer or detached). put: insert or replace (returns true when new); the old
  // record's words go to oldWords when it is not null and there was one (then *hadOld).
  bool put(const uint32_t* words, uint32_t* oldWords = nullptr);
  bool remove(const uint32_t* keyWords, uint32_t* oldWords);
  // Appends a key to the change log and wakes sleeping readers.
  void publishKey(const uint32_t* keyWords);
  // Wakes sleeping readers after a header change (mount status, quiesced).
  void publishControl();
  // Gives up ownership (another writer may then take the table over).
  void releaseOwnership();

  // Change log (readers): entries [head - capacity, head) are in the ring.
  uint64_t ringHead() const;
  uint32_t ringCapacity() const { return ringCap_; }
  // Copies entry `pos` into keyWords; the caller validates it against a later ringHead().
  void readRingEntry(uint64_t pos, uint32_t* keyWords) const;

  // Whether the process named by an owner word (pid and start time) still runs.
  static bool ownerAlive(uint64_t owner);

  // Hash of a key's word image.
  uint64_t hashKey(const uint32_t* keyWords) const { return ShmLayout::hashWords(keyWords, kw_); }
  // Memory committed to this table's segments (header, chunks, index, reader control).
  size_t committedBytes() const;
  uint32_t indexCapacity() const { return indexCap_; }

  // Writer: progress of index growth. maxSlotsPerWrite is the most slots any single write has
  // indexed into a new generation (a whole-table rebuild counts every slot).
  struct IndexGrowth {
    bool migrating = false;
    uint32_t cursor = 0;        // slots below it are in the next generation
    uint32_t nextCapacity = 0;  // of the generation being filled
    uint32_t maxSlotsPerWrite = 0;
    uint32_t generationsPublished = 0;
  };
  IndexGrowth indexGrowth() const;

 private:
  struct Chunk {
    ShmSegment seg;
    uint32_t* base = nullptr;
  };

  void initShape(const Shape& shape);
  void initHeader(ShmSegment seg, const Shape& shape, uint32_t ringCapacity);
  void attachHeader(ShmSegment seg, const Shape& shape, bool writable);
  void takeOver(const Shape& shape);
  void recover();
  std::string segName(const std::string& suffix) const;
  ShmSegment makeSegment(const std::string& suffix, size_t bytes) const;

  uint32_t* slotPtr(uint32_t slot) const {
    const uint32_t c = ShmLayout::chunkOf(slot);
    if (c < chunks_.size()) {
      return chunks_[c].base + size_t{slot - ShmLayout::chunkFirstSlot(c)} * slotWords_;
    }
    return slotPtrSlow(slot);
  }
  uint32_t* slotPtrSlow(uint32_t slot) const;
  void mapChunks() const;
  void addChunk();
  // Writer: creates the next chunk once few slots are left in the last one, and commits it
  // piece by piece over the writes that fill those slots.
  void prepareChunk(uint64_t slotsLeft);
  void refreshIndex() const;
  void mapIndex(uint32_t generation) const;
  // Publishes a complete new index generation of `capacity` entries at once (creation,
  // take-over, and the fallback when growth could not keep up).
  void buildIndex(uint32_t capacity);
  // Incremental growth: begin filling a next generation, advance it by a step sized to end
  // before the present one runs out of room, finish it at once, or drop it.
  // capacity 0: sized for the records the present generation can still take.
  void beginGrowth(uint32_t capacity, bool commitNow);
  void advanceGrowth();
  void finishGrowth();
  void dropGrowth();
  void publishGrowth();
  void releaseRetired();
  bool migrateSlots(uint32_t end);
  bool nextInsert(uint32_t slot, uint64_t hash);
  void nextRemove(uint32_t slot, uint64_t hash);
  uint64_t growthRoom() const;
  // Starts growth when the present generation nears its load or slot-field limit.
  void maybeStartGrowth();
  void growthStepDone() {
    if (migratedThisWrite_ > maxMigratedPerWrite_) maxMigratedPerWrite_ = migratedThisWrite_;
  }
  // Writer: the index position holding the key (its slot in *slot), else kNoSlot with the
  // first free or tombstoned position of the probe in *insertAt (kNoSlot when none).
  uint32_t probe(uint64_t hash, const uint32_t* keyWords, uint32_t* slot, uint32_t* insertAt) const;
  uint32_t allocSlot();
  void fillFreeSlot(uint32_t slot, const uint32_t* words);
  void rewriteSlot(uint32_t slot, const uint32_t* words);
  void freeSlot(uint32_t slot);
  bool keyEquals(uint32_t slot, const uint32_t* keyWords) const;
  static uint32_t entryOf(uint32_t slot, uint64_t hash, uint32_t bits) {
    return (slot + 1) | static_cast<uint32_t>(hash) << bits;
  }
  static bool tagMatches(uint32_t entry, uint64_t hash, uint32_t bits) {
    return ((entry ^ static_cast<uint32_t>(hash) << bits) >> bits) == 0;
  }
  static uint32_t slotOfEntry(uint32_t entry, uint32_t bits) {
    return (entry & ((1u << bits) - 1)) - 1;
  }
  uint32_t entryOf(uint32_t slot, uint64_t hash) const {
    return entryOf(slot, hash, indexSlotBits_);
  }
  bool tagMatches(uint32_t entry, uint64_t hash) const {
    return tagMatches(entry, hash, indexSlotBits_);
  }
  uint32_t slotOfEntry(uint32_t entry) const { return slotOfEntry(entry, indexSlotBits_); }
  [[noreturn]] void corrupt(const std::string& what) const;
  [[noreturn]] void noFreeEntry() const;

  Shape shape_;
  uint32_t keySize_ = 0, valueSize_ = 0, kw_ = 0, vw_ = 0, slotWords_ = 0;
  uint32_t ringCap_ = 0;
  mode_t mode_ = 0600;
  bool writable_ = false;

  ShmSegment headerSeg_;
  ShmLayout::Header* hdr_ = nullptr;
  uint32_t* journal_ = nullptr;
  uint32_t* ring_ = nullptr;
  ShmSegment controlSeg_;
  ShmLayout::ReaderControl* rctl_ = nullptr;

  mutable std::vector<Chunk> chunks_;
  mutable ShmSegment indexSeg_;
  mutable const uint32_t* index_ = nullptr;
  mutable uint32_t indexCap_ = 0;
  mutable uint32_t indexGen_ = 0;
  mutable uint32_t indexSlotBits_ = ShmLayout::kMaxSlotBits;

  // Writer-only bookkeeping (rebuilt from the slots on take-over).
  std::vector<uint32_t> freeSlots_;
  uint32_t indexLive_ = 0;
  uint32_t indexTombstones_ = 0;
  uint32_t indexSlotLimit_ = 0;  // slots below this fit the present generation's slot field
  uint64_t head_ = 0;

  // Slots looked at ahead of the growth cursor: their index lines are fetched one or more
  // writes before they are filled, so the growth's random writes rarely wait for memory.
  static constexpr uint32_t kGrowthLookahead = 32;
  void lookAhead(uint32_t end);

  // The next index generation while it is filled (capacity 0: none). Its entries hold every
  // record of the slots below `cursor`; its header is written when it is published.
  struct NextIndex {
    ShmSegment seg;
    uint32_t* entries = nullptr;
    uint32_t capacity = 0;
    uint32_t slotBits = 0;
    uint32_t cursor = 0;
    uint32_t live = 0;
    uint32_t used = 0;  // live entries plus tombstones
    size_t committed = 0;
    // Occupied slots at and above the cursor whose keys were hashed (and their home entries
    // prefetched) by an earlier write, in slot order; `aheadEnd` is the first slot not looked
    // at. A slot's sequence word is remembered with its hash: a slot written since is hashed
    // again when it is moved.
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
  // The replaced index generation (already unlinked): its memory is given back a piece per
  // write, because freeing megabytes at once would stall one write.
  ShmSegment retired_;
  size_t retiredLeft_ = 0;
  ShmSegment nextChunk_;
  size_t nextChunkCommitted_ = 0;
  // Growth starts once the present generation's used entries or the slot high-water mark
  // reach these.
  uint64_t growthStartUsed_ = 0;
  uint32_t growthStartHighWater_ = 0;
  uint32_t migratedThisWrite_ = 0;
  uint32_t maxMigratedPerWrite_ = 0;
  uint32_t generationsPublished_ = 0;
};

}  // namespace Oro
