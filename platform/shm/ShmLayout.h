// Byte layout of a shared-memory store, shared by its writer, its readers and the tools.
//
// A store is one writer's set of keyed collections under one mount path. Its segments:
//  - header "<ns>.<path>": identity (magic, layout version, instance id, root type), the
//    collection descriptors, the writer's identity, mount status, quiesced flag, epoch, the
//    operation word pair, the change log (one entry per changed key, naming its collection),
//    the wake-up word readers sleep on, a one-record journal sized for the largest record, and
//    named counters, and the merge record of a merged status (see MergeInfo);
//  - per collection c, slot chunks "<ns>.<path>@<instance>.<c>k<n>" (chunk n holds
//    kBaseChunkSlots << n slots, so a slot number is stable for the store's life) and index
//    generations "...@<instance>.<c>i<g>" (open addressing over uint32 entries);
//  - blob chunks "...@<instance>.b<n>" holding the variable-length parts of records.
// Every segment but the header carries the store's random instance id in its name: two
// processes racing to create a store build disjoint sets of segments, and only the one whose
// header is renamed into place first becomes the writer. Chunk, index and blob segments also
// end in a tag keyed by the header's secret name key ("...@<instance>.<c>k<n>.<tag>"): a
// process that may list /dev/shm but not read the store cannot create a segment's name before
// the writer does and so stop the store from growing.
//
// Slot: one uint32 sequence word, the key image, the value image (plus a blob reference when
// the collection has variable-length values), then side words that are not covered by the
// sequence lock (each one read and written atomically on its own): an entity collection's
// generation and, per child collection, the member bookkeeping of that entity.
//
// Sequence word: bit 0 set while the writer rewrites an occupied slot (the journal then holds
// the old content), bit 1 set when the slot holds a record, bits 2.. a counter advanced by
// every write. A free slot is filled while bit 1 is clear (readers ignore its words) and
// marked occupied in one release store; emptying a slot is one store too.
//
// Nested collections (members of an entity of a parent collection) keep their key image as
// (parent slot, parent generation, key). Each parent owns a chain of pages of its collection's
// slots (a page of class k holds kMinPageSlots << k slots, up to kMaxPageClass; each new page
// of a chain holds about half the slots the chain has, so chains stay two-thirds full); the pages
// of a live parent are never freed, so a walk bookmarked at a slot resumes exactly. A page
// directory of one entry per kMinPageSlots slots follows the slots of every chunk of a nested
// collection.
#pragma once

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Oro::ShmLayout {

// Every atomic that lives in shared memory must be lock-free: only lock-free atomics are
// address-free, i.e. work between processes that map the memory at different addresses.
static_assert(std::atomic<uint32_t>::is_always_lock_free);
static_assert(std::atomic<uint64_t>::is_always_lock_free);
static_assert(std::atomic_ref<uint32_t>::is_always_lock_free);

inline constexpr uint64_t kMagic = 0x3152545350564d4dull;         // "MMVPSTR1"
inline constexpr uint64_t kRetiredMagic = 0x44414544504d4dull;    // "MMPDEAD": replaced store
inline constexpr uint64_t kIndexMagic = 0x31584449534e504dull;    // "MPNSIDX1"
inline constexpr uint64_t kBlobMagic = 0x31424f4c42504d4dull;     // "MMPBLOB1"
inline constexpr uint32_t kLayoutVersion = 8;

inline constexpr uint32_t kTypeNameBytes = 96;
inline constexpr uint32_t kPathBytes = 208;
inline constexpr uint32_t kCollectionNameBytes = 64;
inline constexpr uint32_t kMaxCollections = 16;
inline constexpr uint32_t kCounters = 48;
inline constexpr uint32_t kCounterNameBytes = 40;

inline constexpr uint32_t kBaseChunkSlots = 256;
inline constexpr uint32_t kMaxChunks = 22;  // up to ~1.07e9 slots
inline constexpr uint32_t kMaxKeyBytes = 256;
inline constexpr uint32_t kMaxValueBytes = 4096;
inline constexpr uint32_t kMinRingCapacity = 16;
inline constexpr uint32_t kMaxRingCapacity = 1u << 24;
inline constexpr uint32_t kTombstone = 0xFFFFFFFFu;
// Widest slot field of an index entry (the rest of the entry is a tag of the key's hash).
inline constexpr uint32_t kMaxSlotBits = 27;
// slot + 1 must stay below the all-ones slot field (a tombstone is all ones).
inline constexpr uint32_t kMaxSlots = (1u << kMaxSlotBits) - 2;
inline constexpr uint32_t kNoSlot = 0xFFFFFFFFu;
inline constexpr uint32_t kNoParent = 0xFFFFFFFFu;

inline constexpr uint32_t kSeqWriting = 1;
inline constexpr uint32_t kSeqOccupied = 2;
inline constexpr uint32_t kSeqFlags = kSeqWriting | kSeqOccupied;
inline constexpr uint32_t kSeqStep = 4;

// Pages of nested collections: page class k holds kMinPageSlots << k slots, aligned to its
// size within its chunk; directory entries cover kMinPageSlots slots each.
inline constexpr uint32_t kMinPageSlots = 2;
inline constexpr uint32_t kMaxPageClass = 11;  // 4096 slots
static_assert((kBaseChunkSlots & (kMinPageSlots - 1)) == 0);

// Blob heap: chunk n holds kBlobBaseBytes << n bytes, cut into pages of kBlobPageBytes, each
// page holding blocks of one size class (16 << class bytes).
inline constexpr uint32_t kBlobPageBytes = 64 * 1024;
inline constexpr uint32_t kBlobBaseBytes = 1u << 20;
inline constexpr uint32_t kBlobMaxChunks = 12;
inline constexpr uint32_t kBlobMinBytes = 16;
inline constexpr uint32_t kBlobClasses = 13;  // 16 B .. 64 KiB
inline constexpr uint32_t kMaxBlobBytes = kBlobMinBytes << (kBlobClasses - 1);
static_assert(kMaxBlobBytes == kBlobPageBytes);
// A longer value is kept in pieces: whole blocks of the largest class, the last one partly
// used. Its reference (told by a length above kMaxBlobBytes) names an index block that lists
// the pieces in order, 8 bytes each (chunk << 32 | offset, low word first). The cap keeps what
// a reader may be made to allocate for one record bounded.
inline constexpr uint32_t kMaxBlobPieces = 256;
inline constexpr uint32_t kMaxPiecedBytes = kMaxBlobPieces * kMaxBlobBytes;  // 16 MiB
inline constexpr uint32_t blobPieces(uint32_t length) {
  return (length + kMaxBlobBytes - 1) / kMaxBlobBytes;
}
// The bytes of the block a reference of `length` names: the value, or its pieces' index.
inline constexpr uint32_t blobBlockBytes(uint32_t length) {
  return length > kMaxBlobBytes ? 8 * blobPieces(length) : length;
}

// A record's reference to its blob: chunk, offset in the chunk, length in bytes (of the whole
// value: above kMaxBlobBytes the block is the value's index block).
struct BlobRef {
  uint32_t chunk;
  uint32_t offset;
  uint32_t length;
  uint32_t reserved;
};
static_assert(sizeof(BlobRef) == 16);
inline constexpr uint32_t kBlobRefWords = sizeof(BlobRef) / 4;

// A value of up to kInlineBlobBytes bytes lives in its reference: bytes 0..14 hold it, byte 15
// (the high byte of `reserved`) holds 0x80 | its length. A reference to a block (or to nothing)
// has that byte clear. Short values then cost no block and no extra cache line.
inline constexpr uint32_t kInlineBlobBytes = 15;
inline bool blobInline(const BlobRef& r) {
  return (r.reserved >> 24) & 0x80;
}
inline uint32_t inlineBlobLength(const BlobRef& r) {
  return (r.reserved >> 24) & 0x7F;
}
inline BlobRef inlineBlobRef(const char* bytes, uint32_t n) {  // n <= kInlineBlobBytes
  BlobRef r{0, 0, 0, 0};
  auto* raw = reinterpret_cast<unsigned char*>(&r);
  std::memcpy(raw, bytes, n);
  raw[15] = static_cast<unsigned char>(0x80 | n);
  return r;
}
static_assert(std::endian::native == std::endian::little, "byte 15 is the high byte of reserved");

// Header flags.
inline constexpr uint32_t kFlagBellless = 1;  // the writer wakes readers on every change

// Named 64-bit counter. The name is written under the cell's sequence lock (odd while it is
// being written) so that a tool never prints a torn name.
struct CounterCell {
  std::atomic<uint32_t> seq;
  uint32_t reserved;
  char name[kCounterNameBytes];
  std::atomic<uint64_t> value;
};
static_assert(sizeof(CounterCell) == 56);

// Kinds of collection.
inline constexpr uint32_t kCollValues = 0;    // members are value records
inline constexpr uint32_t kCollEntities = 1;  // members are entities owning child collections

// Side words of an entity slot: its generation, a spare word (so that the 64-bit counts are
// 8-byte aligned: side words start at an even word of an even-sized slot), then per child
// collection a block.
inline constexpr uint32_t kSideGen = 0;
inline constexpr uint32_t kSideHeaderWords = 2;
inline constexpr uint32_t kChildBlockWords = 6;
inline constexpr uint32_t kChildFirst = 0;    // first page's first slot + 1 (0: no page)
inline constexpr uint32_t kChildLast = 1;     // writer: last page's first slot + 1
inline constexpr uint32_t kChildFree = 2;     // writer: first free member slot + 1
inline constexpr uint32_t kChildVersion = 3;  // advanced by every change of the members
inline constexpr uint32_t kChildCount = 4;    // 64-bit word (two words): count | tag << 32
inline constexpr uint32_t childBlock(uint32_t child) {
  return kSideHeaderWords + child * kChildBlockWords;
}
static_assert((childBlock(0) + kChildCount) % 2 == 0 && kChildBlockWords % 2 == 0);
inline constexpr uint32_t sideWordsFor(uint32_t children) {
  return kSideHeaderWords + children * kChildBlockWords;
}

struct CollectionDesc {
  char name[kCollectionNameBytes];
  char typeName[kTypeNameBytes];  // record type
  uint64_t keyFingerprint;
  uint64_t valueFingerprint;
  uint32_t kind;
  uint32_t parent;      // index of the parent collection, kNoParent at the top level
  uint32_t childIndex;  // position among the parent's child collections
  uint32_t children;    // number of child collections (entity collections)
  uint32_t keyBytes;    // key image, including the parent reference of nested collections
  uint32_t valueBytes;  // value image
  uint32_t blobs;       // 1: records carry a blob reference after the value image
  uint32_t keyWords;
  uint32_t valueWords;  // value image plus blob reference
  uint32_t sideWords;
  uint32_t slotWords;   // 1 + keyWords + valueWords + sideWords
  uint32_t reserved0;
  // Read by readers on every lookup; written only when the table grows.
  std::atomic<uint32_t> chunkCount;
  std::atomic<uint32_t> indexGeneration;
  uint64_t reserved1[3];
  // Written by the writer on every insert or removal, on a line of their own: a reader's
  // lookups must not pull the line these share away from the writer on every write.
  alignas(64) std::atomic<uint32_t> slotHighWater;  // top level: slots [0, highWater) used
  std::atomic<uint32_t> reserved2;
  std::atomic<uint64_t> count;  // records | operation tag << 32
  uint64_t reserved3[6];
};
static_assert(sizeof(CollectionDesc) == 320);
static_assert(offsetof(CollectionDesc, chunkCount) == 224);
static_assert(offsetof(CollectionDesc, slotHighWater) == 256);
static_assert(offsetof(CollectionDesc, count) == 264);

// The merge record: what the merge machine writing this store merges and how far it is. Only
// a merged status has one. The description (machine type, rule, inputs, outputs) is written
// under `seq` (odd while written, 0 when never written) for the epoch in `epoch`: a record of
// an earlier epoch belongs to a writer that is gone. The progress words are written one at a
// time by the merger, each atomically.
inline constexpr uint32_t kMergeInputs = 6;
inline constexpr uint32_t kMergeStreams = 8;
inline constexpr uint32_t kMergeOutputs = 4;
inline constexpr uint32_t kMergeNameBytes = 64;
inline constexpr uint32_t kMergeRuleBytes = 192;

// Bits of MergeInfo::state.
inline constexpr uint32_t kMergeInitialized = 1;
inline constexpr uint32_t kMergeInitialScanDone = 2;
inline constexpr uint32_t kMergeReady = 4;
inline constexpr uint32_t kMergeStopped = 8;  // the machine is gone; its writer may live on
inline constexpr uint32_t mergeOutputReady(uint32_t output) {
  return 1u << (8 + output);
}
inline constexpr uint32_t mergeOutputReconciling(uint32_t output) {
  return 1u << (12 + output);
}
inline constexpr uint32_t mergeStreamScanned(uint32_t stream) {
  return 1u << (16 + stream);
}
inline constexpr uint32_t mergeStreamDamaged(uint32_t stream) {
  return 1u << (24 + stream);
}

struct MergeInputDesc {
  char name[kMergeNameBytes];  // the argument it is, e.g. "staticMvpnVrfStatus"
  char path[kPathBytes];       // its mount path ("" when it is not in shared memory)
};

struct MergeProgressCell {
  std::atomic<uint64_t> done;     // keys scanned by the current scan / output entries walked
  std::atomic<uint64_t> total;    // keys the input held when last looked / output entries
  std::atomic<uint64_t> deleted;  // outputs: stale entries deleted by the reconciliation
  uint64_t reserved;
};

struct MergeInfo {
  std::atomic<uint32_t> seq;
  uint32_t inputs;
  uint32_t streams;
  uint32_t outputs;
  std::atomic<uint64_t> epoch;
  char machineType[kTypeNameBytes];
  char rule[kMergeRuleBytes];
  uint8_t streamInput[kMergeStreams];  // the input each stream reads
  MergeInputDesc input[kMergeInputs];
  char outputName[kMergeOutputs][kMergeNameBytes];
  alignas(64) std::atomic<uint32_t> state;
  std::atomic<uint32_t> reserved;
  MergeProgressCell stream[kMergeStreams];
  MergeProgressCell output[kMergeOutputs];
};
static_assert(offsetof(MergeInfo, state) % 64 == 0);

struct Header {
  std::atomic<uint64_t> magic;  // stored last when a store is created
  uint32_t layoutVersion;
  uint32_t headerBytes;
  uint64_t instance;
  char mountPath[kPathBytes];
  char rootType[kTypeNameBytes];
  uint32_t collectionCount;
  uint32_t ringCapacity;    // power of two
  uint32_t ringEntryWords;  // 1 (collection) + the largest key image
  uint32_t ringOffset;
  uint32_t journalOffset;
  uint32_t journalWords;    // the largest key plus value image
  uint32_t mode;            // permission bits the store was created with
  uint32_t reserved0;
  uint64_t nameKey;  // secret part of the segment names (see shmSegmentName)

  alignas(64) std::atomic<uint64_t> owner;  // pid of the writer (for display), 0 when none
  std::atomic<uint64_t> epoch;              // advanced by each writer take-over
  std::atomic<uint32_t> mountStatus;
  std::atomic<uint32_t> quiesced;
  std::atomic<uint32_t> flags;
  std::atomic<uint32_t> reserved1;

  // The writer's operation in progress: opSeq is odd while one runs, and opDesc names it
  // (collection, kind, slot). Counts written during operation n carry tag n / 2, so a reader
  // that finds opSeq odd (a writer killed mid-operation) can tell whether a count already
  // includes the operation.
  alignas(64) std::atomic<uint64_t> ringHead;  // change-log entries written so far
  std::atomic<uint32_t> wakeWord;              // futex word, advanced by every publication
  std::atomic<uint32_t> reserved2;
  std::atomic<uint64_t> opSeq;
  std::atomic<uint64_t> opDesc;

  alignas(64) std::atomic<uint32_t> journalSeq;  // seqlock of the journal (odd: being written)
  std::atomic<uint32_t> journalColl;
  std::atomic<uint32_t> journalSlot;
  std::atomic<uint32_t> journalSlotSeq;  // the slot's sequence word before the rewrite

  alignas(64) std::atomic<uint32_t> blobChunkCount;
  std::atomic<uint32_t> reserved3;

  alignas(64) CounterCell counters[kCounters];
  CollectionDesc colls[kMaxCollections];
  MergeInfo merge;
  // journal (journalWords words) at journalOffset, ring at ringOffset
};
// The writer's identity, its operation and change log, and the journal each have a cache line
// of their own: readers poll the change-log line, the writer rewrites it on every change.
static_assert(offsetof(Header, owner) == 384);
static_assert(offsetof(Header, ringHead) == 448);
static_assert(offsetof(Header, journalSeq) == 512);
static_assert(offsetof(Header, counters) == 640);
static_assert(offsetof(Header, colls) % 64 == 0);
static_assert(offsetof(Header, merge) ==
              640 + kCounters * sizeof(CounterCell) + kMaxCollections * sizeof(CollectionDesc));

// The operation descriptor: collection, kind and slot of the operation in progress.
inline constexpr uint64_t kOpInsert = 1;
inline constexpr uint64_t kOpRemove = 2;
inline constexpr uint64_t kOpRewrite = 3;
inline constexpr uint64_t opDescOf(uint32_t coll, uint64_t kind, uint32_t slot) {
  return uint64_t{coll} << 40 | kind << 32 | slot;
}
inline constexpr uint32_t opColl(uint64_t d) { return static_cast<uint32_t>(d >> 40) & 0xFFFF; }
inline constexpr uint64_t opKind(uint64_t d) { return (d >> 32) & 0xFF; }
inline constexpr uint32_t opSlot(uint64_t d) { return static_cast<uint32_t>(d); }
inline constexpr uint64_t countWord(uint32_t count, uint64_t opSeq) {
  return uint64_t{count} | (opSeq >> 1) << 32;
}
inline constexpr uint32_t countOf(uint64_t w) { return static_cast<uint32_t>(w); }
inline constexpr uint32_t tagOf(uint64_t w) { return static_cast<uint32_t>(w >> 32); }

struct IndexHeader {
  std::atomic<uint64_t> magic;
  uint32_t generation;
  uint32_t capacity;
  uint32_t slotBits;  // width of the slot field of this generation's entries
  uint32_t reserved;
  // uint32 entries[capacity] follow
};
static_assert(sizeof(IndexHeader) == 24);

// Page directory entry of a nested collection (one per kMinPageSlots slots). Every entry of a
// page names the page's owner and where its head entry is; the head entry also links the next
// page of the owner's chain.
struct PageEntry {
  std::atomic<uint64_t> owner;  // parent reference of the owning entity, 0: free
  std::atomic<uint32_t> next;   // head entry: next page's first slot + 1, 0 at the end
  std::atomic<uint32_t> info;   // page class | distance to the head entry << 8
};
static_assert(sizeof(PageEntry) == 16);
inline constexpr uint32_t pageInfo(uint32_t pageClass, uint32_t headDistance) {
  return pageClass | headDistance << 8;
}
inline constexpr uint32_t pageClassOf(uint32_t info) { return info & 0xFF; }
inline constexpr uint32_t headDistanceOf(uint32_t info) { return info >> 8; }
inline constexpr uint32_t pageSlots(uint32_t pageClass) { return kMinPageSlots << pageClass; }

// Blob chunk header: the class of every page of the chunk (0xFF: unused).
struct BlobChunkHeader {
  std::atomic<uint64_t> magic;
  uint32_t chunk;
  uint32_t pages;
  // uint8 pageClass[pages] follow, then the pages from the first page boundary
};

// A parent reference: the parent's slot and generation, never 0 for a live entity (the
// generation of a used slot is at least 1).
inline constexpr uint64_t parentRef(uint32_t slot, uint32_t gen) {
  return uint64_t{gen} << 32 | slot;
}
inline constexpr uint32_t refSlot(uint64_t r) { return static_cast<uint32_t>(r); }
inline constexpr uint32_t refGen(uint64_t r) { return static_cast<uint32_t>(r >> 32); }
inline constexpr uint32_t kParentRefWords = 2;

inline constexpr uint32_t words(uint32_t bytes) { return (bytes + 3) / 4; }
inline constexpr uint32_t alignUp(uint32_t v, uint32_t a) { return (v + a - 1) / a * a; }

// Chunk that holds slot `slot`, and the chunk's first slot.
inline uint32_t chunkOf(uint32_t slot) {
  return static_cast<uint32_t>(std::bit_width(slot / kBaseChunkSlots + 1)) - 1;
}
inline constexpr uint32_t chunkFirstSlot(uint32_t chunk) {
  return kBaseChunkSlots * ((1u << chunk) - 1);
}
inline constexpr uint32_t chunkSlots(uint32_t chunk) { return kBaseChunkSlots << chunk; }
inline constexpr uint64_t slotCapacity(uint32_t chunks) {
  return uint64_t{kBaseChunkSlots} * ((uint64_t{1} << chunks) - 1);
}

// Word access to shared memory: atomic loads and stores through atomic_ref, never plain racy
// accesses (another process may write the words at any time).
inline uint32_t loadWord(const uint32_t* p, std::memory_order mo = std::memory_order_relaxed) {
  return std::atomic_ref<uint32_t>(*const_cast<uint32_t*>(p)).load(mo);
}
inline void storeWord(uint32_t* p, uint32_t v, std::memory_order mo = std::memory_order_relaxed) {
  std::atomic_ref<uint32_t>(*p).store(v, mo);
}
inline void loadWords(const uint32_t* src, uint32_t* dst, uint32_t n) {
  for (uint32_t i = 0; i < n; ++i) dst[i] = loadWord(src + i);
}
inline void storeWords(uint32_t* dst, const uint32_t* src, uint32_t n) {
  for (uint32_t i = 0; i < n; ++i) storeWord(dst + i, src[i]);
}
// A parent reference at the start of a key image (4-byte aligned): two word loads.
inline uint64_t refOfWords(const uint32_t* p) {
  return uint64_t{loadWord(p + 1)} << 32 | loadWord(p);
}
// 64-bit words of shared memory (8-byte aligned: the side words' counts).
inline uint64_t loadWord64(const uint32_t* p) {
  return std::atomic_ref<uint64_t>(*reinterpret_cast<uint64_t*>(const_cast<uint32_t*>(p)))
      .load(std::memory_order_acquire);
}
inline void storeWord64(uint32_t* p, uint64_t v) {
  std::atomic_ref<uint64_t>(*reinterpret_cast<uint64_t*>(p)).store(v, std::memory_order_release);
}

// 64-bit hash of a key image (its words). Placement in an index depends on it, so it is the
// same in every process and every build of this layout version.
inline uint64_t hashWords(const uint32_t* w, uint32_t n) {
  uint64_t h = 0x9E3779B97F4A7C15ull ^ n;
  for (uint32_t i = 0; i < n; ++i) {
    h = (h ^ w[i]) * 0xbf58476d1ce4e5b9ull;
    h ^= h >> 29;
  }
  h *= 0x94d049bb133111ebull;
  h ^= h >> 32;
  return h;
}
// Home position of a hash in an index of `capacity` entries (any capacity).
inline uint32_t homeOf(uint64_t hash, uint32_t capacity) {
  return static_cast<uint32_t>(((hash >> 32) * uint64_t{capacity}) >> 32);
}

}  // namespace Oro::ShmLayout
