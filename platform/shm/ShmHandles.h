// Typed handles of a shared-memory store's collections: ShmValues (keyed records) and
// ShmEntities (keyed child entities, which are process-local proxies owning handles of their
// own). A handle is bound to one collection and one parent entity (none at the top level).
//
// Writer (or detached): mutators change the store and publish the key in its change log.
// Reader: every change arrives through deliver(); the handle keeps the set of keys it has
// reported present (every lookup that finds a key and every walk that meets one adds it
// too), so that a resynchronisation reports keys that went away while the change log
// overran.
// Departure: when the owning entity leaves its store (removed by the writer, or gone for
// this reader) the handle keeps its members in process memory for whoever still holds the
// entity: the records on the writer's side, the keys reported so far on a reader's (their
// records are gone with the store's entity).
//
// Traits of a value collection:
//   using Key, Record;  static constexpr uint32_t collection;   // index in the store's schema
//   static Key keyOf(const Record&);
//   static constexpr uint32_t valueBytes; static constexpr uint64_t valueFingerprint;
//   static void writeValue(const Record&, std::byte* out);
//   static Record readRecord(const Key&, const std::byte* value, std::string_view blob);
//   static constexpr bool blobs; static std::string_view blobOf(const Record&);
// The key image is ShmImage<Key>.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <absl/cleanup/cleanup.h>
#include <absl/container/flat_hash_map.h>
#include <absl/hash/hash.h>

#include "platform/Hash.h"
#include "platform/runtime/Ptr.h"
#include "platform/shm/ShmBinding.h"
#include "platform/shm/ShmImage.h"
#include "platform/shm/ShmStore.h"

namespace Oro {

template <class K>
struct ShmKeyHash {
  size_t operator()(const K& k) const {
    if constexpr (requires { k.hash(kFixedHashSeed); }) {
      return k.hash(processHashSeed());
    } else {
      return absl::Hash<K>()(k);
    }
  }
};

// Key images of handles: the parent reference (nested collections) and the key's image.
// `words` has room for kShmKeyImageWords<Key>; the image takes store.keyWords(c) of them, and
// every word of that bound is written (zero where the image has no bytes).
template <class Key>
inline constexpr uint32_t kShmKeyImageWords = ShmLayout::kParentRefWords +
                                              ShmLayout::words(ShmImage<Key>::bytes);

template <class Key>
void shmKeyImage(const ShmStore& store, uint32_t c, uint64_t parent, const Key& key,
                 uint32_t* words) {
  static_assert(kShmKeyImageWords<Key> <= ShmLayout::kMaxKeyBytes / 4);
  std::memset(words, 0, 4 * kShmKeyImageWords<Key>);  // a constant size: no call
  uint32_t at = 0;
  if (store.nested(c)) {
    words[0] = static_cast<uint32_t>(parent);
    words[1] = static_cast<uint32_t>(parent >> 32);
    at = ShmLayout::kParentRefWords;
  }
  ShmImage<Key>::write(key, reinterpret_cast<std::byte*>(words + at));
}

// Where a walk resumes at a bookmark (`key`, read at `slot`): at that position when the walk
// knows one (the key there, or gone: the walk goes on after the place it had), else at the
// key's slot, or at `start` when the key is absent.
template <class Key>
uint32_t shmResumeSlot(const ShmStore& store, uint32_t c, uint64_t parent, const Key& key,
                       uint32_t slot, uint32_t start) {
  if (slot != ShmStore::kNoSlot) return slot;
  uint32_t k[ShmLayout::kMaxKeyBytes / 4];
  shmKeyImage(store, c, parent, key, k);
  const uint32_t found = store.find(c, k, nullptr);
  return found == ShmStore::kNoSlot ? start : found;
}

template <class Key>
Key shmKeyOf(const ShmStore& store, uint32_t c, const uint32_t* words) {
  return ShmImage<Key>::read(reinterpret_cast<const std::byte*>(
      words + (store.nested(c) ? ShmLayout::kParentRefWords : 0)));
}

template <class Traits>
class ShmValues : public ShmHandleBase {
 public:
  using Key = typename Traits::Key;
  using Record = typename Traits::Record;
  using OnKey = std::function<void(const Key&)>;
  static constexpr uint32_t kColl = Traits::collection;

