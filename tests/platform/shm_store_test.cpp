// The shared-memory store in one process: names, typed tables (writer, reader, control),
// identity checks, nested collections on page chains, blobs, index growth, and the byte images
// of keys. Integrity checks: a healthy store (flat, nested and blob collections) checks clean,
// also while its writer writes; damage written into its segments is found and named.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "common/shm_test_util.h"
#include "platform/Error.h"
#include "platform/runtime/TaskScheduler.h"
#include "platform/shm/ShmCollection.h"
#include "platform/shm/ShmStore.h"
#include "platform/shm/ShmTable.h"
#include "platform/shm/ShmVerify.h"
#include "types/MvpnVrfRouteIntfKey.h"

namespace {

using namespace shmtest;
using Oro::ShmAttach;
using Oro::ShmRole;
using Oro::ShmStore;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;
using Table = Oro::ShmTable<uint32_t, Rec>;

class ShmStoreTest : public ShmTest {};

TEST_F(ShmStoreTest, NamesAreValidatedAndADetachedTableInsertsReplacesRemovesAndResumesWalks) {
  for (const char* bad : {"", "/a", "a/", "a//b", "a/b c", "a/b.c", "a/b@c", "../x"}) {
    EXPECT_THROW(Oro::shmStoreName(bad), Oro::ShmException) << bad;
  }
  EXPECT_EQ(Oro::shmStoreName("a/b-c/d_e"), "/" + Oro::shmNamespace() + ".a.b-c.d_e");
  EXPECT_EQ(Oro::shmPathOfStoreName(Oro::shmStoreName("a/b").substr(1)), "a/b");
  EXPECT_EQ(Oro::shmPathOfStoreName(Oro::shmStoreSegmentName("a/b", 7, "0k0").substr(1)), "");
  // A namespace is letters, digits, '_' and '-': "x" and "x.y" can never share names.
  for (const char* bad : {"", "x.y", "a/b", "sp ace", "\xff"}) {
    EXPECT_THROW(Oro::shmNamespaceIs(bad), Oro::ShmException) << bad;
  }
  // Replaced on one thread while another names stores: every name read is whole and stays so.
  const std::string mine = Oro::shmNamespace();
  std::thread switcher([&] {
    for (int i = 0; i < 2000; ++i) Oro::shmNamespaceIs(i % 2 ? mine : mine + "-alt");
  });
  std::vector<const std::string*> names;
  for (int i = 0; i < 2000; ++i) names.push_back(&Oro::shmNamespace());
  switcher.join();
  for (const std::string* ns : names) EXPECT_TRUE(*ns == mine || *ns == mine + "-alt") << *ns;
  EXPECT_EQ(Oro::shmNamespace(), mine);

  // A detached table inserts, replaces, removes and resumes walks.
  Table t("test::Rec", "recs", {});
  EXPECT_TRUE(t.insert(1, Rec::of(1)));
  EXPECT_FALSE(t.insert(1, Rec::of(11)));
  std::optional<Rec> old;
  EXPECT_FALSE(t.insert(1, Rec::of(12), &old));
  EXPECT_EQ(old, Rec::of(11));
  for (uint32_t k = 2; k < 1000; ++k) t.insert(k, Rec::of(k));
  EXPECT_EQ(t.size(), 999u);
  Rec removed;
  EXPECT_TRUE(t.remove(500, &removed));
  EXPECT_EQ(removed, Rec::of(500));
  EXPECT_FALSE(t.remove(500));
  // A walk bookmarked half way resumes at the bookmark's slot: a key removed and inserted again
  // elsewhere meanwhile cannot make it skip anything present throughout.
  std::set<uint32_t> seen;
  auto it = t.begin();
  for (int n = 0; n < 300; ++n, it.next()) seen.insert(it.key());
  const auto mark = it.bookmark();
  t.remove(mark.key);
  t.insert(mark.key, Rec::of(mark.key));
  for (auto r = t.at(mark); r.valid(); r.next()) seen.insert(r.key());
  EXPECT_EQ(seen.size(), 998u);
}

TEST_F(ShmStoreTest, ReaderSeesWriterChangesControlFlagsAndKeysItHeldBeforeAndDetachesOverDamage) {
  Table w("test::Rec", "recs", {});
  w.insert(1, Rec::of(1));
  w.attach(ShmAttach{"t/a", ShmRole::writer});
  w.insert(2, Rec::of(2));
  std::vector<uint32_t> keys;
  int mounts = 0;
  bool quiesced = false;
  Table r(
      "test::Rec", "recs",
      {[&](uint32_t k) { keys.push_back(k); }, [&] { ++mounts; }, [&](bool q) { quiesced = q; }});
  r.insert(9, Rec::of(9));  // held before: reported (absent) on the first dispatch
  r.attach(ShmAttach{"t/a", ShmRole::reader});
  drain(r);
  std::sort(keys.begin(), keys.end());
  EXPECT_EQ(keys, (std::vector<uint32_t>{1, 2, 9}));
  EXPECT_EQ(r.find(9), std::nullopt);
  EXPECT_EQ(r.mountStatus(), TylKetab::MountStatus::mounted);
  keys.clear();
  w.remove(1);
  w.insert(3, Rec::of(3));
  w.quiescedIs(true);
  drain(r);
  EXPECT_EQ(keys, (std::vector<uint32_t>{1, 3}));
  EXPECT_TRUE(quiesced);
  EXPECT_EQ(r.find(3), Rec::of(3));
  EXPECT_EQ(r.size(), 2u);
  EXPECT_EQ(r.knownKeys(), 2u);
  // Detaching keeps the records in process memory, for both roles.
  r.detach();
  EXPECT_EQ(r.find(2), Rec::of(2));
  w.detach();
  EXPECT_EQ(w.size(), 2u);

  // Detaching copies the records into process memory, mapping what the reader had not mapped yet: a
  // segment removed meanwhile is damage reported to the handler, not an exception out of detach
  // (which runs in destructors).
  Attached writer(ShmAttach{"t/gone", ShmRole::writer});
  for (uint32_t k = 0; k < Oro::ShmLayout::kBaseChunkSlots; ++k) writer.insert(k, Rec::of(k));
  Table reader("test::Rec", "recs", {});
  std::vector<std::string> reports;
  reader.corruptionHandlerIs([&](const std::string& m) { reports.push_back(m); });
  reader.attach(ShmAttach{"t/gone", ShmRole::reader});
  writer.insert(Oro::ShmLayout::kBaseChunkSlots, Rec::of(0));  // the first record of chunk 1
  const ShmStore view = ShmStore::openReader("t/gone", nullptr);
  const std::string chunk1 = view.segName("0k1");
  ASSERT_EQ(::unlink(("/dev/shm" + chunk1).c_str()), 0);
  EXPECT_NO_THROW(reader.detach());
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_THAT(reports[0], HasSubstr(chunk1));
}

// (A second writer is refused: the reliability tests, ARefusedMountLeavesTheTableWhereItWas.)
TEST_F(ShmStoreTest, AStoreRefusesATableOfAnotherTypeOrRevision) {
  Attached w(ShmAttach{"t/one", ShmRole::writer});
  Oro::ShmTable<uint32_t, uint64_t> other("test::Other", "recs", {});
  EXPECT_THROW(other.attach(ShmAttach{"t/one", ShmRole::writer}), Oro::ShmException);
  EXPECT_THROW(other.attach(ShmAttach{"t/one", ShmRole::reader}), Oro::ShmException);
  // Same names, another layout of the record: a program of another revision refuses the store.
  Oro::ShmStoreSchema schema = Table::schema("test::Rec", "recs");
  schema.collections[0].valueFingerprint ^= 1;
  EXPECT_THROW(ShmStore::openReader("t/one", &schema), Oro::ShmException);
}

// A store with entities (parents) whose members are values (kids) and strings (notes).
Oro::ShmStoreSchema nestedSchema() {
  using namespace Oro::ShmLayout;
  return {"test::Tree",
          {{"parents", "test::Parent", 1, 0, kCollEntities, kNoParent, 4, 0, false},
           {"kids", "test::Kid", 2, 3, kCollValues, 0, 4, 32, false},
           {"notes", "test::Note", 4, 5, kCollValues, 0, 4, 0, true}}};
}

uint64_t addParent(ShmStore& s, uint32_t key) {
  uint32_t w[ShmStore::kMaxRecordWords] = {key};
  s.put(0, w, {});
  s.publishKey(0, w);
  return s.refOf(0, s.find(0, w, nullptr));
}

// The key of member `key` of `parent`, in the words of a record.
std::array<uint32_t, ShmStore::kMaxRecordWords> memberKey(uint64_t parent, uint32_t key) {
  return {static_cast<uint32_t>(parent), static_cast<uint32_t>(parent >> 32), key};
}

void putMember(ShmStore& s, uint32_t c, uint64_t parent, uint32_t key, const Rec& rec,
               std::string_view blob = {}) {
  auto w = memberKey(parent, key);
  if (c == 1) std::memcpy(w.data() + 3, &rec, sizeof rec);
  s.put(c, w.data(), blob);
  s.publishKey(c, w.data());
}

std::vector<uint32_t> members(const ShmStore& s, uint32_t c, uint64_t parent) {
  std::vector<uint32_t> out;
  ShmStore::Record r;
  for (uint32_t slot = s.seekChild(c, parent, ShmStore::kNoSlot, &r); slot != ShmStore::kNoSlot;
       slot = s.nextChild(c, parent, slot, &r)) {
    out.push_back(r.words[2]);
  }
  std::sort(out.begin(), out.end());
  return out;
}

TEST_F(ShmStoreTest, NestedMembersLiveOnTheirParentsPagesCommittedAsTheyAreCarved) {
  ShmStore s = ShmStore::openWriter("t/tree", nestedSchema(), 0600, 1024);
  const uint64_t a = addParent(s, 1);
  const uint64_t b = addParent(s, 2);
  for (uint32_t k = 0; k < 300; ++k) {
    putMember(s, 1, k % 3 == 0 ? a : b, k, Rec::of(k));
  }
  EXPECT_EQ(s.childCount(1, a), 100u);
  EXPECT_EQ(s.childCount(1, b), 200u);
  // Carving a page leaves the index in place: 300 members need a handful of index builds.
  EXPECT_LT(s.indexGrowth(1).generationsPublished, 8u);
  const uint32_t bVersion = s.childVersion(1, b).value();
  // A walk of one parent, stopped and resumed at a member's slot, visits every member present
  // throughout exactly as a full walk does (pages of a live parent never move).
  ShmStore::Record r;
  uint32_t slot = s.seekChild(1, a, ShmStore::kNoSlot, &r);
  for (int n = 0; n < 40; ++n) slot = s.nextChild(1, a, slot, &r);
  uint32_t rest = 0;
  for (uint32_t at = s.seekChild(1, a, slot, &r); at != ShmStore::kNoSlot;
       at = s.nextChild(1, a, at, &r)) {
    ++rest;
  }
  EXPECT_EQ(rest, 60u);
  // Members are found through their parent only; a member of a removed parent is gone.
  const auto key = memberKey(a, 3);
  EXPECT_NE(s.find(1, key.data(), nullptr), ShmStore::kNoSlot);
  putMember(s, 2, a, 7, {}, "a note for parent a");
  ShmStore reader = ShmStore::openReader("t/tree", nullptr);
  uint32_t k1[1] = {1};
  EXPECT_TRUE(s.remove(0, k1));
  EXPECT_EQ(reader.find(1, key.data(), nullptr), ShmStore::kNoSlot);
  EXPECT_FALSE(reader.alive(0, a));
  EXPECT_EQ(reader.childCount(1, a), 0u);
  EXPECT_TRUE(members(reader, 1, a).empty());
  EXPECT_EQ(reader.count(1), 200u);
  EXPECT_EQ(reader.childCount(1, b), 200u);
  EXPECT_EQ(reader.childVersion(1, b), bVersion);       // b's counter is its own
  EXPECT_FALSE(reader.childVersion(1, a).has_value());  // a's slot counts for no one now
  // The space of the removed parent is reused: a new parent with as many members carves no
  // new slots.
  const uint32_t carved = s.header()->colls[1].slotHighWater.load();
  const uint64_t c = addParent(s, 3);
  EXPECT_NE(c, a);
  for (uint32_t k = 0; k < 100; ++k) putMember(s, 1, c, k, Rec::of(k));
  EXPECT_EQ(s.header()->colls[1].slotHighWater.load(), carved);
  EXPECT_FALSE(reader.childVersion(1, a).has_value());  // even when c took a's slot
  EXPECT_EQ(members(reader, 1, c).size(), 100u);

  // A nested chunk's memory, its page directory included (a megabyte for a chunk of 128k slots),
  // is committed a step at a time as pages are carved: the write that opens a chunk does not commit
  // the whole directory.
  ShmStore big = ShmStore::openWriter("t/big", nestedSchema(), 0600, 1024);
  const uint64_t parent = addParent(big, 1);
  const auto& desc = big.header()->colls[1];
  uint32_t opened = 0;
  for (uint32_t k = 0; desc.chunkCount.load() < 10; ++k) {
    const uint32_t chunks = desc.chunkCount.load();
    const bool last =
        chunks >= 8 && desc.slotHighWater.load() + (Oro::ShmLayout::kMinPageSlots
                                                    << (Oro::ShmLayout::kMaxPageClass + 1)) >
                           Oro::ShmLayout::slotCapacity(chunks);
    const size_t before = last ? big.committedBytes() : 0;
    putMember(big, 1, parent, k, Rec::of(k));
    if (desc.chunkCount.load() != chunks && last) {
      ++opened;  // chunks 8 and 9: directories of 512 KiB and 1 MiB
      EXPECT_LT(big.committedBytes() - before, 256u * 1024) << "chunk " << chunks;
    }
  }
  EXPECT_EQ(opened, 2u);
  // Nor does any insert move the collection into a new index all at once.
  EXPECT_LE(big.indexGrowth(1).maxSlotsPerWrite, 64u);
  // A reader maps every segment but keeps only its header's descriptor (a process following
  // many stores stays within its descriptor limit); its memory figure is still the writer's.
  auto descriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                         std::filesystem::directory_iterator());
  };
  const auto before = descriptors();
  ShmStore bigReader = ShmStore::openReader("t/big", nullptr);
  EXPECT_EQ(members(bigReader, 1, parent).size(), big.childCount(1, parent));
  EXPECT_EQ(descriptors(), before + 1);
  EXPECT_EQ(bigReader.committedBytes(), big.committedBytes());
}

