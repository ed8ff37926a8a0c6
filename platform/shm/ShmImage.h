// How a value is stored in shared memory: as an image of fixed size with exactly one byte
// pattern per value (so that equal keys are one record), validated when it is read back (a
// byte that no value produces is damage, never undefined behaviour), and described by a
// fingerprint of its layout (so that a program built from another revision refuses a store
// instead of misreading it).
//
// ShmImage<T> is specialised for every type stored (keys, and the fixed parts of records).
// A specialisation provides:
//   static constexpr uint32_t bytes;            // size of the image
//   static constexpr uint64_t fingerprint;      // shmFingerprint of its layout description
//   static void write(const T&, std::byte* out); // exactly `bytes` bytes
//   static T read(const std::byte* in);          // ShmCorruptionException on a bad image
// ShmPlainImage<T> implements it for a trivially copyable type without padding bytes
// (checked at compile time), given a validity test of the raw bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

#include "platform/Error.h"

namespace Oro {

template <class T>
struct ShmImage;

// FNV-1a of a layout description, mixed with the image size.
constexpr uint64_t shmFingerprint(std::string_view layout, uint64_t bytes) {
  uint64_t h = 0xcbf29ce484222325ull;
  for (char c : layout) {
    h ^= static_cast<unsigned char>(c);
    h *= 0x100000001b3ull;
  }
  h ^= bytes;
  h *= 0x100000001b3ull;
  return h;
}
// Combines fingerprints (a record's from its parts').
constexpr uint64_t shmFingerprint(uint64_t a, uint64_t b) {
  return shmFingerprint(std::string_view{}, a * 0x9E3779B97F4A7C15ull ^ b);
}

[[noreturn]] inline void shmBadImage(std::string_view type) {
  throw ShmCorruptionException("bad image of a " + std::string(type) + " in shared memory");
}

// The image of a type whose object representation is its value: no padding bits, every
// member's bytes meaningful. Valid(bytes) rejects patterns the type never holds.
template <class T, bool (*Valid)(const std::byte*)>
struct ShmPlainImage {
  static_assert(std::is_trivially_copyable_v<T>, "stored images are copied as bytes");
  static_assert(std::has_unique_object_representations_v<T>,
                "a stored key or record must not have padding bytes: two equal values would "
                "have different images");
  static constexpr uint32_t bytes = sizeof(T);
  static void write(const T& v, std::byte* out) { std::memcpy(out, &v, sizeof(T)); }
  static T read(const std::byte* in, std::string_view type) {
    if (!Valid(in)) shmBadImage(type);
    T v;
    std::memcpy(&v, in, sizeof(T));
    return v;
  }
};

inline bool shmAnyImage(const std::byte*) {
  return true;
}
inline bool shmZeroBytes(const std::byte* p, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    if (p[i] != std::byte{0}) return false;
  }
  return true;
}

// Plain numbers (tests and tools).
template <>
struct ShmImage<uint32_t> : ShmPlainImage<uint32_t, shmAnyImage> {
  static constexpr uint64_t fingerprint = shmFingerprint("u32", bytes);
  static uint32_t read(const std::byte* in) { return ShmPlainImage::read(in, "u32"); }
};
template <>
struct ShmImage<uint64_t> : ShmPlainImage<uint64_t, shmAnyImage> {
  static constexpr uint64_t fingerprint = shmFingerprint("u64", bytes);
  static uint64_t read(const std::byte* in) { return ShmPlainImage::read(in, "u64"); }
};

// Byte-wise image building for records whose fields are stored one after the other.
class ShmImageWriter {
 public:
  explicit ShmImageWriter(std::byte* out) : p_(out) {}
  template <class T>
  void put(const T& v) {
    ShmImage<T>::write(v, p_);
    p_ += ShmImage<T>::bytes;
  }
  void u8(uint8_t v) { *p_++ = static_cast<std::byte>(v); }

 private:
  std::byte* p_;
};

class ShmImageReader {
 public:
  explicit ShmImageReader(const std::byte* in) : p_(in) {}
  template <class T>
  T get() {
    T v = ShmImage<T>::read(p_);
    p_ += ShmImage<T>::bytes;
    return v;
  }
  uint8_t u8() { return static_cast<uint8_t>(*p_++); }

 private:
  const std::byte* p_;
};

}  // namespace Oro
