// MvpnVrfIntfId: the PMSI interface of one VRF. The record of MvpnIntfStatus's vrfIntfId
// collection, keyed by its own key. Trivially copyable (stored in shared-memory tables).
//
// The value-form parser reads Value('Routing::Multicast::MvpnVrfIntfId', ** {'key': <n>,
// 'pmsiIntfId': <interface id>}); the type has no text writer of its own beyond that form.
// Wire form: key as field 15702 (varint), pmsiIntfId as field 22662 (embedded interface-id
// message), always both.
#pragma once

#include <compare>
#include <cstdint>
#include <string>

#include "platform/CharRange.h"
#include "platform/net/IntfId.h"
#include "platform/net/VrfId.h"
#include "platform/WireBuffer.h"
#include "status/PbRecord.h"

namespace Routing::Multicast {

class MvpnVrfIntfId {
 public:
  static constexpr const char* kTypeName = "Routing::Multicast::MvpnVrfIntfId";
  static constexpr uint32_t kKeyField = 15702;
  static constexpr uint32_t kPmsiIntfIdField = 22662;

  MvpnVrfIntfId() = default;
  MvpnVrfIntfId(Vrf::VrfIdMap::VrfId key, Nevo::IntfId pmsiIntfId)
      : key_(key), pmsiIntfId_(pmsiIntfId) {}
  explicit MvpnVrfIntfId(Oro::CharRange& in);
  static MvpnVrfIntfId readFrom(Oro::CharRange& in);

  Vrf::VrfIdMap::VrfId key() const { return key_; }
  void keyIs(Vrf::VrfIdMap::VrfId k) { key_ = k; }
  Nevo::IntfId pmsiIntfId() const { return pmsiIntfId_; }
  void pmsiIntfIdIs(Nevo::IntfId id) { pmsiIntfId_ = id; }

  bool isEq(const MvpnVrfIntfId& o) const {
    return this == &o || (key_ == o.key_ && pmsiIntfId_ == o.pmsiIntfId_);
  }
  static bool isEq(const MvpnVrfIntfId& a, const MvpnVrfIntfId& b) { return a.isEq(b); }
  friend bool operator==(const MvpnVrfIntfId& a, const MvpnVrfIntfId& b) { return a.isEq(b); }
  friend std::strong_ordering operator<=>(const MvpnVrfIntfId& a, const MvpnVrfIntfId& b) {
    if (auto c = a.key_.value() <=> b.key_.value(); c != 0) return c;
    return a.pmsiIntfId_.value() <=> b.pmsiIntfId_.value();
  }
  uint32_t hash(uint32_t seed) const;
  std::string toValueForm() const;

 private:
  Vrf::VrfIdMap::VrfId key_;
  Nevo::IntfId pmsiIntfId_;
};

// Wire form: writeMessage writes both fields, always, in field order; readMessageField sets
// one field (a known number with another wire type is a ProtobufReadException) or skips an
// unknown one. writePbMessage and readMessage (status/PbRecord.h) add the framing.
void writeMessage(Oro::PbWriteBuffer& out, const MvpnVrfIntfId& v);
void readMessageField(Oro::PbReadBuffer& in, uint32_t number, uint8_t wireType, MvpnVrfIntfId& v);
// Defaults (key 16777215, the empty interface id), then readMessage.
void constructFromPbMessage(MvpnVrfIntfId* place, Oro::PbReadBuffer& in);

}  // namespace Routing::Multicast
