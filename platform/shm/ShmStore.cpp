#include "platform/shm/ShmStore.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstring>
#include <new>
#include <optional>
#include <random>

#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>
#include <fmt/format.h>

#include "platform/Error.h"
#include "platform/runtime/Futex.h"
#include "platform/shm/ShmBell.h"
#include "platform/shm/ShmCollection.h"
#include "platform/shm/ShmGuard.h"
#include "platform/shm/ShmVerify.h"

namespace Oro {

using namespace ShmLayout;

namespace {

std::atomic<ShmFaultHook> gFaultHook{nullptr};

constexpr uint32_t kMinIndexCapacity = 64;
// Attempts at opening a store while other processes create, replace or take it over.
constexpr int kOpenAttempts = 64;

void copyName(char* dst, size_t cap, const std::string& s) {
  std::memset(dst, 0, cap);
  std::memcpy(dst, s.data(), std::min(s.size(), cap - 1));
}

std::string nameOf(const char* field, size_t cap) {
  return std::string(field, strnlen(field, cap));
}

uint64_t newInstance() {
  std::random_device rd;
  uint64_t v = 0;
  while (v == 0) v = uint64_t{rd()} << 32 | rd();
  return v;
}

// Tries to take a write lock: an open-file-description lock, held for as long as the
// descriptor is open and released by the kernel when the process dies.
bool lockWriter(int fd) {
  struct flock fl {};
  fl.l_type = F_WRLCK;
  fl.l_whence = SEEK_SET;
  for (;;) {
    if (::fcntl(fd, F_OFD_SETLK, &fl) == 0) return true;
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EACCES) return false;
    throw ShmException(fmt::format("cannot lock a shared memory store: {}", std::strerror(errno)));
  }
}

// Whether a write lock is held on the file (a read lock is anybody's, never a writer's).
bool lockedByWriter(int fd) {
  struct flock fl {};
  fl.l_type = F_WRLCK;
  fl.l_whence = SEEK_SET;
  if (::fcntl(fd, F_OFD_GETLK, &fl) != 0) return false;
  return fl.l_type == F_WRLCK;
}

// The pid a store's header names as its writer, read through a descriptor (0 when the header
// is too short to hold it).
uint64_t ownerOf(int fd) {
  uint64_t pid = 0;
  struct stat st {};
  if (::fstat(fd, &st) == 0 && static_cast<size_t>(st.st_size) >= sizeof(Header)) {
    (void)!::pread(fd, &pid, sizeof pid, offsetof(Header, owner));
  }
  return pid;
}

bool sameFile(int fd, const std::string& name) {
  struct stat a {
  }, b{};
  if (::fstat(fd, &a) != 0) return false;
  if (::stat((std::string(kShmDirectory) + name).c_str(), &b) != 0) return false;
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// The store's lock file, "<header>@lock": its write lock makes a process the store's only
// writer or remover. It is a file of its own because anyone who can open a file can take a
// read lock on it, and a read lock keeps everyone from the write lock: the header must be
// readable by readers, the lock file is readable only by those who may write the store.
std::string lockName(const std::string& mountPath) {
  return shmStoreName(mountPath) + "@lock";
}

// Opens (creating it when absent, with `mode`'s write permissions as its only ones) and locks
// the store's lock file, then writes this process's pid into it. Returns the descriptor;
// *created tells whether this call made the file. When another process holds the lock: ShmException
// "shared memory store <path> <liveWhat> a live writer (pid <the pid it wrote>)".
int lockStore(const std::string& mountPath, mode_t mode, const std::string& deniedWhat,
              const char* liveWhat, bool* created) {
  const std::string name = lockName(mountPath);
  const mode_t writers = (mode & 0222) | ((mode & 0222) << 1);
  for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
    int fd = shmOpenFile(name, O_RDWR | O_CREAT | O_EXCL, writers);
    *created = fd >= 0;
    if (fd >= 0) {
      (void)::fchmod(fd, writers);  // not narrowed by the umask
    } else if (errno == EEXIST) {
      fd = shmOpenFile(name, O_RDWR, 0);
      if (fd < 0 && errno == ENOENT) continue;  // removed meanwhile
    }
    if (fd < 0) {
      const int err = errno;
      if (err == EACCES || err == EPERM) {
        throw ShmPermissionException(fmt::format("permission denied: cannot {}", deniedWhat));
      }
      throw ShmException(fmt::format("cannot open the lock of shared memory store {}: {}",
                                     mountPath, std::strerror(err)));
    }
    if (!lockWriter(fd)) {
      uint64_t holder = 0;
      (void)!::pread(fd, &holder, sizeof holder, 0);
      ::close(fd);
      throw ShmException(fmt::format("shared memory store {} {} a live writer (pid {})", mountPath,
                                     liveWhat, holder));
    }
    // A remover unlinks the file it holds: a lock on a file no longer at the name is nobody's.
    if (sameFile(fd, name)) {
      const uint64_t pid = static_cast<uint64_t>(::getpid());
      (void)!::pwrite(fd, &pid, sizeof pid, 0);
      return fd;
    }
    ::close(fd);
  }
  throw ShmException(
      fmt::format("the lock of shared memory store {} keeps being replaced", mountPath));
}

// Opens a store's header read-write and takes its write lock, as its writer and the remover
// must before touching it (holding the store's lock file already). The header's lock tells
// readers that a writer lives; a read lock someone holds on the header keeps it from the
// writer, which then goes on without it (see ShmStore::writerAlive). `deniedWhat` ("open ... for
// writing") and `liveWhat` complete the permission and live-writer messages. *fd is set when
// opened; absent: no header; replaced: the header was replaced after it was opened (look again).
enum class HeaderOpen : uint8_t { opened, absent, replaced };

HeaderOpen openHeaderLocked(const std::string& name, const std::string& mountPath,
                            const char* deniedWhat, const char* liveWhat, int* fd) {
  *fd = shmOpenFile(name, O_RDWR);
  if (*fd < 0) {
    const int err = errno;
    if (err == EACCES || err == EPERM) {
      throw ShmPermissionException(fmt::format("permission denied: cannot {}",
                                               fmt::format(fmt::runtime(deniedWhat), mountPath)));
    }
    if (err != ENOENT) {
      throw ShmException(
          fmt::format("cannot open shared memory store {}: {}", mountPath, std::strerror(err)));
    }
    return HeaderOpen::absent;
  }
  if (!lockWriter(*fd) && lockedByWriter(*fd)) {
    // A writer that does not use the lock file.
    const uint64_t pid = ownerOf(*fd);
    ::close(*fd);
    throw ShmException(
        fmt::format("shared memory store {} {} a live writer (pid {})", mountPath, liveWhat, pid));
  }
  if (!sameFile(*fd, name)) {
    ::close(*fd);
    return HeaderOpen::replaced;
  }
  return HeaderOpen::opened;
}

struct Geometry {
  uint32_t ringCap, ringEntryWords, journalWords, journalOffset, ringOffset, bytes;
};

}  // namespace

void shmFaultHookIs(ShmFaultHook hook) {
  gFaultHook.store(hook, std::memory_order_release);
}

// ---- blob heap ----------------------------------------------------------------------------

struct ShmStore::Blobs {
  mutable std::vector<ShmSegment> chunks;
  // Writer-only: free blocks per class (chunk << 32 | offset), free pages, the carve point.
  std::vector<uint64_t> freeBlocks[kBlobClasses];
  std::vector<uint64_t> freePages;
  uint32_t carveChunk = 0;
  uint32_t carvePage = 0;
};

namespace {
size_t blobChunkBytes(uint32_t chunk) {
  return size_t{kBlobBaseBytes} << chunk;
}
uint32_t blobPages(uint32_t chunk) {
  return static_cast<uint32_t>(blobChunkBytes(chunk) / kBlobPageBytes);
}
uint8_t* blobClassTable(const ShmSegment& seg) {
  return reinterpret_cast<uint8_t*>(seg.data() + sizeof(BlobChunkHeader));
}
uint32_t blobClassOf(uint32_t bytes) {
  uint32_t cls = 0;
  while ((kBlobMinBytes << cls) < bytes) ++cls;
  return cls;
}
}  // namespace

BlobRef ShmStore::blobAlloc(std::string_view bytes) {
  BlobRef ref{0, 0, 0, 0};
  if (bytes.empty()) return ref;
  if (bytes.size() <= kInlineBlobBytes) {
    return inlineBlobRef(bytes.data(), static_cast<uint32_t>(bytes.size()));
  }
  if (bytes.size() > kMaxPiecedBytes) {
    throw ShmException(
        fmt::format("shared memory store {}: a value of {} bytes exceeds the largest "
                    "variable-length part ({} bytes)",
                    mountPath_, bytes.size(), kMaxPiecedBytes));
  }
  const auto length = static_cast<uint32_t>(bytes.size());
  uint64_t at;
  if (length <= kMaxBlobBytes) {
    at = blobBlock(blobClassOf(length));
    blobWrite(at, bytes.data(), length);
  } else {
    // The pieces first, then the index block that lists them; blocks taken before a failure
    // (the heap is full) go back.
    const uint32_t n = blobPieces(length);
    std::vector<uint64_t> taken;
    taken.reserve(n);
    try {
      for (uint32_t i = 0; i < n; ++i) {
        taken.push_back(blobBlock(kBlobClasses - 1));
        const uint32_t from = i * kMaxBlobBytes;
        blobWrite(taken.back(), bytes.data() + from, std::min(kMaxBlobBytes, length - from));
      }
      at = blobBlock(blobClassOf(blobBlockBytes(length)));
    } catch (...) {
      for (uint64_t t : taken) blobs_->freeBlocks[kBlobClasses - 1].push_back(t);
      throw;
    }
    blobWrite(at, reinterpret_cast<const char*>(taken.data()), 8 * n);
  }
  ref.chunk = static_cast<uint32_t>(at >> 32);
  ref.offset = static_cast<uint32_t>(at);
  ref.length = length;
  return ref;
}