// A value whose every 64 KiB piece differs, so that pieces read out of order show.
std::string pieced(size_t n) {
  std::string v(n, ' ');
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<char>('a' + (i / 65536 + i) % 26);
  return v;
}

TEST_F(ShmStoreTest, BlobsAreReadWholeAndTheirSpaceIsReused) {
  ShmStore s = ShmStore::openWriter("t/blob", nestedSchema(), 0600, 1024);
  const uint64_t p = addParent(s, 1);
  ShmStore reader = ShmStore::openReader("t/blob", nullptr);
  auto note = [&](uint32_t k) {
    ShmStore::Record r;
    return reader.find(2, memberKey(p, k).data(), &r) == ShmStore::kNoSlot ? "(absent)" : r.blob;
  };
  const std::vector<std::string> texts = {"", "x", std::string(15, 'a'), std::string(16, 'b'),
                                          std::string(1000, 'c'),
                                          std::string(Oro::ShmLayout::kMaxBlobBytes, 'd'),
                                          // in pieces: three whole blocks and a part of one
                                          pieced(3 * Oro::ShmLayout::kMaxBlobBytes + 7)};
  for (uint32_t k = 0; k < texts.size(); ++k) {
    putMember(s, 2, p, k, {}, texts[k]);
    // Up to 15 bytes live in the record itself: no block, no heap.
    if (k == 2) {
      EXPECT_EQ(s.header()->blobChunkCount.load(), 0u);
    }
  }
  for (uint32_t k = 0; k < texts.size(); ++k) EXPECT_TRUE(note(k) == texts[k]) << k;
  EXPECT_THROW(putMember(s, 2, p, 99, {}, std::string(Oro::ShmLayout::kMaxPiecedBytes + 1, 'e')),
               Oro::ShmException);
  EXPECT_EQ(note(99), "(absent)");
  // Values in pieces are replaced and removed without growing the heap either.
  for (int round = 0; round < 40; ++round) {
    putMember(s, 2, p, 2000 + round % 3, {}, pieced(70000 + 40000 * (round % 4)));
  }
  const uint32_t piecedChunks = s.header()->blobChunkCount.load();
  std::map<uint32_t, std::string> last;
  for (int round = 0; round < 400; ++round) {
    const uint32_t k = 2000 + round % 3;
    last[k] = round % 5 ? pieced(70000 + 40000 * (round % 4)) : std::string(20, 'x');
    putMember(s, 2, p, k, {}, last[k]);
  }
  EXPECT_EQ(s.header()->blobChunkCount.load(), piecedChunks);
  for (const auto& [k, v] : last) EXPECT_TRUE(note(k) == v) << k;  // (no dump of 190 KB)
  EXPECT_EQ(Oro::shmStoreProblem(s), "");
  // Replacing and removing give blocks back: churn does not grow the heap.
  for (int round = 0; round < 2000; ++round) {
    putMember(s, 2, p, 1000 + round % 10, {}, std::string(100 + round % 300, 'f'));
  }
  const uint32_t chunks = s.header()->blobChunkCount.load();
  for (int round = 0; round < 20000; ++round) {
    putMember(s, 2, p, 1000 + round % 10, {}, std::string(100 + round % 300, 'g'));
  }
  EXPECT_EQ(s.header()->blobChunkCount.load(), chunks);
  EXPECT_EQ(note(1005), std::string(100 + 19995 % 300, 'g'));
}

