// Named POSIX shared-memory segments of the table service, and the rules for naming them.
// A segment is one shm object mapped whole; its size never changes after creation, and its
// memory is committed when it is created (posix_fallocate), so that running out of shared
// memory is a ShmException to the creator and never a SIGBUS in a process that maps it.
// Segment names are "/<ns>.<mount path with '/' -> '.'>.<collection>[.<suffix>]", where <ns> is
// the process's shared-memory namespace (shmNamespaceIs, environment MVPN_SHM_NAMESPACE,
// else "mvpn"). An anonymous segment has the same interface and lives in process memory only.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Oro {

// The namespace prefix of every segment name this process creates or opens.
const std::string& shmNamespace();
// Replace the namespace (letters, digits, '_' and '-' only, else ShmException).
void shmNamespaceIs(std::string ns);

// Checks a mount path ("a/b-c/d_e") and a collection name ("mvpnVrf"): ShmException if bad.
void shmValidateName(std::string_view mountPath, std::string_view collection);
// "/<ns>.<path with dots>.<collection>" plus ".<suffix>" when suffix is not empty. Validates.
std::string shmSegmentName(std::string_view mountPath, std::string_view collection,
                           std::string_view suffix = {});
// Removes every segment of the current namespace ("/dev/shm/<ns>.*"); for tests and tools.
void shmUnlinkNamespace();
// Names (without the leading '/') of the current namespace's segments found in /dev/shm.
std::vector<std::string> shmNamespaceSegments();

// Start time of a process (field 22 of /proc/<pid>/stat, in clock ticks since boot), or 0 when
// the process does not exist. Together with the pid it names one process despite pid reuse.
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
  // which unlinks a leftover first), commits its memory, maps it read-write, zero-filled.
  static ShmSegment create(const std::string& name, size_t bytes, mode_t mode,
                           bool replace = false);
  // Like create(name, bytes, mode, true), but commits no memory: the creator commits the
  // segment piece by piece with commit() and touches no byte before it is committed.
  static ShmSegment createUncommitted(const std::string& name, size_t bytes, mode_t mode);
  // Opens and maps an existing segment whole; its size is taken from fstat and must be at
  // least minBytes (else ShmCorruptionException). Missing segment: ShmException.
  static ShmSegment open(const std::string& name, Access access, size_t minBytes = 0);
  // Zero-filled private memory of the same shape (detached tables).
  static ShmSegment anonymous(size_t bytes);
  static bool exists(const std::string& name);
  static void unlink(const std::string& name);

  bool valid() const { return data_ != nullptr; }
  std::byte* data() const { return data_; }
  size_t size() const { return size_; }
  const std::string& name() const { return name_; }
  bool named() const { return !name_.empty(); }
  // Commits [offset, offset + bytes) of a named segment (ShmException when shared memory runs
  // out); nothing to do for anonymous memory.
  void commit(size_t offset, size_t bytes);
  // Gives the memory of [offset, offset + bytes) back (both page-aligned); it reads as zeros
  // from then on. False when the segment cannot do that (mapped read-only).
  bool decommit(size_t offset, size_t bytes);
  // Bytes of memory the segment holds (tmpfs blocks), for the resident-size figures.
  size_t committedBytes() const;

 private:
  static ShmSegment make(const std::string& name, size_t bytes, mode_t mode);
  // Takes ownership of a mapping (and of its descriptor, -1 for an anonymous one).
  ShmSegment(void* data, size_t size, int fd, std::string name)
      : data_(static_cast<std::byte*>(data)), size_(size), fd_(fd), name_(std::move(name)) {}
  void release();
  std::byte* data_ = nullptr;
  size_t size_ = 0;
  int fd_ = -1;
  std::string name_;
};

}  // namespace Oro
