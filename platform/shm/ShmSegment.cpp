#include "platform/shm/ShmSegment.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "platform/Error.h"
#include "platform/SipHash.h"
#include "platform/shm/ShmGuard.h"

namespace Oro {

namespace {

constexpr size_t kMaxNamespace = 64;
// Longest mount path: the segment names built from it must stay below NAME_MAX (255) with
// the namespace, the instance and a suffix.
constexpr size_t kMaxPath = 150;

bool isNameChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '-';
}

bool validNamespace(std::string_view ns) {
  return !ns.empty() && ns.size() <= kMaxNamespace && std::all_of(ns.begin(), ns.end(), isNameChar);
}

// Every namespace the process has had, the current one last. A name once handed out stays
// valid for the life of the process (callers hold references to it, possibly on other threads
// while it is replaced); never destroyed: names are needed at exit.
struct Namespaces {
  std::mutex mu;
  std::vector<std::unique_ptr<const std::string>> all;
  std::atomic<const std::string*> current{nullptr};
};

Namespaces& namespaces() {
  static auto* ns = new Namespaces;
  return *ns;
}

// Makes `ns` the current namespace, unless `ifUnset` and another thread set one first.
const std::string& namespaceInstall(std::string ns, bool ifUnset) {
  Namespaces& n = namespaces();
  std::lock_guard lock(n.mu);
  if (const std::string* cur = n.current.load(std::memory_order_acquire); cur && ifUnset) {
    return *cur;
  }
  // Kept once per name: a process switching between a few namespaces does not grow.
  auto known = std::find_if(n.all.begin(), n.all.end(), [&](const auto& s) { return *s == ns; });
  if (known == n.all.end()) {
    n.all.push_back(std::make_unique<const std::string>(std::move(ns)));
    known = n.all.end() - 1;
  }
  n.current.store(known->get(), std::memory_order_release);
  return **known;
}

// Descriptors a forked child must not keep (see shmForkReleaseAdd); -1 marks a free entry. A
// fixed array: the child's handler reads it without locks or allocation.
constexpr size_t kForkReleased = 4096;
std::array<std::atomic<int>, kForkReleased>& forkReleased() {
  static auto* fds = [] {
    auto* a = new std::array<std::atomic<int>, kForkReleased>;  // never destroyed
    for (auto& fd : *a) fd.store(-1, std::memory_order_relaxed);
    return a;
  }();
  return *fds;
}

// In the child, before anything else runs there: each listed descriptor is pointed at
// /dev/null, so that it no longer shares the parent's open file description (and with it the
// parent's locks and listening socket), while its number stays taken until its owner closes it.
void releaseForkedDescriptors() {
  const int null = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (null < 0) return;
  for (auto& entry : forkReleased()) {
    const int fd = entry.load(std::memory_order_relaxed);
    if (fd >= 0 && fd != null) (void)::dup3(null, fd, O_CLOEXEC);
  }
  ::close(null);
}

// Counted from the library's load on: every fork after it is seen.
std::atomic<uint32_t> forkGeneration{0};
[[maybe_unused]] const int forkCounted = [] {
  forkReleased();  // made before any fork, so that the child's handler allocates nothing
  return ::pthread_atfork(nullptr, nullptr, [] {
    forkGeneration.fetch_add(1, std::memory_order_relaxed);
    releaseForkedDescriptors();
  });
}();

std::string errnoText(int err) {
  return std::strerror(err);
}

std::string dirPath(std::string_view name) {
  // POSIX shm names are "/x"; the object is /dev/shm/x.
  return std::string(kShmDirectory) + std::string(name);
}

}  // namespace

uint32_t shmForkGeneration() {
  return forkGeneration.load(std::memory_order_relaxed);
}

bool shmForkReleaseAdd(int fd) {
  for (auto& entry : forkReleased()) {
    int free = -1;
    if (entry.compare_exchange_strong(free, fd, std::memory_order_relaxed)) return true;
  }
  return false;
}

void shmForkReleaseRemove(int fd) {
  for (auto& entry : forkReleased()) {
    int listed = fd;
    if (entry.load(std::memory_order_relaxed) == fd &&
        entry.compare_exchange_strong(listed, -1, std::memory_order_relaxed)) {
      return;
    }
  }
}

