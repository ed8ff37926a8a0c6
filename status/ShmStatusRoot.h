// The pattern of a status root whose collections live in a shared-memory store.
//
// ShmRootBase holds what every such root has: the binding to its store (one per root, however
// many collections), the collection-control object, the zero-references handover, the
// mutator counters ("<coll>Is", "<coll>Del", "<coll>Notify" per collection; while attached as
// writer they live in the store's header, where tools read them), mounting, and the corruption
// report hook. ShmStatusRoot<Traits> is the root with one keyed collection of records
// (MvpnVrfStatus, MvpnIntfStatus); roots with entity collections (MvpnRouteStatus) build on
// ShmRootBase directly.
//
// Writers mutate through the collection's mutators; every mutation publishes one change of the
// collection attribute per key to the entity's subscribers, and the store carries it to every
// reader instance, whose scheduler then calls the collection's Notify for the key.
//
// Ownership: when the last outside reference goes, the zero-references notifiee hands the
// root to its collection-control object, which keeps it alive as long as someone holds the
// control; when nobody does, the root goes at once. A reader's dispatch holds the root while
// it runs, so a subscriber may let go of the last reference from inside a notification.
//
// Corruption: a damaged store met while writing, committing or removing is handed to the
// corruption handler, then the process stops (fatal assertion); met while walking (DelAll,
// dumps) it is handed to the handler and the walk ends quietly.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "platform/Assert.h"
#include "platform/Counter.h"
#include "platform/DumpContext.h"
#include "platform/Error.h"
#include "platform/Trace.h"
#include "platform/runtime/Entity.h"
#include "platform/runtime/EntityDirectory.h"
#include "platform/shm/CollectionControl.h"
#include "platform/shm/ShmBinding.h"
#include "platform/shm/ShmHandles.h"
#include "platform/shm/WalkOnce.h"

namespace Routing::Multicast {

class ShmRootBase;

// Subscribed to its root; takes over when the root's last outside reference goes.
class ShmRootZeroReferencesNotifiee : public Oro::Notifiee {
 public:
  explicit ShmRootZeroReferencesNotifiee(ShmRootBase* root) : root_(root) {}
  // Hands a reference to the root to its control object, clears the root's control
  // reference and unsubscribes. The root may be gone when this returns.
  void onZeroReferences();

 private:
  ShmRootBase* root_;
};

// A write or removal that met a damaged store stops the process (fatal assertion): a writer
// never goes on building on a store it cannot read back. writeOrStop runs `write`; on damage
// it hands the message to `report` (the collection's corruption handler) first.
[[noreturn]] void writeMetCorruption(const char* operation, std::string_view collection,
                                     const Oro::ShmCorruptionException& e);
template <class Report, class Write>
requires std::invocable<const Report&, std::string>
decltype(auto) writeOrStop(const char* operation, std::string_view collection, const Report& report,
                           Write&& write) {
  try {
    return std::forward<Write>(write)();
  } catch (const Oro::ShmCorruptionException& e) {
    report(std::string(e.what()));
    writeMetCorruption(operation, collection, e);
  }
}
// Where damage met in a collection is reported: a nested entity's to its store's handler.
inline auto corruptionReporter(const Oro::ShmNode& node) {
  return [&node](const std::string& m) { node.shmReportCorruption(m); };
}

class ShmRootBase : public Oro::Entity {
 public:
  ShmRootBase(std::string name, Oro::ShmStoreSchema schema, const Oro::TraceHandle& trace,
              Oro::AttrId controlAttr);
  ~ShmRootBase() override;

  const std::string& name() const { return name_; }
  Oro::ShmBinding& binding() { return binding_; }
  const Oro::ShmBinding& binding() const { return binding_; }

  // Collection control (the <coll>Control attribute).
  const Oro::Ptr<TylKetab::CollectionControl>& control() const { return control_; }
  void controlIs(Oro::Ptr<TylKetab::CollectionControl> control);
  void notifyQuiesced(bool quiesced);
  void notifyMountStatus();

