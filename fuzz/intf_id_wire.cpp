// The embedded interface-id message (readIntfIdMessage): bytes are rejected with
// ProtobufReadException, or read an id that writeIntfIdField writes back readably.
#include "FuzzCheck.h"
#include "platform/net/IntfIdWire.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Oro::PbReadBuffer in(Fuzz::asBytes(data, size));
  const auto id =
      Fuzz::rejectOnly<Oro::ProtobufReadException>([&] { return Oro::readIntfIdMessage(in); });
  if (!id) return 0;
  FUZZ_CHECK(in.atEnd(), "the message was not read to its end");

  constexpr uint32_t kField = 22662;
  Oro::PbWriteBuffer out;
  Oro::writeIntfIdField(out, kField, *id);
  Oro::PbReadBuffer back(out.bytes());
  const Oro::PbReadBuffer::Tag tag = back.readTag();
  FUZZ_CHECK(tag.field == kField && tag.wireType == Oro::kPbLengthDelimited, "bad tag written");
  Oro::PbReadBuffer message = back.readSection(back.readVarint());
  FUZZ_CHECK(back.atEnd(), "bytes behind the field");
  FUZZ_CHECK(Oro::readIntfIdMessage(message) == *id, id->toStrep());
  return 0;
}
