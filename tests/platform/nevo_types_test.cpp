// The value types and their forms: addresses, prefixes, interface ids, VRF ids, the parse
// cursor, the value form, hashes; Protobuf wire buffers (varints, sections, bounds checks, and
// interoperability with protoc-generated code).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <unordered_set>

#include "common/wire_bytes.h"
#include "platform/CharRange.h"
#include "platform/Error.h"
#include "platform/Hash.h"
#include "platform/SipHash.h"
#include "platform/ValueForm.h"
#include "platform/WireBuffer.h"
#include "platform/net/IntfId.h"
#include "platform/net/IpAddr.h"
#include "platform/net/VrfId.h"
#include "wire_test.pb.h"

namespace {

using Nevo::IntfId;
using Nevo::IpGenAddr;
using Nevo::IpGenPrefix;
using Oro::strepToValue;
using Vrf::VrfIdMap::VrfId;

IpGenAddr ip(const char* text) {
  return strepToValue<IpGenAddr>(text);
}

// Each text is rejected with exception E when parsed as a T.
template <class T, class E>
void expectRejected(std::initializer_list<const char*> texts) {
  for (const char* text : texts) EXPECT_THROW(strepToValue<T>(text), E) << text;
}

TEST(IpGenAddr, DefaultTextRoundTripErrorsOrderHashAndPrefixes) {
  IpGenAddr a;
  EXPECT_EQ(a.af(), Nevo::ipv4);
  EXPECT_TRUE(a.isZero());
  EXPECT_NE(a, IpGenAddr::zero(Nevo::ipv6));
  for (const char* text :
       {"10.0.0.1", "239.255.0.7", "::", "2001:db8::1", "ff0e::1:2", "::ffff:1.2.3.4"}) {
    EXPECT_EQ(ip(text).toStrep(), text);
  }
  EXPECT_EQ(ip("10.0.0.1").v4HostOrder(), 0x0a000001u);
  EXPECT_EQ(IpGenAddr::ipv4Addr(0xe0000001u).toStrep(), "224.0.0.1");
  EXPECT_TRUE(ip("224.0.0.1").isMulticast());
  EXPECT_TRUE(ip("ff02::1").isMulticast());
  EXPECT_FALSE(ip("10.0.0.1").isMulticast());
  expectRejected<IpGenAddr, Oro::ParseException>(
      {"", "10.0.0", "10.0.0.256", "1::2::3", "x", "10.0.0.1 ", "10.0.0.1x"});
  // Reading from a longer text stops at a following colon.
  Oro::CharRange in("10.0.0.1: UMH");
  EXPECT_EQ(IpGenAddr::readFrom(in), ip("10.0.0.1"));
  EXPECT_EQ(in.rest(), ": UMH");
  // However many colons follow (each used to cost a copy and a parse of the whole run).
  const std::string colons = "::1" + std::string(1 << 20, ':');
  Oro::CharRange many(colons);
  EXPECT_EQ(IpGenAddr::readFrom(many), ip("::1"));
  EXPECT_EQ(many.rest().size(), size_t{1} << 20);

  // Order is family first, then bytes; the hash uses both.
  EXPECT_LT(ip("255.255.255.255"), ip("::"));
  EXPECT_LT(ip("10.0.0.1"), ip("10.0.0.2"));
  EXPECT_LT(ip("9.255.0.0"), ip("10.0.0.0"));
  const IpGenAddr h = ip("10.0.0.1");
  EXPECT_NE(h.hash(1), h.hash(2));
  EXPECT_NE(h.hash(1), ip("10.0.0.2").hash(1));
  // Same bytes, different family.
  EXPECT_NE(IpGenAddr::zero(Nevo::ipv4).hash(7), IpGenAddr::zero(Nevo::ipv6).hash(7));

  // Prefixes: text, mask and range.
  for (auto [text, canonical] : {std::pair{"10.0.0.0/8", "10.0.0.0/8"},
                                 {"10.1.2.3/12", "10.0.0.0/12"},
                                 {"2001:db8:ffff::1/33", "2001:db8:8000::/33"},
                                 {"10.1.2.3/32", "10.1.2.3/32"}}) {
    EXPECT_EQ(strepToValue<IpGenPrefix>(text).toStrep(), canonical);
  }
  EXPECT_EQ(strepToValue<IpGenPrefix>("::1/128").len(), 128u);
  expectRejected<IpGenPrefix, Oro::RangeException>(
      {"10.0.0.0/33", "::/129", "::/99999999999999999999999"});
  expectRejected<IpGenPrefix, Oro::ParseException>({"10.0.0.0", "10.0.0.0/", "10.0.0.0/8/"});
  auto p = strepToValue<IpGenPrefix>("10.0.0.0/8");
  EXPECT_TRUE(p.contains(ip("10.200.1.1")));
  EXPECT_FALSE(p.contains(ip("11.0.0.0")));
  EXPECT_LT(p, strepToValue<IpGenPrefix>("10.0.0.0/9"));
  EXPECT_NE(p.hash(3), strepToValue<IpGenPrefix>("10.0.0.0/9").hash(3));
}

TEST(IntfId, TypedIdsTextErrorsOrderAndVrfIds) {
  EXPECT_FALSE(IntfId::ethernet(0).empty());
  EXPECT_EQ(IntfId::vlan(100).toStrep(), "Vlan100");
  EXPECT_TRUE(IntfId::vlan(100).isVlan());
  EXPECT_FALSE(IntfId::ethernet(3).isVlan());
  for (const char* text : {"(empty)", "Ethernet3", "Vlan4094", "Loopback0", "Tunnel7",
                           "Port-Channel2", "IntfId(5)", "IntfId(18446744073709551615)"}) {
    EXPECT_EQ(strepToValue<IntfId>(text).toStrep(), text);
  }
  // A value with bits between type and number set is opaque.
  IntfId odd((uint64_t{2} << 56) | (uint64_t{1} << 40) | 5);
  EXPECT_FALSE(odd.isVlan());
  EXPECT_EQ(strepToValue<IntfId>(odd.toStrep()), odd);
  expectRejected<IntfId, Oro::ParseException>({"", "Vlan", "Bogus1", "Vlan1x"});
  expectRejected<IntfId, Oro::RangeException>({"Vlan4294967296"});
  EXPECT_LT(IntfId(), IntfId::ethernet(1));
  EXPECT_LT(IntfId::ethernet(9), IntfId::vlan(1));
  EXPECT_NE(IntfId::vlan(1).hash(0), IntfId::vlan(2).hash(0));

  // VRF ids: default, text, range and order.
  EXPECT_FALSE(VrfId().isValid());
  EXPECT_EQ(VrfId(12).toStrep(), "12");
  EXPECT_EQ(fmt::format("{}", VrfId(12)), "12");
  EXPECT_EQ(strepToValue<VrfId>("4294967295").value(), 4294967295u);
  expectRejected<VrfId, Oro::RangeException>({"4294967296"});
  expectRejected<VrfId, Oro::ParseException>({"-1", "12 "});
  EXPECT_LT(VrfId(2), VrfId(10));
  EXPECT_EQ((std::unordered_set<VrfId>{VrfId(1), VrfId(2), VrfId(1)}.size()), 2u);
}

TEST(CharRange, CursorOperationsAndTheValueForm) {
  Oro::CharRange in("abc 'x\\'y' \"q\" 42");
  EXPECT_EQ(in.peek(), 'a');
  EXPECT_FALSE(in.consume("abd"));
  EXPECT_EQ(in.position(), 0u);
  EXPECT_TRUE(in.consume("ab"));
  EXPECT_TRUE(in.consume('c'));
  in.expect(" ");
  EXPECT_EQ(in.readQuoted(), "x'y");
  in.skipSpaces();
  EXPECT_EQ(in.readQuoted(), "q");
  in.skipSpaces();
  EXPECT_EQ(in.readUnsigned(), 42u);
  EXPECT_TRUE(in.atEnd());
  EXPECT_EQ(in.peek(), '\0');
  EXPECT_FALSE(in.consume('\0'));
  EXPECT_THROW(in.expect("x"), Oro::ParseException);
  EXPECT_THROW(in.next(), Oro::ParseException);

  Oro::CharRange open("'abc"), big("18446744073709551616");
  EXPECT_THROW(open.readQuoted(), Oro::ParseException);
  EXPECT_THROW(big.readUnsigned(), Oro::RangeException);
  std::string s = "it's \\ here";
  std::string quoted = Oro::quoteText(s);
  Oro::CharRange q(quoted);
  EXPECT_EQ(q.readQuoted(), s);

  // The value form is written, read back and rejected by the records' tests (types_test,
  // status_test); none of those breaks its frame: "**" missing, a wrong bracket.
  auto readKey = [](const char* text) {
    Oro::CharRange in(text);
    Oro::ValueFormReader r(in, "Test::Rec");
    r.attr("key", VrfId::readFrom);
    r.end();
  };
  for (const char* bad : {"Value('Test::Rec', {'key': 1})", "Value('Test::Rec', ** {'key': 1]"}) {
    EXPECT_THROW(readKey(bad), Oro::ParseException) << bad;
  }
}

// The seeded mixes, and SipHash-2-4 against its reference vectors (key 00..0f; messages
// 00..0e and empty).
TEST(Hash, MixesAllBitsAndSeedAndSipHashMatchesItsReference) {
  EXPECT_NE(Oro::hashU64(1, 0), Oro::hashU64(uint64_t{1} << 32, 0));
  EXPECT_NE(Oro::hashBytes("ab", 2, 0), Oro::hashBytes("ab\0", 3, 0));
  EXPECT_EQ(Oro::processHashSeed(), Oro::processHashSeed());
  EXPECT_NE(Oro::collectionHashSeed(1), Oro::collectionHashSeed(2));
  constexpr uint64_t k0 = 0x0706050403020100ull, k1 = 0x0f0e0d0c0b0a0908ull;
  const char msg[15] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14};
  EXPECT_EQ(Oro::sipHash24(k0, k1, std::string_view(msg, 15)), 0xa129ca6149be45e5ull);
  EXPECT_EQ(Oro::sipHash24(k0, k1, {}), 0x726fdb47dd0e0e31ull);
}