// A writer dies; the next one takes the store over and rebuilds its heap from the records: no
// block of a value in pieces is handed out again, and the check accepts the store. (The fork
// comes first: no store of this process has a thread running then.)
TEST_F(ShmStoreTest, ValuesInPiecesSurviveATakeOver) {
  const pid_t child = shmtest::forkChild([] {
    ShmStore w = ShmStore::openWriter("t/blob2", nestedSchema(), 0600, 1024);
    const uint64_t q = addParent(w, 1);
    putMember(w, 2, q, 1, {}, pieced(200000));
    putMember(w, 2, q, 2, {}, std::string(5000, 'y'));
    ::_exit(0);  // no clean-up, like a crash
    return 0;
  });
  ASSERT_EQ(shmtest::waitChild(child), 0);
  ShmStore next = ShmStore::openWriter("t/blob2", nestedSchema(), 0600, 1024);
  const uint64_t q = addParent(next, 1);
  for (uint32_t k = 3; k < 40; ++k) putMember(next, 2, q, k, {}, pieced(65537 + 1000 * k));
  ShmStore::Record r;
  ASSERT_NE(next.find(2, memberKey(q, 1).data(), &r), ShmStore::kNoSlot);
  EXPECT_TRUE(r.blob == pieced(200000));
  EXPECT_EQ(Oro::shmStoreProblem(next), "");
}

