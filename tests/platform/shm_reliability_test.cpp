// What the shared-memory store guarantees when things go wrong: no change lost behind an
// overrun, never two writers, readers that cannot harm writers or each other, whole records
// and agreeing counts after a writer dies at any step, damaged stores recreated, no leftovers.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <thread>

#include "common/shm_test_util.h"
#include "platform/Error.h"
#include "platform/runtime/TaskScheduler.h"
#include "platform/shm/ShmBell.h"
#include "platform/shm/ShmStore.h"
#include "platform/shm/ShmTable.h"

namespace {

using namespace shmtest;
using namespace std::chrono_literals;
using Oro::ShmAttach;
using Oro::ShmFaultPoint;
using Oro::ShmRole;
using Oro::ShmStore;
using Table = Oro::ShmTable<uint32_t, Rec>;

class ShmReliabilityTest : public ShmTest {};

// A reader's view built from its notifications: each key it is told of is looked up.
struct ViewReader {
  std::map<uint32_t, Rec> view;
  Table table;
  explicit ViewReader(const std::string& path, Oro::TaskScheduler* sched = nullptr)
      : table("test::Rec", "recs", {[this](uint32_t k) {
                if (auto r = table.find(k)) {
                  view[k] = *r;
                } else {
                  view.erase(k);
                }
              }}) {
    table.attach(ShmAttach{path, ShmRole::reader, sched});
  }
  void drain() { shmtest::drain(table); }
  std::map<uint32_t, Rec> truth() const {
    std::map<uint32_t, Rec> out;
    for (auto it = table.begin(); it.valid(); it.next()) out[it.key()] = it.value();
    return out;
  }
};

void fill(Table& w, uint32_t from, uint32_t n) {
  for (uint32_t k = from; k < from + n; ++k) w.insert(k, Rec::of(k));
}

TEST_F(ShmReliabilityTest, NoDeletionIsLostBehindRepeatedOverruns) {
  Attached w(ShmAttach{"r/overrun", ShmRole::writer, nullptr, 0600, 16});
  ViewReader r("r/overrun");
  constexpr uint32_t K = 7;
  w.insert(K, Rec::of(K));
  r.drain();
  // K goes away behind an overrun; the resynchronisation reports it, but it is back before
  // its turn comes, so the reader looks it up present.
  w.remove(K);
  fill(w, 100, 40);
  r.table.reader()->batchIs(1);
  r.table.reader()->dispatch();
  w.insert(K, Rec::of(K));
  r.drain();
  EXPECT_TRUE(r.view.count(K));
  // It goes away again behind a second overrun: it must be reported again.
  w.remove(K);
  fill(w, 200, 40);
  r.drain();
  EXPECT_FALSE(r.view.count(K));
  EXPECT_EQ(r.view, r.truth());
  // The same with a seeded random history over a small key space and a tiny log.
  std::mt19937 rng(1234);
  for (int round = 0; round < 200; ++round) {
    const int n = static_cast<int>(rng() % 60);
    for (int i = 0; i < n; ++i) {
      const uint32_t k = rng() % 50;
      rng() % 2 ? w.insert(k, Rec::of(k + round)) : w.remove(k);
    }
    r.table.reader()->batchIs(1 + rng() % 8);
    for (uint32_t d = rng() % 4; d > 0 && r.table.reader()->hasPending(); --d)
      r.table.reader()->dispatch();
  }
  r.drain();
  EXPECT_EQ(r.view, r.truth());
  // The reader's own key set (what it reports gone when the writer's store goes) agrees too.
  EXPECT_EQ(r.table.knownKeys(), r.truth().size());
}

// Takes the identity of user nobody (and its group too when `group`); false when it cannot.
bool becomeNobody(bool group) {
  const passwd* nobody = ::getpwnam("nobody");
  return nobody && (!group || ::setgid(nobody->pw_gid) == 0) && ::setuid(nobody->pw_uid) == 0;
}

// Waits until a child has stopped itself (SIGSTOP from a fault point).
void awaitStop(pid_t child) {
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, WUNTRACED), child);
  ASSERT_TRUE(WIFSTOPPED(status));
}

