// The shared-memory entity store as the status roots use it: a ShmBinding ties a root entity
// to one ShmStore (in process memory until mounted, then the writer's or a reader's shared
// store), and routes the reader's change notifications to typed collection handles.
//
// Entities of a store (members of entity collections) are process-local proxies: objects that
// hold typed handles of their child collections. The binding finds a proxy by its collection
// and reference (ShmNode) to deliver a change of one of its members.
//
// Roles: detached (a store in process memory, the same engine), writer (creates, takes over or
// recreates the shared store; the records held locally are copied in), reader (maps the store
// read-only; the first dispatch reports every key present plus every key the instance held
// before). attach/detach keep every record: detaching copies the shared records back into
// process memory.
//
// Failures: bad names, a live second writer, a store of another type, running out of shared
// memory, descriptors or address space (ShmResourceException): ShmException, nothing changes
// (the binding stays on the store it was on; a writer never replaces a store it could not map).
// A damaged store met by a reader goes to the corruption handler; the reader then looks for a
// store republished by its writer, with growing pauses. A reader that cannot map a part of a
// whole store for its process's limits does the same, with a message that says so ("cannot be
// read", ShmUnreadableException). A store removed (its writer dead) is, for
// its readers, a store that lost every key; they look for a new one the same way.
//
// Thread safety: one thread (the owner's scheduler thread).
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <absl/container/flat_hash_map.h>
#include <fmt/format.h>

#include "platform/Error.h"

#include "platform/shm/CollectionControl.h"
#include "platform/shm/ShmReader.h"
#include "platform/shm/ShmStore.h"

namespace Oro {

class TaskScheduler;
class ShmBinding;

enum class ShmRole : uint8_t { detached, writer, reader };

struct ShmAttach {
  std::string mountPath;
  ShmRole role = ShmRole::writer;
  TaskScheduler* scheduler = nullptr;  // reader: dispatches the changes (may be null: manual)
  mode_t mode = 0600;                  // writer creating the store (0640/0644 share it read-only)
  uint32_t ringCapacity = 8192;        // writer creating the store: change-log entries
};

// A typed view of one collection's members under one parent (the root for a top-level
// collection). Subclasses: ShmValues (records) and ShmEntities (child entities).
class ShmHandleBase {
 public:
  ShmHandleBase(ShmBinding* binding, uint32_t coll, uint64_t parent)
      : binding_(binding), coll_(coll), parent_(parent) {}
  virtual ~ShmHandleBase() = default;
  ShmHandleBase(const ShmHandleBase&) = delete;
  ShmHandleBase& operator=(const ShmHandleBase&) = delete;

  ShmBinding* binding() const { return binding_; }
  uint32_t coll() const { return coll_; }
  uint64_t parent() const { return parent_; }
  // The parent entity was removed (or this handle's root detached without a store): the
  // handle now holds its members in process memory.
  bool departed() const { return departed_; }

  // Reader: a key of this handle changed (its key image, parent reference included).
  // `slot` and `seq`: where a walk found the key present, or kNoSlot (see ShmResync::add).
  virtual void deliver(const uint32_t* keyWords, uint32_t slot, uint32_t seq) = 0;
  // Reader: every key present now plus every key reported before.
  virtual void resync(ShmResync& out) = 0;
  // The entity owning this handle leaves its store: keep its members in process memory (the
  // records when the store still has them, else the keys reported to this reader). A reader
  // that lost its store (damage, or its writer's replacement) may leave entities that are
  // still there: `storeLost` says so, and their records count as unknown, not gone.
  virtual void depart(bool storeLost) = 0;
  // The store changed under the handle (attach, detach): the owning entity is now `parent`.
  virtual void rebind(ShmBinding* binding, uint64_t parent) {
    binding_ = binding;
    parent_ = parent;
  }
  // Reader attach: forget store references, keep the keys known so far.
  virtual void forgetStore() {}

  // Fault injection for tests: every read through this handle raises ShmCorruptionException,
  // as a damaged store does (writes still work).
  void faultyIs(bool faulty) { faulty_ = faulty; }
  void checkReadable() const {
    if (faulty_) [[unlikely]]
      throw ShmCorruptionException(fmt::format("collection {} is corrupt (injected fault)", coll_));
  }

