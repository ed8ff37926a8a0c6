// Keyed tables of fixed-size records in shared memory: one writer process publishes, reader
// processes attach by mount path and collection name and see every change through per-key
// callbacks run by their TaskScheduler.
//
// ShmTableCore is the type-erased table (records as byte images of sizes fixed at
// construction); ShmTable<K, V> is the typed front for trivially copyable K and V.
//
// A table starts detached: its records live in process memory with the same engine, so an
// owner can fill it before it is mounted. attach() as writer moves the records into the shared
// segments (creating the table, or taking over one whose writer died); attach() as reader maps
// an existing table read-only and reports, on its first dispatch, every key present plus every
// key the instance held before. detach() keeps a private copy of the records.
//
// Errors: bad names, a live second writer, a table of another record type, or running out of
// shared memory raise ShmException and change nothing; damaged shared memory raises
// ShmCorruptionException from whichever operation meets it (owners hand the message to
// handleCorruption). Writing through a reader is a programming error (fatal assertion).
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "platform/shm/CollectionControl.h"
#include "platform/shm/ShmReader.h"
#include "platform/shm/ShmStore.h"

namespace Oro {

class TaskScheduler;

enum class ShmRole : uint8_t { detached, writer, reader };

struct ShmAttach {
  std::string mountPath;
  ShmRole role = ShmRole::writer;
  TaskScheduler* scheduler = nullptr;  // reader: dispatches the changes (may be null: manual)
  mode_t mode = 0600;                  // writer creating the table
  uint32_t ringCapacity = 8192;        // writer creating the table: change-log entries
};

class ShmTableCore {
 public:
  static constexpr uint32_t kNoSlot = ShmStore::kNoSlot;

  struct Callbacks {
    std::function<void(const void* key)> onKey;
    std::function<void()> onMountStatus;
    std::function<void(bool quiesced)> onQuiesced;
  };

  ShmTableCore(std::string typeName, std::string collection, uint32_t keySize, uint32_t valueSize,
               Callbacks callbacks);
  ~ShmTableCore();
  ShmTableCore(const ShmTableCore&) = delete;
  ShmTableCore& operator=(const ShmTableCore&) = delete;

  void attach(const ShmAttach& how);
  void detach();
  bool attached() const { return role_ != ShmRole::detached; }
  ShmRole role() const { return role_; }
  const std::string& typeName() const { return typeName_; }
  const std::string& collection() const { return collection_; }
  const std::string& mountPath() const { return mountPath_; }

  // Writer (or detached). insert: insert or replace; returns true when the key is new. When
  // oldValue is given and the key was present, its previous value is copied there.
  bool insert(const void* key, const void* value, void* oldValue = nullptr);
  bool remove(const void* key, void* removedValue);
  void mountStatusIs(TylKetab::MountStatus status);
  void quiescedIs(bool quiesced);

  // Everyone.
  bool find(const void* key, void* value) const;
  size_t size() const { return store_.recordCount(); }
  // First slot >= from that holds a record (key and value copied out), or kNoSlot.
  uint32_t seek(uint32_t from, void* key, void* value) const;
  TylKetab::MountStatus mountStatus() const { return mountStatus_; }
  bool quiesced() const { return quiesced_; }

  // The shared 64-bit counter `index` of the header, named `name` (for tools), while attached
  // as writer; otherwise null. Valid until the next attach or detach.
  std::atomic<uint64_t>* counterSlot(uint32_t index, std::string_view name);

  void corruptionHandlerIs(std::function<void(const std::string&)> handler) {
    corruptionHandler_ = std::move(handler);
  }
  // Hands a corruption report to the handler (readers report too, hence const).
  void handleCorruption(const std::string& message) const;
  uint64_t corruptions() const { return corruptions_; }

  // Whether subscribers get old and new values with a change (the owner's delivery mode).
  bool oldValues() const { return oldValues_; }
  void oldValuesIs(bool v) { oldValues_ = v; }

  ShmReader* reader() const { return reader_.get(); }
  const ShmStore& store() const { return store_; }
  size_t committedBytes() const { return store_.committedBytes(); }

  // Used by ShmReader.
  std::shared_ptr<bool> aliveToken() const { return alive_; }
  void deliverKey(const uint32_t* keyWords);
  void deliverMountStatus(uint32_t status);
  void deliverQuiesced(bool quiesced);

 private:
  ShmStore::Shape shape(const std::string& mountPath) const;
  void toKeyWords(const void* key, uint32_t* out) const;
  void assertWritable() const;
  // Copies every record of `from` into store_ (announcing each key when store_ is shared).
  void copyRecords(const ShmStore& from, bool announce, ShmKeySet* keys);

