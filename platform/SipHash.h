// SipHash-2-4: a keyed 64-bit hash whose outputs tell nothing of the key. Used where a name
// must be predictable to whoever holds the key and to nobody else (the names of a store's
// segments: readers find them through the key in the store's header, while a process that can
// only list /dev/shm cannot tell the name of a segment before it exists).
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace Oro {

constexpr uint64_t sipHash24(uint64_t k0, uint64_t k1, std::string_view in) {
  uint64_t v0 = k0 ^ 0x736f6d6570736575ull, v1 = k1 ^ 0x646f72616e646f6dull;
  uint64_t v2 = k0 ^ 0x6c7967656e657261ull, v3 = k1 ^ 0x7465646279746573ull;
  auto round = [&] {
    v0 += v1, v1 = std::rotl(v1, 13), v1 ^= v0, v0 = std::rotl(v0, 32);
    v2 += v3, v3 = std::rotl(v3, 16), v3 ^= v2;
    v0 += v3, v3 = std::rotl(v3, 21), v3 ^= v0;
    v2 += v1, v1 = std::rotl(v1, 17), v1 ^= v2, v2 = std::rotl(v2, 32);
  };
  auto compress = [&](uint64_t m) {
    v3 ^= m;
    round();
    round();
    v0 ^= m;
  };
  // Little-endian words of the input; the last one carries the length in its top byte.
  uint64_t m = 0;
  size_t i = 0;
  for (; i < in.size(); ++i) {
    m |= uint64_t{static_cast<uint8_t>(in[i])} << (8 * (i % 8));
    if (i % 8 == 7) {
      compress(m);
      m = 0;
    }
  }
  compress(m | uint64_t{in.size()} << 56);
  v2 ^= 0xff;
  for (int r = 0; r < 4; ++r) round();
  return v0 ^ v1 ^ v2 ^ v3;
}

}  // namespace Oro
