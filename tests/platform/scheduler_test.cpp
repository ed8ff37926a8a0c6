// Cooperative scheduler: ready-list order, time-sliced yields, timers, task deletion, and
// the blocking loop woken from another thread and from another process.
#include <gtest/gtest.h>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

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

TEST(Scheduler, PriorityThenFifoOrder) {
  TaskScheduler s;
  std::string order;
  auto make = [&](TaskPriority p, char c) {
    return std::make_unique<Task>(&s, p, std::string(1, c), [&order, c] { order += c; });
  };
  auto a = make(TaskPriority::low, 'a');
  auto b = make(TaskPriority::normal, 'b');
  auto c = make(TaskPriority::high, 'c');
  auto d = make(TaskPriority::normal, 'd');
  auto e = make(TaskPriority::low, 'e');
  for (Task* t : {a.get(), b.get(), c.get(), d.get(), e.get()}) t->schedule();
  b->schedule();  // already queued: keeps its place, runs once
  EXPECT_EQ(s.runUntilIdle(), 5u);
  EXPECT_EQ(order, "cbdae");
  EXPECT_TRUE(s.idle());
  EXPECT_FALSE(s.runOnce());

  order.clear();
  a->schedule();
  b->schedule();
  s.unscheduleTask(a.get());
  EXPECT_FALSE(a->scheduled());
  s.runUntilIdle();
  EXPECT_EQ(order, "b");
  EXPECT_EQ(s.tasksRun(), 6u);
}

// A scan-like task: handles items until its slice is used up, records progress, and
// reschedules itself; a higher-priority task scheduled meanwhile runs in between.
TEST(Scheduler, SelfReschedulingTaskYieldsByTimeSlice) {
  TaskScheduler s(200us);
  constexpr uint64_t kItems = 3000;
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
      auto until = Clock::now() + 1us;  // one item's work
      while (Clock::now() < until) {
      }
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
  EXPECT_FALSE(s.taskShouldYield());  // no task running
  s.runUntilIdle();
  EXPECT_TRUE(sawSelfRunning);
  EXPECT_EQ(next, kItems);
  EXPECT_GT(yields, 2u);
  EXPECT_EQ(scan->runs(), yields + 1);
  EXPECT_EQ(scan->workCount(), kItems);
  EXPECT_EQ(scan->pendingWork(), 0u);
  EXPECT_EQ(urgentRuns, 1u);
  EXPECT_EQ(runsAtUrgent, 1u);  // ahead of the scan's second run
  EXPECT_EQ(s.taskCurrentlyRunning(), nullptr);
}

TEST(Scheduler, TimersFireInDeadlineOrderAndCanBeCancelled) {
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
}