  // Where a walk stopped: the next key to visit and where it was found. A bookmark made from
  // a key alone resumes at that key; when the key is gone, a store's order does not say where
  // it stood, and the walk starts again at the first member, so that no present one is
  // missed (a departed handle's walk, in key order, goes on at the next key).
  struct Bookmark {
    Key key{};
    uint32_t slot = ShmStore::kNoSlot;
    // A bookmark stands for its key: the slot is only where the walk found it.
    bool operator==(const Key& k) const { return key == k; }
  };

  // A walk in the store's order (slot order; a parent's page chain for nested members).
  // Reading may raise ShmCorruptionException.
  class Cursor {
   public:
    Cursor() = default;
    bool valid() const {
      return h_ != nullptr && (local_ ? it_ != h_->local_.end() : slot_ != ShmStore::kNoSlot);
    }
    const Key& key() const { return key_; }
    // The record at the key. A reader's collection that left its store keeps only the keys it
    // had reported, not their records: asking for one raises ShmCorruptionException.
    const Record& value() const {
      if (!hasValue_) throw ShmCorruptionException(kUnknownRecord);
      return value_;
    }
    Bookmark bookmark() const { return Bookmark{key_, slot_}; }
    void next() {
      if (!valid()) return;
      h_->checkReadable();
      if (local_) {
        it_ = h_->local_.upper_bound(key_);  // the current key may have been removed
        loadLocal();
      } else {
        step();
      }
    }

   private:
    friend class ShmValues;
    void seek(uint32_t from) {
      ShmStore::Record rec;
      slot_ = h_->firstSlot(from, &rec);
      if (slot_ != ShmStore::kNoSlot) met(rec);
    }
    void step() {
      ShmStore::Record rec;
      slot_ = h_->nextSlot(slot_, &rec);
      if (slot_ != ShmStore::kNoSlot) met(rec);
    }
    // A reader remembers every key a walk showed it: a key met this way may never be
    // notified (it was there before the handle was), yet its removal must still be told
    // when the parent goes.
    void met(const ShmStore::Record& rec) {
      h_->decode(rec, &key_, &value_);
      hasValue_ = true;
      if (h_->binding_->role() == ShmRole::reader) h_->known_.try_emplace(key_, h_->mark_);
    }
    void loadLocal() {
      if (it_ == h_->local_.end()) return;
      key_ = it_->first;
      hasValue_ = it_->second.has_value();
      value_ = hasValue_ ? *it_->second : Record();
    }
    const ShmValues* h_ = nullptr;
    bool local_ = false;
    uint32_t slot_ = ShmStore::kNoSlot;
    typename std::map<Key, std::optional<Record>>::const_iterator it_;
    Key key_{};
    Record value_{};
    bool hasValue_ = false;
  };

  ShmValues(ShmBinding* binding, uint64_t parent, OnKey onKey)
      : ShmHandleBase(binding, kColl, parent), onKey_(std::move(onKey)) {
    if (!binding) {
      departed_ = true;
    } else if (parent == 0) {
      binding->topIs(kColl, this);
    } else if (binding->role() == ShmRole::reader) {
      refreshVersion();
    }
  }
  ~ShmValues() override {
    if (binding_ && parent_ == 0 && !departed_) binding_->topIs(kColl, nullptr);
  }

  // A reader's collection that left its store knows the keys it reported, not their records:
  // those are absent once the entity left, but unknown (ShmCorruptionException) when the
  // reader lost its store while the entity may still be there.
  std::optional<Record> find(const Key& key) const {
    checkReadable();
    if (departed_) {
      auto it = local_.find(key);
      if (it == local_.end()) return std::nullopt;
      if (!it->second && unknown_) throw ShmCorruptionException(kUnknownRecord);
      return it->second;
    }
    uint32_t k[ShmLayout::kMaxKeyBytes / 4];
    ShmStore::Record rec;
    const ShmStore& s = binding_->store();
    shmKeyImage(s, kColl, parent_, key, k);
    if (s.find(kColl, k, &rec) == ShmStore::kNoSlot) return std::nullopt;
    Key found;
    Record value;
    decode(rec, &found, &value);
    if (binding_->role() == ShmRole::reader) known_.try_emplace(found, mark_);
    return value;
  }

