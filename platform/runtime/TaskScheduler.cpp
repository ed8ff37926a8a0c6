#include "platform/runtime/TaskScheduler.h"

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>

#include "platform/Assert.h"
#include "platform/runtime/Futex.h"

namespace Oro {

// One futex_waitv call watches at most kFutexWaitvMax words. A loop that follows more tables
// than that sleeps on the first kFutexWaitvMax words itself and hands the rest, in shares of
// kShare, to helper threads: each waits on its share and on `stopWord`, and when its wait ends
// for a word of its share it bumps the scheduler's own word (the first one the scheduler waits
// on), which ends the scheduler's sleep. The scheduler ends a round by bumping `stopWord` and
// waits until every helper is done with the words before it touches them again.
class SleepHelpers {
 public:
  static constexpr std::size_t kShare = kFutexWaitvMax - 1;  // room for stopWord

  explicit SleepHelpers(std::atomic<uint32_t>* schedulerWord) : schedulerWord_(schedulerWord) {}
  ~SleepHelpers() {
    quit_.store(true);
    round_.fetch_add(1, std::memory_order_release);
    futexWake(&round_, INT32_MAX, false);
    for (std::thread& t : threads_) t.join();
  }
  SleepHelpers(const SleepHelpers&) = delete;
  SleepHelpers& operator=(const SleepHelpers&) = delete;

  // Starts a round over words[kFutexWaitvMax, count).
  void begin(const FutexWait* words, std::size_t count) {
    const std::size_t needed = (count - kFutexWaitvMax + kShare - 1) / kShare;
    while (threads_.size() < needed) {
      // It starts from the round before this one, so that it takes part in this one.
      threads_.emplace_back([this, i = threads_.size(), r = round_.load()] { run(i, r); });
    }
    words_ = words;
    count_ = count;
    stopExpected_ = stopWord_.load();
    done_.store(0);
    round_.fetch_add(1, std::memory_order_release);
    futexWake(&round_, INT32_MAX, false);
  }
  // Ends the round: after it no helper reads the words any more.
  void end() {
    stopWord_.fetch_add(1);
    futexWake(&stopWord_, INT32_MAX, false);
    const auto helpers = static_cast<uint32_t>(threads_.size());
    for (uint32_t n; (n = done_.load(std::memory_order_acquire)) != helpers;) {
      futexWait(&done_, n, false, nullptr);
    }
  }

 private:
  void run(std::size_t index, uint32_t seen) {
    for (;;) {
      uint32_t r;
      while ((r = round_.load(std::memory_order_acquire)) == seen) {
        futexWait(&round_, seen, false, nullptr);
      }
      seen = r;
      if (quit_.load()) return;
      const std::size_t first = kFutexWaitvMax + index * kShare;
      if (first < count_) {
        FutexWait share[kFutexWaitvMax];
        const std::size_t n = std::min(kShare, count_ - first);
        std::copy(words_ + first, words_ + first + n, share);
        share[n] = {&stopWord_, stopExpected_, false};
        futexWaitv(share, n + 1, nullptr);
        if (stopWord_.load() == stopExpected_) {
          schedulerWord_->fetch_add(1);
          futexWake(schedulerWord_, 1, false);
        }
      }
      done_.fetch_add(1, std::memory_order_release);
      futexWake(&done_, 1, false);
    }
  }

  std::atomic<uint32_t>* schedulerWord_;
  std::vector<std::thread> threads_;
  // Written by the scheduler before it bumps round_ and read by the helpers after they saw
  // the bump; not touched again until every helper reported done_.
  const FutexWait* words_ = nullptr;
  std::size_t count_ = 0;
  uint32_t stopExpected_ = 0;
  std::atomic<uint32_t> round_{0};
  std::atomic<uint32_t> stopWord_{0};
  std::atomic<uint32_t> done_{0};
  std::atomic<bool> quit_{false};
};

struct TaskScheduler::Impl {
  // Ready lists, one per priority; FIFO within a list.
  Task* head[kTaskPriorities] = {};
  Task* tail[kTaskPriorities] = {};
  std::size_t queued = 0;
  Task* allTasks = nullptr;  // every task bound to this scheduler, for detaching them
  std::unique_ptr<Task::Handler> orphanedHandler;  // of a running task that was deleted

