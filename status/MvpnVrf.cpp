#include "status/MvpnVrf.h"

#include <new>

#include "platform/Error.h"
#include "platform/Hash.h"
#include "platform/ValueForm.h"

namespace Routing::Multicast {

MvpnVrf MvpnVrf::readFrom(Oro::CharRange& in) {
  Oro::ValueFormReader reader(in, kTypeName);
  MvpnVrf v;
  v.key_ = reader.attr("key", Vrf::VrfIdMap::VrfId::readFrom);
  v.client_ = reader.attr("client", [](Oro::CharRange& r) {
    MvpnClient c;
    sequenceToValue(r, &c);
    return c;
  });
  reader.end();
  return v;
}

MvpnVrf::MvpnVrf(Oro::CharRange& in) {
  MvpnVrf v = readFrom(in);
  in.expectEnd();
  *this = v;
}

uint32_t MvpnVrf::hash(uint32_t seed) const {
  return Oro::hashFinish(Oro::hashMix(key_.hash(seed), static_cast<uint8_t>(client_)));
}

std::string MvpnVrf::toValueForm() const {
  return Oro::ValueFormWriter(kTypeName)
      .attr("key", key_.toStrep())
      .attr("client", stringValue(client_))
      .done();
}

void MvpnVrf::dumpState(Oro::DumpContext& dc, int indent) const {
  const std::string text = toStrep();
  if (indent != 0) {
    dc.print("%*cVRF %s\n", indent, ' ', text.c_str());
  } else {
    dc.print("VRF %s\n", text.c_str());
  }
}

void writeMessage(Oro::PbWriteBuffer& out, const MvpnVrf& v) {
  out.writeTag(MvpnVrf::kKeyField, Oro::kPbVarint);
  out.writeVarint(v.key().value());
  out.writeTag(MvpnVrf::kClientField, Oro::kPbVarint);
  out.writeVarint(static_cast<uint64_t>(static_cast<uint8_t>(v.client())));
}

void readMessageField(Oro::PbReadBuffer& in, uint32_t number, uint8_t wireType, MvpnVrf& v) {
  switch (number) {
    case MvpnVrf::kKeyField:
      if (wireType != Oro::kPbVarint) throw Oro::ProtobufReadException(Oro::kProtobufReadError);
      v.keyIs(Vrf::VrfIdMap::VrfId(in.readVarint32()));
      return;
    case MvpnVrf::kClientField:
      if (wireType != Oro::kPbVarint) throw Oro::ProtobufReadException(Oro::kProtobufReadError);
      v.clientIs(static_cast<MvpnClient>(static_cast<uint8_t>(in.readVarint())));
      return;
    default:
      in.skipField(wireType, number);
  }
}

void constructFromPbMessage(MvpnVrf* place, Oro::PbReadBuffer& in) {
  new (place) MvpnVrf(Vrf::VrfIdMap::VrfId(Vrf::VrfIdMap::VrfId::kInvalid), MvpnClient::bgp_);
  readMessage(in, *place);
}

}  // namespace Routing::Multicast
