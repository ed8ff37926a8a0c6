// Writer clients, route keys, VRF-qualified keys, tree ids and MvpnConsts; route and source
// records: flag sets, the route flags invariant, orders, display and value forms.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <type_traits>
#include <unordered_set>

#include "platform/Error.h"
#include "types/MulticastTreeId.h"
#include "types/MvpnClient.h"
#include "types/MvpnConsts.h"
#include "types/MvpnRoute.h"
#include "types/MvpnRouteIntfKey.h"
#include "types/MvpnRouteKey.h"
#include "types/MvpnSource.h"
#include "types/MvpnVrfRouteIntfKey.h"
#include "types/MvpnVrfRouteKey.h"

namespace {

using namespace Routing::Multicast;
using Nevo::IntfId;
using Nevo::IpGenAddr;
using Nevo::IpGenPrefix;
using Oro::strepToValue;
using RouteFlags = MvpnRoute::RouteFlags;
using SourceFlags = MvpnSource::SourceFlags;
using ::testing::Property;
using ::testing::Throws;

IpGenAddr ip(const char* text) {
  return strepToValue<IpGenAddr>(text);
}
IpGenPrefix pfx(const char* text) {
  return strepToValue<IpGenPrefix>(text);
}

// Every key's text form reads back as the same key.
template <class K>
void expectRoundTrips(std::initializer_list<K> keys) {
  for (const K& k : keys) EXPECT_EQ(strepToValue<K>(k.toStrep()), k) << k.toStrep();
}

// The shared-memory image of a type asserts that it copies as bytes; MvpnVrfRouteKey's image
// is instantiated nowhere else.
static_assert(std::is_trivially_copyable_v<MvpnVrfRouteKey>);
static_assert(sizeof(MvpnClient) == 1);

const MvpnRouteKey kSg(ip("10.0.0.1"), ip("239.1.1.1"), false);
const MvpnRouteKey kStar(IpGenAddr(), ip("239.1.1.1"), true);

TEST(MvpnClient, NamesParseAndWriterTest) {
  const char* names[] = {"bgp", "pimBidir", "staticMvpn", "evpn", "staticEvpn"};
  for (uint8_t v = 0; v <= 4; ++v) {
    auto c = static_cast<MvpnClient>(v);
    EXPECT_EQ(stringValue(c), names[v]);
    std::string text = stringValue(c) + "}";
    Oro::CharRange in(text);
    MvpnClient got = MvpnClient::evpn_;
    sequenceToValue(in, &got);
    EXPECT_EQ(got, c);
    EXPECT_EQ(in.rest(), "}");
  }
  EXPECT_EQ(stringValue(static_cast<MvpnClient>(9)), "MvpnClient(9)");
  MvpnClient c = MvpnClient::bgp_;
  Oro::CharRange unknown("ospf"), quoted("'bgp'");
  EXPECT_THROW(sequenceToValue(unknown, &c), Oro::RangeException);
  EXPECT_THROW(sequenceToValue(quoted, &c), Oro::ParseException);
  EXPECT_EQ(c, MvpnClient::bgp_);
  for (unsigned v = 0; v < 256; ++v) {
    EXPECT_EQ(isMvpnWriter(static_cast<MvpnClient>(v)), v == 0 || (v >= 2 && v <= 4)) << v;
  }
}

TEST(MvpnRouteKey, OrderHashDefaultAndTextForms) {
  MvpnRouteKey sgZero(IpGenAddr(), ip("239.1.1.1"), false);
  EXPECT_NE(kStar, sgZero);  // differ only in the shared-join flag
  EXPECT_TRUE(!MvpnRouteKey::isEq(kStar, sgZero) && !kStar.isEq(sgZero) && kStar.isEq(kStar));
  EXPECT_LT(sgZero, kStar);
  EXPECT_NE(kStar.hash(5), sgZero.hash(5));
  EXPECT_EQ((std::unordered_set<MvpnRouteKey>{kStar, sgZero, kStar}.size()), 2u);
  // Source first, then group, then the flag.
  MvpnRouteKey a(ip("10.0.0.1"), ip("239.9.9.9"), true);
  MvpnRouteKey b(ip("10.0.0.2"), ip("239.0.0.1"), false);
  MvpnRouteKey c(ip("10.0.0.2"), ip("239.0.0.2"), false);
  EXPECT_LT(a, b);
  EXPECT_LT(b, c);
  MvpnRouteKey def;
  EXPECT_TRUE(def.source().isZero() && def.group().isZero() && !def.sharedTreeJoin());

  MvpnRouteKey star6(IpGenAddr::zero(Nevo::ipv6), ip("ff0e::1"), true);
  MvpnRouteKey rp(ip("10.9.9.9"), ip("239.1.1.1"), true);
  // A shared join whose zero source is of another family than its group stays exact.
  MvpnRouteKey mixed(IpGenAddr(), ip("ff0e::1"), true);
  EXPECT_EQ(kSg.toStrep(), "(10.0.0.1, 239.1.1.1)");
  EXPECT_EQ(kStar.toStrep(), "(*, 239.1.1.1)");
  EXPECT_EQ(star6.toStrep(), "(*, ff0e::1)");
  EXPECT_EQ(rp.toStrep(), "(10.9.9.9, 239.1.1.1, *)");
  EXPECT_EQ(mixed.toStrep(), "(0.0.0.0, ff0e::1, *)");
  EXPECT_EQ(fmt::format("{}", kSg), kSg.toStrep());
  expectRoundTrips({kSg, kStar, star6, rp, mixed});
  for (const char* text :
       {"", "(10.0.0.1 239.1.1.1)", "(10.0.0.1, 239.1.1.1", "(*, )", "(10.0.0.1, 239.1.1.1) ",
        "(10.0.0.1, 239.1.1.1, +)", "[*, 239.1.1.1]"}) {
    EXPECT_THROW(strepToValue<MvpnRouteKey>(text), Oro::ParseException) << text;
  }
}

TEST(MvpnRouteKeyDeathTest, HandleInitRejectsUnknownFamily) {
  MvpnRouteKey(ip("::1"), ip("ff0e::1"), false).handleInit();
  MvpnRouteKey().handleInit();
  MvpnRouteKey k;
  // Bytes as they might come out of corrupt shared memory: family 0.
  reinterpret_cast<unsigned char*>(&k)[0] = 0;
  EXPECT_DEATH(k.handleInit(),
               "Assertion failed: \\(source_.af\\(\\) == Nevo::ipv4 \\|\\| source_.af\\(\\) == "
               "Nevo::ipv6\\) && \\(group_.af\\(\\) == Nevo::ipv4 \\|\\| group_.af\\(\\) == "
               "Nevo::ipv6\\) && \"Route key address of unknown family\"");
}

TEST(MvpnRouteIntfKey, DefaultsTextOrderAndTheVrfQualifiedKeys) {
  MvpnRouteIntfKey def;
  EXPECT_TRUE(def.intfId().empty());
  EXPECT_EQ(def.routeKey(), MvpnRouteKey());
  MvpnRouteIntfKey onVlan(kSg, IntfId::vlan(5)), onNone(kSg, IntfId());
  EXPECT_EQ(onVlan.toStrep(), "(10.0.0.1, 239.1.1.1) on Vlan5");
  EXPECT_EQ(onNone.toStrep(), "(10.0.0.1, 239.1.1.1) on (empty)");
  EXPECT_LT(onNone, onVlan);
  EXPECT_NE(onNone.hash(1), onVlan.hash(1));
  expectRoundTrips({def, onVlan, onNone, MvpnRouteIntfKey(kStar, IntfId::tunnel(2))});
  EXPECT_THROW(strepToValue<MvpnRouteIntfKey>("(10.0.0.1, 239.1.1.1)"), Oro::ParseException);
  EXPECT_THROW(strepToValue<MvpnRouteIntfKey>("(10.0.0.1, 239.1.1.1) on Vlan5 "),
               Oro::ParseException);

  // VRF-qualified keys order by VRF first, then by the inner key.
  MvpnRouteKey high(ip("10.0.0.9"), ip("239.1.1.1"), false);
  MvpnVrfRouteKey a(2, high), b(10, kSg), c(10, high);
  EXPECT_LT(a, b);
  EXPECT_LT(b, c);
  EXPECT_EQ(MvpnVrfRouteKey().vrfId(), Vrf::VrfIdMap::VrfId());
  EXPECT_EQ(b.toStrep(), "VRF 10 (10.0.0.1, 239.1.1.1)");
  expectRoundTrips({b});
  EXPECT_NE(b.hash(0), c.hash(0));
  EXPECT_NE(MvpnVrfRouteKey(1, kSg).hash(0), MvpnVrfRouteKey(2, kSg).hash(0));
  // A number too large for its field is text that does not match, as in any key.
  EXPECT_THROW(strepToValue<MvpnVrfRouteKey>("VRF 4294967296 (10.0.0.1, 239.1.1.1)"),
               Oro::ParseException);
  EXPECT_THROW(strepToValue<MvpnRouteIntfKey>("(10.0.0.1, 239.1.1.1) on Vlan4294967296"),
               Oro::ParseException);
  EXPECT_THROW(strepToValue<MvpnVrfRouteKey>("VRF 1(10.0.0.1, 239.1.1.1)"), Oro::ParseException);

  MvpnVrfRouteIntfKey i(10, MvpnRouteIntfKey(kSg, IntfId::vlan(4)));
  MvpnVrfRouteIntfKey j(10, MvpnRouteIntfKey(kSg, IntfId::vlan(5)));
  EXPECT_EQ(i.toStrep(), "VRF 10 (10.0.0.1, 239.1.1.1) on Vlan4");
  expectRoundTrips({i});
  EXPECT_LT(i, j);
  EXPECT_EQ((std::unordered_set<MvpnVrfRouteIntfKey>{i, j, i}.size()), 2u);
}

// A tree id's text form is the text itself, whatever it holds (fuzz/tree_id.cpp).
TEST(MulticastTreeId, SameTextIsSameKeyAndMvpnConstsAreAlwaysEqualAndNotHashable) {
  MulticastTreeId a("P2MP:10.0.0.1:7");
  MulticastTreeId b(std::string("P2MP:10.0.0.1:7"));
  EXPECT_EQ(a, b);
  EXPECT_LT(MulticastTreeId("a"), MulticastTreeId("b"));
  EXPECT_EQ((std::unordered_set<MulticastTreeId>{a, b, MulticastTreeId("other")}.size()), 2u);
  EXPECT_EQ(fmt::format("{}", a), "P2MP:10.0.0.1:7");

  // MvpnConsts are always equal and not hashable.
  MvpnConsts c, d;
  EXPECT_EQ(c <=> d, std::strong_ordering::equal);
  EXPECT_THROW(c.hash(0), Oro::NonHashableTypeException);
  EXPECT_EQ(c.toStrep(), "Value('Routing::Multicast::MvpnConsts', ** {})");
  const std::string trunk = MvpnConsts::trunkGroup;
  EXPECT_EQ(trunk, "InternalMvpn");
  EXPECT_EQ(strepToValue<MvpnConsts>(c.toStrep()), c);
  EXPECT_THROW(strepToValue<MvpnConsts>("Value('Routing::Multicast::MvpnConsts', ** {}) "),
               Oro::ParseException);
}

static_assert(!std::is_same_v<RouteFlags, SourceFlags>);

const IpGenPrefix kUmh = pfx("10.0.0.0/8");

template <class Flags>
void expectFlagRangeError(unsigned v, const char* module) {
  using E = Oro::DenseEnumBoolSetRangeException;
  EXPECT_THAT([v] { Flags{uint64_t{v}}; },
              Throws<E>(AllOf(Property(&E::module, module), Property(&E::value, v))));
}

TEST(FlagSet, BitsSettersRangeAndValueForm) {
  RouteFlags f;
  EXPECT_FALSE(f);
  f.sourceTreeJoinIs(true);
  f.discoveredSgIs(true);
  EXPECT_EQ(f.value(), 6);
  f.sourceTreeJoinIs(false);
  EXPECT_EQ(f.value(), 4);
  EXPECT_TRUE(f.discoveredSg() && !f.rptPrune() && !f.sourceTreeJoin());
  EXPECT_TRUE(RouteFlags(1).rptPrune());
  expectFlagRangeError<RouteFlags>(8, "Routing::Multicast::MvpnRoute::RouteFlags");
  expectFlagRangeError<SourceFlags>(255, "Routing::Multicast::MvpnSource::SourceFlags");

  EXPECT_EQ(RouteFlags(5).toStrep(),
            "Value('Routing::Multicast::MvpnRoute::RouteFlags', ** {'rptPrune': True, "
            "'sourceTreeJoin': False, 'discoveredSg': True})");
  EXPECT_EQ(SourceFlags(2).toStrep(),
            "Value('Routing::Multicast::MvpnSource::SourceFlags', ** {'rptPrune': False, "
            "'sourceTreeJoin': True, 'discoveredSg': False})");
  // Every set reads back (fuzz/flag_sets.cpp). Each type reads only its own name; trailing
  // text, bad booleans and reordered attributes are rejected.
  const std::string head = "Value('Routing::Multicast::MvpnRoute::RouteFlags', ** {";
  for (const std::string& text :
       {RouteFlags(1).toStrep() + " ",
        head + "'rptPrune': true, 'sourceTreeJoin': False, 'discoveredSg': False})",
        head + "'sourceTreeJoin': False, 'rptPrune': False, 'discoveredSg': False})"}) {
    EXPECT_THROW(strepToValue<RouteFlags>(text), Oro::ParseException) << text;
  }
  EXPECT_THROW(strepToValue<SourceFlags>(RouteFlags(1).toStrep()), Oro::ParseException);
}

constexpr const char* kInvariant =
    "Assertion failed: sharedTreeJoin\\(\\) xor \\( bool \\) routeFlags\\(\\) "
    "\\(MvpnRouteStatus:27, in handleRouteFlags\\)";

TEST(MvpnRouteDeathTest, RouteFlagsMustMatchTheSharedJoinFlag) {
  MvpnRoute star(kStar, kUmh, RouteFlags());
  star.handleRouteFlags();
  MvpnRoute sg(kSg, kUmh, RouteFlags(2));
  sg.handleRouteFlags();
  sg.routeFlagsIs(RouteFlags(3));
  EXPECT_EQ(sg.routeFlags().value(), 3);
  // Storing the flags already held checks nothing, even on an inconsistent record.
  MvpnRoute broken(kSg, kUmh, RouteFlags());
  broken.routeFlagsIs(RouteFlags());

  EXPECT_DEATH(star.routeFlagsIs(RouteFlags(4)), kInvariant);
  EXPECT_DEATH(MvpnRoute(kStar, kUmh, RouteFlags(1)).handleRouteFlags(), kInvariant);
  EXPECT_DEATH(sg.routeFlagsIs(RouteFlags()), kInvariant);
  EXPECT_DEATH(MvpnRoute().handleRouteFlags(), kInvariant);
}

TEST(MvpnRoute, DisplayFormOrderAndValueFormOfRoutesAndSources) {
  EXPECT_EQ(MvpnRoute(kStar, kUmh, RouteFlags()).toStrep(), "(*, 239.1.1.1): UMH: 10.0.0.0/8");
  EXPECT_EQ(MvpnRoute(kSg, kUmh, RouteFlags(7)).toStrep(),
            "(10.0.0.1, 239.1.1.1): UMH: 10.0.0.0/8, (S,G), (S,G,Rpt), discovered");
  EXPECT_EQ(MvpnRoute(kSg, kUmh, RouteFlags(5)).toStrep(),
            "(10.0.0.1, 239.1.1.1): UMH: 10.0.0.0/8, (S,G,Rpt), discovered");
  EXPECT_EQ(fmt::format("{}", MvpnRoute(kSg, pfx("::/0"), RouteFlags(2))),
            "(10.0.0.1, 239.1.1.1): UMH: ::/0, (S,G)");

  MvpnRoute a(kSg, kUmh, RouteFlags(2));
  MvpnRoute b(kSg, pfx("11.0.0.0/8"), RouteFlags(2));
  MvpnRoute c(kSg, pfx("11.0.0.0/8"), RouteFlags(4));
  MvpnRoute d(MvpnRouteKey(ip("10.0.0.2"), ip("239.0.0.1"), false), pfx("0.0.0.0/0"),
              RouteFlags(1));
  EXPECT_LT(a, b);  // only the prefix differs
  EXPECT_LT(b, c);  // then the flag byte
  EXPECT_LT(c, d);  // the key decides first
  EXPECT_NE(a.hash(9), b.hash(9));

  MvpnRoute r(kSg, kUmh, RouteFlags(6));
  std::string text = r.toValueForm();
  EXPECT_EQ(text,
            "Value('Routing::Multicast::MvpnRoute', ** {'key': (10.0.0.1, 239.1.1.1), "
            "'umhPrefix': 10.0.0.0/8, 'routeFlags': "
            "Value('Routing::Multicast::MvpnRoute::RouteFlags', ** {'rptPrune': False, "
            "'sourceTreeJoin': True, 'discoveredSg': True})})");
  EXPECT_EQ(strepToValue<MvpnRoute>(text), r);
  EXPECT_THROW(strepToValue<MvpnRoute>(text + "x"), Oro::ParseException);
  EXPECT_THROW(strepToValue<MvpnRoute>(text.substr(0, text.size() - 1)), Oro::ParseException);
  std::string badLen = text;
  badLen.replace(badLen.find("/8"), 2, "/40");
  using E = Oro::DeserializationException;
  EXPECT_THAT([&] { strepToValue<MvpnRoute>(badLen); },
              Throws<E>(Property(&E::attribute, "umhPrefix")));

  // Sources: display, order and value form.
  EXPECT_EQ(MvpnSource().toStrep(), "0.0.0.0: UMH: 0.0.0.0/0");
  MvpnSource s(ip("10.0.0.1"), kUmh, SourceFlags(7));
  EXPECT_EQ(s.toStrep(), "10.0.0.1: UMH: 10.0.0.0/8, (S,G), (S,G,Rpt), discovered");
  MvpnSource t(ip("10.0.0.1"), pfx("10.0.0.0/9"), SourceFlags(0));
  EXPECT_LT(s, t);
  EXPECT_LT(t, MvpnSource(ip("10.0.0.2"), pfx("0.0.0.0/0"), SourceFlags(0)));
  EXPECT_EQ(strepToValue<MvpnSource>(s.toValueForm()), s);
  EXPECT_EQ(strepToValue<MvpnSource>(t.toValueForm()), t);
  EXPECT_EQ(s.toValueForm().substr(0, 56),
            "Value('Routing::Multicast::MvpnSource', ** {'source': 10");
  EXPECT_THROW(strepToValue<MvpnSource>(MvpnRoute().toValueForm()), Oro::ParseException);
}

}  // namespace