  size_t size() const {
    checkReadable();
    if (departed_) return local_.size();
    const ShmStore& s = binding_->store();
    return parent_ == 0 ? s.count(kColl) : s.childCount(kColl, parent_);
  }
  // The change counter of a nested collection's members (advanced by every change). A
  // reader's is the counter as of the last change delivered to it (the writer may be ahead),
  // so that a subscriber that handled every delivered change has seen the counter it shows;
  // once the parent is gone from the store, the last counter read stays.
  uint32_t version() const {
    if (departed_ || parent_ == 0 || binding_->role() == ShmRole::reader) return localVersion_;
    refreshVersion();
    return localVersion_;
  }

  Cursor begin() const {
    checkReadable();
    Cursor c;
    c.h_ = this;
    if (departed_) {
      c.local_ = true;
      c.it_ = local_.begin();
      c.loadLocal();
    } else {
      c.seek(walkStart());
    }
    return c;
  }
  // Resumes where `b` was taken: the slot is where the walk stopped whatever happened to its
  // key since, so every record still at a later place is visited.
  Cursor at(const Bookmark& b) const {
    checkReadable();
    Cursor c;
    c.h_ = this;
    if (departed_) {
      c.local_ = true;
      c.it_ = local_.lower_bound(b.key);
      c.loadLocal();
    } else {
      c.seek(shmResumeSlot(binding_->store(), kColl, parent_, b.key, b.slot, walkStart()));
    }
    return c;
  }

  // Writer (or detached): insert or replace, publishing the key. `old` receives the record
  // replaced (none for a new key). Returns true for a new key.
  bool insert(const Record& r, std::optional<Record>* old = nullptr) {
    const Key key = Traits::keyOf(r);
    if (departed_) {
      auto [it, added] = local_.try_emplace(key, r);
      if (!added) {
        if (old) *old = it->second;
        it->second = r;
      } else if (old) {
        *old = std::nullopt;
      }
      ++localVersion_;
      return added;
    }
    binding_->assertWritable();
    ShmStore& s = binding_->store();
    uint32_t words[ShmStore::kMaxRecordWords];
    // Zeroed up to a bound known at compile time (a few stores rather than a call).
    constexpr uint32_t kBound = kShmKeyImageWords<Key> + ShmLayout::words(Traits::valueBytes) +
                                (Traits::blobs ? ShmLayout::kBlobRefWords : 0);
    static_assert(kBound <= ShmStore::kMaxRecordWords);
    std::memset(words, 0, 4 * kBound);
    shmKeyImage(s, kColl, parent_, key, words);
    Traits::writeValue(r, reinterpret_cast<std::byte*>(words + s.keyWords(kColl)));
    std::string_view blob;
    if constexpr (Traits::blobs) blob = Traits::blobOf(r);
    ShmStore::Record prev;
    const bool added = s.put(kColl, words, blob, old ? &prev : nullptr);
    binding_->publishKey(kColl, words);
    if (old) *old = added ? std::nullopt : std::optional<Record>(decodeReplaced(prev));
    return added;
  }

  // Writer (or detached): removes the key, publishing it when it was there.
  bool remove(const Key& key, Record* removed = nullptr) {
    if (departed_) {
      auto it = local_.find(key);
      if (it == local_.end()) return false;
      if (removed) *removed = it->second ? *it->second : Record();
      local_.erase(it);
      ++localVersion_;
      return true;
    }
    binding_->assertWritable();
    ShmStore& s = binding_->store();
    uint32_t words[ShmLayout::kMaxKeyBytes / 4];
    shmKeyImage(s, kColl, parent_, key, words);
    ShmStore::Record prev;
    if (!s.remove(kColl, words, &prev)) return false;
    binding_->publishKey(kColl, words);
    if (removed) *removed = decodeReplaced(prev);
    return true;
  }

