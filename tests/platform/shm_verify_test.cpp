// Integrity checks of shared-memory stores: a healthy store (flat, nested and blob
// collections) checks clean, also while its writer writes; damage written into its segments is
// found and named.
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <random>
#include <thread>

#include <gmock/gmock.h>

#include "common/shm_test_util.h"
#include "platform/shm/ShmCollection.h"
#include "platform/shm/ShmVerify.h"

namespace {

using namespace shmtest;
using namespace Oro::ShmLayout;
using Oro::ShmStore;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

constexpr uint32_t kFlat = 0, kVrfs = 1, kRoutes = 2, kBlobs = 3;
constexpr uint32_t kFlatRecords = 4000, kParents = 12, kMembers = 20, kBlobRecords = 40;

Oro::ShmStoreSchema schema() {
  Oro::ShmStoreSchema s;
  s.rootType = "test::VerifyRoot";
  s.collections = {
      {"flat", "test::Flat", 1, 2, kCollValues, kNoParent, 8, 16, false},
      {"vrfs", "test::Vrf", 3, 4, kCollEntities, kNoParent, 4, 8, false},
      {"routes", "test::Route", 5, 6, kCollValues, kVrfs, 8, 8, false},
      {"blobs", "test::Blob", 7, 8, kCollValues, kNoParent, 4, 4, true},
  };
  return s;
}

// Flat records: key (k, ~k), value four words derived from k.
void putFlat(ShmStore& s, uint32_t k, uint32_t v) {
  const uint32_t w[6] = {k, ~k, v, v + 1, v * 3, k ^ v};
  s.put(kFlat, w, {});
}
uint64_t vrfRef(ShmStore& s, uint32_t v) {
  const uint32_t key[1] = {v};
  return s.refOf(kVrfs, s.find(kVrfs, key, nullptr));
}
void putRoute(ShmStore& s, uint64_t parent, uint32_t k, uint32_t v) {
  const uint32_t w[6] = {refSlot(parent), refGen(parent), k, k * 7, v, ~v};
  s.put(kRoutes, w, {});
}
void putBlob(ShmStore& s, uint32_t k, uint32_t v) {
  const uint32_t w[2 + kBlobRefWords] = {k, v};
  s.put(kBlobs, w, std::string(1 + (k * 37 + v) % 3000, static_cast<char>('a' + k % 26)));
}

ShmStore filledStore(const std::string& path) {
  ShmStore s = ShmStore::openWriter(path, schema(), 0600, 1024);
  for (uint32_t k = 0; k < kFlatRecords; ++k) putFlat(s, k, k);
  for (uint32_t v = 0; v < kParents; ++v) {
    const uint32_t w[3] = {v, v, v};
    s.put(kVrfs, w, {});
    for (uint32_t k = 0; k < kMembers; ++k) putRoute(s, vrfRef(s, v), k, v);
  }
  for (uint32_t k = 0; k < kBlobRecords; ++k) putBlob(s, k, k);
  return s;
}

constexpr size_t kAllRecords = kFlatRecords + kParents + kParents * kMembers + kBlobRecords;

// Raw access to a store's segments through /dev/shm, as a stray process could write them.
struct Raw {
  std::string path;
  ShmStore view = ShmStore::openReader(path, nullptr);

