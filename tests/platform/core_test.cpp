// The runtime's basics: reference counting, entity publication, the key types notifiees are
// handed (in builds with assertions a reactor of the wrong key type must fail loudly, while
// matching reactors, nested publications and keys handed over without a publication pass),
// the entity directory (creation by type name, arity checks, mounts), fatal assertions, the
// text form of optional values, feature toggles (environment values and caching; the route
// status dump test goes through overrides) and the in-process keyed collection (mutations,
// change counts, ordered iteration and resume).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include "platform/Assert.h"
#include "platform/Error.h"
#include "platform/Toggle.h"
#include "platform/runtime/Entity.h"
#include "platform/runtime/EntityDirectory.h"
#include "platform/runtime/KeyedCollection.h"
#include "platform/runtime/Optional.h"

namespace {

struct Counted : Oro::RefCounted {
  explicit Counted(int* deaths) : deaths_(deaths) {}
  ~Counted() override { ++*deaths_; }
  int* deaths_;
};

// An entity that hands itself to a keeper on its last reference, once.
struct Handover : Oro::Entity {
  std::string_view typeName() const override { return "Test::Handover"; }
  Oro::Ptr<Handover>* keeper = nullptr;
  void onZeroReferences() override {
    if (keeper) {
      auto* k = std::exchange(keeper, nullptr);
      *k = Oro::Ptr<Handover>(this);
    } else {
      delete this;
    }
  }
};

struct Coll : Oro::Entity {
  std::string_view typeName() const override { return "Test::Coll"; }
  template <class K>
  void change(const K& key) {
    publishKey(1, key);
  }
  template <class K>
  void replace(const K& key, const std::string& old, const std::string& now) {
    publishOldNew(1, key, &old, &now);
  }
  void flag() { publish(2); }
};

TEST(RefCount, CountsDeletesAtZeroOrLetsTheHandlerKeepTheObject) {
  int deaths = 0;
  {
    Oro::Ptr<Counted> a(new Counted(&deaths));
    Oro::Ptr<Counted> b = a;
    EXPECT_EQ(a->refs(), 2u);
    b = nullptr;
    Oro::Ptr<Counted> c(std::move(a));
    EXPECT_FALSE(a);  // NOLINT(bugprone-use-after-move): a moved-from Ptr is null
    EXPECT_EQ(c->refs(), 1u);
    EXPECT_EQ(deaths, 0);
  }
  EXPECT_EQ(deaths, 1);
  Oro::threadsInUseIs(true);
  {
    Oro::Ptr<Counted> a(new Counted(&deaths));
    Oro::Ptr<Counted> b = a;  // NOLINT(performance-unnecessary-copy-initialization)
    EXPECT_EQ(b->refs(), 2u);
  }
  Oro::threadsInUseIs(false);
  EXPECT_EQ(deaths, 2);

  Oro::Ptr<Handover> kept;
  {
    Oro::Ptr<Handover> h(new Handover);
    h->keeper = &kept;
  }
  ASSERT_TRUE(kept);
  EXPECT_EQ(kept->refs(), 1u);
}

TEST(Entity, PublishesKeysSurvivesUnsubscribeDuringPublicationAndDetachesWhenDestroyed) {
  Oro::Ptr<Coll> c(new Coll);
  std::vector<int> seenA, seenB;
  Oro::KeyReactor<int> a(1, [&](const int& k) { seenA.push_back(k); });
  std::unique_ptr<Oro::KeyReactor<int>> b;
  b = std::make_unique<Oro::KeyReactor<int>>(1, [&](const int& k) { seenB.push_back(k); });
  // `a` removes `b` while the first change is being published: b is not called after.
  Oro::KeyReactor<int> killer(1, [&](const int&) { b->notifierIs(nullptr); });
  killer.notifierIs(c.get());
  a.notifierIs(c.get());
  b->notifierIs(c.get());
  EXPECT_EQ(c->notifieeCount(), 3u);
  c->change(5);
  EXPECT_EQ(seenA, std::vector<int>{5});
  EXPECT_TRUE(seenB.empty());
  EXPECT_EQ(c->notifieeCount(), 2u);
  c->change(6);
  EXPECT_EQ(seenA, (std::vector<int>{5, 6}));
  // One that leaves and comes back from its own callback hears the change once; one attached
  // from a callback hears from the next change on.
  int againCalls = 0, lateCalls = 0;
  Oro::KeyReactor<int> late(1, [&](const int&) { ++lateCalls; });
  Oro::KeyReactor<int>* againPtr = nullptr;
  Oro::KeyReactor<int> again(1, [&](const int&) {
    if (++againCalls > 1) return;
    againPtr->notifierIs(nullptr);
    againPtr->notifierIs(c.get());
    late.notifierIs(c.get());
  });
  againPtr = &again;
  again.notifierIs(c.get());
  c->change(7);
  EXPECT_EQ(againCalls, 1);
  EXPECT_EQ(lateCalls, 0);
  c->change(8);
  EXPECT_EQ(lateCalls, 1);
  again.notifierIs(nullptr);
  late.notifierIs(nullptr);
  int flags = 0;
  Oro::AttrReactor f([&](Oro::AttrId id) { flags += id; });
  f.notifierIs(c.get());
  c->flag();
  EXPECT_EQ(flags, 2);

  Oro::KeyReactor<int> r(1, [](const int&) {});
  {
    Oro::Ptr<Coll> c(new Coll);
    r.notifierIs(c.get());
  }
  EXPECT_EQ(r.notifier(), nullptr);
}

#ifdef NDEBUG
constexpr bool kChecked = false;
#else
constexpr bool kChecked = true;
#endif

// An outer publication of uint32_t keys whose reactor publishes a string key elsewhere:
// after the inner one ends, the outer key is still known as a uint32_t.
TEST(KeyTypeTag, MatchingReactorsAndNestedPublicationsPass) {
  Coll outer, inner;
  std::vector<std::string> seen;
  Oro::KeyReactor<std::string> innerReactor(1, [&](const std::string& k) { seen.push_back(k); });
  innerReactor.notifierIs(&inner);
  Oro::KeyReactor<uint32_t> first(1, [&](const uint32_t& k) {
    seen.push_back(std::to_string(k));
    inner.change(std::string("in") + std::to_string(k));
  });
  Oro::KeyReactor<uint32_t> second(1,
                                   [&](const uint32_t& k) { seen.push_back(std::to_string(k)); });
  first.notifierIs(&outer);
  second.notifierIs(&outer);
  outer.change(uint32_t{7});
  outer.replace(uint32_t{8}, "a", "b");
  EXPECT_EQ(seen, (std::vector<std::string>{"7", "in7", "7", "8", "in8", "8"}));

  // A key handed over without a publication is not checked (nothing says what it is).
  const uint64_t wide = 9;
  second.onAttributeKey(1, &wide);
  EXPECT_EQ(seen.back(), "9");
}

TEST(KeyTypeTagDeathTest, ReactorOfTheWrongKeyTypeIsFatal) {
  if (!kChecked) GTEST_SKIP() << "key types are checked only in builds with assertions";
  const char* expect = "a key published as unsigned int reached a notifiee expecting unsigned long";
  for (const bool oldNew : {false, true}) {
    EXPECT_DEATH(
        {
          Coll c;
          Oro::KeyReactor<uint64_t> wrong(1, [](const uint64_t&) {});
          wrong.notifierIs(&c);
          oldNew ? c.replace(uint32_t{1}, "a", "b") : c.change(uint32_t{1});
        },
        expect)
        << (oldNew ? "with old and new values" : "key alone");
  }
}

struct Named : Oro::Entity {
  Named(std::string n, int* deaths) : name(std::move(n)), deaths_(deaths) {}
  ~Named() override {
    if (deaths_) ++*deaths_;
  }
  std::string_view typeName() const override { return "Test::Named"; }
  std::string name;
  int* deaths_;
};

struct Other : Oro::Entity {
  std::string_view typeName() const override { return "Test::Other"; }
};

class EntityDirectoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir.registerType("Test::Named", 1, [this](const std::vector<std::string>& args) {
      return Oro::Ptr<Oro::Entity>(new Named(args.empty() ? "default" : args[0], &deaths));
    });
    dir.registerType("Test::Other", 0,
                     [](const std::vector<std::string>&) { return Oro::makePtr<Other>(); });
  }
  Oro::EntityDirectory dir;
  int deaths = 0;
};

