// Named POSIX shared-memory segments, and the rules for naming them.
//
// A segment is one shm object mapped whole; its size never changes after creation. Memory is
// committed explicitly (posix_fallocate), so running out of shared memory is a ShmException
// to the writer and never a SIGBUS in a process that maps the segment; a segment truncated by
// someone else after we mapped it is caught by ShmGuard (lost()).
//
// Names: a store at mount path "a/b" has its header at "/<ns>.a.b" and its other segments at
// "/<ns>.a.b@<instance>.<suffix>" ('@' never occurs in a mount path, so no store's segment can
// be taken for another store's header). <ns> is the process's shared-memory namespace
// (shmNamespaceIs, else the environment's MVPN_SHM_NAMESPACE, else "mvpn"); it holds letters,
// digits, '_' and '-' only, so two namespaces never share a prefix up to their '.'.
// The segments live in /dev/shm, which this layer also uses by path (atomic rename on
// creation, listing, doorbell sockets).
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Oro {

inline constexpr const char* kShmDirectory = "/dev/shm";

// The namespace prefix of every segment name this process creates or opens. A bad
// MVPN_SHM_NAMESPACE raises ShmException (on every call until the namespace is set).
const std::string& shmNamespace();
// Replace the namespace (letters, digits, '_' and '-', at most 64; else ShmException). Both
// may be called from any thread; a name returned by shmNamespace() stays valid after it is
// replaced (stores already open keep the names they were opened under).
void shmNamespaceIs(std::string ns);

// Checks a mount path ("a/b-c/d_e"): ShmException if bad.
void shmValidatePath(std::string_view mountPath);
// "/<ns>.<path with dots>": the name of the store's header segment. Validates.
std::string shmStoreName(std::string_view mountPath);
// "/<ns>.<path with dots>@<instance as 16 hex digits>.<suffix>".
std::string shmStoreSegmentName(std::string_view mountPath, uint64_t instance,
                                std::string_view suffix);
// The name of a store's chunk, index or blob segment ("0k3", "1i2", "b0"):
// "<suffix>.<tag>", the tag keyed by the store's secret name key, under the store's instance.
std::string shmSegmentSuffix(uint64_t instance, uint64_t nameKey, std::string_view suffix);
std::string shmSegmentName(std::string_view mountPath, uint64_t instance, uint64_t nameKey,
                           std::string_view suffix);
// The mount path of a header segment's name (without the leading '/'), or empty when the name
// is not a store header of the current namespace.
std::string shmPathOfStoreName(std::string_view name);
// Names (without the leading '/') of the current namespace's entries in /dev/shm.
std::vector<std::string> shmNamespaceEntries();
// Removes every entry of the current namespace; for tests and tools.
void shmUnlinkNamespace();

// Advanced in every child a fork() makes after the library was loaded. A writer's store and
// doorbell remember it: a forked child's copies of them belong to the parent's shared state and
// must not act on it.
uint32_t shmForkGeneration();
// A descriptor that carries a writer's lock or listening socket: in a child forked while it is
// listed, it is pointed at /dev/null at once, so that the lock (or socket) stays the parent's
// and goes when the parent does, whatever the child lives on to do. Listed until removed,
// which must happen before it is closed. False when the list (4096) is full: the descriptor is
// then shared with children as any other.
bool shmForkReleaseAdd(int fd);
void shmForkReleaseRemove(int fd);

// shm_open for a segment, which must be a regular file: anything else planted under its name
// (a FIFO would block the open, a device the mapping) raises ShmException. Otherwise as
// shm_open: a descriptor, or -1 with errno.
int shmOpenFile(const std::string& name, int flags, mode_t mode = 0);

// Start time of a process (field 22 of /proc/<pid>/stat, in clock ticks since boot), or 0 when
// the process does not exist (also when it vanishes while its file is read). Never throws.
uint64_t processStartTime(pid_t pid);

class ShmSegment {
 public:
  enum class Access : uint8_t { readOnly, readWrite };

  ShmSegment() = default;
  ShmSegment(ShmSegment&& o) noexcept;
  ShmSegment& operator=(ShmSegment&& o) noexcept;
  ShmSegment(const ShmSegment&) = delete;
  ShmSegment& operator=(const ShmSegment&) = delete;
  ~ShmSegment();

  // Creates a new segment of `bytes` (O_EXCL: an existing one is an error unless `replace`,
  // which unlinks a leftover first), maps it read-write, zero-filled; `commitNow` commits all
  // of its memory (else the creator commits pieces with commit() before touching them).
  static ShmSegment create(const std::string& name, size_t bytes, mode_t mode, bool replace,
                           bool commitNow = true);
  // Opens and maps an existing segment whole; its size is taken from fstat and must be at
  // least minBytes (else ShmCorruptionException). Missing: ShmException; no permission:
  // ShmPermissionException.
  static ShmSegment open(const std::string& name, Access access, size_t minBytes = 0);
  // Maps an open descriptor (taking it over) whole, `bytes` long.
  static ShmSegment map(int fd, std::string name, size_t bytes, Access access);
  // Zero-filled private memory of the same shape (detached stores).
  static ShmSegment anonymous(size_t bytes);
  static bool exists(const std::string& name);
  static void unlink(const std::string& name);
  // Atomically gives segment `from` the name `to`: when `replace` is false, fails (returns
  // false) if `to` exists, so that of several processes racing to publish one wins.
  static bool rename(const std::string& from, const std::string& to, bool replace);

  bool valid() const { return data_ != nullptr; }
  std::byte* data() const { return data_; }
  size_t size() const { return size_; }
  const std::string& name() const { return name_; }
  bool named() const { return !name_.empty(); }
  int fd() const { return fd_; }
  // The mapping was replaced after the segment shrank under it (see ShmGuard).
  bool lost() const;
  // Commits [offset, offset + bytes) of a named segment (ShmException when shared memory runs
  // out); nothing to do for anonymous memory.
  void commit(size_t offset, size_t bytes);
  // Gives the memory of [offset, offset + bytes) back (page-aligned); it reads as zeros from
  // then on. False when the segment cannot do that.
  bool decommit(size_t offset, size_t bytes);
  // Bytes of memory the segment holds (tmpfs blocks), for the resident-size figures.
  size_t committedBytes() const;
  // Closes the descriptor of a segment that will only be read: the mapping stays, and a
  // process following many stores keeps one descriptor per store (its header's) rather than
  // one per segment. committedBytes then opens the segment by name.
  void dropDescriptor();
  // Keeps the name for this object only (after a rename).
  void nameIs(std::string name) { name_ = std::move(name); }

  static size_t pageBytes();

 private:
  ShmSegment(void* data, size_t size, int fd, std::string name);
  void release();
  std::byte* data_ = nullptr;
  size_t size_ = 0;
  int fd_ = -1;
  uint32_t guard_ = 0xFFFFFFFFu;
  std::string name_;
};

// Whether a store's header segment exists at `mountPath` (whatever state it is in).
inline bool shmStoreExists(std::string_view mountPath) {
  return ShmSegment::exists(shmStoreName(mountPath));
}

}  // namespace Oro
