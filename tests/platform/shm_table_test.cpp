// The shared-memory table engine: naming, detached tables, writer and reader in one process,
// ownership rules, overrun resynchronisation and damaged segments.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <map>
#include <set>

#include <gtest/gtest.h>

#include "platform/Error.h"
#include "platform/shm/ShmTable.h"
#include "platform/shm/ShmTableInfo.h"
#include "shm_test_util.h"

namespace {

using Oro::ShmAttach;
using Oro::ShmRole;
using shmtest::Rec;
using Table = Oro::ShmTable<uint32_t, Rec>;

struct Seen {
  std::vector<uint32_t> keys;
  int mountChanges = 0;
  std::vector<bool> quiesced;
  Table::Callbacks callbacks() {
    return Table::Callbacks{[this](const uint32_t& k) { keys.push_back(k); },
                            [this] { ++mountChanges; }, [this](bool q) { quiesced.push_back(q); }};
  }
};

class ShmTableTest : public shmtest::ShmTest {};

void dispatchAll(Table& t) {
  while (t.core().reader()->hasPending()) t.core().reader()->dispatch();
}

TEST_F(ShmTableTest, NamesAreValidatedAndMapped) {
  EXPECT_EQ(Oro::shmSegmentName("routing/multicast/vpn/vrfStatus/bgp", "mvpnVrf"),
            "/" + Oro::shmNamespace() + ".routing.multicast.vpn.vrfStatus.bgp.mvpnVrf");
  EXPECT_EQ(Oro::shmSegmentName("a", "b", "chunk0"), "/" + Oro::shmNamespace() + ".a.b.chunk0");
  for (auto [path, coll] :
       std::vector<std::pair<std::string, std::string>>{{"", "c"},
                                                        {"/a", "c"},
                                                        {"a/", "c"},
                                                        {"a//b", "c"},
                                                        {"a/../b", "c"},
                                                        {"a/b c", "c"},
                                                        {"a", ""},
                                                        {"a", "c-d"},
                                                        {"a", "c.d"},
                                                        {std::string(300, 'a'), "c"}}) {
    EXPECT_THROW(Oro::shmValidateName(path, coll), Oro::ShmException) << path << " " << coll;
  }
  EXPECT_NO_THROW(Oro::shmValidateName("a-b/c_d/E9", "x_Y9"));
  EXPECT_THROW(Oro::shmNamespaceIs("bad.ns"), Oro::ShmException);
}

TEST_F(ShmTableTest, DetachedTableInsertsReplacesRemovesAndWalks) {
  Table t("test::Rec", "recs", {});
  EXPECT_FALSE(t.attached());
  for (uint32_t k = 0; k < 5000; ++k) EXPECT_TRUE(t.insert(k, Rec::of(k)));
  std::optional<Rec> old;
  EXPECT_FALSE(t.insert(7, Rec::of(70), &old));
  EXPECT_EQ(old, Rec::of(7));
  EXPECT_EQ(t.size(), 5000u);
  Rec removed;
  for (uint32_t k = 0; k < 5000; k += 2) EXPECT_TRUE(t.remove(k, &removed));
  EXPECT_FALSE(t.remove(0));
  EXPECT_EQ(t.size(), 2500u);
  EXPECT_EQ(t.find(7), Rec::of(70));
  EXPECT_EQ(t.find(8), std::nullopt);
  t.directWrite() = Rec::of(123);
  t.commitDirect(8);
  EXPECT_EQ(t.find(8), Rec::of(123));

  std::set<uint32_t> walked;
  for (auto it = t.begin(); it.valid(); it.next()) {
    EXPECT_TRUE(walked.insert(it.key()).second);
    EXPECT_EQ(t.find(it.key()), it.value());
  }
  EXPECT_EQ(walked.size(), t.size());

  // A bookmark resumes at the remembered slot: at its key while that is there, at the next
  // record once the key is gone, and still there when the key came back in another slot
  // (records between the two slots must not be skipped).
  auto it = t.begin();
  for (int i = 0; i < 10; ++i) it.next();
  const Table::Bookmark b = it.bookmark();
  EXPECT_EQ(t.at(b).key(), b.key);
  auto after = t.at(b);
  after.next();
  const uint32_t nextKey = after.key();
  t.remove(b.key);
  EXPECT_EQ(t.at(b).key(), nextKey);
  t.insert(100000, Rec::of(1));  // takes a free slot, possibly b's
  t.insert(b.key, Rec::of(2));   // comes back elsewhere
  std::set<uint32_t> resumed;
  for (auto r = t.at(b); r.valid(); r.next()) resumed.insert(r.key());
  EXPECT_TRUE(resumed.count(nextKey));
}

TEST_F(ShmTableTest, ReaderSeesWriterChangesAndControlFlags) {
  Seen ws, rs;
  Table writer("test::Rec", "recs", ws.callbacks());
  writer.insert(1, Rec::of(1));  // detached content moves into the table on attach
  writer.attach(ShmAttach{"t/one", ShmRole::writer});
  EXPECT_EQ(writer.mountStatus(), TylKetab::MountStatus::mounted);
  EXPECT_EQ(ws.mountChanges, 1);

  Table reader("test::Rec", "recs", rs.callbacks());
  reader.insert(50, Rec::of(50));  // a key the reader held before: reported once
  reader.attach(ShmAttach{"t/one", ShmRole::reader});
  EXPECT_EQ(reader.find(1), Rec::of(1));
  EXPECT_EQ(reader.find(50), std::nullopt);
  dispatchAll(reader);
  EXPECT_EQ(std::set<uint32_t>(rs.keys.begin(), rs.keys.end()), (std::set<uint32_t>{1, 50}));
  EXPECT_EQ(reader.mountStatus(), TylKetab::MountStatus::mounted);

  rs.keys.clear();
  writer.insert(2, Rec::of(2));
  writer.insert(1, Rec::of(11));
  writer.remove(2);
  writer.quiescedIs(true);
  EXPECT_TRUE(reader.core().reader()->hasPending());
  dispatchAll(reader);
  EXPECT_EQ(rs.keys, (std::vector<uint32_t>{2, 1, 2}));
  EXPECT_EQ(rs.quiesced, std::vector<bool>{true});
  EXPECT_EQ(reader.find(1), Rec::of(11));
  EXPECT_EQ(reader.size(), 1u);
  EXPECT_FALSE(reader.core().reader()->hasPending());

  // A bounded batch per dispatch leaves the rest pending.
  rs.keys.clear();
  reader.core().reader()->batchIs(3);
  for (uint32_t k = 100; k < 110; ++k) writer.insert(k, Rec::of(k));
  reader.core().reader()->dispatch();
  EXPECT_EQ(rs.keys.size(), 3u);
  EXPECT_TRUE(reader.core().reader()->hasPending());
  dispatchAll(reader);
  EXPECT_EQ(rs.keys.size(), 10u);

  writer.detach();
  dispatchAll(reader);
  EXPECT_EQ(reader.mountStatus(), TylKetab::MountStatus::notMounted);
  EXPECT_EQ(writer.find(105), Rec::of(105));  // the writer keeps a private copy
}

TEST_F(ShmTableTest, OneLiveWriterAndOneRecordType) {
  Table a("test::Rec", "recs", {});
  a.attach(ShmAttach{"t/two", ShmRole::writer});
  a.insert(1, Rec::of(1));
  const pid_t child = shmtest::forkChild([] {
    Table b("test::Rec", "recs", {});
    b.insert(9, Rec::of(9));
    try {
      b.attach(ShmAttach{"t/two", ShmRole::writer});
      return 3;
    } catch (const Oro::ShmException& e) {
      if (std::string(e.what()).find("already has a live writer") == std::string::npos) return 4;
    }
    // Refused: nothing changed, the private record is still there.
    return (!b.attached() && b.find(9) == Rec::of(9)) ? 0 : 5;
  });
  EXPECT_EQ(shmtest::waitChild(child), 0);

  Oro::ShmTable<uint32_t, uint64_t> other("test::Other", "recs", {});
  try {
    other.attach(ShmAttach{"t/two", ShmRole::reader});
    ADD_FAILURE() << "attached a table of another type";
  } catch (const Oro::ShmException& e) {
    const std::string msg = e.what();
    EXPECT_NE(msg.find("test::Rec"), std::string::npos) << msg;
    EXPECT_NE(msg.find("test::Other"), std::string::npos) << msg;
  }
  EXPECT_THROW(Table("test::Rec", "recs", {}).attach(ShmAttach{"t/none", ShmRole::reader}),
               Oro::ShmException);
}

TEST_F(ShmTableTest, OverrunReaderResynchronisesWithoutLosingKeys) {
  Seen rs;
  Table writer("test::Rec", "recs", {});
  writer.attach(ShmAttach{"t/three", ShmRole::writer, nullptr, 0600, 16});
  for (uint32_t k = 0; k < 100; ++k) writer.insert(k, Rec::of(k));
  Table reader("test::Rec", "recs", rs.callbacks());
  reader.attach(ShmAttach{"t/three", ShmRole::reader});
  dispatchAll(reader);
  rs.keys.clear();
  std::set<uint32_t> changed;
  for (uint32_t k = 0; k < 100; k += 3) {
    writer.remove(k);
    changed.insert(k);
  }
  for (uint32_t k = 1000; k < 1100; ++k) {
    writer.insert(k, Rec::of(k));
    changed.insert(k);
  }
  dispatchAll(reader);
  const std::set<uint32_t> got(rs.keys.begin(), rs.keys.end());
  for (uint32_t k : changed) EXPECT_TRUE(got.count(k)) << k;
  EXPECT_GE(reader.core().reader()->resyncs(), 2u);
  EXPECT_EQ(reader.core().reader()->knownKeys().size(), writer.size());
}

// Writes bytes into a segment of the table, as a damaged or hostile process would.
void scribble(const std::string& segment, size_t offset, const std::vector<uint8_t>& bytes) {
  const int fd = ::shm_open(segment.c_str(), O_RDWR, 0);
  ASSERT_GE(fd, 0) << segment;
  ASSERT_EQ(::pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset)),
            static_cast<ssize_t>(bytes.size()));
  ::close(fd);
}

