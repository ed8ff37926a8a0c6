// IPv4-or-IPv6 addresses and prefixes, as used for customer sources and groups and for
// upstream-multicast-hop prefixes.
//
// IpGenAddr holds the family and 16 address bytes in network order; an IPv4 address uses
// the first 4 bytes and leaves the rest zero. The default is the unspecified IPv4
// address "0.0.0.0". Text form: dotted quad for IPv4, RFC 5952 text for IPv6 (as
// inet_ntop writes them); the parser accepts what inet_pton accepts.
// IpGenPrefix holds an address and a length (0..32 or 0..128); the host bits beyond the
// length are always zero. Text form "10.0.0.0/8", "2001:db8::/32".
//
// Both types are trivially copyable with no uninitialised padding, so they can live in
// shared memory and be hashed or compared byte-wise. Order: family first, then the
// address bytes, then (for prefixes) the length.
#pragma once

#include <compare>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "platform/CharRange.h"
#include "platform/Hash.h"
#include "platform/shm/ShmImage.h"

namespace Nevo {

enum AddressFamily : uint8_t { ipunknown = 0, ipv4 = 1, ipv6 = 2 };

class IpGenAddr {
 public:
  constexpr IpGenAddr() = default;
  // hostOrder is the IPv4 address as a number, e.g. 0x0a000001 for 10.0.0.1.
  static IpGenAddr ipv4Addr(uint32_t hostOrder);
  // bytes holds 4 (IPv4) or 16 (IPv6) bytes in network order; af must be ipv4 or ipv6.
  static IpGenAddr fromBytes(AddressFamily af, const uint8_t* bytes);
  static IpGenAddr zero(AddressFamily af);

  // Reads one address from in, leaving the position behind it.
  static IpGenAddr readFrom(Oro::CharRange& in);
  // Parses all of in; trailing characters are a ParseException.
  explicit IpGenAddr(Oro::CharRange& in);

  AddressFamily af() const { return af_; }
  const uint8_t* bytes() const { return bytes_; }
  // 4 or 16.
  unsigned byteLength() const { return af_ == ipv6 ? 16 : 4; }
  // The IPv4 address as a number (meaningful for IPv4 only).
  uint32_t v4HostOrder() const;
  bool isZero() const;
  bool isMulticast() const;

  std::string toStrep() const;
  // Folds the family and the address bytes into a running hash state h (no finish), so
  // that keys holding several addresses hash with one final avalanche.
  uint32_t mixInto(uint32_t h) const {
    h = Oro::hashMix(h, af_);
    uint32_t w[4];
    std::memcpy(w, bytes_, sizeof w);
    h = Oro::hashMix(h, w[0]);
    if (af_ == ipv6) h = Oro::hashMix(Oro::hashMix(Oro::hashMix(h, w[1]), w[2]), w[3]);
    return h;
  }
  uint32_t hash(uint32_t seed) const { return Oro::hashFinish(mixInto(seed)); }

  friend bool operator==(const IpGenAddr&, const IpGenAddr&) = default;
  friend auto operator<=>(const IpGenAddr&, const IpGenAddr&) = default;

  // Whether 20 bytes are the image of an address: a known family (an address is IPv4 unless
  // made IPv6; nothing makes one of family ipunknown), zero padding, and nothing past the 4
  // bytes of an IPv4 address.
  static bool shmImageValid(const std::byte* p) {
    const auto af = static_cast<uint8_t>(p[0]);
    if ((af != ipv4 && af != ipv6) || p[1] != std::byte{0} || p[2] != std::byte{0} ||
        p[3] != std::byte{0})
      return false;
    for (unsigned i = (af == ipv6 ? 16 : 4); i < 16; ++i) {
      if (p[4 + i] != std::byte{0}) return false;
    }
    return true;
  }

 private:
  AddressFamily af_ = ipv4;
  uint8_t pad_[3] = {0, 0, 0};
  uint8_t bytes_[16] = {};
};

class IpGenPrefix {
 public:
  constexpr IpGenPrefix() = default;
  // Clears the host bits of addr; RangeException when len exceeds 32 (IPv4) or 128.
  IpGenPrefix(const IpGenAddr& addr, unsigned len);

  static IpGenPrefix readFrom(Oro::CharRange& in);
  explicit IpGenPrefix(Oro::CharRange& in);

  const IpGenAddr& addr() const { return addr_; }
  unsigned len() const { return len_; }
  AddressFamily af() const { return addr_.af(); }
  bool contains(const IpGenAddr& a) const;

  std::string toStrep() const;
  uint32_t hash(uint32_t seed) const;

  friend bool operator==(const IpGenPrefix&, const IpGenPrefix&) = default;
  friend auto operator<=>(const IpGenPrefix&, const IpGenPrefix&) = default;

  // Whether 24 bytes are the image of a prefix: a valid address, a length that fits its
  // family, zero padding.
  static bool shmImageValid(const std::byte* p) {
    if (!IpGenAddr::shmImageValid(p)) return false;
    const auto len = static_cast<uint8_t>(p[20]);
    return len <= (static_cast<uint8_t>(p[0]) == ipv6 ? 128 : 32) && p[21] == std::byte{0} &&
           p[22] == std::byte{0} && p[23] == std::byte{0};
  }

 private:
  IpGenAddr addr_;
  uint8_t len_ = 0;
  uint8_t pad_[3] = {0, 0, 0};
};

static_assert(sizeof(IpGenAddr) == 20 && sizeof(IpGenPrefix) == 24);

}  // namespace Nevo

template <>
struct Oro::ShmImage<Nevo::IpGenAddr> : Oro::ShmPlainImage<Nevo::IpGenAddr, Nevo::IpGenAddr::shmImageValid> {
  static constexpr uint64_t fingerprint =
      shmFingerprint("Nevo::IpGenAddr{af:u8,pad:3,bytes:16}", bytes);
  static Nevo::IpGenAddr read(const std::byte* in) { return ShmPlainImage::read(in, "Nevo::IpGenAddr"); }
};
template <>
struct Oro::ShmImage<Nevo::IpGenPrefix>
    : Oro::ShmPlainImage<Nevo::IpGenPrefix, Nevo::IpGenPrefix::shmImageValid> {
  static constexpr uint64_t fingerprint =
      shmFingerprint("Nevo::IpGenPrefix{addr:Nevo::IpGenAddr,len:u8,pad:3}", bytes);
  static Nevo::IpGenPrefix read(const std::byte* in) {
    return ShmPlainImage::read(in, "Nevo::IpGenPrefix");
  }
};

template <>
struct std::hash<Nevo::IpGenAddr> {
  size_t operator()(const Nevo::IpGenAddr& a) const { return a.hash(Oro::processHashSeed()); }
};
template <>
struct std::hash<Nevo::IpGenPrefix> {
  size_t operator()(const Nevo::IpGenPrefix& p) const { return p.hash(Oro::processHashSeed()); }
};

template <>
struct fmt::formatter<Nevo::IpGenAddr> : fmt::formatter<std::string_view> {
  auto format(const Nevo::IpGenAddr& v, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(v.toStrep(), ctx);
  }
};
template <>
struct fmt::formatter<Nevo::IpGenPrefix> : fmt::formatter<std::string_view> {
  auto format(const Nevo::IpGenPrefix& v, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(v.toStrep(), ctx);
  }
};