uint64_t ShmStore::blobBlock(uint32_t cls) {
  Blobs& b = *blobs_;
  const uint32_t block = kBlobMinBytes << cls;
  if (b.freeBlocks[cls].empty()) {
    uint64_t page;
    if (!b.freePages.empty()) {
      page = b.freePages.back();
      b.freePages.pop_back();
    } else {
      // Carve the next page; a new chunk (twice the last) when the last one is used up.
      if (b.chunks.empty() || b.carvePage >= blobPages(b.carveChunk)) {
        const uint32_t n = static_cast<uint32_t>(b.chunks.size());
        if (n >= kBlobMaxChunks) {
          throw ShmException(
              fmt::format("shared memory store {}: the blob heap is full", mountPath_));
        }
        ShmSegment seg = makeSegment(fmt::format("b{}", n), blobChunkBytes(n), /*commitNow=*/false);
        seg.commit(0, kBlobPageBytes);
        auto* ch = new (seg.data()) BlobChunkHeader();
        ch->chunk = n;
        ch->pages = blobPages(n);
        std::memset(blobClassTable(seg), 0xFF, blobPages(n));
        ch->magic.store(kBlobMagic, std::memory_order_release);
        b.chunks.push_back(std::move(seg));
        hdr_->blobChunkCount.store(n + 1, std::memory_order_release);
        b.carveChunk = n;
        b.carvePage = 1;
      }
      b.chunks[b.carveChunk].commit(size_t{b.carvePage} * kBlobPageBytes, kBlobPageBytes);
      page = uint64_t{b.carveChunk} << 32 | b.carvePage;
      ++b.carvePage;
    }
    const uint32_t chunk = static_cast<uint32_t>(page >> 32);
    const uint32_t pageNo = static_cast<uint32_t>(page);
    std::atomic_ref<uint8_t>(blobClassTable(b.chunks[chunk])[pageNo])
        .store(static_cast<uint8_t>(cls), std::memory_order_release);
    const uint32_t base = pageNo * kBlobPageBytes;
    for (uint32_t off = kBlobPageBytes; off >= block; off -= block) {
      b.freeBlocks[cls].push_back(uint64_t{chunk} << 32 | (base + off - block));
    }
  }
  const uint64_t at = b.freeBlocks[cls].back();
  b.freeBlocks[cls].pop_back();
  return at;
}

uint32_t* ShmStore::blobAt(uint64_t at) const {
  return reinterpret_cast<uint32_t*>(blobs_->chunks[static_cast<uint32_t>(at >> 32)].data() +
                                     static_cast<uint32_t>(at));
}

void ShmStore::blobWrite(uint64_t at, const char* bytes, uint32_t n) {
  uint32_t* dst = blobAt(at);
  for (uint32_t i = 0; i < ShmLayout::words(n); ++i) {
    uint32_t w = 0;
    std::memcpy(&w, bytes + 4 * i, std::min<size_t>(4, n - 4 * i));
    storeWord(dst + i, w);
  }
}

void ShmStore::blobFree(const BlobRef& ref) {
  if (ref.length == 0 || blobInline(ref)) return;
  const uint32_t cls = blobClassOf(blobBlockBytes(ref.length));
  std::vector<uint64_t> pieces;
  bool ok = ref.length <= kMaxPiecedBytes && blobFreeable(ref.chunk, ref.offset, cls);
  if (ok && ref.length > kMaxBlobBytes) {
    try {
      pieces = blobPieceList(ref);  // each checked: a whole block of the largest class
    } catch (const ShmCorruptionException&) {
      ok = false;
    }
  }
  if (!ok) {
    // Freeing it would hand out memory outside the heap, or a block of another size.
    noteDamage(
        fmt::format("shared memory store {} is corrupt: bad blob reference (chunk {}, "
                    "offset {}, length {}) left allocated",
                    mountPath_, ref.chunk, ref.offset, ref.length));
    return;
  }
  for (uint64_t p : pieces) blobs_->freeBlocks[kBlobClasses - 1].push_back(p);
  blobs_->freeBlocks[cls].push_back(uint64_t{ref.chunk} << 32 | ref.offset);
}

// A block this writer's heap handed out: a mapped chunk, a carved page of the block's size
// class, an offset on a block boundary.
bool ShmStore::blobFreeable(uint32_t chunk, uint32_t offset, uint32_t cls) const {
  const Blobs& b = *blobs_;
  if (chunk >= b.chunks.size()) return false;
  const uint32_t page = offset / kBlobPageBytes;
  if (page == 0 || page >= blobPages(chunk)) return false;
  const uint8_t pageCls = std::atomic_ref<uint8_t>(blobClassTable(b.chunks[chunk])[page])
                              .load(std::memory_order_relaxed);
  return pageCls == cls && (offset % kBlobPageBytes) % (kBlobMinBytes << cls) == 0;
}

void ShmStore::blobReadReplaced(const BlobRef& ref, std::string* out) {
  try {
    blobRead(ref, out);
  } catch (const ShmCorruptionException& e) {
    out->clear();
    noteDamage(e.what());
  }
}

const uint32_t* ShmStore::blobWords(uint32_t chunk, uint32_t offset, uint32_t length) const {
  Blobs& b = *blobs_;
  const uint32_t chunks = hdr_->blobChunkCount.load(std::memory_order_acquire);
  if (length > kMaxBlobBytes || chunk >= chunks || chunk >= kBlobMaxChunks) {
    corrupt(fmt::format("bad blob reference (chunk {}, length {})", chunk, length));
  }
  while (b.chunks.size() <= chunk) {
    const uint32_t n = static_cast<uint32_t>(b.chunks.size());
    ShmSegment seg = openSegment(fmt::format("b{}", n), blobChunkBytes(n));
    const auto* ch = reinterpret_cast<const BlobChunkHeader*>(seg.data());
    if (ch->magic.load(std::memory_order_acquire) != kBlobMagic || ch->chunk != n ||
        ch->pages != blobPages(n)) {
      corrupt(fmt::format("bad blob chunk {}", n));
    }
    b.chunks.push_back(std::move(seg));
  }
  const ShmSegment& seg = b.chunks[chunk];
  const uint32_t page = offset / kBlobPageBytes;
  if (page == 0 || page >= blobPages(chunk)) corrupt(fmt::format("bad blob offset {}", offset));
  const uint8_t cls =
      std::atomic_ref<uint8_t>(blobClassTable(seg)[page]).load(std::memory_order_acquire);
  if (cls >= kBlobClasses || length > (kBlobMinBytes << cls) ||
      (offset % kBlobPageBytes) % (kBlobMinBytes << cls) != 0) {
    corrupt(fmt::format("blob at offset {} does not fit its page", offset));
  }
  return reinterpret_cast<const uint32_t*>(seg.data() + offset);
}

std::vector<uint64_t> ShmStore::blobPieceList(const BlobRef& ref) const {
  if (ref.length > kMaxPiecedBytes) corrupt(fmt::format("bad blob length {}", ref.length));
  const uint32_t n = blobPieces(ref.length);
  const uint32_t* index = blobWords(ref.chunk, ref.offset, blobBlockBytes(ref.length));
  std::vector<uint64_t> pieces(n);
  for (uint32_t i = 0; i < n; ++i) {
    pieces[i] = uint64_t{loadWord(index + 2 * i + 1)} << 32 | loadWord(index + 2 * i);
    // A piece is a whole block of the largest class.
    blobWords(static_cast<uint32_t>(pieces[i] >> 32), static_cast<uint32_t>(pieces[i]),
              kMaxBlobBytes);
  }
  return pieces;
}

void ShmStore::blobRead(const BlobRef& ref, std::string* out) const {
  out->clear();
  if (blobInline(ref)) {
    const uint32_t n = inlineBlobLength(ref);
    if (n > kInlineBlobBytes) corrupt(fmt::format("bad inline blob length {}", n));
    out->assign(reinterpret_cast<const char*>(&ref), n);
    return;
  }
  if (ref.length == 0) return;
  auto copy = [out](const uint32_t* src, uint32_t n, size_t to) {
    for (uint32_t i = 0; i < ShmLayout::words(n); ++i) {
      const uint32_t w = loadWord(src + i);
      std::memcpy(out->data() + to + 4 * i, &w, 4);
    }
  };
  if (ref.length <= kMaxBlobBytes) {
    const uint32_t* src = blobWords(ref.chunk, ref.offset, ref.length);
    out->resize(ShmLayout::words(ref.length) * 4);
    copy(src, ref.length, 0);
  } else {
    // Every piece is checked before the value's memory is taken.
    const std::vector<uint64_t> pieces = blobPieceList(ref);
    out->resize(size_t{pieces.size()} * kMaxBlobBytes);
    for (size_t i = 0; i < pieces.size(); ++i) {
      const size_t from = i * kMaxBlobBytes;
      copy(blobAt(pieces[i]),  // checked by blobPieceList
           static_cast<uint32_t>(std::min<size_t>(kMaxBlobBytes, ref.length - from)), from);
    }
  }
  out->resize(ref.length);
}

