// The storage engine of one shared-memory store: one writer's keyed collections under one
// mount path (see ShmLayout.h for the bytes). Records are key and value images (words); the
// typed layers above give them types. A store works the same in process memory (detached:
// filled before it is mounted, or kept after it is unmounted) and in named shared segments.
//
// Thread safety and roles: a writer (or a detached store) is used by one thread; readers in any
// process read concurrently and never write shared memory. REQUIRES writer role (or detached)
// for every mutator; readers get ShmCorruptionException from whatever damaged data they meet.
//
// Invariants:
//  - one writer per store at any time: the writer holds an OFD write lock on the header file
//    for as long as it lives (released by the kernel when it dies, kept while it is stopped);
//    readers open the files read-only and cannot take it;
//  - a writer killed at any instant leaves every slot readable as a whole record: a free slot
//    is filled before it is marked occupied, an occupied slot is journaled before it is
//    rewritten, and a record's blob is written before the record and freed after it;
//  - walks, lookups and counts agree at every instant: the operation words in the header say
//    which slot the writer's current operation touches and whether each count includes it;
//  - nested members are reachable only through their parent: a member whose parent is gone
//    is absent, whatever is left in its slot;
//  - every number read from shared memory is bounds-checked before use.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/shm/ShmLayout.h"
#include "platform/shm/ShmSegment.h"

namespace Oro {

class ShmBellServer;
class ShmCollection;

struct ShmCollectionSchema {
  std::string name;      // e.g. "mvpnVrf"
  std::string typeName;  // the record type, e.g. "Routing::Multicast::MvpnVrf"
  uint64_t keyFingerprint = 0;
  uint64_t valueFingerprint = 0;
  uint32_t kind = ShmLayout::kCollValues;
  uint32_t parent = ShmLayout::kNoParent;  // index of the parent (an entity collection)
  uint32_t keyBytes = 0;                   // without the parent reference
  uint32_t valueBytes = 0;
  bool blobs = false;  // records carry a variable-length part
};

struct ShmStoreSchema {
  std::string rootType;                          // e.g. "Routing::Multicast::MvpnVrfStatus"
  std::vector<ShmCollectionSchema> collections;  // parents before their children
};

// Points at which a writer can be stopped by a test (fault injection).
enum class ShmFaultPoint : uint8_t {
  insertFilled,      // a free slot holds the record, not yet indexed
  insertIndexed,     // indexed, not yet marked occupied
  insertCommitted,   // occupied, counts not yet updated
  rewriteJournaled,  // old record in the journal, slot not yet marked
  rewriteWriting,    // slot marked and half written
  rewriteCommitted,  // slot holds the new record, old blob not yet freed
  removeFreed,       // slot emptied, index entry still there
  removeUnindexed,   // index entry gone, counts not yet updated
  entityRemoved,     // an entity's slot emptied, its members not yet reclaimed
  pageLinked,        // a new page of a parent's chain linked
  growthStep,        // a step of index growth done
  growthPublished,   // a new index generation named in the header
  chunkAdded,        // a new slot chunk named in the header
  logAppended,       // a change-log entry written, the wake word not yet advanced
  creationBuilt,     // a new store's segments built, header not yet renamed into place
  takeOverLocked,    // a writer holds the lock of a store it takes over, not yet recovered
};
// Test hook, called at every fault point of every writer of the process; null in production.
using ShmFaultHook = void (*)(ShmFaultPoint);
void shmFaultHookIs(ShmFaultHook hook);

class ShmStore {
 public:
  static constexpr uint32_t kNoSlot = ShmLayout::kNoSlot;
  static constexpr uint32_t kMaxRecordWords =
      ShmLayout::kMaxKeyBytes / 4 + ShmLayout::kMaxValueBytes / 4 + ShmLayout::kBlobRefWords;

  ShmStore();
  ShmStore(ShmStore&&) noexcept;
  ShmStore& operator=(ShmStore&&) noexcept;
  ~ShmStore();

  // An empty store in process memory.
  static ShmStore detached(const ShmStoreSchema& schema);
  // A writer's store: creates it; takes over one whose writer is dead (recovering the
  // journaled slot, reclaiming what a dead writer left half done, advancing the epoch);
  // recreates one that is damaged. A live writer, or a store of another type at the path:
  // ShmException (and nothing changes).
  static ShmStore openWriter(const std::string& mountPath, const ShmStoreSchema& schema,
                             mode_t mode, uint32_t ringCapacity);
  // A reader's mapping of an existing store (read-only). With a schema, the store must hold
  // exactly those collections (names, types and layout fingerprints); without one (tools) it
  // is taken as it is.
  static ShmStore openReader(const std::string& mountPath, const ShmStoreSchema* schema);
  // Removes the store at `mountPath` and every segment its writers left, when no writer is
  // alive: the write lock is taken first, so no writer can take the store over meanwhile, and
  // readers still mapping it see it retired. Returns the number of names removed.
  // ShmException when a writer is alive (naming its pid) or when there is nothing at the path;
  // ShmPermissionException when this user may not remove it.
  static size_t remove(const std::string& mountPath);

