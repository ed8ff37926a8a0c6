// Something outside the scheduler's own queues that can hand it work: a shared-memory
// table whose writer lives in another process, or another thread. The scheduler polls
// hasPending() between tasks; before it sleeps it asks every source for the futex words
// to sleep on, so a write in any process wakes it directly (no polling loop).
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <vector>

namespace Oro {

struct FutexWait {
  const std::atomic<uint32_t>* word;  // 4-byte aligned futex word
  uint32_t expected;                  // sleep only while *word == expected
  bool shared;                        // word lives in memory shared between processes
};

class WaitSource {
 public:
  virtual ~WaitSource() = default;
  // Cheap, lock-free test whether dispatch() has something to deliver.
  virtual bool hasPending() const = 0;
  // Runs on the scheduler thread: deliver (part of) what is pending. A source that
  // leaves work behind keeps hasPending() true and is called again.
  virtual void dispatch() = 0;
  // The scheduler is about to sleep: register as a sleeper (so that writers know to
  // wake us) and append the words to wait on. The scheduler re-checks hasPending()
  // after every source registered, and only then sleeps.
  virtual void sleepBegin(std::vector<FutexWait>& words) = 0;
  // The sleep is over (woken, timed out, or not started): withdraw the registration.
  virtual void sleepEnd() = 0;
  // The latest time the scheduler may sleep until on this source's account: a source that
  // could not arrange to be woken asks for a short sleep instead.
  virtual std::chrono::steady_clock::time_point wakeBy() const {
    return std::chrono::steady_clock::time_point::max();
  }
  // The scheduler it is registered with is being destroyed (its timers with it): the source
  // must not reach it any more.
  virtual void schedulerGone() {}
};

}  // namespace Oro