TEST_F(ShmStoreTest, TheIndexGrowsWithoutLongWritesOrLostKeysAndEqualKeysHaveOneImage) {
  Attached w(ShmAttach{"t/grow", ShmRole::writer});
  Attached r(ShmAttach{"t/grow", ShmRole::reader});
  constexpr uint32_t kKeys = 200000;
  for (uint32_t k = 0; k < kKeys; ++k) {
    w.insert(k, Rec::of(k));
    if (k % 3 == 0 && k > 10) w.remove(k - 10);
  }
  size_t present = 0;
  for (uint32_t k = 0; k < kKeys; ++k) {
    const bool want = !(k + 10 < kKeys && (k + 10) % 3 == 0 && k + 10 > 10);
    ASSERT_EQ(w.find(k).has_value(), want) << k;
    ASSERT_EQ(r.find(k).has_value(), want) << k;
    present += want;
  }
  EXPECT_EQ(r.size(), present);
  const ShmStore::IndexGrowth g = w.store().indexGrowth(0);
  EXPECT_GT(g.generationsPublished, 5u);
  EXPECT_LE(g.maxSlotsPerWrite, 64u);  // no write rebuilt the index at once

  // Equal keys have one image; bad images are damage.
  using Routing::Multicast::MvpnRouteIntfKey;
  using Routing::Multicast::MvpnVrfRouteIntfKey;
  const auto group = Nevo::IpGenAddr::ipv4Addr(0xef010101);
  const auto src = Nevo::IpGenAddr::ipv4Addr(0x0a000001);
  MvpnVrfRouteIntfKey a(Vrf::VrfIdMap::VrfId(5),
                        MvpnRouteIntfKey(src, group, Nevo::IntfId::vlan(7), false));
  MvpnVrfRouteIntfKey b;
  std::memset(static_cast<void*>(&b), 0x5a, sizeof b);  // whatever the memory held before
  b = MvpnVrfRouteIntfKey();
  b.vrfIdIs(Vrf::VrfIdMap::VrfId(5));
  b.keyIs(MvpnRouteIntfKey(src, group, Nevo::IntfId::vlan(7), false));
  Oro::ShmTable<MvpnVrfRouteIntfKey, uint64_t> t("test::Keys", "keys", {});
  t.insert(a, 1);
  t.insert(b, 2);
  EXPECT_EQ(t.size(), 1u);
  EXPECT_EQ(t.find(a), 2u);
  // A flag byte of 2 where a bool lives is no value of the key: reading it is damage.
  std::byte image[sizeof(MvpnVrfRouteIntfKey)];
  Oro::ShmImage<MvpnVrfRouteIntfKey>::write(a, image);
  image[8 + 48] = std::byte{2};  // after the VRF id, the padding and 48 bytes of the key
  EXPECT_THROW(Oro::ShmImage<MvpnVrfRouteIntfKey>::read(image), Oro::ShmCorruptionException);
  // Nor is an address of family 0, which nothing makes (a shared-tree key would not print).
  Oro::ShmImage<MvpnVrfRouteIntfKey>::write(a, image);
  image[8 + 20] = std::byte{0};  // the group's family
  EXPECT_THROW(Oro::ShmImage<MvpnVrfRouteIntfKey>::read(image), Oro::ShmCorruptionException);
}