TEST_F(ShmTableTest, DamagedSegmentsRaiseCorruptionAndChangeNothing) {
  Table writer("test::Rec", "recs", {});
  writer.attach(ShmAttach{"t/four", ShmRole::writer});
  for (uint32_t k = 0; k < 10; ++k) writer.insert(k, Rec::of(k));

  {  // Index entries naming slots far beyond the chunks.
    Table reader("test::Rec", "recs", {});
    reader.attach(ShmAttach{"t/four", ShmRole::reader});
    const std::string index = Oro::shmSegmentName("t/four", "recs", fmt::format("index{}", 1));
    const auto& store = reader.core().store();
    const std::string current = Oro::shmSegmentName(
        "t/four", "recs", fmt::format("index{}", store.header()->indexGeneration.load()));
    // Every tag value, each naming a slot far past the mapped chunks.
    std::vector<uint8_t> entries;
    for (uint32_t i = 0; i < store.indexCapacity(); ++i) {
      const uint32_t e = ((i % 32) << 27) | 0x1414141u;
      for (int byte = 0; byte < 4; ++byte) entries.push_back(static_cast<uint8_t>(e >> (8 * byte)));
    }
    scribble(current, sizeof(Oro::ShmLayout::IndexHeader), entries);
    EXPECT_THROW(reader.find(3), Oro::ShmCorruptionException);
  }
  {  // A truncated chunk.
    const std::string chunk = Oro::shmSegmentName("t/four", "recs", "chunk0");
    const int fd = ::shm_open(chunk.c_str(), O_RDWR, 0);
    ASSERT_EQ(::ftruncate(fd, 64), 0);
    ::close(fd);
    Table reader("test::Rec", "recs", {});
    reader.insert(77, Rec::of(77));
    EXPECT_THROW(reader.attach(ShmAttach{"t/four", ShmRole::reader}), Oro::ShmCorruptionException);
    EXPECT_FALSE(reader.attached());
    EXPECT_EQ(reader.find(77), Rec::of(77));
  }
  {  // A header with garbage geometry.
    scribble(Oro::shmSegmentName("t/four", "recs"), offsetof(Oro::ShmLayout::Header, keyWords),
             {0xff, 0xff, 0xff, 0x7f});
    Table reader("test::Rec", "recs", {});
    EXPECT_THROW(reader.attach(ShmAttach{"t/four", ShmRole::reader}), Oro::ShmCorruptionException);
  }
  {  // A bad magic number.
    scribble(Oro::shmSegmentName("t/four", "recs"), 0, {1, 2, 3, 4, 5, 6, 7, 8});
    Table reader("test::Rec", "recs", {});
    EXPECT_THROW(reader.attach(ShmAttach{"t/four", ShmRole::reader}), Oro::ShmCorruptionException);
  }
}