TEST_F(EntityDirectoryTest, CreatesByTypeNameAndChecksArguments) {
  auto e = dir.create("Test::Named", {"bgp"});
  ASSERT_TRUE(e);
  EXPECT_EQ(static_cast<Named*>(e.get())->name, "bgp");
  EXPECT_EQ(static_cast<Named*>(dir.create("Test::Named", {}).get())->name, "default");
  EXPECT_TRUE(dir.typeRegistered("Test::Other"));
  EXPECT_FALSE(dir.typeRegistered("Test::Missing"));
  using ::testing::StrEq;
  const auto twoArguments = [&] { dir.create("Test::Named", {"a", "b"}); };
  EXPECT_THAT(twoArguments, ::testing::ThrowsMessage<Oro::UnexpectedEntityArgumentsException>(StrEq(
                                "unexpected arguments creating Test::Named: 2 given, 1 expected")));
  EXPECT_THROW(dir.create("Test::Other", {"x"}), Oro::UnexpectedEntityArgumentsException);
  EXPECT_THAT([&] { dir.create("Test::Missing", {}); },
              ::testing::ThrowsMessage<Oro::Exception>(StrEq("unknown entity type Test::Missing")));
}

TEST_F(EntityDirectoryTest, MountsHoldEntitiesUntilUnmountedAndMountNewReusesThem) {
  const std::string bgp = "routing/multicast/vpn/vrfStatus/bgp";
  const std::string evpn = "routing6/multicast/vpn/vrfStatus/evpn";
  EXPECT_TRUE(dir.mount(bgp, dir.create("Test::Named", {"bgp"})));
  EXPECT_TRUE(dir.mount(evpn, dir.create("Test::Named", {"evpn"})));
  EXPECT_EQ(dir.paths(), (std::vector<std::string>{bgp, evpn}));
  EXPECT_EQ(static_cast<Named*>(dir.lookup(bgp).get())->name, "bgp");
  EXPECT_FALSE(dir.lookup("routing/nothing"));
  EXPECT_EQ(deaths, 0);

  // Replacing a mount drops the directory's reference to the old entity.
  EXPECT_FALSE(dir.mount(bgp, dir.create("Test::Named", {"bgp2"})));
  EXPECT_EQ(deaths, 1);
  EXPECT_TRUE(dir.unmount(bgp));
  EXPECT_FALSE(dir.unmount(bgp));
  EXPECT_EQ(deaths, 2);
  EXPECT_EQ(dir.paths(), (std::vector<std::string>{evpn}));

  const std::string path = "routing/multicast/vpn/intfStatus";
  auto first = dir.mountNew(path, "Test::Named", {"intf"});
  auto second = dir.mountNew(path, "Test::Named", {"ignored"});
  EXPECT_EQ(first, second);
  EXPECT_EQ(static_cast<Named*>(second.get())->name, "intf");
  EXPECT_THROW(dir.mountNew(path, "Test::Other", {}), Oro::Exception);
  EXPECT_THROW(dir.mountNew("routing/x", "Test::Missing", {}), Oro::Exception);
  EXPECT_FALSE(dir.lookup("routing/x"));
}

