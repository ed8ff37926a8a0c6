// MvpnVrf: one VRF that takes part in MVPN, and the writer agent that declared it. The record
// of MvpnVrfStatus's mvpnVrf collection, keyed by its own key. Trivially copyable (it is
// stored in shared-memory tables).
//
// Text form (toStrep): the key alone ("12"); the client is not part of it. The value-form
// parser reads Value('Routing::Multicast::MvpnVrf', ** {'key': <n>, 'client': <name>}), so it
// accepts more than toStrep writes. Wire form: key as field 15702, client as field 32360, both
// varints, always both.
#pragma once

#include <compare>
#include <cstdint>
#include <string>

#include "platform/CharRange.h"
#include "platform/DumpContext.h"
#include "platform/net/VrfId.h"
#include "platform/WireBuffer.h"
#include "status/PbRecord.h"
#include "types/MvpnClient.h"

namespace Routing::Multicast {

class MvpnVrf {
 public:
  static constexpr const char* kTypeName = "Routing::Multicast::MvpnVrf";
  static constexpr uint32_t kKeyField = 15702;
  static constexpr uint32_t kClientField = 32360;

  MvpnVrf() = default;
  explicit MvpnVrf(Vrf::VrfIdMap::VrfId key) : key_(key) {}
  // Not explicit: {key, client} reads as the record.
  MvpnVrf(Vrf::VrfIdMap::VrfId key, MvpnClient client) : key_(key), client_(client) {}
  // Parses the value form; all input must be consumed.
  explicit MvpnVrf(Oro::CharRange& in);
  static MvpnVrf readFrom(Oro::CharRange& in);

  Vrf::VrfIdMap::VrfId key() const { return key_; }
  void keyIs(Vrf::VrfIdMap::VrfId k) { key_ = k; }
  MvpnClient client() const { return client_; }
  void clientIs(MvpnClient c) { client_ = c; }

  bool isEq(const MvpnVrf& o) const {
    return this == &o || (key_ == o.key_ && client_ == o.client_);
  }
  static bool isEq(const MvpnVrf& a, const MvpnVrf& b) { return a.isEq(b); }
  friend bool operator==(const MvpnVrf& a, const MvpnVrf& b) { return a.isEq(b); }
  friend std::strong_ordering operator<=>(const MvpnVrf& a, const MvpnVrf& b) {
    if (auto c = a.key_.value() <=> b.key_.value(); c != 0) return c;
    return static_cast<uint8_t>(a.client_) <=> static_cast<uint8_t>(b.client_);
  }
  uint32_t hash(uint32_t seed) const;

  std::string toStrep() const { return key_.toStrep(); }
  std::string toValueForm() const;
  // "%*cVRF %s\n" at indent (no indent prefix at 0).
  void dumpState(Oro::DumpContext& dc, int indent) const;

 private:
  Vrf::VrfIdMap::VrfId key_;
  MvpnClient client_ = MvpnClient::bgp_;
};

// Wire form: writeMessage writes both fields, always, in field order; readMessageField sets
// one field (a known number with another wire type is a ProtobufReadException) or skips an
// unknown one. writePbMessage and readMessage (status/PbRecord.h) add the framing.
void writeMessage(Oro::PbWriteBuffer& out, const MvpnVrf& v);
void readMessageField(Oro::PbReadBuffer& in, uint32_t number, uint8_t wireType, MvpnVrf& v);
// Defaults (key 16777215, client 0), then readMessage.
void constructFromPbMessage(MvpnVrf* place, Oro::PbReadBuffer& in);

}  // namespace Routing::Multicast

template <>
struct fmt::formatter<Routing::Multicast::MvpnVrf> : fmt::formatter<std::string_view> {
  auto format(const Routing::Multicast::MvpnVrf& v, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(v.toStrep(), ctx);
  }
};
