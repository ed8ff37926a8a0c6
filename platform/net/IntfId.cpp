#include "platform/net/IntfId.h"

#include <array>
#include <string_view>

namespace Nevo {

namespace {

constexpr uint64_t kReservedMask = 0x00ffffff00000000ull;

struct TypeName {
  IntfId::Type type;
  std::string_view name;
};

// The parser compares whole runs of letters and '-' against these names, so their
// order does not matter.
constexpr std::array<TypeName, 5> kTypeNames{{
    {IntfId::Type::ethernet, "Ethernet"},
    {IntfId::Type::vlan, "Vlan"},
    {IntfId::Type::loopback, "Loopback"},
    {IntfId::Type::tunnel, "Tunnel"},
    {IntfId::Type::portChannel, "Port-Channel"},
}};

std::string_view nameOf(IntfId::Type t) {
  for (const auto& tn : kTypeNames) {
    if (tn.type == t) return tn.name;
  }
  return {};
}

}  // namespace

IntfId::Type IntfId::type() const {
  if ((value_ & kReservedMask) != 0) return Type::none;
  auto t = static_cast<Type>(value_ >> kTypeShift);
  return nameOf(t).empty() ? Type::none : t;
}

std::string IntfId::toStrep() const {
  if (empty()) return "(empty)";
  Type t = type();
  if (t == Type::none) return fmt::format("IntfId({})", value_);
  return fmt::format("{}{}", nameOf(t), number());
}

IntfId IntfId::readFrom(Oro::CharRange& in) {
  if (in.consume("(empty)")) return IntfId();
  if (in.consume("IntfId(")) {
    uint64_t v = in.readUnsigned();
    in.expect(")");
    return IntfId(v);
  }
  size_t start = in.position();
  auto name = in.readWhile(
      [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-'; });
  for (const auto& tn : kTypeNames) {
    if (tn.name == name) {
      auto n = in.readUnsigned(UINT32_MAX);
      return IntfId(tn.type, static_cast<uint32_t>(n));
    }
  }
  in.positionIs(start);
  in.fail("an interface name");
}

IntfId::IntfId(Oro::CharRange& in) {
  *this = readFrom(in);
  in.expectEnd();
}

}  // namespace Nevo
