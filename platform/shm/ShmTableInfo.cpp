#include "platform/shm/ShmTableInfo.h"

#include <algorithm>
#include <cstring>

#include "platform/Error.h"

namespace Oro {

using namespace ShmLayout;

namespace {
std::string fieldText(const char* p, size_t cap) {
  return std::string(p, strnlen(p, cap));
}
}  // namespace

ShmTableView::ShmTableView(const std::string& mountPath, const std::string& collection)
    : store_(ShmStore::openReader(ShmStore::Shape{"", mountPath, collection, 0, 0})) {}

ShmTableInfo ShmTableView::info() const {
  const Header* h = store_.header();
  ShmTableInfo i;
  i.mountPath = fieldText(h->mountPath, kPathBytes);
  i.collection = fieldText(h->collection, kCollectionBytes);
  i.typeName = fieldText(h->typeName, kTypeNameBytes);
  i.keySize = store_.keySize();
  i.valueSize = store_.valueSize();
  i.records = store_.recordCount();
  for (const CounterCell& c : h->counters) {
    std::string name = fieldText(c.name, kCounterNameBytes);
    if (!name.empty()) i.counters.push_back({std::move(name), c.value.load()});
  }
  const uint64_t owner = h->owner.load(std::memory_order_acquire);
  i.writerPid = ownerPid(owner);
  i.writerAlive = ShmStore::ownerAlive(owner);
  i.mountStatus = static_cast<TylKetab::MountStatus>(h->mountStatus.load() & 3);
  i.quiesced = h->quiesced.load() != 0;
  i.epoch = h->epoch.load();
  i.committedBytes = store_.committedBytes();
  return i;
}

uint32_t ShmTableView::seek(uint32_t from, std::vector<uint8_t>& key,
                            std::vector<uint8_t>& value) const {
  std::vector<uint32_t> words(store_.recordWords());
  const uint32_t slot = store_.seek(from, words.data());
  if (slot == ShmStore::kNoSlot) return slot;
  const auto* bytes = reinterpret_cast<const uint8_t*>(words.data());
  key.assign(bytes, bytes + store_.keySize());
  const uint8_t* v = bytes + 4 * store_.keyWords();
  value.assign(v, v + store_.valueSize());
  return slot;
}

std::vector<ShmTableInfo> listShmTables() {
  std::vector<ShmTableInfo> out;
  for (const std::string& segment : shmNamespaceSegments()) {
    try {
      ShmSegment seg = ShmSegment::open("/" + segment, ShmSegment::Access::readOnly);
      if (seg.size() < sizeof(Header)) continue;
      const auto* h = reinterpret_cast<const Header*>(seg.data());
      if (h->magic.load(std::memory_order_acquire) != kMagic) continue;
      const std::string path = fieldText(h->mountPath, kPathBytes);
      const std::string coll = fieldText(h->collection, kCollectionBytes);
      // The header names itself: anything else (a chunk that happens to match) is skipped.
      if (shmSegmentName(path, coll) != "/" + segment) continue;
      out.push_back(ShmTableView(path, coll).info());
    } catch (const Exception&) {
      continue;
    }
  }
  std::sort(out.begin(), out.end(), [](const ShmTableInfo& a, const ShmTableInfo& b) {
    return std::tie(a.mountPath, a.collection) < std::tie(b.mountPath, b.collection);
  });
  return out;
}

}  // namespace Oro
