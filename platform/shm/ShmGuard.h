// Protection of a process against shared memory that shrinks under it. A segment that another
// process truncates after we mapped it makes every access beyond its new end raise SIGBUS,
// which would kill a reader (or the writer) for someone else's fault. Every mapping of a
// shared segment is registered here; a SIGBUS inside a registered mapping replaces the
// mapping's pages with zero-filled private memory, marks the mapping lost and lets the faulting
// access complete. The owner of the mapping checks lost() (cheaply: losses() changes first)
// and reports the segment as damaged.
//
// A SIGBUS outside every registered mapping is passed on to the handler installed before ours
// (or the default action, which ends the process). The registry is a fixed array read by the
// signal handler without locks.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Oro {

class ShmGuard {
 public:
  static constexpr uint32_t kNone = 0xFFFFFFFFu;

  // Registers [base, base + bytes); returns the registration (kNone when the registry is full:
  // the mapping is then unprotected). Installs the signal handler on first use.
  static uint32_t add(void* base, size_t bytes);
  // Withdraws a registration before the mapping goes away.
  static void remove(uint32_t id);
  // Whether the registered mapping was replaced after a SIGBUS.
  static bool lost(uint32_t id);
  // Advanced by every replaced mapping: owners compare it with the value they saw last.
  static uint64_t losses();
};

}  // namespace Oro