const std::string& shmNamespace() {
  if (const std::string* cur = namespaces().current.load(std::memory_order_acquire)) return *cur;
  const char* env = std::getenv("MVPN_SHM_NAMESPACE");
  if (!env || !*env) return namespaceInstall("mvpn", /*ifUnset=*/true);
  if (!validNamespace(env)) {
    throw ShmException(fmt::format(
        "invalid shared-memory namespace '{}' in MVPN_SHM_NAMESPACE: use letters, digits, "
        "'_' and '-' (at most {} characters)",
        env, kMaxNamespace));
  }
  return namespaceInstall(env, /*ifUnset=*/true);
}

void shmNamespaceIs(std::string ns) {
  if (!validNamespace(ns)) {
    throw ShmException(fmt::format(
        "invalid shared-memory namespace '{}': use letters, digits, '_' and '-' (at most {} "
        "characters)",
        ns, kMaxNamespace));
  }
  namespaceInstall(std::move(ns), /*ifUnset=*/false);
}

void shmValidatePath(std::string_view mountPath) {
  auto bad = [&](const char* why) {
    return ShmException(fmt::format("invalid mount path '{}': {}", mountPath, why));
  };
  if (mountPath.empty()) throw bad("empty");
  if (mountPath.size() > kMaxPath) throw bad("too long");
  if (mountPath.front() == '/' || mountPath.back() == '/') throw bad("starts or ends with '/'");
  size_t componentLength = 0;
  for (char c : mountPath) {
    if (c == '/') {
      if (componentLength == 0) throw bad("empty component");
      componentLength = 0;
    } else if (isNameChar(c)) {
      ++componentLength;
    } else {
      throw bad("holds a character outside [A-Za-z0-9_-/]");
    }
  }
}

std::string shmStoreName(std::string_view mountPath) {
  shmValidatePath(mountPath);
  std::string name = "/" + shmNamespace() + ".";
  for (char c : mountPath) name.push_back(c == '/' ? '.' : c);
  return name;
}

std::string shmStoreSegmentName(std::string_view mountPath, uint64_t instance,
                                std::string_view suffix) {
  return fmt::format("{}@{:016x}.{}", shmStoreName(mountPath), instance, suffix);
}

std::string shmSegmentSuffix(uint64_t instance, uint64_t nameKey, std::string_view suffix) {
  return fmt::format("{}.{:016x}", suffix, sipHash24(nameKey, instance, suffix));
}

std::string shmSegmentName(std::string_view mountPath, uint64_t instance, uint64_t nameKey,
                           std::string_view suffix) {
  return shmStoreSegmentName(mountPath, instance, shmSegmentSuffix(instance, nameKey, suffix));
}

std::string shmPathOfStoreName(std::string_view name) {
  const std::string prefix = shmNamespace() + ".";
  if (name.substr(0, prefix.size()) != prefix) return {};
  std::string_view rest = name.substr(prefix.size());
  if (rest.empty() || rest.find('@') != std::string_view::npos) return {};
  std::string path;
  for (char c : rest) {
    if (c == '.') {
      path.push_back('/');
    } else if (isNameChar(c)) {
      path.push_back(c);
    } else {
      return {};
    }
  }
  try {
    shmValidatePath(path);
  } catch (const ShmException&) {
    return {};
  }
  return path;
}

std::vector<std::string> shmNamespaceEntries() {
  std::vector<std::string> out;
  const std::string dotted = shmNamespace() + ".";
  const std::string at = shmNamespace() + "@";
  DIR* dir = ::opendir(kShmDirectory);
  if (!dir) return out;
  while (dirent* e = ::readdir(dir)) {
    std::string_view n(e->d_name);
    if (n.substr(0, dotted.size()) == dotted || n.substr(0, at.size()) == at) out.emplace_back(n);
  }
  ::closedir(dir);
  std::sort(out.begin(), out.end());
  return out;
}

void shmUnlinkNamespace() {
  for (const std::string& n : shmNamespaceEntries()) ::unlink(dirPath("/" + n).c_str());
}

uint64_t processStartTime(pid_t pid) {
  // Plain system calls: the file of a process that exits meanwhile reads short or fails,
  // which simply means the process is gone.
  char path[64];
  std::snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
  const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  char buf[1024];
  size_t len = 0;
  for (;;) {
    const ssize_t n = ::read(fd, buf + len, sizeof buf - 1 - len);
    if (n > 0) {
      len += static_cast<size_t>(n);
      if (len == sizeof buf - 1) break;
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) len = 0;
    break;
  }
  ::close(fd);
  buf[len] = '\0';
  // The command name (field 2) is in parentheses and may hold anything: fields 3.. follow
  // the last ')'.
  const char* paren = std::strrchr(buf, ')');
  if (!paren || paren[1] != ' ') return 0;
  const char state = paren[2];
  if (state == 'Z' || state == 'X' || state == '\0') return 0;
  const char* p = paren + 2;
  for (int field = 3; field < 22; ++field) {
    p = std::strchr(p, ' ');
    if (!p) return 0;
    ++p;
  }
  char* end = nullptr;
  const unsigned long long v = std::strtoull(p, &end, 10);
  if (end == p) return 0;
  return v;
}