using wiretest::Bytes;
using wiretest::bytesOf;
using wiretest::expectReadError;

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

TEST(PbWriteBufferDeathTest, VarintsFixedValuesAndSectionsClosedInnermostFirst) {
  // Tags, varints and sections are checked against generated code by PbInterop below; nested
  // sections with multi-byte lengths are written and read back by fuzz/wire_buffer.cpp.
  Oro::PbWriteBuffer w;
  w.writeVarint(300);
  w.writeVarint(UINT64_MAX);
  w.writeFixed32(0x01020304);
  w.writeFixed64(0x1122334455667788);
  EXPECT_EQ(bytesOf(w),
            (Bytes{0xAC, 0x02, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01,
                   0x04, 0x03, 0x02, 0x01, 0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11}));

  // Closing an outer section first is fatal.
  Oro::PbWriteBuffer bad;
  auto first = bad.openSection();
  bad.openSection();
  EXPECT_DEATH(bad.closeSection(first),
               "Assertion failed: !open_.empty\\(\\) && open_.back\\(\\) == s.lengthAt && "
               "\"sections are closed innermost first\"");
}

// Reading and skipping every wire type agree on any bytes (fuzz/wire_buffer.cpp); what no
// fuzzer can tell is which input is malformed.
TEST(PbReadBuffer, NarrowReadsTruncateAndMalformedInputRaises) {
  // 2^35 + 5 read as 32 bits: the low 32 bits.
  EXPECT_EQ(Oro::PbReadBuffer(Bytes{0x85, 0x80, 0x80, 0x80, 0x80, 0x01}).readVarint32(), 5u);

  // Malformed input raises the read error.
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
  Oro::PbReadBuffer s(shortSection);
  s.readVarint();
  expectReadError([&] { s.readSection(5); });
  EXPECT_EQ(s.remaining(), 2u);
  expectReadError([&] { Oro::PbReadBuffer(shortSection).readLengthDelimited(); });
  expectReadError([&] { s.readSection(UINT64_MAX); });

  const Bytes two{0x01, 0x02};
  expectReadError([&] { Oro::PbReadBuffer(two).readFixed32(); });
  expectReadError([&] { Oro::PbReadBuffer(two).skipField(Oro::kPbFixed64); });
  for (uint8_t wt : {3, 4, 6, 7}) expectReadError([&] { Oro::PbReadBuffer(two).skipField(wt); });
  // A group (field 9: a varint, a nested group of field 2) is skipped whole, up to its own end
  // tag; a wrong end tag, a missing one and nesting past the bound raise the read error.
  const Bytes group{0x08, 0x05, 0x13, 0x08, 0x01, 0x14, 0x4C, 0x08, 0x07};
  Oro::PbReadBuffer g(group);
  g.skipField(Oro::kPbStartGroup, 9);
  EXPECT_EQ(g.readTag().field, 1u);
  EXPECT_EQ(g.readVarint(), 7u);
  expectReadError([&] { Oro::PbReadBuffer(group).skipField(Oro::kPbStartGroup, 8); });
  expectReadError([&] { Oro::PbReadBuffer(Bytes{0x08, 0x05}).skipField(Oro::kPbStartGroup, 9); });
  Bytes deep;
  for (int i = 0; i <= Oro::PbReadBuffer::kMaxGroupDepth; ++i) deep.push_back(0x0B);  // field 1
  expectReadError([&] { Oro::PbReadBuffer(deep).skipField(Oro::kPbStartGroup, 1); });
  const Bytes fieldZero{0x00};
  expectReadError([&] { Oro::PbReadBuffer(fieldZero).readTag(); });
  // 2^32 + the tag of field 15702: its low 32 bits must not be read as that field.
  const Bytes wideTag{0xB0, 0xD5, 0x87, 0x80, 0x10};
  expectReadError([&] { Oro::PbReadBuffer(wideTag).readTag(); });
}

// Our reader reads back whatever our writer writes (fuzz/wire_buffer.cpp); the writer's bytes
// are the generated code's.
TEST(PbInterop, OurBytesParseWithGeneratedCodeAndAreItsOwn) {
  Oro::PbWriteBuffer w;
  const std::string longName(150, 'x');
  writeOuter(w, longName, 4000000000u, uint64_t{1} << 60, 0);
  mvpntest::Outer parsed;
  ASSERT_TRUE(parsed.ParseFromArray(w.data(), static_cast<int>(w.size())));
  EXPECT_EQ(parsed.name(), longName);
  EXPECT_EQ(parsed.key(), 4000000000u);
  EXPECT_EQ(parsed.inner().counter(), uint64_t{1} << 60);
  ASSERT_TRUE(parsed.has_client());
  EXPECT_EQ(parsed.client(), 0u);
  // Same bytes as the generated serializer, including the back-filled section length.
  EXPECT_EQ(parsed.SerializeAsString(), std::string(w.data(), w.data() + w.size()));
}

}  // namespace
