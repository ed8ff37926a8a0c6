// Cooperative single-threaded task scheduler. Tasks are named units of work with a
// priority; a running task that has more to do asks taskShouldYield() (by default true
// once its time slice is used up; a yield policy may decide instead), remembers where it
// stopped, reschedules itself and returns.
//
// The loop runs ready tasks highest priority first (FIFO within a priority), fires due
// timers, and dispatches wait sources (shared-memory tables fed by other processes).
// run() sleeps in futex_waitv() when there is nothing to do and wakes on a task
// scheduled from another thread (wakeup()), a due timer, or a write to a watched table.
// Words past the 128 one futex_waitv takes are watched by helper threads, which wake the
// loop's own word. A process that ends from another thread stops the loop first (stop(), then
// let run() return) or ends with _exit/quick_exit: exit() runs the destructors of what the
// sleeping loop waits on (a reader's mapped header), and its wait then fails fatally.
//
// Invariants: everything except post(), wakeup() and stop() runs on the one scheduler
// thread: the thread that created the scheduler, and from its first unit of work on, the
// thread that last ran one. A task is in at most one ready list, exactly while
// scheduled() is true. A task may be destroyed at any time on the scheduler thread, even
// from inside its own handler; a scheduler destroyed before its tasks leaves them
// detached (scheduler() becomes null and they can no longer be scheduled).
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/runtime/Ptr.h"
#include "platform/runtime/WaitSource.h"

namespace Oro {

enum class TaskPriority : uint8_t { low = 0, normal = 1, high = 2 };
inline constexpr int kTaskPriorities = 3;

class TaskScheduler;

// A named task. It is scheduled at most once at a time: scheduling a task that is
// already queued does nothing. A task may be destroyed while queued (it is dequeued)
// and from inside its own handler: the handler (with its captures) then lives on until
// it returns.
class Task {
 public:
  using Handler = std::function<void()>;
  Task(TaskScheduler* scheduler, TaskPriority priority, std::string name, Handler handler);
  ~Task();
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;

  const std::string& name() const { return name_; }
  TaskPriority priority() const { return priority_; }
  TaskScheduler* scheduler() const { return scheduler_; }
  bool scheduled() const { return queued_; }

  // Work accounting: items handled so far, and items known to be still waiting.
  uint64_t workCount() const { return workCount_; }
  void workCountInc(uint64_t n) { workCount_ += n; }
  uint64_t pendingWork() const { return pendingWork_; }
  void pendingWorkIs(uint64_t n) { pendingWork_ = n; }
  uint64_t runs() const { return runs_; }

  // Shorthands for the owning scheduler's operations on this task. shouldYield() is
  // true only while this very task runs and its time slice is used up.
  void schedule();
  bool shouldYield() const;

 private:
  friend class TaskScheduler;
  TaskScheduler* scheduler_;
  TaskPriority priority_;
  std::string name_;
  // On the heap, so that a handler that deletes its task can keep running: the
  // scheduler takes it over and destroys it once it has returned.
  std::unique_ptr<Handler> handler_;
  uint64_t workCount_ = 0;
  uint64_t pendingWork_ = 0;
  uint64_t runs_ = 0;
  bool queued_ = false;
  Task* next_ = nullptr;  // intrusive ready-queue link
  Task* prev_ = nullptr;
  Task* allNext_ = nullptr;  // the scheduler's list of all its tasks
  Task* allPrev_ = nullptr;
};

using TimerId = uint64_t;

class TaskScheduler {
 public:
  using Clock = std::chrono::steady_clock;
  // Decides, each time the running task asks, whether it should yield now. It is called
  // on the scheduler thread with the running task and may keep state of its own, e.g. a
  // seeded random generator, so that a test's yield points do not depend on the clock.
  using YieldPolicy = std::function<bool(const Task& running)>;
  explicit TaskScheduler(std::chrono::nanoseconds timeSlice = std::chrono::microseconds(1000));
  ~TaskScheduler();
  TaskScheduler(const TaskScheduler&) = delete;
  TaskScheduler& operator=(const TaskScheduler&) = delete;

  std::chrono::nanoseconds timeSlice() const { return timeSlice_; }
  void timeSliceIs(std::chrono::nanoseconds s) { timeSlice_ = s; }