// Take-over: every block not referenced by a live record is free again.
void ShmStore::blobRebuild() {
  Blobs& b = *blobs_;
  for (auto& f : b.freeBlocks) f.clear();
  b.freePages.clear();
  const uint32_t chunks = hdr_->blobChunkCount.load(std::memory_order_acquire);
  if (chunks > kBlobMaxChunks) corrupt(fmt::format("{} blob chunks", chunks));
  if (chunks == 0) return;
  BlobRef probeRef{chunks - 1, kBlobPageBytes, 1, 0};
  std::string scratch;
  blobRead(probeRef, &scratch);  // maps every chunk (the probe itself may read garbage)
  absl::flat_hash_set<uint64_t> used;
  uint32_t words[kMaxRecordWords];
  for (uint32_t c = 0; c < collections(); ++c) {
    ShmCollection& coll = *colls_[c];
    if (!coll.blobs()) continue;
    const uint32_t hw = coll.highWater();
    for (uint32_t slot = 0; slot < hw; ++slot) {
      uint32_t seq;
      if (!coll.readSlot(slot, words, &seq)) continue;
      BlobRef ref;
      std::memcpy(&ref, words + coll.recordWords() - kBlobRefWords, sizeof ref);
      if (blobInline(ref)) {
        blobRead(ref, &scratch);  // checks the inline length
        continue;
      }
      if (ref.length == 0) continue;
      // Checked, not copied: a piece list checks every piece, blobWords a single block.
      std::vector<uint64_t> blocks;
      if (ref.length > kMaxBlobBytes) {
        blocks = blobPieceList(ref);
      } else {
        blobWords(ref.chunk, ref.offset, ref.length);
      }
      blocks.push_back(uint64_t{ref.chunk} << 32 | ref.offset);
      for (uint64_t at : blocks) {
        if (!used.insert(at).second) {
          corrupt(fmt::format("two blobs share the block at {}:{}", at >> 32,
                              static_cast<uint32_t>(at)));
        }
      }
    }
  }
  for (uint32_t n = 0; n < chunks; ++n) {
    const uint8_t* table = blobClassTable(b.chunks[n]);
    for (uint32_t page = 1; page < blobPages(n); ++page) {
      const uint8_t cls = table[page];
      if (cls == 0xFF) {
        b.freePages.push_back(uint64_t{n} << 32 | page);
        continue;
      }
      if (cls >= kBlobClasses) corrupt(fmt::format("blob page {}:{} has class {}", n, page, cls));
      const uint32_t block = kBlobMinBytes << cls;
      for (uint32_t off = kBlobPageBytes; off >= block; off -= block) {
        const uint64_t at = uint64_t{n} << 32 | (page * kBlobPageBytes + off - block);
        if (!used.contains(at)) b.freeBlocks[cls].push_back(at);
      }
    }
  }
  // Pages past the carve point of the last chunk are taken in order; earlier unused pages
  // were collected above.
  b.carveChunk = chunks - 1;
  b.carvePage = blobPages(chunks - 1);
}

// ---- construction -------------------------------------------------------------------------

ShmStore::ShmStore() = default;

// Members are moved one by one (a defaulted move would do the same), then the collections are
// told where their store now is.
ShmStore::ShmStore(ShmStore&& o) noexcept {
  *this = std::move(o);
}

ShmStore& ShmStore::operator=(ShmStore&& o) noexcept {
  if (this == &o) return *this;
  bell_.reset();
  colls_.clear();
  lockFd_ = std::move(o.lockFd_);
  headerLockFd_ = std::move(o.headerLockFd_);
  schema_ = std::move(o.schema_);
  mountPath_ = std::move(o.mountPath_);
  instance_ = o.instance_;
  nameKey_ = o.nameKey_;
  mode_ = o.mode_;
  writable_ = o.writable_;
  headerSeg_ = std::move(o.headerSeg_);
  hdr_ = std::exchange(o.hdr_, nullptr);
  journal_ = std::exchange(o.journal_, nullptr);
  ring_ = std::exchange(o.ring_, nullptr);
  ringCap_ = o.ringCap_;
  ringEntryWords_ = o.ringEntryWords_;
  journalWords_ = o.journalWords_;
  colls_ = std::move(o.colls_);
  blobs_ = std::move(o.blobs_);
  bell_ = std::move(o.bell_);
  lossesSeen_ = o.lossesSeen_;
  head_ = o.head_;
  opSeq_ = o.opSeq_;
  publishNew_ = o.publishNew_;
  damage_ = std::move(o.damage_);
  forkGeneration_ = o.forkGeneration_;
  for (auto& c : colls_) c->storeIs(this);
  return *this;
}
// The writer's locks, on the lock file and on the header, are not shared with forked children
// (see shmForkReleaseAdd). The header's lock moves to a descriptor of its own: a mapping holds
// the open file description it was made from, so a lock on the mapped one would stay with a
// forked child's inherited mapping after this process ended. Nobody but readers looks at the
// header's lock (writers and removers go by the lock file), and none sees this store's header
// without the lock: a new store is not at its name yet, and a taken-over one had a dead writer.
void ShmStore::lockIs(OwnedFd lock) {
  lockFd_ = std::move(lock);
  const int mapped = headerSeg_.fd();
  if (mapped < 0) return;
  const int fd = ::open(fmt::format("/proc/self/fd/{}", mapped).c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) return;  // no /proc: the lock stays on the mapped description
  struct flock fl {};
  fl.l_type = F_UNLCK;
  fl.l_whence = SEEK_SET;
  (void)::fcntl(mapped, F_OFD_SETLK, &fl);
  if (lockWriter(fd)) {
    headerLockFd_ = OwnedFd(fd);
  } else {
    ::close(fd);
    (void)lockWriter(mapped);
  }
}

ShmStore::OwnedFd::OwnedFd(int fd) : fd_(fd) {
  if (fd_ >= 0) (void)shmForkReleaseAdd(fd_);
}

void ShmStore::OwnedFd::reset() {
  if (fd_ >= 0) {
    shmForkReleaseRemove(fd_);
    ::close(fd_);
  }
  fd_ = -1;
}

ShmStore::~ShmStore() {
  bell_.reset();
  colls_.clear();
}

void ShmStore::corrupt(const std::string& what) const {
  throw ShmCorruptionException(fmt::format("shared memory store {} is corrupt: {}",
                                           mountPath_.empty() ? "(detached)" : mountPath_, what));
}

void ShmStore::segmentMissing(const std::exception& e) const {
  if (dynamic_cast<const ShmResourceException*>(&e)) {
    // Nothing in shared memory is wrong: a writer fails with nothing changed (a taking-over
    // writer never replaces the store for it); a reader stops following until it can.
    if (writable_) throw;
    throw ShmUnreadableException(fmt::format("shared memory store {} cannot be read: {}",
                                             mountPath_.empty() ? "(detached)" : mountPath_,
                                             e.what()));
  }
  if (!dynamic_cast<const ShmPermissionException*>(&e) && hdr_ &&
      hdr_->magic.load(std::memory_order_acquire) == kMagic) {
    corrupt(e.what());
  }
  throw;  // e, which the caller is handling
}

ShmSegment ShmStore::openSegment(const std::string& suffix, size_t minBytes) const {
  try {
    ShmSegment seg = ShmSegment::open(
        segName(suffix), writable_ ? ShmSegment::Access::readWrite : ShmSegment::Access::readOnly,
        minBytes);
    if (!writable_) seg.dropDescriptor();
    return seg;
  } catch (const ShmException& e) {
    segmentMissing(e);
  }
}

void ShmStore::fault(ShmFaultPoint p) const {
  if (!writable_) return;
  if (ShmFaultHook h = gFaultHook.load(std::memory_order_acquire)) h(p);
}

std::string ShmStore::segName(const std::string& suffix) const {
  return shmSegmentName(mountPath_, instance_, nameKey_, suffix);
}

ShmSegment ShmStore::makeSegment(const std::string& suffix, size_t bytes, bool commitNow) const {
  if (!shared()) return ShmSegment::anonymous(bytes);
  return ShmSegment::create(segName(suffix), bytes, mode_, /*replace=*/true, commitNow);
}

uint32_t ShmStore::keyWords(uint32_t c) const {
  return colls_[c]->keyWords();
}
uint32_t ShmStore::valueWords(uint32_t c) const {
  return colls_[c]->valueWords();
}
bool ShmStore::nested(uint32_t c) const {
  return colls_[c]->nested();
}
uint64_t ShmStore::epoch() const {
  return hdr_->epoch.load(std::memory_order_acquire);
}

namespace {

void validateSchema(const ShmStoreSchema& schema) {
  if (schema.collections.empty() || schema.collections.size() > kMaxCollections) {
    throw ShmException(fmt::format("store {} declares {} collections", schema.rootType,
                                   schema.collections.size()));
  }
  for (size_t i = 0; i < schema.collections.size(); ++i) {
    const ShmCollectionSchema& c = schema.collections[i];
    const uint32_t keyBytes = c.keyBytes + (c.parent != kNoParent ? 4 * kParentRefWords : 0);
    if (c.name.empty() || c.name.size() >= kCollectionNameBytes ||
        c.typeName.size() >= kTypeNameBytes || c.keyBytes == 0 || keyBytes > kMaxKeyBytes ||
        c.valueBytes > kMaxValueBytes ||
        (c.parent != kNoParent &&
         (c.parent >= i || schema.collections[c.parent].kind != kCollEntities))) {
      throw ShmException(
          fmt::format("store {}: collection {} has an unsupported shape", schema.rootType, c.name));
    }
  }
}

// Per collection: key words (with the parent reference), value words (with the blob
// reference), side words and slot words.
struct CollGeometry {
  uint32_t keyWords, valueWords, children, childIndex, sideWords, slotWords;
};
std::vector<CollGeometry> geometryOf(const ShmStoreSchema& schema) {
  std::vector<CollGeometry> g(schema.collections.size());
  for (size_t i = 0; i < schema.collections.size(); ++i) {
    const ShmCollectionSchema& c = schema.collections[i];
    g[i].keyWords = words(c.keyBytes) + (c.parent != kNoParent ? kParentRefWords : 0);
    g[i].valueWords = words(c.valueBytes) + (c.blobs ? kBlobRefWords : 0);
    if (c.parent != kNoParent) g[i].childIndex = g[c.parent].children++;
  }
  for (auto& x : g) {
    x.sideWords = 0;
    uint32_t body = 1 + x.keyWords + x.valueWords;
    if (x.children != 0 || false) {
      body = alignUp(body, 2);
      x.sideWords = sideWordsFor(x.children);
    }
    x.slotWords = body + x.sideWords;
    if (x.children != 0) x.slotWords = alignUp(x.slotWords, 2);
  }
  for (size_t i = 0; i < schema.collections.size(); ++i) {
    // An entity collection without children still keeps its generation in side words.
    if (schema.collections[i].kind == kCollEntities && g[i].children == 0) {
      uint32_t body = alignUp(1 + g[i].keyWords + g[i].valueWords, 2);
      g[i].sideWords = sideWordsFor(0);
      g[i].slotWords = body + g[i].sideWords;
    }
  }
  return g;
}

Geometry headerGeometry(const ShmStoreSchema& schema, uint32_t ringCapacity) {
  const auto cg = geometryOf(schema);
  Geometry g{};
  uint32_t maxKey = 0, maxRecord = 0;
  for (const auto& c : cg) {
    maxKey = std::max(maxKey, c.keyWords);
    maxRecord = std::max(maxRecord, c.keyWords + c.valueWords);
  }
  g.ringCap = std::bit_ceil(std::clamp<uint32_t>(ringCapacity, kMinRingCapacity, kMaxRingCapacity));
  g.ringEntryWords = 1 + maxKey;
  g.journalWords = maxRecord;
  g.journalOffset = alignUp(sizeof(Header), 64);
  g.ringOffset = alignUp(g.journalOffset + 4 * g.journalWords, 64);
  g.bytes = static_cast<uint32_t>(alignUp(g.ringOffset + 4 * g.ringEntryWords * g.ringCap,
                                          static_cast<uint32_t>(ShmSegment::pageBytes())));
  return g;
}

}  // namespace