  void onKeyIs(OnKey onKey) { onKey_ = std::move(onKey); }
  static constexpr const char* kUnknownRecord =
      "the record of a key is unknown: this reader kept only the keys it had reported";
  // The keys this reader has reported present (and not absent since).
  size_t knownKeys() const { return known_.size(); }

  // ---- ShmHandleBase ----
  void deliver(const uint32_t* keyWords, uint32_t seenSlot, uint32_t seenSeq) override {
    const ShmStore& s = binding_->store();
    const Key key = shmKeyOf<Key>(s, kColl, keyWords);
    if (parent_ != 0) refreshVersion();
    if (seenSlot != ShmStore::kNoSlot && s.unchanged(kColl, keyWords, seenSlot, seenSeq)) {
      // Still where this reader's walk found it, which put it among the known keys.
    } else if (s.find(kColl, keyWords, nullptr) != ShmStore::kNoSlot) {
      known_.try_emplace(key, mark_);
    } else {
      known_.erase(key);
    }
    if (onKey_) onKey_(key);
  }

  void resync(ShmResync& out) override {
    if (departed_) return;
    ++mark_;
    const ShmStore& s = binding_->store();
    if (parent_ == 0) known_.reserve(known_.size() + s.count(kColl));
    ShmStore::Record rec;
    for (uint32_t slot = firstSlot(walkStart(), &rec); slot != ShmStore::kNoSlot;
         slot = nextSlot(slot, &rec)) {
      known_.insert_or_assign(shmKeyOf<Key>(s, kColl, rec.words), mark_);
      out.add(kColl, rec.words, slot, rec.seq);
    }
    uint32_t k[ShmLayout::kMaxKeyBytes / 4];
    for (const auto& [key, mark] : known_) {
      if (mark == mark_) continue;
      shmKeyImage(s, kColl, parent_, key, k);
      out.add(kColl, k);
    }
  }

  void depart(bool storeLost) override {
    if (departed_) return;
    local_.clear();
    if (binding_->role() == ShmRole::reader) {
      for (const auto& [key, mark] : known_) local_.emplace(key, std::nullopt);
      unknown_ = storeLost;
    } else {
      // The records as the store has them now; a damaged store gives what could be read.
      const bool faulty = faulty_;
      faulty_ = false;
      try {
        for (Cursor c = begin(); c.valid(); c.next()) local_.emplace(c.key(), c.value());
      } catch (const ShmCorruptionException&) {
      }
      faulty_ = faulty;
    }
    if (parent_ != 0 && binding_->role() != ShmRole::reader) {
      try {
        refreshVersion();
      } catch (const ShmCorruptionException&) {
      }
    }
    if (parent_ == 0) binding_->topIs(kColl, nullptr);
    known_.clear();
    departed_ = true;
  }

  void forgetStore() override {
    if (departed_ || binding_->role() != ShmRole::detached) return;
    // Attaching as a reader: the records held so far are dropped, their keys reported.
    for (Cursor c = begin(); c.valid(); c.next()) known_.try_emplace(c.key(), mark_);
  }

 private:
  void refreshVersion() const {
    if (auto v = binding_->store().childVersion(kColl, parent_)) localVersion_ = *v;
  }
  void decode(const ShmStore::Record& rec, Key* key, Record* value) const {
    const ShmStore& s = binding_->store();
    *key = shmKeyOf<Key>(s, kColl, rec.words);
    *value = Traits::readRecord(
        *key, reinterpret_cast<const std::byte*>(rec.words + s.keyWords(kColl)), rec.blob);
  }
  // The record a write replaced or removed, for the writer's caller. The write is done and
  // published by then: a record someone else damaged is reported and handed back as a
  // default record rather than failing a write that took place.
  Record decodeReplaced(const ShmStore::Record& rec) const {
    Key k;
    Record v;
    try {
      decode(rec, &k, &v);
    } catch (const ShmCorruptionException& e) {
      binding_->handleCorruption(e.what());
      return Record();
    }
    return v;
  }

