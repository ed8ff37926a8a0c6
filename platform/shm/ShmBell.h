// The doorbell of a shared-memory store: how a reader that is about to sleep tells the writer
// so, without writing anything the writer or other readers depend on.
//
// Readers sleep in futex_wait on the store's wake word, which the writer advances after every
// publication. A futex_wake costs the writer a system call (~0.4 us, more than a whole write),
// so the writer makes one only when a reader has registered a sleep since its last wake-up.
// A reader registers by sending the wake value it will sleep on over its own connection to
// the store's doorbell socket (a Unix socket in /dev/shm that everyone who may read the store
// may write to). A watcher thread in the writer process receives it and records it in the
// store's pending word; the writer, after advancing the wake word, checks the pending word and
// wakes (and clears it) when a registration for an older value is there.
//
// No lost wake-up: the writer advances the wake word, then reads the pending word; the watcher
// records the registration (replacing any recorded one), then reads the wake word and wakes itself
// when it changed (both sides sequentially consistent). A reader never writes shared memory: one
// reader cannot silence, stop or slow another by scribbling, and a reader that dies while asleep
// costs the writer at most one futex_wake.
//
// Connections cost the writer a descriptor each, and anyone who may read may connect: the
// watcher keeps at most half of the process's descriptors for them. When it cannot take in a
// connection (that limit, or no descriptor left), it stops polling that doorbell's socket
// (retrying when a connection closes, or after a second) and marks the doorbell saturated:
// registrations may then wait unread, so the writer wakes sleepers on every publication
// until the watcher has taken in and read every waiting connection. Readers connect without
// blocking: one that finds the queue of waiting connections full sleeps briefly instead.
//
// Writer side: ShmBellServer (one per store, served by one watcher thread per process, started
// with the first and stopped with the last). Reader side: ShmBellClient (one per store reader).
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

namespace Oro {

// The doorbell socket's path for a store instance, tagged like its segments with the store's
// secret name key (whoever cannot read the store cannot bind it first).
std::string shmBellPath(uint64_t instance, uint64_t nameKey);

// A connection to the doorbell at `path`, as a reader makes one: a non-blocking descriptor,
// or minus the errno of the failure (-ENOENT or -ECONNREFUSED: nobody serves it; -EAGAIN: its
// queue of waiting connections is full). The writer never sends on it, so the connection
// becomes readable only when the writer's end closes (its process ended, or it let the store
// go).
int shmBellConnect(const std::string& path);

class ShmBellServer {
 public:
  // Binds the socket at `path` (replacing a leftover) with write permission for those who may
  // read the store (derived from `mode`), and starts serving it. ShmException when the socket
  // cannot be bound (the writer then wakes readers on every publication instead).
  ShmBellServer(std::string path, mode_t mode, const std::atomic<uint32_t>* wakeWord);
  ~ShmBellServer();
  ShmBellServer(const ShmBellServer&) = delete;
  ShmBellServer& operator=(const ShmBellServer&) = delete;

  // Called by the writer after advancing the wake word to `now`.
  void afterPublish(uint32_t now) {
    if (state_->saturated.load(std::memory_order_seq_cst)) {
      wakeAll();
    } else if (const uint64_t p = state_->due(now)) {
      wake(p);
    }
  }
  // Wake-ups made by afterPublish (for tests and benchmarks).
  uint64_t wakes() const { return state_->wakes.load(std::memory_order_relaxed); }
  // Registrations received.
  uint64_t rings() const { return state_->rings.load(std::memory_order_relaxed); }

  // The registration word shared by the writer and the watcher. Invariant: once a reader's
  // registration for value v is recorded, pending holds a value other than the wake word's
  // next one until the writer has woken every sleeper after moving the word off v.
  struct State {
    std::atomic<uint64_t> pending{0};  // kRegistered | wake value, or 0
    // Set while the watcher cannot take in this doorbell's connections (the process is out of
    // descriptors, or readers hold the share the watcher may use): registrations may then be
    // stuck unread, so the writer wakes on every publication until every waiting connection
    // has been taken in and read.
    std::atomic<bool> saturated{false};
    const std::atomic<uint32_t>* wakeWord = nullptr;
    std::atomic<uint64_t> wakes{0};
    std::atomic<uint64_t> rings{0};
    int listenFd = -1;

    // Watcher: records a registration for `wake`; true when sleepers must be woken at once
    // (the word moved already, for this one or for the registration it displaced).
    bool record(uint32_t wake);
    // Writer, the word now at `now`: the registration to claim (0: nobody needs waking).
    uint64_t due(uint32_t now) const {
      const uint64_t p = pending.load(std::memory_order_seq_cst);
      return p != 0 && static_cast<uint32_t>(p) != now ? p : 0;
    }
    // Writer: drops the registration `seen` that it is about to wake for, unless a newer one
    // replaced it meanwhile (that one may be for the value just published and must stay).
    void claim(uint64_t seen) {
      pending.compare_exchange_strong(seen, 0, std::memory_order_seq_cst);
    }
  };
  static constexpr uint64_t kRegistered = uint64_t{1} << 32;

 private:
  void wake(uint64_t seen);
  void wakeAll();
  std::string path_;
  std::shared_ptr<State> state_;
  uint32_t forkGeneration_;  // a forked child's copy leaves the parent's socket and word alone
};

class ShmBellClient {
 public:
  explicit ShmBellClient(std::string path) : path_(std::move(path)) {}
  ~ShmBellClient();
  ShmBellClient(const ShmBellClient&) = delete;
  ShmBellClient& operator=(const ShmBellClient&) = delete;

  enum class Ring : uint8_t {
    registered,  // the writer will wake this reader once the wake word moves past `wake`
    noWriter,    // nobody serves the doorbell: no live writer (a new one always wakes)
    failed,      // the doorbell exists but cannot be rung: do not sleep for long
  };
  // Registers a sleep on wake value `wake` (sends it unless this connection registered that
  // very value already).
  Ring ring(uint32_t wake);
  void reset();

 private:
  int connectNow();  // 0 or the errno of the failure
  std::string path_;
  int fd_ = -1;
  bool sent_ = false;
  uint32_t last_ = 0;
};

}  // namespace Oro
