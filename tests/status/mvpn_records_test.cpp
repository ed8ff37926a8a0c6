// MvpnVrf and MvpnVrfIntfId: equality, order, text and value forms, wire forms and their
// error cases.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/Error.h"
#include "status/MvpnVrf.h"
#include "status/MvpnVrfIntfId.h"

namespace Routing::Multicast {
namespace {

using Bytes = std::vector<uint8_t>;
using ::testing::Property;
using ::testing::StrEq;
using ::testing::Throws;
using ::testing::ThrowsMessage;
using Vrf::VrfIdMap::VrfId;

Bytes bytesOf(const Oro::PbWriteBuffer& b) {
  return Bytes(b.data(), b.data() + b.size());
}

// Parses a value form as a record of type R; a range error must name `attribute`.
template <class R>
void expectBadAttribute(const char* text, const char* attribute) {
  using E = Oro::DeserializationException;
  EXPECT_THAT(
      [text] {
        Oro::CharRange in(text);
        R{in};
      },
      Throws<E>(Property(&E::attribute, attribute)))
      << text;
}

template <class R>
void expectWireError(const Bytes& bytes) {
  EXPECT_THAT(
      [&] {
        Oro::PbReadBuffer in(bytes);
        R got;
        constructFromPbMessage(&got, in);
      },
      ThrowsMessage<Oro::ProtobufReadException>(
          StrEq("Unexpected error when reading Protobuf bytes")));
}

// One embedded message holding a single field `number` of wire type `wireType`.
Bytes messageWithField(uint32_t number, uint8_t wireType) {
  Oro::PbWriteBuffer out;
  auto s = out.openSection();
  out.writeTag(number, wireType);
  if (wireType == Oro::kPbVarint) {
    out.writeVarint(5);
  } else {
    out.writeLengthDelimited(std::string_view("a"));
  }
  out.closeSection(s);
  return bytesOf(out);
}

TEST(MvpnVrfTest, EqualityOrderTextAndDump) {
  const MvpnVrf def;
  EXPECT_EQ(def.key(), VrfId(16777215));
  EXPECT_EQ(def.client(), MvpnClient::bgp_);
  const MvpnVrf a(VrfId(12), MvpnClient::evpn_), b(VrfId(12), MvpnClient::staticMvpn_);
  EXPECT_FALSE(a.isEq(b));
  EXPECT_LT(b, a);  // same key: client decides
  EXPECT_LT(MvpnVrf(VrfId(3), MvpnClient::staticEvpn_), b);
  EXPECT_EQ(a.toStrep(), "12");
  EXPECT_EQ(a.toStrep(), b.toStrep());  // the client is not part of the text
  Oro::DumpContext dc;
  a.dumpState(dc, 0);
  a.dumpState(dc, 4);
  EXPECT_EQ(dc.str(), "VRF 12\n    VRF 12\n");
}

TEST(MvpnVrfTest, ValueFormParsesAndRejects) {
  const MvpnVrf a(VrfId(12), MvpnClient::staticEvpn_);
  const std::string text = a.toValueForm();
  EXPECT_EQ(text, "Value('Routing::Multicast::MvpnVrf', ** {'key': 12, 'client': staticEvpn})");
  Oro::CharRange in(text);
  EXPECT_EQ(MvpnVrf(in), a);
  for (const std::string& bad :
       {text + " ",
        std::string("Value('Routing::Multicast::Other', ** {'key': 1, 'client': bgp})")}) {
    Oro::CharRange r(bad);
    EXPECT_THROW(MvpnVrf{r}, Oro::ParseException) << bad;
  }
  expectBadAttribute<MvpnVrf>(
      "Value('Routing::Multicast::MvpnVrf', ** {'key': 99999999999, 'client': bgp})", "key");
  expectBadAttribute<MvpnVrf>("Value('Routing::Multicast::MvpnVrf', ** {'key': 1, 'client': nope})",
                              "client");
}

TEST(MvpnVrfTest, WireFormBytesAndReading) {
  Oro::PbWriteBuffer out;
  writeMessage(out, MvpnVrf(VrfId(7), MvpnClient::bgp_));
  EXPECT_EQ(bytesOf(out), (Bytes{0xB0, 0xD5, 0x07, 0x07, 0xC0, 0xE6, 0x0F, 0x00}));

  Oro::PbWriteBuffer framed;
  const MvpnVrf v(VrfId(300), MvpnClient::staticEvpn_);
  writePbMessage(framed, v);
  framed.writeVarint(99);  // something after the message
  Oro::PbReadBuffer in(framed.bytes());
  MvpnVrf got;
  constructFromPbMessage(&got, in);
  EXPECT_EQ(got, v);
  EXPECT_EQ(in.readVarint(), 99u);

  // Only the client field: the key keeps its default. An unknown field in between is skipped.
  Oro::PbWriteBuffer partial;
  auto s = partial.openSection();
  partial.writeTag(20000, Oro::kPbLengthDelimited);
  partial.writeLengthDelimited(std::string_view("zz"));
  partial.writeTag(MvpnVrf::kClientField, Oro::kPbVarint);
  partial.writeVarint(0x103);  // truncated to 8 bits: 3
  partial.closeSection(s);
  Oro::PbReadBuffer pin(partial.bytes());
  constructFromPbMessage(&got, pin);
  EXPECT_EQ(got, MvpnVrf(VrfId(16777215), MvpnClient::evpn_));

  // A zero length reads nothing.
  const Bytes empty{0x00};
  Oro::PbReadBuffer ein(empty);
  MvpnVrf keep(VrfId(5), MvpnClient::evpn_);
  readMessage(ein, keep);
  EXPECT_EQ(keep, MvpnVrf(VrfId(5), MvpnClient::evpn_));
  EXPECT_TRUE(ein.atEnd());
}

TEST(MvpnVrfTest, BadWireBytesRaise) {
  const Bytes keyAsBytes = messageWithField(MvpnVrf::kKeyField, Oro::kPbLengthDelimited);
  expectWireError<MvpnVrf>(keyAsBytes);
  MvpnVrf v;
  Oro::PbReadBuffer cin(keyAsBytes);
  EXPECT_THROW(readMessageField(cin, MvpnVrf::kClientField, Oro::kPbFixed32, v),
               Oro::ProtobufReadException);
  // A length that runs past the buffer; the record is left as it was.
  const Bytes truncated{0x08, 0xB0, 0xD5, 0x07, 0x07};
  Oro::PbReadBuffer tin(truncated);
  MvpnVrf t(VrfId(1), MvpnClient::evpn_);
  EXPECT_THROW(readMessage(tin, t), Oro::ProtobufReadException);
  EXPECT_EQ(t, MvpnVrf(VrfId(1), MvpnClient::evpn_));
}

TEST(MvpnVrfIntfIdTest, ValuesTextAndWireForms) {
  const MvpnVrfIntfId def;
  EXPECT_EQ(def.key(), VrfId(16777215));
  EXPECT_TRUE(def.pmsiIntfId().empty());
  const MvpnVrfIntfId a(VrfId(4), Nevo::IntfId::vlan(10)), b(VrfId(4), Nevo::IntfId::vlan(11));
  EXPECT_LT(a, b);
  EXPECT_LT(MvpnVrfIntfId(VrfId(3), Nevo::IntfId::vlan(99)), a);
  EXPECT_FALSE(a.isEq(b));

  const std::string text = a.toValueForm();
  Oro::CharRange in(text);
  EXPECT_EQ(MvpnVrfIntfId(in), a);
  expectBadAttribute<MvpnVrfIntfId>(
      "Value('Routing::Multicast::MvpnVrfIntfId', ** {'key': 4444444444, 'pmsiIntfId': Vlan10})",
      "key");

  Oro::PbWriteBuffer out;
  writeMessage(out, MvpnVrfIntfId(VrfId(7), Nevo::IntfId(5)));
  // key tag + 7, pmsiIntfId tag, length 3, inner tag 54152 as varint, value 5.
  EXPECT_EQ(bytesOf(out),
            (Bytes{0xB0, 0xD5, 0x07, 0x07, 0xB2, 0x88, 0x0B, 0x04, 0x88, 0xA7, 0x03, 0x05}));
  Oro::PbWriteBuffer framed;
  writePbMessage(framed, a);
  Oro::PbReadBuffer fin(framed.bytes());
  MvpnVrfIntfId got;
  constructFromPbMessage(&got, fin);
  EXPECT_EQ(got, a);
  expectWireError<MvpnVrfIntfId>(messageWithField(MvpnVrfIntfId::kPmsiIntfIdField, Oro::kPbVarint));
}

}  // namespace
}  // namespace Routing::Multicast
