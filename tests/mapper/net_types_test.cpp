// The platform types the tunnel mapper stands on: tunnel ids, VLAN ids and the VLAN reading
// of interface ids, and the VRF id map status.
#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include <fmt/format.h>

#include "platform/CharRange.h"
#include "platform/Error.h"
#include "platform/net/TunnelId.h"
#include "platform/net/VlanId.h"
#include "platform/net/VlanIntf.h"
#include "platform/net/VrfIdMapStatus.h"

namespace {

using Bridging::VlanIdOrNone;
using Tunnel::TunnelTable::TunnelId;
using Vrf::VrfIdMap::VrfId;

constexpr const char* kVlanRange = "Bridging::VlanIdOrNone::value > 4094 not allowed";

TEST(TunnelId, ValueOrderHashAndText) {
  EXPECT_EQ(TunnelId().value(), 0u);
  EXPECT_FALSE(TunnelId().isValid());
  EXPECT_LT(TunnelId(2), TunnelId(10));
  EXPECT_LT(TunnelId(1), TunnelId(UINT64_C(1) << 63));  // unsigned order
  // The high word takes part in the hash, and the seed changes it.
  EXPECT_NE(TunnelId(UINT64_C(1) << 40).hash(7), TunnelId(0).hash(7));
  EXPECT_NE(TunnelId(5).hash(1), TunnelId(5).hash(2));
  EXPECT_EQ(TunnelId(18446744073709551615u).toStrep(), "18446744073709551615");
  EXPECT_EQ(fmt::format("{}", TunnelId(42)), "42");
}

TEST(TunnelId, ParsesItsTextAndRejectsTheRest) {
  for (const uint64_t v : {UINT64_C(0), UINT64_C(7), UINT64_MAX}) {
    EXPECT_EQ(Oro::parseText<TunnelId>(TunnelId(v).toStrep()), TunnelId(v));
  }
  EXPECT_THROW(Oro::parseText<TunnelId>("12x"), Oro::ParseException);
  EXPECT_THROW(Oro::parseText<TunnelId>("tunnel"), Oro::ParseException);
  EXPECT_THROW(Oro::parseText<TunnelId>("18446744073709551616"), Oro::RangeException);
}

TEST(VlanIdOrNone, RangeIsCheckedOnEveryWayIn) {
  struct Case {
    uint64_t value;
    bool accepted;
  };
  const std::vector<Case> cases = {{0, true},     {1, true},          {4094, true},
                                   {4095, false}, {65536 + 5, false}, {UINT64_MAX, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.value);
    if (c.accepted) {
      EXPECT_EQ(VlanIdOrNone(c.value).value(), c.value);
      EXPECT_EQ(Oro::parseText<VlanIdOrNone>(std::to_string(c.value)).value(), c.value);
      continue;
    }
    try {
      VlanIdOrNone v(c.value);
      ADD_FAILURE() << "accepted " << v.value();
    } catch (const Oro::RangeException& e) {
      EXPECT_STREQ(e.what(), kVlanRange);
    }
    VlanIdOrNone kept(100);
    EXPECT_THROW(kept.valueIs(c.value), Oro::RangeException);
    EXPECT_EQ(kept.value(), 100);  // a refused value changes nothing
  }
  EXPECT_THROW(Oro::parseText<VlanIdOrNone>("4095"), Oro::RangeException);
  EXPECT_TRUE(VlanIdOrNone().isNone());
}

TEST(VlanIntf, InterfaceIdsReadAsVlanInterfaces) {
  EXPECT_EQ(Nevo::vlanIntfVlanId(Nevo::IntfId::vlan(100)), VlanIdOrNone(100));
  EXPECT_EQ(Nevo::vlanIntfVlanId(Nevo::IntfId::vlan(4094)), VlanIdOrNone(4094));
  EXPECT_TRUE(Nevo::vlanIntfVlanId(Nevo::IntfId()).isNone());
  try {
    Nevo::vlanIntfVlanId(Nevo::IntfId::vlan(4095));
    ADD_FAILURE() << "Vlan4095 accepted";
  } catch (const Oro::RangeException& e) {
    EXPECT_STREQ(e.what(), kVlanRange);
  }
}

// Records the old-value publications of vrfName.
struct NameLog : Oro::Notifiee {
  std::vector<std::tuple<VrfId, std::optional<std::string>, std::optional<std::string>>> changes;
  void onAttributeOldNew(Oro::AttrId attr, const void* key, const void* o, const void* n) override {
    EXPECT_EQ(attr, Vrf::VrfIdMap::Status::vrfNameAttr);
    auto text = [](const void* p) {
      return p ? std::optional<std::string>(*static_cast<const std::string*>(p)) : std::nullopt;
    };
    changes.emplace_back(*static_cast<const VrfId*>(key), text(o), text(n));
  }
};

TEST(VrfIdMapStatus, NamesArePublishedWithTheirOldValues) {
  auto s = Vrf::VrfIdMap::vrfIdMapStatusFactory();
  NameLog log;
  log.notifierIs(s.get());
  s->vrfNameIs(VrfId(5), "red");
  s->vrfNameIs(VrfId(5), "red");  // unchanged: nothing published
  s->vrfNameIs(VrfId(5), "blue");
  s->vrfNameIs(VrfId(2), "green");
  EXPECT_EQ(s->vrfName(VrfId(5)), "blue");
  EXPECT_EQ(s->vrfName(VrfId(9)), "");
  EXPECT_EQ(s->vrfNameGet(VrfId(9)), std::nullopt);
  EXPECT_EQ(s->vrfNameDel(VrfId(9)), "");
  EXPECT_EQ(s->vrfNameDel(VrfId(2)), "green");
  using C = std::tuple<VrfId, std::optional<std::string>, std::optional<std::string>>;
  EXPECT_EQ(log.changes, (std::vector<C>{{VrfId(5), std::nullopt, "red"},
                                         {VrfId(5), "red", "blue"},
                                         {VrfId(2), std::nullopt, "green"},
                                         {VrfId(2), "green", std::nullopt}}));

  // DelAll announces each removal while someone listens, in VRF id order.
  s->vrfNameIs(VrfId(1), "a");
  log.changes.clear();
  s->vrfNameDelAll();
  EXPECT_EQ(log.changes,
            (std::vector<C>{{VrfId(1), "a", std::nullopt}, {VrfId(5), "blue", std::nullopt}}));
  log.notifierIs(nullptr);
  s->vrfNameIs(VrfId(3), "c");
  s->vrfNameDelAll();
  EXPECT_EQ(s->vrfNameSize(), 0u);
}

}  // namespace
