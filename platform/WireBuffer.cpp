#include "platform/WireBuffer.h"


#include "platform/Assert.h"
#include "platform/Error.h"

namespace Oro {

namespace {

size_t varintSize(uint64_t v) {
  size_t n = 1;
  while (v >= 0x80) {
    v >>= 7;
    ++n;
  }
  return n;
}

uint8_t* putVarint(uint8_t* p, uint64_t v) {
  while (v >= 0x80) {
    *p++ = static_cast<uint8_t>(v) | 0x80;
    v >>= 7;
  }
  *p++ = static_cast<uint8_t>(v);
  return p;
}

[[noreturn]] void readError() {
  throw ProtobufReadException(kProtobufReadError);
}

}  // namespace

void PbWriteBuffer::writeVarint(uint64_t v) {
  uint8_t tmp[10];
  uint8_t* end = putVarint(tmp, v);
  bytes_.insert(bytes_.end(), tmp, end);
}

void PbWriteBuffer::writeFixed32(uint32_t v) {
  for (int i = 0; i < 4; ++i) bytes_.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

void PbWriteBuffer::writeFixed64(uint64_t v) {
  for (int i = 0; i < 8; ++i) bytes_.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

void PbWriteBuffer::writeLengthDelimited(std::span<const uint8_t> bytes) {
  writeVarint(bytes.size());
  bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
}

PbWriteBuffer::Section PbWriteBuffer::openSection() {
  // One byte is reserved for the length: most sections are shorter than 128 bytes.
  Section s{bytes_.size()};
  bytes_.push_back(0);
  open_.push_back(s.lengthAt);
  return s;
}

void PbWriteBuffer::closeSection(Section s) {
  MVPN_ASSERT_MSG(!open_.empty() && open_.back() == s.lengthAt,
                  "sections are closed innermost first");
  open_.pop_back();
  const size_t len = bytes_.size() - s.lengthAt - 1;
  const size_t n = varintSize(len);
  if (n > 1) {
    // Make room for the longer length by shifting the section's bytes up.
    bytes_.insert(bytes_.begin() + static_cast<std::ptrdiff_t>(s.lengthAt) + 1, n - 1, 0);
  }
  putVarint(bytes_.data() + s.lengthAt, len);
}

void PbWriteBuffer::clear() {
  bytes_.clear();
  open_.clear();
}

const uint8_t* PbReadBuffer::take(uint64_t n) {
  if (n > remaining()) readError();
  const uint8_t* p = pos_;
  pos_ += n;
  return p;
}

uint64_t PbReadBuffer::readVarint() {
  uint64_t v = 0;
  for (int i = 0; i < 10; ++i) {
    if (pos_ == end_) readError();
    const uint8_t b = *pos_++;
    v |= uint64_t{b & 0x7fu} << (7 * i);
    if (!(b & 0x80)) return v;
  }
  readError();  // an eleventh byte would be needed
}

PbReadBuffer::Tag PbReadBuffer::readTag() {
  // A tag is a 32-bit varint. A wider one is not cut down to its low bits: that would read an
  // unknown field as whichever field those bits name.
  const uint64_t t = readVarint();
  if (t > UINT32_MAX || (t >> 3) == 0) readError();
  return Tag{static_cast<uint32_t>(t >> 3), static_cast<uint8_t>(t & 7)};
}

uint32_t PbReadBuffer::readFixed32() {
  const uint8_t* p = take(4);
  uint32_t v = 0;
  for (int i = 0; i < 4; ++i) v |= uint32_t{p[i]} << (8 * i);
  return v;
}

uint64_t PbReadBuffer::readFixed64() {
  const uint8_t* p = take(8);
  uint64_t v = 0;
  for (int i = 0; i < 8; ++i) v |= uint64_t{p[i]} << (8 * i);
  return v;
}

PbReadBuffer PbReadBuffer::readSection(uint64_t len) {
  const uint8_t* p = take(len);
  return PbReadBuffer(p, static_cast<size_t>(len));
}

std::span<const uint8_t> PbReadBuffer::readLengthDelimited() {
  const uint64_t len = readVarint();
  const uint8_t* p = take(len);
  return {p, static_cast<size_t>(len)};
}

void PbReadBuffer::skipField(uint8_t wireType, uint32_t field) {
  switch (wireType) {
    case kPbStartGroup:
      skipGroup(field, 1);
      return;
    case kPbVarint:
      readVarint();
      return;
    case kPbFixed64:
      take(8);
      return;
    case kPbLengthDelimited:
      readLengthDelimited();
      return;
    case kPbFixed32:
      take(4);
      return;
    default:
      readError();  // an end tag without its start, and undefined types
  }
}

// Iterative over the fields of one group, recursive over nested groups (bounded).
void PbReadBuffer::skipGroup(uint32_t field, int depth) {
  if (depth > kMaxGroupDepth) readError();
  for (;;) {
    const Tag t = readTag();  // running out of bytes before the end tag is an error too
    if (t.wireType == kPbEndGroup) {
      if (t.field != field) readError();
      return;
    }
    if (t.wireType == kPbStartGroup) {
      skipGroup(t.field, depth + 1);
    } else {
      skipField(t.wireType);
    }
  }
}

}  // namespace Oro
