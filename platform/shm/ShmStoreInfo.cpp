#include "platform/shm/ShmStoreInfo.h"

#include <cstring>

#include "platform/Error.h"
#include "platform/shm/ShmStore.h"

namespace Oro {

using namespace ShmLayout;

namespace {

// A counter's name, read under the cell's sequence lock (a writer may be renaming it).
std::string counterName(const CounterCell& cell) {
  for (int attempt = 0; attempt < 1000; ++attempt) {
    const uint32_t s1 = cell.seq.load(std::memory_order_acquire);
    if (s1 & 1) continue;
    char buf[kCounterNameBytes];
    const auto* src = reinterpret_cast<const uint32_t*>(cell.name);
    for (uint32_t i = 0; i < kCounterNameBytes / 4; ++i) {
      const uint32_t w = loadWord(src + i);
      std::memcpy(buf + 4 * i, &w, 4);
    }
    std::atomic_thread_fence(std::memory_order_acquire);
    if (cell.seq.load(std::memory_order_relaxed) == s1) {
      return std::string(buf, strnlen(buf, kCounterNameBytes));
    }
  }
  return {};
}

}  // namespace

ShmStoreInfo shmStoreInfo(const std::string& mountPath) {
  const ShmStore s = ShmStore::openReader(mountPath, nullptr);
  const Header* h = s.header();
  ShmStoreInfo info;
  info.mountPath = mountPath;
  info.rootType = s.schema().rootType;
  for (uint32_t c = 0; c < s.collections(); ++c) {
    const ShmCollectionSchema& schema = s.schema().collections[c];
    ShmCollectionInfo ci;
    ci.name = schema.name;
    ci.typeName = schema.typeName;
    ci.keyBytes = schema.keyBytes;
    ci.valueBytes = schema.valueBytes;
    if (schema.parent != kNoParent) ci.parent = s.schema().collections[schema.parent].name;
    ci.records = s.count(c);
    info.collections.push_back(std::move(ci));
  }
  for (const CounterCell& cell : h->counters) {
    std::string name = counterName(cell);
    if (name.empty()) continue;
    info.counters.push_back(ShmCounterInfo{std::move(name), cell.value.load(std::memory_order_relaxed)});
  }
  info.writerAlive = s.writerAlive();
  info.writerPid = info.writerAlive ? static_cast<uint32_t>(h->owner.load(std::memory_order_acquire)) : 0;
  info.mountStatus = static_cast<TylKetab::MountStatus>(h->mountStatus.load(std::memory_order_acquire) & 3);
  info.quiesced = h->quiesced.load(std::memory_order_acquire) != 0;
  info.epoch = s.epoch();
  info.committedBytes = s.committedBytes();
  info.merge = shmReadMergeState(*h, info.writerAlive);
  return info;
}

std::vector<ShmStoreInfo> listShmStores() {
  std::vector<ShmStoreInfo> out;
  for (const std::string& name : shmNamespaceEntries()) {
    const std::string path = shmPathOfStoreName(name);
    if (path.empty()) continue;
    try {
      out.push_back(shmStoreInfo(path));
    } catch (const ShmCorruptionException& e) {
      ShmStoreInfo info;
      info.mountPath = path;
      info.damaged = isShmDamage(e);
      info.problem = e.what();
      out.push_back(std::move(info));
    } catch (const ShmException& e) {
      ShmStoreInfo info;
      info.mountPath = path;
      info.problem = e.what();
      out.push_back(std::move(info));
    }
  }
  return out;
}

size_t shmRemoveStore(const std::string& mountPath) {
  return ShmStore::remove(mountPath);
}

}  // namespace Oro
