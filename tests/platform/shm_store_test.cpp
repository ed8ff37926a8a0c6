// The shared-memory store's index as it grows and shrinks (slot fields widening with new
// chunks, tombstones, rebuilds while a reader holds an older generation), and a reader's
// view of changes made between its creation and its first dispatch.
#include <set>
#include <vector>

#include <gtest/gtest.h>

#include "platform/ShmTable.h"
#include "shm_test_util.h"

namespace {

using Oro::ShmAttach;
using Oro::ShmRole;
using shmtest::Rec;
using Table = Oro::ShmTable<uint32_t, Rec>;

class ShmStoreTest : public shmtest::ShmTest {};

void dispatchAll(Table& t) {
  while (t.core().reader()->hasPending()) t.core().reader()->dispatch();
}

TEST_F(ShmStoreTest, IndexGrowthAcrossChunksKeepsEveryKeyFindableByWriterAndReader) {
  Table w("test::Rec", "recs", {});
  w.attach(ShmAttach{"s/grow", ShmRole::writer});
  Table r("test::Rec", "recs", {});
  r.attach(ShmAttach{"s/grow", ShmRole::reader});
  // Past the large-table threshold, through many chunks and index generations; the reader
  // looks keys up between writes, so it often holds a generation the writer has replaced.
  constexpr uint32_t kKeys = 300000;
  const uint32_t firstGen = w.core().store().header()->indexGeneration.load();
  for (uint32_t k = 0; k < kKeys; ++k) {
    ASSERT_TRUE(w.insert(k * 2654435761u, Rec::of(k)));
    if (k % 997 == 0) {
      ASSERT_EQ(r.find((k / 2) * 2654435761u), Rec::of(k / 2)) << k;
    }
  }
  EXPECT_GT(w.core().store().header()->indexGeneration.load(), firstGen + 10);
  // Removals leave tombstones and free slots, which new keys then reuse.
  for (uint32_t k = 0; k < kKeys; k += 3) ASSERT_TRUE(w.remove(k * 2654435761u));
  for (uint32_t k = kKeys; k < kKeys + kKeys / 3; ++k) {
    ASSERT_TRUE(w.insert(k * 2654435761u, Rec::of(k)));
  }
  EXPECT_EQ(w.size(), kKeys);
  EXPECT_EQ(w.core().store().highWater(), kKeys);  // every freed slot was reused
  for (uint32_t k = 0; k < kKeys + kKeys / 3; ++k) {
    const std::optional<Rec> expect =
        k < kKeys && k % 3 == 0 ? std::nullopt : std::optional(Rec::of(k));
    ASSERT_EQ(w.find(k * 2654435761u), expect) << k;
    ASSERT_EQ(r.find(k * 2654435761u), expect) << k;
  }
  // The index stays small next to the records: at most 8 bytes per record after growth
  // (sized ahead for the keys that may arrive while the next generation is filled).
  EXPECT_LE(w.core().store().indexCapacity(), w.size() * 2);
}

TEST_F(ShmStoreTest, ReaderReportsChangesMadeBeforeItsFirstDispatchInTheirOrder) {
  Table w("test::Rec", "recs", {});
  w.insert(1, Rec::of(1));
  w.attach(ShmAttach{"s/order", ShmRole::writer});
  std::vector<uint32_t> seen;
  Table r("test::Rec", "recs", {[&](const uint32_t& k) { seen.push_back(k); }, {}, {}});
  r.attach(ShmAttach{"s/order", ShmRole::reader});
  // Keys that come and go before the reader's first dispatch are still reported, in order,
  // after the keys present from before the reader existed.
  for (uint32_t k = 2; k < 40; ++k) w.insert(k, Rec::of(k));
  for (uint32_t k = 2; k < 40; k += 2) w.remove(k);
  w.insert(1000, Rec::of(1000));
  dispatchAll(r);
  ASSERT_FALSE(seen.empty());
  EXPECT_EQ(seen.front(), 1u);
  EXPECT_EQ(seen.back(), 1000u);
  const std::set<uint32_t> got(seen.begin(), seen.end());
  for (uint32_t k = 1; k < 40; ++k) EXPECT_TRUE(got.count(k)) << k;
  EXPECT_EQ(r.core().reader()->knownKeys().size(), w.size());
  EXPECT_EQ(r.core().reader()->resyncs(), 1u);

  // A reader whose log position is overrun before its first dispatch falls back to a scan.
  std::set<uint32_t> lateSeen;
  Table late("test::Rec", "recs", {[&](const uint32_t& k) { lateSeen.insert(k); }, {}, {}});
  late.attach(ShmAttach{"s/order", ShmRole::reader});
  for (uint32_t k = 0; k < 20000; ++k) w.insert(9000 + k % 100, Rec::of(k));
  dispatchAll(late);
  EXPECT_EQ(lateSeen.size(), w.size());
  EXPECT_EQ(late.core().reader()->knownKeys().size(), w.size());
}

}  // namespace
