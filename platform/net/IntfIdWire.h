// Protobuf wire form of Nevo::IntfId: an embedded message with one field, number 6769, wire
// type 0, holding the id's 64-bit value as an unsigned varint.
#pragma once

#include <cstdint>

#include "platform/net/IntfId.h"
#include "platform/WireBuffer.h"

namespace Oro {

inline constexpr uint32_t kIntfIdValueField = 6769;

// Writes tag (field, length-delimited) and the embedded message.
void writeIntfIdField(PbWriteBuffer& out, uint32_t field, const Nevo::IntfId& id);
// Reads the embedded message's bytes (the section after the length): field 6769 with wire
// type 0 sets the value, with another wire type raises ProtobufReadException; other fields
// are skipped. An absent field leaves the empty id.
Nevo::IntfId readIntfIdMessage(PbReadBuffer& message);

}  // namespace Oro