// Fills a zeroed header segment (already in headerSeg_) for a new store; the magic is stored by
// the caller, last.
void ShmStore::build(const ShmStoreSchema& schema, uint32_t ringCapacity, bool shared,
                     uint64_t instance) {
  validateSchema(schema);
  schema_ = schema;
  instance_ = instance;
  const Geometry g = headerGeometry(schema, ringCapacity);
  if (!headerSeg_.valid()) headerSeg_ = ShmSegment::anonymous(g.bytes);
  hdr_ = new (headerSeg_.data()) Header();
  nameKey_ = shared ? newInstance() : 0;
  hdr_->nameKey = nameKey_;
  hdr_->layoutVersion = kLayoutVersion;
  hdr_->headerBytes = static_cast<uint32_t>(headerSeg_.size());
  hdr_->instance = instance;
  copyName(hdr_->mountPath, kPathBytes, mountPath_);
  copyName(hdr_->rootType, kTypeNameBytes, schema.rootType);
  hdr_->collectionCount = static_cast<uint32_t>(schema.collections.size());
  hdr_->ringCapacity = g.ringCap;
  hdr_->ringEntryWords = g.ringEntryWords;
  hdr_->ringOffset = g.ringOffset;
  hdr_->journalOffset = g.journalOffset;
  hdr_->journalWords = g.journalWords;
  hdr_->mode = static_cast<uint32_t>(mode_);
  hdr_->owner.store(static_cast<uint64_t>(::getpid()), std::memory_order_relaxed);
  hdr_->epoch.store(1, std::memory_order_relaxed);
  const auto cg = geometryOf(schema);
  for (size_t i = 0; i < schema.collections.size(); ++i) {
    const ShmCollectionSchema& c = schema.collections[i];
    CollectionDesc& d = hdr_->colls[i];
    copyName(d.name, kCollectionNameBytes, c.name);
    copyName(d.typeName, kTypeNameBytes, c.typeName);
    d.keyFingerprint = c.keyFingerprint;
    d.valueFingerprint = c.valueFingerprint;
    d.kind = c.kind;
    d.parent = c.parent;
    d.childIndex = cg[i].childIndex;
    d.children = cg[i].children;
    d.keyBytes = c.keyBytes + (c.parent != kNoParent ? 4 * kParentRefWords : 0);
    d.valueBytes = c.valueBytes;
    d.blobs = c.blobs ? 1 : 0;
    d.keyWords = cg[i].keyWords;
    d.valueWords = cg[i].valueWords;
    d.sideWords = cg[i].sideWords;
    d.slotWords = cg[i].slotWords;
  }
  ringCap_ = g.ringCap;
  ringEntryWords_ = g.ringEntryWords;
  journalWords_ = g.journalWords;
  journal_ = reinterpret_cast<uint32_t*>(headerSeg_.data() + g.journalOffset);
  ring_ = reinterpret_cast<uint32_t*>(headerSeg_.data() + g.ringOffset);
  writable_ = true;
  blobs_ = std::make_unique<Blobs>();
  colls_.clear();
  for (uint32_t i = 0; i < schema.collections.size(); ++i) {
    colls_.push_back(std::make_unique<ShmCollection>(*this, i));
  }
  for (auto& c : colls_) c->buildIndex(kMinIndexCapacity);
}

ShmStore ShmStore::detached(const ShmStoreSchema& schema) {
  ShmStore s;
  s.build(schema, kMinRingCapacity, /*shared=*/false, 0);
  s.hdr_->magic.store(kMagic, std::memory_order_release);
  return s;
}

void ShmStore::attach(ShmSegment seg, const ShmStoreSchema* schema, bool writable) {
  // Kept from the start: a writer that finds the header damaged retires it through this
  // mapping, so that readers still mapping it learn of the new store.
  headerSeg_ = std::move(seg);
  const size_t bytes = headerSeg_.size();
  const auto* h = reinterpret_cast<const Header*>(headerSeg_.data());
  if (bytes < sizeof(Header)) corrupt(fmt::format("header segment holds {} bytes", bytes));
  const uint64_t magic = h->magic.load(std::memory_order_acquire);
  if (magic == kRetiredMagic)
    throw ShmReplacedException(fmt::format("shared memory store {} was replaced", mountPath_));
  if (magic != kMagic) corrupt("bad magic number in the header");
  if (h->layoutVersion != kLayoutVersion) {
    throw ShmException(fmt::format(
        "shared memory store {} has layout version {}, this program reads version {}: it was "
        "written by another revision",
        mountPath_, h->layoutVersion, kLayoutVersion));
  }
  // A header names the path it was created at (paths are shorter than the field): another
  // store's header copied under this name, or a damaged one, is not taken for this store.
  if (nameOf(h->mountPath, kPathBytes) != mountPath_)
    corrupt("the header names another mount path");
  const std::string rootType = nameOf(h->rootType, kTypeNameBytes);
  const uint32_t count = h->collectionCount;
  if (count == 0 || count > kMaxCollections) corrupt(fmt::format("{} collections", count));
  // The store's own description of its collections.
  ShmStoreSchema actual;
  actual.rootType = rootType;
  for (uint32_t i = 0; i < count; ++i) {
    const CollectionDesc& d = h->colls[i];
    ShmCollectionSchema c;
    c.name = nameOf(d.name, kCollectionNameBytes);
    c.typeName = nameOf(d.typeName, kTypeNameBytes);
    c.keyFingerprint = d.keyFingerprint;
    c.valueFingerprint = d.valueFingerprint;
    c.kind = d.kind;
    c.parent = d.parent;
    const uint32_t parentBytes = d.parent != kNoParent ? 4 * kParentRefWords : 0;
    if (d.keyBytes < parentBytes)
      corrupt(fmt::format("collection {}: key of {} bytes", i, d.keyBytes));
    c.keyBytes = d.keyBytes - parentBytes;
    c.valueBytes = d.valueBytes;
    c.blobs = d.blobs != 0;
    actual.collections.push_back(c);
  }
  if (schema) {
    auto describe = [](const ShmStoreSchema& s) {
      std::string out = s.rootType + " {";
      for (const auto& c : s.collections) {
        out +=
            fmt::format(" {}: {} (key {} bytes, value {} bytes, layout {:016x}/{:016x})", c.name,
                        c.typeName, c.keyBytes, c.valueBytes, c.keyFingerprint, c.valueFingerprint);
      }
      return out + " }";
    };
    bool same = actual.rootType == schema->rootType &&
                actual.collections.size() == schema->collections.size();
    std::string differs;  // the first collection that differs, in a few words
    for (size_t i = 0; same && i < schema->collections.size(); ++i) {
      const auto& a = actual.collections[i];
      const auto& b = schema->collections[i];
      same = a.name == b.name && a.typeName == b.typeName && a.keyFingerprint == b.keyFingerprint &&
             a.valueFingerprint == b.valueFingerprint && a.kind == b.kind && a.parent == b.parent &&
             a.keyBytes == b.keyBytes && a.valueBytes == b.valueBytes && a.blobs == b.blobs;
      if (!same) {
        differs = fmt::format(
            " (collection {}: {} {} key {:016x}/{} bytes, value {:016x}/{} bytes, expected {} {} "
            "key {:016x}/{} bytes, value {:016x}/{} bytes: another revision of the type, or "
            "damage)",
            i, a.name, a.typeName, a.keyFingerprint, a.keyBytes, a.valueFingerprint, a.valueBytes,
            b.name, b.typeName, b.keyFingerprint, b.keyBytes, b.valueFingerprint, b.valueBytes);
      }
    }
    if (!same) {
      if (differs.empty()) {
        throw ShmException(fmt::format("shared memory store {} holds {}, not {}", mountPath_,
                                       describe(actual), describe(*schema)));
      }
      throw ShmException(fmt::format("shared memory store {} holds another layout of {}{}",
                                     mountPath_, actual.rootType, differs));
    }
  }
  try {
    validateSchema(actual);
  } catch (const ShmException& e) {
    corrupt(e.what());
  }
  const Geometry g = headerGeometry(actual, h->ringCapacity);
  const auto cg = geometryOf(actual);
  for (uint32_t i = 0; i < count; ++i) {
    const CollectionDesc& d = h->colls[i];
    if (d.keyWords != cg[i].keyWords || d.valueWords != cg[i].valueWords ||
        d.sideWords != cg[i].sideWords || d.slotWords != cg[i].slotWords ||
        d.children != cg[i].children || d.childIndex != cg[i].childIndex) {
      corrupt(fmt::format("inconsistent geometry of collection {}", i));
    }
  }
  if (h->ringCapacity != g.ringCap || h->ringEntryWords != g.ringEntryWords ||
      h->journalWords != g.journalWords || h->journalOffset != g.journalOffset ||
      h->ringOffset != g.ringOffset || h->headerBytes != bytes || bytes < g.bytes) {
    corrupt("inconsistent header geometry");
  }
  schema_ = schema ? *schema : actual;
  instance_ = h->instance;
  nameKey_ = h->nameKey;
  mode_ = static_cast<mode_t>(h->mode & 07777);
  hdr_ = reinterpret_cast<Header*>(headerSeg_.data());
  ringCap_ = g.ringCap;
  ringEntryWords_ = g.ringEntryWords;
  journalWords_ = g.journalWords;
  journal_ = reinterpret_cast<uint32_t*>(headerSeg_.data() + g.journalOffset);
  ring_ = reinterpret_cast<uint32_t*>(headerSeg_.data() + g.ringOffset);
  writable_ = writable;
  blobs_ = std::make_unique<Blobs>();
  colls_.clear();
  for (uint32_t i = 0; i < count; ++i) colls_.push_back(std::make_unique<ShmCollection>(*this, i));
  for (auto& c : colls_) c->attach();
  lossesSeen_ = ShmGuard::losses();
}

