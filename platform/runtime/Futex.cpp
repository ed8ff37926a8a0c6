#include "platform/runtime/Futex.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "platform/Assert.h"

#ifndef SYS_futex_waitv
#define SYS_futex_waitv 449
#endif

namespace Oro {

static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t) &&
                  std::atomic<uint32_t>::is_always_lock_free,
              "futex words must be plain 32-bit words");
static_assert(kFutexWaitvMax == FUTEX_WAITV_MAX);

namespace {

uint32_t* rawWord(const std::atomic<uint32_t>* word) {
  return reinterpret_cast<uint32_t*>(const_cast<std::atomic<uint32_t>*>(word));
}

FutexStatus waitStatus(long rc, int err) {
  if (rc >= 0) return FutexStatus::woken;
  switch (err) {
    case EAGAIN:
      return FutexStatus::mismatch;
    case ETIMEDOUT:
      return FutexStatus::timedOut;
    case EINTR:
      return FutexStatus::interrupted;
    default:
      MVPN_ASSERT_FMT(false, "futex wait failed: {}", std::strerror(err));
      return FutexStatus::woken;
  }
}

}  // namespace

FutexStatus futexWait(const std::atomic<uint32_t>* word, uint32_t expected, bool shared,
                      const timespec* absTimeout) {
  // FUTEX_WAIT_BITSET takes an absolute CLOCK_MONOTONIC deadline; plain FUTEX_WAIT would
  // take a relative one.
  int op = FUTEX_WAIT_BITSET | (shared ? 0 : FUTEX_PRIVATE_FLAG);
  long rc = ::syscall(SYS_futex, rawWord(word), op, expected, absTimeout, nullptr,
                      FUTEX_BITSET_MATCH_ANY);
  return waitStatus(rc, errno);
}

int futexWake(const std::atomic<uint32_t>* word, int n, bool shared) {
  int op = FUTEX_WAKE | (shared ? 0 : FUTEX_PRIVATE_FLAG);
  long rc = ::syscall(SYS_futex, rawWord(word), op, n, nullptr, nullptr, 0);
  MVPN_ASSERT_FMT(rc >= 0, "futex wake failed: {}", std::strerror(errno));
  return static_cast<int>(rc);
}

FutexStatus futexWaitv(const FutexWait* words, std::size_t count, const timespec* absTimeout,
                       int* wokenIndex) {
  MVPN_ASSERT_MSG(count <= kFutexWaitvMax, "futex_waitv watches at most 128 words");
  futex_waitv waiters[FUTEX_WAITV_MAX];
  std::memset(waiters, 0, sizeof(futex_waitv) * count);
  for (std::size_t i = 0; i < count; ++i) {
    waiters[i].val = words[i].expected;
    waiters[i].uaddr = reinterpret_cast<uintptr_t>(rawWord(words[i].word));
    waiters[i].flags = FUTEX_32 | (words[i].shared ? 0 : FUTEX_PRIVATE_FLAG);
  }
  long rc = ::syscall(SYS_futex_waitv, waiters, static_cast<unsigned>(count), 0u, absTimeout,
                      CLOCK_MONOTONIC);
  FutexStatus status = waitStatus(rc, errno);
  if (wokenIndex) *wokenIndex = rc >= 0 ? static_cast<int>(rc) : -1;
  return status;
}

}  // namespace Oro
