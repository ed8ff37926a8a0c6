// The shared-memory table across processes: a forked writer publishes while a reader's
// scheduler sleeps on the table and receives every key; writers killed with SIGKILL in the
// middle of their write loops leave only whole records, and a new writer takes over.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <random>
#include <set>

#include <gtest/gtest.h>

#include "platform/shm/ShmTable.h"
#include "platform/runtime/TaskScheduler.h"
#include "shm_test_util.h"

namespace {

using Oro::ShmAttach;
using Oro::ShmRole;
using shmtest::Rec;
using Table = Oro::ShmTable<uint32_t, Rec>;
using namespace std::chrono_literals;

constexpr uint32_t kDoneKey = 1000000;

// The deterministic history the writer child plays: step i touches key i % 300.
void playStep(uint32_t i, const std::function<void(uint32_t, const Rec&)>& put,
              const std::function<void(uint32_t)>& del) {
  const uint32_t k = i % 300;
  if (i % 7 == 3) {
    del(k);
  } else {
    put(k, Rec::of(i));
  }
}

class ShmProcessTest : public shmtest::ShmTest {};

TEST_F(ShmProcessTest, ReaderSchedulerReceivesEveryKeyFromAForkedWriter) {
  shmtest::Pipe ready, go;
  constexpr uint32_t kSteps = 20000;
  const pid_t child = shmtest::forkChild([&] {
    Table w("test::Rec", "recs", {});
    w.attach(ShmAttach{"p/one", ShmRole::writer, nullptr, 0600, 1024});
    ready.send();
    if (!go.receive()) return 3;
    for (uint32_t i = 0; i < kSteps; ++i) {
      playStep(
          i, [&](uint32_t k, const Rec& r) { w.insert(k, r); }, [&](uint32_t k) { w.remove(k); });
      if (i % 4096 == 0) ::usleep(2000);  // let the reader fall asleep now and then
    }
    w.insert(kDoneKey, Rec::of(0));
    return 0;
  });
  ASSERT_TRUE(ready.receive());

  Oro::TaskScheduler sched;
  std::set<uint32_t> notified;
  Table r("test::Rec", "recs",
          Table::Callbacks{[&](const uint32_t& k) {
                             notified.insert(k);
                             if (k == kDoneKey) sched.stop();
                           },
                           {},
                           {}});
  r.attach(ShmAttach{"p/one", ShmRole::reader, &sched});
  go.send();
  sched.runUntil(Oro::TaskScheduler::Clock::now() + 20s);
  EXPECT_EQ(shmtest::waitChild(child), 0);
  ASSERT_TRUE(notified.count(kDoneKey));

  std::map<uint32_t, Rec> model;
  for (uint32_t i = 0; i < kSteps; ++i) {
    playStep(
        i, [&](uint32_t k, const Rec& rec) { model[k] = rec; },
        [&](uint32_t k) { model.erase(k); });
  }
  for (uint32_t k = 0; k < 300; ++k) {
    EXPECT_TRUE(notified.count(k)) << k;
    const auto it = model.find(k);
    EXPECT_EQ(r.find(k), it == model.end() ? std::nullopt : std::optional<Rec>(it->second)) << k;
  }
  EXPECT_EQ(r.size(), model.size() + 1);
}

// Every record readable through the table is whole; returns how many there are.
size_t checkWhole(const Table& t) {
  size_t n = 0;
  for (auto it = t.begin(); it.valid(); it.next()) {
    EXPECT_TRUE(it.value().whole()) << "slot " << it.slot();
    EXPECT_EQ(it.value().n % 512, it.key());
    ++n;
  }
  for (uint32_t k = 0; k < 512; ++k) {
    if (auto v = t.find(k)) {
      EXPECT_TRUE(v->whole()) << k;
    }
  }
  return n;
}

TEST_F(ShmProcessTest, KilledWritersLeaveWholeRecordsAndANewWriterContinues) {
  Table r("test::Rec", "recs", {});
  std::mt19937 rng(12345);
  uint64_t base = 0;
  for (int round = 0; round < 12; ++round) {
    shmtest::Pipe ready;
    const uint64_t start = base;
    const pid_t child = shmtest::forkChild([&] {
      Table w("test::Rec", "recs", {});
      w.attach(ShmAttach{"p/two", ShmRole::writer, nullptr, 0600, 256});
      ready.send();
      for (uint64_t i = start;; ++i) {
        w.insert(static_cast<uint32_t>(i % 512), Rec::of(i));
        if (i % 5 == 0) w.remove(static_cast<uint32_t>((i * 7) % 512));
      }
      return 0;
    });
    ASSERT_TRUE(ready.receive());
    if (!r.attached()) r.attach(ShmAttach{"p/two", ShmRole::reader});
    const auto until =
        std::chrono::steady_clock::now() + std::chrono::microseconds(2000 + rng() % 20000);
    while (std::chrono::steady_clock::now() < until) checkWhole(r);  // concurrent readers
    ::kill(child, SIGKILL);
    EXPECT_EQ(shmtest::waitChild(child), 128 + SIGKILL);
    checkWhole(r);
    base += 1000000;
  }
  // A writer in this process takes the table over and continues; the reader resynchronises.
  const uint64_t epochBefore = r.core().store().header()->epoch.load();
  Table w("test::Rec", "recs", {});
  w.attach(ShmAttach{"p/two", ShmRole::writer});
  EXPECT_GT(r.core().store().header()->epoch.load(), epochBefore);
  EXPECT_EQ(checkWhole(w), w.size());
  for (uint32_t k = 0; k < 512; ++k) w.insert(k, Rec::of(k + 512 * 9));
  const uint64_t resyncs = r.core().reader()->resyncs();
  while (r.core().reader()->hasPending()) r.core().reader()->dispatch();
  EXPECT_GT(r.core().reader()->resyncs(), resyncs);
  EXPECT_EQ(checkWhole(r), 512u);
  for (uint32_t k = 0; k < 512; ++k) EXPECT_EQ(r.find(k), Rec::of(k + 512 * 9));
}

}  // namespace