ShmStore ShmStore::openReader(const std::string& mountPath, const ShmStoreSchema* schema) {
  const std::string name = shmStoreName(mountPath);
  for (int attempt = 0;; ++attempt) {
    ShmStore s;
    s.mountPath_ = mountPath;
    ShmSegment seg = ShmSegment::open(name, ShmSegment::Access::readOnly, 8);
    try {
      s.attach(std::move(seg), schema, /*writable=*/false);
      return s;
    } catch (const ShmReplacedException&) {
      // A writer replaced the store between our open and our read: open the new one.
      if (attempt < kOpenAttempts) continue;
      throw;
    }
  }
}

ShmStore ShmStore::openWriter(const std::string& mountPath, const ShmStoreSchema& schema,
                              mode_t mode, uint32_t ringCapacity) {
  validateSchema(schema);
  // Permission bits only, and the owner's read and write, which its take-overs need: special
  // bits on a file everyone may map are not what anyone asks for on purpose.
  if ((mode & ~mode_t{0777}) != 0 || (mode & 0600) != 0600) {
    throw ShmException(
        fmt::format("shared memory store {}: mode {:04o} is not permission bits that include 0600",
                    mountPath, static_cast<unsigned>(mode)));
  }
  if (ringCapacity > kMaxRingCapacity) {
    throw ShmException(fmt::format("shared memory store {}: a change log of {} entries exceeds {}",
                                   mountPath, ringCapacity, kMaxRingCapacity));
  }
  const std::string name = shmStoreName(mountPath);
  // A new store: every segment is built under this instance's names, the header under a
  // temporary name, then renamed into place - unless another process got there first.
  auto create = [&](bool replace) -> std::optional<ShmStore> {
    ShmStore s;
    s.mountPath_ = mountPath;
    s.mode_ = mode;
    const uint64_t instance = newInstance();
    s.instance_ = instance;
    const std::string temp = shmStoreSegmentName(mountPath, instance, "new");
    try {
      s.headerSeg_ = ShmSegment::create(temp, headerGeometry(schema, ringCapacity).bytes, mode,
                                        /*replace=*/true);
      (void)lockWriter(s.headerSeg_.fd());  // for readers' eyes; the lock file is what counts
      s.build(schema, ringCapacity, /*shared=*/true, instance);
      s.startBell();
      s.fault(ShmFaultPoint::creationBuilt);
      s.hdr_->magic.store(kMagic, std::memory_order_release);
      if (!ShmSegment::rename(temp, name, replace)) {
        s.unlinkInstance();
        return std::nullopt;
      }
      s.headerSeg_.nameIs(name);
    } catch (...) {
      s.unlinkInstance();
      throw;
    }
    return s;
  };
  bool created = false;
  OwnedFd lock(lockStore(mountPath, mode,
                         fmt::format("open shared memory store {} for writing", mountPath),
                         "already has", &created));
  // A lock file made for a store this process then fails to open is not left behind for
  // someone who may.
  try {
    for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
      int fd = -1;
      const HeaderOpen opened = openHeaderLocked(
          name, mountPath, "open shared memory store {} for writing", "already has", &fd);
      if (opened == HeaderOpen::absent) {
        if (std::optional<ShmStore> s = create(/*replace=*/false)) {
          // What a creator killed before naming its store left (it held the lock we hold now).
          s->cleanLeftovers();
          s->lockIs(std::move(lock));
          return std::move(*s);
        }
        continue;  // someone else created it meanwhile
      }
      if (opened == HeaderOpen::replaced) continue;  // try the one there now
      // The store is ours: take it over, or build it anew when it is damaged.
      ShmStore s;
      s.mountPath_ = mountPath;
      s.mode_ = mode;
      s.writable_ = true;
      s.fault(ShmFaultPoint::takeOverLocked);
      struct stat st {};
      const size_t bytes = ::fstat(fd, &st) == 0 ? static_cast<size_t>(st.st_size) : 0;
      ShmSegment old;
      if (bytes >= sizeof(Header)) {
        old = ShmSegment::map(fd, name, bytes, ShmSegment::Access::readWrite);
      } else {
        old = ShmSegment::map(fd, name, 0 + ShmSegment::pageBytes(), ShmSegment::Access::readWrite);
      }
      try {
        if (bytes < sizeof(Header)) s.corrupt(fmt::format("header segment holds {} bytes", bytes));
        const auto* h = reinterpret_cast<const Header*>(old.data());
        if (h->magic.load(std::memory_order_acquire) == kMagic &&
            nameOf(h->rootType, kTypeNameBytes) != schema.rootType) {
          throw ShmException(fmt::format("shared memory store {} holds a {}, not a {}", mountPath,
                                         nameOf(h->rootType, kTypeNameBytes), schema.rootType));
        }
        ShmSegment header = std::move(old);
        try {
          s.attach(std::move(header), &schema, /*writable=*/true);
          s.writable_ = true;
          s.recover();
          // Recovery completes what a dead writer left half done; what it cannot explain (parents
          // without identity, chains through other parents' pages, stray index entries) is
          // damage, which a writer must not build on.
          if (std::string problem = shmStoreProblem(s); !problem.empty()) s.corrupt(problem);
          s.startBell();
          s.cleanLeftovers();
          s.wakeAllReaders();
          s.lockIs(std::move(lock));
          return s;
        } catch (const ShmCorruptionException&) {
          old = std::move(s.headerSeg_);
          if (!old.valid()) old = std::move(header);
          throw;
        } catch (const ShmPermissionException&) {
          throw;
        } catch (const ShmResourceException&) {
          throw;  // this process's limits: the store is whole, and stays as it is
        } catch (const ShmException& e) {
          // Another revision's layout, a missing segment: the data is ours to republish.
          if (std::string_view(e.what()).find("holds a ") != std::string_view::npos) throw;
          old = std::move(s.headerSeg_);
          if (!old.valid()) old = std::move(header);
          throw ShmCorruptionException(e.what());
        }
      } catch (const ShmCorruptionException&) {
        // Damaged: a new store replaces it (we keep the old one's lock until it is retired, so
        // nobody else can take the old one over meanwhile).
        std::optional<ShmStore> fresh = create(/*replace=*/true);
        unlinkDeadBell(old);
        fresh->retire(old);
        fresh->cleanLeftovers();
        fresh->lockIs(std::move(lock));
        return std::move(*fresh);
      }
    }
    throw ShmException(
        fmt::format("cannot open shared memory store {}: it keeps being replaced", mountPath));
  } catch (...) {
    if (created) ::unlink((std::string(kShmDirectory) + lockName(mountPath)).c_str());
    throw;
  }
}

void ShmStore::startBell() {
  if (!shared()) return;
  try {
    bell_ =
        std::make_unique<ShmBellServer>(shmBellPath(instance_, nameKey_), mode_, &hdr_->wakeWord);
    hdr_->flags.fetch_and(~kFlagBellless, std::memory_order_release);
  } catch (const ShmException&) {
    // Without a doorbell every publication wakes the readers: slower, never wrong.
    bell_.reset();
    hdr_->flags.fetch_or(kFlagBellless, std::memory_order_release);
  }
}

namespace {
// The names in the namespace's directory that start with `prefix`: the segments of one store
// instance ("<store>@<instance>.") or of every instance at a path ("<store>@").
std::vector<std::string> entriesStartingWith(const std::string& prefix) {
  std::vector<std::string> out;
  for (const std::string& n : shmNamespaceEntries()) {
    if (n.compare(0, prefix.size(), prefix) == 0) out.push_back(n);
  }
  return out;
}
}  // namespace

void ShmStore::unlinkInstance() const {
  if (instance_ == 0) return;
  for (const std::string& n :
       entriesStartingWith(shmStoreSegmentName(mountPath_, instance_, "").substr(1))) {
    ShmSegment::unlink("/" + n);
  }
}

void ShmStore::wakeAllReaders() {
  hdr_->wakeWord.fetch_add(1, std::memory_order_seq_cst);
  futexWake(&hdr_->wakeWord, INT_MAX, /*shared=*/true);
}