  // Attaching the store (how.mountPath is the root's mount path). handleParent is the entity
  // tree's hook for it.
  void mount(const Oro::ShmAttach& how);
  void handleParent(const Oro::ShmAttach& parent) { mount(parent); }
  void unmount();

  void handleCorruption(const std::string& message) const { binding_.handleCorruption(message); }
  void corruptionHandlerIs(std::function<void(const std::string&)> handler) {
    binding_.corruptionHandlerIs(std::move(handler));
  }

  // Old-value delivery: subscribers also get (old, new) pairs on the writer's side.
  bool oldValues() const { return binding_.oldValues(); }
  void oldValuesIs(bool v) { binding_.oldValuesIs(v); }

  // The mutator counters of collection c.
  struct MutatorCounters {
    Oro::Counter is;
    Oro::Counter del;
    Oro::Counter notify;
    MutatorCounters(const std::string& coll, const std::string& owner)
        : is(coll + "Is", owner), del(coll + "Del", owner), notify(coll + "Notify", owner) {}
  };
  MutatorCounters& counters(uint32_t c) { return *counters_.at(c); }
  const MutatorCounters& counters(uint32_t c) const { return *counters_.at(c); }

  ShmRootZeroReferencesNotifiee& zeroReferencesNotifiee() { return zeroRefs_; }
  // Subscribers other than the root's own zero-references notifiee.
  bool hasSubscribers() const {
    return notifieeCount() > (zeroRefs_.notifier() == this ? 1u : 0u);
  }

 protected:
  void onZeroReferences() override;
  const Oro::TraceHandle& rootTrace() const { return *trace_; }

 private:
  friend class ShmRootZeroReferencesNotifiee;
  void bindCounters();
  void unbindCounters();

  std::string name_;
  const Oro::TraceHandle* trace_;
  Oro::AttrId controlAttr_;
  // Declared before every handle of the derived root: handles are destroyed first.
  Oro::ShmBinding binding_;
  std::vector<std::unique_ptr<MutatorCounters>> counters_;
  Oro::Ptr<TylKetab::CollectionControl> control_;
  ShmRootZeroReferencesNotifiee zeroRefs_{this};
};

// A root's own collections report to the root's handler.
inline auto corruptionReporter(const ShmRootBase& root) {
  return [&root](const std::string& m) { root.handleCorruption(m); };
}

// writeOrStop for a write in a collection of `owner` (a root, or a nested entity).
template <class Owner, class Write>
requires(!std::invocable<const Owner&, std::string>) decltype(auto)
    writeOrStop(const char* operation, std::string_view collection, const Owner& owner,
                Write&& write) {
  return writeOrStop(operation, collection, corruptionReporter(owner), std::forward<Write>(write));
}

// The keys of a collection of `owner`, for a DelAll: a walk that meets damage is reported and
// ends there (the removals that follow stop the process if they meet it too).
template <class Handle, class Owner>
std::vector<typename Handle::Key> keysOrReport(const Handle& h, const Owner& owner) {
  std::vector<typename Handle::Key> keys;
  try {
    for (auto it = h.begin(); it.valid(); it.next()) keys.push_back(it.key());
  } catch (const Oro::ShmCorruptionException& e) {
    corruptionReporter(owner)(e.what());
  }
  return keys;
}

// Registers a status root type with the entity directory, so that a directory mount can create
// it by type name. Creation there takes the root's name only (more arguments are refused by the
// directory); `factory` is the type's own factory function.
template <class Root>
bool registerStatusRootType(std::string_view typeName,
                            Oro::Ptr<Root> (*factory)(const std::string& name)) {
  Oro::EntityDirectory::global().registerType(
      std::string(typeName), 1, [factory](const std::vector<std::string>& args) {
        return Oro::Ptr<Oro::Entity>(factory(args.empty() ? std::string() : args[0]));
      });
  return true;
}

// The store layout of a root with one value collection described by Traits.
template <class Traits>
Oro::ShmStoreSchema singleCollectionSchema() {
  Oro::ShmCollectionSchema c;
  c.name = Traits::collection;
  c.typeName = Traits::recordTypeName;
  c.keyFingerprint = Oro::ShmImage<typename Traits::Key>::fingerprint;
  c.valueFingerprint = Traits::valueFingerprint;
  c.keyBytes = Oro::ShmImage<typename Traits::Key>::bytes;
  c.valueBytes = Traits::valueBytes;
  return Oro::ShmStoreSchema{Traits::typeName, {c}};
}

// The root with one keyed collection of records. Traits: Key, Record, the names (typeName,
// recordTypeName, traceName, dumpName, collection), attribute ids (recordAttr, controlAttr),
// keyOf, dumpRecord, and the record's stored value (valueBytes, valueFingerprint, writeValue,
// readRecord).
template <class Traits>
class ShmStatusRoot : public ShmRootBase {
  struct Coll {
    using Key = typename Traits::Key;
    using Record = typename Traits::Record;
    static constexpr uint32_t collection = 0;
    static constexpr uint32_t valueBytes = Traits::valueBytes;
    static constexpr bool blobs = false;
    static Key keyOf(const Record& r) { return Traits::keyOf(r); }
    static void writeValue(const Record& r, std::byte* out) { Traits::writeValue(r, out); }
    static Record readRecord(const Key& k, const std::byte* v, std::string_view) {
      return Traits::readRecord(k, v);
    }
    static std::string_view blobOf(const Record&) { return {}; }
  };