TEST_F(ShmTableTest, CountersLiveInTheHeaderWhileAttachedAsWriter) {
  Table t("test::Rec", "recs", {});
  EXPECT_EQ(t.counterSlot(0, "recsIs"), nullptr);
  t.attach(ShmAttach{"t/five", ShmRole::writer});
  std::atomic<uint64_t>* c = t.counterSlot(0, "recsIs");
  ASSERT_NE(c, nullptr);
  c->store(42);
  Table r("test::Rec", "recs", {});
  r.attach(ShmAttach{"t/five", ShmRole::reader});
  EXPECT_EQ(r.core().store().header()->counters[0].value.load(), 42u);
  EXPECT_STREQ(r.core().store().header()->counters[0].name, "recsIs");
  EXPECT_EQ(r.counterSlot(0, "recsIs"), nullptr);
}

using ShmTableDeathTest = ShmTableTest;

TEST_F(ShmTableDeathTest, WritingThroughAReaderIsFatalDeathTest) {
  Table w("test::Rec", "recs", {});
  w.attach(ShmAttach{"t/six", ShmRole::writer});
  Table r("test::Rec", "recs", {});
  r.attach(ShmAttach{"t/six", ShmRole::reader});
  EXPECT_DEATH(r.insert(1, Rec::of(1)),
               "role_ != ShmRole::reader && \"a reader cannot write a shared memory table\"");
}

}  // namespace

