// Byte layout of a shared-memory table, shared by its writer, its readers and the tools.
//
// Segments of one table:
//  - header: constants (magic, layout version, names, sizes), the writer's identity, mount
//    status, quiesced flag, epoch, index generation, chunk count, slot high-water mark, record
//    count, the change-log head and wake-up word, a one-record journal, named counters, and
//    the change-log ring (one key per entry);
//  - slot chunks "chunk<c>": chunk c holds kBaseChunkSlots << c slots, so chunks never move and
//    a slot index is stable for the table's life;
//  - index generations "index<g>": open-addressing array of uint32 (0 empty, kTombstone, else
//    slot + 1 in the low `slotBits` bits and the key hash's low bits above them as a tag); when
//    load or tombstones grow, or the slots near the generation's slot field, the writer fills
//    the next generation a few slots per write and names it in the header once complete;
//  - reader control "rctl": the one read-write segment of readers (count of sleeping readers).
//
// A slot is one uint32 sequence word followed by the key's and the value's 32-bit words. The
// sequence word: bit 0 set while the writer rewrites a slot that holds a record, bit 1 set when
// the slot holds a record, bits 2.. a counter advanced by every write. A free slot is filled
// while bit 1 is still clear (readers ignore its words) and then marked in one store; emptying
// a slot is one store too. Only rewrites need bit 0 and the header's journal. All words that change
// are accessed atomically (std::atomic or std::atomic_ref), never with plain racy loads.
#pragma once

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Oro::ShmLayout {

inline constexpr uint64_t kMagic = 0x314c42544e50564dull;  // "MVPNTBL1"
inline constexpr uint64_t kIndexMagic = 0x31584449534e504dull;
inline constexpr uint64_t kControlMagic = 0x314c5443524e504dull;
inline constexpr uint32_t kLayoutVersion = 2;
inline constexpr uint32_t kTypeNameBytes = 96;
inline constexpr uint32_t kPathBytes = 208;
inline constexpr uint32_t kCollectionBytes = 64;
inline constexpr uint32_t kCounters = 8;
inline constexpr uint32_t kCounterNameBytes = 40;
inline constexpr uint32_t kBaseChunkSlots = 256;
inline constexpr uint32_t kMaxChunks = 22;  // up to ~1.07e9 slots
inline constexpr uint32_t kMaxRecordBytes = 4096;
inline constexpr uint32_t kMaxRingCapacity = 1u << 24;
inline constexpr uint32_t kTombstone = 0xFFFFFFFFu;
// Widest slot field of an index entry (the rest of the entry is tag).
inline constexpr uint32_t kMaxSlotBits = 27;

inline constexpr uint32_t kSeqWriting = 1;
inline constexpr uint32_t kSeqOccupied = 2;
inline constexpr uint32_t kSeqStep = 4;

struct CounterCell {
  char name[kCounterNameBytes];
  std::atomic<uint64_t> value;
};

// The writer's identity in one word: start time << 22 | pid (pids are below 2^22), so that
// ownership is taken over with a single compare-and-swap.
inline uint64_t ownerWord(uint32_t pid, uint64_t startTime) {
  return startTime << 22 | pid;
}
inline uint32_t ownerPid(uint64_t owner) {
  return static_cast<uint32_t>(owner & ((1u << 22) - 1));
}
inline uint64_t ownerStart(uint64_t owner) {
  return owner >> 22;
}

struct Header {
  std::atomic<uint64_t> magic;  // stored last when a table is created
  uint32_t layoutVersion;
  uint32_t headerBytes;
  char typeName[kTypeNameBytes];
  char mountPath[kPathBytes];
  char collection[kCollectionBytes];
  uint32_t keySize;
  uint32_t valueSize;
  uint32_t keyWords;
  uint32_t valueWords;
  uint32_t slotBytes;
  uint32_t ringCapacity;  // power of two
  uint32_t ringEntryBytes;
  uint32_t ringOffset;
  uint32_t journalDataOffset;
  uint32_t reserved0;

  alignas(64) std::atomic<uint64_t> owner;  // ownerWord of the writer, 0 when none
  std::atomic<uint64_t> epoch;              // advanced by each writer take-over
  std::atomic<uint32_t> mountStatus;
  std::atomic<uint32_t> quiesced;
  std::atomic<uint32_t> indexGeneration;
  std::atomic<uint32_t> chunkCount;
  std::atomic<uint32_t> slotHighWater;  // slots [0, highWater) have been used
  std::atomic<uint32_t> recordCount;

  alignas(64) std::atomic<uint64_t> ringHead;  // change-log entries written so far
  std::atomic<uint32_t> wakeWord;              // futex word, advanced after every publication

  alignas(64) std::atomic<uint32_t> journalSeq;  // seqlock of the journal (odd: being written)
  std::atomic<uint32_t> journalSlot;
  std::atomic<uint32_t> journalSlotSeq;  // the slot's even sequence before the write

  alignas(64) CounterCell counters[kCounters];
  // journal data (keyWords + valueWords words) at journalDataOffset, ring at ringOffset
};

struct IndexHeader {
  std::atomic<uint64_t> magic;
  uint32_t generation;
  uint32_t capacity;
  uint32_t slotBits;  // width of the slot field of this generation's entries
  uint32_t reserved;
  // uint32 entries[capacity] follow
};

struct ReaderControl {
  std::atomic<uint64_t> magic;
  alignas(64) std::atomic<uint32_t> sleepers;
};

inline uint32_t words(uint32_t bytes) {
  return (bytes + 3) / 4;
}
inline uint32_t alignUp(uint32_t v, uint32_t a) {
  return (v + a - 1) / a * a;
}

// Chunk that holds slot `slot`, and the chunk's first slot.
inline uint32_t chunkOf(uint32_t slot) {
  return static_cast<uint32_t>(std::bit_width(slot / kBaseChunkSlots + 1)) - 1;
}
inline uint32_t chunkFirstSlot(uint32_t chunk) {
  return kBaseChunkSlots * ((1u << chunk) - 1);
}
inline uint32_t chunkSlots(uint32_t chunk) {
  return kBaseChunkSlots << chunk;
}
inline uint64_t slotCapacity(uint32_t chunks) {
  return uint64_t{kBaseChunkSlots} * ((uint64_t{1} << chunks) - 1);
}

// Word access to shared memory: relaxed atomic loads and stores through atomic_ref.
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

// 64-bit hash of a key's bytes (the key's word image, zero-padded).
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
// Home position of a hash in an index of `capacity` entries (any capacity, no power of two).
inline uint32_t homeOf(uint64_t hash, uint32_t capacity) {
  return static_cast<uint32_t>(((hash >> 32) * uint64_t{capacity}) >> 32);
}

}  // namespace Oro::ShmLayout
