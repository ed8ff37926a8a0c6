#include "status/MvpnVrfIntfId.h"

#include <new>

#include "platform/Error.h"
#include "platform/Hash.h"
#include "platform/net/IntfIdWire.h"
#include "platform/ValueForm.h"

namespace Routing::Multicast {

MvpnVrfIntfId MvpnVrfIntfId::readFrom(Oro::CharRange& in) {
  Oro::ValueFormReader reader(in, kTypeName);
  MvpnVrfIntfId v;
  v.key_ = reader.attr("key", Vrf::VrfIdMap::VrfId::readFrom);
  v.pmsiIntfId_ = reader.attr("pmsiIntfId", Nevo::IntfId::readFrom);
  reader.end();
  return v;
}

MvpnVrfIntfId::MvpnVrfIntfId(Oro::CharRange& in) {
  MvpnVrfIntfId v = readFrom(in);
  in.expectEnd();
  *this = v;
}

uint32_t MvpnVrfIntfId::hash(uint32_t seed) const {
  return Oro::hashFinish(Oro::hashMix64(key_.hash(seed), pmsiIntfId_.value()));
}

std::string MvpnVrfIntfId::toValueForm() const {
  return Oro::ValueFormWriter(kTypeName)
      .attr("key", key_.toStrep())
      .attr("pmsiIntfId", pmsiIntfId_.toStrep())
      .done();
}

void writeMessage(Oro::PbWriteBuffer& out, const MvpnVrfIntfId& v) {
  out.writeTag(MvpnVrfIntfId::kKeyField, Oro::kPbVarint);
  out.writeVarint(v.key().value());
  Oro::writeIntfIdField(out, MvpnVrfIntfId::kPmsiIntfIdField, v.pmsiIntfId());
}

void readMessageField(Oro::PbReadBuffer& in, uint32_t number, uint8_t wireType, MvpnVrfIntfId& v) {
  switch (number) {
    case MvpnVrfIntfId::kKeyField:
      if (wireType != Oro::kPbVarint) throw Oro::ProtobufReadException(Oro::kProtobufReadError);
      v.keyIs(Vrf::VrfIdMap::VrfId(in.readVarint32()));
      return;
    case MvpnVrfIntfId::kPmsiIntfIdField: {
      if (wireType != Oro::kPbLengthDelimited) {
        throw Oro::ProtobufReadException(Oro::kProtobufReadError);
      }
      Oro::PbReadBuffer message = in.readSection(in.readVarint());
      v.pmsiIntfIdIs(Oro::readIntfIdMessage(message));
      return;
    }
    default:
      in.skipField(wireType, number);
  }
}

void constructFromPbMessage(MvpnVrfIntfId* place, Oro::PbReadBuffer& in) {
  new (place) MvpnVrfIntfId(Vrf::VrfIdMap::VrfId(Vrf::VrfIdMap::VrfId::kInvalid), Nevo::IntfId());
  readMessage(in, *place);
}

}  // namespace Routing::Multicast
