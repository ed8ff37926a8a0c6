// Test utility: damages a shared-memory store the way an outside writer of /dev/shm would, so
// that every walk and every lookup of one of its collections, through any instance (writer or
// reader, in any process), raises Oro::ShmCorruptionException. Tests of corruption handling use
// this instead of poking at the engine's layout themselves.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "platform/shm/ShmLayout.h"
#include "platform/shm/ShmSegment.h"

namespace shmtest {

// Writes n bytes at offset into the segment `name`, as a stray process with access to /dev/shm
// could.
inline void writeSegment(const std::string& name, size_t offset, const void* bytes, size_t n) {
  const int fd = ::open(("/dev/shm" + name).c_str(), O_RDWR);
  ASSERT_GE(fd, 0) << name;
  ASSERT_EQ(::pwrite(fd, bytes, n, static_cast<off_t>(offset)), static_cast<ssize_t>(n));
  ::close(fd);
}

// Returns false when the store or the collection does not exist. The collection's first slot
// chunk is truncated: processes that map it meet a short segment, processes that mapped it
// before lose the mapping (their next access finds the damage).
inline bool damageTable(const std::string& mountPath, const std::string& collection) {
  using Oro::ShmLayout::Header;
  const std::string header = Oro::shmStoreName(mountPath);
  const int fd = ::shm_open(header.c_str(), O_RDONLY, 0);
  if (fd < 0) return false;
  Header h;
  const bool ok =
      ::pread(fd, static_cast<void*>(&h), sizeof h, 0) == static_cast<ssize_t>(sizeof h);
  ::close(fd);
  uint32_t c = 0;
  while (ok && c < h.collectionCount && c < Oro::ShmLayout::kMaxCollections &&
         std::string(h.colls[c].name) != collection) {
    ++c;
  }
  if (!ok || c >= h.collectionCount) return false;
  const std::string chunk = Oro::shmStoreSegmentName(mountPath, h.instance, fmt::format("{}k0", c));
  const int cfd = ::shm_open(chunk.c_str(), O_RDWR, 0);
  if (cfd < 0) return false;
  const bool truncated = ::ftruncate(cfd, 0) == 0;
  ::close(cfd);
  return truncated;
}

}  // namespace shmtest
