// The protobuf buffers on arbitrary bytes read as a sequence of fields. Reading each field's
// value and skipping it (skipField) must agree: both reject the bytes with
// ProtobufReadException, or both consume them all. Fields read (unless a group, which is only
// ever skipped, is among them) are written back inside a section (length-delimited ones
// alternately as plain fields and as nested sections, so that sections longer than one length
// byte are closed too) and must read back equal.
#include <algorithm>
#include <optional>
#include <vector>

#include "FuzzCheck.h"

namespace {

struct Field {
  uint32_t number;
  uint8_t wireType;
  uint64_t value = 0;
  std::vector<uint8_t> bytes;
  friend bool operator==(const Field&, const Field&) = default;
};

std::vector<Field> readFields(Oro::PbReadBuffer in) {
  std::vector<Field> fields;
  while (!in.atEnd()) {
    const size_t before = in.remaining();
    const Oro::PbReadBuffer::Tag tag = in.readTag();
    FUZZ_CHECK(tag.field != 0 && tag.wireType < 8, "bad tag accepted");
    Field f{tag.field, tag.wireType, 0, {}};
    switch (tag.wireType) {
      case Oro::kPbVarint:
        f.value = in.readVarint();
        break;
      case Oro::kPbFixed64:
        f.value = in.readFixed64();
        break;
      case Oro::kPbFixed32:
        f.value = in.readFixed32();
        break;
      case Oro::kPbLengthDelimited: {
        const std::span<const uint8_t> s = in.readLengthDelimited();
        f.bytes.assign(s.begin(), s.end());
        break;
      }
      case Oro::kPbStartGroup:  // skipped whole: the field list only says it was there
        in.skipField(tag.wireType, tag.field);
        break;
      default:
        in.skipField(tag.wireType, tag.field);
        Fuzz::fail("skipField accepts an end tag alone or an undefined wire type",
                   std::to_string(tag.wireType), __FILE__, __LINE__);
    }
    FUZZ_CHECK(in.remaining() < before, "a field consumed nothing");
    fields.push_back(std::move(f));
  }
  return fields;
}

bool holdsGroup(const std::vector<Field>& fields) {
  return std::ranges::any_of(fields,
                             [](const Field& f) { return f.wireType == Oro::kPbStartGroup; });
}

bool skipAll(Oro::PbReadBuffer in) {
  while (!in.atEnd()) {
    const Oro::PbReadBuffer::Tag tag = in.readTag();
    in.skipField(tag.wireType, tag.field);
  }
  return true;
}

// Writes fields back. A length-delimited field whose bytes are themselves fields written
// canonically goes out as a nested section every other time (to a bounded depth), so that
// the section framing, including its back-filled multi-byte lengths, is read back too.
void writeFields(Oro::PbWriteBuffer& out, const std::vector<Field>& fields, int depth) {
  bool nest = true;
  for (const Field& f : fields) {
    out.writeTag(f.number, f.wireType);
    switch (f.wireType) {
      case Oro::kPbVarint:
        out.writeVarint(f.value);
        break;
      case Oro::kPbFixed64:
        out.writeFixed64(f.value);
        break;
      case Oro::kPbFixed32:
        out.writeFixed32(static_cast<uint32_t>(f.value));
        break;
      default: {
        nest = !nest;
        std::optional<std::vector<Field>> inner;
        if (nest && depth < 8) {
          inner = Fuzz::rejectOnly<Oro::ProtobufReadException>(
              [&] { return readFields(Oro::PbReadBuffer(f.bytes)); });
        }
        if (inner && holdsGroup(*inner)) inner.reset();  // groups are not written back
        if (inner) {
          Oro::PbWriteBuffer probe;
          writeFields(probe, *inner, depth + 1);
          if (!std::ranges::equal(probe.bytes(), f.bytes)) inner.reset();
        }
        if (inner) {
          const Oro::PbWriteBuffer::Section s = out.openSection();
          writeFields(out, *inner, depth + 1);
          out.closeSection(s);
        } else {
          out.writeLengthDelimited(f.bytes);
        }
      }
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::span<const uint8_t> bytes = Fuzz::asBytes(data, size);
  const auto fields = Fuzz::rejectOnly<Oro::ProtobufReadException>(
      [&] { return readFields(Oro::PbReadBuffer(bytes)); });
  const auto skipped = Fuzz::rejectOnly<Oro::ProtobufReadException>(
      [&] { return skipAll(Oro::PbReadBuffer(bytes)); });
  FUZZ_CHECK(fields.has_value() == skipped.has_value(), "reading and skipping disagree");
  if (!fields || holdsGroup(*fields)) return 0;

  Oro::PbWriteBuffer out;
  out.writeTag(1, Oro::kPbLengthDelimited);
  const Oro::PbWriteBuffer::Section s = out.openSection();
  writeFields(out, *fields, 0);
  out.closeSection(s);
  FUZZ_CHECK(out.openSections() == 0, "a section left open");

  Oro::PbReadBuffer back(out.bytes());
  const Oro::PbReadBuffer::Tag tag = back.readTag();
  FUZZ_CHECK(tag.field == 1 && tag.wireType == Oro::kPbLengthDelimited, "bad outer tag");
  const std::span<const uint8_t> inner = back.readLengthDelimited();
  FUZZ_CHECK(back.atEnd(), "bytes behind the outer section");
  FUZZ_CHECK(readFields(Oro::PbReadBuffer(inner)) == *fields, "fields read back differ");
  return 0;
}
