// The wire property of a shared-memory record type (writePbMessage / constructFromPbMessage):
// bytes are either rejected with ProtobufReadException, or read a record that re-encodes to
// bytes which read back to an equal record and re-encode identically.
#pragma once

#include <algorithm>
#include <span>

#include "FuzzCheck.h"
#include "status/PbRecord.h"

namespace Fuzz {

template <class Record>
void checkRecordWire(std::span<const uint8_t> bytes) {
  Oro::PbReadBuffer in(bytes);
  Record v;
  const auto read = rejectOnly<Oro::ProtobufReadException>([&] {
    constructFromPbMessage(&v, in);
    return true;
  });
  if (!read) return;

  Oro::PbWriteBuffer out;
  writePbMessage(out, v);
  FUZZ_CHECK(out.openSections() == 0, "a section left open");
  Oro::PbReadBuffer again(out.bytes());
  Record back;
  try {
    constructFromPbMessage(&back, again);
  } catch (const Oro::ProtobufReadException& e) {
    fail("the written record reads back", e.what(), __FILE__, __LINE__);
  }
  FUZZ_CHECK(again.atEnd(), "bytes left behind the written record");
  FUZZ_CHECK(back == v, "the written record reads back different");
  Oro::PbWriteBuffer out2;
  writePbMessage(out2, back);
  FUZZ_CHECK(std::ranges::equal(out.bytes(), out2.bytes()), "the encoding is not canonical");
}

}  // namespace Fuzz