TEST(Scheduler, TasksDeletedWhileQueuedOrFromTheirOwnHandler) {
  TaskScheduler s;
  std::string order;
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
  first->schedule();
  self->schedule();
  victim->schedule();
  middle->schedule();
  last->schedule();
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

TEST(SchedulerLoop, RunWokenByPostAndStopFromAnotherThread) {
  TaskScheduler s;
  bool hung = false;
  watchdog(s, &hung);
  std::thread::id ranOn;
  std::thread poster([&] {
    std::this_thread::sleep_for(50ms);
    s.post([&] {
      ranOn = std::this_thread::get_id();
      s.stop();
    });
  });
  s.run();
  poster.join();
  EXPECT_FALSE(hung);
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  EXPECT_GE(s.sleeps(), 1u);

  // stop() alone, with nothing else to do, ends a sleeping run().
  uint64_t sleepsBefore = s.sleeps();
  std::thread stopper([&] {
    std::this_thread::sleep_for(50ms);
    s.stop();
  });
  s.run();
  stopper.join();
  EXPECT_FALSE(hung);
  EXPECT_GE(s.sleeps(), sleepsBefore + 1);
}

TEST(SchedulerLoop, RunUntilSleepsToTimersAndReturnsAtItsDeadline) {
  TaskScheduler s;
  bool timerFired = false;
  auto start = Clock::now();
  s.timerIs(20ms, [&] { timerFired = true; });
  s.runUntil(start + 60ms);
  auto elapsed = Clock::now() - start;
  EXPECT_TRUE(timerFired);
  EXPECT_GE(elapsed, 60ms);
  EXPECT_LT(elapsed, 1s);
  EXPECT_GE(s.sleeps(), 2u);  // to the timer, then to the deadline

  s.stop();  // with no loop running: the next one returns at once
  start = Clock::now();
  s.runUntil(start + 10s);
  EXPECT_LT(Clock::now() - start, 1s);
}

// A word in memory shared with another process: the writer stores a new value and wakes
// whoever registered as a sleeper. The registration word lets the writer (and this test)
// know that the reader went to sleep.
struct SharedWords {
  std::atomic<uint32_t> data{0};
  std::atomic<uint32_t> sleepers{0};
};

struct SharedWordSource : Oro::WaitSource {
  SharedWordSource(SharedWords* w, TaskScheduler* sched) : words(w), s(sched) {}
  bool hasPending() const override { return words->data.load() != seen; }
  void dispatch() override {
    seen = words->data.load();
    ++dispatches;
    s->stop();
  }
  void sleepBegin(std::vector<Oro::FutexWait>& out) override {
    words->sleepers.fetch_add(1);
    Oro::futexWake(&words->sleepers, INT32_MAX, true);
    out.push_back({&words->data, seen, true});
  }
  void sleepEnd() override { words->sleepers.fetch_sub(1); }
  SharedWords* words;
  TaskScheduler* s;
  uint32_t seen = 0;
  int dispatches = 0;
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

  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // Wait until the reader is asleep (or about to be), give it time to reach the
    // kernel, then write and wake it.
    while (words->sleepers.load() == 0) Oro::futexWait(&words->sleepers, 0, true, nullptr);
    std::this_thread::sleep_for(100ms);
    words->data.store(1);
    Oro::futexWake(&words->data, INT32_MAX, true);
    _exit(0);
  }
  auto start = Clock::now();
  s.run();
  auto elapsed = Clock::now() - start;
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_FALSE(hung);
  EXPECT_EQ(source.dispatches, 1);
  EXPECT_LT(elapsed, 1s);
  EXPECT_GE(s.sleeps(), 1u);
  EXPECT_EQ(words->sleepers.load(), 0u);  // every sleepBegin was matched by sleepEnd
  s.waitSourceDel(&source);
  munmap(mem, sizeof(SharedWords));
}

TEST(Futex, WaitReportsMismatchTimeoutAndWake) {
  std::atomic<uint32_t> word{5};
  EXPECT_EQ(Oro::futexWait(&word, 4, false, nullptr), Oro::FutexStatus::mismatch);
  timespec past{0, 1};
  EXPECT_EQ(Oro::futexWait(&word, 5, false, &past), Oro::FutexStatus::timedOut);
  Oro::FutexWait both[] = {{&word, 5, false}, {&word, 6, false}};
  EXPECT_EQ(Oro::futexWaitv(both, 2, &past), Oro::FutexStatus::mismatch);
  EXPECT_EQ(Oro::futexWaitv(both, 1, &past), Oro::FutexStatus::timedOut);

  std::thread waker([&] {
    std::this_thread::sleep_for(20ms);
    word.store(7);
    Oro::futexWake(&word, 1, false);
  });
  int index = -1;
  Oro::FutexStatus st = Oro::FutexStatus::mismatch;
  while (word.load() == 5) st = Oro::futexWaitv(both, 1, nullptr, &index);
  waker.join();
  EXPECT_EQ(word.load(), 7u);
  if (st == Oro::FutexStatus::woken) {
    EXPECT_EQ(index, 0);
  }
}

struct ManyWordsSource : Oro::WaitSource {
  std::atomic<uint32_t> word{0};
  bool hasPending() const override { return false; }
  void dispatch() override {}
  void sleepBegin(std::vector<Oro::FutexWait>& words) override {
    for (int i = 0; i < 128; ++i) words.push_back({&word, 0, false});
  }
  void sleepEnd() override {}
};

TEST(SchedulerDeathTest, MisuseIsFatal) {
  EXPECT_DEATH(
      {
        TaskScheduler s;
        ManyWordsSource many;
        s.waitSourceIs(&many);
        s.runUntil(Clock::now() + 1s);
      },
      "Assertion failed: d.words.size\\(\\) <= kFutexWaitvMax && \"the scheduler sleeps on "
      "at most 128 futex words\"");
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