  OnKey onKey_;
  mutable absl::flat_hash_map<Key, uint32_t, ShmKeyHash<Key>> known_;
  uint32_t mark_ = 0;
  std::map<Key, std::optional<Record>> local_;
  mutable uint32_t localVersion_ = 0;
  bool unknown_ = false;  // departed with a store the reader lost (see find)
};

// Entity proxies: E is an Oro::Entity and ShmNode with
//   using Key;  static constexpr uint32_t collection;
//   static Oro::Ptr<E> make(ShmBinding* binding, uint64_t ref, const Key& key);
// (a null binding makes an entity in process memory; a bound one calls shmBind).
// ShmEntities keeps one proxy per member; a proxy registers with the binding while bound.
template <class E>
class ShmEntities : public ShmHandleBase {
 public:
  using Key = typename E::Key;
  using OnKey = std::function<void(const Key&)>;
  static constexpr uint32_t kColl = E::collection;
  struct Bookmark {  // as ShmValues::Bookmark
    Key key{};
    uint32_t slot = ShmStore::kNoSlot;
    bool operator==(const Key& k) const { return key == k; }
  };

  class Cursor {
   public:
    Cursor() = default;
    bool valid() const {
      return h_ != nullptr && (local_ ? it_ != h_->localOrder_.end() : slot_ != ShmStore::kNoSlot);
    }
    const Key& key() const { return key_; }
    // Null when the member left the store since the walk met it.
    Oro::Ptr<E> value() const { return local_ ? h_->find(key_) : h_->findAt(key_, slot_); }
    Bookmark bookmark() const { return Bookmark{key_, slot_}; }
    void next() {
      if (!valid()) return;
      h_->checkReadable();
      if (local_) {
        h_->refreshLocalOrder();
        it_ = std::upper_bound(h_->localOrder_.begin(), h_->localOrder_.end(), key_);
        if (it_ != h_->localOrder_.end()) key_ = *it_;
      } else {
        step();
      }
    }

   private:
    friend class ShmEntities;
    void seek(uint32_t from) {
      ShmStore::Record rec;
      slot_ = h_->firstSlot(from, &rec);
      if (slot_ != ShmStore::kNoSlot) key_ = shmKeyOf<Key>(h_->binding_->store(), kColl, rec.words);
    }
    void step() {
      ShmStore::Record rec;
      slot_ = h_->nextSlot(slot_, &rec);
      if (slot_ != ShmStore::kNoSlot) key_ = shmKeyOf<Key>(h_->binding_->store(), kColl, rec.words);
    }
    const ShmEntities* h_ = nullptr;
    bool local_ = false;
    uint32_t slot_ = ShmStore::kNoSlot;
    typename std::vector<Key>::const_iterator it_;
    Key key_{};
  };

  ShmEntities(ShmBinding* binding, uint64_t parent, OnKey onKey)
      : ShmHandleBase(binding, kColl, parent), onKey_(std::move(onKey)) {
    if (!binding) {
      departed_ = true;
    } else if (parent == 0) {
      binding->topIs(kColl, this);
    }
  }
  ~ShmEntities() override {
    if (binding_ && parent_ == 0 && !departed_) binding_->topIs(kColl, nullptr);
    // A proxy held elsewhere keeps its members in process memory. One held by this handle
    // alone goes with it: copying its members out first would be wasted.
    for (auto& [key, e] : members_) {
      if (e->refs() > 1) e->shmDepart();
    }
  }