 protected:
  // The walk of this handle's members in the store: the top-level collection in slot order,
  // or one parent's page chain. firstSlot starts it at `from` (walkStart() for the first
  // member), nextSlot goes on after `slot`; both give kNoSlot at the end.
  uint32_t walkStart() const { return parent_ == 0 ? 0 : ShmStore::kNoSlot; }
  uint32_t firstSlot(uint32_t from, ShmStore::Record* rec) const;
  uint32_t nextSlot(uint32_t slot, ShmStore::Record* rec) const;

  ShmBinding* binding_;
  uint32_t coll_;
  uint64_t parent_;
  bool departed_ = false;
  bool faulty_ = false;
};

// A process-local proxy of one entity of a store: while bound, the binding finds it by its
// collection and reference. Departed (its entity left the store, or it was made in process
// memory), its handles hold their members themselves.
class ShmNode {
 public:
  virtual ~ShmNode();
  // The handle of child collection `coll` (null when the entity has none of that collection).
  virtual ShmHandleBase* childHandle(uint32_t coll) = 0;
  // Every child handle.
  virtual void forEachChild(const std::function<void(ShmHandleBase&)>& fn) = 0;

  ShmBinding* shmBinding() const { return binding_; }
  uint64_t shmRef() const { return ref_; }
  bool shmBound() const { return binding_ != nullptr; }
  // Hands a corruption report to the store's handler (an entity in process memory has none).
  void shmReportCorruption(const std::string& message) const;
  // Registers with `binding` as entity `ref` of collection `coll` (child handles follow).
  void shmBind(ShmBinding* binding, uint32_t coll, uint64_t ref);
  // Leaves the store: unregisters, and every child handle keeps its members in process memory.
  void shmDepart(bool storeLost = false);

 private:
  template <class E>
  friend class ShmEntities;
  ShmBinding* binding_ = nullptr;
  uint32_t coll_ = 0;
  uint64_t ref_ = 0;
  // The slot under which the handle holding this proxy lists it (ShmEntities::bySlot_).
  uint32_t listedSlot_ = ShmLayout::kNoSlot;
};

class ShmBinding : private ShmReader::Sink {
 public:
  struct Callbacks {
    std::function<void()> onMountStatus;
    std::function<void(bool quiesced)> onQuiesced;
  };

  ShmBinding(ShmStoreSchema schema, Callbacks callbacks);
  ~ShmBinding() override;
  ShmBinding(const ShmBinding&) = delete;
  ShmBinding& operator=(const ShmBinding&) = delete;

  void attach(const ShmAttach& how);
  void detach();
  bool attached() const { return role_ != ShmRole::detached; }
  ShmRole role() const { return role_; }
  bool writable() const { return role_ != ShmRole::reader; }
  const std::string& mountPath() const { return mountPath_; }
  const ShmStoreSchema& schema() const { return schema_; }
  ShmStore& store() { return store_; }
  const ShmStore& store() const { return store_; }
  ShmReader* reader() const { return reader_.get(); }
  // Fatal assertion unless the binding may write.
  void assertWritable() const;

  // Registration of handles and proxies for the routing of changes.
  void topIs(uint32_t c, ShmHandleBase* handle);
  void nodeIs(uint32_t c, uint64_t ref, ShmNode* node);
  void nodeDel(uint32_t c, uint64_t ref, ShmNode* node);
  ShmNode* node(uint32_t c, uint64_t ref) const;
  // Room for n proxies of collection c, so that registering them never rehashes at once.
  void nodesReserve(uint32_t c, size_t n) { nodes_.at(c).reserve(n); }

  // Mount status and quiesced flag (writer sets; every role reads).
  void mountStatusIs(TylKetab::MountStatus status);
  void quiescedIs(bool quiesced);
  TylKetab::MountStatus mountStatus() const { return mountStatus_; }
  bool quiesced() const { return quiesced_; }

  // The shared 64-bit counter `index` of the header, named `name`, while attached as writer.
  std::atomic<uint64_t>* counterSlot(uint32_t index, std::string_view name) {
    return store_.counterSlot(index, name);
  }