  std::string typeName_;
  std::string collection_;
  std::string mountPath_;
  uint32_t keySize_;
  uint32_t valueSize_;
  Callbacks callbacks_;
  ShmRole role_ = ShmRole::detached;
  ShmStore store_;
  std::unique_ptr<ShmReader> reader_;
  TylKetab::MountStatus mountStatus_ = TylKetab::MountStatus::notMounted;
  bool quiesced_ = false;
  bool oldValues_ = false;
  mutable uint64_t corruptions_ = 0;
  std::function<void(const std::string&)> corruptionHandler_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  std::vector<uint32_t> scratch_;
};

template <class K, class V>
class ShmTable {
  static_assert(std::is_trivially_copyable_v<K> && std::is_trivially_copyable_v<V>,
                "shared-memory records must be trivially copyable");

 public:
  struct Callbacks {
    std::function<void(const K&)> onKey;
    std::function<void()> onMountStatus;
    std::function<void(bool)> onQuiesced;
  };
  // Where a walk stopped: the next key to visit and the slot it was found in.
  struct Bookmark {
    K key{};
    uint32_t slot = 0;
  };

  // A walk in table (slot) order. Reading a slot may raise ShmCorruptionException.
  class Cursor {
   public:
    Cursor() = default;
    bool valid() const { return table_ != nullptr && slot_ != kNoSlot; }
    const K& key() const { return key_; }
    const V& value() const { return value_; }
    uint32_t slot() const { return slot_; }
    Bookmark bookmark() const { return Bookmark{key_, slot_}; }
    void next() {
      if (valid()) slot_ = table_->seek(slot_ + 1, &key_, &value_);
    }

   private:
    friend class ShmTable;
    Cursor(const ShmTableCore* t, uint32_t from) : table_(t) {
      slot_ = t->seek(from, &key_, &value_);
    }
    const ShmTableCore* table_ = nullptr;
    uint32_t slot_ = kNoSlot;
    K key_{};
    V value_{};
  };

  ShmTable(std::string typeName, std::string collection, Callbacks cb)
      : callbacks_(std::move(cb)),
        core_(std::move(typeName), std::move(collection), sizeof(K), sizeof(V),
              ShmTableCore::Callbacks{[this](const void* k) {
                                        if (callbacks_.onKey)
                                          callbacks_.onKey(*static_cast<const K*>(k));
                                      },
                                      [this] {
                                        if (callbacks_.onMountStatus) callbacks_.onMountStatus();
                                      },
                                      [this](bool q) {
                                        if (callbacks_.onQuiesced) callbacks_.onQuiesced(q);
                                      }}) {}

  void attach(const ShmAttach& how) { core_.attach(how); }
  void detach() { core_.detach(); }
  bool attached() const { return core_.attached(); }
  ShmRole role() const { return core_.role(); }

  bool insert(const K& k, const V& v) { return core_.insert(&k, &v); }
  // Insert or replace, handing back the replaced value (none for a new key).
  bool insert(const K& k, const V& v, std::optional<V>* old) {
    V prev;
    const bool added = core_.insert(&k, &v, &prev);
    if (old) *old = added ? std::nullopt : std::optional<V>(prev);
    return added;
  }
  // Direct write: fill the staging record, then commitDirect publishes it under k.
  V& directWrite() { return staging_; }
  void commitDirect(const K& k) { core_.insert(&k, &staging_); }
  bool remove(const K& k, V* removed = nullptr) {
    V tmp;
    return core_.remove(&k, removed ? removed : &tmp);
  }
  void mountStatusIs(TylKetab::MountStatus s) { core_.mountStatusIs(s); }
  void quiescedIs(bool q) { core_.quiescedIs(q); }

  std::optional<V> find(const K& k) const {
    V v;
    if (!core_.find(&k, &v)) return std::nullopt;
    return v;
  }
  size_t size() const { return core_.size(); }
  Cursor begin() const { return Cursor(&core_, 0); }
  // Slots never move, so the remembered slot is where the walk stopped whatever happened to
  // its key since: every record still in a later slot is visited. (Resuming wherever the key
  // lives now would skip the slots in between if it had been removed and re-inserted.)
  Cursor at(const Bookmark& b) const { return Cursor(&core_, b.slot); }
  TylKetab::MountStatus mountStatus() const { return core_.mountStatus(); }
  bool quiesced() const { return core_.quiesced(); }
  std::atomic<uint64_t>* counterSlot(uint32_t index, std::string_view name) {
    return core_.counterSlot(index, name);
  }
  void corruptionHandlerIs(std::function<void(const std::string&)> h) {
    core_.corruptionHandlerIs(std::move(h));
  }
  void handleCorruption(const std::string& message) const { core_.handleCorruption(message); }
  bool oldValues() const { return core_.oldValues(); }
  void oldValuesIs(bool v) { core_.oldValuesIs(v); }

  ShmTableCore& core() { return core_; }
  const ShmTableCore& core() const { return core_; }

 private:
  static constexpr uint32_t kNoSlot = ShmTableCore::kNoSlot;
  Callbacks callbacks_;
  ShmTableCore core_;
  V staging_{};
};

}  // namespace Oro