// ---- ShmSegment ---------------------------------------------------------------------------

ShmSegment::ShmSegment(void* data, size_t size, int fd, std::string name)
    : data_(static_cast<std::byte*>(data)), size_(size), fd_(fd), name_(std::move(name)) {
  if (fd_ >= 0) guard_ = ShmGuard::add(data_, size_);
}

ShmSegment::ShmSegment(ShmSegment&& o) noexcept
    : data_(std::exchange(o.data_, nullptr)),
      size_(std::exchange(o.size_, 0)),
      fd_(std::exchange(o.fd_, -1)),
      guard_(std::exchange(o.guard_, ShmGuard::kNone)),
      name_(std::move(o.name_)) {}

ShmSegment& ShmSegment::operator=(ShmSegment&& o) noexcept {
  if (this != &o) {
    release();
    data_ = std::exchange(o.data_, nullptr);
    size_ = std::exchange(o.size_, 0);
    fd_ = std::exchange(o.fd_, -1);
    guard_ = std::exchange(o.guard_, ShmGuard::kNone);
    name_ = std::move(o.name_);
  }
  return *this;
}

ShmSegment::~ShmSegment() {
  release();
}

void ShmSegment::release() {
  if (guard_ != ShmGuard::kNone) ShmGuard::remove(guard_);
  guard_ = ShmGuard::kNone;
  if (data_) ::munmap(data_, size_);
  if (fd_ >= 0) ::close(fd_);
  data_ = nullptr;
  size_ = 0;
  fd_ = -1;
}

void ShmSegment::dropDescriptor() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

bool ShmSegment::lost() const {
  return guard_ != ShmGuard::kNone && ShmGuard::lost(guard_);
}

size_t ShmSegment::pageBytes() {
  static const size_t page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
  return page;
}

int shmOpenFile(const std::string& name, int flags, mode_t mode) {
  const int fd = ::shm_open(name.c_str(), flags | O_NONBLOCK | O_CLOEXEC, mode);
  if (fd < 0) return fd;
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    ::close(fd);
    throw ShmException(fmt::format("shared memory segment {} is not a regular file", name));
  }
  return fd;
}

namespace {
// A failure of a segment operation: this process's limits or a full shared memory, which leave
// the store as it is (ShmResourceException), or anything else.
[[noreturn]] void throwShmFailure(std::string message, int err) {
  if (err == EMFILE || err == ENFILE || err == ENOMEM || err == ENOSPC || err == EFBIG) {
    throw ShmResourceException(message);
  }
  throw ShmException(message);
}
}  // namespace

ShmSegment ShmSegment::create(const std::string& name, size_t bytes, mode_t mode, bool replace,
                              bool commitNow) {
  if (replace) ::shm_unlink(name.c_str());
  const int fd = shmOpenFile(name, O_RDWR | O_CREAT | O_EXCL, mode);
  if (fd < 0) {
    const int err = errno;
    throwShmFailure(fmt::format("cannot create shared memory segment {}: {}", name,
                                err == EEXIST ? "it already exists" : errnoText(err)),
                    err);
  }
  // fchmod: the umask must not narrow the mode the store was asked for.
  (void)::fchmod(fd, mode);
  auto fail = [&](const char* what, int err) {
    ::close(fd);
    ::shm_unlink(name.c_str());
    throwShmFailure(fmt::format("cannot {} shared memory segment {} ({} bytes): {}", what, name,
                                bytes, errnoText(err)),
                    err);
  };
  if (::ftruncate(fd, static_cast<off_t>(bytes)) != 0) fail("size", errno);
  void* p = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (p == MAP_FAILED) fail("map", errno);
  ShmSegment s(p, bytes, fd, name);
  if (commitNow) {
    try {
      s.commit(0, bytes);
    } catch (...) {
      ::shm_unlink(name.c_str());
      throw;
    }
  }
  return s;
}

