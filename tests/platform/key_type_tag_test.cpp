// Keys reach notifiees untyped: in builds with assertions a reactor of the wrong key type
// must fail loudly, while matching reactors, nested publications and keys handed over
// without a publication pass.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "platform/runtime/Entity.h"

namespace {

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
};

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
}

TEST(KeyTypeTagDeathTest, ReactorOfTheWrongKeyTypeIsFatal) {
  if (!kChecked) GTEST_SKIP() << "key types are checked only in builds with assertions";
  const char* expect = "a key published as unsigned int reached a notifiee expecting unsigned long";
  EXPECT_DEATH(
      {
        Coll c;
        Oro::KeyReactor<uint64_t> wrong(1, [](const uint64_t&) {});
        wrong.notifierIs(&c);
        c.change(uint32_t{1});
      },
      expect);
  EXPECT_DEATH(
      {
        Coll c;
        Oro::KeyReactor<uint64_t> wrong(1, [](const uint64_t&) {});
        wrong.notifierIs(&c);
        c.replace(uint32_t{1}, "a", "b");
      },
      expect);
}

}  // namespace
