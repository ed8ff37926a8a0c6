// Helpers of the shared-memory tests: a per-process segment namespace, a record whose fields
// all derive from one number (so a torn record is detectable), fork helpers, and damage done to
// a store the way an outside writer of /dev/shm would, so that tests of corruption handling
// need not poke at the engine's layout themselves.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <functional>
#include <string>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "platform/shm/ShmBinding.h"
#include "platform/shm/ShmImage.h"
#include "platform/shm/ShmLayout.h"
#include "platform/shm/ShmSegment.h"
#include "platform/shm/ShmStore.h"
#include "platform/shm/ShmTable.h"

namespace shmtest {

struct Rec {
  uint64_t n = 0;
  uint64_t a = 0;
  uint64_t b = 0;
  uint64_t c = 0;
  static Rec of(uint64_t n) { return Rec{n, n * 3 + 1, ~n, n ^ 0x5555aaaa5555aaaaull}; }
  bool whole() const { return *this == of(n); }
  bool operator==(const Rec&) const = default;
};

// A writer stopped at a chosen step: the hook kills (or stops) the process the n-th time the
// writer reaches `point`.
struct FaultPlan {
  Oro::ShmFaultPoint point;
  int countdown;
  int signal;
};
inline FaultPlan gFaultPlan{};
inline void faultHook(Oro::ShmFaultPoint p) {
  if (p == gFaultPlan.point && --gFaultPlan.countdown == 0) ::raise(gFaultPlan.signal);
}
inline void faultAt(Oro::ShmFaultPoint p, int nth, int signal = SIGKILL) {
  gFaultPlan = FaultPlan{p, nth, signal};
  Oro::shmFaultHookIs(&faultHook);
}

// Gives each test process its own segment namespace and removes its segments afterwards. A
// death test's child process runs the test again and dies without a teardown: it works in
// "h4test<parent>d" (one child at a time, each clearing what the one before left), which the
// parent's teardown removes.
class ShmTest : public ::testing::Test {
 protected:
  void SetUp() override {
    previous_ = Oro::shmNamespace();
    const bool deathChild = !GTEST_FLAG_GET(internal_run_death_test).empty();
    Oro::shmNamespaceIs(deathChild ? childNamespace(::getppid())
                                   : fmt::format("h4test{}", ::getpid()));
    Oro::shmUnlinkNamespace();
  }
  // Back to the namespace the binary had, which its test environment removes at the end.
  void TearDown() override {
    Oro::shmUnlinkNamespace();
    Oro::shmNamespaceIs(childNamespace(::getpid()));
    Oro::shmUnlinkNamespace();
    Oro::shmNamespaceIs(previous_);
  }