  // The member proxy of `key`, null when absent (a reader's lookup of a present member
  // creates its proxy).
  Oro::Ptr<E> find(const Key& key) const {
    checkReadable();
    if (withheld_ && *withheld_ == key) return nullptr;
    auto it = members_.find(key);
    // A held proxy answers. A writer's is removed with its entity. A reader's stays until the
    // entity's departure is delivered, however soon the writer removed it: whoever was told
    // of the entity keeps finding it until told otherwise, and it departs listing every
    // member it showed (the store's copy of them is gone by then).
    if (it != members_.end()) return it->second;
    if (departed_) return nullptr;
    const ShmStore& s = binding_->store();
    uint32_t k[ShmLayout::kMaxKeyBytes / 4];
    shmKeyImage(s, kColl, parent_, key, k);
    const uint32_t slot = s.find(kColl, k, nullptr);
    if (slot == ShmStore::kNoSlot) return nullptr;
    const uint64_t ref = s.refOf(kColl, slot);
    // An entity with no proxy yet: one a reader was not told of yet, or one a writer found in
    // a store it took over.
    Oro::Ptr<E> e = E::make(binding_, ref, key);
    memberAdd(key, e);
    return e;
  }
  // find(key) for the key a walk met at `slot`: the proxy listed under the slot answers when
  // it is bound to the entity there now (a ref names the slot and its generation, so the
  // entity, and with it the key, is the same), without hashing the key.
  Oro::Ptr<E> findAt(const Key& key, uint32_t slot) const {
    if (!departed_ && !withheld_) {
      // A walk goes up the slots: the next proxy is fetched while this member is handled.
      if (E* next = listedAt(slot + 1)) __builtin_prefetch(next);
      E* e = listedAt(slot);
      if (e && e->shmBinding() == binding_ && e->shmRef() == binding_->store().refOf(kColl, slot)) {
        checkReadable();
        return Oro::Ptr<E>(e);
      }
    }
    return find(key);
  }
  bool contains(const Key& key) const { return find(key) != nullptr; }

  // The records of nested collection `c` over every member: the store counts them all at once.
  // Members kept in process memory (the handle departed) are counted one by one.
  size_t nestedTotal(uint32_t c, size_t (E::*memberSize)() const) const {
    checkReadable();
    if (!departed_) return binding_->store().count(c);
    size_t total = 0;
    for (const auto& [key, e] : members_) total += ((*e).*memberSize)();
    return total;
  }

  size_t size() const {
    checkReadable();
    if (departed_) return members_.size();
    const ShmStore& s = binding_->store();
    return parent_ == 0 ? s.count(kColl) : s.childCount(kColl, parent_);
  }

  Cursor begin() const {
    checkReadable();
    Cursor c;
    c.h_ = this;
    if (departed_) {
      refreshLocalOrder();
      c.local_ = true;
      c.it_ = localOrder_.begin();
      if (c.it_ != localOrder_.end()) c.key_ = *c.it_;
    } else {
      c.seek(walkStart());
    }
    return c;
  }
  Cursor at(const Bookmark& b) const {
    checkReadable();
    Cursor c;
    c.h_ = this;
    if (departed_) {
      refreshLocalOrder();
      c.local_ = true;
      c.it_ = std::lower_bound(localOrder_.begin(), localOrder_.end(), b.key);
      if (c.it_ != localOrder_.end()) c.key_ = *c.it_;
    } else {
      c.seek(shmResumeSlot(binding_->store(), kColl, parent_, b.key, b.slot, walkStart()));
    }
    return c;
  }

  // Writer (or detached): the member of `key`, created (and published) when absent; an
  // existing member is returned as it is, without a publication. `added`: whether it was
  // created.
  Oro::Ptr<E> insert(const Key& key, bool* added = nullptr) {
    if (added) *added = false;
    if (auto it = members_.find(key); it != members_.end()) return it->second;
    if (!departed_) {
      if (Oro::Ptr<E> e = find(key)) return e;
    }
    if (departed_) {
      Oro::Ptr<E> e = E::make(nullptr, 0, key);
      members_.emplace(key, e);
      if (added) *added = true;
      return e;
    }
    binding_->assertWritable();
    ShmStore& s = binding_->store();
    uint32_t words[ShmStore::kMaxRecordWords];
    std::memset(words, 0, 4 * size_t{s.recordWords(kColl)});
    shmKeyImage(s, kColl, parent_, key, words);
    s.put(kColl, words, {});
    const uint64_t ref = s.refOf(kColl, s.find(kColl, words, nullptr));
    Oro::Ptr<E> e;
    try {
      e = E::make(binding_, ref, key);
      memberAdd(key, e);
    } catch (...) {
      // No proxy (out of memory): the entity goes again rather than stay unannounced and
      // unreachable; a reader whose walk met it hears of the key and finds it gone.
      e = nullptr;
      members_.erase(key);
      s.remove(kColl, words, nullptr);
      binding_->publishKey(kColl, words);
      throw;
    }
    binding_->publishKey(kColl, words);
    if (added) *added = true;
    return e;
  }