  // Timers: a min-heap on (deadline, id) whose entries may outlive a cancellation; the
  // live timers are those in `timers`. The heap top is kept live (pruneTimers).
  struct TimerEntry {
    Clock::time_point deadline;
    TimerId id;
    bool operator>(const TimerEntry& o) const {
      return deadline != o.deadline ? deadline > o.deadline : id > o.id;
    }
  };
  std::vector<TimerEntry> heap;
  std::unordered_map<TimerId, std::function<void()>> timers;
  TimerId nextTimerId = 1;

  // Wait sources. A source removed while the list is being walked leaves a null slot,
  // compacted once the walk is over.
  std::vector<WaitSource*> sources;
  int walkingSources = 0;
  bool sourcesHaveHoles = false;

  // The scheduler thread, for post() to tell whether it is called from another one. Only
  // ever compared with the caller's own id, so relaxed ordering suffices: a thread reads
  // its own id here only if it stored it itself.
  std::atomic<std::thread::id> owner{std::this_thread::get_id()};

  // Work handed in from other threads.
  std::mutex postMutex;
  std::vector<std::function<void()>> posted;
  std::atomic<bool> hasPosted{false};

  // The private futex word that wakeup() bumps. `sleeping` spares wakeup() the system
  // call while the loop is awake: the sleeper sets it before it reads the word, the waker
  // bumps the word before it reads the flag (both sequentially consistent), so either
  // the sleeper sees the new value or the waker sees the sleeper.
  std::atomic<uint32_t> wakeWord{0};
  std::atomic<bool> sleeping{false};
  std::atomic<bool> stopRequested{false};
  // Calls of post(), wakeup() and stop() from other threads still inside: the loop may see
  // what such a call published and its owner destroy the scheduler before the call is done
  // with it, so the destructor waits for them.
  std::atomic<uint32_t> callers{0};
  uint64_t sleeps = 0;
  std::vector<FutexWait> words;
  std::unique_ptr<SleepHelpers> helpers;  // made when the words first outnumber one wait

  void pruneTimers() {
    auto greater = std::greater<TimerEntry>();
    while (!heap.empty() && !timers.contains(heap.front().id)) {
      std::pop_heap(heap.begin(), heap.end(), greater);
      heap.pop_back();
    }
    // Cancelled entries buried in the heap: rebuild before they dominate it.
    if (heap.size() > 64 && heap.size() > 2 * timers.size()) {
      std::erase_if(heap, [this](const TimerEntry& e) { return !timers.contains(e.id); });
      std::make_heap(heap.begin(), heap.end(), greater);
    }
  }

  bool timerDue(Clock::time_point now) const {
    return !heap.empty() && heap.front().deadline <= now;
  }

  Task* popReady() {
    for (int p = kTaskPriorities - 1; p >= 0; --p) {
      Task* t = head[p];
      if (!t) continue;
      head[p] = t->next_;
      if (head[p]) {
        head[p]->prev_ = nullptr;
      } else {
        tail[p] = nullptr;
      }
      t->next_ = nullptr;
      t->queued_ = false;
      --queued;
      return t;
    }
    return nullptr;
  }

  void unlinkReady(Task* t) {
    int p = static_cast<int>(t->priority_);
    (t->prev_ ? t->prev_->next_ : head[p]) = t->next_;
    (t->next_ ? t->next_->prev_ : tail[p]) = t->prev_;
    t->next_ = t->prev_ = nullptr;
    t->queued_ = false;
    --queued;
  }

