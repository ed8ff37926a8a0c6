#include "platform/shm/ShmGuard.h"

#include <signal.h>
#include <sys/mman.h>

#include <atomic>
#include <mutex>

namespace Oro {

namespace {

constexpr uint32_t kEntries = 4096;

// One registered mapping. `end` is zero while the entry is free; the handler only reads.
struct Entry {
  std::atomic<uintptr_t> begin{0};
  std::atomic<uintptr_t> end{0};
  std::atomic<uint32_t> lost{0};
};

Entry gEntries[kEntries];
std::atomic<uint32_t> gUsed{0};  // entries [0, gUsed) may be in use
std::atomic<uint64_t> gLosses{0};
std::mutex gMutex;  // serialises registration (never taken by the handler)
struct sigaction gPrevious {};
bool gInstalled = false;

void passOn(int sig, siginfo_t* info, void* context) {
  if (gPrevious.sa_flags & SA_SIGINFO) {
    if (gPrevious.sa_sigaction) {
      gPrevious.sa_sigaction(sig, info, context);
      return;
    }
  } else if (gPrevious.sa_handler != SIG_DFL && gPrevious.sa_handler != SIG_IGN) {
    gPrevious.sa_handler(sig);
    return;
  }
  // Default action: restore it; the faulting access repeats and ends the process.
  struct sigaction dfl {};
  dfl.sa_handler = SIG_DFL;
  sigemptyset(&dfl.sa_mask);
  ::sigaction(SIGBUS, &dfl, nullptr);
}

void onSigbus(int sig, siginfo_t* info, void* context) {
  const auto addr = reinterpret_cast<uintptr_t>(info->si_addr);
  const uint32_t used = gUsed.load(std::memory_order_acquire);
  for (uint32_t i = 0; i < used; ++i) {
    Entry& e = gEntries[i];
    const uintptr_t begin = e.begin.load(std::memory_order_acquire);
    const uintptr_t end = e.end.load(std::memory_order_acquire);
    if (addr < begin || addr >= end) continue;
    // Zero-filled private pages over the whole mapping: every later access reads zeros (and
    // writes go nowhere), which the owner's checks report once it sees the loss.
    void* p = ::mmap(reinterpret_cast<void*>(begin), end - begin, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
    if (p == MAP_FAILED) break;
    e.lost.store(1, std::memory_order_release);
    gLosses.fetch_add(1, std::memory_order_release);
    return;
  }
  passOn(sig, info, context);
}

void install() {
  struct sigaction sa {};
  sa.sa_sigaction = onSigbus;
  sa.sa_flags = SA_SIGINFO | SA_NODEFER;
  sigemptyset(&sa.sa_mask);
  ::sigaction(SIGBUS, &sa, &gPrevious);
  gInstalled = true;
}

}  // namespace

uint32_t ShmGuard::add(void* base, size_t bytes) {
  std::lock_guard lock(gMutex);
  if (!gInstalled) install();
  const uint32_t used = gUsed.load(std::memory_order_relaxed);
  uint32_t i = 0;
  while (i < used && gEntries[i].end.load(std::memory_order_relaxed) != 0) ++i;
  if (i == kEntries) return kNone;
  Entry& e = gEntries[i];
  e.lost.store(0, std::memory_order_relaxed);
  e.begin.store(reinterpret_cast<uintptr_t>(base), std::memory_order_relaxed);
  e.end.store(reinterpret_cast<uintptr_t>(base) + bytes, std::memory_order_release);
  if (i == used) gUsed.store(used + 1, std::memory_order_release);
  return i;
}

void ShmGuard::remove(uint32_t id) {
  if (id >= kEntries) return;
  std::lock_guard lock(gMutex);
  gEntries[id].end.store(0, std::memory_order_release);
  gEntries[id].begin.store(0, std::memory_order_release);
}

bool ShmGuard::lost(uint32_t id) {
  return id < kEntries && gEntries[id].lost.load(std::memory_order_acquire) != 0;
}

uint64_t ShmGuard::losses() {
  return gLosses.load(std::memory_order_acquire);
}

}  // namespace Oro