void ShmSegment::commit(size_t offset, size_t bytes) {
  if (fd_ < 0 || bytes == 0) return;
  if (int err = ::posix_fallocate(fd_, static_cast<off_t>(offset), static_cast<off_t>(bytes));
      err != 0) {
    throwShmFailure(fmt::format("cannot commit memory of shared memory segment {} ({} bytes): {}",
                                name_, size_, errnoText(err)),
                    err);
  }
  // Maps the committed pages into this process now, in one call: the writer then fills them
  // without a page fault per page. Best effort.
#ifdef MADV_POPULATE_WRITE
  const size_t page = pageBytes();
  const size_t from = offset & ~(page - 1);
  const size_t to = std::min(size_, offset + bytes);
  if (data_ && to > from) (void)::madvise(data_ + from, to - from, MADV_POPULATE_WRITE);
#endif
}

ShmSegment ShmSegment::open(const std::string& name, Access access, size_t minBytes) {
  const bool rw = access == Access::readWrite;
  const int fd = shmOpenFile(name, rw ? O_RDWR : O_RDONLY);
  if (fd < 0) {
    const int err = errno;
    if (err == EACCES || err == EPERM) {
      throw ShmPermissionException(
          fmt::format("permission denied: cannot open shared memory segment {} for {}", name,
                      rw ? "writing" : "reading"));
    }
    throwShmFailure(fmt::format("cannot open shared memory segment {}: {}", name, errnoText(err)),
                    err);
  }
  struct stat st {};
  if (::fstat(fd, &st) != 0) {
    const int err = errno;
    ::close(fd);
    throw ShmException(
        fmt::format("cannot stat shared memory segment {}: {}", name, errnoText(err)));
  }
  const size_t bytes = static_cast<size_t>(st.st_size);
  if (bytes < minBytes || bytes == 0) {
    ::close(fd);
    throw ShmCorruptionException(fmt::format(
        "shared memory segment {} holds {} bytes, expected at least {}", name, bytes, minBytes));
  }
  void* p = ::mmap(nullptr, bytes, rw ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd, 0);
  if (p == MAP_FAILED) {
    const int err = errno;
    ::close(fd);
    throwShmFailure(fmt::format("cannot map shared memory segment {}: {}", name, errnoText(err)),
                    err);
  }
  return ShmSegment(p, bytes, fd, name);
}

ShmSegment ShmSegment::map(int fd, std::string name, size_t bytes, Access access) {
  const bool rw = access == Access::readWrite;
  void* p = ::mmap(nullptr, bytes, rw ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd, 0);
  if (p == MAP_FAILED) {
    const int err = errno;
    ::close(fd);
    throwShmFailure(fmt::format("cannot map shared memory segment {}: {}", name, errnoText(err)),
                    err);
  }
  return ShmSegment(p, bytes, fd, std::move(name));
}

ShmSegment ShmSegment::anonymous(size_t bytes) {
  void* p = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) {
    throw ShmException(
        fmt::format("cannot map {} bytes of process memory: {}", bytes, errnoText(errno)));
  }
  return ShmSegment(p, bytes, -1, {});
}

bool ShmSegment::exists(const std::string& name) {
  struct stat st {};
  return ::stat(dirPath(name).c_str(), &st) == 0;
}

void ShmSegment::unlink(const std::string& name) {
  ::shm_unlink(name.c_str());
}

bool ShmSegment::rename(const std::string& from, const std::string& to, bool replace) {
  const std::string a = dirPath(from);
  const std::string b = dirPath(to);
  if (replace) {
    if (::rename(a.c_str(), b.c_str()) == 0) return true;
  } else {
    if (::syscall(SYS_renameat2, AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_NOREPLACE) == 0) {
      return true;
    }
    if (errno == EEXIST) return false;
  }
  throw ShmException(
      fmt::format("cannot rename shared memory segment {} to {}: {}", from, to, errnoText(errno)));
}

bool ShmSegment::decommit(size_t offset, size_t bytes) {
  if (bytes == 0) return true;
  if (fd_ < 0) return ::madvise(data_ + offset, bytes, MADV_DONTNEED) == 0;
  return ::fallocate(fd_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(offset),
                     static_cast<off_t>(bytes)) == 0;
}

size_t ShmSegment::committedBytes() const {
  if (!named()) return 0;  // process memory
  int fd = fd_;
  if (fd < 0) {
    // Gone from the namespace (its store removed or replaced): it holds no memory of the
    // store's any more once our mapping goes.
    try {
      fd = shmOpenFile(name_, O_RDONLY);
    } catch (const ShmException&) {
      return 0;
    }
    if (fd < 0) return 0;
  }
  struct stat st {};
  const bool ok = ::fstat(fd, &st) == 0;
  if (fd != fd_) ::close(fd);
  return ok ? static_cast<size_t>(st.st_blocks) * 512 : 0;
}

}  // namespace Oro
