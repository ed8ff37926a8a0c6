// Route and source records: flag sets, the route flags invariant, orders, display and
// value forms.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <type_traits>

#include "platform/Error.h"
#include "types/MvpnRoute.h"
#include "types/MvpnSource.h"

namespace {

using namespace Routing::Multicast;
using Nevo::IpGenAddr;
using Nevo::IpGenPrefix;
using Oro::parseText;
using RouteFlags = MvpnRoute::RouteFlags;
using SourceFlags = MvpnSource::SourceFlags;
using ::testing::Property;
using ::testing::Throws;

IpGenAddr ip(const char* text) {
  return parseText<IpGenAddr>(text);
}
IpGenPrefix pfx(const char* text) {
  return parseText<IpGenPrefix>(text);
}

static_assert(!std::is_same_v<RouteFlags, SourceFlags>);
static_assert(std::is_trivially_copyable_v<MvpnRoute>);
static_assert(std::is_trivially_copyable_v<MvpnSource>);

const MvpnRouteKey kSg(ip("10.0.0.1"), ip("239.1.1.1"), false);
const MvpnRouteKey kStar(IpGenAddr(), ip("239.1.1.1"), true);
const IpGenPrefix kUmh = pfx("10.0.0.0/8");

template <class Flags>
void expectFlagRangeError(unsigned v, const char* module) {
  using E = Oro::DenseEnumBoolSetRangeException;
  EXPECT_THAT([v] { Flags{uint64_t{v}}; },
              Throws<E>(AllOf(Property(&E::module, module), Property(&E::value, v))));
}

TEST(FlagSet, BitsSettersAndRange) {
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
}

TEST(FlagSet, ValueFormExactAndParsed) {
  EXPECT_EQ(RouteFlags(5).toStrep(),
            "Value('Routing::Multicast::MvpnRoute::RouteFlags', ** {'rptPrune': True, "
            "'sourceTreeJoin': False, 'discoveredSg': True})");
  EXPECT_EQ(SourceFlags(2).toStrep(),
            "Value('Routing::Multicast::MvpnSource::SourceFlags', ** {'rptPrune': False, "
            "'sourceTreeJoin': True, 'discoveredSg': False})");
  for (unsigned v = 0; v <= 7; ++v) {
    EXPECT_EQ(parseText<RouteFlags>(RouteFlags(v).toStrep()), RouteFlags(v));
    EXPECT_EQ(parseText<SourceFlags>(SourceFlags(v).toStrep()), SourceFlags(v));
  }
  // Each type reads only its own name; trailing text, bad booleans and reordered attributes
  // are rejected.
  const std::string head = "Value('Routing::Multicast::MvpnRoute::RouteFlags', ** {";
  for (const std::string& text :
       {RouteFlags(1).toStrep() + " ",
        head + "'rptPrune': true, 'sourceTreeJoin': False, 'discoveredSg': False})",
        head + "'sourceTreeJoin': False, 'rptPrune': False, 'discoveredSg': False})"}) {
    EXPECT_THROW(parseText<RouteFlags>(text), Oro::ParseException) << text;
  }
  EXPECT_THROW(parseText<SourceFlags>(RouteFlags(1).toStrep()), Oro::ParseException);
}

constexpr const char* kInvariant =
    "Assertion failed: sharedTreeJoin\\(\\) xor \\( bool \\) routeFlags\\(\\)";

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

TEST(MvpnRoute, DisplayFormAndOrder) {
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
  EXPECT_EQ(a, MvpnRoute(kSg, kUmh, RouteFlags(2)));
  EXPECT_LT(a, b);  // only the prefix differs
  EXPECT_LT(b, c);  // then the flag byte
  EXPECT_LT(c, d);  // the key decides first
  EXPECT_NE(a.hash(9), b.hash(9));
}

TEST(MvpnRoute, ValueFormRoundTripAndErrors) {
  MvpnRoute r(kSg, kUmh, RouteFlags(6));
  std::string text = r.toValueForm();
  EXPECT_EQ(text,
            "Value('Routing::Multicast::MvpnRoute', ** {'key': (10.0.0.1, 239.1.1.1), "
            "'umhPrefix': 10.0.0.0/8, 'routeFlags': "
            "Value('Routing::Multicast::MvpnRoute::RouteFlags', ** {'rptPrune': False, "
            "'sourceTreeJoin': True, 'discoveredSg': True})})");
  EXPECT_EQ(parseText<MvpnRoute>(text), r);
  EXPECT_THROW(parseText<MvpnRoute>(text + "x"), Oro::ParseException);
  EXPECT_THROW(parseText<MvpnRoute>(text.substr(0, text.size() - 1)), Oro::ParseException);
  std::string badLen = text;
  badLen.replace(badLen.find("/8"), 2, "/40");
  using E = Oro::DeserializationException;
  EXPECT_THAT([&] { parseText<MvpnRoute>(badLen); },
              Throws<E>(Property(&E::attribute, "umhPrefix")));
}

TEST(MvpnSource, DisplayOrderAndValueForm) {
  EXPECT_EQ(MvpnSource().toStrep(), "0.0.0.0: UMH: 0.0.0.0/0");
  MvpnSource s(ip("10.0.0.1"), kUmh, SourceFlags(7));
  EXPECT_EQ(s.toStrep(), "10.0.0.1: UMH: 10.0.0.0/8, (S,G), (S,G,Rpt), discovered");
  MvpnSource t(ip("10.0.0.1"), pfx("10.0.0.0/9"), SourceFlags(0));
  EXPECT_LT(s, t);
  EXPECT_LT(t, MvpnSource(ip("10.0.0.2"), pfx("0.0.0.0/0"), SourceFlags(0)));
  EXPECT_EQ(parseText<MvpnSource>(s.toValueForm()), s);
  EXPECT_EQ(parseText<MvpnSource>(t.toValueForm()), t);
  EXPECT_EQ(s.toValueForm().substr(0, 56),
            "Value('Routing::Multicast::MvpnSource', ** {'source': 10");
  EXPECT_THROW(parseText<MvpnSource>(MvpnRoute().toValueForm()), Oro::ParseException);
}

}  // namespace
