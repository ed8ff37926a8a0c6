// ShmTable<K, V>: a store with one keyed collection of V records, the simplest use of the
// shared-memory entity store (tests, benchmarks, small tools). K and V are stored as their
// ShmImage; the store's root type is the table's type name.
//
// A table starts detached (records in process memory) and is attached as writer (creating,
// taking over or recreating the shared store, copying its records in) or as reader (mapping
// the store read-only; its scheduler then calls onKey for every changed key).
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "platform/shm/ShmBinding.h"
#include "platform/shm/ShmHandles.h"
#include "platform/shm/ShmImage.h"

namespace Oro {

template <class K, class V>
class ShmTable {
  struct Coll {
    using Key = K;
    struct Record {
      K key;
      V value;
    };
    static constexpr uint32_t collection = 0;
    static constexpr bool blobs = false;
    static constexpr uint32_t valueBytes = ShmImage<V>::bytes;
    static constexpr uint64_t valueFingerprint = ShmImage<V>::fingerprint;
    static K keyOf(const Record& r) { return r.key; }
    static void writeValue(const Record& r, std::byte* out) { ShmImage<V>::write(r.value, out); }
    static Record readRecord(const K& k, const std::byte* v, std::string_view) {
      return Record{k, ShmImage<V>::read(v)};
    }
    static std::string_view blobOf(const Record&) { return {}; }
  };
  using Values = ShmValues<Coll>;

 public:
  struct Callbacks {
    std::function<void(const K&)> onKey = {};
    std::function<void()> onMountStatus = {};
    std::function<void(bool)> onQuiesced = {};
  };
  using Bookmark = typename Values::Bookmark;

  class Cursor {
   public:
    Cursor() = default;
    bool valid() const { return c_.valid(); }
    const K& key() const { return c_.key(); }
    const V& value() const { return c_.value().value; }
    Bookmark bookmark() const { return c_.bookmark(); }
    void next() { c_.next(); }

   private:
    friend class ShmTable;
    explicit Cursor(typename Values::Cursor c) : c_(std::move(c)) {}
    typename Values::Cursor c_;
  };

  static ShmStoreSchema schema(const std::string& typeName, const std::string& collection) {
    ShmCollectionSchema c;
    c.name = collection;
    c.typeName = typeName;
    c.keyFingerprint = ShmImage<K>::fingerprint;
    c.valueFingerprint = ShmImage<V>::fingerprint;
    c.keyBytes = ShmImage<K>::bytes;
    c.valueBytes = ShmImage<V>::bytes;
    return ShmStoreSchema{typeName, {c}};
  }

  ShmTable(const std::string& typeName, const std::string& collection, Callbacks cb)
      : callbacks_(std::move(cb)),
        binding_(schema(typeName, collection), ShmBinding::Callbacks{[this] {
                                                                       if (callbacks_.onMountStatus)
                                                                         callbacks_.onMountStatus();
                                                                     },
                                                                     [this](bool q) {
                                                                       if (callbacks_.onQuiesced)
                                                                         callbacks_.onQuiesced(q);
                                                                     }}),
        values_(&binding_, 0, [this](const K& k) {
          if (callbacks_.onKey) callbacks_.onKey(k);
        }) {}

  void attach(const ShmAttach& how) { binding_.attach(how); }
  void detach() { binding_.detach(); }
  bool attached() const { return binding_.attached(); }
  ShmRole role() const { return binding_.role(); }

  bool insert(const K& k, const V& v) { return values_.insert({k, v}); }
  // Insert or replace, handing back the replaced value (none for a new key).
  bool insert(const K& k, const V& v, std::optional<V>* old) {
    std::optional<typename Coll::Record> prev;
    const bool added = values_.insert({k, v}, &prev);
    if (old) *old = prev ? std::optional<V>(prev->value) : std::nullopt;
    return added;
  }
  bool remove(const K& k, V* removed = nullptr) {
    typename Coll::Record r{};
    const bool found = values_.remove(k, &r);
    if (found && removed) *removed = r.value;
    return found;
  }
  void mountStatusIs(TylKetab::MountStatus s) { binding_.mountStatusIs(s); }
  void quiescedIs(bool q) { binding_.quiescedIs(q); }

  std::optional<V> find(const K& k) const {
    auto r = values_.find(k);
    if (!r) return std::nullopt;
    return r->value;
  }
  size_t size() const { return values_.size(); }
  Cursor begin() const { return Cursor(values_.begin()); }
  Cursor at(const Bookmark& b) const { return Cursor(values_.at(b)); }
  TylKetab::MountStatus mountStatus() const { return binding_.mountStatus(); }
  bool quiesced() const { return binding_.quiesced(); }
  std::atomic<uint64_t>* counterSlot(uint32_t index, std::string_view name) {
    return binding_.counterSlot(index, name);
  }
  void corruptionHandlerIs(std::function<void(const std::string&)> h) {
    binding_.corruptionHandlerIs(std::move(h));
  }
  void handleCorruption(const std::string& message) const { binding_.handleCorruption(message); }

  ShmBinding& binding() { return binding_; }
  const ShmBinding& binding() const { return binding_; }
  ShmReader* reader() const { return binding_.reader(); }
  const ShmStore& store() const { return binding_.store(); }
  size_t knownKeys() const { return values_.knownKeys(); }

 private:
  Callbacks callbacks_;
  ShmBinding binding_;
  Values values_;
};

}  // namespace Oro
