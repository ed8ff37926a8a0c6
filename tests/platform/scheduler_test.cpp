// Cooperative scheduler: ready-list order, yields by policy and by time slice, timers, task
// deletion, and the blocking loop woken from another thread and from another process.
// Hand-offs between threads and processes wait on events, never on the clock.
#include <gtest/gtest.h>

#include <sys/mman.h>

#include <fstream>
#include <future>
#include <memory>
#include <random>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include "common/shm_test_util.h"
#include "platform/runtime/Futex.h"
#include "platform/runtime/TaskScheduler.h"

namespace {

using namespace std::chrono_literals;
using Oro::Task;
using Oro::TaskPriority;
using Oro::TaskScheduler;
using Clock = TaskScheduler::Clock;

// Fails the test instead of hanging it when a wake-up never comes.
Oro::TimerId watchdog(TaskScheduler& s, bool* fired) {
  return s.timerIs(10s, [&s, fired] {
    *fired = true;
    s.stop();
  });
}

TEST(Scheduler, PriorityThenFifoOrderAndTasksDeletedWhileQueued) {
  TaskScheduler s;
  std::string order;
  std::vector<std::unique_ptr<Task>> t;  // a to e
  for (TaskPriority p : {TaskPriority::low, TaskPriority::normal, TaskPriority::high,
                         TaskPriority::normal, TaskPriority::low}) {
    const char c = static_cast<char>('a' + t.size());
    t.push_back(std::make_unique<Task>(&s, p, std::string(1, c), [&order, c] { order += c; }));
    t.back()->schedule();
  }
  Task* a = t[0].get();
  t[1]->schedule();  // already queued: keeps its place, runs once
  EXPECT_EQ(s.runUntilIdle(), 5u);
  EXPECT_EQ(order, "cbdae");
  EXPECT_TRUE(s.idle());
  EXPECT_FALSE(s.runOnce());

  order.clear();
  a->schedule();
  t[1]->schedule();
  s.unscheduleTask(a);
  EXPECT_FALSE(a->scheduled());
  s.runUntilIdle();
  EXPECT_EQ(order, "b");
  EXPECT_EQ(s.tasksRun(), 6u);

  // Tasks deleted while queued or from their own handler.
  order.clear();
  auto first = std::make_unique<Task>(&s, TaskPriority::normal, "first", [&] { order += '1'; });
  auto victim = std::make_unique<Task>(&s, TaskPriority::normal, "victim", [&] { order += 'v'; });
  std::unique_ptr<Task> self;
  self = std::make_unique<Task>(&s, TaskPriority::normal, "self", [&] {
    order += 's';
    victim.reset();  // queued behind us
    self.reset();    // the running task itself
    order += s.taskCurrentlyRunning() == nullptr ? 'n' : 'x';
    order += s.taskShouldYield() ? 'x' : 'n';
  });
  auto last = std::make_unique<Task>(&s, TaskPriority::low, "last", [&] { order += 'l'; });
  auto middle = std::make_unique<Task>(&s, TaskPriority::normal, "middle", [&] { order += 'm'; });
  for (Task* q : {first.get(), self.get(), victim.get(), middle.get(), last.get()}) q->schedule();
  first.reset();  // dequeued from the head
  EXPECT_EQ(s.runUntilIdle(), 3u);
  EXPECT_EQ(order, "snnml");
  EXPECT_EQ(self, nullptr);

  // A task that outlives its scheduler is detached, not left pointing at it.
  std::unique_ptr<Task> orphan;
  {
    TaskScheduler gone;
    orphan = std::make_unique<Task>(&gone, TaskPriority::normal, "orphan", [] {});
    orphan->schedule();
  }
  EXPECT_EQ(orphan->scheduler(), nullptr);
  EXPECT_FALSE(orphan->scheduled());
}

// A scan-like task: handles items until the scheduler says to yield, records progress and
// reschedules itself; a higher-priority task scheduled meanwhile runs in between. The
// yields come from a seeded policy, so every run of the test yields at the same items.
TEST(Scheduler, YieldsComeFromThePolicyOrWithoutOneFromTheTimeSlice) {
  TaskScheduler s;
  constexpr uint64_t kItems = 3000;
  std::mt19937 rng(20240611);
  uint64_t asked = 0, said = 0;
  s.yieldPolicyIs([&](const Task& running) {
    EXPECT_EQ(running.name(), "scan");
    ++asked;
    bool yield = rng() % 100 == 0;
    said += yield;
    return yield;
  });
  uint64_t next = 0, yields = 0, urgentRuns = 0, runsAtUrgent = 0;
  bool sawSelfRunning = true;
  std::unique_ptr<Task> scan;
  Task urgent(&s, TaskPriority::high, "urgent", [&] {
    ++urgentRuns;
    runsAtUrgent = scan->runs();
  });
  scan = std::make_unique<Task>(&s, TaskPriority::normal, "scan", [&] {
    sawSelfRunning &= s.taskCurrentlyRunning() == scan.get();
    uint64_t handled = 0;
    while (next < kItems) {
      ++next;
      ++handled;
      if (next < kItems && scan->shouldYield()) {
        ++yields;
        scan->workCountInc(handled);
        scan->pendingWorkIs(kItems - next);
        if (scan->runs() == 1) urgent.schedule();
        scan->schedule();
        return;
      }
    }
    scan->workCountInc(handled);
    scan->pendingWorkIs(0);
  });
  scan->schedule();
  EXPECT_FALSE(s.taskShouldYield());  // no task running: the policy is not asked
  EXPECT_FALSE(urgent.shouldYield());
  s.runUntilIdle();
  EXPECT_TRUE(sawSelfRunning);
  EXPECT_EQ(next, kItems);
  EXPECT_EQ(asked, kItems - 1);
  EXPECT_EQ(yields, said);
  EXPECT_GT(yields, 2u);
  EXPECT_EQ(scan->runs(), yields + 1);
  EXPECT_EQ(scan->workCount(), kItems);
  EXPECT_EQ(scan->pendingWork(), 0u);
  EXPECT_EQ(urgentRuns, 1u);
  EXPECT_EQ(runsAtUrgent, 1u);  // ahead of the scan's second run
  EXPECT_EQ(s.taskCurrentlyRunning(), nullptr);

  // Without a policy the time slice decides: an empty slice is used up as soon as the task starts,
  // an hour-long one is not used up by a task that returns at once. Clearing the policy brings the
  // slice back.
  for (bool withCleared : {false, true}) {
    SCOPED_TRACE(withCleared ? "policy set, then cleared" : "no policy");
    for (auto [slice, expect] :
         {std::pair{0ns, true}, std::pair{std::chrono::nanoseconds(1h), false}}) {
      TaskScheduler s(slice);
      if (withCleared) {
        s.yieldPolicyIs([](const Task&) { return true; });
        s.yieldPolicyIs(nullptr);
      }
      EXPECT_FALSE(s.hasYieldPolicy());
      bool yield = !expect;
      Task t(&s, TaskPriority::normal, "t", [&] { yield = s.taskShouldYield(); });
      t.schedule();
      s.runUntilIdle();
      EXPECT_EQ(yield, expect) << slice.count();
    }
  }
}

TEST(Scheduler, TimersFireInDeadlineOrderCanBeCancelledAndEndRunUntil) {
  TaskScheduler s;
  std::vector<int> fired;
  auto now = Clock::now();
  s.timerIs(now - 1ms, [&] { fired.push_back(2); });
  s.timerIs(now - 3ms, [&] { fired.push_back(1); });
  Oro::TimerId gone = s.timerIs(now - 2ms, [&] { fired.push_back(99); });
  Oro::TimerId cancelledByPeer = s.timerIs(now - 1ms, [&] { fired.push_back(98); });
  s.timerIs(now - 1500us, [&] { s.timerDel(cancelledByPeer); });
  Oro::TimerId later = s.timerIs(1h, [&] { fired.push_back(97); });
  s.timerDel(gone);
  s.timerDel(gone);  // unknown ids are ignored
  s.runUntilIdle();
  EXPECT_EQ(fired, (std::vector<int>{1, 2}));
  EXPECT_TRUE(s.idle());  // the hour-long timer is not due

  // A timer re-arming itself for "now" does not keep one runOnce busy for ever.
  int rearmed = 0;
  std::function<void()> again = [&] {
    if (++rearmed < 3) s.timerIs(Clock::now() - 1ms, again);
  };
  s.timerIs(Clock::now() - 1ms, again);
  EXPECT_TRUE(s.runOnce());
  EXPECT_EQ(rearmed, 1);
  s.runUntilIdle();
  EXPECT_EQ(rearmed, 3);
  s.timerDel(later);

  // runUntil fires timers and returns at its deadline.
  bool timerFired = false;
  auto start = Clock::now();
  s.timerIs(20ms, [&] { timerFired = true; });
  s.runUntil(start + 60ms);
  EXPECT_TRUE(timerFired);
  EXPECT_GE(Clock::now() - start, 60ms);

  // A stop() with no loop running makes the next one return before it runs anything.
  bool ran = false;
  Task t(&s, TaskPriority::normal, "t", [&] { ran = true; });
  t.schedule();
  s.stop();
  s.runUntil(Clock::time_point::max());
  EXPECT_FALSE(ran);
  EXPECT_TRUE(t.scheduled());
  s.runUntilIdle();
  EXPECT_TRUE(ran);
}

struct Counted : Oro::RefCounted {};

// Lets another thread act at the last moment before run() goes to sleep. Before it sleeps
// the scheduler captures its wake word, registers every source as a sleeper and only then
// asks the sources for pending work (after its own posted and stop flags): whatever
// another thread does once this probe has been asked can only end a sleep (or make the
// futex wait return at once), never be seen by the loop before it sleeps.
struct SleepProbe : Oro::WaitSource {
  bool hasPending() const override {
    if (inSleep) asked.release();
    return false;
  }
  void dispatch() override {}
  void sleepBegin(std::vector<Oro::FutexWait>&) override { inSleep = true; }
  void sleepEnd() override { inSleep = false; }
  bool inSleep = false;  // scheduler thread only
  mutable std::counting_semaphore<> asked{0};
};

TEST(SchedulerLoop, RunWokenByPostAndStopFromAnotherThreadWhosePostsSwitchToAtomicCounts) {
  TaskScheduler s;
  SleepProbe probe;
  s.waitSourceIs(&probe);
  bool hung = false;
  watchdog(s, &hung);
  // Another thread that acts once the loop is about to sleep.
  auto whenAsleep = [&probe](std::function<void()> fn) {
    return std::thread([&probe, fn] {
      probe.asked.acquire();
      fn();
    });
  };
  std::thread::id ranOn;
  std::thread poster = whenAsleep([&] {
    s.post([&] {
      ranOn = std::this_thread::get_id();
      s.stop();
    });
  });
  s.run();
  poster.join();
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  EXPECT_GE(s.sleeps(), 1u);

  // stop() alone, with nothing else to do, ends a sleeping run().
  const uint64_t sleepsBefore = s.sleeps();
  std::thread stopper = whenAsleep([&] { s.stop(); });
  s.run();
  stopper.join();
  EXPECT_GE(s.sleeps(), sleepsBefore + 1);

  // runUntil(done) sleeps until work arrives and returns once done() holds.
  int posted = 0;
  std::thread twice = whenAsleep([&] {
    s.post([&] { ++posted; });
    s.post([&] { ++posted; });
  });
  EXPECT_TRUE(s.runUntil([&] { return posted > 0; }));
  twice.join();
  EXPECT_FALSE(hung);  // the watchdog never had to end a sleep
  s.runUntilIdle();
  EXPECT_EQ(posted, 2);
  s.waitSourceDel(&probe);

  // A closure posted from the scheduler's own thread leaves reference counts plain; one posted
  // from another thread switches the process to atomic counts before it is queued, so the
  // closure's Ptr is released on the scheduler thread with atomic counts.
  const bool before = Oro::threadsInUse();
  Oro::threadsInUseIs(false);
  TaskScheduler plain;
  bool ran = false;
  plain.post([&] { ran = true; });
  plain.runUntilIdle();
  EXPECT_TRUE(ran);
  EXPECT_FALSE(Oro::threadsInUse());

  Oro::Ptr<Counted> shared = Oro::makePtr<Counted>();
  bool atomicWhenQueued = false, atomicWhenRun = false;
  std::thread sender([&, copy = shared] {
    // Queued at once if the switch did not happen first: the check below sees it.
    plain.post([&, copy] { atomicWhenRun = Oro::threadsInUse(); });
    atomicWhenQueued = Oro::threadsInUse();
  });
  sender.join();
  EXPECT_TRUE(atomicWhenQueued);
  plain.runUntilIdle();
  EXPECT_TRUE(atomicWhenRun);
  EXPECT_EQ(shared->refs(), 1u);

  // stop() from another thread may be the last the loop sees: its owner destroys the scheduler
  // as soon as run() returns, while stop() may still be on its way out (TSan sees any touch).
  for (int i = 0; i < 300; ++i) {
    std::promise<TaskScheduler*> made;
    std::thread owner([&made] {
      TaskScheduler own;
      made.set_value(&own);
      own.run();
    });
    made.get_future().get()->stop();
    owner.join();
  }
  Oro::threadsInUseIs(before);
}

// A word in memory shared with another process: the writer stores a new value and wakes
// whoever registered as a sleeper. `checked` tells the writer that the reader has made
// its last check before sleeping, so the write is sure to arrive during the sleep.
struct SharedWords {
  std::atomic<uint32_t> data{0};
  std::atomic<uint32_t> sleepers{0};
  std::atomic<uint32_t> checked{0};
};

struct SharedWordSource : Oro::WaitSource {
  SharedWordSource(SharedWords* w, TaskScheduler* sched) : words(w), s(sched) {}
  bool hasPending() const override {
    // Read before the writer is told to go on: a write after that must find the reader
    // asleep, not be taken for work found before sleeping.
    const bool pending = words->data.load() != seen;
    if (inSleep) {
      words->checked.fetch_add(1);
      Oro::futexWake(&words->checked, INT32_MAX, true);
    }
    return pending;
  }
  void dispatch() override {
    seen = words->data.load();
    ++dispatches;
    s->stop();
  }
  void sleepBegin(std::vector<Oro::FutexWait>& out) override {
    inSleep = true;
    words->sleepers.fetch_add(1);
    out.push_back({&words->data, seen, true});
  }
  void sleepEnd() override {
    inSleep = false;
    words->sleepers.fetch_sub(1);
  }
  SharedWords* words;
  TaskScheduler* s;
  uint32_t seen = 0;
  int dispatches = 0;
  bool inSleep = false;
};

TEST(SchedulerLoop, RunWokenByWriteFromAnotherProcess) {
  void* mem =
      mmap(nullptr, sizeof(SharedWords), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(mem, MAP_FAILED);
  auto* words = new (mem) SharedWords;
  TaskScheduler s;
  SharedWordSource source(words, &s);
  s.waitSourceIs(&source);
  bool hung = false;
  watchdog(s, &hung);

  const pid_t child = shmtest::forkChild([&] {
    while (words->checked.load() == 0) Oro::futexWait(&words->checked, 0, true, nullptr);
    words->data.store(1);
    Oro::futexWake(&words->data, INT32_MAX, true);
    return 0;
  });
  s.run();
  EXPECT_EQ(shmtest::waitChild(child), 0);
  EXPECT_FALSE(hung);
  EXPECT_EQ(source.dispatches, 1);
  EXPECT_GE(s.sleeps(), 1u);
  EXPECT_EQ(words->sleepers.load(), 0u);  // every sleepBegin was matched by sleepEnd
  s.waitSourceDel(&source);
  munmap(mem, sizeof(SharedWords));
}

// The kernel's view of a thread: 'S' while it sleeps interruptibly (in a futex wait here).
char threadState(pid_t tid) {
  std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
  std::string line;
  std::getline(stat, line);
  auto paren = line.rfind(')');
  return paren != std::string::npos && paren + 2 < line.size() ? line[paren + 2] : '?';
}

TEST(Futex, WaitReportsMismatchTimeoutAndWake) {
  std::atomic<uint32_t> word{5};
  EXPECT_EQ(Oro::futexWait(&word, 4, false, nullptr), Oro::FutexStatus::mismatch);
  timespec past{0, 1};
  EXPECT_EQ(Oro::futexWait(&word, 5, false, &past), Oro::FutexStatus::timedOut);
  Oro::FutexWait both[] = {{&word, 5, false}, {&word, 6, false}};
  EXPECT_EQ(Oro::futexWaitv(both, 2, &past), Oro::FutexStatus::mismatch);
  EXPECT_EQ(Oro::futexWaitv(both, 1, &past), Oro::FutexStatus::timedOut);

  // The waker changes the word once this thread sleeps in the kernel, so the wait ends by
  // the wake (a sleep for another reason would end it by a mismatch, which is also right).
  std::atomic<uint32_t> other{0};
  Oro::FutexWait pair[] = {{&other, 0, false}, {&word, 5, false}};
  const pid_t self = gettid();
  std::thread waker([&] {
    while (threadState(self) != 'S') std::this_thread::yield();
    word.store(7);
    Oro::futexWake(&word, 1, false);
  });
  int index = -1;
  Oro::FutexStatus st = Oro::FutexStatus::mismatch;
  while (word.load() == 5) st = Oro::futexWaitv(pair, 2, nullptr, &index);
  waker.join();
  EXPECT_EQ(word.load(), 7u);
  EXPECT_NE(st, Oro::FutexStatus::timedOut);
  if (st == Oro::FutexStatus::woken) {
    EXPECT_EQ(index, 1);
  }
}

// More words than one futex wait takes (tables of a process that follows hundreds): the loop
// sleeps on all of them, and a change of any one ends its sleep, round after round.
struct ManyWordsSource : Oro::WaitSource {
  static constexpr size_t kWords = 300;
  bool hasPending() const override {
    if (inSleep) asked.release();
    for (size_t i = 0; i < kWords; ++i) {
      if (words[i].load() != seen[i]) return true;
    }
    return false;
  }
  void dispatch() override {
    for (size_t i = 0; i < kWords; ++i) {
      if (words[i].load() != seen[i]) changed.push_back(i);
      seen[i] = words[i].load();
    }
    s->stop();
  }
  void sleepBegin(std::vector<Oro::FutexWait>& out) override {
    inSleep = true;
    for (size_t i = 0; i < kWords; ++i) out.push_back({&words[i], seen[i], false});
  }
  void sleepEnd() override { inSleep = false; }
  TaskScheduler* s = nullptr;
  std::atomic<uint32_t> words[kWords] = {};
  uint32_t seen[kWords] = {};
  std::vector<size_t> changed;
  bool inSleep = false;
  mutable std::counting_semaphore<> asked{0};
};

TEST(SchedulerLoop, SleepsOnMoreWordsThanOneFutexWaitTakes) {
  TaskScheduler s;
  ManyWordsSource many;
  many.s = &s;
  s.waitSourceIs(&many);
  bool hung = false;
  watchdog(s, &hung);
  for (size_t word : {size_t{299}, size_t{0}, size_t{130}, size_t{254}, size_t{255}}) {
    std::thread writer([&] {
      many.asked.acquire();  // the loop is registered as a sleeper on every word
      many.words[word].fetch_add(1);
      Oro::futexWake(&many.words[word], 1, false);
    });
    s.run();
    writer.join();
    while (many.asked.try_acquire()) {
    }
  }
  EXPECT_FALSE(hung);
  EXPECT_EQ(many.changed, (std::vector<size_t>{299, 0, 130, 254, 255}));
  s.waitSourceDel(&many);
}

TEST(SchedulerDeathTest, MisuseIsFatal) {
  EXPECT_DEATH(
      {
        TaskScheduler a;
        TaskScheduler b;
        Task t(&a, TaskPriority::normal, "t", [] {});
        b.scheduleTask(&t);
      },
      "Assertion failed: task->scheduler_ == this && \"a task runs on the scheduler it was "
      "created with\"");
}

}  // namespace