TEST(AssertDeathTest, PrintsConditionAndExplanation) {
  int client = 1;
  EXPECT_DEATH(MVPN_ASSERT_MSG((client == 0 || client == 2), "Unexpected writer agent"),
               "Assertion failed: \\(client == 0 \\|\\| client == 2\\) && \"Unexpected writer "
               "agent\"");
  EXPECT_DEATH(MVPN_ASSERT(client == 0), "Assertion failed: client == 0");
  EXPECT_DEATH(MVPN_ASSERT_FMT(client == 0, "key {} but {}", 1, 2),
               "Assertion failed: key 1 but 2");
}

// Values with a toStrep, and absent ones, as the VRF merge traces them (VrfMergeTrace).
TEST(OptionalStrep, PrintsValuesWithoutToStrepWithFmt) {
  EXPECT_EQ(Oro::optionalStrep(std::optional<uint32_t>(16777215)), "Optional(16777215)");
  EXPECT_EQ(Oro::optionalStrep(std::optional<std::string>("bgp_")), "Optional(bgp_)");
  EXPECT_EQ(Oro::optionalStrep(std::optional<int>()), "None");
}

TEST(Toggle, ReadsTheEnvironmentOnceAndCachesIt) {
  for (auto [name, value, on] : {std::tuple{"On", "TRUE", true},
                                 {"One", "1", true},
                                 {"Off", "false", false},
                                 {"Junk", "yes", false}}) {
    setenv((std::string("MVPN_TOGGLE_ToggleTest") + name).c_str(), value, 1);
    EXPECT_EQ(Oro::toggleEnabled(std::string("ToggleTest") + name), on) << value;
  }
  EXPECT_FALSE(Oro::toggleEnabled("ToggleTestUnset"));

  // Later changes of the environment are not seen until the cache is reset.
  setenv("MVPN_TOGGLE_ToggleTestOn", "0", 1);
  setenv("MVPN_TOGGLE_ToggleTestUnset", "1", 1);
  EXPECT_TRUE(Oro::toggleEnabled("ToggleTestOn"));
  EXPECT_FALSE(Oro::toggleEnabled("ToggleTestUnset"));
  Oro::toggleReset("ToggleTestOn");
  Oro::toggleReset("ToggleTestUnset");
  EXPECT_FALSE(Oro::toggleEnabled("ToggleTestOn"));
  EXPECT_TRUE(Oro::toggleEnabled("ToggleTestUnset"));

  for (const char* n : {"On", "One", "Off", "Junk", "Unset"}) {
    unsetenv((std::string("MVPN_TOGGLE_ToggleTest") + n).c_str());
    Oro::toggleReset(std::string("ToggleTest") + n);  // leave no cached value behind
  }
}

