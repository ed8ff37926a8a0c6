// The route status tree: mount paths, the source and group operations with the group lifetime
// rule, counts, dumps in both models, creation in the store's heap, departed entities, a
// randomized model check, and readers in other processes following a writer's tree.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <tuple>

#include "common/shm_test_util.h"
#include "platform/Error.h"
#include "platform/Toggle.h"
#include "platform/runtime/TaskScheduler.h"
#include "platform/shm/ShmEntityStore.h"
#include "status/MvpnRouteStatus.h"

namespace Routing::Multicast {
namespace {

using ::testing::HasSubstr;

using namespace std::chrono_literals;
using Nevo::IpGenAddr;
using Nevo::IpGenPrefix;
using Oro::ShmAttach;
using Oro::ShmRole;
using VrfId = Vrf::VrfIdMap::VrfId;
using Flags = MvpnSource::SourceFlags;

const auto v4 = [](uint32_t a) { return IpGenAddr::ipv4Addr(a); };
const auto prefix = [](uint32_t a, unsigned len) { return IpGenPrefix(v4(a), len); };

class RouteStatusTest : public shmtest::ShmTest {
 protected:
  void TearDown() override {
    Oro::toggleReset("MvpnGroupTylModel");
    ShmTest::TearDown();
  }
};
using RouteStatusDeathTest = RouteStatusTest;

TEST_F(RouteStatusTest, MountPathsNameTheWriterWithoutCheckingIt) {
  EXPECT_EQ(MvpnRouteStatus::mountPath(Nevo::ipv4, MvpnClient::bgp_),
            "routing/multicast/vpn/routeStatus/bgp");
  EXPECT_EQ(MvpnRouteStatus::mountPath(Nevo::ipv6, MvpnClient::bgp_),
            "routing6/multicast/vpn/routeStatus/bgp");
  EXPECT_EQ(MvpnRouteStatus::mountPath(Nevo::ipv4, MvpnClient::pimBidir_),
            "routing/multicast/vpn/routeStatus/pimBidir");
}

TEST_F(RouteStatusTest, SourcesAndTheGroupLifetimeRule) {
  auto root = mvpnRouteStatusFactory("bgp");
  auto vrf = root->vrfRouteStatusIs(VrfId(5));
  EXPECT_EQ(root->vrfRouteStatusIs(VrfId(5)), vrf);  // the same entity, not a new one
  const IpGenAddr g = v4(0xef010101), s1 = v4(0x0a010101), s2 = v4(0x0a010102);
  const MvpnSource rec = vrf->mvpnSourceIs(g, s1, prefix(0x0a010100, 24), true, Flags(2));
  EXPECT_EQ(rec, MvpnSource(s1, prefix(0x0a010100, 24), Flags(2)));
  ASSERT_TRUE(vrf->mvpnGroup(g));
  // The same source on both trees; removing it from one keeps the group.
  vrf->mvpnSourceIs(g, s1, prefix(0x0a010100, 24), false, Flags(0));
  EXPECT_EQ(vrf->mvpnSourceDel(g, s1, true), rec);
  ASSERT_TRUE(vrf->mvpnGroup(g));
  EXPECT_FALSE(vrf->mvpnSharedTree(g));
  EXPECT_EQ(vrf->mvpnSource(g, s1, false), MvpnSource(s1, prefix(0x0a010100, 24), Flags(0)));
  EXPECT_EQ(vrf->mvpnSource(g, s1, true), MvpnSource());
  EXPECT_EQ(vrf->mvpnSource(v4(0xef020202), s1, false), MvpnSource());
  EXPECT_EQ(vrf->mvpnSourceDel(g, s1, false).source(), s1);  // both trees empty: the group goes
  EXPECT_FALSE(vrf->mvpnGroup(g));
  // Deleting from a group that does not exist creates nothing; from an empty group deletes it.
  EXPECT_EQ(vrf->mvpnSourceDel(g, s2, true), MvpnSource());
  EXPECT_FALSE(vrf->mvpnGroup(g));
  vrf->mvpnGroupIs(g);
  EXPECT_EQ(vrf->mvpnSourceDel(g, s2, true), MvpnSource());
  EXPECT_FALSE(vrf->mvpnGroup(g));
  // Counts over all groups.
  for (uint32_t n = 0; n < 6; ++n) {
    vrf->mvpnSourceIs(v4(0xef000000 + n % 3), v4(0x0a000000 + n), prefix(0, 0), n % 2 == 0,
                      Flags());
  }
  EXPECT_EQ(vrf->mvpnSharedTrees(), 3u);
  EXPECT_EQ(vrf->mvpnSourceTrees(), 3u);
  EXPECT_FALSE(vrf->mvpnSharedTree(v4(0xef999999)));
  // The flat route model stores records unchecked (the flags invariant is the writer's).
  const MvpnRouteKey rk(s1, g, true);
  const MvpnRoute bad(rk, prefix(0x0a010100, 24), MvpnRoute::RouteFlags(2));
  vrf->mvpnRouteIs(bad);
  EXPECT_EQ(vrf->mvpnRoute(rk), bad);
  EXPECT_EQ(vrf->mvpnRouteDel(rk), bad);
  EXPECT_EQ(vrf->mvpnRouteDel(rk), MvpnRoute());
  EXPECT_EQ(root->counters(RouteStatusStore::kMvpnRoute).del.value(), 2u);
}

TEST_F(RouteStatusTest, DumpsInBothModels) {
  auto root = mvpnRouteStatusFactory("bgp");
  Oro::DumpContext empty;
  root->dumpState(empty, 0);
  EXPECT_EQ(empty.str(), "MvpnRouteStatus #0:\n");
  auto vrf = root->vrfRouteStatusIs(VrfId(5));
  vrf->mvpnSourceIs(v4(0xef010101), v4(0x0a010101), prefix(0x0a010100, 24), true, Flags(2));
  vrf->mvpnRouteIs(MvpnRoute(MvpnRouteKey(v4(0x0a010101), v4(0xef010101), false),
                             prefix(0x0a010100, 24), MvpnRoute::RouteFlags(7)));
  Oro::toggleOverride("MvpnGroupTylModel", true);
  Oro::DumpContext groups;
  root->dumpState(groups, 0);
  EXPECT_EQ(groups.str(),
            "MvpnRouteStatus #1:\n"
            "  VRF ID: 5\n"
            "    MVPN Groups #1\n"
            "      Group: 239.1.1.1\n"
            "        Shared tree: #1\n"
            "          10.1.1.1: UMH: 10.1.1.0/24, (S,G)\n"
            "        Source tree: #0\n");
  Oro::toggleOverride("MvpnGroupTylModel", false);
  Oro::DumpContext routes;
  root->dumpState(routes, 4);
  EXPECT_EQ(routes.str(),
            "    MvpnRouteStatus #1:\n"
            "      VRF ID: 5\n"
            "        MVPN Routes #1\n"
            "          " +
                vrf->mvpnRoute(MvpnRouteKey(v4(0x0a010101), v4(0xef010101), false))->toStrep() +
                "\n");
  // A VRF reached twice in one dump is printed once, then reported.
  root->dumpState(routes, 0);
  EXPECT_THAT(routes.str(), HasSubstr("  MvpnVrfRouteStatus (already printed)\n"));
}

TEST_F(RouteStatusTest, RootsAreMadeInTheStoresHeapAndByTheStoresCreator) {
  Oro::CountingHeap& heap = Oro::ShmEntityStore::heap();
  const uint64_t before = heap.allocations();
  auto root = mvpnRouteStatusFactory("x");
  EXPECT_EQ(heap.allocations(), before + 1);
  EXPECT_EQ(&Oro::EntityHeap::current(), &Oro::EntityHeap::process());
  heap.failIs(true);
  EXPECT_THROW(mvpnRouteStatusFactory("y"), Oro::NullPointerException);
  heap.failIs(false);
  EXPECT_EQ(&Oro::EntityHeap::current(), &Oro::EntityHeap::process());
  const Oro::ShmEntityStore::Initializer init{"t/created", ShmRole::writer};
  Oro::Ptr<Oro::Entity> made =
      Oro::ShmEntityStore::createRoot(MvpnRouteStatus::kTypeName, "z", &init);
  auto* created = static_cast<MvpnRouteStatus*>(made.get());
  EXPECT_EQ(created->name(), "z");
  EXPECT_EQ(created->binding().mountPath(), "t/created");
}

TEST_F(RouteStatusDeathTest, AnotherFamilyOrCreationWithoutInitializerIsFatalDeathTest) {
  EXPECT_DEATH(MvpnRouteStatus::mountPath(Nevo::ipunknown, MvpnClient::bgp_),
               "false && \"Unsupported address family\"");
  EXPECT_DEATH(Oro::ShmEntityStore::createRoot(MvpnRouteStatus::kTypeName, "x", nullptr),
               "Assertion failed: initializer");
}

TEST_F(RouteStatusTest, ADeletedVrfKeepsItsRecordsForWhoeverHoldsIt) {
  auto root = mvpnRouteStatusFactory("bgp");
  root->mount(ShmAttach{"t/departed", ShmRole::writer});
  auto vrf = root->vrfRouteStatusIs(VrfId(9));
  vrf->mvpnSourceIs(v4(0xef010101), v4(0x0a010101), prefix(0, 0), true, Flags());
  const MvpnRoute route(MvpnRouteKey(v4(1), v4(0xef010101), true), prefix(0, 0), {});
  vrf->mvpnRouteIs(route);
  root->vrfRouteStatusDel(VrfId(9));
  EXPECT_FALSE(root->vrfRouteStatus(VrfId(9)));
  EXPECT_EQ(vrf->mvpnRoute(route.key()), route);
  EXPECT_EQ(vrf->mvpnGroupSize(), 1u);
  EXPECT_EQ(vrf->mvpnSharedTrees(), 1u);
  // A new VRF under the same id is another entity, empty.
  auto again = root->vrfRouteStatusIs(VrfId(9));
  EXPECT_NE(again, vrf);
  EXPECT_EQ(again->mvpnRouteSize(), 0u);
}

// Random source and group operations against a plain model of the trees.
TEST_F(RouteStatusTest, RandomOperationsMatchAModel) {
  for (const bool mounted : {false, true}) {
    auto root = mvpnRouteStatusFactory("bgp");
    if (mounted) root->mount(ShmAttach{"t/model", ShmRole::writer});
    using Trees = std::map<bool, std::map<IpGenAddr, MvpnSource>>;
    std::map<uint32_t, std::map<IpGenAddr, Trees>> model;  // vrf -> group -> trees
    std::mt19937 rng(mounted ? 11 : 12);
    for (int step = 0; step < 4000; ++step) {
      const uint32_t v = rng() % 3;
      const IpGenAddr g = v4(0xef000000 + rng() % 5), s = v4(0x0a000000 + rng() % 6);
      const bool shared = rng() % 2;
      auto vrf = root->vrfRouteStatusIs(VrfId(v));
      auto& groups = model[v];
      switch (rng() % 6) {
        case 0:
        case 1: {
          const MvpnSource rec(s, prefix(rng() % 256, 8), Flags(rng() % 8));
          EXPECT_EQ(vrf->mvpnSourceIs(g, s, rec.umhPrefix(), shared, rec.sourceFlags()), rec);
          groups[g][shared][s] = rec;
          break;
        }
        case 2: {
          MvpnSource want;
          if (auto it = groups.find(g); it != groups.end()) {
            if (auto r = it->second[shared].find(s); r != it->second[shared].end()) {
              want = r->second;
              it->second[shared].erase(r);
            }
            if (it->second[true].empty() && it->second[false].empty()) groups.erase(it);
          }
          EXPECT_EQ(vrf->mvpnSourceDel(g, s, shared), want);
          break;
        }
        case 3:
          vrf->mvpnGroupIs(g);
          groups[g];
          break;
        case 4:
          vrf->mvpnGroupDel(g);
          groups.erase(g);
          break;
        case 5:
          if (rng() % 10 == 0) {
            root->vrfRouteStatusDel(VrfId(v));
            model.erase(v);
          }
          break;
      }
    }
    for (const auto& [v, groups] : model) {
      auto vrf = root->vrfRouteStatus(VrfId(v));
      ASSERT_TRUE(vrf);
      ASSERT_EQ(vrf->mvpnGroupSize(), groups.size());
      uint32_t shared = 0, source = 0;
      for (const auto& [g, trees] : groups) {
        auto group = vrf->mvpnGroup(g);
        ASSERT_TRUE(group) << g.toStrep();
        for (const bool which : {true, false}) {
          const auto it = trees.find(which);
          const size_t n = it == trees.end() ? 0 : it->second.size();
          EXPECT_EQ(which ? group->sharedTreeSize() : group->sourceTreeSize(), n);
          (which ? shared : source) += static_cast<uint32_t>(n);
          if (it == trees.end()) continue;
          for (const auto& [s, rec] : it->second) EXPECT_EQ(vrf->mvpnSource(g, s, which), rec);
        }
      }
      EXPECT_EQ(vrf->mvpnSharedTrees(), shared);
      EXPECT_EQ(vrf->mvpnSourceTrees(), source);
    }
  }
}

// A reader's copy of a tree, and every change it was told of, by level.
struct TreeCopy {
  std::map<std::tuple<uint32_t, uint32_t, bool, uint32_t>, MvpnSource> sources;
  std::map<std::pair<uint32_t, MvpnRouteKey>, MvpnRoute> routes;
  bool operator==(const TreeCopy&) const = default;
};

TreeCopy copyOf(const MvpnRouteStatus& root) {
  TreeCopy t;
  for (auto v = root.vrfRouteStatusIter(); v.valid(); v.next()) {
    auto vrf = v.value();
    for (auto r = vrf->mvpnRouteIter(); r.valid(); r.next()) {
      t.routes[{vrf->vrfId().value(), r.key()}] = r.value();
    }
    for (auto g = vrf->mvpnGroupIter(); g.valid(); g.next()) {
      auto group = g.value();
      auto copyTree = [&](auto s, bool shared) {
        for (; s.valid(); s.next()) {
          t.sources[{vrf->vrfId().value(), group->group().v4HostOrder(), shared,
                     s.key().v4HostOrder()}] = s.value();
        }
      };
      copyTree(group->sharedTreeIter(), true);
      copyTree(group->sourceTreeIter(), false);
    }
  }
  return t;
}

// The writer's random tree changes (VRFs, groups, sources, routes, whole VRFs and groups).
void changeTree(MvpnRouteStatus& root, std::mt19937& rng, int steps) {
  for (int step = 0; step < steps; ++step) {
    const uint32_t v = 1 + rng() % 6;
    const IpGenAddr g = v4(0xef000000 + rng() % 4), s = v4(0x0a000000 + rng() % 8);
    switch (rng() % 10) {
      case 0:
        root.vrfRouteStatusDel(VrfId(v));
        break;
      case 1:
        if (auto vrf = root.vrfRouteStatus(VrfId(v))) vrf->mvpnGroupDel(g);
        break;
      case 2:
      case 3:
        root.vrfRouteStatusIs(VrfId(v))->mvpnSourceDel(g, s, rng() % 2);
        break;
      case 4:
        root.vrfRouteStatusIs(VrfId(v))->mvpnRouteIs(
            MvpnRoute(MvpnRouteKey(s, g, true), prefix(rng() % 256, 8), {}));
        break;
      case 5:
        root.vrfRouteStatusIs(VrfId(v))->mvpnRouteDel(MvpnRouteKey(s, g, true));
        break;
      default:
        root.vrfRouteStatusIs(VrfId(v))->mvpnSourceIs(g, s, prefix(rng() % 256, 8), rng() % 2,
                                                      Flags(rng() % 8));
    }
  }
}

TEST_F(RouteStatusTest, AReaderInAnotherProcessFollowsTheTreeAtEveryLevel) {
  const std::string path = MvpnRouteStatus::mountPath(Nevo::ipv4, MvpnClient::bgp_);
  shmtest::Pipe ready, go, done;
  const pid_t writer = shmtest::forkChild([&] {
    auto root = mvpnRouteStatusFactory("bgp");
    root->mount(ShmAttach{path, ShmRole::writer, nullptr, 0600, 64});
    std::mt19937 rng(99);
    changeTree(*root, rng, 200);
    ready.send();
    if (!go.receive()) return 3;
    changeTree(*root, rng, 3000);        // with a small log: overruns on the way
    root->vrfRouteStatusIs(VrfId(100));  // the end marker
    if (!done.receive()) return 4;
    return 0;
  });
  ASSERT_TRUE(ready.receive());
  Oro::TaskScheduler sched;
  auto reader = mvpnRouteStatusFactory("bgp");
  // Every level's notifications: VRFs from the root; routes and groups from each VRF;
  // sources from each group (subscriptions follow the entities as they appear).
  std::set<std::string> levels;
  struct Reactor : Oro::Notifiee {
    std::function<void(Oro::AttrId, const void*)> fn;
    void onAttributeKey(Oro::AttrId a, const void* k) override { fn(a, k); }
  };
  std::map<const void*, std::unique_ptr<Reactor>> watches;
  auto watch = [&](Oro::Entity* e, std::function<void(Oro::AttrId, const void*)> fn) {
    if (!e || watches.count(e)) return;
    auto& r = watches[e] = std::make_unique<Reactor>();
    r->fn = std::move(fn);
    r->notifierIs(e);
  };
  auto onGroup = [&](Oro::AttrId a, const void*) {
    levels.insert(a == MvpnGroup::sharedTreeAttr ? "sharedTree" : "sourceTree");
  };
  Oro::KeyReactor<VrfId> onVrf(MvpnRouteStatus::vrfRouteStatusAttr, [&](const VrfId& v) {
    levels.insert("vrf");
    auto vrf = reader->vrfRouteStatus(v);
    watch(vrf.get(), [&, vrf = vrf.get()](Oro::AttrId a, const void* k) {
      levels.insert(a == MvpnVrfRouteStatus::mvpnRouteAttr ? "route" : "group");
      if (a == MvpnVrfRouteStatus::mvpnGroupAttr) {
        watch(vrf->mvpnGroup(*static_cast<const IpGenAddr*>(k)).get(), onGroup);
      }
    });
    if (v == VrfId(100)) sched.stop();
  });
  onVrf.notifierIs(reader.get());
  reader->mount(ShmAttach{path, ShmRole::reader, &sched});
  go.send();
  sched.runUntil(Oro::TaskScheduler::Clock::now() + 60s);  // ends at the marker
  // A resynchronising walk may report the marker before changes still in the log.
  sched.runUntilIdle();
  ASSERT_TRUE(reader->vrfRouteStatus(VrfId(100)));
  // The writer's tree as the reader sees it equals the tree a second, fresh reader rebuilds.
  auto fresh = mvpnRouteStatusFactory("bgp");
  fresh->mount(ShmAttach{path, ShmRole::reader});
  EXPECT_TRUE(copyOf(*reader) == copyOf(*fresh));
  EXPECT_EQ(levels, (std::set<std::string>{"vrf", "route", "group", "sharedTree", "sourceTree"}));
  for (auto& [k, w] : watches) w->notifierIs(nullptr);
  done.send();
  EXPECT_EQ(shmtest::waitChild(writer), 0);
}

TEST_F(RouteStatusTest, AWriterKilledInNestedWritesLeavesAConsistentTreeToTakeOver) {
  for (const auto point : {Oro::ShmFaultPoint::entityRemoved, Oro::ShmFaultPoint::pageLinked,
                           Oro::ShmFaultPoint::insertCommitted, Oro::ShmFaultPoint::removeFreed}) {
    SCOPED_TRACE(static_cast<int>(point));
    const std::string path = fmt::format("t/killed{}", static_cast<int>(point));
    const pid_t writer = shmtest::forkChild([&] {
      auto root = mvpnRouteStatusFactory("bgp");
      root->mount(ShmAttach{path, ShmRole::writer});
      std::mt19937 rng(5);
      changeTree(*root, rng, 300);
      shmtest::faultAt(point, 3);
      changeTree(*root, rng, 100000);
      return 1;
    });
    ASSERT_EQ(shmtest::waitChild(writer), 128 + SIGKILL);
    // Whole records, members only under live parents, counts that agree with walks.
    auto reader = mvpnRouteStatusFactory("bgp");
    reader->mount(ShmAttach{path, ShmRole::reader});
    for (auto v = reader->vrfRouteStatusIter(); v.valid(); v.next()) {
      auto vrf = v.value();
      size_t groups = 0;
      for (auto g = vrf->mvpnGroupIter(); g.valid(); g.next(), ++groups) {
        size_t n = 0;
        for (auto s = g.value()->sharedTreeIter(); s.valid(); s.next()) ++n;
        EXPECT_EQ(n, g.value()->sharedTreeSize());
      }
      EXPECT_EQ(groups, vrf->mvpnGroupSize());
    }
    const TreeCopy before = copyOf(*reader);
    auto taken = mvpnRouteStatusFactory("bgp");
    taken->mount(ShmAttach{path, ShmRole::writer});
    EXPECT_TRUE(copyOf(*taken) == before);
    std::mt19937 rng(6);
    changeTree(*taken, rng, 500);
  }
}

}  // namespace
}  // namespace Routing::Multicast
