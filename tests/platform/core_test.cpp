// Reference counting, entity publication and fatal assertions.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/Assert.h"
#include "platform/runtime/Entity.h"
#include "platform/Error.h"

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
  void change(int key) { publishKey<int>(1, key); }
  void flag() { publish(2); }
};

TEST(RefCount, CountsAndDeletesAtZero) {
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
}

TEST(RefCount, ZeroReferencesHandlerMayKeepTheObject) {
  Oro::Ptr<Handover> kept;
  {
    Oro::Ptr<Handover> h(new Handover);
    h->keeper = &kept;
  }
  ASSERT_TRUE(kept);
  EXPECT_EQ(kept->refs(), 1u);
}

TEST(Entity, PublishesKeysAndSurvivesUnsubscribeDuringPublication) {
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
  int flags = 0;
  Oro::AttrReactor f([&](Oro::AttrId id) { flags += id; });
  f.notifierIs(c.get());
  c->flag();
  EXPECT_EQ(flags, 2);
}

TEST(Entity, DestroyedEntityDetachesItsNotifiees) {
  Oro::KeyReactor<int> r(1, [](const int&) {});
  {
    Oro::Ptr<Coll> c(new Coll);
    r.notifierIs(c.get());
  }
  EXPECT_EQ(r.notifier(), nullptr);
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

}  // namespace