  bool valid() const { return hdr_ != nullptr; }
  // A writer's store as a forked child inherited it: the parent still writes it. The child's
  // copy changes nothing shared (writes raise ShmException; letting it go touches nothing).
  bool forkedWriterCopy() const {
    return writable_ && forkGeneration_ != shmForkGeneration() && shared();
  }
  bool shared() const { return headerSeg_.named(); }
  bool writable() const { return writable_; }
  const std::string& mountPath() const { return mountPath_; }
  const ShmLayout::Header* header() const { return hdr_; }
  const ShmStoreSchema& schema() const { return schema_; }
  uint32_t collections() const { return static_cast<uint32_t>(colls_.size()); }
  uint32_t keyWords(uint32_t c) const;    // including a nested collection's parent reference
  uint32_t valueWords(uint32_t c) const;  // including the blob reference
  uint32_t recordWords(uint32_t c) const { return keyWords(c) + valueWords(c); }
  bool nested(uint32_t c) const;
  // The engine of collection c (integrity checks read its slots and page directories).
  const ShmCollection& collection(uint32_t c) const { return *colls_[c]; }
  uint64_t epoch() const;
  // Raises ShmCorruptionException when a segment of this store was truncated under us or the
  // header was replaced by a writer that recreated the store.
  void checkIntact() const;

  // ---- reading (any role) ----
  // A record: its words (key image then value image) and its blob.
  struct Record {
    uint32_t words[kMaxRecordWords];
    std::string blob;
    uint32_t seq = 0;  // the slot's sequence word the copy is valid for
  };
  // The number of records of a top-level collection, or of one parent's members. A reader's
  // never exceeds the slots it can read (see countBound).
  uint32_t count(uint32_t c) const;
  uint32_t childCount(uint32_t c, uint64_t parent) const;
  // The change counter of one parent's members of collection c; nullopt once that parent
  // (slot and generation) is gone: its slot's counter then belongs to no one or to another.
  std::optional<uint32_t> childVersion(uint32_t c, uint64_t parent) const;
  // Looks a key image up (a nested key image starts with its parent reference); fills `out`
  // (may be null) and returns the slot, or kNoSlot.
  uint32_t find(uint32_t c, const uint32_t* keyWords, Record* out) const;
  // Walk of a top-level collection in slot order: the first record at a slot >= from.
  uint32_t seek(uint32_t c, uint32_t from, Record* out) const;
  // Walk of one parent's members in page-chain order: the first member at slot `from` or later
  // in the chain (kNoSlot: from its start; a bookmark is a member's slot), or, with nextChild,
  // the first one after the member at slot `after`. kNoSlot at the end, also when the parent
  // is gone.
  uint32_t seekChild(uint32_t c, uint64_t parent, uint32_t from, Record* out) const;
  uint32_t nextChild(uint32_t c, uint64_t parent, uint32_t after, Record* out) const;
  // Whether the record of key image `keyWords` that a read found at `slot` (giving `seq`) is
  // still there unchanged: its slot untouched and, for a member, its parent alive.
  bool unchanged(uint32_t c, const uint32_t* keyWords, uint32_t slot, uint32_t seq) const;
  // Copies a blob (bounds-checked; the caller checks its record did not change meanwhile).
  void readBlob(const ShmLayout::BlobRef& ref, std::string* out) const;
  // Whether an entity (slot and generation) of entity collection c is alive.
  bool alive(uint32_t c, uint64_t ref) const;
  // The reference of the entity at `slot` of entity collection c (read as it is now).
  uint64_t refOf(uint32_t c, uint32_t slot) const;

