#include "platform/net/IpAddr.h"

#include <arpa/inet.h>

#include <cstring>

#include "platform/Assert.h"

namespace Nevo {

IpGenAddr IpGenAddr::ipv4Addr(uint32_t hostOrder) {
  IpGenAddr a;
  a.bytes_[0] = static_cast<uint8_t>(hostOrder >> 24);
  a.bytes_[1] = static_cast<uint8_t>(hostOrder >> 16);
  a.bytes_[2] = static_cast<uint8_t>(hostOrder >> 8);
  a.bytes_[3] = static_cast<uint8_t>(hostOrder);
  return a;
}

IpGenAddr IpGenAddr::fromBytes(AddressFamily af, const uint8_t* bytes) {
  MVPN_ASSERT_MSG(af == ipv4 || af == ipv6, "Unsupported address family");
  IpGenAddr a;
  a.af_ = af;
  std::memcpy(a.bytes_, bytes, af == ipv6 ? 16 : 4);
  return a;
}

IpGenAddr IpGenAddr::zero(AddressFamily af) {
  MVPN_ASSERT_MSG(af == ipv4 || af == ipv6, "Unsupported address family");
  IpGenAddr a;
  a.af_ = af;
  return a;
}

IpGenAddr IpGenAddr::readFrom(Oro::CharRange& in) {
  size_t start = in.position();
  auto run = in.readWhile([](char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F') || c == '.' ||
           c == ':';
  });
  // An address may be followed directly by ':' (as in "10.0.0.1: ..."), so a run that
  // does not parse is retried without its trailing colons. No address is longer than
  // INET6_ADDRSTRLEN - 1 characters: longer candidates are not tried (a long run of colons
  // would otherwise cost a copy and a parse per colon).
  while (!run.empty() && run.size() >= INET6_ADDRSTRLEN && run.back() == ':') run.remove_suffix(1);
  while (!run.empty() && run.size() < INET6_ADDRSTRLEN) {
    std::string text(run);
    uint8_t buf[16];
    bool v6 = text.find(':') != std::string::npos;
    if (inet_pton(v6 ? AF_INET6 : AF_INET, text.c_str(), buf) == 1) {
      in.positionIs(start + run.size());
      return fromBytes(v6 ? ipv6 : ipv4, buf);
    }
    if (run.back() != ':') break;
    run.remove_suffix(1);
  }
  in.positionIs(start);
  in.fail("an IP address");
}

IpGenAddr::IpGenAddr(Oro::CharRange& in) {
  *this = readFrom(in);
  in.expectEnd();
}

uint32_t IpGenAddr::v4HostOrder() const {
  return (uint32_t{bytes_[0]} << 24) | (uint32_t{bytes_[1]} << 16) | (uint32_t{bytes_[2]} << 8) |
         uint32_t{bytes_[3]};
}

bool IpGenAddr::isZero() const {
  for (uint8_t b : bytes_) {
    if (b != 0) return false;
  }
  return true;
}

bool IpGenAddr::isMulticast() const {
  return af_ == ipv6 ? bytes_[0] == 0xff : (bytes_[0] & 0xf0) == 0xe0;
}

std::string IpGenAddr::toStrep() const {
  char buf[INET6_ADDRSTRLEN];
  const char* s = inet_ntop(af_ == ipv6 ? AF_INET6 : AF_INET, bytes_, buf, sizeof buf);
  return s ? std::string(s) : std::string();
}

IpGenPrefix::IpGenPrefix(const IpGenAddr& addr, unsigned len) {
  unsigned max = addr.af() == ipv6 ? 128 : 32;
  if (len > max) {
    throw Oro::RangeException(fmt::format("prefix length {} exceeds {}", len, max));
  }
  uint8_t bytes[16];
  std::memcpy(bytes, addr.bytes(), 16);
  for (unsigned i = 0; i < 16; ++i) {
    unsigned keep = len > i * 8 ? len - i * 8 : 0;
    if (keep < 8) bytes[i] &= static_cast<uint8_t>(0xff00u >> keep);
  }
  addr_ = IpGenAddr::fromBytes(addr.af(), bytes);
  len_ = static_cast<uint8_t>(len);
}

IpGenPrefix IpGenPrefix::readFrom(Oro::CharRange& in) {
  IpGenAddr a = IpGenAddr::readFrom(in);
  in.expect("/");
  uint64_t len = in.readUnsigned(255);
  return IpGenPrefix(a, static_cast<unsigned>(len));
}

IpGenPrefix::IpGenPrefix(Oro::CharRange& in) {
  *this = readFrom(in);
  in.expectEnd();
}

bool IpGenPrefix::contains(const IpGenAddr& a) const {
  return a.af() == af() && IpGenPrefix(a, len_) == *this;
}

std::string IpGenPrefix::toStrep() const {
  return fmt::format("{}/{}", addr_.toStrep(), len_);
}

uint32_t IpGenPrefix::hash(uint32_t seed) const {
  return Oro::hashFinish(Oro::hashMix(addr_.mixInto(seed), len_));
}

}  // namespace Nevo
