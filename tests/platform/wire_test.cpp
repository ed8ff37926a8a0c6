// Protobuf wire buffers: varints, sections, bounds checks, and interoperability with
// protoc-generated code.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/Error.h"
#include "platform/WireBuffer.h"
#include "wire_test.pb.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes bytesOf(const Oro::PbWriteBuffer& w) {
  return Bytes(w.data(), w.data() + w.size());
}

template <class F>
void expectReadError(F&& f) {
  EXPECT_THAT(f, ::testing::ThrowsMessage<Oro::ProtobufReadException>(
                     ::testing::StrEq("Unexpected error when reading Protobuf bytes")));
}

// Writes Outer{name, key, inner{counter}, client} in field-number order, as protobuf does.
void writeOuter(Oro::PbWriteBuffer& w, const std::string& name, uint32_t key, uint64_t counter,
                uint64_t client) {
  w.writeTag(3, Oro::kPbLengthDelimited);
  w.writeLengthDelimited(name);
  w.writeTag(15702, Oro::kPbVarint);
  w.writeVarint(key);
  w.writeTag(22662, Oro::kPbLengthDelimited);
  auto s = w.openSection();
  w.writeTag(6769, Oro::kPbVarint);
  w.writeVarint(counter);
  w.closeSection(s);
  w.writeTag(32360, Oro::kPbVarint);
  w.writeVarint(client);
}

TEST(PbWriteBuffer, EncodesVarintsTagsAndFixedValues) {
  Oro::PbWriteBuffer w;
  w.writeTag(15702, Oro::kPbVarint);
  w.writeVarint(7);
  w.writeTag(32360, Oro::kPbVarint);
  w.writeVarint(0);
  EXPECT_EQ(bytesOf(w), (Bytes{0xB0, 0xD5, 0x07, 0x07, 0xC0, 0xE6, 0x0F, 0x00}));

  w.clear();
  w.writeVarint(300);
  w.writeVarint(UINT64_MAX);
  w.writeFixed32(0x01020304);
  w.writeFixed64(0x1122334455667788);
  EXPECT_EQ(bytesOf(w),
            (Bytes{0xAC, 0x02, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01,
                   0x04, 0x03, 0x02, 0x01, 0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11}));
}

TEST(PbWriteBuffer, SectionsBackFillMinimalLengthsAndNest) {
  Oro::PbWriteBuffer w;
  auto empty = w.openSection();
  w.closeSection(empty);
  EXPECT_EQ(bytesOf(w), (Bytes{0x00}));

  // 200 bytes need a two-byte length: the content shifts up by one.
  w.clear();
  w.writeVarint(1);
  auto outer = w.openSection();
  auto inner = w.openSection();
  for (int i = 0; i < 200; ++i) w.writeVarint(i % 100);
  w.closeSection(inner);
  w.writeVarint(9);
  w.closeSection(outer);
  w.writeVarint(2);
  ASSERT_EQ(w.size(), 1u + 2u + 2u + 200u + 1u + 1u);
  EXPECT_EQ(w.openSections(), 0u);

  Oro::PbReadBuffer r(w.bytes());
  EXPECT_EQ(r.readVarint(), 1u);
  auto o = r.readSection(r.readVarint());
  EXPECT_EQ(o.remaining(), 203u);
  auto i = o.readSection(o.readVarint());
  for (int k = 0; k < 200; ++k) EXPECT_EQ(i.readVarint(), uint64_t(k % 100));
  EXPECT_TRUE(i.atEnd());
  EXPECT_EQ(o.readVarint(), 9u);
  EXPECT_TRUE(o.atEnd());
  EXPECT_EQ(r.readVarint(), 2u);
  EXPECT_TRUE(r.atEnd());
}

TEST(PbWriteBufferDeathTest, ClosingAnOuterSectionFirstIsFatal) {
  Oro::PbWriteBuffer w;
  auto outer = w.openSection();
  w.openSection();
  EXPECT_DEATH(w.closeSection(outer),
               "Assertion failed: !open_.empty\\(\\) && open_.back\\(\\) == s.lengthAt && "
               "\"sections are closed innermost first\"");
}

