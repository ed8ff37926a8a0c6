// The platform types the tunnel mapper stands on: the VLAN range on every way in, and the VRF
// id map status's publications.
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "platform/CharRange.h"
#include "platform/Error.h"
#include "platform/net/VlanId.h"
#include "platform/net/VlanIntf.h"
#include "platform/net/VrfIdMapStatus.h"

namespace {

using Bridging::VlanIdOrNone;
using Vrf::VrfIdMap::VrfId;

TEST(VlanIdOrNone, RangeIsCheckedOnEveryWayIn) {
  for (const uint32_t v : {0u, 1u, 4094u, 4095u, 65541u}) {
    SCOPED_TRACE(v);
    VlanIdOrNone kept(100);
    const std::vector<std::function<uint16_t()>> waysIn = {
        [&] { return VlanIdOrNone(v).value(); },
        [&] { return (kept.valueIs(v), kept.value()); },
        [&] { return Oro::parseText<VlanIdOrNone>(std::to_string(v)).value(); },
        [&] { return Nevo::vlanIntfVlanId(Nevo::IntfId::vlan(v)).value(); },
    };
    for (const auto& wayIn : waysIn) {
      if (v <= 4094) {
        EXPECT_EQ(wayIn(), v);
        continue;
      }
      try {
        ADD_FAILURE() << "accepted as " << wayIn();
      } catch (const Oro::RangeException& e) {
        EXPECT_STREQ(e.what(), "Bridging::VlanIdOrNone::value > 4094 not allowed");
      }
    }
    EXPECT_EQ(kept.value(), v <= 4094 ? v : 100);  // a refused value changes nothing
  }
  EXPECT_TRUE(Nevo::vlanIntfVlanId(Nevo::IntfId()).isNone());
}

// Records the old-value publications of vrfName.
struct NameLog : Oro::Notifiee {
  using Change = std::tuple<VrfId, std::optional<std::string>, std::optional<std::string>>;
  std::vector<Change> changes;
  void onAttributeOldNew(Oro::AttrId, const void* key, const void* o, const void* n) override {
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
  EXPECT_EQ(s->vrfNameDel(VrfId(9)), "");  // absent: nothing published
  EXPECT_EQ(s->vrfNameDel(VrfId(2)), "green");
  s->vrfNameIs(VrfId(1), "a");
  s->vrfNameDelAll();  // someone listens: each removal, in VRF id order
  using C = NameLog::Change;
  EXPECT_EQ(log.changes, (std::vector<C>{{VrfId(5), std::nullopt, "red"},
                                         {VrfId(5), "red", "blue"},
                                         {VrfId(2), std::nullopt, "green"},
                                         {VrfId(2), "green", std::nullopt},
                                         {VrfId(1), std::nullopt, "a"},
                                         {VrfId(1), "a", std::nullopt},
                                         {VrfId(5), "blue", std::nullopt}}));
  EXPECT_EQ(s->vrfNameGet(VrfId(5)), std::nullopt);
}

}  // namespace
