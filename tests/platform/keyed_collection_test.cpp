// The in-process keyed collection: mutations, change counts, ordered iteration and resume.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/runtime/KeyedCollection.h"

namespace {

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

TEST(KeyedCollection, InsertsReplacesRemovesAndCountsChanges) {
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
}

TEST(KeyedCollection, IteratesInKeyOrderAndResumesAfterRemovedKeys) {
  Oro::KeyedCollection<int, int> c;
  for (int k : {40, 10, 30, 20, 50}) c.insertOrReplace(k, k * 2);
  EXPECT_EQ(keysFrom(c.begin(), c.end()), (std::vector<int>{10, 20, 30, 40, 50}));

  // A bookmark at 30; meanwhile 30 goes and 35 arrives: resume at 35.
  EXPECT_EQ(keysFrom(c.iterFrom(30), c.end()), (std::vector<int>{30, 40, 50}));
  c.remove(30);
  c.insertOrReplace(35, 0);
  EXPECT_EQ(keysFrom(c.iterFrom(30), c.end()), (std::vector<int>{35, 40, 50}));
  EXPECT_EQ(c.iterFrom(51), c.end());
  EXPECT_EQ(c.iterFrom(0), c.begin());
}

TEST(KeyedCollection, UsesTheKeysOwnOrdering) {
  Oro::KeyedCollection<PrioKey, int> c;
  c.insertOrReplace({1, "b"}, 1);
  c.insertOrReplace({9, "z"}, 2);
  c.insertOrReplace({1, "a"}, 3);
  std::vector<int> values;
  for (const auto& [k, v] : c) values.push_back(v);
  EXPECT_EQ(values, (std::vector<int>{2, 3, 1}));
  EXPECT_EQ(c.iterFrom({5, "q"})->second, 3);
}

}  // namespace
