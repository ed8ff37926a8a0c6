// MvpnVrf and MvpnVrfIntfId: equality, order, text and value forms, wire forms and their
// error cases.
#include <gtest/gtest.h>

#include "platform/Error.h"
#include "status/MvpnVrf.h"
#include "status/MvpnVrfIntfId.h"

namespace Routing::Multicast {
namespace {

using Vrf::VrfIdMap::VrfId;

std::vector<uint8_t> bytesOf(const Oro::PbWriteBuffer& b) {
  return std::vector<uint8_t>(b.data(), b.data() + b.size());
}

TEST(MvpnVrfTest, EqualityOrderAndTextForm) {
  const MvpnVrf def;
  EXPECT_EQ(def.key(), VrfId(16777215));
  EXPECT_EQ(def.client(), MvpnClient::bgp_);
  const MvpnVrf a(VrfId(12), MvpnClient::evpn_), b(VrfId(12), MvpnClient::staticMvpn_);
  EXPECT_TRUE(a.isEq(a));
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

  const std::string withTrailing = text + " ";
  Oro::CharRange trailing(withTrailing);
  EXPECT_THROW(MvpnVrf{trailing}, Oro::ParseException);
  Oro::CharRange big(
      "Value('Routing::Multicast::MvpnVrf', ** {'key': 99999999999, 'client': bgp})");
  try {
    MvpnVrf v(big);
    ADD_FAILURE();
  } catch (const Oro::DeserializationException& e) {
    EXPECT_EQ(e.attribute(), "key");
  }
  Oro::CharRange badClient("Value('Routing::Multicast::MvpnVrf', ** {'key': 1, 'client': nope})");
  try {
    MvpnVrf v(badClient);
    ADD_FAILURE();
  } catch (const Oro::DeserializationException& e) {
    EXPECT_EQ(e.attribute(), "client");
  }
  Oro::CharRange otherType("Value('Routing::Multicast::Other', ** {'key': 1, 'client': bgp})");
  EXPECT_THROW(MvpnVrf{otherType}, Oro::ParseException);
}

TEST(MvpnVrfTest, WireFormBytesAndReading) {
  Oro::PbWriteBuffer out;
  writeMessage(out, MvpnVrf(VrfId(7), MvpnClient::bgp_));
  EXPECT_EQ(bytesOf(out), (std::vector<uint8_t>{0xB0, 0xD5, 0x07, 0x07, 0xC0, 0xE6, 0x0F, 0x00}));

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
  EXPECT_EQ(got.key(), VrfId(16777215));
  EXPECT_EQ(got.client(), MvpnClient::evpn_);

  // A zero length reads nothing.
  const std::vector<uint8_t> empty{0x00};
  Oro::PbReadBuffer ein(empty);
  MvpnVrf keep(VrfId(5), MvpnClient::evpn_);
  readMessage(ein, keep);
  EXPECT_EQ(keep, MvpnVrf(VrfId(5), MvpnClient::evpn_));
  EXPECT_TRUE(ein.atEnd());
}

TEST(MvpnVrfTest, BadWireBytesRaise) {
  // Field 15702 with wire type 2.
  Oro::PbWriteBuffer wrong;
  auto s = wrong.openSection();
  wrong.writeTag(MvpnVrf::kKeyField, Oro::kPbLengthDelimited);
  wrong.writeLengthDelimited(std::string_view("a"));
  wrong.closeSection(s);
  Oro::PbReadBuffer win(wrong.bytes());
  MvpnVrf v;
  try {
    readMessage(win, v);
    ADD_FAILURE();
  } catch (const Oro::ProtobufReadException& e) {
    EXPECT_STREQ(e.what(), "Unexpected error when reading Protobuf bytes");
  }
  Oro::PbReadBuffer cin(wrong.bytes());
  EXPECT_THROW(readMessageField(cin, MvpnVrf::kClientField, Oro::kPbFixed32, v),
               Oro::ProtobufReadException);
  // A length that runs past the buffer.
  const std::vector<uint8_t> truncated{0x08, 0xB0, 0xD5, 0x07, 0x07};
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
  Oro::CharRange bad(
      "Value('Routing::Multicast::MvpnVrfIntfId', ** {'key': 4444444444, "
      "'pmsiIntfId': Vlan10})");
  try {
    MvpnVrfIntfId v(bad);
    ADD_FAILURE();
  } catch (const Oro::DeserializationException& e) {
    EXPECT_EQ(e.attribute(), "key");
  }

  Oro::PbWriteBuffer out;
  writeMessage(out, MvpnVrfIntfId(VrfId(7), Nevo::IntfId(5)));
  // key tag + 7, pmsiIntfId tag, length 3, inner tag 54152 as varint, value 5.
  EXPECT_EQ(bytesOf(out), (std::vector<uint8_t>{0xB0, 0xD5, 0x07, 0x07, 0xB2, 0x88, 0x0B, 0x04,
                                                0x88, 0xA7, 0x03, 0x05}));
  Oro::PbWriteBuffer framed;
  writePbMessage(framed, a);
  Oro::PbReadBuffer fin(framed.bytes());
  MvpnVrfIntfId got;
  constructFromPbMessage(&got, fin);
  EXPECT_EQ(got, a);

  // Field 22662 with wire type 0.
  Oro::PbWriteBuffer wrong;
  auto s = wrong.openSection();
  wrong.writeTag(MvpnVrfIntfId::kPmsiIntfIdField, Oro::kPbVarint);
  wrong.writeVarint(5);
  wrong.closeSection(s);
  Oro::PbReadBuffer win(wrong.bytes());
  try {
    constructFromPbMessage(&got, win);
    ADD_FAILURE();
  } catch (const Oro::ProtobufReadException& e) {
    EXPECT_STREQ(e.what(), "Unexpected error when reading Protobuf bytes");
  }
}

}  // namespace
}  // namespace Routing::Multicast