  // ---- writing (writer or detached) ----
  // Inserts or replaces; returns true when the key is new. The old record goes to `old`
  // (may be null) when there was one. An entity collection's record keeps its members when
  // replaced; a new entity gets a new generation (see refOf).
  bool put(uint32_t c, const uint32_t* words, std::string_view blob, Record* old = nullptr);
  // Removes; true when the key was there (its record in `old`). Removing an entity removes
  // its members, recursively, after the entity itself.
  bool remove(uint32_t c, const uint32_t* keyWords, Record* old = nullptr);
  // Appends a key of collection c to the change log and wakes sleeping readers.
  void publishKey(uint32_t c, const uint32_t* keyWords);
  // Wakes sleeping readers after a header change (mount status, quiesced, epoch).
  void publishControl();
  void mountStatusIs(uint32_t status);
  void quiescedIs(bool quiesced);
  // Makes sure `records` more records of collection c (top level) fit without allocating, so
  // that a bulk copy either fails before it changes anything or does not fail.
  void reserve(uint32_t c, uint32_t records);
  // Gives up ownership: no doorbell, no owner named; the write lock is released when the store
  // is destroyed (its header descriptor closed), and another writer may then take it over.
  void releaseOwnership();

  // The 64-bit counter `index` of the header, named `name` (for tools); writer only, else null.
  std::atomic<uint64_t>* counterSlot(uint32_t index, std::string_view name);
  // The header's merge record (see ShmMergeInfo.h); writer of a shared store only, else null.
  ShmLayout::MergeInfo* mergeInfo() { return writable_ && shared() ? &hdr_->merge : nullptr; }

  // The instance id the store was attached with: its header keeps it for life (a new store
  // is a new header), so a header that names another was overwritten from outside.
  uint64_t instance() const { return instance_; }

  // ---- change log (readers) ----
  uint64_t ringHead() const;
  uint32_t ringCapacity() const { return ringCap_; }
  // Copies entry `pos` (collection, key image); validate against a later ringHead().
  // Returns the collection (checked against the store's collections), or kNoSlot when damaged.
  uint32_t readRingEntry(uint64_t pos, uint32_t* keyWords) const;
  // The wake word and the doorbell path (readers sleep on the word, ring the bell first).
  const std::atomic<uint32_t>* wakeWord() const { return &hdr_->wakeWord; }
  std::string bellPath() const;
  // The name of this store's chunk, index or blob segment `suffix` ("0k3", "1i2", "b0").
  std::string segName(const std::string& suffix) const;
  bool bellless() const;

  // ---- introspection (tools, tests, benchmarks) ----
  size_t committedBytes() const;
  struct IndexGrowth {
    bool migrating = false;
    uint32_t maxSlotsPerWrite = 0;
    uint32_t generationsPublished = 0;
  };
  IndexGrowth indexGrowth(uint32_t c) const;
  uint64_t bellWakes() const;
  // Whether the writer of a store opened by a reader is alive (holds the store's lock).
  bool writerAlive() const;

  // Copies every record of `from` (same schema) into this store, translating nested parent
  // references; `onEntity(c, oldRef, newRef)` is told every entity copied. With `announce`,
  // each key is published. Reserves the top-level collections first.
  using EntityFn = std::function<void(uint32_t c, uint64_t oldRef, uint64_t newRef)>;
  void copyFrom(const ShmStore& from, bool announce, const EntityFn& onEntity);
  // Copies one entity of `from` (and its members, recursively) into this store as a member of
  // `parent` (0 at the top level); returns its new reference.
  uint64_t copyEntity(const ShmStore& from, uint32_t c, uint64_t ref, uint64_t parent,
                      const EntityFn& onEntity);

  // Throws ShmCorruptionException naming this store.
  [[noreturn]] void corrupt(const std::string& what) const;
  // A segment the header names could not be opened (`e`, being handled by the caller): damage
  // while the store is live, else (retired: removed or replaced, its segments going) `e`,
  // rethrown; so is a refused permission.
  [[noreturn]] void segmentMissing(const std::exception& e) const;
  // Opens this store's segment `suffix` whole (read-write for its writer), at least minBytes
  // long; one that cannot be opened goes through segmentMissing.
  ShmSegment openSegment(const std::string& suffix, size_t minBytes) const;
  // Damage met after a write had taken place (the blob of the record it replaced or removed
  // could not be read or freed): the write stands and the damage waits here, empty when there
  // is none, for the caller to report once the change is published.
  bool hasDamage() const { return !damage_.empty(); }
  std::string takeDamage() { return std::exchange(damage_, std::string()); }
  // Raises ShmException on a forked child's copy of a writer's store (forkedWriterCopy).
  void refuseForkedCopy() const;

 private:
  friend class ShmCollection;
  struct Blobs;

