// A type-erased view of shared-memory tables for tools (mvpnstat): list the tables of the
// current namespace with their identity, size, counters and writer, and open one by mount
// path and collection to walk its raw record bytes. Views are read-only and never disturb the
// writer or other readers.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/shm/CollectionControl.h"
#include "platform/shm/ShmStore.h"

namespace Oro {

struct ShmCounterInfo {
  std::string name;
  uint64_t value = 0;
};

struct ShmTableInfo {
  std::string mountPath;
  std::string collection;
  std::string typeName;
  uint32_t keySize = 0;
  uint32_t valueSize = 0;
  size_t records = 0;
  std::vector<ShmCounterInfo> counters;  // named counters only
  uint32_t writerPid = 0;                // 0: no writer
  bool writerAlive = false;
  TylKetab::MountStatus mountStatus = TylKetab::MountStatus::notMounted;
  bool quiesced = false;
  uint64_t epoch = 0;
  size_t committedBytes = 0;
};

class ShmTableView {
 public:
  // Maps the table read-only (ShmException when absent, ShmCorruptionException when damaged).
  ShmTableView(const std::string& mountPath, const std::string& collection);
  ShmTableInfo info() const;
  // First record at slot >= from: its key and value bytes, and its slot; kNoSlot at the end.
  uint32_t seek(uint32_t from, std::vector<uint8_t>& key, std::vector<uint8_t>& value) const;

 private:
  ShmStore store_;
};

// Every well-formed table of the current namespace, sorted by mount path and collection.
// Segments that are not table headers, or that are damaged, are left out.
std::vector<ShmTableInfo> listShmTables();

}  // namespace Oro