  // Writer (or detached): removes the member (its proxy keeps its members in process memory
  // for whoever still holds it), publishing the key when it was there.
  bool remove(const Key& key) {
    auto it = members_.find(key);
    if (departed_) {
      if (it == members_.end()) return false;
      members_.erase(it);
      return true;
    }
    binding_->assertWritable();
    Oro::Ptr<E> e;
    if (it != members_.end()) {
      e = std::move(it->second);
      members_.erase(it);
      unlist(*e);
      e->shmDepart();  // before the store forgets its members
    }
    ShmStore& s = binding_->store();
    uint32_t words[ShmLayout::kMaxKeyBytes / 4];
    shmKeyImage(s, kColl, parent_, key, words);
    if (!s.remove(kColl, words, nullptr)) return e != nullptr;
    binding_->publishKey(kColl, words);
    return true;
  }

  void onKeyIs(OnKey onKey) { onKey_ = std::move(onKey); }
  // Room for n proxies: a writer expecting many entities pays for the growth of its maps up
  // front rather than in one long rehash (milliseconds at a hundred thousand entities).
  void reserve(size_t n) {
    members_.reserve(n);
    if (binding_) binding_->nodesReserve(kColl, n);
  }
  // Proxies alive in this process.
  size_t proxies() const { return members_.size(); }

  // ---- ShmHandleBase ----
  void deliver(const uint32_t* keyWords, uint32_t seenSlot, uint32_t seenSeq) override {
    ShmStore& s = binding_->store();
    const Key key = shmKeyOf<Key>(s, kColl, keyWords);
    const uint32_t slot =
        seenSlot != ShmStore::kNoSlot && s.unchanged(kColl, keyWords, seenSlot, seenSeq)
            ? seenSlot
            : s.find(kColl, keyWords, nullptr);
    auto it = members_.find(key);
    if (slot == ShmStore::kNoSlot) {
      if (it != members_.end()) {
        Oro::Ptr<E> gone = std::move(it->second);
        members_.erase(it);
        unlist(*gone);
        gone->shmDepart();
      }
      marks_.erase(key);  // told: a later resynchronisation has nothing to report of it
      // The writer may have created the key again since the look above; subscribers of
      // this change must still find it absent (the creation is a change of its own).
      tellAbsent(key);
      return;
    }
    const uint64_t ref = s.refOf(kColl, slot);
    if (it != members_.end() && (!it->second->shmBound() || it->second->shmRef() != ref)) {
      // Another entity under the same key: the old one is gone first (its subscribers see the
      // key absent), then the new one appears. A proxy that left a store the writer replaced
      // is another entity too, whatever reference the new store gives its key.
      Oro::Ptr<E> gone = std::move(it->second);
      members_.erase(it);
      unlist(*gone);
      gone->shmDepart();
      tellAbsent(key);
      // Delivered from the change log, the removal's entry is followed by the creation's (or
      // by a resynchronisation, should the log overrun): that one announces the new entity,
      // once. A walk's delivery has nothing after it and announces both here.
      if (seenSlot == ShmStore::kNoSlot) return;
      it = members_.end();
    }
    if (it == members_.end()) {
      memberAdd(key, E::make(binding_, ref, key));
      // The members of an entity met for the first time are reported after it.
      if (ShmReader* r = binding_->reader()) {
        ShmResync out = r->resyncQueue();
        members_.find(key)->second->forEachChild([&](ShmHandleBase& h) { h.resync(out); });
      }
    }
    if (onKey_) onKey_(key);
  }