  // Queue a task (scheduler thread only).
  void scheduleTask(Task* task);
  void unscheduleTask(Task* task);
  // The task whose handler is running now, or null.
  Task* taskCurrentlyRunning() const { return running_; }
  // True when the running task should yield: by default once it has used up its time
  // slice, or as the yield policy says when one is set. Outside a task: false.
  bool taskShouldYield() const;
  // Replaces the time slice as the judge of taskShouldYield(); an empty policy restores
  // the time slice. Scheduler thread only.
  void yieldPolicyIs(YieldPolicy policy) { yieldPolicy_ = std::move(policy); }
  bool hasYieldPolicy() const { return static_cast<bool>(yieldPolicy_); }

  // Timers fire once, on the scheduler thread, at or after their deadline.
  TimerId timerIs(Clock::time_point deadline, std::function<void()> fn);
  TimerId timerIs(std::chrono::nanoseconds delay, std::function<void()> fn) {
    return timerIs(Clock::now() + delay, std::move(fn));
  }
  void timerDel(TimerId id);

  void waitSourceIs(WaitSource* source);
  void waitSourceDel(WaitSource* source);

  // Runs one unit of work (a due timer batch, the wait-source dispatches, one task).
  // Returns false when there was nothing to do.
  bool runOnce();
  // Runs until no task is queued, no timer is due and no wait source has pending work.
  // Never sleeps. Returns the number of task runs.
  uint64_t runUntilIdle();
  // Blocking loop: runs work, sleeps when idle, until stop() (callable from any thread
  // or from a task). Timers not yet due keep it sleeping until their deadline.
  void run();
  // Like run(), but returns at the latest once `deadline` has passed; work still queued
  // then stays queued for the next call.
  void runUntil(Clock::time_point deadline);
  // Like run(), but returns as soon as `done()` holds (checked before the first unit of work
  // and after each), or once `deadline` has passed, or on stop(). Sleeps in the kernel while
  // idle, like run(). True when done() held before the deadline passed and no stop() came
  // (work done after the deadline does not count: a missed wake-up stays visible).
  bool runUntil(const std::function<bool()>& done,
                Clock::time_point deadline = Clock::time_point::max());
  // Makes run()/runUntil() return after the current unit of work. A stop() issued while
  // no loop runs makes the next run()/runUntil() return at once.
  void stop();
  // Wake a sleeping run() from another thread (or a signal handler: it only touches
  // an atomic and makes one futex call).
  void wakeup();
  // Run fn on the scheduler thread; callable from any thread. Posting from another thread
  // than the scheduler's switches the process to atomic reference counts
  // (threadsInUseIs(true)) before fn is queued, since fn's captures (Ptr<> among them)
  // are then released on the scheduler thread while the poster may still hold copies. A
  // thread that builds such closures should still opt in before it creates its first
  // Ptr<>: the counts it changed before posting were not atomic.
  void post(std::function<void()> fn);

  uint64_t tasksRun() const { return tasksRun_; }
  // Nothing queued, posted or due, and no wait source pending.
  bool idle() const;
  // How often run()/runUntil() went to sleep in the kernel (for tests and statistics).
  uint64_t sleeps() const;

  // Expires when the scheduler is destroyed. Whoever keeps the scheduler's address beyond
  // its own tasks (a merge machine makes tasks as its inputs grow) checks it before making
  // a task: its existing tasks are detached then, but a new one would reach a freed scheduler.
  std::weak_ptr<const void> lifetime() const { return life_; }

 private:
  std::shared_ptr<const void> life_ = std::make_shared<int>(0);
  struct Impl;
  std::unique_ptr<Impl> impl_;
  std::chrono::nanoseconds timeSlice_;
  YieldPolicy yieldPolicy_;
  Task* running_ = nullptr;
  Clock::time_point sliceStart_{};
  uint64_t tasksRun_ = 0;
  friend class Task;

  void taskCreated(Task* task);
  void taskDestroyed(Task* task);
  void runTask(Task* task, Clock::time_point now);
  bool runPosted();
  void fireTimers(Clock::time_point now);
  bool dispatchSources();
  // Returns true when it stopped because *done held.
  bool loop(Clock::time_point deadline, const std::function<bool()>* done = nullptr);
  void sleepUntil(Clock::time_point wakeAt);
};

}  // namespace Oro

namespace Dyx {
// How a merge machine runs: on which scheduler, at which priority, and whether its
// scans and reconciliation run to completion without yielding.
struct SmControl {
  Oro::TaskScheduler* taskScheduler = nullptr;
  Oro::TaskPriority taskPriority = Oro::TaskPriority::normal;
  bool defaultSynchronous = false;
};
}  // namespace Dyx