// The doorbell of a writer that was killed is left behind under the store's instance name (a
// writer that exits removes its own). Called with the store's lock held: its writer is dead.
bool ShmStore::unlinkDeadBell(const ShmSegment& header) {
  if (!header.valid() || header.size() < sizeof(Header) || header.lost()) return false;
  const auto* h = reinterpret_cast<const Header*>(header.data());
  const std::string bell = shmBellPath(h->instance, h->nameKey);
  struct stat st {};
  return ::lstat(bell.c_str(), &st) == 0 && S_ISSOCK(st.st_mode) && ::unlink(bell.c_str()) == 0;
}

// Marks a replaced (or removed) header so that readers still mapping it notice, and wakes
// those asleep on its wake word. Only the magic and the wake word are written, both in the
// first page: a header cut short gets that page back (zeros) first. Called with the store's
// lock held.
void ShmStore::retire(ShmSegment& old) {
  static_assert(offsetof(Header, wakeWord) + sizeof(Header::wakeWord) <= 4096);
  const auto page = static_cast<off_t>(ShmSegment::pageBytes());
  struct stat st {};
  if (old.valid() && old.size() >= static_cast<size_t>(page) && !old.lost() &&
      ::fstat(old.fd(), &st) == 0 && (st.st_size >= page || ::ftruncate(old.fd(), page) == 0)) {
    auto* h = reinterpret_cast<Header*>(old.data());
    h->magic.store(kRetiredMagic, std::memory_order_release);
    h->wakeWord.fetch_add(1, std::memory_order_seq_cst);
    futexWake(&h->wakeWord, INT_MAX, /*shared=*/true);
  }
  old = ShmSegment();
}

// A creator killed before it renamed its header into place left the header under its
// temporary name ("<store>@<instance>.new") and, once its doorbell was up, the doorbell's
// socket, whose name only that header records. The socket goes only when the header belongs to
// the instance its name says and nobody answers at the socket: a header planted under that
// name cannot make us remove a live writer's doorbell.
bool ShmStore::unlinkBellOfTempHeader(const std::string& entry) {
  static constexpr std::string_view kTemp = ".new";
  const size_t at = entry.rfind('@');
  if (at == std::string::npos || entry.size() != at + 1 + 16 + kTemp.size() ||
      std::string_view(entry).substr(at + 17) != kTemp) {
    return false;
  }
  uint64_t instance = 0;
  const char* first = entry.data() + at + 1;
  if (std::from_chars(first, first + 16, instance, 16).ptr != first + 16) return false;
  ShmSegment header;
  try {
    header = ShmSegment::open("/" + entry, ShmSegment::Access::readOnly);
  } catch (const Exception&) {
    return false;  // gone meanwhile, empty, or not ours to read
  }
  if (header.size() < sizeof(Header) || header.lost()) return false;
  const auto* h = reinterpret_cast<const Header*>(header.data());
  if (h->instance != instance) return false;
  const int fd = shmBellConnect(shmBellPath(h->instance, h->nameKey));
  if (fd >= 0) ::close(fd);
  return fd == -ECONNREFUSED && unlinkDeadBell(header);
}

// Removes segments of this store's path that the store does not use: another instance's
// (replaced or half-created stores) and this instance's that a dead writer left behind.
void ShmStore::cleanLeftovers() const {
  const std::string mine = shmStoreSegmentName(mountPath_, instance_, "").substr(1);
  std::vector<std::string> inUse;
  for (const auto& c : colls_) c->suffixesInUse(inUse);
  for (uint32_t n = 0; n < blobs_->chunks.size(); ++n) inUse.push_back(fmt::format("b{}", n));
  for (std::string& s : inUse) s = shmSegmentSuffix(instance_, nameKey_, s);
  const std::string lock = lockName(mountPath_).substr(1);
  for (const std::string& n : entriesStartingWith(shmStoreName(mountPath_).substr(1) + "@")) {
    if (n == lock) continue;
    if (n.compare(0, mine.size(), mine) == 0) {
      const std::string suffix = n.substr(mine.size());
      if (std::find(inUse.begin(), inUse.end(), suffix) != inUse.end()) continue;
    }
    unlinkBellOfTempHeader(n);
    ::unlink((std::string(kShmDirectory) + "/" + n).c_str());
  }
}

size_t ShmStore::remove(const std::string& mountPath) {
  const std::string name = shmStoreName(mountPath);
  const std::string prefix = name.substr(1) + "@";
  const std::string lock = lockName(mountPath);
  auto leftovers = [&] {
    std::vector<std::string> names = entriesStartingWith(prefix);
    std::erase(names, lock.substr(1));
    return names;
  };
  // Every writer, creating a store or taking it over, holds its lock: what is left is dead.
  auto unlinkDead = [&](const std::vector<std::string>& names) {
    size_t removed = 0;
    for (const std::string& n : names) {
      if (unlinkBellOfTempHeader(n)) ++removed;
      if (::unlink((std::string(kShmDirectory) + "/" + n).c_str()) == 0) ++removed;
    }
    return removed;
  };
  bool created = false;
  OwnedFd held(lockStore(mountPath, 0600, fmt::format("remove shared memory store {}", mountPath),
                         "has", &created));
  // The lock file goes last, while held (a process that opened it meanwhile finds its lock on a
  // file no longer at the name and opens the name again); one this call made is not counted.
  auto unlinkLock = [&] {
    const bool gone = ::unlink((std::string(kShmDirectory) + lock).c_str()) == 0;
    return gone && !created ? size_t{1} : size_t{0};
  };
  for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
    // Something other than a file at the header's name (a FIFO, a socket, a directory someone
    // made there) is no store: it only keeps writers out, and goes like a dead writer's leftovers.
    size_t planted = 0;
    struct stat pst {};
    const std::string headerFile = std::string(kShmDirectory) + name;
    if (::lstat(headerFile.c_str(), &pst) == 0 && !S_ISREG(pst.st_mode)) {
      if ((S_ISDIR(pst.st_mode) ? ::rmdir(headerFile.c_str()) : ::unlink(headerFile.c_str())) !=
          0) {
        throw ShmException(fmt::format("cannot remove {} at the name of shared memory store {}: {}",
                                       S_ISDIR(pst.st_mode) ? "a directory" : "a special file",
                                       mountPath, std::strerror(errno)));
      }
      planted = 1;
    }
    int fd = -1;
    const HeaderOpen opened =
        openHeaderLocked(name, mountPath, "remove shared memory store {}", "has", &fd);
    if (opened == HeaderOpen::absent) {
      // No header: only what writers that died while creating it left behind.
      const size_t removed = planted + unlinkDead(leftovers()) + unlinkLock();
      if (removed == 0) throw ShmException(fmt::format("no shared memory store at {}", mountPath));
      return removed;
    }
    if (opened == HeaderOpen::replaced) continue;  // look at the one there now
    // Holding the write lock, nobody can take the store over while it is taken apart.
    // The lock lasts as long as the descriptor, which the mapping keeps until the end.
    struct stat st {};
    const size_t bytes = ::fstat(fd, &st) == 0 ? static_cast<size_t>(st.st_size) : 0;
    ShmSegment header = ShmSegment::map(fd, name, std::max(bytes, ShmSegment::pageBytes()),
                                        ShmSegment::Access::readWrite);
    size_t removed = planted + (unlinkDeadBell(header) ? 1 : 0);
    // Readers still mapping it notice at their next look, as when a writer replaces it.
    retire(header);
    removed += ::unlink((std::string(kShmDirectory) + name).c_str()) == 0 ? 1 : 0;
    removed += unlinkDead(leftovers()) + unlinkLock();
    return removed;
  }
  unlinkLock();
  throw ShmException(fmt::format("shared memory store {} keeps being replaced", mountPath));
}

// A new writer continues a store: it finishes or undoes the journaled write, rebuilds its
// bookkeeping from the slots (reclaiming what the dead writer left half done), and advances
// the epoch so that readers resynchronise.
void ShmStore::recover() {
  const uint32_t jseq = hdr_->journalSeq.load(std::memory_order_acquire);
  if (jseq & 1) {
    // Died while filling the journal: the slot itself was not touched yet.
    hdr_->journalSeq.store(jseq + 1, std::memory_order_release);
  } else {
    const uint32_t c = hdr_->journalColl.load(std::memory_order_relaxed);
    const uint32_t slot = hdr_->journalSlot.load(std::memory_order_relaxed);
    const uint32_t oldSeq = hdr_->journalSlotSeq.load(std::memory_order_relaxed);
    if (c < colls_.size() && slot < colls_[c]->highWater()) {
      ShmCollection& coll = *colls_[c];
      uint32_t* s = coll.slotPtr(slot);
      const uint32_t seq = loadWord(s);
      if ((seq & kSeqWriting) && (seq & ~kSeqWriting) == oldSeq) {
        if (oldSeq & kSeqOccupied) storeWords(s + 1, journal_, coll.recordWords());
        storeWord(s, ((oldSeq & ~kSeqFlags) + kSeqStep) | (oldSeq & kSeqOccupied),
                  std::memory_order_release);
      }
    }
  }
  for (auto& c : colls_) c->recover();
  blobRebuild();
  head_ = hdr_->ringHead.load(std::memory_order_relaxed);
  opSeq_ = hdr_->opSeq.load(std::memory_order_relaxed);
  if (opSeq_ & 1) ++opSeq_;
  hdr_->opSeq.store(opSeq_, std::memory_order_release);
  hdr_->owner.store(static_cast<uint64_t>(::getpid()), std::memory_order_release);
  hdr_->epoch.fetch_add(1, std::memory_order_release);
}

// The write lock goes with the header's descriptor, when the store is destroyed.
void ShmStore::releaseOwnership() {
  if (!hdr_ || !shared() || !writable_) return;
  if (!forkedWriterCopy()) hdr_->owner.store(0, std::memory_order_release);
  bell_.reset();
}

