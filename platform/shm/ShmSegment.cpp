#include "platform/shm/ShmSegment.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <utility>

#include <fmt/format.h>

#include "platform/Error.h"

namespace Oro {

namespace {

constexpr size_t kMaxNameLength = 200;  // below NAME_MAX with room for suffixes

bool isNameChar(char c, bool allowDash) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         (allowDash && c == '-');
}

std::string defaultNamespace() {
  const char* env = std::getenv("MVPN_SHM_NAMESPACE");
  return (env && *env) ? std::string(env) : std::string("mvpn");
}

std::string& namespaceStorage() {
  static std::string ns = defaultNamespace();
  return ns;
}

void checkNamespace(std::string_view ns) {
  if (ns.empty() || ns.size() > 64) {
    throw ShmException(fmt::format("invalid shared-memory namespace '{}'", ns));
  }
  for (char c : ns) {
    if (!isNameChar(c, true)) {
      throw ShmException(fmt::format("invalid shared-memory namespace '{}'", ns));
    }
  }
}

std::string errnoText(int err) {
  return std::strerror(err);
}

}  // namespace

const std::string& shmNamespace() {
  return namespaceStorage();
}

void shmNamespaceIs(std::string ns) {
  checkNamespace(ns);
  namespaceStorage() = std::move(ns);
}

void shmValidateName(std::string_view mountPath, std::string_view collection) {
  auto bad = [&](const char* why) {
    return ShmException(
        fmt::format("invalid table name '{}' / '{}': {}", mountPath, collection, why));
  };
  if (mountPath.empty()) throw bad("empty mount path");
  if (mountPath.front() == '/' || mountPath.back() == '/') {
    throw bad("mount path starts or ends with '/'");
  }
  size_t componentLength = 0;
  for (char c : mountPath) {
    if (c == '/') {
      if (componentLength == 0) throw bad("empty mount path component");
      componentLength = 0;
    } else if (isNameChar(c, true)) {
      ++componentLength;
    } else {
      throw bad("mount path holds a character outside [A-Za-z0-9_-/]");
    }
  }
  if (collection.empty()) throw bad("empty collection name");
  for (char c : collection) {
    if (!isNameChar(c, false)) throw bad("collection holds a character outside [A-Za-z0-9_]");
  }
  if (mountPath.size() + collection.size() + shmNamespace().size() + 3 > kMaxNameLength) {
    throw bad("name too long");
  }
}

std::string shmSegmentName(std::string_view mountPath, std::string_view collection,
                           std::string_view suffix) {
  shmValidateName(mountPath, collection);
  std::string name = "/" + shmNamespace() + ".";
  for (char c : mountPath) name.push_back(c == '/' ? '.' : c);
  name.push_back('.');
  name.append(collection);
  if (!suffix.empty()) {
    name.push_back('.');
    name.append(suffix);
  }
  return name;
}

std::vector<std::string> shmNamespaceSegments() {
  std::vector<std::string> out;
  const std::string prefix = shmNamespace() + ".";
  DIR* dir = ::opendir("/dev/shm");
  if (!dir) return out;
  while (dirent* e = ::readdir(dir)) {
    std::string_view n(e->d_name);
    if (n.substr(0, prefix.size()) == prefix) out.emplace_back(n);
  }
  ::closedir(dir);
  return out;
}

void shmUnlinkNamespace() {
  for (const std::string& n : shmNamespaceSegments()) ::shm_unlink(("/" + n).c_str());
}

uint64_t processStartTime(pid_t pid) {
  std::ifstream in(fmt::format("/proc/{}/stat", pid));
  if (!in) return 0;
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  size_t paren = text.rfind(')');
  if (paren == std::string::npos) return 0;
  std::istringstream fields(text.substr(paren + 1));
  std::string field;
  // After the command name come the fields from 3 (state) on; the start time is field 22.
  for (int i = 3; i <= 22; ++i) {
    if (!(fields >> field)) return 0;
  }
  if (field.size() >= 1 && (text[paren + 2] == 'Z' || text[paren + 2] == 'X')) return 0;
  return std::strtoull(field.c_str(), nullptr, 10);
}

ShmSegment::ShmSegment(ShmSegment&& o) noexcept
    : data_(std::exchange(o.data_, nullptr)),
      size_(std::exchange(o.size_, 0)),
      fd_(std::exchange(o.fd_, -1)),
      name_(std::move(o.name_)) {}