TEST_F(ShmReliabilityTest, AStalledCreatorOrTakerNeverLeavesTwoWriters) {
  const Oro::ShmStoreSchema schema = Table::schema("test::Rec", "recs");
  auto stalledWriter = [&](ShmFaultPoint point) {
    return forkChild([&] {
      faultAt(point, 1, SIGSTOP);
      try {
        ShmStore s = ShmStore::openWriter("r/two", schema, 0600, 64);
        return 10;  // became the writer
      } catch (const Oro::ShmException& e) {
        return std::string(e.what()).find("already has a live writer") != std::string::npos ? 20
                                                                                            : 30;
      }
    });
  };
  // A creator stopped with its store built but not yet named holds it, as a stopped writer
  // does: one that comes later is told who.
  pid_t a = stalledWriter(ShmFaultPoint::creationBuilt);
  awaitStop(a);
  try {
    ShmStore b = ShmStore::openWriter("r/two", schema, 0600, 64);
    ADD_FAILURE() << "two writers";
  } catch (const Oro::ShmException& e) {
    EXPECT_THAT(e.what(), testing::HasSubstr(fmt::format("already has a live writer (pid {})", a)));
  }
  ::kill(a, SIGCONT);
  EXPECT_EQ(waitChild(a), 10);
  // A writer stopped while it holds a dead writer's store keeps it: nobody takes it over,
  // however long it stays stopped; when it goes on, it is the writer.
  a = stalledWriter(ShmFaultPoint::takeOverLocked);
  awaitStop(a);
  EXPECT_THROW(ShmStore::openWriter("r/two", schema, 0600, 64), Oro::ShmException);
  ::kill(a, SIGCONT);
  EXPECT_EQ(waitChild(a), 10);
  // A creator killed before its store has its name leaves segments that nobody holds, and its
  // doorbell: the writer that creates the store then removes them (it has as many as a store
  // made in peace, and one doorbell).
  const auto segments = [](const std::string& word) {
    return std::ranges::count_if(Oro::shmNamespaceEntries(), [&](const std::string& n) {
      return n.find(word) != std::string::npos;
    });
  };
  const auto bells = segments(".bell.");
  a = forkChild([&] {
    faultAt(ShmFaultPoint::creationBuilt, 1);
    ShmStore s = ShmStore::openWriter("r/left", schema, 0600, 64);
    return 10;
  });
  ASSERT_EQ(waitChild(a), 128 + SIGKILL);
  EXPECT_GT(segments("left"), 1);
  EXPECT_EQ(segments(".bell."), bells + 1);
  ShmStore left = ShmStore::openWriter("r/left", schema, 0600, 64);
  EXPECT_EQ(segments(".bell."), bells + 1);  // the dead one gone, the new writer's up
  ShmStore peace = ShmStore::openWriter("r/peace", schema, 0600, 64);
  EXPECT_EQ(segments("left"), segments("peace"));
}

// The mappings of the store's segments in this process, with their permissions.
std::vector<std::string> storeMappings() {
  std::ifstream maps("/proc/self/maps");
  std::vector<std::string> out;
  std::string line;
  const std::string ns = "/dev/shm/" + Oro::shmNamespace();
  while (std::getline(maps, line)) {
    if (line.find(ns) != std::string::npos) out.push_back(line);
  }
  return out;
}