 private:
  static std::string childNamespace(pid_t parent) { return fmt::format("h4test{}d", parent); }
  std::string previous_;
};

// Runs fn in a child process; returns its pid. The child exits 0 unless fn throws or fails.
inline pid_t forkChild(const std::function<int()>& fn) {
  const pid_t parent = ::getpid();
  pid_t pid = ::fork();
  if (pid == 0) {
    // A child never outlives its test (a failed test must not leave it waiting forever).
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(1);
    int rc = 1;
    try {
      rc = fn();
    } catch (const std::exception& e) {
      fmt::print(stderr, "child failed: {}\n", e.what());
      rc = 2;
    }
    ::_exit(rc);
  }
  return pid;
}

inline int waitChild(pid_t pid) {
  int status = 0;
  ::waitpid(pid, &status, 0);
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  return 128 + WTERMSIG(status);
}

// `status`, mounted as `attach` says.
template <class P>
P mounted(P status, const Oro::ShmAttach& attach) {
  status->mount(attach);
  return status;
}

// Delivers every change a reader (a table, or a status's binding) has pending.
template <class T>
void drain(T& t) {
  while (t.reader()->hasPending()) t.reader()->dispatch();
}

// A one-byte signal between processes over a pipe.
struct Pipe {
  int fd[2] = {-1, -1};
  Pipe() { EXPECT_EQ(::pipe(fd), 0); }
  ~Pipe() {
    ::close(fd[0]);
    ::close(fd[1]);
  }
  void send() { ASSERT_EQ(::write(fd[1], "x", 1), 1); }
  bool receive() {
    char c;
    return ::read(fd[0], &c, 1) == 1;
  }
};

// Overwrites the start of the header of the store at `mountPath` with `bytes`, as a stray
// process with access to /dev/shm could.
inline void overwriteHeader(const std::string& mountPath, const std::string& bytes) {
  std::fstream f("/dev/shm" + Oro::shmStoreName(mountPath),
                 std::ios::in | std::ios::out | std::ios::binary);
  ASSERT_TRUE(f.good()) << mountPath;
  f.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// Writes n bytes at offset into the segment `name`, as a stray process with access to /dev/shm
// could.
inline void writeSegment(const std::string& name, size_t offset, const void* bytes, size_t n) {
  const int fd = ::open(("/dev/shm" + name).c_str(), O_RDWR);
  ASSERT_GE(fd, 0) << name;
  ASSERT_EQ(::pwrite(fd, bytes, n, static_cast<off_t>(offset)), static_cast<ssize_t>(n));
  ::close(fd);
}

// The name of the first slot chunk of `collection` in the store at `mountPath`, "" when the
// store or the collection does not exist.
inline std::string firstChunkOf(const std::string& mountPath, const std::string& collection) {
  using Oro::ShmLayout::Header;
  const std::string header = Oro::shmStoreName(mountPath);
  const int fd = ::shm_open(header.c_str(), O_RDONLY, 0);
  if (fd < 0) return {};
  Header h;
  const bool ok =
      ::pread(fd, static_cast<void*>(&h), sizeof h, 0) == static_cast<ssize_t>(sizeof h);
  ::close(fd);
  uint32_t c = 0;
  while (ok && c < h.collectionCount && c < Oro::ShmLayout::kMaxCollections &&
         std::string(h.colls[c].name) != collection) {
    ++c;
  }
  if (!ok || c >= h.collectionCount) return {};
  return Oro::shmSegmentName(mountPath, h.instance, h.nameKey, fmt::format("{}k0", c));
}

// For death tests of writes on a damaged store, which run the test again in a new process: a
// mount path of each process's own, and a corruption handler that prints each report where
// the death test's pattern sees it ("handler saw: ...").
inline std::string ownMountPath(const std::string& base) {
  return fmt::format("{}{}", base, ::getpid());
}
inline void printCorruption(const std::string& message) {
  std::fprintf(stderr, "handler saw: %s\n", message.c_str());
}

// Returns false when the store or the collection does not exist. The collection's first slot
// chunk is truncated: processes that map it meet a short segment, processes that mapped it
// before lose the mapping (their next access finds the damage).
inline bool damageTable(const std::string& mountPath, const std::string& collection) {
  const std::string chunk = firstChunkOf(mountPath, collection);
  if (chunk.empty()) return false;
  const int cfd = ::shm_open(chunk.c_str(), O_RDWR, 0);
  if (cfd < 0) return false;
  const bool truncated = ::ftruncate(cfd, 0) == 0;
  ::close(cfd);
  return truncated;
}

}  // namespace shmtest

template <>
struct Oro::ShmImage<shmtest::Rec> : Oro::ShmPlainImage<shmtest::Rec, Oro::shmAnyImage> {
  static constexpr uint64_t fingerprint = shmFingerprint("shmtest::Rec{n,a,b,c:u64}", bytes);
  static shmtest::Rec read(const std::byte* in) { return ShmPlainImage::read(in, "shmtest::Rec"); }
};

namespace shmtest {

// A table of Recs attached at once, without callbacks.
struct Attached : Oro::ShmTable<uint32_t, Rec> {
  explicit Attached(const Oro::ShmAttach& a) : ShmTable("test::Rec", "recs", {}) { attach(a); }
};

}  // namespace shmtest
