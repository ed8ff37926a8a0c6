// The shared-memory store's index as it grows and shrinks (slot fields widening with new
// chunks, tombstones, new generations filled a few slots per write while a reader holds an
// older one, writes on both sides of the growth cursor, a writer killed mid-growth), and a
// reader's view of changes made between its creation and its first dispatch.
#include <map>
#include <set>
#include <vector>

#include <gtest/gtest.h>

#include "platform/shm/ShmTable.h"
#include "shm_test_util.h"

namespace {

using Oro::ShmAttach;
using Oro::ShmRole;
using Oro::ShmStore;
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
  // No write indexed more than a few slots into a new generation, however large the table.
  EXPECT_LE(w.core().store().indexGrowth().maxSlotsPerWrite, 32u);
  // The index stays small next to the records: at most 8 bytes per record after growth
  // (sized ahead for the keys that may arrive while the next generation is filled).
  EXPECT_LE(w.core().store().indexCapacity(), w.size() * 2);
}

// A store of (key, value) word pairs next to a model of what it should hold.
struct ModelStore {
  static ShmStore::Shape shape(const std::string& path) {
    return ShmStore::Shape{"test::Pair", path, "pairs", 4, 4};
  }
  ShmStore w;
  std::map<uint32_t, uint32_t> model;
  void put(uint32_t k, uint32_t v) {
    const uint32_t words[2] = {k, v};
    w.put(words);
    model[k] = v;
  }
  void remove(uint32_t k) {
    const uint32_t words[1] = {k};
    uint32_t old[2];
    ASSERT_TRUE(w.remove(words, old));
    model.erase(k);
  }
  // Every key of the model (and a run of absent ones) as `store` sees it.
  void expectSeenBy(const ShmStore& store, uint32_t absentFrom) const {
    for (const auto& [k, v] : model) {
      uint32_t words[2];
      ASSERT_NE(store.find(&k, words), ShmStore::kNoSlot) << k;
      ASSERT_EQ(words[1], v) << k;
    }
    for (uint32_t k = absentFrom; k < absentFrom + 1000; ++k) {
      ASSERT_EQ(store.find(&k, nullptr), ShmStore::kNoSlot) << k;
    }
  }
  // Entries of the published index generation that name a record: one per key, no stale ones.
  uint32_t liveEntries() const {
    const uint32_t gen = w.header()->indexGeneration.load();
    const auto seg = Oro::ShmSegment::open(
        Oro::shmSegmentName(w.header()->mountPath, "pairs", fmt::format("index{}", gen)),
        Oro::ShmSegment::Access::readOnly);
    const auto* ih = reinterpret_cast<const Oro::ShmLayout::IndexHeader*>(seg.data());
    const auto* e = reinterpret_cast<const uint32_t*>(ih + 1);
    uint32_t live = 0;
    for (uint32_t i = 0; i < ih->capacity; ++i) {
      live += e[i] != 0 && e[i] != Oro::ShmLayout::kTombstone;
    }
    return live;
  }
  // Grows the store with keys from *next on until a next generation is half filled.
  void growUntilMidway(uint32_t* next) {
    for (;;) {
      put(*next, *next + 1);
      ++*next;
      const ShmStore::IndexGrowth g = w.indexGrowth();
      if (g.migrating && g.cursor > w.highWater() / 2) return;
    }
  }
};

TEST_F(ShmStoreTest, WritesOnBothSidesOfTheGrowthCursorReachTheNextGeneration) {
  ModelStore m{ShmStore::openWriter(ModelStore::shape("s/cursor"), 0600, 64), {}};
  ShmStore r = ShmStore::openReader(ModelStore::shape("s/cursor"));
  uint32_t next = 0;
  for (; next < 50000; ++next) m.put(next, next + 1);
  for (int round = 0; round < 4; ++round) {
    m.growUntilMidway(&next);
    const uint32_t gen = m.w.header()->indexGeneration.load();
    const uint32_t cursor = m.w.indexGrowth().cursor;
    uint32_t below[2], above[2];
    const uint32_t belowSlot = m.w.seek(cursor / 2, below);
    const uint32_t aboveSlot = m.w.seek(cursor + 16, above);
    ASSERT_LT(belowSlot, cursor);
    ASSERT_NE(aboveSlot, ShmStore::kNoSlot);
    // Below the cursor: a removal, then a new key that takes the freed slot; a rewrite.
    m.remove(below[0]);
    const uint32_t fresh = 1u << 30 | next;
    m.put(fresh, 7);
    ASSERT_EQ(m.w.find(&fresh, nullptr), belowSlot);
    uint32_t other[2];
    m.w.seek(belowSlot + 1, other);
    m.put(other[0], 99);
    // Above the cursor: a removal and a rewrite.
    m.remove(above[0]);
    m.w.seek(aboveSlot + 1, other);
    m.put(other[0], 98);
    m.expectSeenBy(r, 1u << 31);
    // Rewrites only, until the next generation is complete and published.
    for (uint32_t k = 0; m.w.indexGrowth().migrating; ++k) m.put(m.model.begin()->first, k);
    ASSERT_EQ(m.w.header()->indexGeneration.load(), gen + 1);
    EXPECT_EQ(m.liveEntries(), m.model.size());
    m.expectSeenBy(m.w, 1u << 31);
    m.expectSeenBy(r, 1u << 31);
  }
  EXPECT_LE(m.w.indexGrowth().maxSlotsPerWrite, 16u);
}

TEST_F(ShmStoreTest, WriterKilledMidGrowthLeavesATableReadersReadAndANewWriterTakesOver) {
  const auto shape = ModelStore::shape("s/killed");
  // The child writes 0..n-1 (value k + 1) and dies while a next generation is half filled.
  shmtest::Pipe counted;
  const pid_t child = shmtest::forkChild([&] {
    ModelStore m{ShmStore::openWriter(shape, 0600, 64), {}};
    uint32_t next = 0;
    for (; next < 50000; ++next) m.put(next, next + 1);
    for (int i = 0; i < 3; ++i) {
      m.growUntilMidway(&next);
      while (m.w.indexGrowth().migrating) m.put(next, next + 1), ++next;
    }
    m.growUntilMidway(&next);
    (void)!::write(counted.fd[1], &next, sizeof next);
    return 0;  // exits without any cleanup, as if killed
  });
  uint32_t n = 0;
  ASSERT_EQ(::read(counted.fd[0], &n, sizeof n), static_cast<ssize_t>(sizeof n));
  ASSERT_EQ(shmtest::waitChild(child), 0);
  ModelStore expect;
  for (uint32_t k = 0; k < n; ++k) expect.model[k] = k + 1;

  ShmStore r = ShmStore::openReader(shape);
  expect.expectSeenBy(r, n);
  // The new writer indexes every record again and goes on growing; the reader follows.
  expect.w = ShmStore::openWriter(shape, 0600, 64);
  expect.expectSeenBy(expect.w, n);
  uint32_t next = n;
  expect.growUntilMidway(&next);
  expect.remove(3);
  while (expect.w.indexGrowth().migrating) expect.put(next, next + 1), ++next;
  expect.expectSeenBy(expect.w, 1u << 31);
  expect.expectSeenBy(r, 1u << 31);
  EXPECT_EQ(expect.liveEntries(), expect.model.size());
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