  const CollectionDesc& desc(uint32_t c) const { return view.header()->colls[c]; }
  template <class T>
  void pokeHeader(size_t offset, T v) const {
    writeSegment(Oro::shmStoreName(path), offset, &v, sizeof v);
  }
  // Word `word` of slot `slot` of collection c (word 0: the sequence word).
  void pokeSlot(uint32_t c, uint32_t slot, uint32_t word, uint32_t v) const {
    const uint32_t chunk = chunkOf(slot);
    const size_t offset = (size_t{slot - chunkFirstSlot(chunk)} * desc(c).slotWords + word) * 4;
    writeSegment(
        Oro::shmStoreSegmentName(path, view.header()->instance, fmt::format("{}k{}", c, chunk)),
        offset, &v, 4);
  }
  uint32_t slotWord(uint32_t c, uint32_t slot, uint32_t word) const {
    return loadWord(view.collection(c).slotWordsAt(slot) + word);
  }
  std::string indexName(uint32_t c) const {
    return Oro::shmStoreSegmentName(path, view.header()->instance,
                                    fmt::format("{}i{}", c, desc(c).indexGeneration.load()));
  }
  void pokeIndex(uint32_t c, uint32_t pos, uint32_t v) const {
    writeSegment(indexName(c), sizeof(IndexHeader) + 4 * size_t{pos}, &v, 4);
  }
  uint32_t freeIndexEntry(uint32_t c) const {
    Oro::ShmSegment ix = Oro::ShmSegment::open(indexName(c), Oro::ShmSegment::Access::readOnly);
    const auto* h = reinterpret_cast<const IndexHeader*>(ix.data());
    const auto* entries = reinterpret_cast<const uint32_t*>(ix.data() + sizeof(IndexHeader));
    for (uint32_t pos = 0; pos < h->capacity; ++pos) {
      if (loadWord(entries + pos) == 0) return pos;
    }
    return kNoSlot;
  }
  // Slot word of side word `word` of an entity slot.
  uint32_t sideWord(uint32_t c, uint32_t word) const {
    return view.collection(c).sideWordsOffset() + word;
  }
};

bool mentions(const Oro::ShmIntegrityReport& r, const std::string& coll, const std::string& what) {
  for (const auto& p : r.problems) {
    if (p.collection == coll && p.what.find(what) != std::string::npos) return true;
  }
  return false;
}

std::string listed(const Oro::ShmIntegrityReport& r) {
  std::string out;
  for (const auto& p : r.problems) out += p.collection + ": " + p.what + "\n";
  return out;
}

class ShmVerifyTest : public ShmTest {};

TEST_F(ShmVerifyTest, AHealthyStoreChecksCleanAlsoWhileItsWriterWrites) {
  ShmStore w = filledStore("v/healthy");
  Oro::ShmIntegrityReport r = Oro::shmVerifyStore("v/healthy");
  EXPECT_TRUE(r.ok()) << listed(r);
  EXPECT_FALSE(r.unstable);
  EXPECT_EQ(r.recordsChecked, kAllRecords);
  EXPECT_EQ(r.mountPath, "v/healthy");

  // The writer inserts, replaces and removes in every collection (entities with their members;
  // mostly flat records, which are quick enough to overlap whole checks) while the store is
  // checked over and over.
  std::atomic<bool> stop{false};
  std::atomic<uint64_t> writes{0};
  std::thread writer([&] {
    std::mt19937 rng(42);
    while (!stop.load(std::memory_order_relaxed)) {
      const uint32_t k = rng() % (2 * kFlatRecords);
      switch (rng() % 40) {
        case 0: {
          const uint32_t key[2] = {k, ~k};
          w.remove(kFlat, key);
          break;
        }
        case 1: {
          const uint32_t v = kParents + k % 8;
          const uint32_t key[1] = {v};
          if (!w.remove(kVrfs, key)) {
            const uint32_t rec[3] = {v, v, v};
            w.put(kVrfs, rec, {});
            for (uint32_t m = 0; m < k % 30; ++m) putRoute(w, vrfRef(w, v), m, k);
          }
          break;
        }
        case 2:
          putRoute(w, vrfRef(w, k % kParents), k % (2 * kMembers), k);
          break;
        case 3: {
          const uint32_t key[4] = {refSlot(vrfRef(w, k % kParents)),
                                   refGen(vrfRef(w, k % kParents)), k % (2 * kMembers),
                                   (k % (2 * kMembers)) * 7};
          w.remove(kRoutes, key);
          break;
        }
        case 4:
          putBlob(w, k % (2 * kBlobRecords), k);
          break;
        default:
          putFlat(w, k, k + 1);
      }
      writes.fetch_add(1, std::memory_order_relaxed);
    }
  });
  int checks = 0;
  // At least a few checks run while writes are going on (the writer is never waited for).
  while (checks < 30 || writes.load(std::memory_order_relaxed) < 1000) {
    r = Oro::shmVerifyStore("v/healthy");
    EXPECT_TRUE(r.ok()) << listed(r);
    if (!r.ok()) break;
    ++checks;
  }
  stop = true;
  writer.join();
  r = Oro::shmVerifyStore("v/healthy");
  EXPECT_TRUE(r.ok()) << listed(r);
  EXPECT_FALSE(r.unstable);
}

TEST_F(ShmVerifyTest, DamageIsFoundAndNamed) {
  struct Case {
    const char* name;
    // Damages the store; returns the collection and the words expected in a problem.
    std::function<std::pair<std::string, std::string>(ShmStore& w, Raw& raw)> damage;
  };
  const std::vector<Case> cases = {
      {"wrong count",
       [](ShmStore&, Raw& raw) {
         raw.pokeHeader(offsetof(Header, colls) + kFlat * sizeof(CollectionDesc) +
                            offsetof(CollectionDesc, count),
                        uint64_t{kFlatRecords + 3});
         return std::pair{std::string("flat"), fmt::format("count {} but {} occupied slots",
                                                           kFlatRecords + 3, kFlatRecords)};
       }},
      {"index entry naming an empty slot",
       [](ShmStore& w, Raw& raw) {
         const uint32_t key[2] = {7, ~7u};
         const uint32_t slot = w.find(kFlat, key, nullptr);
         w.remove(kFlat, key);
         const uint32_t pos = raw.freeIndexEntry(kFlat);
         raw.pokeIndex(kFlat, pos, slot + 1);
         return std::pair{std::string("flat"),
                          fmt::format("index entry {} names slot {}, which is empty", pos, slot)};
       }},
      {"a key in two slots",
       [](ShmStore& w, Raw& raw) {
         const uint32_t a[2] = {3, ~3u}, b[2] = {4, ~4u};
         const uint32_t sa = w.find(kFlat, a, nullptr), sb = w.find(kFlat, b, nullptr);
         raw.pokeSlot(kFlat, sb, 1, 3);
         raw.pokeSlot(kFlat, sb, 2, ~3u);
         return std::pair{std::string("flat"), fmt::format("slots {} and {} hold the same key",
                                                           std::min(sa, sb), std::max(sa, sb))};
       }},
      {"a member whose parent is gone",
       [](ShmStore& w, Raw& raw) {
         const uint64_t parent = vrfRef(w, 5);
         raw.pokeSlot(kVrfs, refSlot(parent), 0,
                      raw.slotWord(kVrfs, refSlot(parent), 0) & ~kSeqOccupied);
         return std::pair{std::string("routes"),
                          fmt::format("names parent slot {} generation {}, which is gone",
                                      refSlot(parent), refGen(parent))};
       }},
      {"a wrong per-parent count",
       [](ShmStore& w, Raw& raw) {
         const uint32_t ps = refSlot(vrfRef(w, 2));
         raw.pokeSlot(kVrfs, ps, raw.sideWord(kVrfs, childBlock(0) + kChildCount), kMembers - 1);
         return std::pair{
             std::string("routes"),
             fmt::format("parent slot {} counts {} members but its page chain holds {}", ps,
                         kMembers - 1, kMembers)};
       }},
      {"a looping page chain",
       [](ShmStore& w, Raw& raw) {
         const uint32_t ps = refSlot(vrfRef(w, 4));
         const uint32_t first = raw.slotWord(kVrfs, ps, raw.sideWord(kVrfs, childBlock(0)));
         const uint32_t chunk = chunkOf(first - 1);
         // The first page's directory entry links back to the page itself.
         const size_t dir = size_t{chunkSlots(chunk)} * raw.desc(kRoutes).slotWords * 4 +
                            (first - 1 - chunkFirstSlot(chunk)) / kMinPageSlots * sizeof(PageEntry);
         writeSegment(Oro::shmStoreSegmentName(raw.path, raw.view.header()->instance,
                                               fmt::format("{}k{}", kRoutes, chunk)),
                      dir + offsetof(PageEntry, next), &first, 4);
         return std::pair{std::string("routes"),
                          fmt::format("the page chain of parent slot {} loops", ps)};
       }},
      {"a blob reference beyond the heap",
       [](ShmStore& w, Raw& raw) {
         const uint32_t key[1] = {9};
         const uint32_t slot = w.find(kBlobs, key, nullptr);
         raw.pokeSlot(kBlobs, slot, 1 + 2, 9);  // the reference's chunk
         return std::pair{std::string("blobs"),
                          fmt::format("slot {}: blob reference (chunk 9", slot)};
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = "v/damaged";
    ShmStore w = filledStore(path);
    Raw raw{path};
    const auto [coll, what] = c.damage(w, raw);
    const Oro::ShmIntegrityReport r = Oro::shmVerifyStore(path);
    EXPECT_FALSE(r.unstable);
    EXPECT_TRUE(mentions(r, coll, what)) << "expected " << coll << ": " << what << "\ngot\n"
                                         << listed(r);
    Oro::shmUnlinkNamespace();
  }
}

// A reader sizes process memory by its counts (a detached copy, maps of keys): forged counts,
// in the header and in a parent's slot, claim no more records than the collection has slots,
// and the copy holds the records there are.
TEST_F(ShmVerifyTest, ForgedCountsClaimNoMoreThanTheSlots) {
  ShmStore w = filledStore("v/forged");
  Raw raw{"v/forged"};
  const uint64_t parent = vrfRef(w, 0);
  raw.pokeHeader(
      offsetof(Header, colls) + kFlat * sizeof(CollectionDesc) + offsetof(CollectionDesc, count),
      uint64_t{0xf0000000});
  raw.pokeSlot(kVrfs, refSlot(parent), raw.sideWord(kVrfs, childBlock(0) + kChildCount),
               0xf0000000);
  ShmStore r = ShmStore::openReader("v/forged", nullptr);
  EXPECT_GE(r.count(kFlat), kFlatRecords);
  EXPECT_LE(r.count(kFlat), r.collection(kFlat).highWater());
  EXPECT_LE(r.childCount(kRoutes, parent), r.collection(kRoutes).highWater());
  ShmStore local = ShmStore::detached(schema());
  local.copyFrom(r, /*announce=*/false, [](uint32_t, uint64_t, uint64_t) {});
  EXPECT_EQ(local.count(kFlat), kFlatRecords);
  EXPECT_EQ(local.count(kRoutes), kParents * kMembers);

  // A slot forged half-written, which the journal does not name, is damage to its readers.
  const uint32_t key[2] = {7, ~7u};
  const uint32_t slot = r.find(kFlat, key, nullptr);
  ASSERT_NE(slot, ShmStore::kNoSlot);
  raw.pokeSlot(kFlat, slot, 0, raw.slotWord(kFlat, slot, 0) | kSeqWriting);
  EXPECT_THAT([&] { r.find(kFlat, key, nullptr); },
              ThrowsMessage<Oro::ShmCorruptionException>(HasSubstr("stays half-written")));
}

TEST_F(ShmVerifyTest, AnAbsentStoreIsAnError) {
  EXPECT_THROW(Oro::shmVerifyStore("v/absent"), Oro::ShmException);
}

// A FIFO planted under a segment's name would block whoever opens it for reading: readers,
// writers and the verifier get an error instead.
TEST_F(ShmVerifyTest, AFifoUnderASegmentNameIsAnErrorNotAHang) {
  const std::string header = "/dev/shm" + Oro::shmStoreName("v/fifo");
  ASSERT_EQ(::mkfifo(header.c_str(), 0600), 0);
  const auto notAFile = ThrowsMessage<Oro::ShmException>(HasSubstr("is not a regular file"));
  EXPECT_THAT([] { (void)ShmStore::openReader("v/fifo", nullptr); }, notAFile);
  EXPECT_THAT([] { (void)Oro::shmVerifyStore("v/fifo"); }, notAFile);
  EXPECT_THAT([] { (void)ShmStore::openWriter("v/fifo", schema(), 0600, 1024); }, notAFile);
  ::unlink(header.c_str());

  ShmStore w = filledStore("v/fifo");
  Raw raw{"v/fifo"};
  const std::string chunk =
      "/dev/shm" +
      Oro::shmStoreSegmentName("v/fifo", raw.view.header()->instance, fmt::format("{}k0", kFlat));
  ASSERT_EQ(::unlink(chunk.c_str()), 0);
  ASSERT_EQ(::mkfifo(chunk.c_str(), 0600), 0);
  EXPECT_THAT([] { (void)ShmStore::openReader("v/fifo", nullptr).count(kFlat); }, notAFile);
}

}  // namespace
