// ShmStatusRoot<Traits>: the pattern of a status root whose one keyed collection lives in a
// shared-memory table (MvpnVrfStatus, MvpnIntfStatus are instances). Traits name the record
// and key types, the type and collection names, the attribute ids, the counter names and
// the dump line of a record.
//
// Writers mutate through recordIs / recordCommit / recordDel / recordDelAll; every mutation
// publishes one change of the collection attribute per key to the entity's subscribers, and
// the table carries it to every reader instance of the same table, whose scheduler then calls
// recordNotify for the key (which publishes it again there). Three counters count the
// mutators ("<coll>Is", "<coll>Del", "<coll>Notify"); while attached as writer they live in
// the table's header, where tools read them.
//
// Ownership: when the last outside reference goes, the zero-references notifiee hands the
// root to its collection-control object, which then keeps it alive (and releases it when the
// control itself goes).
//
// Corruption: a corrupt table met while writing, committing or removing is handed to the
// table's corruption handler, then the process stops (fatal assertion); met while walking
// (recordDelAll, dumps) it is handed to the handler and the walk ends quietly.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "platform/Assert.h"
#include "platform/shm/CollectionControl.h"
#include "platform/Counter.h"
#include "platform/DumpContext.h"
#include "platform/runtime/Entity.h"
#include "platform/runtime/EntityDirectory.h"
#include "platform/Error.h"
#include "platform/shm/ShmTable.h"
#include "platform/Trace.h"

namespace Routing::Multicast {

template <class Traits>
class ShmStatusRoot;

// Subscribed to its root; takes over when the root's last outside reference goes.
template <class Traits>
class ShmStatusRootZeroReferencesNotifiee : public Oro::Notifiee {
 public:
  explicit ShmStatusRootZeroReferencesNotifiee(ShmStatusRoot<Traits>* root) : root_(root) {}
  // Hands a reference to the root to its control object, clears the root's control
  // reference and unsubscribes. The root may be gone when this returns.
  void onZeroReferences();

 private:
  ShmStatusRoot<Traits>* root_;
};

template <class Traits>
class ShmStatusRoot : public Oro::Entity {
 public:
  using Key = typename Traits::Key;
  using Record = typename Traits::Record;
  using Table = Oro::ShmTable<Key, Record>;
  using Iterator = typename Table::Cursor;
  using Bookmark = typename Table::Bookmark;
  using ZeroReferencesNotifiee = ShmStatusRootZeroReferencesNotifiee<Traits>;

  static constexpr Oro::AttrId recordAttr = Traits::recordAttr;
  static constexpr Oro::AttrId controlAttr = Traits::controlAttr;

  explicit ShmStatusRoot(std::string name);
  ~ShmStatusRoot() override;

  std::string_view typeName() const override { return Traits::typeName; }
  const std::string& name() const { return name_; }

  // Collection queries (lookups and walks may raise Oro::ShmCorruptionException).
  std::optional<Record> record(const Key& key) const { return table_.find(key); }
  size_t recordSize() const { return table_.size(); }
  Iterator recordIter() const { return table_.begin(); }
  Iterator recordIterAt(const Bookmark& b) const { return table_.at(b); }

  // Mutators.
  void recordIs(const Record& value);
  // The staging record of a direct write; fill it, then recordCommit(&recordDirectWrite()).
  Record& recordDirectWrite() { return table_.directWrite(); }
  void recordCommit(const Record* value);
  Record recordDel(const Key& key);
  void recordDelAll();
  void recordNotify(const Key& key);

  // Collection control.
  const Oro::Ptr<TylKetab::CollectionControl>& recordControl() const { return control_; }
  void recordControlIs(Oro::Ptr<TylKetab::CollectionControl> control);
  void recordNotifyQuiesced(bool quiesced);
  void recordNotifyMountStatus();

  // Attaching the collection to its shared-memory table (how.mountPath is the root's mount
  // path; the table's collection is Traits::collection). handleParent is the entity tree's
  // hook for it.
  void mount(const Oro::ShmAttach& how);
  void handleParent(const Oro::ShmAttach& parent) { mount(parent); }
  void unmount();

