#include "platform/net/IntfIdWire.h"

#include "platform/Error.h"

namespace Oro {

void writeIntfIdField(PbWriteBuffer& out, uint32_t field, const Nevo::IntfId& id) {
  out.writeTag(field, kPbLengthDelimited);
  PbWriteBuffer::Section s = out.openSection();
  out.writeTag(kIntfIdValueField, kPbVarint);
  out.writeVarint(id.value());
  out.closeSection(s);
}

Nevo::IntfId readIntfIdMessage(PbReadBuffer& message) {
  Nevo::IntfId id;
  while (!message.atEnd()) {
    const PbReadBuffer::Tag tag = message.readTag();
    if (tag.field == kIntfIdValueField) {
      if (tag.wireType != kPbVarint) throw ProtobufReadException(kProtobufReadError);
      id = Nevo::IntfId(message.readVarint());
    } else {
      message.skipField(tag.wireType, tag.field);
    }
  }
  return id;
}

}  // namespace Oro
