// Writer clients, route keys, VRF-qualified keys, tree ids and MvpnConsts.
#include <gtest/gtest.h>

#include <set>
#include <type_traits>
#include <unordered_set>

#include "platform/Error.h"
#include "types/MulticastTreeId.h"
#include "types/MvpnClient.h"
#include "types/MvpnConsts.h"
#include "types/MvpnRouteIntfKey.h"
#include "types/MvpnRouteKey.h"
#include "types/MvpnVrfRouteIntfKey.h"
#include "types/MvpnVrfRouteKey.h"

namespace {

using namespace Routing::Multicast;
using Nevo::IntfId;
using Nevo::IpGenAddr;
using Oro::parseText;

IpGenAddr ip(const char* text) {
  return parseText<IpGenAddr>(text);
}

static_assert(std::is_trivially_copyable_v<MvpnRouteKey>);
static_assert(std::is_trivially_copyable_v<MvpnRouteIntfKey>);
static_assert(std::is_trivially_copyable_v<MvpnVrfRouteKey>);
static_assert(std::is_trivially_copyable_v<MvpnVrfRouteIntfKey>);
static_assert(sizeof(MvpnClient) == 1);

TEST(MvpnClient, NamesParseAndWriterTest) {
  EXPECT_EQ(stringValue(MvpnClient::bgp_), "bgp");
  EXPECT_EQ(stringValue(MvpnClient::pimBidir_), "pimBidir");
  EXPECT_EQ(stringValue(MvpnClient::staticMvpn_), "staticMvpn");
  EXPECT_EQ(stringValue(MvpnClient::evpn_), "evpn");
  EXPECT_EQ(stringValue(MvpnClient::staticEvpn_), "staticEvpn");
  EXPECT_EQ(stringValue(static_cast<MvpnClient>(9)), "MvpnClient(9)");
  for (uint8_t v = 0; v <= 4; ++v) {
    auto c = static_cast<MvpnClient>(v);
    std::string text = stringValue(c) + "}";
    Oro::CharRange in(text);
    MvpnClient got = MvpnClient::evpn_;
    sequenceToValue(in, &got);
    EXPECT_EQ(got, c);
    EXPECT_EQ(in.rest(), "}");
  }
  MvpnClient c = MvpnClient::bgp_;
  Oro::CharRange unknown("ospf");
  EXPECT_THROW(sequenceToValue(unknown, &c), Oro::RangeException);
  Oro::CharRange none("'bgp'");
  EXPECT_THROW(sequenceToValue(none, &c), Oro::ParseException);
  EXPECT_EQ(c, MvpnClient::bgp_);

  std::vector<bool> writers;
  for (unsigned v = 0; v < 256; ++v) writers.push_back(isMvpnWriter(static_cast<MvpnClient>(v)));
  for (unsigned v = 0; v < 256; ++v) EXPECT_EQ(writers[v], v == 0 || (v >= 2 && v <= 4)) << v;
}

TEST(MvpnRouteKey, SharedJoinAndSourceTreeKeysDiffer) {
  MvpnRouteKey star(IpGenAddr(), ip("239.1.1.1"), true);
  MvpnRouteKey sg(IpGenAddr(), ip("239.1.1.1"), false);
  EXPECT_NE(star, sg);
  EXPECT_FALSE(MvpnRouteKey::isEq(star, sg));
  EXPECT_LT(sg, star);
  std::set<MvpnRouteKey> ordered{star, sg};
  std::unordered_set<MvpnRouteKey> hashed{star, sg};
  EXPECT_EQ(ordered.size(), 2u);
  EXPECT_EQ(hashed.size(), 2u);
  EXPECT_NE(star.hash(5), sg.hash(5));
  MvpnRouteKey def;
  EXPECT_TRUE(def.source().isZero() && def.group().isZero() && !def.sharedTreeJoin());
}

TEST(MvpnRouteKey, OrderIsSourceThenGroupThenFlag) {
  MvpnRouteKey a(ip("10.0.0.1"), ip("239.9.9.9"), true);
  MvpnRouteKey b(ip("10.0.0.2"), ip("239.0.0.1"), false);
  MvpnRouteKey c(ip("10.0.0.2"), ip("239.0.0.2"), false);
  EXPECT_LT(a, b);
  EXPECT_LT(b, c);
  EXPECT_TRUE(MvpnRouteKey::isEq(c, MvpnRouteKey(ip("10.0.0.2"), ip("239.0.0.2"), false)));
}

TEST(MvpnRouteKey, TextFormsRoundTrip) {
  MvpnRouteKey sg(ip("10.0.0.1"), ip("239.1.1.1"), false);
  MvpnRouteKey star(IpGenAddr(), ip("239.1.1.1"), true);
  MvpnRouteKey star6(IpGenAddr::zero(Nevo::ipv6), ip("ff0e::1"), true);
  MvpnRouteKey rp(ip("10.9.9.9"), ip("239.1.1.1"), true);
  // A shared join whose zero source is of another family than its group stays exact.
  MvpnRouteKey mixed(IpGenAddr(), ip("ff0e::1"), true);
  EXPECT_EQ(sg.toStrep(), "(10.0.0.1, 239.1.1.1)");
  EXPECT_EQ(star.toStrep(), "(*, 239.1.1.1)");
  EXPECT_EQ(star6.toStrep(), "(*, ff0e::1)");
  EXPECT_EQ(rp.toStrep(), "(10.9.9.9, 239.1.1.1, *)");
  EXPECT_EQ(mixed.toStrep(), "(0.0.0.0, ff0e::1, *)");
  EXPECT_EQ(fmt::format("{}", sg), sg.toStrep());
  for (const auto& k : {sg, star, star6, rp, mixed}) {
    EXPECT_EQ(parseText<MvpnRouteKey>(k.toStrep()), k) << k.toStrep();
  }
}

TEST(MvpnRouteKey, ParseRejectsMismatchAndTrailingText) {
  for (const char* text :
       {"", "(10.0.0.1 239.1.1.1)", "(10.0.0.1, 239.1.1.1", "(*, )", "(10.0.0.1, 239.1.1.1) ",
        "(10.0.0.1, 239.1.1.1, +)", "[*, 239.1.1.1]"}) {
    EXPECT_THROW(parseText<MvpnRouteKey>(text), Oro::ParseException) << text;
  }
}

TEST(MvpnRouteKey, HandleInitAcceptsKnownFamilies) {
  MvpnRouteKey(ip("::1"), ip("ff0e::1"), false).handleInit();
  MvpnRouteKey().handleInit();
}

TEST(MvpnRouteKeyDeathTest, HandleInitRejectsUnknownFamily) {
  MvpnRouteKey k;
  // Bytes as they might come out of corrupt shared memory: family 0.
  reinterpret_cast<unsigned char*>(&k)[0] = 0;
  EXPECT_DEATH(k.handleInit(),
               "Assertion failed: \\(source_.af\\(\\) == Nevo::ipv4 \\|\\| source_.af\\(\\) == "
               "Nevo::ipv6\\) && \\(group_.af\\(\\) == Nevo::ipv4 \\|\\| group_.af\\(\\) == "
               "Nevo::ipv6\\) && \"Route key address of unknown family\"");
}

TEST(MvpnRouteIntfKey, DefaultsTextAndOrder) {
  MvpnRouteIntfKey def;
  EXPECT_TRUE(def.intfId().empty());
  EXPECT_EQ(def.routeKey(), MvpnRouteKey());
  MvpnRouteKey sg(ip("10.0.0.1"), ip("239.1.1.1"), false);
  MvpnRouteIntfKey onVlan(sg, IntfId::vlan(5));
  MvpnRouteIntfKey onNone(sg, IntfId());
  EXPECT_EQ(onVlan.toStrep(), "(10.0.0.1, 239.1.1.1) on Vlan5");
  EXPECT_EQ(onNone.toStrep(), "(10.0.0.1, 239.1.1.1) on (empty)");
  EXPECT_EQ(onVlan.routeKey(), sg);
  EXPECT_LT(onNone, onVlan);
  EXPECT_NE(onNone.hash(1), onVlan.hash(1));
  MvpnRouteIntfKey starKey(MvpnRouteKey(IpGenAddr(), ip("239.1.1.1"), true), IntfId::tunnel(2));
  for (const auto& k : {def, onVlan, onNone, starKey}) {
    EXPECT_EQ(parseText<MvpnRouteIntfKey>(k.toStrep()), k) << k.toStrep();
  }
  EXPECT_THROW(parseText<MvpnRouteIntfKey>("(10.0.0.1, 239.1.1.1)"), Oro::ParseException);
  EXPECT_THROW(parseText<MvpnRouteIntfKey>("(10.0.0.1, 239.1.1.1) on Vlan5 "), Oro::ParseException);
}

TEST(MvpnVrfRouteKeys, VrfFirstThenInnerKey) {
  MvpnRouteKey low(ip("10.0.0.1"), ip("239.1.1.1"), false);
  MvpnRouteKey high(ip("10.0.0.9"), ip("239.1.1.1"), false);
  MvpnVrfRouteKey a(2, high), b(10, low), c(10, high);
  EXPECT_LT(a, b);
  EXPECT_LT(b, c);
  EXPECT_EQ(MvpnVrfRouteKey().vrfId(), Vrf::VrfIdMap::VrfId());
  EXPECT_EQ(b.toStrep(), "VRF 10 (10.0.0.1, 239.1.1.1)");
  EXPECT_EQ(parseText<MvpnVrfRouteKey>(b.toStrep()), b);
  EXPECT_NE(b.hash(0), c.hash(0));
  EXPECT_NE(MvpnVrfRouteKey(1, low).hash(0), MvpnVrfRouteKey(2, low).hash(0));
  EXPECT_THROW(parseText<MvpnVrfRouteKey>("VRF 4294967296 (10.0.0.1, 239.1.1.1)"),
               Oro::RangeException);
  EXPECT_THROW(parseText<MvpnVrfRouteKey>("VRF 1(10.0.0.1, 239.1.1.1)"), Oro::ParseException);

  MvpnVrfRouteIntfKey i(10, MvpnRouteIntfKey(low, IntfId::vlan(4)));
  MvpnVrfRouteIntfKey j(10, MvpnRouteIntfKey(low, IntfId::vlan(5)));
  EXPECT_EQ(i.toStrep(), "VRF 10 (10.0.0.1, 239.1.1.1) on Vlan4");
  EXPECT_EQ(parseText<MvpnVrfRouteIntfKey>(i.toStrep()), i);
  EXPECT_LT(i, j);
  EXPECT_TRUE(MvpnVrfRouteIntfKey::isEq(i, i));
  std::unordered_set<MvpnVrfRouteIntfKey> set{i, j, i};
  EXPECT_EQ(set.size(), 2u);
}

TEST(MulticastTreeId, SameTextIsSameKey) {
  MulticastTreeId a("P2MP:10.0.0.1:7");
  MulticastTreeId b(std::string("P2MP:10.0.0.1:7"));
  EXPECT_EQ(a, b);
  EXPECT_TRUE(MulticastTreeId::isEq(a, b));
  EXPECT_EQ(a.hash(3), b.hash(3));
  EXPECT_LT(MulticastTreeId("a"), MulticastTreeId("b"));
  std::unordered_set<MulticastTreeId> set{a, b, MulticastTreeId("other")};
  EXPECT_EQ(set.size(), 2u);
  EXPECT_EQ(parseText<MulticastTreeId>("any text, even ) this"),
            MulticastTreeId("any text, even ) this"));
  EXPECT_EQ(fmt::format("{}", a), "P2MP:10.0.0.1:7");
}

TEST(MvpnConsts, AlwaysEqualAndNotHashable) {
  MvpnConsts a, b;
  EXPECT_EQ(a, b);
  EXPECT_TRUE(MvpnConsts::isEq(a, b));
  EXPECT_EQ(a <=> b, std::strong_ordering::equal);
  EXPECT_EQ(MvpnConsts::trunkGroup, "InternalMvpn");
  EXPECT_THROW(a.hash(0), Oro::NonHashableTypeException);
  EXPECT_EQ(a.toStrep(), "Value('Routing::Multicast::MvpnConsts', ** {})");
  EXPECT_EQ(parseText<MvpnConsts>(a.toStrep()), a);
  EXPECT_THROW(parseText<MvpnConsts>("Value('Routing::Multicast::MvpnConsts', ** {}) "),
               Oro::ParseException);
}

}  // namespace