// A key ordered by its own operator<=>: descending priority, then name.
struct PrioKey {
  int prio;
  std::string name;
  std::strong_ordering operator<=>(const PrioKey& o) const {
    if (auto c = o.prio <=> prio; c != 0) return c;
    return name <=> o.name;
  }
  bool operator==(const PrioKey&) const = default;
};

template <class It>
std::vector<int> keysFrom(It it, It end) {
  std::vector<int> out;
  for (; it != end; ++it) out.push_back(it->first);
  return out;
}

TEST(KeyedCollection, InsertsReplacesRemovesCountsChangesAndIteratesInKeyOrder) {
  Oro::KeyedCollection<uint32_t, std::string> c;
  EXPECT_TRUE(c.empty());
  EXPECT_TRUE(c.insertOrReplace(5, "bgp_"));
  EXPECT_TRUE(c.insertOrReplace(3, "evpn_"));
  EXPECT_FALSE(c.insertOrReplace(5, "staticMvpn_"));
  EXPECT_EQ(c.size(), 2u);
  EXPECT_EQ(c.changeCount(), 3u);
  EXPECT_EQ(c.lookup(5), "staticMvpn_");
  ASSERT_NE(c.find(3), nullptr);
  EXPECT_EQ(*c.find(3), "evpn_");
  EXPECT_EQ(c.find(4), nullptr);
  EXPECT_EQ(c.lookup(4), std::nullopt);

  EXPECT_EQ(c.remove(5), "staticMvpn_");
  EXPECT_EQ(c.remove(5), std::nullopt);  // absent: no change counted
  EXPECT_EQ(c.changeCount(), 4u);
  EXPECT_FALSE(c.contains(5));
  c.insertOrReplace(9, "x");
  c.clear();
  EXPECT_TRUE(c.empty());
  EXPECT_EQ(c.changeCount(), 7u);

  Oro::KeyedCollection<int, int> n;
  for (int k : {40, 10, 30, 20, 50}) n.insertOrReplace(k, k * 2);
  EXPECT_EQ(keysFrom(n.begin(), n.end()), (std::vector<int>{10, 20, 30, 40, 50}));

  // A bookmark at 30; meanwhile 30 goes and 35 arrives: resume at 35.
  EXPECT_EQ(keysFrom(n.iterFrom(30), n.end()), (std::vector<int>{30, 40, 50}));
  n.remove(30);
  n.insertOrReplace(35, 0);
  EXPECT_EQ(keysFrom(n.iterFrom(30), n.end()), (std::vector<int>{35, 40, 50}));
  EXPECT_EQ(n.iterFrom(51), n.end());
  EXPECT_EQ(n.iterFrom(0), n.begin());

  // A key ordered by its own operator<=>.
  Oro::KeyedCollection<PrioKey, int> p;
  p.insertOrReplace({1, "b"}, 1);
  p.insertOrReplace({9, "z"}, 2);
  p.insertOrReplace({1, "a"}, 3);
  std::vector<int> values;
  for (const auto& [k, v] : p) values.push_back(v);
  EXPECT_EQ(values, (std::vector<int>{2, 3, 1}));
  EXPECT_EQ(p.iterFrom({5, "q"})->second, 3);
}

}  // namespace