namespace {

TEST_F(ShmTableTest, ToolsListTablesAndWalkRawRecords) {
  Table w("test::Rec", "recs", {});
  w.attach(ShmAttach{"tools/a", ShmRole::writer});
  w.insert(3, Rec::of(3));
  w.counterSlot(1, "recsDel")->store(5);
  Oro::ShmTable<uint32_t, uint64_t> other("test::Other", "vals", {});
  other.attach(ShmAttach{"tools/b", ShmRole::writer});

  const std::vector<Oro::ShmTableInfo> tables = Oro::listShmTables();
  ASSERT_EQ(tables.size(), 2u);
  const Oro::ShmTableInfo& a = tables[0];
  EXPECT_EQ(a.mountPath, "tools/a");
  EXPECT_EQ(a.collection, "recs");
  EXPECT_EQ(a.typeName, "test::Rec");
  EXPECT_EQ(a.records, 1u);
  EXPECT_EQ(a.writerPid, static_cast<uint32_t>(::getpid()));
  EXPECT_TRUE(a.writerAlive);
  EXPECT_EQ(a.mountStatus, TylKetab::MountStatus::mounted);
  ASSERT_EQ(a.counters.size(), 1u);
  EXPECT_EQ(a.counters[0].name, "recsDel");
  EXPECT_EQ(a.counters[0].value, 5u);
  EXPECT_EQ(tables[1].typeName, "test::Other");

  Oro::ShmTableView view("tools/a", "recs");
  std::vector<uint8_t> key, value;
  const uint32_t slot = view.seek(0, key, value);
  ASSERT_NE(slot, Oro::ShmStore::kNoSlot);
  ASSERT_EQ(value.size(), sizeof(Rec));
  Rec r;
  std::memcpy(&r, value.data(), sizeof r);
  EXPECT_EQ(r, Rec::of(3));
  EXPECT_EQ(view.seek(slot + 1, key, value), Oro::ShmStore::kNoSlot);
  w.detach();
  EXPECT_FALSE(Oro::ShmTableView("tools/a", "recs").info().writerAlive);
}

}  // namespace

namespace {

TEST_F(ShmTableTest, ReaderThatMeetsCorruptionReportsItAndStops) {
  Table w("test::Rec", "recs", {});
  w.attach(ShmAttach{"t/seven", ShmRole::writer});
  w.insert(1, Rec::of(1));
  std::vector<std::string> reports;
  Table r("test::Rec", "recs", {});
  r.corruptionHandlerIs([&](const std::string& m) { reports.push_back(m); });
  r.attach(ShmAttach{"t/seven", ShmRole::reader});
  const uint32_t huge = 0x7fffffff;
  scribble(Oro::shmSegmentName("t/seven", "recs"), offsetof(Oro::ShmLayout::Header, slotHighWater),
           {reinterpret_cast<const uint8_t*>(&huge), reinterpret_cast<const uint8_t*>(&huge) + 4});
  r.core().reader()->dispatch();
  EXPECT_EQ(reports.size(), 1u);
  EXPECT_TRUE(r.core().reader()->failed());
  EXPECT_FALSE(r.core().reader()->hasPending());
}

}  // namespace