TEST(PbReadBuffer, ReadsValuesAndSkipsEveryKnownWireType) {
  Oro::PbWriteBuffer w;
  w.writeVarint(uint64_t{1} << 35 | 5);
  w.writeTag(1, Oro::kPbVarint);
  w.writeVarint(12345);
  w.writeTag(2, Oro::kPbFixed64);
  w.writeFixed64(1);
  w.writeTag(3, Oro::kPbLengthDelimited);
  w.writeLengthDelimited(std::string_view("abc"));
  w.writeTag(4, Oro::kPbFixed32);
  w.writeFixed32(2);
  w.writeFixed32(0xdeadbeef);

  Oro::PbReadBuffer r(w.bytes());
  EXPECT_EQ(r.readVarint32(), 5u);  // truncated to the low 32 bits
  for (uint32_t field = 1; field <= 4; ++field) {
    auto t = r.readTag();
    EXPECT_EQ(t.field, field);
    r.skipField(t.wireType);
  }
  EXPECT_EQ(r.remaining(), 4u);
  EXPECT_EQ(r.readFixed32(), 0xdeadbeefu);
  EXPECT_TRUE(r.atEnd());
}

TEST(PbReadBuffer, MalformedInputRaisesTheReadError) {
  const Bytes truncated{0x80, 0x80};
  expectReadError([&] { Oro::PbReadBuffer(truncated).readVarint(); });
  expectReadError([&] { Oro::PbReadBuffer().readVarint(); });
  Bytes overlong(10, 0xFF);
  overlong.push_back(0x01);
  expectReadError([&] { Oro::PbReadBuffer(overlong).readVarint(); });
  Bytes tenBytes(9, 0xFF);
  tenBytes.push_back(0x01);
  EXPECT_EQ(Oro::PbReadBuffer(tenBytes).readVarint(), UINT64_MAX);

  // A section longer than what is left; the buffer stays where it was.
  const Bytes shortSection{0x05, 0x01, 0x02};
  Oro::PbReadBuffer r(shortSection);
  r.readVarint();
  expectReadError([&] { r.readSection(5); });
  EXPECT_EQ(r.remaining(), 2u);
  expectReadError([&] { Oro::PbReadBuffer(shortSection).readLengthDelimited(); });
  expectReadError([&] { r.readSection(UINT64_MAX); });

  const Bytes two{0x01, 0x02};
  expectReadError([&] { Oro::PbReadBuffer(two).readFixed32(); });
  expectReadError([&] { Oro::PbReadBuffer(two).skipField(Oro::kPbFixed64); });
  for (uint8_t wt : {3, 4, 6, 7}) expectReadError([&] { Oro::PbReadBuffer(two).skipField(wt); });
  const Bytes fieldZero{0x00};
  expectReadError([&] { Oro::PbReadBuffer(fieldZero).readTag(); });
}

TEST(PbInterop, OurBytesParseWithGeneratedCodeAndBack) {
  Oro::PbWriteBuffer w;
  const std::string longName(150, 'x');
  writeOuter(w, longName, 4000000000u, uint64_t{1} << 60, 3);
  mvpntest::Outer parsed;
  ASSERT_TRUE(parsed.ParseFromArray(w.data(), static_cast<int>(w.size())));
  EXPECT_EQ(parsed.name(), longName);
  EXPECT_EQ(parsed.key(), 4000000000u);
  EXPECT_EQ(parsed.inner().counter(), uint64_t{1} << 60);
  EXPECT_EQ(parsed.client(), 3u);
  // Same bytes as the generated serializer, including the back-filled section length.
  EXPECT_EQ(parsed.SerializeAsString(), std::string(w.data(), w.data() + w.size()));

  // Generated bytes are ours byte for byte, and our reader walks them field by field.
  mvpntest::Outer m;
  m.set_key(7);
  m.set_client(0);
  m.set_name("vrf");
  m.mutable_inner()->set_counter(300);
  const std::string bytes = m.SerializeAsString();
  Oro::PbWriteBuffer again;
  writeOuter(again, "vrf", 7, 300, 0);
  EXPECT_EQ(std::string(again.data(), again.data() + again.size()), bytes);

  Oro::PbReadBuffer r(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  EXPECT_EQ(r.readTag().field, 3u);
  auto name = r.readLengthDelimited();
  EXPECT_EQ(std::string(name.begin(), name.end()), "vrf");
  EXPECT_EQ(r.readTag().field, 15702u);
  EXPECT_EQ(r.readVarint32(), 7u);
  EXPECT_EQ(r.readTag().field, 22662u);
  auto inner = r.readSection(r.readVarint());
  EXPECT_EQ(inner.readTag().field, 6769u);
  EXPECT_EQ(inner.readVarint(), 300u);
  EXPECT_TRUE(inner.atEnd());
  EXPECT_EQ(r.readTag().field, 32360u);
  EXPECT_EQ(r.readVarint(), 0u);
  EXPECT_TRUE(r.atEnd());
}

}  // namespace
