// Protobuf wire-format buffers. PbWriteBuffer appends varints, tags, fixed-width values and
// length-delimited fields to a growable byte vector; an embedded message is written between
// openSection() and closeSection(), which back-fills the section's length as a minimal
// varint. Sections nest and must be closed innermost first.
//
// PbReadBuffer reads from a byte span it does not own, never past its end: any truncated,
// overlong or otherwise malformed input raises Oro::ProtobufReadException with the message
// kProtobufReadError and leaves the caller to discard the buffer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace Oro {

inline constexpr const char* kProtobufReadError = "Unexpected error when reading Protobuf bytes";

enum PbWireType : uint8_t {
  kPbVarint = 0,
  kPbFixed64 = 1,
  kPbLengthDelimited = 2,
  kPbStartGroup = 3,
  kPbEndGroup = 4,
  kPbFixed32 = 5,
};

class PbWriteBuffer {
 public:
  // An open length-delimited section: where its length byte sits.
  struct Section {
    size_t lengthAt;
  };

  void writeVarint(uint64_t v);
  void writeTag(uint32_t field, uint8_t wireType) {
    writeVarint((uint64_t{field} << 3) | (wireType & 7u));
  }
  void writeFixed32(uint32_t v);
  void writeFixed64(uint64_t v);
  // Varint length, then the bytes (the caller writes the tag first).
  void writeLengthDelimited(std::span<const uint8_t> bytes);
  void writeLengthDelimited(std::string_view bytes) {
    writeLengthDelimited(
        std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()));
  }

  Section openSection();
  void closeSection(Section s);
  size_t openSections() const { return open_.size(); }

  const uint8_t* data() const { return bytes_.data(); }
  size_t size() const { return bytes_.size(); }
  std::span<const uint8_t> bytes() const { return bytes_; }
  void clear();

 private:
  std::vector<uint8_t> bytes_;
  std::vector<size_t> open_;  // lengthAt of every open section, innermost last
};

class PbReadBuffer {
 public:
  struct Tag {
    uint32_t field;
    uint8_t wireType;
  };

  PbReadBuffer() = default;
  explicit PbReadBuffer(std::span<const uint8_t> bytes)
      : pos_(bytes.data()), end_(pos_ + bytes.size()) {}
  PbReadBuffer(const uint8_t* data, size_t size) : pos_(data), end_(data + size) {}

  uint64_t readVarint();
  // A varint truncated to its low 32 bits, as protobuf reads 32-bit fields.
  uint32_t readVarint32() { return static_cast<uint32_t>(readVarint()); }
  // Field number 0 and a tag wider than 32 bits are not valid tags and raise the read error.
  Tag readTag();
  uint32_t readFixed32();
  uint64_t readFixed64();
  // The next len bytes as a buffer of their own; this buffer moves past them.
  PbReadBuffer readSection(uint64_t len);
  // A varint length followed by that many bytes.
  std::span<const uint8_t> readLengthDelimited();
  // Skips the value of field `field` (its tag just read) by its wire type. A group (a start
  // tag, fields, the end tag of the same number) is skipped whole, nested to at most
  // kMaxGroupDepth; an end tag without its start, and the undefined types 6 and 7, raise the
  // read error.
  void skipField(uint8_t wireType, uint32_t field = 0);
  static constexpr int kMaxGroupDepth = 100;

  size_t remaining() const { return static_cast<size_t>(end_ - pos_); }
  bool atEnd() const { return pos_ == end_; }

 private:
  void skipGroup(uint32_t field, int depth);
  const uint8_t* take(uint64_t n);

  const uint8_t* pos_ = nullptr;
  const uint8_t* end_ = nullptr;
};

}  // namespace Oro
