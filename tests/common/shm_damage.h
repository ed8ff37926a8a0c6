// Test utility: damages a shared-memory table the way an outside writer of /dev/shm would, so
// that every walk and every lookup through any instance of it (writer or reader, in any
// process) raises Oro::ShmCorruptionException. Tests of corruption handling use this instead
// of poking at the engine's layout themselves.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "platform/shm/ShmLayout.h"
#include "platform/shm/ShmSegment.h"

namespace shmtest {

// Returns false when the table does not exist.
inline bool damageTable(const std::string& mountPath, const std::string& collection) {
  using Oro::ShmLayout::Header;
  const std::string header = Oro::shmSegmentName(mountPath, collection);
  const int fd = ::shm_open(header.c_str(), O_RDWR, 0);
  if (fd < 0) return false;
  // The header claims more used slots than its chunks hold: walks fail.
  const uint32_t huge = 0x7fffffff;
  bool ok = ::pwrite(fd, &huge, 4, offsetof(Header, slotHighWater)) == 4;
  uint32_t generation = 0;
  ok = ok && ::pread(fd, &generation, 4, offsetof(Header, indexGeneration)) == 4;
  ::close(fd);
  if (!ok) return false;
  // Every index entry names a slot that cannot exist: lookups fail.
  const std::string index =
      Oro::shmSegmentName(mountPath, collection, fmt::format("index{}", generation));
  const int ifd = ::shm_open(index.c_str(), O_RDWR, 0);
  if (ifd < 0) return false;
  struct stat st {};
  ::fstat(ifd, &st);
  const size_t entries = (static_cast<size_t>(st.st_size) - sizeof(Oro::ShmLayout::IndexHeader)) / 4;
  const std::vector<uint32_t> bad(entries, 0xFFFFFFFEu);
  ok = ::pwrite(ifd, bad.data(), entries * 4, sizeof(Oro::ShmLayout::IndexHeader)) ==
       static_cast<ssize_t>(entries * 4);
  ::close(ifd);
  return ok;
}

}  // namespace shmtest
