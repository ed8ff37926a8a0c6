// Thin wrappers over the Linux futex system calls on 32-bit atomic words. A word may live
// in private memory (FUTEX_PRIVATE_FLAG, cheaper) or in a MAP_SHARED mapping that other
// processes also map (shared = true). Timeouts are absolute CLOCK_MONOTONIC times, the
// clock behind std::chrono::steady_clock; a null timeout waits for ever.
//
// Only the expected outcomes of a wait are returned (woken, value already changed,
// timed out, interrupted); any other failure is a programming error and aborts.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>

#include "platform/runtime/WaitSource.h"

namespace Oro {

// The kernel's limit on the number of words one futex_waitv call watches.
inline constexpr std::size_t kFutexWaitvMax = 128;

enum class FutexStatus : uint8_t {
  woken,        // a futexWake (or a spurious wake) ended the wait
  mismatch,     // a word did not hold its expected value: nothing to wait for
  timedOut,     // the absolute deadline passed
  interrupted,  // a signal arrived
};

// Sleeps while *word == expected, until woken or absTimeout.
FutexStatus futexWait(const std::atomic<uint32_t>* word, uint32_t expected, bool shared,
                      const timespec* absTimeout);

// Wakes up to n waiters on word (INT32_MAX: all). Returns how many were woken.
int futexWake(const std::atomic<uint32_t>* word, int n, bool shared);

// Sleeps while every words[i].word holds words[i].expected, until one of them is woken or
// absTimeout. count must not exceed kFutexWaitvMax. When woken, *wokenIndex (if given)
// is the index of the word that was woken.
FutexStatus futexWaitv(const FutexWait* words, std::size_t count, const timespec* absTimeout,
                       int* wokenIndex = nullptr);

}  // namespace Oro