ShmSegment& ShmSegment::operator=(ShmSegment&& o) noexcept {
  if (this != &o) {
    release();
    data_ = std::exchange(o.data_, nullptr);
    size_ = std::exchange(o.size_, 0);
    fd_ = std::exchange(o.fd_, -1);
    name_ = std::move(o.name_);
  }
  return *this;
}

ShmSegment::~ShmSegment() {
  release();
}

void ShmSegment::release() {
  if (data_) ::munmap(data_, size_);
  if (fd_ >= 0) ::close(fd_);
  data_ = nullptr;
  size_ = 0;
  fd_ = -1;
}

ShmSegment ShmSegment::create(const std::string& name, size_t bytes, mode_t mode, bool replace) {
  if (replace) ::shm_unlink(name.c_str());
  ShmSegment s = make(name, bytes, mode);
  try {
    s.commit(0, bytes);
  } catch (...) {
    ::shm_unlink(name.c_str());
    throw;
  }
  return s;
}

ShmSegment ShmSegment::createUncommitted(const std::string& name, size_t bytes, mode_t mode) {
  ::shm_unlink(name.c_str());
  return make(name, bytes, mode);
}

// A new, sized and mapped segment whose memory is not committed yet.
ShmSegment ShmSegment::make(const std::string& name, size_t bytes, mode_t mode) {
  int fd = ::shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  if (fd < 0) {
    int err = errno;
    throw ShmException(fmt::format("cannot create shared memory segment {}: {}", name,
                                   err == EEXIST ? "it already exists" : errnoText(err)));
  }
  // fchmod: the umask must not narrow the mode the table was asked for.
  (void)::fchmod(fd, mode);
  auto fail = [&](const char* what, int err) {
    ::close(fd);
    ::shm_unlink(name.c_str());
    return ShmException(fmt::format("cannot {} shared memory segment {} ({} bytes): {}", what, name,
                                    bytes, errnoText(err)));
  };
  if (::ftruncate(fd, static_cast<off_t>(bytes)) != 0) throw fail("size", errno);
  void* p = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (p == MAP_FAILED) throw fail("map", errno);
  return ShmSegment(p, bytes, fd, name);
}

void ShmSegment::commit(size_t offset, size_t bytes) {
  if (fd_ < 0 || bytes == 0) return;
  if (int err = ::posix_fallocate(fd_, static_cast<off_t>(offset), static_cast<off_t>(bytes));
      err != 0) {
    throw ShmException(
        fmt::format("cannot commit memory of shared memory segment {} ({} bytes): {}", name_, size_,
                    errnoText(err)));
  }
  // Maps the committed pages into this process now, in one call: the writer then fills them
  // without a page fault per page, and its prefetches of them are not dropped. Best effort
  // (kernels without MADV_POPULATE_WRITE fault the pages in on first touch instead).
#ifdef MADV_POPULATE_WRITE
  const size_t page = 4096;
  const size_t from = offset & ~(page - 1);
  const size_t to = std::min(size_, offset + bytes);
  if (data_ && to > from) (void)::madvise(data_ + from, to - from, MADV_POPULATE_WRITE);
#endif
}

ShmSegment ShmSegment::open(const std::string& name, Access access, size_t minBytes) {
  const bool rw = access == Access::readWrite;
  int fd = ::shm_open(name.c_str(), (rw ? O_RDWR : O_RDONLY) | O_CLOEXEC, 0);
  if (fd < 0) {
    int err = errno;
    throw ShmException(
        fmt::format("cannot open shared memory segment {}: {}", name, errnoText(err)));
  }
  struct stat st {};
  if (::fstat(fd, &st) != 0) {
    int err = errno;
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
    int err = errno;
    ::close(fd);
    throw ShmException(
        fmt::format("cannot map shared memory segment {}: {}", name, errnoText(err)));
  }
  return ShmSegment(p, bytes, fd, name);
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
  int fd = ::shm_open(name.c_str(), O_RDONLY | O_CLOEXEC, 0);
  if (fd < 0) return false;
  ::close(fd);
  return true;
}

void ShmSegment::unlink(const std::string& name) {
  ::shm_unlink(name.c_str());
}

bool ShmSegment::decommit(size_t offset, size_t bytes) {
  if (bytes == 0) return true;
  if (fd_ < 0) return ::madvise(data_ + offset, bytes, MADV_DONTNEED) == 0;
  return ::fallocate(fd_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(offset),
                     static_cast<off_t>(bytes)) == 0;
}

size_t ShmSegment::committedBytes() const {
  if (fd_ < 0) return 0;
  struct stat st {};
  if (::fstat(fd_, &st) != 0) return 0;
  return static_cast<size_t>(st.st_blocks) * 512;
}

}  // namespace Oro