  bool anySourcePending() const {
    for (WaitSource* s : sources) {
      if (s && s->hasPending()) return true;
    }
    return false;
  }
};

// ---------------------------------------------------------------------------------------
// Task

Task::Task(TaskScheduler* scheduler, TaskPriority priority, std::string name, Handler handler)
    : scheduler_(scheduler),
      priority_(priority),
      name_(std::move(name)),
      handler_(std::make_unique<Handler>(std::move(handler))) {
  MVPN_ASSERT_MSG(static_cast<int>(priority) < kTaskPriorities, "invalid task priority");
  if (scheduler_) scheduler_->taskCreated(this);
}

Task::~Task() {
  if (scheduler_) scheduler_->taskDestroyed(this);
}

void Task::schedule() {
  MVPN_ASSERT_MSG(scheduler_, "a task without a scheduler cannot be scheduled");
  scheduler_->scheduleTask(this);
}

bool Task::shouldYield() const {
  return scheduler_ && scheduler_->running_ == this && scheduler_->taskShouldYield();
}

// ---------------------------------------------------------------------------------------
// TaskScheduler: tasks

TaskScheduler::TaskScheduler(std::chrono::nanoseconds timeSlice)
    : impl_(std::make_unique<Impl>()), timeSlice_(timeSlice) {}

namespace {
// Counts a call of another thread in for its whole length (see Impl::callers): taken before
// anything the call publishes can be seen.
class OutsideCall {
 public:
  explicit OutsideCall(std::atomic<uint32_t>& callers) : callers_(callers) {
    callers_.fetch_add(1, std::memory_order_seq_cst);
  }
  ~OutsideCall() {
    if (callers_.fetch_sub(1, std::memory_order_seq_cst) == 1) callers_.notify_all();
  }
  OutsideCall(const OutsideCall&) = delete;
  OutsideCall& operator=(const OutsideCall&) = delete;

