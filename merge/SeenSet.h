// The Seen set of a merge machine's output: the output keys written while reconciling. An
// open-addressing hash set (linear probing, power-of-two capacity) sized up front from the
// output's size, so that filling it during the merging scans does not stop a task for a
// rehash of a million keys, and dropping it frees two arrays instead of a million nodes.
//
// Invariants: at most half of the slots are used; T is default-constructible and copyable.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Routing::Multicast::DynaCode {

template <class T, class Hash>
class SeenSet {
 public:
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

  // Makes room for n keys without growing.
  void reserve(size_t n) {
    size_t capacity = 16;
    while (capacity < 2 * n) capacity *= 2;
    if (capacity > used_.size()) rehash(capacity);
  }

  // True when the key was not there yet.
  bool insert(const T& key) {
    if (2 * (size_ + 1) > used_.size()) rehash(used_.empty() ? 16 : 2 * used_.size());
    size_t pos = Hash()(key) & (used_.size() - 1);
    while (used_[pos]) {
      if (keys_[pos] == key) return false;
      pos = (pos + 1) & (used_.size() - 1);
    }
    used_[pos] = 1;
    keys_[pos] = key;
    ++size_;
    return true;
  }

  bool contains(const T& key) const {
    if (size_ == 0) return false;
    for (size_t pos = Hash()(key) & (used_.size() - 1); used_[pos];
         pos = (pos + 1) & (used_.size() - 1)) {
      if (keys_[pos] == key) return true;
    }
    return false;
  }

  // Empties the set and gives its memory back.
  void clear() {
    std::vector<T>().swap(keys_);
    std::vector<uint8_t>().swap(used_);
    size_ = 0;
  }

 private:
  void rehash(size_t capacity) {
    std::vector<T> keys(capacity);
    std::vector<uint8_t> used(capacity, 0);
    keys.swap(keys_);
    used.swap(used_);
    size_ = 0;
    for (size_t i = 0; i < used.size(); ++i) {
      if (used[i]) insert(keys[i]);
    }
  }

  std::vector<T> keys_;
  std::vector<uint8_t> used_;
  size_t size_ = 0;
};

}  // namespace Routing::Multicast::DynaCode
