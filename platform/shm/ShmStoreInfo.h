// A read-only view of shared-memory stores for tools (mvpnstat): list the stores of the current
// namespace with their identity, collections, counters and writer, damaged ones included and
// marked as such. Views never disturb the writer or other readers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/shm/CollectionControl.h"
#include "platform/shm/ShmMergeInfo.h"

namespace Oro {

struct ShmCounterInfo {
  std::string name;
  uint64_t value = 0;
};

struct ShmCollectionInfo {
  std::string name;
  std::string typeName;
  uint32_t keyBytes = 0;
  uint32_t valueBytes = 0;
  std::string parent;  // the parent collection of a nested one, else empty
  size_t records = 0;  // nested: the members of every parent
};

struct ShmStoreInfo {
  std::string mountPath;
  std::string rootType;
  std::vector<ShmCollectionInfo> collections;
  std::vector<ShmCounterInfo> counters;  // named counters only
  uint32_t writerPid = 0;                // 0: no writer
  bool writerAlive = false;
  TylKetab::MountStatus mountStatus = TylKetab::MountStatus::notMounted;
  bool quiesced = false;
  uint64_t epoch = 0;
  size_t committedBytes = 0;
  std::optional<ShmMergeState> merge;  // a merged status: its merger's record
  // A store that cannot be read: why (damage, permission), and nothing else is filled in.
  std::string problem;
  bool damaged = false;
};

// The store at a mount path (ShmException when absent or unreadable, ShmCorruptionException
// when damaged).
ShmStoreInfo shmStoreInfo(const std::string& mountPath);
// Every store of the current namespace, sorted by mount path; damaged and unreadable stores are
// listed with their problem.
std::vector<ShmStoreInfo> listShmStores();
// Removes the store at a mount path whose writer is dead, with every segment its writers left
// (see ShmStore::remove). Returns the number of names removed from the shared-memory directory.
size_t shmRemoveStore(const std::string& mountPath);

}  // namespace Oro