 private:
  std::atomic<uint32_t>& callers_;
};
}  // namespace

TaskScheduler::~TaskScheduler() {
  MVPN_ASSERT_MSG(!running_, "a scheduler cannot be destroyed by one of its tasks");
  for (uint32_t n; (n = impl_->callers.load(std::memory_order_seq_cst)) != 0;) {
    impl_->callers.wait(n, std::memory_order_seq_cst);
  }
  life_.reset();
  // Tasks that outlive the scheduler are detached so that their destructors do not
  // reach back into it.
  for (Task* t = impl_->allTasks; t;) {
    Task* next = t->allNext_;
    t->scheduler_ = nullptr;
    t->queued_ = false;
    t->next_ = t->prev_ = t->allNext_ = t->allPrev_ = nullptr;
    t = next;
  }
  // So are the wait sources (a reader of a table that outlives its scheduler).
  for (WaitSource* s : std::exchange(impl_->sources, {})) {
    if (s) s->schedulerGone();
  }
}

void TaskScheduler::taskCreated(Task* task) {
  Impl& d = *impl_;
  task->allNext_ = d.allTasks;
  if (d.allTasks) d.allTasks->allPrev_ = task;
  d.allTasks = task;
}

void TaskScheduler::taskDestroyed(Task* task) {
  Impl& d = *impl_;
  if (task->queued_) d.unlinkReady(task);
  (task->allPrev_ ? task->allPrev_->allNext_ : d.allTasks) = task->allNext_;
  if (task->allNext_) task->allNext_->allPrev_ = task->allPrev_;
  // A handler deleting its own task: the rest of the handler runs as if outside any
  // task, on a handler the scheduler now owns; the loop no longer touches the task.
  if (running_ == task) {
    running_ = nullptr;
    d.orphanedHandler = std::move(task->handler_);
  }
}

void TaskScheduler::scheduleTask(Task* task) {
  MVPN_ASSERT_MSG(task->scheduler_ == this, "a task runs on the scheduler it was created with");
  if (task->queued_) return;
  Impl& d = *impl_;
  int p = static_cast<int>(task->priority_);
  task->queued_ = true;
  task->next_ = nullptr;
  task->prev_ = d.tail[p];
  (d.tail[p] ? d.tail[p]->next_ : d.head[p]) = task;
  d.tail[p] = task;
  ++d.queued;
}

void TaskScheduler::unscheduleTask(Task* task) {
  MVPN_ASSERT_MSG(task->scheduler_ == this, "a task runs on the scheduler it was created with");
  if (task->queued_) impl_->unlinkReady(task);
}

bool TaskScheduler::taskShouldYield() const {
  if (!running_) return false;
  if (yieldPolicy_) [[unlikely]]
    return yieldPolicy_(*running_);
  return Clock::now() - sliceStart_ >= timeSlice_;
}

void TaskScheduler::runTask(Task* task, Clock::time_point now) {
  running_ = task;
  sliceStart_ = now;
  ++task->runs_;
  ++tasksRun_;
  try {
    (*task->handler_)();
  } catch (...) {
    running_ = nullptr;
    impl_->orphanedHandler.reset();
    throw;
  }
  // `task` may be gone by now (deleted by its own handler): do not touch it.
  running_ = nullptr;
  if (impl_->orphanedHandler) [[unlikely]]
    impl_->orphanedHandler.reset();
}

// ---------------------------------------------------------------------------------------
// TaskScheduler: timers, posted work, wait sources

TimerId TaskScheduler::timerIs(Clock::time_point deadline, std::function<void()> fn) {
  Impl& d = *impl_;
  TimerId id = d.nextTimerId++;
  d.timers.emplace(id, std::move(fn));
  d.heap.push_back({deadline, id});
  std::push_heap(d.heap.begin(), d.heap.end(), std::greater<Impl::TimerEntry>());
  return id;
}

void TaskScheduler::timerDel(TimerId id) {
  if (impl_->timers.erase(id)) impl_->pruneTimers();
}

void TaskScheduler::fireTimers(Clock::time_point now) {
  Impl& d = *impl_;
  // Timers created by this batch wait for the next one, so a timer that re-arms itself
  // for "now" cannot keep the loop here.
  TimerId limit = d.nextTimerId;
  while (d.timerDue(now) && d.heap.front().id < limit) {
    std::pop_heap(d.heap.begin(), d.heap.end(), std::greater<Impl::TimerEntry>());
    TimerId id = d.heap.back().id;
    d.heap.pop_back();
    auto it = d.timers.find(id);
    if (it == d.timers.end()) continue;  // cancelled by an earlier timer of this batch
    std::function<void()> fn = std::move(it->second);
    d.timers.erase(it);
    fn();
  }
  d.pruneTimers();
}

void TaskScheduler::post(std::function<void()> fn) {
  Impl& d = *impl_;
  const OutsideCall call(d.callers);
  if (!threadsInUse() && d.owner.load(std::memory_order_relaxed) != std::this_thread::get_id()) {
    threadsInUseIs(true);
  }
  {
    std::lock_guard lock(d.postMutex);
    d.posted.push_back(std::move(fn));
    d.hasPosted.store(true, std::memory_order_release);
  }
  wakeup();
}

bool TaskScheduler::runPosted() {
  Impl& d = *impl_;
  std::vector<std::function<void()>> batch;
  {
    std::lock_guard lock(d.postMutex);
    batch.swap(d.posted);
    d.hasPosted.store(false, std::memory_order_relaxed);
  }
  for (auto& fn : batch) fn();
  return !batch.empty();
}

void TaskScheduler::waitSourceIs(WaitSource* source) {
  Impl& d = *impl_;
  MVPN_ASSERT_MSG(std::find(d.sources.begin(), d.sources.end(), source) == d.sources.end(),
                  "a wait source is registered once");
  d.sources.push_back(source);
}

void TaskScheduler::waitSourceDel(WaitSource* source) {
  Impl& d = *impl_;
  auto it = std::find(d.sources.begin(), d.sources.end(), source);
  if (it == d.sources.end()) return;
  if (d.walkingSources) {
    *it = nullptr;
    d.sourcesHaveHoles = true;
  } else {
    d.sources.erase(it);
  }
}

bool TaskScheduler::dispatchSources() {
  Impl& d = *impl_;
  bool any = false;
  ++d.walkingSources;
  // By index: a dispatch may register or remove sources.
  for (std::size_t i = 0; i < d.sources.size(); ++i) {
    WaitSource* s = d.sources[i];
    if (s && s->hasPending()) {
      s->dispatch();
      any = true;
    }
  }
  if (--d.walkingSources == 0 && d.sourcesHaveHoles) {
    std::erase(d.sources, nullptr);
    d.sourcesHaveHoles = false;
  }
  return any;
}

// ---------------------------------------------------------------------------------------
// TaskScheduler: loops

bool TaskScheduler::runOnce() {
  MVPN_ASSERT_MSG(!running_, "the scheduler loop cannot be entered from a task");
  Impl& d = *impl_;
  d.owner.store(std::this_thread::get_id(), std::memory_order_relaxed);
  bool worked = false;
  if (d.hasPosted.load(std::memory_order_acquire)) worked = runPosted();
  Clock::time_point now = Clock::now();
  if (d.timerDue(now)) {
    fireTimers(now);
    worked = true;
  }
  if (!d.sources.empty() && dispatchSources()) worked = true;
  if (d.queued) {
    Task* task = d.popReady();
    // The slice starts when the task does, not when the timers or sources before it did.
    runTask(task, worked ? Clock::now() : now);
    worked = true;
  }
  return worked;
}

uint64_t TaskScheduler::runUntilIdle() {
  uint64_t before = tasksRun_;
  while (runOnce()) {
  }
  return tasksRun_ - before;
}

bool TaskScheduler::idle() const {
  const Impl& d = *impl_;
  return d.queued == 0 && !d.hasPosted.load(std::memory_order_acquire) &&
         !d.timerDue(Clock::now()) && !d.anySourcePending();
}

uint64_t TaskScheduler::sleeps() const {
  return impl_->sleeps;
}

void TaskScheduler::run() {
  loop(Clock::time_point::max());
}

void TaskScheduler::runUntil(Clock::time_point deadline) {
  loop(deadline);
}

bool TaskScheduler::runUntil(const std::function<bool()>& done, Clock::time_point deadline) {
  return done() || loop(deadline, &done);
}

bool TaskScheduler::loop(Clock::time_point deadline, const std::function<bool()>* done) {
  Impl& d = *impl_;
  const bool bounded = deadline != Clock::time_point::max();
  for (;;) {
    if (d.stopRequested.load(std::memory_order_relaxed) && d.stopRequested.exchange(false)) {
      return false;
    }
    bool worked = runOnce();
    if (bounded && Clock::now() >= deadline) return false;
    if (done && worked && (*done)()) return true;
    if (worked) continue;
    Clock::time_point wakeAt = deadline;
    if (!d.heap.empty()) wakeAt = std::min(wakeAt, d.heap.front().deadline);
    sleepUntil(wakeAt);
  }
}

void TaskScheduler::stop() {
  const OutsideCall call(impl_->callers);
  impl_->stopRequested.store(true);
  wakeup();
}

void TaskScheduler::wakeup() {
  Impl& d = *impl_;
  const OutsideCall call(d.callers);
  d.wakeWord.fetch_add(1);
  if (d.sleeping.load()) futexWake(&d.wakeWord, 1, false);
}

void TaskScheduler::sleepUntil(Clock::time_point wakeAt) {
  Impl& d = *impl_;
  d.words.clear();
  d.sleeping.store(true);
  d.words.push_back({&d.wakeWord, d.wakeWord.load(), false});
  for (WaitSource* s : d.sources) {
    s->sleepBegin(d.words);
    wakeAt = std::min(wakeAt, s->wakeBy());
  }
  // Every source is now registered as a sleeper: anything that arrives from here on
  // changes a watched word. Whatever arrived before is seen by this check.
  bool pending = d.stopRequested.load() || d.hasPosted.load(std::memory_order_acquire) ||
                 d.queued != 0 || d.anySourcePending() || Clock::now() >= wakeAt;
  if (!pending) {
    timespec ts{};
    const timespec* timeout = nullptr;
    if (wakeAt != Clock::time_point::max()) {
      // steady_clock is CLOCK_MONOTONIC, the clock futex_waitv is told to use.
      auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(wakeAt.time_since_epoch());
      ts.tv_sec = static_cast<time_t>(ns.count() / 1'000'000'000);
      ts.tv_nsec = static_cast<long>(ns.count() % 1'000'000'000);
      timeout = &ts;
    }
    ++d.sleeps;
    // Woken, timed out, interrupted or already changed: all lead back to the loop,
    // which finds out what there is to do.
    if (d.words.size() <= kFutexWaitvMax) {
      futexWaitv(d.words.data(), d.words.size(), timeout);
    } else {
      if (!d.helpers) d.helpers = std::make_unique<SleepHelpers>(&d.wakeWord);
      d.helpers->begin(d.words.data(), d.words.size());
      futexWaitv(d.words.data(), kFutexWaitvMax, timeout);
      d.helpers->end();
    }
  }
  for (WaitSource* s : d.sources) s->sleepEnd();
  d.sleeping.store(false, std::memory_order_relaxed);
}

}  // namespace Oro