void ShmStore::refuseForkedCopy() const {
  if (forkedWriterCopy()) {
    throw ShmException(fmt::format(
        "shared memory store {} is written by the process this one was forked from: a forked "
        "child does not write it (it may mount the store again once that process let it go)",
        mountPath_));
  }
}

void ShmStore::checkIntact() const {
  if (ShmGuard::losses() == lossesSeen_) return;
  if (headerSeg_.lost()) corrupt("the header segment was truncated");
  for (const auto& c : colls_) {
    if (c->lost()) corrupt(fmt::format("a segment of collection {} was truncated", c->index()));
  }
  for (const auto& b : blobs_->chunks) {
    if (b.lost()) corrupt("a blob segment was truncated");
  }
  lossesSeen_ = ShmGuard::losses();
}

bool ShmStore::bellless() const {
  return (hdr_->flags.load(std::memory_order_acquire) & kFlagBellless) != 0;
}

std::string ShmStore::bellPath() const {
  return shared() ? shmBellPath(instance_, nameKey_) : std::string();
}

bool ShmStore::writerAlive() const {
  if (!shared()) return writable_;
  if (writable_) return true;
  if (lockedByWriter(headerSeg_.fd())) return true;
  // Someone's read lock on the header keeps a writer from locking it: the lock file tells,
  // to those who may open it.
  try {
    const int fd = shmOpenFile(lockName(mountPath_), O_RDONLY);
    if (fd < 0) return false;
    const bool alive = lockedByWriter(fd);
    ::close(fd);
    return alive;
  } catch (const ShmException&) {
    return false;
  }
}

uint64_t ShmStore::bellWakes() const {
  return bell_ ? bell_->wakes() : 0;
}

// ---- operations ---------------------------------------------------------------------------

void ShmStore::beginOp(uint32_t c, uint64_t kind, uint32_t slot) {
  ++opSeq_;  // odd
  hdr_->opDesc.store(opDescOf(c, kind, slot), std::memory_order_relaxed);
  hdr_->opSeq.store(opSeq_, std::memory_order_release);
}

void ShmStore::endOp() {
  ++opSeq_;  // even
  hdr_->opSeq.store(opSeq_, std::memory_order_release);
}

// The count a word stands for, given the operation in progress: a writer killed mid-operation
// leaves opSeq odd; a count the operation did not update yet misses its record when the slot
// already shows the change.
uint32_t ShmStore::countWithOp(const std::atomic<uint64_t>& word, uint32_t c, uint32_t slot,
                               uint64_t parent) const {
  for (int attempt = 0;; ++attempt) {
    const uint64_t s1 = hdr_->opSeq.load(std::memory_order_acquire);
    const uint64_t w = word.load(std::memory_order_acquire);
    const uint64_t d = hdr_->opDesc.load(std::memory_order_acquire);
    std::atomic_thread_fence(std::memory_order_acquire);
    if (hdr_->opSeq.load(std::memory_order_acquire) != s1 && attempt < 64) continue;
    uint32_t n = countOf(w);
    if (!(s1 & 1) || opColl(d) != c || tagOf(w) == static_cast<uint32_t>(s1 >> 1)) return n;
    const ShmCollection& coll = *colls_[c];
    const uint32_t target = opSlot(d);
    if (target >= coll.highWater() || (slot != kNoSlot && target != slot)) return n;
    const uint32_t seq = loadWord(coll.slotPtr(target), std::memory_order_acquire);
    if (parent != 0 && coll.nested()) {
      uint32_t words[kMaxRecordWords];
      uint32_t sq;
      const bool occupied = coll.readSlot(target, words, &sq);
      // A removed member's words still name its parent; a new one names it once written.
      if (refOfWords(coll.slotPtr(target) + 1) != parent) return n;
      (void)occupied;
    }
    if (opKind(d) == kOpInsert && (seq & kSeqOccupied)) return n + 1;
    if (opKind(d) == kOpRemove && !(seq & kSeqOccupied)) return n - 1;
    return n;
  }
}

// Counts live in the header: a lost slot chunk does not make them unreadable.
uint32_t ShmStore::count(uint32_t c) const {
  if (headerSeg_.lost()) corrupt("the header segment was truncated");
  return countBound(c, countWithOp(hdr_->colls[c].count, c, kNoSlot, 0));
}

// A reader takes counts from the header and from parents' slots, which a damaged store may
// fill with anything, and sizes process memory by them (maps, copies): no count it reports
// exceeds the slots below the collection's high-water mark, whose chunks exist.
uint32_t ShmStore::countBound(uint32_t c, uint32_t n) const {
  if (writable_) return n;
  return std::min(n, colls_[c]->readableHighWater());
}

uint32_t ShmStore::childCount(uint32_t c, uint64_t parent) const {
  checkIntact();  // a parent's count lives in its slot
  const ShmCollection& coll = *colls_[c];
  const ShmCollection& p = *colls_[coll.parent()];
  if (!p.alive(parent)) return 0;
  const uint32_t* word = p.side(refSlot(parent)) + childBlock(coll.childIndex()) + kChildCount;
  const auto& atom = *reinterpret_cast<const std::atomic<uint64_t>*>(word);
  const uint32_t n = countBound(c, countWithOp(atom, c, kNoSlot, parent));
  const bool live = p.alive(parent);
  checkIntact();
  return live ? n : 0;
}

std::optional<uint32_t> ShmStore::childVersion(uint32_t c, uint64_t parent) const {
  const ShmCollection& coll = *colls_[c];
  const ShmCollection& p = *colls_[coll.parent()];
  if (!p.alive(parent)) return std::nullopt;
  const uint32_t v =
      loadWord(p.side(refSlot(parent)) + childBlock(coll.childIndex()) + kChildVersion,
               std::memory_order_acquire);
  // Still the same parent after the read: the counter read was its own.
  std::atomic_thread_fence(std::memory_order_acquire);
  if (!p.alive(parent)) return std::nullopt;
  return v;
}

namespace {
// Reads a record and its blob consistently: the slot must not have changed while the blob was
// copied (a blob is freed only after its record was rewritten or removed).
template <class Read>
uint32_t readWithBlob(const ShmStore& store, const ShmCollection& coll, ShmStore::Record* out,
                      Read&& read) {
  for (int attempt = 0;; ++attempt) {
    uint32_t seq = 0;
    const uint32_t slot = read(out->words, &seq);
    out->seq = seq;
    if (slot == ShmStore::kNoSlot || !coll.blobs()) return slot;
    BlobRef ref;
    std::memcpy(&ref, out->words + coll.recordWords() - kBlobRefWords, sizeof ref);
    try {
      const_cast<ShmStore&>(store).readBlob(ref, &out->blob);
    } catch (const ShmCorruptionException&) {
      if (coll.unchanged(slot, seq) || attempt > 1000) throw;
      continue;
    }
    if (coll.unchanged(slot, seq)) return slot;
    if (attempt > 1000000) store.corrupt("a record keeps changing while its blob is read");
  }
}
}  // namespace

bool ShmStore::unchanged(uint32_t c, const uint32_t* keyWords, uint32_t slot, uint32_t seq) const {
  const ShmCollection& coll = *colls_[c];
  // A removed parent goes before its members are emptied: look at the parent after the slot.
  return coll.unchanged(slot, seq) &&
         (!coll.nested() || colls_[coll.parent()]->alive(refOfWords(keyWords)));
}

void ShmStore::readBlob(const BlobRef& ref, std::string* out) const {
  blobRead(ref, out);
}

uint32_t ShmStore::find(uint32_t c, const uint32_t* keyWords, Record* out) const {
  checkIntact();
  Record scratch;
  Record* r = out ? out : &scratch;
  const ShmCollection& coll = *colls_[c];
  if (coll.nested() && !colls_[coll.parent()]->alive(refOfWords(keyWords))) return kNoSlot;
  const uint32_t slot = readWithBlob(*this, coll, r, [&](uint32_t* words, uint32_t* seq) {
    return coll.find(keyWords, words, seq);
  });
  // A member whose parent went away meanwhile is gone with it.
  const bool gone =
      slot != kNoSlot && coll.nested() && !colls_[coll.parent()]->alive(refOfWords(keyWords));
  // Whatever was read came from memory that may have been lost while it was read.
  checkIntact();
  return gone ? kNoSlot : slot;
}

uint32_t ShmStore::seek(uint32_t c, uint32_t from, Record* out) const {
  checkIntact();
  const ShmCollection& coll = *colls_[c];
  const uint32_t slot = readWithBlob(*this, coll, out, [&](uint32_t* words, uint32_t* seq) {
    return coll.seek(from, words, seq);
  });
  checkIntact();
  return slot;
}

uint32_t ShmStore::seekChild(uint32_t c, uint64_t parent, uint32_t from, Record* out) const {
  return walkChild(c, parent, from, false, out);
}

uint32_t ShmStore::nextChild(uint32_t c, uint64_t parent, uint32_t after, Record* out) const {
  return walkChild(c, parent, after, true, out);
}

uint32_t ShmStore::walkChild(uint32_t c, uint64_t parent, uint32_t from, bool after,
                             Record* out) const {
  checkIntact();
  const ShmCollection& coll = *colls_[c];
  const uint32_t slot = readWithBlob(*this, coll, out, [&](uint32_t* words, uint32_t* seq) {
    return coll.seekChild(parent, from, after, words, seq);
  });
  const bool gone = slot != kNoSlot && !colls_[coll.parent()]->alive(parent);
  checkIntact();
  return gone ? kNoSlot : slot;
}

bool ShmStore::alive(uint32_t c, uint64_t ref) const {
  return colls_[c]->alive(ref);
}

uint64_t ShmStore::refOf(uint32_t c, uint32_t slot) const {
  return parentRef(slot, loadWord(colls_[c]->side(slot) + kSideGen, std::memory_order_acquire));
}