  void corruptionHandlerIs(std::function<void(const std::string&)> handler) {
    corruptionHandler_ = std::move(handler);
  }
  // Reader: called when the state bits of the store's merge record change (see ShmMergeInfo.h).
  void mergeStateHandlerIs(std::function<void(uint32_t bits)> handler) {
    mergeStateHandler_ = std::move(handler);
  }
  // Hands a corruption report to the handler (readers report too, hence const).
  void handleCorruption(const std::string& message) const;
  // Writer: publishes the key of a completed write; damage the store met during the write
  // (which did not stop it) then goes to the handler.
  void publishKey(uint32_t c, const uint32_t* keyWords) {
    store_.publishKey(c, keyWords);
    if (store_.hasDamage()) [[unlikely]]
      handleCorruption(store_.takeDamage());
  }
  uint64_t corruptions() const { return corruptions_; }

  // Whether subscribers get old and new values with a change (the owner's delivery mode).
  bool oldValues() const { return oldValues_; }
  void oldValuesIs(bool v) { oldValues_ = v; }

  size_t committedBytes() const { return store_.committedBytes(); }

  // The object that owns the binding (the root entity), for its proxies.
  void* owner() const { return owner_; }
  // `counted`: the owner's reference count, which a reader's dispatch holds while it runs.
  void ownerIs(void* owner, const RefCounted* counted = nullptr) {
    owner_ = owner;
    countedOwner_ = counted;
  }

 private:
  // ShmReader::Sink.
  void deliverKey(uint32_t c, const uint32_t* keyWords, uint32_t slot, uint32_t seq) override;
  void resyncKeys(ShmResync& out) override;
  void deliverMountStatus(uint32_t status) override;
  void deliverQuiesced(bool quiesced) override;
  void deliverMergeState(uint32_t bits) override {
    if (mergeStateHandler_) mergeStateHandler_(bits);
  }
  void readerFailed(const std::string& message, bool replaced) override;
  Ptr<const RefCounted> dispatchHold() override { return keepAlive(countedOwner_); }
  // Dispatch by hand from now on; the pending retry went with the scheduler's timers.
  void readerSchedulerGone() override {
    scheduler_ = nullptr;
    retryTimer_ = 0;
  }

  void retryReader();
  void retryLater(bool atOnce);
  void rebindAll(const std::vector<std::tuple<uint32_t, uint64_t, uint64_t>>& moves);

  ShmStoreSchema schema_;
  Callbacks callbacks_;
  ShmRole role_ = ShmRole::detached;
  std::string mountPath_;
  std::function<void(uint32_t)> mergeStateHandler_;
  ShmStore store_;
  std::unique_ptr<ShmReader> reader_;
  TaskScheduler* scheduler_ = nullptr;
  std::vector<ShmHandleBase*> top_;
  std::vector<absl::flat_hash_map<uint64_t, ShmNode*>> nodes_;
  TylKetab::MountStatus mountStatus_ = TylKetab::MountStatus::notMounted;
  bool quiesced_ = false;
  bool oldValues_ = false;
  mutable uint64_t corruptions_ = 0;
  std::function<void(const std::string&)> corruptionHandler_;
  // A failed reader looks again after this pause (doubling up to kMaxRetry).
  std::chrono::milliseconds retry_{0};
  // A reader whose store was removed: it follows an empty stand-in until the path has a store.
  bool gone_ = false;
  uint64_t retryTimer_ = 0;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  void* owner_ = nullptr;
  const RefCounted* countedOwner_ = nullptr;
};

inline uint32_t ShmHandleBase::firstSlot(uint32_t from, ShmStore::Record* rec) const {
  const ShmStore& s = binding_->store();
  return parent_ == 0 ? s.seek(coll_, from, rec) : s.seekChild(coll_, parent_, from, rec);
}

inline uint32_t ShmHandleBase::nextSlot(uint32_t slot, ShmStore::Record* rec) const {
  const ShmStore& s = binding_->store();
  return parent_ == 0 ? s.seek(coll_, slot + 1, rec) : s.nextChild(coll_, parent_, slot, rec);
}

}  // namespace Oro