 public:
  using Key = typename Traits::Key;
  using Record = typename Traits::Record;
  using Values = Oro::ShmValues<Coll>;
  using Iterator = typename Values::Cursor;
  using Bookmark = typename Values::Bookmark;
  using ZeroReferencesNotifiee = ShmRootZeroReferencesNotifiee;

  static constexpr Oro::AttrId recordAttr = Traits::recordAttr;
  static constexpr Oro::AttrId controlAttr = Traits::controlAttr;

  explicit ShmStatusRoot(std::string name)
      : ShmRootBase(std::move(name), singleCollectionSchema<Traits>(), trace(),
                    Traits::controlAttr),
        values_(&binding(), 0, [this](const Key& k) { recordNotify(k); }) {}

  std::string_view typeName() const override { return Traits::typeName; }

  // Collection queries (lookups and walks may raise Oro::ShmCorruptionException).
  std::optional<Record> record(const Key& key) const { return values_.find(key); }
  size_t recordSize() const { return values_.size(); }
  Iterator recordIter() const { return values_.begin(); }
  Iterator recordIterAt(const Bookmark& b) const { return values_.at(b); }

  // Mutators.
  void recordIs(const Record& value);
  // The staging record of a direct write; fill it, then recordCommit(&recordDirectWrite()).
  Record& recordDirectWrite() { return staging_; }
  void recordCommit(const Record* value);
  Record recordDel(const Key& key);
  void recordDelAll();
  void recordNotify(const Key& key) {
    publishKey(recordAttr, key);
    counters(0).notify.inc();
  }

  const Oro::Ptr<TylKetab::CollectionControl>& recordControl() const { return control(); }
  void recordControlIs(Oro::Ptr<TylKetab::CollectionControl> c) { controlIs(std::move(c)); }
  void recordNotifyQuiesced(bool quiesced) { notifyQuiesced(quiesced); }
  void recordNotifyMountStatus() { notifyMountStatus(); }
  void recordHandleCorruption(const std::string& message) const { handleCorruption(message); }
  void recordCorruptionHandlerIs(std::function<void(const std::string&)> handler) {
    corruptionHandlerIs(std::move(handler));
  }