// A connection to a store's doorbell, as any process that may read the store can make: -1
// when the doorbell's queue of waiting connections is full (never blocks).
int connectToBell(const std::string& path) {
  const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

// Whether process `pid` is asleep in a futex wait (as a scheduler with nothing to do is).
bool asleepOnFutex(pid_t pid) {
  std::ifstream stat(fmt::format("/proc/{}/stat", pid));
  std::string line;
  std::getline(stat, line);
  const size_t end = line.rfind(')');
  if (end == std::string::npos || end + 2 >= line.size() || line[end + 2] != 'S') return false;
  std::ifstream wchanFile(fmt::format("/proc/{}/wchan", pid));
  std::string wchan;
  std::getline(wchanFile, wchan);
  return wchan.find("futex") != std::string::npos || wchan.empty() || wchan == "0";
}

TEST_F(ShmReliabilityTest, ReadersNeedNoWriteAccessAndCannotSilenceOthers) {
  Attached w(ShmAttach{"r/ro", ShmRole::writer, nullptr, 0644});
  fill(w, 0, 1000);
  // Another user reads a store shared read-only, and is woken by its changes.
  Pipe ready;
  pid_t child = forkChild([&] {
    if (!becomeNobody(true)) {
      ready.send();
      return 2;
    }
    Oro::TaskScheduler sched;
    bool done = false;
    Table r("test::Rec", "recs", {[&](uint32_t k) {
              if (k == 5000) {
                done = true;
                sched.stop();
              }
            }});
    // The mappings this reader makes (the writer's are inherited through fork): read-only.
    const std::vector<std::string> inherited = storeMappings();
    r.attach(ShmAttach{"r/ro", ShmRole::reader, &sched});
    drain(r);
    bool readOnly = true;
    for (const std::string& m : storeMappings()) {
      if (std::find(inherited.begin(), inherited.end(), m) != inherited.end()) continue;
      if (m.find(" r--s ") == std::string::npos && m.find(" r--p ") == std::string::npos) {
        fmt::print(stderr, "writable mapping: {}\n", m);
        readOnly = false;
      }
    }
    ready.send();
    if (!readOnly) return 3;
    sched.run();
    return done && r.find(5000) == Rec::of(5000) ? 0 : 4;
  });
  ASSERT_TRUE(ready.receive());
  // A hostile process rings the doorbell with garbage as fast as it can: it can only cause
  // extra wake-ups, never silence the honest reader.
  pid_t hostile = forkChild([&] {
    const int fd = connectToBell(w.store().bellPath());
    if (fd < 0 || ::fcntl(fd, F_SETFL, 0) != 0) return 2;  // sends block while the queue is full
    std::mt19937 rng(7);
    for (int i = 0; i < 2000; ++i) {
      const uint32_t v = rng();
      (void)!::send(fd, &v, i % 100 == 0 ? 3 : 4, MSG_NOSIGNAL);
    }
    return 0;
  });
  EXPECT_EQ(waitChild(hostile), 0);
  w.insert(5000, Rec::of(5000));
  EXPECT_EQ(waitChild(child), 0);
  // A store shared with nobody: the error says why.
  Attached priv(ShmAttach{"r/private", ShmRole::writer, nullptr, 0600});
  child = forkChild([&] {
    if (!becomeNobody(false)) return 2;
    Table r("test::Rec", "recs", {});
    try {
      r.attach(ShmAttach{"r/private", ShmRole::reader});
    } catch (const Oro::ShmPermissionException& e) {
      return std::string(e.what()).find("permission denied") == 0 ? 0 : 3;
    }
    return 4;
  });
  EXPECT_EQ(waitChild(child), 0);
  // Modes beyond permission bits, or that lock the owner out, and absurd change logs are
  // refused before anything is created.
  Table bad("test::Rec", "recs", {});
  for (mode_t mode : {mode_t{07777}, mode_t{04644}, mode_t{0}, mode_t{0444}}) {
    EXPECT_THAT(
        [&] {
          bad.attach(ShmAttach{"r/mode", ShmRole::writer, nullptr, mode});
        },
        testing::ThrowsMessage<Oro::ShmException>(testing::HasSubstr("is not permission bits")));
  }
  EXPECT_THAT(
      [&] {
        bad.attach(ShmAttach{"r/mode", ShmRole::writer, nullptr, 0644, 1u << 31});
      },
      testing::ThrowsMessage<Oro::ShmException>(
          testing::HasSubstr("a change log of 2147483648 entries")));
  EXPECT_FALSE(Oro::shmStoreExists("r/mode"));
}

// The doorbell's registration word, driven step by step through the interleaving that once
// lost a sleeper: the writer, waking for an older registration, clears the word just after a
// newer reader registered for the value it has just published.
TEST(ShmBellTest, ARegistrationArrivingWhileTheWriterWakesForAnOlderOneIsKept) {
  std::atomic<uint32_t> word{5};
  Oro::ShmBellServer::State s;
  s.wakeWord = &word;
  EXPECT_FALSE(s.record(5));  // reader A sleeps on 5
  EXPECT_EQ(s.due(5), 0u);
  word = 6;  // the writer publishes...
  const uint64_t seen = s.due(6);
  ASSERT_NE(seen, 0u);  // ...and is about to wake A
  (void)s.record(6);    // reader B registers for 6 and falls asleep after the wake-up
  s.claim(seen);
  word = 7;
  ASSERT_NE(s.due(7), 0u) << "B would sleep through every later publication";
  s.claim(s.due(7));
  // A stale registration (for a value the word has left) wakes at once and still leaves a
  // registration for the next publication to wake those asleep on the present value.
  EXPECT_FALSE(s.record(7));
  EXPECT_TRUE(s.record(6));
  EXPECT_NE(s.due(7), 0u);
}

// Writers of two threads coming and going: the process's doorbell watcher stops with the
// last one and starts with the next, and one thread's stop never takes down the other's start.
TEST_F(ShmReliabilityTest, WritersOfSeveralThreadsComingAndGoingKeepTheDoorbellServed) {
  Oro::threadsInUseIs(true);
  auto churn = [](const char* path) {
    for (int i = 0; i < 300; ++i) Attached(ShmAttach{path, ShmRole::writer}).detach();
  };
  std::thread other(churn, "r/churn1");
  churn("r/churn2");
  other.join();
  Attached w(ShmAttach{"r/churn1", ShmRole::writer});
  Attached r(ShmAttach{"r/churn1", ShmRole::reader});
  drain(r);
  std::vector<Oro::FutexWait> words;
  const uint64_t before = w.store().bellWakes();
  r.reader()->sleepBegin(words);  // rings: the watcher records it as it gets to it
  bool woken = false;
  for (uint32_t k = 0; k < 100000 && !woken; ++k) {
    w.insert(k, Rec::of(k));
    woken = w.store().bellWakes() != before;
    std::this_thread::yield();
  }
  EXPECT_TRUE(woken) << "a sleeping reader is never woken: nobody serves the doorbell";
}

TEST_F(ShmReliabilityTest, ReadersAsleepCostOneWakeUpWhenDeadAndAreWokenByANewWriter) {
  {
    // In a scope of its own: the writer's threads end with it, before the next fork.
    Attached w(ShmAttach{"r/sleep", ShmRole::writer});
    Pipe asleep;
    const pid_t child = forkChild([&] {
      Attached r(ShmAttach{"r/sleep", ShmRole::reader});
      drain(r);
      std::vector<Oro::FutexWait> words;
      r.reader()->sleepBegin(words);  // rings the doorbell, as a scheduler going to sleep does
      asleep.send();
      ::pause();
      return 0;
    });
    ASSERT_TRUE(asleep.receive());
    ::kill(child, SIGKILL);
    waitChild(child);
    const uint64_t before = w.store().bellWakes();
    fill(w, 0, 10000);
    EXPECT_LE(w.store().bellWakes() - before, 1u);
  }

  // A reader that goes to sleep while its writer is dead finds no doorbell to ring; the next
  // writer, taking the store over, wakes it without being asked.
  const pid_t first = forkChild([]() -> int {
    Attached w(ShmAttach{"r/orphan", ShmRole::writer});
    fill(w, 0, 10);
    ::_exit(0);  // no clean-up, like a crash
  });
  ASSERT_EQ(waitChild(first), 0);
  Attached r(ShmAttach{"r/orphan", ShmRole::reader});
  drain(r);
  std::vector<Oro::FutexWait> words;
  r.reader()->sleepBegin(words);
  ASSERT_EQ(words.size(), 1u);
  EXPECT_EQ(words[0].word->load(), words[0].expected);  // a sleep would last

  Attached next(ShmAttach{"r/orphan", ShmRole::writer});
  EXPECT_NE(words[0].word->load(), words[0].expected);  // the sleep ends (or never starts)
  EXPECT_EQ(r.find(3), Rec::of(3));
}

TEST_F(ShmReliabilityTest, ATruncatedSegmentIsDamageNotACrash) {
  Table w("test::Rec", "recs", {});
  std::vector<std::string> reports;
  w.corruptionHandlerIs([&](const std::string& m) { reports.push_back(m); });
  w.attach(ShmAttach{"r/trunc", ShmRole::writer});
  fill(w, 0, 100);
  Attached r(ShmAttach{"r/trunc", ShmRole::reader});
  EXPECT_EQ(r.find(5), Rec::of(5));
  ASSERT_TRUE(damageTable("r/trunc", "recs"));
  EXPECT_THROW(r.find(5), Oro::ShmCorruptionException);
  EXPECT_THROW(w.insert(1, Rec::of(1)), Oro::ShmCorruptionException);
  // A vanished process is a dead process, whatever state its /proc file was in.
  const pid_t gone = forkChild([] { return 0; });
  int status;
  ::waitid(P_PID, static_cast<id_t>(gone), nullptr, WEXITED | WNOWAIT);
  EXPECT_EQ(Oro::processStartTime(gone), 0u);  // a zombie
  ::waitpid(gone, &status, 0);
  EXPECT_EQ(Oro::processStartTime(gone), 0u);
  EXPECT_NE(Oro::processStartTime(::getpid()), 0u);
}

// A writer killed at a given step of its n-th write leaves a store in which walks, lookups and
// counts agree, every record is whole, and a new writer continues it.

void checkAgreement(const ShmStore& s, uint32_t keySpace) {
  uint32_t walked = 0;
  ShmStore::Record rec;
  std::set<uint32_t> keys;
  for (uint32_t slot = s.seek(0, 0, &rec); slot != ShmStore::kNoSlot;
       slot = s.seek(0, slot + 1, &rec)) {
    Rec v;
    std::memcpy(static_cast<void*>(&v), rec.words + 1, sizeof v);
    EXPECT_TRUE(v.whole()) << "slot " << slot;
    keys.insert(rec.words[0]);
    ++walked;
  }
  uint32_t found = 0;
  for (uint32_t k = 0; k < keySpace; ++k) {
    const bool present = s.find(0, &k, nullptr) != ShmStore::kNoSlot;
    found += present;
    EXPECT_EQ(present, keys.count(k) == 1) << "key " << k;
  }
  EXPECT_EQ(s.count(0), walked);
  EXPECT_EQ(found, walked);
}

TEST_F(ShmReliabilityTest, AWriterKilledAtAnyStepLeavesAStoreThatAgreesWithItself) {
  const std::pair<ShmFaultPoint, int> cases[] = {
      {ShmFaultPoint::insertFilled, 300},    {ShmFaultPoint::insertIndexed, 300},
      {ShmFaultPoint::insertCommitted, 300}, {ShmFaultPoint::rewriteJournaled, 40},
      {ShmFaultPoint::rewriteWriting, 40},   {ShmFaultPoint::rewriteCommitted, 40},
      {ShmFaultPoint::removeFreed, 30},      {ShmFaultPoint::removeUnindexed, 30},
      {ShmFaultPoint::growthStep, 3},        {ShmFaultPoint::growthPublished, 2},
      {ShmFaultPoint::chunkAdded, 2},        {ShmFaultPoint::logAppended, 500},
  };
  constexpr uint32_t kKeys = 2000;
  for (const auto& [point, nth] : cases) {
    SCOPED_TRACE(static_cast<int>(point));
    const std::string path = fmt::format("r/step{}", static_cast<int>(point));
    const pid_t child = forkChild([&] {
      Attached w(ShmAttach{path, ShmRole::writer});
      faultAt(point, nth);
      for (uint32_t k = 0; k < kKeys; ++k) {
        w.insert(k, Rec::of(k));
        if (k % 10 == 0) w.insert(k / 2, Rec::of(k / 2 + 1000000));
        if (k % 15 == 0) w.remove(k / 3);
      }
      return 1;  // the fault point was not reached
    });
    ASSERT_EQ(waitChild(child), 128 + SIGKILL);
    checkAgreement(ShmStore::openReader(path, nullptr), kKeys);
    ShmStore taken = ShmStore::openWriter(path, Table::schema("test::Rec", "recs"), 0600, 64);
    checkAgreement(taken, kKeys);
    // Nothing of the dead writer is left over: the store's segments are the ones in use.
    size_t indexes = 0;
    for (const std::string& n : Oro::shmNamespaceEntries()) {
      if (n.find(path.substr(2)) != std::string::npos && n.find(".0i") != std::string::npos)
        ++indexes;
    }
    EXPECT_EQ(indexes, 1u);
  }
}

TEST_F(ShmReliabilityTest, ADamagedStoreIsRecreatedByItsWriterAndItsReadersRecover) {
  const Oro::ShmStoreSchema schema = Table::schema("test::Rec", "recs");
  using Damage = std::function<void(const std::string& path)>;
  auto segment = [](const std::string& path, const char* suffix) {
    ShmStore s = ShmStore::openReader(path, nullptr);
    return s.segName(suffix);
  };
  const std::vector<std::pair<const char*, Damage>> damages = {
      {"index segment removed",
       [&](const std::string& p) { Oro::ShmSegment::unlink(segment(p, "0i1")); }},
      {"chunk truncated", [](const std::string& p) { ASSERT_TRUE(damageTable(p, "recs")); }},
      {"header garbage", [](const std::string& p) { overwriteHeader(p, std::string(600, 'Z')); }},
      {"magic zeroed", [](const std::string& p) { overwriteHeader(p, std::string(8, '\0')); }},
      {"header emptied",
       [](const std::string& p) { ::truncate(("/dev/shm" + Oro::shmStoreName(p)).c_str(), 0); }},
      {"header of another store copied over it",
       [](const std::string& p) {
         { Attached other(ShmAttach{"r/other", ShmRole::writer}); }
         std::filesystem::copy_file("/dev/shm" + Oro::shmStoreName("r/other"),
                                    "/dev/shm" + Oro::shmStoreName(p),
                                    std::filesystem::copy_options::overwrite_existing);
       }},
  };
  for (const auto& [what, damage] : damages) {
    SCOPED_TRACE(what);
    const std::string path = "r/damaged";
    {
      Attached w(ShmAttach{path, ShmRole::writer});
      fill(w, 0, 50);
    }
    Oro::TaskScheduler sched;
    bool republished = false;
    std::vector<std::string> reports;
    Table r("test::Rec", "recs", {[&](uint32_t k) {
              if (k == 9999) {
                republished = true;
                sched.stop();
              }
            }});
    r.corruptionHandlerIs([&](const std::string& m) { reports.push_back(m); });
    r.attach(ShmAttach{path, ShmRole::reader, &sched});
    drain(r);
    // The reader sleeps on the store while it is damaged and replaced: the writer that
    // replaces it must wake it (the bound only ends a failed run).
    struct Asleep : Oro::WaitSource {
      shmtest::Pipe told;
      bool hasPending() const override { return false; }
      void dispatch() override {}
      void sleepBegin(std::vector<Oro::FutexWait>&) override { told.send(); }
      void sleepEnd() override {}
    } asleep;
    sched.waitSourceIs(&asleep);
    std::thread reading([&] { sched.runUntil(Oro::TaskScheduler::Clock::now() + 20s); });
    ASSERT_TRUE(asleep.told.receive());
    damage(path);
    // The writer comes back: it cannot take the damaged store over, so it builds a new one and
    // republishes; its readers find the new store.
    Attached w(ShmAttach{path, ShmRole::writer});
    fill(w, 0, 50);
    w.insert(9999, Rec::of(9999));
    reading.join();
    sched.waitSourceDel(&asleep);
    EXPECT_TRUE(republished);
    EXPECT_EQ(r.find(10), Rec::of(10));
    EXPECT_EQ(r.size(), 51u);
    w.detach();
    r.detach();
    Oro::shmUnlinkNamespace();
  }
}

// A writer's store inherited by a forked child stays the parent's: the child's writes are
// refused, and a child that lets its copy go leaves the parent's owner, mount status and
// doorbell as they were.
TEST_F(ShmReliabilityTest, AForkedChildOfAWriterLeavesTheStoreToItsParent) {
  Attached w(ShmAttach{"r/forked", ShmRole::writer});
  w.insert(1, Rec::of(1));
  const auto bells = [] {
    return std::ranges::count_if(Oro::shmNamespaceEntries(), [](const std::string& n) {
      return n.find(".bell.") != std::string::npos;
    });
  };
  const auto before = bells();
  const pid_t child = forkChild([&] {
    try {
      w.insert(2, Rec::of(2));
      return 11;
    } catch (const Oro::ShmException& e) {
      if (std::string_view(e.what()).find("forked") == std::string_view::npos) return 12;
    }
    w.detach();
    return 10;
  });
  EXPECT_EQ(waitChild(child), 10);
  EXPECT_EQ(bells(), before);
  const auto* h = w.store().header();
  EXPECT_EQ(h->owner.load(), static_cast<uint64_t>(::getpid()));
  EXPECT_EQ(h->mountStatus.load(), static_cast<uint32_t>(TylKetab::MountStatus::mounted));
  w.insert(3, Rec::of(3));
  EXPECT_EQ(w.size(), 2u);

  // Nor does a child that keeps its copy hold the store's locks or doorbell: once the parent
  // lets go, a new writer takes the store over while the child still lives.
  Pipe started, gate;
  const pid_t keeper = forkChild([&] {
    started.send();  // past the fork's handlers
    return gate.receive() ? 10 : 13;
  });
  ASSERT_TRUE(started.receive());
  w.detach();
  EXPECT_FALSE(Oro::ShmStore::openReader("r/forked", nullptr).writerAlive());
  EXPECT_EQ(bells(), before - 1);
  Attached next(ShmAttach{"r/forked", ShmRole::writer});
  EXPECT_EQ(next.size(), 2u);
  gate.send();
  EXPECT_EQ(waitChild(keeper), 10);
}

// A writer that cannot take a store over for its process's limits (here the file size: the
// take-over rebuilds the index) fails with nothing changed: that is not damage, and no new
// store replaces the one there.
TEST_F(ShmReliabilityTest, AWriterShortOfResourcesLeavesTheStoreAsItIs) {
  {
    Attached w(ShmAttach{"r/limits", ShmRole::writer});
    fill(w, 0, 20000);
  }
  const pid_t child = forkChild([] {
    ::signal(SIGXFSZ, SIG_IGN);
    const rlimit small{16384, 16384};
    ::setrlimit(RLIMIT_FSIZE, &small);
    try {
      Attached w(ShmAttach{"r/limits", ShmRole::writer});
      return 11;
    } catch (const Oro::ShmResourceException& e) {
      return std::string_view(e.what()).find("File too large") != std::string_view::npos ? 10 : 12;
    }
  });
  EXPECT_EQ(waitChild(child), 10);
  Attached w(ShmAttach{"r/limits", ShmRole::writer});
  EXPECT_EQ(w.size(), 20000u);
}

// A refused mount (a live writer there, a bad name, nothing to read) leaves the table on the
// store it was on: its writes still reach that store's readers, also one that outlives its
// scheduler.
TEST_F(ShmReliabilityTest, ARefusedMountLeavesTheTableWhereItWasAndAReaderMayOutliveItsScheduler) {
  Attached w(ShmAttach{"r/here", ShmRole::writer});
  Attached other(ShmAttach{"r/taken", ShmRole::writer});
  w.insert(1, Rec::of(1));
  EXPECT_THROW(w.attach(ShmAttach{"r/taken", ShmRole::writer}), Oro::ShmException);
  EXPECT_THROW(w.attach(ShmAttach{"bad//path", ShmRole::writer}), Oro::ShmException);
  EXPECT_THROW(w.attach(ShmAttach{"r/absent", ShmRole::reader}), Oro::ShmException);
  EXPECT_EQ(w.role(), ShmRole::writer);
  // A reader whose scheduler goes first is dispatched by hand from then on, and goes quietly.
  auto sched = std::make_unique<Oro::TaskScheduler>();
  ViewReader r("r/here", sched.get());
  sched.reset();
  w.insert(2, Rec::of(2));
  r.drain();
  EXPECT_EQ(r.view.size(), 2u);
}

// A store removed after its writer died is gone for its readers too: each key they knew is
// reported, none as damage, and they follow the store a writer creates at the path later.
TEST_F(ShmReliabilityTest, AReaderOfARemovedStoreSeesItEmptyUntilAWriterCreatesItAgain) {
  const std::string path = "r/removed";
  {
    Attached w(ShmAttach{path, ShmRole::writer});
    fill(w, 0, 20);
  }
  Oro::TaskScheduler sched;
  std::set<uint32_t> present;
  size_t wanted = SIZE_MAX;  // the run to stop once the reader holds as many keys
  Table* reader = nullptr;
  Table r("test::Rec", "recs", {[&](uint32_t k) {
            if (reader->find(k)) {
              present.insert(k);
            } else {
              present.erase(k);
            }
            if (present.size() == wanted) sched.stop();
          }});
  reader = &r;
  std::vector<std::string> reports;
  r.corruptionHandlerIs([&](const std::string& m) { reports.push_back(m); });
  r.attach(ShmAttach{path, ShmRole::reader, &sched});
  drain(r);
  ASSERT_EQ(present.size(), 20u);
  EXPECT_GE(ShmStore::remove(path), 1u);
  wanted = 0;
  sched.runUntil(Oro::TaskScheduler::Clock::now() + 20s);
  EXPECT_TRUE(present.empty());
  EXPECT_EQ(r.size(), 0u);
  EXPECT_FALSE(r.find(3).has_value());
  EXPECT_THAT(reports, testing::IsEmpty());
  Attached w(ShmAttach{path, ShmRole::writer});
  fill(w, 100, 5);
  wanted = 5;
  // The reader looks for the store again after growing pauses (timers).
  sched.runUntil(Oro::TaskScheduler::Clock::now() + 20s);
  EXPECT_EQ(present, (std::set<uint32_t>{100, 101, 102, 103, 104}));
  EXPECT_EQ(r.find(101), Rec::of(101));
  w.detach();
  r.detach();
}

TEST_F(ShmReliabilityTest, AWriterWhoseMainThreadEndedIsAlive) {
  Pipe started;
  const pid_t child = forkChild([&] {
    std::thread worker([&] {
      Attached w(ShmAttach{"r/thread", ShmRole::writer});
      w.insert(1, Rec::of(1));
      started.send();
      ::pause();
    });
    worker.detach();
    // Ends the main thread alone (no unwinding through the test's frames).
    ::syscall(SYS_exit, 0);
    return 0;
  });
  ASSERT_TRUE(started.receive());
  EXPECT_TRUE(ShmStore::openReader("r/thread", nullptr).writerAlive());
  EXPECT_THROW(ShmStore::openWriter("r/thread", Table::schema("test::Rec", "recs"), 0600, 64),
               Oro::ShmException);
  ::kill(child, SIGKILL);
  waitChild(child);
  EXPECT_FALSE(ShmStore::openReader("r/thread", nullptr).writerAlive());
}

// Connecting costs a reader nothing and the writer a descriptor: a hostile reader may hold far
// more connections than the writer can take in. Those it cannot take in wait unread (with the
// registrations of honest readers queued behind them), so the writer then wakes its sleepers
// on every publication; and a reader finding the queue full rings again later, unblocked.
TEST_F(ShmReliabilityTest, ReadersFloodingTheDoorbellCannotSilenceOthers) {
  Pipe ready, published, done;
  const pid_t parent = ::getpid();
  const pid_t writer = forkChild([&] {
    rlimit lim{};
    ::getrlimit(RLIMIT_NOFILE, &lim);
    lim.rlim_cur = 64;  // the watcher keeps 32 connections, and finds no descriptor near 64
    if (::setrlimit(RLIMIT_NOFILE, &lim) != 0) return 2;
    Attached w(ShmAttach{"r/flood", ShmRole::writer});
    w.insert(1, Rec::of(1));
    ready.send();
    // Publishes once the reader below is asleep, its registration queued behind the flood.
    while (!asleepOnFutex(parent)) std::this_thread::yield();
    w.insert(2, Rec::of(2));
    published.send();
    return done.receive() ? 0 : 3;
  });
  ASSERT_TRUE(ready.receive());
  std::vector<int> flood;
  Oro::TaskScheduler sched;
  bool seen = false;
  Table r("test::Rec", "recs", {[&](uint32_t k) { seen = seen || k == 2; }});
  r.attach(ShmAttach{"r/flood", ShmRole::reader, &sched});
  drain(r);
  // More connections than the writer process has descriptors for, fewer than can wait.
  for (int i = 0; i < 80; ++i) {
    const int fd = connectToBell(r.store().bellPath());
    if (fd >= 0) flood.push_back(fd);
  }
  EXPECT_TRUE(sched.runUntil([&] { return seen; }, Oro::TaskScheduler::Clock::now() + 20s))
      << "the reader slept through a publication";
  ASSERT_TRUE(published.receive());

  // The queue full: a reader going to sleep does not block in its connect and sleeps briefly.
  for (int fd; (fd = connectToBell(r.store().bellPath())) >= 0;) flood.push_back(fd);
  Attached other(ShmAttach{"r/flood", ShmRole::reader});
  drain(other);
  std::vector<Oro::FutexWait> words;
  other.reader()->sleepBegin(words);
  EXPECT_NE(other.reader()->wakeBy(), Oro::TaskScheduler::Clock::time_point::max());
  for (int fd : flood) ::close(fd);
  done.send();
  EXPECT_EQ(waitChild(writer), 0);
}

// Anyone may create files in /dev/shm and list it, and the listing shows a store's instance.
// Taking the names a writer would give its next chunks and index generations ahead of it must
// not stop the store from growing (the writer cannot remove another user's file).
TEST_F(ShmReliabilityTest, ASegmentNameCannotBeTakenBeforeTheWriterNeedsIt) {
  Pipe listed, taken;
  const pid_t writer = forkChild([&] {
    if (!becomeNobody(true)) return 2;
    Attached w(ShmAttach{"r/squat", ShmRole::writer, nullptr, 0644});
    fill(w, 0, 10);
    listed.send();
    if (!taken.receive()) return 3;
    fill(w, 10, 20000);  // new chunks, index generations
    return w.find(20009) == Rec::of(20009) ? 0 : 4;
  });
  ASSERT_TRUE(listed.receive());
  uint64_t instance = 0;
  {
    ShmStore s = ShmStore::openReader("r/squat", nullptr);
    instance = s.header()->instance;
  }
  for (int n = 0; n < 40; ++n) {
    for (const std::string& suffix : {fmt::format("0k{}", n), fmt::format("0i{}", n)}) {
      const int fd = ::shm_open(Oro::shmStoreSegmentName("r/squat", instance, suffix).c_str(),
                                O_CREAT | O_EXCL | O_RDWR, 0600);
      if (fd >= 0) ::close(fd);
    }
  }
  taken.send();
  EXPECT_EQ(waitChild(writer), 0);
}

// Anyone who may read a store may open its header and take a read lock on it, which keeps
// everyone from a write lock on the header: that must not keep a restarted writer from its
// store, nor let two writers in.
TEST_F(ShmReliabilityTest, AReadLockOnTheHeaderKeepsNoWriterOut) {
  const pid_t first = forkChild([]() -> int {
    Attached w(ShmAttach{"r/rdlock", ShmRole::writer});
    fill(w, 0, 10);
    ::_exit(0);  // dies, leaving the store to the next writer
  });
  ASSERT_EQ(waitChild(first), 0);
  const int fd = ::shm_open(Oro::shmStoreName("r/rdlock").c_str(), O_RDONLY, 0);
  ASSERT_GE(fd, 0);
  struct flock fl {};
  fl.l_type = F_RDLCK;
  fl.l_whence = SEEK_SET;
  ASSERT_EQ(::fcntl(fd, F_OFD_SETLK, &fl), 0);
  Attached next(ShmAttach{"r/rdlock", ShmRole::writer});
  EXPECT_EQ(next.find(3), Rec::of(3));  // taken over, not made anew
  EXPECT_THROW(Attached(ShmAttach{"r/rdlock", ShmRole::writer}), Oro::ShmException);
  Attached reader(ShmAttach{"r/rdlock", ShmRole::reader});
  EXPECT_TRUE(reader.store().writerAlive());
  ::close(fd);
}

}  // namespace