  void resync(ShmResync& out) override {
    if (departed_) return;
    ++mark_;
    const ShmStore& s = binding_->store();
    ShmStore::Record rec;
    for (uint32_t slot = firstSlot(walkStart(), &rec); slot != ShmStore::kNoSlot;
         slot = nextSlot(slot, &rec)) {
      const Key key = shmKeyOf<Key>(s, kColl, rec.words);
      marks_[key] = mark_;
      out.add(kColl, rec.words, slot, rec.seq);
      // Members of an entity this reader holds a proxy for (the same entity) are resynchronised
      // with it; a new or replaced entity reports its members when it is delivered.
      auto it = members_.find(key);
      if (it != members_.end() && it->second->shmBound() &&
          it->second->shmRef() == s.refOf(kColl, slot)) {
        it->second->forEachChild([&](ShmHandleBase& h) { h.resync(out); });
      }
    }
    uint32_t k[ShmLayout::kMaxKeyBytes / 4];
    for (auto it = marks_.begin(); it != marks_.end();) {
      if (it->second != mark_) {
        shmKeyImage(s, kColl, parent_, it->first, k);
        out.add(kColl, k);
        if (!members_.contains(it->first)) {
          marks_.erase(it++);
          continue;
        }
      }
      ++it;
    }
    for (const auto& [key, e] : members_) {
      if (!marks_.contains(key)) {
        shmKeyImage(s, kColl, parent_, key, k);
        out.add(kColl, k);
      }
    }
  }

  void depart(bool storeLost) override {
    if (departed_) return;
    unlistAll();
    for (auto& [key, e] : members_) e->shmDepart(storeLost);
    if (parent_ == 0) binding_->topIs(kColl, nullptr);
    departed_ = true;
  }

  void forgetStore() override {
    // The proxies leave the store (they keep their members in process memory); their keys
    // stay known, so the first dispatch reports them.
    unlistAll();
    for (auto& [key, e] : members_) {
      e->shmDepart(/*storeLost=*/true);
      marks_[key] = mark_;
    }
  }

 private:
  void tellAbsent(const Key& key) {
    withheld_ = key;
    absl::Cleanup release = [this] { withheld_.reset(); };
    if (onKey_) onKey_(key);
  }
  // Every proxy in members_ listed under its slot (top-level handles of a store only; a
  // nested handle's members share the collection's slots with every other parent's), in
  // blocks made as slots are met, so that no listing ever copies or clears the whole list.
  // Invariant: the entry of slot e->listedSlot_ is e exactly while e is in members_ and listed.
  static constexpr uint32_t kListBlock = 4096;
  using ListBlock = std::array<E*, kListBlock>;
  E* listedAt(uint32_t slot) const {
    const size_t b = slot / kListBlock;
    return b < bySlot_.size() && bySlot_[b] ? (*bySlot_[b])[slot % kListBlock] : nullptr;
  }
  void memberAdd(const Key& key, const Oro::Ptr<E>& e) const {
    members_.emplace(key, e);
    if (parent_ != 0 || !e->shmBound()) return;
    const uint32_t slot = ShmLayout::refSlot(e->shmRef());
    const size_t b = slot / kListBlock;
    if (b >= bySlot_.size()) bySlot_.resize(b + 1);
    if (!bySlot_[b]) bySlot_[b] = std::make_unique<ListBlock>();  // value-initialised: nulls
    (*bySlot_[b])[slot % kListBlock] = e.get();
    e->listedSlot_ = slot;
  }
  void unlist(E& e) const {
    if (e.listedSlot_ == ShmLayout::kNoSlot) return;
    if (listedAt(e.listedSlot_) == &e) {
      (*bySlot_[e.listedSlot_ / kListBlock])[e.listedSlot_ % kListBlock] = nullptr;
    }
    e.listedSlot_ = ShmLayout::kNoSlot;
  }
  void unlistAll() const {
    for (auto& [key, e] : members_) e->listedSlot_ = ShmLayout::kNoSlot;
    bySlot_.clear();
  }
  void refreshLocalOrder() const {
    localOrder_.clear();
    for (const auto& [key, e] : members_) localOrder_.push_back(key);
    std::sort(localOrder_.begin(), localOrder_.end());
  }

  OnKey onKey_;
  mutable absl::flat_hash_map<Key, Oro::Ptr<E>, ShmKeyHash<Key>> members_;
  mutable std::vector<std::unique_ptr<ListBlock>> bySlot_;
  absl::flat_hash_map<Key, uint32_t, ShmKeyHash<Key>> marks_;
  uint32_t mark_ = 0;
  // The key whose departure is being delivered: lookups find it absent meanwhile.
  std::optional<Key> withheld_;
  mutable std::vector<Key> localOrder_;
};

}  // namespace Oro
