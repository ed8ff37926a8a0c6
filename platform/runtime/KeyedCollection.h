// An in-process keyed collection that entities embed (it is not an entity itself and
// publishes nothing). Keys are kept in ascending order of K's operator<=>, which is also
// the iteration order. changeCount() advances by one on every insert, replace and removal,
// so a reader can tell whether changes happened since it last looked.
//
// iterFrom(key) resumes an interrupted iteration: it starts at key, or at the first key
// after it when key has been removed in the meantime. Iterators are invalidated only by
// removal of the element they point at.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <utility>

namespace Oro {

template <class K, class V>
requires std::three_way_comparable<K>
class KeyedCollection {
  struct Less {
    bool operator()(const K& a, const K& b) const { return (a <=> b) < 0; }
  };
  using Map = std::map<K, V, Less>;

 public:
  using const_iterator = typename Map::const_iterator;
  using value_type = typename Map::value_type;

  // True when key was new.
  bool insertOrReplace(const K& key, V value) {
    ++changes_;
    return map_.insert_or_assign(key, std::move(value)).second;
  }
  // The removed value, or nothing when key was absent (which changes nothing).
  std::optional<V> remove(const K& key) {
    auto it = map_.find(key);
    if (it == map_.end()) return std::nullopt;
    std::optional<V> old(std::move(it->second));
    map_.erase(it);
    ++changes_;
    return old;
  }
  void clear() {
    changes_ += map_.size();
    map_.clear();
  }

  std::optional<V> lookup(const K& key) const {
    auto it = map_.find(key);
    if (it == map_.end()) return std::nullopt;
    return it->second;
  }
  const V* find(const K& key) const {
    auto it = map_.find(key);
    return it == map_.end() ? nullptr : &it->second;
  }
  bool contains(const K& key) const { return map_.find(key) != map_.end(); }

  size_t size() const { return map_.size(); }
  bool empty() const { return map_.empty(); }
  uint64_t changeCount() const { return changes_; }

  const_iterator begin() const { return map_.begin(); }
  const_iterator end() const { return map_.end(); }
  const_iterator iterFrom(const K& key) const { return map_.lower_bound(key); }

 private:
  Map map_;
  uint64_t changes_ = 0;
};

}  // namespace Oro