bool ShmStore::put(uint32_t c, const uint32_t* words, std::string_view blob, Record* old) {
  refuseForkedCopy();
  checkIntact();
  ShmCollection& coll = *colls_[c];
  uint32_t buf[kMaxRecordWords];
  const uint32_t* w = words;
  if (coll.blobs()) {
    // The new blob is written before the record that refers to it.
    std::memcpy(buf, words, 4 * coll.recordWords());
    const BlobRef ref = blobAlloc(blob);
    std::memcpy(buf + coll.recordWords() - kBlobRefWords, &ref, sizeof ref);
    w = buf;
  }
  uint32_t oldWords[kMaxRecordWords];
  uint32_t slot;
  bool added;
  try {
    // The old words only when someone reads them: the caller, or the blob they refer to.
    added = coll.put(w, old || coll.blobs() ? oldWords : nullptr, &slot);
  } catch (...) {
    if (coll.blobs()) {
      BlobRef ref;
      std::memcpy(&ref, buf + coll.recordWords() - kBlobRefWords, sizeof ref);
      blobFree(ref);
    }
    throw;
  }
  if (!added && coll.blobs()) {
    BlobRef ref;
    std::memcpy(&ref, oldWords + coll.recordWords() - kBlobRefWords, sizeof ref);
    if (old) blobReadReplaced(ref, &old->blob);
    blobFree(ref);  // after the record no longer refers to it
  }
  if (!added && old) std::memcpy(old->words, oldWords, 4 * coll.recordWords());
  checkIntact();
  return added;
}

void ShmStore::removeMembers(uint32_t c, uint64_t ref) {
  for (uint32_t cc = 0; cc < collections(); ++cc) {
    ShmCollection& child = *colls_[cc];
    if (child.parent() != c) continue;
    child.reclaimMembers(ref, [&](uint32_t slot, const uint32_t* words) {
      if (child.entity()) removeMembers(cc, refOf(cc, slot));
      if (child.blobs()) {
        BlobRef br;
        std::memcpy(&br, words + child.recordWords() - kBlobRefWords, sizeof br);
        blobFree(br);
      }
    });
  }
}

bool ShmStore::remove(uint32_t c, const uint32_t* keyWords, Record* old) {
  refuseForkedCopy();
  checkIntact();
  ShmCollection& coll = *colls_[c];
  uint32_t oldWords[kMaxRecordWords];
  uint32_t slot;
  if (!coll.remove(keyWords, oldWords, &slot)) {
    checkIntact();  // "absent" may have been read from memory lost meanwhile
    return false;
  }
  // Within the removal's operation: an entity's members go after the entity itself.
  if (coll.entity()) {
    fault(ShmFaultPoint::entityRemoved);
    removeMembers(c, refOf(c, slot));
  }
  endOp();
  if (coll.blobs()) {
    BlobRef ref;
    std::memcpy(&ref, oldWords + coll.recordWords() - kBlobRefWords, sizeof ref);
    if (old) blobReadReplaced(ref, &old->blob);
    blobFree(ref);
  }
  if (old) std::memcpy(old->words, oldWords, 4 * coll.recordWords());
  checkIntact();
  return true;
}

void ShmStore::reserve(uint32_t c, uint32_t records) {
  refuseForkedCopy();
  colls_[c]->reserve(records);
}

// ---- change log and wake-up ---------------------------------------------------------------

void ShmStore::publishKey(uint32_t c, const uint32_t* keyWords) {
  uint32_t* e = ring_ + size_t(head_ & (ringCap_ - 1)) * ringEntryWords_;
  // Orders the previous head store before the entry's words: a reader that sees a torn entry
  // then also sees a head that invalidates it.
  std::atomic_thread_fence(std::memory_order_release);
  storeWord(e, c);
  storeWords(e + 1, keyWords, colls_[c]->keyWords());
  ++head_;
  hdr_->ringHead.store(head_, std::memory_order_release);
  fault(ShmFaultPoint::logAppended);
  publishControl();
}

void ShmStore::publishControl() {
  if (forkedWriterCopy()) return;  // the parent's readers, woken by the parent
  // Pairs with the doorbell: the writer advances the wake word and then reads the pending
  // registration; the watcher records a registration and then reads the wake word (both
  // sequentially consistent), so a sleeper is woken by one side or the other.
  const uint32_t now = hdr_->wakeWord.fetch_add(1, std::memory_order_seq_cst) + 1;
  if (bell_) {
    bell_->afterPublish(now);
  } else if (shared()) {
    futexWake(&hdr_->wakeWord, INT_MAX, /*shared=*/true);
  }
}

void ShmStore::mountStatusIs(uint32_t status) {
  if (forkedWriterCopy()) return;  // the parent's store: it is mounted there
  hdr_->mountStatus.store(status, std::memory_order_release);
  publishControl();
}

void ShmStore::quiescedIs(bool quiesced) {
  refuseForkedCopy();
  hdr_->quiesced.store(quiesced ? 1 : 0, std::memory_order_release);
  publishControl();
}

uint64_t ShmStore::ringHead() const {
  return hdr_->ringHead.load(std::memory_order_seq_cst);
}

uint32_t ShmStore::readRingEntry(uint64_t pos, uint32_t* keyWords) const {
  const uint32_t* e = ring_ + size_t(pos & (ringCap_ - 1)) * ringEntryWords_;
  const uint32_t c = loadWord(e);
  if (c >= colls_.size()) return kNoSlot;
  loadWords(e + 1, keyWords, colls_[c]->keyWords());
  return c;
}

// ---- counters, introspection ------------------------------------------------------------

std::atomic<uint64_t>* ShmStore::counterSlot(uint32_t index, std::string_view name) {
  if (!writable_ || !shared() || index >= kCounters) return nullptr;
  CounterCell& cell = hdr_->counters[index];
  // The name is written under the cell's sequence lock: a tool never prints a torn name.
  const uint32_t seq = cell.seq.load(std::memory_order_relaxed);
  cell.seq.store(seq | 1, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_release);
  char name0[kCounterNameBytes] = {};
  std::memcpy(name0, name.data(), std::min<size_t>(name.size(), kCounterNameBytes - 1));
  auto* dst = reinterpret_cast<uint32_t*>(cell.name);
  for (uint32_t i = 0; i < kCounterNameBytes / 4; ++i) {
    uint32_t w;
    std::memcpy(&w, name0 + 4 * i, 4);
    storeWord(dst + i, w);
  }
  cell.seq.store((seq | 1) + 1, std::memory_order_release);
  return &cell.value;
}

size_t ShmStore::committedBytes() const {
  size_t total = headerSeg_.committedBytes();
  for (const auto& c : colls_) total += c->committedBytes();
  for (const auto& b : blobs_->chunks) total += b.committedBytes();
  return total;
}

ShmStore::IndexGrowth ShmStore::indexGrowth(uint32_t c) const {
  IndexGrowth g;
  g.migrating = colls_[c]->migrating();
  g.maxSlotsPerWrite = colls_[c]->maxSlotsPerWrite();
  g.generationsPublished = colls_[c]->generationsPublished();
  return g;
}

// ---- copies -------------------------------------------------------------------------------

uint64_t ShmStore::copyEntity(const ShmStore& from, uint32_t c, uint64_t ref, uint64_t parent,
                              const EntityFn& onEntity) {
  const ShmCollection& src = *from.colls_[c];
  const uint32_t slot = refSlot(ref);
  Record rec;
  uint32_t seq;
  if (!src.readSlot(slot, rec.words, &seq)) return 0;
  if (src.blobs()) {
    BlobRef br;
    std::memcpy(&br, rec.words + src.recordWords() - kBlobRefWords, sizeof br);
    from.blobRead(br, &rec.blob);
  }
  if (src.nested()) {
    rec.words[0] = refSlot(parent);
    rec.words[1] = refGen(parent);
  }
  put(c, rec.words, rec.blob);
  publishNew_ ? publishKey(c, rec.words) : void();
  Record found;
  const uint32_t newSlot = colls_[c]->findWriter(rec.words);
  const uint64_t newRef = src.entity() ? refOf(c, newSlot) : 0;
  (void)found;
  if (src.entity()) {
    if (onEntity) onEntity(c, ref, newRef);
    for (uint32_t cc = 0; cc < from.collections(); ++cc) {
      if (from.colls_[cc]->parent() != c) continue;
      Record member;
      for (uint32_t m = from.seekChild(cc, ref, kNoSlot, &member); m != kNoSlot;
           m = from.nextChild(cc, ref, m, &member)) {
        if (from.colls_[cc]->entity()) {
          copyEntity(from, cc, from.refOf(cc, m), newRef, onEntity);
        } else {
          member.words[0] = refSlot(newRef);
          member.words[1] = refGen(newRef);
          put(cc, member.words, member.blob);
          if (publishNew_) publishKey(cc, member.words);
        }
      }
    }
  }
  return newRef;
}

void ShmStore::copyFrom(const ShmStore& from, bool announce, const EntityFn& onEntity) {
  publishNew_ = announce;
  // Room first, so that a failure for lack of shared memory comes before any change.
  for (uint32_t c = 0; c < from.collections(); ++c) {
    if (!from.colls_[c]->nested()) reserve(c, from.count(c));
  }
  Record rec;
  for (uint32_t c = 0; c < from.collections(); ++c) {
    if (from.colls_[c]->nested()) continue;
    for (uint32_t slot = from.seek(c, 0, &rec); slot != kNoSlot;
         slot = from.seek(c, slot + 1, &rec)) {
      if (from.colls_[c]->entity()) {
        copyEntity(from, c, from.refOf(c, slot), 0, onEntity);
      } else {
        put(c, rec.words, rec.blob);
        if (announce) publishKey(c, rec.words);
      }
    }
  }
  publishNew_ = false;
}

}  // namespace Oro