  void build(const ShmStoreSchema& schema, uint32_t ringCapacity, bool shared, uint64_t instance);
  void startBell();
  static bool unlinkDeadBell(const ShmSegment& header);
  static bool unlinkBellOfTempHeader(const std::string& entry);
  uint32_t walkChild(uint32_t c, uint64_t parent, uint32_t from, bool after, Record* out) const;
  void unlinkInstance() const;
  void attach(ShmSegment header, const ShmStoreSchema* schema, bool writable);
  void recover();
  void cleanLeftovers() const;
  static void retire(ShmSegment& old);
  // Wakes every sleeping reader: a new writer of an existing store does so, since readers
  // that went to sleep while no writer lived had no doorbell to ring.
  void wakeAllReaders();
  ShmSegment makeSegment(const std::string& suffix, size_t bytes, bool commitNow) const;
  void fault(ShmFaultPoint p) const;

  // The writer's operation bracket (see ShmLayout::Header::opSeq).
  void beginOp(uint32_t c, uint64_t kind, uint32_t slot);
  void endOp();
  uint64_t opSeq() const { return opSeq_; }
  uint32_t countBound(uint32_t c, uint32_t n) const;
  uint32_t countWithOp(const std::atomic<uint64_t>& word, uint32_t c, uint32_t slot,
                       uint64_t parent) const;
  void removeMembers(uint32_t c, uint64_t ref);

  // Blob heap.
  ShmLayout::BlobRef blobAlloc(std::string_view bytes);
  // A free block of size class `cls` (chunk << 32 | offset), carving a page when needed.
  uint64_t blobBlock(uint32_t cls);
  void blobWrite(uint64_t at, const char* bytes, uint32_t n);
  // The words of a block this process has mapped and checked (or carved).
  uint32_t* blobAt(uint64_t at) const;
  // Frees the blocks a record referred to; a reference that names no block of this heap
  // (damage) is noted and its blocks left alone.
  void blobFree(const ShmLayout::BlobRef& ref);
  bool blobFreeable(uint32_t chunk, uint32_t offset, uint32_t cls) const;
  // The pieces of a value kept in pieces (its reference's length above kMaxBlobBytes), checked:
  // each a block of the largest class in a mapped chunk. Raises ShmCorruptionException.
  std::vector<uint64_t> blobPieceList(const ShmLayout::BlobRef& ref) const;
  // The words of the block at (chunk, offset) holding `length` bytes, its chunk mapped and the
  // block checked against its page's class. Raises ShmCorruptionException.
  const uint32_t* blobWords(uint32_t chunk, uint32_t offset, uint32_t length) const;
  // The blob of a record a write replaced or removed, into `out` (empty and noted when damaged).
  void blobReadReplaced(const ShmLayout::BlobRef& ref, std::string* out);
  void blobRead(const ShmLayout::BlobRef& ref, std::string* out) const;
  void noteDamage(std::string what) {
    if (damage_.empty()) damage_ = std::move(what);
  }
  void blobRebuild();

  // An owned descriptor (the store's lock file, see lockStore), closed last.
  class OwnedFd {
   public:
    OwnedFd() = default;
    // A lock's descriptor: not shared with forked children (see shmForkReleaseAdd).
    explicit OwnedFd(int fd);
    OwnedFd(OwnedFd&& o) noexcept : fd_(std::exchange(o.fd_, -1)) {}
    OwnedFd& operator=(OwnedFd&& o) noexcept {
      if (this != &o) {
        reset();
        fd_ = std::exchange(o.fd_, -1);
      }
      return *this;
    }
    ~OwnedFd() { reset(); }
    void reset();
    int get() const { return fd_; }

   private:
    int fd_ = -1;
  };

  void lockIs(OwnedFd lock);
  OwnedFd lockFd_;  // writer: holds the lock that makes it the store's only writer
  OwnedFd headerLockFd_;  // writer: the header's lock, which tells readers that it lives
  ShmStoreSchema schema_;
  std::string mountPath_;
  uint64_t instance_ = 0;
  uint64_t nameKey_ = 0;  // the header's secret name key (see ShmLayout.h)
  mode_t mode_ = 0600;
  bool writable_ = false;
  ShmSegment headerSeg_;
  ShmLayout::Header* hdr_ = nullptr;
  uint32_t* journal_ = nullptr;
  uint32_t* ring_ = nullptr;
  uint32_t ringCap_ = 0;
  uint32_t ringEntryWords_ = 0;
  uint32_t journalWords_ = 0;
  std::vector<std::unique_ptr<ShmCollection>> colls_;
  std::unique_ptr<Blobs> blobs_;
  std::unique_ptr<ShmBellServer> bell_;
  mutable uint64_t lossesSeen_ = 0;
  // Writer-only.
  uint64_t head_ = 0;
  uint64_t opSeq_ = 0;
  bool publishNew_ = false;  // copies announce what they write
  std::string damage_;
  uint32_t forkGeneration_ = shmForkGeneration();
};

}  // namespace Oro
