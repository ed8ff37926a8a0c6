// The tunnel encapsulation status entities and records: what the merge relies on (per-key
// publication, member counts, versions, bookmarked walks, departed entities keeping
// their records) and the records' text forms.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "common/notice_log.h"
#include "common/shm_test_util.h"
#include "merge/MergeTestRig.h"
#include "merge/MvpnTunnelEncapStatus.h"
#include "platform/runtime/TaskScheduler.h"

namespace {

using namespace Routing::Multicast;
using EncapTest::intf;
using EncapTest::route;
using Oro::ShmAttach;
using Oro::ShmRole;
using Vrf::VrfIdMap::VrfId;

std::vector<MvpnRouteKey> keys(EncapTunnelIterator it) {
  std::vector<MvpnRouteKey> out;
  for (; it.valid(); it.next()) out.push_back(it.key());
  return out;
}

TEST(EncapStatus, MutatorsPublishEveryChangedKeyAndCountMembersAndWalksResumeAtABookmark) {
  auto root = mvpnTunnelEncapStatusFactory("writer");
  shmtest::KeyLog<VrfId> vrfChanges(root.get(), MvpnTunnelEncapStatus::vrfStatusAttr);

  auto vrf = root->vrfStatusIs(VrfId(7));
  EXPECT_EQ(root->vrfStatusIs(VrfId(7)), vrf);  // existing: same entity, nothing published
  shmtest::KeyLog<MvpnRouteKey> routeChanges(vrf.get(), MvpnVrfTunnelEncapStatus::encapTunnelAttr);

  const uint32_t v0 = vrf->encapTunnelVersion();
  vrf->encapTunnelIs(MvpnEncapTunnel(route(1), "a"));
  vrf->encapTunnelIs({route(1), "b"});                          // replaced: same member count
  EXPECT_EQ(vrf->encapTunnelDel(route(2)), MvpnEncapTunnel());  // absent: nothing
  EXPECT_EQ(vrf->encapTunnelSize(), 1u);
  EXPECT_EQ(vrf->encapTunnel(route(1))->encapData(), "b");
  EXPECT_EQ(vrf->encapTunnelVersion(), v0 + 2);
  EXPECT_EQ(vrf->encapTunnelDel(route(1)).encapData(), "b");  // the last record: entity stays
  EXPECT_EQ(root->vrfStatus(VrfId(7)), vrf);
  EXPECT_EQ(routeChanges.keys, (std::vector<MvpnRouteKey>{route(1), route(1), route(1)}));

  vrf->encapIntfTunnelIs(MvpnEncapIntfTunnel(intf(3)));
  vrf->encapIntfTunnelIs(MvpnEncapIntfTunnel(intf(4), "d"));
  EXPECT_EQ(vrf->encapIntfTunnelDel(intf(4)), MvpnEncapIntfTunnel(intf(4), "d"));
  EXPECT_EQ(vrf->encapIntfTunnelDel(intf(5)), MvpnEncapIntfTunnel());
  root->vrfStatusIs(VrfId(7));
  EXPECT_EQ(vrf->encapIntfTunnelSize(), 1u);  // vrfStatusIs on an existing VRF keeps records
  root->vrfStatusDel(VrfId(7));
  root->vrfStatusDel(VrfId(8));
  EXPECT_EQ(root->vrfStatus(VrfId(7)), nullptr);
  EXPECT_EQ(vrf->encapIntfTunnelSize(), 1u);  // kept for whoever still holds it
  EXPECT_EQ(vrfChanges.keys, (std::vector<VrfId>{VrfId(7), VrfId(7)}));
  // Every call counts, also one that finds the VRF there or absent; every announcement counts.
  using Routing::Multicast::TunnelEncapStore::kEncapTunnel;
  using Routing::Multicast::TunnelEncapStore::kVrfStatus;
  EXPECT_EQ(root->counters(kVrfStatus).is.value(), 3u);
  EXPECT_EQ(root->counters(kVrfStatus).del.value(), 2u);
  EXPECT_EQ(root->counters(kVrfStatus).notify.value(), vrfChanges.keys.size());
  EXPECT_EQ(root->counters(kEncapTunnel).notify.value(), routeChanges.keys.size());

  // Walks resume at a bookmark and survive changes.
  auto walked = Oro::makePtr<MvpnVrfTunnelEncapStatus>(VrfId(1));
  for (uint32_t g : {5, 1, 4, 2, 3}) walked->encapTunnelIs(MvpnEncapTunnel(route(g)));
  auto at = walked->encapTunnelIter();
  at.next();
  const EncapTunnelBookmark at2 = at.bookmark();
  EXPECT_EQ(keys(walked->encapTunnelIterAt(at2)),
            (std::vector{route(2), route(3), route(4), route(5)}));
  // The bookmarked key and the iterator's own key removed, a key inserted behind: both go on
  // with the next key.
  walked->encapTunnelDel(route(2));
  walked->encapTunnelIs(MvpnEncapTunnel(route(0)));
  EXPECT_EQ(keys(walked->encapTunnelIterAt(at2)), (std::vector{route(3), route(4), route(5)}));
  at.next();
  EXPECT_EQ(at.key(), route(3));
  // In a store, a bookmark made from a key alone resumes at that key (the walk goes in store
  // order); one of an absent key walks from the start.
  auto stored = root->vrfStatusIs(VrfId(2));
  for (uint32_t g : {5, 1, 4, 2, 3}) stored->encapTunnelIs(MvpnEncapTunnel(route(g)));
  EXPECT_EQ(keys(stored->encapTunnelIterAt(EncapTunnelBookmark{route(4)})),
            (std::vector{route(4), route(2), route(3)}));
  EXPECT_EQ(keys(stored->encapTunnelIterAt(EncapTunnelBookmark{route(9)})).size(), 5u);
  // A position past every page (a bookmark from before the store was rebuilt) ends the walk.
  EXPECT_TRUE(keys(stored->encapTunnelIterAt(EncapTunnelBookmark{route(1), 1u << 20})).empty());

  // A subscriber that deletes the VRF it is told of a change in and lets go of the last
  // reference to it: the entity goes when the mutator returns.
  Oro::KeyReactor<MvpnRouteKey> leaving(MvpnVrfTunnelEncapStatus::encapTunnelAttr,
                                        [&](const MvpnRouteKey&) {
                                          root->vrfStatusDel(VrfId(2));
                                          stored = nullptr;
                                        });
  leaving.notifierIs(stored.get());
  MvpnVrfTunnelEncapStatus* raw = stored.get();
  raw->encapTunnelIs(MvpnEncapTunnel(route(6)));
  EXPECT_FALSE(stored);
}

TEST(EncapStatus, DamagedCollectionsRaiseOnEveryRead) {
  auto root = mvpnTunnelEncapStatusFactory("damaged");
  auto vrf = root->vrfStatusIs(VrfId(3));
  vrf->encapTunnelIs(MvpnEncapTunnel(route(1)));
  vrf->encapTunnelIs(MvpnEncapTunnel(route(2)));
  auto it = vrf->encapTunnelIter();
  EncapStatusFaults::encapTunnelDamagedIs(*vrf, true);
  EncapStatusFaults::vrfStatusDamagedIs(*root, true);
  EXPECT_THROW(vrf->encapTunnel(route(1)), Oro::ShmCorruptionException);
  EXPECT_THROW(vrf->encapTunnelSize(), Oro::ShmCorruptionException);
  EXPECT_THROW(it.next(), Oro::ShmCorruptionException);
  EXPECT_THROW(root->vrfStatus(VrfId(3)), Oro::ShmCorruptionException);
  EXPECT_THROW(root->vrfStatusIter(), Oro::ShmCorruptionException);
  EXPECT_EQ(vrf->encapIntfTunnelSize(), 0u);  // the other collection is sound
  std::string reported;
  vrf->encapTunnelCorruptionHandlerIs([&](const std::string& m) { reported = m; });
  vrf->encapTunnelHandleCorruption("bad slot");
  EXPECT_EQ(reported, "bad slot");
}

using EncapStatusDeathTest = shmtest::ShmTest;

TEST_F(EncapStatusDeathTest, CorruptionDuringAWriteIsFatalAfterTheHandlerDeathTest) {
  auto root = mvpnTunnelEncapStatusFactory("mvpn");
  const std::string path = shmtest::ownMountPath("c/encap");
  root->mount(ShmAttach{path, ShmRole::writer});
  auto vrf = root->vrfStatusIs(VrfId(1));
  vrf->encapTunnelCorruptionHandlerIs(shmtest::printCorruption);
  vrf->encapTunnelIs(MvpnEncapTunnel(route(1), "a"));
  ASSERT_TRUE(shmtest::damageTable(path, "encapTunnel"));
  EXPECT_DEATH(vrf->encapTunnelIs(MvpnEncapTunnel(route(2), "b")),
               "handler saw: .*corrupt(.|\n)*write of encapTunnel met a corrupt shared memory");
  EXPECT_DEATH(vrf->encapTunnelDel(route(1)),
               "handler saw: .*corrupt(.|\n)*removal of encapTunnel met a corrupt shared memory");
}

class EncapStatusReader : public shmtest::ShmTest {
 protected:
  // A status named `name` mounted at "t/encap"; a reader follows it on `scheduler`.
  Oro::Ptr<MvpnTunnelEncapStatus> mounted(const std::string& name, ShmRole role) {
    auto s = mvpnTunnelEncapStatusFactory(name);
    s->mount(ShmAttach{"t/encap", role, role == ShmRole::reader ? &scheduler : nullptr});
    return s;
  }
  Oro::TaskScheduler scheduler;
};

// What a merge needs from a reader whose VRF leaves: every record key it was shown stays
// listed by the departed entity (so the merge can withdraw it), however the reader met the
// record; lookups find the VRF until its departure is delivered, and while that is delivered
// it is absent to every lookup even when the writer has made it again meanwhile.
TEST_F(EncapStatusReader, ADepartedVrfListsEveryKeyItShowedAndStaysAbsentWhileTold) {
  auto writer = mounted("writer", ShmRole::writer);
  auto reader = mounted("reader", ShmRole::reader);
  auto w7 = writer->vrfStatusIs(VrfId(7));
  w7->encapTunnelIs(MvpnEncapTunnel(route(1), "a"));
  w7->encapTunnelIs(MvpnEncapTunnel(route(2), "b"));
  // Found and walked before any change was delivered.
  auto r7 = reader->vrfStatus(VrfId(7));
  ASSERT_TRUE(r7);
  EXPECT_EQ(keys(r7->encapTunnelIter()), (std::vector{route(1), route(2)}));

  std::vector<bool> foundWhileTold;
  Oro::KeyReactor<VrfId> watch(MvpnTunnelEncapStatus::vrfStatusAttr, [&](const VrfId& v) {
    if (!writer->vrfStatus(v)) writer->vrfStatusIs(v);  // the writer is faster than us
    foundWhileTold.push_back(reader->vrfStatus(v) != nullptr);
  });
  watch.notifierIs(reader.get());
  writer->vrfStatusDel(VrfId(7));
  EXPECT_EQ(reader->vrfStatus(VrfId(7)), r7);  // until its departure is delivered
  scheduler.runUntilIdle();
  EXPECT_EQ(keys(r7->encapTunnelIter()), (std::vector{route(1), route(2)}));
  EXPECT_FALSE(r7->encapTunnel(route(1)));  // the records themselves went with the store's VRF
  ASSERT_FALSE(foundWhileTold.empty());
  EXPECT_FALSE(foundWhileTold.front());
  EXPECT_TRUE(foundWhileTold.back());  // the new VRF, told as a change of its own
  EXPECT_NE(reader->vrfStatus(VrfId(7)), r7);
}

// A walk hands out the same VRF proxy as a lookup of its key, on both sides, also while the
// slot of a deleted VRF holds another VRF that has not been delivered to the reader yet.
TEST_F(EncapStatusReader, AWalksVrfIsTheVrfALookupFinds) {
  auto writer = mounted("writer", ShmRole::writer);
  auto reader = mounted("reader", ShmRole::reader);
  for (uint32_t v = 1; v <= 3; ++v) writer->vrfStatusIs(VrfId(v));
  scheduler.runUntilIdle();
  auto walkMatchesLookups = [](const MvpnTunnelEncapStatus& s) {
    size_t n = 0;
    for (auto it = s.vrfStatusIter(); it.valid(); it.next(), ++n) {
      const auto walked = it.value();  // before the lookup, which may make a proxy
      if (!walked || walked != s.vrfStatus(it.key())) return false;
    }
    return n == 3;
  };
  const auto r2 = reader->vrfStatus(VrfId(2));
  EXPECT_TRUE(walkMatchesLookups(*reader));
  writer->vrfStatusDel(VrfId(2));
  writer->vrfStatusIs(VrfId(9));  // in the freed slot
  EXPECT_TRUE(walkMatchesLookups(*writer));
  EXPECT_TRUE(walkMatchesLookups(*reader));
  EXPECT_EQ(reader->vrfStatus(VrfId(2)), r2);  // not told yet
  scheduler.runUntilIdle();
  EXPECT_TRUE(walkMatchesLookups(*reader));
  EXPECT_FALSE(reader->vrfStatus(VrfId(2)));
}

// A store its writer had to build anew (the old one was damaged) is a new store: the VRFs the
// reader held leave, and the new store's VRFs are followed with their records, also one that
// sits where the old one did.
TEST_F(EncapStatusReader, RepublishedAndHeldVrfsKeepTheirRecords) {
  {
    auto first = mounted("first", ShmRole::writer);
    first->vrfStatusIs(VrfId(7))->encapTunnelIs(MvpnEncapTunnel(route(1), "a"));
    first->unmount();
  }
  auto reader = mounted("reader", ShmRole::reader);
  scheduler.runUntilIdle();
  const auto r7 = reader->vrfStatus(VrfId(7));
  ASSERT_TRUE(r7);
  ASSERT_TRUE(shmtest::damageTable("t/encap", "encapTunnel"));
  auto writer = mounted("writer", ShmRole::writer);
  writer->vrfStatusIs(VrfId(7))->encapTunnelIs(MvpnEncapTunnel(route(2), "b"));
  auto followed = [&] {
    auto v = reader->vrfStatus(VrfId(7));
    return v && v != r7 && keys(v->encapTunnelIter()) == std::vector{route(2)};
  };
  // The reader looks again after growing pauses (timers); the bound only ends a failed run.
  EXPECT_TRUE(
      scheduler.runUntil(followed, Oro::TaskScheduler::Clock::now() + std::chrono::seconds(20)));
  // An encapsulation of any length reaches the reader whole (this one is kept in pieces).
  const std::string big(300000, 'c');
  writer->vrfStatusIs(VrfId(7))->encapTunnelIs(MvpnEncapTunnel(route(3), big));
  EXPECT_TRUE(scheduler.runUntil(
      [&] {
        const auto t = reader->vrfStatus(VrfId(7))->encapTunnel(route(3));
        return t && t->encapData() == big;
      },
      Oro::TaskScheduler::Clock::now() + std::chrono::seconds(20)));

  // A VRF held beyond its status keeps its records in process memory; the others go with it.
  for (uint32_t v = 1; v <= 3; ++v) {
    writer->vrfStatusIs(VrfId(v))->encapTunnelIs(MvpnEncapTunnel(route(1), "a"));
    writer->vrfStatusIs(VrfId(v))->encapTunnelIs(MvpnEncapTunnel(route(2), "b"));
  }
  const auto held = writer->vrfStatus(VrfId(2));
  writer = nullptr;
  EXPECT_EQ(keys(held->encapTunnelIter()), (std::vector{route(1), route(2)}));
  ASSERT_TRUE(held->encapTunnel(route(2)));
  EXPECT_EQ(held->encapTunnel(route(2))->encapData(), "b");
}

TEST(EncapRecords, TextFormIsTheValueForm) {
  EXPECT_EQ(MvpnEncapTunnel(route(0x10101), "it's \\x").toStrep(),
            "Value('Routing::Multicast::MvpnEncapTunnel', ** {'routeKey': (10.0.0.1, "
            "239.1.1.1), 'encapData': 'it\\'s \\\\x'})");
  EXPECT_EQ(MvpnEncapIntfTunnel().toStrep(),
            "Value('Routing::Multicast::MvpnEncapIntfTunnel', ** {'routeIntfKey': " +
                MvpnRouteIntfKey().toStrep() + ", 'encapData': ''})");
}

}  // namespace