// --- integrity checks ---

namespace verify {

using namespace Oro::ShmLayout;

constexpr uint32_t kFlat = 0, kVrfs = 1, kRoutes = 2, kBlobs = 3;
constexpr uint32_t kFlatRecords = 4000, kParents = 12, kMembers = 20, kBlobRecords = 40;

Oro::ShmStoreSchema schema() {
  return {"test::VerifyRoot",
          {{"flat", "test::Flat", 1, 2, kCollValues, kNoParent, 8, 16, false},
           {"vrfs", "test::Vrf", 3, 4, kCollEntities, kNoParent, 4, 8, false},
           {"routes", "test::Route", 5, 6, kCollValues, kVrfs, 8, 8, false},
           {"blobs", "test::Blob", 7, 8, kCollValues, kNoParent, 4, 4, true}}};
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
  // The record count in the header of collection c.
  void pokeCount(uint32_t c, uint64_t v) const {
    const size_t at = offsetof(Header, colls) + c * sizeof(CollectionDesc);
    writeSegment(Oro::shmStoreName(path), at + offsetof(CollectionDesc, count), &v, sizeof v);
  }
  // Word `word` of slot `slot` of collection c (word 0: the sequence word).
  void pokeSlot(uint32_t c, uint32_t slot, uint32_t word, uint32_t v) const {
    const uint32_t chunk = chunkOf(slot);
    const size_t offset = (size_t{slot - chunkFirstSlot(chunk)} * desc(c).slotWords + word) * 4;
    writeSegment(view.segName(fmt::format("{}k{}", c, chunk)), offset, &v, 4);
  }
  uint32_t slotWord(uint32_t c, uint32_t slot, uint32_t word) const {
    return loadWord(view.collection(c).slotWordsAt(slot) + word);
  }
  std::string indexName(uint32_t c) const {
    return view.segName(fmt::format("{}i{}", c, desc(c).indexGeneration.load()));
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
  void pokeHighWater(uint32_t c, uint32_t v) const {
    const size_t at = offsetof(Header, colls) + c * sizeof(CollectionDesc);
    writeSegment(Oro::shmStoreName(path), at + offsetof(CollectionDesc, slotHighWater), &v, 4);
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
    const char* coll;  // the collection a problem must name
    // Damages the store; returns the words expected in the problem.
    std::function<std::string(ShmStore& w, Raw& raw)> damage;
  };
  const std::vector<Case> cases = {
      {"wrong count", "flat",
       [](ShmStore&, Raw& raw) {
         raw.pokeCount(kFlat, kFlatRecords + 3);
         return fmt::format("count {} but {} occupied slots", kFlatRecords + 3, kFlatRecords);
       }},
      {"index entry naming an empty slot", "flat",
       [](ShmStore& w, Raw& raw) {
         const uint32_t key[2] = {7, ~7u};
         const uint32_t slot = w.find(kFlat, key, nullptr);
         w.remove(kFlat, key);
         const uint32_t pos = raw.freeIndexEntry(kFlat);
         raw.pokeIndex(kFlat, pos, slot + 1);
         return fmt::format("index entry {} names slot {}, which is empty", pos, slot);
       }},
      {"a key in two slots", "flat",
       [](ShmStore& w, Raw& raw) {
         const uint32_t a[2] = {3, ~3u}, b[2] = {4, ~4u};
         const uint32_t sa = w.find(kFlat, a, nullptr), sb = w.find(kFlat, b, nullptr);
         raw.pokeSlot(kFlat, sb, 1, 3);
         raw.pokeSlot(kFlat, sb, 2, ~3u);
         return fmt::format("slots {} and {} hold the same key", std::min(sa, sb),
                            std::max(sa, sb));
       }},
      {"a member whose parent is gone", "routes",
       [](ShmStore& w, Raw& raw) {
         const uint64_t parent = vrfRef(w, 5);
         raw.pokeSlot(kVrfs, refSlot(parent), 0,
                      raw.slotWord(kVrfs, refSlot(parent), 0) & ~kSeqOccupied);
         return fmt::format("names parent slot {} generation {}, which is gone", refSlot(parent),
                            refGen(parent));
       }},
      {"a wrong per-parent count", "routes",
       [](ShmStore& w, Raw& raw) {
         const uint32_t ps = refSlot(vrfRef(w, 2));
         raw.pokeSlot(kVrfs, ps, raw.sideWord(kVrfs, childBlock(0) + kChildCount), kMembers - 1);
         return fmt::format("parent slot {} counts {} members but its page chain holds {}", ps,
                            kMembers - 1, kMembers);
       }},
      {"a looping page chain", "routes",
       [](ShmStore& w, Raw& raw) {
         const uint32_t ps = refSlot(vrfRef(w, 4));
         const uint32_t first = raw.slotWord(kVrfs, ps, raw.sideWord(kVrfs, childBlock(0)));
         const uint32_t chunk = chunkOf(first - 1);
         // The first page's directory entry links back to the page itself.
         const size_t dir = size_t{chunkSlots(chunk)} * raw.desc(kRoutes).slotWords * 4 +
                            (first - 1 - chunkFirstSlot(chunk)) / kMinPageSlots * sizeof(PageEntry);
         writeSegment(raw.view.segName(fmt::format("{}k{}", kRoutes, chunk)),
                      dir + offsetof(PageEntry, next), &first, 4);
         return fmt::format("the page chain of parent slot {} loops", ps);
       }},
      {"an entity of generation 0", "vrfs",
       [](ShmStore& w, Raw& raw) {
         const uint32_t ps = refSlot(vrfRef(w, 3));
         raw.pokeSlot(kVrfs, ps, raw.sideWord(kVrfs, kSideGen), 0);
         return fmt::format("the entity in slot {} has generation 0", ps);
       }},
      {"a blob reference beyond the heap", "blobs",
       [](ShmStore& w, Raw& raw) {
         const uint32_t key[1] = {9};
         const uint32_t slot = w.find(kBlobs, key, nullptr);
         raw.pokeSlot(kBlobs, slot, 1 + 2, 9);  // the reference's chunk
         return fmt::format("slot {}: blob reference (chunk 9", slot);
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = "v/damaged";
    ShmStore w = filledStore(path);
    Raw raw{path};
    const std::string what = c.damage(w, raw);
    const Oro::ShmIntegrityReport r = Oro::shmVerifyStore(path);
    EXPECT_FALSE(r.unstable);
    EXPECT_TRUE(mentions(r, c.coll, what)) << "expected " << c.coll << ": " << what << "\ngot\n"
                                           << listed(r);
    // A writer taking the store over never builds on damage: it repairs what recovery can
    // explain (counts, the index, chains) and starts a new store for the rest.
    w = ShmStore();
    ShmStore taken = filledStore(path);
    EXPECT_TRUE(Oro::shmVerifyStore(path).ok()) << listed(Oro::shmVerifyStore(path));
    Oro::shmUnlinkNamespace();
  }
}

// A high-water mark lowered from outside leaves a store that agrees with itself (the records
// above the mark are gone), but not empty memory above the mark: a writer taking it over
// clears that memory, so that the pages it carves next hold no records from before.
TEST_F(ShmVerifyTest, ATakenOverStoreCarvesNoRecordsFromAboveItsHighWaterMark) {
  const std::string path = "v/lowered";
  ShmStore w = filledStore(path);
  Raw{path}.pokeHighWater(kRoutes, 0);
  w = ShmStore();
  ShmStore taken = ShmStore::openWriter(path, schema(), 0600, 1024);
  EXPECT_EQ(taken.count(kRoutes), 0u);
  for (uint32_t v = 0; v < kParents; ++v) putRoute(taken, vrfRef(taken, v), 1000, v);
  EXPECT_EQ(taken.count(kRoutes), kParents);
  EXPECT_TRUE(Oro::shmVerifyStore(path).ok()) << listed(Oro::shmVerifyStore(path));
}

// A reader sizes process memory by its counts (a detached copy, maps of keys): forged counts,
// in the header and in a parent's slot, claim no more records than the collection has slots,
// and the copy holds the records there are.
TEST_F(ShmVerifyTest, ForgedCountsClaimNoMoreThanTheSlots) {
  ShmStore w = filledStore("v/forged");
  Raw raw{"v/forged"};
  const uint64_t parent = vrfRef(w, 0);
  raw.pokeCount(kFlat, 0xf0000000);
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

TEST_F(ShmVerifyTest, AnAbsentStoreOrAFifoUnderASegmentNameIsAnErrorNotAHang) {
  EXPECT_THROW(Oro::shmVerifyStore("v/absent"), Oro::ShmException);

  // A FIFO planted under a segment's name would block whoever opens it for reading: readers,
  // writers and the verifier get an error instead.
  const std::string header = "/dev/shm" + Oro::shmStoreName("v/fifo");
  ASSERT_EQ(::mkfifo(header.c_str(), 0600), 0);
  const auto notAFile = ThrowsMessage<Oro::ShmException>(HasSubstr("is not a regular file"));
  EXPECT_THAT([] { (void)ShmStore::openReader("v/fifo", nullptr); }, notAFile);
  EXPECT_THAT([] { (void)Oro::shmVerifyStore("v/fifo"); }, notAFile);
  EXPECT_THAT([] { (void)ShmStore::openWriter("v/fifo", schema(), 0600, 1024); }, notAFile);
  ::unlink(header.c_str());

  ShmStore w = filledStore("v/fifo");
  Raw raw{"v/fifo"};
  const std::string chunk = "/dev/shm" + raw.view.segName(fmt::format("{}k0", kFlat));
  ASSERT_EQ(::unlink(chunk.c_str()), 0);
  ASSERT_EQ(::mkfifo(chunk.c_str(), 0600), 0);
  // In a live store, a segment its header names and nobody can open is damage.
  EXPECT_THAT([] { (void)ShmStore::openReader("v/fifo", nullptr).count(kFlat); },
              ThrowsMessage<Oro::ShmCorruptionException>(HasSubstr("is not a regular file")));
  ASSERT_EQ(::unlink(chunk.c_str()), 0);
  EXPECT_THAT([] { (void)ShmStore::openReader("v/fifo", nullptr).count(kFlat); },
              ThrowsMessage<Oro::ShmCorruptionException>(HasSubstr("No such file")));
}

// A writer replacing or removing a record whose image someone damaged: the write takes place
// and reaches the readers; the damage is reported, the old record handed back as a default.
TEST_F(ShmVerifyTest, AWriteOverADamagedRecordIsPublishedAndTheDamageReported) {
  using Nevo::IpGenPrefix;
  const IpGenPrefix p10(Nevo::IpGenAddr::ipv4Addr(0x0a000000), 8);
  Oro::ShmTable<uint32_t, IpGenPrefix> w("test::Prefixes", "prefixes", {});
  w.attach(ShmAttach{"v/prefixes", ShmRole::writer});
  std::vector<std::string> reports;
  w.corruptionHandlerIs([&](const std::string& m) { reports.push_back(m); });
  w.insert(1, p10);
  w.insert(2, p10);
  Oro::TaskScheduler sched;
  std::vector<uint32_t> changed;
  Oro::ShmTable<uint32_t, IpGenPrefix> r("test::Prefixes", "prefixes",
                                         {[&](const uint32_t& k) { changed.push_back(k); }});
  r.attach(ShmAttach{"v/prefixes", ShmRole::reader, &sched});
  sched.runUntilIdle();
  changed.clear();

  Raw raw{"v/prefixes"};
  for (uint32_t slot : {0u, 1u}) raw.pokeSlot(0, slot, 2, 7);  // the address family: 7
  std::optional<IpGenPrefix> old;
  EXPECT_FALSE(w.insert(1, IpGenPrefix(), &old));
  EXPECT_EQ(old, IpGenPrefix());
  IpGenPrefix removed = p10;
  EXPECT_TRUE(w.remove(2, &removed));
  EXPECT_EQ(removed, IpGenPrefix());
  ASSERT_EQ(reports.size(), 2u);
  EXPECT_THAT(reports[0], HasSubstr("bad image of a Nevo::IpGenPrefix"));
  sched.runUntilIdle();
  EXPECT_EQ(changed, (std::vector<uint32_t>{1, 2}));
  EXPECT_EQ(r.find(1), IpGenPrefix());
  EXPECT_EQ(r.find(2), std::nullopt);
}

// A live writer meeting a record whose blob reference was damaged: the write takes place, the
// damage is kept for its caller to report, and the block the reference names is not freed
// (it may lie outside the heap, or inside another record's block).
TEST_F(ShmVerifyTest, AWriteOverADamagedBlobReferenceLeavesTheBlockAloneAndSaysSo) {
  ShmStore w = filledStore("v/blobref");
  Raw raw{"v/blobref"};
  auto slotOf = [&](uint32_t k) {
    const uint32_t key[1] = {k};
    return w.find(kBlobs, key, nullptr);
  };
  raw.pokeSlot(kBlobs, slotOf(1), 1 + 2, 9);           // a chunk beyond the heap
  raw.pokeSlot(kBlobs, slotOf(2), 1 + 4, 0x7fffffff);  // a length of no size class
  const uint32_t at = raw.slotWord(kBlobs, slotOf(3), 1 + 3);
  raw.pokeSlot(kBlobs, slotOf(3), 1 + 3, at + 8);  // inside its block, not at its start

  ShmStore::Record old;
  const uint32_t rec1[2 + kBlobRefWords] = {1, 100};
  EXPECT_FALSE(w.put(kBlobs, rec1, std::string(40, 'n'), &old));
  EXPECT_EQ(old.blob, "");
  EXPECT_THAT(w.takeDamage(), HasSubstr("bad blob reference (chunk 9"));
  for (uint32_t k : {2u, 3u}) {
    const uint32_t key[1] = {k};
    EXPECT_TRUE(w.remove(kBlobs, key, nullptr));
    EXPECT_THAT(w.takeDamage(), HasSubstr("bad blob reference")) << k;
  }
  EXPECT_EQ(w.takeDamage(), "");

  // Churn reuses every block that was really freed: the other records read back whole.
  for (uint32_t round = 0; round < 3000; ++round) putBlob(w, 10 + round % 20, round);
  ShmStore r = ShmStore::openReader("v/blobref", nullptr);
  for (uint32_t k = 4; k < kBlobRecords; ++k) {
    const uint32_t key[1] = {k};
    ShmStore::Record rec;
    ASSERT_NE(r.find(kBlobs, key, &rec), ShmStore::kNoSlot) << k;
    const uint32_t v = k < 10 || k >= 30 ? k : 2980 + (k - 10);
    EXPECT_EQ(rec.blob, std::string(1 + (k * 37 + v) % 3000, static_cast<char>('a' + k % 26))) << k;
  }
  EXPECT_EQ(r.find(kBlobs, rec1, &old), slotOf(1));
  EXPECT_EQ(old.blob, std::string(40, 'n'));
}

// A writer's shape of a collection is the one it attached with: words of the header written
// since (here the side words of an entity slot) do not move its writes.
TEST_F(ShmVerifyTest, AWriterKeepsTheSlotShapeItAttachedWith) {
  ShmStore w = filledStore("v/shape");
  const uint32_t gone[1] = {5};
  const uint32_t freed = refSlot(vrfRef(w, 5));
  ASSERT_TRUE(w.remove(kVrfs, gone, nullptr));
  Raw raw{"v/shape"};
  const uint32_t sideWords = raw.desc(kVrfs).sideWords + raw.desc(kVrfs).slotWords;
  writeSegment(Oro::shmStoreName("v/shape"),
               offsetof(Header, colls) + kVrfs * sizeof(CollectionDesc) +
                   offsetof(CollectionDesc, sideWords),
               &sideWords, 4);
  const uint32_t added[3] = {100, 0, 0};
  EXPECT_TRUE(w.put(kVrfs, added, {}));
  EXPECT_EQ(refSlot(vrfRef(w, 100)), freed);  // the slot below the next entity's
  EXPECT_EQ(w.childCount(kRoutes, vrfRef(w, 6)), kMembers);
}

}  // namespace verify

}  // namespace