  const Values& values() const { return values_; }
  const Oro::Counter& isCounter() const { return counters(0).is; }
  const Oro::Counter& delCounter() const { return counters(0).del; }
  const Oro::Counter& notifyCounter() const { return counters(0).notify; }

  void dumpState(Oro::DumpContext& dc, int indent) const;

  static Oro::TraceHandle& trace() {
    static Oro::TraceHandle& handle = Oro::TraceHandle::immortal(Traits::traceName);
    return handle;
  }

 private:
  Values values_;
  Record staging_{};
};

// ---- implementation -------------------------------------------------------------------------

template <class Traits>
void ShmStatusRoot<Traits>::recordIs(const Record& value) {
  const auto held = holdForMutation();
  counters(0).is.inc();
  const Key key = Traits::keyOf(value);
  std::optional<Record> old;
  writeOrStop("write", Traits::collection, *this,
              [&] { values_.insert(value, oldValues() ? &old : nullptr); });
  // In old-value mode the pair is the change's one publication (subscribers that only want the
  // key get it from there); otherwise the key alone.
  if (oldValues()) {
    publishOldNew(recordAttr, key, old ? &*old : nullptr, &value);
  } else {
    publishKey(recordAttr, key);
  }
  counters(0).notify.inc();
}

template <class Traits>
void ShmStatusRoot<Traits>::recordCommit(const Record* value) {
  const auto held = holdForMutation();
  counters(0).is.inc();
  const Key key = Traits::keyOf(*value);
  writeOrStop("commit", Traits::collection, *this, [&] { values_.insert(*value); });
  publishKey(recordAttr, key);
  counters(0).notify.inc();
}

template <class Traits>
auto ShmStatusRoot<Traits>::recordDel(const Key& key) -> Record {
  const auto held = holdForMutation();
  counters(0).del.inc();
  Record removed;
  if (!writeOrStop("removal", Traits::collection, *this,
                   [&] { return values_.remove(key, &removed); })) {
    return Record();
  }
  if (oldValues()) {
    publishOldNew<Key, Record>(recordAttr, key, &removed, nullptr);
  } else {
    publishKey(recordAttr, key);
  }
  counters(0).notify.inc();
  return removed;
}

template <class Traits>
void ShmStatusRoot<Traits>::recordDelAll() {
  const auto held = holdForMutation();
  Iterator it;
  try {
    it = values_.begin();
  } catch (const Oro::ShmCorruptionException& e) {
    handleCorruption(e.what());
    return;
  }
  while (it.valid()) {
    const Key key = it.key();
    if (hasSubscribers()) {
      recordDel(key);
    } else {
      writeOrStop("removal", Traits::collection, *this, [&] { values_.remove(key); });
    }
    try {
      it.next();
    } catch (const Oro::ShmCorruptionException& e) {
      handleCorruption(e.what());
      return;
    }
  }
}

template <class Traits>
void ShmStatusRoot<Traits>::dumpState(Oro::DumpContext& dc, int indent) const {
  if (dc.postMortem()) {
    if (indent != 0) {
      dc.print("%*c%s not in core file\n", indent, ' ', Traits::dumpName);
    } else {
      dc.print("%s not in core file\n", Traits::dumpName);
    }
    return;
  }
  unsigned count = 0;
  try {
    count = static_cast<unsigned>(values_.size());
  } catch (const Oro::ShmCorruptionException& e) {
    handleCorruption(e.what());
  }
  if (indent != 0) {
    dc.print("%*c%s #%u:\n", indent, ' ', Traits::dumpName, count);
  } else {
    dc.print("%s #%u:\n", Traits::dumpName, count);
  }
  try {
    Oro::WalkOnce<Key> once(&binding());
    for (Iterator it = values_.begin(); it.valid(); it.next()) {
      if (!once.first(it.key())) continue;
      Traits::dumpRecord(dc, it.value(), indent + 2);
    }
  } catch (const Oro::ShmCorruptionException& e) {
    handleCorruption(e.what());
  }
}

}  // namespace Routing::Multicast