  // Corruption reports of the table (see the header comment).
  void recordHandleCorruption(const std::string& message) const {
    table_.handleCorruption(message);
  }
  void recordCorruptionHandlerIs(std::function<void(const std::string&)> handler) {
    table_.corruptionHandlerIs(std::move(handler));
  }

  // Old-value delivery: subscribers also get (old, new) pairs on the writer's side.
  bool oldValues() const { return table_.oldValues(); }
  void oldValuesIs(bool v) { table_.oldValuesIs(v); }

  Table& table() { return table_; }
  const Table& table() const { return table_; }
  const Oro::Counter& isCounter() const { return isCount_; }
  const Oro::Counter& delCounter() const { return delCount_; }
  const Oro::Counter& notifyCounter() const { return notifyCount_; }
  ZeroReferencesNotifiee& zeroReferencesNotifiee() { return zeroRefs_; }
  // Subscribers other than the root's own zero-references notifiee.
  bool hasSubscribers() const { return notifieeCount() > (zeroRefs_.notifier() == this ? 1u : 0u); }

  void dumpState(Oro::DumpContext& dc, int indent) const;

  static Oro::TraceHandle& trace() {
    static Oro::TraceHandle handle(Traits::traceName);
    return handle;
  }

 protected:
  void onZeroReferences() override;

 private:
  friend class ShmStatusRootZeroReferencesNotifiee<Traits>;
  [[noreturn]] void corruptWrite(const char* operation, const Oro::ShmCorruptionException& e);
  void bindCounters();

