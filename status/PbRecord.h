// The protobuf framing shared by every record kept in a shared-memory table: a record is an
// embedded message (varint length, then its fields). Each record type supplies its own
// writeMessage(out, record) and readMessageField(in, number, wireType, record), found by
// argument-dependent lookup; these templates add the framing around them.
#pragma once

#include <cstdint>

#include "platform/WireBuffer.h"

namespace Routing::Multicast {

// Writes the record as an embedded message: its fields inside a length-delimited section
// whose length is filled in when the section closes.
template <class Record>
void writePbMessage(Oro::PbWriteBuffer& out, const Record& record) {
  Oro::PbWriteBuffer::Section s = out.openSection();
  writeMessage(out, record);
  out.closeSection(s);
}

// Reads a varint length L, then every field of the L bytes (which must lie within `in`);
// `in` is left just behind them. Unknown fields are skipped by readMessageField. The fields
// are read into a copy: bytes that turn out malformed after some good fields leave `record`
// as it was, never half read.
template <class Record>
void readMessage(Oro::PbReadBuffer& in, Record& record) {
  const uint64_t length = in.readVarint();
  Oro::PbReadBuffer fields = in.readSection(length);
  Record read = record;
  while (!fields.atEnd()) {
    const Oro::PbReadBuffer::Tag tag = fields.readTag();
    readMessageField(fields, tag.field, tag.wireType, read);
  }
  record = read;
}

}  // namespace Routing::Multicast
