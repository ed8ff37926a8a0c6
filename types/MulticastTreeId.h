// MulticastTreeId: the identity of a provider multicast tree, held as a string. Two tree
// ids are equal exactly when their strings are equal; the order is the strings' order.
//
// Text form: the string itself. The parser takes every remaining character, so any
// string reads back unchanged. Not trivially copyable (it owns its string).
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "platform/CharRange.h"
#include "platform/Hash.h"

namespace Routing::Multicast {

class MulticastTreeId {
 public:
  MulticastTreeId() = default;
  explicit MulticastTreeId(std::string value) : value_(std::move(value)) {}

  // Takes all of in.
  explicit MulticastTreeId(Oro::CharRange& in) : value_(in.rest()) {
    in.positionIs(in.text().size());
  }

  const std::string& value() const { return value_; }

  static bool isEq(const MulticastTreeId& a, const MulticastTreeId& b) { return a == b; }
  bool isEq(const MulticastTreeId& o) const { return isEq(*this, o); }
  uint32_t hash(uint32_t seed) const { return Oro::hashBytes(value_.data(), value_.size(), seed); }
  const std::string& toStrep() const { return value_; }

  friend bool operator==(const MulticastTreeId&, const MulticastTreeId&) = default;
  friend std::strong_ordering operator<=>(const MulticastTreeId& a, const MulticastTreeId& b) {
    return a.value_.compare(b.value_) <=> 0;
  }

 private:
  std::string value_;
};

}  // namespace Routing::Multicast

template <>
struct std::hash<Routing::Multicast::MulticastTreeId> {
  size_t operator()(const Routing::Multicast::MulticastTreeId& k) const {
    return k.hash(Oro::processHashSeed());
  }
};

template <>
struct fmt::formatter<Routing::Multicast::MulticastTreeId> : fmt::formatter<std::string_view> {
  auto format(const Routing::Multicast::MulticastTreeId& v, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(v.value(), ctx);
  }
};