  std::string name_;
  Table table_;
  Oro::Counter isCount_;
  Oro::Counter delCount_;
  Oro::Counter notifyCount_;
  Oro::Ptr<TylKetab::CollectionControl> control_;
  ZeroReferencesNotifiee zeroRefs_{this};
};

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

// ---- implementation -------------------------------------------------------------------

template <class Traits>
ShmStatusRoot<Traits>::ShmStatusRoot(std::string name)
    : name_(std::move(name)),
      table_(Traits::recordTypeName, Traits::collection,
             typename Table::Callbacks{[this](const Key& k) { recordNotify(k); },
                                       [this] { recordNotifyMountStatus(); },
                                       [this](bool q) { recordNotifyQuiesced(q); }}),
      isCount_(Traits::counterIs, name_),
      delCount_(Traits::counterDel, name_),
      notifyCount_(Traits::counterNotify, name_),
      control_(new TylKetab::CollectionControl()) {
  zeroRefs_.notifierIs(this);
}

template <class Traits>
ShmStatusRoot<Traits>::~ShmStatusRoot() {
  ORO_TRACE(trace(), 2, "deleting state");
  zeroRefs_.notifierIs(nullptr);
  isCount_.storageIs(nullptr);
  delCount_.storageIs(nullptr);
  notifyCount_.storageIs(nullptr);
}

template <class Traits>
void ShmStatusRoot<Traits>::corruptWrite(const char* operation,
                                         const Oro::ShmCorruptionException& e) {
  table_.handleCorruption(e.what());
  Oro::assertionFailed(fmt::format("{} of {} met a corrupt shared memory table: {}", operation,
                                   Traits::collection, e.what()),
                       __FILE__, __LINE__);
}

template <class Traits>
void ShmStatusRoot<Traits>::recordIs(const Record& value) {
  isCount_.inc();
  const Key key = Traits::keyOf(value);
  std::optional<Record> old;
  try {
    if (table_.oldValues()) {
      table_.insert(key, value, &old);
    } else {
      table_.insert(key, value);
    }
  } catch (const Oro::ShmCorruptionException& e) {
    corruptWrite("write", e);
  }
  if (table_.oldValues()) publishOldNew(recordAttr, key, old ? &*old : nullptr, &value);
  publishKey(recordAttr, key);
  notifyCount_.inc();
}

template <class Traits>
void ShmStatusRoot<Traits>::recordCommit(const Record* value) {
  isCount_.inc();
  const Key key = Traits::keyOf(*value);
  try {
    if (value != &table_.directWrite()) table_.directWrite() = *value;
    table_.commitDirect(key);
  } catch (const Oro::ShmCorruptionException& e) {
    corruptWrite("commit", e);
  }
  publishKey(recordAttr, key);
  notifyCount_.inc();
}

template <class Traits>
auto ShmStatusRoot<Traits>::recordDel(const Key& key) -> Record {
  delCount_.inc();
  Record removed;
  bool found = false;
  try {
    found = table_.remove(key, &removed);
  } catch (const Oro::ShmCorruptionException& e) {
    corruptWrite("removal", e);
  }
  if (!found) return Record();
  if (table_.oldValues()) publishOldNew<Key, Record>(recordAttr, key, &removed, nullptr);
  publishKey(recordAttr, key);
  notifyCount_.inc();
  return removed;
}

template <class Traits>
void ShmStatusRoot<Traits>::recordDelAll() {
  Iterator it;
  try {
    it = table_.begin();
  } catch (const Oro::ShmCorruptionException& e) {
    table_.handleCorruption(e.what());
    return;
  }
  while (it.valid()) {
    const Key key = it.key();
    if (hasSubscribers()) {
      recordDel(key);
    } else {
      try {
        table_.remove(key);
      } catch (const Oro::ShmCorruptionException& e) {
        corruptWrite("removal", e);
      }
    }
    try {
      it.next();
    } catch (const Oro::ShmCorruptionException& e) {
      table_.handleCorruption(e.what());
      return;
    }
  }
}

template <class Traits>
void ShmStatusRoot<Traits>::recordNotify(const Key& key) {
  publishKey(recordAttr, key);
  notifyCount_.inc();
}

template <class Traits>
void ShmStatusRoot<Traits>::recordControlIs(Oro::Ptr<TylKetab::CollectionControl> control) {
  if (control == control_) return;
  std::swap(control_, control);
  publish(controlAttr);
  // `control` (the old object) is released on return.
}

template <class Traits>
void ShmStatusRoot<Traits>::recordNotifyQuiesced(bool quiesced) {
  if (control_) control_->quiescedIs(quiesced);
}

template <class Traits>
void ShmStatusRoot<Traits>::recordNotifyMountStatus() {
  ORO_TRACE(trace(), 5, "{} mount status {}", table_.core().mountPath(),
            TylKetab::mountStatusName(table_.mountStatus()));
  if (control_) control_->mountStatusIs(table_.mountStatus());
}

template <class Traits>
void ShmStatusRoot<Traits>::bindCounters() {
  isCount_.storageIs(table_.counterSlot(0, Traits::counterIs));
  delCount_.storageIs(table_.counterSlot(1, Traits::counterDel));
  notifyCount_.storageIs(table_.counterSlot(2, Traits::counterNotify));
}

template <class Traits>
void ShmStatusRoot<Traits>::mount(const Oro::ShmAttach& how) {
  // Counters go back to the entity before the table's header may disappear.
  isCount_.storageIs(nullptr);
  delCount_.storageIs(nullptr);
  notifyCount_.storageIs(nullptr);
  table_.attach(how);
  bindCounters();
}

template <class Traits>
void ShmStatusRoot<Traits>::unmount() {
  isCount_.storageIs(nullptr);
  delCount_.storageIs(nullptr);
  notifyCount_.storageIs(nullptr);
  table_.detach();
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
  const unsigned count = static_cast<unsigned>(table_.size());
  if (indent != 0) {
    dc.print("%*c%s #%u:\n", indent, ' ', Traits::dumpName, count);
  } else {
    dc.print("%s #%u:\n", Traits::dumpName, count);
  }
  try {
    for (Iterator it = table_.begin(); it.valid(); it.next()) {
      Traits::dumpRecord(dc, it.value(), indent + 2);
    }
  } catch (const Oro::ShmCorruptionException& e) {
    table_.handleCorruption(e.what());
  }
}

template <class Traits>
void ShmStatusRoot<Traits>::onZeroReferences() {
  if (zeroRefs_.notifier() != this || !control_) {
    delete this;
    return;
  }
  zeroRefs_.onZeroReferences();
}

template <class Traits>
void ShmStatusRootZeroReferencesNotifiee<Traits>::onZeroReferences() {
  ShmStatusRoot<Traits>* root = root_;
  Oro::Ptr<TylKetab::CollectionControl> control = std::move(root->control_);
  notifierIs(nullptr);
  control->entityIs(Oro::Ptr<Oro::Entity>(root));
  // Dropping `control` here may release the last reference to the control, and with it the
  // root (and this notifiee): nothing below may touch either.
}

}  // namespace Routing::Multicast
