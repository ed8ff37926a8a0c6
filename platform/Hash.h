// Seeded 32-bit hashing for keys. Every key type offers hash(seed): it mixes each of
// its fields into the seed with hashMix and ends with hashFinish. Collections pass
// their own seed, derived from the per-process seed, so that the bucket layout of one
// collection tells nothing about another's.
//
// Invariants: all functions are pure (same input and seed give the same value within
// one process); processHashSeed() is fixed for the life of the process. Hashes are not
// stable across processes and must never be stored in shared memory for placement.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>

namespace Oro {

// A fixed seed, for salts (a collection's name hashed into its own seed). Maps without a
// seed of their own (the std::hash specialisations) hash with processHashSeed(): their keys
// come from writers in other processes, which must not be able to choose keys that collide
// in a reader's maps.
inline constexpr uint32_t kFixedHashSeed = 0x5bd1e995u;

// One round of a multiply-rotate mix: folds the 32-bit word k into the state h.
constexpr uint32_t hashMix(uint32_t h, uint32_t k) {
  k *= 0xcc9e2d51u;
  k = std::rotl(k, 15);
  k *= 0x1b873593u;
  h ^= k;
  h = std::rotl(h, 13);
  return h * 5u + 0xe6546b64u;
}

// Folds a 64-bit word as two 32-bit words.
constexpr uint32_t hashMix64(uint32_t h, uint64_t k) {
  return hashMix(hashMix(h, static_cast<uint32_t>(k)), static_cast<uint32_t>(k >> 32));
}

// Final avalanche: every input bit affects every output bit.
constexpr uint32_t hashFinish(uint32_t h) {
  h ^= h >> 16;
  h *= 0x85ebca6bu;
  h ^= h >> 13;
  h *= 0xc2b2ae35u;
  h ^= h >> 16;
  return h;
}

// Folds n bytes into h, four at a time; the tail is zero-padded and the length mixed
// in so that byte strings differing only by trailing zeros hash apart.
inline uint32_t hashMixBytes(uint32_t h, const void* data, size_t n) {
  const auto* p = static_cast<const unsigned char*>(data);
  size_t i = 0;
  for (; i + 4 <= n; i += 4) {
    uint32_t w;
    std::memcpy(&w, p + i, 4);
    h = hashMix(h, w);
  }
  if (i < n) {
    uint32_t w = 0;
    std::memcpy(&w, p + i, n - i);
    h = hashMix(h, w);
  }
  return hashMix(h, static_cast<uint32_t>(n));
}

constexpr uint32_t hashU32(uint32_t v, uint32_t seed) {
  return hashFinish(hashMix(seed, v));
}
constexpr uint32_t hashU64(uint64_t v, uint32_t seed) {
  return hashFinish(hashMix64(seed, v));
}
inline uint32_t hashBytes(const void* data, size_t n, uint32_t seed) {
  return hashFinish(hashMixBytes(seed, data, n));
}

// The per-process seed, drawn once from the system's entropy source on first use.
inline uint32_t processHashSeed() {
  static const uint32_t seed = [] {
    std::random_device rd;
    return static_cast<uint32_t>(rd());
  }();
  return seed;
}

// A collection's own seed: the process seed mixed with a per-collection salt (for
// example a hash of the collection's name or its address).
inline uint32_t collectionHashSeed(uint32_t salt) {
  return hashU32(salt, processHashSeed());
}

}  // namespace Oro
