// Index growth hashes the slots just above its cursor one or more writes before it moves
// them: slots written in between (emptied, refilled with another key, rewritten) must reach
// the next generation as they are when moved, not as they were when looked at.
#include <map>

#include <gtest/gtest.h>

#include "platform/shm/ShmStore.h"
#include "shm_test_util.h"

namespace {

using Oro::ShmStore;

class ShmLookaheadTest : public shmtest::ShmTest {};

TEST_F(ShmLookaheadTest, SlotsChangedAfterTheyWereLookedAtReachTheNextGenerationAsTheyAreNow) {
  const ShmStore::Shape shape{"test::Pair", "s/ahead", "pairs", 4, 4};
  ShmStore w = ShmStore::openWriter(shape, 0600, 64);
  ShmStore r = ShmStore::openReader(shape);
  std::map<uint32_t, uint32_t> model;
  auto put = [&](uint32_t k, uint32_t v) {
    const uint32_t words[2] = {k, v};
    w.put(words);
    model[k] = v;
  };
  auto remove = [&](uint32_t k) {
    uint32_t old[2];
    ASSERT_TRUE(w.remove(&k, old));
    model.erase(k);
  };
  uint32_t next = 0;
  for (; next < 50000; ++next) put(next, next + 1);
  for (int round = 0; round < 3; ++round) {
    // Until a next generation is half filled: the slots just above the cursor were hashed.
    for (;;) {
      put(next, next + 1);
      ++next;
      const ShmStore::IndexGrowth g = w.indexGrowth();
      if (g.migrating && g.cursor > w.highWater() / 2) break;
    }
    const uint32_t gen = w.header()->indexGeneration.load();
    // Each write first moves the cursor a step (8 slots here), so a slot 20 above it is
    // still ahead of the cursor, and among the slots looked at, when the write changes it.
    auto ahead = [&](uint32_t* rec) { return w.seek(w.indexGrowth().cursor + 20, rec); };
    uint32_t rec[3][2];
    // Emptied then refilled with a new key (a freed slot is reused first).
    const uint32_t refilled = ahead(rec[0]);
    remove(rec[0][0]);
    const uint32_t fresh = 1u << 30 | next;
    put(fresh, 7);
    ASSERT_EQ(w.find(&fresh, nullptr), refilled);
    ASSERT_GT(refilled, w.indexGrowth().cursor);
    // Emptied.
    const uint32_t emptied = ahead(rec[1]);
    remove(rec[1][0]);
    ASSERT_GT(emptied, w.indexGrowth().cursor);
    // Rewritten.
    const uint32_t rewritten = ahead(rec[2]);
    put(rec[2][0], 99);
    ASSERT_GT(rewritten, w.indexGrowth().cursor);
    ASSERT_EQ(w.header()->indexGeneration.load(), gen) << "the growth ended too early";
    // Rewrites only, until the next generation is published.
    while (w.indexGrowth().migrating) put(model.begin()->first, round);
    ASSERT_EQ(w.header()->indexGeneration.load(), gen + 1);
    for (const ShmStore* store : {&w, &r}) {
      for (const auto& [k, v] : model) {
        uint32_t words[2];
        ASSERT_NE(store->find(&k, words), ShmStore::kNoSlot) << k;
        ASSERT_EQ(words[1], v) << k;
      }
      for (uint32_t i = 0; i < 2; ++i) {
        ASSERT_EQ(store->find(&rec[i][0], nullptr), ShmStore::kNoSlot) << rec[i][0];
      }
    }
  }
}

}  // namespace
